#include <nbase/sqlite/nsqlitefile_p.h>

#include <nbase/nbaseqtcompat_p.h>
#include <nsystem/nsystemcall_p.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// What SQLite keeps beside a database file. With the journal of another file, a database would be overwritten with
// that one's pages (https://sqlite.org/howtocorrupt.html).
const char* const JournalSuffixes[] = {"-journal", "-wal", "-shm"};

bool isWritable(const QByteArray& path)
{
    return ::faccessat(AT_FDCWD, path.constData(), W_OK, AT_EACCESS) == 0 || errno == ENOENT;
}

bool renameIfThere(const QByteArray& from, const QByteArray& to)
{
    return ::rename(from.constData(), to.constData()) == 0 || ::access(from.constData(), F_OK) != 0;
}

} // namespace

// Qt's driver gives SQLite the name in UTF-8, whatever the locale is.
NSqliteFile::NSqliteFile(const QString& path)
    : m_name(path.toUtf8())
{
}

NSqliteFile::Fault NSqliteFile::faultOf(int resultCode)
{
    // The upper bits of an extended code are details.
    switch (resultCode & 0xff) {
    case 11: // SQLITE_CORRUPT
    case 24: // SQLITE_FORMAT
    case 26: // SQLITE_NOTADB
        return Damaged;
    case 1:  // SQLITE_ERROR
    case 4:  // SQLITE_ABORT
    case 6:  // SQLITE_LOCKED, by the same connection
    case 12: // SQLITE_NOTFOUND
    case 17: // SQLITE_SCHEMA
    case 18: // SQLITE_TOOBIG
    case 19: // SQLITE_CONSTRAINT
    case 20: // SQLITE_MISMATCH
    case 21: // SQLITE_MISUSE
    case 25: // SQLITE_RANGE
        return Refused;
    default:
        return Obstructed;
    }
}

NSqliteFile::Fault NSqliteFile::faultOf(const QSqlError& error) const
{
    if (!error.isValid())
        return NoFault;
    const int ReadOnly = 8; // SQLITE_READONLY
    const int resultCode = NBaseQtCompat::sqlErrorNumber(error);
    if ((resultCode & 0xff) == ReadOnly && !isReadOnly())
        return Refused;
    return faultOf(resultCode);
}

QByteArray NSqliteFile::directory() const
{
    const QByteArray file = path();
    return file.contains('/') ? file.left(file.lastIndexOf('/') + 1) : QByteArray(".");
}

qint64 NSqliteFile::size() const
{
    struct stat status;
    return ::stat(m_name.constData(), &status) == 0 ? qint64(status.st_size) : 0;
}

bool NSqliteFile::isReadOnly() const
{
    return !isWritable(path()) || !isWritable(directory());
}

bool NSqliteFile::isDiskFull(qint64 needed) const
{
    struct statvfs disk;
    if (::statvfs(directory().constData(), &disk) != 0)
        return false;
    // The superuser may use what is reserved. File systems without a limit have no sizes.
    const quint64 blocks = ::geteuid() == 0 ? disk.f_bfree : disk.f_bavail;
    const bool hasBlocks = disk.f_blocks == 0 || blocks * disk.f_frsize >= quint64(needed);
    const bool hasFiles = disk.f_files == 0 || disk.f_ffree > 0;
    return !hasBlocks || !hasFiles;
}

bool NSqliteFile::isLocked() const
{
    const NFileDescriptor file = NSystem::openRegularFile(m_name.constData());
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return file.isOpen() && ::fcntl(file.number(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool NSqliteFile::setAside() const
{
    const QByteArray file = path();
    const QByteArray copy = file + ".damaged";
    for (const char* suffix : JournalSuffixes)
        ::unlink((copy + suffix).constData());
    if (!renameIfThere(file, copy))
        return false;
    // Should the power fail here, SQLite removes the journal of a file that is not there.
    bool isDone = true;
    for (const char* suffix : JournalSuffixes)
        isDone = renameIfThere(file + suffix, copy + suffix) && isDone;
    return isDone;
}

// The file itself where the name is a symbolic link.
QByteArray NSqliteFile::path() const
{
    char* const target = ::realpath(m_name.constData(), nullptr);
    const QByteArray result = target ? QByteArray(target) : m_name;
    ::free(target);
    return result;
}
