#include <nwebapi/nwarandom_p.h>

#include <nsystem/nsystemcall_p.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Called by its number, because uClibc has no function for it.
ssize_t getRandom(void* data, size_t size)
{
#ifdef SYS_getrandom
    return ::syscall(SYS_getrandom, data, size, 0);
#else
    (void)data;
    (void)size;
    errno = ENOSYS;
    return -1;
#endif
}

bool fillFromKernel(void* data, size_t size)
{
    char* next = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t count = NSystem::retried([=]() { return getRandom(next, size); });
        if (count <= 0)
            return false;
        next += count;
        size -= size_t(count);
    }
    return true;
}

bool fillFromDevice(void* data, size_t size)
{
    const NFileDescriptor device = NSystem::open("/dev/urandom", O_RDONLY);
    return device.isOpen() && NSystem::readAll(device.number(), data, size) == ssize_t(size);
}

} // namespace

bool NwaRandom::fill(void* data, size_t size)
{
    return fillFromKernel(data, size) || fillFromDevice(data, size);
}
