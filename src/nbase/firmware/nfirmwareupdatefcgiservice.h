#ifndef NBASE_NFIRMWAREUPDATEFCGISERVICE_H
#define NBASE_NFIRMWAREUPDATEFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

class NFirmwareUpdateFcgiRequestProcessor;
class NRemovableMediasList;
class NSWUpdateInstaller;
class NSWUpdateProgressClient;
class NwaAbstractFcgiSessionIdentifier;

/**
 * The web service that installs firmware packages and reports the progress. For its requests see
 * NFirmwareUpdateFcgiRequestProcessor.
 */
class NBASE_EXPORT NFirmwareUpdateFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NFirmwareUpdateFcgiService(NFirmwareUpdateFcgiRequestProcessor* processor, QObject* parent);

    /** For the other parameters see NFirmwareUpdateFcgiRequestProcessor. */
    NFirmwareUpdateFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, NSWUpdateInstaller* installer,
        const NSWUpdateProgressClient* progressClient, const NRemovableMediasList* medias, QObject* parent);

    ~NFirmwareUpdateFcgiService() override;

signals:
    /** See NFirmwareUpdateFcgiRequestProcessor::firmwareUpdateEvent(). */
    void firmwareUpdateEvent();

private:
    Q_DISABLE_COPY(NFirmwareUpdateFcgiService)
};

#endif
