#ifndef NBASE_NNETWORKLISTENER_H
#define NBASE_NNETWORKLISTENER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

class QTcpSocket;
class QUdpSocket;

/**
 * Listens on TCP and UDP ports of this device, for IPv4 and IPv6. Any number of listeners in a process share a
 * port: it is bound once, and each listener gets every connection, block of data and datagram.
 *
 * All listeners must live on one thread, and an event loop must run there. Receivers of the signals may do
 * anything, including deleting listeners. A listener that stops or is deleted gets nothing more, and one that
 * starts gets what comes after that.
 */
class NBASE_EXPORT NNetworkListener : public QObject
{
    Q_OBJECT

public:
    /** Listens on no port yet. */
    explicit NNetworkListener(QObject* parent);

    /** Stops listening on all ports. */
    ~NNetworkListener() override;

    /**
     * Starts listening on TCP port @a port.
     * @param connectedSockets receives the connections that other listeners have on this port.
     * @param errorString receives the reason of a failure.
     * @return false for port 0, or when the port cannot be bound.
     */
    bool startListeningOnTcpPort(unsigned short port, QSet<QTcpSocket*>& connectedSockets, QString& errorString);

    /** Starts listening on UDP port @a port; otherwise like startListeningOnTcpPort(). */
    bool startListeningOnUdpPort(unsigned short port, QString& errorString);

    /**
     * Stops listening on TCP port @a port. When no listener is left, its connections are closed after everything
     * that has been written to them is sent; what they receive meanwhile is discarded. A connection whose other
     * end has not got everything is closed by the other end, or a minute after the last byte was sent.
     */
    void stopListeningOnTcpPort(unsigned short port);

    /** Stops listening on UDP port @a port. */
    void stopListeningOnUdpPort(unsigned short port);

    /** Stops listening on all TCP and UDP ports. */
    void stopListeningOnAllPorts();

signals:
    /**
     * @a socket, which this class owns, has been connected. Receivers may write to it and close it; they must not
     * delete it, other than with deleteLater(), after which its termination is not reported.
     */
    void tcpConnectionEstablished(QTcpSocket* socket);

    /** @a socket has been disconnected; it is deleted when control returns to the event loop. */
    void tcpConnectionTerminated(QTcpSocket* socket);

    /** @a data have arrived on @a socket, in blocks as they come. */
    void tcpDataReceived(QTcpSocket* socket, const QByteArray& data);

    /** @a datagram, which may be empty, has arrived on @a socket from port @a srcPort of @a srcAddress. */
    void udpDatagramReceived(
        QUdpSocket* socket, const QHostAddress& srcAddress, quint16 srcPort, const QByteArray& datagram);

private:
    Q_DISABLE_COPY(NNetworkListener)

    // Emits the signals.
    friend class NNetworkListenerSingleton;
};

#endif
