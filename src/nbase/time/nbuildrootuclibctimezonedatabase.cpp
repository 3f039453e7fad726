#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <nbase/time/nzonetabline_p.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nlinereader_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QStringList>

#include <dirent.h>
#include <fcntl.h>
#include <math.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
// C libraries older than statx(2) do not declare it; the kernel's header does.
#ifndef STATX_BTIME
#include <linux/stat.h>
#endif

namespace {

// Symbolic links can create an excessive number of paths from a few directories. Zone names have three levels at
// most, and the whole database has about 600 files.
const int MaximumDepth = 32;
const int MaximumEntries = 20000;

// O_NONBLOCK, because a FIFO that has just replaced a file would otherwise block the caller.
NFileDescriptor openForReading(int directory, const char* name, int flags = 0)
{
    return NSystem::openAt(directory, name, O_RDONLY | O_NOCTTY | O_NONBLOCK | flags);
}

NFileDescriptor openDirectory(const QDir& directory)
{
    return openForReading(AT_FDCWD, QFile::encodeName(directory.path()).constData(), O_DIRECTORY);
}

NFileDescriptor openRegularFile(const QString& path)
{
    return NSystem::openRegularFile(QFile::encodeName(path).constData());
}

enum EntryKind {
    OtherEntry,
    RegularFile,
    SubDirectory,
};

EntryKind kindOf(int directory, const char* name)
{
    struct stat status;
    if (::fstatat(directory, name, &status, 0) != 0)
        return OtherEntry;
    if (S_ISREG(status.st_mode))
        return RegularFile;
    return S_ISDIR(status.st_mode) ? SubDirectory : OtherEntry;
}

// Most file systems report the kind together with the name, which saves a system call.
EntryKind kindOf(int directory, const struct dirent& entry)
{
    switch (entry.d_type) {
    case DT_REG:
        return RegularFile;
    case DT_DIR:
        return SubDirectory;
    case DT_LNK:
    case DT_UNKNOWN:
        return kindOf(directory, entry.d_name);
    default:
        return OtherEntry;
    }
}

class Directory
{
public:
    explicit Directory(NFileDescriptor descriptor)
        : m_stream(descriptor.isOpen() ? ::fdopendir(descriptor.number()) : nullptr)
    {
        if (m_stream)
            descriptor.release();
    }
    ~Directory()
    {
        if (m_stream)
            ::closedir(m_stream);
    }

    bool isOpen() const { return m_stream != nullptr; }
    int descriptor() const { return ::dirfd(m_stream); }

    // The next entry that is not hidden (nor "." or ".."); null after the last one.
    const struct dirent* next()
    {
        const struct dirent* entry;
        do {
            entry = ::readdir(m_stream);
        } while (entry && entry->d_name[0] == '.');
        return entry;
    }

private:
    Q_DISABLE_COPY(Directory)

    DIR* const m_stream;
};

// Reads the first line of an open file. Returns false when it cannot be read or is too long. An empty file has an
// empty first line.
bool readFirstLine(NLineReader* reader, const NFileDescriptor& file, QString* text)
{
    NLineReader::Line line;
    reader->start(file.number());
    if (!reader->next(&line)) {
        *text = latin1("");
        return !reader->hasFailed();
    }
    *text = latin1(QByteArray(line.bytes, line.size).trimmed().constData());
    return line.isTextComplete();
}

class ZoneFilesLoader
{
public:
    ZoneFilesLoader()
        : m_entryCount(0)
    {
    }

    QMap<QString, QString> load(const QDir& directory)
    {
        loadDirectory(openDirectory(directory), QString());
        return m_zones;
    }

private:
    typedef QPair<dev_t, ino_t> Identity;

    // Files come before directories, so that excessive directories cannot displace them.
    void loadDirectory(NFileDescriptor descriptor, const QString& prefix)
    {
        Directory directory(std::move(descriptor));
        if (!directory.isOpen() || !enter(directory))
            return;
        QList<QByteArray> subDirectories;
        while (const struct dirent* entry = nextEntry(&directory)) {
            const EntryKind kind = kindOf(directory.descriptor(), *entry);
            if (kind == RegularFile)
                loadFile(directory.descriptor(), entry->d_name, prefix);
            else if (kind == SubDirectory)
                subDirectories.append(entry->d_name);
        }
        for (const QByteArray& name : subDirectories) {
            loadDirectory(
                openForReading(directory.descriptor(), name.constData(), O_DIRECTORY),
                prefix + QFile::decodeName(name) + QLatin1Char('/'));
        }
        m_path.removeLast();
    }

    bool enter(const Directory& directory)
    {
        struct stat status;
        if (m_path.size() > MaximumDepth || ::fstat(directory.descriptor(), &status) != 0)
            return false;
        const Identity identity(status.st_dev, status.st_ino);
        if (m_path.contains(identity))
            return false;
        m_path.append(identity);
        return true;
    }

    const struct dirent* nextEntry(Directory* directory)
    {
        const struct dirent* const entry = m_entryCount < MaximumEntries ? directory->next() : nullptr;
        if (entry)
            ++m_entryCount;
        return entry;
    }

    void loadFile(int directory, const char* name, const QString& prefix)
    {
        const NFileDescriptor file = openForReading(directory, name);
        QString code;
        if (file.isOpen() && readFirstLine(&m_reader, file, &code))
            m_zones.insert(prefix + QFile::decodeName(QByteArray(name)), code);
    }

    NLineReader m_reader;
    QMap<QString, QString> m_zones;
    QList<Identity> m_path; // the directories from the first to the current one
    int m_entryCount;
};

QStringList subDirectoryNames(const QDir& parent)
{
    QStringList names;
    Directory directory(openDirectory(parent));
    if (!directory.isOpen())
        return names;
    while (const struct dirent* entry = directory.next()) {
        if (kindOf(directory.descriptor(), *entry) == SubDirectory)
            names.append(QFile::decodeName(QByteArray(entry->d_name)));
    }
    return names;
}

QDateTime dateTimeFrom(qint64 seconds, qint64 nanoseconds)
{
    return QDateTime::fromMSecsSinceEpoch(seconds * 1000 + nanoseconds / 1000000);
}

// statx(2) is called by number, because uClibc has no function for it. The kernel, a sandbox or the file system
// may not support it.
QDateTime creationTime(int file)
{
#if defined(SYS_statx) && defined(STATX_BTIME)
    struct statx extended;
    if (::syscall(SYS_statx, file, "", AT_EMPTY_PATH, STATX_BTIME, &extended) == 0 &&
        (extended.stx_mask & STATX_BTIME))
        return dateTimeFrom(extended.stx_btime.tv_sec, extended.stx_btime.tv_nsec);
#endif
    struct stat status;
    if (::fstat(file, &status) != 0)
        return QDateTime();
    return dateTimeFrom(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

float decimalDegrees(const NZoneTabLine::Coordinate& coordinate)
{
    return NBuildrootUclibcTimeZoneDatabase::dmsToDecimalDegrees(
        coordinate.degrees, coordinate.minutes, coordinate.seconds);
}

typedef QMap<QString, NBuildrootUclibcTimeZoneDatabase::TownMetadata> TownsMetadata;

// The towns of the zone files that zone.tab lists.
QMap<QString, NTimeZoneTown*> makeTowns(const QMap<QString, QString>& zones, const TownsMetadata& townsMetadata)
{
    QMap<QString, NTimeZoneTown*> towns;
    for (QMap<QString, QString>::const_iterator zone = zones.constBegin(); zone != zones.constEnd(); ++zone) {
        const TownsMetadata::const_iterator metadata = townsMetadata.constFind(zone.key());
        if (metadata == townsMetadata.constEnd())
            continue;
        const QString name = NBuildrootUclibcTimeZoneDatabase::fileSystemNameToRegionOrTownName(zone.key());
        towns.insert(
            zone.key(), new NTimeZoneTown(
                            name, zone.value(), metadata->countryCode, metadata->latitude, metadata->longitude,
                            metadata->comment));
    }
    return towns;
}

// Whether a path stays below the directory it starts in.
bool staysInside(const QString& path)
{
    if (path.contains(QChar(0)))
        return false;
    for (const QString& name : path.split(QLatin1Char('/'))) {
        if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
            return false;
    }
    return true;
}

} // namespace

const QDir NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_DB_DIR(latin1("/usr/share/zoneinfo"));
const QDir NBuildrootUclibcTimeZoneDatabase::S_ZONE_FILES_DIR(S_TIMEZONE_DB_DIR.filePath(latin1("uclibc")));
const QString NBuildrootUclibcTimeZoneDatabase::S_TOWNS_METADATA_FILE_PATH =
    S_TIMEZONE_DB_DIR.filePath(latin1("zone.tab"));
const QString NBuildrootUclibcTimeZoneDatabase::S_DB_VERSION_FILE_PATH =
    S_TIMEZONE_DB_DIR.filePath(latin1("version"));
const QString NBuildrootUclibcTimeZoneDatabase::S_LATITUDE_REGEXP =
    latin1("([+-]{1}\\d{2})(\\d{2})(\\d{2}(?:,\\d{2})?)?");
const QString NBuildrootUclibcTimeZoneDatabase::S_LONGITUDE_REGEXP =
    latin1("([+-]{1}\\d{3})(\\d{2})(\\d{2}(?:,\\d{2})?)?");
const QString NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_NAME_REGEXP =
    latin1("([A-Za-z\\-_]+)/([A-Za-z\\-_/]+)");
const QString NBuildrootUclibcTimeZoneDatabase::S_TOWN_METADATA_REGEXP =
    latin1("([A-Z]{2})\\t") + S_LATITUDE_REGEXP + S_LONGITUDE_REGEXP + latin1("\\t") + S_TIMEZONE_NAME_REGEXP +
    latin1("(?:\\t(.*))?");

NBuildrootUclibcTimeZoneDatabase::TownMetadata::TownMetadata()
    : latitude(0)
    , longitude(0)
{
}

NBuildrootUclibcTimeZoneDatabase::NBuildrootUclibcTimeZoneDatabase()
{
    const QMap<QString, TownsMetadata> townsMetadata = loadTownsMetadata();
    const DbMetadata dbMetadata = loadDbMetadata();
    m_version = dbMetadata.version;
    m_date = dbMetadata.date;

    for (const QString& regionName : subDirectoryNames(S_ZONE_FILES_DIR)) {
        const QMap<QString, TownsMetadata>::const_iterator region = townsMetadata.constFind(regionName);
        if (region == townsMetadata.constEnd())
            continue;
        const QMap<QString, QString> zones = loadDirectory(QDir(S_ZONE_FILES_DIR.filePath(regionName)));
        m_regions.insert(
            regionName,
            new NTimeZoneRegion(fileSystemNameToRegionOrTownName(regionName), makeTowns(zones, *region)));
    }
}

NBuildrootUclibcTimeZoneDatabase::~NBuildrootUclibcTimeZoneDatabase()
{
    for (const QString& key : m_regions.keys())
        delete m_regions.take(key);
}

const NTimeZoneTown*
NBuildrootUclibcTimeZoneDatabase::town(const QString& regionName, const QString& townName) const
{
    const NTimeZoneRegion* const region = m_regions.value(regionName);
    return region ? region->towns().value(townName) : nullptr;
}

QString NBuildrootUclibcTimeZoneDatabase::regionAndTownToTimeZoneName(
    const QString& regionName, const QString& townName) const
{
    return town(regionName, townName) ? regionName + QLatin1Char('/') + townName : QString();
}

QPair<QString, QString>
NBuildrootUclibcTimeZoneDatabase::timeZoneNameToRegionAndTown(const QString& timeZoneName) const
{
    const int separator = timeZoneName.indexOf(QLatin1Char('/'));
    if (separator < 0 || !staysInside(timeZoneName))
        return QPair<QString, QString>();
    const QByteArray path = QFile::encodeName(S_ZONE_FILES_DIR.filePath(timeZoneName));
    if (kindOf(AT_FDCWD, path.constData()) != RegularFile)
        return QPair<QString, QString>();
    return qMakePair(timeZoneName.left(separator), timeZoneName.mid(separator + 1));
}

float NBuildrootUclibcTimeZoneDatabase::dmsToDecimalDegrees(int degrees, unsigned int minutes, float seconds)
{
    const float decimalMinutes = float(minutes) + seconds / 60.0f;
    const float absolute = ::fabsf(float(degrees)) + decimalMinutes / 60.0f;
    return degrees < 0 ? -absolute : absolute;
}

QString NBuildrootUclibcTimeZoneDatabase::fileSystemNameToRegionOrTownName(const QString& fileSystemName)
{
    QString name = fileSystemName;
    return name.replace(QLatin1Char('_'), QLatin1Char(' '), Qt::CaseSensitive);
}

QMap<QString, QMap<QString, NBuildrootUclibcTimeZoneDatabase::TownMetadata>>
NBuildrootUclibcTimeZoneDatabase::loadTownsMetadata()
{
    QMap<QString, QMap<QString, TownMetadata>> towns;
    const NFileDescriptor file = openRegularFile(S_TOWNS_METADATA_FILE_PATH);
    if (!file.isOpen())
        return towns;
    NLineReader reader;
    NLineReader::Line line;
    NZoneTabLine zone;
    reader.start(file.number());
    while (reader.next(&line)) {
        const QString text = line.textUpToNul().trimmed();
        if (!line.isTextComplete() || text.startsWith(QLatin1Char('#')) || !zone.parse(text))
            continue;
        TownMetadata& metadata = towns[zone.region][zone.town];
        metadata.countryCode = zone.countryCode;
        metadata.latitude = decimalDegrees(zone.latitude);
        metadata.longitude = decimalDegrees(zone.longitude);
        metadata.comment = zone.comment;
    }
    return towns;
}

NBuildrootUclibcTimeZoneDatabase::DbMetadata NBuildrootUclibcTimeZoneDatabase::loadDbMetadata()
{
    DbMetadata metadata;
    const NFileDescriptor file = openRegularFile(S_DB_VERSION_FILE_PATH);
    if (!file.isOpen())
        return metadata;
    NLineReader reader;
    if (!readFirstLine(&reader, file, &metadata.version))
        metadata.version = latin1("");
    metadata.date = creationTime(file.number());
    return metadata;
}

QMap<QString, QString> NBuildrootUclibcTimeZoneDatabase::loadDirectory(const QDir& directory)
{
    return ZoneFilesLoader().load(directory);
}
