#include "logoutrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <ostream>

LogoutRequestProcessor::LogoutRequestProcessor(
    NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_identifier(identifier)
    , m_sessions(sessions)
{
    setServedMethods(PostMethod);
}

void LogoutRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    if (NwaWebSession* const session = m_identifier->identifySession(request, true))
        m_sessions->removeSession(session->id());
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    m_identifier->addExpiredCookie(request, header);
    request->outputStream() << header << "{}";
    delete request;
}
