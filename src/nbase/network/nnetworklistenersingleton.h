#ifndef NBASE_NNETWORKLISTENERSINGLETON_H
#define NBASE_NNETWORKLISTENERSINGLETON_H

#include <nbase/core/nsingleton.h>
#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QPair>
#include <QtCore/QSet>
#include <QtCore/QSignalMapper>
#include <QtCore/QString>

class NNetworkListener;
class QTcpServer;
class QTcpSocket;
class QTimer;
class QUdpSocket;
template <class Listener, typename Source> class NListenerEmission;

class NBASE_EXPORT NNetworkListenerSingleton;

// One instance per process: users of this header do not instantiate the template.
extern template class NSingleton<NNetworkListenerSingleton>;

/**
 * Owns the servers and sockets of all listeners of the process, and distributes what arrives. Applications use
 * NNetworkListener, which forwards its operations to this class with the listener as first argument.
 *
 * The instance is created on the first use of a listener and must be used on that thread only.
 */
class NBASE_EXPORT NNetworkListenerSingleton : public QObject, public NSingleton<NNetworkListenerSingleton>
{
    Q_OBJECT

public:
    /** For instance() only. */
    explicit NNetworkListenerSingleton(QObject* parent);
    ~NNetworkListenerSingleton() override;

    /** See NNetworkListener::startListeningOnTcpPort(). */
    bool startListeningOnTcpPort(
        NNetworkListener* listener, unsigned short port, QSet<QTcpSocket*>& connectedSockets,
        QString& errorString);

    /** See NNetworkListener::startListeningOnUdpPort(). */
    bool startListeningOnUdpPort(NNetworkListener* listener, unsigned short port, QString& errorString);

    /** See NNetworkListener::stopListeningOnTcpPort(). */
    void stopListeningOnTcpPort(NNetworkListener* listener, unsigned short port);

    /** See NNetworkListener::stopListeningOnUdpPort(). */
    void stopListeningOnUdpPort(NNetworkListener* listener, unsigned short port);

    /** See NNetworkListener::stopListeningOnAllPorts(). */
    void stopListeningOnAllPorts(NNetworkListener* listener);

private slots:
    void tcpServerNewConnection();
    void tcpSocketReadyRead();
    void tcpSocketDisconnected();
    void tcpSocketDestroyed(QObject* socket);
    void endTcpConnectionWhenWritten();
    void discardReceivedTcpData();
    void udpSocketReadyRead();
    void unblockUdpSocketIfNeeded(int port);

private:
    Q_DISABLE_COPY(NNetworkListenerSingleton)

    struct TcpPortData
    {
        TcpPortData();

        QTcpServer* server;
        QSet<NNetworkListener*> listeners;
        QSet<QTcpSocket*> sockets;
    };

    struct UdpPortData
    {
        UdpPortData();

        QUdpSocket* socket;
        QSet<NNetworkListener*> listeners;
        QTimer* watchdog; ///< does not run while datagrams are processed
    };

    enum Protocol { Tcp, Udp };

    typedef QHash<unsigned short, TcpPortData> TcpPorts;
    typedef QHash<unsigned short, UdpPortData> UdpPorts;
    typedef NListenerEmission<NNetworkListener, QPair<Protocol, unsigned short>> Emission;
    typedef void (NNetworkListener::*SocketSignal)(QTcpSocket*);

    bool isListening(NNetworkListener* listener) const;
    TcpPorts::iterator portOf(QTcpSocket* socket);
    void emitOnListeners(unsigned short port, SocketSignal socketSignal, QTcpSocket* socket);
    void processTcpSocket(unsigned short port, QTcpSocket* socket);
    void endTcpConnection(QTcpSocket* socket);
    void releaseTcpSocket(QTcpSocket* socket);
    bool processReceivedUdpDatagrams(QUdpSocket* socket);
    void processDatagramsAndRestartWatchdog(unsigned short port);
    void closeTcpPort(TcpPorts::iterator entry);
    void closeUdpPort(UdpPorts::iterator entry);

    TcpPorts m_tcpPorts;
    UdpPorts m_udpPorts;
    QSignalMapper m_watchdogMapper; ///< from a watchdog to its port
    Emission* m_innermostEmission;  ///< null when no signal is being emitted
};

#endif
