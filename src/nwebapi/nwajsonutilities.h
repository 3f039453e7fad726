#ifndef NWEBAPI_NWAJSONUTILITIES_H
#define NWEBAPI_NWAJSONUTILITIES_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QString>
#include <QtCore/QVariant>

/**
 * Typed access to the values of a parsed JSON document (see NwaJson). Each operation returns whether the value is
 * present and of the right type, and only then changes its reference argument. The forms with a default use it for
 * an absent value; a value of another type, including null, is still an error.
 *
 * Nothing is converted: the text "1" is not an integer, 1 is not a boolean. A number is an integer when it is
 * whole and in the range of the result: 3.0 is one, 3.5 and -1 are not.
 */
class NWEBAPI_EXPORT NwaJsonUtilities
{
public:
    /**
     * @{
     * Reads the text that is the member @a key of @a object, or that @a variant itself is.
     * @return whether it is present and a text; with a default, whether it is absent or a text.
     */
    static bool stringValue(const QVariantMap& object, const QString& key, QString& value);
    static bool
    stringValue(const QVariantMap& object, const QString& key, QString& value, const QString& defaultValue);
    static bool stringValue(const QVariant& variant, QString& value);
    /** @} */

    /**
     * @{
     * Reads the boolean that is the member @a key of @a object.
     * @return whether it is present and true or false; with a default, whether it is absent, true or false.
     */
    static bool booleanValue(const QVariantMap& object, const QString& key, bool& value);
    static bool booleanValue(const QVariantMap& object, const QString& key, bool& value, bool defaultValue);
    /** @} */

    /**
     * @{
     * Reads the number that is the member @a key of @a object.
     * @return whether it is present, whole and in the range of @a value; with a default, whether it is that or
     * absent.
     */
    static bool integerValue(const QVariantMap& object, const QString& key, unsigned short& value);
    static bool integerValue(const QVariantMap& object, const QString& key, unsigned int& value);
    static bool
    integerValue(const QVariantMap& object, const QString& key, unsigned int& value, unsigned int defaultValue);
    /** @} */

    /** Reads the array that is the member @a key of @a object. @return whether it is present and an array. */
    static bool listValue(const QVariantMap& object, const QString& key, QVariantList& value);

    /**
     * @{
     * Reads the object that is the member @a key of @a object, or that @a variant itself is.
     * @return whether it is present and an object.
     */
    static bool objectValue(const QVariantMap& object, const QString& key, QVariantMap& value);
    static bool objectValue(const QVariant& variant, QVariantMap& value);
    /** @} */

private:
    NwaJsonUtilities();
};

#endif
