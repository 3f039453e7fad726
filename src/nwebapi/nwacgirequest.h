#ifndef NWEBAPI_NWACGIREQUEST_H
#define NWEBAPI_NWACGIREQUEST_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <iosfwd>

/**
 * A request as CGI describes it (RFC 3875), independent of the transport: variables that describe it, a body to
 * read, and two streams for the reply and for messages to the web server's log.
 */
class NWEBAPI_EXPORT NwaCgiRequest
{
public:
    /**
     * The variables of a request, for example "REQUEST_METHOD", "QUERY_STRING" or "HTTP_COOKIE". A request has a
     * few dozen, of which only a few are used, so they are stored in one block of memory and searched linearly.
     */
    class NWEBAPI_EXPORT Variables
    {
    public:
        /** Reserves memory for variables of @a size bytes, including their names. */
        void reserve(int size);

        /** Adds a variable; of several with the same name the latest counts. */
        void insert(const QByteArray& name, const QByteArray& value);

        /** Adds a variable from bytes, which are copied. */
        void insert(const char* name, int nameSize, const char* value, int valueSize);

        /** The value of the variable @a name; a null array when there is none. */
        QByteArray value(const QByteArray& name) const;

    private:
        struct Place
        {
            int begin; ///< of the name; the value follows it
            int nameSize;
            int valueSize;
        };

        QByteArray m_bytes;
        QVector<Place> m_places;
    };

    /** A request with these variables; decodes the query string, see isQueryValid(). */
    explicit NwaCgiRequest(const Variables& variables);
    virtual ~NwaCgiRequest();

    /** The variable @a name as the web server sent it; a null array when there is none. */
    QByteArray variable(const QByteArray& name) const;

    /** The HTTP method, for example "GET". */
    QString method() const;

    /** The path by which the web server found the service; invalid UTF-8 is replaced by U+FFFD. */
    QString scriptName() const;

    /** The rest of the path after the script name, decoded in the same way. */
    QString pathInfo() const;

    /** The announced size of the body in bytes; 0 when none was announced, -1 when it is not a number. */
    qint64 contentLength() const;

    /**
     * The parameters of the query string, decoded ("%" and two digits, "+" for a blank, UTF-8). A name without "="
     * has an empty value. Empty when the query is not valid, see isQueryValid().
     */
    const QMultiHash<QString, QString>& queryParameters() const;

    /**
     * Reads the parameter @a name, which counts only when it occurs exactly once.
     * @return whether it does; only then @a value is changed.
     */
    bool singleQueryParameter(const QString& name, QString& value) const;

    /**
     * Whether the query string could be decoded and has at most 1000 parameters. Otherwise the request should be
     * answered with 400.
     */
    bool isQueryValid() const;

    /** The reply: a header (see NwaAbstractHttpHeader), then the body. */
    virtual std::ostream& outputStream() = 0;

    /** Messages for the web server's log. */
    virtual std::ostream& errorStream() = 0;

    /**
     * Takes the next bytes of the body.
     * @return how many were taken, at most @a maximumSize; 0 when none are available, because the body has ended
     * (see atBodyEnd()) or because the client has not sent more yet; -1 when the rest of the body will never
     * arrive.
     */
    virtual qint64 readBody(char* data, qint64 maximumSize) = 0;

    /** Whether the whole body has been read. */
    virtual bool atBodyEnd() const = 0;

private:
    Q_DISABLE_COPY(NwaCgiRequest)

    Variables m_variables;
    QMultiHash<QString, QString> m_queryParameters;
    bool m_queryValid;
};

#endif
