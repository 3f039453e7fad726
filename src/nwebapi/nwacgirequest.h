#ifndef NWEBAPI_NWACGIREQUEST_H
#define NWEBAPI_NWACGIREQUEST_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <iosfwd>

/**
 * One request as CGI describes it (RFC 3875), whatever carries it: variables that tell what is asked, a body to
 * read and two streams to write the reply and remarks for the web server's log to.
 */
class NWEBAPI_EXPORT NwaCgiRequest
{
public:
    /**
     * The variables of a request, for example "REQUEST_METHOD", "QUERY_STRING" or "HTTP_COOKIE". Each request has
     * a few dozen, of which hardly any is asked for; so they lie in one piece of memory and are searched one by
     * one.
     */
    class NWEBAPI_EXPORT Variables
    {
    public:
        /** Makes room for variables of @a size bytes with their names, which saves time while they are added. */
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

    /** A request with these variables; its query string is decoded at once, see isQueryValid(). */
    explicit NwaCgiRequest(const Variables& variables);
    virtual ~NwaCgiRequest();

    /** The variable @a name as the web server sent it; a null array when there is none. */
    QByteArray variable(const QByteArray& name) const;

    /** The HTTP method, for example "GET". */
    QString method() const;

    /** The path by which the web server found the service; UTF-8 that cannot be decoded is replaced by U+FFFD. */
    QString scriptName() const;

    /** What follows the script name in the path, decoded in the same way; empty when nothing does. */
    QString pathInfo() const;

    /** The size that the client announced for the body, in bytes: 0 when it announced none, -1 when it is no
     * number. */
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
     * Whether the query string could be decoded and has at most 1000 parameters; one for which this is false
     * should be answered with 400.
     */
    bool isQueryValid() const;

    /** The reply: a header (see NwaAbstractHttpHeader), then the body. */
    virtual std::ostream& outputStream() = 0;

    /** Remarks for the web server's log. */
    virtual std::ostream& errorStream() = 0;

    /**
     * Takes the next bytes of the body.
     * @return how many were taken, at most @a maximumSize; 0 when none are there now, either because the body has
     * ended (see atBodyEnd()) or because the client has not sent more yet; -1 when the rest of the body will never
     * come.
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
