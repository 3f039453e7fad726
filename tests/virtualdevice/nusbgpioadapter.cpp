#include "nusbgpioadapter.h"

#include "gpiochip.h"

#include "support/ntestwait.h"

#include <nsystem/nsystemcall_p.h>

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

namespace {

enum Report {
    ConfigurationReport = 0x02,
    ReadLevelsReport = 0x03,
    WriteLevelsReport = 0x04,
    VersionReport = 0x05
};

const int VendorId = 0x10c4;
const int ProductId = 0xea90;

// One report of 63 bytes for the vendor's purposes. The driver does not look at it.
const __u8 ReportDescriptor[] = {0x06, 0x00, 0xff, 0x09, 0x01, 0xa1, 0x01, 0x85, 0x02, 0x09, 0x01, 0x15,
                                 0x00, 0x26, 0xff, 0x00, 0x75, 0x08, 0x95, 0x3f, 0xb1, 0x02, 0xc0};

const int StopCheckInterval = 20; // milliseconds

/** The machine has no other chips. */
bool chipExists()
{
    return !GpioChip::names().isEmpty();
}

} // namespace

NUsbGpioAdapter::NUsbGpioAdapter()
    : m_isEnding(false)
    , m_appliedLevels(0)
    , m_drivenLevels(0)
    , m_outputs(0)
    , m_reads(0)
{
}

NUsbGpioAdapter::~NUsbGpioAdapter()
{
    unplug();
}

bool NUsbGpioAdapter::plugIn()
{
    if (isRunning())
        return true;
    m_uhid = NSystem::open("/dev/uhid", O_RDWR);
    m_isEnding = false;
    m_drivenLevels = 0;
    m_outputs = 0;
    uhid_event event;
    memset(&event, 0, sizeof(event));
    event.type = UHID_CREATE2;
    strcpy(reinterpret_cast<char*>(event.u.create2.name), "USB GPIO adapter");
    event.u.create2.bus = BUS_USB;
    event.u.create2.vendor = VendorId;
    event.u.create2.product = ProductId;
    event.u.create2.rd_size = sizeof(ReportDescriptor);
    memcpy(event.u.create2.rd_data, ReportDescriptor, sizeof(ReportDescriptor));
    if (!send(event))
        return false;
    start();
    return NTest::waitUntil(chipExists);
}

bool NUsbGpioAdapter::unplug()
{
    if (!isRunning())
        return true;
    // The thread answers meanwhile, because the driver may be waiting for a report.
    uhid_event event;
    memset(&event, 0, sizeof(event));
    event.type = UHID_DESTROY;
    const bool isSent = send(event);
    {
        const QMutexLocker locker(&m_mutex);
        m_isEnding = true;
    }
    wait();
    m_uhid.reset();
    return isSent && NTest::waitUntil([]() { return !chipExists(); });
}

bool NUsbGpioAdapter::send(const uhid_event& event) const
{
    return m_uhid.isOpen() && ::write(m_uhid.number(), &event, sizeof(event)) == ssize_t(sizeof(event));
}

void NUsbGpioAdapter::run()
{
    for (;;) {
        pollfd descriptor = {m_uhid.number(), POLLIN, 0};
        const int ready = ::poll(&descriptor, 1, StopCheckInterval);
        const QMutexLocker locker(&m_mutex);
        if (m_isEnding)
            return;
        uhid_event event;
        memset(&event, 0, sizeof(event));
        if (ready != 1 || ::read(m_uhid.number(), &event, sizeof(event)) <= 0)
            continue;
        if (event.type == UHID_GET_REPORT)
            answer(event.u.get_report);
        else if (event.type == UHID_SET_REPORT)
            take(event.u.set_report);
    }
}

void NUsbGpioAdapter::answer(const uhid_get_report_req& request)
{
    uhid_event event;
    memset(&event, 0, sizeof(event));
    event.type = UHID_GET_REPORT_REPLY;
    uhid_get_report_reply_req& reply = event.u.get_report_reply;
    reply.id = request.id;
    reply.size = 64; // more than the driver asks for, which does not matter
    reply.data[0] = request.rnum;
    if (request.rnum == ConfigurationReport) {
        reply.data[1] = __u8(m_outputs);
    } else if (request.rnum == ReadLevelsReport) {
        reply.data[1] = __u8(currentLevels());
        ++m_reads;
        m_hasBeenRead.wakeAll();
    } else if (request.rnum == VersionReport) {
        reply.data[1] = 0x0c;
        reply.data[2] = 0x02;
    }
    send(event);
}

void NUsbGpioAdapter::take(const uhid_set_report_req& request)
{
    const int value = request.data[1];
    const int mask = request.data[2];
    if (request.rnum == ConfigurationReport) {
        m_outputs = value;
        noteWrite("outputs " + QByteArray::number(value, 16).rightJustified(2, '0'));
    } else if (request.rnum == WriteLevelsReport) {
        m_drivenLevels = (m_drivenLevels & ~mask) | (value & mask);
        for (int line = 0; line < Lines; ++line) {
            if (mask & 1 << line)
                noteWrite("line " + QByteArray::number(line) + (value & 1 << line ? " high" : " low"));
        }
    }
    uhid_event event;
    memset(&event, 0, sizeof(event));
    event.type = UHID_SET_REPORT_REPLY;
    event.u.set_report_reply.id = request.id;
    send(event);
}

int NUsbGpioAdapter::currentLevels() const
{
    return (m_appliedLevels & ~m_outputs) | (m_drivenLevels & m_outputs);
}

void NUsbGpioAdapter::setLevels(int levels)
{
    const QMutexLocker locker(&m_mutex);
    m_appliedLevels = levels;
}

int NUsbGpioAdapter::levels() const
{
    const QMutexLocker locker(&m_mutex);
    return currentLevels();
}

int NUsbGpioAdapter::outputs() const
{
    const QMutexLocker locker(&m_mutex);
    return m_outputs;
}

bool NUsbGpioAdapter::waitForReads(int count)
{
    const QMutexLocker locker(&m_mutex);
    const int end = m_reads + count;
    while (m_reads < end) {
        if (!m_hasBeenRead.wait(&m_mutex, 30000))
            return false;
    }
    return true;
}

void NUsbGpioAdapter::noteWrite(const QByteArray& text)
{
    m_writes += (m_writes.isEmpty() ? QByteArray() : QByteArray(", ")) + text;
}

QByteArray NUsbGpioAdapter::takeWrites()
{
    const QMutexLocker locker(&m_mutex);
    const QByteArray writes = m_writes;
    m_writes.clear();
    return writes;
}
