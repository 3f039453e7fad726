#include <nbase/serial/nseriallistenersingleton.h>

#include <nbase/core/nlisteneremission_p.h>
#include <nbase/serial/nseriallistener.h>
#include <nbase/serial/nserialport.h>

#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtCore/QTimerEvent>

template class NSingleton<NSerialListenerSingleton>;

namespace {

const int ChunkSize = 512;
const int OpeningTimeout = 10000;   // milliseconds
const int ReopeningInterval = 5000; // milliseconds

} // namespace

NSerialListenerSingleton::SerialPortData::SerialPortData()
    : allocated(false)
    , reopeningTimer(0)
{
}

NSerialListenerSingleton::NSerialListenerSingleton(QObject* parent)
    : QObject(parent)
    , m_allocator(nullptr)
    , m_innermostEmission(nullptr)
{
    connect(
        &m_allocator, SIGNAL(serialPortAllocated(NSerialPort*, NSerialPortAllocator::AllocationType)),
                             SLOT(serialPortAllocated(NSerialPort*, NSerialPortAllocator::AllocationType)));
    connect(
        &m_allocator, SIGNAL(serialPortAboutToRemove(NSerialPort*)), SLOT(serialPortAboutToRemove(NSerialPort*)));
}

NSerialListenerSingleton::~NSerialListenerSingleton()
{
    while (!m_serialPorts.isEmpty())
        removePort(m_serialPorts.begin());
}

bool NSerialListenerSingleton::startListeningOnSerialPort(NSerialListener* listener, NSerialPort* port)
{
    if (!port)
        return false;
    const SerialPorts::iterator entry = m_serialPorts.find(port);
    if (entry != m_serialPorts.end()) {
        entry->listeners.insert(listener);
        return true;
    }
    m_serialPorts[port].listeners.insert(listener);
    if (m_allocator.requestSerialPortAllocation(port, NSerialPortAllocator::PermanentAllocation))
        return true;
    m_serialPorts.remove(port);
    return false;
}

void NSerialListenerSingleton::stopListeningOnSerialPort(NSerialListener* listener, NSerialPort* port)
{
    if (!port) {
        Emission::remove(m_innermostEmission, listener);
        QList<NSerialPort*> ports;
        for (SerialPorts::const_iterator i = m_serialPorts.constBegin(); i != m_serialPorts.constEnd(); ++i) {
            if (i->listeners.contains(listener))
                ports.append(i.key());
        }
        while (!ports.isEmpty())
            stopListeningOnSerialPort(listener, ports.takeFirst());
        return;
    }
    Emission::remove(m_innermostEmission, port, listener);
    const SerialPorts::iterator entry = m_serialPorts.find(port);
    if (entry == m_serialPorts.end())
        return;
    entry->listeners.remove(listener);
    if (entry->listeners.isEmpty())
        removePort(entry);
}

void NSerialListenerSingleton::serialPortAllocated(
    NSerialPort* serialPort, NSerialPortAllocator::AllocationType allocationType)
{
    const SerialPorts::iterator entry = m_serialPorts.find(serialPort);
    if (entry == m_serialPorts.end() || allocationType != NSerialPortAllocator::PermanentAllocation) {
        m_allocator.releaseSerialPort(serialPort);
        return;
    }
    entry->allocated = true;
    connect(serialPort, SIGNAL(opened()), SLOT(serialPortOpened()));
    connect(serialPort, SIGNAL(openingError()), SLOT(serialPortOpeningError()));
    connect(serialPort, SIGNAL(readyRead()), SLOT(serialPortReadyRead()));
    connect(serialPort, SIGNAL(readChannelFinished()), SLOT(serialPortReadChannelFinished()));
    openPort(serialPort);
}

void NSerialListenerSingleton::openPort(NSerialPort* port)
{
    port->asyncOpen(QIODevice::ReadWrite, OpeningTimeout);
}

void NSerialListenerSingleton::removePort(SerialPorts::iterator entry)
{
    NSerialPort* const port = entry.key();
    const bool allocated = entry->allocated;
    stopReopeningTimer(*entry);
    m_serialPorts.erase(entry);
    Emission::clear(m_innermostEmission, port);
    if (!allocated) {
        m_allocator.cancelSerialPortAllocationRequests(port);
        return;
    }
    port->close();
    port->disconnect(this);
    m_allocator.releaseSerialPort(port);
}

void NSerialListenerSingleton::serialPortAboutToRemove(NSerialPort* serialPort)
{
    const SerialPorts::iterator entry = m_serialPorts.find(serialPort);
    if (entry == m_serialPorts.end())
        return;
    const QSet<NSerialListener*> listeners = entry->listeners;
    removePort(entry);
    emitOnListeners(serialPort, &NSerialListener::serialPortAboutToRemove, listeners);
}

void NSerialListenerSingleton::serialPortOpened()
{
    NSerialPort* const port = senderPort();
    if (port)
        emitOnListeners(port, &NSerialListener::listeningStarted, m_serialPorts.value(port).listeners);
}

void NSerialListenerSingleton::serialPortOpeningError()
{
    NSerialPort* const port = senderPort();
    if (port)
        processSerialPortListeningEror(port);
}

void NSerialListenerSingleton::serialPortReadChannelFinished()
{
    NSerialPort* const port = senderPort();
    if (port && isAllocated(port))
        processSerialPortListeningEror(port);
}

void NSerialListenerSingleton::serialPortReadyRead()
{
    const QPointer<NSerialPort> port(senderPort());
    // A receiver that runs an event loop of its own gets the next chunk after all listeners have got this one.
    if (!port || Emission::isBusy(m_innermostEmission, port))
        return;
    while (port && isAllocated(port) && port->bytesAvailable() > 0) {
        const QByteArray data = port->read(ChunkSize);
        if (data.isEmpty()) // the application has opened the port for writing only
            return;
        Emission delivery(&m_innermostEmission, port, m_serialPorts.value(port).listeners, port);
        while (NSerialListener* const listener = delivery.next())
            emit listener->dataReceived(port, data);
    }
}

void NSerialListenerSingleton::processSerialPortListeningEror(NSerialPort* port)
{
    qWarning(
        "Listening error on serial port %s: %s", port->portName().toLocal8Bit().constData(),
        port->errorString().toLocal8Bit().constData());
    const SerialPorts::iterator entry = m_serialPorts.find(port);
    if (entry == m_serialPorts.end())
        return;
    stopReopeningTimer(*entry);
    entry->reopeningTimer = startTimer(ReopeningInterval);
    emitOnListeners(port, &NSerialListener::listeningError, entry->listeners);
}

void NSerialListenerSingleton::timerEvent(QTimerEvent* event)
{
    killTimer(event->timerId());
    for (SerialPorts::iterator i = m_serialPorts.begin(); i != m_serialPorts.end(); ++i) {
        if (i->reopeningTimer == event->timerId()) {
            i->reopeningTimer = 0;
            // A port whose other end has hung up is still open: this reports that it is, and nothing more is read.
            openPort(i.key());
            return;
        }
    }
}

void NSerialListenerSingleton::emitOnListeners(
    NSerialPort* port, PortSignal portSignal, const QSet<NSerialListener*>& listeners)
{
    Emission emission(&m_innermostEmission, port, listeners, nullptr);
    while (NSerialListener* const listener = emission.next())
        emit(listener->*portSignal)(port);
}

NSerialPort* NSerialListenerSingleton::senderPort() const
{
    return qobject_cast<NSerialPort*>(sender());
}

bool NSerialListenerSingleton::isAllocated(NSerialPort* port) const
{
    const SerialPorts::const_iterator entry = m_serialPorts.constFind(port);
    return entry != m_serialPorts.constEnd() && entry->allocated;
}

void NSerialListenerSingleton::stopReopeningTimer(SerialPortData& data)
{
    if (data.reopeningTimer != 0)
        killTimer(data.reopeningTimer);
    data.reopeningTimer = 0;
}
