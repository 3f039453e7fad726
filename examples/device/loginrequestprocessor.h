#ifndef DEMODEVICE_LOGINREQUESTPROCESSOR_H
#define DEMODEVICE_LOGINREQUESTPROCESSOR_H

#include "sessionrequestprocessor.h"

/**
 * POST with {"user": ..., "password": ...} makes a session, whose cookie the reply carries; wrong credentials are
 * answered 401. A real device would compare with a stored, salted hash and slow down guessing; here both are
 * public.
 */
class LoginRequestProcessor : public SessionRequestProcessor
{
public:
    using SessionRequestProcessor::SessionRequestProcessor;

protected:
    void processPostMethod(NwaFcgiRequest* request) override;
};

#endif
