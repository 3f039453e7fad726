#ifndef NWEBAPI_NWARANDOM_P_H
#define NWEBAPI_NWARANDOM_P_H

#include <stddef.h>

/** Unpredictable bytes for identifiers and keys. */
class NwaRandom
{
public:
    /**
     * Fills @a size bytes at @a data from the operating system's generator (getrandom(2), or "/dev/urandom" where
     * the kernel or the C library has no getrandom).
     * @return whether all bytes are random; if not, they must not be used.
     */
    static bool fill(void* data, size_t size);

private:
    NwaRandom();
};

#endif
