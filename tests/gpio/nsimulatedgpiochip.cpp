#include "nsimulatedgpiochip.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

using NSystemCalls::Answer;
using NSystemCalls::Calls;
using NSystemCalls::Invocation;

namespace {

const char ChipFile[] = "/dev/gpiochip0";

Calls ioctlOf(unsigned long request)
{
    return Calls(NSystemCalls::Ioctl).withRequest(request);
}

template <typename Record> bool writeRecord(const NFileDescriptor& descriptor, const Record& record)
{
    return ::write(descriptor.number(), &record, sizeof(record)) == ssize_t(sizeof(record));
}

qint64 failure(int error)
{
    errno = error;
    return -1;
}

} // namespace

NSimulatedGpioChip::NSimulatedGpioChip()
    : m_requestError(0)
    , m_levelError(0)
    , m_level(false)
    , m_requests(0)
    , m_open(Calls(NSystemCalls::Open).onPath(ChipFile), [this](const Invocation&) { return open(); })
    , m_readChip(ioctlOf(GPIO_GET_CHIPINFO_IOCTL), [this](const Invocation& call) { return readChip(call); })
    , m_readLine(ioctlOf(GPIO_V2_GET_LINEINFO_IOCTL), [this](const Invocation& call) { return readLine(call); })
    , m_watchLine(ioctlOf(GPIO_V2_GET_LINEINFO_WATCH_IOCTL), [](const Invocation&) { return 0; })
    , m_requestLine(ioctlOf(GPIO_V2_GET_LINE_IOCTL), [this](const Invocation& call) { return requestLine(call); })
    , m_readLevel(
          ioctlOf(GPIO_V2_LINE_GET_VALUES_IOCTL), [this](const Invocation& call) { return readLevel(call); })
    , m_writeLevel(
          ioctlOf(GPIO_V2_LINE_SET_VALUES_IOCTL), [this](const Invocation& call) { return writeLevel(call); })
{
    memset(&m_request, 0, sizeof(m_request));
}

void NSimulatedGpioChip::plugIn()
{
    // QDir takes a link that leads nowhere for a device, and only root may make devices.
    if (::symlink("/nowhere", ChipFile) != 0)
        qFatal("%s: %s", ChipFile, strerror(errno));
}

void NSimulatedGpioChip::unplug()
{
    ::unlink(ChipFile);
}

int NSimulatedGpioChip::connectedDescriptor(NFileDescriptor* otherEnd)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    otherEnd->reset(ends[1]);
    return ends[0];
}

qint64 NSimulatedGpioChip::open()
{
    return connectedDescriptor(&m_chip);
}

qint64 NSimulatedGpioChip::readChip(const Invocation& invocation)
{
    gpiochip_info* const info = static_cast<gpiochip_info*>(invocation.argument);
    memset(info, 0, sizeof(*info));
    strcpy(info->name, "gpiochip0");
    strcpy(info->label, "simulated");
    info->lines = Lines;
    return 0;
}

qint64 NSimulatedGpioChip::readLine(const Invocation& invocation)
{
    gpio_v2_line_info* const info = static_cast<gpio_v2_line_info*>(invocation.argument);
    if (info->offset >= Lines)
        return failure(EINVAL);
    strncpy(info->name, m_names[info->offset].constData(), sizeof(info->name) - 1);
    strcpy(info->consumer, "another");
    return 0;
}

qint64 NSimulatedGpioChip::requestLine(const Invocation& invocation)
{
    if (m_requestError != 0)
        return failure(m_requestError);
    gpio_v2_line_request* const request = static_cast<gpio_v2_line_request*>(invocation.argument);
    request->fd = connectedDescriptor(&m_line);
    m_request = *request;
    ++m_requests;
    return 0;
}

qint64 NSimulatedGpioChip::readLevel(const Invocation& invocation)
{
    if (m_levelError != 0)
        return failure(m_levelError);
    static_cast<gpio_v2_line_values*>(invocation.argument)->bits = m_level;
    return 0;
}

qint64 NSimulatedGpioChip::writeLevel(const Invocation& invocation)
{
    if (m_levelError != 0)
        return failure(m_levelError);
    m_level = static_cast<const gpio_v2_line_values*>(invocation.argument)->bits & 1;
    return 0;
}

bool NSimulatedGpioChip::sendEvent(quint32 id, quint32 sequenceNumber, quint64 time)
{
    gpio_v2_line_event event;
    memset(&event, 0, sizeof(event));
    event.id = id;
    event.line_seqno = sequenceNumber;
    event.seqno = sequenceNumber;
    event.timestamp_ns = time;
    return writeRecord(m_line, event);
}

bool NSimulatedGpioChip::sendChange(quint32 type)
{
    gpio_v2_line_info_changed change;
    memset(&change, 0, sizeof(change));
    change.event_type = type;
    return writeRecord(m_chip, change);
}

void NSimulatedGpioChip::endEvents()
{
    m_line.reset();
}
