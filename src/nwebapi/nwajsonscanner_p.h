#ifndef NWEBAPI_NWAJSONSCANNER_P_H
#define NWEBAPI_NWAJSONSCANNER_P_H

#include <QtCore/QByteArray>
#include <QtCore/QVariant>

/**
 * Checks a JSON document strictly against RFC 8259, in one pass and with a bounded stack, before a JSON library
 * reads it, because the libraries accept different errors: control characters in strings, a byte order mark,
 * "nan", text after the document. They also differ in numbers (range, precision of integers), so the scanner reads
 * the numbers itself and replaces each by its index in numbers().
 */
class NwaJsonScanner
{
public:
    NwaJsonScanner(const QByteArray& text, int maximumDepth, int maximumValueCount, int maximumNumberSize);

    /** Reads the document. @return whether it is correct. */
    bool scan();

    /** The document with its numbers and member names replaced by indices. */
    QByteArray indexedText() const { return m_indexedText; }

    /** The numbers of the document in the order of its text, as NwaJson describes them. */
    QVariantList numbers() const { return m_numbers; }

    /** The member names in the order of the text, as the elements of a JSON array without its brackets. */
    QByteArray nameTexts() const { return m_nameTexts; }

private:
    bool scanValueStart();
    bool scanAfterValue();
    bool scanMemberName();
    bool openContainer(char kind);
    bool scanLiteral(const char* literal);
    bool scanString();
    bool scanEscape();
    bool scanUnicodeEscape(uint& code);
    bool scanNumber();
    bool scanDigits();
    bool appendNumber(int begin, bool isInteger);
    void replaceFrom(int begin, const QByteArray& text);
    void skipWhiteSpace();
    bool take(char character);
    char current() const;

    const QByteArray m_text;
    const int m_maximumDepth;
    const int m_maximumValueCount;
    const int m_maximumNumberSize;
    int m_valueCount;
    int m_position;
    bool m_expectsValue;
    QByteArray m_containers; ///< '{' or '[' for each that is open, the innermost last
    int m_copied;            ///< how much of the text the indexed text covers
    QByteArray m_indexedText;
    QVariantList m_numbers;
    int m_nameCount;
    QByteArray m_nameTexts;
};

#endif
