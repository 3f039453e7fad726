#include "timetable.h"

Timetable::Timetable(QObject* parent)
    : QObject(parent)
    , m_lastNumber(0)
    , m_lastId(0)
{
}

quint64 Timetable::lastNumber() const
{
    return m_lastNumber;
}

const QMap<unsigned int, PlannedEntry*>& Timetable::entries() const
{
    return m_entries;
}

const QList<Timetable::Firing>& Timetable::firings() const
{
    return m_firings;
}

PlannedEntry* Timetable::add(const EntryPlan& plan)
{
    if (m_entries.size() >= MaximumEntryCount)
        return nullptr;
    PlannedEntry* const entry = new PlannedEntry(++m_lastId, this);
    connect(entry, SIGNAL(happened(PlannedEntry*,int)), this, SLOT(record(PlannedEntry*,int)));
    m_entries.insert(entry->id(), entry);
    ++m_lastNumber;
    entry->setPlan(plan);
    return entry;
}

PlannedEntry* Timetable::change(unsigned int id, const EntryPlan& plan)
{
    PlannedEntry* const entry = m_entries.value(id);
    if (!entry)
        return nullptr;
    ++m_lastNumber;
    entry->setPlan(plan);
    return entry;
}

bool Timetable::remove(unsigned int id)
{
    PlannedEntry* const entry = m_entries.take(id);
    if (!entry)
        return false;
    ++m_lastNumber;
    entry->cancel();
    delete entry;
    return true;
}

void Timetable::record(PlannedEntry* entry, int happening)
{
    Firing firing;
    firing.number = ++m_lastNumber;
    firing.time = QDateTime::currentDateTime();
    firing.entryId = entry->id();
    firing.title = entry->plan().title;
    firing.happening = static_cast<PlannedEntry::Happening>(happening);
    m_firings.append(firing);
    if (m_firings.size() > MaximumFiringCount)
        m_firings.removeFirst();
}
