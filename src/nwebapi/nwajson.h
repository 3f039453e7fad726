#ifndef NWEBAPI_NWAJSON_H
#define NWEBAPI_NWAJSON_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariant>

/**
 * JSON documents (RFC 8259) as values: an object is a QVariantMap, an array a QVariantList, a string a QString,
 * true and false a bool, null an invalid QVariant; a number is a qlonglong when it is whole and a qlonglong can
 * hold it, and otherwise a double. Which JSON library does the work is chosen when this library is built; results
 * are the same.
 */
class NWEBAPI_EXPORT NwaJson
{
public:
    /** How deep arrays and objects may be nested when nothing else is said. */
    static const int DefaultMaximumDepth = 64;

    /**
     * How many values a document may have when nothing else is said. A value takes a byte or two of text and many
     * times as much memory once it is read.
     */
    static const int DefaultMaximumValueCount = 20000;

    /**
     * How many characters a number may have. A double is settled by at most 767 digits, and reading one takes time
     * with the square of their number in Qt 4.
     */
    static const int MaximumNumberSize = 1000;

    /**
     * The value @a value as a compact document in UTF-8. Besides the types above, hashes, string lists, byte
     * arrays (UTF-8), all numeric types and whatever QVariant can make a text of are written; every other value
     * becomes null, as do infinities and NaN. A float is written so that it is read back as the same float. An
     * integer beyond 2^53 is written as the nearest double. Half a surrogate pair becomes U+FFFD.
     */
    static QByteArray serialize(const QVariant& value);

    /**
     * Reads one whole document.
     * @param text the document in UTF-8; anything but white space behind it is an error, as are invalid UTF-8, a
     * byte order mark and everything else that RFC 8259 does not allow.
     * @param ok set to whether the document was read; may be null.
     * Of members with the same name the last one counts. Half a surrogate pair, a number that a double cannot
     * hold (1e400, 1e-400) and a number of more than MaximumNumberSize characters are errors.
     * @param maximumDepth how deep arrays and objects may be nested; the stack that parsing takes is bounded by
     * it. At most 1000, also where more is given.
     * @param maximumValueCount how many values the document may have; the memory that parsing takes is bounded by
     * it and by the size of the text. Arrays and objects count, and so does each value in them.
     * @return the document's value, an invalid one when it cannot be read (and for the document "null").
     */
    static QVariant parse(
        const QByteArray& text, bool* ok, int maximumDepth = DefaultMaximumDepth,
        int maximumValueCount = DefaultMaximumValueCount);

private:
    NwaJson();
};

#endif
