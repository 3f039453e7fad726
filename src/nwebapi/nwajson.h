#ifndef NWEBAPI_NWAJSON_H
#define NWEBAPI_NWAJSON_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariant>

/**
 * JSON documents (RFC 8259) as values: an object is a QVariantMap, an array a QVariantList, a string a QString,
 * true and false a bool, null an invalid QVariant; a number is a qlonglong when it is whole and a qlonglong can
 * hold it, and otherwise a double. The JSON library behind it is chosen when this library is built; the results
 * are the same.
 */
class NWEBAPI_EXPORT NwaJson
{
public:
    /** How deep arrays and objects may be nested by default. */
    static const int DefaultMaximumDepth = 64;

    /**
     * How many values a document may have by default. A value takes a byte or two of text, and many times as much
     * memory when it has been read.
     */
    static const int DefaultMaximumValueCount = 20000;

    /**
     * How many characters a number may have. At most 767 digits determine a double, and Qt 4 reads one in
     * quadratic time.
     */
    static const int MaximumNumberSize = 1000;

    /**
     * @a value as a compact document in UTF-8. Besides the types above, hashes, string lists, byte arrays (UTF-8),
     * all numeric types and everything that QVariant converts to a text are written; every other value becomes
     * null, as do infinities and NaN. A float is written so that it is read back as the same float. An integer
     * beyond 2^53 is written as the nearest double. An unpaired surrogate becomes U+FFFD.
     */
    static QByteArray serialize(const QVariant& value);

    /**
     * Reads one whole document.
     * @param text the document in UTF-8; anything but white space after it is an error, as are invalid UTF-8, a
     * byte order mark and everything else that RFC 8259 does not allow.
     * @param ok set to whether the document was read; may be null.
     * Of members with the same name the last one counts. An unpaired surrogate, a number that a double cannot hold
     * (1e400, 1e-400) and a number of more than MaximumNumberSize characters are errors.
     * @param maximumDepth how deep arrays and objects may be nested, which bounds the stack that parsing takes; at
     * most 1000.
     * @param maximumValueCount how many values the document may have, which together with the size of the text
     * bounds the memory that parsing takes. Arrays and objects count, and so does each value in them.
     * @return the document's value, an invalid one when it cannot be read (and for the document "null").
     */
    static QVariant parse(
        const QByteArray& text, bool* ok, int maximumDepth = DefaultMaximumDepth,
        int maximumValueCount = DefaultMaximumValueCount);

private:
    NwaJson();
};

#endif
