// A hundred sessions that ping at the same time through the web service, with the ping of BusyBox.
#include <nbase/network/nnetworkpingfcgirequestprocessor.h>
#include <nbase/network/nnetworkpingfcgiservice.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajson.h>

#include "nbase/network/nrunnertest.h"
#include "support/nprivatenamespace.h"
#include "support/nservicetest.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QVariant>
#include <QtTest/QtTest>

#include <unistd.h>

namespace {

const int SessionCount = 100;
const int PingsPerSession = 3;

// A process that has ended is seen as a zombie until the event loop runs. On a busy machine this takes some scans.
const int ScansOfAZombie = 3;
const int MillisecondsOfAZombie = 2000;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** The children of this process, each with its state, as in /proc/<process>/stat (proc(5)). */
QHash<int, char> children()
{
    QHash<int, char> found;
    const QStringList processes = QDir(text("/proc")).entryList(QStringList(text("[1-9]*")), QDir::Dirs);
    for (const QString& process : processes) {
        QFile file(text("/proc/") + process + text("/stat"));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray status = file.readAll();
        // The name of the command may have blanks and parentheses.
        const QList<QByteArray> fields = status.mid(status.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields.at(1).toInt() == int(::getpid()))
            found.insert(process.toInt(), fields.at(0).at(0));
    }
    return found;
}

/** Looks for children that stay zombies. */
class ZombieWatch
{
public:
    ZombieWatch()
        : hasLastingZombie(false)
        , mostChildren(0)
    {
        m_clock.start();
    }

    void scan()
    {
        QHash<int, Zombie> zombies;
        const QHash<int, char> found = children();
        for (QHash<int, char>::const_iterator i = found.constBegin(); i != found.constEnd(); ++i) {
            if (i.value() != 'Z')
                continue;
            const Zombie first = {0, m_clock.elapsed()};
            Zombie zombie = m_zombies.value(i.key(), first);
            ++zombie.scans;
            zombies.insert(i.key(), zombie);
            if (zombie.scans > ScansOfAZombie && m_clock.elapsed() - zombie.firstSeen > MillisecondsOfAZombie)
                hasLastingZombie = true;
        }
        m_zombies = zombies;
        mostChildren = qMax(mostChildren, int(found.size()));
    }

    bool hasLastingZombie;
    int mostChildren;

private:
    struct Zombie
    {
        int scans; ///< in a row
        qint64 firstSeen;
    };

    QElapsedTimer m_clock;
    QHash<int, Zombie> m_zombies;
};

} // namespace

class tst_PingSessions : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void hundredSessionsPingAtTheSameTime();
    void endOfTheSessionsEndsTheirPings();

private:
    void request(NwaWebSession* session, const QByteArray& method);
    bool startAll();
    bool runAll(ZombieWatch& watch);

    NTemporaryDirectory m_directory;
    QByteArray m_searchPath;
    QScopedPointer<NwaWebSessionManager> m_sessions;
    QScopedPointer<NFixedSession> m_identifier;
    QScopedPointer<NNetworkPingFcgiService> m_service;
    QList<NwaWebSession*> m_all;
    QByteArray m_status; ///< of the last reply; empty for 200
    QVariantMap m_reply;
    int m_descriptors;
};

void tst_PingSessions::initTestCase()
{
    QString busybox;
    m_searchPath = qgetenv("PATH");
    const QList<QByteArray> directories = m_searchPath.split(':');
    for (const QByteArray& directory : directories) {
        if (busybox.isEmpty() && QFile::exists(QFile::decodeName(directory + "/busybox")))
            busybox = QFile::decodeName(directory + "/busybox");
    }
    QVERIFY(QFile::link(busybox, m_directory.filePath(text("ping"))));
    qputenv("PATH", QFile::encodeName(m_directory.path()));
    // Qt opens a pipe for the signals of children when the first one is started.
    QProcess::execute(text("/bin/true"), QStringList());
}

void tst_PingSessions::cleanupTestCase()
{
    qputenv("PATH", m_searchPath);
}

void tst_PingSessions::init()
{
    m_descriptors = NTest::descriptorCount();
    m_sessions.reset(new NwaWebSessionManager);
    m_identifier.reset(new NFixedSession(nullptr));
    NNetworkPingFcgiRequestProcessor* const processor =
        new NNetworkPingFcgiRequestProcessor(m_identifier.data(), m_sessions.data(), nullptr);
    processor->setMaximumRunnerCount(SessionCount);
    m_service.reset(new NNetworkPingFcgiService(processor, nullptr));
    m_all.clear();
    for (int i = 0; i < SessionCount; ++i)
        m_all.append(m_sessions->createSession());
}

void tst_PingSessions::cleanup()
{
    m_service.reset();
    m_sessions.reset();
}

void tst_PingSessions::request(NwaWebSession* session, const QByteArray& method)
{
    const QByteArray body = method == "POST" ? QByteArray("{\"host\":\"127.0.0.1\"}") : QByteArray();
    NwaCgiRequest::Variables variables;
    variables.insert("REQUEST_METHOD", method);
    variables.insert("QUERY_STRING", "section=state");
    variables.insert("CONTENT_TYPE", "application/json");
    variables.insert("CONTENT_LENGTH", QByteArray::number(body.size()));
    NMemoryChannel channel(body);
    m_identifier->session = session;
    m_service->processRequest(new NwaFcgiRequest(&channel, variables));
    const QByteArray header = channel.header();
    m_status = header.startsWith("Status: ") ? header.left(header.indexOf('\r')) : QByteArray();
    m_reply = NwaJson::parse(channel.body(), nullptr).toMap();
}

bool tst_PingSessions::startAll()
{
    for (NwaWebSession* const session : m_all) {
        request(session, "POST");
        if (!m_status.isEmpty())
            return false;
    }
    return true;
}

// Until each session has had its pings.
bool tst_PingSessions::runAll(ZombieWatch& watch)
{
    return NTest::waitUntil(
        [&]() {
            watch.scan();
            for (NwaWebSession* const session : m_all) {
                request(session, "GET");
                if (m_reply.value(text("statistics")).toMap().value(text("sent")).toInt() < PingsPerSession)
                    return false;
            }
            return true;
        },
        120000);
}

void tst_PingSessions::hundredSessionsPingAtTheSameTime()
{
    QVERIFY(startAll());
    ZombieWatch watch;
    QVERIFY(runAll(watch));
    QVERIFY(!watch.hasLastingZombie);
    QVERIFY(watch.mostChildren > 0);
    QVERIFY(watch.mostChildren <= SessionCount);

    int sent = 0;
    int good = 0;
    for (NwaWebSession* const session : m_all) {
        request(session, "DELETE");
        QCOMPARE(m_status, QByteArray());
        const QVariantMap statistics = m_reply.value(text("statistics")).toMap();
        sent += statistics.value(text("sent")).toInt();
        good += statistics.value(text("good")).toInt();
        QCOMPARE(m_reply.value(text("started")), QVariant(false));
    }
    // Each command gets the replies of all (raw(7)), more than its socket holds when a busy machine lets it wait.
    QVERIFY2(good > sent / 2, QByteArray::number(good).constData());
    QVERIFY(!NTest::hasChild());
    NTest::deleteDeferred();
    QCOMPARE(NTest::descriptorCount(), m_descriptors);
}

void tst_PingSessions::endOfTheSessionsEndsTheirPings()
{
    QVERIFY(startAll());
    ZombieWatch watch;
    QVERIFY(runAll(watch));
    m_sessions.reset();
    QVERIFY(!NTest::hasChild());
    NTest::deleteDeferred();
    QCOMPARE(NTest::descriptorCount(), m_descriptors);
}

// In the private network, any user may ping.
NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_PingSessions, NPrivateNamespace::Network)
#include "tst_pingsessions.moc"
