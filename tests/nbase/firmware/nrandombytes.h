#ifndef NBASE_TESTS_NRANDOMBYTES_H
#define NBASE_TESTS_NRANDOMBYTES_H

#include <QtCore/QByteArray>

namespace NTest {

/** Bytes without a pattern, the same each time. */
inline QByteArray randomBytes(int size)
{
    QByteArray bytes(size, '\0');
    quint32 state = 1;
    for (int index = 0; index < size; ++index) {
        state = state * 1664525 + 1013904223;
        bytes[index] = char(state >> 24);
    }
    return bytes;
}

} // namespace NTest

#endif
