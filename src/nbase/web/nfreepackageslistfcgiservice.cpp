#include <nbase/web/nfreepackageslistfcgiservice.h>

#include <nbase/web/nfreepackageslistfcgirequestprocessor.h>

NFreePackagesListFcgiService::NFreePackagesListFcgiService(
    NwaAbstractFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
}

NFreePackagesListFcgiService::NFreePackagesListFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, const NFreePackagesList* list, QObject* parent)
    : NFreePackagesListFcgiService(new NFreePackagesListFcgiRequestProcessor(identifier, list), parent)
{
}

NFreePackagesListFcgiService::~NFreePackagesListFcgiService() {}
