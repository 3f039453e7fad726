#include <nbase/web/nbuildrootuclibctimezonedatabasefcgirequestprocessor.h>

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>
#include <nbase/time/ntimezoneregion.h>
#include <nbase/time/ntimezonetown.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajson.h>

namespace {

typedef QMap<QString, NTimeZoneTown*> Towns;
typedef QMap<QString, NTimeZoneRegion*> Regions;

} // namespace

const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_SECTION_FIELD_NAME =
    QString::fromLatin1("section");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_INFORMATION_SECTION_NAME =
    QString::fromLatin1("information");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_CONTENT_SECTION_NAME =
    QString::fromLatin1("content");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_REGION_FIELD_NAME =
    QString::fromLatin1("region");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_TOWN_FIELD_NAME =
    QString::fromLatin1("town");

NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NBuildrootUclibcTimeZoneDatabase* database)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_database(database)
{
}

NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::~NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor() {}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    NwaWebSession* const session = authenticateRequest(request, false);
    if (!session) {
        delete request;
        return;
    }
    if (!canReadDatabaseWithSession(session)) {
        request->sendHttpError(NwaFcgiRequest::Forbidden);
        delete request;
        return;
    }
    QString section;
    request->singleQueryParameter(S_SECTION_FIELD_NAME, section);
    if (section == S_INFORMATION_SECTION_NAME) {
        processGetMethodForInformationSection(request);
        return;
    }
    if (section == S_CONTENT_SECTION_NAME) {
        processGetMethodForContentSection(request);
        return;
    }
    if (m_databaseDocument.isNull())
        m_databaseDocument = NwaJson::serialize(timeZoneDatabaseToVariantMap());
    sendJsonDocument(request, m_databaseDocument);
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForInformationSection(
    NwaFcgiRequest* request)
{
    if (m_informationDocument.isNull())
        m_informationDocument = NwaJson::serialize(timeZoneDatabaseMetaInformationToVariantMap());
    sendJsonDocument(request, m_informationDocument);
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForContentSection(
    NwaFcgiRequest* request)
{
    QString regionName;
    if (request->singleQueryParameter(S_REGION_FIELD_NAME, regionName)) {
        processGetMethodForRegion(request, regionName);
        return;
    }
    if (m_contentDocument.isNull())
        m_contentDocument = NwaJson::serialize(timeZoneDatabaseContentToVariantMap());
    sendJsonDocument(request, m_contentDocument);
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForRegion(
    NwaFcgiRequest* request, const QString& regionName)
{
    const NTimeZoneRegion* const region = m_database->regions().value(regionName);
    if (!region) {
        writeRefusal(
            request, QString::fromLatin1("cannot read the region named \"%3\" because it does not exists"),
            regionName);
        request->sendHttpError(NwaFcgiRequest::NotFound);
        delete request;
        return;
    }
    QString townName;
    if (request->singleQueryParameter(S_TOWN_FIELD_NAME, townName)) {
        processGetMethodForTown(request, region, townName);
        return;
    }
    sendJsonReply(request, regionToVariantMap(region));
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForTown(
    NwaFcgiRequest* request, const NTimeZoneRegion* region,
    QString townName) // NOLINT(performance-unnecessary-value-param): the signature is a fixed one.
{
    const NTimeZoneTown* const town = region->towns().value(townName);
    if (!town) {
        writeRefusal(
            request,
            QString::fromLatin1("cannot read the town named \"%3\" in region \"%4\" because it does not exists"),
            townName, region->name());
        request->sendHttpError(NwaFcgiRequest::NotFound);
        delete request;
        return;
    }
    sendJsonReply(request, townToVariantMap(town));
}

QVariantMap NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::townToVariantMap(const NTimeZoneTown* town) const
{
    QVariantMap document;
    document.insert(QString::fromLatin1("townName"), town->name());
    document.insert(QString::fromLatin1("timezoneCode"), town->timezoneCode());
    document.insert(QString::fromLatin1("countryCode"), town->countryCode());
    document.insert(QString::fromLatin1("latitude"), town->latitude());
    document.insert(QString::fromLatin1("longitude"), town->longitude());
    document.insert(QString::fromLatin1("comment"), town->comment());
    return document;
}

QVariantMap
NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::regionToVariantMap(const NTimeZoneRegion* region) const
{
    QVariantMap towns;
    const Towns& regionTowns = region->towns();
    for (Towns::const_iterator town = regionTowns.constBegin(); town != regionTowns.constEnd(); ++town)
        towns.insert(town.key(), townToVariantMap(town.value()));

    QVariantMap document;
    document.insert(QString::fromLatin1("regionName"), region->name());
    document.insert(QString::fromLatin1("towns"), towns);
    return document;
}

QVariantMap NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::timeZoneDatabaseContentToVariantMap() const
{
    QVariantMap document;
    const Regions& regions = m_database->regions();
    for (Regions::const_iterator region = regions.constBegin(); region != regions.constEnd(); ++region)
        document.insert(region.key(), regionToVariantMap(region.value()));
    return document;
}

QVariantMap
NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::timeZoneDatabaseMetaInformationToVariantMap() const
{
    QVariantMap document;
    document.insert(QString::fromLatin1("version"), m_database->version());
    document.insert(
        QString::fromLatin1("dateTime"),
        m_database->date().toString(QString::fromLatin1("yyyy-MM-dd'T'hh:mm:ss")));
    return document;
}

QVariantMap NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::timeZoneDatabaseToVariantMap() const
{
    QVariantMap document;
    document.insert(QString::fromLatin1("content"), timeZoneDatabaseContentToVariantMap());
    document.insert(QString::fromLatin1("information"), timeZoneDatabaseMetaInformationToVariantMap());
    return document;
}

bool NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::canReadDatabaseWithSession(NwaWebSession*) const
{
    return true;
}
