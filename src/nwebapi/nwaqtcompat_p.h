#ifndef NWEBAPI_NWAQTCOMPAT_P_H
#define NWEBAPI_NWAQTCOMPAT_P_H

#include <QtCore/QMetaType>
#include <QtCore/QVariant>
#include <QtCore/QtGlobal>

/** Where Qt 4.8 and Qt 5.15 differ for this library: one meaning, written for each of the two. */
namespace NwaQtCompat {

/** The type of @a value as QMetaType names it; a signed char, which has a name of its own in Qt 5, is a Char. */
inline int typeOf(const QVariant& value)
{
#if QT_VERSION >= 0x050000
    if (value.userType() == QMetaType::SChar)
        return QMetaType::Char;
#endif
    return value.userType();
}

} // namespace NwaQtCompat

#endif
