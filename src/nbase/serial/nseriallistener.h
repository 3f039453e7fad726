#ifndef NBASE_NSERIALLISTENER_H
#define NBASE_NSERIALLISTENER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>

class NSerialPort;

/**
 * Receives what arrives on serial ports. Any number of listeners in a process share a port: it is allocated (see
 * NSerialPortAllocator), opened and read once, and each listener gets the same data in the same pieces. A port
 * that cannot be opened, or whose other end hangs up, is opened again every 5 seconds.
 *
 * All listeners and their ports must live on one thread, and an event loop must run there. Receivers of the
 * signals may do anything, including deleting ports and listeners; a listener that stops or is deleted gets
 * nothing more.
 */
class NBASE_EXPORT NSerialListener : public QObject
{
    Q_OBJECT

public:
    /** A listener on no port. */
    explicit NSerialListener(QObject* parent);

    /** Stops listening on all ports. */
    ~NSerialListener() override;

    /**
     * Starts listening on @a port, which the first listener opens with the settings that it has. When other
     * listeners have it open already, data arrive from now on and listeningStarted() is not emitted.
     * @return false when @a port is null, or somebody else holds it permanently, or this listener or @a port is
     * being destroyed.
     */
    bool startListeningOnSerialPort(NSerialPort* port);

    /** Stops listening on @a port, or on all ports when it is null. The last listener of a port closes it. */
    void stopListeningOnSerialPort(NSerialPort* port);

signals:
    /** @a data, at most 512 bytes, have arrived on @a serialPort. */
    void dataReceived(NSerialPort* serialPort, const QByteArray& data);

    /** @a serialPort is being destroyed and this listener has been removed from it. */
    void serialPortAboutToRemove(NSerialPort* serialPort);

    /** @a serialPort has been opened, for the first time or again. */
    void listeningStarted(NSerialPort* serialPort);

    /**
     * @a serialPort could not be opened, or its other end hangs up, or it cannot be read; its error string gives
     * the reason. The next attempt follows in 5 seconds.
     */
    void listeningError(NSerialPort* serialPort);

private:
    Q_DISABLE_COPY(NSerialListener)

    // Emits the signals.
    friend class NSerialListenerSingleton;

    bool m_isBeingDestroyed;
};

#endif
