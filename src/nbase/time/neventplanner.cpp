#include <nbase/time/neventplanner.h>

#include <nbase/time/neventplannersingleton.h>

namespace {

// An invalid time stays invalid. With Qt 4 its hour and minute are those of midnight.
QTime startOfMinute(const QTime& time)
{
    return time.isValid() ? QTime(time.hour(), time.minute()) : QTime();
}

NEventPlannerSingleton* ticker()
{
    return NSingleton<NEventPlannerSingleton>::instance();
}

// Queued connections require it.
void registerCalendarEventType()
{
    static const int type = qRegisterMetaType<NEventPlanner::CalendarEvent>();
    Q_UNUSED(type);
}

} // namespace

NEventPlanner::NPeriodicEvent::NPeriodicEvent(const QSet<Qt::DayOfWeek>& days, const QTime& time)
    : days(days)
    , time(startOfMinute(time))
{
}

NEventPlanner::NPeriodicTimeSlot::NPeriodicTimeSlot(
    const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime)
    : days(days)
    , startTime(startOfMinute(startTime))
    , endTime(startOfMinute(endTime))
{
}

NEventPlanner::NEventPlanner(QObject* parent)
    : QObject(parent)
{
    registerCalendarEventType();
}

NEventPlanner::~NEventPlanner()
{
    NEventPlannerSingleton::forgetPlanner(this);
}

NEventPlanner::NPeriodicEvent*
NEventPlanner::registerPeriodicEvent(const QSet<Qt::DayOfWeek>& days, const QTime& time)
{
    return ticker()->registerPeriodicEvent(this, days, time);
}

bool NEventPlanner::modifyRegisteredPeriodicEvent(
    NPeriodicEvent* event, const QSet<Qt::DayOfWeek>& days, const QTime& time)
{
    return ticker()->modifyRegisteredPeriodicEvent(this, event, days, time);
}

void NEventPlanner::unregisterPeriodicEvent(NPeriodicEvent* event)
{
    ticker()->unregisterPeriodicEvent(this, event);
}

NEventPlanner::NPeriodicTimeSlot* NEventPlanner::registerPeriodicTimeSlot(
    const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime)
{
    return ticker()->registerPeriodicTimeSlot(this, days, startTime, endTime);
}

bool NEventPlanner::modifyRegisteredPeriodicTimeSlot(
    NPeriodicTimeSlot* slot, const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime)
{
    return ticker()->modifyRegisteredPeriodicTimeSlot(this, slot, days, startTime, endTime);
}

void NEventPlanner::unregisterPeriodicTimeSlot(NPeriodicTimeSlot* slot)
{
    ticker()->unregisterPeriodicTimeSlot(this, slot);
}

bool NEventPlanner::isPeriodicTimeSlotCurrentlyActive(NPeriodicTimeSlot* slot)
{
    return ticker()->isPeriodicTimeSlotCurrentlyActive(this, slot);
}

void NEventPlanner::registerCalendarEvent(NEventPlanner::CalendarEvent calendarEvent)
{
    ticker()->registerCalendarEvent(this, calendarEvent);
}

void NEventPlanner::unregisterCalendarEvent(NEventPlanner::CalendarEvent calendarEvent)
{
    ticker()->unregisterCalendarEvent(this, calendarEvent);
}

void NEventPlanner::unregisterCalendarEvents()
{
    ticker()->unregisterCalendarEvents(this);
}

bool NEventPlanner::connectCurrentDateTimeChangedSignal(
    const QObject* sender, const char* signal, Qt::ConnectionType type)
{
    return QObject::connect(sender, signal, ticker(), SLOT(currentDateTimeChanged()), type);
}

bool NEventPlanner::disconnectCurrentDateTimeChangedSignal(const QObject* sender, const char* signal)
{
    return QObject::disconnect(sender, signal, ticker(), SLOT(currentDateTimeChanged()));
}

void NEventPlanner::currentDateTimeChanged()
{
    ticker()->currentDateTimeChanged();
}
