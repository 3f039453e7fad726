#include "datasender.h"

#include "terminaldevice.h"

#include <nbase/serial/nserialport.h>

#include <errno.h>
#include <string.h>

namespace {

// Shorter than a driver's buffer, 4096 bytes as a rule, takes to be sent at 230400 baud.
const int RetryInterval = 10; // milliseconds

} // namespace

DataSender::DataSender(NSerialPort* port, const TerminalDevice* device)
    : m_port(port)
    , m_device(device)
{
    m_writeTimer.setSingleShot(true);
    connect(&m_writeTimer, SIGNAL(timeout()), SLOT(write()));
    m_unsentOutputTimer.setSingleShot(true);
    connect(&m_unsentOutputTimer, SIGNAL(timeout()), SLOT(waitUntilSent()));
}

void DataSender::send(const QByteArray& bytes)
{
    m_unwritten += bytes;
    m_writeTimer.start(0);
}

void DataSender::write()
{
    const qint64 count = m_port->write(m_unwritten);
    if (count < 0 && m_port->errorString() != QString::fromLocal8Bit(strerror(EAGAIN))) {
        emit failed();
        return;
    }
    m_unwritten.remove(0, int(qMax(count, qint64(0))));
    if (m_unwritten.isEmpty())
        emit written();
    else
        m_writeTimer.start(RetryInterval);
}

void DataSender::waitUntilSent()
{
    // Not NSerialPort::flush(), which blocks the event loop and with it the receiver and the signals.
    if (m_device->hasUnsentOutput())
        m_unsentOutputTimer.start(RetryInterval);
    else
        emit sent();
}

void DataSender::stop()
{
    m_writeTimer.stop();
    m_unsentOutputTimer.stop();
}
