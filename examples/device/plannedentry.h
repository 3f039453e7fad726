#ifndef DEMODEVICE_PLANNEDENTRY_H
#define DEMODEVICE_PLANNEDENTRY_H

#include <nbase/time/neventplanner.h>

#include <QtCore/QObject>
#include <QtCore/QString>

/** What a user has planned, and when. */
struct EntryPlan
{
    enum Kind {
        Event, ///< happens at the start time
        Slot   ///< begins at the start time and ends at the end time
    };

    EntryPlan()
        : kind(Event)
    {
    }

    QString title;
    Kind kind;
    QSet<Qt::DayOfWeek> days;
    QTime start;
    QTime end; // of a slot
};

/** One entry of the timetable: reports when its event triggers, or its slot starts and ends, with its own planner.
 */
class PlannedEntry : public QObject
{
    Q_OBJECT

public:
    enum Happening { Triggered, Started, Ended };

    PlannedEntry(unsigned int id, QObject* parent);

    /** Reports nothing, not even the end of an active slot; see cancel(). */
    ~PlannedEntry() override;

    unsigned int id() const;
    const EntryPlan& plan() const;

    /** Whether the entry is a slot that has started and not ended. */
    bool isActive();

    /** Replaces the plan. A slot that starts or ends by that reports so at once. */
    void setPlan(const EntryPlan& plan);

    /** Removes the plan; an active slot reports its end. */
    void cancel();

signals:
    void happened(PlannedEntry* entry, int happening);

private slots:
    void reportTrigger();
    void reportStart();
    void reportEnd();

private:
    Q_DISABLE_COPY(PlannedEntry)

    void registerPlan();

    const unsigned int m_id;
    EntryPlan m_plan;
    NEventPlanner::NPeriodicEvent* m_event;
    NEventPlanner::NPeriodicTimeSlot* m_slot;
    NEventPlanner m_planner;
};

#endif
