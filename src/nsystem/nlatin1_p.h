#ifndef NSYSTEM_NLATIN1_P_H
#define NSYSTEM_NLATIN1_P_H

#include <QtCore/QString>

/** @a text, which is Latin-1 and ends with a NUL, as a QString; a null pointer gives a null string. */
inline QString latin1(const char* text)
{
    return QString::fromLatin1(text);
}

#endif
