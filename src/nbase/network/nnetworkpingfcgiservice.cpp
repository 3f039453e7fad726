#include <nbase/network/nnetworkpingfcgiservice.h>

#include <nbase/network/nnetworkpingfcgirequestprocessor.h>

NNetworkPingFcgiService::NNetworkPingFcgiService(NNetworkPingFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
    connect(processor, SIGNAL(pingEvent(QUuid,const NNetworkPing*)), SIGNAL(pingEvent(QUuid,const NNetworkPing*)));
}

NNetworkPingFcgiService::NNetworkPingFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent)
    : NNetworkPingFcgiService(new NNetworkPingFcgiRequestProcessor(identifier, sessions, nullptr), parent)
{
}

NNetworkPingFcgiService::~NNetworkPingFcgiService() {}
