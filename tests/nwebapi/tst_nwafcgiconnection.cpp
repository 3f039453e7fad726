#include "nfcgiclient.h"
#include "nfcgitestservice.h"

#include <nwebapi/nwafcgiconnection_p.h>
#include <nwebapi/nwafcgiconnectionowner_p.h>
#include <nwebapi/nwafcgipoller_p.h>

#include <QtTest/QtTest>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

typedef QPair<QByteArray, QByteArray> Param;

const int LargeReply = 1000000; // more than the kernel takes when the peer reads nothing

QByteArray request(int id, bool keep = true, const QByteArray& method = "GET")
{
    return NFcgiClient::request(NFcgiClient::variables("/test", method), QByteArray(), id, keep);
}

QByteArray params(int id, const QByteArray& contentLength, const QByteArray& contentType = QByteArray())
{
    NFcgiClient::Params variables = NFcgiClient::variables("/test", "POST");
    variables << Param("CONTENT_LENGTH", contentLength) << Param("CONTENT_TYPE", contentType);
    return NFcgiClient::stream(NFcgiClient::ParamsType, id, NFcgiClient::pairs(variables));
}

QByteArray body(int id, int size)
{
    QByteArray records = NFcgiClient::stream(NFcgiClient::StdinType, id, QByteArray(size, 'b'));
    records.chop(8);
    return records;
}

QByteArray bodyEnd(int id)
{
    return NFcgiClient::record(NFcgiClient::StdinType, id, QByteArray());
}

/** Keeps one connection and does for it what a server does, when the test says so. */
class PlainOwner : public NwaFcgiConnectionOwner
{
public:
    PlainOwner(int socket, const NFcgiTestService::Handler& handler)
        : service(handler)
        , heldByOthers(0)
        , events(NwaFcgiPoller::Nothing)
        , canWatch(true)
        , resumesDue(0)
        , m_socket(socket)
    {
        limitsInForce.stallTimeout = 5;
        connection = std::make_shared<NwaFcgiConnection>(NFileDescriptor(socket), this);
    }

    const NwaFcgiLimits& limits() const override { return limitsInForce; }
    qint64 bufferedSize() const override { return heldByOthers + (connection ? connection->bufferedSize() : 0); }
    void dispatch(NwaFcgiRequest* request) override { service.processRequest(request); }

    bool watch(int socket, int formerEvents, int newEvents) override
    {
        if (socket != m_socket || (canWatch && formerEvents != events))
            qFatal("the socket is not watched as it should be");
        calls.append(newEvents == NwaFcgiPoller::Nothing ? "unwatch," : "watch,");
        if (canWatch)
            events = newEvents;
        return canWatch;
    }

    void resumeSoon(const std::shared_ptr<NwaFcgiConnection>& resuming) override
    {
        if (resuming != connection)
            qFatal("another connection wants to be resumed");
        ++resumesDue;
    }

    void forget(int socket) override
    {
        if (socket != m_socket || ::fcntl(socket, F_GETFD) < 0)
            qFatal("the socket is not the connection's any more");
        calls.append("forget,");
        connection.reset();
    }

    /** Does what an event loop would do, until there is nothing left to do. */
    void run()
    {
        while (connection && (resumeNext() || processEvents())) {
        }
    }

    NwaFcgiLimits limitsInForce;
    NFcgiTestService service;
    std::shared_ptr<NwaFcgiConnection> connection; ///< null once it is closed
    qint64 heldByOthers;
    int events;
    bool canWatch;
    int resumesDue;
    QByteArray calls;

private:
    bool resumeNext()
    {
        if (resumesDue == 0)
            return false;
        --resumesDue;
        const std::shared_ptr<NwaFcgiConnection> resuming = connection;
        resuming->resume();
        return true;
    }

    bool processEvents()
    {
        struct pollfd state = {m_socket, 0, 0};
        state.events = short(
            (events & NwaFcgiPoller::Readable ? POLLIN : 0) | (events & NwaFcgiPoller::Writable ? POLLOUT : 0));
        if (state.events == 0 || ::poll(&state, 1, 0) != 1)
            return false;
        const int ends = POLLHUP | POLLERR;
        const std::shared_ptr<NwaFcgiConnection> ready = connection;
        ready->processEvents(
            (state.revents & (POLLIN | ends) ? NwaFcgiPoller::Readable : 0) |
            (state.revents & (POLLOUT | ends) ? NwaFcgiPoller::Writable : 0));
        return true;
    }

    const int m_socket;
};

} // namespace

class tst_NwaFcgiConnection : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void requestIsDispatchedWhenItIsComplete();
    void formIsDispatchedBeforeItsBody();
    void inputIsReadUntilTheBodyBufferIsFull();
    void severalWritesAskForOneResumption();
    void writableSocketIsWatchedForWhileThePeerHasToRead();
    void answersAboutTheConnectionAndTheReplyAreSentInTheirOrder();

    void furtherRequestWaitsForTheReplyToBeTaken();
    void inputIsNotReadWhileARequestWaits();
    void restOfABodyIsReadWhileTheReplyWaits();
    void requestAfterASmallReplyDoesNotWait();
    void peerThatHasEndedItsSendingGetsAllReplies();

    void everythingHeldIsCounted_data();
    void everythingHeldIsCounted();
    void requestIsRefusedWhileOtherConnectionsHoldTooMuch();
    void requestIsNotRefusedForWhatItsOwnConnectionHolds();

    void silentPeerIsClosedAfterTheTimeout_data();
    void silentPeerIsClosedAfterTheTimeout();
    void slowServiceDoesNotEndTheConnection();
    void progressRestartsTheTimeout_data();
    void progressRestartsTheTimeout();

    void connectionThatCannotBeWatchedIsClosed();
    void closingEndsTheWatchingAndThenForgetsTheSocket();
    void closingAbortsTheRequestThatAServiceHas();
    void closingDeletesTheRequestThatNoServiceHas();
    void serviceMayCloseTheConnection_data();
    void serviceMayCloseTheConnection();

private:
    void open(const NFcgiTestService::Handler& handler = NFcgiTestService::Handler());
    bool send(const QByteArray& data);
    QList<NFcgiClient::Record> take();
    bool isOpen() const { return m_owner->connection != nullptr; }
    NFcgiTestService& service() const { return m_owner->service; }
    void passSeconds(int count);

    QScopedPointer<PlainOwner> m_owner;
    NFileDescriptor m_peer;
    QByteArray m_received;
};

void tst_NwaFcgiConnection::init()
{
    open();
}

void tst_NwaFcgiConnection::cleanup()
{
    if (isOpen())
        m_owner->connection->close();
    m_owner.reset();
    m_peer.reset();
}

void tst_NwaFcgiConnection::open(const NFcgiTestService::Handler& handler)
{
    if (m_owner && isOpen())
        m_owner->connection->close();
    int sockets[2];
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets), 0);
    m_peer.reset(sockets[1]);
    m_received.clear();
    m_owner.reset(new PlainOwner(sockets[0], handler));
    m_owner->connection->start();
}

// Returns whether the connection has read all of the data, as far as the kernel does not keep it.
bool tst_NwaFcgiConnection::send(const QByteArray& data)
{
    bool mayWait = true;
    for (int position = 0; position < data.size();) {
        const ssize_t size =
            ::send(m_peer.number(), data.constData() + position, size_t(data.size() - position), MSG_NOSIGNAL);
        if (size < 0 && !mayWait)
            return false;
        mayWait = size > 0;
        position += qMax(0, int(size));
        m_owner->run();
    }
    m_owner->run();
    return true;
}

// Takes everything that the connection has to send.
QList<NFcgiClient::Record> tst_NwaFcgiConnection::take()
{
    char buffer[65536];
    ssize_t size = 0;
    while ((size = ::recv(m_peer.number(), buffer, sizeof(buffer), 0)) > 0) {
        m_received.append(buffer, int(size));
        m_owner->run();
    }
    return NFcgiClient::takeRecords(m_received);
}

void tst_NwaFcgiConnection::passSeconds(int count)
{
    for (; count > 0 && isOpen(); --count)
        m_owner->connection->closeIfStalled();
}

// Requests and replies

void tst_NwaFcgiConnection::requestIsDispatchedWhenItIsComplete()
{
    QVERIFY(send(NFcgiClient::beginRecord(1, true) + params(1, "5000") + body(1, 5000)));
    QCOMPARE(service().count(), 0);
    QVERIFY(send(bodyEnd(1)));
    QCOMPARE(service().count(), 1);
    NTest::reply(service().request(), "reply");
    m_owner->run();
    const QList<NFcgiClient::Record> records = take();
    QCOMPARE(records.size(), 3);
    QCOMPARE(records.at(0).type, int(NFcgiClient::StdoutType));
    QVERIFY(records.at(0).content.endsWith("reply"));
    QCOMPARE(records.at(2).type, int(NFcgiClient::EndRequest));
}

void tst_NwaFcgiConnection::formIsDispatchedBeforeItsBody()
{
    QVERIFY(send(NFcgiClient::beginRecord() + params(1, "5000", "multipart/form-data; boundary=b")));
    QCOMPARE(service().count(), 1);
    QSignalSpy available(service().request(), SIGNAL(bodyAvailable()));
    QVERIFY(send(body(1, 2000)));
    QCOMPARE(available.count(), 1);
    QCOMPARE(NTest::readAvailableBody(service().request()).size(), 2000);
    QVERIFY(!service().request()->atBodyEnd());
    QVERIFY(send(body(1, 3000) + bodyEnd(1)));
    QCOMPARE(available.count(), 3);
    QCOMPARE(NTest::readAvailableBody(service().request()).size(), 3000);
    QVERIFY(service().request()->atBodyEnd());
}

void tst_NwaFcgiConnection::inputIsReadUntilTheBodyBufferIsFull()
{
    m_owner->limitsInForce.streamedBodyBuffer = 1000;
    QVERIFY(send(NFcgiClient::beginRecord() + params(1, "3000", "multipart/form-data; boundary=b")));
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
    QVERIFY(send(body(1, 999)));
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
    QVERIFY(send(body(1, 1)));
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Nothing));
    QVERIFY(send(body(1, 1)));
    QCOMPARE(m_owner->connection->bufferedSize(), 1000);
    char byte = 0;
    QCOMPARE(service().request()->readBody(&byte, 1), qint64(1));
    m_owner->run();
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Nothing));
    QCOMPARE(NTest::readAvailableBody(service().request()).size(), 1000);
    m_owner->run();
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
}

void tst_NwaFcgiConnection::severalWritesAskForOneResumption()
{
    QVERIFY(send(request(1)));
    QCOMPARE(m_owner->resumesDue, 0);
    for (int count = 0; count < 3; ++count)
        service().request()->outputStream() << "piece" << std::flush;
    QCOMPARE(m_owner->resumesDue, 1);
    QVERIFY(take().isEmpty());
    m_owner->run();
    QCOMPARE(take().size(), 3);
    service().request()->outputStream() << "piece" << std::flush;
    QCOMPARE(m_owner->resumesDue, 1);
}

void tst_NwaFcgiConnection::writableSocketIsWatchedForWhileThePeerHasToRead()
{
    QVERIFY(send(request(1)));
    QSignalSpy taken(service().request(), SIGNAL(replyTaken()));
    service().request()->outputStream() << QByteArray(LargeReply, 'r').constData() << std::flush;
    QCOMPARE(m_owner->events, NwaFcgiPoller::Readable | NwaFcgiPoller::Writable);
    QVERIFY(service().request()->replyBacklog() > 0);
    take();
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
    QCOMPARE(service().request()->replyBacklog(), 0);
    QCoreApplication::processEvents();
    QVERIFY(taken.count() > 0);
}

void tst_NwaFcgiConnection::answersAboutTheConnectionAndTheReplyAreSentInTheirOrder()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, "reply"); });
    const QByteArray question =
        NFcgiClient::record(NFcgiClient::GetValues, 0, NFcgiClient::pair("FCGI_MPXS_CONNS", ""));
    QVERIFY(send(question + request(1) + question + request(2) + question));
    QList<int> ids;
    for (const NFcgiClient::Record& record : take()) {
        if (ids.isEmpty() || ids.last() != record.requestId)
            ids << record.requestId;
    }
    QCOMPARE(ids, QList<int>() << 0 << 1 << 0 << 2 << 0);
}

// Requests sent ahead

void tst_NwaFcgiConnection::furtherRequestWaitsForTheReplyToBeTaken()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(LargeReply, 'r')); });
    QByteArray requests;
    for (int id = 1; id <= 10; ++id)
        requests += request(id);
    QVERIFY(send(requests));
    QCOMPARE(service().count(), 1);
    QVERIFY(m_owner->connection->bufferedSize() < LargeReply + requests.size());
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Writable));
    // A part of the reply makes no room for the next one.
    char buffer[65536];
    const ssize_t size = ::recv(m_peer.number(), buffer, sizeof(buffer), 0);
    QVERIFY(size > 0);
    m_received.append(buffer, int(size));
    m_owner->run();
    QCOMPARE(service().count(), 1);

    QMap<int, int> replySizes;
    QList<int> ended;
    for (const NFcgiClient::Record& record : take()) {
        replySizes[record.requestId] += record.content.size();
        if (record.type == NFcgiClient::EndRequest)
            ended << record.requestId;
        QCOMPARE(record.requestId, ended.isEmpty() ? 1 : qMin(ended.size() + 1, replySizes.keys().last()));
    }
    QCOMPARE(service().count(), 10);
    QCOMPARE(ended, QList<int>() << 1 << 2 << 3 << 4 << 5 << 6 << 7 << 8 << 9 << 10);
    for (int replySize : replySizes)
        QVERIFY(replySize > LargeReply);
    QCOMPARE(m_owner->connection->bufferedSize(), 0);
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
}

void tst_NwaFcgiConnection::inputIsNotReadWhileARequestWaits()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(LargeReply, 'r')); });
    QVERIFY(send(request(1) + request(2)));
    const int held = m_owner->connection->bufferedSize();
    QVERIFY(!send(QByteArray(10000000, '\0')));
    QVERIFY(isOpen());
    QCOMPARE(m_owner->connection->bufferedSize(), held);
    QCOMPARE(service().count(), 1);
}

// Such as a body that is refused: its sender may read only after sending it all.
void tst_NwaFcgiConnection::restOfABodyIsReadWhileTheReplyWaits()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(LargeReply, 'r')); });
    QVERIFY(send(
        NFcgiClient::beginRecord(1, true) + params(1, "2000000", "multipart/form-data; boundary=b") +
        body(1, 10)));
    QCOMPARE(service().count(), 1);
    QVERIFY(m_owner->events & NwaFcgiPoller::Writable);
    const int held = m_owner->connection->bufferedSize();
    QVERIFY(send(body(1, 1999990) + bodyEnd(1)));
    QCOMPARE(m_owner->connection->bufferedSize(), held);
    QVERIFY(send(request(2)));
    QCOMPARE(service().count(), 1);
    take();
    QCOMPARE(service().count(), 2);
}

void tst_NwaFcgiConnection::requestAfterASmallReplyDoesNotWait()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, "reply"); });
    QByteArray requests;
    for (int id = 1; id <= 100; ++id)
        requests += request(id);
    QVERIFY(send(requests));
    QCOMPARE(service().count(), 100);
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Readable));
}

void tst_NwaFcgiConnection::peerThatHasEndedItsSendingGetsAllReplies()
{
    open([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(LargeReply, 'r')); });
    QVERIFY(send(request(1) + request(2)));
    ::shutdown(m_peer.number(), SHUT_WR);
    m_owner->run();
    QCOMPARE(take().last().requestId, 2);
    QCOMPARE(service().count(), 2);
    // There will be no third request, so the peer gets the end of the connection.
    QVERIFY(!isOpen());
}

// The limit of all connections

void tst_NwaFcgiConnection::everythingHeldIsCounted_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<int>("size");
    const QByteArray begin = NFcgiClient::beginRecord();
    QTest::newRow("nothing") << QByteArray() << 0;
    QTest::newRow("beginning of a record") << begin.left(15) << 15;
    QTest::newRow("variables") << begin + NFcgiClient::record(NFcgiClient::ParamsType, 1, "name") << 4;
    QTest::newRow("body") << begin + params(1, "5000") + body(1, 3000) << 3000;
    QTest::newRow("body before the variables") << begin + body(1, 3000) << 3000;
    QTest::newRow("variables and beginning of a record")
        << begin + NFcgiClient::record(NFcgiClient::ParamsType, 1, "name") + body(1, 100).left(50) << 54;
    QTest::newRow("request that has ended") << request(1) << 0;
}

void tst_NwaFcgiConnection::everythingHeldIsCounted()
{
    QFETCH(QByteArray, sent);
    QFETCH(int, size);
    open([](NwaFcgiRequest* request) { NTest::reply(request, "reply"); });
    QVERIFY(send(sent));
    QCOMPARE(m_owner->connection->bufferedSize(), size);
}

void tst_NwaFcgiConnection::requestIsRefusedWhileOtherConnectionsHoldTooMuch()
{
    m_owner->limitsInForce.bufferedSize = 10000;
    m_owner->heldByOthers = 10001;
    QVERIFY(send(request(1)));
    QCOMPARE(service().count(), 0);
    QVERIFY(take().at(0).content.startsWith("Status: 503 "));
    m_owner->heldByOthers = 10000;
    QVERIFY(send(request(2)));
    QCOMPARE(service().count(), 1);
}

void tst_NwaFcgiConnection::requestIsNotRefusedForWhatItsOwnConnectionHolds()
{
    m_owner->limitsInForce.bufferedSize = 10000;
    QVERIFY(send(NFcgiClient::beginRecord() + params(1, "12000") + body(1, 12000) + bodyEnd(1)));
    QCOMPARE(service().count(), 1);
}

// Peers that stall

void tst_NwaFcgiConnection::silentPeerIsClosedAfterTheTimeout_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("half a record") << request(1).left(5);
    QTest::newRow("beginning") << NFcgiClient::beginRecord();
    QTest::newRow("request without its body") << NFcgiClient::beginRecord() + params(1, "10");
    QTest::newRow("form without its body")
        << NFcgiClient::beginRecord() + params(1, "10", "multipart/form-data; boundary=b");
    QTest::newRow("request whose reply is not taken") << request(1);
}

void tst_NwaFcgiConnection::silentPeerIsClosedAfterTheTimeout()
{
    QFETCH(QByteArray, sent);
    QVERIFY(send(sent));
    if (service().count() > 0)
        service().request()->outputStream() << QByteArray(LargeReply, 'r').constData() << std::flush;
    passSeconds(5);
    QVERIFY(isOpen());
    passSeconds(1);
    QVERIFY(!isOpen());
}

void tst_NwaFcgiConnection::slowServiceDoesNotEndTheConnection()
{
    QVERIFY(send(request(1)));
    passSeconds(100);
    QVERIFY(isOpen());
    service().request()->outputStream() << "beginning" << std::flush;
    m_owner->run();
    passSeconds(100);
    QVERIFY(isOpen());
    NTest::reply(service().request(), "reply");
    m_owner->run();
    passSeconds(5);
    QVERIFY(isOpen());
    passSeconds(1);
    QVERIFY(!isOpen());
}

void tst_NwaFcgiConnection::progressRestartsTheTimeout_data()
{
    QTest::addColumn<QByteArray>("first");
    QTest::addColumn<QByteArray>("second");
    const QByteArray begin = NFcgiClient::beginRecord(1, true);
    QTest::newRow("beginning") << QByteArray() << begin;
    QTest::newRow("variables") << begin << params(1, "10");
    QTest::newRow("body") << begin + params(1, "10") << body(1, 1);
    QTest::newRow("abort") << begin << NFcgiClient::record(NFcgiClient::AbortRequest, 1, QByteArray());
    QTest::newRow("reply") << QByteArray() << request(1);
}

void tst_NwaFcgiConnection::progressRestartsTheTimeout()
{
    QFETCH(QByteArray, first);
    QFETCH(QByteArray, second);
    open([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(LargeReply, 'r')); });
    QVERIFY(send(first));
    passSeconds(5);
    QVERIFY(isOpen());
    QVERIFY(send(second));
    passSeconds(5);
    QVERIFY(isOpen());
    if (service().count() > 0) {
        // Taking a part of the reply is progress, too.
        char buffer[65536];
        while (::recv(m_peer.number(), buffer, sizeof(buffer), 0) > 0) {
        }
        m_owner->run();
        passSeconds(5);
        QVERIFY(isOpen());
    }
    passSeconds(1);
    QVERIFY(!isOpen());
}

// The end

void tst_NwaFcgiConnection::connectionThatCannotBeWatchedIsClosed()
{
    m_owner->limitsInForce.streamedBodyBuffer = 10;
    QVERIFY(send(NFcgiClient::beginRecord() + params(1, "20", "multipart/form-data; boundary=b") + body(1, 10)));
    QCOMPARE(m_owner->events, int(NwaFcgiPoller::Nothing));
    m_owner->canWatch = false;
    NTest::readAvailableBody(service().request());
    m_owner->run();
    QVERIFY(!isOpen());
    QVERIFY(service().request()->isAborted());
}

void tst_NwaFcgiConnection::closingEndsTheWatchingAndThenForgetsTheSocket()
{
    QCOMPARE(m_owner->calls, QByteArray("watch,"));
    m_owner->connection->close();
    QCOMPARE(m_owner->calls, QByteArray("watch,unwatch,forget,"));
    char byte = 0;
    QCOMPARE(::recv(m_peer.number(), &byte, 1, 0), ssize_t(0));
}

void tst_NwaFcgiConnection::closingAbortsTheRequestThatAServiceHas()
{
    QVERIFY(send(request(1)));
    QSignalSpy aborted(service().request(), SIGNAL(aborted()));
    m_owner->connection->close();
    QVERIFY(service().request()->isAborted());
    QCoreApplication::processEvents();
    QCOMPARE(aborted.count(), 1);
    NTest::reply(service().request(), "nobody reads it");
}

void tst_NwaFcgiConnection::closingDeletesTheRequestThatNoServiceHas()
{
    // The address sanitizer would report the request.
    QVERIFY(send(NFcgiClient::beginRecord() + params(1, "10")));
    m_owner->connection->close();
    QCOMPARE(service().count(), 0);
}

void tst_NwaFcgiConnection::serviceMayCloseTheConnection_data()
{
    QTest::addColumn<int>("replySize");
    QTest::newRow("without a reply") << 0;
    QTest::newRow("after a small piece") << 10;
    QTest::newRow("after more than the kernel takes") << LargeReply;
}

void tst_NwaFcgiConnection::serviceMayCloseTheConnection()
{
    QFETCH(int, replySize);
    open([&](NwaFcgiRequest* request) {
        request->outputStream() << QByteArray(replySize, 'r').constData() << std::flush;
        m_owner->connection->close();
        NTest::reply(request, "too late");
    });
    QVERIFY(send(request(1) + request(2)));
    QVERIFY(!isOpen());
    QCOMPARE(service().count(), 1);
}

QTEST_MAIN(tst_NwaFcgiConnection)
#include "tst_nwafcgiconnection.moc"
