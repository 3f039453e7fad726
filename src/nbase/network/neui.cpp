#include <nbase/network/neui.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QRegExp>

namespace {

typedef QSet<NEuiBase::Separator> Separators;

// A function, because other statics of the library use it and may be initialised before S_BYTE_REGEXP.
QString byteRegExp()
{
    return latin1("[A-Fa-f0-9]{2}");
}

Separators readSeparators()
{
    Separators separators;
    const QMetaObject& gadget = NEuiBase::staticMetaObject;
    const QMetaEnum enumeration = gadget.enumerator(gadget.indexOfEnumerator("Separator"));
    for (int index = 0; index < enumeration.keyCount(); ++index)
        separators.insert(static_cast<NEuiBase::Separator>(enumeration.value(index)));
    return separators;
}

// The separator's character; '\0' for the separators whose text is empty.
char separatorCharacter(NEuiBase::Separator separator)
{
    switch (separator) {
    case NEuiBase::SeparatorColon:
        return ':';
    case NEuiBase::SeparatorDash:
        return '-';
    case NEuiBase::SeparatorNone:
        break;
    }
    return '\0';
}

// The value of a hexadecimal digit, or -1. Only ASCII counts, as in the regular expression.
int digitValue(QChar digit)
{
    const uint decimal = digit.unicode() - uint('0');
    if (decimal < 10)
        return int(decimal);
    // Converts to lower case: the cases differ in this bit.
    const uint letter = (digit.unicode() | 0x20u) - uint('a');
    return letter < 6 ? int(letter) + 10 : -1;
}

// Accepts exactly "byte, separator, byte, ..., byte", without the cost of compiling a regular expression.
bool readBytes(const QString& text, NEuiBase::Separator separator, int count, unsigned char* bytes)
{
    const char between = separatorCharacter(separator);
    if (text.size() != 2 * count + (between ? count - 1 : 0))
        return false;

    const QChar* position = text.constData();
    for (int index = 0; index < count; ++index) {
        if (index > 0 && between && *position++ != QLatin1Char(between))
            return false;
        const int high = digitValue(*position++);
        const int low = digitValue(*position++);
        if (high < 0 || low < 0)
            return false;
        bytes[index] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

} // namespace

QString NEuiBase::separatorString(NEuiBase::Separator separator)
{
    const char character = separatorCharacter(separator);
    if (character)
        return QString(QLatin1Char(character));
    return separator == SeparatorNone ? latin1("") : QString();
}

QSet<NEuiBase::Separator> NEuiBase::separators()
{
    static const Separators separators = readSeparators();
    return separators;
}

template <unsigned char N> const QString NEui<N>::S_BYTE_REGEXP = byteRegExp();

template <unsigned char N> QString NEui<N>::regExpString(const QSet<NEuiBase::Separator>& separators)
{
    QString expression;
    if (separators.isEmpty())
        return expression;

    const bool hasAlternatives = separators.size() > 1;
    if (hasAlternatives)
        expression += QLatin1String("(?:");
    for (Separators::const_iterator it = separators.constBegin(); it != separators.constEnd(); ++it) {
        if (it != separators.constBegin())
            expression += QLatin1Char('|');
        expression += QLatin1String("(?:") + byteRegExp() + QRegExp::escape(separatorString(*it)) +
                      QLatin1String("){") + QString::number(N - 1) + QLatin1Char('}');
    }
    if (hasAlternatives)
        expression += QLatin1Char(')');
    return expression + byteRegExp();
}

template <unsigned char N>
NEui<N>::NEui()
    : m_null(true)
{
    memset(m_bytes, 0, N);
}

template <unsigned char N>
NEui<N>::NEui(const unsigned char* bytes)
    : NEui()
{
    if (bytes)
        setBytes(bytes);
}

template <unsigned char N>
NEui<N>::NEui(const QVector<unsigned char>& bytes)
    : NEui()
{
    if (bytes.size() == N)
        setBytes(bytes.constData());
}

template <unsigned char N>
NEui<N>::NEui(const QString& text, const QSet<NEuiBase::Separator>& separators)
    : NEui()
{
    for (Separators::const_iterator it = separators.constBegin(); it != separators.constEnd(); ++it) {
        if (read(text, *it))
            return;
    }
}

template <unsigned char N> bool NEui<N>::read(const QString& text, NEuiBase::Separator separator)
{
    unsigned char bytes[N];
    if (!readBytes(text, separator, N, bytes))
        return false;
    setBytes(bytes);
    return true;
}

template class NEui<6>;
template class NEui<8>;

NEui48::NEui48() {}

NEui48::NEui48(const unsigned char* bytes)
    : NEui<6>(bytes)
{
}

NEui48::NEui48(const QVector<unsigned char>& bytes)
    : NEui<6>(bytes)
{
}

NEui48::NEui48(
    unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4, unsigned char b5)
{
    const unsigned char bytes[] = {b0, b1, b2, b3, b4, b5};
    setBytes(bytes);
}

NEui48::NEui48(const QString& text, const QSet<NEuiBase::Separator>& separators)
    : NEui<6>(text, separators)
{
}

NEui64::NEui64() {}

NEui64::NEui64(const unsigned char* bytes)
    : NEui<8>(bytes)
{
}

NEui64::NEui64(const QVector<unsigned char>& bytes)
    : NEui<8>(bytes)
{
}

NEui64::NEui64(
    unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4, unsigned char b5,
    unsigned char b6, unsigned char b7)
{
    const unsigned char bytes[] = {b0, b1, b2, b3, b4, b5, b6, b7};
    setBytes(bytes);
}

NEui64::NEui64(const QString& text, const QSet<NEuiBase::Separator>& separators)
    : NEui<8>(text, separators)
{
}
