#ifndef DEMODEVICE_LOGINREQUESTPROCESSOR_H
#define DEMODEVICE_LOGINREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NwaCookieFcgiSessionIdentifier;
class NwaWebSessionManager;

/**
 * POST with {"user": ..., "password": ...} makes a session, whose cookie the reply carries; wrong credentials are
 * answered 401. A real device would compare with a stored, salted hash and slow down whoever guesses; here
 * everybody may know both.
 */
class LoginRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    LoginRequestProcessor(NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions);

protected:
    virtual void processPostMethod(NwaFcgiRequest* request);

private:
    NwaCookieFcgiSessionIdentifier* m_identifier;
    NwaWebSessionManager* m_sessions;
};

#endif
