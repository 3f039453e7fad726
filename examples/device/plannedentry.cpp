#include "plannedentry.h"

PlannedEntry::PlannedEntry(unsigned int id, QObject* parent)
    : QObject(parent)
    , m_id(id)
    , m_event(nullptr)
    , m_slot(nullptr)
{
    connect(
        &m_planner, SIGNAL(periodicEventTriggered(const NEventPlanner::NPeriodicEvent*)), this,
                           SLOT(reportTrigger()));
    connect(
        &m_planner, SIGNAL(periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot*)), this,
                           SLOT(reportStart()));
    connect(
        &m_planner, SIGNAL(periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot*)), this,
                           SLOT(reportEnd()));
}

PlannedEntry::~PlannedEntry()
{
    // The planner's destructor ends an active slot, when this object is destroyed already.
    m_planner.disconnect(this);
}

unsigned int PlannedEntry::id() const
{
    return m_id;
}

const EntryPlan& PlannedEntry::plan() const
{
    return m_plan;
}

bool PlannedEntry::isActive()
{
    return m_slot && m_planner.isPeriodicTimeSlotCurrentlyActive(m_slot);
}

void PlannedEntry::setPlan(const EntryPlan& plan)
{
    // A slot that ends because the entry becomes an event ends with its old title.
    if (plan.kind != m_plan.kind)
        cancel();
    m_plan = plan;
    if (m_event)
        m_planner.modifyRegisteredPeriodicEvent(m_event, plan.days, plan.start);
    else if (m_slot)
        m_planner.modifyRegisteredPeriodicTimeSlot(m_slot, plan.days, plan.start, plan.end);
    else
        registerPlan();
}

void PlannedEntry::cancel()
{
    m_planner.unregisterPeriodicEvent(nullptr);
    m_planner.unregisterPeriodicTimeSlot(nullptr);
    m_event = nullptr;
    m_slot = nullptr;
}

void PlannedEntry::registerPlan()
{
    if (m_plan.kind == EntryPlan::Event)
        m_event = m_planner.registerPeriodicEvent(m_plan.days, m_plan.start);
    else
        m_slot = m_planner.registerPeriodicTimeSlot(m_plan.days, m_plan.start, m_plan.end);
}

void PlannedEntry::reportTrigger()
{
    emit happened(this, Triggered);
}

void PlannedEntry::reportStart()
{
    emit happened(this, Started);
}

void PlannedEntry::reportEnd()
{
    emit happened(this, Ended);
}
