#ifndef NWEBAPI_NWAABSTRACTHTTPHEADER_H
#define NWEBAPI_NWAABSTRACTHTTPHEADER_H

#include <nwebapi/nwaabstractcgistreamableelement.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QPair>

/**
 * The header of a CGI reply (RFC 3875, section 6): its status, its fields and the empty line that ends it. A reply
 * has exactly one header, written before anything else.
 */
class NWEBAPI_EXPORT NwaAbstractHttpHeader : public NwaAbstractCgiStreamableElement
{
public:
    NwaAbstractHttpHeader();

    /**
     * Sets the HTTP status of the reply, 100 to 999; without it the web server answers 200. Any other number is
     * written as 500, so that the header stays valid.
     */
    void setStatus(int code);

    /**
     * Adds a field. Characters that would end the field or the header (line breaks and other control characters)
     * are removed from both texts, and characters that a field name cannot have (RFC 9110, section 5.6.2) from the
     * name, so that text from a client cannot add fields. A field without a name is ignored.
     */
    void addField(const QByteArray& name, const QByteArray& value);

    /** Writes the status, the fields and the empty line. */
    void render(std::ostream& stream) const override;

    /** The phrase of the HTTP status @a code, for example "Not Found"; "Unknown" for a code without one here. */
    static QByteArray reasonPhrase(int code);

private:
    int m_status;
    QList<QPair<QByteArray, QByteArray>> m_fields;
};

#endif
