#ifndef NWEBAPI_NWACOOKIEFCGISESSIONIDENTIFIER_H
#define NWEBAPI_NWACOOKIEFCGISESSIONIDENTIFIER_H

#include <nwebapi/nwaabstractfcgisessionidentifier.h>

#include <QtCore/QByteArray>

class NwaAbstractHttpHeader;
class NwaWebSessionManager;

/**
 * Finds the session of a request by a cookie (RFC 6265) that holds the session's identifier. The cookie is
 * "HttpOnly" and "SameSite=Strict", and "Secure" when the request came over TLS.
 */
class NWEBAPI_EXPORT NwaCookieFcgiSessionIdentifier : public NwaAbstractFcgiSessionIdentifier
{
public:
    /**
     * @param manager holds the sessions; not owned.
     * @param cookieName a token (RFC 6265, section 4.1.1).
     */
    explicit NwaCookieFcgiSessionIdentifier(
        NwaWebSessionManager* manager, const QByteArray& cookieName = QByteArray("session"));
    ~NwaCookieFcgiSessionIdentifier() override;

    NwaWebSession* identifySession(NwaFcgiRequest* request, bool passive) override;

    /** Adds the cookie that carries @a session to @a header, the header of the reply to @a request. */
    void addSessionCookie(
        const NwaFcgiRequest* request, const NwaWebSession* session, NwaAbstractHttpHeader& header) const;

    /** Adds a cookie that makes the browser delete the session's to @a header, the header of the reply to @a
     * request. */
    void addExpiredCookie(const NwaFcgiRequest* request, NwaAbstractHttpHeader& header) const;

private:
    Q_DISABLE_COPY(NwaCookieFcgiSessionIdentifier)

    void addCookie(
        const NwaFcgiRequest* request, const QByteArray& value, const QByteArray& lifetime,
        NwaAbstractHttpHeader& header) const;

    NwaWebSessionManager* m_manager;
    QByteArray m_cookieName;
};

#endif
