// The client of the SWUpdate daemon, with sockets that take and send bytes and do nothing else.
//
// "swupdate_progress" receives so many progress records of 2400 bytes, compared with a loop of read(2) that
// decodes nothing. "swupdate_memory" and "swupdate_file" send an image of so many megabytes and wait until it has
// arrived, compared with a loop of write(2) with pieces of the same size, 4096 bytes, out of memory, and after
// read(2) from the file.

#include "controlsource.h"

#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include <nsystem/nfiledescriptor_p.h>
#include <nsystem/nsystemcall_p.h>

#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QObject>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <thread>

using namespace ControlSockets;

namespace {

const int ProgressSize = 2400;
const int ChunkSize = 4096;
const int RecordsPerWrite = 25;
const qint64 Megabyte = 1000000;

typedef std::chrono::steady_clock Clock;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Counts what a client reports.
class Receiver : public QObject
{
    Q_OBJECT

public:
    Receiver()
        : records(0)
        , isFinished(false)
    {
    }

    int records;
    bool isFinished;

public slots:
    void takeStep(int, int, const QString&, quint8) { ++records; }
    void takeEnd(bool success) { isFinished = success; }
};

// Sends records to the next connection.
class ProgressSource
{
public:
    explicit ProgressSource(const QString& path)
        : m_server(listenOn(path))
    {
        QByteArray record(ProgressSize, '\0');
        record[4] = 2;
        record[12] = 1;
        record[16] = 1;
        record[20] = 50;
        record.replace(24, 11, "payload.bin");
        for (int index = 0; index < RecordsPerWrite; ++index)
            m_records += record;
    }

    void send(int count)
    {
        const NFileDescriptor connection(::accept(m_server.number(), nullptr, nullptr));
        for (int sent = 0; sent < count; sent += RecordsPerWrite)
            require(NSystem::writeAll(connection.number(), m_records.constData(), size_t(m_records.size())));
    }

private:
    const NFileDescriptor m_server;
    QByteArray m_records;
};

void receiveRecords(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const int count = int(state.range(0));
    const QString path = directory.filePath(QString::fromLatin1("progress"));
    QByteArray name = QFile::encodeName(path);
    SOCKET_PROGRESS_PATH = name.data();
    ProgressSource source(path);
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        std::thread sender(&ProgressSource::send, &source, count);
        NSWUpdateProgressClient client(nullptr);
        Receiver receiver;
        QObject::connect(
            &client, SIGNAL(stepUpdate(int,int,QString,quint8)), &receiver,
                            SLOT(takeStep(int,int,QString,quint8)));
        while (receiver.records < count)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        state.SetIterationTime(secondsSince(begin));
        sender.join();
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void readRecords(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const int count = int(state.range(0));
    const QString path = directory.filePath(QString::fromLatin1("progress"));
    ProgressSource source(path);
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        std::thread sender(&ProgressSource::send, &source, count);
        const NFileDescriptor connection = connectTo(path);
        char record[ProgressSize];
        for (int index = 0; index < count; ++index)
            require(NSystem::readAll(connection.number(), record, sizeof(record)) == ProgressSize);
        state.SetIterationTime(secondsSince(begin));
        sender.join();
    }
    state.SetItemsProcessed(state.iterations() * count);
}

QByteArray request(char type)
{
    QByteArray record(ControlSize, '\0');
    record[4] = type;
    return record;
}

NFileDescriptor exchange(const QString& path, char type)
{
    NFileDescriptor connection = connectTo(path);
    const QByteArray record = request(type);
    char reply[ControlSize];
    require(NSystem::writeAll(connection.number(), record.constData(), ControlSize));
    require(NSystem::readAll(connection.number(), reply, sizeof(reply)) == ControlSize);
    return connection;
}

QString makeImage(const NTemporaryDirectory& directory, qint64 size)
{
    return directory.writeFile(QString::fromLatin1("image"), QByteArray(int(size), 'i'));
}

template <typename Start> void install(benchmark::State& state, const QString& path, Start start)
{
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        NSWUpdateInstaller installer(path, nullptr);
        Receiver receiver;
        QObject::connect(&installer, SIGNAL(finished(bool)), &receiver, SLOT(takeEnd(bool)));
        require(start(&installer));
        while (!receiver.isFinished)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        state.SetIterationTime(secondsSince(begin));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * Megabyte);
}

void sendMemory(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(QString::fromLatin1("control"));
    const ControlSource daemon(path);
    const QByteArray image(int(state.range(0) * Megabyte), 'i');
    install(state, path, [&](NSWUpdateInstaller* installer) {
        return installer->startImageInstallation(image.constData(), quint64(image.size()), QString());
    });
}

void writeMemory(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(QString::fromLatin1("control"));
    const ControlSource daemon(path);
    const QByteArray image(int(state.range(0) * Megabyte), 'i');
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        {
            const NFileDescriptor connection = exchange(path, 0);
            for (int offset = 0; offset < image.size(); offset += ChunkSize)
                require(NSystem::writeAll(
                    connection.number(), image.constData() + offset,
                    size_t(qMin(ChunkSize, image.size() - offset))));
        }
        exchange(path, 3);
        state.SetIterationTime(secondsSince(begin));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * Megabyte);
}

void sendFile(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(QString::fromLatin1("control"));
    const ControlSource daemon(path);
    const QString image = makeImage(directory, state.range(0) * Megabyte);
    install(state, path, [&](NSWUpdateInstaller* installer) {
        return installer->startImageInstallation(image, QString());
    });
}

void writeFile(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(QString::fromLatin1("control"));
    const ControlSource daemon(path);
    const QByteArray image = QFile::encodeName(makeImage(directory, state.range(0) * Megabyte));
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        {
            const NFileDescriptor connection = exchange(path, 0);
            const NFileDescriptor file = NSystem::open(image.constData(), O_RDONLY);
            char chunk[ChunkSize];
            ssize_t size = 0;
            while ((size = NSystem::read(file.number(), chunk, sizeof(chunk))) > 0)
                require(NSystem::writeAll(connection.number(), chunk, size_t(size)));
        }
        exchange(path, 3);
        state.SetIterationTime(secondsSince(begin));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * Megabyte);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    for (const int count : {1000, 10000, 100000}) {
        benchmark::RegisterBenchmark("swupdate_progress/ours", receiveRecords)->Arg(count)->UseManualTime();
        benchmark::RegisterBenchmark("swupdate_progress/read", readRecords)->Arg(count)->UseManualTime();
    }
    for (const int megabytes : {1, 10, 100}) {
        benchmark::RegisterBenchmark("swupdate_memory/ours", sendMemory)->Arg(megabytes)->UseManualTime();
        benchmark::RegisterBenchmark("swupdate_memory/write", writeMemory)->Arg(megabytes)->UseManualTime();
        benchmark::RegisterBenchmark("swupdate_file/ours", sendFile)->Arg(megabytes)->UseManualTime();
        benchmark::RegisterBenchmark("swupdate_file/write", writeFile)->Arg(megabytes)->UseManualTime();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}

#include "bench_swupdate.moc"
