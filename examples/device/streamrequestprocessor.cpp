#include "streamrequestprocessor.h"

#include <nwebapi/nwaeventstreams.h>

StreamRequestProcessor::StreamRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaEventStreams* streams)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_streams(streams)
{
}

void StreamRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (const NwaWebSession* const session = requireSession(request, PassiveRequest))
        m_streams->open(request, session);
}
