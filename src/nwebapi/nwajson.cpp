#include <nwebapi/nwajson.h>

#include <nwebapi/nwajsonbackend_p.h>
#include <nwebapi/nwajsonscanner_p.h>
#include <nwebapi/nwaqtcompat_p.h>

#include <QtCore/QStringList>

#include <limits>
#include <math.h>

namespace {

const double exactIntegers = 9007199254740992.0; // 2^53

// An unpaired surrogate cannot be written in UTF-8.
QString withoutLoneSurrogates(const QString& text)
{
    QString result = text;
    for (int index = 0; index < result.size(); ++index) {
        const QChar character = result.at(index);
        const bool isPair =
            character.isHighSurrogate() && index + 1 < result.size() && result.at(index + 1).isLowSurrogate();
        if (isPair)
            ++index;
        else if (character.isHighSurrogate() || character.isLowSurrogate())
            result[index] = QChar(QChar::ReplacementCharacter);
    }
    return result;
}

QVariant normalisedDouble(double number)
{
    // "number - number" is not 0 for infinities and NaN; the names of the predicates differ between C++ libraries.
    if (number - number != 0)
        return QVariant();
    if (floor(number) == number && number >= -exactIntegers && number <= exactIntegers)
        return QVariant(qlonglong(number));
    return QVariant(number);
}

// The double with the fewest digits that is read back as the same float: 0.1f is 0.1 and not 0.10000000149011612.
QVariant normalisedFloat(float number)
{
    for (int precision = std::numeric_limits<float>::digits10; precision < 9; ++precision) {
        const double candidate = QByteArray::number(double(number), 'g', precision).toDouble();
        if (float(candidate) == number)
            return normalisedDouble(candidate);
    }
    return normalisedDouble(double(number));
}

QVariant normalised(const QVariant& value);

template <typename List> QVariantList normalisedList(const List& list)
{
    QVariantList result;
    for (typename List::const_iterator it = list.constBegin(); it != list.constEnd(); ++it)
        result.append(normalised(QVariant(*it)));
    return result;
}

template <typename Map> QVariantMap normalisedMap(const Map& map)
{
    QVariantMap result;
    for (typename Map::const_iterator it = map.constBegin(); it != map.constEnd(); ++it)
        result.insert(withoutLoneSurrogates(it.key()), normalised(it.value()));
    return result;
}

// JSON libraries write an integer beyond 2^53 as the nearest double (RFC 8259, section 6 warns of it).
template <typename Integer> QVariant normalisedInteger(Integer number)
{
    const double nearest = double(number);
    if (nearest < -exactIntegers || nearest > exactIntegers)
        return QVariant(nearest);
    return QVariant(qlonglong(number));
}

// The value in the types that all JSON libraries write alike.
QVariant normalised(const QVariant& value)
{
    if (!value.isValid())
        return QVariant();
    switch (NwaQtCompat::typeOf(value)) {
    case QMetaType::Bool:
        return value;
    case QMetaType::Char:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return normalisedInteger(value.toLongLong());
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return normalisedInteger(value.toULongLong());
    case QMetaType::Float:
        return normalisedFloat(value.value<float>());
    case QMetaType::Double:
        return normalisedDouble(value.toDouble());
    case QMetaType::QVariantMap:
        return normalisedMap(value.toMap());
    case QMetaType::QVariantHash:
        return normalisedMap(value.toHash());
    case QMetaType::QVariantList:
        return normalisedList(value.toList());
    case QMetaType::QStringList:
        return normalisedList(value.toStringList());
    case QMetaType::QByteArray:
        return withoutLoneSurrogates(QString::fromUtf8(value.toByteArray()));
    default:
        return value.canConvert(QVariant::String) ? QVariant(withoutLoneSurrogates(value.toString())) : QVariant();
    }
}

// Replaces the indices that the scanner left in a document with the numbers and names.
QVariant restored(const QVariant& value, const QVariantList& numbers, const QVariantList& names)
{
    switch (value.userType()) {
    case QMetaType::QVariantList: {
        QVariantList list = value.toList();
        for (QVariantList::iterator it = list.begin(); it != list.end(); ++it)
            *it = restored(*it, numbers, names);
        return list;
    }
    case QMetaType::QVariantMap: {
        const QVariantMap indexed = value.toMap();
        QVariantMap map;
        for (QVariantMap::const_iterator it = indexed.constBegin(); it != indexed.constEnd(); ++it)
            map.insert(names.value(it.key().toInt()).toString(), restored(it.value(), numbers, names));
        return map;
    }
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return numbers.value(value.toInt());
    case QMetaType::Bool:
    case QMetaType::QString:
        return value;
    default: // null, which the libraries represent differently
        return QVariant();
    }
}

} // namespace

const int NwaJson::DefaultMaximumDepth;
const int NwaJson::DefaultMaximumValueCount;
const int NwaJson::MaximumNumberSize;

QByteArray NwaJson::serialize(const QVariant& value)
{
    // JSON libraries differ in whether a document may be a single value, but all accept it as an array's element.
    const QByteArray list = NwaJsonBackend::serialize(QVariantList() << normalised(value));
    return list.mid(1, list.size() - 2);
}

QVariant NwaJson::parse(const QByteArray& text, bool* ok, int maximumDepth, int maximumValueCount)
{
    bool isCorrect = false;
    QVariant document;
    NwaJsonScanner scanner(
        text, qMin(maximumDepth, int(NwaJsonBackend::MaximumDepth)), maximumValueCount, MaximumNumberSize);
    if (scanner.scan()) {
        const QByteArray indexed = '[' + scanner.indexedText() + ",[" + scanner.nameTexts() + "]]";
        const QVariantList list = NwaJsonBackend::parse(indexed, &isCorrect);
        document = restored(list.value(0), scanner.numbers(), list.value(1).toList());
    }
    if (ok)
        *ok = isCorrect;
    return document;
}
