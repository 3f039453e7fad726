#include <nbase/network/nnetworklistenersingleton.h>

#include <nbase/core/nlisteneremission_p.h>
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

template class NSingleton<NNetworkListenerSingleton>;

namespace {

const int WatchdogInterval = 10000; // milliseconds

// A flood of datagrams on one port must not keep the event loop from the others.
const int DatagramsAtATime = 64;

// All addresses of the device, for IPv4 and IPv6.
QHostAddress anyAddress()
{
#if QT_VERSION >= 0x050000
    return QHostAddress(QHostAddress::Any);
#else
    return QHostAddress(QHostAddress::AnyIPv6);
#endif
}

// A socket for both protocols gets IPv4 addresses in the form ::ffff:192.0.2.1 (RFC 4291, section 2.5.5.2).
QHostAddress plainAddress(const QHostAddress& address)
{
    if (address.protocol() != QAbstractSocket::IPv6Protocol)
        return address;
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    for (int i = 0; i < 10; ++i) {
        if (bytes[i] != 0)
            return address;
    }
    if (bytes[10] != 0xff || bytes[11] != 0xff)
        return address;
    return QHostAddress(
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
        if (!server->listen(anyAddress(), port) && !server->listen(QHostAddress::Any, port)) {
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
        if (!socket->bind(anyAddress(), port) && !socket->bind(QHostAddress::Any, port)) {
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
    const QList<unsigned short> tcpPorts = m_tcpPorts.keys();
    for (int i = 0; i < tcpPorts.size(); ++i)
        stopListeningOnTcpPort(listener, tcpPorts.at(i));
    const QList<unsigned short> udpPorts = m_udpPorts.keys();
    for (int i = 0; i < udpPorts.size(); ++i)
        stopListeningOnUdpPort(listener, udpPorts.at(i));
}

void NNetworkListenerSingleton::closeTcpPort(TcpPorts::iterator entry)
{
    QTcpServer* const server = entry->server;
    const QList<QTcpSocket*> sockets = entry->sockets.values();
    m_tcpPorts.erase(entry);
    server->disconnect(this);
    // Their disconnected(), which may come at once, or after everything is sent, deletes the sockets.
    for (int i = 0; i < sockets.size(); ++i) {
        disconnect(sockets.at(i), SIGNAL(readyRead()), this, SLOT(tcpSocketReadyRead()));
        sockets.at(i)->disconnectFromHost();
    }
    server->close();
    server->deleteLater();
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
    entry->sockets.insert(socket);
    emitOnListeners(port, &NNetworkListener::tcpConnectionEstablished, socket);
}

NNetworkListenerSingleton::TcpPorts::iterator NNetworkListenerSingleton::portOf(QTcpSocket* socket)
{
    // A connection of listeners that have all stopped does not belong to later listeners on its port.
    const TcpPorts::iterator entry = socket ? m_tcpPorts.find(socket->localPort()) : m_tcpPorts.end();
    return entry != m_tcpPorts.end() && entry->sockets.contains(socket) ? entry : m_tcpPorts.end();
}

void NNetworkListenerSingleton::emitOnListeners(unsigned short port, SocketSignal socketSignal, QTcpSocket* socket)
{
    Emission emission(&m_innermostEmission, qMakePair(Tcp, port), m_tcpPorts.value(port).listeners, nullptr);
    while (NNetworkListener* const listener = emission.next())
        emit(listener->*socketSignal)(socket);
}

void NNetworkListenerSingleton::tcpSocketReadyRead()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    const TcpPorts::iterator entry = portOf(socket);
    if (entry == m_tcpPorts.end())
        return;
    const QByteArray data = socket->readAll();
    if (data.isEmpty())
        return;
    Emission emission(&m_innermostEmission, qMakePair(Tcp, entry.key()), entry->listeners, nullptr);
    while (NNetworkListener* const listener = emission.next())
        emit listener->tcpDataReceived(socket, data);
}

void NNetworkListenerSingleton::tcpSocketDisconnected()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    const TcpPorts::iterator entry = portOf(socket);
    socket->disconnect(this);
    socket->deleteLater();
    if (entry == m_tcpPorts.end())
        return;
    const unsigned short port = entry.key();
    entry->sockets.remove(socket);
    emitOnListeners(port, &NNetworkListener::tcpConnectionTerminated, socket);
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
    if (entry == m_udpPorts.end())
        return;
    const QPointer<QTimer> watchdog(entry->watchdog);
    watchdog->stop();
    processReceivedUdpDatagrams(entry->socket);
    // Receivers may have closed the port, and opened it again with another watchdog.
    entry = m_udpPorts.find(port);
    if (entry != m_udpPorts.end() && entry->watchdog == watchdog)
        watchdog->start();
}

void NNetworkListenerSingleton::processReceivedUdpDatagrams(QUdpSocket* socket)
{
    const unsigned short port = socket->localPort();
    const QPointer<QUdpSocket> guard(socket);
    for (int i = 0; i < DatagramsAtATime; ++i) {
        const UdpPorts::const_iterator entry = m_udpPorts.constFind(port);
        // A receiver has closed the port.
        if (!guard || entry == m_udpPorts.constEnd() || entry->socket != socket)
            return;
        if (!socket->hasPendingDatagrams())
            return;
        QByteArray datagram;
        datagram.resize(int(qMax(socket->pendingDatagramSize(), qint64(0))));
        QHostAddress address;
        quint16 sourcePort = 0;
        const qint64 size = socket->readDatagram(datagram.data(), datagram.size(), &address, &sourcePort);
        if (size < 0)
            continue;
        datagram.truncate(int(size));
        address = plainAddress(address);
        Emission emission(&m_innermostEmission, qMakePair(Udp, port), entry->listeners, nullptr);
        while (NNetworkListener* const listener = emission.next())
            emit listener->udpDatagramReceived(socket, address, sourcePort, datagram);
    }
}
