#include <nbase/web/nbuildrootuclibctimezonedatabasefcgirequestprocessor.h>

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>
#include <nbase/time/ntimezoneregion.h>
#include <nbase/time/ntimezonetown.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajson.h>

#include <nsystem/nlatin1_p.h>

namespace {

typedef QMap<QString, NTimeZoneTown*> Towns;
typedef QMap<QString, NTimeZoneRegion*> Regions;

} // namespace

const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_SECTION_FIELD_NAME = latin1("section");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_INFORMATION_SECTION_NAME =
    latin1("information");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_CONTENT_SECTION_NAME = latin1("content");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_REGION_FIELD_NAME = latin1("region");
const QString NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::S_TOWN_FIELD_NAME = latin1("town");

NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NBuildrootUclibcTimeZoneDatabase* database)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_database(database)
{
}

NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::~NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor() {}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    NwaWebSession* const session = requireSession(
        request, this, &NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::canReadDatabaseWithSession);
    if (!session)
        return;
    QString section;
    request->singleQueryParameter(S_SECTION_FIELD_NAME, section);
    if (section == S_INFORMATION_SECTION_NAME)
        return processGetMethodForInformationSection(request);
    if (section == S_CONTENT_SECTION_NAME)
        return processGetMethodForContentSection(request);
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
    if (request->singleQueryParameter(S_REGION_FIELD_NAME, regionName))
        return processGetMethodForRegion(request, regionName);
    if (m_contentDocument.isNull())
        m_contentDocument = NwaJson::serialize(timeZoneDatabaseContentToVariantMap());
    sendJsonDocument(request, m_contentDocument);
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForRegion(
    NwaFcgiRequest* request, const QString& regionName)
{
    const NTimeZoneRegion* const region = m_database->regions().value(regionName);
    if (!region)
        return refuseRequest(
            request, NwaFcgiRequest::NotFound,
            latin1("cannot read the region named \"%3\" because it does not exists"), regionName);
    QString townName;
    if (request->singleQueryParameter(S_TOWN_FIELD_NAME, townName))
        return processGetMethodForTown(request, region, townName);
    sendJsonReply(request, regionToVariantMap(region));
}

void NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::processGetMethodForTown(
    NwaFcgiRequest* request, const NTimeZoneRegion* region,
    QString townName) // NOLINT(performance-unnecessary-value-param): the signature is fixed.
{
    const NTimeZoneTown* const town = region->towns().value(townName);
    if (!town)
        return refuseRequest(
            request, NwaFcgiRequest::NotFound,
            latin1("cannot read the town named \"%3\" in region \"%4\" because it does not exists"), townName,
            region->name());
    sendJsonReply(request, townToVariantMap(town));
}

QVariantMap NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::townToVariantMap(const NTimeZoneTown* town) const
{
    QVariantMap document;
    document.insert(latin1("townName"), town->name());
    document.insert(latin1("timezoneCode"), town->timezoneCode());
    document.insert(latin1("countryCode"), town->countryCode());
    document.insert(latin1("latitude"), town->latitude());
    document.insert(latin1("longitude"), town->longitude());
    document.insert(latin1("comment"), town->comment());
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
    document.insert(latin1("regionName"), region->name());
    document.insert(latin1("towns"), towns);
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
    document.insert(latin1("version"), m_database->version());
    document.insert(latin1("dateTime"), m_database->date().toString(latin1("yyyy-MM-dd'T'hh:mm:ss")));
    return document;
}

QVariantMap NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::timeZoneDatabaseToVariantMap() const
{
    QVariantMap document;
    document.insert(latin1("content"), timeZoneDatabaseContentToVariantMap());
    document.insert(latin1("information"), timeZoneDatabaseMetaInformationToVariantMap());
    return document;
}

bool NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor::canReadDatabaseWithSession(NwaWebSession*) const
{
    return true;
}
