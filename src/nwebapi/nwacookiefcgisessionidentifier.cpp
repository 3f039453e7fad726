#include <nwebapi/nwacookiefcgisessionidentifier.h>

#include <nwebapi/nwaabstracthttpheader.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpgrammar_p.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QList>
#include <QtCore/QUuid>

namespace {

const int uuidLength = 36;

bool isHexadecimalDigit(char character)
{
    return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f') ||
           (character >= 'A' && character <= 'F');
}

bool isUuid(const QByteArray& text)
{
    if (text.size() != uuidLength)
        return false;
    for (int index = 0; index < uuidLength; ++index) {
        const bool isHyphenPlace = index == 8 || index == 13 || index == 18 || index == 23;
        if (isHyphenPlace ? text.at(index) != '-' : !isHexadecimalDigit(text.at(index)))
            return false;
    }
    return true;
}

// The identifier in a cookie's value; null when the value is not an identifier.
QUuid identifierFromCookie(const QByteArray& value)
{
    return isUuid(value) ? QUuid(QString::fromLatin1('{' + value + '}')) : QUuid();
}

QByteArray cookieFromIdentifier(const QUuid& id)
{
    return id.toString().mid(1, uuidLength).toLatin1();
}

bool isSentOverTls(const NwaFcgiRequest* request)
{
    return NwaHttpGrammar::equals(request->variable("HTTPS"), "on") ||
           NwaHttpGrammar::equals(request->variable("REQUEST_SCHEME"), "https");
}

} // namespace

NwaCookieFcgiSessionIdentifier::NwaCookieFcgiSessionIdentifier(
    NwaWebSessionManager* manager, const QByteArray& cookieName)
    : m_manager(manager)
    , m_cookieName(cookieName)
{
}

NwaCookieFcgiSessionIdentifier::~NwaCookieFcgiSessionIdentifier() {}

NwaWebSession* NwaCookieFcgiSessionIdentifier::identifySession(NwaFcgiRequest* request, bool passive)
{
    // RFC 6265, section 4.2.1: name=value; name=value. A name can occur more than once, for different paths or
    // hosts.
    const QList<QByteArray> cookies = request->variable("HTTP_COOKIE").split(';');
    for (int index = 0; index < cookies.size(); ++index) {
        const QByteArray cookie = NwaHttpGrammar::trimmed(cookies.at(index));
        if (!cookie.startsWith(m_cookieName + '='))
            continue;
        NwaWebSession* session = m_manager->session(identifierFromCookie(cookie.mid(m_cookieName.size() + 1)));
        if (!session)
            continue;
        if (!passive)
            m_manager->keepAlive(session);
        return session;
    }
    return nullptr;
}

void NwaCookieFcgiSessionIdentifier::addSessionCookie(
    const NwaFcgiRequest* request, const NwaWebSession* session, NwaAbstractHttpHeader& header) const
{
    addCookie(request, cookieFromIdentifier(session->id()), QByteArray(), header);
}

void NwaCookieFcgiSessionIdentifier::addExpiredCookie(
    const NwaFcgiRequest* request, NwaAbstractHttpHeader& header) const
{
    addCookie(request, QByteArray(), "; Max-Age=0; Expires=Thu, 01 Jan 1970 00:00:00 GMT", header);
}

// Without a lifetime the browser deletes the cookie when it is closed.
void NwaCookieFcgiSessionIdentifier::addCookie(
    const NwaFcgiRequest* request, const QByteArray& value, const QByteArray& lifetime,
    NwaAbstractHttpHeader& header) const
{
    const QByteArray secure(isSentOverTls(request) ? "; Secure" : "");
    header.addField(
        "Set-Cookie", m_cookieName + '=' + value + "; Path=/; HttpOnly; SameSite=Strict" + secure + lifetime);
}
