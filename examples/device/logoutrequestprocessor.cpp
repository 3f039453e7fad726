#include "logoutrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>

#include <ostream>

void LogoutRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    endSessionOf(request);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    identifier()->addExpiredCookie(request, header);
    request->outputStream() << header << "{}";
    delete request;
}
