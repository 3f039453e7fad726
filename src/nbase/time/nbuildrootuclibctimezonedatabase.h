#ifndef NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASE_H
#define NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASE_H

#include <nbase/nbaseglobal.h>
#include <nbase/time/ntimezoneregion.h>

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>

/**
 * The time zones of a root file system built by Buildroot with uClibc. There a time zone is a text file with a
 * POSIX TZ string, not a compiled zone file. This class combines these files with the table zone.tab, which gives
 * the location of each zone.
 *
 * The database is loaded by the constructor and then immutable, so reading it is thread-safe. References and
 * pointers that it returns stay valid until it is destroyed. It owns its regions, and they own their towns. It
 * neither reads nor sets the time zone of the system.
 *
 * Loading reads regular files only and does not block. A line of 1 MiB or more is ignored. In a damaged tree,
 * directories deeper than 32 levels below a region and entries beyond the first 20,000 of a region are ignored.
 */
class NBASE_EXPORT NBuildrootUclibcTimeZoneDatabase
{
public:
    /** The data of one zone in zone.tab. */
    struct NBASE_EXPORT TownMetadata
    {
        TownMetadata();

        QString countryCode; ///< ISO 3166 two-letter code
        float latitude;      ///< decimal degrees, north positive
        float longitude;     ///< decimal degrees, east positive
        QString comment;     ///< empty when there is none
    };

    /** The data of the version file. */
    struct NBASE_EXPORT DbMetadata
    {
        QString version; ///< the first line of the version file
        QDateTime date;  ///< the creation time of the version file, in local time
    };

    /** The directory of the time zone database, "/usr/share/zoneinfo". */
    static const QDir S_TIMEZONE_DB_DIR;
    /** The directory of the files with TZ strings; the path of each below it is the name of its zone. */
    static const QDir S_ZONE_FILES_DIR;
    /** The table of zones, tab-separated (its header comment describes it; see also tzselect(8)). */
    static const QString S_TOWNS_METADATA_FILE_PATH;
    /** The file whose first line is the version of the database, for example "2024a". */
    static const QString S_DB_VERSION_FILE_PATH;
    /** A latitude in zone.tab: degrees with sign, minutes and optional seconds. */
    static const QString S_LATITUDE_REGEXP;
    /** A longitude in zone.tab: degrees with sign, minutes and optional seconds. */
    static const QString S_LONGITUDE_REGEXP;
    /** A zone name: region and town. */
    static const QString S_TIMEZONE_NAME_REGEXP;
    /**
     * A line of zone.tab, matched as a whole. Its groups are the country code, the three of the latitude, the
     * three of the longitude, region, town and comment. This expression and the three above describe what is
     * accepted, and applications can check input with them; loading does not run them, but a parser that accepts
     * exactly the same lines.
     */
    static const QString S_TOWN_METADATA_REGEXP;

    /**
     * Loads the database. Failures are not reported: what cannot be read is left out. Without zone.tab there are
     * no regions; without a version file, version and date are null.
     */
    NBuildrootUclibcTimeZoneDatabase();
    virtual ~NBuildrootUclibcTimeZoneDatabase();

    /** The first line of the version file; null when there is none. */
    const QString& version() const { return m_version; }

    /**
     * The creation time of the version file, in local time, or the time of its last status change where the file
     * system does not record the former; null when the file cannot be opened.
     */
    const QDateTime& date() const { return m_date; }

    /** The regions by their file system name, for example "America". */
    const QMap<QString, NTimeZoneRegion*>& regions() const { return m_regions; }

    /**
     * Looks up a town by file system names, for example "America" and "Argentina/Buenos_Aires".
     * @return the town, owned by the database; null when region or town are unknown.
     */
    const NTimeZoneTown* town(const QString& regionName, const QString& townName) const;

    /** The name of the zone of a town, "region/town"; a null string when region or town are unknown. */
    QString regionAndTownToTimeZoneName(const QString& regionName, const QString& townName) const;

    /**
     * Splits the name of a zone at its first "/" into region and town; both keep their underscores. The file
     * system is checked at each call: the zone must have a file in S_ZONE_FILES_DIR, but needs no line in
     * zone.tab.
     * @return region and town; two null strings when there is no such zone. A name with an empty part, "." or ".."
     * is never a zone, because its path could leave the directory.
     */
    QPair<QString, QString> timeZoneNameToRegionAndTown(const QString& timeZoneName) const;

    /**
     * Converts degrees, minutes and seconds to decimal degrees. Only @a degrees gives the sign: less than one
     * degree south or west cannot be distinguished from north or east.
     */
    static float dmsToDecimalDegrees(int degrees, unsigned int minutes, float seconds);

    /** The display name of a file system name: underscores are replaced by blanks. */
    static QString fileSystemNameToRegionOrTownName(const QString& fileSystemName);

protected:
    /** Reads zone.tab. @return the towns by region and town; none when the table cannot be opened. */
    static QMap<QString, QMap<QString, TownMetadata>> loadTownsMetadata();

    /** Reads the version file. @return version and date; both null when the file cannot be opened. */
    static DbMetadata loadDbMetadata();

    /**
     * Reads the zone files in @a directory and below it. Symbolic links are followed, but no directory is entered
     * twice on one path. Unreadable and non-regular files are ignored.
     * @return the first line of each file, by its path below @a directory.
     */
    static QMap<QString, QString> loadDirectory(const QDir& directory);

private:
    Q_DISABLE_COPY(NBuildrootUclibcTimeZoneDatabase)

    QString m_version;
    QDateTime m_date;
    QMap<QString, NTimeZoneRegion*> m_regions;
};

#endif
