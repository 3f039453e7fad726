#include <nbase/time/nzonetabline_p.h>

#include <nsystem/nlatin1_p.h>

namespace {

const int LatitudeDegreeDigits = 2;
const int LongitudeDegreeDigits = 3;

bool isCapitalLetter(QChar character)
{
    return character >= QLatin1Char('A') && character <= QLatin1Char('Z');
}

bool isRegionCharacter(QChar character)
{
    return isCapitalLetter(character) || (character >= QLatin1Char('a') && character <= QLatin1Char('z')) ||
           character == QLatin1Char('-') || character == QLatin1Char('_');
}

bool isTownCharacter(QChar character)
{
    return isRegionCharacter(character) || character == QLatin1Char('/');
}

// Reads a text from left to right. A take operation returns false when the text does not continue as it requires.
class Scanner
{
public:
    explicit Scanner(const QString& text)
        : m_position(text.constData())
        , m_end(m_position + text.size())
    {
    }

    bool isAtEnd() const { return m_position == m_end; }

    bool take(char character)
    {
        if (isAtEnd() || *m_position != QLatin1Char(character))
            return false;
        ++m_position;
        return true;
    }

    bool takeCountryCode(QString* code)
    {
        if (m_end - m_position < 2 || !isCapitalLetter(m_position[0]) || !isCapitalLetter(m_position[1]))
            return false;
        *code = takeText(2);
        return true;
    }

    template <typename Number> bool takeNumber(int digits, Number* number)
    {
        if (m_end - m_position < digits)
            return false;
        int value = 0;
        for (int index = 0; index < digits; ++index) {
            const ushort digit = m_position[index].unicode();
            if (digit < '0' || digit > '9')
                return false;
            value = value * 10 + (digit - '0');
        }
        m_position += digits;
        *number = Number(value);
        return true;
    }

    bool takeCoordinate(int degreeDigits, NZoneTabLine::Coordinate* coordinate)
    {
        const bool isNegative = take('-');
        if (!isNegative && !take('+'))
            return false;
        if (!takeNumber(degreeDigits, &coordinate->degrees) || !takeNumber(2, &coordinate->minutes))
            return false;
        if (isNegative)
            coordinate->degrees = -coordinate->degrees;
        coordinate->seconds = 0;
        return !takeNumber(2, &coordinate->seconds) || takeFraction(coordinate);
    }

    bool takeWord(bool (*isAllowed)(QChar), QString* word)
    {
        int length = 0;
        while (m_position + length != m_end && isAllowed(m_position[length]))
            ++length;
        if (length == 0)
            return false;
        *word = takeText(length);
        return true;
    }

    QString takeRest() { return takeText(int(m_end - m_position)); }

private:
    // Intended: a number with a comma is not a number in the C locale, so such seconds count as 0.
    bool takeFraction(NZoneTabLine::Coordinate* coordinate)
    {
        int hundredths = 0;
        if (!take(','))
            return true;
        coordinate->seconds = 0;
        return takeNumber(2, &hundredths);
    }

    QString takeText(int length)
    {
        const QString text(m_position, length);
        m_position += length;
        return text;
    }

    const QChar* m_position;
    const QChar* m_end;
};

} // namespace

NZoneTabLine::Coordinate::Coordinate()
    : degrees(0)
    , minutes(0)
    , seconds(0)
{
}

bool NZoneTabLine::parse(const QString& line)
{
    Scanner scanner(line);
    comment = latin1("");
    if (!scanner.takeCountryCode(&countryCode) || !scanner.take('\t'))
        return false;
    if (!scanner.takeCoordinate(LatitudeDegreeDigits, &latitude) ||
        !scanner.takeCoordinate(LongitudeDegreeDigits, &longitude) || !scanner.take('\t'))
        return false;
    if (!scanner.takeWord(isRegionCharacter, &region) || !scanner.take('/') ||
        !scanner.takeWord(isTownCharacter, &town))
        return false;
    if (scanner.take('\t'))
        comment = scanner.takeRest();
    return scanner.isAtEnd();
}
