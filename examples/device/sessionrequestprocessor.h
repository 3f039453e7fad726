#ifndef DEMODEVICE_SESSIONREQUESTPROCESSOR_H
#define DEMODEVICE_SESSIONREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NwaCookieFcgiSessionIdentifier;
class NwaWebSessionManager;

/** The base of what makes and ends sessions; POST is all that it answers. */
class SessionRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /** Both must live longer. */
    SessionRequestProcessor(NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions);

protected:
    NwaCookieFcgiSessionIdentifier* identifier() const { return m_identifier; }
    NwaWebSessionManager* sessions() const { return m_sessions; }

    /** Ends the session of the request, if it has one. */
    void endSessionOf(NwaFcgiRequest* request);

private:
    NwaCookieFcgiSessionIdentifier* m_identifier;
    NwaWebSessionManager* m_sessions;
};

#endif
