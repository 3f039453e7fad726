#include <nbase/network/nnetworktraceroutefcgiservice.h>

#include <nbase/network/nnetworktraceroutefcgirequestprocessor.h>

NNetworkTracerouteFcgiService::NNetworkTracerouteFcgiService(
    NNetworkTracerouteFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
    connect(
        processor, SIGNAL(tracerouteEvent(QUuid,const NNetworkTraceroute*)),
                          SIGNAL(tracerouteEvent(QUuid,const NNetworkTraceroute*)));
}

NNetworkTracerouteFcgiService::NNetworkTracerouteFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent)
    : NNetworkTracerouteFcgiService(
          new NNetworkTracerouteFcgiRequestProcessor(identifier, sessions, nullptr), parent)
{
}

NNetworkTracerouteFcgiService::~NNetworkTracerouteFcgiService() {}
