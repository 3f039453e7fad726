#ifndef NBASE_TESTS_NCHILDPROCESS_H
#define NBASE_TESTS_NCHILDPROCESS_H

#include <stdio.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace NTest {

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
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
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
