#include <nbase/time/neventplannersingleton.h>

#include <nbase/core/nqtnamespaceutilities.h>
#include <nbase/nbaseqtcompat_p.h>

#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QPointer>
#include <QtCore/QVector>

#include <time.h>

template class NSingleton<NEventPlannerSingleton>;

namespace {

const qint64 MillisecondsPerSecond = 1000;
const qint64 MillisecondsPerMinute = 60 * MillisecondsPerSecond;
const int SecondsPerMinute = 60;

bool isSameMinute(const QDateTime& one, const QDateTime& other)
{
    return one.date() == other.date() && one.time().hour() == other.time().hour() &&
           one.time().minute() == other.time().minute();
}

Qt::DayOfWeek dayOfWeek(const QDateTime& dateTime)
{
    return Qt::DayOfWeek(dateTime.date().dayOfWeek());
}

bool isDue(const NEventPlanner::NPeriodicEvent* event, const QTime& time, Qt::DayOfWeek day)
{
    return event->time == time && event->days.contains(day);
}

// Whether local time has advanced by one minute, at midnight to the next day.
bool isNextMinute(const QDateTime& previous, const QDateTime& now)
{
    const QTime following = previous.time().addSecs(SecondsPerMinute);
    const int days = following < previous.time() ? 1 : 0;
    return now.time() == following && now.date() == previous.date().addDays(days);
}

bool isActive(const NEventPlanner::NPeriodicTimeSlot& slot, const QTime& time, Qt::DayOfWeek day)
{
    if (!slot.startTime.isValid() || !slot.endTime.isValid())
        return false;
    if (slot.startTime < slot.endTime)
        return slot.startTime <= time && time < slot.endTime && slot.days.contains(day);

    // It continues after midnight.
    if (time >= slot.startTime && slot.days.contains(day))
        return true;
    return time < slot.endTime && slot.days.contains(NQtNamespaceUtilities::previousDayOfWeek(day));
}

// The entry of a planner is removed when its set is empty. Returns whether the entry was there.
template <typename Entry>
bool removeEntry(QHash<NEventPlanner*, QSet<Entry>>* entries, NEventPlanner* planner, const Entry& entry)
{
    const typename QHash<NEventPlanner*, QSet<Entry>>::iterator it = entries->find(planner);
    if (it == entries->end() || !it.value().remove(entry))
        return false;
    if (it.value().isEmpty())
        entries->erase(it);
    return true;
}

template <typename Entry>
bool hasEntry(const QHash<NEventPlanner*, QSet<Entry>>& entries, NEventPlanner* planner, const Entry& entry)
{
    const typename QHash<NEventPlanner*, QSet<Entry>>::const_iterator it = entries.constFind(planner);
    return it != entries.constEnd() && it.value().contains(entry);
}

} // namespace

// A slot together with its values at the time its state was last computed. Applications change the public values
// through their pointers, which only a comparison detects.
struct NEventPlannerSingleton::RegisteredTimeSlot : public NEventPlanner::NPeriodicTimeSlot
{
    RegisteredTimeSlot(const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime)
        : NPeriodicTimeSlot(days, startTime, endTime)
        , evaluated(*this)
    {
    }

    bool isUnchanged() const
    {
        return startTime == evaluated.startTime && endTime == evaluated.endTime && days == evaluated.days;
    }

    bool evaluate(const QTime& time, Qt::DayOfWeek day)
    {
        if (!isUnchanged())
            evaluated = NPeriodicTimeSlot(days, startTime, endTime);
        return isActive(*this, time, day);
    }

    // Has no seconds. A slot whose public values have seconds therefore counts as changed in every minute.
    NPeriodicTimeSlot evaluated;
};

// What is due in a minute, in the order in which it is reported. Before it is reported, an entry may be
// unregistered and another one registered at the same address.
struct NEventPlannerSingleton::DueMinute
{
    QDateTime start;
    QVector<QPair<NEventPlanner*, PeriodicEvent*>> events;
    QVector<QPair<NEventPlanner*, RegisteredTimeSlot*>> timeSlots;
    QList<NEventPlanner*> planners;
    QVector<NEventPlanner::CalendarEvent> calendarEvents; // for each of the planners
    int reportedEvents;
    int reportedTimeSlots;
    int reportedPlanners;
    int reportedCalendarEvents; // of the next planner

    // Registered since the minute was processed, or in the case of slots modified. The minute does not report
    // them.
    QSet<PeriodicEvent*> newEvents;
    QSet<PeriodicTimeSlot*> newTimeSlots;
    QSet<QPair<NEventPlanner*, int>> newCalendarEvents;
};

// A signal about an event or a time slot that is being emitted. An object that is unregistered meanwhile is
// deleted at the end of the outermost signal about it, because further receivers may still read it.
class NEventPlannerSingleton::Report
{
public:
    Report(NEventPlannerSingleton* singleton, PeriodicEvent* event, RegisteredTimeSlot* timeSlot);
    ~Report();

    bool isAbout(const PeriodicEvent* event) const { return m_event == event; }
    bool isAbout(const RegisteredTimeSlot* timeSlot) const { return m_timeSlot == timeSlot; }
    bool isUnregistered() const { return m_unregistered; }
    void setUnregistered() { m_unregistered = true; }
    Report* outer() const { return m_outer; }

private:
    Q_DISABLE_COPY(Report)

    const QPointer<NEventPlannerSingleton> m_singleton;
    PeriodicEvent* const m_event;
    RegisteredTimeSlot* const m_timeSlot;
    Report* const m_outer;
    bool m_unregistered;
};

// Keeps reporting consistent while the receivers of a signal register, unregister or run an event loop.
class NEventPlannerSingleton::Reporting
{
public:
    Reporting()
        : innermost(nullptr)
        , closing(false)
    {
    }

    // Deletes an object that is no longer registered: now, or at the end of the outermost signal about it.
    template <typename Object> void dispose(Object* object)
    {
        Report* outermost = nullptr;
        for (Report* report = innermost; report; report = report->outer()) {
            if (report->isAbout(object))
                outermost = report;
        }
        if (outermost)
            outermost->setUnregistered();
        else
            delete object;
    }

    void noteNew(PeriodicEvent* event)
    {
        for (DueMinute& minute : dueMinutes)
            minute.newEvents.insert(event);
    }

    void noteNew(PeriodicTimeSlot* slot)
    {
        noteModified(slot);
        for (QSet<PeriodicTimeSlot*>* newTimeSlots : newDuringRemoval)
            newTimeSlots->insert(slot);
    }

    void noteModified(PeriodicTimeSlot* slot)
    {
        for (DueMinute& minute : dueMinutes)
            minute.newTimeSlots.insert(slot);
    }

    void noteNew(NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent)
    {
        for (DueMinute& minute : dueMinutes)
            minute.newCalendarEvents.insert(qMakePair(planner, int(calendarEvent)));
    }

    QList<DueMinute> dueMinutes; // not yet reported completely, the oldest first
    // The slots registered since all slots of a planner began to be unregistered; one set for each such call.
    QList<QSet<PeriodicTimeSlot*>*> newDuringRemoval;
    Report* innermost;
    QSet<NEventPlanner*> plannersBeingDeleted;
    bool closing;
};

NEventPlannerSingleton::Report::Report(
    NEventPlannerSingleton* singleton, PeriodicEvent* event, RegisteredTimeSlot* timeSlot)
    : m_singleton(singleton)
    , m_event(event)
    , m_timeSlot(timeSlot)
    , m_outer(singleton->m_reporting->innermost)
    , m_unregistered(false)
{
    singleton->m_reporting->innermost = this;
}

NEventPlannerSingleton::Report::~Report()
{
    if (m_singleton)
        m_singleton->m_reporting->innermost = m_outer;
    if (m_unregistered) {
        delete m_event;
        delete m_timeSlot;
    }
}

NEventPlannerSingleton::NEventPlannerSingleton(QObject* parent)
    : QObject(parent)
    , m_timer(this)
    , m_reporting(new Reporting)
{
    m_lastProcessedMinute = currentMinuteStartingDateTime(&m_minuteEnd);
    m_timer.setSingleShot(true);
    NBaseQtCompat::makePrecise(&m_timer);
    connect(&m_timer, SIGNAL(timeout()), this, SLOT(newMinute()));
    scheduleTimerForNextMinute();
}

NEventPlannerSingleton::~NEventPlannerSingleton()
{
    m_reporting->closing = true;
    for (NEventPlanner* planner : m_periodicEvents.keys())
        unregisterPeriodicEvent(planner, nullptr);
    for (NEventPlanner* planner : m_periodicTimeSlots.keys())
        unregisterPeriodicTimeSlot(planner, nullptr);
}

NEventPlanner::NPeriodicEvent* NEventPlannerSingleton::registerPeriodicEvent(
    NEventPlanner* planner, const QSet<Qt::DayOfWeek>& days, const QTime& time)
{
    if (!canRegister(planner))
        return nullptr;
    PeriodicEvent* const event = new PeriodicEvent(days, time);
    m_reporting->noteNew(event);
    m_periodicEvents[planner].insert(event);
    return event;
}

bool NEventPlannerSingleton::modifyRegisteredPeriodicEvent(
    NEventPlanner* planner, NEventPlanner::NPeriodicEvent* event, const QSet<Qt::DayOfWeek>& days,
    const QTime& time)
{
    if (!hasEntry(m_periodicEvents, planner, event))
        return false;
    const PeriodicEvent modified(days, time);
    event->days = modified.days;
    event->time = modified.time;
    return true;
}

void NEventPlannerSingleton::unregisterPeriodicEvent(NEventPlanner* planner, NEventPlanner::NPeriodicEvent* event)
{
    if (!event) {
        const QSet<PeriodicEvent*> events = m_periodicEvents.take(planner);
        for (QSet<PeriodicEvent*>::const_iterator it = events.constBegin(); it != events.constEnd(); ++it)
            m_reporting->dispose(*it);
        return;
    }
    if (removeEntry(&m_periodicEvents, planner, event))
        m_reporting->dispose(event);
}

NEventPlanner::NPeriodicTimeSlot* NEventPlannerSingleton::registerPeriodicTimeSlot(
    NEventPlanner* planner, const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime)
{
    if (!canRegister(planner))
        return nullptr;
    RegisteredTimeSlot* const slot = new RegisteredTimeSlot(days, startTime, endTime);
    m_reporting->noteNew(slot);
    m_periodicTimeSlots[planner].insert(slot);
    const bool active = isDateTimeInActivityPeriodOfPeriodicTimeSlot(m_lastProcessedMinute, slot);
    m_periodicTimeSlotStates.insert(slot, active);
    if (!active)
        return slot;

    const Report report(this, nullptr, slot);
    emit planner->periodicTimeSlotStarted(slot);
    return report.isUnregistered() ? nullptr : slot;
}

bool NEventPlannerSingleton::modifyRegisteredPeriodicTimeSlot(
    NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot, const QSet<Qt::DayOfWeek>& days,
    const QTime& startTime, const QTime& endTime)
{
    if (!hasEntry(m_periodicTimeSlots, planner, slot))
        return false;
    const PeriodicTimeSlot modified(days, startTime, endTime);
    slot->days = modified.days;
    slot->startTime = modified.startTime;
    slot->endTime = modified.endTime;
    m_reporting->noteModified(slot);
    updateState(planner, static_cast<RegisteredTimeSlot*>(slot), m_lastProcessedMinute);
    return true;
}

void NEventPlannerSingleton::unregisterPeriodicTimeSlot(
    NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot)
{
    if (slot) {
        removePeriodicTimeSlot(planner, slot);
        return;
    }

    // The receivers of the signals may unregister further slots and register new ones, also at the same addresses.
    // New ones stay.
    const QPointer<NEventPlannerSingleton> self(this);
    QSet<PeriodicTimeSlot*> newTimeSlots;
    m_reporting->newDuringRemoval.append(&newTimeSlots);
    const QSet<PeriodicTimeSlot*> registered = m_periodicTimeSlots.value(planner);
    for (QSet<PeriodicTimeSlot*>::const_iterator it = registered.constBegin(); it != registered.constEnd(); ++it) {
        if (hasEntry(m_periodicTimeSlots, planner, *it) && !newTimeSlots.contains(*it))
            removePeriodicTimeSlot(planner, *it);
        if (!self)
            return;
    }
    m_reporting->newDuringRemoval.removeLast();
}

bool NEventPlannerSingleton::isPeriodicTimeSlotCurrentlyActive(
    NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot) const
{
    return hasEntry(m_periodicTimeSlots, planner, slot) && m_periodicTimeSlotStates.value(slot);
}

void NEventPlannerSingleton::registerCalendarEvent(
    NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent)
{
    if (!canRegister(planner) || hasEntry(m_calendarEvents, planner, calendarEvent))
        return;
    m_calendarEvents[planner].insert(calendarEvent);
    m_reporting->noteNew(planner, calendarEvent);
}

void NEventPlannerSingleton::unregisterCalendarEvent(
    NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent)
{
    removeEntry(&m_calendarEvents, planner, calendarEvent);
}

void NEventPlannerSingleton::unregisterCalendarEvents(NEventPlanner* planner)
{
    m_calendarEvents.remove(planner);
}

void NEventPlannerSingleton::newMinute()
{
    processNewMinute(currentMinuteStartingDateTime(&m_minuteEnd));
}

void NEventPlannerSingleton::currentDateTimeChanged()
{
    const QDateTime now = currentMinuteStartingDateTime(&m_minuteEnd);
    if (isSameMinute(now, m_lastProcessedMinute))
        scheduleTimerForNextMinute();
    else
        processNewMinute(now);
}

// The end is computed from the current instant, not from the start of the minute. The start is a local time, which
// is ambiguous in the hour that is repeated when daylight-saving time ends; the wrong instant would stop the
// ticker for an hour or make it run without pause.
QDateTime NEventPlannerSingleton::currentMinuteStartingDateTime(qint64* end)
{
    const time_t now = time_t(QDateTime::currentMSecsSinceEpoch() / MillisecondsPerSecond);
    struct tm local;
    // localtime_r() need not notice a change of the time zone; see localtime(3).
    ::tzset();
    ::localtime_r(&now, &local);
    const int passed = qMin(local.tm_sec, SecondsPerMinute - 1); // tm_sec is 60 in a leap second
    *end = (qint64(now) - passed + SecondsPerMinute) * MillisecondsPerSecond;
    return QDateTime(
        QDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday), QTime(local.tm_hour, local.tm_min));
}

bool NEventPlannerSingleton::isDateTimeInActivityPeriodOfPeriodicTimeSlot(
    const QDateTime& dateTime, NEventPlanner::NPeriodicTimeSlot* slot)
{
    return isActive(*slot, dateTime.time(), dayOfWeek(dateTime));
}

void NEventPlannerSingleton::processNewMinute(const QDateTime& now)
{
    const QDateTime previous = m_lastProcessedMinute;
    m_lastProcessedMinute = now;
    scheduleTimerForNextMinute();

    DueMinute minute = DueMinute();
    minute.start = now;
    findDuePeriodicEvents(&minute);
    findDuePeriodicTimeSlots(&minute, previous);
    findDueCalendarEvents(&minute, previous);
    m_reporting->dueMinutes.append(minute);
    reportDueMinutes();
}

// More than a minute is left when the clock was set back after the minute was read. Then the current minute is
// processed at once, as it is when the minute is over.
void NEventPlannerSingleton::scheduleTimerForNextMinute()
{
    const qint64 left = m_minuteEnd - QDateTime::currentMSecsSinceEpoch();
    m_timer.start(left > 0 && left <= MillisecondsPerMinute ? int(left) : 0);
}

void NEventPlannerSingleton::findDuePeriodicEvents(DueMinute* minute) const
{
    const QTime time = minute->start.time();
    const Qt::DayOfWeek day = dayOfWeek(minute->start);
    QHash<NEventPlanner*, QSet<PeriodicEvent*>>::const_iterator events = m_periodicEvents.constBegin();
    for (; events != m_periodicEvents.constEnd(); ++events) {
        QSet<PeriodicEvent*>::const_iterator it = events.value().constBegin();
        for (; it != events.value().constEnd(); ++it) {
            if (isDue(*it, time, day))
                minute->events.append(qMakePair(events.key(), *it));
        }
    }
}

// When the minute follows the previous one, a slot that was not changed can only start or end at its own times, so
// the states of all others need not be computed. While an older minute is not reported completely, any state may
// still change before this minute is reported.
void NEventPlannerSingleton::findDuePeriodicTimeSlots(DueMinute* minute, const QDateTime& previous) const
{
    const QTime time = minute->start.time();
    const Qt::DayOfWeek day = dayOfWeek(minute->start);
    const bool isPending = !m_reporting->dueMinutes.isEmpty();
    const bool isNext = !isPending && isNextMinute(previous, minute->start);
    QHash<NEventPlanner*, QSet<PeriodicTimeSlot*>>::const_iterator timeSlots = m_periodicTimeSlots.constBegin();
    for (; timeSlots != m_periodicTimeSlots.constEnd(); ++timeSlots) {
        QSet<PeriodicTimeSlot*>::const_iterator it = timeSlots.value().constBegin();
        for (; it != timeSlots.value().constEnd(); ++it) {
            RegisteredTimeSlot* const slot = static_cast<RegisteredTimeSlot*>(*it);
            if (isNext && slot->startTime != time && slot->endTime != time && slot->isUnchanged())
                continue;
            if (isPending || slot->evaluate(time, day) != m_periodicTimeSlotStates.value(slot))
                minute->timeSlots.append(qMakePair(timeSlots.key(), slot));
        }
    }
}

void NEventPlannerSingleton::findDueCalendarEvents(DueMinute* minute, const QDateTime& previous) const
{
    minute->planners = m_calendarEvents.keys();
    minute->calendarEvents.append(NEventPlanner::NewMinute);
    if (minute->start.time().hour() != previous.time().hour())
        minute->calendarEvents.append(NEventPlanner::NewHour);
    if (minute->start.date().day() != previous.date().day())
        minute->calendarEvents.append(NEventPlanner::NewDay);
    if (minute->start.date().month() != previous.date().month())
        minute->calendarEvents.append(NEventPlanner::NewMonth);
    if (minute->start.date().year() != previous.date().year())
        minute->calendarEvents.append(NEventPlanner::NewYear);
}

// Receivers may run an event loop in which the next minute is processed. The inner call then continues with the
// older minute where the outer call stopped, and leaves nothing to the outer call.
void NEventPlannerSingleton::reportDueMinutes()
{
    const QPointer<NEventPlannerSingleton> self(this);
    while (!m_reporting->dueMinutes.isEmpty()) {
        if (!reportNext(&m_reporting->dueMinutes.first()))
            m_reporting->dueMinutes.removeFirst();
        if (!self)
            return;
    }
}

// Reporting an entry may remove the minute, so it is not used afterwards.
bool NEventPlannerSingleton::reportNext(DueMinute* minute)
{
    if (minute->reportedEvents < minute->events.size()) {
        const QPair<NEventPlanner*, PeriodicEvent*> due = minute->events.at(minute->reportedEvents++);
        reportPeriodicEvent(*minute, due.first, due.second);
        return true;
    }
    if (minute->reportedTimeSlots < minute->timeSlots.size()) {
        const QPair<NEventPlanner*, RegisteredTimeSlot*> due = minute->timeSlots.at(minute->reportedTimeSlots++);
        reportPeriodicTimeSlot(*minute, due.first, due.second);
        return true;
    }
    if (minute->reportedPlanners < minute->planners.size()) {
        NEventPlanner* const planner = minute->planners.at(minute->reportedPlanners);
        const NEventPlanner::CalendarEvent due = minute->calendarEvents.at(minute->reportedCalendarEvents++);
        if (minute->reportedCalendarEvents == minute->calendarEvents.size()) {
            minute->reportedCalendarEvents = 0;
            ++minute->reportedPlanners;
        }
        reportCalendarEvent(*minute, planner, due);
        return true;
    }
    return false;
}

void NEventPlannerSingleton::reportPeriodicEvent(
    const DueMinute& minute, NEventPlanner* planner, PeriodicEvent* event)
{
    if (!hasEntry(m_periodicEvents, planner, event) || minute.newEvents.contains(event))
        return;
    if (!isDue(event, minute.start.time(), dayOfWeek(minute.start)))
        return;
    const Report report(this, event, nullptr);
    emit planner->periodicEventTriggered(event);
}

void NEventPlannerSingleton::reportPeriodicTimeSlot(
    const DueMinute& minute, NEventPlanner* planner, RegisteredTimeSlot* slot)
{
    if (!hasEntry<PeriodicTimeSlot*>(m_periodicTimeSlots, planner, slot) || minute.newTimeSlots.contains(slot))
        return;
    updateState(planner, slot, minute.start);
}

void NEventPlannerSingleton::reportCalendarEvent(
    const DueMinute& minute, NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent)
{
    if (!hasEntry(m_calendarEvents, planner, calendarEvent) ||
        minute.newCalendarEvents.contains(qMakePair(planner, int(calendarEvent))))
        return;
    emit planner->calendarEventTriggered(calendarEvent);
}

void NEventPlannerSingleton::updateState(NEventPlanner* planner, RegisteredTimeSlot* slot, const QDateTime& minute)
{
    const bool active = slot->evaluate(minute.time(), dayOfWeek(minute));
    if (active == m_periodicTimeSlotStates.value(slot))
        return;
    m_periodicTimeSlotStates.insert(slot, active);
    const Report report(this, nullptr, slot);
    if (active)
        emit planner->periodicTimeSlotStarted(slot);
    else
        emit planner->periodicTimeSlotEnded(slot);
}

// The end is reported last, when receivers can no longer end the slot a second time or start it again.
void NEventPlannerSingleton::removePeriodicTimeSlot(NEventPlanner* planner, PeriodicTimeSlot* slot)
{
    if (!removeEntry(&m_periodicTimeSlots, planner, slot))
        return;
    RegisteredTimeSlot* const removed = static_cast<RegisteredTimeSlot*>(slot);
    if (!m_periodicTimeSlotStates.take(slot)) {
        m_reporting->dispose(removed);
        return;
    }
    const Report report(this, nullptr, removed);
    m_reporting->dispose(removed);
    emit planner->periodicTimeSlotEnded(slot);
}

// Without a ticker nothing is registered. A ticker created here would outlive the planner, and perhaps the
// application object.
void NEventPlannerSingleton::forgetPlanner(NEventPlanner* planner)
{
    if (s_instance)
        s_instance->unregisterPlanner(planner);
}

void NEventPlannerSingleton::unregisterPlanner(NEventPlanner* planner)
{
    const QPointer<NEventPlannerSingleton> self(this);
    m_reporting->plannersBeingDeleted.insert(planner);
    unregisterPeriodicEvent(planner, nullptr);
    unregisterPeriodicTimeSlot(planner, nullptr);
    if (!self)
        return;
    unregisterCalendarEvents(planner);
    m_reporting->plannersBeingDeleted.remove(planner);
}

// Nothing would unregister what a receiver registers while the planner or the ticker is being deleted.
bool NEventPlannerSingleton::canRegister(NEventPlanner* planner) const
{
    return planner && !m_reporting->closing && !m_reporting->plannersBeingDeleted.contains(planner);
}
