#include <nbase/network/nnetworkping.h>

#include "nbase/network/nrunnertest.h"
#include "support/nregisteredtimers.h"
#include "support/ntestwait.h"

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <functional>
#include <limits>

namespace {

const char* const Answer = "echo '64 bytes from 10.0.0.1: icmp_seq=1 ttl=64 time=0.123 ms'";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QStringList list(const char* entries)
{
    return text(entries).split(QLatin1Char(','));
}

} // namespace

/** Records the signals of a runner, and does something inside them. */
class NPingRecorder : public QObject
{
    Q_OBJECT

public:
    explicit NPingRecorder(NNetworkPing* ping)
    {
        connect(
            ping, SIGNAL(started(QString,quint32,quint32,quint32)),
                         SLOT(takeStarted(QString,quint32,quint32,quint32)));
        connect(
            ping, SIGNAL(pingResult(bool,quint32,quint32,quint32,quint32,quint32,quint32,quint32)),
                         SLOT(takeResult(bool,quint32,quint32,quint32,quint32,quint32,quint32,quint32)));
        connect(ping, SIGNAL(stopped()), SLOT(takeStopped()));
    }

    int count(const char* name) const { return events.filter(QRegExp(text("^") + text(name))).size(); }

    QStringList events;
    std::function<void(const QString&)> onEvent;

private slots:
    void takeStarted(const QString& host, quint32 count, quint32 timeout, quint32 delay)
    {
        record(text("started %1 %2 %3 %4").arg(host).arg(count).arg(timeout).arg(delay));
    }

    void takeResult(
        bool good, quint32 ttl, quint32 replyTime, quint32 sentNb, quint32 goodNb, quint32 fastest,
        quint32 slowest, quint32 meanTime)
    {
        record(text("%1 %2 %3 %4/%5 %6 %7 %8")
                   .arg(text(good ? "good" : "bad"))
                   .arg(ttl)
                   .arg(replyTime)
                   .arg(goodNb)
                   .arg(sentNb)
                   .arg(fastest)
                   .arg(slowest)
                   .arg(meanTime));
    }

    void takeStopped() { record(text("stopped")); }

private:
    void record(const QString& event)
    {
        events.append(event);
        if (onEvent)
            onEvent(event);
    }
};

class tst_NNetworkPing : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void valuesAreZeroBeforeTheFirstStart();
    void commandGetsOneEchoTheTimeoutAndTheHost_data();
    void commandGetsOneEchoTheTimeoutAndTheHost();
    void startHasDefaultsAndRunsUntilStopped();
    void startPingGivesARunnerWithoutParent();
    void replyIsReadFromTheOutput_data();
    void replyIsReadFromTheOutput();
    void exitStatusDecidesWhetherAPingIsGood_data();
    void exitStatusDecidesWhetherAPingIsGood();
    void statisticsCoverAllPings();
    void firstGoodPingWithoutTimeLeavesFastestZero();
    void countEndsTheRun();
    void startAfterTheEndResetsTheStatistics();
    void delayRunsFromStartToStart();
    void slowPingIsFollowedAtOnce();
    void delayBeyondTheTimerIsTheLongest_data();
    void delayBeyondTheTimerIsTheLongest();
    void missingCommandCountsAsBad();
    void missingCommandCanBeStoppedAndRestarted();
    void failureOfAReplacedRunIsNotCounted();
    void stopOfAnIdleRunnerEmitsNothing();
    void stopEndsTheCommandBeforeItReturns();
    void stopBetweenTwoPings();
    void restartReplacesTheRun();
    void destructorEndsTheCommand();
    void receiversMayChangeTheRunner_data();
    void receiversMayChangeTheRunner();
    void manyRunsLeaveNothing();
    void commandEndsWithTheKilledProgram();
    void realCommandReachesTheLoopback();

private:
    QScopedPointer<NFakeCommand> m_command;
    int m_descriptors;
};

// Qt opens a pipe for the signals of children when the first one is started.
void tst_NNetworkPing::initTestCase()
{
    QProcess::execute(text("/bin/true"), QStringList());
}

void tst_NNetworkPing::init()
{
    m_descriptors = NTest::descriptorCount();
    m_command.reset(); // after a failure; it restores the search path
    m_command.reset(new NFakeCommand("ping"));
    m_command->setScript(Answer);
}

void tst_NNetworkPing::cleanup()
{
    NTest::deleteDeferred();
    QVERIFY(!NTest::hasChild());
    QVERIFY(!m_command->isAnyRunning());
    QCOMPARE(NTest::descriptorCount(), m_descriptors);
    m_command.reset();
}

void tst_NNetworkPing::valuesAreZeroBeforeTheFirstStart()
{
    QObject parent;
    const NNetworkPing* const ping = new NNetworkPing(&parent);
    QVERIFY(ping->parent() == &parent);
    QCOMPARE(ping->host(), QString());
    QCOMPARE(ping->count(), 0u);
    QCOMPARE(ping->timeout(), 0u);
    QCOMPARE(ping->delay(), 0u);
    QVERIFY(!ping->isRunning());
    QVERIFY(!ping->isGood());
    QCOMPARE(ping->ttl(), 0u);
    QCOMPARE(ping->replyTime(), 0u);
    QCOMPARE(ping->sentNb(), 0u);
    QCOMPARE(ping->goodNb(), 0u);
    QCOMPARE(ping->fastest(), 0u);
    QCOMPARE(ping->slowest(), 0u);
    QCOMPARE(ping->meanTime(), 0u);
}

void tst_NNetworkPing::commandGetsOneEchoTheTimeoutAndTheHost_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<quint32>("timeout");
    QTest::addColumn<QByteArray>("arguments");
    QTest::newRow("address") << text("10.0.0.1") << 5u << QByteArray("|-c1|-W5|10.0.0.1");
    QTest::newRow("name") << text("a.example") << 1u << QByteArray("|-c1|-W1|a.example");
    QTest::newRow("no timeout") << text("h") << 0u << QByteArray("|-c1|-W0|h");
    QTest::newRow("longest timeout") << text("h") << 4294967295u << QByteArray("|-c1|-W4294967295|h");
    QTest::newRow("blanks") << text("a -f b") << 5u << QByteArray("|-c1|-W5|a -f b");
    QTest::newRow("leading blank") << text(" -f") << 5u << QByteArray("|-c1|-W5| -f");
    QTest::newRow("quotes") << text("\"a\" 'b'") << 5u << QByteArray("|-c1|-W5|\"a\" 'b'");
    QTest::newRow("shell") << text("$(x);`y`&") << 5u << QByteArray("|-c1|-W5|$(x);`y`&");
    QTest::newRow("empty") << text("") << 5u << QByteArray("|-c1|-W5|");
    QTest::newRow("option") << text("-f") << 5u << QByteArray("|-c1|-W5|--|-f");
    QTest::newRow("long option") << text("--help") << 5u << QByteArray("|-c1|-W5|--|--help");
    QTest::newRow("end of options") << text("--") << 5u << QByteArray("|-c1|-W5|--|--");
    QTest::newRow("hyphen") << text("-") << 5u << QByteArray("|-c1|-W5|--|-");
    QTest::newRow("placeholder") << text("%1%2") << 5u << QByteArray("|-c1|-W5|%1%2");
}

void tst_NNetworkPing::commandGetsOneEchoTheTimeoutAndTheHost()
{
    QFETCH(QString, host);
    QFETCH(quint32, timeout);
    QFETCH(QByteArray, arguments);
    NNetworkPing ping(nullptr);
    ping.start(host, 1, timeout, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(m_command->calls(), QList<QByteArray>() << arguments);
}

void tst_NNetworkPing::startHasDefaultsAndRunsUntilStopped()
{
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    QMetaObject::invokeMethod(&ping, "start", Q_ARG(QString, text("h")));
    QCOMPARE(recorder.events, list("started h 0 5 1"));
    QCOMPARE(ping.host(), text("h"));
    QCOMPARE(ping.count(), 0u);
    QCOMPARE(ping.timeout(), 5u);
    QCOMPARE(ping.delay(), 1u);
    QVERIFY(ping.isRunning());
    for (int number = 1; number <= 5; ++number) {
        NTRY_VERIFY(recorder.count("good") >= number);
        NTest::fireTimer(ping.findChild<QTimer*>());
    }
    ping.stop();
    QVERIFY(!ping.isRunning());
    QCOMPARE(recorder.events.last(), text("stopped"));
    QCOMPARE(recorder.count("stopped"), 1);
}

void tst_NNetworkPing::startPingGivesARunnerWithoutParent()
{
    const QScopedPointer<NNetworkPing> ping(NNetworkPing::startPing(text("h"), 2, 3, 0));
    QVERIFY(!ping->parent());
    QVERIFY(ping->isRunning());
    QCOMPARE(ping->host(), text("h"));
    QCOMPARE(ping->count(), 2u);
    QCOMPARE(ping->timeout(), 3u);
    QCOMPARE(ping->delay(), 0u);
    NTRY_VERIFY(!ping->isRunning());
    QCOMPARE(ping->sentNb(), 2u);
}

void tst_NNetworkPing::replyIsReadFromTheOutput_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<quint32>("ttl");
    QTest::addColumn<quint32>("time");
    QTest::newRow("line") << QByteArray("64 bytes from 10.0.0.1: icmp_seq=1 ttl=64 time=0.123 ms\\n") << 64u
                          << 123u;
    QTest::newRow("in its surroundings")
        << QByteArray("PING h: 56 data bytes\\n64 bytes: seq=0 ttl=255 time=12.034 ms\\n\\n--- statistics\\n")
        << 255u << 12034u;
    QTest::newRow("without line end") << QByteArray("ttl=1 time=1.000 ms") << 1u << 1000u;
    QTest::newRow("no time at all") << QByteArray("ttl=64 time=0.000 ms") << 64u << 0u;
    QTest::newRow("leading zeros") << QByteArray("ttl=064 time=007.008 ms") << 64u << 7008u;
    QTest::newRow("duplicate") << QByteArray("ttl=64 time=0.100 ms\\nttl=63 time=0.200 ms (DUP!)\\n") << 64u
                               << 100u;
    QTest::newRow("invalid bytes") << QByteArray("\\377\\376 ttl=64 time=0.123 ms \\200") << 64u << 123u;
    QTest::newRow("text after NUL") << QByteArray("ttl=64 time=0.123 ms\\000ttl=65 time=0.456 ms") << 64u << 123u;
    QTest::newRow("largest") << QByteArray("ttl=4294967295 time=4294967.295 ms") << 4294967295u << 4294967295u;
    QTest::newRow("nothing") << QByteArray("") << 0u << 0u;
    QTest::newRow("one decimal") << QByteArray("ttl=64 time=12.3 ms") << 0u << 0u;
    QTest::newRow("two decimals") << QByteArray("ttl=64 time=1.23 ms") << 0u << 0u;
    QTest::newRow("four decimals") << QByteArray("ttl=64 time=0.1234 ms") << 0u << 0u;
    QTest::newRow("no decimals") << QByteArray("ttl=64 time=123 ms") << 0u << 0u;
    QTest::newRow("comma") << QByteArray("ttl=64 time=0,123 ms") << 0u << 0u;
    QTest::newRow("seconds") << QByteArray("ttl=64 time=0.123 s") << 0u << 0u;
    QTest::newRow("less than") << QByteArray("ttl=64 time<0.123 ms") << 0u << 0u;
    QTest::newRow("capitals") << QByteArray("TTL=64 time=0.123 ms") << 0u << 0u;
    QTest::newRow("order") << QByteArray("time=0.123 ms ttl=64") << 0u << 0u;
    QTest::newRow("two blanks") << QByteArray("ttl=64  time=0.123 ms") << 0u << 0u;
    QTest::newRow("negative") << QByteArray("ttl=64 time=-0.123 ms") << 0u << 0u;
    QTest::newRow("after NUL") << QByteArray("x\\000ttl=64 time=0.123 ms") << 0u << 0u;
    QTest::newRow("superscript digits") << QByteArray("ttl=\\262 time=0.123 ms") << 0u << 0u;
    QTest::newRow("time too long") << QByteArray("ttl=64 time=4294967.296 ms") << 0u << 0u;
    QTest::newRow("time far too long") << QByteArray("ttl=64 time=99999999999999999999.123 ms") << 0u << 0u;
    QTest::newRow("ttl too large") << QByteArray("ttl=4294967296 time=0.123 ms") << 0u << 0u;
}

void tst_NNetworkPing::replyIsReadFromTheOutput()
{
    QFETCH(QByteArray, output);
    QFETCH(quint32, ttl);
    QFETCH(quint32, time);
    m_command->setScript("printf '" + output + "'");
    NNetworkPing ping(nullptr);
    ping.start(text("h"), 1, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QVERIFY(ping.isGood());
    QCOMPARE(ping.goodNb(), 1u);
    QCOMPARE(ping.ttl(), ttl);
    QCOMPARE(ping.replyTime(), time);
    QCOMPARE(ping.fastest(), time);
    QCOMPARE(ping.slowest(), time);
    QCOMPARE(ping.meanTime(), time);
}

void tst_NNetworkPing::exitStatusDecidesWhetherAPingIsGood_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("result");
    QTest::newRow("0") << QByteArray("exit 0") << text("good 64 123 1/1 123 123 123");
    QTest::newRow("1") << QByteArray("exit 1") << text("bad 0 0 0/1 0 0 0");
    QTest::newRow("2") << QByteArray("exit 2") << text("bad 0 0 0/1 0 0 0");
    QTest::newRow("255") << QByteArray("exit 255") << text("bad 0 0 0/1 0 0 0");
    QTest::newRow("killed") << QByteArray("kill -9 $$") << text("bad 0 0 0/1 0 0 0");
    QTest::newRow("terminated") << QByteArray("kill $$") << text("bad 0 0 0/1 0 0 0");
    QTest::newRow("error text") << QByteArray("echo ttl=1 time=9.999 ms >&2")
                                << text("good 64 123 1/1 123 123 123");
    QTest::newRow("long text")
        << QByteArray("i=0; while [ $i -lt 5000 ]; do echo 'a long line of text'; i=$((i + 1)); done")
        << text("good 64 123 1/1 123 123 123");
    QTest::newRow("closed output") << QByteArray("exec >&- 2>&-; exit 0") << text("good 64 123 1/1 123 123 123");
}

void tst_NNetworkPing::exitStatusDecidesWhetherAPingIsGood()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, result);
    m_command->setScript(Answer + QByteArray("\n") + script);
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 1, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.events, list("started h 1 5 0") << result << text("stopped"));
    QCOMPARE(ping.isGood(), result.startsWith(text("good")));
}

void tst_NNetworkPing::statisticsCoverAllPings()
{
    m_command->setScript("case $n in\n"
                         "1) echo ttl=64 time=0.300 ms;;\n"
                         "2) echo ttl=63 time=0.100 ms;;\n"
                         "3) echo ttl=1 time=9.999 ms; exit 1;;\n"
                         "4) echo ttl=62 time=1.5 ms;;\n"
                         "5) echo ttl=61 time=1.001 ms;;\n"
                         "6) echo ttl=60 time=4294967.295 ms;;\n"
                         "7) echo ttl=59 time=4294967.295 ms;;\n"
                         "esac");
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 7, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    // The mean is the sum of the times that were read, divided by the number of good pings, rounded down.
    QCOMPARE(
        recorder.events, list("started h 7 5 0,"
                              "good 64 300 1/1 300 300 300,"
                              "good 63 100 2/2 100 300 200,"
                              "bad 63 100 2/3 100 300 200,"
                              "good 63 100 3/4 100 300 133,"
                              "good 61 1001 4/5 100 1001 350,"
                              "good 60 4294967295 5/6 100 4294967295 858993739,"
                              "good 59 4294967295 6/7 100 4294967295 1431655998,"
                              "stopped"));
    QCOMPARE(ping.meanTime(), 1431655998u);
    QCOMPARE(ping.ttl(), 59u);
    QCOMPARE(ping.goodNb(), 6u);
    QCOMPARE(ping.sentNb(), 7u);
}

void tst_NNetworkPing::firstGoodPingWithoutTimeLeavesFastestZero()
{
    m_command->setScript("[ $n = 1 ] && echo ttl=64 time=1.5 ms || echo ttl=64 time=0.100 ms");
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 2, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.events, list("started h 2 5 0,good 0 0 1/1 0 0 0,good 64 100 2/2 0 100 50,stopped"));
}

void tst_NNetworkPing::countEndsTheRun()
{
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 3, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.count("good"), 3);
    QCOMPARE(recorder.count("stopped"), 1);
    QCOMPARE(recorder.events.last(), text("stopped"));
    QVERIFY(NTest::registeredTimers(ping.findChild<QTimer*>()).isEmpty());
    QCoreApplication::processEvents();
    QCOMPARE(m_command->callCount(), 3);
    QCOMPARE(recorder.events.size(), 5);
}

void tst_NNetworkPing::startAfterTheEndResetsTheStatistics()
{
    NNetworkPing ping(nullptr);
    ping.start(text("h"), 2, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QVERIFY(ping.isGood());
    NPingRecorder recorder(&ping);
    bool isReset = false;
    recorder.onEvent = [&](const QString& event) {
        if (event.startsWith(text("started")))
            isReset = ping.isRunning() && !ping.isGood() && ping.ttl() == 0 && ping.replyTime() == 0 &&
                      ping.sentNb() == 0 && ping.goodNb() == 0 && ping.fastest() == 0 && ping.slowest() == 0 &&
                      ping.meanTime() == 0 && ping.host() == text("i") && ping.count() == 1 &&
                      ping.timeout() == 6 && ping.delay() == 7;
    };
    ping.start(text("i"), 1, 6, 7);
    QVERIFY(isReset);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.events, list("started i 1 6 7,good 64 123 1/1 123 123 123,stopped"));
}

// The timer runs while the command does, and its end sends the next ping only if the command has ended.
void tst_NNetworkPing::delayRunsFromStartToStart()
{
    NNetworkPing ping(nullptr);
    ping.start(text("h"), 0, 5, 3600);
    QTimer* const timer = ping.findChild<QTimer*>();
    QCOMPARE(NTest::registeredTimers(timer).size(), 1);
    QCOMPARE(NTest::registeredTimers(timer).first().second, 3600 * 1000);
    NTRY_COMPARE(ping.sentNb(), 1u);
    QCOMPARE(NTest::registeredTimers(timer).size(), 1);
    QCOMPARE(m_command->callCount(), 1);

    QVERIFY(NTest::fireTimer(timer));
    QCOMPARE(NTest::registeredTimers(timer).size(), 1);
    NTRY_COMPARE(ping.sentNb(), 2u);
    QCOMPARE(m_command->callCount(), 2);
}

void tst_NNetworkPing::slowPingIsFollowedAtOnce()
{
    // Each call lasts until the test lets it end.
    m_command->setScript("while [ ! -e $directory/end$n ]; do /bin/sleep 0.01; done\n" + QByteArray(Answer));
    NNetworkPing ping(nullptr);
    ping.start(text("h"), 0, 5, 3600);
    NTRY_COMPARE(m_command->callCount(), 1);
    QTimer* const timer = ping.findChild<QTimer*>();
    QVERIFY(NTest::fireTimer(timer));
    QVERIFY(NTest::registeredTimers(timer).isEmpty());
    QCoreApplication::processEvents();
    QCOMPARE(m_command->callCount(), 1);
    QCOMPARE(ping.sentNb(), 0u);

    m_command->writeFile("end1");
    NTRY_COMPARE(ping.sentNb(), 1u);
    QCOMPARE(NTest::registeredTimers(timer).size(), 1);
    NTRY_COMPARE(m_command->callCount(), 2);
}

void tst_NNetworkPing::delayBeyondTheTimerIsTheLongest_data()
{
    QTest::addColumn<quint32>("delay");
    QTest::addColumn<int>("interval");
    QTest::newRow("longest") << 2147483u << 2147483000;
    QTest::newRow("one more") << 2147484u << std::numeric_limits<int>::max();
    QTest::newRow("overflow of 32 bits") << 4294968u << std::numeric_limits<int>::max();
    QTest::newRow("largest") << 4294967295u << std::numeric_limits<int>::max();
}

void tst_NNetworkPing::delayBeyondTheTimerIsTheLongest()
{
    QFETCH(quint32, delay);
    QFETCH(int, interval);
    NNetworkPing ping(nullptr);
    ping.start(text("h"), 0, 5, delay);
    QCOMPARE(ping.findChild<QTimer*>()->interval(), interval);
    QCOMPARE(ping.delay(), delay);
    NTRY_COMPARE(ping.sentNb(), 1u);
    QVERIFY(ping.findChild<QTimer*>()->isActive());
}

void tst_NNetworkPing::missingCommandCountsAsBad()
{
    m_command->remove();
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 3, 5, 0);
    QVERIFY(ping.isRunning());
    QCOMPARE(recorder.events, list("started h 3 5 0"));
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(
        recorder.events, list("started h 3 5 0,bad 0 0 0/1 0 0 0,bad 0 0 0/2 0 0 0,bad 0 0 0/3 0 0 0,stopped"));

    // The run continues when the command appears.
    recorder.events.clear();
    ping.start(text("h"), 2, 5, 3600);
    NTRY_COMPARE(ping.sentNb(), 1u);
    m_command->setScript(Answer);
    QVERIFY(NTest::fireTimer(ping.findChild<QTimer*>()));
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.events, list("started h 2 5 3600,bad 0 0 0/1 0 0 0,good 64 123 1/2 123 123 123,stopped"));
}

void tst_NNetworkPing::missingCommandCanBeStoppedAndRestarted()
{
    m_command->remove();
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 1, 5, 0);
    ping.stop();
    ping.start(text("i"), 2, 5, 0);
    ping.start(text("j"), 2, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(
        recorder.events, list("started h 1 5 0,stopped,started i 2 5 0,started j 2 5 0,"
                              "bad 0 0 0/1 0 0 0,bad 0 0 0/2 0 0 0,stopped"));
}

// The replaced run has failed, but its failure has not been processed.
void tst_NNetworkPing::failureOfAReplacedRunIsNotCounted()
{
    m_command->remove();
    NNetworkPing ping(nullptr);
    for (int number = 0; number < 3; ++number) {
        ping.start(text("h"), 0, 5, 3600);
        QVERIFY(!ping.findChild<QProcess*>()->waitForStarted());
        QCOMPARE(ping.sentNb(), 0u);
    }
    QCoreApplication::processEvents();
    QCOMPARE(ping.sentNb(), 1u);

    ping.start(text("h"), 0, 5, 3600);
    QVERIFY(!ping.findChild<QProcess*>()->waitForStarted());
    m_command->setScript(NEndlessScript);
    ping.start(text("i"), 0, 5, 3600);
    QVERIFY(ping.findChild<QProcess*>()->waitForStarted());
    QCoreApplication::processEvents();
    QCOMPARE(ping.sentNb(), 0u);
}

void tst_NNetworkPing::stopOfAnIdleRunnerEmitsNothing()
{
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.stop();
    QVERIFY(recorder.events.isEmpty());
    ping.start(text("h"), 1, 5, 0);
    NTRY_VERIFY(!ping.isRunning());
    recorder.events.clear();
    ping.stop();
    QVERIFY(recorder.events.isEmpty());
}

void tst_NNetworkPing::stopEndsTheCommandBeforeItReturns()
{
    m_command->setScript(NEndlessScript);
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    bool isGone = false;
    ping.start(text("h"), 0, 5, 0);
    NTRY_COMPARE(m_command->callCount(), 1);
    recorder.onEvent = [&](const QString&) { isGone = !m_command->isAnyRunning() && !ping.isRunning(); };
    ping.stop();
    QVERIFY(isGone);
    QVERIFY(!m_command->isAnyRunning());
    QVERIFY(!NTest::hasChild());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, list("started h 0 5 0,stopped"));
    QCOMPARE(ping.sentNb(), 0u);
}

void tst_NNetworkPing::stopBetweenTwoPings()
{
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 0, 5, 3600);
    NTRY_COMPARE(ping.sentNb(), 1u);
    ping.stop();
    QVERIFY(!ping.findChild<QTimer*>()->isActive());
    QCOMPARE(recorder.events, list("started h 0 5 3600,good 64 123 1/1 123 123 123,stopped"));
    // The results of the run remain.
    QVERIFY(ping.isGood());
    QCOMPARE(ping.sentNb(), 1u);
    QCOMPARE(ping.host(), text("h"));
}

void tst_NNetworkPing::restartReplacesTheRun()
{
    m_command->setScript("[ $n != 1 ] || " + QByteArray(NEndlessScript) + "\n" + Answer);
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("h"), 1, 5, 0);
    NTRY_COMPARE(m_command->callCount(), 1);
    const pid_t first = m_command->lastProcess();
    ping.start(text("i"), 1, 5, 0);
    QVERIFY(::kill(first, 0) != 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.events, list("started h 1 5 0,started i 1 5 0,good 64 123 1/1 123 123 123,stopped"));
}

void tst_NNetworkPing::destructorEndsTheCommand()
{
    m_command->setScript(NEndlessScript);
    QScopedPointer<NNetworkPing> ping(new NNetworkPing(nullptr));
    ping->start(text("h"));
    NPingRecorder recorder(ping.data());
    NTRY_COMPARE(m_command->callCount(), 1);
    ping.reset();
    QVERIFY(!m_command->isAnyRunning());
    QVERIFY(!NTest::hasChild());
    QVERIFY(recorder.events.isEmpty());
}

// In each signal, at its first emission, the receiver does something to the runner, which counts up to two.
void tst_NNetworkPing::receiversMayChangeTheRunner_data()
{
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QString>("action");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<int>("calls");
    const QString started = text("started");
    const QString result = text("good");
    const QString stopped = text("stopped");
    const QString stop = text("stop");
    const QString start = text("start");
    const QString stopAndStart = text("stop and start");
    const QString remove = text("delete");
    const QString one = text("good 64 123 1/1 123 123 123");
    const QString two = text("good 64 123 2/2 123 123 123");
    const QString first = text("started h 2 5 0");
    const QString again = text("started i 2 5 0");
    QTest::newRow("stop in started") << started << stop << (QStringList() << first << stopped) << 0;
    QTest::newRow("start in started") << started << start
                                      << (QStringList() << first << again << one << two << stopped) << 2;
    QTest::newRow("stop and start in started")
        << started << stopAndStart << (QStringList() << first << stopped << again << one << two << stopped) << 2;
    QTest::newRow("delete in started") << started << remove << QStringList(first) << 0;
    QTest::newRow("stop in result") << result << stop << (QStringList() << first << one << stopped) << 1;
    QTest::newRow("start in result") << result << start
                                     << (QStringList() << first << one << again << one << two << stopped) << 3;
    QTest::newRow("stop and start in result")
        << result << stopAndStart << (QStringList() << first << one << stopped << again << one << two << stopped)
        << 3;
    QTest::newRow("delete in result") << result << remove << (QStringList() << first << one) << 1;
    QTest::newRow("stop in stopped") << stopped << stop << (QStringList() << first << one << two << stopped) << 2;
    QTest::newRow("start in stopped") << stopped << start
                                      << (QStringList()
                                          << first << one << two << stopped << again << one << two << stopped)
                                      << 4;
    QTest::newRow("delete in stopped") << stopped << remove << (QStringList() << first << one << two << stopped)
                                       << 2;
}

void tst_NNetworkPing::receiversMayChangeTheRunner()
{
    QFETCH(QString, signal);
    QFETCH(QString, action);
    QFETCH(QStringList, events);
    QFETCH(int, calls);
    QPointer<NNetworkPing> ping(new NNetworkPing(nullptr));
    NPingRecorder recorder(ping);
    bool isDone = false;
    recorder.onEvent = [&](const QString& event) {
        if (isDone || !event.startsWith(signal))
            return;
        isDone = true;
        if (action.startsWith(text("stop")))
            ping->stop();
        if (action.endsWith(text("start")))
            ping->start(text("i"), 2, 5, 0);
        if (action == text("delete"))
            delete ping;
    };
    ping->start(text("h"), 2, 5, 0);
    NTRY_VERIFY(!ping || !ping->isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, events);
    QVERIFY(!NTest::hasChild());
    QCOMPARE(m_command->callCount(), calls);
    QCOMPARE(ping.isNull(), action == text("delete"));
    delete ping;
}

void tst_NNetworkPing::manyRunsLeaveNothing()
{
    m_command->setScript(NEndlessScript);
    NNetworkPing ping(nullptr);
    for (int number = 0; number < 20; ++number) {
        ping.start(text("h"), 0, 5, 0);
        if (number % 2 == 0)
            QCoreApplication::processEvents();
    }
    ping.stop();
    QVERIFY(!NTest::hasChild());
    NTest::deleteDeferred();
    // One timer and no process.
    QCOMPARE(ping.children().size(), 1);
}

void tst_NNetworkPing::commandEndsWithTheKilledProgram()
{
    m_command->setScript(NEndlessScript);
    QVERIFY(NTest::commandEndsWithKilledProgram(*m_command, "--ping-until-killed"));
}

void tst_NNetworkPing::realCommandReachesTheLoopback()
{
    qputenv("PATH", m_command->systemSearchPath());
    NNetworkPing ping(nullptr);
    NPingRecorder recorder(&ping);
    ping.start(text("127.0.0.1"), 3, 30, 0);
    NTRY_VERIFY(!ping.isRunning());
    QCOMPARE(recorder.count("good"), 3);
    QCOMPARE(ping.goodNb(), 3u);
    // On a busy machine the times have fewer decimals and are not read.
    QVERIFY(ping.ttl() > 0 || ping.replyTime() == 0);
    QVERIFY(ping.fastest() <= ping.slowest());

    // Each network of this name is invalid (RFC 6761), and so is a name that looks like an option.
    ping.start(text("host.invalid"), 1, 1, 0);
    NTRY_VERIFY(!ping.isRunning());
    QVERIFY(!ping.isGood());
    ping.start(text("-V"), 1, 1, 0);
    NTRY_VERIFY(!ping.isRunning());
    QVERIFY(!ping.isGood());
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "--ping-until-killed") == 0) {
        NNetworkPing ping(nullptr);
        ping.start(text("h"));
        return application.exec();
    }
    tst_NNetworkPing test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_nnetworkping.moc"
