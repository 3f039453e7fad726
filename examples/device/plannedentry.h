#ifndef DEMODEVICE_PLANNEDENTRY_H
#define DEMODEVICE_PLANNEDENTRY_H

#include <nbase/time/neventplanner.h>

#include <QtCore/QObject>
#include <QtCore/QString>

/** What somebody wants to happen when. */
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

/** One entry of the timetable: tells when its plan has it that something happens, by a planner of its own. */
class PlannedEntry : public QObject
{
    Q_OBJECT

public:
    enum Happening { Triggered, Started, Ended };

    PlannedEntry(unsigned int id, QObject* parent);

    /** Tells nothing any more; see cancel(). */
    ~PlannedEntry() override;

    unsigned int id() const;
    const EntryPlan& plan() const;

    /** Whether it is a slot that has started and not ended. */
    bool isActive();

    /** Goes by @a plan from now on. A slot that this makes active, or inactive, tells so at once. */
    void setPlan(const EntryPlan& plan);

    /** Plans nothing any more; a slot that is active tells its end. */
    void cancel();

signals:
    void happened(PlannedEntry* entry, int happening);

private slots:
    void tellTrigger();
    void tellStart();
    void tellEnd();

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
