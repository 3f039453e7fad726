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
 * Waits for the end of a process that the test has forked; the toolkit may have told the system to interrupt that
 * when another process ends.
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
 * Runs @a function in a process of its own, where it may limit what the process gets or spoil what it has.
 * @return what the function returned, from 0 to 254; 255 when it threw; -1 when the process did not get so far.
 */
template <typename Function> int runInChild(Function function)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // Nothing may leave the function: the test's own threads are not in this process.
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
 * Lets the process have so many megabytes of memory more than it has now, for good; to be called in a process of
 * its own. Not under a sanitizer, which takes far more addresses than it needs.
 * @return whether that could be done.
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
