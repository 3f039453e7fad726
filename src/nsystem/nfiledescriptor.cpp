#include <nsystem/nfiledescriptor_p.h>

#include <errno.h>
#include <unistd.h>

void NFileDescriptor::reset(int number)
{
    const int error = errno;
    close();
    errno = error;
    m_number = number;
}

bool NFileDescriptor::close()
{
    return !isOpen() || ::close(release()) == 0 || errno == EINTR;
}
