#include "plannedentry.h"

PlannedEntry::PlannedEntry(unsigned int id, QObject* parent)
    : QObject(parent)
    , m_id(id)
    , m_event(nullptr)
    , m_slot(nullptr)
{
    connect(
        &m_planner, SIGNAL(periodicEventTriggered(const NEventPlanner::NPeriodicEvent*)), this,
                           SLOT(tellTrigger()));
    connect(
        &m_planner, SIGNAL(periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot*)), this,
                           SLOT(tellStart()));
    connect(
        &m_planner, SIGNAL(periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot*)), this, SLOT(tellEnd()));
}

PlannedEntry::~PlannedEntry()
{
    // The planner ends a slot that is active when it is deleted, which is too late for this object.
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
    // What ends because it is no slot any more ends with the title it had.
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

void PlannedEntry::tellTrigger()
{
    emit happened(this, Triggered);
}

void PlannedEntry::tellStart()
{
    emit happened(this, Started);
}

void PlannedEntry::tellEnd()
{
    emit happened(this, Ended);
}
