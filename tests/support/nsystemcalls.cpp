#include "support/nsystemcalls.h"

#include <QtCore/QByteArray>

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>

namespace NSystemCalls {

namespace {

const int MostRulesForOneCall = 16;
const int PathSize = 4096;

/** The values of Call that any rule is for: calls of other functions continue at once. */
std::atomic<int> s_watched(0);

// The functions below run before the program's static objects are constructed and after they are destroyed. There
// are no rules then, so that only s_watched is used, which needs neither.
std::mutex s_mutex;
std::condition_variable s_isUnused;
Rule* s_rules = nullptr; // the last constructed first

/** Whether this thread is applying the rules to a call: the system calls that it makes for this are its own. */
__thread bool t_isDeciding = false;

bool isWatched(Call call)
{
    return (s_watched.load(std::memory_order_relaxed) & call) != 0;
}

bool isPath(const char* path, const QByteArray& expected)
{
    return path && expected == path;
}

/** @return where a descriptor leads, in @a buffer; null if there is none. */
const char* pathOf(int descriptor, char (&buffer)[PathSize])
{
    if (descriptor < 0)
        return nullptr;
    char link[32];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", descriptor);
    const ssize_t size = ::readlink(link, buffer, sizeof(buffer) - 1);
    if (size < 0)
        return nullptr;
    buffer[size] = '\0';
    return buffer;
}

QByteArray lastComponent(const char* path)
{
    return path ? QByteArray(path).split('/').last() : QByteArray();
}

} // namespace

Calls::Calls(int calls)
    : m_calls(calls)
    , m_descriptor(-1)
    , m_offset(-1)
    , m_hasRequest(false)
    , m_request(0)
    , m_skipped(0)
    , m_limit(std::numeric_limits<int>::max())
{
}

Calls& Calls::onPath(const QByteArray& path)
{
    m_path = path;
    return *this;
}

Calls& Calls::onDescriptor(int descriptor)
{
    m_descriptor = descriptor;
    return *this;
}

Calls& Calls::atOffset(qint64 offset)
{
    m_offset = offset;
    return *this;
}

Calls& Calls::withRequest(unsigned long request)
{
    m_hasRequest = true;
    m_request = request;
    return *this;
}

Calls& Calls::skip(int calls)
{
    m_skipped = calls;
    return *this;
}

Calls& Calls::times(int calls)
{
    m_limit = calls;
    return *this;
}

Rule::Rule(const Calls& calls)
    : m_calls(calls)
    , m_count(0)
    , m_users(0)
    , m_next(nullptr)
{
}

Rule::~Rule() {}

int Rule::count() const
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    return m_count;
}

void Rule::begin()
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    m_next = s_rules;
    s_rules = this;
    s_watched = s_watched | m_calls.m_calls;
}

void Rule::end()
{
    std::unique_lock<std::mutex> lock(s_mutex);
    int watched = 0;
    for (Rule** place = &s_rules; *place;) {
        if (*place == this) {
            *place = m_next;
            continue;
        }
        watched |= (*place)->m_calls.m_calls;
        place = &(*place)->m_next;
    }
    s_watched = watched;
    s_isUnused.wait(lock, [this]() { return m_users == 0; });
}

bool Rule::matches(const Invocation& invocation)
{
    if (!(m_calls.m_calls & invocation.call))
        return false;
    if (m_calls.m_descriptor >= 0 && m_calls.m_descriptor != invocation.descriptor)
        return false;
    if (m_calls.m_offset >= 0 && m_calls.m_offset != invocation.offset)
        return false;
    if (m_calls.m_hasRequest && m_calls.m_request != invocation.request)
        return false;
    if (!m_calls.m_path.isNull() && !isPath(invocation.path, m_calls.m_path) &&
        !isPath(invocation.newPath, m_calls.m_path))
        return false;
    if (m_calls.m_skipped > 0) {
        --m_calls.m_skipped;
        return false;
    }
    return m_count < m_calls.m_limit;
}

Decision Rule::decide(Invocation& invocation)
{
    Decision decision = {false, 0, 0, std::numeric_limits<size_t>::max()};
    if (t_isDeciding)
        return decision;
    t_isDeciding = true;
    const int error = errno;
    char path[PathSize];
    if (!invocation.path)
        invocation.path = pathOf(invocation.descriptor, path);

    Rule* rules[MostRulesForOneCall];
    int count = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        for (Rule* rule = s_rules; rule && count < MostRulesForOneCall; rule = rule->m_next) {
            if (!rule->matches(invocation))
                continue;
            ++rule->m_count;
            ++rule->m_users;
            rules[count++] = rule;
        }
    }
    for (int index = 0; index < count; ++index)
        rules[index]->apply(invocation, decision);
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        for (int index = 0; index < count; ++index)
            --rules[index]->m_users;
    }
    s_isUnused.notify_all();
    errno = error;
    t_isDeciding = false;
    return decision;
}

Fault::Fault(const Calls& calls, int error)
    : Rule(calls)
    , m_error(error)
{
    begin();
}

Fault::~Fault()
{
    end();
}

void Fault::apply(const Invocation&, Decision& decision)
{
    if (decision.isAnswered)
        return;
    decision.isAnswered = true;
    decision.result = -1;
    decision.error = m_error;
}

ShortTransfer::ShortTransfer(const Calls& calls, size_t size)
    : Rule(calls)
    , m_size(size)
{
    begin();
}

ShortTransfer::~ShortTransfer()
{
    end();
}

void ShortTransfer::apply(const Invocation&, Decision& decision)
{
    decision.limit = std::min(decision.limit, m_size);
}

Answer::Answer(const Calls& calls, const Function& function)
    : Rule(calls)
    , m_function(function)
{
    begin();
}

Answer::~Answer()
{
    end();
}

void Answer::apply(const Invocation& invocation, Decision& decision)
{
    if (decision.isAnswered)
        return;
    errno = 0;
    decision.isAnswered = true;
    decision.result = m_function(invocation);
    decision.error = errno;
}

Notice::Notice(const Calls& calls, const Function& function)
    : Rule(calls)
    , m_function(function)
{
    begin();
}

Notice::~Notice()
{
    end();
}

void Notice::apply(const Invocation& invocation, Decision&)
{
    m_function(invocation);
}

Block::Block(const Calls& calls)
    : Rule(calls)
    , m_isReached(false)
    , m_isReleased(false)
{
    begin();
}

Block::~Block()
{
    release();
    end();
}

bool Block::waitUntilReached(int timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeout), [this]() { return m_isReached; });
}

void Block::release()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isReleased = true;
    m_changed.notify_all();
}

void Block::apply(const Invocation&, Decision&)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_isReached = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this]() { return m_isReleased; });
}

Record::Record(const Calls& calls)
    : Rule(calls)
{
    begin();
}

Record::~Record()
{
    end();
}

QList<QByteArray> Record::take()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const QList<QByteArray> calls = m_calls;
    m_calls.clear();
    return calls;
}

void Record::apply(const Invocation& invocation, Decision&)
{
    QByteArray call = invocation.name;
    if (invocation.path)
        call += ' ' + lastComponent(invocation.path);
    if (invocation.newPath)
        call += ' ' + lastComponent(invocation.newPath);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.append(call);
}

namespace {

const qint64 NanosecondsPerSecond = 1000 * 1000 * 1000;
const qint64 NanosecondsPerMillisecond = 1000 * 1000;

// In nanoseconds.
std::atomic<bool> s_isClockSet(false);
std::atomic<bool> s_isClockStopped(false);
std::atomic<qint64> s_stoppedAt(0);
std::atomic<qint64> s_step(0);
std::atomic<qint64> s_offset(0);

/** The next function of this name after the program's own: the C library's or a sanitizer's. */
template <typename Function> Function* next(std::atomic<void*>& found, const char* name)
{
    void* function = found.load(std::memory_order_relaxed);
    if (!function) {
        function = ::dlsym(RTLD_NEXT, name);
        if (!function) {
            fprintf(stderr, "nsystemcalls: the C library has no function %s()\n", name);
            abort();
        }
        found.store(function, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function*>(function);
}

Invocation invocationOf(Call call, const char* name)
{
    const Invocation invocation = {call, name, -1, nullptr, nullptr, 0, -1, 0, 0, nullptr};
    return invocation;
}

Invocation onPath(Call call, const char* name, const char* path)
{
    Invocation invocation = invocationOf(call, name);
    invocation.path = path;
    return invocation;
}

Invocation onFile(Call call, const char* name, int file, void* argument = nullptr)
{
    Invocation invocation = invocationOf(call, name);
    invocation.descriptor = file;
    invocation.argument = argument;
    return invocation;
}

Invocation transfer(Call call, const char* name, int file, const void* buffer, size_t size, qint64 offset = -1)
{
    // A function of the test that answers read() writes into the buffer.
    Invocation invocation = onFile(call, name, file, const_cast<void*>(buffer));
    invocation.size = size;
    invocation.offset = offset;
    return invocation;
}

Invocation opening(const char* path, int flags)
{
    Invocation invocation = onPath(Open, "open", path);
    invocation.flags = flags;
    return invocation;
}

Invocation renaming(const char* path, const char* newPath)
{
    Invocation invocation = onPath(Rename, "rename", path);
    invocation.newPath = newPath;
    return invocation;
}

Invocation controlling(int file, unsigned long request, void* argument)
{
    Invocation invocation = onFile(Ioctl, "ioctl", file, argument);
    invocation.request = request;
    return invocation;
}

qint64 resultOf(const Decision& decision)
{
    if (decision.result < 0)
        errno = decision.error;
    return decision.result;
}

/** The result of a function that returns the error number. */
int errorOf(const Decision& decision)
{
    return decision.result < 0 ? decision.error : int(decision.result);
}

/** @param proceed makes the call, with this size where it is a transfer. */
template <typename Function> qint64 applyRules(Invocation invocation, Function proceed)
{
    const Decision decision = Rule::decide(invocation);
    return decision.isAnswered ? resultOf(decision) : proceed(std::min(invocation.size, decision.limit));
}

qint64 nanoseconds(const struct timespec& time)
{
    return time.tv_sec * NanosecondsPerSecond + time.tv_nsec;
}

} // namespace

} // namespace NSystemCalls

using namespace NSystemCalls;

// Defines a function under the C library's name. The name is given to the linker only: the C libraries declare
// these functions in different ways, and a program that is compiled for large files calls some of them by other
// names.
//
// The thread sanitizer attributes what its own function does to the caller, which may be a library that it has to
// ignore. So a call without rules must not add a frame of this file: without instrumentation the compiler makes it
// a jump.
#define HOOK(result, function, name, parameters) \
    result function parameters __asm__(name) __attribute__((visibility("default"), no_sanitize_thread)); \
    result function parameters

#define ORIGINAL(function, name) \
    static std::atomic<void*> found(nullptr); \
    const auto original = next<decltype(function)>(found, name)

// The body of most hooks: the invocation, as the rules see it, and the arguments. Of a transfer, the argument
// "size" may become smaller.
#define INTERCEPT(call, function, name, invocation, ...) \
    ORIGINAL(function, name); \
    if (!isWatched(call)) \
        return original(__VA_ARGS__); \
    return decltype(original(__VA_ARGS__))(applyRules(invocation, [=](size_t size) { \
        Q_UNUSED(size); \
        return qint64(original(__VA_ARGS__)); \
    }))

// Where a function has a variant for 64-bit offsets, the plain one takes a long. open() and ioctl() are variadic;
// their last argument is passed on in any case, because a call with variable arguments could not be a jump. The
// function does not read it where the caller gave none.
extern "C" {

HOOK(int, nOpen, "open", (const char* path, int flags, unsigned mode))
{
    INTERCEPT(Open, nOpen, "open", opening(path, flags), path, flags, mode);
}

HOOK(int, nOpen64, "open64", (const char* path, int flags, unsigned mode))
{
    INTERCEPT(Open, nOpen64, "open64", opening(path, flags), path, flags, mode);
}

HOOK(int, nOpenAt, "openat", (int directory, const char* path, int flags, unsigned mode))
{
    INTERCEPT(Open, nOpenAt, "openat", opening(path, flags), directory, path, flags, mode);
}

HOOK(int, nOpenAt64, "openat64", (int directory, const char* path, int flags, unsigned mode))
{
    INTERCEPT(Open, nOpenAt64, "openat64", opening(path, flags), directory, path, flags, mode);
}

HOOK(int, nOpenChecked, "__open_2", (const char* path, int flags))
{
    INTERCEPT(Open, nOpenChecked, "__open_2", opening(path, flags), path, flags);
}

HOOK(int, nOpen64Checked, "__open64_2", (const char* path, int flags))
{
    INTERCEPT(Open, nOpen64Checked, "__open64_2", opening(path, flags), path, flags);
}

HOOK(int, nOpenAtChecked, "__openat_2", (int directory, const char* path, int flags))
{
    INTERCEPT(Open, nOpenAtChecked, "__openat_2", opening(path, flags), directory, path, flags);
}

HOOK(int, nOpenAt64Checked, "__openat64_2", (int directory, const char* path, int flags))
{
    INTERCEPT(Open, nOpenAt64Checked, "__openat64_2", opening(path, flags), directory, path, flags);
}

HOOK(int, nClose, "close", (int file))
{
    ORIGINAL(nClose, "close");
    if (!isWatched(Close))
        return original(file);
    Invocation invocation = onFile(Close, "close", file);
    const Decision decision = Rule::decide(invocation);
    const int result = original(file);
    return decision.isAnswered ? int(resultOf(decision)) : result;
}

HOOK(ssize_t, nRead, "read", (int file, void* buffer, size_t size))
{
    INTERCEPT(Read, nRead, "read", transfer(Read, "read", file, buffer, size), file, buffer, size);
}

HOOK(ssize_t, nReadChecked, "__read_chk", (int file, void* buffer, size_t size, size_t room))
{
    INTERCEPT(
        Read, nReadChecked, "__read_chk", transfer(Read, "read", file, buffer, size), file, buffer, size, room);
}

HOOK(ssize_t, nWrite, "write", (int file, const void* buffer, size_t size))
{
    INTERCEPT(Write, nWrite, "write", transfer(Write, "write", file, buffer, size), file, buffer, size);
}

HOOK(ssize_t, nPread, "pread", (int file, void* buffer, size_t size, long offset))
{
    INTERCEPT(
        Pread, nPread, "pread", transfer(Pread, "pread", file, buffer, size, offset), file, buffer, size, offset);
}

HOOK(ssize_t, nPreadChecked, "__pread_chk", (int file, void* buffer, size_t size, long offset, size_t room))
{
    INTERCEPT(
        Pread, nPreadChecked, "__pread_chk", transfer(Pread, "pread", file, buffer, size, offset), file, buffer,
        size, offset, room);
}

HOOK(ssize_t, nPwrite, "pwrite", (int file, const void* buffer, size_t size, long offset))
{
    INTERCEPT(
        Pwrite, nPwrite, "pwrite", transfer(Pwrite, "pwrite", file, buffer, size, offset), file, buffer, size,
        offset);
}

HOOK(ssize_t, nPread64, "pread64", (int file, void* buffer, size_t size, int64_t offset))
{
    INTERCEPT(
        Pread, nPread64, "pread64", transfer(Pread, "pread", file, buffer, size, offset), file, buffer, size,
        offset);
}

HOOK(ssize_t, nPread64Checked, "__pread64_chk", (int file, void* buffer, size_t size, int64_t offset, size_t room))
{
    INTERCEPT(
        Pread, nPread64Checked, "__pread64_chk", transfer(Pread, "pread", file, buffer, size, offset), file,
        buffer, size, offset, room);
}

HOOK(ssize_t, nPwrite64, "pwrite64", (int file, const void* buffer, size_t size, int64_t offset))
{
    INTERCEPT(
        Pwrite, nPwrite64, "pwrite64", transfer(Pwrite, "pwrite", file, buffer, size, offset), file, buffer, size,
        offset);
}

HOOK(int, nFsync, "fsync", (int file))
{
    INTERCEPT(Fsync, nFsync, "fsync", onFile(Fsync, "fsync", file), file);
}

HOOK(int, nFdatasync, "fdatasync", (int file))
{
    INTERCEPT(Fdatasync, nFdatasync, "fdatasync", onFile(Fdatasync, "fdatasync", file), file);
}

HOOK(int, nRename, "rename", (const char* path, const char* newPath))
{
    INTERCEPT(Rename, nRename, "rename", renaming(path, newPath), path, newPath);
}

HOOK(int, nRenameAt, "renameat", (int directory, const char* path, int newDirectory, const char* newPath))
{
    INTERCEPT(Rename, nRenameAt, "renameat", renaming(path, newPath), directory, path, newDirectory, newPath);
}

HOOK(
    int, nRenameAt2, "renameat2",
    (int directory, const char* path, int newDirectory, const char* newPath, unsigned flags))
{
    INTERCEPT(
        Rename, nRenameAt2, "renameat2", renaming(path, newPath), directory, path, newDirectory, newPath, flags);
}

HOOK(int, nUnlink, "unlink", (const char* path))
{
    INTERCEPT(Unlink, nUnlink, "unlink", onPath(Unlink, "unlink", path), path);
}

HOOK(int, nUnlinkAt, "unlinkat", (int directory, const char* path, int flags))
{
    INTERCEPT(Unlink, nUnlinkAt, "unlinkat", onPath(Unlink, "unlink", path), directory, path, flags);
}

HOOK(void*, nMmap, "mmap", (void* address, size_t length, int protection, int flags, int file, long offset))
{
    ORIGINAL(nMmap, "mmap");
    if (!isWatched(Mmap))
        return original(address, length, protection, flags, file, offset);
    return reinterpret_cast<void*>(qintptr(applyRules(onFile(Mmap, "mmap", file), [=](size_t) {
        return qint64(reinterpret_cast<qintptr>(original(address, length, protection, flags, file, offset)));
    })));
}

HOOK(void*, nMmap64, "mmap64", (void* address, size_t length, int protection, int flags, int file, int64_t offset))
{
    ORIGINAL(nMmap64, "mmap64");
    if (!isWatched(Mmap))
        return original(address, length, protection, flags, file, offset);
    return reinterpret_cast<void*>(qintptr(applyRules(onFile(Mmap, "mmap", file), [=](size_t) {
        return qint64(reinterpret_cast<qintptr>(original(address, length, protection, flags, file, offset)));
    })));
}

HOOK(int, nFlock, "flock", (int file, int operation))
{
    INTERCEPT(Flock, nFlock, "flock", onFile(Flock, "flock", file), file, operation);
}

HOOK(int, nIoctl, "ioctl", (int file, unsigned long request, void* argument))
{
    INTERCEPT(Ioctl, nIoctl, "ioctl", controlling(file, request, argument), file, request, argument);
}

HOOK(int, nTcgetattr, "tcgetattr", (int file, struct termios* settings))
{
    INTERCEPT(Tcgetattr, nTcgetattr, "tcgetattr", onFile(Tcgetattr, "tcgetattr", file, settings), file, settings);
}

HOOK(int, nTcsetattr, "tcsetattr", (int file, int actions, const struct termios* settings))
{
    INTERCEPT(
        Tcsetattr, nTcsetattr, "tcsetattr",
        onFile(Tcsetattr, "tcsetattr", file, const_cast<struct termios*>(settings)), file, actions, settings);
}

// These two return the error number instead of setting errno.

HOOK(
    int, nPthreadCreate, "pthread_create",
    (pthread_t * thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument))
{
    ORIGINAL(nPthreadCreate, "pthread_create");
    if (!isWatched(PthreadCreate))
        return original(thread, attributes, function, argument);
    Invocation invocation = invocationOf(PthreadCreate, "pthread_create");
    const Decision decision = Rule::decide(invocation);
    return decision.isAnswered ? errorOf(decision) : original(thread, attributes, function, argument);
}

HOOK(
    int, nClockNanosleep, "clock_nanosleep",
    (clockid_t clock, int flags, const struct timespec* time, struct timespec* remaining))
{
    ORIGINAL(nClockNanosleep, "clock_nanosleep");
    if (!isWatched(Sleep))
        return original(clock, flags, time, remaining);
    Invocation invocation = invocationOf(Sleep, "clock_nanosleep");
    const Decision decision = Rule::decide(invocation);
    return decision.isAnswered ? errorOf(decision) : original(clock, flags, time, remaining);
}

HOOK(int, nUsleep, "usleep", (useconds_t time))
{
    INTERCEPT(Sleep, nUsleep, "usleep", invocationOf(Sleep, "usleep"), time);
}

HOOK(int, nNanosleep, "nanosleep", (const struct timespec* time, struct timespec* remaining))
{
    INTERCEPT(Sleep, nNanosleep, "nanosleep", invocationOf(Sleep, "nanosleep"), time, remaining);
}

HOOK(int, nClockGettime, "clock_gettime", (clockid_t clock, struct timespec* time))
{
    ORIGINAL(nClockGettime, "clock_gettime");
    const bool isSet = s_isClockSet && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE);
    if (!isSet)
        return original(clock, time);
    original(CLOCK_REALTIME, time);
    const qint64 now = s_isClockStopped ? s_stoppedAt.fetch_add(s_step) : nanoseconds(*time) + s_offset;
    time->tv_sec = now / NanosecondsPerSecond;
    time->tv_nsec = now % NanosecondsPerSecond;
    return 0;
}

HOOK(int, nGettimeofday, "gettimeofday", (struct timeval * time, void* zone))
{
    ORIGINAL(nGettimeofday, "gettimeofday");
    if (!s_isClockSet)
        return original(time, zone);
    struct timespec now = {0, 0};
    nClockGettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

HOOK(time_t, nTime, "time", (time_t * time))
{
    ORIGINAL(nTime, "time");
    if (!s_isClockSet)
        return original(time);
    struct timespec now = {0, 0};
    nClockGettime(CLOCK_REALTIME, &now);
    if (time)
        *time = now.tv_sec;
    return now.tv_sec;
}

} // extern "C"

#undef INTERCEPT
#undef ORIGINAL
#undef HOOK

void NSystemCalls::stopClockAt(qint64 time)
{
    s_step = 0;
    s_stoppedAt = time * NanosecondsPerMillisecond;
    s_isClockStopped = true;
    s_isClockSet = true;
}

void NSystemCalls::runClockFrom(qint64 time)
{
    static std::atomic<void*> found(nullptr);
    struct timespec now = {0, 0};
    next<decltype(nClockGettime)>(found, "clock_gettime")(CLOCK_REALTIME, &now);
    s_offset = time * NanosecondsPerMillisecond - nanoseconds(now);
    s_isClockStopped = false;
    s_isClockSet = true;
}

void NSystemCalls::setClockStep(qint64 milliseconds)
{
    s_step = milliseconds * NanosecondsPerMillisecond;
}

void NSystemCalls::resetClock()
{
    s_isClockSet = false;
    s_isClockStopped = false;
}
