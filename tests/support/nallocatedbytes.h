#ifndef NBASE_TESTS_NALLOCATEDBYTES_H
#define NBASE_TESTS_NALLOCATEDBYTES_H

#include <QtCore/QtGlobal>

#include <malloc.h>

namespace NTest {

/** Bytes that the program has allocated; 0 where a sanitizer has replaced the allocator. */
inline qint64 allocatedBytes()
{
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    const struct mallinfo2 information = mallinfo2();
#else
    const struct mallinfo information = mallinfo();
#endif
    // Large blocks are mapped one by one and counted apart.
    return qint64(information.uordblks) + qint64(information.hblkhd);
}

} // namespace NTest

#endif
