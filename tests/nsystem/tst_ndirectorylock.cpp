#include <nsystem/ndirectorylock_p.h>

#include "support/nchildprocess.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

// Whether flock(2) grants @a operation on the directory right now.
bool isGranted(const QByteArray& path, int operation)
{
    const NFileDescriptor directory = NSystem::open(path.constData(), O_RDONLY);
    return ::flock(directory.number(), operation | LOCK_NB) == 0;
}

} // namespace

class tst_NDirectoryLock : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_directory.reset(new NTemporaryDirectory); }
    void cleanup() { m_directory.reset(); }

    void exclusiveLockExcludesAllOthers();
    void sharedLockExcludesExclusiveOnes();
    void sharedLockBecomesExclusive();
    void lockIsAwaited();
    void lockEndsWithItsProcess();
    void missingDirectoryCountsAsLocked();

private:
    QByteArray path() const { return QFile::encodeName(m_directory->path()); }

    QScopedPointer<NTemporaryDirectory> m_directory;
};

void tst_NDirectoryLock::exclusiveLockExcludesAllOthers()
{
    {
        const NDirectoryLock lock(path().constData(), NDirectoryLock::Exclusive);
        QVERIFY(lock.isLocked());
        QVERIFY(!isGranted(path(), LOCK_SH));
        QVERIFY(!isGranted(path(), LOCK_EX));
    }
    QVERIFY(isGranted(path(), LOCK_EX));
}

void tst_NDirectoryLock::sharedLockExcludesExclusiveOnes()
{
    const NDirectoryLock lock(path().constData(), NDirectoryLock::Shared);
    QVERIFY(lock.isLocked());
    QVERIFY(isGranted(path(), LOCK_SH));
    QVERIFY(!isGranted(path(), LOCK_EX));
}

void tst_NDirectoryLock::sharedLockBecomesExclusive()
{
    NDirectoryLock lock(path().constData(), NDirectoryLock::Shared);
    QVERIFY(lock.makeExclusive());
    QVERIFY(lock.isLocked());
    QVERIFY(!isGranted(path(), LOCK_SH));
    QVERIFY(lock.synchronize());
}

void tst_NDirectoryLock::lockIsAwaited()
{
    QScopedPointer<NDirectoryLock> first(new NDirectoryLock(path().constData(), NDirectoryLock::Exclusive));
    std::atomic<bool> isReleased(false);
    bool wasReleasedBefore = false;
    std::thread second([this, &isReleased, &wasReleasedBefore]() {
        const NDirectoryLock lock(path().constData(), NDirectoryLock::Exclusive);
        wasReleasedBefore = isReleased && lock.isLocked();
    });
    isReleased = true;
    first.reset();
    second.join();
    QVERIFY(wasReleasedBefore);
}

void tst_NDirectoryLock::lockEndsWithItsProcess()
{
    int ends[2];
    QVERIFY(::pipe2(ends, O_CLOEXEC) == 0);
    const NFileDescriptor reading(ends[0]);
    NFileDescriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        const NDirectoryLock lock(path().constData(), NDirectoryLock::Exclusive);
        NSystem::writeAll(writing.number(), "l", 1);
        ::pause();
        ::_exit(0);
    }
    writing.reset();
    char byte;
    QCOMPARE(NSystem::readAll(reading.number(), &byte, 1), ssize_t(1));
    QVERIFY(!isGranted(path(), LOCK_SH));
    ::kill(child, SIGKILL);
    NTest::waitForChild(child);
    const NDirectoryLock lock(path().constData(), NDirectoryLock::Exclusive);
    QVERIFY(lock.isLocked());
}

void tst_NDirectoryLock::missingDirectoryCountsAsLocked()
{
    const NDirectoryLock lock((path() + "/missing").constData(), NDirectoryLock::Exclusive);
    QVERIFY(lock.isLocked());
    QVERIFY(lock.synchronize());
}

QTEST_APPLESS_MAIN(tst_NDirectoryLock)

#include "tst_ndirectorylock.moc"
