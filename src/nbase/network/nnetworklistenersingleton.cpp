#include <nbase/network/nnetworklistenersingleton.h>

#include <nbase/core/nlisteneremission_p.h>
#include <nbase/nbaseqtcompat_p.h>
#include <nbase/network/nnetworklistener.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

template class NSingleton<NNetworkListenerSingleton>;

namespace {

const int WatchdogInterval = 10000; // milliseconds
const int LingerInterval = 60000;   // milliseconds

// A flood of datagrams on one port must not keep the event loop from the others.
const int DatagramsAtATime = 64;

// Whether the other end has got everything that was written (tcp(7)).
bool isEverythingAcknowledged(const QTcpSocket* socket)
{
    int count = 0;
    return ::ioctl(int(socket->socketDescriptor()), SIOCOUTQ, &count) != 0 || count == 0;
}

// Qt 4 does not fall back to IPv4 where the kernel has no IPv6.
bool isIpv6Missing(QAbstractSocket::SocketError error)
{
    return error == QAbstractSocket::UnsupportedSocketOperationError;
}

// A socket for both protocols gets IPv4 addresses in the form ::ffff:192.0.2.1 (RFC 4291, section 2.5.5.2). They
// are changed in place, which allocates no memory.
void makePlain(QHostAddress* address)
{
    if (address->protocol() != QAbstractSocket::IPv6Protocol)
        return;
    const Q_IPV6ADDR bytes = address->toIPv6Address();
    for (int i = 0; i < 10; ++i) {
        if (bytes[i] != 0)
            return;
    }
    if (bytes[10] != 0xff || bytes[11] != 0xff)
        return;
    address->setAddress(
        quint32(bytes[12]) << 24 | quint32(bytes[13]) << 16 | quint32(bytes[14]) << 8 | quint32(bytes[15]));
}

} // namespace

NNetworkListenerSingleton::TcpPortData::TcpPortData()
    : server(nullptr)
{
}

NNetworkListenerSingleton::UdpPortData::UdpPortData()
    : socket(nullptr)
    , watchdog(nullptr)
{
}

NNetworkListenerSingleton::NNetworkListenerSingleton(QObject* parent)
    : QObject(parent)
    , m_innermostEmission(nullptr)
{
    connect(&m_watchdogMapper, SIGNAL(mapped(int)), SLOT(unblockUdpSocketIfNeeded(int)));
}

NNetworkListenerSingleton::~NNetworkListenerSingleton() {}

bool NNetworkListenerSingleton::startListeningOnTcpPort(
    NNetworkListener* listener, unsigned short port, QSet<QTcpSocket*>& connectedSockets, QString& errorString)
{
    if (port == 0) {
        errorString = latin1("Cannot listen on TCP port 0");
        return false;
    }
    TcpPorts::iterator entry = m_tcpPorts.find(port);
    if (entry == m_tcpPorts.end()) {
        QScopedPointer<QTcpServer> server(new QTcpServer(this));
        server->setProxy(QNetworkProxy::NoProxy);
        if (!server->listen(NBaseQtCompat::anyAddress(), port) &&
            !(isIpv6Missing(server->serverError()) && server->listen(QHostAddress::Any, port))) {
            errorString = server->errorString();
            return false;
        }
        connect(server.data(), SIGNAL(newConnection()), SLOT(tcpServerNewConnection()));
        entry = m_tcpPorts.insert(port, TcpPortData());
        entry->server = server.take();
    }
    entry->listeners.insert(listener);
    connectedSockets = entry->sockets;
    return true;
}

bool NNetworkListenerSingleton::startListeningOnUdpPort(
    NNetworkListener* listener, unsigned short port, QString& errorString)
{
    if (port == 0) {
        errorString = latin1("Cannot listen on UDP port 0");
        return false;
    }
    UdpPorts::iterator entry = m_udpPorts.find(port);
    if (entry == m_udpPorts.end()) {
        QScopedPointer<QUdpSocket> socket(new QUdpSocket(this));
        socket->setProxy(QNetworkProxy::NoProxy);
        if (!socket->bind(NBaseQtCompat::anyAddress(), port) &&
            !(isIpv6Missing(socket->error()) && socket->bind(QHostAddress::Any, port))) {
            errorString = socket->errorString();
            return false;
        }
        connect(socket.data(), SIGNAL(readyRead()), SLOT(udpSocketReadyRead()));
        entry = m_udpPorts.insert(port, UdpPortData());
        entry->socket = socket.take();
        entry->watchdog = new QTimer(this);
        entry->watchdog->setInterval(WatchdogInterval);
        m_watchdogMapper.setMapping(entry->watchdog, port);
        connect(entry->watchdog, SIGNAL(timeout()), &m_watchdogMapper, SLOT(map()));
        entry->watchdog->start();
    }
    entry->listeners.insert(listener);
    return true;
}

void NNetworkListenerSingleton::stopListeningOnTcpPort(NNetworkListener* listener, unsigned short port)
{
    Emission::remove(m_innermostEmission, qMakePair(Tcp, port), listener);
    const TcpPorts::iterator entry = m_tcpPorts.find(port);
    if (entry != m_tcpPorts.end() && entry->listeners.remove(listener) && entry->listeners.isEmpty())
        closeTcpPort(entry);
}

void NNetworkListenerSingleton::stopListeningOnUdpPort(NNetworkListener* listener, unsigned short port)
{
    Emission::remove(m_innermostEmission, qMakePair(Udp, port), listener);
    const UdpPorts::iterator entry = m_udpPorts.find(port);
    if (entry != m_udpPorts.end() && entry->listeners.remove(listener) && entry->listeners.isEmpty())
        closeUdpPort(entry);
}

void NNetworkListenerSingleton::stopListeningOnAllPorts(NNetworkListener* listener)
{
    // Closing a port calls receivers of the application, which may start a listener that is being destroyed.
    while (isListening(listener)) {
        const QList<unsigned short> tcpPorts = m_tcpPorts.keys();
        for (int i = 0; i < tcpPorts.size(); ++i)
            stopListeningOnTcpPort(listener, tcpPorts.at(i));
        const QList<unsigned short> udpPorts = m_udpPorts.keys();
        for (int i = 0; i < udpPorts.size(); ++i)
            stopListeningOnUdpPort(listener, udpPorts.at(i));
    }
}

bool NNetworkListenerSingleton::isListening(NNetworkListener* listener) const
{
    for (TcpPorts::const_iterator i = m_tcpPorts.constBegin(); i != m_tcpPorts.constEnd(); ++i) {
        if (i->listeners.contains(listener))
            return true;
    }
    for (UdpPorts::const_iterator i = m_udpPorts.constBegin(); i != m_udpPorts.constEnd(); ++i) {
        if (i->listeners.contains(listener))
            return true;
    }
    return false;
}

void NNetworkListenerSingleton::closeTcpPort(TcpPorts::iterator entry)
{
    QTcpServer* const server = entry->server;
    QList<QPointer<QTcpSocket>> sockets;
    for (QSet<QTcpSocket*>::const_iterator i = entry->sockets.constBegin(); i != entry->sockets.constEnd(); ++i)
        sockets.append(*i);
    m_tcpPorts.erase(entry);
    server->disconnect(this);
    // Receivers of the sockets' own signals can open the port again.
    server->close();
    server->deleteLater();
    while (!sockets.isEmpty()) {
        const QPointer<QTcpSocket> socket(sockets.takeFirst());
        if (!socket)
            continue;
        if (socket->state() == QAbstractSocket::UnconnectedState) {
            releaseTcpSocket(socket);
            continue;
        }
        // Its disconnected(), which comes at once, or after everything is sent, deletes the socket.
        disconnect(socket, SIGNAL(readyRead()), this, SLOT(tcpSocketReadyRead()));
        connect(socket, SIGNAL(readyRead()), SLOT(discardReceivedTcpData()));
        connect(socket, SIGNAL(bytesWritten(qint64)), SLOT(endTcpConnectionWhenWritten()));
        socket->flush();
        if (socket && socket->bytesToWrite() == 0)
            endTcpConnection(socket);
    }
}

void NNetworkListenerSingleton::endTcpConnectionWhenWritten()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    if (socket && socket->bytesToWrite() == 0)
        endTcpConnection(socket);
}

// A connection that is closed with received data unread, or receives data after that, loses what the other end has
// not got yet (RFC 1122, section 4.2.2.13). Therefore the receiving direction stays open until the other end
// closes.
void NNetworkListenerSingleton::endTcpConnection(QTcpSocket* socket)
{
    if (socket->state() != QAbstractSocket::ConnectedState)
        return;
    disconnect(socket, SIGNAL(bytesWritten(qint64)), this, SLOT(endTcpConnectionWhenWritten()));
    socket->readAll();
    if (isEverythingAcknowledged(socket)) {
        socket->disconnectFromHost();
        return;
    }
    ::shutdown(int(socket->socketDescriptor()), SHUT_WR);
    QTimer::singleShot(LingerInterval, socket, SLOT(deleteLater()));
}

void NNetworkListenerSingleton::closeUdpPort(UdpPorts::iterator entry)
{
    QUdpSocket* const socket = entry->socket;
    QTimer* const watchdog = entry->watchdog;
    m_udpPorts.erase(entry);
    watchdog->disconnect(&m_watchdogMapper);
    m_watchdogMapper.removeMappings(watchdog);
    watchdog->stop();
    watchdog->deleteLater();
    socket->disconnect(this);
    // The port is free for others from now on, not when control returns to the event loop.
    socket->close();
    socket->deleteLater();
}

void NNetworkListenerSingleton::tcpServerNewConnection()
{
    QTcpServer* const server = qobject_cast<QTcpServer*>(sender());
    QTcpSocket* const socket = server ? server->nextPendingConnection() : nullptr;
    if (!socket)
        return;
    // The server is deleted before everything that was written to its connections is sent.
    socket->setParent(this);
    const unsigned short port = server->serverPort();
    const TcpPorts::iterator entry = m_tcpPorts.find(port);
    if (entry == m_tcpPorts.end() || entry->server != server) {
        socket->deleteLater();
        return;
    }
    connect(socket, SIGNAL(readyRead()), SLOT(tcpSocketReadyRead()));
    connect(socket, SIGNAL(disconnected()), SLOT(tcpSocketDisconnected()));
    connect(socket, SIGNAL(destroyed(QObject*)), SLOT(tcpSocketDestroyed(QObject*)));
    entry->sockets.insert(socket);
    const QPointer<QTcpSocket> guard(socket);
    emitOnListeners(port, &NNetworkListener::tcpConnectionEstablished, socket);
    if (guard)
        processTcpSocket(port, socket);
}

void NNetworkListenerSingleton::emitOnListeners(unsigned short port, SocketSignal socketSignal, QTcpSocket* socket)
{
    const QPointer<QTcpSocket> guard(socket);
    Emission emission(&m_innermostEmission, qMakePair(Tcp, port), m_tcpPorts.value(port).listeners, socket);
    while (NNetworkListener* const listener = guard ? emission.next() : nullptr)
        emit(listener->*socketSignal)(socket);
}

NNetworkListenerSingleton::TcpPorts::iterator NNetworkListenerSingleton::portOf(QTcpSocket* socket)
{
    // A connection of listeners that have all stopped does not belong to later listeners on its port.
    const TcpPorts::iterator entry = socket ? m_tcpPorts.find(socket->localPort()) : m_tcpPorts.end();
    return entry != m_tcpPorts.end() && entry->sockets.contains(socket) ? entry : m_tcpPorts.end();
}

void NNetworkListenerSingleton::tcpSocketReadyRead()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    const TcpPorts::iterator entry = portOf(socket);
    if (entry != m_tcpPorts.end())
        processTcpSocket(entry.key(), socket);
}

void NNetworkListenerSingleton::tcpSocketDisconnected()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    const TcpPorts::iterator entry = portOf(socket);
    if (entry != m_tcpPorts.end())
        processTcpSocket(entry.key(), socket);
    else if (socket)
        releaseTcpSocket(socket);
}

// Each listener gets the events of a connection in the order in which they have occurred, also when a receiver
// closes the connection or runs an event loop of its own: what occurs while a signal is being emitted is reported
// after it.
void NNetworkListenerSingleton::processTcpSocket(unsigned short port, QTcpSocket* socket)
{
    const QPointer<QTcpSocket> guard(socket);
    while (guard && !Emission::isBusy(m_innermostEmission, socket)) {
        const TcpPorts::iterator entry = m_tcpPorts.find(port);
        if (entry == m_tcpPorts.end() || !entry->sockets.contains(socket))
            return;
        const QByteArray data = socket->isReadable() ? socket->readAll() : QByteArray();
        if (!data.isEmpty()) {
            Emission emission(&m_innermostEmission, qMakePair(Tcp, port), entry->listeners, socket);
            while (NNetworkListener* const listener = guard ? emission.next() : nullptr)
                emit listener->tcpDataReceived(socket, data);
            continue;
        }
        if (socket->state() != QAbstractSocket::UnconnectedState)
            return;
        socket->disconnect(this);
        entry->sockets.remove(socket);
        emitOnListeners(port, &NNetworkListener::tcpConnectionTerminated, socket);
        if (guard)
            socket->deleteLater();
        return;
    }
}

void NNetworkListenerSingleton::releaseTcpSocket(QTcpSocket* socket)
{
    socket->disconnect(this);
    socket->deleteLater();
}

// A receiver has deleted the socket, of which only the address is left.
void NNetworkListenerSingleton::tcpSocketDestroyed(QObject* socket)
{
    for (TcpPorts::iterator entry = m_tcpPorts.begin(); entry != m_tcpPorts.end(); ++entry) {
        QSet<QTcpSocket*>::iterator i = entry->sockets.begin();
        while (i != entry->sockets.end() && *i != socket)
            ++i;
        if (i != entry->sockets.end())
            entry->sockets.erase(i);
    }
}

// What a connection without listeners receives until everything is sent must not fill the memory.
void NNetworkListenerSingleton::discardReceivedTcpData()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    if (socket)
        socket->readAll();
}

void NNetworkListenerSingleton::udpSocketReadyRead()
{
    const QUdpSocket* const socket = qobject_cast<QUdpSocket*>(sender());
    if (socket)
        processDatagramsAndRestartWatchdog(socket->localPort());
}

void NNetworkListenerSingleton::unblockUdpSocketIfNeeded(int port)
{
    processDatagramsAndRestartWatchdog(static_cast<unsigned short>(port));
}

void NNetworkListenerSingleton::processDatagramsAndRestartWatchdog(unsigned short port)
{
    UdpPorts::iterator entry = m_udpPorts.find(port);
    // A receiver that runs an event loop of its own gets the next datagram after all listeners have got this one.
    if (entry == m_udpPorts.end() || Emission::isBusy(m_innermostEmission, entry->socket))
        return;
    entry->watchdog->stop();
    const QPointer<QUdpSocket> socket(entry->socket);
    const bool isDrained = processReceivedUdpDatagrams(socket);
    // Receivers may have closed the port, and opened it again with another socket.
    entry = m_udpPorts.find(port);
    if (entry == m_udpPorts.end() || !socket || entry->socket != socket)
        return;
    // The notification of what is left may have come while a receiver ran an event loop of its own, which Qt does
    // not repeat.
    entry->watchdog->start(isDrained ? WatchdogInterval : 0);
}

// @return whether no datagrams are left.
bool NNetworkListenerSingleton::processReceivedUdpDatagrams(QUdpSocket* socket)
{
    const unsigned short port = socket->localPort();
    const QPointer<QUdpSocket> guard(socket);
    for (int i = 0; i < DatagramsAtATime; ++i) {
        const UdpPorts::const_iterator entry = m_udpPorts.constFind(port);
        // A receiver has closed the port.
        if (!guard || entry == m_udpPorts.constEnd() || entry->socket != socket)
            return true;
        if (!socket->hasPendingDatagrams())
            return true;
        QByteArray datagram;
        datagram.resize(int(qMax(socket->pendingDatagramSize(), qint64(0))));
        QHostAddress address;
        quint16 sourcePort = 0;
        const qint64 size = socket->readDatagram(datagram.data(), datagram.size(), &address, &sourcePort);
        if (size < 0)
            continue;
        datagram.truncate(int(size));
        makePlain(&address);
        Emission emission(&m_innermostEmission, qMakePair(Udp, port), entry->listeners, socket);
        while (NNetworkListener* const listener = emission.next())
            emit listener->udpDatagramReceived(socket, address, sourcePort, datagram);
    }
    return false;
}
