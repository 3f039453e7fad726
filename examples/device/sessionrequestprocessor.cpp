#include "sessionrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

SessionRequestProcessor::SessionRequestProcessor(
    NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_identifier(identifier)
    , m_sessions(sessions)
{
    setServedMethods(PostMethod);
}

void SessionRequestProcessor::endSessionOf(NwaFcgiRequest* request)
{
    if (NwaWebSession* const session = m_identifier->identifySession(request, true))
        m_sessions->removeSession(session->id());
}
