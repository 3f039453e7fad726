// Part of a command nserial for what pseudoterminals do not have: modem lines, data bits and parity, which it
// prints on the standard error, output that is never sent, and a device that blocks the process that opens it.

#include "support/nsystemcalls.h"

#include <errno.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using namespace NSystemCalls;

namespace {

int s_lines = TIOCM_CTS | TIOCM_CAR | TIOCM_RTS;

qint64 getLines(const Invocation& invocation)
{
    *static_cast<int*>(invocation.argument) = s_lines;
    return 0;
}

qint64 setLines(const Invocation& invocation)
{
    s_lines = *static_cast<const int*>(invocation.argument);
    return 0;
}

qint64 getUnsentSize(const Invocation& invocation)
{
    *static_cast<int*>(invocation.argument) = 100;
    return 0;
}

qint64 writeByte(const Invocation& invocation)
{
    static bool isBusy = false;
    if (!isatty(invocation.descriptor))
        return ::write(invocation.descriptor, invocation.argument, invocation.size);
    isBusy = !isBusy;
    if (!isBusy)
        return ::write(invocation.descriptor, invocation.argument, 1);
    errno = EAGAIN;
    return -1;
}

qint64 blockForever(const Invocation&)
{
    for (;;)
        ::pause();
}

void printSettings(const Invocation& invocation)
{
    const tcflag_t flags = static_cast<const termios*>(invocation.argument)->c_cflag;
    const char* const parity = !(flags & PARENB) ? "none" : flags & PARODD ? "odd" : "even";
    fprintf(stderr, "%d data bits, parity %s\n", (flags & CSIZE) == CS7 ? 7 : 8, parity);
}

struct Hardware
{
    Answer getLines{Calls(Ioctl).withRequest(TIOCMGET), ::getLines};
    Answer setLines{Calls(Ioctl).withRequest(TIOCMSET), ::setLines};
    Answer getUnsentSize{Calls(Ioctl).withRequest(TIOCOUTQ), ::getUnsentSize};
    Answer write{Calls(Write), writeByte};
    Answer open{Calls(Open).onPath("/dev/blocking-port"), blockForever};
    Notice applySettings{Calls(Tcsetattr), printSettings};
};

// Never deleted: the end of a rule waits for the calls that it is applied to.
const Hardware* const s_hardware = new Hardware;

} // namespace
