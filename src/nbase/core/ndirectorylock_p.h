#ifndef NBASE_NDIRECTORYLOCK_P_H
#define NBASE_NDIRECTORYLOCK_P_H

#include <QtCore/QtGlobal>

/**
 * Keeps processes apart that would get in each other's way in a directory, for its scope. The lock is on the
 * directory itself (see flock(2)): it leaves nothing behind, and ends with a process that dies.
 *
 * Other processes are waited for, half a minute at most. Where the directory cannot be opened, or its file system
 * has no locks, everybody has the lock: what is tried in the directory goes on as if nobody else were there.
 */
class NDirectoryLock
{
public:
    enum Kind {
        Shared,   ///< with others that share it
        Exclusive ///< with nobody
    };

    NDirectoryLock(const char* path, Kind kind);
    ~NDirectoryLock();

    /** Whether the lock has been got. */
    bool isLocked() const { return m_isLocked; }

    /**
     * Makes a shared lock exclusive. Another process may have had it in between; without success, it is lost.
     * @return isLocked()
     */
    bool makeExclusive();

    /**
     * Brings the names of the directory's files to the disk (see fsync(2)).
     * @return false when the disk refuses; true as well where it cannot be tried.
     */
    bool synchronize() const;

private:
    Q_DISABLE_COPY(NDirectoryLock)

    bool wait(Kind kind);

    const int m_directory;
    bool m_isLocked;
};

#endif
