// The stream buffer compared with its device, in blocks of 1 kB, and reading in small pieces from a sequential
// buffer with few and with many unread bytes. Sizes are megabytes.

#include <nbase/io/nqiodevicestreambuf.h>
#include <nbase/io/nsequentialbuffer.h>

#include <benchmark/benchmark.h>

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QTemporaryFile>

#include <functional>
#include <istream>
#include <ostream>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <vector>

namespace {

const qint64 Megabyte = 1000 * 1000;
const int BlockSize = 1024;
const int PieceSize = 512;

qint64 bytesOf(const benchmark::State& state)
{
    return state.range(0) * Megabyte;
}

void finish(benchmark::State& state, bool done)
{
    if (!done)
        state.SkipWithError("not all bytes went through");
    state.SetBytesProcessed(state.iterations() * bytesOf(state));
}

bool readAll(QIODevice& device, bool ours, qint64 size)
{
    char block[BlockSize];
    qint64 count = 0;
    if (!ours) {
        for (qint64 got = 0; (got = device.read(block, BlockSize)) > 0;)
            count += got;
        return count == size;
    }
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    do {
        stream.read(block, BlockSize);
        count += stream.gcount();
    } while (stream);
    return count == size;
}

bool writeAll(QIODevice& device, bool ours, qint64 size)
{
    char block[BlockSize] = "";
    if (!ours) {
        for (qint64 count = 0; count < size; count += BlockSize) {
            if (device.write(block, BlockSize) != BlockSize)
                return false;
        }
        return true;
    }
    NQIODeviceStreambuf buffer(&device);
    std::ostream stream(&buffer);
    for (qint64 count = 0; count < size; count += BlockSize)
        stream.write(block, BlockSize);
    return stream.good();
}

void readBuffer(benchmark::State& state, bool ours)
{
    QByteArray bytes(int(bytesOf(state)), 'x');
    QBuffer device(&bytes);
    device.open(QIODevice::ReadOnly);
    bool done = true;
    for (auto _ : state) {
        device.seek(0);
        done = readAll(device, ours, bytesOf(state));
    }
    finish(state, done);
}

void readFile(benchmark::State& state, bool ours)
{
    QTemporaryFile device(QString::fromLatin1("/dev/shm/bench_streams"));
    if (!device.open() || !device.resize(bytesOf(state)))
        abort();
    bool done = true;
    for (auto _ : state) {
        device.seek(0);
        done = readAll(device, ours, bytesOf(state));
    }
    finish(state, done);
}

void writeFile(benchmark::State& state, bool ours)
{
    QTemporaryFile device(QString::fromLatin1("/dev/shm/bench_streams"));
    if (!device.open())
        abort();
    bool done = true;
    for (auto _ : state) {
        device.seek(0);
        done = writeAll(device, ours, bytesOf(state));
    }
    finish(state, done);
}

// Reads @a size bytes in pieces while the buffer has this many unread bytes.
bool readPieces(NSequentialBuffer& buffer, qint64 size)
{
    char piece[PieceSize];
    qint64 count = 0;
    for (qint64 got = 0; count < size && (got = buffer.read(piece, PieceSize)) > 0;)
        count += got;
    return count == size;
}

// All unread bytes in pieces; the floor reads as many bytes from buffers with 1 MB.
void readBacklog(benchmark::State& state, bool ours)
{
    const qint64 backlog = ours ? bytesOf(state) : Megabyte;
    const QByteArray bytes(int(backlog), 'x');
    bool done = true;
    for (auto _ : state) {
        for (qint64 count = 0; count < bytesOf(state); count += backlog) {
            state.PauseTiming();
            NSequentialBuffer buffer(nullptr);
            buffer.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
            buffer.write(bytes);
            state.ResumeTiming();
            done = done && readPieces(buffer, backlog);
        }
    }
    finish(state, done);
}

// The limit set by memory: the same pieces copied from blocks that were filled before and are freed afterwards.
void copyBlocks(benchmark::State& state)
{
    const size_t blockSize = 16 * 1024 - 64;
    char piece[PieceSize];
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<char*> blocks;
        for (qint64 count = 0; count < bytesOf(state); count += qint64(blockSize)) {
            blocks.push_back(static_cast<char*>(malloc(blockSize)));
            memset(blocks.back(), 'x', blockSize);
        }
        state.ResumeTiming();
        for (char* block : blocks) {
            for (size_t begin = 0; begin < blockSize; begin += PieceSize) {
                memcpy(piece, block + begin, qMin(blockSize - begin, size_t(PieceSize)));
                benchmark::DoNotOptimize(piece);
            }
            free(block);
        }
    }
    finish(state, true);
}

void add(
    const std::string& name, const char* floor, int multiplier, int largest,
    void (*measure)(benchmark::State&, bool ours))
{
    for (int ours = 1; ours >= 0; --ours) {
        const std::string variant = name + '/' + (ours ? "ours" : floor);
        benchmark::RegisterBenchmark(variant.c_str(), [=](benchmark::State& state) { measure(state, ours != 0); })
            ->RangeMultiplier(multiplier)
            ->Range(1, largest)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    add("streambuf_read_buffer", "device_read", 10, 100, readBuffer);
    add("streambuf_read_file", "device_read", 10, 100, readFile);
    add("streambuf_write_file", "device_write", 10, 100, writeFile);
    add("sequential_buffer_backlog", "backlog_of_1_megabyte", 16, 256, readBacklog);
    benchmark::RegisterBenchmark("sequential_buffer_backlog/memory", copyBlocks)
        ->RangeMultiplier(16)
        ->Range(1, 256)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
