#include <nbase/core/ndirectorylock_p.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const useconds_t PollInterval = 10000; // microseconds
const int MostPolls = 3000;

} // namespace

NDirectoryLock::NDirectoryLock(const char* path, Kind kind)
    : m_directory(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    , m_isLocked(wait(kind))
{
}

NDirectoryLock::~NDirectoryLock()
{
    if (m_directory >= 0)
        ::close(m_directory);
}

bool NDirectoryLock::makeExclusive()
{
    m_isLocked = wait(Exclusive);
    return m_isLocked;
}

bool NDirectoryLock::synchronize() const
{
    int result;
    do
        result = m_directory < 0 ? 0 : ::fsync(m_directory);
    while (result != 0 && errno == EINTR);
    return result == 0 || errno == EINVAL;
}

bool NDirectoryLock::wait(Kind kind)
{
    const int operation = (kind == Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
    for (int poll = 0; poll < MostPolls; ++poll) {
        if (m_directory < 0 || ::flock(m_directory, operation) == 0 || errno != EWOULDBLOCK)
            return true;
        ::usleep(PollInterval);
    }
    return false;
}
