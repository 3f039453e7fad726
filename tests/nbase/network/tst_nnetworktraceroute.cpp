#include <nbase/network/nnetworktraceroute.h>

#include "nbase/network/nrunnertest.h"
#include "support/ntestwait.h"

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <functional>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QStringList list(const char* entries)
{
    return text(entries).split(QLatin1Char(','));
}

const char* const Note = "\n[The text is longer than is kept here; the rest has been left out.]\n";

} // namespace

/** Records the signals of a runner, and does something inside them. */
class NTracerouteRecorder : public QObject
{
    Q_OBJECT

public:
    explicit NTracerouteRecorder(NNetworkTraceroute* traceroute)
    {
        connect(traceroute, SIGNAL(started(QString,bool)), SLOT(takeStarted(QString,bool)));
        connect(traceroute, SIGNAL(tracerouteResult(QString)), SLOT(takeResult(QString)));
        connect(traceroute, SIGNAL(stopped()), SLOT(takeStopped()));
    }

    QStringList events; ///< of the pieces of text, only the first of several in turn
    QString result;     ///< all pieces
    std::function<void(const QString&)> onEvent;

private slots:
    void takeStarted(const QString& host, bool printNames)
    {
        record(text("started %1 %2").arg(host, text(printNames ? "names" : "numbers")));
    }

    void takeResult(const QString& piece)
    {
        result += piece;
        record(text("text"));
    }

    void takeStopped() { record(text("stopped")); }

private:
    void record(const QString& event)
    {
        if (event != text("text") || events.isEmpty() || events.last() != event)
            events.append(event);
        if (onEvent)
            onEvent(event);
    }
};

class tst_NNetworkTraceroute : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void valuesAreEmptyBeforeTheFirstStart();
    void commandGetsTheHost_data();
    void commandGetsTheHost();
    void startTracerouteGivesARunnerWithoutParent();
    void textOfBothStreamsIsDelivered();
    void everyExitEndsTheRun_data();
    void everyExitEndsTheRun();
    void textIsReadUpToTheFirstNul_data();
    void textIsReadUpToTheFirstNul();
    void textComesInPieces();
    void longTextIsComplete();
    void textBeyondTheLimitIsLeftOut_data();
    void textBeyondTheLimitIsLeftOut();
    void limitAppliesToEachRun();
    void missingCommandEndsTheRun();
    void missingCommandCanBeStoppedAndRestarted();
    void failureOfAReplacedRunDoesNotEndTheNext();
    void stopOfAnIdleRunnerEmitsStopped();
    void stopEndsTheCommandBeforeItReturns();
    void restartReplacesTheRunAndItsText();
    void destructorEndsTheCommand();
    void receiversMayChangeTheRunner_data();
    void receiversMayChangeTheRunner();
    void hostOfTheCallerMayChangeInStarted();
    void manyRunsLeaveNothing();
    void commandEndsWithTheKilledProgram();
    void realCommandTracesTheLoopback();

private:
    QScopedPointer<NFakeCommand> m_command;
    int m_descriptors;
};

// Qt opens a pipe for the signals of children when the first one is started.
void tst_NNetworkTraceroute::initTestCase()
{
    QProcess::execute(text("/bin/true"), QStringList());
}

void tst_NNetworkTraceroute::init()
{
    m_descriptors = NTest::descriptorCount();
    m_command.reset(); // after a failure; it restores the search path
    m_command.reset(new NFakeCommand("traceroute"));
    m_command->setScript("echo one");
}

void tst_NNetworkTraceroute::cleanup()
{
    NTest::deleteDeferred();
    QVERIFY(!NTest::hasChild());
    QVERIFY(!m_command->isAnyRunning());
    QCOMPARE(NTest::descriptorCount(), m_descriptors);
    m_command.reset();
}

void tst_NNetworkTraceroute::valuesAreEmptyBeforeTheFirstStart()
{
    QObject parent;
    const NNetworkTraceroute* const traceroute = new NNetworkTraceroute(&parent);
    QVERIFY(traceroute->parent() == &parent);
    QCOMPARE(traceroute->host(), QString());
    QVERIFY(!traceroute->printNames());
    QVERIFY(!traceroute->isRunning());
    QCOMPARE(traceroute->result(), QString());
}

void tst_NNetworkTraceroute::commandGetsTheHost_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<bool>("printNames");
    QTest::addColumn<QByteArray>("arguments");
    QTest::newRow("numbers") << text("10.0.0.1") << false << QByteArray("|-n|10.0.0.1");
    QTest::newRow("names") << text("a.example") << true << QByteArray("|a.example");
    QTest::newRow("blanks") << text("a -f b") << true << QByteArray("|a -f b");
    QTest::newRow("shell") << text("$(x);`y`&") << false << QByteArray("|-n|$(x);`y`&");
    QTest::newRow("empty") << text("") << true << QByteArray("|");
    QTest::newRow("option") << text("-f") << true << QByteArray("|--|-f");
    QTest::newRow("option after an option") << text("-f") << false << QByteArray("|-n|--|-f");
    QTest::newRow("end of options") << text("--") << false << QByteArray("|-n|--|--");
}

void tst_NNetworkTraceroute::commandGetsTheHost()
{
    QFETCH(QString, host);
    QFETCH(bool, printNames);
    QFETCH(QByteArray, arguments);
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    QMetaObject::invokeMethod(&traceroute, "start", Q_ARG(QString, host), Q_ARG(bool, printNames));
    QVERIFY(traceroute.isRunning());
    QCOMPARE(traceroute.host(), host);
    QCOMPARE(traceroute.printNames(), printNames);
    QCOMPARE(recorder.events.size(), 1);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(m_command->calls(), QList<QByteArray>() << arguments);
}

void tst_NNetworkTraceroute::startTracerouteGivesARunnerWithoutParent()
{
    const QScopedPointer<NNetworkTraceroute> traceroute(NNetworkTraceroute::startTraceroute(text("h"), true));
    QVERIFY(!traceroute->parent());
    QVERIFY(traceroute->isRunning());
    QVERIFY(traceroute->printNames());
    NTRY_VERIFY(!traceroute->isRunning());
    QCOMPARE(traceroute->result(), text("one\n"));
}

void tst_NNetworkTraceroute::textOfBothStreamsIsDelivered()
{
    m_command->setScript("echo hop; echo error >&2");
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(recorder.events, list("started h numbers,text,stopped"));
    QCOMPARE(traceroute.result(), recorder.result);
    QVERIFY(recorder.result == text("hop\nerror\n") || recorder.result == text("error\nhop\n"));
}

void tst_NNetworkTraceroute::everyExitEndsTheRun_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("events");
    QTest::newRow("silent") << QByteArray("exit 0") << text("started h names,stopped");
    QTest::newRow("failure") << QByteArray("echo x >&2; exit 2") << text("started h names,text,stopped");
    QTest::newRow("killed") << QByteArray("echo x; kill -9 $$") << text("started h names,text,stopped");
    QTest::newRow("output closed early")
        << QByteArray("echo x; exec >&- 2>&-; /bin/sleep 0.01") << text("started h names,text,stopped");
}

void tst_NNetworkTraceroute::everyExitEndsTheRun()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, events);
    m_command->setScript(script);
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), true);
    NTRY_VERIFY(!traceroute.isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, events.split(QLatin1Char(',')));
}

void tst_NNetworkTraceroute::textIsReadUpToTheFirstNul_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("in the middle") << QByteArray("a\\000b") << QByteArray("a");
    QTest::newRow("first") << QByteArray("\\000b") << QByteArray("");
    QTest::newRow("Latin-1") << QByteArray("\\344 \\377") << QByteArray("\xE4 \xFF");
    QTest::newRow("UTF-8") << QByteArray("\\303\\244") << QByteArray("\xC3\xA4");
    QTest::newRow("control characters") << QByteArray("a\\r\\n\\t\\033b") << QByteArray("a\r\n\t\033b");
    QTest::newRow("no line end") << QByteArray("a") << QByteArray("a");
}

void tst_NNetworkTraceroute::textIsReadUpToTheFirstNul()
{
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, expected);
    m_command->setScript("printf '" + output + "'");
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(traceroute.result(), QString::fromLatin1(expected));
    QCOMPARE(recorder.result, traceroute.result());
}

void tst_NNetworkTraceroute::textComesInPieces()
{
    // Each piece is written when the test has seen the one before.
    m_command->setScript("echo one\n"
                         "while [ ! -e $directory/seen ]; do /bin/sleep 0.01; done\n"
                         "echo two >&2");
    NNetworkTraceroute traceroute(nullptr);
    QStringList pieces;
    NTracerouteRecorder recorder(&traceroute);
    recorder.onEvent = [&](const QString&) { pieces.append(traceroute.result()); };
    traceroute.start(text("h"), false);
    NTRY_COMPARE(recorder.result, text("one\n"));
    QVERIFY(traceroute.isRunning());
    QCOMPARE(traceroute.result(), text("one\n"));
    m_command->writeFile("seen");
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(recorder.result, text("one\ntwo\n"));
    // A piece is part of the result when it is delivered.
    QCOMPARE(pieces, list(",one\n,one\ntwo\n,one\ntwo\n"));
}

void tst_NNetworkTraceroute::longTextIsComplete()
{
    m_command->setScript("i=0; while [ $i -lt 20000 ]; do echo $i; i=$((i + 1)); done");
    QString expected;
    for (int number = 0; number < 20000; ++number)
        expected += QString::number(number) + QLatin1Char('\n');
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QVERIFY(traceroute.result() == expected);
    QVERIFY(recorder.result == expected);
}

void tst_NNetworkTraceroute::textBeyondTheLimitIsLeftOut_data()
{
    QTest::addColumn<int>("limit");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("expected");
    const QByteArray atOnce("printf 123456789");
    const QByteArray pieces("for i in 1 2 3 4 5 6 7 8 9; do printf $i; /bin/sleep 0.002; done");
    const QString all = text("123456789");
    QTest::newRow("none") << 0 << atOnce << all;
    QTest::newRow("negative") << -1 << atOnce << all;
    QTest::newRow("larger") << 10 << atOnce << all;
    QTest::newRow("exact") << 9 << atOnce << all;
    QTest::newRow("smaller") << 8 << atOnce << text("12345678") + text(Note);
    QTest::newRow("smallest") << 1 << atOnce << text("1") + text(Note);
    QTest::newRow("exact, pieces") << 9 << pieces << all;
    QTest::newRow("smaller, pieces") << 8 << pieces << text("12345678") + text(Note);
    QTest::newRow("far smaller, pieces") << 2 << pieces << text("12") + text(Note);
}

void tst_NNetworkTraceroute::textBeyondTheLimitIsLeftOut()
{
    QFETCH(int, limit);
    QFETCH(QByteArray, script);
    QFETCH(QString, expected);
    m_command->setScript(script);
    NNetworkTraceroute traceroute(nullptr);
    traceroute.setMaximumResultSize(limit);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(traceroute.result(), expected);
    QCOMPARE(recorder.result, text("123456789"));
}

void tst_NNetworkTraceroute::limitAppliesToEachRun()
{
    m_command->setScript("printf $n$n$n");
    NNetworkTraceroute traceroute(nullptr);
    traceroute.setMaximumResultSize(2);
    for (int number = 1; number <= 2; ++number) {
        traceroute.start(text("h"), false);
        NTRY_VERIFY(!traceroute.isRunning());
        QCOMPARE(traceroute.result(), QString::number(number * 11) + text(Note));
    }
    traceroute.setMaximumResultSize(0);
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(traceroute.result(), text("333"));
}

void tst_NNetworkTraceroute::missingCommandEndsTheRun()
{
    m_command->remove();
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    QVERIFY(traceroute.isRunning());
    QCOMPARE(recorder.events, list("started h numbers"));
    NTRY_VERIFY(!traceroute.isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, list("started h numbers,stopped"));
    QCOMPARE(traceroute.result(), QString());
}

void tst_NNetworkTraceroute::missingCommandCanBeStoppedAndRestarted()
{
    m_command->remove();
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    traceroute.stop();
    traceroute.start(text("i"), false);
    m_command->setScript("echo one");
    traceroute.start(text("j"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, list("started h numbers,stopped,started i numbers,started j numbers,text,stopped"));
}

// The replaced run has failed, but its failure has not been processed.
void tst_NNetworkTraceroute::failureOfAReplacedRunDoesNotEndTheNext()
{
    m_command->remove();
    NNetworkTraceroute traceroute(nullptr);
    traceroute.start(text("h"), false);
    QVERIFY(!traceroute.findChild<QProcess*>()->waitForStarted());
    m_command->setScript(NEndlessScript);
    traceroute.start(text("i"), false);
    QVERIFY(traceroute.findChild<QProcess*>()->waitForStarted());
    QCoreApplication::processEvents();
    QVERIFY(traceroute.isRunning());
}

void tst_NNetworkTraceroute::stopOfAnIdleRunnerEmitsStopped()
{
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.stop();
    QCOMPARE(recorder.events, list("stopped"));
    traceroute.start(text("h"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    traceroute.stop();
    QCOMPARE(recorder.events, list("stopped,started h numbers,text,stopped,stopped"));
    QCOMPARE(traceroute.result(), text("one\n"));
}

void tst_NNetworkTraceroute::stopEndsTheCommandBeforeItReturns()
{
    m_command->setScript("echo one; " + QByteArray(NEndlessScript));
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    bool isGone = false;
    traceroute.start(text("h"), false);
    NTRY_COMPARE(recorder.result, text("one\n"));
    recorder.onEvent = [&](const QString&) { isGone = !m_command->isAnyRunning() && !traceroute.isRunning(); };
    traceroute.stop();
    QVERIFY(isGone);
    QVERIFY(!NTest::hasChild());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, list("started h numbers,text,stopped"));
    QCOMPARE(traceroute.result(), text("one\n"));
}

// Text that the replaced command has written but that has not been read is not delivered.
void tst_NNetworkTraceroute::restartReplacesTheRunAndItsText()
{
    m_command->setScript(
        "echo $n; [ $n != 1 ] || : > $directory/written; [ $n != 1 ] || " + QByteArray(NEndlessScript));
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("h"), false);
    // Without the event loop, so that nothing is read.
    while (!m_command->hasFile("written"))
        QTest::qSleep(1);
    traceroute.start(text("i"), true);
    QCOMPARE(traceroute.result(), QString());
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(recorder.events, list("started h numbers,started i names,text,stopped"));
    QCOMPARE(recorder.result, text("2\n"));
    QCOMPARE(traceroute.result(), text("2\n"));
}

void tst_NNetworkTraceroute::destructorEndsTheCommand()
{
    m_command->setScript(NEndlessScript);
    QScopedPointer<NNetworkTraceroute> traceroute(new NNetworkTraceroute(nullptr));
    traceroute->start(text("h"), false);
    NTracerouteRecorder recorder(traceroute.data());
    NTRY_COMPARE(m_command->callCount(), 1);
    traceroute.reset();
    QVERIFY(!m_command->isAnyRunning());
    QVERIFY(!NTest::hasChild());
    QVERIFY(recorder.events.isEmpty());
}

// In each signal, at its first emission, the receiver does something to the runner.
void tst_NNetworkTraceroute::receiversMayChangeTheRunner_data()
{
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QString>("action");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<int>("calls");
    QTest::newRow("stop in started") << text("started") << text("stop") << list("started h numbers,stopped") << 0;
    QTest::newRow("start in started") << text("started") << text("start")
                                      << list("started h numbers,started i names,text,stopped") << 1;
    QTest::newRow("stop and start in started")
        << text("started") << text("stop and start")
        << list("started h numbers,stopped,started i names,text,stopped") << 1;
    QTest::newRow("delete in started") << text("started") << text("delete") << list("started h numbers") << 0;
    QTest::newRow("stop in text") << text("text") << text("stop") << list("started h numbers,text,stopped") << 1;
    QTest::newRow("start in text") << text("text") << text("start")
                                   << list("started h numbers,text,started i names,text,stopped") << 2;
    QTest::newRow("stop and start in text")
        << text("text") << text("stop and start")
        << list("started h numbers,text,stopped,started i names,text,stopped") << 2;
    QTest::newRow("delete in text") << text("text") << text("delete") << list("started h numbers,text") << 1;
    QTest::newRow("stop in stopped") << text("stopped") << text("stop")
                                     << list("started h numbers,text,stopped,stopped") << 1;
    QTest::newRow("start in stopped") << text("stopped") << text("start")
                                      << list("started h numbers,text,stopped,started i names,text,stopped") << 2;
    QTest::newRow("delete in stopped") << text("stopped") << text("delete")
                                       << list("started h numbers,text,stopped") << 1;
}

void tst_NNetworkTraceroute::receiversMayChangeTheRunner()
{
    QFETCH(QString, signal);
    QFETCH(QString, action);
    QFETCH(QStringList, events);
    QFETCH(int, calls);
    // Both streams have text when the first one is read.
    m_command->setScript("echo one; echo one >&2");
    QPointer<NNetworkTraceroute> traceroute(new NNetworkTraceroute(nullptr));
    NTracerouteRecorder recorder(traceroute);
    bool isDone = false;
    recorder.onEvent = [&](const QString& event) {
        if (isDone || !event.startsWith(signal))
            return;
        isDone = true;
        if (action.startsWith(text("stop")))
            traceroute->stop();
        if (action.endsWith(text("start")))
            traceroute->start(text("i"), true);
        if (action == text("delete"))
            delete traceroute;
    };
    traceroute->start(text("h"), false);
    NTRY_VERIFY(!traceroute || !traceroute->isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(recorder.events, events);
    QVERIFY(!NTest::hasChild());
    QCOMPARE(m_command->callCount(), calls);
    QCOMPARE(traceroute.isNull(), action == text("delete"));
    if (action.endsWith(text("start")))
        QCOMPARE(traceroute->result(), text("one\none\n"));
    delete traceroute;
}

void tst_NNetworkTraceroute::hostOfTheCallerMayChangeInStarted()
{
    QString host = text("h");
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    recorder.onEvent = [&](const QString&) { host = text("changed"); };
    traceroute.start(host, true);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(m_command->calls(), QList<QByteArray>() << QByteArray("|h"));
}

void tst_NNetworkTraceroute::manyRunsLeaveNothing()
{
    m_command->setScript(NEndlessScript);
    NNetworkTraceroute traceroute(nullptr);
    for (int number = 0; number < 20; ++number) {
        traceroute.start(text("h"), false);
        if (number % 2 == 0)
            QCoreApplication::processEvents();
    }
    traceroute.stop();
    QVERIFY(!NTest::hasChild());
    NTest::deleteDeferred();
    QVERIFY(traceroute.children().isEmpty());
}

void tst_NNetworkTraceroute::commandEndsWithTheKilledProgram()
{
    m_command->setScript(NEndlessScript);
    QVERIFY(NTest::commandEndsWithKilledProgram(*m_command, "--trace-until-killed"));
}

void tst_NNetworkTraceroute::realCommandTracesTheLoopback()
{
    qputenv("PATH", m_command->systemSearchPath());
    NNetworkTraceroute traceroute(nullptr);
    NTracerouteRecorder recorder(&traceroute);
    traceroute.start(text("127.0.0.1"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QCOMPARE(recorder.events, list("started 127.0.0.1 numbers,text,stopped"));
    QVERIFY2(
        traceroute.result().contains(QRegExp(text("\n *1 +127\\.0\\.0\\.1 "))), qPrintable(traceroute.result()));

    // Not the version of the command.
    traceroute.start(text("-V"), false);
    NTRY_VERIFY(!traceroute.isRunning());
    QVERIFY2(traceroute.result().contains(text("-V")), qPrintable(traceroute.result()));
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "--trace-until-killed") == 0) {
        NNetworkTraceroute traceroute(nullptr);
        traceroute.start(text("h"), false);
        return application.exec();
    }
    tst_NNetworkTraceroute test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_nnetworktraceroute.moc"
