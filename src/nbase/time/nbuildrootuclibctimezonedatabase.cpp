#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <nbase/time/nzonetabline_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QStringList>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
// A C library older than statx(2) leaves its declarations to the kernel's own header.
#ifndef STATX_BTIME
#include <linux/stat.h>
#endif

namespace {

// Longer than any line of a zone table and any TZ string by far; nothing longer is held in memory.
const int MaximumLineLength = 1024 * 1024;
const int FirstBufferSize = 16 * 1024;

// Links can make more paths out of a few directories than anybody has time to read. Zone names have three levels
// at the most, and the whole database has about 600 files.
const int MaximumDepth = 32;
const int MaximumEntries = 20000;

class Descriptor
{
public:
    explicit Descriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    ~Descriptor()
    {
        if (isOpen())
            ::close(m_descriptor);
    }

    bool isOpen() const { return m_descriptor >= 0; }
    int number() const { return m_descriptor; }

private:
    Q_DISABLE_COPY(Descriptor)

    const int m_descriptor;
};

// Without O_NONBLOCK, a FIFO that has just taken the place of a file would hold the caller up.
int openForReading(int directory, const char* name, int flags = 0)
{
    int descriptor;
    do {
        descriptor = ::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
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

// Most file systems tell the kind with the name, which saves asking for it.
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

// Opening a device can do more than reading it, so the kind is looked at before.
int openRegularFile(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    return kindOf(AT_FDCWD, name.constData()) == RegularFile ? openForReading(AT_FDCWD, name.constData()) : -1;
}

class Directory
{
public:
    explicit Directory(int descriptor)
        : m_stream(descriptor >= 0 ? ::fdopendir(descriptor) : nullptr)
    {
        if (!m_stream && descriptor >= 0)
            ::close(descriptor);
    }
    ~Directory()
    {
        if (m_stream)
            ::closedir(m_stream);
    }

    bool isOpen() const { return m_stream != nullptr; }
    int descriptor() const { return ::dirfd(m_stream); }

    // The next entry that is not hidden, "." and ".." among those; null after the last one.
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

struct Line
{
    // Text ends at the first NUL byte, so what follows one need not be known.
    bool isUsable() const { return isComplete || bytes.contains('\0'); }

    QByteArray bytes; ///< without the line feed; valid until the next line is read
    bool isComplete;  ///< whether the bytes are the whole line
};

QString textUpToNul(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.constData(), int(qstrnlen(bytes.constData(), uint(bytes.size()))));
}

// Reads files line by line, one after the other with the same buffer.
class LineReader
{
public:
    LineReader()
        : m_file(-1)
    {
        m_buffer.resize(FirstBufferSize);
    }

    void start(int file)
    {
        m_file = file;
        m_begin = 0;
        m_end = 0;
        m_isInsideLine = false;
        m_hasFailed = false;
    }

    // Whether a read has failed; the end of the file is no failure.
    bool hasFailed() const { return m_hasFailed; }

    // Gives the next line; false at the end of the file.
    bool next(Line* line)
    {
        while (m_isInsideLine && take(line)) {
        }
        return take(line);
    }

private:
    bool take(Line* line)
    {
        int length = 0;
        forever {
            const char* begin = m_buffer.constData() + m_begin;
            const void* lineFeed = ::memchr(begin + length, '\n', size_t(m_end - m_begin - length));
            if (lineFeed)
                return give(line, int(static_cast<const char*>(lineFeed) - begin), 1, false);
            length = m_end - m_begin;
            if (length == MaximumLineLength)
                return give(line, length, 0, true);
            if (!fill())
                return length > 0 && give(line, length, 0, false);
        }
    }

    bool give(Line* line, int length, int separator, bool isInsideLine)
    {
        line->bytes = QByteArray::fromRawData(m_buffer.constData() + m_begin, length);
        line->isComplete = !isInsideLine;
        m_begin += length + separator;
        m_isInsideLine = isInsideLine;
        return true;
    }

    bool fill()
    {
        makeRoom();
        ssize_t count;
        do {
            count = ::read(m_file, m_buffer.data() + m_end, size_t(m_buffer.size() - m_end));
        } while (count < 0 && errno == EINTR);
        m_hasFailed = count < 0;
        if (count <= 0)
            return false;
        m_end += int(count);
        return true;
    }

    void makeRoom()
    {
        if (m_begin > 0) {
            ::memmove(m_buffer.data(), m_buffer.constData() + m_begin, size_t(m_end - m_begin));
            m_end -= m_begin;
            m_begin = 0;
        }
        if (m_end == m_buffer.size())
            m_buffer.resize(qMin(2 * m_buffer.size(), MaximumLineLength));
    }

    int m_file;
    QByteArray m_buffer;
    int m_begin;
    int m_end;
    bool m_isInsideLine; // the bytes before m_begin belong to the same line as those after it
    bool m_hasFailed;
};

// The first line of an open file; false when it cannot be read or is too long. An empty file has an empty first
// line.
bool readFirstLine(LineReader* reader, int file, QString* text)
{
    Line line;
    reader->start(file);
    if (!reader->next(&line)) {
        *text = QString::fromLatin1("");
        return !reader->hasFailed();
    }
    *text = textUpToNul(line.bytes.trimmed());
    return line.isUsable() && !reader->hasFailed();
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
        const QByteArray path = QFile::encodeName(directory.path());
        loadDirectory(openForReading(AT_FDCWD, path.constData(), O_DIRECTORY), QString());
        return m_zones;
    }

private:
    typedef QPair<dev_t, ino_t> Identity;

    // Files come before directories, so that a tangle of directories cannot displace them.
    void loadDirectory(int descriptor, const QString& prefix)
    {
        Directory directory(descriptor);
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
        if (m_entryCount == MaximumEntries)
            return nullptr;
        ++m_entryCount;
        return directory->next();
    }

    void loadFile(int directory, const char* name, const QString& prefix)
    {
        const Descriptor file(openForReading(directory, name));
        QString code;
        if (file.isOpen() && readFirstLine(&m_reader, file.number(), &code))
            m_zones.insert(prefix + QFile::decodeName(QByteArray(name)), code);
    }

    LineReader m_reader;
    QMap<QString, QString> m_zones;
    QList<Identity> m_path; // the directories from the first one to the present one
    int m_entryCount;
};

QStringList subDirectoryNames(const QDir& parent)
{
    QStringList names;
    const QByteArray path = QFile::encodeName(parent.path());
    Directory directory(openForReading(AT_FDCWD, path.constData(), O_DIRECTORY));
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

// The time of creation is asked for by number, because uClibc has no function for it. The kernel, a sandbox and
// the file system may each refuse it.
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

// Towns of the zone files that zone.tab knows.
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

// Whether a path leads down from the folder that it starts in.
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

const QDir NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_DB_DIR(QString::fromLatin1("/usr/share/zoneinfo"));
const QDir
    NBuildrootUclibcTimeZoneDatabase::S_ZONE_FILES_DIR(S_TIMEZONE_DB_DIR.filePath(QString::fromLatin1("uclibc")));
const QString NBuildrootUclibcTimeZoneDatabase::S_TOWNS_METADATA_FILE_PATH =
    S_TIMEZONE_DB_DIR.filePath(QString::fromLatin1("zone.tab"));
const QString NBuildrootUclibcTimeZoneDatabase::S_DB_VERSION_FILE_PATH =
    S_TIMEZONE_DB_DIR.filePath(QString::fromLatin1("version"));
const QString NBuildrootUclibcTimeZoneDatabase::S_LATITUDE_REGEXP =
    QString::fromLatin1("([+-]{1}\\d{2})(\\d{2})(\\d{2}(?:,\\d{2})?)?");
const QString NBuildrootUclibcTimeZoneDatabase::S_LONGITUDE_REGEXP =
    QString::fromLatin1("([+-]{1}\\d{3})(\\d{2})(\\d{2}(?:,\\d{2})?)?");
const QString NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_NAME_REGEXP =
    QString::fromLatin1("([A-Za-z\\-_]+)/([A-Za-z\\-_/]+)");
const QString NBuildrootUclibcTimeZoneDatabase::S_TOWN_METADATA_REGEXP =
    QString::fromLatin1("([A-Z]{2})\\t") + S_LATITUDE_REGEXP + S_LONGITUDE_REGEXP + QString::fromLatin1("\\t") +
    S_TIMEZONE_NAME_REGEXP + QString::fromLatin1("(?:\\t(.*))?");

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
    const Descriptor file(openRegularFile(S_TOWNS_METADATA_FILE_PATH));
    if (!file.isOpen())
        return towns;
    LineReader reader;
    Line line;
    NZoneTabLine zone;
    reader.start(file.number());
    while (reader.next(&line)) {
        const QString text = textUpToNul(line.bytes).trimmed();
        if (!line.isUsable() || text.startsWith(QLatin1Char('#')) || !zone.parse(text))
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
    const Descriptor file(openRegularFile(S_DB_VERSION_FILE_PATH));
    if (!file.isOpen())
        return metadata;
    LineReader reader;
    if (!readFirstLine(&reader, file.number(), &metadata.version))
        metadata.version = QString::fromLatin1("");
    metadata.date = creationTime(file.number());
    return metadata;
}

QMap<QString, QString> NBuildrootUclibcTimeZoneDatabase::loadDirectory(const QDir& directory)
{
    return ZoneFilesLoader().load(directory);
}
