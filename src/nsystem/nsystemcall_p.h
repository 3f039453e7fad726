#ifndef NSYSTEM_NSYSTEMCALL_P_H
#define NSYSTEM_NSYSTEMCALL_P_H

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QString>

#include <errno.h>
#include <sys/types.h>

/**
 * System calls as this library needs them: repeated after a signal, complete, and without a descriptor that a
 * child process inherits. Failures are reported as the calls do, by their results and errno.
 */
namespace NSystem {

/** The result of @a call, which is repeated as long as a signal interrupts it (EINTR). */
template <typename Call> auto retried(const Call& call) -> decltype(call())
{
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

/** Whether a call on a non-blocking descriptor has failed only because it would have to wait. */
inline bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

/** open(2) with O_CLOEXEC. @return not open on failure, with errno. */
NFileDescriptor open(const char* path, int flags, mode_t mode = 0);

/** openat(2) with O_CLOEXEC. @return not open on failure, with errno. */
NFileDescriptor openAt(int directory, const char* name, int flags, mode_t mode = 0);

/**
 * Opens a regular file for reading. It never waits, and leaves what is not a regular file alone: opening a FIFO
 * would wait for its writer, and opening a device can change its state.
 * @return not open on failure, with errno; EISDIR for a directory, EINVAL for anything else that is not a regular
 * file.
 */
NFileDescriptor openRegularFile(const char* path);

/** read(2). @return the number of bytes, 0 at the end, -1 on failure. */
ssize_t read(int file, void* data, size_t size);

/** Reads until @a size bytes have come or the file ends. @return the number of bytes; -1 on failure. */
ssize_t readAll(int file, void* data, size_t size);

/** Writes all @a size bytes. @return false on failure, after which any number of them may have been written. */
bool writeAll(int file, const void* data, size_t size);

/**
 * Brings the content of a file, or the names in a directory, to the disk (fsync(2)).
 * @return true as well where the file system cannot do that (EINVAL).
 */
bool synchronize(int file);

/** The C library's text for the error number @a error, in the user's language (strerror(3)). */
QString errorText(int error = errno);

} // namespace NSystem

#endif
