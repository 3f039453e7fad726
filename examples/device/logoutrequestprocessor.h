#ifndef DEMODEVICE_LOGOUTREQUESTPROCESSOR_H
#define DEMODEVICE_LOGOUTREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NwaCookieFcgiSessionIdentifier;
class NwaWebSessionManager;

/** POST ends the session of the request. A client without a session is as logged out as it wants to be. */
class LogoutRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    LogoutRequestProcessor(NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions);

protected:
    virtual void processPostMethod(NwaFcgiRequest* request);

private:
    NwaCookieFcgiSessionIdentifier* m_identifier;
    NwaWebSessionManager* m_sessions;
};

#endif
