// Ping and traceroute with the commands of iputils and of BusyBox, over a network with a router, delays and
// losses, in the virtual device: not every kernel has netem.
//
//     device (10.0.1.1) ---- (10.0.1.2) router (10.0.2.1) ---- (10.0.2.2) target
#include <nbase/network/nnetworkping.h>
#include <nbase/network/nnetworktraceroute.h>

#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

namespace {

const char* const Router = "10.0.1.2";
const char* const Target = "10.0.2.2";
const quint32 RouterTtl = 64;
const quint32 TargetTtl = 63; // the router takes one

const char* const HostTable = "127.0.0.1 localhost\n"
                              "10.0.1.2 router.example\n"
                              "10.0.2.2 target.example\n";

const char* const Network[] = {
    "ip netns add router",
    "ip netns add target",
    // Neighbour discovery would go through netem, too, and the kernel limits how many errors it reports.
    "ip netns exec router busybox sysctl -w net.ipv4.ip_forward=1 net.ipv6.conf.default.disable_ipv6=1"
    " net.ipv4.icmp_ratelimit=0",
    "busybox sysctl -w net.ipv4.route.error_cost=0",
    "ip netns exec target busybox sysctl -w net.ipv6.conf.default.disable_ipv6=1 net.ipv4.icmp_ratelimit=0",
    "ip link add device0 type veth peer name router0 netns router",
    "ip link add router1 netns router address 02:00:00:00:00:01 type veth"
    " peer name target0 netns target address 02:00:00:00:00:02",
    "ip address add 10.0.1.1/24 dev device0",
    "ip -n router address add 10.0.1.2/24 dev router0",
    "ip -n router address add 10.0.2.1/24 dev router1",
    "ip -n target address add 10.0.2.2/24 dev target0",
    "ip link set device0 up",
    "ip -n router link set router0 up",
    "ip -n router link set router1 up",
    "ip -n target link set target0 up",
    "ip route add default via 10.0.1.2",
    "ip -n target route add default via 10.0.2.1",
    "ip -n router neighbour replace 10.0.2.2 lladdr 02:00:00:00:00:02 dev router1 nud permanent",
    "ip -n target neighbour replace 10.0.2.1 lladdr 02:00:00:00:00:01 dev target0 nud permanent",
    "ip -n router route add unreachable 10.0.3.0/24",
    "ip route add unreachable 10.0.4.0/24",
};

const int DelayInMicroseconds = 200000;
const char* const Delay = "delay 200ms";

QString text(const QByteArray& latin1)
{
    return QString::fromLatin1(latin1.constData(), latin1.size());
}

// @return what it has written.
QByteArray run(const QByteArray& commandLine)
{
    QStringList words = text(commandLine).split(QLatin1Char(' '));
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(words.takeFirst(), words);
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        qFatal("%s: %s", commandLine.constData(), process.readAll().constData());
    return process.readAll();
}

// What happens to the target's replies, see tc-netem(8).
void impair(const char* what)
{
    run("tc -n target qdisc replace dev target0 root netem " + QByteArray(what));
}

int droppedReplies()
{
    QRegExp counter(text(".*\\(dropped (\\d+),.*"));
    return counter.exactMatch(text(run("tc -n target -s qdisc show dev target0"))) ? counter.cap(1).toInt() : -1;
}

} // namespace

class tst_NetworkCommands : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void repliesAreRead_data() { addCommands(); }
    void repliesAreRead();
    void replyTimesHoldTheDelay();
    void timesWithFewDecimalsStayUnread();
    void lossIsCounted_data() { addCommands(); }
    void lossIsCounted();
    void outageIsSeenAndSurvived_data() { addCommands(); }
    void outageIsSeenAndSurvived();
    void unreachableHostsCountAsBad_data();
    void unreachableHostsCountAsBad();

    void tracerouteShowsTheWay_data();
    void tracerouteShowsTheWay();
    void tracerouteShowsUnreachableHosts_data() { addCommands(); }
    void tracerouteShowsUnreachableHosts();
    void tracerouteOfASilentHostIsStopped_data() { addCommands(); }
    void tracerouteOfASilentHostIsStopped();

private:
    static void addCommands();
    void useCommands();
    void useCommands(const QByteArray& commands);

    NTemporaryDirectory m_directory;
    QByteArray m_searchPath;
};

void tst_NetworkCommands::addCommands()
{
    QTest::addColumn<QByteArray>("commands");
    QTest::newRow("iputils") << QByteArray("iputils");
    QTest::newRow("BusyBox") << QByteArray("busybox");
}

void tst_NetworkCommands::initTestCase()
{
    // It changes the machine's network and files.
    if (!QFile::exists(text("/dev/virtual-device/control")))
        qFatal("this test runs in the virtual device only");
    m_searchPath = qgetenv("PATH");
    const char* const names[] = {"ping", "traceroute"};
    const char* const paths[] = {"/usr/bin/ping", "/usr/sbin/traceroute"};
    for (int i = 0; i < 2; ++i) {
        const QString name = text(names[i]);
        for (const char* const commands : {"iputils", "busybox"})
            QVERIFY(QDir().mkpath(m_directory.filePath(text(commands))));
        QVERIFY(QFile::link(text(paths[i]), m_directory.filePath(text("iputils/") + name)));
        QVERIFY(QFile::link(text("/bin/busybox"), m_directory.filePath(text("busybox/") + name)));
    }
    QFile hosts(text("/etc/hosts"));
    QVERIFY(hosts.open(QIODevice::WriteOnly) && hosts.write(HostTable) > 0);
    QVERIFY(QDir().mkpath(text("/run/netns")));
    for (const char* const command : Network)
        run(command);
}

void tst_NetworkCommands::cleanupTestCase()
{
    qputenv("PATH", m_searchPath);
}

void tst_NetworkCommands::init()
{
    qputenv("PATH", m_searchPath);
    impair("delay 0");
}

void tst_NetworkCommands::useCommands(const QByteArray& commands)
{
    qputenv("PATH", QFile::encodeName(m_directory.filePath(text(commands))));
}

void tst_NetworkCommands::useCommands()
{
    QFETCH(QByteArray, commands);
    useCommands(commands);
}

// A busy machine may need more than a millisecond for a reply, whose time iputils prints with fewer decimals.
void tst_NetworkCommands::repliesAreRead()
{
    useCommands();
    const struct
    {
        const char* host;
        quint32 ttl;
    } rows[] = {{"127.0.0.1", RouterTtl}, {Router, RouterTtl}, {Target, TargetTtl}, {"target.example", TargetTtl}};
    for (const auto& row : rows) {
        NNetworkPing ping(nullptr);
        ping.start(text(row.host), 0, 5, 0);
        NTRY_VERIFY(ping.ttl() != 0);
        QCOMPARE(ping.ttl(), row.ttl);
        QVERIFY(ping.isGood());
        QCOMPARE(ping.goodNb(), ping.sentNb());
        QVERIFY(ping.replyTime() > 0);
        QVERIFY(ping.replyTime() < 5000000);
    }
}

void tst_NetworkCommands::replyTimesHoldTheDelay()
{
    impair(Delay);
    useCommands("busybox");
    NNetworkPing ping(nullptr);
    QSignalSpy stopped(&ping, SIGNAL(stopped()));
    ping.start(text(Target), 5, 5, 0);
    NTRY_COMPARE(stopped.size(), 1);
    QCOMPARE(ping.sentNb(), 5u);
    QCOMPARE(ping.goodNb(), 5u);
    QCOMPARE(ping.ttl(), TargetTtl);
    QVERIFY(ping.fastest() >= quint32(DelayInMicroseconds));
    QVERIFY(ping.fastest() <= ping.meanTime());
    QVERIFY(ping.meanTime() <= ping.slowest());
    QVERIFY2(ping.slowest() < 5000000, QByteArray::number(ping.slowest()).constData()); // the timeout
}

void tst_NetworkCommands::timesWithFewDecimalsStayUnread()
{
    impair(Delay);
    useCommands("iputils");
    QVERIFY(run("ping -c1 -W5 " + QByteArray(Target)).contains("icmp_seq=1 ttl=63 time=2"));
    NNetworkPing ping(nullptr);
    QSignalSpy stopped(&ping, SIGNAL(stopped()));
    ping.start(text(Target), 3, 5, 0);
    NTRY_COMPARE(stopped.size(), 1);
    QCOMPARE(ping.sentNb(), 3u);
    QCOMPARE(ping.goodNb(), 3u);
    QVERIFY(ping.isGood());
    QCOMPARE(ping.ttl(), 0u);
    QCOMPARE(ping.replyTime(), 0u);
    QCOMPARE(ping.slowest(), 0u);
    QCOMPARE(ping.meanTime(), 0u);
}

void tst_NetworkCommands::lossIsCounted()
{
    const int count = 8;
    impair("loss 50%");
    const int droppedBefore = droppedReplies();
    QVERIFY(droppedBefore >= 0);
    useCommands();
    NNetworkPing ping(nullptr);
    QSignalSpy results(&ping, SIGNAL(pingResult(bool,quint32,quint32,quint32,quint32,quint32,quint32,quint32)));
    QSignalSpy stopped(&ping, SIGNAL(stopped()));
    // A machine that stands still for a moment must not lose a reply by the timeout.
    ping.start(text(Target), count, 3, 0);
    QVERIFY(NTest::waitUntil([&]() { return !stopped.isEmpty(); }, 120000));
    QCOMPARE(results.size(), count);
    QCOMPARE(ping.sentNb(), quint32(count));
    qputenv("PATH", m_searchPath);
    QCOMPARE(int(ping.sentNb() - ping.goodNb()), droppedReplies() - droppedBefore);
}

void tst_NetworkCommands::outageIsSeenAndSurvived()
{
    useCommands();
    NNetworkPing ping(nullptr);
    ping.start(text(Target), 0, 3, 0);
    NTRY_VERIFY(ping.ttl() != 0);
    QCOMPARE(ping.goodNb(), ping.sentNb());

    qputenv("PATH", m_searchPath);
    impair("loss 100%");
    useCommands();
    NTRY_VERIFY(!ping.isGood());
    const quint32 good = ping.goodNb();
    const quint32 replyTime = ping.replyTime();
    const quint32 sent = ping.sentNb();
    NTRY_VERIFY(ping.sentNb() >= sent + 2);
    QVERIFY(!ping.isGood());
    QCOMPARE(ping.goodNb(), good);
    QCOMPARE(ping.ttl(), TargetTtl);
    QCOMPARE(ping.replyTime(), replyTime);

    qputenv("PATH", m_searchPath);
    impair("delay 0");
    useCommands();
    NTRY_VERIFY(ping.isGood());
    QVERIFY(ping.goodNb() > good);
}

void tst_NetworkCommands::unreachableHostsCountAsBad_data()
{
    QTest::addColumn<QByteArray>("commands");
    QTest::addColumn<QByteArray>("host");
    for (const char* const commands : {"iputils", "busybox"}) {
        const QByteArray prefix = QByteArray(commands) + ", ";
        QTest::newRow((prefix + "nobody answers").constData()) << QByteArray(commands) << QByteArray("10.0.2.77");
        QTest::newRow((prefix + "the router refuses").constData())
            << QByteArray(commands) << QByteArray("10.0.3.1");
        QTest::newRow((prefix + "the device has no way").constData())
            << QByteArray(commands) << QByteArray("10.0.4.1");
        QTest::newRow((prefix + "unknown name").constData())
            << QByteArray(commands) << QByteArray("unknown.example");
    }
}

void tst_NetworkCommands::unreachableHostsCountAsBad()
{
    QFETCH(QByteArray, host);
    useCommands();
    NNetworkPing ping(nullptr);
    QSignalSpy stopped(&ping, SIGNAL(stopped()));
    ping.start(text(host), 2, 1, 0);
    NTRY_COMPARE(stopped.size(), 1);
    QCOMPARE(ping.sentNb(), 2u);
    QCOMPARE(ping.goodNb(), 0u);
    QVERIFY(!ping.isGood());
    QCOMPARE(ping.ttl(), 0u);
    QCOMPARE(ping.meanTime(), 0u);
}

void tst_NetworkCommands::tracerouteShowsTheWay_data()
{
    QTest::addColumn<QByteArray>("commands");
    QTest::addColumn<bool>("printNames");
    for (const char* const commands : {"iputils", "busybox"}) {
        QTest::newRow((QByteArray(commands) + ", numbers").constData()) << QByteArray(commands) << false;
        QTest::newRow((QByteArray(commands) + ", names").constData()) << QByteArray(commands) << true;
    }
}

void tst_NetworkCommands::tracerouteShowsTheWay()
{
    QFETCH(bool, printNames);
    useCommands();
    NNetworkTraceroute traceroute(nullptr);
    QSignalSpy pieces(&traceroute, SIGNAL(tracerouteResult(QString)));
    QSignalSpy stopped(&traceroute, SIGNAL(stopped()));
    traceroute.start(text(Target), printNames);
    NTRY_COMPARE(stopped.size(), 1);
    QString received;
    for (int i = 0; i < pieces.size(); ++i)
        received += pieces.at(i).first().toString();
    QCOMPARE(traceroute.result(), received);
    const QByteArray times = "(  \\d+\\.\\d{3} ms){3}\n";
    const QByteArray router = printNames ? "router\\.example \\(10\\.0\\.1\\.2\\)" : "10\\.0\\.1\\.2";
    const QByteArray target = printNames ? "target\\.example \\(10\\.0\\.2\\.2\\)" : "10\\.0\\.2\\.2";
    const QRegExp complete(text(
        "traceroute to 10\\.0\\.2\\.2 \\(10\\.0\\.2\\.2\\), 30 hops max, \\d+ byte packets\n"
        " 1  " +
        router + times + " 2  " + target + times));
    QVERIFY2(complete.exactMatch(received), received.toLatin1().constData());
}

void tst_NetworkCommands::tracerouteShowsUnreachableHosts()
{
    useCommands();
    NNetworkTraceroute traceroute(nullptr);
    QSignalSpy stopped(&traceroute, SIGNAL(stopped()));
    traceroute.start(text("10.0.3.1"), false);
    NTRY_COMPARE(stopped.size(), 1);
    QVERIFY2(traceroute.result().contains(text("10.0.1.2")), traceroute.result().toLatin1().constData());
    QVERIFY2(traceroute.result().contains(text(" ms !H")), traceroute.result().toLatin1().constData());

    // A message of the command.
    traceroute.start(text("unknown.example"), false);
    NTRY_COMPARE(stopped.size(), 2);
    QVERIFY2(traceroute.result().contains(text("unknown.example")), traceroute.result().toLatin1().constData());
}

void tst_NetworkCommands::tracerouteOfASilentHostIsStopped()
{
    impair("loss 100%");
    useCommands();
    NNetworkTraceroute traceroute(nullptr);
    QSignalSpy stopped(&traceroute, SIGNAL(stopped()));
    traceroute.start(text(Target), false);
    NTRY_VERIFY(traceroute.result().contains(text(" 2  *")));
    QVERIFY(traceroute.isRunning());
    QVERIFY(traceroute.result().contains(text(" 1  10.0.1.2  ")));
    traceroute.stop();
    QCOMPARE(stopped.size(), 1);
    QVERIFY(!traceroute.isRunning());
}

QTEST_MAIN(tst_NetworkCommands)
#include "tst_networkcommands.moc"
