#include <nbase/network/nnetworkproxyparametersfcgiservice.h>

#include <nbase/network/nnetworkproxyparametersfcgirequestprocessor.h>

NNetworkProxyParametersFcgiService::NNetworkProxyParametersFcgiService(
    NwaAbstractFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
}

NNetworkProxyParametersFcgiService::NNetworkProxyParametersFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, NNetworkProxyParametersAccessor* accessor, QObject* parent)
    : NNetworkProxyParametersFcgiService(
          new NNetworkProxyParametersFcgiRequestProcessor(identifier, accessor), parent)
{
}

NNetworkProxyParametersFcgiService::~NNetworkProxyParametersFcgiService() {}
