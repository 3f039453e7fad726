#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "support/nallocatedbytes.h"
#include "support/ntestwait.h"

#include <QtCore/QPointer>
#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Makes getrandom(2) fail for this process as it does on a kernel that does not have it.
bool forbidGetrandom()
{
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Makes open(2) fail for this process.
bool forbidOpening()
{
    const struct rlimit none = {0, 0};
    return setrlimit(RLIMIT_NOFILE, &none) == 0;
}

// Runs @a condition in a child process. Returns whether it held.
template <typename Condition> bool holdsInChildProcess(Condition condition)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(condition() ? 0 : 1);
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// Counts the sessions that end, and reacts to each.
class Observer : public QObject
{
    Q_OBJECT

public:
    enum Action { Look, RemoveSame, RemoveOther, Create, DeleteManager, KeepAlive };

    Observer(NwaWebSessionManager* observed, Action chosenAction)
        : manager(observed)
        , action(chosenAction)
        , foundCount(0)
    {
        connect(observed, SIGNAL(aboutToRemove(QUuid)), SLOT(act(QUuid)));
    }

    NwaWebSessionManager* manager;
    Action action;
    QUuid other;
    QList<QUuid> ended;
    int foundCount;

public slots:
    void act(const QUuid& id)
    {
        ended << id;
        NwaWebSession* session = manager->session(id);
        if (session && session->id() == id)
            ++foundCount;
        switch (action) {
        case Look:
            break;
        case RemoveSame:
            manager->removeSession(id);
            break;
        case RemoveOther:
            manager->removeSession(other);
            break;
        case Create:
            manager->createSession();
            break;
        case KeepAlive:
            manager->keepAlive(session);
            break;
        case DeleteManager:
            // The other sessions end while the manager is being deleted.
            action = Look;
            delete manager;
            break;
        }
    }
};

} // namespace

class tst_NwaWebSessionManager : public QObject
{
    Q_OBJECT

private slots:
    void defaultsAreStated();
    void limitsAreAtLeastOne();
    void sessionsAreFoundByTheirIdentifier();
    void identifiersAreRandomUuids();
    void generatorFallsBackToTheDevice();
    void noSessionIsMadeWithoutAGenerator();
    void sessionKnowsItsUser();
    void endIsAnnouncedWhileTheSessionIsThere();
    void unknownSessionIsNotRemoved();
    void oneMoreEndsTheOneIdleForLongest();
    void smallerLimitTakesEffectWithTheNextSession();
    void idleSessionExpires();
    void sessionThatIsKeptAliveOutlivesAnother();
    void shorterTimeoutTakesEffectAtOnce();
    void expiredSessionIsGoneEvenBeforeItIsRemoved();
    void slotMayRemoveTheSameSession();
    void slotMayRemoveAnotherSession();
    void slotMayMakeSessions();
    void slotCannotSaveTheSession();
    void slotMayDeleteTheManager_data();
    void slotMayDeleteTheManager();
    void destructionEndsAllSessions();
    void noSessionIsMadeDuringDestruction();
    void memoryStaysFlat();
};

void tst_NwaWebSessionManager::defaultsAreStated()
{
    const NwaWebSessionManager manager;
    QCOMPARE(manager.idleTimeout(), 900);
    QCOMPARE(manager.maximumSessionCount(), 1000);
    QCOMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::limitsAreAtLeastOne()
{
    NwaWebSessionManager manager;
    manager.setIdleTimeout(0);
    QCOMPARE(manager.idleTimeout(), 1);
    manager.setIdleTimeout(-5);
    QCOMPARE(manager.idleTimeout(), 1);
    manager.setIdleTimeout(2147483647);
    QCOMPARE(manager.idleTimeout(), 2147483647);
    manager.setMaximumSessionCount(0);
    QCOMPARE(manager.maximumSessionCount(), 1);
    QVERIFY(manager.createSession());
    QCOMPARE(manager.sessionCount(), 1);
}

void tst_NwaWebSessionManager::sessionsAreFoundByTheirIdentifier()
{
    NwaWebSessionManager manager;
    NwaWebSession* first = manager.createSession();
    NwaWebSession* second = manager.createSession();
    QCOMPARE(manager.session(first->id()), first);
    QCOMPARE(manager.session(second->id()), second);
    QVERIFY(!manager.session(QUuid()));
    QVERIFY(!manager.session(QUuid::createUuid()));
    QCOMPARE(manager.sessionCount(), 2);
}

void tst_NwaWebSessionManager::identifiersAreRandomUuids()
{
    NwaWebSessionManager manager;
    QSet<QString> seen;
    QByteArray differing(32, '\0');
    QString first;
    for (int count = 0; count < 1000; ++count) {
        const QUuid id = manager.createSession()->id();
        QCOMPARE(int(id.version()), int(QUuid::Random));
        QCOMPARE(int(id.variant()), int(QUuid::DCE));
        QString digits = id.toString().remove(QLatin1Char('-')).mid(1, 32);
        if (first.isNull())
            first = digits;
        for (int index = 0; index < 32; ++index)
            differing[index] = char(differing.at(index) | (digits.at(index) != first.at(index)));
        seen.insert(digits);
    }
    QCOMPARE(seen.size(), 1000);
    // Only the version's digit is the same in all.
    QCOMPARE(differing.count('\0'), 1);
    QCOMPARE(differing.indexOf('\0'), 12);
}

void tst_NwaWebSessionManager::generatorFallsBackToTheDevice()
{
    QVERIFY(holdsInChildProcess([]() {
        NwaWebSessionManager manager;
        if (!forbidGetrandom())
            return false;
        NwaWebSession* first = manager.createSession();
        NwaWebSession* second = manager.createSession();
        return first && second && first->id() != second->id() && first->id().version() == QUuid::Random;
    }));
}

void tst_NwaWebSessionManager::noSessionIsMadeWithoutAGenerator()
{
    QVERIFY(holdsInChildProcess([]() {
        NwaWebSessionManager manager;
        return forbidGetrandom() && forbidOpening() && !manager.createSession() && manager.sessionCount() == 0;
    }));
}

void tst_NwaWebSessionManager::sessionKnowsItsUser()
{
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    QVERIFY(session->userName().isEmpty());
    session->setUserName(QString::fromLatin1("anna"));
    QCOMPARE(manager.session(session->id())->userName(), QString::fromLatin1("anna"));
}

void tst_NwaWebSessionManager::endIsAnnouncedWhileTheSessionIsThere()
{
    NwaWebSessionManager manager;
    const Observer observer(&manager, Observer::Look);
    const QUuid id = manager.createSession()->id();
    manager.removeSession(id);
    QCOMPARE(observer.ended, QList<QUuid>() << id);
    QCOMPARE(observer.foundCount, 1);
    QVERIFY(!manager.session(id));
    QCOMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::unknownSessionIsNotRemoved()
{
    NwaWebSessionManager manager;
    const Observer observer(&manager, Observer::Look);
    manager.createSession();
    manager.removeSession(QUuid());
    manager.removeSession(QUuid::createUuid());
    manager.keepAlive(nullptr);
    QVERIFY(observer.ended.isEmpty());
    QCOMPARE(manager.sessionCount(), 1);
}

void tst_NwaWebSessionManager::oneMoreEndsTheOneIdleForLongest()
{
    NwaWebSessionManager manager;
    manager.setMaximumSessionCount(3);
    const Observer observer(&manager, Observer::Look);
    const QUuid first = manager.createSession()->id();
    const QUuid second = manager.createSession()->id();
    const QUuid third = manager.createSession()->id();
    manager.keepAlive(manager.session(first));
    manager.createSession();
    QCOMPARE(observer.ended, QList<QUuid>() << second);
    manager.createSession();
    QCOMPARE(observer.ended, QList<QUuid>() << second << third);
    QVERIFY(manager.session(first));
    QCOMPARE(manager.sessionCount(), 3);
}

void tst_NwaWebSessionManager::smallerLimitTakesEffectWithTheNextSession()
{
    NwaWebSessionManager manager;
    for (int count = 0; count < 10; ++count)
        manager.createSession();
    manager.setMaximumSessionCount(2);
    QCOMPARE(manager.sessionCount(), 10);
    manager.createSession();
    QCOMPARE(manager.sessionCount(), 2);
}

void tst_NwaWebSessionManager::idleSessionExpires()
{
    NwaWebSessionManager manager;
    manager.setIdleTimeout(1);
    const Observer observer(&manager, Observer::Look);
    const QUuid first = manager.createSession()->id();
    const QUuid second = manager.createSession()->id();
    NTRY_COMPARE(manager.sessionCount(), 0);
    QCOMPARE(observer.ended, QList<QUuid>() << first << second);
    QCOMPARE(observer.foundCount, 2);
}

void tst_NwaWebSessionManager::sessionThatIsKeptAliveOutlivesAnother()
{
    NwaWebSessionManager manager;
    manager.setIdleTimeout(1);
    const QUuid kept = manager.createSession()->id();
    const QUuid idle = manager.createSession()->id();
    QVERIFY(NTest::waitUntil([&]() {
        manager.keepAlive(manager.session(kept));
        return !manager.session(idle);
    }));
    QVERIFY(manager.session(kept));
    NTRY_COMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::shorterTimeoutTakesEffectAtOnce()
{
    NwaWebSessionManager manager;
    manager.createSession();
    manager.setIdleTimeout(1);
    NTRY_COMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::expiredSessionIsGoneEvenBeforeItIsRemoved()
{
    NwaWebSessionManager manager;
    manager.setIdleTimeout(1);
    NwaWebSession* session = manager.createSession();
    const QUuid id = session->id();
    // The event loop does not run, as in a busy program.
    while (manager.session(id)) {
    }
    QCOMPARE(manager.sessionCount(), 1);
    manager.keepAlive(session);
    QVERIFY(!manager.session(id));
    NTRY_COMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::slotMayRemoveTheSameSession()
{
    NwaWebSessionManager manager;
    const Observer observer(&manager, Observer::RemoveSame);
    manager.removeSession(manager.createSession()->id());
    QCOMPARE(observer.ended.size(), 1);
    QCOMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::slotMayRemoveAnotherSession()
{
    NwaWebSessionManager manager;
    manager.setIdleTimeout(1);
    Observer observer(&manager, Observer::RemoveOther);
    const QUuid first = manager.createSession()->id();
    observer.other = manager.createSession()->id();
    const QUuid third = manager.createSession()->id();
    NTRY_COMPARE(manager.sessionCount(), 0);
    QCOMPARE(observer.ended, QList<QUuid>() << first << observer.other << third);
}

void tst_NwaWebSessionManager::slotMayMakeSessions()
{
    NwaWebSessionManager manager;
    const Observer observer(&manager, Observer::Create);
    manager.removeSession(manager.createSession()->id());
    QCOMPARE(manager.sessionCount(), 1);

    manager.setMaximumSessionCount(2);
    for (int count = 0; count < 100; ++count)
        QVERIFY(manager.createSession());
    QCOMPARE(manager.sessionCount(), 2);
}

void tst_NwaWebSessionManager::slotCannotSaveTheSession()
{
    NwaWebSessionManager manager;
    const Observer observer(&manager, Observer::KeepAlive);
    manager.removeSession(manager.createSession()->id());
    QCOMPARE(observer.foundCount, 1);
    QCOMPARE(manager.sessionCount(), 0);
}

void tst_NwaWebSessionManager::slotMayDeleteTheManager_data()
{
    QTest::addColumn<int>("way");
    QTest::newRow("removed") << 0;
    QTest::newRow("one too many") << 1;
    QTest::newRow("expired") << 2;
}

void tst_NwaWebSessionManager::slotMayDeleteTheManager()
{
    QFETCH(int, way);
    QPointer<NwaWebSessionManager> manager(new NwaWebSessionManager);
    const Observer observer(manager, Observer::DeleteManager);
    manager->setMaximumSessionCount(3);
    const QUuid first = manager->createSession()->id();
    manager->createSession();
    manager->createSession();

    if (way == 0)
        manager->removeSession(first);
    else if (way == 1)
        QVERIFY(!manager->createSession());
    else
        manager->setIdleTimeout(1);
    NTRY_VERIFY(manager.isNull());
    QCOMPARE(observer.ended.size(), 3);
}

void tst_NwaWebSessionManager::destructionEndsAllSessions()
{
    NwaWebSessionManager* manager = new NwaWebSessionManager;
    const Observer observer(manager, Observer::Look);
    const QUuid first = manager->createSession()->id();
    const QUuid second = manager->createSession()->id();
    delete manager;
    QCOMPARE(observer.ended, QList<QUuid>() << first << second);
    QCOMPARE(observer.foundCount, 2);
}

void tst_NwaWebSessionManager::noSessionIsMadeDuringDestruction()
{
    NwaWebSessionManager* manager = new NwaWebSessionManager;
    const Observer observer(manager, Observer::Create);
    manager->createSession();
    delete manager;
    QCOMPARE(observer.ended.size(), 1);
}

void tst_NwaWebSessionManager::memoryStaysFlat()
{
    NwaWebSessionManager manager;
    manager.setMaximumSessionCount(100000);
    manager.setIdleTimeout(1);
    qint64 before = 0;
    for (int round = 0; round < 3; ++round) {
        for (int count = 0; count < 100000; ++count)
            QVERIFY(manager.createSession());
        NTRY_COMPARE(manager.sessionCount(), 0);
        if (round == 0)
            before = NTest::allocatedBytes();
    }
    // A hundredth of what the sessions of one round take.
    QVERIFY(NTest::allocatedBytes() - before < 100 * 1000);
}

QTEST_MAIN(tst_NwaWebSessionManager)
#include "tst_nwawebsessionmanager.moc"
