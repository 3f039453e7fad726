#include "terminaldevice.h"

#include <nbase/serial/nserialport.h>

#include <errno.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

TerminalDevice::TerminalDevice()
    : m_fd(-1)
{
}

TerminalDevice::~TerminalDevice()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

int TerminalDevice::open(const QString& portName)
{
    int errorNumber;
    m_fd = NSerialPort::openFile(portName, errorNumber);
    if (m_fd < 0)
        return errorNumber;
    return isatty(m_fd) ? 0 : errno;
}

bool TerminalDevice::hasUnsentOutput() const
{
    int size = 0;
    return ::ioctl(m_fd, TIOCOUTQ, &size) == 0 && size > 0;
}

void TerminalDevice::discardUnsentOutput()
{
    tcflush(m_fd, TCOFLUSH);
}
