#include <nwebapi/nwarandom_p.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// Called by its number, because uClibc has no function for it.
ssize_t getRandom(void* data, size_t size)
{
#ifdef SYS_getrandom
    return syscall(SYS_getrandom, data, size, 0);
#else
    (void)data;
    (void)size;
    errno = ENOSYS;
    return -1;
#endif
}

class RandomDevice
{
public:
    RandomDevice()
        : m_descriptor(open("/dev/urandom", O_RDONLY | O_CLOEXEC))
    {
    }

    ~RandomDevice()
    {
        if (m_descriptor >= 0)
            close(m_descriptor);
    }

    ssize_t operator()(void* data, size_t size) const { return read(m_descriptor, data, size); }

private:
    RandomDevice(const RandomDevice&);
    RandomDevice& operator=(const RandomDevice&);

    int m_descriptor;
};

template <typename Source> bool fillFrom(const Source& source, void* data, size_t size)
{
    char* next = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t count = source(next, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        next += count;
        size -= size_t(count);
    }
    return true;
}

} // namespace

bool NwaRandom::fill(void* data, size_t size)
{
    return fillFrom(getRandom, data, size) || fillFrom(RandomDevice(), data, size);
}
