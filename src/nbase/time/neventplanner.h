#ifndef NBASE_NEVENTPLANNER_H
#define NBASE_NEVENTPLANNER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QTime>

/**
 * Tells its owner by signal when a time of the week has come. There are periodic events (working days at 08:00),
 * periodic time slots (every night from 22:00 to 06:00) and calendar events (a new hour). All times are local
 * time; the resolution is one minute.
 *
 * Everything that is due in a minute is reported at the start of that minute: first events, then time slots, then
 * calendar events. The order among planners, and among the events or slots of one planner, is arbitrary.
 *
 * A change of the system clock is one new minute, like any other. Events whose minute was jumped over are not
 * reported, an event whose minute comes again is reported again, slots become what they are at the new time, and
 * calendar events tell in what the new minute differs from the last one. See
 * connectCurrentDateTimeChangedSignal().
 *
 * Whatever is called by a signal may register, modify and unregister, delete any planner, and run an event loop:
 * - What it unregisters is not reported any more, but for the end of a slot that was active. The object lives
 * until the signal that is about it has reached all its receivers.
 * - What it registers is reported from the next minute on. A slot that is active has started at once.
 * - An event that it modifies is reported in this minute only if it was due before the change and is due after it.
 * A slot that it modifies starts or ends at once.
 * - When it runs an event loop, the minutes go on. What is still to be reported of the interrupted minute comes at
 *   the start of the next one, before anything else.
 *
 * Planners must be used on one thread only, the one that the first planner was used on; its event loop must run.
 * The application object (QCoreApplication) must exist before the first use: a timer that was started earlier
 * never runs out. Events and slots belong to the library: they live until they are unregistered or their planner
 * is deleted.
 */
class NBASE_EXPORT NEventPlanner : public QObject
{
    Q_OBJECT
    Q_ENUMS(CalendarEvent)

public:
    /**
     * Which part of the date and time has to differ from that of the minute processed before for the event to be
     * due. The type is known to QVariant and to queued connections.
     */
    enum CalendarEvent {
        NewMinute, ///< every minute
        NewHour,   ///< another hour of the day
        NewDay,    ///< another day of the month
        NewMonth,  ///< another month of the year
        NewYear    ///< another year
    };

    /**
     * A time of the day on some days of the week. modifyRegisteredPeriodicEvent() changes it. Days and time may
     * also be assigned directly, which takes effect at the next minute; an event whose time has seconds is never
     * due.
     */
    class NBASE_EXPORT NPeriodicEvent
    {
    public:
        /** Seconds and milliseconds of @a time are dropped. Without days, or with no valid time, it is never due.
         */
        NPeriodicEvent(const QSet<Qt::DayOfWeek>& days, const QTime& time);

        QSet<Qt::DayOfWeek> days; ///< on which it is due
        QTime time;               ///< at which minute it is due, in local time
    };

    /**
     * A span of time that begins on some days of the week. It ends on the next day when its end is not after its
     * start; with both equal it lasts 24 hours. The end does not belong to it. modifyRegisteredPeriodicTimeSlot()
     * changes it at once. Days and times may also be assigned directly, which takes effect at the next minute.
     */
    class NBASE_EXPORT NPeriodicTimeSlot
    {
    public:
        /**
         * Seconds and milliseconds are dropped. Without days, or with a time that is not valid, it is never
         * active.
         * @param days the days on which it starts.
         */
        NPeriodicTimeSlot(const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

        QSet<Qt::DayOfWeek> days; ///< on which it starts
        QTime startTime;          ///< its first minute, in local time
        QTime endTime;            ///< the minute after its last one, in local time
    };

    /** A planner with nothing registered. */
    explicit NEventPlanner(QObject* parent = nullptr);

    /**
     * Unregisters everything; slots that are active end with their signal. What these signals call cannot register
     * anything with this planner any more.
     */
    ~NEventPlanner() override;

    /**
     * Registers an event. Nothing is reported before the next minute, even when the event is due in this one.
     * @return the event; null when the planner is being deleted.
     */
    NPeriodicEvent* registerPeriodicEvent(const QSet<Qt::DayOfWeek>& days, const QTime& time);

    /** Gives @a event other days and another time. @return false when it is not registered by this planner. */
    bool modifyRegisteredPeriodicEvent(NPeriodicEvent* event, const QSet<Qt::DayOfWeek>& days, const QTime& time);

    /**
     * Unregisters and deletes @a event, or all events of this planner when it is null. An event that is not
     * registered by this planner is left alone.
     */
    void unregisterPeriodicEvent(NPeriodicEvent* event);

    /**
     * Registers a time slot. When it is active at the last minute processed, periodicTimeSlotStarted() is emitted
     * first.
     * @return the slot; null when that signal made somebody unregister it, or when the planner is being deleted.
     */
    NPeriodicTimeSlot*
    registerPeriodicTimeSlot(const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

    /**
     * Gives @a slot other days and times. When this makes it active, or inactive, the signal is emitted first.
     * @return false when it is not registered by this planner.
     */
    bool modifyRegisteredPeriodicTimeSlot(
        NPeriodicTimeSlot* slot, const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

    /**
     * Unregisters and deletes @a slot, or all slots of this planner when it is null. For an active one
     * periodicTimeSlotEnded() is emitted, when it is no longer registered and can still be read. A slot that is
     * not registered by this planner is left alone.
     */
    void unregisterPeriodicTimeSlot(NPeriodicTimeSlot* slot);

    /** Whether @a slot has started and not ended; false for a slot that is not registered by this planner. */
    bool isPeriodicTimeSlotCurrentlyActive(NPeriodicTimeSlot* slot);

    /** Makes @a calendarEvent be reported from now on; a second time changes nothing. */
    void registerCalendarEvent(NEventPlanner::CalendarEvent calendarEvent);

    /** Makes @a calendarEvent not be reported any more. */
    void unregisterCalendarEvent(NEventPlanner::CalendarEvent calendarEvent);

    /** Makes no calendar event be reported any more. */
    void unregisterCalendarEvents();

    /**
     * Connects the @a signal of the object that sets the system clock or the time zone, so that the change counts
     * at once. Otherwise planners see it when their timer runs out, up to a minute of elapsed time later.
     * @param signal written with SIGNAL().
     * @return whether the connection was made.
     */
    static bool connectCurrentDateTimeChangedSignal(
        const QObject* sender, const char* signal, Qt::ConnectionType type = Qt::AutoConnection);

    /** Undoes connectCurrentDateTimeChangedSignal(). @return whether there was such a connection. */
    static bool disconnectCurrentDateTimeChangedSignal(const QObject* sender, const char* signal);

public slots:
    /** Tells all planners of the process that the system clock or the time zone was changed. */
    void currentDateTimeChanged();

signals:
    /** The minute of @a event has come. */
    void periodicEventTriggered(const NEventPlanner::NPeriodicEvent* event);

    /** @a timeSlot has become active. */
    void periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot* timeSlot);

    /** @a timeSlot has become inactive, or was unregistered while it was active. */
    void periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot* timeSlot);

    /** @a event is due. When several are, they are reported from NewMinute to NewYear. */
    void calendarEventTriggered(NEventPlanner::CalendarEvent event);

private:
    Q_DISABLE_COPY(NEventPlanner)

    // Emits the signals.
    friend class NEventPlannerSingleton;
};

Q_DECLARE_METATYPE(NEventPlanner::CalendarEvent)

#endif
