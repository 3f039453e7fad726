#ifndef NBASE_TESTS_NALLOCATEDBYTES_H
#define NBASE_TESTS_NALLOCATEDBYTES_H

#include <QtCore/QtGlobal>

#include <malloc.h>

namespace NTest {

/** The bytes allocated by the program; 0 where a sanitizer replaces the allocator. */
inline qint64 allocatedBytes()
{
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    const struct mallinfo2 information = mallinfo2();
#else
    const struct mallinfo information = mallinfo();
#endif
    // Large blocks are mapped individually and counted separately.
    return qint64(information.uordblks) + qint64(information.hblkhd);
}

} // namespace NTest

#endif
