#ifndef NWEBAPI_NWAUTF8_P_H
#define NWEBAPI_NWAUTF8_P_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

/**
 * UTF-8 exactly as RFC 3629 defines it. Qt's own decoder removes a byte order mark at the start, and its versions
 * differ in what they consider an error.
 */
class NwaUtf8
{
public:
    /** Whether @a bytes are UTF-8, without overlong forms, surrogates or characters beyond U+10FFFF. */
    static bool isValid(const QByteArray& bytes);

    /** The text of @a bytes; each byte that is not part of a valid character becomes U+FFFD. */
    static QString decode(const QByteArray& bytes);

private:
    NwaUtf8();
};

#endif
