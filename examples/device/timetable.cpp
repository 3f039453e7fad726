#include "timetable.h"

namespace {

// The latest time, up to now, at which a plan begins. A slot that a start of the device or a change of the entry
// has made active in its middle began before that.
QDateTime latestBeginning(const EntryPlan& plan, const QDateTime& now)
{
    const int daysPerWeek = 7;
    for (int daysAgo = 0; daysAgo <= daysPerWeek; ++daysAgo) {
        const QDateTime beginning(now.date().addDays(-daysAgo), plan.start);
        if (beginning <= now && plan.days.contains(static_cast<Qt::DayOfWeek>(beginning.date().dayOfWeek())))
            return beginning;
    }
    return now;
}

} // namespace

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
    if (happening == PlannedEntry::Started)
        firing.time = latestBeginning(entry->plan(), firing.time);
    firing.entryId = entry->id();
    firing.title = entry->plan().title;
    firing.happening = static_cast<PlannedEntry::Happening>(happening);
    m_firings.append(firing);
    if (m_firings.size() > MaximumFiringCount)
        m_firings.removeFirst();
}
