#include <nwebapi/nwajsonutilities.h>

#include <limits>

namespace {

bool hasType(const QVariant& variant, QVariant::Type type)
{
    return variant.isValid() && variant.type() == type;
}

bool hasType(const QVariant& variant, QMetaType::Type type)
{
    return variant.isValid() && variant.userType() == int(type);
}

bool booleanFromVariant(const QVariant& variant, bool& value)
{
    if (!hasType(variant, QVariant::Bool))
        return false;
    value = variant.toBool();
    return true;
}

// Whether @a number is whole, from 0 and at most @a maximum; a double holds every unsigned int exactly.
bool integerFromDouble(double number, unsigned int maximum, unsigned int& value)
{
    if (!(number >= 0 && number <= double(maximum)) || number != double(static_cast<unsigned int>(number)))
        return false;
    value = static_cast<unsigned int>(number);
    return true;
}

bool integerFromVariant(const QVariant& variant, unsigned int maximum, unsigned int& value)
{
    if (hasType(variant, QVariant::Double))
        return integerFromDouble(variant.toDouble(), maximum, value);
    if (hasType(variant, QMetaType::Float))
        return integerFromDouble(double(variant.value<float>()), maximum, value);

    if (hasType(variant, QVariant::Int) || hasType(variant, QVariant::LongLong)) {
        const qlonglong number = variant.toLongLong();
        if (number < 0 || number > qlonglong(maximum))
            return false;
        value = static_cast<unsigned int>(number);
        return true;
    }
    if (hasType(variant, QVariant::UInt) || hasType(variant, QVariant::ULongLong)) {
        const qulonglong number = variant.toULongLong();
        if (number > qulonglong(maximum))
            return false;
        value = static_cast<unsigned int>(number);
        return true;
    }
    return false;
}

} // namespace

bool NwaJsonUtilities::stringValue(const QVariantMap& object, const QString& key, QString& value)
{
    return stringValue(object.value(key), value);
}

bool NwaJsonUtilities::stringValue(
    const QVariantMap& object, const QString& key, QString& value, const QString& defaultValue)
{
    if (object.contains(key))
        return stringValue(object, key, value);
    value = defaultValue;
    return true;
}

bool NwaJsonUtilities::stringValue(const QVariant& variant, QString& value)
{
    if (!hasType(variant, QVariant::String))
        return false;
    value = variant.toString();
    return true;
}

bool NwaJsonUtilities::booleanValue(const QVariantMap& object, const QString& key, bool& value)
{
    return booleanFromVariant(object.value(key), value);
}

bool NwaJsonUtilities::booleanValue(const QVariantMap& object, const QString& key, bool& value, bool defaultValue)
{
    if (object.contains(key))
        return booleanValue(object, key, value);
    value = defaultValue;
    return true;
}

bool NwaJsonUtilities::integerValue(const QVariantMap& object, const QString& key, unsigned short& value)
{
    unsigned int number = 0;
    if (!integerFromVariant(object.value(key), std::numeric_limits<unsigned short>::max(), number))
        return false;
    value = static_cast<unsigned short>(number);
    return true;
}

bool NwaJsonUtilities::integerValue(const QVariantMap& object, const QString& key, unsigned int& value)
{
    return integerFromVariant(object.value(key), std::numeric_limits<unsigned int>::max(), value);
}

bool NwaJsonUtilities::integerValue(
    const QVariantMap& object, const QString& key, unsigned int& value, unsigned int defaultValue)
{
    if (object.contains(key))
        return integerValue(object, key, value);
    value = defaultValue;
    return true;
}

bool NwaJsonUtilities::listValue(const QVariantMap& object, const QString& key, QVariantList& value)
{
    const QVariant variant = object.value(key);
    if (!hasType(variant, QVariant::List))
        return false;
    value = variant.toList();
    return true;
}

bool NwaJsonUtilities::objectValue(const QVariantMap& object, const QString& key, QVariantMap& value)
{
    return objectValue(object.value(key), value);
}

bool NwaJsonUtilities::objectValue(const QVariant& variant, QVariantMap& value)
{
    if (!hasType(variant, QVariant::Map))
        return false;
    value = variant.toMap();
    return true;
}
