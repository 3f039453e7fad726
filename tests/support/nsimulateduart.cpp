#include "support/nsimulateduart.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace NSystemCalls;

namespace {

int openOtherEnd()
{
    const int descriptor = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0 || ::grantpt(descriptor) != 0 || ::unlockpt(descriptor) != 0)
        qFatal("no pseudo-terminal: %s", strerror(errno));
    return descriptor;
}

// The rules are not applied to the calls of the simulation itself.
int openDevice(const char* path)
{
    const int descriptor = int(::syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (descriptor < 0)
        qFatal("%s: %s", path, strerror(errno));
    return descriptor;
}

} // namespace

NSimulatedUart::NSimulatedUart()
    : m_otherEnd(openOtherEnd())
    , m_path(::ptsname(m_otherEnd))
    , m_device(openDevice(m_path.constData()))
    , m_modemLines(0)
    , m_getModemLines(
          requests(TIOCMGET),
          [this](const Invocation& invocation) {
              *static_cast<int*>(invocation.argument) = m_modemLines;
              return 0;
          })
    , m_setModemLines(
          requests(TIOCMSET),
          [this](const Invocation& invocation) {
              m_modemLines = *static_cast<const int*>(invocation.argument);
              return 0;
          })
    , m_getRs485(
          requests(TIOCGRS485),
          [this](const Invocation& invocation) {
              *static_cast<serial_rs485*>(invocation.argument) = m_rs485;
              return 0;
          })
    , m_writeRs485(
          requests(TIOCSRS485),
          [this](const Invocation& invocation) {
              m_rs485 = *static_cast<const serial_rs485*>(invocation.argument);
              return 0;
          })
    , m_noteChange(Calls(Tcsetattr).onPath(m_path), [this](const Invocation& invocation) {
        const Change change = {invocation.flags, *static_cast<const termios*>(invocation.argument)};
        m_changes.append(change);
    })
{
    memset(&m_rs485, 0, sizeof(m_rs485));
    memset(&m_pretendedSettings, 0, sizeof(m_pretendedSettings));
}

NSimulatedUart::~NSimulatedUart()
{
    hangUp();
    ::close(m_device);
}

QString NSimulatedUart::portName() const
{
    return QString::fromLatin1(m_path);
}

int NSimulatedUart::send(const QByteArray& data)
{
    return int(qMax(::write(m_otherEnd, data.constData(), size_t(data.size())), ssize_t(0)));
}

QByteArray NSimulatedUart::receive()
{
    QByteArray data;
    char chunk[4096];
    for (;;) {
        const ssize_t size = ::read(m_otherEnd, chunk, sizeof(chunk));
        if (size <= 0)
            return data;
        data.append(chunk, int(size));
    }
}

int NSimulatedUart::waitingBytes() const
{
    int size = 0;
    return ::syscall(SYS_ioctl, m_device, FIONREAD, &size) == 0 ? size : 0;
}

void NSimulatedUart::hangUp()
{
    if (m_otherEnd >= 0)
        ::close(m_otherEnd);
    m_otherEnd = -1;
}

termios NSimulatedUart::settings() const
{
    termios settings;
    memset(&settings, 0, sizeof(settings));
    ::tcgetattr(m_otherEnd, &settings);
    return settings;
}

void NSimulatedUart::pretendSettings(const termios& settings)
{
    m_pretendedSettings = settings;
    m_pretendGet.reset(new Answer(Calls(Tcgetattr).onPath(m_path), [this](const Invocation& invocation) {
        *static_cast<termios*>(invocation.argument) = m_pretendedSettings;
        return 0;
    }));
    m_pretendSet.reset(new Answer(Calls(Tcsetattr).onPath(m_path), [](const Invocation&) { return 0; }));
}

QList<NSimulatedUart::Change> NSimulatedUart::takeChanges()
{
    const QList<Change> changes = m_changes;
    m_changes.clear();
    return changes;
}

Calls NSimulatedUart::requests(unsigned long request) const
{
    return Calls(Ioctl).withRequest(request).onPath(m_path);
}
