#ifndef NSYSTEM_NDIRECTORYLOCK_P_H
#define NSYSTEM_NDIRECTORYLOCK_P_H

#include <nsystem/nfiledescriptor_p.h>

/**
 * A scoped advisory lock (flock(2)) on a directory, for processes that work in it one at a time. It leaves no file
 * behind and ends with a process that dies. Two locks of one process exclude each other as well.
 *
 * Another holder is waited for, 30 seconds at most. Where the directory cannot be opened, or its file system has
 * no locks, the lock counts as held: the work in the directory proceeds unprotected, or fails for that same
 * reason.
 */
class NDirectoryLock
{
public:
    enum Kind {
        Shared,   ///< excludes exclusive locks
        Exclusive ///< excludes all others
    };

    NDirectoryLock(const char* path, Kind kind);

    /** Whether the lock is held; false when another holder kept it for longer than is waited. */
    bool isLocked() const { return m_isLocked; }

    /**
     * Makes a shared lock exclusive. Another process may have held it in between; on failure, the shared lock is
     * lost as well.
     * @return isLocked()
     */
    bool makeExclusive();

    /**
     * Brings the names in the directory to the disk (fsync(2)).
     * @return false when the disk reports an error; true as well where it cannot be tried.
     */
    bool synchronize() const;

private:
    Q_DISABLE_COPY(NDirectoryLock)

    bool wait(Kind kind);

    const NFileDescriptor m_directory;
    bool m_isLocked;
};

#endif
