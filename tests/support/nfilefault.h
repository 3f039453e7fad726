#ifndef NBASE_TESTS_NFILEFAULT_H
#define NBASE_TESTS_NFILEFAULT_H

#include "support/nsystemcalls.h"

#include <errno.h>

/** The file functions' faults by their former name; new tests use NSystemCalls::Fault. */
class NFileFault : public NSystemCalls::Fault
{
public:
    enum Call {
        Read = NSystemCalls::Pread,
        Write = NSystemCalls::Pwrite,
        Synchronize = NSystemCalls::Fsync | NSystemCalls::Fdatasync,
        Remove = NSystemCalls::Unlink,
        Close = NSystemCalls::Close
    };

    explicit NFileFault(Call call, qint64 offset = -1)
        : NSystemCalls::Fault(NSystemCalls::Calls(call).atOffset(offset), EIO)
    {
    }

    explicit NFileFault(const NSystemCalls::Calls& calls)
        : NSystemCalls::Fault(calls, EIO)
    {
    }

    static NFileFault* once(Call call, int skipped)
    {
        return new NFileFault(NSystemCalls::Calls(call).skip(skipped).times(1));
    }
};

#endif
