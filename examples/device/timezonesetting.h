#ifndef DEMODEVICE_TIMEZONESETTING_H
#define DEMODEVICE_TIMEZONESETTING_H

#include <nbase/config/nucicursor.h>

#include <QtCore/QObject>
#include <QtCore/QString>

class NBuildrootUclibcTimeZoneDatabase;

/** A time zone as the configuration holds it; both texts are empty when none is stored. */
struct TimeZone
{
    QString name; ///< "Region/Town", option "zonename"
    QString code; ///< the POSIX TZ string, option "timezone"
};

/**
 * The time zone of the device: options of the first section of the type "system" in the package of the same name.
 * This process follows what is stored here (TZ, see tzset(3)); a real device would also tell its other programs,
 * for example by writing /etc/TZ.
 */
class TimeZoneSetting : public QObject
{
    Q_OBJECT

public:
    enum Result {
        Stored,
        UnknownZone, ///< the database does not have it
        NotStored    ///< the configuration cannot be read or written; it is as it was
    };

    /**
     * Follows the stored time zone, if there is one.
     * @param zones must live longer.
     * @param configurationDirectory, stagingDirectory as NUciCursor takes them; nobody else may stage changes of
     * the package in the latter.
     */
    TimeZoneSetting(
        const NBuildrootUclibcTimeZoneDatabase* zones, const QString& configurationDirectory,
        const QString& stagingDirectory);

    /** Reads the configuration. */
    TimeZone stored();

    /** Stores the zone "Region/Town" with its TZ string, and follows it from now on. */
    Result store(const QString& name);

signals:
    /** The local time of this process may have changed. */
    void changed();

private:
    Q_DISABLE_COPY(TimeZoneSetting)

    QString sectionName();
    bool write(const TimeZone& zone);
    void follow(const TimeZone& zone);

    const NBuildrootUclibcTimeZoneDatabase* m_zones;
    NUciCursor m_configuration;
};

#endif
