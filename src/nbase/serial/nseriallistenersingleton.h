#ifndef NBASE_NSERIALLISTENERSINGLETON_H
#define NBASE_NSERIALLISTENERSINGLETON_H

#include <nbase/core/nsingleton.h>
#include <nbase/nbaseglobal.h>
#include <nbase/serial/nserialportallocator.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QSet>

class NSerialListener;
class NSerialPort;
template <class Listener, typename Source> class NListenerEmission;

class NBASE_EXPORT NSerialListenerSingleton;

// One instance per process: users of this header do not instantiate the template.
extern template class NSingleton<NSerialListenerSingleton>;

/**
 * Allocates, opens and reads the ports of all listeners of the process, and distributes what arrives. Applications
 * use NSerialListener, which forwards its operations to this class with the listener as first argument.
 *
 * The instance is created on the first use of a listener and must be used on that thread only.
 */
class NBASE_EXPORT NSerialListenerSingleton : public QObject, public NSingleton<NSerialListenerSingleton>
{
    Q_OBJECT

public:
    /** A port that somebody listens on. */
    struct SerialPortData
    {
        SerialPortData();

        QSet<NSerialListener*> listeners; ///< of this port, at least one
        bool allocated;                   ///< the allocator holds the port
        int reopeningTimer;               ///< the timer of the next attempt to open the port; 0 when none runs
    };

    /** For instance() only. */
    explicit NSerialListenerSingleton(QObject* parent);
    ~NSerialListenerSingleton() override;

    /** See NSerialListener::startListeningOnSerialPort(). */
    bool startListeningOnSerialPort(NSerialListener* listener, NSerialPort* port);

    /** See NSerialListener::stopListeningOnSerialPort(). */
    void stopListeningOnSerialPort(NSerialListener* listener, NSerialPort* port);

    /** Logs and reports that @a port cannot be listened on, and tries again in 5 seconds. */
    void processSerialPortListeningEror(NSerialPort* port);

protected:
    /** Opens a port again. */
    void timerEvent(QTimerEvent* event) override;

private slots:
    void serialPortAllocated(NSerialPort* serialPort, NSerialPortAllocator::AllocationType allocationType);
    void serialPortAboutToRemove(NSerialPort* serialPort);
    void serialPortOpened();
    void serialPortOpeningError();
    void serialPortReadyRead();
    void serialPortReadChannelFinished();

private:
    Q_DISABLE_COPY(NSerialListenerSingleton)

    typedef QHash<NSerialPort*, SerialPortData> SerialPorts;
    typedef NListenerEmission<NSerialListener, QPointer<NSerialPort>> Emission;
    typedef void (NSerialListener::*PortSignal)(NSerialPort*);

    NSerialPort* senderPort() const;
    bool isAllocated(NSerialPort* port) const;
    void emitOnListeners(NSerialPort* port, PortSignal portSignal, const QSet<NSerialListener*>& listeners);
    void openPort(NSerialPort* port);
    void removePort(SerialPorts::iterator entry);
    void stopReopeningTimer(SerialPortData& data);

    NSerialPortAllocator m_allocator;
    SerialPorts m_serialPorts;
    Emission* m_innermostEmission; ///< null when no signal is being emitted
};

#endif
