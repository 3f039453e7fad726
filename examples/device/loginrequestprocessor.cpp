#include "loginrequestprocessor.h"

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwalogtext.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

namespace {

const char DemoUser[] = "demo";
const char DemoPassword[] = "demo";

const int TooManyRequests = 429; // RFC 6585
const int LongestLoggedName = 64;

bool readCredentials(const QVariant& document, QString& user, QString& password)
{
    QVariantMap object;
    return NwaJsonUtilities::objectValue(document, object) &&
           NwaJsonUtilities::stringValue(object, QString::fromLatin1("user"), user) &&
           NwaJsonUtilities::stringValue(object, QString::fromLatin1("password"), password);
}

} // namespace

LoginRequestProcessor::LoginRequestProcessor(
    NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions)
    : SessionRequestProcessor(identifier, sessions)
{
    m_clock.start();
    m_timer.setSingleShot(true);
    connect(&m_timer, SIGNAL(timeout()), this, SLOT(finishDueLogins()));
}

LoginRequestProcessor::~LoginRequestProcessor()
{
    const QList<Login> logins = m_waiting.values();
    for (const Login& login : logins)
        refuseRequest(login.request, NwaFcgiRequest::ServiceUnavailable);
}

void LoginRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return;
    Login login;
    login.request = request;
    login.address = QString::fromLatin1(request->variable("REMOTE_ADDR"));
    if (!readCredentials(document, login.user, login.password))
        return refuseRequest(request, NwaFcgiRequest::BadRequest);

    const int delay = m_throttle.begin(login.address);
    if (delay < 0)
        return refuseForNow(request);
    if (delay == 0)
        return finish(login);
    m_waiting.insert(m_clock.elapsed() + delay, login);
    startTimer();
}

void LoginRequestProcessor::refuseForNow(NwaFcgiRequest* request)
{
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    header.setStatus(TooManyRequests);
    header.addField("Retry-After", QByteArray::number(LoginThrottle::LongestDelay / 1000));
    QVariantMap document;
    document.insert(
        QString::fromLatin1("message"),
        QString::fromLatin1("Too many attempts to sign in wait already. Try again in a few seconds."));
    sendJsonReply(request, document, header);
}

void LoginRequestProcessor::finishDueLogins()
{
    while (!m_waiting.isEmpty() && m_waiting.constBegin().key() <= m_clock.elapsed())
        finish(m_waiting.take(m_waiting.constBegin().key()));
    startTimer();
}

void LoginRequestProcessor::startTimer()
{
    if (!m_waiting.isEmpty())
        m_timer.start(int(qMax<qint64>(0, m_waiting.constBegin().key() - m_clock.elapsed())));
}

void LoginRequestProcessor::finish(const Login& login)
{
    const bool isRight = login.user == QLatin1String(DemoUser) && login.password == QLatin1String(DemoPassword);
    const int failures = m_throttle.end(login.address, isRight);
    if (isRight)
        return acceptLogin(login);
    const QString user = NwaLogText::fromClient(login.user.left(LongestLoggedName));
    qWarning(
        "wrong user name or password for \"%s\" from %s, %d in a row", user.toUtf8().constData(),
        login.address.toLatin1().constData(), failures);
    refuseRequest(login.request, NwaFcgiRequest::Unauthorized);
}

void LoginRequestProcessor::acceptLogin(const Login& login)
{
    // A session from before the login ends, so that nobody who knows its identifier shares the new one.
    endSessionOf(login.request);
    NwaWebSession* const session = sessions()->createSession();
    if (!session)
        return refuseRequest(login.request, NwaFcgiRequest::ServiceUnavailable);
    session->setUserName(login.user);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    identifier()->addSessionCookie(login.request, session, header);
    QVariantMap reply;
    reply.insert(QString::fromLatin1("user"), login.user);
    sendJsonReply(login.request, reply, header);
}
