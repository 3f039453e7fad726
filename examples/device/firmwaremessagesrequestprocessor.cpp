#include "firmwaremessagesrequestprocessor.h"

#include "firmwareevents.h"

FirmwareMessagesRequestProcessor::FirmwareMessagesRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const FirmwareEvents* events)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_events(events)
{
}

void FirmwareMessagesRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (requireSession(request, PassiveRequest))
        sendJsonReply(request, m_events->messages());
}
