// Serial ports over pseudo-terminals.
//
// "throughput" is a transfer with reads of so many bytes, compared with a loop of read(2) and with Qt's own serial
// port. "backlog" reads a megabyte out of a port where so many kilobytes wait, in pieces of 512 bytes, compared
// with a backlog of 32 kB. "latency" is the time from a write(2) on the other end until all of so many listeners
// have the byte, compared with poll(2) and read(2). "open" opens and closes a port; the memory of an open one is
// printed with it.

#include "support/nallocatedbytes.h"

#include <nbase/serial/nseriallistener.h>
#include <nbase/serial/nserialport.h>

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QVector>
#include <QtSerialPort/QSerialPort>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

const qint64 Kilobyte = 1000;
const qint64 Megabyte = 1000 * Kilobyte;
const int PieceSize = 512;
const int Exchanges = 2000;

typedef std::chrono::steady_clock Clock;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The end of a pseudo-terminal that stands for the device.
class Master
{
public:
    Master()
        : m_descriptor(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        char name[64] = "";
        if (grantpt(number()) != 0 || unlockpt(number()) != 0 || ptsname_r(number(), name, sizeof(name)) != 0)
            abort();
        m_path = name;
    }

    int number() const { return m_descriptor.number(); }
    QString path() const { return QString::fromLatin1(m_path); }

    // The other end as a program would open it that uses no library.
    NFileDescriptor openSlave() const
    {
        NFileDescriptor slave(::open(m_path.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        termios settings;
        if (tcgetattr(slave.number(), &settings) != 0)
            abort();
        cfmakeraw(&settings);
        if (tcsetattr(slave.number(), TCSANOW, &settings) != 0)
            abort();
        return slave;
    }

private:
    NFileDescriptor m_descriptor;
    QByteArray m_path;
};

// Writes so many bytes to the master in another thread.
class Writer
{
public:
    Writer(const Master& master, qint64 size)
        : m_thread([&master, size]() {
            const std::string block(4096, 'x');
            for (qint64 rest = size; rest > 0;) {
                const ssize_t count =
                    ::write(master.number(), block.data(), size_t(qMin(rest, qint64(block.size()))));
                if (count <= 0)
                    abort();
                rest -= count;
            }
        })
    {
    }

    ~Writer() { m_thread.join(); }

private:
    std::thread m_thread;
};

// Reads whatever arrives, in pieces.
class Reader : public QObject
{
    Q_OBJECT

public:
    Reader(QIODevice* device, int pieceSize)
        : m_device(device)
        , m_piece(size_t(pieceSize))
        , m_rest(0)
    {
        connect(device, SIGNAL(readyRead()), SLOT(read()));
    }

    void run(qint64 size)
    {
        m_rest = size;
        m_loop.exec();
    }

private slots:
    void read()
    {
        qint64 count;
        while ((count = m_device->read(m_piece.data(), qint64(m_piece.size()))) > 0)
            m_rest -= count;
        if (m_rest <= 0)
            m_loop.quit();
    }

private:
    QIODevice* m_device;
    std::vector<char> m_piece;
    qint64 m_rest;
    QEventLoop m_loop;
};

std::unique_ptr<QIODevice> openedPort(const Master& master, bool ours)
{
    std::unique_ptr<QIODevice> port;
    if (ours)
        port.reset(new NSerialPort(master.path(), nullptr));
    else
        port.reset(new QSerialPort(master.path()));
    if (!port->open(QIODevice::ReadWrite))
        abort();
    return port;
}

// ---- throughput ----

// A small piece makes the floor slow.
qint64 transferSize(const benchmark::State& state)
{
    return state.range(0) == 1 ? Megabyte : 32 * Megabyte;
}

void transferThroughPort(benchmark::State& state, bool ours)
{
    const Master master;
    const std::unique_ptr<QIODevice> port = openedPort(master, ours);
    Reader reader(port.get(), int(state.range(0)));
    for (auto _ : state) {
        const Writer writer(master, transferSize(state));
        reader.run(transferSize(state));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * transferSize(state));
}

void transferThroughLoop(benchmark::State& state)
{
    const Master master;
    const NFileDescriptor slave = master.openSlave();
    std::vector<char> piece(size_t(state.range(0)));
    for (auto _ : state) {
        const Writer writer(master, transferSize(state));
        for (qint64 rest = transferSize(state); rest > 0;) {
            const ssize_t count = ::read(slave.number(), piece.data(), piece.size());
            if (count <= 0)
                abort();
            rest -= count;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * transferSize(state));
}

// ---- backlog ----

// The seconds for a megabyte when so many bytes wait each time.
double readBacklog(QIODevice& port, const Master& master, qint64 backlog)
{
    char piece[PieceSize];
    double seconds = 0;
    qint64 size = 0;
    for (; size < Megabyte; size += backlog) {
        {
            const Writer writer(master, backlog);
            while (port.bytesAvailable() < backlog)
                QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        const Clock::time_point begin = Clock::now();
        for (qint64 rest = backlog; rest > 0;) {
            rest -= port.read(piece, PieceSize);
            benchmark::DoNotOptimize(piece);
        }
        seconds += secondsSince(begin);
    }
    return seconds * double(Megabyte) / double(size);
}

void readBacklogOf(benchmark::State& state, qint64 kilobytes)
{
    const Master master;
    const std::unique_ptr<QIODevice> port = openedPort(master, true);
    for (auto _ : state)
        state.SetIterationTime(readBacklog(*port, master, kilobytes * Kilobyte));
}

// The limit set by memory: the same pieces copied from a block of that size.
void copyBacklogOf(benchmark::State& state, qint64 kilobytes)
{
    const qint64 backlog = kilobytes * Kilobyte;
    char piece[PieceSize];
    for (auto _ : state) {
        double seconds = 0;
        qint64 size = 0;
        for (; size < Megabyte; size += backlog) {
            const QByteArray bytes(int(backlog), 'x');
            const Clock::time_point begin = Clock::now();
            for (qint64 rest = backlog; rest > 0; rest -= PieceSize) {
                memcpy(piece, bytes.constData() + (backlog - rest), size_t(qMin(rest, qint64(PieceSize))));
                benchmark::DoNotOptimize(piece);
            }
            seconds += secondsSince(begin);
        }
        state.SetIterationTime(seconds * double(Megabyte) / double(size));
    }
}

// ---- latency ----

// Writes the next byte when all listeners have got one.
class Latency : public QObject
{
    Q_OBJECT

public:
    Latency(const Master& master, int count)
        : m_master(master)
        , m_port(master.path(), nullptr)
        , m_missing(0)
    {
        for (int i = 0; i < count; ++i) {
            m_listeners.push_back(std::unique_ptr<NSerialListener>(new NSerialListener(nullptr)));
            NSerialListener* const listener = m_listeners.back().get();
            connect(listener, SIGNAL(dataReceived(NSerialPort*, QByteArray)), SLOT(dataReceived()));
            if (i == 0)
                connect(listener, SIGNAL(listeningStarted(NSerialPort*)), &m_loop, SLOT(quit()));
            listener->startListeningOnSerialPort(&m_port);
        }
        m_loop.exec();
    }

    std::vector<double> measure()
    {
        m_seconds.clear();
        write();
        m_loop.exec();
        return m_seconds;
    }

private slots:
    void dataReceived()
    {
        if (--m_missing > 0)
            return;
        m_seconds.push_back(secondsSince(m_begin));
        if (m_seconds.size() == size_t(Exchanges))
            m_loop.quit();
        else
            write();
    }

private:
    void write()
    {
        m_missing = int(m_listeners.size());
        m_begin = Clock::now();
        if (::write(m_master.number(), "x", 1) != 1)
            abort();
    }

    const Master& m_master;
    NSerialPort m_port;
    std::vector<std::unique_ptr<NSerialListener>> m_listeners;
    QEventLoop m_loop;
    int m_missing;
    Clock::time_point m_begin;
    std::vector<double> m_seconds;
};

double quantile(std::vector<double> values, int percent)
{
    std::sort(values.begin(), values.end());
    return values[values.size() * size_t(percent) / 100];
}

void measureListeners(benchmark::State& state, int percent)
{
    const Master master;
    Latency latency(master, int(state.range(0)));
    for (auto _ : state)
        state.SetIterationTime(quantile(latency.measure(), percent));
}

void measurePoll(benchmark::State& state, int percent)
{
    const Master master;
    const NFileDescriptor slave = master.openSlave();
    for (auto _ : state) {
        std::vector<double> seconds;
        for (int i = 0; i < Exchanges; ++i) {
            const Clock::time_point begin = Clock::now();
            if (::write(master.number(), "x", 1) != 1)
                abort();
            pollfd event = {slave.number(), POLLIN, 0};
            char byte;
            if (::poll(&event, 1, -1) != 1 || ::read(slave.number(), &byte, 1) != 1)
                abort();
            seconds.push_back(secondsSince(begin));
        }
        state.SetIterationTime(quantile(seconds, percent));
    }
}

// ---- opening ----

void openPort(benchmark::State& state, bool ours)
{
    const int count = 100;
    std::vector<Master> masters(count);
    qint64 bytes = 0;
    for (auto _ : state) {
        const qint64 before = NTest::allocatedBytes();
        std::vector<std::unique_ptr<QIODevice>> ports;
        ports.reserve(count);
        for (const Master& master : masters)
            ports.push_back(openedPort(master, ours));
        bytes = NTest::allocatedBytes() - before;
    }
    state.counters["bytes_per_port"] = double(bytes) / count;
}

// Several runs, of which the median counts.
benchmark::internal::Benchmark* add(const std::string& name, const std::function<void(benchmark::State&)>& measure)
{
    return benchmark::RegisterBenchmark(name.c_str(), measure)->Repetitions(15)->ReportAggregatesOnly();
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    using std::placeholders::_1;

    for (const int size : {1, 512, 65536}) {
        add("serial_throughput/ours", std::bind(transferThroughPort, _1, true))
            ->Arg(size)
            ->Iterations(1)
            ->UseRealTime();
        add("serial_throughput/read", transferThroughLoop)->Arg(size)->Iterations(1)->UseRealTime();
        add("serial_throughput/qserialport", std::bind(transferThroughPort, _1, false))
            ->Arg(size)
            ->Iterations(1)
            ->UseRealTime();
    }
    for (const int kilobytes : {1, 32, 1000, 64000}) {
        add("serial_backlog/ours", std::bind(readBacklogOf, _1, kilobytes))
            ->Arg(kilobytes)
            ->Iterations(3)
            ->UseManualTime();
        add("serial_backlog/backlog_of_32_kilobytes", std::bind(readBacklogOf, _1, 32))
            ->Arg(kilobytes)
            ->Iterations(3)
            ->UseManualTime();
        add("serial_backlog/memory", std::bind(copyBacklogOf, _1, kilobytes))
            ->Arg(kilobytes)
            ->Iterations(3)
            ->UseManualTime();
    }
    for (const int percent : {50, 99}) {
        const std::string name = percent == 50 ? "serial_latency_median" : "serial_latency_99th_percentile";
        for (const int listeners : {1, 10}) {
            add(name + "/ours", std::bind(measureListeners, _1, percent))
                ->Arg(listeners)
                ->Iterations(1)
                ->UseManualTime();
            add(name + "/poll_and_read", std::bind(measurePoll, _1, percent))
                ->Arg(listeners)
                ->Iterations(1)
                ->UseManualTime();
        }
    }
    add("serial_open/ours", std::bind(openPort, _1, true))->Iterations(1);
    add("serial_open/qserialport", std::bind(openPort, _1, false))->Iterations(1);
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

#include "bench_serial.moc"
