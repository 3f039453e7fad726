#ifndef NBASE_NFREEPACKAGESLISTFCGISERVICE_H
#define NBASE_NFREEPACKAGESLISTFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

class NFreePackagesList;
class NwaAbstractFcgiRequestProcessor;
class NwaAbstractFcgiSessionIdentifier;

/**
 * The web service that makes the list of open-source packages available, read-only. For its replies see
 * NFreePackagesListFcgiRequestProcessor.
 */
class NBASE_EXPORT NFreePackagesListFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NFreePackagesListFcgiService(NwaAbstractFcgiRequestProcessor* processor, QObject* parent);

    /**
     * @param identifier finds the session of a request; not owned.
     * @param list what is served; not owned, and must outlive the service.
     */
    NFreePackagesListFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, const NFreePackagesList* list, QObject* parent);

    ~NFreePackagesListFcgiService() override;

private:
    Q_DISABLE_COPY(NFreePackagesListFcgiService)
};

#endif
