#include <nwebapi/nwaeventstreams.h>

#include "nfcgiclient.h"
#include "nfcgitestservice.h"

#include <nsystem/nfiledescriptor_p.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>
#include <support/nallocatedbytes.h>
#include <support/nregisteredtimers.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QtCore/QPointer>
#include <QtTest/QtTest>

#include <sys/socket.h>
#include <sys/un.h>

#include <limits>
#include <vector>

namespace {

const int LargeSize = 2 * 1024 * 1024; // more than the kernel and the server hold for a client together

const QByteArray Greeting("retry: 2000\n\n");

// How a stream begins after the event of this number.
QByteArray beginning(int number = 0)
{
    return Greeting + "id: " + QByteArray::number(number) + "\nevent: begin\ndata: null\n\n";
}

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** An event as a page gets it. */
struct Event
{
    QByteArray id;
    QByteArray type;
    QByteArray data;
};

// As NTest::waitUntil(), for what takes a few turns of the event loop: hundreds of such waits take no time.
template <typename Condition> bool becomes(Condition condition)
{
    for (int turn = 0; turn < 100 && !condition(); ++turn)
        QCoreApplication::processEvents();
    return NTest::waitUntil(condition);
}

/** A page that follows the events of a session, as EventSource does. */
class Page : public NFcgiClient
{
public:
    bool follow(const QString& socketPath, const QUuid& session, const QByteArray& lastEventId = QByteArray())
    {
        return connectToPath(socketPath) && request("GET", session, lastEventId);
    }

    bool request(const QByteArray& method, const QUuid& session, const QByteArray& lastEventId = QByteArray())
    {
        Params params = variables("/stream", method);
        params << qMakePair(QByteArray("SESSION"), session.toString().toLatin1());
        if (!lastEventId.isNull())
            params << qMakePair(QByteArray("HTTP_LAST_EVENT_ID"), lastEventId);
        raw(NFcgiClient::request(params));
        return unsentSize() == 0;
    }

    /** Follows the stream. @return whether it begins. */
    bool opens(const QString& socketPath, const QUuid& session, const QByteArray& lastEventId = QByteArray())
    {
        return follow(socketPath, session, lastEventId) && NTest::waitUntil([this]() { return isFollowing(); });
    }

    /** Whether the stream has begun. */
    bool isFollowing() const { return replyBody().startsWith("retry: "); }

    /** The events after "begin". */
    QList<Event> events() const
    {
        QList<Event> events = allEvents();
        if (!events.isEmpty() && events.first().type == "begin")
            events.removeFirst();
        return events;
    }

    /** The types of the events, with blanks between them. */
    QByteArray types() const
    {
        QByteArray types;
        for (const Event& event : events())
            types += (types.isEmpty() ? "" : " ") + event.type;
        return types;
    }

    QByteArray lastEventId() const
    {
        QByteArray id;
        for (const Event& event : allEvents())
            id = event.id.isEmpty() ? id : event.id;
        return id;
    }

private:
    QList<Event> allEvents() const
    {
        QList<Event> events;
        const QByteArray body = replyBody();
        int begin = 0;
        for (int end = body.indexOf("\n\n"); end >= 0; end = body.indexOf("\n\n", begin)) {
            const Event event = parse(body.mid(begin, end - begin));
            if (!event.type.isEmpty())
                events << event;
            begin = end + 2;
        }
        return events;
    }

    static Event parse(const QByteArray& block)
    {
        Event event;
        for (const QByteArray& line : block.split('\n')) {
            if (line.startsWith("id: "))
                event.id = line.mid(4);
            else if (line.startsWith("event: "))
                event.type = line.mid(7);
            else if (line.startsWith("data: "))
                event.data += line.mid(6);
        }
        return event;
    }
};

/** Hands each request to a function, and remembers nothing of it. */
class Service : public NwaAbstractFcgiService
{
public:
    explicit Service(const NFcgiTestService::Handler& handler)
        : m_handler(handler)
    {
    }

    void processRequest(NwaFcgiRequest* request) override { m_handler(request); }

private:
    const NFcgiTestService::Handler m_handler;
};

// A document of so many bytes and two quotes.
QVariant document(int size)
{
    return QString(size, QLatin1Char('d'));
}

} // namespace

class tst_NwaEventStreams : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void replyIsAnEventStream();
    void eventHasANumberATypeAndADocument();
    void eventOfASessionGoesToItsStreamOnly();
    void eventForAllGoesToAllStreams();
    void documentArrivesAsItIs_data();
    void documentArrivesAsItIs();
    void lineEndsInATypeBecomeBlanks();
    void sessionWithoutAStreamGetsNothing();

    void newStreamBeginsWithTheNextEvent();
    void streamContinuesAfterAnyKeptEvent();
    void streamThatBreaksBeforeItsFirstEventMissesNothing();
    void streamThatBreaksAgainAndAgainMissesNothing();
    void eventsThatAreNoLongerKeptAreReportedAsMissed();
    void lastEventIdThatIsNoNumberOfAnEventIsReportedAsMissed_data();
    void lastEventIdThatIsNoNumberOfAnEventIsReportedAsMissed();
    void emptyLastEventIdIsNone();
    void pageContinuesAfterItWasToldThatItMissedEvents_data();
    void pageContinuesAfterItWasToldThatItMissedEvents();
    void eventsAreKeptForTheKeptTime();
    void eventsAreDroppedAfterTheKeptTime();
    void extremeTimesAreAccepted();
    void latestEventIsAlwaysKept_data();
    void latestEventIsAlwaysKept();

    void laterStreamReplacesTheEarlier();
    void thousandStreamsReplaceOneAnother();
    void headLeavesTheStreamOpen();
    void requestThatIsGoneLeavesTheStreamOpen();
    void tooManyStreamsAreAnswered503();
    void keptEventsMakeRoomForAStream();

    void streamEndsWithItsSession();
    void keptEventsEndWithTheirSession();
    void streamThatIsOpenedWhileItsSessionEndsIsEnded();
    void streamsEndWithTheSessionManager();
    void streamsEndWithTheirObject();
    void serviceMayDeleteTheStreams();
    void streamsEndWithTheServer();
    void streamEndsWithItsClient();

    void heartbeatsAreSentInQuietTimes();
    void quietStreamOutlivesTheStallTimeout();
    void heartbeatsStopWithTheLastStream();
    void slowReaderIsDropped();
    void stalledReaderIsDropped();
    void stalledReaderIsDroppedInSpiteOfHeartbeats();
    void replacedStreamThatIsNotReadIsDropped();
    void eventsBeyondTheKeptSizeInOneGoDropTheStream();
    void clientThatIsDroppedAndReplacedIsToldNotToReturn();

    void thousandRoundsLeaveMemoryAndDescriptorsFlat();
    void hundredStreamsTakeLessThanTwoMegabytes_data();
    void hundredStreamsTakeLessThanTwoMegabytes();

private:
    QString socketPath() const;
    QUuid newSession();
    void open(NwaFcgiRequest* request);
    void setStallTimeout(int seconds);
    bool sendUntilBlocked(const Page& page, const QUuid& session);
    bool waitForStallTimeouts();
    NFileDescriptor connectedSocket() const;
    void sendToEach(const std::vector<QUuid>& sessions, int count, int documentSize);
    static bool sendRequest(const NFileDescriptor& client, const NFcgiClient::Params& params);

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NwaWebSessionManager> m_sessions;
    QScopedPointer<NwaEventStreams> m_streams;
    QScopedPointer<Service> m_service;
    QScopedPointer<NwaFcgiServer> m_server;
    int m_openDescriptors;
};

void tst_NwaEventStreams::init()
{
    m_openDescriptors = NTest::openDescriptors();
    m_directory.reset(new NTemporaryDirectory);
    m_sessions.reset(new NwaWebSessionManager);
    m_streams.reset(new NwaEventStreams(m_sessions.data(), nullptr));
    m_service.reset(new Service([this](NwaFcgiRequest* request) { open(request); }));
    m_server.reset(new NwaFcgiServer);
    m_server->registerService(text("/stream"), m_service.data());
    QVERIFY2(m_server->listenOnPath(socketPath()), qPrintable(m_server->errorString()));
}

void tst_NwaEventStreams::cleanup()
{
    m_streams.reset();
    m_sessions.reset();
    m_server.reset();
    m_service.reset();
    m_directory.reset();
    QCOMPARE(NTest::openDescriptors(), m_openDescriptors);
}

QString tst_NwaEventStreams::socketPath() const
{
    return m_directory->filePath(text("socket"));
}

QUuid tst_NwaEventStreams::newSession()
{
    return m_sessions->createSession()->id();
}

void tst_NwaEventStreams::open(NwaFcgiRequest* request)
{
    const QUuid id(QString::fromLatin1(request->variable("SESSION")));
    m_streams->open(request, m_sessions->session(id));
}

void tst_NwaEventStreams::setStallTimeout(int seconds)
{
    NwaFcgiLimits limits = m_server->limits();
    limits.stallTimeout = seconds;
    m_server->setLimits(limits);
}

// Sends more than anyone holds for a page that does not read.
bool tst_NwaEventStreams::sendUntilBlocked(const Page& page, const QUuid& session)
{
    const int size = 4000;
    for (int sent = 0; sent < LargeSize; sent += size) {
        m_streams->send(session, "large", document(size));
        QCoreApplication::processEvents();
    }
    return !page.hasEnded();
}

// The timeout has passed for everyone who connected before when it has closed two later connections in turn.
bool tst_NwaEventStreams::waitForStallTimeouts()
{
    for (int count = 0; count < 2; ++count) {
        NFcgiClient silent;
        if (!silent.connectToPath(socketPath()) || !NTest::waitUntil([&]() { return silent.isClosed(); }))
            return false;
    }
    return true;
}

NFileDescriptor tst_NwaEventStreams::connectedSocket() const
{
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(socketPath()).constData(), sizeof(address.sun_path));
    NFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(socket.number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0)
        qFatal("cannot connect");
    return socket;
}

// Sends so many events at a time to each session.
void tst_NwaEventStreams::sendToEach(const std::vector<QUuid>& sessions, int count, int documentSize)
{
    for (const QUuid& session : sessions) {
        for (int event = 0; event < count; ++event)
            m_streams->send(session, "event", document(documentSize));
    }
    // Pieces are written, sent and followed by further ones in a turn of the event loop each.
    for (int turn = 0; turn < 20; ++turn)
        QCoreApplication::processEvents();
}

bool tst_NwaEventStreams::sendRequest(const NFileDescriptor& client, const NFcgiClient::Params& params)
{
    const QByteArray request = NFcgiClient::request(params);
    return ::send(client.number(), request.constData(), size_t(request.size()), 0) == request.size();
}

// Events

void tst_NwaEventStreams::replyIsAnEventStream()
{
    Page page;
    QVERIFY(page.opens(socketPath(), newSession()));
    QCOMPARE(page.status(), 200);
    QVERIFY(page.output().contains("Content-Type: text/event-stream; charset=utf-8\r\n"));
    QVERIFY(page.output().contains("Cache-Control: no-store\r\n"));
    QCOMPARE(page.replyBody(), beginning());
    QCOMPARE(m_streams->streamCount(), 1);
    QVERIFY(!page.hasEnded());
}

void tst_NwaEventStreams::eventHasANumberATypeAndADocument()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    QVariantMap document;
    document.insert(text("time"), 12);
    m_streams->send(session, "ping", document);
    m_streams->send(session, "end", QVariant());
    NTRY_COMPARE(
        page.replyBody(), beginning() + "id: 1\nevent: ping\ndata: {\"time\":12}\n\n"
                                        "id: 2\nevent: end\ndata: null\n\n");
}

void tst_NwaEventStreams::eventOfASessionGoesToItsStreamOnly()
{
    const QUuid session = newSession();
    const QUuid otherSession = newSession();
    Page page;
    Page otherPage;
    QVERIFY(page.follow(socketPath(), session));
    QVERIFY(otherPage.follow(socketPath(), otherSession));
    NTRY_COMPARE(m_streams->streamCount(), 2);
    for (int count = 0; count < 3; ++count) {
        m_streams->send(session, "mine", count);
        m_streams->send(otherSession, "others", count);
    }
    NTRY_COMPARE(page.types(), QByteArray("mine mine mine"));
    NTRY_COMPARE(otherPage.types(), QByteArray("others others others"));
}

void tst_NwaEventStreams::eventForAllGoesToAllStreams()
{
    Page pages[3];
    for (Page& page : pages)
        QVERIFY(page.follow(socketPath(), newSession()));
    NTRY_COMPARE(m_streams->streamCount(), 3);
    m_streams->sendToAll("news", text("now"));
    for (Page& page : pages)
        NTRY_COMPARE(page.replyBody(), beginning() + "id: 1\nevent: news\ndata: \"now\"\n\n");
}

void tst_NwaEventStreams::documentArrivesAsItIs_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("empty") << QString();
    QTest::newRow("line feed") << text("a\nevent: forged\n\nid: 9");
    QTest::newRow("carriage return") << text("a\revent: forged\r\rid: 9");
    QTest::newRow("both") << text("a\r\n\r\nevent: forged");
    QTest::newRow("line separators of Unicode") << QString::fromUtf8("a\xe2\x80\xa8\xe2\x80\xa9\xc2\x85z");
    QTest::newRow("null character") << QString(QChar(0));
    QTest::newRow("beyond Latin-1") << QString::fromUtf8("\xe9\x90\x98 \xf0\x9f\x94\x94 \"\\");
    QTest::newRow("larger than a record") << QString(200000, QLatin1Char('x'));
}

void tst_NwaEventStreams::documentArrivesAsItIs()
{
    QFETCH(QString, value);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    QVariantMap document;
    document.insert(value, value);
    m_streams->send(session, "text", document);
    NTRY_COMPARE(page.types(), QByteArray("text"));
    m_streams->send(session, "next", QVariant());
    NTRY_VERIFY(page.replyBody().endsWith("event: next\ndata: null\n\n"));
    QCOMPARE(page.types(), QByteArray("text next"));
    bool isRead = false;
    const QVariantMap received = NwaJson::parse(page.events().first().data, &isRead).toMap();
    QVERIFY(isRead);
    QCOMPARE(received.keys(), QStringList(value));
    QCOMPARE(received.value(value).toString(), value);
}

void tst_NwaEventStreams::lineEndsInATypeBecomeBlanks()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "a\ndata: 1\r\rb\r\n", 2);
    NTRY_COMPARE(page.replyBody(), beginning() + "id: 1\nevent: a data: 1  b  \ndata: 2\n\n");
}

void tst_NwaEventStreams::sessionWithoutAStreamGetsNothing()
{
    const QUuid session = newSession();
    m_streams->send(session, "early", 1);
    m_streams->send(QUuid::createUuid(), "nobody's", 1);
    m_streams->sendToAll("early", 1);
    QCOMPARE(m_streams->streamCount(), 0);
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "next", 1);
    NTRY_COMPARE(page.types(), QByteArray("next"));
}

// Continuing

void tst_NwaEventStreams::newStreamBeginsWithTheNextEvent()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "first", 1);
    NTRY_COMPARE(page.types(), QByteArray("first"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    m_streams->send(session, "second", 2);
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "third", 3);
    NTRY_COMPARE(page.types(), QByteArray("third"));
}

void tst_NwaEventStreams::streamContinuesAfterAnyKeptEvent()
{
    const int count = 20;
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    for (int number = 1; number <= count; ++number)
        m_streams->send(session, "event", number);
    for (int number = 0; number <= count; ++number) {
        Page later;
        QVERIFY(later.opens(socketPath(), session, QByteArray::number(number)));
        NTRY_COMPARE(later.events().size(), count - number);
        for (int index = 0; index < count - number; ++index)
            QCOMPARE(later.events().at(index).id, QByteArray::number(number + index + 1));
    }
}

void tst_NwaEventStreams::streamThatBreaksBeforeItsFirstEventMissesNothing()
{
    m_streams->sendToAll("early", 1);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    QCOMPARE(page.lastEventId(), QByteArray("1"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    m_streams->send(session, "event", 2);
    QVERIFY(page.follow(socketPath(), session, page.lastEventId()));
    NTRY_COMPARE(page.types(), QByteArray("event"));
}

// The connection breaks with all, some or none of the events on their way.
void tst_NwaEventStreams::streamThatBreaksAgainAndAgainMissesNothing()
{
    const QUuid session = newSession();
    int sent = 0;
    int received = 0;
    QByteArray lastEventId = "0";
    for (int round = 0; round < 100; ++round) {
        Page page;
        QVERIFY(page.follow(socketPath(), session, lastEventId));
        if (round % 3 == 0)
            NTRY_VERIFY(page.isFollowing());
        for (int count = 0; count < round % 4; ++count) {
            if (m_streams->streamCount() > 0)
                m_streams->send(session, "event", ++sent);
            QCoreApplication::processEvents();
        }
        for (const Event& event : page.events())
            QCOMPARE(event.data.toInt(), ++received);
        if (received > 0)
            lastEventId = QByteArray::number(received);
        page.disconnectNow();
        if (sent > 0)
            m_streams->send(session, "event", ++sent);
    }
    QVERIFY(sent > 100);
    Page page;
    QVERIFY(page.follow(socketPath(), session, lastEventId));
    NTRY_COMPARE(received + page.events().size(), sent);
    for (const Event& event : page.events())
        QCOMPARE(event.data.toInt(), ++received);
}

void tst_NwaEventStreams::eventsThatAreNoLongerKeptAreReportedAsMissed()
{
    m_streams->setKeptSize(2000);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.follow(socketPath(), session));
    for (int number = 1; number <= 5; ++number) {
        NTRY_COMPARE(m_streams->streamCount(), 1);
        m_streams->send(session, "event", document(600));
        NTRY_COMPARE(page.events().size(), number);
    }
    for (int number = 0; number <= 5; ++number) {
        Page later;
        QVERIFY(later.opens(socketPath(), session, QByteArray::number(number)));
        const QByteArray expected[] = {"missed", "missed", "missed", "event event", "event", ""};
        NTRY_COMPARE(later.types(), expected[number]);
        if (number < 3)
            QCOMPARE(later.replyBody(), Greeting + "id: 5\nevent: missed\ndata: null\n\n");
    }
}

void tst_NwaEventStreams::lastEventIdThatIsNoNumberOfAnEventIsReportedAsMissed_data()
{
    QTest::addColumn<QByteArray>("id");
    QTest::newRow("from the future") << QByteArray("4");
    QTest::newRow("far from the future") << QByteArray("18446744073709551615");
    QTest::newRow("more than 64 bits") << QByteArray("18446744073709551616");
    QTest::newRow("huge") << QByteArray(1000, '1');
    QTest::newRow("negative") << QByteArray("-1");
    QTest::newRow("sign") << QByteArray("+3");
    QTest::newRow("blank") << QByteArray(" 3");
    QTest::newRow("only a blank") << QByteArray(" ");
    QTest::newRow("word") << QByteArray("last");
    QTest::newRow("number and word") << QByteArray("3x");
    QTest::newRow("fraction") << QByteArray("3.0");
    QTest::newRow("hexadecimal") << QByteArray("0x3");
    QTest::newRow("null character") << QByteArray("3\0", 2);
    QTest::newRow("other bytes") << QByteArray("\xff\xd9\xa3");
}

void tst_NwaEventStreams::lastEventIdThatIsNoNumberOfAnEventIsReportedAsMissed()
{
    QFETCH(QByteArray, id);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    for (int number = 1; number <= 3; ++number)
        m_streams->send(session, "event", number);
    Page later;
    QVERIFY(later.opens(socketPath(), session, id));
    QCOMPARE(later.replyBody(), Greeting + "id: 3\nevent: missed\ndata: null\n\n");
}

void tst_NwaEventStreams::emptyLastEventIdIsNone()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "event", 1);
    Page later;
    QVERIFY(later.opens(socketPath(), session, ""));
    QCOMPARE(later.replyBody(), beginning(1));
}

void tst_NwaEventStreams::pageContinuesAfterItWasToldThatItMissedEvents_data()
{
    QTest::addColumn<int>("earlierEvents");
    QTest::newRow("before any event") << 0;
    QTest::newRow("after events") << 3;
}

void tst_NwaEventStreams::pageContinuesAfterItWasToldThatItMissedEvents()
{
    QFETCH(int, earlierEvents);
    for (int number = 0; number < earlierEvents; ++number)
        m_streams->sendToAll("event", number);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.follow(socketPath(), session, "1000"));
    NTRY_COMPARE(page.types(), QByteArray("missed"));
    QCOMPARE(page.lastEventId(), QByteArray::number(earlierEvents));
    m_streams->send(session, "next", 1);
    Page later;
    QVERIFY(later.follow(socketPath(), session, page.lastEventId()));
    NTRY_COMPARE(later.types(), QByteArray("next"));
}

void tst_NwaEventStreams::eventsAreKeptForTheKeptTime()
{
    m_streams->setHeartbeatInterval(60);
    m_streams->setKeptTime(150);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session, "0"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    // The first heartbeat may come at once.
    for (int count = 0; count < 3; ++count)
        QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    m_streams->send(session, "event", 1);
    QVERIFY(page.follow(socketPath(), session, "0"));
    NTRY_COMPARE(page.types(), QByteArray("event"));
}

void tst_NwaEventStreams::eventsAreDroppedAfterTheKeptTime()
{
    m_streams->setHeartbeatInterval(60);
    m_streams->setKeptTime(150);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "event", 1);
    NTRY_COMPARE(page.types(), QByteArray("event"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    for (int count = 0; count < 4; ++count)
        QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    // An event that was not collected is missed, even though there is none to report it with.
    m_streams->send(session, "event", 2);
    QVERIFY(page.follow(socketPath(), session, "1"));
    NTRY_COMPARE(page.types(), QByteArray("missed"));
    QCOMPARE(page.lastEventId(), QByteArray("2"));
}

void tst_NwaEventStreams::extremeTimesAreAccepted()
{
    const int maximum = std::numeric_limits<int>::max();
    QTimer* const heartbeat = m_streams->findChild<QTimer*>();
    m_streams->setHeartbeatInterval(0);
    QCOMPARE(heartbeat->interval(), 1000);
    m_streams->setHeartbeatInterval(-maximum);
    QCOMPARE(heartbeat->interval(), 1000);
    m_streams->setHeartbeatInterval(maximum);
    QCOMPARE(heartbeat->interval(), maximum / 1000 * 1000);
    m_streams->setKeptTime(maximum);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session, "0"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    QVERIFY(NTest::fireTimer(heartbeat));
    m_streams->send(session, "event", 1);
    QVERIFY(page.follow(socketPath(), session, "0"));
    NTRY_COMPARE(page.types(), QByteArray("event"));

    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    m_streams->setKeptTime(-1);
    QVERIFY(NTest::fireTimer(heartbeat));
    QVERIFY(page.follow(socketPath(), session, "0"));
    NTRY_COMPARE(page.types(), QByteArray("missed"));
}

void tst_NwaEventStreams::latestEventIsAlwaysKept_data()
{
    QTest::addColumn<int>("keptSize");
    QTest::newRow("nothing") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("less than an event") << 1000;
}

void tst_NwaEventStreams::latestEventIsAlwaysKept()
{
    QFETCH(int, keptSize);
    m_streams->setKeptSize(keptSize);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    for (int number = 1; number <= 3; ++number) {
        m_streams->send(session, "event", document(100000));
        NTRY_COMPARE(page.events().size(), number);
    }
    Page later;
    QVERIFY(later.follow(socketPath(), session, "2"));
    NTRY_COMPARE(later.types(), QByteArray("event"));
    QCOMPARE(later.events().first().data.size(), 100002);
}

// One stream for each session, and a limited number of them

void tst_NwaEventStreams::laterStreamReplacesTheEarlier()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "first", 1);
    Page later;
    QVERIFY(later.follow(socketPath(), session));
    NTRY_VERIFY(page.hasEnded());
    QCOMPARE(page.replyBody(), beginning() + "id: 1\nevent: first\ndata: 1\n\nevent: replaced\ndata: null\n\n");
    m_streams->send(session, "second", 2);
    NTRY_COMPARE(later.types(), QByteArray("second"));
    QCOMPARE(page.types(), QByteArray("first replaced"));
    QCOMPARE(m_streams->streamCount(), 1);
}

void tst_NwaEventStreams::thousandStreamsReplaceOneAnother()
{
    const QUuid session = newSession();
    std::vector<NFileDescriptor> clients;
    const NFcgiClient::Params params = NFcgiClient::variables("/stream")
                                       << qMakePair(QByteArray("SESSION"), session.toString().toLatin1());
    for (int count = 0; count < 1000; ++count) {
        NFileDescriptor client = connectedSocket();
        QVERIFY(sendRequest(client, params));
        // Some of the clients never read, and some have gone already.
        if (count % 4 != 0)
            clients.push_back(std::move(client));
        if (count % 8 == 0)
            QCoreApplication::processEvents();
        m_streams->send(session, "event", document(1000));
        if (clients.size() > 100)
            clients.erase(clients.begin());
    }
    clients.clear();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    QCOMPARE(m_streams->streamCount(), 1);
    NTRY_COMPARE(m_server->connectionCount(), 1);
    m_streams->send(session, "last", 1);
    NTRY_VERIFY(page.types().endsWith("last"));
    NTRY_COMPARE(m_streams->children().size(), 2); // the timer and one reply
}

void tst_NwaEventStreams::headLeavesTheStreamOpen()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    Page other;
    QVERIFY(other.connectToPath(socketPath()) && other.request("HEAD", session));
    NTRY_VERIFY(other.hasEnded());
    QCOMPARE(other.status(), 200);
    QVERIFY(other.output().contains("Content-Type: text/event-stream; charset=utf-8\r\n"));
    QCOMPARE(other.replyBody(), QByteArray());
    m_streams->send(session, "next", 1);
    NTRY_COMPARE(page.types(), QByteArray("next"));
}

void tst_NwaEventStreams::requestThatIsGoneLeavesTheStreamOpen()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    NFcgiTestService slowService;
    m_server->registerService(text("/stream"), &slowService);
    Page gone;
    QVERIFY(gone.follow(socketPath(), session));
    NTRY_COMPARE(slowService.count(), 1);
    gone.disconnectNow();
    NTRY_VERIFY(slowService.request()->isAborted());
    open(slowService.request());
    QVERIFY(!slowService.request());
    m_streams->send(session, "next", 1);
    NTRY_COMPARE(page.types(), QByteArray("next"));
}

void tst_NwaEventStreams::tooManyStreamsAreAnswered503()
{
    m_streams->setMaximumStreamCount(2);
    const QUuid sessions[] = {newSession(), newSession(), newSession()};
    Page pages[3];
    for (int index = 0; index < 2; ++index) {
        QVERIFY(pages[index].opens(socketPath(), sessions[index]));
    }
    QVERIFY(pages[2].follow(socketPath(), sessions[2]));
    NTRY_VERIFY(pages[2].hasEnded());
    QCOMPARE(pages[2].status(), 503);
    // A session that has one may open another.
    Page later;
    QVERIFY(later.opens(socketPath(), sessions[1]));
    NTRY_COMPARE(pages[1].types(), QByteArray("replaced"));

    m_streams->setMaximumStreamCount(0);
    m_streams->sendToAll("news", 1);
    NTRY_COMPARE(pages[0].types(), QByteArray("news"));
    NTRY_COMPARE(later.types(), QByteArray("news"));
    m_sessions->removeSession(sessions[0]);
    m_sessions->removeSession(sessions[1]);
    QVERIFY(pages[2].opens(socketPath(), sessions[2]));
}

void tst_NwaEventStreams::keptEventsMakeRoomForAStream()
{
    m_streams->setMaximumStreamCount(2);
    const QUuid first = newSession();
    const QUuid second = newSession();
    for (const QUuid& session : {first, second}) {
        Page page;
        QVERIFY(page.opens(socketPath(), session, "0"));
        page.disconnectNow();
        NTRY_COMPARE(m_streams->streamCount(), 0);
        QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    }
    m_streams->send(first, "event", 1);
    m_streams->send(second, "event", 2);
    Page third;
    QVERIFY(third.opens(socketPath(), newSession()));
    Page page;
    QVERIFY(page.follow(socketPath(), second, "0"));
    NTRY_COMPARE(page.types(), QByteArray("event"));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 1);
    QVERIFY(page.follow(socketPath(), first, "0"));
    NTRY_COMPARE(page.types(), QByteArray("missed"));
}

// Ends

void tst_NwaEventStreams::streamEndsWithItsSession()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "last", 1);
    m_sessions->removeSession(session);
    m_streams->send(session, "late", 2);
    QCOMPARE(m_streams->streamCount(), 0);
    NTRY_VERIFY(page.hasEnded());
    QCOMPARE(page.types(), QByteArray("last"));
    NTRY_COMPARE(m_streams->children().size(), 1);
}

void tst_NwaEventStreams::keptEventsEndWithTheirSession()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    m_streams->send(session, "event", document(5000));
    m_sessions->removeSession(session);
    QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    QVERIFY(!m_streams->findChild<QTimer*>()->isActive());
}

/** Opens a stream for a session that is being removed. */
class LateOpener : public QObject
{
    Q_OBJECT

public:
    LateOpener(Page* page, const QString& socketPath)
        : m_page(page)
        , m_socketPath(socketPath)
    {
    }

public slots:
    void follow(const QUuid& session)
    {
        QVERIFY(m_page->follow(m_socketPath, session));
        NTRY_VERIFY(m_page->isFollowing());
    }

private:
    Page* const m_page;
    const QString m_socketPath;
};

void tst_NwaEventStreams::streamThatIsOpenedWhileItsSessionEndsIsEnded()
{
    const QUuid session = newSession();
    Page page;
    LateOpener opener(&page, socketPath());
    connect(m_sessions.data(), SIGNAL(aboutToRemove(QUuid)), &opener, SLOT(follow(QUuid)));
    m_sessions->removeSession(session);
    QCOMPARE(m_streams->streamCount(), 1);
    QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    QCOMPARE(m_streams->streamCount(), 0);
    NTRY_VERIFY(page.hasEnded());
}

void tst_NwaEventStreams::streamsEndWithTheSessionManager()
{
    Page pages[2];
    for (Page& page : pages) {
        QVERIFY(page.opens(socketPath(), newSession()));
    }
    m_sessions.reset();
    QCOMPARE(m_streams->streamCount(), 0);
    for (Page& page : pages)
        NTRY_VERIFY(page.hasEnded());
    QVERIFY(NTest::fireTimer(m_streams->findChild<QTimer*>()));
    m_streams->sendToAll("late", 1);
}

void tst_NwaEventStreams::streamsEndWithTheirObject()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "late", 1);
    m_streams.reset();
    NTRY_VERIFY(page.hasEnded());
    QCOMPARE(page.types(), QByteArray());
    NTRY_COMPARE(m_server->connectionCount(), 0);
    m_sessions->removeSession(session);
}

void tst_NwaEventStreams::serviceMayDeleteTheStreams()
{
    const QUuid session = newSession();
    NFcgiTestService service([this](NwaFcgiRequest* request) {
        open(request);
        m_streams->sendToAll("late", 1);
        m_streams.reset();
    });
    m_server->registerService(text("/stream"), &service);
    Page page;
    QVERIFY(page.follow(socketPath(), session));
    NTRY_VERIFY(page.hasEnded());
    QCOMPARE(page.status(), 200);
    QVERIFY(!m_streams);
}

void tst_NwaEventStreams::streamsEndWithTheServer()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    m_streams->send(session, "late", 1);
    m_server.reset();
    m_streams->send(session, "later", 2);
    NTRY_VERIFY(page.isClosed());
    NTRY_COMPARE(m_streams->streamCount(), 0);
    QCOMPARE(m_streams->children().size(), 1);
}

void tst_NwaEventStreams::streamEndsWithItsClient()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.disconnectNow();
    NTRY_COMPARE(m_streams->streamCount(), 0);
    NTRY_COMPARE(m_streams->children().size(), 1);
    QCOMPARE(m_server->connectionCount(), 0);
}

// Heartbeats and slow clients

void tst_NwaEventStreams::heartbeatsAreSentInQuietTimes()
{
    m_streams->setHeartbeatInterval(1);
    Page page;
    QVERIFY(page.follow(socketPath(), newSession()));
    NTRY_COMPARE(page.replyBody(), beginning() + ":\n\n:\n\n");
}

void tst_NwaEventStreams::quietStreamOutlivesTheStallTimeout()
{
    setStallTimeout(1);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    QVERIFY(waitForStallTimeouts());
    m_streams->send(session, "next", 1);
    NTRY_COMPARE(page.types(), QByteArray("next"));
}

void tst_NwaEventStreams::heartbeatsStopWithTheLastStream()
{
    QTimer* const heartbeat = m_streams->findChild<QTimer*>();
    QVERIFY(!heartbeat->isActive());
    m_streams->setKeptTime(0);
    const QUuid session = newSession();
    Page page;
    for (int round = 0; round < 2; ++round) {
        QVERIFY(page.opens(socketPath(), session));
        QVERIFY(NTest::fireTimer(heartbeat));
        QVERIFY(heartbeat->isActive());
        page.disconnectNow();
        NTRY_COMPARE(m_streams->streamCount(), 0);
        QVERIFY(NTest::fireTimer(heartbeat));
        QVERIFY(!heartbeat->isActive());
    }
}

void tst_NwaEventStreams::slowReaderIsDropped()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.stopReceiving();
    QVERIFY(sendUntilBlocked(page, session));
    page.startReceiving();
    NTRY_VERIFY(page.hasEnded());
    QVERIFY(page.events().size() > 1);
    QVERIFY(page.lastEventId().toInt() < LargeSize / 4000);
    QCOMPARE(page.events().size(), page.lastEventId().toInt());
    Page later;
    QVERIFY(later.follow(socketPath(), session, page.lastEventId()));
    NTRY_COMPARE(later.types(), QByteArray("missed"));
}

void tst_NwaEventStreams::stalledReaderIsDropped()
{
    setStallTimeout(1);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.stopReceiving();
    QVERIFY(sendUntilBlocked(page, session));
    NTRY_COMPARE(m_streams->streamCount(), 0);
    QCOMPARE(m_server->connectionCount(), 0);
    page.startReceiving();
    NTRY_VERIFY(page.isClosed());
    QVERIFY(!page.hasEnded());
}

void tst_NwaEventStreams::stalledReaderIsDroppedInSpiteOfHeartbeats()
{
    setStallTimeout(2);
    m_streams->setHeartbeatInterval(1);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.stopReceiving();
    QVERIFY(sendUntilBlocked(page, session));
    NTRY_COMPARE(m_server->connectionCount(), 0);
    NTRY_COMPARE(m_streams->streamCount(), 0);
}

void tst_NwaEventStreams::replacedStreamThatIsNotReadIsDropped()
{
    setStallTimeout(1);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.stopReceiving();
    QVERIFY(sendUntilBlocked(page, session));
    Page later;
    QVERIFY(later.opens(socketPath(), session));
    NTRY_COMPARE(m_server->connectionCount(), 1);
    QVERIFY(!later.hasEnded());
    NTRY_COMPARE(m_streams->children().size(), 2);
}

void tst_NwaEventStreams::eventsBeyondTheKeptSizeInOneGoDropTheStream()
{
    m_streams->setKeptSize(2000);
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session, "0"));
    m_streams->send(session, "first", 1);
    NTRY_COMPARE(page.types(), QByteArray("first"));
    for (int number = 2; number <= 5; ++number)
        m_streams->send(session, "event", document(600));
    NTRY_VERIFY(page.hasEnded());
    QCOMPARE(page.types(), QByteArray("first"));
    QVERIFY(page.follow(socketPath(), session, page.lastEventId()));
    NTRY_COMPARE(page.types(), QByteArray("missed"));
    QCOMPARE(page.lastEventId(), QByteArray("5"));
}

void tst_NwaEventStreams::clientThatIsDroppedAndReplacedIsToldNotToReturn()
{
    const QUuid session = newSession();
    Page page;
    QVERIFY(page.opens(socketPath(), session));
    page.stopReceiving();
    QVERIFY(sendUntilBlocked(page, session));
    Page later;
    QVERIFY(later.opens(socketPath(), session));
    page.startReceiving();
    NTRY_VERIFY(page.hasEnded());
    QVERIFY(page.types().endsWith("large replaced"));
}

// Memory

void tst_NwaEventStreams::thousandRoundsLeaveMemoryAndDescriptorsFlat()
{
    const QUuid lastingSession = newSession();
    qint64 allocated = 0;
    int descriptors = 0;
    for (int round = 0; round <= 1000; ++round) {
        const QUuid session = round % 2 == 0 ? lastingSession : newSession();
        Page page;
        QVERIFY(page.follow(socketPath(), session));
        QVERIFY(becomes([&]() { return page.isFollowing(); }));
        m_streams->send(session, "event", document(1000));
        if (round % 3 == 0)
            m_sessions->removeSession(round % 2 == 0 ? QUuid() : session);
        else if (round % 3 == 1)
            QCoreApplication::processEvents();
        page.disconnectNow();
        QVERIFY(becomes([&]() { return m_server->connectionCount() == 0; }));
        if (session != lastingSession)
            m_sessions->removeSession(session);
        if (round == 200) {
            allocated = NTest::allocatedBytes();
            descriptors = NTest::openDescriptors();
        }
    }
    QCOMPARE(NTest::openDescriptors(), descriptors);
    NTRY_COMPARE(m_streams->children().size(), 1);
    const qint64 growth = NTest::allocatedBytes() - allocated;
    QVERIFY2(growth < 32 * 1024, QByteArray::number(growth).constData());
}

void tst_NwaEventStreams::hundredStreamsTakeLessThanTwoMegabytes_data()
{
    QTest::addColumn<int>("documentSize");
    QTest::addColumn<bool>("isRead");
    QTest::newRow("small events") << 1 << true;
    QTest::newRow("medium events") << 200 << true;
    QTest::newRow("large events") << 4000 << true;
    QTest::newRow("small events, not read") << 1 << false;
    QTest::newRow("medium events, not read") << 200 << false;
    QTest::newRow("large events, not read") << 4000 << false;
}

void tst_NwaEventStreams::hundredStreamsTakeLessThanTwoMegabytes()
{
    QFETCH(int, documentSize);
    QFETCH(bool, isRead);
    setStallTimeout(3600); // however slow the machine is
    const size_t count = 100;
    std::vector<QUuid> sessions;
    std::vector<NFileDescriptor> clients;
    std::vector<char> received(1024 * 1024);
    const qint64 before = NTest::allocatedBytes();
    for (size_t index = 0; index < count; ++index) {
        sessions.push_back(newSession());
        clients.push_back(connectedSocket());
        NFcgiClient::Params params = NFcgiClient::variables("/stream");
        params << qMakePair(QByteArray("SESSION"), sessions.back().toString().toLatin1())
               << qMakePair(QByteArray("HTTP_COOKIE"), QByteArray(60, 'c'))
               << qMakePair(QByteArray("HTTP_USER_AGENT"), QByteArray(120, 'a'));
        QVERIFY(sendRequest(clients.back(), params));
    }
    NTRY_COMPARE(m_streams->streamCount(), int(count));
    // The kernel and then the connections hold all they can for clients that do not read.
    for (int sent = 0; !isRead && sent < 300 * 1024; sent += 5 * 1500)
        sendToEach(sessions, 5, 1500);
    for (int sent = 0; sent < 2 * NwaEventStreams::DefaultKeptSize; sent += documentSize + 60) {
        sendToEach(sessions, 1, documentSize);
        for (size_t index = 0; isRead && index < count; ++index)
            ::recv(clients[index].number(), received.data(), received.size(), 0);
    }
    QCOMPARE(m_streams->streamCount(), int(count));
    const qint64 taken = NTest::allocatedBytes() - before;
    QVERIFY2(taken < 2 * 1024 * 1024, QByteArray::number(taken).constData());
}

QTEST_MAIN(tst_NwaEventStreams)
#include "tst_nwaeventstreams.moc"
