#ifndef NWEBAPI_NWAJSONSCANNER_P_H
#define NWEBAPI_NWAJSONSCANNER_P_H

#include <QtCore/QByteArray>
#include <QtCore/QVariant>

/**
 * Goes once through a JSON document before a JSON library reads it, with a bounded stack, and holds it to RFC 8259
 * to the letter, because the libraries differ in what they let pass: control characters in strings, a byte order
 * mark, "nan", text behind the document. They differ in numbers as well (range, precision of integers), so that
 * the scanner reads the numbers itself and puts in the place of each its index in the list of numbers().
 */
class NwaJsonScanner
{
public:
    NwaJsonScanner(const QByteArray& text, int maximumDepth, int maximumValueCount);

    /** Reads the document. @return whether it is correct. */
    bool scan();

    /** The document with indices in the place of its numbers and member names. */
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
    int m_valueCount;
    int m_position;
    bool m_expectsValue;
    QByteArray m_containers; ///< '{' or '[' for each that is open, the innermost last
    int m_copied;            ///< how much of the text is in the indexed text already
    QByteArray m_indexedText;
    QVariantList m_numbers;
    int m_nameCount;
    QByteArray m_nameTexts;
};

#endif
