// A web service on libnwebapi alone: a login that makes a session, and a greeting that only users who have logged
// in may read and change.
//
//     nwebapi-example-webservice <path of the socket>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwastandardfcgirequestprocessor.h>
#include <nwebapi/nwastandardfcgiservice.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <stdio.h>

namespace {

const int LongestUserName = 64;

// POST {"user": "...", "password": "..."} makes a session, DELETE ends it.
class LoginRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    LoginRequestProcessor(NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessionManager)
        : NwaStandardFcgiRequestProcessor(identifier)
        , m_identifier(identifier)
        , m_sessionManager(sessionManager)
    {
        setServedMethods(PostMethod | DeleteMethod);
    }

protected:
    void processPostMethod(NwaFcgiRequest* request) override
    {
        QVariant document;
        if (!requireJsonContent(request, document))
            return;
        QVariantMap object;
        QString user;
        QString password;
        if (!NwaJsonUtilities::objectValue(document, object) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("user"), user) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("password"), password))
            return refuseRequest(request, NwaFcgiRequest::BadRequest);
        // Anybody may try to log in, so what a try can write into the web server's log is limited.
        if (user.size() > LongestUserName)
            return refuseRequest(request, NwaFcgiRequest::BadRequest);
        // A real device compares with a salted hash that it has stored.
        if (user != QLatin1String("demo") || password != QLatin1String("demo"))
            return refuseRequest(
                request, NwaFcgiRequest::Unauthorized, QString::fromLatin1("The login of \"%3\" failed."), user);

        NwaWebSession* session = m_sessionManager->createSession();
        if (!session)
            return refuseRequest(request, NwaFcgiRequest::ServiceUnavailable);
        session->setUserName(user);
        NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
        m_identifier->addSessionCookie(request, session, header);
        sendJsonReply(request, QVariantMap(), header);
    }

    void processDeleteMethod(NwaFcgiRequest* request) override
    {
        NwaWebSession* const session = requireSession(request);
        if (!session)
            return;
        m_sessionManager->removeSession(session->id());
        NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
        m_identifier->addExpiredCookie(request, header);
        sendJsonReply(request, QVariantMap(), header);
    }

private:
    NwaCookieFcgiSessionIdentifier* m_identifier;
    NwaWebSessionManager* m_sessionManager;
};

// GET gives {"user": "...", "greeting": "..."}, PUT {"greeting": "..."} changes it.
class GreetingRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit GreetingRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier)
        : NwaStandardFcgiRequestProcessor(identifier)
        , m_greeting(QString::fromLatin1("Hello"))
    {
        setServedMethods(GetMethod | PutMethod);
    }

protected:
    void processGetMethod(NwaFcgiRequest* request) override
    {
        if (const NwaWebSession* const session = requireSession(request))
            sendGreeting(request, session);
    }

    void processPutMethod(NwaFcgiRequest* request) override
    {
        const NwaWebSession* const session = requireSession(request);
        QVariant document;
        if (!session || !requireJsonContent(request, document))
            return;
        QVariantMap object;
        if (!NwaJsonUtilities::objectValue(document, object) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("greeting"), m_greeting))
            return refuseRequest(
                request, NwaFcgiRequest::BadRequest, QString::fromLatin1("There is no greeting in the document."));
        sendGreeting(request, session);
    }

private:
    void sendGreeting(NwaFcgiRequest* request, const NwaWebSession* session) const
    {
        QVariantMap document;
        document.insert(QString::fromLatin1("user"), session->userName());
        document.insert(QString::fromLatin1("greeting"), m_greeting);
        sendJsonReply(request, document);
    }

    QString m_greeting;
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    if (application.arguments().size() != 2) {
        fprintf(stderr, "usage: %s <path of the socket>\n", argv[0]);
        return 2;
    }

    NwaWebSessionManager sessionManager;
    NwaCookieFcgiSessionIdentifier identifier(&sessionManager);
    NwaStandardFcgiService login(new LoginRequestProcessor(&identifier, &sessionManager), nullptr);
    NwaStandardFcgiService greeting(new GreetingRequestProcessor(&identifier), nullptr);

    NwaFcgiServer server;
    server.registerService(QString::fromLatin1("/api/login"), &login);
    server.registerService(QString::fromLatin1("/api/greeting"), &greeting);
    if (!server.listenOnPath(application.arguments().at(1))) {
        fprintf(stderr, "%s\n", server.errorString().toLocal8Bit().constData());
        return 1;
    }
    return application.exec();
}
