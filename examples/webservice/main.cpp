// A web service on libnwebapi alone: a login that makes a session, and a greeting that only users who have logged
// in may read and change.
//
//     nwebapi-example-webservice <path of the socket>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwastandardfcgirequestprocessor.h>
#include <nwebapi/nwastandardfcgiservice.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <ostream>
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
        bool ok = false;
        const QVariant document = parseJsonContent(request, &ok);
        if (!ok) {
            delete request; // it has been answered
            return;
        }
        QVariantMap object;
        QString user;
        QString password;
        if (!NwaJsonUtilities::objectValue(document, object) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("user"), user) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("password"), password))
            return refuse(request, NwaFcgiRequest::BadRequest);
        // Whoever knocks at the door writes no more than this into the web server's log.
        if (user.size() > LongestUserName)
            return refuse(request, NwaFcgiRequest::BadRequest);
        // A real device compares with a salted hash that it has stored.
        if (user != QLatin1String("demo") || password != QLatin1String("demo")) {
            writeRefusal(request, QString::fromLatin1("The login of \"%3\" failed."), user);
            return refuse(request, NwaFcgiRequest::Unauthorized);
        }

        NwaWebSession* session = m_sessionManager->createSession();
        if (!session)
            return refuse(request, NwaFcgiRequest::ServiceUnavailable);
        session->setUserName(user);
        NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
        m_identifier->addSessionCookie(request, session, header);
        request->outputStream() << header << "{}";
        delete request;
    }

    void processDeleteMethod(NwaFcgiRequest* request) override
    {
        if (NwaWebSession* session = authenticateRequest(request, false)) {
            NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
            m_identifier->addExpiredCookie(request, header);
            request->outputStream() << header << "{}";
            m_sessionManager->removeSession(session->id());
        }
        delete request;
    }

private:
    static void refuse(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error)
    {
        request->sendHttpError(error);
        delete request;
    }

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
        if (NwaWebSession* session = authenticateRequest(request, false))
            sendGreeting(request, session);
        else
            delete request;
    }

    void processPutMethod(NwaFcgiRequest* request) override
    {
        NwaWebSession* session = authenticateRequest(request, false);
        bool ok = false;
        const QVariant document = session ? parseJsonContent(request, &ok) : QVariant();
        if (!ok) {
            delete request; // it has been answered
            return;
        }
        QVariantMap object;
        if (!NwaJsonUtilities::objectValue(document, object) ||
            !NwaJsonUtilities::stringValue(object, QString::fromLatin1("greeting"), m_greeting)) {
            writeRefusal(request, QString::fromLatin1("There is no greeting in the document."));
            request->sendHttpError(NwaFcgiRequest::BadRequest);
            delete request;
            return;
        }
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
