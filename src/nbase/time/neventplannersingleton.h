#ifndef NBASE_NEVENTPLANNERSINGLETON_H
#define NBASE_NEVENTPLANNERSINGLETON_H

#include <nbase/core/nsingleton.h>
#include <nbase/time/neventplanner.h>

#include <QtCore/QDateTime>
#include <QtCore/QHash>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>

class NBASE_EXPORT NEventPlannerSingleton;

// One instance per process: users of this header do not instantiate the template.
extern template class NSingleton<NEventPlannerSingleton>;

/**
 * The minute ticker behind all planners of the process: at the start of every minute of local time it determines
 * what is due and makes the planners emit their signals. Applications use NEventPlanner, which forwards its
 * operations to this class with the planner as first argument.
 *
 * The instance is created on the first use of a planner and must be used on that thread only; the application
 * object must exist before. It owns all events and slots. Deleting it unregisters everything, as if each planner
 * had been deleted.
 */
class NBASE_EXPORT NEventPlannerSingleton : public QObject, public NSingleton<NEventPlannerSingleton>
{
    Q_OBJECT

public:
    /** For instance() only. */
    explicit NEventPlannerSingleton(QObject* parent);
    ~NEventPlannerSingleton() override;

    /** See NEventPlanner::registerPeriodicEvent(). */
    NEventPlanner::NPeriodicEvent*
    registerPeriodicEvent(NEventPlanner* planner, const QSet<Qt::DayOfWeek>& days, const QTime& time);

    /** See NEventPlanner::modifyRegisteredPeriodicEvent(). */
    bool modifyRegisteredPeriodicEvent(
        NEventPlanner* planner, NEventPlanner::NPeriodicEvent* event, const QSet<Qt::DayOfWeek>& days,
        const QTime& time);

    /** See NEventPlanner::unregisterPeriodicEvent(). */
    void unregisterPeriodicEvent(NEventPlanner* planner, NEventPlanner::NPeriodicEvent* event);

    /** See NEventPlanner::registerPeriodicTimeSlot(). */
    NEventPlanner::NPeriodicTimeSlot* registerPeriodicTimeSlot(
        NEventPlanner* planner, const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

    /** See NEventPlanner::modifyRegisteredPeriodicTimeSlot(). */
    bool modifyRegisteredPeriodicTimeSlot(
        NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot, const QSet<Qt::DayOfWeek>& days,
        const QTime& startTime, const QTime& endTime);

    /** See NEventPlanner::unregisterPeriodicTimeSlot(). */
    void unregisterPeriodicTimeSlot(NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot);

    /** See NEventPlanner::isPeriodicTimeSlotCurrentlyActive(). */
    bool isPeriodicTimeSlotCurrentlyActive(NEventPlanner* planner, NEventPlanner::NPeriodicTimeSlot* slot) const;

    /** See NEventPlanner::registerCalendarEvent(). */
    void registerCalendarEvent(NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent);

    /** See NEventPlanner::unregisterCalendarEvent(). */
    void unregisterCalendarEvent(NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent);

    /** See NEventPlanner::unregisterCalendarEvents(). */
    void unregisterCalendarEvents(NEventPlanner* planner);

public slots:
    /** Processes the current minute, even if it was processed before. */
    void newMinute();

    /** Processes the current minute, unless it is the last processed one. */
    void currentDateTimeChanged();

private:
    Q_DISABLE_COPY(NEventPlannerSingleton)

    friend class NEventPlanner;

    typedef NEventPlanner::NPeriodicEvent PeriodicEvent;
    typedef NEventPlanner::NPeriodicTimeSlot PeriodicTimeSlot;
    class Report;
    class Reporting;
    struct DueMinute;
    struct RegisteredTimeSlot;

    static QDateTime currentMinuteStartingDateTime(qint64* end);
    static bool isDateTimeInActivityPeriodOfPeriodicTimeSlot(
        const QDateTime& dateTime, NEventPlanner::NPeriodicTimeSlot* slot);

    void processNewMinute(const QDateTime& now);
    void scheduleTimerForNextMinute();

    void findDuePeriodicEvents(DueMinute* minute) const;
    void findDuePeriodicTimeSlots(DueMinute* minute, const QDateTime& previous) const;
    void findDueCalendarEvents(DueMinute* minute, const QDateTime& previous) const;
    void reportDueMinutes();
    bool reportNext(DueMinute* minute);
    void reportPeriodicEvent(const DueMinute& minute, NEventPlanner* planner, PeriodicEvent* event);
    void reportPeriodicTimeSlot(const DueMinute& minute, NEventPlanner* planner, RegisteredTimeSlot* slot);
    void reportCalendarEvent(
        const DueMinute& minute, NEventPlanner* planner, NEventPlanner::CalendarEvent calendarEvent);

    void updateState(NEventPlanner* planner, RegisteredTimeSlot* slot, const QDateTime& minute);
    void removePeriodicTimeSlot(NEventPlanner* planner, PeriodicTimeSlot* slot);
    static void forgetPlanner(NEventPlanner* planner);
    void unregisterPlanner(NEventPlanner* planner);
    bool canRegister(NEventPlanner* planner) const;

    QTimer m_timer;
    QDateTime m_lastProcessedMinute;
    QHash<NEventPlanner*, QSet<NEventPlanner::NPeriodicEvent*>> m_periodicEvents;
    QHash<NEventPlanner*, QSet<NEventPlanner::NPeriodicTimeSlot*>> m_periodicTimeSlots;
    QHash<NEventPlanner::NPeriodicTimeSlot*, bool> m_periodicTimeSlotStates;
    QHash<NEventPlanner*, QSet<NEventPlanner::CalendarEvent>> m_calendarEvents;
    const QScopedPointer<Reporting> m_reporting;
    qint64 m_minuteEnd; // end of the minute that was read last, in milliseconds since the epoch
};

#endif
