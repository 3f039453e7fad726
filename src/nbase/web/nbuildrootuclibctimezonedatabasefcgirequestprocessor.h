#ifndef NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASEFCGIREQUESTPROCESSOR_H
#define NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASEFCGIREQUESTPROCESSOR_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariant>

class NBuildrootUclibcTimeZoneDatabase;
class NTimeZoneRegion;
class NTimeZoneTown;

/**
 * Answers GET requests with the time zone database as JSON. The query string selects the part:
 *
 * | query                             | document                                     |
 * |-----------------------------------|----------------------------------------------|
 * | none, or anything not listed here | the whole database: "content", "information" |
 * | section=information               | "version" and "dateTime" of the database     |
 * | section=content                   | all regions with their towns                 |
 * | section=content&region=R          | the region R with its towns                  |
 * | section=content&region=R&town=T   | the town T of R                              |
 *
 * R and T are names in the file system ("America", "Argentina/Buenos_Aires"). A parameter that occurs more than
 * once is ignored. A region or town that does not exist is answered 404, with the reason on the request's error
 * stream.
 */
class NBASE_EXPORT NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    static const QString S_SECTION_FIELD_NAME;       ///< "section"
    static const QString S_INFORMATION_SECTION_NAME; ///< "information"
    static const QString S_CONTENT_SECTION_NAME;     ///< "content"
    static const QString S_REGION_FIELD_NAME;        ///< "region"
    static const QString S_TOWN_FIELD_NAME;          ///< "town"

    /**
     * @param identifier finds the session of a request; not owned.
     * @param database what is served; not owned, and must outlive the processor.
     */
    NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, const NBuildrootUclibcTimeZoneDatabase* database);
    ~NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor() override;

    /** The document of one town. */
    QVariantMap townToVariantMap(const NTimeZoneTown* town) const;

    /** The document of one region with its towns, by their names in the file system. */
    QVariantMap regionToVariantMap(const NTimeZoneRegion* region) const;

    /** The document of all regions, by their names in the file system. */
    QVariantMap timeZoneDatabaseContentToVariantMap() const;

    /** The document of the database's version and date; "dateTime" is local time, empty when the date is unknown.
     */
    QVariantMap timeZoneDatabaseMetaInformationToVariantMap() const;

    /** The document of the whole database. */
    QVariantMap timeZoneDatabaseToVariantMap() const;

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

public:
    /** Whether the user of @a session may read the database: every user, unless a derived class says otherwise. */
    virtual bool canReadDatabaseWithSession(NwaWebSession* session) const;

private:
    Q_DISABLE_COPY(NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor)

    void processGetMethodForInformationSection(NwaFcgiRequest* request);
    void processGetMethodForContentSection(NwaFcgiRequest* request);
    void processGetMethodForRegion(NwaFcgiRequest* request, const QString& regionName);
    void processGetMethodForTown(NwaFcgiRequest* request, const NTimeZoneRegion* region, QString townName);

    const NBuildrootUclibcTimeZoneDatabase* m_database;

    // The documents that are requested most, made on the first request for each: the database never changes, and
    // making even the smallest takes as long as the rest of a request.
    QByteArray m_informationDocument;
    QByteArray m_contentDocument;
    QByteArray m_databaseDocument;
};

#endif
