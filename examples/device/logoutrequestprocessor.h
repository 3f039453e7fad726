#ifndef DEMODEVICE_LOGOUTREQUESTPROCESSOR_H
#define DEMODEVICE_LOGOUTREQUESTPROCESSOR_H

#include "sessionrequestprocessor.h"

/** POST ends the session of the request. A request without a session succeeds as well. */
class LogoutRequestProcessor : public SessionRequestProcessor
{
public:
    using SessionRequestProcessor::SessionRequestProcessor;

protected:
    void processPostMethod(NwaFcgiRequest* request) override;
};

#endif
