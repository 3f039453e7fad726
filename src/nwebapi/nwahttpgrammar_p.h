#ifndef NWEBAPI_NWAHTTPGRAMMAR_P_H
#define NWEBAPI_NWAHTTPGRAMMAR_P_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>

/** Pieces of grammar that header fields of HTTP (RFC 9110) and MIME (RFC 2045) have in common. */
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

    /** What stands before the first parameter of @a fieldValue, trimmed and in lower case. */
    static QByteArray mainValue(const QByteArray& fieldValue);

    /** How a backslash in a quoted string is read. */
    enum Escapes {
        AllEscapes,  ///< it stands for the character behind it, as RFC 9110, section 5.6.4 has it
        QuoteEscapes ///< only before a quote or a backslash; otherwise it stands for itself
    };

    /**
     * Reads the parameters of @a fieldValue, for example of "form-data; name=\"a\"". Names are put into lower
     * case. A value that is not quoted ends at the next semicolon.
     * @return whether the parameters are well-formed and none occurs twice.
     */
    static bool
    readParameters(const QByteArray& fieldValue, Escapes escapes, QMap<QByteArray, QByteArray>& parameters);

private:
    NwaHttpGrammar();
};

#endif
