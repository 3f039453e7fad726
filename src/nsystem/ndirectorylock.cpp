#include <nsystem/ndirectorylock_p.h>

#include <nsystem/nsystemcall_p.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const useconds_t PollInterval = 10000; // microseconds
const int MaximumPolls = 3000;

} // namespace

NDirectoryLock::NDirectoryLock(const char* path, Kind kind)
    : m_directory(NSystem::open(path, O_RDONLY | O_DIRECTORY))
    , m_isLocked(wait(kind))
{
}

bool NDirectoryLock::makeExclusive()
{
    m_isLocked = wait(Exclusive);
    return m_isLocked;
}

bool NDirectoryLock::synchronize() const
{
    return !m_directory.isOpen() || NSystem::synchronize(m_directory.number());
}

bool NDirectoryLock::wait(Kind kind)
{
    const int operation = (kind == Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
    for (int poll = 0; poll < MaximumPolls; ++poll) {
        if (!m_directory.isOpen() || ::flock(m_directory.number(), operation) == 0 || errno != EWOULDBLOCK)
            return true;
        ::usleep(PollInterval);
    }
    return false;
}
