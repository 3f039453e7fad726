#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <float.h>
#include <limits.h>
#include <math.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

typedef NBuildrootUclibcTimeZoneDatabase Database;

const char DatabaseFolder[] = "/usr/share/zoneinfo";

QString databasePath(const QString& name)
{
    return latin1(DatabaseFolder) + QLatin1Char('/') + name;
}

QByteArray databasePath(const char* name)
{
    return QByteArray(DatabaseFolder) + '/' + name;
}

void writeFile(const char* name, const QByteArray& content)
{
    const QString path = databasePath(latin1(name));
    QVERIFY(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

void makeDirectory(const char* name)
{
    QVERIFY(QDir().mkpath(databasePath(latin1(name))));
}

void makeLink(const char* destination, const char* name)
{
    QCOMPARE(::symlink(destination, databasePath(name).constData()), 0);
}

QString timezoneCode(const Database& database, const char* region, const char* town)
{
    const NTimeZoneTown* const found = database.town(latin1(region), latin1(town));
    return found ? found->timezoneCode() : latin1("(no town)");
}

QString regionNames(const Database& database)
{
    return QStringList(database.regions().keys()).join(latin1(" "));
}

QString townNames(const Database& database, const char* region)
{
    const NTimeZoneRegion* const found = database.regions().value(latin1(region));
    return found ? QStringList(found->towns().keys()).join(latin1(" ")) : latin1("(no region)");
}

int openDescriptors()
{
    return QDir(latin1("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

struct stat statusOf(const char* name)
{
    struct stat status;
    if (::stat(databasePath(name).constData(), &status) != 0)
        qFatal("no status of %s", name);
    return status;
}

// Gives access to the loaders.
class OpenDatabase : public Database
{
public:
    using Database::loadDbMetadata;
    using Database::loadDirectory;
    using Database::loadTownsMetadata;
};

// A processor that calculates with a higher precision than float, such as the x87, rounds once at the end.
bool isSame(float one, float other)
{
    return FLT_EVAL_METHOD == 0 ? one == other : qAbs(one - other) <= FLT_EPSILON * qAbs(other);
}

} // namespace

class tst_NBuildrootUclibcTimeZoneDatabase : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void constantsAreFixed();
    void everyZoneOfThisSystemAgreesWithItsData();

    void degreesMinutesAndSecondsAreConvertedToDecimal_data();
    void degreesMinutesAndSecondsAreConvertedToDecimal();
    void underscoresBecomeBlanks();

    void coordinatesOfATown_data();
    void coordinatesOfATown();
    void commentOfATown_data();
    void commentOfATown();
    void townOfAThreeLevelZoneContainsASlash();
    void tableLinesAreParsed_data();
    void tableLinesAreParsed();
    void lastOfSeveralLinesForATownCounts();
    void tooLongTableLineIsIgnored();
    void missingTableGivesNoRegions();
    void nonRegularTableGivesNoRegions_data();
    void nonRegularTableGivesNoRegions();

    void directoryMissingInTheTableIsNotARegion();
    void regionWithoutADirectoryIsIgnored();
    void regionWithoutAMatchingFileHasNoTowns();
    void fileIsNotARegion();
    void linkToADirectoryIsARegion();
    void regionsHaveDisplayNames();
    void fileMissingInTheTableIsNotATown();
    void directoryIsNotATown();

    void firstLineOfAZoneFileIsItsCode_data();
    void firstLineOfAZoneFileIsItsCode();
    void hugeFirstLineIsIgnored();
    void unreadableFileIsIgnored_data();
    void unreadableFileIsIgnored();
    void fileWithoutPermissionIsIgnored();
    void directoryWithoutPermissionIsIgnored();
    void linksToFilesAndDirectoriesAreFollowed();
    void noDirectoryIsEnteredTwiceOnOnePath();
    void directoriesThatLinkToEachOtherAreLimited();
    void endlessDirectoriesAreLimited();
    void onlyEntriesCountForTheLimit();

    void versionIsTheFirstLineOfItsFile_data();
    void versionIsTheFirstLineOfItsFile();
    void versionAndDateAreNullWithoutAVersionFile();
    void versionAndDateAreNullForANonRegularVersionFile();
    void dateIsTheCreationTimeOfTheVersionFile();
    void dateIsTheLastChangeWithoutACreationTime();

    void townsAreLookedUp();
    void zoneNamesAreComposedForKnownTownsOnly();
    void zoneNamesAreSplitIfAFileExists_data();
    void zoneNamesAreSplitIfAFileExists();

    void newDatabaseReflectsChangedFiles();
    void databaseOutlivesItsFiles();
    void noDescriptorLeaks();
    void loadersReturnTheContentOfTheFiles();

private:
    void writeTable(const QByteArray& lines) { writeFile("zone.tab", lines); }

    NTemporaryDirectory* m_systemZones;
};

void tst_NBuildrootUclibcTimeZoneDatabase::initTestCase()
{
    m_systemZones = new NTemporaryDirectory;
    QCOMPARE(QProcess::execute(latin1(NBASE_MAKE_ZONES), QStringList(m_systemZones->path())), 0);
}

void tst_NBuildrootUclibcTimeZoneDatabase::cleanupTestCase()
{
    delete m_systemZones;
}

// A small database for the tests to change, mounted in place of the system's.
void tst_NBuildrootUclibcTimeZoneDatabase::init()
{
    NPrivateNamespace::mountEmptyDirectory(latin1(DatabaseFolder));
    writeTable("FR\t+4852+00220\tEurope/Paris\n"
               "AR\t-3436-05827\tAmerica/Argentina/Buenos_Aires\tBuenos Aires (BA, CF)\n");
    writeFile("version", "2031b\n");
    writeFile("uclibc/Europe/Paris", "CET-1CEST,M3.5.0,M10.5.0/3\n");
    writeFile("uclibc/America/Argentina/Buenos_Aires", "<-03>3\n");
    writeFile("uclibc/Etc/UTC", "UTC0\n");
}

void tst_NBuildrootUclibcTimeZoneDatabase::cleanup()
{
    NPrivateNamespace::unmount(latin1(DatabaseFolder));
}

void tst_NBuildrootUclibcTimeZoneDatabase::constantsAreFixed()
{
    QCOMPARE(Database::S_TIMEZONE_DB_DIR.path(), latin1("/usr/share/zoneinfo"));
    QCOMPARE(Database::S_ZONE_FILES_DIR.path(), latin1("/usr/share/zoneinfo/uclibc"));
    QCOMPARE(Database::S_TOWNS_METADATA_FILE_PATH, latin1("/usr/share/zoneinfo/zone.tab"));
    QCOMPARE(Database::S_DB_VERSION_FILE_PATH, latin1("/usr/share/zoneinfo/version"));
    QCOMPARE(Database::S_LATITUDE_REGEXP, latin1("([+-]{1}\\d{2})(\\d{2})(\\d{2}(?:,\\d{2})?)?"));
    QCOMPARE(Database::S_LONGITUDE_REGEXP, latin1("([+-]{1}\\d{3})(\\d{2})(\\d{2}(?:,\\d{2})?)?"));
    QCOMPARE(Database::S_TIMEZONE_NAME_REGEXP, latin1("([A-Za-z\\-_]+)/([A-Za-z\\-_/]+)"));
    QCOMPARE(
        Database::S_TOWN_METADATA_REGEXP,
        latin1(
            "([A-Z]{2})\\t([+-]{1}\\d{2})(\\d{2})(\\d{2}(?:,\\d{2})?)?([+-]{1}\\d{3})(\\d{2})(\\d{2}(?:,\\d{2})?)"
            "?\\t([A-Za-z\\-_]+)/([A-Za-z\\-_/]+)(?:\\t(.*))?"));
}

namespace {

// Decimal degrees of "+4852" or "-0740023", whose degrees have the given number of digits.
double degreesOf(const QByteArray& text, int degreeDigits)
{
    const double degrees = text.mid(1, degreeDigits).toInt();
    const double minutes = text.mid(1 + degreeDigits, 2).toInt();
    const double seconds = text.mid(3 + degreeDigits, 2).toInt();
    const double absolute = degrees + minutes / 60 + seconds / 3600;
    return text.startsWith('-') && degrees > 0 ? -absolute : absolute;
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// The database is created from the string files and compared with the table and the compiled zone files from which
// these were made.
void tst_NBuildrootUclibcTimeZoneDatabase::everyZoneOfThisSystemAgreesWithItsData()
{
    NPrivateNamespace::unmount(latin1(DatabaseFolder));
    QMap<QByteArray, QByteArray> codes;
    QList<QByteArray> lines;
    for (const QByteArray& line : contentOf(databasePath(latin1("zone.tab"))).split('\n')) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        lines.append(line);
        const QByteArray zone = line.split('\t').at(2);
        const QByteArray compiled = contentOf(databasePath(latin1(zone)));
        codes.insert(zone, compiled.split('\n').at(compiled.count('\n') - 1));
    }
    const QByteArray version = contentOf(databasePath(latin1("tzdata.zi"))).split('\n').at(0).split(' ').last();
    NPrivateNamespace::mountCopy(m_systemZones->path(), latin1(DatabaseFolder));
    const Database database;
    NPrivateNamespace::unmount(latin1(DatabaseFolder));
    NPrivateNamespace::mountEmptyDirectory(latin1(DatabaseFolder));

    QVERIFY(lines.size() > 400);
    for (const QByteArray& line : lines) {
        const QList<QByteArray> parts = line.split('\t');
        const QByteArray zone = parts.at(2);
        const QByteArray region = zone.left(zone.indexOf('/'));
        const QByteArray town = zone.mid(zone.indexOf('/') + 1);
        const int longitude = int(qMax(parts.at(1).lastIndexOf('+'), parts.at(1).lastIndexOf('-')));
        const NTimeZoneTown* const found = database.town(latin1(region), latin1(town));
        QVERIFY2(found, zone.constData());
        QCOMPARE(found->name(), latin1(QByteArray(town).replace('_', ' ')));
        QVERIFY2(!codes.value(zone).isEmpty(), zone.constData());
        QCOMPARE(found->timezoneCode(), latin1(codes.value(zone)));
        QCOMPARE(found->countryCode(), latin1(parts.at(0)));
        QVERIFY2(fabs(found->latitude() - degreesOf(parts.at(1).left(longitude), 2)) < 1e-5, line.constData());
        QVERIFY2(fabs(found->longitude() - degreesOf(parts.at(1).mid(longitude), 3)) < 2e-5, line.constData());
        QCOMPARE(found->comment(), latin1(parts.value(3)));
        QCOMPARE(database.regionAndTownToTimeZoneName(latin1(region), latin1(town)), latin1(zone));
    }
    int towns = 0;
    for (const NTimeZoneRegion* region : database.regions())
        towns += region->towns().size();
    QCOMPARE(towns, codes.size());
    QVERIFY(!version.isEmpty());
    QCOMPARE(database.version(), latin1(version));
}

void tst_NBuildrootUclibcTimeZoneDatabase::degreesMinutesAndSecondsAreConvertedToDecimal_data()
{
    QTest::addColumn<int>("degrees");
    QTest::addColumn<uint>("minutes");
    QTest::addColumn<float>("seconds");
    QTest::addColumn<float>("decimal");
    QTest::newRow("nothing") << 0 << 0u << 0.0f << 0.0f;
    QTest::newRow("north") << 40 << 42u << 51.0f << 40.0f + (42.0f + 51.0f / 60.0f) / 60.0f;
    QTest::newRow("west") << -74 << 0u << 23.0f << -(74.0f + (0.0f + 23.0f / 60.0f) / 60.0f);
    QTest::newRow("zero degrees are never negative") << 0 << 13u << 0.0f << 13.0f / 60.0f;
    QTest::newRow("fractions of a second") << 1 << 0u << 0.5f << 1.0f + (0.5f / 60.0f) / 60.0f;
    QTest::newRow("more minutes than a degree has") << 1 << 90u << 0.0f << 2.5f;
    QTest::newRow("largest minutes") << 0 << UINT_MAX << 0.0f << 4294967296.0f / 60.0f;
    QTest::newRow("smallest degrees") << INT_MIN << 0u << 0.0f << -2147483648.0f;
}

void tst_NBuildrootUclibcTimeZoneDatabase::degreesMinutesAndSecondsAreConvertedToDecimal()
{
    QFETCH(int, degrees);
    QFETCH(uint, minutes);
    QFETCH(float, seconds);
    QFETCH(float, decimal);
    const float result = Database::dmsToDecimalDegrees(degrees, minutes, seconds);
    QVERIFY2(isSame(result, decimal), QByteArray::number(result, 'g', 10).constData());
}

void tst_NBuildrootUclibcTimeZoneDatabase::underscoresBecomeBlanks()
{
    QCOMPARE(
        Database::fileSystemNameToRegionOrTownName(latin1("Argentina/Buenos_Aires")),
        latin1("Argentina/Buenos Aires"));
    QCOMPARE(Database::fileSystemNameToRegionOrTownName(latin1("_a__b-c_")), latin1(" a  b-c "));
    QCOMPARE(Database::fileSystemNameToRegionOrTownName(QString()), QString());
}

void tst_NBuildrootUclibcTimeZoneDatabase::coordinatesOfATown_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<float>("latitude");
    QTest::addColumn<float>("longitude");
    QTest::newRow("minutes") << QByteArray("+4852+00220") << 48.0f + 52.0f / 60.0f << 2.0f + 20.0f / 60.0f;
    QTest::newRow("south and west") << QByteArray("-3436-05827") << -(34.0f + 36.0f / 60.0f)
                                    << -(58.0f + 27.0f / 60.0f);
    QTest::newRow("seconds") << QByteArray("+404251-0740023") << 40.0f + (42.0f + 51.0f / 60.0f) / 60.0f
                             << -(74.0f + (0.0f + 23.0f / 60.0f) / 60.0f);
    QTest::newRow("less than a degree west comes out east")
        << QByteArray("+5328-00013") << 53.0f + 28.0f / 60.0f << 13.0f / 60.0f;
    QTest::newRow("less than a degree south comes out north")
        << QByteArray("-0010+00644") << 10.0f / 60.0f << 6.0f + 44.0f / 60.0f;
    QTest::newRow("seconds with a comma count as none")
        << QByteArray("+404251,99-0740023,50") << 40.0f + 42.0f / 60.0f << -74.0f;
}

void tst_NBuildrootUclibcTimeZoneDatabase::coordinatesOfATown()
{
    QFETCH(QByteArray, text);
    QFETCH(float, latitude);
    QFETCH(float, longitude);
    writeTable("FR\t" + text + "\tEurope/Paris\n");
    const Database database;
    const NTimeZoneTown* const town = database.town(latin1("Europe"), latin1("Paris"));
    QVERIFY(town);
    QVERIFY2(isSame(town->latitude(), latitude), QByteArray::number(town->latitude(), 'g', 10).constData());
    QVERIFY2(isSame(town->longitude(), longitude), QByteArray::number(town->longitude(), 'g', 10).constData());
}

void tst_NBuildrootUclibcTimeZoneDatabase::commentOfATown_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::addColumn<QString>("comment");
    QTest::newRow("none") << QByteArray("\n") << latin1("");
    QTest::newRow("some") << QByteArray("\tmost of France\n") << latin1("most of France");
    QTest::newRow("blanks around it") << QByteArray("\t  most of France \t \n") << latin1("  most of France");
    QTest::newRow("tabs in it") << QByteArray("\tmost\tof\tFrance\n") << latin1("most\tof\tFrance");
    QTest::newRow("a tab only") << QByteArray("\t\n") << latin1("");
    QTest::newRow("line end of another system") << QByteArray("\tmost of France\r\n") << latin1("most of France");
    QTest::newRow("bytes beyond ASCII") << QByteArray("\tR\xe9union\n") << latin1("R\xe9union");
    QTest::newRow("NUL byte") << QByteArray("\tmost \0of France\n", 17) << latin1("most");
    QTest::newRow("no line end") << QByteArray("\tmost of France") << latin1("most of France");
    QTest::newRow("long") << "\t" + QByteArray(100000, 'x') + "\n" << QString(100000, QLatin1Char('x'));
}

void tst_NBuildrootUclibcTimeZoneDatabase::commentOfATown()
{
    QFETCH(QByteArray, end);
    QFETCH(QString, comment);
    writeTable("# head\nFR\t+4852+00220\tEurope/Paris" + end);
    const Database database;
    const NTimeZoneTown* const town = database.town(latin1("Europe"), latin1("Paris"));
    QVERIFY(town);
    QCOMPARE(town->comment(), comment);
    QVERIFY(!town->comment().isNull());
    QCOMPARE(town->countryCode(), latin1("FR"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::townOfAThreeLevelZoneContainsASlash()
{
    const Database database;
    const NTimeZoneTown* const town = database.town(latin1("America"), latin1("Argentina/Buenos_Aires"));
    QVERIFY(town);
    QCOMPARE(town->name(), latin1("Argentina/Buenos Aires"));
    QCOMPARE(townNames(database, "America"), latin1("Argentina/Buenos_Aires"));
    QCOMPARE(
        database.regionAndTownToTimeZoneName(latin1("America"), latin1("Argentina/Buenos_Aires")),
        latin1("America/Argentina/Buenos_Aires"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::tableLinesAreParsed_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("regions");
    const QString none = latin1("");
    const QString europe = latin1("Europe");
    QTest::newRow("a zone") << QByteArray("FR\t+4852+00220\tEurope/Paris\n") << europe;
    QTest::newRow("white space around it") << QByteArray(" \t FR\t+4852+00220\tEurope/Paris \t\v\f\r\n") << europe;
    QTest::newRow("NUL byte after it") << QByteArray("FR\t+4852+00220\tEurope/Paris\0?", 29) << europe;
    QTest::newRow("NUL byte in it") << QByteArray("FR\t+4852\0+00220\tEurope/Paris", 28) << none;
    QTest::newRow("comment") << QByteArray("#FR\t+4852+00220\tEurope/Paris\n") << none;
    QTest::newRow("comment after blanks") << QByteArray("  #FR\t+4852+00220\tEurope/Paris\n") << none;
    QTest::newRow("more than a zone") << QByteArray("FR\t+4852+00220\tEurope/Paris x\n") << none;
    QTest::newRow("something before it") << QByteArray("x FR\t+4852+00220\tEurope/Paris\n") << none;
    QTest::newRow("small letters for the country") << QByteArray("fr\t+4852+00220\tEurope/Paris\n") << none;
    QTest::newRow("two tabs") << QByteArray("FR\t\t+4852+00220\tEurope/Paris\n") << none;
    QTest::newRow("carriage return alone does not end it")
        << QByteArray("FR\t+4852+00220\tEurope/Paris\rFR\t+4852+00220\tAmerica/Paris\n") << none;
    QTest::newRow("rubbish around it") << QByteArray("\xff\xfe\nFR\t+4852+00220\tEurope/Paris\n\n\0\n", 34)
                                       << europe;
    QTest::newRow("empty") << QByteArray() << none;
}

void tst_NBuildrootUclibcTimeZoneDatabase::tableLinesAreParsed()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, regions);
    writeTable(line);
    QCOMPARE(regionNames(Database()), regions);
}

void tst_NBuildrootUclibcTimeZoneDatabase::lastOfSeveralLinesForATownCounts()
{
    writeTable("FR\t+4852+00220\tEurope/Paris\tfirst\n"
               "FX\t+0100+00200\tEurope/Paris\n");
    const Database database;
    const NTimeZoneTown* const town = database.town(latin1("Europe"), latin1("Paris"));
    QVERIFY(town);
    QCOMPARE(town->countryCode(), latin1("FX"));
    QVERIFY(town->latitude() == 1.0f);
    QCOMPARE(town->comment(), latin1(""));
}

void tst_NBuildrootUclibcTimeZoneDatabase::tooLongTableLineIsIgnored()
{
    writeTable(
        "FR\t+4852+00220\tEurope/Paris\t" + QByteArray(3 * 1024 * 1024, 'x') +
        "\nAR\t-3436-05827\tAmerica/Argentina/Buenos_Aires\n" + QByteArray(5 * 1024 * 1024, 'x'));
    QCOMPARE(regionNames(Database()), latin1("America"));

    // The rest of the line is not read as a separate line.
    writeTable(QByteArray(1024 * 1024, 'x') + "FR\t+4852+00220\tEurope/Paris\n");
    QVERIFY(Database().regions().isEmpty());
}

void tst_NBuildrootUclibcTimeZoneDatabase::missingTableGivesNoRegions()
{
    QVERIFY(QFile::remove(databasePath(latin1("zone.tab"))));
    const Database database;
    QVERIFY(database.regions().isEmpty());
    QCOMPARE(database.version(), latin1("2031b"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::nonRegularTableGivesNoRegions_data()
{
    QTest::addColumn<QByteArray>("linkTo");
    QTest::newRow("FIFO") << QByteArray();
    QTest::newRow("directory") << QByteArray("uclibc");
    QTest::newRow("device without end") << QByteArray("/dev/zero");
    QTest::newRow("nothing") << QByteArray("nowhere");
    QTest::newRow("itself") << QByteArray("zone.tab");
}

void tst_NBuildrootUclibcTimeZoneDatabase::nonRegularTableGivesNoRegions()
{
    QFETCH(QByteArray, linkTo);
    QVERIFY(QFile::remove(databasePath(latin1("zone.tab"))));
    if (linkTo.isEmpty())
        QCOMPARE(::mkfifo(databasePath("zone.tab").constData(), 0644), 0);
    else
        makeLink(linkTo.constData(), "zone.tab");
    QVERIFY(Database().regions().isEmpty());
}

void tst_NBuildrootUclibcTimeZoneDatabase::directoryMissingInTheTableIsNotARegion()
{
    const Database database;
    QCOMPARE(regionNames(database), latin1("America Europe"));
    QVERIFY(!database.town(latin1("Etc"), latin1("UTC")));
}

void tst_NBuildrootUclibcTimeZoneDatabase::regionWithoutADirectoryIsIgnored()
{
    writeTable("FR\t+4852+00220\tEurope/Paris\nAU\t-3352+15113\tAustralia/Sydney\n");
    QCOMPARE(regionNames(Database()), latin1("Europe"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::regionWithoutAMatchingFileHasNoTowns()
{
    writeTable("XX\t+4852+00220\tEurope/Nowhere\nAQ\t-6617+11031\tAntarctica/Casey\n");
    makeDirectory("uclibc/Antarctica");
    const Database database;
    QCOMPARE(regionNames(database), latin1("Antarctica Europe"));
    QCOMPARE(townNames(database, "Antarctica"), latin1(""));
    QCOMPARE(townNames(database, "Europe"), latin1(""));
}

void tst_NBuildrootUclibcTimeZoneDatabase::fileIsNotARegion()
{
    writeTable("XX\t+4852+00220\tFile/Paris\n");
    writeFile("uclibc/File", "UTC0\n");
    QVERIFY(Database().regions().isEmpty());
}

void tst_NBuildrootUclibcTimeZoneDatabase::linkToADirectoryIsARegion()
{
    writeTable("XX\t+4852+00220\tOld_Europe/Paris\n");
    makeLink("Europe", "uclibc/Old_Europe");
    const Database database;
    QCOMPARE(regionNames(database), latin1("Old_Europe"));
    QCOMPARE(timezoneCode(database, "Old_Europe", "Paris"), latin1("CET-1CEST,M3.5.0,M10.5.0/3"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::regionsHaveDisplayNames()
{
    writeTable("XX\t+4852+00220\tOld_Europe/Some_Town\n");
    writeFile("uclibc/Old_Europe/Some_Town", "CET-1\n");
    const Database database;
    const NTimeZoneRegion* const region = database.regions().value(latin1("Old_Europe"));
    QVERIFY(region);
    QCOMPARE(region->name(), latin1("Old Europe"));
    QCOMPARE(region->towns().value(latin1("Some_Town"))->name(), latin1("Some Town"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::fileMissingInTheTableIsNotATown()
{
    writeFile("uclibc/Europe/Tiraspol", "EET-2\n");
    writeFile("uclibc/Europe/Paris~", "EET-2\n");
    writeFile("uclibc/Europe/.Paris", "EET-2\n");
    QCOMPARE(townNames(Database(), "Europe"), latin1("Paris"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::directoryIsNotATown()
{
    writeTable("AR\t-3436-05827\tAmerica/Argentina\n");
    const Database database;
    QCOMPARE(townNames(database, "America"), latin1(""));
}

void tst_NBuildrootUclibcTimeZoneDatabase::firstLineOfAZoneFileIsItsCode_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("code");
    QTest::newRow("one line") << QByteArray("CET-1CEST\n") << latin1("CET-1CEST");
    QTest::newRow("no line end") << QByteArray("CET-1CEST") << latin1("CET-1CEST");
    QTest::newRow("several lines") << QByteArray("CET-1CEST\nEET-2\n") << latin1("CET-1CEST");
    QTest::newRow("white space around it") << QByteArray(" \t\v\fCET-1CEST \r\n") << latin1("CET-1CEST");
    QTest::newRow("white space in it") << QByteArray("CET -1\n") << latin1("CET -1");
    QTest::newRow("empty first line") << QByteArray("\nCET-1\n") << latin1("");
    QTest::newRow("empty") << QByteArray() << latin1("");
    QTest::newRow("NUL byte") << QByteArray("CET-1\0CEST\n", 11) << latin1("CET-1");
    QTest::newRow("blank before a NUL byte stays") << QByteArray(" CET-1 \0CEST\n", 13) << latin1("CET-1 ");
    QTest::newRow("NUL byte first") << QByteArray("\0CET-1\n", 7) << latin1("");
    QTest::newRow("compiled zone file") << QByteArray("TZif2\0\0\0\n\nCET-1\n", 16) << latin1("TZif2");
    QTest::newRow("bytes beyond ASCII") << QByteArray("\xff\x80\xe9\n") << latin1("\xff\x80\xe9");
    QTest::newRow("line feed at the end of a buffer") << QByteArray(16383, 'x') + "\nEET-2\n"
                                                      << QString(16383, QLatin1Char('x'));
    QTest::newRow("line feed behind the end of a buffer") << QByteArray(16384, 'x') + "\nEET-2\n"
                                                          << QString(16384, QLatin1Char('x'));
    QTest::newRow("long") << QByteArray(1024 * 1024 - 1, 'x') + "\nEET-2\n"
                          << QString(1024 * 1024 - 1, QLatin1Char('x'));
    QTest::newRow("without end but for a NUL byte")
        << QByteArray("CET-1\0", 6) + QByteArray(3 * 1024 * 1024, 'x') << latin1("CET-1");
}

void tst_NBuildrootUclibcTimeZoneDatabase::firstLineOfAZoneFileIsItsCode()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, code);
    writeFile("uclibc/Europe/Paris", content);
    const Database database;
    const NTimeZoneTown* const town = database.town(latin1("Europe"), latin1("Paris"));
    QVERIFY(town);
    QCOMPARE(town->timezoneCode(), code);
    QVERIFY(!town->timezoneCode().isNull());
}

void tst_NBuildrootUclibcTimeZoneDatabase::hugeFirstLineIsIgnored()
{
    writeTable(
        "FR\t+4852+00220\tEurope/Paris\nIT\t+4154+01229\tEurope/Rome\nGB\t+513030-0000731\tEurope/London\n");
    writeFile("uclibc/Europe/Paris", QByteArray(3 * 1024 * 1024, 'x') + "\n");
    writeFile("uclibc/Europe/Rome", QByteArray());
    QCOMPARE(::truncate(databasePath("uclibc/Europe/Rome").constData(), off_t(1) << 40), 0);
    writeFile("uclibc/Europe/London", "GMT0BST,M3.5.0/1,M10.5.0\n");
    const Database database;
    QCOMPARE(timezoneCode(database, "Europe", "Paris"), latin1("(no town)"));
    QCOMPARE(timezoneCode(database, "Europe", "Rome"), latin1(""));
    QCOMPARE(timezoneCode(database, "Europe", "London"), latin1("GMT0BST,M3.5.0/1,M10.5.0"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::unreadableFileIsIgnored_data()
{
    QTest::addColumn<QByteArray>("linkTo");
    QTest::newRow("FIFO") << QByteArray();
    QTest::newRow("link to nothing") << QByteArray("nowhere");
    QTest::newRow("link to itself") << QByteArray("Rome");
    QTest::newRow("link to a device") << QByteArray("/dev/zero");
    QTest::newRow("file whose reading fails") << QByteArray("/proc/self/mem");
}

void tst_NBuildrootUclibcTimeZoneDatabase::unreadableFileIsIgnored()
{
    QFETCH(QByteArray, linkTo);
    writeTable("FR\t+4852+00220\tEurope/Paris\nIT\t+4154+01229\tEurope/Rome\n");
    if (linkTo.isEmpty())
        QCOMPARE(::mkfifo(databasePath("uclibc/Europe/Rome").constData(), 0644), 0);
    else
        makeLink(linkTo.constData(), "uclibc/Europe/Rome");
    QCOMPARE(townNames(Database(), "Europe"), latin1("Paris"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::fileWithoutPermissionIsIgnored()
{
    writeTable("FR\t+4852+00220\tEurope/Paris\nIT\t+4154+01229\tEurope/Rome\n");
    writeFile("uclibc/Europe/Rome", "CET-1\n");
    QCOMPARE(::chmod(databasePath("uclibc/Europe/Rome").constData(), 0), 0);
    const NWithoutFileOverride permissionsCount;
    QCOMPARE(townNames(Database(), "Europe"), latin1("Paris"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::directoryWithoutPermissionIsIgnored()
{
    QCOMPARE(::chmod(databasePath("uclibc/America").constData(), 0), 0);
    {
        const NWithoutFileOverride permissionsCount;
        const Database database;
        QCOMPARE(regionNames(database), latin1("America Europe"));
        QCOMPARE(townNames(database, "America"), latin1(""));
        QCOMPARE(townNames(database, "Europe"), latin1("Paris"));
    }
    QCOMPARE(::chmod(databasePath("uclibc").constData(), 0), 0);
    {
        const NWithoutFileOverride permissionsCount;
        QVERIFY(Database().regions().isEmpty());
    }
}

void tst_NBuildrootUclibcTimeZoneDatabase::linksToFilesAndDirectoriesAreFollowed()
{
    writeTable("FR\t+4852+00220\tEurope/Monaco\nAR\t-3436-05827\tAmerica/Old/Buenos_Aires\n");
    makeLink("Paris", "uclibc/Europe/Monaco");
    makeLink("Argentina", "uclibc/America/Old");
    const Database database;
    QCOMPARE(timezoneCode(database, "Europe", "Monaco"), latin1("CET-1CEST,M3.5.0,M10.5.0/3"));
    QCOMPARE(timezoneCode(database, "America", "Old/Buenos_Aires"), latin1("<-03>3"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::noDirectoryIsEnteredTwiceOnOnePath()
{
    writeTable("FR\t+4852+00220\tEurope/Paris\n"
               "FR\t+4852+00220\tEurope/Loop/Paris\n"
               "FR\t+4852+00220\tEurope/Loop/Loop/Paris\n"
               "FR\t+4852+00220\tEurope/Deep/Rome\n"
               "FR\t+4852+00220\tEurope/Deep/Up/Paris\n"
               "FR\t+4852+00220\tEurope/Same/Rome\n");
    makeLink(".", "uclibc/Europe/Loop");
    writeFile("uclibc/Europe/Deep/Rome", "CET-1\n");
    makeLink("../../Europe", "uclibc/Europe/Deep/Up");
    makeLink("Deep", "uclibc/Europe/Same");
    QCOMPARE(townNames(Database(), "Europe"), latin1("Deep/Rome Paris Same/Rome"));
}

// Twelve directories that all link to each other create more than 10^9 paths.
void tst_NBuildrootUclibcTimeZoneDatabase::directoriesThatLinkToEachOtherAreLimited()
{
    const int directories = 12;
    for (int from = 0; from < directories; ++from) {
        const QByteArray directory = "uclibc/Europe/d" + QByteArray::number(from);
        makeDirectory(directory.constData());
        for (int to = 0; to < directories; ++to) {
            const QByteArray number = QByteArray::number(to);
            makeLink(("../d" + number).constData(), (directory + "/l" + number).constData());
        }
    }
    QCOMPARE(townNames(Database(), "Europe"), latin1("Paris"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::endlessDirectoriesAreLimited()
{
    QByteArray town = "x";
    QByteArray table;
    for (int level = 0; level < 100; ++level) {
        table += "XX\t+0000+00000\tEurope/" + town + "\n";
        writeFile(("uclibc/Europe/" + town).constData(), "UTC0\n");
        town = "d/" + town;
    }
    writeTable(table);
    const Database database;
    const NTimeZoneRegion* const region = database.regions().value(latin1("Europe"));
    QVERIFY(region);
    QCOMPARE(region->towns().size(), 1 + 32);
}

// 20 directories with 999 files each are the maximum of 20,000 entries; one more entry is ignored.
void tst_NBuildrootUclibcTimeZoneDatabase::onlyEntriesCountForTheLimit()
{
    QByteArray table;
    for (int directory = 0; directory < 20; ++directory) {
        for (int town = 0; town < 999; ++town) {
            const QByteArray name =
                QByteArray(1, char('a' + directory)) + '/' + QByteArray(1, char('a' + town / 100)) +
                QByteArray(1, char('a' + town / 10 % 10)) + QByteArray(1, char('a' + town % 10));
            table += "XX\t+0000+00000\tLimit/" + name + "\n";
            writeFile(("uclibc/Limit/" + name).constData(), "UTC0\n");
        }
    }
    writeTable(table);
    QCOMPARE(Database().regions().value(latin1("Limit"))->towns().size(), 20 * 999);

    writeFile("uclibc/Limit/z", "UTC0\n");
    QCOMPARE(Database().regions().value(latin1("Limit"))->towns().size(), 20 * 999 - 1);
}

void tst_NBuildrootUclibcTimeZoneDatabase::versionIsTheFirstLineOfItsFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("version");
    QTest::newRow("one line") << QByteArray("2024a\n") << latin1("2024a");
    QTest::newRow("no line end") << QByteArray("2024a") << latin1("2024a");
    QTest::newRow("several lines") << QByteArray("2024a\n2024b\n") << latin1("2024a");
    QTest::newRow("white space around it") << QByteArray("\t 2024a \r\n") << latin1("2024a");
    QTest::newRow("NUL byte") << QByteArray("2024 \0a\n", 8) << latin1("2024 ");
    QTest::newRow("bytes beyond ASCII") << QByteArray("2024\xe4\n") << latin1("2024\xe4");
    QTest::newRow("empty") << QByteArray() << latin1("");
    QTest::newRow("without end") << QByteArray(3 * 1024 * 1024, 'x') << latin1("");
}

void tst_NBuildrootUclibcTimeZoneDatabase::versionIsTheFirstLineOfItsFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, version);
    writeFile("version", content);
    const Database database;
    QCOMPARE(database.version(), version);
    QVERIFY(!database.version().isNull());
    QVERIFY(database.date().isValid());
}

void tst_NBuildrootUclibcTimeZoneDatabase::versionAndDateAreNullWithoutAVersionFile()
{
    QVERIFY(QFile::remove(databasePath(latin1("version"))));
    const Database database;
    QVERIFY(database.version().isNull());
    QVERIFY(database.date().isNull());
    QCOMPARE(regionNames(database), latin1("America Europe"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::versionAndDateAreNullForANonRegularVersionFile()
{
    QVERIFY(QFile::remove(databasePath(latin1("version"))));
    makeDirectory("version");
    const Database database;
    QVERIFY(database.version().isNull());
    QVERIFY(database.date().isNull());
}

// The file is changed until its last change differs from its creation, which must not matter to the library.
// Kernels before 5.18 keep no creation time for files in memory.
void tst_NBuildrootUclibcTimeZoneDatabase::dateIsTheCreationTimeOfTheVersionFile()
{
    QProcess stat;
    stat.start(latin1("stat"), QStringList() << latin1("-c") << latin1("%W") << databasePath(latin1("version")));
    QVERIFY(stat.waitForFinished());
    const qint64 created = stat.readAll().trimmed().toLongLong();

    const qint64 firstChange = statusOf("version").st_ctim.tv_sec;
    const struct timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
    while (statusOf("version").st_ctim.tv_sec == firstChange)
        QCOMPARE(::utimes(databasePath("version").constData(), past), 0);
    const Database database;
    const qint64 expected = created > 0 ? created : qint64(statusOf("version").st_ctim.tv_sec);
    QCOMPARE(database.date().toMSecsSinceEpoch() / 1000, expected);
    QCOMPARE(database.date().timeSpec(), Qt::LocalTime);
}

// The simplest of the file systems in memory keeps no creation time.
void tst_NBuildrootUclibcTimeZoneDatabase::dateIsTheLastChangeWithoutACreationTime()
{
    QCOMPARE(::mount("ramfs", DatabaseFolder, "ramfs", 0, nullptr), 0);
    writeFile("version", "2031b\n");
    const struct timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
    QCOMPARE(::utimes(databasePath("version").constData(), past), 0);
    const struct stat status = statusOf("version");
    const Database database;
    NPrivateNamespace::unmount(latin1(DatabaseFolder));
    QCOMPARE(
        database.date().toMSecsSinceEpoch(),
        qint64(status.st_ctim.tv_sec) * 1000 + status.st_ctim.tv_nsec / 1000000);
    QCOMPARE(database.version(), latin1("2031b"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::townsAreLookedUp()
{
    const Database database;
    const NTimeZoneTown* const paris = database.town(latin1("Europe"), latin1("Paris"));
    QVERIFY(paris);
    QVERIFY(paris == database.regions().value(latin1("Europe"))->towns().value(latin1("Paris")));
    QVERIFY(!database.town(latin1("Europe"), latin1("Rome")));
    QVERIFY(!database.town(latin1("Nowhere"), latin1("Paris")));
    QVERIFY(!database.town(latin1("America"), latin1("Argentina/Buenos Aires")));
    QVERIFY(!database.town(latin1("europe"), latin1("Paris")));
    QVERIFY(!database.town(QString(), QString()));
}

void tst_NBuildrootUclibcTimeZoneDatabase::zoneNamesAreComposedForKnownTownsOnly()
{
    const Database database;
    QCOMPARE(database.regionAndTownToTimeZoneName(latin1("Europe"), latin1("Paris")), latin1("Europe/Paris"));
    QVERIFY(database.regionAndTownToTimeZoneName(latin1("Europe"), latin1("Rome")).isNull());
    QVERIFY(database.regionAndTownToTimeZoneName(latin1("Etc"), latin1("UTC")).isNull());
    QVERIFY(database.regionAndTownToTimeZoneName(latin1("America"), latin1("Argentina/Buenos Aires")).isNull());
}

void tst_NBuildrootUclibcTimeZoneDatabase::zoneNamesAreSplitIfAFileExists_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("region");
    QTest::addColumn<QString>("town");
    const QString none;
    QTest::newRow("zone") << latin1("Europe/Paris") << latin1("Europe") << latin1("Paris");
    QTest::newRow("zone of three levels")
        << latin1("America/Argentina/Buenos_Aires") << latin1("America") << latin1("Argentina/Buenos_Aires");
    QTest::newRow("zone without a line in the table") << latin1("Etc/UTC") << latin1("Etc") << latin1("UTC");
    QTest::newRow("link") << latin1("Europe/Monaco") << latin1("Europe") << latin1("Monaco");
    QTest::newRow("no file") << latin1("Europe/Rome") << none << none;
    QTest::newRow("blank for underscore") << latin1("America/Argentina/Buenos Aires") << none << none;
    QTest::newRow("no slash") << latin1("UTC") << none << none;
    QTest::newRow("directory") << latin1("America/Argentina") << none << none;
    QTest::newRow("directory with a slash") << latin1("America/") << none << none;
    QTest::newRow("link to nothing") << latin1("Europe/Lost") << none << none;
    QTest::newRow("slash first") << latin1("/Europe/Paris") << none << none;
    QTest::newRow("slash last") << latin1("Europe/Paris/") << none << none;
    QTest::newRow("two slashes") << latin1("Europe//Paris") << none << none;
    QTest::newRow("below a file") << latin1("Europe/Paris/x") << none << none;
    QTest::newRow("out of the folder") << latin1("../zone.tab") << none << none;
    QTest::newRow("out of the folder later") << latin1("Europe/../../version") << none << none;
    QTest::newRow("full stop") << latin1("Europe/./Paris") << none << none;
    QTest::newRow("absolute") << latin1("/usr/share/zoneinfo/version") << none << none;
    QTest::newRow("NUL character") << latin1("Europe/Paris") + QChar(0) + latin1("x") << none << none;
    QTest::newRow("empty") << latin1("") << none << none;
    QTest::newRow("null") << none << none << none;
}

void tst_NBuildrootUclibcTimeZoneDatabase::zoneNamesAreSplitIfAFileExists()
{
    QFETCH(QString, name);
    QFETCH(QString, region);
    QFETCH(QString, town);
    writeFile("uclibc/UTC", "UTC0\n");
    makeLink("Paris", "uclibc/Europe/Monaco");
    makeLink("nowhere", "uclibc/Europe/Lost");
    const Database database;
    const QPair<QString, QString> parts = database.timeZoneNameToRegionAndTown(name);
    QCOMPARE(parts.first, region);
    QCOMPARE(parts.second, town);
    QCOMPARE(parts.first.isNull(), region.isNull());
    QCOMPARE(parts.second.isNull(), town.isNull());
}

void tst_NBuildrootUclibcTimeZoneDatabase::newDatabaseReflectsChangedFiles()
{
    writeTable("FR\t+4852+00220\tEurope/Paris\nIT\t+4154+01229\tEurope/Rome\nAU\t-3352+15113\tAustralia/Sydney\n");
    const Database before;
    QCOMPARE(regionNames(before), latin1("Europe"));
    QVERIFY(before.timeZoneNameToRegionAndTown(latin1("Europe/Rome")).first.isNull());

    writeFile("uclibc/Europe/Rome", "CET-1\n");
    writeFile("uclibc/Europe/Paris", "EET-2\n");
    writeFile("uclibc/Australia/Sydney", "AEST-10\n");
    writeFile("version", "2031c\n");
    const Database after;
    QCOMPARE(regionNames(after), latin1("Australia Europe"));
    QCOMPARE(townNames(after, "Europe"), latin1("Paris Rome"));
    QCOMPARE(timezoneCode(after, "Europe", "Paris"), latin1("EET-2"));
    QCOMPARE(after.version(), latin1("2031c"));
    QCOMPARE(townNames(before, "Europe"), latin1("Paris"));
    QCOMPARE(before.version(), latin1("2031b"));
    QCOMPARE(before.timeZoneNameToRegionAndTown(latin1("Europe/Rome")).second, latin1("Rome"));
}

void tst_NBuildrootUclibcTimeZoneDatabase::databaseOutlivesItsFiles()
{
    const Database database;
    NPrivateNamespace::mountEmptyDirectory(latin1(DatabaseFolder));
    QCOMPARE(timezoneCode(database, "Europe", "Paris"), latin1("CET-1CEST,M3.5.0,M10.5.0/3"));
    QVERIFY(database.timeZoneNameToRegionAndTown(latin1("Europe/Paris")).first.isNull());
    NPrivateNamespace::unmount(latin1(DatabaseFolder));
}

void tst_NBuildrootUclibcTimeZoneDatabase::noDescriptorLeaks()
{
    makeLink(".", "uclibc/Europe/Loop");
    makeLink("nowhere", "uclibc/Europe/Lost");
    QCOMPARE(::mkfifo(databasePath("uclibc/Europe/Fifo").constData(), 0644), 0);
    const int before = openDescriptors();
    for (int count = 0; count < 3; ++count)
        Database();
    QCOMPARE(openDescriptors(), before);
}

void tst_NBuildrootUclibcTimeZoneDatabase::loadersReturnTheContentOfTheFiles()
{
    writeFile("uclibc/America/Noronha", "<-02>2\n");
    writeFile("uclibc/America/.hidden", "<-02>2\n");
    writeFile("uclibc/America/.hidden_directory/Noronha", "<-02>2\n");
    const QMap<QString, QString> codes =
        OpenDatabase::loadDirectory(QDir(Database::S_ZONE_FILES_DIR.filePath(latin1("America"))));
    QCOMPARE(QStringList(codes.keys()).join(latin1(" ")), latin1("Argentina/Buenos_Aires Noronha"));
    QCOMPARE(codes.value(latin1("Noronha")), latin1("<-02>2"));

    const QMap<QString, QMap<QString, Database::TownMetadata>> towns = OpenDatabase::loadTownsMetadata();
    QCOMPARE(towns.size(), 2);
    QCOMPARE(towns.value(latin1("Europe")).value(latin1("Paris")).countryCode, latin1("FR"));

    const Database::DbMetadata metadata = OpenDatabase::loadDbMetadata();
    QCOMPARE(metadata.version, latin1("2031b"));
    QVERIFY(metadata.date.isValid());
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NBuildrootUclibcTimeZoneDatabase, NPrivateNamespace::Mounts)
#include "tst_nbuildrootuclibctimezonedatabase.moc"
