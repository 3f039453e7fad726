#include "support/nallocatedbytes.h"
#include "support/nprivatenamespace.h"
#include "support/nregisteredtimers.h"
#include "support/ntestwait.h"

#include <nbase/network/nnetworklistener.h>
#include <nbase/network/nnetworklistenersingleton.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>
#include <QtTest/QtTest>

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

namespace {

const unsigned short Port = 5000;
const int WatchdogInterval = 10000;

NNetworkListenerSingleton* singleton()
{
    return NNetworkListenerSingleton::instance();
}

int descriptors()
{
    return QDir(latin1("/proc/self/fd")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}

// The servers, sockets and timers that are there for listeners.
QString resources()
{
    return QString::fromLatin1("%1 servers, %2 connections, %3 UDP sockets, %4 timers")
        .arg(singleton()->findChildren<QTcpServer*>().size())
        .arg(singleton()->findChildren<QTcpSocket*>().size())
        .arg(singleton()->findChildren<QUdpSocket*>().size())
        .arg(singleton()->findChildren<QTimer*>().size());
}

const char* const NoResources = "0 servers, 0 connections, 0 UDP sockets, 0 timers";

// Runs the event loop once, with the deletions that only a running loop carries out.
void runLoop()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

NFileDescriptor openSocket(int type, int family)
{
    return NFileDescriptor(::socket(family, type | SOCK_CLOEXEC, 0));
}

struct SocketAddress
{
    SocketAddress(int family, unsigned short port, bool isLoopback)
    {
        memset(&storage, 0, sizeof(storage));
        if (family == AF_INET) {
            storage.v4.sin_family = AF_INET;
            storage.v4.sin_port = htons(port);
            storage.v4.sin_addr.s_addr = htonl(isLoopback ? INADDR_LOOPBACK : INADDR_ANY);
            size = sizeof(storage.v4);
        } else {
            storage.v6.sin6_family = AF_INET6;
            storage.v6.sin6_port = htons(port);
            storage.v6.sin6_addr = isLoopback ? in6addr_loopback : in6addr_any;
            size = sizeof(storage.v6);
        }
    }

    union {
        struct sockaddr any;
        struct sockaddr_in v4;
        struct sockaddr_in6 v6;
    } storage;
    socklen_t size;
};

// A socket that holds a port of this device as another program would.
NFileDescriptor holdPort(int type, int family)
{
    NFileDescriptor socket = openSocket(type, family);
    const SocketAddress address(family, Port, false);
    const int only = 1;
    if (family == AF_INET6)
        ::setsockopt(socket.number(), IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof(only));
    if (::bind(socket.number(), &address.storage.any, address.size) != 0 ||
        (type == SOCK_STREAM && ::listen(socket.number(), 1) != 0))
        socket.reset();
    return socket;
}

// A connection of another program.
NFileDescriptor connectTo(unsigned short port)
{
    NFileDescriptor socket = openSocket(SOCK_STREAM, AF_INET);
    const SocketAddress address(AF_INET, port, true);
    if (::connect(socket.number(), &address.storage.any, address.size) != 0)
        socket.reset();
    return socket;
}

struct Datagram
{
    QHostAddress address;
    quint16 port;
    QByteArray bytes;
};

// A listener with what it has heard. `events` is one word per signal, successive blocks of data counting as one.
class Listener : public QObject
{
    Q_OBJECT

public:
    typedef std::function<void(QTcpSocket*)> TcpHandler;
    typedef std::function<void(QUdpSocket*)> UdpHandler;

    Listener()
        : listener(new NNetworkListener(nullptr))
    {
        connect(
            listener.get(), SIGNAL(tcpConnectionEstablished(QTcpSocket*)),
                                   SLOT(tcpConnectionEstablished(QTcpSocket*)));
        connect(
            listener.get(), SIGNAL(tcpConnectionTerminated(QTcpSocket*)),
                                   SLOT(tcpConnectionTerminated(QTcpSocket*)));
        connect(
            listener.get(), SIGNAL(tcpDataReceived(QTcpSocket*, QByteArray)),
                                   SLOT(tcpDataReceived(QTcpSocket*, QByteArray)));
        connect(
            listener.get(), SIGNAL(udpDatagramReceived(QUdpSocket*, QHostAddress, quint16, QByteArray)),
                                   SLOT(udpDatagramReceived(QUdpSocket*, QHostAddress, quint16, QByteArray)));
    }

    bool startTcp(unsigned short port = Port)
    {
        return listener->startListeningOnTcpPort(port, connectedSockets, errorString);
    }

    bool startUdp(unsigned short port = Port) { return listener->startListeningOnUdpPort(port, errorString); }
    void stopTcp(unsigned short port = Port) { listener->stopListeningOnTcpPort(port); }
    void stopUdp(unsigned short port = Port) { listener->stopListeningOnUdpPort(port); }

    QString heard() const { return events.join(latin1(" ")); }

    QList<QByteArray> datagramBytes() const
    {
        QList<QByteArray> bytes;
        for (const Datagram& datagram : datagrams)
            bytes.append(datagram.bytes);
        return bytes;
    }

    std::unique_ptr<NNetworkListener> listener;
    QSet<QTcpSocket*> connectedSockets;
    QString errorString;
    QStringList events;
    QList<QTcpSocket*> sockets; // of tcpConnectionEstablished()
    QByteArray data;
    QList<Datagram> datagrams;
    TcpHandler onConnection;
    TcpHandler onData;
    TcpHandler onTermination;
    UdpHandler onDatagram;

private slots:
    void tcpConnectionEstablished(QTcpSocket* socket)
    {
        events.append(latin1("connected"));
        sockets.append(socket);
        call(onConnection, socket);
    }

    void tcpConnectionTerminated(QTcpSocket* socket)
    {
        events.append(latin1("terminated"));
        call(onTermination, socket);
    }

    void tcpDataReceived(QTcpSocket* socket, const QByteArray& bytes)
    {
        if (events.isEmpty() || events.last() != latin1("data"))
            events.append(latin1("data"));
        data += bytes;
        call(onData, socket);
    }

    void udpDatagramReceived(
        QUdpSocket* socket, const QHostAddress& srcAddress, quint16 srcPort, const QByteArray& bytes)
    {
        const Datagram datagram = {srcAddress, srcPort, bytes};
        datagrams.append(datagram);
        call(onDatagram, socket);
    }

private:
    template <class Socket> static void call(const std::function<void(Socket*)>& handler, Socket* socket)
    {
        const std::function<void(Socket*)> copy = handler;
        if (copy)
            copy(socket);
    }
};

// The other end of a connection.
class Client : public QTcpSocket
{
public:
    explicit Client(unsigned short port = Port, const char* address = "127.0.0.1")
    {
        setProxy(QNetworkProxy::NoProxy);
        connectToHost(QHostAddress(latin1(address)), port);
        isConnected = waitForConnected(-1);
    }

    void send(const QByteArray& bytes)
    {
        write(bytes);
        flush();
    }

    bool isConnected;
};

class Sender : public QUdpSocket
{
public:
    Sender() { setProxy(QNetworkProxy::NoProxy); }

    bool send(const QByteArray& bytes, unsigned short port = Port, const char* address = "127.0.0.1")
    {
        return writeDatagram(bytes, QHostAddress(latin1(address)), port) == bytes.size();
    }
};

// Runs a function when a socket is disconnected.
class DisconnectionReceiver : public QObject
{
    Q_OBJECT

public:
    DisconnectionReceiver(QTcpSocket* socket, const std::function<void()>& handler)
        : m_handler(handler)
    {
        connect(socket, SIGNAL(disconnected()), SLOT(disconnected()));
    }

private slots:
    void disconnected() { m_handler(); }

private:
    std::function<void()> m_handler;
};

QByteArray pattern(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251) & 0x7F);
    return bytes;
}

QList<QByteArray> numbers(int first, int count)
{
    QList<QByteArray> texts;
    for (int i = first; i < first + count; ++i)
        texts.append(QByteArray::number(i));
    return texts;
}

} // namespace

class tst_NNetworkListener : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void signalsHaveTheirParameters_data();
    void signalsHaveTheirParameters();
    void singletonIsOneObject();

    void portZeroIsRefused();
    void heldPortIsRefused_data();
    void heldPortIsRefused();
    void stoppingWhereNotListeningChangesNothing();
    void startingAgainChangesNothing();

    void datagramsComeWithTheirSender_data();
    void datagramsComeWithTheirSender();
    void datagramsOfEverySizeArrive_data();
    void datagramsOfEverySizeArrive();
    void udpPortIsBoundWhileAnyListens();
    void watchdogOfTenSecondsRuns();
    void watchdogDrainsAStalledSocket();
    void watchdogSparesOtherPorts();
    void floodLeavesOtherPortsAnswered();

    void connectionsAreReported_data();
    void connectionsAreReported();
    void dataBeforeTheEndAreReceived();
    void listenersCanAnswer();
    void laterListenerGetsTheConnectedSockets();
    void tcpPortIsBoundWhileAnyListens();
    void lastStopDeliversWhatWasWritten();
    void lastStopDeliversToAClientThatSendsOn();
    void lastStopDiscardsWhatIsReceived();
    void laterListenersHearNothingOfOldConnections();

    void applicationProxyIsIgnored();
    void protocolsAreIndependent();
    void stoppingOnAllPortsStopsBothProtocols();
    void destroyedListenerStopsEverywhere();
    void hundredListenersOnHundredPorts();

    void handlersMayStopAndDeleteListeners_data();
    void handlersMayStopAndDeleteListeners();
    void listenerStartedInAHandlerHearsWhatComesLater();
    void stoppingAndStartingInAHandlerOpensThePortAgain();
    void handlersMayCloseConnections_data();
    void handlersMayCloseConnections();
    void handlersMayDeleteConnections_data();
    void handlersMayDeleteConnections();
    void stoppingAfterAClosedConnectionReleasesIt();
    void portCanBeOpenedAgainWhenAConnectionCloses();
    void listenerBeingDestroyedDoesNotListenAgain();
    void nestedEventLoopKeepsTheOrderOfDatagrams();
    void nestedEventLoopKeepsTheOrderOfAConnection();
    void portMayBeReplacedInANestedEventLoop();
    void randomStepsInsideTheSignals();

    void connectionsLeaveNothingBehind();
    void deletingTheSingletonClosesThePorts();
};

// Each test leaves nothing behind that belongs to the process.
void tst_NNetworkListener::cleanup()
{
    NTRY_COMPARE(resources(), latin1(NoResources));
}

void tst_NNetworkListener::signalsHaveTheirParameters_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("names");

    QTest::newRow("connection") << QByteArray("tcpConnectionEstablished(QTcpSocket*)") << QByteArray("socket");
    QTest::newRow("end") << QByteArray("tcpConnectionTerminated(QTcpSocket*)") << QByteArray("socket");
    QTest::newRow("data") << QByteArray("tcpDataReceived(QTcpSocket*,QByteArray)") << QByteArray("socket data");
    QTest::newRow("datagram") << QByteArray("udpDatagramReceived(QUdpSocket*,QHostAddress,quint16,QByteArray)")
                              << QByteArray("socket srcAddress srcPort datagram");
}

void tst_NNetworkListener::signalsHaveTheirParameters()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArray, names);

    const int index = NNetworkListener::staticMetaObject.indexOfSignal(signature.constData());
    QVERIFY(index >= 0);
    QCOMPARE(NNetworkListener::staticMetaObject.method(index).parameterNames(), names.split(' '));
}

void tst_NNetworkListener::singletonIsOneObject()
{
    QVERIFY((std::is_base_of<NSingleton<NNetworkListenerSingleton>, NNetworkListenerSingleton>::value));
    QVERIFY((std::is_base_of<QObject, NNetworkListenerSingleton>::value));
    QCOMPARE(NNetworkListenerSingleton::instance(), singleton());
    Listener listener;
    QVERIFY(listener.startUdp());
    QCOMPARE(singleton()->findChildren<QUdpSocket*>().size(), 1);
}

// ---- starting and stopping ----

void tst_NNetworkListener::portZeroIsRefused()
{
    const int before = descriptors();
    Listener listener;
    QVERIFY(!listener.startTcp(0));
    QCOMPARE(listener.errorString, latin1("Cannot listen on TCP port 0"));
    QVERIFY(!listener.startUdp(0));
    QCOMPARE(listener.errorString, latin1("Cannot listen on UDP port 0"));
    QCOMPARE(resources(), latin1(NoResources));
    QCOMPARE(descriptors(), before);
}

void tst_NNetworkListener::heldPortIsRefused_data()
{
    QTest::addColumn<int>("family");

    QTest::newRow("IPv4") << AF_INET;
    QTest::newRow("IPv6") << AF_INET6;
}

void tst_NNetworkListener::heldPortIsRefused()
{
    QFETCH(int, family);

    NFileDescriptor tcpHolder = holdPort(SOCK_STREAM, family);
    NFileDescriptor udpHolder = holdPort(SOCK_DGRAM, family);
    QVERIFY(tcpHolder.isOpen());
    QVERIFY(udpHolder.isOpen());
    Listener listener;
    Listener other;
    listener.connectedSockets.insert(nullptr);
    QString tcpError;
    QString udpError;
    {
        QTcpServer server;
        QUdpSocket socket;
        QVERIFY(!server.listen(QHostAddress::Any, Port));
        QVERIFY(!socket.bind(QHostAddress::Any, Port));
        tcpError = server.errorString();
        udpError = socket.errorString();
    }
    const int before = descriptors();
    for (int i = 0; i < 3; ++i) {
        QVERIFY(!listener.startTcp());
        QCOMPARE(listener.errorString, tcpError);
        QVERIFY(!listener.startUdp());
        QCOMPARE(listener.errorString, udpError);
        QVERIFY(!other.startUdp());
        QCOMPARE(resources(), latin1(NoResources));
        QCOMPARE(descriptors(), before);
    }
    QCOMPARE(listener.connectedSockets, QSet<QTcpSocket*>() << nullptr);

    tcpHolder.reset();
    udpHolder.reset();
    QVERIFY(listener.startTcp());
    QVERIFY(listener.startUdp());
    QVERIFY(listener.connectedSockets.isEmpty());
    Sender sender;
    QVERIFY(sender.send("datagram"));
    NTRY_COMPARE(listener.datagrams.size(), 1);
    QCOMPARE(other.datagrams.size(), 0);
}

void tst_NNetworkListener::stoppingWhereNotListeningChangesNothing()
{
    Listener listener;
    Listener other;
    listener.stopTcp();
    listener.stopUdp();
    listener.stopUdp(0);
    listener.listener->stopListeningOnAllPorts();
    QVERIFY(listener.startTcp());
    QVERIFY(listener.startUdp());
    listener.stopTcp(Port + 1);
    listener.stopUdp(Port + 1);
    other.stopTcp();
    other.stopUdp();
    other.listener->stopListeningOnAllPorts();
    Client client;
    QVERIFY(client.isConnected);
    NTRY_COMPARE(listener.heard(), latin1("connected"));
    Sender sender;
    QVERIFY(sender.send("datagram"));
    NTRY_COMPARE(listener.datagrams.size(), 1);
}

void tst_NNetworkListener::startingAgainChangesNothing()
{
    Listener listener;
    for (int i = 0; i < 3; ++i) {
        QVERIFY(listener.startTcp());
        QVERIFY(listener.startUdp());
    }
    QCOMPARE(resources(), latin1("1 servers, 0 connections, 1 UDP sockets, 1 timers"));
    Sender sender;
    QVERIFY(sender.send("1"));
    QVERIFY(sender.send("2"));
    Client client;
    NTRY_COMPARE(listener.datagramBytes(), numbers(1, 2));
    NTRY_COMPARE(listener.heard(), latin1("connected"));
    QVERIFY(listener.startTcp());
    QCOMPARE(listener.connectedSockets, QSet<QTcpSocket*>() << listener.sockets[0]);
    listener.stopTcp();
    listener.stopUdp();
    NTRY_COMPARE(resources(), latin1(NoResources));
    QCOMPARE(listener.heard(), latin1("connected"));
}

// ---- UDP ----

void tst_NNetworkListener::datagramsComeWithTheirSender_data()
{
    QTest::addColumn<QByteArray>("destination");
    QTest::addColumn<QByteArray>("source");

    QTest::newRow("IPv4") << QByteArray("127.0.0.1") << QByteArray("127.0.0.1");
    QTest::newRow("IPv4 from another address") << QByteArray("127.0.0.1") << QByteArray("127.1.2.200");
    QTest::newRow("IPv4 to another address") << QByteArray("127.255.0.3") << QByteArray("127.0.0.1");
    QTest::newRow("IPv6") << QByteArray("::1") << QByteArray("::1");
}

void tst_NNetworkListener::datagramsComeWithTheirSender()
{
    QFETCH(QByteArray, destination);
    QFETCH(QByteArray, source);

    Listener listeners[2];
    QUdpSocket* sockets[2] = {nullptr, nullptr};
    for (int i = 0; i < 2; ++i) {
        QVERIFY(listeners[i].startUdp());
        listeners[i].onDatagram = [&sockets, i](QUdpSocket* socket) { sockets[i] = socket; };
    }
    const QHostAddress address(QString::fromLatin1(source));
    Sender sender;
    QVERIFY(sender.bind(address, 0));
    QVERIFY(sender.send("datagram", Port, destination.constData()));
    for (int i = 0; i < 2; ++i) {
        NTRY_COMPARE(listeners[i].datagrams.size(), 1);
        QCOMPARE(listeners[i].datagrams[0].address, address);
        QCOMPARE(listeners[i].datagrams[0].address.protocol(), address.protocol());
        QCOMPARE(listeners[i].datagrams[0].address.toString(), QString::fromLatin1(source));
        QCOMPARE(listeners[i].datagrams[0].port, sender.localPort());
        QCOMPARE(listeners[i].datagrams[0].bytes, QByteArray("datagram"));
        QVERIFY(sockets[i]);
        QCOMPARE(sockets[i], singleton()->findChild<QUdpSocket*>());
    }
    // The socket answers from the port.
    QCOMPARE(sockets[0]->writeDatagram("answer", 6, address, sender.localPort()), qint64(6));
    NTRY_VERIFY(sender.hasPendingDatagrams());
    quint16 port = 0;
    char answer[16];
    QCOMPARE(sender.readDatagram(answer, sizeof(answer), nullptr, &port), qint64(6));
    QCOMPARE(port, quint16(Port));
}

void tst_NNetworkListener::datagramsOfEverySizeArrive_data()
{
    QTest::addColumn<QByteArray>("destination");
    QTest::addColumn<QList<int>>("sizes");

    // The largest are those whose length UDP can state.
    QTest::newRow("IPv4") << QByteArray("127.0.0.1") << (QList<int>() << 0 << 1 << 0 << 0 << 1472 << 65507 << 0);
    QTest::newRow("IPv6") << QByteArray("::1") << (QList<int>() << 0 << 1 << 0 << 0 << 1472 << 65527 << 0);
}

void tst_NNetworkListener::datagramsOfEverySizeArrive()
{
    QFETCH(QByteArray, destination);
    QFETCH(QList<int>, sizes);

    Listener listener;
    QVERIFY(listener.startUdp());
    Sender sender;
    for (const int size : sizes)
        QVERIFY(sender.send(pattern(size), Port, destination.constData()));
    NTRY_COMPARE(listener.datagrams.size(), sizes.size());
    for (int i = 0; i < sizes.size(); ++i) {
        QCOMPARE(listener.datagrams[i].bytes, pattern(sizes[i]));
        QCOMPARE(listener.datagrams[i].port, sender.localPort());
    }
}

void tst_NNetworkListener::udpPortIsBoundWhileAnyListens()
{
    Listener first;
    Listener second;
    QVERIFY(first.startUdp());
    QVERIFY(second.startUdp());
    Sender sender;
    QVERIFY(sender.send("1"));
    NTRY_COMPARE(second.datagramBytes(), numbers(1, 1));
    QCOMPARE(first.datagramBytes(), numbers(1, 1));
    first.stopUdp();
    QVERIFY(!holdPort(SOCK_DGRAM, AF_INET).isOpen());
    QVERIFY(!holdPort(SOCK_DGRAM, AF_INET6).isOpen());
    QVERIFY(sender.send("2"));
    NTRY_COMPARE(second.datagramBytes(), numbers(1, 2));
    QCOMPARE(first.datagramBytes(), numbers(1, 1));
    // Others can have the port at once.
    second.stopUdp();
    QVERIFY(holdPort(SOCK_DGRAM, AF_INET).isOpen());
    QVERIFY(holdPort(SOCK_DGRAM, AF_INET6).isOpen());
    QVERIFY(first.startUdp());
}

void tst_NNetworkListener::watchdogOfTenSecondsRuns()
{
    Listener listener;
    QVERIFY(listener.startUdp());
    QTimer* const watchdog = singleton()->findChild<QTimer*>();
    QVERIFY(watchdog);
    QCOMPARE(watchdog->parent(), static_cast<QObject*>(singleton()));
    bool wasActive = true;
    listener.onDatagram = [&](QUdpSocket*) { wasActive = watchdog->isActive(); };
    QVERIFY(watchdog->isActive());
    QCOMPARE(watchdog->interval(), WatchdogInterval);
    Sender sender;
    QVERIFY(sender.send("datagram"));
    NTRY_COMPARE(listener.datagrams.size(), 1);
    QVERIFY(!wasActive);
    QVERIFY(watchdog->isActive());
    QCOMPARE(watchdog->interval(), WatchdogInterval);
    QVERIFY(NTest::fireTimer(watchdog));
    QVERIFY(watchdog->isActive());
    QCOMPARE(watchdog->interval(), WatchdogInterval);
    const QPointer<QTimer> guard(watchdog);
    listener.stopUdp();
    QVERIFY(!watchdog->isActive());
    NTRY_VERIFY(!guard);
}

void tst_NNetworkListener::watchdogDrainsAStalledSocket()
{
    Listener first;
    Listener second;
    QVERIFY(first.startUdp());
    QVERIFY(second.startUdp());
    QUdpSocket* const socket = singleton()->findChild<QUdpSocket*>();
    // A notification without a read is the last one that Qt gives.
    Sender sender;
    socket->blockSignals(true);
    QVERIFY(sender.send("0"));
    NTRY_VERIFY(socket->hasPendingDatagrams());
    Listener other;
    QVERIFY(other.startUdp(Port + 1));
    QVERIFY(sender.send("other", Port + 1));
    NTRY_COMPARE(other.datagrams.size(), 1);
    socket->blockSignals(false);
    const int count = 200; // more than one turn of the event loop takes
    for (int i = 1; i < count; ++i)
        QVERIFY(sender.send(QByteArray::number(i)));
    QVERIFY(sender.send("other", Port + 1));
    NTRY_COMPARE(other.datagrams.size(), 2);
    QCOMPARE(first.datagrams.size(), 0);
    const QList<QTimer*> watchdogs = singleton()->findChildren<QTimer*>();
    QCOMPARE(watchdogs.size(), 2);
    for (QTimer* const watchdog : watchdogs)
        QVERIFY(NTest::fireTimer(watchdog));
    NTRY_COMPARE(first.datagrams.size(), count);
    QCOMPARE(first.datagramBytes(), numbers(0, count));
    QCOMPARE(second.datagramBytes(), numbers(0, count));
    QVERIFY(sender.send(QByteArray::number(count)));
    NTRY_COMPARE(first.datagramBytes(), numbers(0, count + 1));
    for (QTimer* const watchdog : watchdogs)
        NTRY_COMPARE(watchdog->interval(), WatchdogInterval);
}

void tst_NNetworkListener::watchdogSparesOtherPorts()
{
    Listener listeners[2];
    QUdpSocket* sockets[2];
    Sender sender;
    for (int i = 0; i < 2; ++i) {
        const QList<QUdpSocket*> before = singleton()->findChildren<QUdpSocket*>();
        QVERIFY(listeners[i].startUdp(Port + i));
        for (QUdpSocket* const socket : singleton()->findChildren<QUdpSocket*>()) {
            if (!before.contains(socket))
                sockets[i] = socket;
        }
        sockets[i]->blockSignals(true);
        QVERIFY(sender.send("datagram", Port + i));
        NTRY_VERIFY(sockets[i]->hasPendingDatagrams());
        sockets[i]->blockSignals(false);
    }
    const QList<QTimer*> watchdogs = singleton()->findChildren<QTimer*>();
    QCOMPARE(watchdogs.size(), 2);
    QVERIFY(NTest::fireTimer(watchdogs[0]));
    QCOMPARE(listeners[0].datagrams.size(), 1);
    QCOMPARE(listeners[1].datagrams.size(), 0);
    QVERIFY(NTest::fireTimer(watchdogs[1]));
    QCOMPARE(listeners[0].datagrams.size(), 1);
    QCOMPARE(listeners[1].datagrams.size(), 1);
}

// Each datagram that is received causes the next one, so that the socket is never empty.
void tst_NNetworkListener::floodLeavesOtherPortsAnswered()
{
    const int limit = 100000;
    Listener flooded;
    Listener answered;
    Sender sender;
    QVERIFY(flooded.startUdp(Port));
    QVERIFY(answered.startUdp(Port + 1));
    int answers = 0;
    int datagramsBetween = 0;
    int longest = 0;
    flooded.onDatagram = [&](QUdpSocket*) {
        longest = qMax(longest, ++datagramsBetween);
        if (answers < 100 && flooded.datagrams.size() < limit)
            sender.send("flood");
    };
    answered.onDatagram = [&](QUdpSocket*) {
        datagramsBetween = 0;
        if (++answers < 100)
            sender.send("question", Port + 1);
    };
    for (int i = 0; i < 100; ++i)
        QVERIFY(sender.send("flood"));
    QVERIFY(sender.send("question", Port + 1));
    NTRY_VERIFY(answers == 100 || flooded.datagrams.size() >= limit);
    QCOMPARE(answers, 100);
    QVERIFY2(longest < 500, QByteArray::number(longest).constData());
}

// ---- TCP ----

void tst_NNetworkListener::connectionsAreReported_data()
{
    QTest::addColumn<QByteArray>("address");

    QTest::newRow("IPv4") << QByteArray("127.0.0.1");
    QTest::newRow("another IPv4 address") << QByteArray("127.4.5.6");
    QTest::newRow("IPv6") << QByteArray("::1");
}

void tst_NNetworkListener::connectionsAreReported()
{
    QFETCH(QByteArray, address);

    Listener listeners[3];
    for (Listener& listener : listeners)
        QVERIFY(listener.startTcp());
    Client client(Port, address.constData());
    QVERIFY(client.isConnected);
    for (Listener& listener : listeners) {
        NTRY_COMPARE(listener.heard(), latin1("connected"));
        QCOMPARE(listener.sockets, singleton()->findChildren<QTcpSocket*>());
        QCOMPARE(listener.sockets[0]->peerPort(), client.localPort());
        QCOMPARE(listener.sockets[0]->localPort(), quint16(Port));
    }
    client.send("some");
    NTRY_COMPARE(listeners[2].data, QByteArray("some"));
    client.send(" data");
    for (Listener& listener : listeners)
        NTRY_COMPARE(listener.data, QByteArray("some data"));
    const QPointer<QTcpSocket> socket(listeners[0].sockets[0]);
    bool wasThere = false;
    listeners[2].onTermination = [&](QTcpSocket* terminated) { wasThere = socket && terminated == socket; };
    client.disconnectFromHost();
    for (Listener& listener : listeners)
        NTRY_COMPARE(listener.heard(), latin1("connected data terminated"));
    QVERIFY(wasThere);
    NTRY_VERIFY(!socket);
    Listener later;
    QVERIFY(later.startTcp());
    QVERIFY(later.connectedSockets.isEmpty());
}

void tst_NNetworkListener::dataBeforeTheEndAreReceived()
{
    const QByteArray bytes = pattern(300000);
    Listener listeners[2];
    for (Listener& listener : listeners)
        QVERIFY(listener.startTcp());
    Client client;
    client.write(bytes);
    client.disconnectFromHost();
    for (Listener& listener : listeners) {
        NTRY_COMPARE(listener.heard(), latin1("connected data terminated"));
        QCOMPARE(listener.data, bytes);
    }
}

void tst_NNetworkListener::listenersCanAnswer()
{
    Listener listeners[2];
    for (Listener& listener : listeners) {
        listener.onConnection = [](QTcpSocket* socket) { socket->write("welcome "); };
        listener.onData = [](QTcpSocket* socket) { socket->write("answer "); };
        QVERIFY(listener.startTcp());
    }
    Client client;
    QByteArray received;
    NTRY_COMPARE(received += client.readAll(), QByteArray("welcome welcome "));
    client.send("question");
    NTRY_COMPARE(received += client.readAll(), QByteArray("welcome welcome answer answer "));
}

void tst_NNetworkListener::laterListenerGetsTheConnectedSockets()
{
    Listener first;
    QVERIFY(first.startTcp());
    QVERIFY(first.startTcp(Port + 1));
    Client clients[2];
    Client other(Port + 1);
    NTRY_COMPARE(first.sockets.size(), 3);
    Listener later;
    QVERIFY(later.startTcp());
    QSet<QTcpSocket*> expected;
    for (QTcpSocket* const socket : first.sockets) {
        if (socket->localPort() == Port)
            expected.insert(socket);
    }
    QCOMPARE(expected.size(), 2);
    QCOMPARE(later.connectedSockets, expected);
    clients[0].send("data");
    NTRY_COMPARE(later.heard(), latin1("data"));
    other.send("other data");
    NTRY_COMPARE(first.data.size(), 14);
    QCOMPARE(later.data, QByteArray("data"));
    clients[1].disconnectFromHost();
    NTRY_COMPARE(later.heard(), latin1("data terminated"));
    Listener last;
    QVERIFY(last.startTcp());
    QCOMPARE(last.connectedSockets.size(), 1);
}

void tst_NNetworkListener::tcpPortIsBoundWhileAnyListens()
{
    Listener first;
    Listener second;
    QVERIFY(first.startTcp());
    QVERIFY(second.startTcp());
    Client client;
    NTRY_COMPARE(second.heard(), latin1("connected"));
    first.stopTcp();
    Client another;
    QVERIFY(another.isConnected);
    NTRY_COMPARE(second.heard(), latin1("connected connected"));
    QCOMPARE(first.heard(), latin1("connected"));
    QCOMPARE(client.state(), QAbstractSocket::ConnectedState);
    second.stopTcp();
    QVERIFY(!connectTo(Port).isOpen());
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    NTRY_COMPARE(another.state(), QAbstractSocket::UnconnectedState);
    NTRY_COMPARE(resources(), latin1(NoResources));
    QCOMPARE(second.heard(), latin1("connected connected"));
    QVERIFY(first.startTcp());
    QVERIFY(Client().isConnected);
}

void tst_NNetworkListener::lastStopDeliversWhatWasWritten()
{
    const QByteArray bytes = pattern(8 * 1024 * 1024);
    Listener listener;
    QVERIFY(listener.startTcp());
    Client client;
    NTRY_COMPARE(listener.sockets.size(), 1);
    listener.sockets[0]->write(bytes);
    listener.listener.reset();
    QVERIFY(!connectTo(Port).isOpen());
    QByteArray received;
    NTRY_VERIFY((received += client.readAll()).size() == bytes.size());
    QCOMPARE(received, bytes);
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    QVERIFY(client.readAll().isEmpty());
}

// All is with the kernel when the listener stops, and not yet with the client.
void tst_NNetworkListener::lastStopDeliversToAClientThatSendsOn()
{
    const QByteArray bytes = pattern(1024 * 1024);
    Listener listener;
    QVERIFY(listener.startTcp());
    NFileDescriptor client = connectTo(Port);
    QVERIFY(client.isOpen());
    NTRY_COMPARE(listener.sockets.size(), 1);
    const QPointer<QTcpSocket> socket(listener.sockets[0]);
    socket->write(bytes);
    NTRY_VERIFY(socket->bytesToWrite() == 0);
    listener.stopTcp();
    for (int i = 0; i < 10; ++i) {
        QCOMPARE(int(::send(client.number(), "data", 4, MSG_NOSIGNAL)), 4);
        runLoop();
    }
    QByteArray received;
    QByteArray block(bytes.size(), '\0');
    ssize_t size = 0;
    while ((size = ::recv(client.number(), block.data(), size_t(block.size()), 0)) > 0) {
        received.append(block.constData(), int(size));
        runLoop();
    }
    QCOMPARE(int(size), 0);
    QCOMPARE(received, bytes);
    QVERIFY(listener.data.isEmpty());
    client.reset();
    NTRY_VERIFY(!socket);
}

// A client that sends much and does not read yet.
void tst_NNetworkListener::lastStopDiscardsWhatIsReceived()
{
    Listener listener;
    QVERIFY(listener.startTcp());
    NFileDescriptor client = connectTo(Port);
    QVERIFY(client.isOpen());
    NTRY_COMPARE(listener.sockets.size(), 1);
    const QPointer<QTcpSocket> socket(listener.sockets[0]);
    socket->write(pattern(32 * 1024 * 1024));
    listener.stopTcp();
    const QByteArray block = pattern(64 * 1024);
    qint64 sent = 0;
    NTRY_VERIFY(
        (sent +=
         qMax(ssize_t(0), ::send(client.number(), block.constData(), size_t(block.size()), MSG_DONTWAIT))) >
        4 * 1024 * 1024);
    NTRY_VERIFY(socket && socket->bytesAvailable() == 0);
    QVERIFY(listener.data.isEmpty());
    client.reset();
    NTRY_VERIFY(!socket);
}

void tst_NNetworkListener::laterListenersHearNothingOfOldConnections()
{
    Listener first;
    QVERIFY(first.startTcp());
    NFileDescriptor client = connectTo(Port);
    QVERIFY(client.isOpen());
    NTRY_COMPARE(first.sockets.size(), 1);
    const QByteArray bytes = pattern(32 * 1024 * 1024);
    first.sockets[0]->write(bytes);
    first.stopTcp();
    Listener later;
    QVERIFY(later.startTcp());
    QVERIFY(later.connectedSockets.isEmpty());
    QCOMPARE(int(::send(client.number(), "data", 4, 0)), 4);
    Client another;
    NTRY_COMPARE(later.heard(), latin1("connected"));
    QCOMPARE(singleton()->findChildren<QTcpSocket*>().size(), 2);
    QByteArray received;
    QByteArray block(1024 * 1024, '\0');
    NTRY_VERIFY(
        received
            .append(
                block.constData(),
                int(qMax(ssize_t(0), ::recv(client.number(), block.data(), size_t(block.size()), MSG_DONTWAIT))))
            .size() == bytes.size());
    QCOMPARE(received, bytes);
    NTRY_COMPARE(int(::recv(client.number(), block.data(), size_t(block.size()), MSG_DONTWAIT)), 0); // the end
    client.reset();
    NTRY_COMPARE(singleton()->findChildren<QTcpSocket*>().size(), 1);
    another.send("question");
    NTRY_COMPARE(later.heard(), latin1("connected data"));
    QCOMPARE(later.data, QByteArray("question"));
    QCOMPARE(first.heard(), latin1("connected"));
}

// ---- both ----

void tst_NNetworkListener::applicationProxyIsIgnored()
{
    struct ProxySetting
    {
        ProxySetting()
        {
            QNetworkProxy::setApplicationProxy(
                QNetworkProxy(QNetworkProxy::Socks5Proxy, latin1("127.0.0.1"), Port + 9));
        }
        ~ProxySetting() { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }
    } setting;
    Listener listener;
    QVERIFY2(listener.startTcp(), qPrintable(listener.errorString));
    QVERIFY2(listener.startUdp(), qPrintable(listener.errorString));
    Client client;
    QVERIFY(client.isConnected);
    client.send("data");
    NTRY_COMPARE(listener.data, QByteArray("data"));
    Sender sender;
    QVERIFY(sender.send("datagram"));
    NTRY_COMPARE(listener.datagrams.size(), 1);
}

void tst_NNetworkListener::protocolsAreIndependent()
{
    Listener tcp;
    Listener udp;
    QVERIFY(tcp.startTcp());
    QVERIFY(udp.startUdp());
    Client client;
    client.send("data");
    Sender sender;
    QVERIFY(sender.send("datagram"));
    NTRY_COMPARE(tcp.heard(), latin1("connected data"));
    NTRY_COMPARE(udp.datagrams.size(), 1);
    QCOMPARE(udp.heard(), QString());
    QCOMPARE(tcp.datagrams.size(), 0);
    udp.stopTcp();
    tcp.stopUdp();
    QCOMPARE(resources(), latin1("1 servers, 1 connections, 1 UDP sockets, 1 timers"));
    tcp.stopTcp();
    NTRY_COMPARE(resources(), latin1("0 servers, 0 connections, 1 UDP sockets, 1 timers"));
}

void tst_NNetworkListener::stoppingOnAllPortsStopsBothProtocols()
{
    Listener listener;
    Listener other;
    for (int i = 0; i < 3; ++i) {
        QVERIFY(listener.startTcp(Port + i));
        QVERIFY(listener.startUdp(Port + i));
    }
    QVERIFY(other.startTcp(Port));
    QVERIFY(other.startUdp(Port + 1));
    Client client;
    NTRY_COMPARE(other.sockets.size(), 1);
    listener.listener->stopListeningOnAllPorts();
    NTRY_COMPARE(resources(), latin1("1 servers, 1 connections, 1 UDP sockets, 1 timers"));
    client.send("data");
    Sender sender;
    QVERIFY(sender.send("datagram", Port + 1));
    NTRY_COMPARE(other.heard(), latin1("connected data"));
    NTRY_COMPARE(other.datagrams.size(), 1);
    QCOMPARE(listener.heard(), latin1("connected"));
    QCOMPARE(listener.datagrams.size(), 0);
}

void tst_NNetworkListener::destroyedListenerStopsEverywhere()
{
    const int before = descriptors();
    {
        Listener listener;
        Listener other;
        QVERIFY(listener.startTcp());
        QVERIFY(listener.startUdp());
        QVERIFY(other.startUdp());
        listener.listener.reset();
        Sender sender;
        QVERIFY(sender.send("datagram"));
        NTRY_COMPARE(other.datagrams.size(), 1);
        QVERIFY(!connectTo(Port).isOpen());
    }
    NTRY_COMPARE(resources(), latin1(NoResources));
    QCOMPARE(descriptors(), before);
}

void tst_NNetworkListener::hundredListenersOnHundredPorts()
{
    const int count = 100;
    const int before = descriptors();
    {
        std::vector<Listener> listeners(count);
        std::vector<std::unique_ptr<Client>> clients;
        Sender sender;
        for (int i = 0; i < count; ++i) {
            QVERIFY(listeners[size_t(i)].startTcp(Port + i));
            QVERIFY(listeners[size_t(i)].startUdp(Port + i));
        }
        for (int i = 0; i < count; ++i) {
            clients.push_back(std::unique_ptr<Client>(new Client(Port + i)));
            clients.back()->send("data " + QByteArray::number(i));
            QVERIFY(sender.send("datagram " + QByteArray::number(i), Port + i));
        }
        for (int i = 0; i < count; ++i) {
            Listener& listener = listeners[size_t(i)];
            NTRY_COMPARE(listener.heard(), latin1("connected data"));
            NTRY_COMPARE(listener.data, "data " + QByteArray::number(i));
            NTRY_COMPARE(listener.datagramBytes(), QList<QByteArray>() << "datagram " + QByteArray::number(i));
        }
        QCOMPARE(resources(), latin1("100 servers, 100 connections, 100 UDP sockets, 100 timers"));
    }
    NTRY_COMPARE(resources(), latin1(NoResources));
    NTRY_COMPARE(descriptors(), before);
}

// ---- receivers that change what they listen on ----

enum Change { StopItself, StopNext, StopAll, DeleteItself, DeleteNext, DeleteOthers };
Q_DECLARE_METATYPE(Change)

void tst_NNetworkListener::handlersMayStopAndDeleteListeners_data()
{
    QTest::addColumn<QByteArray>("event");
    QTest::addColumn<Change>("change");

    const char* const events[] = {"connection", "data", "termination", "datagram"};
    const struct
    {
        const char* name;
        Change change;
    } changes[] = {{"stops itself", StopItself},     {"stops the next", StopNext},
                   {"stops all", StopAll},           {"deletes itself", DeleteItself},
                   {"deletes the next", DeleteNext}, {"deletes the others", DeleteOthers}};
    for (const char* const event : events) {
        for (const auto& change : changes)
            QTest::newRow((QByteArray(event) + ", " + change.name).constData())
                << QByteArray(event) << change.change;
    }
}

void tst_NNetworkListener::handlersMayStopAndDeleteListeners()
{
    QFETCH(QByteArray, event);
    QFETCH(Change, change);

    const size_t count = 5;
    std::vector<Listener> listeners(count);
    size_t calls = 0;
    size_t callsAfterChange = 0;
    std::vector<bool> isCalled(count);
    std::vector<bool> isStopped(count);
    const auto stop = [&](size_t i, bool deletes) {
        isStopped[i] = true;
        if (deletes)
            listeners[i].listener.reset();
        else
            listeners[i].listener->stopListeningOnAllPorts();
    };
    const auto handler = [&](size_t self) {
        QVERIFY(!isStopped[self]);
        QVERIFY(!isCalled[self]);
        isCalled[self] = true;
        if (++calls != 2) {
            callsAfterChange += calls > 2 ? 1 : 0;
            return;
        }
        const bool deletes = change == DeleteItself || change == DeleteNext || change == DeleteOthers;
        for (size_t i = 0; i < count; ++i) {
            const bool isNext = change == StopNext || change == DeleteNext;
            if (change == StopAll || (i == self && change != DeleteOthers && !isNext) ||
                (i != self && change == DeleteOthers))
                stop(i, deletes);
            // Some listener that is still to be called, whichever that is.
            if (isNext && !isCalled[i]) {
                stop(i, deletes);
                break;
            }
        }
    };
    for (size_t i = 0; i < count; ++i) {
        if (event == "connection")
            listeners[i].onConnection = [&, i](QTcpSocket*) { handler(i); };
        else if (event == "data")
            listeners[i].onData = [&, i](QTcpSocket*) { handler(i); };
        else if (event == "termination")
            listeners[i].onTermination = [&, i](QTcpSocket*) { handler(i); };
        else
            listeners[i].onDatagram = [&, i](QUdpSocket*) { handler(i); };
        QVERIFY(listeners[i].startTcp());
        QVERIFY(listeners[i].startUdp());
    }
    Client client;
    client.send("data");
    client.disconnectFromHost();
    Sender sender;
    QVERIFY(sender.send("datagram"));
    const size_t expected = change == StopAll || change == DeleteOthers  ? 0
                            : change == StopNext || change == DeleteNext ? 2
                                                                         : 3;
    NTRY_COMPARE(calls, 2 + expected);
    Listener witness;
    QVERIFY(witness.startUdp(Port + 1));
    QVERIFY(sender.send("datagram", Port + 1));
    NTRY_COMPARE(witness.datagrams.size(), 1);
    QCOMPARE(callsAfterChange, expected);
    // The others go on listening.
    for (size_t i = 0; i < count; ++i) {
        listeners[i].onDatagram = nullptr;
        listeners[i].datagrams.clear();
    }
    QVERIFY(sender.send("later"));
    for (size_t i = 0; i < count; ++i) {
        if (!isStopped[i])
            NTRY_VERIFY(listeners[i].datagramBytes().contains("later"));
    }
    for (size_t i = 0; i < count; ++i)
        QVERIFY(!isStopped[i] || listeners[i].datagrams.isEmpty());
}

void tst_NNetworkListener::listenerStartedInAHandlerHearsWhatComesLater()
{
    Listener first;
    Listener second;
    Listener atConnection;
    Listener atData;
    Listener atTermination;
    Listener atDatagram;
    for (Listener* const listener : {&first, &second}) {
        listener->onConnection = [&](QTcpSocket*) { QVERIFY(atConnection.startTcp()); };
        listener->onData = [&](QTcpSocket*) { QVERIFY(atData.startTcp()); };
        listener->onTermination = [&](QTcpSocket*) { QVERIFY(atTermination.startTcp()); };
        listener->onDatagram = [&](QUdpSocket*) { QVERIFY(atDatagram.startUdp()); };
        QVERIFY(listener->startTcp());
        QVERIFY(listener->startUdp());
    }
    Client client;
    NTRY_COMPARE(second.heard(), latin1("connected"));
    QCOMPARE(atConnection.connectedSockets, QSet<QTcpSocket*>() << first.sockets[0]);
    client.send("first");
    NTRY_COMPARE(second.data, QByteArray("first"));
    QCOMPARE(atData.connectedSockets.size(), 1);
    client.send("second");
    NTRY_COMPARE(second.data, QByteArray("firstsecond"));
    client.disconnectFromHost();
    NTRY_COMPARE(second.heard(), latin1("connected data terminated"));
    QVERIFY(atTermination.connectedSockets.isEmpty());
    QCOMPARE(atConnection.heard(), latin1("data terminated"));
    QCOMPARE(atConnection.data, QByteArray("firstsecond"));
    QCOMPARE(atData.heard(), latin1("data terminated"));
    QCOMPARE(atData.data, QByteArray("second"));
    QCOMPARE(atTermination.heard(), QString());
    Sender sender;
    QVERIFY(sender.send("1"));
    QVERIFY(sender.send("2"));
    NTRY_COMPARE(second.datagramBytes(), numbers(1, 2));
    NTRY_COMPARE(atDatagram.datagramBytes(), numbers(2, 1));
}

void tst_NNetworkListener::stoppingAndStartingInAHandlerOpensThePortAgain()
{
    Listener listener;
    int opened = 0;
    listener.onDatagram = [&](QUdpSocket*) {
        listener.stopUdp();
        QVERIFY(listener.startUdp());
        ++opened;
    };
    listener.onConnection = [&](QTcpSocket*) {
        listener.stopTcp();
        QVERIFY(listener.startTcp());
        QVERIFY(listener.connectedSockets.isEmpty());
        ++opened;
    };
    QVERIFY(listener.startUdp());
    QVERIFY(listener.startTcp());
    Sender sender;
    for (int i = 1; i <= 3; ++i) {
        QVERIFY(sender.send("datagram"));
        NTRY_COMPARE(listener.datagrams.size(), i);
        Client client;
        QVERIFY(client.isConnected);
        NTRY_COMPARE(listener.sockets.size(), i);
        NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    }
    QCOMPARE(opened, 6);
    NTRY_COMPARE(resources(), latin1("1 servers, 0 connections, 1 UDP sockets, 1 timers"));
    QCOMPARE(listener.heard(), latin1("connected connected connected"));
}

enum Closing { DisconnectFromHost, Close, Abort };
Q_DECLARE_METATYPE(Closing)

void tst_NNetworkListener::handlersMayCloseConnections_data()
{
    QTest::addColumn<bool>("atConnection");
    QTest::addColumn<Closing>("closing");

    QTest::newRow("disconnectFromHost at once") << true << DisconnectFromHost;
    QTest::newRow("close at once") << true << Close;
    QTest::newRow("abort at once") << true << Abort;
    QTest::newRow("disconnectFromHost with data") << false << DisconnectFromHost;
    QTest::newRow("close with data") << false << Close;
    QTest::newRow("abort with data") << false << Abort;
}

// Each listener hears of the connection, of the data and of the end in this order.
void tst_NNetworkListener::handlersMayCloseConnections()
{
    QFETCH(bool, atConnection);
    QFETCH(Closing, closing);

    Listener listeners[4];
    int calls = 0;
    const Listener::TcpHandler handler = [&](QTcpSocket* socket) {
        if (++calls != 2)
            return;
        if (closing == DisconnectFromHost)
            socket->disconnectFromHost();
        else if (closing == Close)
            socket->close();
        else
            socket->abort();
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
    };
    for (Listener& listener : listeners) {
        (atConnection ? listener.onConnection : listener.onData) = handler;
        QVERIFY(listener.startTcp());
    }
    Client client;
    if (!atConnection)
        client.send("data");
    for (Listener& listener : listeners) {
        NTRY_COMPARE(
            listener.heard(), latin1(atConnection ? "connected terminated" : "connected data terminated"));
        QCOMPARE(listener.data, QByteArray(atConnection ? "" : "data"));
    }
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    NTRY_COMPARE(resources(), latin1("1 servers, 0 connections, 0 UDP sockets, 0 timers"));
}

void tst_NNetworkListener::handlersMayDeleteConnections_data()
{
    QTest::addColumn<QByteArray>("event");
    QTest::addColumn<bool>("later");
    QTest::addColumn<QString>("heard");

    QTest::newRow("connection") << QByteArray("connection") << false << latin1("connected");
    QTest::newRow("data") << QByteArray("data") << false << latin1("connected data");
    QTest::newRow("connection, later") << QByteArray("connection") << true << latin1("connected");
    QTest::newRow("data, later") << QByteArray("data") << true << latin1("connected data");
    QTest::newRow("termination, later")
        << QByteArray("termination") << true << latin1("connected data terminated");
}

void tst_NNetworkListener::handlersMayDeleteConnections()
{
    QFETCH(QByteArray, event);
    QFETCH(bool, later);
    QFETCH(QString, heard);

    Listener listeners[3];
    bool isDeleted = false;
    const Listener::TcpHandler handler = [&](QTcpSocket* socket) {
        QVERIFY(later || !isDeleted);
        isDeleted = true;
        // The event loop deletes it after the last receiver.
        if (later)
            socket->deleteLater();
    };
    for (Listener& listener : listeners) {
        (event == "connection" ? listener.onConnection
         : event == "data"     ? listener.onData
                               : listener.onTermination) = handler;
        QVERIFY(listener.startTcp());
    }
    // Inside its own signals, Qt allows the deletion of a socket only to what is called by the event loop.
    if (!later) {
        for (Listener& listener : listeners)
            listener.onConnection = listener.onData = nullptr;
    }
    Client client;
    if (event != "connection")
        client.send("data");
    if (event == "termination") {
        NTRY_COMPARE(listeners[0].heard(), latin1("connected data"));
        client.disconnectFromHost();
    }
    for (Listener& listener : listeners)
        NTRY_COMPARE(listener.heard(), heard);
    if (!later)
        delete listeners[0].sockets[0];
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    NTRY_COMPARE(resources(), latin1("1 servers, 0 connections, 0 UDP sockets, 0 timers"));
    Listener last;
    QVERIFY(last.startTcp());
    QVERIFY(last.connectedSockets.isEmpty());
    for (Listener& listener : listeners)
        QCOMPARE(listener.heard(), heard);
}

// The end has not been reported when the last listener stops.
void tst_NNetworkListener::stoppingAfterAClosedConnectionReleasesIt()
{
    Listener listeners[2];
    for (Listener& listener : listeners) {
        listener.onData = [&](QTcpSocket* socket) {
            socket->abort();
            listeners[0].stopTcp();
            listeners[1].stopTcp();
        };
        QVERIFY(listener.startTcp());
    }
    Client client;
    client.send("data");
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    NTRY_COMPARE(resources(), latin1(NoResources));
    QCOMPARE(listeners[0].data + listeners[1].data, QByteArray("data"));
}

void tst_NNetworkListener::portCanBeOpenedAgainWhenAConnectionCloses()
{
    Listener first;
    Listener second;
    QVERIFY(first.startTcp());
    Client client;
    NTRY_COMPARE(first.sockets.size(), 1);
    bool isOpened = false;
    const DisconnectionReceiver receiver(first.sockets[0], [&]() { isOpened = second.startTcp(); });
    first.stopTcp();
    QVERIFY2(isOpened, qPrintable(second.errorString));
    QVERIFY(second.connectedSockets.isEmpty());
    QVERIFY(Client().isConnected);
    NTRY_COMPARE(second.heard(), latin1("connected terminated"));
}

void tst_NNetworkListener::listenerBeingDestroyedDoesNotListenAgain()
{
    Listener listener;
    QVERIFY(listener.startTcp());
    Client client;
    NTRY_COMPARE(listener.sockets.size(), 1);
    NNetworkListener* const destroyed = listener.listener.release();
    bool isCalled = false;
    const DisconnectionReceiver receiver(listener.sockets[0], [&]() {
        isCalled = true;
        QString errorString;
        QSet<QTcpSocket*> sockets;
        destroyed->startListeningOnTcpPort(Port, sockets, errorString);
        destroyed->startListeningOnUdpPort(Port, errorString);
    });
    delete destroyed;
    QVERIFY(isCalled);
    NTRY_COMPARE(resources(), latin1(NoResources));
}

void tst_NNetworkListener::nestedEventLoopKeepsTheOrderOfDatagrams()
{
    const int first = 100; // more than one turn of the event loop takes
    const int all = 1000;
    Listener listeners[4];
    Sender sender;
    int sent = 0;
    for (Listener& listener : listeners) {
        QVERIFY(listener.startUdp());
        listener.onDatagram = [&](QUdpSocket*) {
            // The kernel drops what the receive buffer cannot hold.
            if (sent < all && sent - listener.datagrams.size() < first)
                QVERIFY(sender.send(QByteArray::number(sent++)));
            runLoop();
        };
    }
    while (sent < first)
        QVERIFY(sender.send(QByteArray::number(sent++)));
    for (Listener& listener : listeners) {
        NTRY_COMPARE(listener.datagrams.size(), all);
        QCOMPARE(listener.datagramBytes(), numbers(0, all));
    }
    const QTimer* const watchdog = singleton()->findChild<QTimer*>();
    NTRY_COMPARE(watchdog->interval(), WatchdogInterval);
    QVERIFY(watchdog->isActive());
}

// The client sends and ends while the second of four listeners runs an event loop in each signal.
void tst_NNetworkListener::nestedEventLoopKeepsTheOrderOfAConnection()
{
    Listener listeners[4];
    std::unique_ptr<Client> client;
    QByteArray sent;
    int connectionCalls = 0;
    int dataCalls = 0;
    int terminationCalls = 0;
    const auto waitInside = [&](QTcpSocket* socket) {
        NTRY_VERIFY(socket->state() == QAbstractSocket::UnconnectedState || socket->bytesAvailable() >= 1000);
    };
    const auto send = [&]() {
        sent += pattern(1000);
        client->send(pattern(1000));
    };
    for (Listener& listener : listeners) {
        listener.onConnection = [&](QTcpSocket* socket) {
            if (++connectionCalls != 2)
                return;
            send();
            waitInside(socket);
        };
        listener.onData = [&](QTcpSocket* socket) {
            if (++dataCalls == 2) {
                send();
                waitInside(socket);
            } else if (dataCalls == 6) {
                send();
                client->disconnectFromHost();
                NTRY_COMPARE(socket->state(), QAbstractSocket::UnconnectedState);
            }
        };
        listener.onTermination = [&](QTcpSocket* socket) {
            ++terminationCalls;
            runLoop();
            QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        };
        QVERIFY(listener.startTcp());
    }
    client.reset(new Client);
    for (Listener& listener : listeners) {
        NTRY_COMPARE(listener.heard(), latin1("connected data terminated"));
        QCOMPARE(listener.data, sent);
    }
    QCOMPARE(sent.size(), 3000);
    QCOMPARE(terminationCalls, 4);
    NTRY_COMPARE(resources(), latin1("1 servers, 0 connections, 0 UDP sockets, 0 timers"));
}

void tst_NNetworkListener::portMayBeReplacedInANestedEventLoop()
{
    Listener first;
    Listener second;
    Listener later;
    QVERIFY(first.startUdp());
    QVERIFY(first.startTcp());
    QVERIFY(second.startUdp());
    QVERIFY(second.startTcp());
    Sender sender;
    std::unique_ptr<Client> another;
    bool isReceivedInside = false;
    const auto replace = [&]() {
        first.listener->stopListeningOnAllPorts();
        second.listener->stopListeningOnAllPorts();
        NTRY_COMPARE(resources(), latin1(NoResources)); // all are deleted
        QVERIFY(later.startUdp());
        QVERIFY(later.startTcp());
        QVERIFY(sender.send("datagram"));
        another.reset(new Client);
        another->send("data");
        isReceivedInside =
            NTest::waitUntil([&]() { return later.data == "data" && later.datagrams.size() == 1; }, 5000);
    };
    first.onDatagram = [&](QUdpSocket*) { replace(); };
    second.onDatagram = [&](QUdpSocket*) { replace(); };
    QVERIFY(sender.send("old"));
    NTRY_COMPARE(first.datagrams.size() + second.datagrams.size(), 1);
    QVERIFY(isReceivedInside);

    isReceivedInside = false;
    later.listener->stopListeningOnAllPorts();
    another.reset();
    later.data.clear();
    later.datagrams.clear();
    QVERIFY(first.startTcp());
    QVERIFY(second.startTcp());
    first.onData = [&](QTcpSocket*) { replace(); };
    second.onData = [&](QTcpSocket*) { replace(); };
    Client client;
    client.send("old");
    NTRY_COMPARE(first.data + second.data, QByteArray("old"));
    QVERIFY(isReceivedInside);
    NTRY_VERIFY(singleton()->findChild<QTimer*>()->isActive());
}

// Listeners that stop, start, create and delete themselves and others, close connections and write to them inside
// the signals, at random. None hears anything of a port that it does not listen on.
void tst_NNetworkListener::randomStepsInsideTheSignals()
{
    const int steps = 100000;
    const unsigned short ports = 3;
    const size_t count = 10;

    struct RandomListener
    {
        std::unique_ptr<Listener> listener;
        QSet<unsigned short> tcpPorts;
        QSet<unsigned short> udpPorts;
    };
    std::vector<RandomListener> all(count);
    std::vector<std::unique_ptr<Listener>> garbage; // cannot be deleted inside their own slots
    std::minstd_rand random(1);
    const auto below = [&](size_t limit) { return size_t(random()) % limit; };
    int done = 0;
    int misdelivered = 0;
    int events[4] = {0, 0, 0, 0};
    std::function<void(QTcpSocket*)> step;

    const auto create = [&](size_t index) {
        RandomListener& entry = all[index];
        if (entry.listener) {
            entry.listener->listener.reset();
            garbage.push_back(std::move(entry.listener));
        }
        entry.tcpPorts.clear();
        entry.udpPorts.clear();
        entry.listener.reset(new Listener);
        const Listener* const self = entry.listener.get();
        const auto tcp = [&, self, index](QTcpSocket* socket, int event) {
            ++events[event];
            const quint16 port = socket->localPort(); // 0 after the end
            if (all[index].listener.get() != self || (port != 0 && !all[index].tcpPorts.contains(port)))
                ++misdelivered;
            step(socket);
        };
        entry.listener->onConnection = [tcp](QTcpSocket* socket) { tcp(socket, 0); };
        entry.listener->onData = [tcp](QTcpSocket* socket) { tcp(socket, 1); };
        entry.listener->onTermination = [tcp](QTcpSocket* socket) { tcp(socket, 2); };
        entry.listener->onDatagram = [&, self, index](QUdpSocket* socket) {
            ++events[3];
            if (all[index].listener.get() != self || !all[index].udpPorts.contains(socket->localPort()))
                ++misdelivered;
            step(nullptr);
        };
    };
    step = [&](QTcpSocket* socket) {
        ++done;
        const size_t index = below(count);
        RandomListener& entry = all[index];
        const unsigned short port = static_cast<unsigned short>(Port + below(ports));
        switch (below(14)) {
        case 0:
            entry.tcpPorts.remove(port);
            entry.listener->stopTcp(port);
            break;
        case 1:
            entry.udpPorts.remove(port);
            entry.listener->stopUdp(port);
            break;
        case 2:
            create(index);
            break;
        case 3:
            if (below(8) == 0) {
                entry.tcpPorts.clear();
                entry.udpPorts.clear();
                entry.listener->listener->stopListeningOnAllPorts();
            }
            break;
        case 4:
            if (socket && socket->isOpen() && below(4) == 0)
                socket->disconnectFromHost();
            break;
        case 5:
            if (socket && socket->isOpen() && below(4) == 0)
                socket->abort();
            break;
        case 6:
        case 7:
            if (socket && socket->isOpen() && socket->state() == QAbstractSocket::ConnectedState)
                socket->write("answer");
            break;
        case 8:
        case 9:
        case 10:
            entry.tcpPorts.insert(port);
            if (!entry.listener->startTcp(port))
                ++misdelivered;
            break;
        default:
            entry.udpPorts.insert(port);
            if (!entry.listener->startUdp(port))
                ++misdelivered;
            break;
        }
    };

    const int before = descriptors();
    for (size_t i = 0; i < count; ++i)
        create(i);
    {
        Sender sender;
        std::vector<NFileDescriptor> clients(8);
        while (done < steps) {
            // Outside the signals, only what keeps the events coming.
            if (below(16) == 0)
                step(nullptr);
            const unsigned short port = static_cast<unsigned short>(Port + below(ports));
            sender.send("datagram", port);
            sender.send("", port);
            NFileDescriptor& client = clients[below(clients.size())];
            if (!client.isOpen())
                client = connectTo(port);
            else if (below(4) == 0)
                client.reset();
            else if (::send(client.number(), "data", 4, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
                client.reset();
            runLoop();
            garbage.clear();
        }
    }
    for (const int number : events)
        QVERIFY2(number > steps / 100, QByteArray::number(number).constData());
    QCOMPARE(misdelivered, 0);
    for (RandomListener& entry : all)
        entry.listener.reset();
    NTRY_COMPARE(resources(), latin1(NoResources));
    NTRY_COMPARE(descriptors(), before);
}

// ---- the process ----

void tst_NNetworkListener::connectionsLeaveNothingBehind()
{
    const int warmUp = 500;
    const int connections = 10000;
    Listener listener;
    QVERIFY(listener.startTcp());
    int established = 0;
    int terminated = 0;
    listener.onConnection = [&](QTcpSocket* socket) {
        ++established;
        listener.sockets.clear();
        socket->write("welcome");
    };
    listener.onTermination = [&](QTcpSocket*) {
        ++terminated;
        listener.events.clear();
        listener.data.clear();
    };
    qint64 bytesBefore = 0;
    int descriptorsBefore = 0;
    for (int i = 1; i <= warmUp + connections; ++i) {
        {
            const NFileDescriptor client = connectTo(Port);
            QVERIFY(client.isOpen());
            QCOMPARE(int(::send(client.number(), "data", 4, 0)), 4);
        }
        // In the first half, all end at a time; in the second, one by one.
        if (i > connections / 2 || i % 20 == 0) {
            while (terminated < i)
                runLoop();
            runLoop();
        }
        if (i == warmUp) {
            bytesBefore = NTest::allocatedBytes();
            descriptorsBefore = descriptors();
        }
    }
    QCOMPARE(established, warmUp + connections);
    QCOMPARE(terminated, warmUp + connections);
    QCOMPARE(resources(), latin1("1 servers, 0 connections, 0 UDP sockets, 0 timers"));
    QCOMPARE(descriptors(), descriptorsBefore);
    QVERIFY(NTest::allocatedBytes() - bytesBefore < 64 * 1024);
}

void tst_NNetworkListener::deletingTheSingletonClosesThePorts()
{
    Listener listener;
    QVERIFY(listener.startTcp());
    QVERIFY(listener.startUdp());
    Client client;
    NTRY_COMPARE(listener.sockets.size(), 1);
    delete singleton();
    QVERIFY(!connectTo(Port).isOpen());
    QVERIFY(holdPort(SOCK_DGRAM, AF_INET).isOpen());
    NTRY_COMPARE(client.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(listener.heard(), latin1("connected"));
    QVERIFY(listener.startTcp());
    Client another;
    NTRY_COMPARE(listener.heard(), latin1("connected connected"));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NNetworkListener, NPrivateNamespace::Network)
#include "tst_nnetworklistener.moc"
