#ifndef NBASE_NTIMEZONEREGION_H
#define NBASE_NTIMEZONEREGION_H

#include <nbase/nbaseglobal.h>
#include <nbase/time/ntimezonetown.h>

#include <QtCore/QMap>
#include <QtCore/QString>

/**
 * A region of the time zone database, for example a continent, with its towns. Immutable, so reading it is
 * thread-safe. It owns its towns; the database owns the regions.
 */
class NBASE_EXPORT NTimeZoneRegion
{
public:
    /**
     * @param name the display name, for example "America".
     * @param towns the towns by their file system name, for example "Argentina/Buenos_Aires"; the region takes
     * ownership.
     */
    NTimeZoneRegion(const QString& name, const QMap<QString, NTimeZoneTown*>& towns);
    virtual ~NTimeZoneRegion();

    /** The display name. */
    const QString& name() const { return m_name; }

    /** The towns by their file system name: the part of the zone name after the region, with its underscores. */
    const QMap<QString, NTimeZoneTown*>& towns() const { return m_towns; }

private:
    Q_DISABLE_COPY(NTimeZoneRegion)

    QString m_name;
    QMap<QString, NTimeZoneTown*> m_towns;
};

#endif
