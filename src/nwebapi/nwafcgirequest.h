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
 * A request that arrived over FastCGI. Whoever is handed the request owns it, answers it at once or later, and
 * deletes it; deleting it completes the reply. A request that is deleted without an answer is answered 500. Of the
 * reply to HEAD only the header is sent, whatever is written.
 *
 * Of a body of the type "multipart/form-data" the request may come before the body has arrived: bodyAvailable()
 * tells of more. Every other body is there as a whole.
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

    /** Fields to add to a header, as pairs of name and value. */
    typedef QList<QPair<QByteArray, QByteArray>> HeaderFields;

    /** Used by the transport only: @a channel carries the reply, and must live until it was told to forget the
     * request. */
    NwaFcgiRequest(NwaFcgiChannel* channel, const Variables& variables);

    /** Completes the reply. */
    ~NwaFcgiRequest() override;

    std::ostream& outputStream() override;
    std::ostream& errorStream() override;
    qint64 readBody(char* data, qint64 maximumSize) override;
    bool atBodyEnd() const override;

    /**
     * Answers with a standard error, a short text as its body. Does nothing when the reply has begun already: what
     * was answered first stands. A 401 has to carry a challenge (RFC 9110, section 15.5.2); where @a fields have
     * no "WWW-Authenticate" it is "Cookie", for which no browser asks for a password by itself.
     * @param fields added to the reply's header, for example "Allow".
     */
    void sendHttpError(StandardHttpError error, const HeaderFields& fields = HeaderFields());

    /** Whether a reply was begun. */
    bool isAnswered() const;

    /**
     * How many bytes of the reply wait for the web server to take them. A service with a long reply writes while
     * there are few, and goes on at replyTaken(): more than NwaFcgiLimits::replyBuffer would end the connection,
     * and the memory is better used.
     */
    int replyBacklog() const;

    /** Whether the client or the web server has given the request up; what is written then goes nowhere. */
    bool isAborted() const;

signals:
    /** More of the body can be read, or it has ended. */
    void bodyAvailable();

    /** The web server has taken all that was waiting of the reply. */
    void replyTaken();

    /** The client or the web server has given the request up. */
    void aborted();

private:
    friend class NwaFcgiChannel;
    Q_DISABLE_COPY(NwaFcgiRequest)

    NwaFcgiChannel* m_channel;
    QScopedPointer<NwaFcgiRequestStreams> m_streams;
};

#endif
