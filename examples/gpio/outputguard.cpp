#include "outputguard.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

/** close_range(2), which C libraries have later than the kernel. */
void closeRange(unsigned first, unsigned last)
{
    if (first <= last)
        ::syscall(SYS_close_range, first, last, 0);
}

/** What the child does. After fork() in a program with threads, only async-signal-safe functions may be called. */
void guard(int line, int pipeEnd, bool level)
{
    // The signals of the terminal go to all processes of the group, and the child must outlive the parent.
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    setsid();

    // Everything else, such as sockets, must be closed when the parent has ended.
    const unsigned low = unsigned(qMin(line, pipeEnd));
    const unsigned high = unsigned(qMax(line, pipeEnd));
    if (low > 0)
        closeRange(0, low - 1);
    closeRange(low + 1, high - 1);
    closeRange(high + 1, ~0U);

    char byte;
    while (::read(pipeEnd, &byte, 1) < 0 && errno == EINTR)
        ;
    gpio_v2_line_values values;
    memset(&values, 0, sizeof(values));
    values.mask = 1;
    values.bits = level;
    ::ioctl(line, GPIO_V2_LINE_SET_VALUES_IOCTL, &values);
}

} // namespace

OutputGuard::OutputGuard()
    : m_child(-1)
{
}

OutputGuard::~OutputGuard()
{
    stop();
}

bool OutputGuard::start(int line, bool level)
{
    stop();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const Descriptor readEnd(ends[0]);
    m_pipe.reset(ends[1]);
    m_child = ::fork();
    if (m_child == 0) {
        m_pipe.reset();
        guard(line, readEnd.number(), level);
        _exit(0);
    }
    return m_child > 0;
}

void OutputGuard::stop()
{
    m_pipe.reset();
    if (m_child > 0) {
        while (::waitpid(m_child, nullptr, 0) < 0 && errno == EINTR)
            ;
    }
    m_child = -1;
}
