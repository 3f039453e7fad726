#ifndef NBASE_NTIMEZONEREGION_H
#define NBASE_NTIMEZONEREGION_H

#include <nbase/nbaseglobal.h>
#include <nbase/time/ntimezonetown.h>

#include <QtCore/QMap>
#include <QtCore/QString>

/**
 * A part of the world with its towns. A region never changes; reading it is thread-safe. It owns its towns and
 * deletes them with itself; regions belong to the time zone database.
 */
class NBASE_EXPORT NTimeZoneRegion
{
public:
    /**
     * @param name the name to show to people, for example "America".
     * @param towns the towns by their file system name, for example "Argentina/Buenos_Aires"; the region becomes
     * their owner.
     */
    NTimeZoneRegion(const QString& name, const QMap<QString, NTimeZoneTown*>& towns);
    virtual ~NTimeZoneRegion();

    /** The name to show to people. */
    const QString& name() const { return m_name; }

    /** The towns by their file system name: the part of the zone name after the region, underscores kept. */
    const QMap<QString, NTimeZoneTown*>& towns() const { return m_towns; }

private:
    Q_DISABLE_COPY(NTimeZoneRegion)

    QString m_name;
    QMap<QString, NTimeZoneTown*> m_towns;
};

#endif
