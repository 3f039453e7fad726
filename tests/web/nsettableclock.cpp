// Part of a demo device whose clock the tests of its timetable can set: SIGUSR1 sets it to shortly before the next
// minute.

#include <nbase/time/neventplannersingleton.h>

#include "support/nsystemcalls.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QSocketNotifier>

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

namespace {

const qint64 MillisecondsPerMinute = 60 * 1000;
const qint64 MillisecondsBefore = 1500;

int s_pipe[2];

void requestNextMinute(int)
{
    const ssize_t written = ::write(s_pipe[1], "", 1);
    Q_UNUSED(written);
}

} // namespace

class NSettableClock : public QObject
{
    Q_OBJECT

public:
    explicit NSettableClock(QObject* parent)
        : QObject(parent)
        , m_requests(s_pipe[0], QSocketNotifier::Read)
    {
        connect(&m_requests, SIGNAL(activated(int)), SLOT(setClock()));
    }

private slots:
    void setClock()
    {
        char request;
        if (::read(s_pipe[0], &request, 1) != 1)
            return;
        const qint64 minute = QDateTime::currentMSecsSinceEpoch() / MillisecondsPerMinute + 1;
        NSystemCalls::runClockFrom(minute * MillisecondsPerMinute - MillisecondsBefore);
        NEventPlannerSingleton::instance()->currentDateTimeChanged();
    }

private:
    QSocketNotifier m_requests;
};

namespace {

void provideClock()
{
    if (::pipe2(s_pipe, O_CLOEXEC) != 0)
        qFatal("no pipe for the clock");
    new NSettableClock(qApp);
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = requestNextMinute;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
}

void provideClockWithTheApplication()
{
    qAddPreRoutine(provideClock);
}

} // namespace

Q_CONSTRUCTOR_FUNCTION(provideClockWithTheApplication)

#include "nsettableclock.moc"
