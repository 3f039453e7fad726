#ifndef NBASE_NTIMEZONETOWN_H
#define NBASE_NTIMEZONETOWN_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QString>

/**
 * A time zone, named after a town in it. Immutable, so reading it is thread-safe. Towns are owned by their
 * NTimeZoneRegion.
 */
class NBASE_EXPORT NTimeZoneTown
{
public:
    /**
     * @param name the display name, for example "Argentina/Buenos Aires".
     * @param timezoneCode the POSIX TZ string, for example "CET-1CEST,M3.5.0,M10.5.0/3" (see the TZ variable in
     * POSIX.1, Base Definitions, chapter 8).
     * @param countryCode the ISO 3166 two-letter code.
     * @param latitude decimal degrees, north positive.
     * @param longitude decimal degrees, east positive.
     * @param comment what distinguishes this zone from others of its country; may be empty.
     */
    NTimeZoneTown(
        const QString& name, const QString& timezoneCode, const QString& countryCode, float latitude,
        float longitude, const QString& comment);
    virtual ~NTimeZoneTown();

    /** The display name. */
    const QString& name() const { return m_name; }

    /** The POSIX TZ string, in the form that the C library expects. */
    const QString& timezoneCode() const { return m_timezoneCode; }

    /** The ISO 3166 two-letter code of the country. */
    const QString& countryCode() const { return m_countryCode; }

    /** Decimal degrees, north positive. */
    float latitude() const { return m_latitude; }

    /** Decimal degrees, east positive. */
    float longitude() const { return m_longitude; }

    /** What distinguishes the zone from others of its country; may be empty. */
    const QString& comment() const { return m_comment; }

private:
    QString m_name;
    QString m_timezoneCode;
    QString m_countryCode;
    float m_latitude;
    float m_longitude;
    QString m_comment;
};

#endif
