#include "loginrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <ostream>

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
    bool ok = false;
    const QVariant document = parseJsonContent(request, &ok);
    QString user;
    QString password;
    if (!ok || !readCredentials(document, user, password)) {
        request->sendHttpError(NwaFcgiRequest::BadRequest);
        delete request;
        return;
    }
    if (user != QLatin1String(DemoUser) || password != QLatin1String(DemoPassword)) {
        request->sendHttpError(NwaFcgiRequest::Unauthorized);
        delete request;
        return;
    }
    // A session from before the login ends: nobody who has learnt its identifier comes in with this user.
    endSessionOf(request);
    NwaWebSession* const session = sessions()->createSession();
    if (!session) {
        request->sendHttpError(NwaFcgiRequest::ServiceUnavailable);
        delete request;
        return;
    }
    session->setUserName(user);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    identifier()->addSessionCookie(request, session, header);
    QVariantMap reply;
    reply.insert(QString::fromLatin1("user"), user);
    const QByteArray text = NwaJson::serialize(reply);
    request->outputStream() << header;
    request->outputStream().write(text.constData(), text.size());
    delete request;
}
