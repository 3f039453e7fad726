#ifndef DEMODEVICE_LOGOUTREQUESTPROCESSOR_H
#define DEMODEVICE_LOGOUTREQUESTPROCESSOR_H

#include "sessionrequestprocessor.h"

/** POST ends the session of the request. A client without a session is as logged out as it wants to be. */
class LogoutRequestProcessor : public SessionRequestProcessor
{
public:
    using SessionRequestProcessor::SessionRequestProcessor;

protected:
    void processPostMethod(NwaFcgiRequest* request) override;
};

#endif
