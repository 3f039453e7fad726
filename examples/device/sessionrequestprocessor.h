#ifndef DEMODEVICE_SESSIONREQUESTPROCESSOR_H
#define DEMODEVICE_SESSIONREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NwaCookieFcgiSessionIdentifier;
class NwaWebSessionManager;

/** The base of the processors that make and end sessions; they serve POST only. */
class SessionRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /** Both must outlive the processor. */
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
