#ifndef NWEBAPI_NWAFCGIREQUEST_H
#define NWEBAPI_NWAFCGIREQUEST_H

#include <nwebapi/nwacgirequest.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPair>
#include <QtCore/QScopedPointer>

class NwaFcgiChannel;
class NwaFcgiRequestStreams;

/**
 * A request that arrived over FastCGI. The service that receives it owns it, answers it at once or later, and
 * deletes it; deleting it completes the reply. A request that is deleted without an answer is answered 500. Of a
 * reply to HEAD only the header is sent.
 *
 * A request with a body of the type "multipart/form-data" is dispatched before the body has arrived, and
 * bodyAvailable() reports further parts of it. Every other body has arrived completely.
 */
class NWEBAPI_EXPORT NwaFcgiRequest : public QObject, public NwaCgiRequest
{
    Q_OBJECT

public:
    /** The refusals that services send; the values are the HTTP status numbers (RFC 9110, section 15). */
    enum StandardHttpError {
        BadRequest = 400,
        Unauthorized = 401,
        Forbidden = 403,
        NotFound = 404,
        MethodNotAllowed = 405,
        Conflict = 409,
        ContentTooLarge = 413,
        UriTooLong = 414,
        UnsupportedMediaType = 415,
        RequestHeaderFieldsTooLarge = 431,
        InternalServerError = 500,
        NotImplemented = 501,
        ServiceUnavailable = 503
    };

    /** Fields of a header, as pairs of name and value. */
    typedef QList<QPair<QByteArray, QByteArray>> HeaderFields;

    /** Used by the transport only. @param channel carries the reply; it must live until finish() or tellAborted().
     */
    NwaFcgiRequest(NwaFcgiChannel* channel, const Variables& variables);

    /** Completes the reply. */
    ~NwaFcgiRequest() override;

    std::ostream& outputStream() override;
    std::ostream& errorStream() override;
    qint64 readBody(char* data, qint64 maximumSize) override;
    bool atBodyEnd() const override;

    /**
     * Answers with a standard error and a short text as its body. Does nothing when a reply has begun. A 401 must
     * carry a challenge (RFC 9110, section 15.5.2); unless @a fields have a "WWW-Authenticate" it is "Cookie",
     * which makes no browser ask for a password.
     * @param fields added to the reply's header, for example "Allow".
     */
    void sendHttpError(StandardHttpError error, const HeaderFields& fields = HeaderFields());

    /** Whether a reply has begun. */
    bool isAnswered() const;

    /**
     * How many bytes of the reply the web server has yet to take. A long reply should be written only while there
     * are few, and continued at replyTaken(), which NwaStreamedReply does: they occupy memory, and more than
     * NwaFcgiLimits::replyBuffer end the connection.
     */
    int replyBacklog() const;

    /** Whether the client or the web server has abandoned the request; what is written then is discarded. */
    bool isAborted() const;

signals:
    /** More of the body can be read, or it has ended. */
    void bodyAvailable();

    /** The web server has taken everything that was written; see replyBacklog(). */
    void replyTaken();

    /** The client or the web server has abandoned the request. */
    void aborted();

private:
    friend class NwaFcgiChannel;
    Q_DISABLE_COPY(NwaFcgiRequest)

    NwaFcgiChannel* m_channel;
    QScopedPointer<NwaFcgiRequestStreams> m_streams;
};

#endif
