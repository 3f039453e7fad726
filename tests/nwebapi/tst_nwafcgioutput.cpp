#include <nsystem/nfiledescriptor_p.h>
#include <nwebapi/nwafcgioutput_p.h>

#include <QtTest/QtTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace NwaFcgiProtocol;

namespace {

const int BlockSize = 64 * 1024;
const int LargeSize = 32 * 1024;

QByteArray patternOf(int size)
{
    QByteArray data(size, '\0');
    for (int index = 0; index < size; ++index)
        data[index] = char(index * 31 + index / 251);
    return data;
}

QByteArray recordOf(const QByteArray& content)
{
    QByteArray record;
    appendStream(record, Stdout, 7, content.constData(), content.size());
    return record;
}

} // namespace

class tst_NwaFcgiOutput : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void newQueueIsEmpty();
    void smallPiecesAreSentTogetherByFlush();
    void fullBlockIsSentAtOnce();
    void largeRecordIsSentAtOnceAfterWhatIsQueued();
    void smallRecordIsQueued();
    void recordsOfAnySizeArriveInTheirOrder_data();
    void recordsOfAnySizeArriveInTheirOrder();
    void peerThatTakesNothingBlocksTheQueue_data();
    void peerThatTakesNothingBlocksTheQueue();
    void queueThatWasBlockedAcceptsLargeRecordsAgain();
    void bytesSentAreCounted();
    void socketThatFailsEmptiesTheQueue_data();
    void socketThatFailsEmptiesTheQueue();

private:
    int append(const QByteArray& content);
    void makeSendBufferSmall();
    QByteArray received();

    NFileDescriptor m_socket;
    NFileDescriptor m_peer;
    QScopedPointer<NwaFcgiOutput> m_output;
};

void tst_NwaFcgiOutput::init()
{
    int sockets[2];
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets), 0);
    m_socket.reset(sockets[0]);
    m_peer.reset(sockets[1]);
    m_output.reset(new NwaFcgiOutput(m_socket.number()));
}

void tst_NwaFcgiOutput::cleanup()
{
    m_output.reset();
    m_socket.reset();
    m_peer.reset();
}

int tst_NwaFcgiOutput::append(const QByteArray& content)
{
    return m_output->appendRecord(Stdout, 7, content.constData(), content.size());
}

// Makes the kernel take a few kilobytes at a time, so that records are cut anywhere.
void tst_NwaFcgiOutput::makeSendBufferSmall()
{
    const int size = 1;
    QCOMPARE(::setsockopt(m_socket.number(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
}

// Takes what the kernel holds for the peer.
QByteArray tst_NwaFcgiOutput::received()
{
    QByteArray bytes;
    char buffer[1009];
    ssize_t size = 0;
    while ((size = ::recv(m_peer.number(), buffer, sizeof(buffer), 0)) > 0)
        bytes.append(buffer, int(size));
    return bytes;
}

void tst_NwaFcgiOutput::newQueueIsEmpty()
{
    QVERIFY(m_output->isEmpty());
    QCOMPARE(m_output->size(), 0);
    QVERIFY(!m_output->isBlocked());
    QVERIFY(!m_output->isBroken());
    QCOMPARE(m_output->flush(), 0);
}

void tst_NwaFcgiOutput::smallPiecesAreSentTogetherByFlush()
{
    QCOMPARE(m_output->append("one, "), 0);
    QCOMPARE(m_output->append("two"), 0);
    QCOMPARE(m_output->size(), 8);
    QVERIFY(!m_output->isBlocked());
    QCOMPARE(received(), QByteArray());
    QCOMPARE(m_output->flush(), 8);
    QVERIFY(m_output->isEmpty());
    QCOMPARE(received(), QByteArray("one, two"));
}

void tst_NwaFcgiOutput::fullBlockIsSentAtOnce()
{
    const QByteArray data = patternOf(BlockSize + 1);
    QCOMPARE(m_output->append(data.left(BlockSize)), 0);
    QCOMPARE(m_output->size(), BlockSize);
    QCOMPARE(m_output->append(data.mid(BlockSize)), BlockSize);
    QCOMPARE(m_output->size(), 1);
    QVERIFY(!m_output->isBlocked());
    QVERIFY(received() == data.left(BlockSize));
}

void tst_NwaFcgiOutput::largeRecordIsSentAtOnceAfterWhatIsQueued()
{
    const QByteArray content = patternOf(LargeSize);
    QCOMPARE(append("queued"), 0);
    QCOMPARE(append(content), HeaderSize + 6 + HeaderSize + LargeSize);
    QVERIFY(m_output->isEmpty());
    QVERIFY(received() == recordOf("queued") + recordOf(content));
}

void tst_NwaFcgiOutput::smallRecordIsQueued()
{
    QCOMPARE(append(patternOf(LargeSize - 1)), 0);
    QCOMPARE(m_output->size(), HeaderSize + LargeSize - 1);
    QCOMPARE(received(), QByteArray());
}

void tst_NwaFcgiOutput::recordsOfAnySizeArriveInTheirOrder_data()
{
    QTest::addColumn<bool>("takesAtOnce");
    QTest::newRow("peer that takes everything at once") << true;
    QTest::newRow("peer that takes nothing until the end") << false;
}

void tst_NwaFcgiOutput::recordsOfAnySizeArriveInTheirOrder()
{
    QFETCH(bool, takesAtOnce);
    makeSendBufferSmall();
    const int sizes[] = {1,     2047, 32767, 32768, 65535, 7,    60000, 65528, 65527, 1,
                         32769, 100,  65535, 65535, 300,   5000, 32768, 65535, 2,     40000};
    QByteArray expected;
    QByteArray bytes;
    for (int round = 0; round < 5; ++round) {
        for (int size : sizes) {
            const QByteArray content = patternOf(size);
            append(content);
            expected += recordOf(content);
            if (!takesAtOnce)
                continue;
            bytes += received();
            QCOMPARE(m_output->size() + bytes.size(), expected.size());
        }
    }
    while (!m_output->isEmpty()) {
        m_output->flush();
        bytes += received();
    }
    QVERIFY(bytes == expected);
}

void tst_NwaFcgiOutput::peerThatTakesNothingBlocksTheQueue_data()
{
    QTest::addColumn<int>("recordSize");
    QTest::newRow("small records") << 1000;
    QTest::newRow("large records") << 65535;
}

void tst_NwaFcgiOutput::peerThatTakesNothingBlocksTheQueue()
{
    QFETCH(int, recordSize);
    const QByteArray content = patternOf(recordSize);
    QByteArray expected;
    while (!m_output->isBlocked()) {
        append(content);
        expected += recordOf(content);
    }
    QVERIFY(!m_output->isEmpty());
    // While it is blocked the kernel is not asked again, only by flush().
    const QByteArray first = received();
    QCOMPARE(append(content), 0);
    expected += recordOf(content);
    QCOMPARE(received(), QByteArray());
    QVERIFY(m_output->isBlocked());
    QCOMPARE(m_output->size(), expected.size() - first.size());
    const int size = m_output->size();
    QCOMPARE(m_output->flush(), size);
    QVERIFY(!m_output->isBlocked());
    QVERIFY(first + received() == expected);
}

void tst_NwaFcgiOutput::queueThatWasBlockedAcceptsLargeRecordsAgain()
{
    const QByteArray content = patternOf(65535);
    while (!m_output->isBlocked())
        append(content);
    while (!m_output->isEmpty()) {
        received();
        m_output->flush();
    }
    received();
    QCOMPARE(append(content), HeaderSize + content.size());
    QVERIFY(received() == recordOf(content));
}

void tst_NwaFcgiOutput::bytesSentAreCounted()
{
    makeSendBufferSmall();
    int appended = 0;
    int sent = 0;
    int taken = 0;
    for (int size = 0; size < 60000; size += 1111) {
        sent += append(patternOf(size));
        appended += HeaderSize + size;
        QCOMPARE(m_output->size(), appended - sent);
        if (size % 2 == 0)
            sent += m_output->flush();
        QCOMPARE(m_output->size(), appended - sent);
        taken += received().size();
        QCOMPARE(taken, sent);
    }
}

void tst_NwaFcgiOutput::socketThatFailsEmptiesTheQueue_data()
{
    QTest::addColumn<int>("operation");
    QTest::newRow("flush") << 0;
    QTest::newRow("block that becomes full") << 1;
    QTest::newRow("large record") << 2;
}

void tst_NwaFcgiOutput::socketThatFailsEmptiesTheQueue()
{
    QFETCH(int, operation);
    m_output->append("queued");
    m_peer.reset();
    QVERIFY(!m_output->isBroken());
    if (operation == 0)
        QCOMPARE(m_output->flush(), 0);
    else if (operation == 1)
        QCOMPARE(m_output->append(patternOf(2 * BlockSize)), 0);
    else
        QCOMPARE(append(patternOf(LargeSize)), 0);
    QVERIFY(m_output->isBroken());
    QVERIFY(m_output->isEmpty());
    QVERIFY(!m_output->isBlocked());
    // Nothing is queued any more.
    QCOMPARE(append(patternOf(LargeSize)), 0);
    QCOMPARE(append("small"), 0);
    QCOMPARE(m_output->flush(), 0);
    QVERIFY(m_output->isEmpty());
    QVERIFY(m_output->isBroken());
}

QTEST_APPLESS_MAIN(tst_NwaFcgiOutput)
#include "tst_nwafcgioutput.moc"
