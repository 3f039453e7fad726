#include "support/nsystemcalls_p.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

// This file is compiled without the thread sanitizer. Its runtime calls some of these functions before it is ready
// for instrumented code; and it attributes what its own functions do to the caller, which may be a library that it
// has to ignore, so that a call without rules must not add a frame: the compiler makes it a jump.

namespace NSystemCalls {

namespace {

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

bool isWatched(Call call)
{
    return (watchedCalls.load(std::memory_order_relaxed) & call) != 0;
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

Invocation describing(const char* path, void* statistics)
{
    Invocation invocation = onPath(Statvfs, "statvfs", path);
    invocation.argument = statistics;
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

Invocation setting(int file, int actions, const struct termios* settings)
{
    Invocation invocation = onFile(Tcsetattr, "tcsetattr", file, const_cast<struct termios*>(settings));
    invocation.flags = actions;
    return invocation;
}

Invocation querying(int file, int name)
{
    Invocation invocation = onFile(Fpathconf, "fpathconf", file);
    invocation.flags = name;
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
    const Decision decision = decide(invocation);
    return decision.isAnswered ? resultOf(decision) : proceed(std::min(invocation.size, decision.limit));
}

} // namespace

} // namespace NSystemCalls

using namespace NSystemCalls;

// Defines a function under the C library's name. The name is given to the linker only: the C libraries declare
// these functions in different ways, and a program that is compiled for large files calls some of them by other
// names.
#define HOOK(result, function, name, parameters) \
    result function parameters __asm__(name) __attribute__((visibility("default"))); \
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
    const Decision decision = decide(invocation);
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
    INTERCEPT(Tcsetattr, nTcsetattr, "tcsetattr", setting(file, actions, settings), file, actions, settings);
}

HOOK(int, nTcdrain, "tcdrain", (int file))
{
    INTERCEPT(Tcdrain, nTcdrain, "tcdrain", onFile(Tcdrain, "tcdrain", file), file);
}

HOOK(long, nFpathconf, "fpathconf", (int file, int name))
{
    INTERCEPT(Fpathconf, nFpathconf, "fpathconf", querying(file, name), file, name);
}

// The variants' structures differ on some machines; a function of the test fills the one that its file is compiled
// for.

HOOK(int, nStatvfs, "statvfs", (const char* path, void* statistics))
{
    INTERCEPT(Statvfs, nStatvfs, "statvfs", describing(path, statistics), path, statistics);
}

HOOK(int, nStatvfs64, "statvfs64", (const char* path, void* statistics))
{
    INTERCEPT(Statvfs, nStatvfs64, "statvfs64", describing(path, statistics), path, statistics);
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
    const Decision decision = decide(invocation);
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
    const Decision decision = decide(invocation);
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
    const bool isSet = clockState.isSet && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE);
    if (!isSet)
        return original(clock, time);
    original(CLOCK_REALTIME, time);
    const qint64 now =
        clockState.isStopped ? clockState.time.fetch_add(clockState.step) : nanoseconds(*time) + clockState.offset;
    time->tv_sec = now / NanosecondsPerSecond;
    time->tv_nsec = now % NanosecondsPerSecond;
    return 0;
}

HOOK(int, nGettimeofday, "gettimeofday", (struct timeval * time, void* zone))
{
    ORIGINAL(nGettimeofday, "gettimeofday");
    if (!clockState.isSet)
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
    if (!clockState.isSet)
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
