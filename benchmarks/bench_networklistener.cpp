// What arrives on a port, received by so many listeners. "udp" is a burst of datagrams of 64 bytes, compared with
// a bare QUdpSocket; "tcp" are blocks of 64 kB of a connection, compared with a bare QTcpSocket. Only the
// receiving is timed, not the sending. "udp_50000" are 50,000 datagrams per second, sent by another thread: the
// time is what the receiving thread uses of a processor for each, "lost" the percentage that did not arrive.
// "udp_flood" and "tcp_flood" are requests by datagrams on one port that are answered while another port is
// flooded, compared with the same without the flood: the time is the mean from request to answer, "slowest_ms" the
// longest.

#include <nbase/network/nnetworklistener.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

const int DatagramSize = 64;
const int Burst = 100; // datagrams, which fit into the default receive buffer
const int BlockSize = 64 * 1024;
const int DatagramsPerMillisecond = 50;
const int PacedMilliseconds = 2000;
const int Requests = 100;

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
    void answerDatagram(QUdpSocket* socket, const QHostAddress& address, quint16 port, const QByteArray& datagram)
    {
        socket->writeDatagram(datagram, address, port);
    }
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

    /** Every datagram is answered with the same. */
    void answer()
    {
        for (const std::unique_ptr<NNetworkListener>& listener : m_listeners)
            QObject::connect(
                listener.get(), SIGNAL(udpDatagramReceived(QUdpSocket*, QHostAddress, quint16, QByteArray)),
                                       &receiver,
                                       SLOT(answerDatagram(QUdpSocket*, QHostAddress, quint16, QByteArray)));
    }

    quint16 start(bool (*startOn)(NNetworkListener*, unsigned short), unsigned short firstPort = 20000)
    {
        unsigned short port = firstPort;
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

// A socket of another thread than Qt's, connected to a port of the loopback address.
class PlainSocket
{
public:
    PlainSocket(int type, quint16 port)
        : m_descriptor(::socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (::connect(m_descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0)
            abort();
    }
    ~PlainSocket() { ::close(m_descriptor); }

    bool send(const std::string& data) { return ::send(m_descriptor, data.data(), data.size(), MSG_NOSIGNAL) > 0; }

    bool sendIfPossible(const std::string& data)
    {
        return ::send(m_descriptor, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
    }

    bool receive(int milliseconds)
    {
        struct pollfd waiting = {m_descriptor, POLLIN, 0};
        char buffer[DatagramSize];
        return ::poll(&waiting, 1, milliseconds) > 0 && ::recv(m_descriptor, buffer, sizeof(buffer), 0) > 0;
    }

private:
    PlainSocket(const PlainSocket&);
    PlainSocket& operator=(const PlainSocket&);

    const int m_descriptor;
};

double clockTime(clockid_t clock)
{
    struct timespec time;
    ::clock_gettime(clock, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

double threadTime()
{
    struct rusage usage;
    ::getrusage(RUSAGE_THREAD, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs the event loop until the thread has set @a isOver, and once more for what has arrived before.
void serveUntil(const std::atomic<bool>& isOver)
{
    while (!isOver)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    QCoreApplication::processEvents();
}

void wakeEventLoop()
{
    QCoreApplication::eventDispatcher()->wakeUp();
}

void receivePaced(benchmark::State& state, quint16 port, const qint64& received, int listeners)
{
    double sent = 0;
    const qint64 before = received;
    for (auto _ : state) {
        std::atomic<bool> isOver(false);
        std::thread sender([&]() {
            PlainSocket socket(SOCK_DGRAM, port);
            const std::string datagram(DatagramSize, 'x');
            const Clock::time_point begin = Clock::now();
            for (int i = 0; i < PacedMilliseconds; ++i) {
                std::this_thread::sleep_until(begin + std::chrono::milliseconds(i));
                for (int j = 0; j < DatagramsPerMillisecond; ++j)
                    socket.send(datagram);
            }
            isOver = true;
            wakeEventLoop();
        });
        const double used = threadTime();
        serveUntil(isOver);
        state.SetIterationTime((threadTime() - used) / (PacedMilliseconds * DatagramsPerMillisecond));
        sender.join();
        sent += PacedMilliseconds * DatagramsPerMillisecond;
    }
    state.counters["lost"] = 100 * (1 - double(received - before) / listeners / sent);
}

void listenPaced(benchmark::State& state)
{
    Listeners listeners(int(state.range(0)));
    const quint16 port = listeners.start(startOnUdpPort);
    receivePaced(state, port, listeners.receiver.datagrams, int(state.range(0)));
}

void readBarePaced(benchmark::State& state)
{
    Receiver receiver;
    QUdpSocket socket;
    if (!socket.bind(QHostAddress(QHostAddress::Any), 0))
        abort();
    QObject::connect(&socket, SIGNAL(readyRead()), &receiver, SLOT(readDatagrams()));
    receivePaced(state, socket.localPort(), receiver.datagrams, 1);
}

// Requests on one port while another one receives as much as it can, or nothing.
void answerDuringFlood(benchmark::State& state, int floodType, bool isFlooded)
{
    Listeners flooded(int(state.range(0)));
    const quint16 floodedPort = flooded.start(floodType == SOCK_DGRAM ? startOnUdpPort : startOnTcpPort);
    Listeners asked(1);
    const quint16 askedPort = asked.start(startOnUdpPort, floodedPort + 1);
    asked.answer();
    clockid_t serverClock;
    if (::pthread_getcpuclockid(::pthread_self(), &serverClock) != 0)
        abort();
    double slowest = 0;
    double mostUsed = 0;
    int unanswered = 0;
    for (auto _ : state) {
        std::atomic<bool> isOver(false);
        double sum = 0;
        std::thread flood([&]() {
            if (!isFlooded)
                return;
            PlainSocket socket(floodType, floodedPort);
            const std::string data(floodType == SOCK_DGRAM ? DatagramSize : BlockSize, 'x');
            while (!isOver) {
                if (!socket.sendIfPossible(data))
                    std::this_thread::yield();
            }
        });
        std::thread client([&]() {
            PlainSocket socket(SOCK_DGRAM, askedPort);
            const std::string request(DatagramSize, 'x');
            for (int i = 0; i < Requests; ++i) {
                const double usedBefore = clockTime(serverClock);
                const Clock::time_point begin = Clock::now();
                const bool isAnswered = socket.send(request) && socket.receive(1000);
                const double time = std::chrono::duration<double>(Clock::now() - begin).count();
                unanswered += isAnswered ? 0 : 1;
                sum += time;
                slowest = std::max(slowest, time);
                mostUsed = std::max(mostUsed, clockTime(serverClock) - usedBefore);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            isOver = true;
            wakeEventLoop();
        });
        serveUntil(isOver);
        client.join();
        flood.join();
        state.SetIterationTime(sum / Requests);
    }
    state.counters["slowest_ms"] = slowest * 1000;
    state.counters["slowest_cpu_ms"] = mostUsed * 1000;
    state.counters["unanswered"] = unanswered;
}

} // namespace

int main(int argc, char** argv)
{
    // Otherwise the layout of the heap decides whether each block is taken from the kernel anew, which costs more
    // than to receive it.
    ::mallopt(M_TRIM_THRESHOLD, 64 * 1024 * 1024);
    ::mallopt(M_TOP_PAD, 4 * 1024 * 1024);
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
        benchmark::RegisterBenchmark("networklistener_udp_50000/ours", listenPaced)
            ->Arg(listeners)
            ->UseManualTime()
            ->Iterations(1);
        benchmark::RegisterBenchmark("networklistener_udp_50000/qudpsocket", readBarePaced)
            ->Arg(listeners)
            ->UseManualTime()
            ->Iterations(1);
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            const std::string name =
                type == SOCK_DGRAM ? "networklistener_udp_flood/" : "networklistener_tcp_flood/";
            benchmark::RegisterBenchmark((name + "ours").c_str(), answerDuringFlood, type, true)
                ->Arg(listeners)
                ->UseManualTime()
                ->Iterations(1);
            benchmark::RegisterBenchmark((name + "no_flood").c_str(), answerDuringFlood, type, false)
                ->Arg(listeners)
                ->UseManualTime()
                ->Iterations(1);
        }
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
