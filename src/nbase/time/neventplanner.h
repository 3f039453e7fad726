#ifndef NBASE_NEVENTPLANNER_H
#define NBASE_NEVENTPLANNER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QTime>

/**
 * Emits signals at given times of the week. There are periodic events (working days at 08:00), periodic time slots
 * (every night from 22:00 to 06:00) and calendar events (a new hour). All times are local time; the resolution is
 * one minute.
 *
 * Everything that is due in a minute is reported at the start of that minute: first events, then time slots, then
 * calendar events. The order among planners, and among the events or slots of one planner, is arbitrary.
 *
 * After a change of the system clock, the new time is processed as one new minute. Events whose minute was skipped
 * are not reported, an event whose minute is repeated is reported again, slots take the state of the new time, and
 * calendar events report the differences between the new minute and the previous one. See
 * connectCurrentDateTimeChangedSignal().
 *
 * Receivers of the signals may register, modify and unregister, delete any planner, and run an event loop:
 * - What a receiver unregisters is not reported any more, except for the end of an active slot. The object is
 *   deleted after the signal about it has reached all its receivers.
 * - What a receiver registers is reported from the next minute on. A slot that is active starts at once.
 * - An event that a receiver modifies is reported in this minute only if it was due before the change and is due
 *   after it. A slot that it modifies starts or ends at once.
 * - While a receiver runs an event loop, minutes are processed. What the interrupted minute has not reported yet
 *   is reported at the start of the next minute, before anything else.
 *
 * All planners must be used on the thread on which the first planner was used; its event loop must run. The
 * application object (QCoreApplication) must exist before the first use, because a timer started earlier never
 * times out. The library owns events and slots; they live until they are unregistered or their planner is deleted.
 */
class NBASE_EXPORT NEventPlanner : public QObject
{
    Q_OBJECT
    Q_ENUMS(CalendarEvent)

public:
    /**
     * An event is due when the named part of the date and time differs from that of the minute processed before.
     * The type is registered with the meta-object system, so values can be kept in a QVariant and sent through
     * queued connections.
     */
    enum CalendarEvent {
        NewMinute, ///< due in every minute
        NewHour,   ///< the hour
        NewDay,    ///< the day of the month
        NewMonth,  ///< the month
        NewYear    ///< the year
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
     * Unregisters everything. periodicTimeSlotEnded() is emitted for active slots; its receivers cannot register
     * anything with this planner.
     */
    ~NEventPlanner() override;

    /**
     * Registers an event. It is reported from the next minute on, even when it is due in the current one.
     * @return the event; null when the planner is being deleted.
     */
    NPeriodicEvent* registerPeriodicEvent(const QSet<Qt::DayOfWeek>& days, const QTime& time);

    /** Replaces days and time of @a event. @return false when it is not registered by this planner. */
    bool modifyRegisteredPeriodicEvent(NPeriodicEvent* event, const QSet<Qt::DayOfWeek>& days, const QTime& time);

    /**
     * Unregisters and deletes @a event, or all events of this planner when it is null. Does nothing when the event
     * is not registered by this planner.
     */
    void unregisterPeriodicEvent(NPeriodicEvent* event);

    /**
     * Registers a time slot. When it is active in the last processed minute, periodicTimeSlotStarted() is emitted
     * before this returns.
     * @return the slot; null when a receiver of that signal unregistered it, or when the planner is being deleted.
     */
    NPeriodicTimeSlot*
    registerPeriodicTimeSlot(const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

    /**
     * Replaces days and times of @a slot. When this changes its state, periodicTimeSlotStarted() or
     * periodicTimeSlotEnded() is emitted before this returns.
     * @return false when it is not registered by this planner.
     */
    bool modifyRegisteredPeriodicTimeSlot(
        NPeriodicTimeSlot* slot, const QSet<Qt::DayOfWeek>& days, const QTime& startTime, const QTime& endTime);

    /**
     * Unregisters and deletes @a slot, or all slots of this planner when it is null. For an active slot
     * periodicTimeSlotEnded() is emitted after it is unregistered and before it is deleted. Does nothing when the
     * slot is not registered by this planner.
     */
    void unregisterPeriodicTimeSlot(NPeriodicTimeSlot* slot);

    /** Whether @a slot has started and not ended; false for a slot that is not registered by this planner. */
    bool isPeriodicTimeSlotCurrentlyActive(NPeriodicTimeSlot* slot);

    /** Reports @a calendarEvent from the next minute on. Registering it again has no effect. */
    void registerCalendarEvent(NEventPlanner::CalendarEvent calendarEvent);

    /** Stops reporting @a calendarEvent. */
    void unregisterCalendarEvent(NEventPlanner::CalendarEvent calendarEvent);

    /** Stops reporting all calendar events. */
    void unregisterCalendarEvents();

    /**
     * Connects the @a signal of the object that sets the system clock or the time zone, so that the new time is
     * processed at once. Otherwise it is processed when the ticker's timer times out, at most a minute of elapsed
     * time later.
     * @param signal written with SIGNAL().
     * @return whether the connection was made.
     */
    static bool connectCurrentDateTimeChangedSignal(
        const QObject* sender, const char* signal, Qt::ConnectionType type = Qt::AutoConnection);

    /** Undoes connectCurrentDateTimeChangedSignal(). @return whether there was such a connection. */
    static bool disconnectCurrentDateTimeChangedSignal(const QObject* sender, const char* signal);

public slots:
    /** To be called after the system clock or the time zone was changed. Applies to all planners of the process.
     */
    void currentDateTimeChanged();

signals:
    /** @a event is due in the current minute. */
    void periodicEventTriggered(const NEventPlanner::NPeriodicEvent* event);

    /** @a timeSlot has become active. */
    void periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot* timeSlot);

    /** @a timeSlot has become inactive, or was unregistered while it was active. */
    void periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot* timeSlot);

    /** @a event is due. When several are, they are reported from NewMinute to NewYear. */
    void calendarEventTriggered(NEventPlanner::CalendarEvent event);

private:
    Q_DISABLE_COPY(NEventPlanner)

    // It emits the signals.
    friend class NEventPlannerSingleton;
};

Q_DECLARE_METATYPE(NEventPlanner::CalendarEvent)

#endif
