#ifndef NBASE_NSERIALPORTALLOCATOR_H
#define NBASE_NSERIALPORTALLOCATOR_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QPair>

class NSerialPort;

/**
 * One user of serial ports that several users in a process share. A port is held by one allocator at a time, and
 * passed on in the order of the requests. Nothing stops an application from using a port that it does not hold;
 * allocators neither open nor close ports.
 *
 * Allocators and ports must live on one thread. Receivers of the signals may do anything, including deleting ports
 * and allocators.
 */
class NBASE_EXPORT NSerialPortAllocator : public QObject
{
    Q_OBJECT

public:
    /** For how long a port is requested. */
    enum AllocationType {
        TemporaryAllocation, ///< the holder will give the port back; later requests wait for it
        PermanentAllocation  ///< the holder keeps the port; requests behind this one are refused
    };

    /** An allocator without requests. */
    explicit NSerialPortAllocator(QObject* parent);

    /** Withdraws all requests and gives back all ports. */
    ~NSerialPortAllocator() override;

    /**
     * Requests @a port. serialPortAllocated() is emitted when it is this allocator's turn: before this returns
     * when nobody holds the port. An allocator may request a port several times and gets it once for each request.
     * @return false when the port is refused, because a request of PermanentAllocation is before this one.
     */
    bool requestSerialPortAllocation(NSerialPort* port, AllocationType type);

    /** Gives @a port back, which the next allocator then gets. Does nothing when this allocator does not hold it.
     */
    void releaseSerialPort(NSerialPort* port);

    /** Withdraws the requests for @a port that wait. If this allocator holds the port, it keeps it. */
    void cancelSerialPortAllocationRequests(NSerialPort* port);

    /** For NSerialPort: it is the turn of this allocator's request. */
    void processSerialPortAllocation(NSerialPort* port, AllocationType type);

    /** For NSerialPort: it is being destroyed. */
    void processSerialPortAboutToRemove(NSerialPort* port);

signals:
    /** This allocator holds @a serialPort from now on. */
    void serialPortAllocated(NSerialPort* serialPort, NSerialPortAllocator::AllocationType allocationType);

    /** @a serialPort, which this allocator holds or waits for, is being destroyed. It is closed already. */
    void serialPortAboutToRemove(NSerialPort* serialPort);

private:
    Q_DISABLE_COPY(NSerialPortAllocator)

    // For each port that it waits for or holds: the number of requests that wait, and whether it holds the port.
    typedef QHash<NSerialPort*, QPair<quint64, bool>> Allocations;

    Allocations m_allocations;
    bool m_isBeingDestroyed;
};

#endif
