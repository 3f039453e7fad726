#include <nsystem/nfilereplacement_p.h>

#include <nsystem/ndirectorylock_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QByteArray>

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int MaximumLinks = 40; // as many as the kernel follows (path_resolution(7))

QByteArray directoryOf(const QByteArray& path)
{
    const int separator = path.lastIndexOf('/');
    if (separator < 0)
        return ".";
    return separator == 0 ? QByteArray("/") : path.left(separator);
}

QByteArray newFileBeside(const QByteArray& path)
{
    return path + ".new";
}

// Where the link @a path points to, relative to the same directory as @a path; empty when it is no link.
QByteArray linkTarget(const QByteArray& path)
{
    char target[PATH_MAX];
    const ssize_t size = ::readlink(path.constData(), target, sizeof(target));
    if (size <= 0)
        return QByteArray();
    const QByteArray name(target, int(size));
    return name.startsWith('/') ? name : directoryOf(path) + '/' + name;
}

// The path behind all links, whether or not it exists; empty when there are too many.
QByteArray resolved(QByteArray path)
{
    for (int count = 0; count <= MaximumLinks; ++count) {
        const QByteArray target = linkTarget(path);
        if (target.isEmpty())
            return path;
        path = target;
    }
    errno = ELOOP;
    return QByteArray();
}

// A file with write permission off, or an immutable one, could be replaced by renaming; it must not be.
bool mayBeWritten(const QByteArray& path, const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    return NSystem::open(path.constData(), O_WRONLY | O_NOCTTY | O_NONBLOCK).isOpen();
}

bool takeOwner(int file, const struct stat& original)
{
    struct stat status;
    if (::fstat(file, &status) != 0)
        return false;
    const bool hasOtherOwner = status.st_uid != original.st_uid || status.st_gid != original.st_gid;
    return !hasOtherOwner || ::fchown(file, original.st_uid, original.st_gid) == 0;
}

bool takeMode(int file, const struct stat& original)
{
    return ::fchmod(file, original.st_mode & 07777) == 0;
}

// Writes and flushes the new file. On failure it may be left incomplete.
bool writeNewFile(const QByteArray& path, const struct stat* original, const void* data, size_t size, mode_t mode)
{
    // Nobody else may read it before it has its mode and owner.
    NFileDescriptor file = NSystem::open(
        path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOCTTY, original ? S_IRUSR | S_IWUSR : mode);
    // The mode comes last: a change of owner, and writing by a user without privileges, clear the set-user-ID bit.
    return file.isOpen() && (!original || takeOwner(file.number(), *original)) &&
           NSystem::writeAll(file.number(), data, size) && (!original || takeMode(file.number(), *original)) &&
           NSystem::synchronize(file.number()) && file.close();
}

} // namespace

bool NSystem::replaceFile(const char* path, const void* data, size_t size, mode_t mode)
{
    const QByteArray target = resolved(path);
    if (target.isEmpty())
        return false;
    const NDirectoryLock lock(directoryOf(target).constData(), NDirectoryLock::Exclusive);
    if (!lock.isLocked()) {
        errno = EWOULDBLOCK;
        return false;
    }
    struct stat status;
    const bool exists = ::stat(target.constData(), &status) == 0;
    if (exists ? !mayBeWritten(target, status) : errno != ENOENT)
        return false;

    const QByteArray newFile = newFileBeside(target);
    ::unlink(newFile.constData());
    if (writeNewFile(newFile, exists ? &status : nullptr, data, size, mode) &&
        ::rename(newFile.constData(), target.constData()) == 0)
        return lock.synchronize();
    const int error = errno;
    ::unlink(newFile.constData());
    errno = error;
    return false;
}

bool NSystem::removeFile(const char* path)
{
    const QByteArray name(path);
    const NDirectoryLock lock(directoryOf(name).constData(), NDirectoryLock::Exclusive);
    if (!lock.isLocked()) {
        errno = EWOULDBLOCK;
        return false;
    }
    ::unlink(newFileBeside(name).constData());
    if (::unlink(path) != 0)
        return errno == ENOENT;
    lock.synchronize();
    return true;
}
