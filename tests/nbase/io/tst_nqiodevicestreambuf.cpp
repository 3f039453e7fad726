#include <nbase/io/nqiodevicestreambuf.h>

#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <algorithm>
#include <istream>
#include <iterator>
#include <limits>
#include <ostream>
#include <string.h>
#include <string>
#include <vector>

namespace {

const int BufferSize = 1024;

typedef QList<int> Sizes;

// Accepts as many bytes of each write as its list says, then all; records the bytes and the sizes offered.
class RecordingDevice : public QIODevice
{
public:
    RecordingDevice()
        : readResult(0)
        , excess(0)
    {
        open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    }

    bool isSequential() const override { return true; }

    QByteArray written;
    QList<qint64> offered;
    QList<qint64> results; // of the next writes
    QList<qint64> asked;   // the sizes of all reads
    qint64 readResult;     // of every read; the bytes are 'r'
    qint64 excess;         // added to the counts that it reports for reads and writes

protected:
    qint64 readData(char* data, qint64 maximumSize) override
    {
        asked << maximumSize;
        const qint64 size = qMin(readResult, maximumSize);
        if (size > 0)
            memset(data, 'r', size_t(size));
        return size + excess;
    }

    qint64 writeData(const char* data, qint64 size) override
    {
        offered << size;
        const qint64 result = results.isEmpty() ? size : results.takeFirst();
        if (result > 0)
            written.append(data, int(result));
        return result + excess;
    }
};

// Returns its bytes in portions, of which a negative one is a failure, and then as requested.
class PortionDevice : public QIODevice
{
public:
    PortionDevice(const QByteArray& bytes, const Sizes& portions)
        : m_bytes(bytes)
        , m_portions(portions)
    {
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    }

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 maximumSize) override
    {
        const qint64 portion = m_portions.isEmpty() ? maximumSize : m_portions.takeFirst();
        const int size = int(qMin(qMin(portion, maximumSize), qint64(m_bytes.size())));
        if (size <= 0)
            return portion <= 0 ? portion : -1;
        memcpy(data, m_bytes.constData(), size_t(size));
        m_bytes.remove(0, size);
        return size;
    }

    qint64 writeData(const char*, qint64) override { return -1; }

private:
    QByteArray m_bytes;
    Sizes m_portions;
};

// Gives access to the protected operations and can remove the areas.
class OpenedStreambuf : public NQIODeviceStreambuf
{
public:
    explicit OpenedStreambuf(QIODevice* device)
        : NQIODeviceStreambuf(device)
    {
    }

    void removeGetArea() { setg(nullptr, nullptr, nullptr); }
    void removePutArea() { setp(nullptr, nullptr); }
    int getAreaSize() const { return int(egptr() - gptr()); }
    int putAreaSize() const { return int(epptr() - pbase()); }
    QByteArray pending() const { return QByteArray(pbase(), int(pptr() - pbase())); }

    using NQIODeviceStreambuf::overflow;
    using NQIODeviceStreambuf::showmanyc;
    using NQIODeviceStreambuf::sync;
    using NQIODeviceStreambuf::underflow;
    using NQIODeviceStreambuf::xsgetn;
    using NQIODeviceStreambuf::xsputn;
};

// All byte values, repeated to fill the buffers several times and the last one partly.
QByteArray allBytes()
{
    QByteArray bytes;
    for (int index = 0; index < 3 * BufferSize + 77; ++index)
        bytes.append(char(index * 7 + index / 256));
    return bytes;
}

std::string toStd(const QByteArray& bytes)
{
    return std::string(bytes.constData(), size_t(bytes.size()));
}

QByteArray readAllThroughStream(QIODevice& device)
{
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    return QByteArray(text.data(), int(text.size()));
}

// Writes in pieces of growing size, by single characters and with operator<<.
void writeInPieces(QIODevice& device, const QByteArray& bytes)
{
    NQIODeviceStreambuf buffer(&device);
    std::ostream stream(&buffer);
    int position = 0;
    for (int size = 1; position < bytes.size(); size = size * 3 + 1) {
        const int piece = qMin(size, bytes.size() - position);
        if (piece == 1)
            stream.put(bytes.at(position));
        else if (piece % 2)
            stream << toStd(bytes.mid(position, piece));
        else
            stream.write(bytes.constData() + position, piece);
        position += piece;
    }
    QVERIFY(stream.good());
    stream.flush();
    QVERIFY(stream.good());
}

// Reads what the peer of @a socket has written.
template <typename Socket> QByteArray receive(Socket& socket, int size)
{
    QByteArray received;
    while (received.size() < size && (socket.bytesAvailable() > 0 || socket.waitForReadyRead(30000)))
        received += readAllThroughStream(socket);
    return received;
}

} // namespace

Q_DECLARE_METATYPE(Sizes)

class tst_NQIODeviceStreambuf : public QObject
{
    Q_OBJECT

private slots:
    void areasAreEmptyAnd1024BytesAtFirst();
    void nothingIsWrittenBefore1024BytesArePending();
    void flushWritesPendingBytes();
    void destructionWritesPendingBytes();
    void flushWithNothingPendingFails();
    void destructionWithNothingPendingDoesNotWrite();
    void everyByteValueIsACharacter();

    void overflowMakesTheCharacterPending();
    void overflowOfEndOfFileOnlyFlushes();
    void overflowFailsWhenTheDeviceAcceptsNothing_data();
    void overflowFailsWhenTheDeviceAcceptsNothing();
    void partialWriteKeepsTheBeginning_data();
    void partialWriteKeepsTheBeginning();
    void partialWriteMovesTheBlockBehindThePendingBytes();
    void excessiveWriteCountIsLimited();

    void withoutPutAreaBytesGoDirectlyToTheDevice();
    void withoutGetAreaBytesComeDirectlyFromTheDevice();
    void underflowReadsUpTo1024Bytes();
    void underflowKeepsTheCurrentCharacter();
    void directReadsUseTheBlocksOfTheGetArea_data();
    void directReadsUseTheBlocksOfTheGetArea();
    void lastCharacterOfABlockCanBePutBack();
    void pieces_data();
    void pieces();
    void failedReadIsEndOfFile_data();
    void failedReadIsEndOfFile();
    void failureBetweenBlocksLosesNothing_data();
    void failureBetweenBlocksLosesNothing();
    void excessiveReadCountIsLimited();
    void availableBytesAreThoseOfTheDevice();
    void availableBytesAreLimitedToTheirType();

    void getlineSplitsLines();
    void formattedInputIsParsed();
    void copyReadsTheWholeInput();
    void seekingFailsAndLosesNothing();
    void streamContinuesWhenMoreHasArrived();
    void deviceClosedMeanwhileFails();

    void roundTripThroughFile();
    void roundTripThroughBuffer();
    void roundTripThroughProcess();
    void roundTripThroughLocalSocket();
    void roundTripThroughTcpSocket();
};

void tst_NQIODeviceStreambuf::areasAreEmptyAnd1024BytesAtFirst()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    QCOMPARE(buffer.getAreaSize(), 0);
    QCOMPARE(buffer.putAreaSize(), BufferSize);
    QCOMPARE(buffer.pending(), QByteArray());
}

void tst_NQIODeviceStreambuf::nothingIsWrittenBefore1024BytesArePending()
{
    RecordingDevice device;
    NQIODeviceStreambuf buffer(&device);
    std::ostream stream(&buffer);
    stream << std::string(BufferSize, 'x');
    QCOMPARE(device.written, QByteArray());
    stream << 'y';
    QCOMPARE(device.written, QByteArray(BufferSize, 'x'));
}

void tst_NQIODeviceStreambuf::flushWritesPendingBytes()
{
    RecordingDevice device;
    NQIODeviceStreambuf buffer(&device);
    std::ostream stream(&buffer);
    stream << "one" << std::flush;
    QCOMPARE(device.written, QByteArray("one"));
    stream << "two" << std::endl;
    QCOMPARE(device.written, QByteArray("onetwo\n"));
    QVERIFY(stream.good());
}

void tst_NQIODeviceStreambuf::destructionWritesPendingBytes()
{
    RecordingDevice device;
    {
        NQIODeviceStreambuf buffer(&device);
        std::ostream stream(&buffer);
        stream << "last words";
    }
    QCOMPARE(device.written, QByteArray("last words"));
    QVERIFY(device.isOpen());
}

void tst_NQIODeviceStreambuf::flushWithNothingPendingFails()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    QCOMPARE(buffer.sync(), -1);
    std::ostream stream(&buffer);
    stream.flush();
    QVERIFY(stream.bad());
}

void tst_NQIODeviceStreambuf::destructionWithNothingPendingDoesNotWrite()
{
    RecordingDevice device;
    {
        NQIODeviceStreambuf buffer(&device);
    }
    QCOMPARE(device.offered, QList<qint64>());
}

void tst_NQIODeviceStreambuf::everyByteValueIsACharacter()
{
    QByteArray bytes("\xff\x00\x80\x7f", 4);
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    OpenedStreambuf buffer(&device);
    QCOMPARE(buffer.sbumpc(), 0xff);
    QCOMPARE(buffer.sbumpc(), 0);
    QCOMPARE(buffer.sbumpc(), 0x80);
    buffer.removeGetArea();
    device.seek(0);
    QCOMPARE(buffer.underflow(), 0xff);
}

void tst_NQIODeviceStreambuf::overflowMakesTheCharacterPending()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    buffer.sputn("ab", 2);
    QCOMPARE(buffer.overflow(0xff), 0xff);
    QCOMPARE(device.written, QByteArray("ab"));
    QCOMPARE(buffer.pending(), QByteArray("\xff"));
}

void tst_NQIODeviceStreambuf::overflowOfEndOfFileOnlyFlushes()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    buffer.sputn("ab", 2);
    QCOMPARE(buffer.overflow(), EOF);
    QCOMPARE(device.written, QByteArray("ab"));
    QCOMPARE(buffer.pending(), QByteArray());
}

void tst_NQIODeviceStreambuf::overflowFailsWhenTheDeviceAcceptsNothing_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("nothing") << 0;
    QTest::newRow("failure") << -1;
}

void tst_NQIODeviceStreambuf::overflowFailsWhenTheDeviceAcceptsNothing()
{
    QFETCH(int, result);
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    buffer.sputn("ab", 2);
    device.results << result;
    QCOMPARE(buffer.overflow('c'), EOF);
    QCOMPARE(buffer.pending(), QByteArray("ab"));
    std::ostream stream(&buffer);
    device.results << result;
    stream.flush();
    QVERIFY(stream.bad());
    stream.clear();
    stream.flush();
    QVERIFY(stream.good());
    QCOMPARE(device.written, QByteArray("ab"));
}

void tst_NQIODeviceStreambuf::partialWriteKeepsTheBeginning_data()
{
    QTest::addColumn<int>("pending");
    QTest::addColumn<int>("taken");
    QTest::newRow("one of ten") << 10 << 1;
    QTest::newRow("four of ten") << 10 << 4;
    QTest::newRow("nine of ten") << 10 << 9;
    QTest::newRow("block ends at the buffer's end") << 1004 << 10;
    QTest::newRow("block ends behind the buffer") << 1004 << 11;
    QTest::newRow("block begins at the buffer's end") << 1004 << 20;
    QTest::newRow("block begins behind the buffer") << 1004 << 21;
    QTest::newRow("one of a full buffer") << BufferSize << 1;
    QTest::newRow("half of a full buffer") << BufferSize << 512;
    QTest::newRow("all but one of a full buffer") << BufferSize << BufferSize - 1;
}

void tst_NQIODeviceStreambuf::partialWriteKeepsTheBeginning()
{
    QFETCH(int, pending);
    QFETCH(int, taken);
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    const QByteArray bytes = allBytes().left(pending);
    buffer.sputn(bytes.constData(), bytes.size());
    device.results << taken;
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(device.written, bytes.left(taken));
    QCOMPARE(buffer.pending(), bytes.left(pending - taken));
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(device.written, bytes.left(taken) + bytes.left(pending - taken));
    QCOMPARE(buffer.sync(), -1);
}

void tst_NQIODeviceStreambuf::partialWriteMovesTheBlockBehindThePendingBytes()
{
    class Spread : public OpenedStreambuf
    {
    public:
        explicit Spread(QIODevice* device)
            : OpenedStreambuf(device)
        {
        }
        void forget(int count) { pbump(-count); }
        QByteArray all() const { return QByteArray(pbase(), int(epptr() - pbase())); }
    };
    RecordingDevice device;
    Spread buffer(&device);
    buffer.sputn("0123456789abcdef", 16);
    buffer.forget(12); // "0123" is pending, "456789abcdef" behind it
    device.results << 3;
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(buffer.pending(), QByteArray("0"));
    QCOMPARE(buffer.all().left(16), QByteArray("0123789789abcdef"));
}

void tst_NQIODeviceStreambuf::excessiveWriteCountIsLimited()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    device.excess = 5000;
    buffer.sputn("abc", 3);
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(buffer.pending(), QByteArray());
    QCOMPARE(buffer.overflow('d'), EOF);
    const QByteArray bytes = allBytes();
    QCOMPARE(buffer.sputn(bytes.constData(), bytes.size()), std::streamsize(bytes.size()));
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(device.written, "abc" + bytes);
    buffer.removePutArea();
    QCOMPARE(buffer.xsputn("efg", 3), std::streamsize(3));
}

void tst_NQIODeviceStreambuf::withoutPutAreaBytesGoDirectlyToTheDevice()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    buffer.removePutArea();
    QCOMPARE(buffer.sync(), 0);
    QCOMPARE(buffer.overflow('a'), int('a'));
    QCOMPARE(buffer.overflow(), EOF);
    QCOMPARE(int(buffer.xsputn("bcd", 3)), 3);
    device.results << 2;
    QCOMPARE(int(buffer.xsputn("efg", 3)), 2);
    QCOMPARE(device.written, QByteArray("abcdef"));
    device.results << 0 << -1 << -1;
    QCOMPARE(buffer.overflow('h'), EOF);
    QCOMPARE(buffer.overflow('h'), EOF);
    QCOMPARE(int(buffer.xsputn("h", 1)), 0);
    QCOMPARE(device.written, QByteArray("abcdef"));
}

void tst_NQIODeviceStreambuf::withoutGetAreaBytesComeDirectlyFromTheDevice()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    buffer.removeGetArea();
    device.readResult = 3;
    char bytes[8] = "";
    QCOMPARE(buffer.underflow(), int('r'));
    QCOMPARE(int(buffer.xsgetn(bytes, 8)), 3);
    QCOMPARE(bytes, "rrr");
    device.readResult = 0;
    QCOMPARE(buffer.underflow(), EOF);
    device.readResult = -1;
    QCOMPARE(buffer.underflow(), EOF);
    QCOMPARE(int(buffer.xsgetn(bytes, 8)), 0);
}

void tst_NQIODeviceStreambuf::underflowReadsUpTo1024Bytes()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    device.readResult = 5000;
    QCOMPARE(buffer.underflow(), int('r'));
    QCOMPARE(buffer.getAreaSize(), BufferSize);
}

void tst_NQIODeviceStreambuf::underflowKeepsTheCurrentCharacter()
{
    QByteArray bytes("ab");
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    OpenedStreambuf buffer(&device);
    QCOMPARE(buffer.underflow(), int('a'));
    QCOMPARE(buffer.underflow(), int('a'));
    QCOMPARE(buffer.sbumpc(), int('a'));
    QCOMPARE(buffer.underflow(), int('b'));
}

void tst_NQIODeviceStreambuf::directReadsUseTheBlocksOfTheGetArea_data()
{
    QTest::addColumn<qint64>("readResult");
    QTest::addColumn<int>("reads");
    QTest::addColumn<int>("rest");
    QTest::newRow("whole blocks") << qint64(BufferSize) << 3 << 3 * BufferSize - 2500;
    QTest::newRow("more than asked") << qint64(2 * BufferSize) << 3 << 3 * BufferSize - 2500;
    QTest::newRow("short blocks") << qint64(1000) << 3 << 500;
}

void tst_NQIODeviceStreambuf::directReadsUseTheBlocksOfTheGetArea()
{
    QFETCH(qint64, readResult);
    QFETCH(int, reads);
    QFETCH(int, rest);
    RecordingDevice device;
    device.readResult = readResult;
    OpenedStreambuf buffer(&device);
    QByteArray bytes(2500, '\0');
    QCOMPARE(buffer.xsgetn(bytes.data(), bytes.size()), std::streamsize(2500));
    QCOMPARE(bytes, QByteArray(2500, 'r'));
    QList<qint64> expected;
    for (int read = 0; read < reads; ++read)
        expected << BufferSize;
    QCOMPARE(device.asked, expected);
    QCOMPARE(buffer.getAreaSize(), rest);
}

void tst_NQIODeviceStreambuf::lastCharacterOfABlockCanBePutBack()
{
    QByteArray bytes = allBytes();
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    std::vector<char> block(2 * BufferSize);
    QVERIFY(!stream.read(block.data(), 2 * BufferSize).fail());
    QVERIFY(!stream.unget().fail());
    QCOMPARE(char(stream.get()), bytes.at(2 * BufferSize - 1));
    QCOMPARE(char(stream.get()), bytes.at(2 * BufferSize));
}

void tst_NQIODeviceStreambuf::pieces_data()
{
    QTest::addColumn<int>("size");
    const int sizes[] = {1, 7, 1000, 1023, 1024, 1025, 2048, 3000, 100000};
    for (int size : sizes)
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NQIODeviceStreambuf::pieces()
{
    QFETCH(int, size);
    QByteArray bytes = allBytes();
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QByteArray read;
    std::vector<char> piece(size_t(size), '\0');
    do {
        stream.read(piece.data(), size);
        read.append(piece.data(), int(stream.gcount()));
        // A character in between puts the blocks at unaligned positions.
        const int character = stream.get();
        if (character != EOF)
            read.append(char(character));
    } while (stream);
    QCOMPARE(read, bytes);
}

void tst_NQIODeviceStreambuf::failedReadIsEndOfFile_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("nothing") << 0;
    QTest::newRow("failure") << -1;
}

void tst_NQIODeviceStreambuf::failedReadIsEndOfFile()
{
    QFETCH(int, result);
    RecordingDevice device;
    device.readResult = 2;
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QCOMPARE(stream.get(), int('r'));
    QCOMPARE(stream.get(), int('r'));
    device.readResult = result;
    QCOMPARE(stream.get(), EOF);
    QVERIFY(stream.eof());
    QVERIFY(!stream.bad());
}

void tst_NQIODeviceStreambuf::failureBetweenBlocksLosesNothing_data()
{
    QTest::addColumn<Sizes>("portions");
    QTest::addColumn<int>("count");
    QTest::newRow("second fails") << (Sizes() << BufferSize << -1) << BufferSize;
    QTest::newRow("second is empty") << (Sizes() << BufferSize << 0) << BufferSize;
    QTest::newRow("second is short") << (Sizes() << BufferSize << 100) << 5000;
    QTest::newRow("second is short, third fails") << (Sizes() << BufferSize << 100 << -1) << BufferSize + 100;
    QTest::newRow("third fails") << (Sizes() << BufferSize << BufferSize << -1) << 2 * BufferSize;
    QTest::newRow("third is empty") << (Sizes() << BufferSize << BufferSize << 0) << 2 * BufferSize;
    QTest::newRow("third is short") << (Sizes() << BufferSize << BufferSize << 1) << 5000;
    QTest::newRow("last is short, then failure")
        << (Sizes() << BufferSize << BufferSize << BufferSize << BufferSize << 7 << -1) << 4 * BufferSize + 7;
}

void tst_NQIODeviceStreambuf::failureBetweenBlocksLosesNothing()
{
    QFETCH(Sizes, portions);
    QFETCH(int, count);
    const QByteArray bytes = allBytes() + allBytes();
    PortionDevice device(bytes, portions);
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QByteArray block(5000, '\0');
    stream.read(block.data(), block.size());
    QCOMPARE(stream.gcount(), std::streamsize(count));
    QCOMPARE(stream.eof(), count < block.size());
    QCOMPARE(stream.fail(), count < block.size());
    QVERIFY(!stream.bad());
    QCOMPARE(block.left(count), bytes.left(count));
    stream.clear();
    QByteArray rest(bytes.size() - count, '\0');
    stream.read(rest.data(), rest.size());
    QVERIFY(stream.good());
    QCOMPARE(rest, bytes.mid(count));
    QCOMPARE(stream.get(), EOF);
}

void tst_NQIODeviceStreambuf::excessiveReadCountIsLimited()
{
    RecordingDevice device;
    OpenedStreambuf buffer(&device);
    device.readResult = BufferSize;
    device.excess = 5000;
    QCOMPARE(buffer.underflow(), int('r'));
    QCOMPARE(buffer.getAreaSize(), BufferSize);
    QByteArray bytes(3 * BufferSize, '\0');
    QCOMPARE(buffer.xsgetn(bytes.data(), 2 * BufferSize), std::streamsize(2 * BufferSize));
    QCOMPARE(bytes, QByteArray(2 * BufferSize, 'r') + QByteArray(BufferSize, '\0'));
    QCOMPARE(buffer.sungetc(), int('r'));
    buffer.removeGetArea();
    QCOMPARE(buffer.xsgetn(bytes.data(), 100), std::streamsize(100));
}

void tst_NQIODeviceStreambuf::availableBytesAreThoseOfTheDevice()
{
    QByteArray bytes(BufferSize + 10, 'x');
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QCOMPARE(int(buffer.in_avail()), BufferSize + 10);
    stream.get();
    QCOMPARE(int(buffer.in_avail()), BufferSize - 1);
    stream.ignore(BufferSize - 1);
    QCOMPARE(int(buffer.in_avail()), 10);
    char rest[16];
    QCOMPARE(int(stream.readsome(rest, 16)), 10);
    stream.ignore(100);
    QCOMPARE(int(buffer.in_avail()), -1);
}

void tst_NQIODeviceStreambuf::availableBytesAreLimitedToTheirType()
{
    class LargeDevice : public RecordingDevice
    {
    public:
        bool atEnd() const override { return false; }
        qint64 bytesAvailable() const override { return Q_INT64_C(5000000000); }
    };
    LargeDevice device;
    NQIODeviceStreambuf buffer(&device);
    const qint64 largest = std::numeric_limits<std::streamsize>::max();
    QCOMPARE(qint64(buffer.in_avail()), qMin(Q_INT64_C(5000000000), largest));
}

void tst_NQIODeviceStreambuf::getlineSplitsLines()
{
    const QByteArray longLine(2 * BufferSize + 3, 'l');
    QByteArray bytes = "first\n\n" + longLine + "\nwithout end";
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QList<QByteArray> lines;
    for (std::string line; std::getline(stream, line);)
        lines << QByteArray(line.data(), int(line.size()));
    QCOMPARE(
        lines, QList<QByteArray>() << "first"
                                   << "" << longLine << "without end");
}

void tst_NQIODeviceStreambuf::formattedInputIsParsed()
{
    QByteArray bytes("17 -3.5 word 0x1f");
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    int whole = 0;
    double fraction = 0;
    std::string word;
    int hexadecimal = 0;
    stream >> whole >> fraction >> word >> std::hex >> hexadecimal;
    QVERIFY(!stream.fail());
    QCOMPARE(whole, 17);
    QCOMPARE(fraction, -3.5);
    QCOMPARE(word, std::string("word"));
    QCOMPARE(hexadecimal, 0x1f);
}

void tst_NQIODeviceStreambuf::copyReadsTheWholeInput()
{
    QByteArray bytes = allBytes();
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    RecordingDevice target;
    {
        NQIODeviceStreambuf from(&device);
        NQIODeviceStreambuf to(&target);
        std::copy(
            std::istreambuf_iterator<char>(&from), std::istreambuf_iterator<char>(),
            std::ostreambuf_iterator<char>(&to));
    }
    QCOMPARE(target.written, bytes);
    device.seek(0);
    target.written.clear();
    {
        NQIODeviceStreambuf from(&device);
        NQIODeviceStreambuf to(&target);
        std::ostream stream(&to);
        stream << &from;
        QVERIFY(stream.good());
    }
    QCOMPARE(target.written, bytes);
}

void tst_NQIODeviceStreambuf::seekingFailsAndLosesNothing()
{
    QByteArray bytes("abcdef");
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QCOMPARE(stream.get(), int('a'));
    stream.seekg(0);
    QVERIFY(stream.fail());
    stream.clear();
    QVERIFY(stream.tellg() == std::streampos(-1));
    stream.clear();
    stream.seekg(2, std::ios_base::cur);
    QVERIFY(stream.fail());
    stream.clear();
    QCOMPARE(stream.get(), int('b'));
    stream.unget();
    QCOMPARE(stream.get(), int('b'));
}

void tst_NQIODeviceStreambuf::streamContinuesWhenMoreHasArrived()
{
    RecordingDevice device;
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    QCOMPARE(stream.get(), EOF);
    device.readResult = 1;
    stream.clear();
    QCOMPARE(stream.get(), int('r'));
}

void tst_NQIODeviceStreambuf::deviceClosedMeanwhileFails()
{
    QByteArray bytes(BufferSize + 1, 'x');
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadWrite));
    NQIODeviceStreambuf buffer(&device);
    std::iostream stream(&buffer);
    stream.get();
    stream << "pending";
    device.close();
    stream.ignore(BufferSize - 1);
    QVERIFY(stream.good());
    QCOMPARE(stream.get(), EOF);
    stream.clear();
    stream.flush();
    QVERIFY(stream.bad());
}

void tst_NQIODeviceStreambuf::roundTripThroughFile()
{
    const NTemporaryDirectory directory;
    QFile file(directory.filePath(latin1("bytes")));
    QVERIFY(file.open(QIODevice::ReadWrite));
    writeInPieces(file, allBytes());
    QVERIFY(file.seek(0));
    QCOMPARE(readAllThroughStream(file), allBytes());
}

void tst_NQIODeviceStreambuf::roundTripThroughBuffer()
{
    QBuffer device;
    QVERIFY(device.open(QIODevice::ReadWrite));
    writeInPieces(device, allBytes());
    QCOMPARE(device.data(), allBytes());
    device.seek(0);
    QCOMPARE(readAllThroughStream(device), allBytes());
}

void tst_NQIODeviceStreambuf::roundTripThroughProcess()
{
    QProcess process;
    process.start(latin1("cat"), QStringList());
    QVERIFY(process.waitForStarted());
    writeInPieces(process, allBytes());
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished());
    QCOMPARE(readAllThroughStream(process), allBytes());
}

void tst_NQIODeviceStreambuf::roundTripThroughLocalSocket()
{
    const NTemporaryDirectory directory;
    QLocalServer server;
    QVERIFY(server.listen(directory.filePath(latin1("socket"))));
    QLocalSocket client;
    client.connectToServer(server.fullServerName());
    QVERIFY(client.waitForConnected());
    QVERIFY(server.waitForNewConnection(30000));
    QLocalSocket* const peer = server.nextPendingConnection();
    writeInPieces(client, allBytes());
    while (client.bytesToWrite() > 0)
        QVERIFY(client.waitForBytesWritten());
    QCOMPARE(receive(*peer, allBytes().size()), allBytes());
}

void tst_NQIODeviceStreambuf::roundTripThroughTcpSocket()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress(QHostAddress::LocalHost)));
    QTcpSocket client;
    client.connectToHost(QHostAddress(QHostAddress::LocalHost), server.serverPort());
    QVERIFY(client.waitForConnected());
    QVERIFY(server.waitForNewConnection(30000));
    QTcpSocket* const peer = server.nextPendingConnection();
    writeInPieces(client, allBytes());
    while (client.bytesToWrite() > 0)
        QVERIFY(client.waitForBytesWritten());
    QCOMPARE(receive(*peer, allBytes().size()), allBytes());
}

QTEST_MAIN(tst_NQIODeviceStreambuf)
#include "tst_nqiodevicestreambuf.moc"
