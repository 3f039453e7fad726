#ifndef NBASE_TESTS_NCHILDPROCESS_H
#define NBASE_TESTS_NCHILDPROCESS_H

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

} // namespace NTest

#endif
