#include "loginrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

namespace {

const char DemoUser[] = "demo";
const char DemoPassword[] = "demo";

bool readCredentials(const QVariant& document, QString& user, QString& password)
{
    QVariantMap object;
    return NwaJsonUtilities::objectValue(document, object) &&
           NwaJsonUtilities::stringValue(object, QString::fromLatin1("user"), user) &&
           NwaJsonUtilities::stringValue(object, QString::fromLatin1("password"), password);
}

} // namespace

void LoginRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return;
    QString user;
    QString password;
    if (!readCredentials(document, user, password))
        return refuseRequest(request, NwaFcgiRequest::BadRequest);
    if (user != QLatin1String(DemoUser) || password != QLatin1String(DemoPassword))
        return refuseRequest(request, NwaFcgiRequest::Unauthorized);
    // A session from before the login ends, so that nobody who knows its identifier shares the new one.
    endSessionOf(request);
    NwaWebSession* const session = sessions()->createSession();
    if (!session)
        return refuseRequest(request, NwaFcgiRequest::ServiceUnavailable);
    session->setUserName(user);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    identifier()->addSessionCookie(request, session, header);
    QVariantMap reply;
    reply.insert(QString::fromLatin1("user"), user);
    sendJsonReply(request, reply, header);
}
