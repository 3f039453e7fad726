#ifndef NWEBAPI_NWAHTTPGRAMMAR_P_H
#define NWEBAPI_NWAHTTPGRAMMAR_P_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>

/** The grammar that header fields of HTTP (RFC 9110) and MIME (RFC 2045) share. */
class NwaHttpGrammar
{
public:
    /** Whether @a character may be part of a token, such as a field's name (RFC 9110, section 5.6.2). */
    static bool isTokenCharacter(char character);

    /** Whether @a text is a token. */
    static bool isToken(const QByteArray& text);

    /** Whether @a text differs from @a lowerCaseText at most in the case of ASCII letters. */
    static bool equals(const QByteArray& text, const char* lowerCaseText);

    /** @a text without blanks and tabs at its ends. */
    static QByteArray trimmed(const QByteArray& text);

    /** The part of @a fieldValue before its first parameter, trimmed and in lower case. */
    static QByteArray mainValue(const QByteArray& fieldValue);

    /** How a backslash in a quoted string is read. */
    enum Escapes {
        AllEscapes,  ///< it escapes any character (RFC 9110, section 5.6.4)
        QuoteEscapes ///< it escapes a quote or a backslash only, and is an ordinary character otherwise
    };

    /**
     * Reads the parameters of @a fieldValue, for example of "form-data; name=\"a\"". Names are converted to lower
     * case. A value that is not quoted ends at the next semicolon.
     * @return whether the parameters are well-formed and none occurs twice.
     */
    static bool
    readParameters(const QByteArray& fieldValue, Escapes escapes, QMap<QByteArray, QByteArray>& parameters);

private:
    NwaHttpGrammar();
};

#endif
