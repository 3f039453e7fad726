#include "terminationwatcher.h"

#include <QtCore/QSocketNotifier>

#include <signal.h>
#include <stddef.h>
#include <sys/signalfd.h>
#include <unistd.h>

TerminationWatcher::TerminationWatcher(QObject* parent)
    : QObject(parent)
{
    sigset_t signalSet;
    sigemptyset(&signalSet);
    sigaddset(&signalSet, SIGINT);
    sigaddset(&signalSet, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signalSet, NULL);
    m_descriptor = ::signalfd(-1, &signalSet, SFD_CLOEXEC | SFD_NONBLOCK);
    QSocketNotifier* const notifier = new QSocketNotifier(m_descriptor, QSocketNotifier::Read, this);
    connect(notifier, SIGNAL(activated(int)), this, SIGNAL(terminationRequested()));
}

TerminationWatcher::~TerminationWatcher()
{
    ::close(m_descriptor);
}
