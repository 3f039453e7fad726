#include <nbase/network/nnetworkproxyparametersfcgirequestprocessor.h>

#include <nbase/network/nnetworkproxyparametersaccessor.h>

#include <nwebapi/nwafcgirequest.h>

#include <nsystem/nlatin1_p.h>

NNetworkProxyParametersFcgiRequestProcessor::NNetworkProxyParametersFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NNetworkProxyParametersAccessor* accessor)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_accessor(accessor)
{
    setServedMethods(GetMethod | PutMethod);
}

NNetworkProxyParametersFcgiRequestProcessor::~NNetworkProxyParametersFcgiRequestProcessor() {}

void NNetworkProxyParametersFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    const NwaWebSession* const session =
        requireSession(request, m_accessor, &NNetworkProxyParametersAccessor::canReadParametersWithSession);
    if (session)
        sendJsonReply(request, m_accessor->parametersAsVariant(session));
}

void NNetworkProxyParametersFcgiRequestProcessor::processPutMethod(NwaFcgiRequest* request)
{
    const NwaWebSession* const session =
        requireSession(request, m_accessor, &NNetworkProxyParametersAccessor::canSetParametersWithSession);
    if (session && setParametersFromRequest(request))
        sendJsonReply(request, m_accessor->parametersAsVariant(session));
}

// On failure the request has been answered and deleted.
bool NNetworkProxyParametersFcgiRequestProcessor::setParametersFromRequest(NwaFcgiRequest* request)
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return false;
    bool invalidParameter = false;
    if (m_accessor->setParametersFromVariant(document, invalidParameter))
        return true;
    if (invalidParameter)
        refuseRequest(request, NwaFcgiRequest::BadRequest);
    else
        refuseRequest(
            request, NwaFcgiRequest::InternalServerError, latin1("network proxy's parameters setting fails"));
    return false;
}
