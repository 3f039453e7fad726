#include <nbase/io/ncsvutilities.h>

#include <QtCore/QMetaEnum>

namespace {

typedef QMap<NCsvUtilities::Separator, QChar> Separators;

QChar characterOf(int separator)
{
    switch (separator) {
    case NCsvUtilities::SeparatorComma:
        return QLatin1Char(',');
    case NCsvUtilities::SeparatorSemicolon:
        return QLatin1Char(';');
    case NCsvUtilities::SeparatorColon:
        return QLatin1Char(':');
    }
    return QChar();
}

Separators readSeparators()
{
    Separators separators;
    const QMetaObject& utilities = NCsvUtilities::staticMetaObject;
    const QMetaEnum keys = utilities.enumerator(utilities.indexOfEnumerator("Separator"));
    for (int index = 0; index < keys.keyCount(); ++index) {
        const int value = keys.value(index);
        separators.insert(static_cast<NCsvUtilities::Separator>(value), characterOf(value));
    }
    return separators;
}

const Separators& allSeparators()
{
    static const Separators separators = readSeparators();
    return separators;
}

} // namespace

QMap<NCsvUtilities::Separator, QChar> NCsvUtilities::separators()
{
    return allSeparators();
}

QChar NCsvUtilities::characterFromSeparator(NCsvUtilities::Separator separator)
{
    return allSeparators().value(separator);
}

NCsvUtilities::Separator NCsvUtilities::separatorFromCharacter(const QChar& character)
{
    return allSeparators().key(character, SeparatorComma);
}
