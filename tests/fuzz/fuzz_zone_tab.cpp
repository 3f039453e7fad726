// Loads the time zone database with the input as its table of zones, and compares it with the matches of the
// documented expression in the same lines.

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include "support/nprivatenamespace.h"

#include <QtCore/QFile>
#include <QtCore/QRegExp>
#include <QtCore/QStringList>

#include <stdlib.h>

namespace {

typedef NBuildrootUclibcTimeZoneDatabase Database;

const char* const ZoneNames[] = {
    "Europe/Paris", "Europe/x", "America/New_York", "America/Argentina/Buenos_Aires", "A/a", "A/b/c",
};

// Longer inputs only take longer: no syntax extends over several lines.
const size_t MaximumSize = 4096;

void require(bool condition)
{
    if (!condition)
        abort();
}

void writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    require(QDir().mkpath(QFileInfo(path).path()));
    require(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

// The description of each town in one text, by zone name. The last line of a town counts.
QMap<QString, QString> expectedTowns(const QByteArray& table)
{
    static const QRegExp pattern(Database::S_TOWN_METADATA_REGEXP);
    QRegExp expression(pattern);
    QMap<QString, QString> towns;
    for (const QByteArray& line : table.split('\n')) {
        const QString text = QString::fromLatin1(line.constData()).trimmed();
        if (text.startsWith(QLatin1Char('#')) || !expression.exactMatch(text))
            continue;
        const float latitude = Database::dmsToDecimalDegrees(
            expression.cap(2).toInt(), expression.cap(3).toUInt(), expression.cap(4).toFloat());
        const float longitude = Database::dmsToDecimalDegrees(
            expression.cap(5).toInt(), expression.cap(6).toUInt(), expression.cap(7).toFloat());
        towns.insert(
            expression.cap(8) + QLatin1Char('/') + expression.cap(9),
            (QStringList() << expression.cap(1) << QString::number(latitude) << QString::number(longitude)
                           << expression.cap(10))
                .join(QString::fromLatin1("|")));
    }
    return towns;
}

QString description(const NTimeZoneTown* town)
{
    return (QStringList() << town->countryCode() << QString::number(town->latitude())
                          << QString::number(town->longitude()) << town->comment())
        .join(QString::fromLatin1("|"));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    NPrivateNamespace::mountEmptyDirectory(Database::S_TIMEZONE_DB_DIR.path());
    for (size_t index = 0; index < sizeof(ZoneNames) / sizeof(ZoneNames[0]); ++index)
        writeFile(Database::S_ZONE_FILES_DIR.filePath(QString::fromLatin1(ZoneNames[index])), "CET-1CEST\n");
    writeFile(Database::S_DB_VERSION_FILE_PATH, "2024a\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (size > MaximumSize)
        return 0;
    const QByteArray table(reinterpret_cast<const char*>(data), int(size));
    writeFile(Database::S_TOWNS_METADATA_FILE_PATH, table);
    const Database database;

    const QMap<QString, QString> expected = expectedTowns(table);
    int expectedCount = 0;
    for (size_t index = 0; index < sizeof(ZoneNames) / sizeof(ZoneNames[0]); ++index) {
        const QString name = QString::fromLatin1(ZoneNames[index]);
        const QPair<QString, QString> parts = database.timeZoneNameToRegionAndTown(name);
        const NTimeZoneTown* const town = database.town(parts.first, parts.second);
        require((town != nullptr) == expected.contains(name));
        expectedCount += town != nullptr;
        require(!town || description(town) == expected.value(name));
    }
    int count = 0;
    for (const NTimeZoneRegion* region : database.regions())
        count += region->towns().size();
    require(count == expectedCount);
    return 0;
}
