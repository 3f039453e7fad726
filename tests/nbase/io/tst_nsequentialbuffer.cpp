#include <nbase/io/nsequentialbuffer.h>

#include "support/nchildprocess.h"

#include <nsystem/nlatin1_p.h>

#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <sys/resource.h>

namespace {

// Gives access to the protected operations below QIODevice's buffering.
class OpenedBuffer : public NSequentialBuffer
{
public:
    OpenedBuffer()
        : NSequentialBuffer(nullptr)
    {
    }

    using NSequentialBuffer::readData;
    using NSequentialBuffer::setErrorString;
    using NSequentialBuffer::writeData;
};

// Reads everything on each readyRead().
class Consumer : public QObject
{
    Q_OBJECT

public:
    explicit Consumer(NSequentialBuffer& buffer)
        : m_buffer(buffer)
    {
        connect(&buffer, SIGNAL(readyRead()), SLOT(read()));
    }

    QByteArray bytes;

private slots:
    void read() { bytes += m_buffer.readAll(); }

private:
    NSequentialBuffer& m_buffer;
};

} // namespace

class tst_NSequentialBuffer : public QObject
{
    Q_OBJECT

private slots:
    void isSequential();
    void isClosedAtFirst();
    void openingWithoutAModeDoesNothing();
    void openBufferCannotBeReopened();
    void openingWithoutEffectClearsTheError();
    void openModesOpenTheWriteChannel_data();
    void openModesOpenTheWriteChannel();

    void bytesComeOutInOrderAndOnce();
    void emptyOpenBufferReturnsZero();
    void endIsReportedAfterTheRestWasRead();
    void readingNothingGivesNothing();
    void writingNotifiesTheReader();
    void readerMayReadInItsNotification();
    void endOfWritingIsReportedOnce();
    void writingAfterTheEndFails();
    void writingToAReadOnlyBufferFails();
    void closingDiscardsEverything();
    void availableBytesCountBothBuffers();
    void lineIsSeenInEitherBuffer();
    void bufferDoesNotReachTwoGibibytes();
    void piecesOfManySizesAreReadUnchanged_data();
    void piecesOfManySizesAreReadUnchanged();
    void withoutMemoryNothingIsAcceptedAndNothingLost();
    void memoryOfReadBytesIsReleased();
};

void tst_NSequentialBuffer::isSequential()
{
    const NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.isSequential());
}

void tst_NSequentialBuffer::isClosedAtFirst()
{
    OpenedBuffer buffer;
    QVERIFY(!buffer.isOpen());
    char byte = 0;
    QCOMPARE(buffer.readData(&byte, 1), qint64(-1));
    QCOMPARE(buffer.writeData("x", 1), qint64(-1));
    QCOMPARE(buffer.bytesAvailable(), qint64(0));
}

void tst_NSequentialBuffer::openingWithoutAModeDoesNothing()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(!buffer.open(QIODevice::NotOpen));
    QVERIFY(!buffer.isOpen());
}

void tst_NSequentialBuffer::openBufferCannotBeReopened()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    QVERIFY(buffer.openMode() == QIODevice::ReadOnly);
    QCOMPARE(buffer.read(1), QByteArray());
    QVERIFY(buffer.atEnd());
    QVERIFY(buffer.open(QIODevice::NotOpen));
    QVERIFY(buffer.isOpen());
}

void tst_NSequentialBuffer::openingWithoutEffectClearsTheError()
{
    OpenedBuffer buffer;
    const QString noError = buffer.errorString();
    const QString error = latin1("an error");
    buffer.setErrorString(error);
    QCOMPARE(buffer.errorString(), error);
    buffer.open(QIODevice::NotOpen);
    QCOMPARE(buffer.errorString(), noError);

    QVERIFY(buffer.open(QIODevice::ReadOnly));
    buffer.setErrorString(error);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    QCOMPARE(buffer.errorString(), noError);
}

void tst_NSequentialBuffer::openModesOpenTheWriteChannel_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("emptyRead");
    QTest::newRow("read") << int(QIODevice::ReadOnly) << -1;
    QTest::newRow("write") << int(QIODevice::WriteOnly) << 0;
    QTest::newRow("both") << int(QIODevice::ReadWrite) << 0;
    QTest::newRow("text") << int(QIODevice::ReadWrite | QIODevice::Text) << 0;
}

void tst_NSequentialBuffer::openModesOpenTheWriteChannel()
{
    QFETCH(int, mode);
    QFETCH(int, emptyRead);
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::OpenMode(mode)));
    char byte = 0;
    QCOMPARE(int(buffer.readData(&byte, 1)), emptyRead);
}

void tst_NSequentialBuffer::bytesComeOutInOrderAndOnce()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    QCOMPARE(buffer.write("one"), qint64(3));
    QCOMPARE(buffer.write("two"), qint64(3));
    QCOMPARE(buffer.read(4), QByteArray("onet"));
    buffer.write("three");
    QCOMPARE(buffer.readAll(), QByteArray("wothree"));
    QCOMPARE(buffer.readAll(), QByteArray());
}

void tst_NSequentialBuffer::emptyOpenBufferReturnsZero()
{
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    char byte = 0;
    QCOMPARE(buffer.readData(&byte, 1), qint64(0));
    QCOMPARE(buffer.read(&byte, 1), qint64(0));
    buffer.closeWriteChannel();
    QCOMPARE(buffer.readData(&byte, 1), qint64(-1));
    QCOMPARE(buffer.read(&byte, 1), qint64(-1));
}

void tst_NSequentialBuffer::endIsReportedAfterTheRestWasRead()
{
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("abc");
    buffer.closeWriteChannel();
    char bytes[4] = "";
    QCOMPARE(buffer.readData(bytes, 2), qint64(2));
    QCOMPARE(buffer.readData(bytes + 2, 2), qint64(1));
    QCOMPARE(QByteArray(bytes), QByteArray("abc"));
    QCOMPARE(buffer.readData(bytes, 1), qint64(-1));
}

void tst_NSequentialBuffer::readingNothingGivesNothing()
{
    OpenedBuffer buffer;
    QCOMPARE(buffer.readData(nullptr, 0), qint64(0));
    QCOMPARE(buffer.readData(nullptr, -1), qint64(0));
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("abc");
    QCOMPARE(buffer.readData(nullptr, 0), qint64(0));
    QCOMPARE(buffer.readData(nullptr, -1), qint64(0));
    buffer.closeWriteChannel();
    QCOMPARE(buffer.readData(nullptr, 0), qint64(0));
    QCOMPARE(buffer.readAll(), QByteArray("abc"));
}

void tst_NSequentialBuffer::writingNotifiesTheReader()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    QSignalSpy ready(&buffer, SIGNAL(readyRead()));
    buffer.write("a");
    buffer.write("b");
    QCOMPARE(ready.count(), 2);
}

void tst_NSequentialBuffer::readerMayReadInItsNotification()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    Consumer consumer(buffer);
    QCOMPARE(buffer.write("abc"), qint64(3));
    QCOMPARE(buffer.write("def"), qint64(3));
    QCOMPARE(consumer.bytes, QByteArray("abcdef"));
    QCOMPARE(buffer.bytesAvailable(), qint64(0));
}

void tst_NSequentialBuffer::endOfWritingIsReportedOnce()
{
    NSequentialBuffer buffer(nullptr);
    QSignalSpy finished(&buffer, SIGNAL(readChannelFinished()));
    buffer.closeWriteChannel();
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    buffer.closeWriteChannel();
    QCOMPARE(finished.count(), 0);
    buffer.close();
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.closeWriteChannel();
    buffer.closeWriteChannel();
    QCOMPARE(finished.count(), 1);
}

void tst_NSequentialBuffer::writingAfterTheEndFails()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("a");
    buffer.closeWriteChannel();
    QSignalSpy ready(&buffer, SIGNAL(readyRead()));
    QCOMPARE(buffer.write("b"), qint64(-1));
    QCOMPARE(ready.count(), 0);
    QCOMPARE(buffer.readAll(), QByteArray("a"));
}

void tst_NSequentialBuffer::writingToAReadOnlyBufferFails()
{
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QCOMPARE(buffer.write("x"), qint64(-1));
    QCOMPARE(buffer.writeData("x", 1), qint64(-1));
}

void tst_NSequentialBuffer::closingDiscardsEverything()
{
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("abcdef");
    QCOMPARE(buffer.read(1), QByteArray("a"));
    buffer.close();
    QVERIFY(!buffer.isOpen());
    QCOMPARE(buffer.bytesAvailable(), qint64(0));
    QVERIFY(!buffer.canReadLine());
    QCOMPARE(buffer.writeData("x", 1), qint64(-1));
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("new");
    QCOMPARE(buffer.readAll(), QByteArray("new"));
}

void tst_NSequentialBuffer::availableBytesCountBothBuffers()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write(QByteArray(100000, 'x'));
    QCOMPARE(buffer.bytesAvailable(), qint64(100000));
    buffer.read(1); // QIODevice reads more than that into its own buffer
    QCOMPARE(buffer.bytesAvailable(), qint64(99999));
    buffer.ungetChar('y');
    QCOMPARE(buffer.bytesAvailable(), qint64(100000));
}

void tst_NSequentialBuffer::lineIsSeenInEitherBuffer()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    QVERIFY(!buffer.canReadLine());
    buffer.write("no line");
    QVERIFY(!buffer.canReadLine());
    buffer.write("\nrest");
    QVERIFY(buffer.canReadLine());
    QCOMPARE(buffer.read(1), QByteArray("n"));
    QVERIFY(buffer.canReadLine());
    QCOMPARE(buffer.readLine(), QByteArray("o line\n"));
    QVERIFY(!buffer.canReadLine());
}

void tst_NSequentialBuffer::bufferDoesNotReachTwoGibibytes()
{
    OpenedBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.write("abc");
    QSignalSpy ready(&buffer, SIGNAL(readyRead()));
    char byte = 0;
    const qint64 twoGibibytes = qint64(1) << 31;
    QCOMPARE(buffer.writeData(&byte, twoGibibytes - 3), qint64(-1));
    QCOMPARE(buffer.writeData(&byte, twoGibibytes), qint64(-1));
    QCOMPARE(buffer.writeData(&byte, 2 * twoGibibytes), qint64(-1));
    QCOMPARE(ready.count(), 0);
    QCOMPARE(buffer.readAll(), QByteArray("abc"));
}

void tst_NSequentialBuffer::piecesOfManySizesAreReadUnchanged_data()
{
    QTest::addColumn<int>("largestPiece");
    QTest::newRow("small") << 100;
    QTest::newRow("large") << 100000;
}

void tst_NSequentialBuffer::piecesOfManySizesAreReadUnchanged()
{
    QFETCH(int, largestPiece);
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    QByteArray pattern(largestPiece + 251, '\0');
    for (int index = 0; index < pattern.size(); ++index)
        pattern[index] = char(index % 251);
    qint64 written = 0;
    qint64 read = 0;
    unsigned random = 1;
    for (int turn = 0; turn < 20000; ++turn) {
        random = random * 1103515245u + 12345u;
        const int size = int((random >> 8) % unsigned(largestPiece));
        QCOMPARE(buffer.write(pattern.mid(int(written % 251), size)), qint64(size));
        written += size;
        // At first less is read than is written, then more.
        const QByteArray out = buffer.read((turn / 200) % 2 ? largestPiece * 9 / 10 : largestPiece / 5);
        QVERIFY(out == pattern.mid(int(read % 251), out.size()));
        read += out.size();
        QCOMPARE(buffer.bytesAvailable(), written - read);
    }
    while (read < written) {
        const QByteArray out = buffer.read(largestPiece);
        QVERIFY(!out.isEmpty() && out == pattern.mid(int(read % 251), out.size()));
        read += out.size();
    }
    QCOMPARE(buffer.bytesAvailable(), qint64(0));
}

// A sanitizer needs more address space than any limit allows. With one, the buffer's own limit ends the writing.
void tst_NSequentialBuffer::withoutMemoryNothingIsAcceptedAndNothingLost()
{
    const int status = NTest::runInChild([]() {
        const int size = 50000001; // the last block of a write has room for the beginning of the next
        const QByteArray bytes(size, 'x');
        QByteArray out(size, '\0');
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        if (!NTest::leaveMemory(400))
            return 1;
#endif
        OpenedBuffer buffer;
        buffer.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
        qint64 written = 0;
        while (buffer.writeData(bytes.constData(), size) == size)
            written += size;
        if (written == 0 || buffer.bytesAvailable() != written)
            return 2;
        for (qint64 read = 0; read < written; read += size) {
            if (buffer.readData(out.data(), size) != size || out != bytes)
                return 3;
            out.fill('\0');
        }
        return buffer.bytesAvailable() == 0 && buffer.writeData(bytes.constData(), size) == size ? 0 : 4;
    });
    QCOMPARE(status, 0);
}

// Ten times the number of unread bytes passes through the buffer.
void tst_NSequentialBuffer::memoryOfReadBytesIsReleased()
{
    const int status = NTest::runInChild([]() {
        const QByteArray bytes(1 << 20, 'x');
        NSequentialBuffer buffer(nullptr);
        buffer.open(QIODevice::ReadWrite | QIODevice::Unbuffered);
        struct rusage before, after;
        for (int written = 0; written < 64; ++written)
            buffer.write(bytes);
        ::getrusage(RUSAGE_SELF, &before);
        for (int written = 0; written < 640; ++written) {
            if (buffer.read(bytes.size()) != bytes || buffer.write(bytes) != bytes.size())
                return 1;
        }
        ::getrusage(RUSAGE_SELF, &after);
        return after.ru_maxrss - before.ru_maxrss < 8 * 1024 ? 0 : 2;
    });
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    QVERIFY(status == 0 || status == 2); // a sanitizer keeps freed memory for a while
#else
    QCOMPARE(status, 0);
#endif
}

QTEST_MAIN(tst_NSequentialBuffer)
#include "tst_nsequentialbuffer.moc"
