#include <nbase/serial/nserialportallocator.h>

#include <nbase/serial/nserialport.h>

NSerialPortAllocator::NSerialPortAllocator(QObject* parent)
    : QObject(parent)
    , m_isBeingDestroyed(false)
{
}

NSerialPortAllocator::~NSerialPortAllocator()
{
    m_isBeingDestroyed = true;
    // Giving a port back calls receivers of other allocators, which may delete ports of this one.
    while (!m_allocations.isEmpty()) {
        NSerialPort* const port = m_allocations.constBegin().key();
        const QPair<quint64, bool> allocation = m_allocations.take(port);
        if (allocation.first != 0)
            port->cancelPortAllocationRequests(this);
        if (allocation.second)
            port->releasePort(this);
    }
}

bool NSerialPortAllocator::requestSerialPortAllocation(NSerialPort* port, AllocationType type)
{
    if (m_isBeingDestroyed || !port)
        return false;
    ++m_allocations[port].first;
    // A receiver of the grant may delete this allocator.
    if (port->requestPortAllocation(this, type))
        return true;
    const Allocations::iterator allocation = m_allocations.find(port);
    --allocation->first;
    if (allocation->first == 0 && !allocation->second)
        m_allocations.erase(allocation);
    return false;
}

void NSerialPortAllocator::releaseSerialPort(NSerialPort* port)
{
    const Allocations::iterator allocation = m_allocations.find(port);
    if (allocation == m_allocations.end() || !allocation->second)
        return;
    if (allocation->first == 0)
        m_allocations.erase(allocation);
    else
        allocation->second = false;
    port->releasePort(this);
}

void NSerialPortAllocator::cancelSerialPortAllocationRequests(NSerialPort* port)
{
    const Allocations::iterator allocation = m_allocations.find(port);
    if (allocation == m_allocations.end() || allocation->first == 0)
        return;
    if (allocation->second)
        allocation->first = 0;
    else
        m_allocations.erase(allocation);
    port->cancelPortAllocationRequests(this);
}

void NSerialPortAllocator::processSerialPortAllocation(NSerialPort* port, AllocationType type)
{
    const Allocations::iterator allocation = m_allocations.find(port);
    if (allocation == m_allocations.end() || allocation->first == 0) {
        port->releasePort(this);
        return;
    }
    --allocation->first;
    allocation->second = true;
    emit serialPortAllocated(port, type);
}

void NSerialPortAllocator::processSerialPortAboutToRemove(NSerialPort* port)
{
    if (m_allocations.remove(port) != 0 && !m_isBeingDestroyed)
        emit serialPortAboutToRemove(port);
}
