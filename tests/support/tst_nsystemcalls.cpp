#include "support/nsystemcalls.h"

#include "support/ntemporarydirectory.h"
#include "support/nthreads.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <system_error>
#include <thread>

using namespace NSystemCalls;

/** What a test case calls: it returns a negative number and sets errno on failure. */
typedef std::function<qint64()> SystemCall;
Q_DECLARE_METATYPE(SystemCall)

class tst_NSystemCalls : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void functionsComeBeforeTheCLibrarys_data();
    void functionsComeBeforeTheCLibrarys();
    void faultFailsItsFunctionsOnly_data();
    void faultFailsItsFunctionsOnly();
    void librariesMeetTheFault();
    void faultSkipsCallsAndEnds();
    void faultConcernsAPath();
    void faultConcernsADescriptor();
    void faultConcernsAnOffset();
    void faultConcernsSeveralFunctions();
    void failedCloseClosesTheDescriptor();
    void interruptionHappensOnce();
    void transfersAreShort();
    void ioctlIsAnsweredByRequest();
    void terminalSettingsAreAnswered();
    void statisticsAreAnswered();
    void answerSetsErrno();
    void noticeComesBeforeTheCall();
    void callIsBlockedUntilItIsReleased();
    void endOfTheBlockReleasesTheCall();
    void blockedThreadMayBeCancelled();
    void lastRuleDecides();
    void callsAreRecordedInTheirOrder();
    void callThatContinuesLeavesErrno();
    void threadsCannotBeStarted();
    void rulesHoldInAllThreads();
    void rulesMayComeAndGoDuringCalls();

    void stoppedClockIsReadByAllFunctions();
    void stoppedClockAdvancesByItsStep();
    void runningClockStartsAtItsTime();
    void otherClocksRunOn();

private:
    QByteArray path(const char* name) const;

    QScopedPointer<NTemporaryDirectory> m_directory;
    int m_file;
};

namespace {

/** The function as a library of the process finds it. */
template <typename Function> Function* function(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

void* noThread(void*)
{
    return nullptr;
}

void* synchronizeForever(void* file)
{
    while (::fsync(*static_cast<int*>(file)) == 0) {
    }
    return nullptr;
}

/** Functions that return the error number instead of setting errno. */
qint64 resultOf(int error)
{
    errno = error;
    return error == 0 ? 0 : -1;
}

qint64 clockTime()
{
    struct timespec time = {0, 0};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return qint64(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

} // namespace

void tst_NSystemCalls::init()
{
    m_directory.reset(new NTemporaryDirectory);
    m_directory->writeFile(QString::fromLatin1("file"), "0123456789");
    m_file = ::open(path("file"), O_RDWR | O_CLOEXEC);
    QVERIFY(m_file >= 0);
}

void tst_NSystemCalls::cleanup()
{
    ::close(m_file);
    m_directory.reset();
}

QByteArray tst_NSystemCalls::path(const char* name) const
{
    return QFile::encodeName(m_directory->filePath(QString::fromLatin1(name)));
}

void tst_NSystemCalls::functionsComeBeforeTheCLibrarys_data()
{
    const char* const names[] = {
        "open",          "open64",       "openat",      "openat64",  "__open_2",        "__open64_2",
        "__openat_2",    "__openat64_2", "close",       "read",      "__read_chk",      "write",
        "pread",         "pread64",      "__pread_chk", "pwrite",    "__pread64_chk",   "pwrite64",
        "fsync",         "fdatasync",    "rename",      "renameat",  "renameat2",       "unlink",
        "unlinkat",      "mmap",         "mmap64",      "flock",     "ioctl",           "tcgetattr",
        "tcsetattr",     "usleep",       "nanosleep",   "time",      "clock_nanosleep", "pthread_create",
        "clock_gettime", "gettimeofday", "tcdrain",     "fpathconf", "statvfs",         "statvfs64"};
    QTest::addColumn<QByteArray>("name");
    for (const char* name : names)
        QTest::newRow(name) << QByteArray(name);
}

void tst_NSystemCalls::functionsComeBeforeTheCLibrarys()
{
    QFETCH(QByteArray, name);
    Dl_info found;
    Dl_info program;
    QVERIFY(::dladdr(::dlsym(RTLD_DEFAULT, name.constData()), &found) != 0);
    QVERIFY(::dladdr(reinterpret_cast<void*>(&noThread), &program) != 0);
    QCOMPARE(found.dli_fbase, program.dli_fbase);
}

// Each is made with a fault, which must be without an effect, and then without one.
void tst_NSystemCalls::faultFailsItsFunctionsOnly_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<SystemCall>("make");
    const auto add = [](const char* name, Call call, const SystemCall& make) {
        QTest::newRow(name) << int(call) << make;
    };
    // The descriptors that these open are closed by the process's end.
    add("open", Open, [this]() { return function<int(const char*, int, ...)>("open")(path("file"), O_RDONLY); });
    add("open with a mode", Open, [this]() {
        const int file = function<int(const char*, int, ...)>("open")(path("new"), O_WRONLY | O_CREAT, 0640);
        struct stat status;
        return file < 0 || (::fstat(file, &status) == 0 && (status.st_mode & 0777) == 0640) ? file : -2;
    });
    add("open64", Open,
        [this]() { return function<int(const char*, int, ...)>("open64")(path("file"), O_RDONLY); });
    add("openat", Open, [this]() {
        return function<int(int, const char*, int, ...)>("openat")(AT_FDCWD, path("file"), O_RDONLY);
    });
    add("openat64", Open, [this]() {
        return function<int(int, const char*, int, ...)>("openat64")(AT_FDCWD, path("file"), O_RDONLY);
    });
    add("read", Read, [this]() {
        char byte;
        return function<ssize_t(int, void*, size_t)>("read")(m_file, &byte, 1);
    });
    add("write", Write, [this]() { return function<ssize_t(int, const void*, size_t)>("write")(m_file, "x", 1); });
    add("pread", Pread, [this]() {
        char byte;
        return function<ssize_t(int, void*, size_t, long)>("pread")(m_file, &byte, 1, 9);
    });
    add("pread64", Pread, [this]() {
        char byte = 0;
        const ssize_t size = function<ssize_t(int, void*, size_t, int64_t)>("pread64")(m_file, &byte, 1, 9);
        return size < 0 || byte == '9' ? size : -2;
    });
    add("pwrite", Pwrite,
        [this]() { return function<ssize_t(int, const void*, size_t, long)>("pwrite")(m_file, "x", 1, 3); });
    add("pwrite64", Pwrite,
        [this]() { return function<ssize_t(int, const void*, size_t, int64_t)>("pwrite64")(m_file, "x", 1, 3); });
    add("fsync", Fsync, [this]() { return ::fsync(m_file); });
    add("fdatasync", Fdatasync, [this]() { return ::fdatasync(m_file); });
    add("rename", Rename, [this]() { return ::rename(path("file"), path("other")); });
    add("renameat", Rename, [this]() { return ::renameat(AT_FDCWD, path("file"), AT_FDCWD, path("other")); });
    add("unlink", Unlink, [this]() { return ::unlink(path("file")); });
    add("unlinkat", Unlink, [this]() { return ::unlinkat(AT_FDCWD, path("file"), 0); });
    add("mmap", Mmap, [this]() {
        const auto map = function<void*(void*, size_t, int, int, int, long)>("mmap");
        void* const memory = map(nullptr, 10, PROT_READ, MAP_SHARED, m_file, 0);
        return memory == MAP_FAILED ? -1 : memcmp(memory, "0123456789", 10) == 0 ? 0 : -2;
    });
    add("mmap64", Mmap, [this]() {
        const auto map = function<void*(void*, size_t, int, int, int, int64_t)>("mmap64");
        void* const memory = map(nullptr, 10, PROT_READ, MAP_SHARED, m_file, 0);
        return memory == MAP_FAILED ? -1 : memcmp(memory, "0123456789", 10) == 0 ? 0 : -2;
    });
    add("flock", Flock, [this]() { return ::flock(m_file, LOCK_EX); });
    add("ioctl", Ioctl, [this]() {
        int size = 0;
        const int result = ::ioctl(m_file, FIONREAD, &size);
        return result < 0 || size == 10 ? result : -2;
    });
    add("tcgetattr", Tcgetattr, []() {
        const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        struct termios settings;
        return ::tcgetattr(terminal, &settings);
    });
    add("tcsetattr", Tcsetattr, []() {
        const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        struct termios settings;
        memset(&settings, 0, sizeof(settings));
        return ::tcsetattr(terminal, TCSANOW, &settings);
    });
    add("tcdrain", Tcdrain, []() {
        const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        return ::tcdrain(terminal);
    });
    add("fpathconf", Fpathconf, [this]() {
        errno = 0;
        return ::fpathconf(m_file, _PC_NAME_MAX);
    });
    add("statvfs", Statvfs, []() {
        // Larger than the structure of either variant.
        char statistics[1024];
        return function<int(const char*, void*)>("statvfs")("/", statistics);
    });
    add("statvfs64", Statvfs, []() {
        struct statvfs64 statistics;
        const int result = function<int(const char*, void*)>("statvfs64")("/", &statistics);
        return result < 0 || statistics.f_frsize > 0 ? result : -2;
    });
    add("pthread_create", PthreadCreate, []() {
        pthread_t thread;
        const int error = ::pthread_create(&thread, nullptr, noThread, nullptr);
        if (error == 0)
            ::pthread_join(thread, nullptr);
        return resultOf(error);
    });
    add("usleep", Sleep, []() { return ::usleep(1); });
    add("nanosleep", Sleep, []() {
        const struct timespec time = {0, 1};
        return ::nanosleep(&time, nullptr);
    });
    add("clock_nanosleep", Sleep, []() {
        const struct timespec time = {0, 1};
        return resultOf(::clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr));
    });
#ifdef __GLIBC__
    add("__open_2", Open,
        [this]() { return function<int(const char*, int)>("__open_2")(path("file"), O_RDONLY); });
    add("__open64_2", Open,
        [this]() { return function<int(const char*, int)>("__open64_2")(path("file"), O_RDONLY); });
    add("__openat_2", Open,
        [this]() { return function<int(int, const char*, int)>("__openat_2")(AT_FDCWD, path("file"), O_RDONLY); });
    add("__openat64_2", Open, [this]() {
        return function<int(int, const char*, int)>("__openat64_2")(AT_FDCWD, path("file"), O_RDONLY);
    });
    add("__read_chk", Read, [this]() {
        char byte;
        return function<ssize_t(int, void*, size_t, size_t)>("__read_chk")(m_file, &byte, 1, 1);
    });
    add("__pread_chk", Pread, [this]() {
        char byte;
        return function<ssize_t(int, void*, size_t, long, size_t)>("__pread_chk")(m_file, &byte, 1, 9, 1);
    });
    add("__pread64_chk", Pread, [this]() {
        char byte;
        return function<ssize_t(int, void*, size_t, int64_t, size_t)>("__pread64_chk")(m_file, &byte, 1, 9, 1);
    });
    add("renameat2", Rename, [this]() {
        return function<int(int, const char*, int, const char*, unsigned)>("renameat2")(
            AT_FDCWD, path("file"), AT_FDCWD, path("other"), 0);
    });
#endif
}

void tst_NSystemCalls::faultFailsItsFunctionsOnly()
{
    QFETCH(int, call);
    QFETCH(SystemCall, make);
    {
        const Fault others(~call, ENOLINK);
        const Fault fault(call, EDOM);
        errno = 0;
        QCOMPARE(make(), qint64(-1));
        QCOMPARE(errno, EDOM);
        QCOMPARE(fault.count(), 1);
        QCOMPARE(others.count(), 0);
    }
    char content[10];
    QCOMPARE(::pread(m_file, content, sizeof(content), 0), ssize_t(10));
    QCOMPARE(QByteArray(content, 10), QByteArray("0123456789"));
    QCOMPARE(::lseek(m_file, 0, SEEK_CUR), off_t(0));
    QCOMPARE(::access(path("file"), F_OK), 0);
    QVERIFY(make() >= 0);
}

void tst_NSystemCalls::librariesMeetTheFault()
{
    QFile file(m_directory->filePath(QString::fromLatin1("file")));
    {
        const Fault fault(Calls(Open).onPath(path("file")), EMFILE);
        QVERIFY(!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
        QCOMPARE(file.error(), QFile::ResourceError);
    }
    QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    const Fault fault(Calls(Read | Write).onDescriptor(file.handle()), ENOSPC);
    QCOMPARE(file.write("x"), qint64(-1));
    QCOMPARE(file.read(1), QByteArray());
    QCOMPARE(fault.count(), 2);
}

void tst_NSystemCalls::faultSkipsCallsAndEnds()
{
    const Fault fault(Calls(Fsync).skip(2).times(3), EIO);
    QByteArray results;
    for (int count = 0; count < 7; ++count)
        results += ::fsync(m_file) == 0 ? '+' : '-';
    QCOMPARE(results, QByteArray("++---++"));
    QCOMPARE(fault.count(), 3);
}

void tst_NSystemCalls::faultConcernsAPath()
{
    m_directory->writeFile(QString::fromLatin1("other"), "");
    const int other = ::open(path("other"), O_RDWR | O_CLOEXEC);
    const Fault fault(Calls(Open | Fsync | Rename | Unlink).onPath(path("file")), EIO);
    QCOMPARE(::fsync(other), 0);
    QCOMPARE(::fsync(m_file), -1);
    QCOMPARE(::open(path("file"), O_RDONLY | O_CLOEXEC), -1);
    QCOMPARE(::rename(path("file"), path("new")), -1);
    QCOMPARE(::rename(path("other"), path("file")), -1);
    QCOMPARE(::rename(path("other"), path("another")), 0);
    QCOMPARE(::unlink(path("another")), 0);
    QCOMPARE(::unlink(path("file")), -1);
    QCOMPARE(fault.count(), 5);
    ::close(other);
}

void tst_NSystemCalls::faultConcernsADescriptor()
{
    const int other = ::open(path("file"), O_RDWR | O_CLOEXEC);
    const Fault fault(Calls(Write | Close).onDescriptor(other), EIO);
    QCOMPARE(::write(m_file, "x", 1), ssize_t(1));
    QCOMPARE(::write(other, "x", 1), ssize_t(-1));
    QCOMPARE(::close(other), -1);
}

void tst_NSystemCalls::faultConcernsAnOffset()
{
    char bytes[4];
    const Fault fault(Calls(Pread).atOffset(4), EIO);
    QCOMPARE(::pread(m_file, bytes, 4, 0), ssize_t(4));
    QCOMPARE(::pread(m_file, bytes, 4, 4), ssize_t(-1));
}

void tst_NSystemCalls::faultConcernsSeveralFunctions()
{
    const Fault fault(Calls(Fsync | Fdatasync).skip(1).times(1), EIO);
    QCOMPARE(::fsync(m_file), 0);
    QCOMPARE(::fdatasync(m_file), -1);
    QCOMPARE(::fsync(m_file), 0);
}

void tst_NSystemCalls::failedCloseClosesTheDescriptor()
{
    const int file = ::open(path("file"), O_RDONLY | O_CLOEXEC);
    const Fault fault(Calls(Close).onPath(path("file")), EIO);
    errno = 0;
    QCOMPARE(::close(file), -1);
    QCOMPARE(errno, EIO);
    QCOMPARE(::fcntl(file, F_GETFD), -1);
}

void tst_NSystemCalls::interruptionHappensOnce()
{
    const Fault fault(Calls(Read).onDescriptor(m_file).times(1), EINTR);
    char byte;
    QCOMPARE(::read(m_file, &byte, 1), ssize_t(-1));
    QCOMPARE(errno, EINTR);
    QCOMPARE(::read(m_file, &byte, 1), ssize_t(1));
    QCOMPARE(byte, '0');
}

void tst_NSystemCalls::transfersAreShort()
{
    char bytes[10];
    const ShortTransfer limit(Calls(Read | Write | Pread | Pwrite).onDescriptor(m_file), 3);
    QCOMPARE(::read(m_file, bytes, 10), ssize_t(3));
    QCOMPARE(::read(m_file, bytes, 2), ssize_t(2));
    QCOMPARE(QByteArray(bytes, 2), QByteArray("34"));
    QCOMPARE(::write(m_file, "abcde", 5), ssize_t(3));
    QCOMPARE(::pwrite(m_file, "vwxyz", 5, 0), ssize_t(3));
    QCOMPARE(::pread(m_file, bytes, 10, 0), ssize_t(3));
    QCOMPARE(limit.count(), 5);
    QFile file(m_directory->filePath(QString::fromLatin1("file")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("vwx34abc89"));
}

void tst_NSystemCalls::ioctlIsAnsweredByRequest()
{
    int lines = TIOCM_CTS | TIOCM_DSR;
    const Answer get(
        Calls(Ioctl).onDescriptor(m_file).withRequest(TIOCMGET), [&lines](const Invocation& invocation) {
            *static_cast<int*>(invocation.argument) = lines;
            return 0;
        });
    const Answer set(
        Calls(Ioctl).onDescriptor(m_file).withRequest(TIOCMSET), [&lines](const Invocation& invocation) {
            lines = *static_cast<const int*>(invocation.argument);
            return 0;
        });
    const Fault noBreak(Calls(Ioctl).withRequest(TIOCSBRK), EOPNOTSUPP);
    int value = 0;
    QCOMPARE(::ioctl(m_file, TIOCMGET, &value), 0);
    QCOMPARE(value, TIOCM_CTS | TIOCM_DSR);
    value = TIOCM_RTS;
    QCOMPARE(::ioctl(m_file, TIOCMSET, &value), 0);
    QCOMPARE(lines, int(TIOCM_RTS));
    QCOMPARE(::ioctl(m_file, TIOCSBRK), -1);
    QCOMPARE(errno, EOPNOTSUPP);
    QCOMPARE(::ioctl(m_file, FIONREAD, &value), 0);
    QCOMPARE(value, 10);
}

void tst_NSystemCalls::terminalSettingsAreAnswered()
{
    struct termios stored;
    memset(&stored, 0, sizeof(stored));
    const Answer get(Calls(Tcgetattr).onDescriptor(m_file), [&stored](const Invocation& invocation) {
        *static_cast<struct termios*>(invocation.argument) = stored;
        return 0;
    });
    int actions = -1;
    // A driver that cannot do two stop bits, and reports success as POSIX allows.
    const Answer set(Calls(Tcsetattr).onDescriptor(m_file), [&stored, &actions](const Invocation& invocation) {
        actions = invocation.flags;
        stored = *static_cast<const struct termios*>(invocation.argument);
        stored.c_cflag &= ~tcflag_t(CSTOPB);
        return 0;
    });
    struct termios settings;
    memset(&settings, 0, sizeof(settings));
    settings.c_cflag = CS7 | CSTOPB;
    QCOMPARE(::tcsetattr(m_file, TCSAFLUSH, &settings), 0);
    QCOMPARE(actions, TCSAFLUSH);
    QCOMPARE(::tcgetattr(m_file, &settings), 0);
    QCOMPARE(settings.c_cflag, tcflag_t(CS7));
    const Answer disabled(Calls(Fpathconf).onDescriptor(m_file), [](const Invocation& invocation) {
        return invocation.flags == _PC_VDISABLE ? 0x7f : -1;
    });
    QCOMPARE(::fpathconf(m_file, _PC_VDISABLE), 0x7fL);
}

void tst_NSystemCalls::statisticsAreAnswered()
{
    const Answer answer(Calls(Statvfs).onPath("/"), [](const Invocation& invocation) {
        static_cast<struct statvfs*>(invocation.argument)->f_blocks = 12345;
        return 0;
    });
    struct statvfs statistics;
    QCOMPARE(::statvfs("/", &statistics), 0);
    QCOMPARE(quint64(statistics.f_blocks), Q_UINT64_C(12345));
}

void tst_NSystemCalls::answerSetsErrno()
{
    const Answer answer(Calls(Read).onDescriptor(m_file), [](const Invocation& invocation) -> qint64 {
        if (invocation.size > 4) {
            errno = EINVAL;
            return -1;
        }
        memset(invocation.argument, 'z', invocation.size);
        return qint64(invocation.size);
    });
    char bytes[10];
    QCOMPARE(::read(m_file, bytes, 10), ssize_t(-1));
    QCOMPARE(errno, EINVAL);
    QCOMPARE(::read(m_file, bytes, 4), ssize_t(4));
    QCOMPARE(QByteArray(bytes, 4), QByteArray("zzzz"));
}

void tst_NSystemCalls::noticeComesBeforeTheCall()
{
    int calls = 0;
    const Fault writeFault(Write, EIO);
    const Notice notice(Calls(Unlink).onPath(path("file")), [&](const Invocation& invocation) {
        ++calls;
        QCOMPARE(QByteArray(invocation.path), path("file"));
        QCOMPARE(::access(invocation.path, F_OK), 0);
        // The function's own calls are not intercepted.
        QCOMPARE(::write(m_file, "x", 1), ssize_t(1));
        QCOMPARE(::unlink(path("none")), -1);
    });
    QCOMPARE(::unlink(path("file")), 0);
    QCOMPARE(calls, 1);
    QCOMPARE(writeFault.count(), 0);
    QCOMPARE(::access(path("file"), F_OK), -1);
}

void tst_NSystemCalls::callIsBlockedUntilItIsReleased()
{
    Block block(Calls(Open).onPath(path("file")));
    std::atomic<int> file(-2);
    std::thread opener([&]() { file = ::open(path("file"), O_RDONLY | O_CLOEXEC); });
    const bool isReached = block.waitUntilReached();
    const int early = file;
    block.release();
    opener.join();
    QVERIFY(isReached);
    QCOMPARE(early, -2);
    QVERIFY(file >= 0);
    ::close(file);
    // Later calls are not blocked.
    ::close(::open(path("file"), O_RDONLY | O_CLOEXEC));
    QCOMPARE(block.count(), 2);
    const Block other(Fsync);
    QVERIFY(!Block(Fsync).waitUntilReached(1));
}

void tst_NSystemCalls::endOfTheBlockReleasesTheCall()
{
    std::thread caller;
    std::atomic<int> result(-2);
    bool isReached = false;
    {
        Block block(Calls(Fsync).onDescriptor(m_file));
        caller = std::thread([&]() { result = ::fsync(m_file); });
        isReached = block.waitUntilReached();
    }
    caller.join();
    QVERIFY(isReached);
    QCOMPARE(int(result), 0);
}

void tst_NSystemCalls::blockedThreadMayBeCancelled()
{
    Block block(Calls(Fsync).onDescriptor(m_file));
    pthread_t thread;
    QCOMPARE(::pthread_create(&thread, nullptr, synchronizeForever, &m_file), 0);
    QVERIFY(block.waitUntilReached());
    QCOMPARE(::pthread_cancel(thread), 0);
    void* result = nullptr;
    QCOMPARE(::pthread_join(thread, &result), 0);
    QVERIFY(result == PTHREAD_CANCELED);
    block.release();
    QCOMPARE(::fsync(m_file), 0);
    QCOMPARE(block.count(), 2);
}

void tst_NSystemCalls::lastRuleDecides()
{
    const Fault first(Fsync, EIO);
    {
        const Fault second(Fsync, ENOSPC);
        QCOMPARE(::fsync(m_file), -1);
        QCOMPARE(errno, ENOSPC);
        QCOMPARE(second.count(), 1);
    }
    QCOMPARE(::fsync(m_file), -1);
    QCOMPARE(errno, EIO);
    QCOMPARE(first.count(), 2);
}

void tst_NSystemCalls::callsAreRecordedInTheirOrder()
{
    Record record(Fsync | Fdatasync | Rename | Unlink);
    const Fault fault(Fdatasync, EIO);
    ::fsync(m_file);
    ::rename(path("file"), path("new"));
    ::fdatasync(m_file);
    ::unlink(path("new"));
    ::fsync(-1);
    QCOMPARE(
        record.take(), QList<QByteArray>() << "fsync file"
                                           << "rename file new"
                                           << "fdatasync new"
                                           << "unlink new"
                                           << "fsync");
    QCOMPARE(record.take(), QList<QByteArray>());
}

void tst_NSystemCalls::callThatContinuesLeavesErrno()
{
    const Fault fault(Calls(Fsync).onPath("/none"), EIO);
    const Notice notice(Fsync, [](const Invocation&) { errno = EDOM; });
    errno = ENOLINK;
    QCOMPARE(::fsync(m_file), 0);
    QCOMPARE(errno, ENOLINK);
}

void tst_NSystemCalls::threadsCannotBeStarted()
{
    const Fault fault(PthreadCreate, EAGAIN);
    int error = 0;
    try {
        std::thread([]() {}).join();
    } catch (const std::system_error& exception) {
        error = exception.code().value();
    }
    QCOMPARE(error, EAGAIN);
}

void tst_NSystemCalls::rulesHoldInAllThreads()
{
    const int threads = 8;
    const int calls = 1000;
    const Fault fault(Calls(Pread).onDescriptor(m_file).skip(500).times(2000), EIO);
    std::atomic<int> failures(0);
    QVERIFY(NTest::holdsInThreads(threads, [&](int) {
        char byte;
        for (int count = 0; count < calls; ++count) {
            if (::pread(m_file, &byte, 1, 0) < 0 && errno == EIO)
                ++failures;
        }
        return true;
    }));
    QCOMPARE(int(failures), 2000);
    QCOMPARE(fault.count(), 2000);
}

void tst_NSystemCalls::rulesMayComeAndGoDuringCalls()
{
    std::atomic<int> applied(0);
    std::atomic<int> counted(0);
    QVERIFY(NTest::holdsInThreads(6, [&](int index) {
        for (int count = 0; count < 500; ++count) {
            if (index % 2 == 0) {
                const Notice notice(
                    Calls(Fdatasync).onDescriptor(m_file), [&applied](const Invocation&) { ++applied; });
                std::this_thread::yield();
                counted += notice.count();
            } else {
                ::fdatasync(m_file);
            }
        }
        return true;
    }));
    // A call that came between the count and the end of its rule was applied, but not counted.
    QVERIFY(applied >= counted);
}

void tst_NSystemCalls::stoppedClockIsReadByAllFunctions()
{
    const qint64 time = Q_INT64_C(1700000000123);
    stopClockAt(time);
    struct timeval timeOfDay = {0, 0};
    QCOMPARE(::gettimeofday(&timeOfDay, nullptr), 0);
    time_t seconds = 0;
    const time_t result = ::time(&seconds);
    struct timespec coarse = {0, 0};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &coarse);
    const qint64 fine = clockTime();
    const qint64 toolkit = QDateTime::currentMSecsSinceEpoch();
    resetClock();
    QCOMPARE(qint64(timeOfDay.tv_sec) * 1000 + timeOfDay.tv_usec / 1000, time);
    QCOMPARE(qint64(seconds), time / 1000);
    QCOMPARE(result, seconds);
    QCOMPARE(qint64(coarse.tv_sec) * 1000 + coarse.tv_nsec / 1000000, time);
    QCOMPARE(fine, time);
    QCOMPARE(toolkit, time);
    QVERIFY(clockTime() != time);
}

void tst_NSystemCalls::stoppedClockAdvancesByItsStep()
{
    stopClockAt(5000);
    setClockStep(-70);
    QCOMPARE(clockTime(), qint64(5000));
    QCOMPARE(clockTime(), qint64(4930));
    setClockStep(0);
    QCOMPARE(clockTime(), qint64(4860));
    QCOMPARE(clockTime(), qint64(4860));
    resetClock();
}

void tst_NSystemCalls::runningClockStartsAtItsTime()
{
    const qint64 start = Q_INT64_C(1000000000000);
    runClockFrom(start);
    const qint64 first = clockTime();
    qint64 later = first;
    while (later == first)
        later = clockTime();
    resetClock();
    // The machine's clock is years ahead.
    QVERIFY(first >= start && later > first && later < start + 24 * 3600 * 1000);
}

void tst_NSystemCalls::otherClocksRunOn()
{
    struct timespec before = {0, 0};
    struct timespec after = {0, 0};
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    stopClockAt(0);
    do
        ::clock_gettime(CLOCK_MONOTONIC, &after);
    while (after.tv_sec == before.tv_sec && after.tv_nsec == before.tv_nsec);
    resetClock();
    QVERIFY(after.tv_sec >= before.tv_sec);
}

QTEST_APPLESS_MAIN(tst_NSystemCalls)
#include "tst_nsystemcalls.moc"
