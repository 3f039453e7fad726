#include <nbase/firmware/nfirmwareupdatefcgiservice.h>

#include <nbase/firmware/nfirmwareupdatefcgirequestprocessor.h>

NFirmwareUpdateFcgiService::NFirmwareUpdateFcgiService(
    NFirmwareUpdateFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
    connect(processor, SIGNAL(firmwareUpdateEvent()), SIGNAL(firmwareUpdateEvent()));
}

NFirmwareUpdateFcgiService::NFirmwareUpdateFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, NSWUpdateInstaller* installer,
    const NSWUpdateProgressClient* progressClient, const NRemovableMediasList* medias, QObject* parent)
    : NFirmwareUpdateFcgiService(
          new NFirmwareUpdateFcgiRequestProcessor(identifier, installer, progressClient, medias, nullptr), parent)
{
}

NFirmwareUpdateFcgiService::~NFirmwareUpdateFcgiService() {}
