#ifndef NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASEFCGISERVICE_H
#define NBASE_NBUILDROOTUCLIBCTIMEZONEDATABASEFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

class NBuildrootUclibcTimeZoneDatabase;
class NwaAbstractFcgiRequestProcessor;
class NwaAbstractFcgiSessionIdentifier;

/**
 * The web service that makes the time zone database available, read-only. For its replies see
 * NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor.
 */
class NBASE_EXPORT NBuildrootUclibcTimeZoneDatabaseFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NBuildrootUclibcTimeZoneDatabaseFcgiService(NwaAbstractFcgiRequestProcessor* processor, QObject* parent);

    /**
     * @param identifier finds the session of a request; not owned.
     * @param database what is served; not owned, and must outlive the service.
     */
    NBuildrootUclibcTimeZoneDatabaseFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, const NBuildrootUclibcTimeZoneDatabase* database,
        QObject* parent);

    ~NBuildrootUclibcTimeZoneDatabaseFcgiService() override;

private:
    Q_DISABLE_COPY(NBuildrootUclibcTimeZoneDatabaseFcgiService)
};

#endif
