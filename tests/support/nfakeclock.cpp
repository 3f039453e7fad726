#include "support/nfakeclock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

const qint64 NanosecondsPerSecond = 1000 * 1000 * 1000;
const qint64 NanosecondsPerMillisecond = 1000 * 1000;

// All in nanoseconds.
std::atomic<bool> s_stopped(false);
std::atomic<qint64> s_stoppedAt(0);
std::atomic<qint64> s_step(0);
std::atomic<qint64> s_offset(0);

qint64 systemTime()
{
    struct timespec time = {0, 0};
    ::syscall(SYS_clock_gettime, CLOCK_REALTIME, &time);
    return time.tv_sec * NanosecondsPerSecond + time.tv_nsec;
}

qint64 shownTime()
{
    return s_stopped ? s_stoppedAt.fetch_add(s_step) : systemTime() + s_offset;
}

} // namespace

void NFakeClock::stopAt(qint64 time)
{
    s_step = 0;
    s_stoppedAt = time * NanosecondsPerMillisecond;
    s_stopped = true;
}

void NFakeClock::runFrom(qint64 time)
{
    s_offset = time * NanosecondsPerMillisecond - systemTime();
    s_stopped = false;
}

void NFakeClock::setStep(qint64 milliseconds)
{
    s_step = milliseconds * NanosecondsPerMillisecond;
}

void NFakeClock::reset()
{
    s_offset = 0;
    s_stopped = false;
}

// The names are given to the linker only, because the C libraries declare these functions in different ways.
extern "C" {

Q_DECL_EXPORT int nFakeClockGettimeofday(struct timeval* time, void*) __asm__("gettimeofday");
Q_DECL_EXPORT int nFakeClockGettime(clockid_t clock, struct timespec* time) __asm__("clock_gettime");
Q_DECL_EXPORT time_t nFakeClockTime(time_t* time) __asm__("time");

int nFakeClockGettimeofday(struct timeval* time, void*)
{
    const qint64 now = shownTime();
    time->tv_sec = now / NanosecondsPerSecond;
    time->tv_usec = now % NanosecondsPerSecond / 1000;
    return 0;
}

int nFakeClockGettime(clockid_t clock, struct timespec* time)
{
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE)
        return int(::syscall(SYS_clock_gettime, clock, time));
    const qint64 now = shownTime();
    time->tv_sec = now / NanosecondsPerSecond;
    time->tv_nsec = now % NanosecondsPerSecond;
    return 0;
}

time_t nFakeClockTime(time_t* time)
{
    const time_t now = shownTime() / NanosecondsPerSecond;
    if (time)
        *time = now;
    return now;
}
}
