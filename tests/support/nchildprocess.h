#ifndef NBASE_TESTS_NCHILDPROCESS_H
#define NBASE_TESTS_NCHILDPROCESS_H

#include <errno.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace NTest {

/**
 * Waits for the end of a process that the test has forked. Qt's handler of SIGCHLD may interrupt waitpid(2) when
 * another process ends.
 * @return its status, as waitpid(2) gives it; -1 when there is no such process.
 */
inline int waitForChild(pid_t child)
{
    int status = -1;
    pid_t ended;
    do
        ended = ::waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    return ended == child ? status : -1;
}

/**
 * Runs @a function in a forked process, where it may set resource limits or damage the process's state.
 * @return the function's result, from 0 to 254; 255 if it threw an exception; -1 if the process could not be
 * started or was killed by a signal.
 */
template <typename Function> int runInChild(Function function)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // No exception may leave the function: the test's other threads do not exist in this process.
        try {
            ::_exit(function());
        } catch (...) {
            ::_exit(255);
        }
    }
    const int status = child < 0 ? -1 : waitForChild(child);
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/**
 * Limits the address space of the process (RLIMIT_AS) to its present size and so many megabytes more; for
 * runInChild(). Not for sanitizers, which reserve far more addresses.
 * @return false on failure.
 */
inline bool leaveMemory(int megabytes)
{
    FILE* const file = ::fopen("/proc/self/statm", "re");
    unsigned long pages = 0;
    const bool isKnown = file && ::fscanf(file, "%lu", &pages) == 1;
    if (file)
        ::fclose(file);
    const rlim_t size = rlim_t(pages) * rlim_t(::sysconf(_SC_PAGESIZE)) + (rlim_t(megabytes) << 20);
    const struct rlimit limit = {size, size};
    return isKnown && ::setrlimit(RLIMIT_AS, &limit) == 0;
}

} // namespace NTest

#endif
