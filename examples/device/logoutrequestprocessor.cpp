#include "logoutrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwahttpjsonheader.h>

void LogoutRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    endSessionOf(request);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    identifier()->addExpiredCookie(request, header);
    sendJsonReply(request, QVariantMap(), header);
}
