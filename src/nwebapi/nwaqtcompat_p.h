#ifndef NWEBAPI_NWAQTCOMPAT_P_H
#define NWEBAPI_NWAQTCOMPAT_P_H

#include <QtCore/QMetaType>
#include <QtCore/QVariant>
#include <QtCore/QtGlobal>

/** The differences between Qt 4.8 and Qt 5.15 that this library meets: one operation, implemented for each. */
namespace NwaQtCompat {

/** The QMetaType of @a value; Char also for a signed char, which is a type of its own in Qt 5 only. */
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
