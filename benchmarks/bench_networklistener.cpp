// What arrives on a port, received by so many listeners. "udp" is a burst of datagrams of 64 bytes, compared with
// a bare QUdpSocket; "tcp" are blocks of 64 kB of a connection, compared with a bare QTcpSocket. Only the
// receiving is timed, not the sending.

#include <nbase/network/nnetworklistener.h>

#include <QtCore/QCoreApplication>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

const int DatagramSize = 64;
const int Burst = 100; // datagrams, which fit into the default receive buffer
const int BlockSize = 64 * 1024;

typedef std::chrono::steady_clock Clock;

// Counts what arrives.
class Receiver : public QObject
{
    Q_OBJECT

public:
    Receiver()
        : datagrams(0)
        , bytes(0)
    {
    }

    qint64 datagrams;
    qint64 bytes;

public slots:
    void readDatagrams()
    {
        QUdpSocket* const socket = qobject_cast<QUdpSocket*>(sender());
        while (socket->hasPendingDatagrams()) {
            QByteArray datagram;
            datagram.resize(int(socket->pendingDatagramSize()));
            QHostAddress address;
            quint16 port = 0;
            socket->readDatagram(datagram.data(), datagram.size(), &address, &port);
            ++datagrams;
        }
    }

    void readData() { bytes += qobject_cast<QTcpSocket*>(sender())->readAll().size(); }
    void takeDatagram(QUdpSocket*, const QHostAddress&, quint16, const QByteArray&) { ++datagrams; }
    void takeData(QTcpSocket*, const QByteArray& data) { bytes += data.size(); }
};

// Listeners that count what they hear, on a port that was free.
class Listeners
{
public:
    explicit Listeners(int count)
    {
        for (int i = 0; i < count; ++i) {
            m_listeners.push_back(std::unique_ptr<NNetworkListener>(new NNetworkListener(nullptr)));
            NNetworkListener* const listener = m_listeners.back().get();
            QObject::connect(
                listener, SIGNAL(udpDatagramReceived(QUdpSocket*, QHostAddress, quint16, QByteArray)), &receiver,
                                 SLOT(takeDatagram(QUdpSocket*, QHostAddress, quint16, QByteArray)));
            QObject::connect(
                listener, SIGNAL(tcpDataReceived(QTcpSocket*, QByteArray)), &receiver,
                                 SLOT(takeData(QTcpSocket*, QByteArray)));
        }
    }

    quint16 start(bool (*startOn)(NNetworkListener*, unsigned short))
    {
        unsigned short port = 20000;
        while (!startOn(m_listeners.front().get(), port)) {
            if (++port == 0)
                abort();
        }
        for (const std::unique_ptr<NNetworkListener>& listener : m_listeners) {
            if (!startOn(listener.get(), port))
                abort();
        }
        return port;
    }

    Receiver receiver;

private:
    std::vector<std::unique_ptr<NNetworkListener>> m_listeners;
};

bool startOnUdpPort(NNetworkListener* listener, unsigned short port)
{
    QString error;
    return listener->startListeningOnUdpPort(port, error);
}

bool startOnTcpPort(NNetworkListener* listener, unsigned short port)
{
    QString error;
    QSet<QTcpSocket*> sockets;
    return listener->startListeningOnTcpPort(port, sockets, error);
}

void receiveBursts(benchmark::State& state, quint16 port, const qint64& received, int listeners)
{
    QUdpSocket sender;
    const QByteArray datagram(DatagramSize, 'x');
    qint64 expected = received;
    for (auto _ : state) {
        for (int i = 0; i < Burst; ++i) {
            if (sender.writeDatagram(datagram, QHostAddress(QHostAddress::LocalHost), port) != DatagramSize)
                abort();
        }
        expected += qint64(Burst) * listeners;
        const Clock::time_point begin = Clock::now();
        while (received < expected)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
    state.SetItemsProcessed(state.iterations() * Burst);
}

void receiveBlocks(benchmark::State& state, quint16 port, const qint64& received, int listeners)
{
    QTcpSocket sender;
    sender.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    if (!sender.waitForConnected())
        abort();
    const QByteArray block(BlockSize, 'x');
    qint64 expected = received;
    for (auto _ : state) {
        sender.write(block);
        sender.flush();
        expected += qint64(BlockSize) * listeners;
        const Clock::time_point begin = Clock::now();
        while (received < expected)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
    state.SetBytesProcessed(state.iterations() * BlockSize);
}

void listenOnUdpPort(benchmark::State& state)
{
    Listeners listeners(int(state.range(0)));
    const quint16 port = listeners.start(startOnUdpPort);
    receiveBursts(state, port, listeners.receiver.datagrams, int(state.range(0)));
}

void readBareUdpSocket(benchmark::State& state)
{
    Receiver receiver;
    QUdpSocket socket;
    if (!socket.bind(QHostAddress(QHostAddress::Any), 0))
        abort();
    QObject::connect(&socket, SIGNAL(readyRead()), &receiver, SLOT(readDatagrams()));
    receiveBursts(state, socket.localPort(), receiver.datagrams, 1);
}

void listenOnTcpPort(benchmark::State& state)
{
    Listeners listeners(int(state.range(0)));
    const quint16 port = listeners.start(startOnTcpPort);
    receiveBlocks(state, port, listeners.receiver.bytes, int(state.range(0)));
}

// The socket of a connection to a server, without the listeners.
class BareServer : public QTcpServer
{
    Q_OBJECT

public:
    BareServer()
    {
        if (!listen(QHostAddress(QHostAddress::Any), 0))
            abort();
        connect(this, SIGNAL(newConnection()), SLOT(accept()));
    }

    Receiver receiver;

private slots:
    void accept() { QObject::connect(nextPendingConnection(), SIGNAL(readyRead()), &receiver, SLOT(readData())); }
};

void readBareTcpSocket(benchmark::State& state)
{
    BareServer server;
    receiveBlocks(state, server.serverPort(), server.receiver.bytes, 1);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    for (const int listeners : {1, 10, 100}) {
        benchmark::RegisterBenchmark("networklistener_udp/ours", listenOnUdpPort)->Arg(listeners)->UseManualTime();
        benchmark::RegisterBenchmark("networklistener_udp/qudpsocket", readBareUdpSocket)
            ->Arg(listeners)
            ->UseManualTime();
        benchmark::RegisterBenchmark("networklistener_tcp/ours", listenOnTcpPort)->Arg(listeners)->UseManualTime();
        benchmark::RegisterBenchmark("networklistener_tcp/qtcpsocket", readBareTcpSocket)
            ->Arg(listeners)
            ->UseManualTime();
    }
    // What else the machine does changes during the run, so that the repetitions alternate.
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments(argv, argv + argc);
    arguments.push_back(interleaving);
    int count = int(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}

#include "bench_networklistener.moc"
