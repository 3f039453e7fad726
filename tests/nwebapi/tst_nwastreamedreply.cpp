#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwareplysource.h>
#include <nwebapi/nwastreamedreply.h>

#include "nfcgiclient.h"
#include "nfcgitestservice.h"
#include "nmemorychannel.h"
#include "support/nlighttpd.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

namespace {

const char Header[] = "Content-Type: text/plain\r\n\r\n";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

NwaHttpContentHeader plainTextHeader()
{
    return NwaHttpContentHeader(text("text/plain"));
}

NwaHttpContentHeader eventStreamHeader()
{
    return NwaHttpContentHeader(text("text/event-stream"));
}

// A reply of so many pieces of one size.
class PiecesSource : public NwaReplySource
{
public:
    PiecesSource(int count, int size, char character = 'x')
        : askCount(0)
        , m_count(count)
        , m_piece(size, character)
    {
    }

    State appendPiece(QByteArray& body) override
    {
        ++askCount;
        body += m_piece;
        return --m_count > 0 ? MoreFollows : AtEnd;
    }

    int askCount;

private:
    int m_count;
    const QByteArray m_piece;
};

// Events that happen when the test says so.
class EventSource : public NwaReplySource
{
public:
    EventSource()
        : askCount(0)
        , m_hasEnded(false)
    {
    }

    void send(const QByteArray& event)
    {
        m_pending += event;
        emit available();
    }

    void end()
    {
        m_hasEnded = true;
        emit available();
    }

    State appendPiece(QByteArray& body) override
    {
        ++askCount;
        body += m_pending;
        m_pending.clear();
        return m_hasEnded ? AtEnd : NothingNow;
    }

    int askCount;

private:
    QByteArray m_pending;
    bool m_hasEnded;
};

// Announces the next piece while it produces one.
class EagerSource : public NwaReplySource
{
public:
    EagerSource()
        : m_count(0)
    {
    }

    State appendPiece(QByteArray& body) override
    {
        body += char('0' + m_count);
        emit available();
        return ++m_count < 5 ? NothingNow : AtEnd;
    }

private:
    int m_count;
};

// Counts the writes.
class CountingChannel : public NMemoryChannel
{
public:
    CountingChannel()
        : writeCount(0)
    {
    }

    bool write(Stream stream, const char* data, int size) override
    {
        ++writeCount;
        return NMemoryChannel::write(stream, data, size);
    }

    void tellTaken(NwaFcgiRequest* request) { tellReplyTaken(request); }

    int writeCount;
};

// Something else that the event loop serves in turn with a reply.
class Neighbour : public QObject
{
    Q_OBJECT

public:
    explicit Neighbour(const NMemoryChannel& channel)
        : m_channel(channel)
        , m_written(channel.output.size())
        , m_mostWritten(0)
    {
    }

    /** The most that was written between two turns. */
    int mostWritten() const { return m_mostWritten; }

public slots:
    void takeTurn()
    {
        m_mostWritten = qMax(m_mostWritten, m_channel.output.size() - m_written);
        m_written = m_channel.output.size();
        if (m_channel.finishCount == 0)
            QMetaObject::invokeMethod(this, "takeTurn", Qt::QueuedConnection);
    }

private:
    const NMemoryChannel& m_channel;
    int m_written;
    int m_mostWritten;
};

const int ManyPieces = 3000;
const int PieceSize = 1000;

} // namespace

class tst_NwaStreamedReply : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void piecesBecomeTheReply_data();
    void piecesBecomeTheReply();
    void smallPiecesAreCollected();
    void headIsAnsweredWithoutAskingTheSource();
    void emptyReplyIsTheHeader();

    void slowClientHoldsFewPieces();
    void longReplyGivesOthersTheirTurn();
    void replyThatWasTakenWaitsForItsTurn();

    void whatIsThereIsSentAtOnce();
    void sourceMayHaveNothingForALongTime();
    void eventsThatComeTogetherAreSentTogether();
    void sourceIsNotAskedBeforeTheClientHasTakenItsPieces();
    void sourceMayAnnounceAPieceWhileItMakesOne();

    void abortedReplyEnds();
    void abortedReplyThatWaitsForItsSourceEnds();
    void requestThatIsAbortedAlreadyEnds();
    void replyEndsWithItsParent();
    void replyMayBeDeleted();
    void sourceMayAnnounceAPieceOfAReplyThatHasEnded();

    void requestsFollowOnTheSameConnection();
    void clientThatGoesAwayEndsTheReply();
    void waitingReplyOutlivesTheStallTimeout();
    void eventsGoThroughTheWebServer();

private:
    NwaFcgiRequest* newRequest(NwaFcgiChannel* channel, const QByteArray& method = "GET");
    NwaStreamedReply* startEvents(NwaFcgiRequest* request);

    QScopedPointer<QObject> m_parent;
    QPointer<NwaFcgiRequest> m_request;
    QPointer<EventSource> m_events;
};

void tst_NwaStreamedReply::init()
{
    m_parent.reset(new QObject);
}

NwaFcgiRequest* tst_NwaStreamedReply::newRequest(NwaFcgiChannel* channel, const QByteArray& method)
{
    m_request = new NwaFcgiRequest(channel, nVariables("REQUEST_METHOD", method));
    return m_request;
}

NwaStreamedReply* tst_NwaStreamedReply::startEvents(NwaFcgiRequest* request)
{
    m_events = new EventSource;
    return NwaStreamedReply::start(request, eventStreamHeader(), m_events, m_parent.data());
}

void tst_NwaStreamedReply::piecesBecomeTheReply_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("size");
    QTest::newRow("one") << 1 << 1;
    QTest::newRow("one empty") << 1 << 0;
    QTest::newRow("many empty") << 100 << 0;
    QTest::newRow("small") << 10 << 10;
    QTest::newRow("as large as a write") << 3 << 32 * 1024;
    QTest::newRow("larger than a record") << 3 << 100 * 1000;
    QTest::newRow("many") << ManyPieces << PieceSize;
}

void tst_NwaStreamedReply::piecesBecomeTheReply()
{
    QFETCH(int, count);
    QFETCH(int, size);
    NMemoryChannel channel;
    NwaStreamedReply::start(
        newRequest(&channel), plainTextHeader(), new PiecesSource(count, size), m_parent.data());
    NTRY_COMPARE(channel.finishCount, 1);
    QCOMPARE(channel.header(), QByteArray(Header));
    QVERIFY(channel.body() == QByteArray(count * size, 'x'));
    QVERIFY(!m_request);
    NTRY_VERIFY(m_parent->children().isEmpty());
}

void tst_NwaStreamedReply::smallPiecesAreCollected()
{
    CountingChannel channel;
    NwaStreamedReply::start(
        newRequest(&channel), plainTextHeader(), new PiecesSource(ManyPieces, 10), m_parent.data());
    QCOMPARE(channel.finishCount, 1);
    QVERIFY2(channel.writeCount <= 2, QByteArray::number(channel.writeCount).constData());
}

void tst_NwaStreamedReply::headIsAnsweredWithoutAskingTheSource()
{
    NMemoryChannel channel;
    QPointer<PiecesSource> source(new PiecesSource(1, 1));
    NwaStreamedReply::start(newRequest(&channel, "HEAD"), plainTextHeader(), source, m_parent.data());
    QCOMPARE(channel.output, QByteArray(Header));
    QCOMPARE(channel.finishCount, 1);
    QCOMPARE(source->askCount, 0);
    NTRY_VERIFY(!source);
}

void tst_NwaStreamedReply::emptyReplyIsTheHeader()
{
    NMemoryChannel channel;
    startEvents(newRequest(&channel));
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
    QCOMPARE(channel.output, QByteArray("Content-Type: text/event-stream\r\n\r\n"));
}

void tst_NwaStreamedReply::slowClientHoldsFewPieces()
{
    NSlowChannel channel;
    PiecesSource* const source = new PiecesSource(ManyPieces, PieceSize);
    NwaStreamedReply::start(newRequest(&channel), plainTextHeader(), source, m_parent.data());
    int takings = 0;
    while (m_request) {
        const int before = source->askCount;
        QCoreApplication::processEvents();
        QCOMPARE(source->askCount, before);
        channel.take(m_request);
        NTRY_VERIFY(!m_request || source->askCount > before);
        ++takings;
    }
    QVERIFY(takings > 10);
    QVERIFY(channel.largestBacklog < 64 * 1024);
    QCOMPARE(channel.finishCount, 1);
    QVERIFY(channel.body() == QByteArray(ManyPieces * PieceSize, 'x'));
}

void tst_NwaStreamedReply::longReplyGivesOthersTheirTurn()
{
    NMemoryChannel channel;
    NwaStreamedReply::start(
        newRequest(&channel), plainTextHeader(), new PiecesSource(ManyPieces, PieceSize), m_parent.data());
    QCOMPARE(channel.finishCount, 0);
    QVERIFY(channel.output.size() < ManyPieces * PieceSize / 3);
    Neighbour neighbour(channel);
    neighbour.takeTurn();
    NTRY_COMPARE(channel.finishCount, 1);
    QVERIFY(neighbour.mostWritten() < ManyPieces * PieceSize / 3);
}

void tst_NwaStreamedReply::replyThatWasTakenWaitsForItsTurn()
{
    CountingChannel channel;
    NwaStreamedReply::start(
        newRequest(&channel), plainTextHeader(), new PiecesSource(ManyPieces, PieceSize), m_parent.data());
    const int firstTurn = channel.output.size();
    channel.tellTaken(m_request);
    channel.tellTaken(m_request);
    Neighbour neighbour(channel);
    neighbour.takeTurn();
    NTRY_COMPARE(channel.finishCount, 1);
    QCOMPARE(channel.body().size(), ManyPieces * PieceSize);
    QVERIFY2(neighbour.mostWritten() < 2 * firstTurn, QByteArray::number(neighbour.mostWritten()).constData());
}

void tst_NwaStreamedReply::whatIsThereIsSentAtOnce()
{
    NMemoryChannel channel;
    startEvents(newRequest(&channel));
    QCOMPARE(channel.output, QByteArray("Content-Type: text/event-stream\r\n\r\n"));
    m_events->send("data: 1\n\n");
    NTRY_COMPARE(channel.body(), QByteArray("data: 1\n\n"));
    QCOMPARE(channel.finishCount, 0);
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
}

void tst_NwaStreamedReply::sourceMayHaveNothingForALongTime()
{
    NMemoryChannel channel;
    startEvents(newRequest(&channel));
    QByteArray expected;
    for (int number = 0; number < 10; ++number) {
        const int askCount = m_events->askCount;
        QCoreApplication::processEvents();
        QCOMPARE(m_events->askCount, askCount);
        const QByteArray event = "data: " + QByteArray::number(number) + "\n\n";
        m_events->send(event);
        expected += event;
        NTRY_COMPARE(channel.body(), expected);
    }
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
    NTRY_VERIFY(!m_events);
}

void tst_NwaStreamedReply::eventsThatComeTogetherAreSentTogether()
{
    CountingChannel channel;
    startEvents(newRequest(&channel));
    const int writeCount = channel.writeCount;
    for (int number = 0; number < 10; ++number)
        m_events->send("x");
    QCOMPARE(channel.writeCount, writeCount);
    NTRY_COMPARE(channel.body(), QByteArray(10, 'x'));
    QCOMPARE(channel.writeCount, writeCount + 1);
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
}

void tst_NwaStreamedReply::sourceIsNotAskedBeforeTheClientHasTakenItsPieces()
{
    NSlowChannel channel;
    startEvents(newRequest(&channel));
    const int askCount = m_events->askCount;
    m_events->send("1");
    m_events->send("2");
    QCoreApplication::processEvents();
    QCOMPARE(m_events->askCount, askCount);
    channel.take(m_request);
    NTRY_COMPARE(channel.body(), QByteArray("12"));
    channel.take(m_request);
    m_events->send("3");
    NTRY_COMPARE(channel.body(), QByteArray("123"));
    channel.take(m_request);
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
}

void tst_NwaStreamedReply::sourceMayAnnounceAPieceWhileItMakesOne()
{
    NMemoryChannel channel;
    NwaStreamedReply::start(newRequest(&channel), plainTextHeader(), new EagerSource, m_parent.data());
    NTRY_COMPARE(channel.finishCount, 1);
    QCOMPARE(channel.body(), QByteArray("01234"));
    NTRY_VERIFY(m_parent->children().isEmpty());
}

void tst_NwaStreamedReply::abortedReplyEnds()
{
    NSlowChannel channel;
    QPointer<NwaReplySource> source(new PiecesSource(ManyPieces, PieceSize));
    NwaStreamedReply::start(newRequest(&channel), plainTextHeader(), source, m_parent.data());
    QVERIFY(m_request);
    channel.abort(m_request);
    NTRY_VERIFY(!m_request && !source);
    QVERIFY(m_parent->children().isEmpty());
    QCOMPARE(channel.finishCount, 0);
}

void tst_NwaStreamedReply::abortedReplyThatWaitsForItsSourceEnds()
{
    NSlowChannel channel;
    startEvents(newRequest(&channel));
    channel.take(m_request);
    QCoreApplication::processEvents();
    channel.abort(m_request);
    m_events->send("1");
    NTRY_VERIFY(!m_request && !m_events);
    QCOMPARE(channel.finishCount, 0);
    QCOMPARE(channel.body(), QByteArray());
}

void tst_NwaStreamedReply::requestThatIsAbortedAlreadyEnds()
{
    NSlowChannel channel;
    newRequest(&channel);
    channel.abort(m_request);
    QCoreApplication::processEvents();
    QPointer<PiecesSource> source(new PiecesSource(1, 1));
    NwaStreamedReply::start(m_request, plainTextHeader(), source, m_parent.data());
    QCOMPARE(source->askCount, 0);
    NTRY_VERIFY(!m_request && !source);
    QCOMPARE(channel.output, QByteArray());
}

void tst_NwaStreamedReply::replyEndsWithItsParent()
{
    NSlowChannel channel;
    startEvents(newRequest(&channel));
    m_parent.reset();
    QVERIFY(!m_request);
    QVERIFY(!m_events);
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStreamedReply::replyMayBeDeleted()
{
    NSlowChannel channel;
    QPointer<NwaStreamedReply> reply(startEvents(newRequest(&channel)));
    m_events->send("1");
    delete reply;
    QVERIFY(!m_request);
    QVERIFY(!m_events);
    QCOMPARE(channel.finishCount, 1);
    QCoreApplication::processEvents();
    QCOMPARE(channel.body(), QByteArray());
}

void tst_NwaStreamedReply::sourceMayAnnounceAPieceOfAReplyThatHasEnded()
{
    NMemoryChannel channel;
    startEvents(newRequest(&channel));
    m_events->end();
    NTRY_COMPARE(channel.finishCount, 1);
    if (m_events)
        m_events->send("late");
    NTRY_VERIFY(!m_events);
    QCOMPARE(channel.body(), QByteArray());
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStreamedReply::requestsFollowOnTheSameConnection()
{
    const NTemporaryDirectory directory;
    NwaFcgiServer server;
    NFcgiTestService service([this](NwaFcgiRequest* request) {
        NwaStreamedReply::start(
            request, plainTextHeader(), new PiecesSource(ManyPieces, PieceSize), m_parent.data());
    });
    server.registerService(text("/a"), &service);
    QVERIFY(server.listenOnPath(directory.filePath(text("socket"))));
    NFcgiClient client;
    QVERIFY(client.connectToPath(directory.filePath(text("socket"))));
    for (int number = 0; number < 3; ++number) {
        client.raw(NFcgiClient::request(NFcgiClient::variables("/a"), QByteArray(), 1, true));
        NTRY_VERIFY(client.hasEnded());
        QVERIFY(client.replyBody() == QByteArray(ManyPieces * PieceSize, 'x'));
        client.forget();
    }
    QVERIFY(!client.isClosed());
    NTRY_VERIFY(m_parent->children().isEmpty());
}

void tst_NwaStreamedReply::clientThatGoesAwayEndsTheReply()
{
    const NTemporaryDirectory directory;
    NwaFcgiServer server;
    NFcgiTestService service([this](NwaFcgiRequest* request) { startEvents(request); });
    server.registerService(text("/a"), &service);
    QVERIFY(server.listenOnPath(directory.filePath(text("socket"))));
    NFcgiClient client;
    QVERIFY(client.connectToPath(directory.filePath(text("socket"))));
    client.raw(NFcgiClient::request(NFcgiClient::variables("/a")));
    NTRY_VERIFY(client.output().endsWith("\r\n\r\n"));
    QVERIFY(m_events);
    client.disconnectNow();
    NTRY_VERIFY(!m_events);
    QCOMPARE(server.connectionCount(), 0);
}

void tst_NwaStreamedReply::waitingReplyOutlivesTheStallTimeout()
{
    const NTemporaryDirectory directory;
    NwaFcgiServer server;
    NwaFcgiLimits limits;
    limits.stallTimeout = 1;
    server.setLimits(limits);
    NFcgiTestService service([this](NwaFcgiRequest* request) { startEvents(request); });
    server.registerService(text("/a"), &service);
    QVERIFY(server.listenOnPath(directory.filePath(text("socket"))));
    NFcgiClient client;
    QVERIFY(client.connectToPath(directory.filePath(text("socket"))));
    client.raw(NFcgiClient::request(NFcgiClient::variables("/a")));
    NTRY_VERIFY(client.output().endsWith("\r\n\r\n"));
    // The timeout has passed when it has closed a connection that began later.
    NFcgiClient stalledClient;
    QVERIFY(stalledClient.connectToPath(directory.filePath(text("socket"))));
    stalledClient.begin();
    NTRY_VERIFY(stalledClient.isClosed());

    m_events->send("data: 1\n\n");
    NTRY_COMPARE(client.replyBody(), QByteArray("data: 1\n\n"));
    m_events->end();
    NTRY_VERIFY(client.hasEnded());
}

void tst_NwaStreamedReply::eventsGoThroughTheWebServer()
{
    const NTemporaryDirectory directory;
    NwaFcgiServer server;
    NFcgiTestService service([this](NwaFcgiRequest* request) { startEvents(request); });
    server.registerService(text("/a"), &service);
    QVERIFY(server.listenOnPath(directory.filePath(text("socket"))));
    NLighttpd webServer;
    QVERIFY2(
        webServer.start(
            "server.stream-response-body = 2\n" +
            NLighttpd::fastCgi(text("/a"), directory.filePath(text("socket")))),
        webServer.log());

    QProcess client;
    client.start(
        text("curl"),
        QStringList() << text("--noproxy") << text("*") << text("-sSN") << webServer.url(text("/a")));
    NTRY_VERIFY(m_events);
    QByteArray received;
    for (int number = 0; number < 5; ++number) {
        const QByteArray event = "data: " + QByteArray::number(number) + "\n\n";
        m_events->send(event);
        NTRY_VERIFY((received += client.readAllStandardOutput()).endsWith(event));
    }
    // The web server notices a client that has gone when it sends to it, if not before.
    client.kill();
    NTRY_VERIFY(client.state() == QProcess::NotRunning);
    NTRY_VERIFY(!m_events || (m_events->send(": still there?\n\n"), false));
}

QTEST_MAIN(tst_NwaStreamedReply)
#include "tst_nwastreamedreply.moc"
