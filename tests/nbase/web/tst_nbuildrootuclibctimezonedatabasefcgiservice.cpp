#include <nbase/web/nbuildrootuclibctimezonedatabasefcgirequestprocessor.h>
#include <nbase/web/nbuildrootuclibctimezonedatabasefcgiservice.h>

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <nwebapi/nwajson.h>

#include "support/nprivatenamespace.h"
#include "support/nservicetest.h"
#include "support/ntemporarydirectory.h"

#include <QtTest/QtTest>

#include <ostream>
#include <stdlib.h>
#include <time.h>

namespace {

typedef NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor Processor;
typedef NBuildrootUclibcTimeZoneDatabaseFcgiService Service;

class RefusingProcessor : public NRefusingProcessor<Processor>
{
public:
    using NRefusingProcessor<Processor>::NRefusingProcessor;

    bool canReadDatabaseWithSession(NwaWebSession* session) const override { return refuse(session); }
};

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

// Sets the environment variable TZ; null removes it.
void setTimeZone(const QByteArray& zone)
{
    if (zone.isNull())
        ::unsetenv("TZ");
    else
        qputenv("TZ", zone);
    ::tzset();
}

} // namespace

class tst_NBuildrootUclibcTimeZoneDatabaseFcgiService : public NServiceTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void queryStringNamesAreFixed();
    void townDocumentHoldsItsFields();
    void coordinatesReadBackAsTheSameFloats();
    void regionDocumentHoldsItsTownsByFileSystemName();
    void contentDocumentHoldsTheRegionsByFileSystemName();
    void informationIsVersionAndLocalTime();
    void informationWithoutVersionFileHasEmptyTexts();
    void emptyDatabaseHasEmptyContent();

    void queryChoosesTheDocument_data();
    void queryChoosesTheDocument();
    void repeatedRequestsGetTheSameDocument();
    void whatDoesNotExistIsAnswered404WithItsReason_data();
    void whatDoesNotExistIsAnswered404WithItsReason();
    void placeholdersInNamesAreNotFilled();

protected:
    NwaStandardFcgiService* newService() override;
    NwaStandardFcgiService* newRefusingService(NRefusal* refusal, QObject* parent) override;
    QList<QByteArray> queries() const override;

private:
    void makeZones();
    void loadDatabase();
    QVariant document(const char* name) const;

    QByteArray m_timeZone; // null when the system's is not overridden
    QScopedPointer<NTemporaryDirectory> m_zones;
    QScopedPointer<NBuildrootUclibcTimeZoneDatabase> m_database;
};

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::init()
{
    m_zones.reset(new NTemporaryDirectory);
    makeZones();
    NPrivateNamespace::mountCopy(m_zones->path(), text("/usr/share/zoneinfo"));
    NServiceTest::init();
    m_timeZone = qgetenv("TZ");
    loadDatabase();
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::cleanup()
{
    m_database.reset();
    NPrivateNamespace::unmount(text("/usr/share/zoneinfo"));
    setTimeZone(m_timeZone);
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::makeZones()
{
    m_zones->writeFile(
        text("zone.tab"), "# a comment\n"
                          "FR\t+4852+00220\tEurope/Paris\n"
                          "ES\t+4024-00341\tEurope/Madrid\tSpain (mainland)\n"
                          "AR\t-3436-05827\tAmerica/Argentina/Buenos_Aires\tBuenos Aires (BA, CF)\n"
                          "US\t+404251-0740023\tAmerica/New_York\tEastern (most areas)\n"
                          "AU\t-3352+15113\tAustralia/Sydney\n"
                          "GL\t+6411-05144\tNorth_Atlantic/Old_Town\n");
    m_zones->writeFile(text("version"), "2026a\n");
    m_zones->writeFile(text("uclibc/Europe/Paris"), "CET-1CEST,M3.5.0,M10.5.0/3\n");
    m_zones->writeFile(text("uclibc/Europe/Madrid"), "CET-1CEST,M3.5.0,M10.5.0/3\n");
    m_zones->writeFile(text("uclibc/America/Argentina/Buenos_Aires"), "<-03>3\n");
    m_zones->writeFile(text("uclibc/America/New_York"), "EST5EDT,M3.2.0,M11.1.0\n");
    m_zones->writeFile(text("uclibc/Australia/Nowhere"), "NOW0\n");
    m_zones->writeFile(text("uclibc/North_Atlantic/Old_Town"), "OLD3\n");
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::loadDatabase()
{
    m_database.reset(new NBuildrootUclibcTimeZoneDatabase);
}

NwaStandardFcgiService* tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::newService()
{
    return new Service(identifier(), m_database.data(), nullptr);
}

NwaStandardFcgiService*
tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::newRefusingService(NRefusal* refusal, QObject* parent)
{
    return new Service(new RefusingProcessor(identifier(), m_database.data(), refusal), parent);
}

QList<QByteArray> tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::queries() const
{
    return QList<QByteArray>() << QByteArray() << QByteArray("section=content&region=Europe&town=Paris")
                               << QByteArray("section=content&region=Atlantis");
}

QVariant tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::document(const char* name) const
{
    const Processor processor(identifier(), m_database.data());
    const QString wanted = text(name);
    if (wanted == text("database"))
        return processor.timeZoneDatabaseToVariantMap();
    if (wanted == text("information"))
        return processor.timeZoneDatabaseMetaInformationToVariantMap();
    if (wanted == text("content"))
        return processor.timeZoneDatabaseContentToVariantMap();
    const int slash = wanted.indexOf(QLatin1Char('/'));
    if (slash < 0)
        return processor.regionToVariantMap(m_database->regions().value(wanted));
    return processor.townToVariantMap(m_database->town(wanted.left(slash), wanted.mid(slash + 1)));
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::queryStringNamesAreFixed()
{
    QCOMPARE(Processor::S_SECTION_FIELD_NAME, text("section"));
    QCOMPARE(Processor::S_INFORMATION_SECTION_NAME, text("information"));
    QCOMPARE(Processor::S_CONTENT_SECTION_NAME, text("content"));
    QCOMPARE(Processor::S_REGION_FIELD_NAME, text("region"));
    QCOMPARE(Processor::S_TOWN_FIELD_NAME, text("town"));
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::townDocumentHoldsItsFields()
{
    const QVariantMap town = document("America/Argentina/Buenos_Aires").toMap();
    QCOMPARE(
        QStringList(town.keys()),
        text("comment,countryCode,latitude,longitude,timezoneCode,townName").split(QLatin1Char(',')));
    QCOMPARE(town.value(text("townName")).toString(), text("Argentina/Buenos Aires"));
    QCOMPARE(town.value(text("timezoneCode")).toString(), text("<-03>3"));
    QCOMPARE(town.value(text("countryCode")).toString(), text("AR"));
    QCOMPARE(town.value(text("comment")).toString(), text("Buenos Aires (BA, CF)"));
    QCOMPARE(town.value(text("latitude")).toFloat(), -(34 + 36 / 60.0f));
    QCOMPARE(town.value(text("longitude")).toFloat(), -(58 + 27 / 60.0f));

    const QVariant comment = document("Europe/Paris").toMap().value(text("comment"));
    QCOMPARE(comment.type(), QVariant::String);
    QVERIFY(comment.toString().isEmpty());
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::coordinatesReadBackAsTheSameFloats()
{
    process("section=content&region=America&town=New_York");
    bool ok = false;
    const QVariantMap town = NwaJson::parse(channel().body(), &ok).toMap();
    QVERIFY(ok);
    const float latitude = m_database->town(text("America"), text("New_York"))->latitude();
    const float longitude = m_database->town(text("America"), text("New_York"))->longitude();
    QVERIFY(float(town.value(text("latitude")).toDouble()) == latitude);
    QVERIFY(float(town.value(text("longitude")).toDouble()) == longitude);
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::regionDocumentHoldsItsTownsByFileSystemName()
{
    const QVariantMap region = document("America").toMap();
    QCOMPARE(QStringList(region.keys()), QStringList() << text("regionName") << text("towns"));
    QCOMPARE(region.value(text("regionName")).toString(), text("America"));
    const QVariantMap towns = region.value(text("towns")).toMap();
    QCOMPARE(QStringList(towns.keys()), QStringList() << text("Argentina/Buenos_Aires") << text("New_York"));
    QCOMPARE(towns.value(text("New_York")), document("America/New_York"));

    const QVariantMap withoutTowns = document("Australia").toMap();
    QCOMPARE(withoutTowns.value(text("towns")).type(), QVariant::Map);
    QVERIFY(withoutTowns.value(text("towns")).toMap().isEmpty());
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::contentDocumentHoldsTheRegionsByFileSystemName()
{
    const QVariantMap content = document("content").toMap();
    QCOMPARE(QStringList(content.keys()), text("America,Australia,Europe,North_Atlantic").split(QLatin1Char(',')));
    const QVariantMap region = content.value(text("North_Atlantic")).toMap();
    QCOMPARE(region.value(text("regionName")).toString(), text("North Atlantic"));
    const QVariantMap towns = region.value(text("towns")).toMap();
    QCOMPARE(QStringList(towns.keys()), QStringList(text("Old_Town")));
    QCOMPARE(towns.value(text("Old_Town")).toMap().value(text("townName")).toString(), text("Old Town"));
}

// In a zone other than UTC, which may be the machine's.
void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::informationIsVersionAndLocalTime()
{
    setTimeZone("IST-5:30");
    loadDatabase();
    const QVariantMap information = document("information").toMap();
    QCOMPARE(QStringList(information.keys()), QStringList() << text("dateTime") << text("version"));
    QCOMPARE(information.value(text("version")).toString(), text("2026a"));
    const QString dateTime = information.value(text("dateTime")).toString();
    QVERIFY2(
        QRegExp(text("\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}")).exactMatch(dateTime), qPrintable(dateTime));
    const QDateTime eastOfGreenwich = m_database->date().toUTC().addSecs((5 * 60 + 30) * 60);
    QCOMPARE(dateTime, eastOfGreenwich.toString(text("yyyy-MM-dd'T'hh:mm:ss")));
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::informationWithoutVersionFileHasEmptyTexts()
{
    QVERIFY(QFile::remove(m_zones->filePath(text("version"))));
    loadDatabase();
    process("section=information");
    QCOMPARE(channel().body(), QByteArray("{\"dateTime\":\"\",\"version\":\"\"}"));
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::emptyDatabaseHasEmptyContent()
{
    QVERIFY(QFile::remove(m_zones->filePath(text("zone.tab"))));
    loadDatabase();
    process("");
    const QVariantMap database = NwaJson::parse(channel().body(), nullptr).toMap();
    QCOMPARE(database.value(text("content")).type(), QVariant::Map);
    QVERIFY(database.value(text("content")).toMap().isEmpty());
    QCOMPARE(database.value(text("information")), document("information"));
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::queryChoosesTheDocument_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("nothing") << QByteArray("") << QByteArray("database");
    QTest::newRow("information") << QByteArray("section=information") << QByteArray("information");
    QTest::newRow("content") << QByteArray("section=content") << QByteArray("content");
    QTest::newRow("other section") << QByteArray("section=state") << QByteArray("database");
    QTest::newRow("empty section") << QByteArray("section=") << QByteArray("database");
    QTest::newRow("capital letter") << QByteArray("section=Content") << QByteArray("database");
    QTest::newRow("capital letter in the name") << QByteArray("Section=content") << QByteArray("database");
    QTest::newRow("section twice") << QByteArray("section=content&section=content") << QByteArray("database");
    QTest::newRow("two sections") << QByteArray("section=information&section=content") << QByteArray("database");
    QTest::newRow("encoded") << QByteArray("section=%63ontent") << QByteArray("content");
    QTest::newRow("other parameters") << QByteArray("a=b&section=content&c") << QByteArray("content");
    QTest::newRow("region") << QByteArray("section=content&region=Europe") << QByteArray("Europe");
    QTest::newRow("region without towns")
        << QByteArray("section=content&region=Australia") << QByteArray("Australia");
    QTest::newRow("region first") << QByteArray("region=Europe&section=content") << QByteArray("Europe");
    QTest::newRow("two regions") << QByteArray("section=content&region=America&region=Europe")
                                 << QByteArray("content");
    QTest::newRow("town") << QByteArray("section=content&region=Europe&town=Paris") << QByteArray("Europe/Paris");
    QTest::newRow("town with slash") << QByteArray("section=content&region=America&town=Argentina/Buenos_Aires")
                                     << QByteArray("America/Argentina/Buenos_Aires");
    QTest::newRow("town with encoded slash")
        << QByteArray("section=content&region=America&town=Argentina%2FBuenos_Aires")
        << QByteArray("America/Argentina/Buenos_Aires");
    QTest::newRow("two towns") << QByteArray("section=content&region=Europe&town=Paris&town=Madrid")
                               << QByteArray("Europe");
    QTest::newRow("town without region") << QByteArray("section=content&town=Paris") << QByteArray("content");
    QTest::newRow("region without section") << QByteArray("region=Europe&town=Paris") << QByteArray("database");
    QTest::newRow("region of the information")
        << QByteArray("section=information&region=Europe") << QByteArray("information");
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::queryChoosesTheDocument()
{
    QFETCH(QByteArray, query);
    QFETCH(QByteArray, name);
    process(query);
    QCOMPARE(channel().header(), QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
    QCOMPARE(channel().body(), NwaJson::serialize(document(name.constData())));
    QCOMPARE(channel().remarks, QByteArray());
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::repeatedRequestsGetTheSameDocument()
{
    const QScopedPointer<NwaStandardFcgiService> service(newService());
    const char* const queries[] = {"", "section=content", "", "section=content", "section=information"};
    const char* const names[] = {"database", "content", "database", "content", "information"};
    for (int index = 0; index < 5; ++index) {
        processWith(*service, queries[index]);
        QCOMPARE(channel().body(), NwaJson::serialize(document(names[index])));
    }
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::whatDoesNotExistIsAnswered404WithItsReason_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("region") << QByteArray("section=content&region=Atlantis")
                            << QByteArray("cannot read the region named \"Atlantis\" because it does not exists");
    QTest::newRow("empty region") << QByteArray("section=content&region=")
                                  << QByteArray("cannot read the region named \"\" because it does not exists");
    QTest::newRow("region without files")
        << QByteArray("section=content&region=Asia")
        << QByteArray("cannot read the region named \"Asia\" because it does not exists");
    QTest::newRow("town of an unknown region")
        << QByteArray("section=content&region=Atlantis&town=Paris")
        << QByteArray("cannot read the region named \"Atlantis\" because it does not exists");
    QTest::newRow("town") << QByteArray("section=content&region=Europe&town=Athens")
                          << QByteArray(
                                 "cannot read the town named \"Athens\" in region \"Europe\" because it does "
                                 "not exists");
    QTest::newRow("town with blanks")
        << QByteArray("section=content&region=America&town=Argentina/Buenos%20Aires")
        << QByteArray(
               "cannot read the town named \"Argentina/Buenos Aires\" in region \"America\" because it does "
               "not exists");
    QTest::newRow("town of a region with a blank")
        << QByteArray("section=content&region=North_Atlantic&town=Nuuk")
        << QByteArray(
               "cannot read the town named \"Nuuk\" in region \"North Atlantic\" because it does not exists");
    QTest::newRow("region with a blank")
        << QByteArray("section=content&region=North%20Atlantic")
        << QByteArray("cannot read the region named \"North Atlantic\" because it does not exists");
    QTest::newRow("town of another region")
        << QByteArray("section=content&region=America&town=Paris")
        << QByteArray("cannot read the town named \"Paris\" in region \"America\" because it does not exists");
    QTest::newRow("Latin-1 letter")
        << QByteArray("section=content&region=%C3%89urope")
        << QByteArray("cannot read the region named \"\xC9urope\" because it does not exists");
    QTest::newRow("letter beyond Latin-1")
        << QByteArray("section=content&region=%E2%82%AC")
        << QByteArray("cannot read the region named \"?\" because it does not exists");
    QTest::newRow("forged line") << QByteArray("section=content&region=x%0D%0Aforged%1B%C2%85")
                                 << QByteArray(
                                        "cannot read the region named \"x\\x0d\\x0aforged\\x1b\\x85\" because "
                                        "it does not exists");
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::whatDoesNotExistIsAnswered404WithItsReason()
{
    QFETCH(QByteArray, query);
    QFETCH(QByteArray, reason);
    process(query);
    QVERIFY(channel().header().startsWith("Status: 404 Not Found\r\n"));
    QCOMPARE(
        channel().remarks,
        "Error in request processor for request to script \"/api/service\" with path info \"/more\": " + reason);
}

void tst_NBuildrootUclibcTimeZoneDatabaseFcgiService::placeholdersInNamesAreNotFilled()
{
    process("section=content&region=Europe&town=%251%254");
    QVERIFY(channel().remarks.contains("cannot read the town named \"%1%4\" in region \"Europe\""));
}

NTEST_MAIN_IN_NAMESPACE(
    QCoreApplication, tst_NBuildrootUclibcTimeZoneDatabaseFcgiService, NPrivateNamespace::Mounts)
#include "tst_nbuildrootuclibctimezonedatabasefcgiservice.moc"
