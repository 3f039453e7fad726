#include <nwebapi/nwajsonscanner_p.h>

#include <nwebapi/nwautf8_p.h>

#include <math.h>
#include <string.h>

namespace {

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

int hexadecimalDigit(char character)
{
    if (isDigit(character))
        return character - '0';
    if (character >= 'a' && character <= 'f')
        return character - 'a' + 10;
    if (character >= 'A' && character <= 'F')
        return character - 'A' + 10;
    return -1;
}

bool isHighSurrogate(uint code)
{
    return code >= 0xd800 && code <= 0xdbff;
}

bool isLowSurrogate(uint code)
{
    return code >= 0xdc00 && code <= 0xdfff;
}

// Whether the digits before an exponent are not all zero.
bool hasSignificantDigit(const QByteArray& number)
{
    for (int index = 0; index < number.size(); ++index) {
        const char character = number.at(index);
        if (character == 'e' || character == 'E')
            return false;
        if (character >= '1' && character <= '9')
            return true;
    }
    return false;
}

// A qlonglong for a whole double in its range, otherwise the double.
QVariant numberFromDouble(double number)
{
    const double limit = 9223372036854775808.0; // 2^63
    if (floor(number) == number && number >= -limit && number < limit)
        return QVariant(qlonglong(number));
    return QVariant(number);
}

} // namespace

NwaJsonScanner::NwaJsonScanner(
    const QByteArray& text, int maximumDepth, int maximumValueCount, int maximumNumberSize)
    : m_text(text)
    , m_maximumDepth(maximumDepth)
    , m_maximumValueCount(maximumValueCount)
    , m_maximumNumberSize(maximumNumberSize)
    , m_valueCount(0)
    , m_position(0)
    , m_expectsValue(true)
    , m_copied(0)
    , m_nameCount(0)
{
}

bool NwaJsonScanner::scan()
{
    if (!NwaUtf8::isValid(m_text))
        return false;
    while (m_expectsValue || !m_containers.isEmpty()) {
        skipWhiteSpace();
        if (!(m_expectsValue ? scanValueStart() : scanAfterValue()))
            return false;
    }
    skipWhiteSpace();
    m_indexedText += m_text.mid(m_copied);
    return m_position == m_text.size();
}

bool NwaJsonScanner::scanValueStart()
{
    m_expectsValue = false;
    if (++m_valueCount > m_maximumValueCount)
        return false;
    switch (current()) {
    case '{':
    case '[':
        return openContainer(current());
    case '"':
        return scanString();
    case 't':
        return scanLiteral("true");
    case 'f':
        return scanLiteral("false");
    case 'n':
        return scanLiteral("null");
    default:
        return scanNumber();
    }
}

bool NwaJsonScanner::openContainer(char kind)
{
    if (m_containers.size() >= m_maximumDepth)
        return false;
    ++m_position;
    skipWhiteSpace();
    if (take(kind == '{' ? '}' : ']'))
        return true;
    m_containers.append(kind);
    m_expectsValue = true;
    return kind == '[' || scanMemberName();
}

bool NwaJsonScanner::scanAfterValue()
{
    const bool isObject = m_containers.at(m_containers.size() - 1) == '{';
    if (take(isObject ? '}' : ']')) {
        m_containers.chop(1);
        return true;
    }
    if (!take(','))
        return false;
    m_expectsValue = true;
    return !isObject || scanMemberName();
}

bool NwaJsonScanner::scanMemberName()
{
    skipWhiteSpace();
    const int begin = m_position;
    if (current() != '"' || !scanString())
        return false;
    if (m_nameCount > 0)
        m_nameTexts += ',';
    m_nameTexts += m_text.mid(begin, m_position - begin);
    // All of one width, so that their order as texts is their order as numbers.
    replaceFrom(begin, '"' + QByteArray::number(m_nameCount++).rightJustified(10, '0') + '"');
    skipWhiteSpace();
    return take(':');
}

bool NwaJsonScanner::scanLiteral(const char* literal)
{
    const QByteArray expected(literal);
    if (m_text.mid(m_position, expected.size()) != expected)
        return false;
    m_position += expected.size();
    return true;
}

bool NwaJsonScanner::scanString()
{
    ++m_position;
    while (m_position < m_text.size()) {
        const char character = m_text.at(m_position++);
        if (character == '"')
            return true;
        if (uchar(character) < 0x20 || (character == '\\' && !scanEscape()))
            return false;
    }
    return false;
}

bool NwaJsonScanner::scanEscape()
{
    const char character = current();
    ++m_position;
    if (character != 'u')
        return character != '\0' && strchr("\"\\/bfnrt", character) != nullptr;

    // RFC 8259, section 8.2: an unpaired surrogate is not a character.
    uint code = 0;
    if (!scanUnicodeEscape(code) || isLowSurrogate(code))
        return false;
    if (!isHighSurrogate(code))
        return true;
    return take('\\') && take('u') && scanUnicodeEscape(code) && isLowSurrogate(code);
}

bool NwaJsonScanner::scanUnicodeEscape(uint& code)
{
    code = 0;
    for (int count = 0; count < 4; ++count) {
        const int digit = hexadecimalDigit(current());
        if (digit < 0)
            return false;
        code = code * 16 + uint(digit);
        ++m_position;
    }
    return true;
}

bool NwaJsonScanner::scanNumber()
{
    const int begin = m_position;
    bool isInteger = true;
    take('-');
    // A number has no leading zeros.
    if (!take('0') && !scanDigits())
        return false;
    if (take('.')) {
        isInteger = false;
        if (!scanDigits())
            return false;
    }
    if (take('e') || take('E')) {
        isInteger = false;
        if (!take('+'))
            take('-');
        if (!scanDigits())
            return false;
    }
    // RFC 8259, section 9 allows such a limit.
    if (m_position - begin > m_maximumNumberSize)
        return false;
    return appendNumber(begin, isInteger);
}

bool NwaJsonScanner::scanDigits()
{
    const int begin = m_position;
    while (isDigit(current()))
        ++m_position;
    return m_position > begin;
}

// Numbers that a double cannot hold, too large or too close to zero, are errors: they would change their value.
bool NwaJsonScanner::appendNumber(int begin, bool isInteger)
{
    const QByteArray digits = m_text.mid(begin, m_position - begin);
    bool ok = false;
    QVariant number;
    if (isInteger)
        number = QVariant(digits.toLongLong(&ok));
    if (!ok) {
        const double value = digits.toDouble(&ok);
        if (!ok || (value == 0 && hasSignificantDigit(digits)))
            return false;
        number = numberFromDouble(value);
    }

    replaceFrom(begin, QByteArray::number(m_numbers.size()));
    m_numbers.append(number);
    return true;
}

// Replaces what was read from @a begin on with @a text in the indexed text.
void NwaJsonScanner::replaceFrom(int begin, const QByteArray& text)
{
    m_indexedText += m_text.mid(m_copied, begin - m_copied);
    m_indexedText += text;
    m_copied = m_position;
}

void NwaJsonScanner::skipWhiteSpace()
{
    while (current() != '\0' && strchr(" \t\n\r", current()) != nullptr)
        ++m_position;
}

bool NwaJsonScanner::take(char character)
{
    if (current() != character)
        return false;
    ++m_position;
    return true;
}

// A null character also marks the end, because no document can contain one.
char NwaJsonScanner::current() const
{
    return m_position < m_text.size() ? m_text.at(m_position) : '\0';
}
