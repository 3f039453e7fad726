#include "terminationwatcher.h"

#include <QtCore/QSocketNotifier>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

namespace {

const int Signals[] = {SIGINT, SIGTERM};

int writeEnd = -1; // for the handler, which takes no argument of its own

// When the pipe is full, the notifier fires anyway.
void writeToPipe(int)
{
    const int savedErrno = errno;
    if (::write(writeEnd, "", 1) < 0)
        errno = savedErrno;
}

void handleSignals(void (*handler)(int))
{
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (int signal : Signals)
        ::sigaction(signal, &action, nullptr);
}

} // namespace

TerminationWatcher::TerminationWatcher(QObject* parent)
    : QObject(parent)
{
    int ends[] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe can be made: %s", strerror(errno));
    m_readEnd = ends[0];
    writeEnd = ends[1];
    QSocketNotifier* const notifier = new QSocketNotifier(m_readEnd, QSocketNotifier::Read, this);
    connect(notifier, SIGNAL(activated(int)), this, SIGNAL(terminationRequested()));
    handleSignals(writeToPipe);
}

TerminationWatcher::~TerminationWatcher()
{
    handleSignals(SIG_DFL);
    ::close(writeEnd);
    ::close(m_readEnd);
}
