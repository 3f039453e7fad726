#ifndef DEMODEVICE_TIMETABLE_H
#define DEMODEVICE_TIMETABLE_H

#include "plannedentry.h"

#include <QtCore/QDateTime>
#include <QtCore/QList>
#include <QtCore/QMap>

/**
 * The weekly timetable of the device: the entries that users have made and their latest happenings. It is kept in
 * memory; a real device would store the entries in its configuration.
 *
 * Every change of an entry and every happening gets the next number, so that a page can ask for what is new.
 */
class Timetable : public QObject
{
    Q_OBJECT

public:
    enum Limit {
        MaximumEntryCount = 100,
        MaximumFiringCount = 100 ///< the oldest are dropped
    };

    /**
     * Something that has happened; the title is that of the entry at that time. The time of a start is when the
     * slot began, which is earlier when it was already active at the start of the device or at a change of its
     * entry.
     */
    struct Firing
    {
        quint64 number;
        QDateTime time;
        unsigned int entryId;
        QString title;
        PlannedEntry::Happening happening;
    };

    explicit Timetable(QObject* parent = nullptr);

    /** The number of the latest change. */
    quint64 lastNumber() const;

    /** The entries by their ids. */
    const QMap<unsigned int, PlannedEntry*>& entries() const;

    /** The latest happenings, the oldest first. */
    const QList<Firing>& firings() const;

    /** @return the new entry; null when there are MaximumEntryCount already. */
    PlannedEntry* add(const EntryPlan& plan);

    /** @return the changed entry; null when there is none with this @a id. */
    PlannedEntry* change(unsigned int id, const EntryPlan& plan);

    /** Removes an entry; an active slot ends. @return whether there was one with this @a id. */
    bool remove(unsigned int id);

private slots:
    void record(PlannedEntry* entry, int happening);

private:
    Q_DISABLE_COPY(Timetable)

    quint64 m_lastNumber;
    unsigned int m_lastId;
    QMap<unsigned int, PlannedEntry*> m_entries;
    QList<Firing> m_firings;
};

#endif
