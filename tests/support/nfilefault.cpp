#include "support/nfilefault.h"

#include <limits>

#include <dlfcn.h>
#include <errno.h>
#include <sys/types.h>

namespace {

struct Fault
{
    bool isOn;
    NFileFault::Call call;
    qint64 offset;
    int skipped;
    int most;
    int count;
};

Fault s_fault = {false, NFileFault::Read, -1, 0, 0, 0};

bool fails(NFileFault::Call call, qint64 offset = -1)
{
    if (!s_fault.isOn || s_fault.call != call || (s_fault.offset >= 0 && s_fault.offset != offset))
        return false;
    if (s_fault.skipped-- > 0 || s_fault.count == s_fault.most)
        return false;
    ++s_fault.count;
    errno = EIO;
    return true;
}

template <typename Function> Function* original(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

NFileFault::NFileFault(Call call, qint64 offset)
{
    const Fault fault = {true, call, offset, 0, std::numeric_limits<int>::max(), 0};
    s_fault = fault;
}

NFileFault* NFileFault::once(Call call, int skipped)
{
    NFileFault* const fault = new NFileFault(call);
    s_fault.skipped = skipped;
    s_fault.most = 1;
    return fault;
}

NFileFault::~NFileFault()
{
    s_fault.isOn = false;
}

int NFileFault::count() const
{
    return s_fault.count;
}

// The functions that SQLite (os_unix.c of its sources names them) and the library call.
extern "C" {

#define EXPORTED __attribute__((visibility("default")))

EXPORTED ssize_t pread64(int file, void* buffer, size_t size, off64_t offset)
{
    return fails(NFileFault::Read, offset)
               ? -1
               : original<ssize_t(int, void*, size_t, off64_t)>("pread64")(file, buffer, size, offset);
}

EXPORTED ssize_t pwrite64(int file, const void* buffer, size_t size, off64_t offset)
{
    return fails(NFileFault::Write, offset)
               ? -1
               : original<ssize_t(int, const void*, size_t, off64_t)>("pwrite64")(file, buffer, size, offset);
}

EXPORTED int fdatasync(int file)
{
    return fails(NFileFault::Synchronize) ? -1 : original<int(int)>("fdatasync")(file);
}

EXPORTED int fsync(int file)
{
    return fails(NFileFault::Synchronize) ? -1 : original<int(int)>("fsync")(file);
}

EXPORTED int close(int file)
{
    const bool isFailing = fails(NFileFault::Close);
    const int result = original<int(int)>("close")(file);
    if (!isFailing)
        return result;
    errno = EIO;
    return -1;
}

EXPORTED int unlink(const char* path) noexcept
{
    return fails(NFileFault::Remove) ? -1 : original<int(const char*)>("unlink")(path);
}
}
