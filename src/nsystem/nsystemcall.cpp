#include <nsystem/nsystemcall_p.h>

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// strerror_r() returns the text or a status, depending on the C library and its settings; so one of these is
// unused.
Q_DECL_UNUSED const char* errorMessage(const char* text, const char*)
{
    return text;
}

Q_DECL_UNUSED const char* errorMessage(int status, const char* buffer)
{
    return status == 0 ? buffer : "Unknown error";
}

bool requireRegularFile(const struct stat& status)
{
    if (S_ISREG(status.st_mode))
        return true;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return false;
}

} // namespace

NFileDescriptor NSystem::open(const char* path, int flags, mode_t mode)
{
    return openAt(AT_FDCWD, path, flags, mode);
}

NFileDescriptor NSystem::openAt(int directory, const char* name, int flags, mode_t mode)
{
    return NFileDescriptor(retried([&]() { return ::openat(directory, name, flags | O_CLOEXEC, mode); }));
}

NFileDescriptor NSystem::openRegularFile(const char* path)
{
    struct stat status;
    if (::stat(path, &status) != 0 || !requireRegularFile(status))
        return NFileDescriptor();
    // Something else may have taken the name since.
    NFileDescriptor file = open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (!file.isOpen() || ::fstat(file.number(), &status) != 0 || !requireRegularFile(status))
        return NFileDescriptor();
    return file;
}

ssize_t NSystem::read(int file, void* data, size_t size)
{
    return retried([=]() { return ::read(file, data, size); });
}

ssize_t NSystem::readAll(int file, void* data, size_t size)
{
    size_t position = 0;
    while (position < size) {
        const ssize_t count = read(file, static_cast<char*>(data) + position, size - position);
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        position += size_t(count);
    }
    return ssize_t(position);
}

bool NSystem::writeAll(int file, const void* data, size_t size)
{
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = retried([=]() { return ::write(file, next, size); });
        if (count < 0)
            return false;
        next += count;
        size -= size_t(count);
    }
    return true;
}

bool NSystem::synchronize(int file)
{
    return retried([=]() { return ::fsync(file); }) == 0 || errno == EINVAL;
}

QString NSystem::errorText(int error)
{
    char buffer[256];
    return QString::fromLocal8Bit(errorMessage(::strerror_r(error, buffer, sizeof(buffer)), buffer));
}
