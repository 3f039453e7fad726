#ifndef NBASE_TESTS_NSYSTEMCALLS_P_H
#define NBASE_TESTS_NSYSTEMCALLS_P_H

#include "support/nsystemcalls.h"

#include <time.h>

#include <atomic>

/** What the intercepting functions need of the rules and of the clock. */
namespace NSystemCalls {

// The functions run before the program's static objects are constructed and after they are destroyed. These need
// neither, and there are no rules then.

/** The values of Call for which there are rules: all other calls continue at once. */
extern std::atomic<int> watchedCalls;

/** In nanoseconds. */
struct ClockState
{
    std::atomic<bool> isSet;
    std::atomic<bool> isStopped;
    std::atomic<qint64> time; /**< of the stopped clock */
    std::atomic<qint64> step;
    std::atomic<qint64> offset; /**< of the running clock from the machine's */
};

extern ClockState clockState;

const qint64 NanosecondsPerSecond = 1000 * 1000 * 1000;
const qint64 NanosecondsPerMillisecond = 1000 * 1000;

inline qint64 nanoseconds(const struct timespec& time)
{
    return time.tv_sec * NanosecondsPerSecond + time.tv_nsec;
}

/** What the rules decide about a call. */
struct Decision
{
    bool isAnswered; /**< whether the caller gets this result; otherwise the call continues */
    qint64 result;
    int error;    /**< errno, where the result is negative */
    size_t limit; /**< the largest size of a transfer that continues */
};

/** Applies the rules to a call. */
Decision decide(Invocation& invocation);

} // namespace NSystemCalls

#endif
