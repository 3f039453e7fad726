#include "nbase/network/nrunnerservicetest.h"

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwawebsession.h>

#include "nbase/network/nrunnertest.h"
#include "support/ntestwait.h"

#include <ostream>

namespace {

typedef NNetworkRunnerFcgiRequestProcessor Processor;

QString text(const QByteArray& latin1)
{
    return QString::fromLatin1(latin1);
}

// Records whether the command still exists when the reply begins and when it is complete.
class WatchingChannel : public NMemoryChannel
{
public:
    WatchingChannel(const NFakeCommand& command, const QByteArray& body)
        : NMemoryChannel(body)
        , commandWasAlive(false)
        , m_command(command)
    {
    }

    bool write(Stream stream, const char* data, int size) override
    {
        commandWasAlive = commandWasAlive || m_command.isAnyRunning();
        return NMemoryChannel::write(stream, data, size);
    }

    void finish() override
    {
        commandWasAlive = commandWasAlive || m_command.isAnyRunning();
        NMemoryChannel::finish();
    }

    bool commandWasAlive;

private:
    const NFakeCommand& m_command;
};

} // namespace

NRunnerServiceTest::NRunnerServiceTest(const char* test)
    : m_test(test)
    , m_processor(nullptr)
    , m_descriptors(0)
{
}

NRunnerServiceTest::~NRunnerServiceTest() {}

// Qt opens a pipe for the signals of children when the first one is started.
void NRunnerServiceTest::initTestCase()
{
    QProcess::execute(text("/bin/true"), QStringList());
}

void NRunnerServiceTest::init()
{
    m_descriptors = NTest::descriptorCount();
    m_command.reset(); // after a failure; it restores the search path
    m_command.reset(new NFakeCommand(m_test));
    m_command->setScript("echo '64 bytes from 10.0.0.1: icmp_seq=1 ttl=64 time=0.123 ms'");
    m_sessions.reset(new NwaWebSessionManager);
    m_identifier.reset(new NFixedSession(nullptr));
    useNewSession();
    m_channel.reset();
    m_events.clear();
    m_onEvent = nullptr;
    makeService();
}

void NRunnerServiceTest::cleanup()
{
    delete m_service;
    m_sessions.reset();
    NTest::deleteDeferred();
    QVERIFY(!NTest::hasChild());
    QVERIFY(!m_command->isAnyRunning());
    QCOMPARE(NTest::descriptorCount(), m_descriptors);
    m_command.reset();
}

void NRunnerServiceTest::makeService(bool refuses)
{
    delete m_service;
    m_processor = newProcessor(refuses);
    m_service = newService(m_processor);
}

void NRunnerServiceTest::useNewSession()
{
    m_identifier->session = m_sessions->createSession();
    m_identifier->session->setUserName(text(QByteArray::number(m_sessions->sessionCount())));
}

void NRunnerServiceTest::endSession()
{
    const QUuid id = m_identifier->session->id();
    m_identifier->session = nullptr;
    m_sessions->removeSession(id);
}

void NRunnerServiceTest::recordEvent(const QUuid& sessionId, bool isRunning)
{
    const NwaWebSession* const session = sessionId.isNull() ? nullptr : m_sessions->session(sessionId);
    const QString event = (session ? session->userName() : text("none")) + text(isRunning ? " running" : " ended");
    m_events.append(event);
    if (m_onEvent)
        m_onEvent(event);
}

void NRunnerServiceTest::request(
    const QByteArray& method, const QByteArray& body, const QByteArray& query, const QByteArray& contentType)
{
    NwaCgiRequest::Variables variables = nVariables(
        "REQUEST_METHOD", method, "SCRIPT_NAME", "/api/service", "PATH_INFO", "/more", "QUERY_STRING", query);
    variables.insert("CONTENT_TYPE", contentType);
    variables.insert("CONTENT_LENGTH", QByteArray::number(body.size()));
    m_channel.reset(new NMemoryChannel(body));
    m_service->processRequest(new NwaFcgiRequest(m_channel.data(), variables));
    QCOMPARE(m_channel->finishCount, 1);
}

int NRunnerServiceTest::status() const
{
    const QByteArray header = m_channel->header();
    return header.startsWith("Status: ") ? header.mid(8, 3).toInt() : 200;
}

bool NRunnerServiceTest::succeeds(const QByteArray& method, const QByteArray& body)
{
    request(method, body);
    return status() == 200;
}

QVariantMap NRunnerServiceTest::reply() const
{
    return NwaJson::parse(m_channel->body(), nullptr).toMap();
}

bool NRunnerServiceTest::waitForEnd()
{
    return NTest::waitUntil([&]() { return succeeds("GET") && !reply().value(text("started")).toBool(); });
}

void NRunnerServiceTest::namesAndLimitsAreFixed()
{
    QCOMPARE(Processor::S_STREAM_FIELD_NAME, text("stream"));
    QCOMPARE(Processor::S_SECTION_FIELD_NAME, text("section"));
    QCOMPARE(Processor::S_STATE_SECTION_NAME, text("state"));
    QCOMPARE(m_processor->maximumRunnerCount(), 32);
}

void NRunnerServiceTest::requestWithoutSessionIsAnswered401()
{
    QVERIFY(succeeds("POST", startBody()));
    m_identifier->session = nullptr;
    const QList<QByteArray> methods = QList<QByteArray>() << "GET"
                                                          << "POST"
                                                          << "DELETE";
    for (const QByteArray& method : methods) {
        request(method, startBody());
        QCOMPARE(status(), 401);
        QCOMPARE(m_channel->remarks, QByteArray());
    }
    QVERIFY(!m_identifier->wasPassive);
}

void NRunnerServiceTest::refusedSessionIsAnswered403BeforeItsBodyIsRead()
{
    makeService(true);
    const QList<QByteArray> methods = QList<QByteArray>() << "GET"
                                                          << "POST"
                                                          << "DELETE";
    for (const QByteArray& method : methods) {
        request(method, "no JSON");
        QCOMPARE(status(), 403);
        QCOMPARE(m_channel->remarks, QByteArray());
    }
    request("POST", startBody());
    QCOMPARE(status(), 403);
    QVERIFY(m_events.isEmpty());
}

void NRunnerServiceTest::otherPathsAreAnswered405_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::newRow("nothing") << QByteArray("");
    QTest::newRow("other section") << QByteArray("section=parameters");
    QTest::newRow("empty section") << QByteArray("section=");
    QTest::newRow("section twice") << QByteArray("section=state&section=state");
    QTest::newRow("two sections") << QByteArray("section=state&section=other");
    QTest::newRow("capital letter") << QByteArray("section=State");
    QTest::newRow("capital letter in the name") << QByteArray("Section=state");
    QTest::newRow("stream") << QByteArray("stream=state");
}

void NRunnerServiceTest::otherPathsAreAnswered405()
{
    QFETCH(QByteArray, query);
    const QList<QByteArray> methods = QList<QByteArray>() << "GET"
                                                          << "HEAD"
                                                          << "POST"
                                                          << "DELETE";
    // Before the session is looked for.
    m_identifier->session = nullptr;
    for (const QByteArray& method : methods) {
        request(method, method == "HEAD" ? QByteArray() : startBody(), query);
        QCOMPARE(status(), 405);
        QVERIFY(m_channel->header().contains("\r\nAllow: GET, HEAD, POST, DELETE\r\n"));
    }
    QVERIFY(m_events.isEmpty());
}

void NRunnerServiceTest::otherMethodsAreAnswered405_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("PUT") << QByteArray("PUT");
    QTest::newRow("PATCH") << QByteArray("PATCH");
    QTest::newRow("OPTIONS") << QByteArray("OPTIONS");
    QTest::newRow("post") << QByteArray("post");
}

void NRunnerServiceTest::otherMethodsAreAnswered405()
{
    QFETCH(QByteArray, method);
    request(method, startBody());
    QCOMPARE(status(), 405);
    QVERIFY(m_channel->header().contains("\r\nAllow: GET, HEAD, POST, DELETE\r\n"));
}

void NRunnerServiceTest::invalidBodiesAreAnswered400()
{
    QList<QByteArray> bodies = invalidBodies();
    bodies << ""
           << "x"
           << "null"
           << "\"h\""
           << "[]"
           << "{}";
    const QList<QByteArray> hosts = QList<QByteArray>() << "1"
                                                        << "null"
                                                        << "[\"h\"]"
                                                        << "\"\""
                                                        << "\" h\""
                                                        << "\"a_b\""
                                                        << "\"a!\""
                                                        << "\"-f\""
                                                        << "\"a b\""
                                                        << "\"256.0.0.1\""
                                                        << "\"10.0.0.0/8\""
                                                        << "\"::1\""
                                                        << "\"h\\u0000\"";
    for (const QByteArray& host : hosts)
        bodies.append(startBody().replace("\"h\"", host));
    for (const QByteArray& body : bodies) {
        request("POST", body);
        QVERIFY2(status() == 400, body.constData());
    }
    request("GET");
    QCOMPARE(status(), 404);
    QVERIFY(m_events.isEmpty());

    // Also while a test runs, whose conflict comes second.
    m_command->setScript(NEndlessScript);
    QVERIFY(succeeds("POST", startBody()));
    request("POST", "{}");
    QCOMPARE(status(), 400);
    QVERIFY(succeeds("DELETE"));
}

void NRunnerServiceTest::formIsAnswered415()
{
    request("POST", "--x--", "section=state", "multipart/form-data; boundary=x");
    QCOMPARE(status(), 415);
}

void NRunnerServiceTest::sessionWithoutRunnerIsAnswered404()
{
    const QList<QByteArray> methods = QList<QByteArray>() << "GET"
                                                          << "DELETE";
    for (const QByteArray& method : methods) {
        request(method);
        QCOMPARE(status(), 404);
        QCOMPARE(m_channel->remarks, QByteArray());
    }
    QVERIFY(m_events.isEmpty());
}

void NRunnerServiceTest::startIsAnsweredWithTheState()
{
    QVERIFY(succeeds("POST", startBody()));
    QCOMPARE(m_channel->header(), QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
    QCOMPARE(m_channel->remarks, QByteArray());
    QCOMPARE(reply().value(text("started")), QVariant(true));
    QCOMPARE(m_events, QStringList(text("1 running")));
    QVERIFY(!m_identifier->wasPassive);
    QVERIFY(waitForEnd());
    QCOMPARE(m_channel->header(), QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
    QCOMPARE(m_events, text("1 running,1 running,1 ended").split(QLatin1Char(',')));
}

void NRunnerServiceTest::headIsAnsweredWithoutTheState()
{
    QVERIFY(succeeds("POST", startBody()));
    request("HEAD");
    QCOMPARE(m_channel->output, QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
}

void NRunnerServiceTest::pollConsumesNothing()
{
    QVERIFY(succeeds("POST", startBody()));
    QVERIFY(waitForEnd());
    const QByteArray first = m_channel->body();
    QVERIFY(succeeds("GET"));
    QCOMPARE(m_channel->body(), first);
    QVERIFY(succeeds("DELETE"));
    QCOMPARE(m_channel->body(), first);
}

void NRunnerServiceTest::startOfARunningRunnerIsAnswered409()
{
    m_command->setScript(NEndlessScript);
    QVERIFY(succeeds("POST", startBody()));
    const QByteArray state = m_channel->body();
    request("POST", startBody().replace("\"h\"", "\"i\""));
    QCOMPARE(status(), 409);
    QCOMPARE(
        m_channel->remarks, "Error in request processor for request to script \"/api/service\" with path info "
                            "\"/more\": cannot start a " +
                                m_test + " because there is already a running one");
    QVERIFY(succeeds("GET"));
    QCOMPARE(m_channel->body(), state);
    QCOMPARE(m_events.size(), 1);
}

void NRunnerServiceTest::startAfterTheEndRestarts()
{
    QVERIFY(succeeds("POST", startBody()));
    const QByteArray state = m_channel->body();
    QVERIFY(waitForEnd());
    QVERIFY(m_channel->body() != state);
    QVERIFY(succeeds("POST", startBody().replace("\"h\"", "\"i\"")));
    QCOMPARE(m_channel->body(), QByteArray(state).replace("\"h\"", "\"i\""));
    QVERIFY(waitForEnd());
    QCOMPARE(m_command->callCount(), 2);
}

void NRunnerServiceTest::deleteEndsTheCommandBeforeTheReply()
{
    m_command->setScript(NEndlessScript);
    QVERIFY(succeeds("POST", startBody()));
    const QByteArray state = m_channel->body();
    NTRY_COMPARE(m_command->callCount(), 1);

    WatchingChannel channel(*m_command, QByteArray());
    m_service->processRequest(new NwaFcgiRequest(
        &channel,
        nVariables("REQUEST_METHOD", "DELETE", "SCRIPT_NAME", "/api/service", "QUERY_STRING", "section=state")));
    QCOMPARE(channel.finishCount, 1);
    QVERIFY(!channel.commandWasAlive);
    QCOMPARE(channel.body(), QByteArray(state).replace("\"started\":true", "\"started\":false"));
    // The runner has left its session before it ends.
    QCOMPARE(m_events, text("1 running,none ended").split(QLatin1Char(',')));
    QVERIFY(!NTest::hasChild());
    request("GET");
    QCOMPARE(status(), 404);
    request("DELETE");
    QCOMPARE(status(), 404);
}

void NRunnerServiceTest::deleteOfAnIdleRunnerSendsNoEvent()
{
    QVERIFY(succeeds("POST", startBody()));
    QVERIFY(waitForEnd());
    m_events.clear();
    QVERIFY(succeeds("DELETE"));
    QVERIFY(m_events.isEmpty());
}

void NRunnerServiceTest::sessionsHaveTheirOwnRunners()
{
    m_command->setScript(NEndlessScript);
    NwaWebSession* const first = m_identifier->session;
    QVERIFY(succeeds("POST", startBody()));
    const QByteArray state = m_channel->body();
    useNewSession();
    request("GET");
    QCOMPARE(status(), 404);
    QVERIFY(succeeds("POST", startBody().replace("\"h\"", "\"i\"")));
    QCOMPARE(m_events, text("1 running,2 running").split(QLatin1Char(',')));
    NTRY_COMPARE(m_command->callCount(), 2);

    endSession();
    m_identifier->session = first;
    QVERIFY(succeeds("GET"));
    QCOMPARE(m_channel->body(), state);
    QVERIFY(m_command->isAnyRunning());
}

void NRunnerServiceTest::endOfASessionEndsItsCommand()
{
    m_command->setScript(NEndlessScript);
    QVERIFY(succeeds("POST", startBody()));
    NTRY_COMPARE(m_command->callCount(), 1);
    // The slot is connected after the processor's.
    connect(m_sessions.data(), SIGNAL(aboutToRemove(QUuid)), SLOT(takeEndOfSession()));
    endSession();
    QCOMPARE(m_events.takeLast(), text("command gone"));
    QCOMPARE(m_events, QStringList(text("1 running")));
    // A session without a runner.
    useNewSession();
    endSession();
}

void NRunnerServiceTest::takeEndOfSession()
{
    const bool isGone = !m_command->isAnyRunning() && m_processor->children().isEmpty();
    m_events.append(text(isGone ? "command gone" : "command left"));
}

void NRunnerServiceTest::sessionMayEndInsideAnEvent_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("events");
    QTest::newRow("start") << 1 << text("1 running");
    QTest::newRow("result") << 2 << text("1 running,1 running");
    QTest::newRow("end") << 3 << text("1 running,1 running,1 ended");
}

void NRunnerServiceTest::sessionMayEndInsideAnEvent()
{
    QFETCH(int, number);
    QFETCH(QString, events);
    m_onEvent = [&](const QString&) {
        if (m_events.size() == number)
            endSession();
    };
    request("POST", startBody());
    QCOMPARE(status(), number == 1 ? 401 : 200);
    NTRY_VERIFY(!m_identifier->session);
    QVERIFY(m_processor->children().isEmpty());
    QCoreApplication::processEvents();
    QCOMPARE(m_events, events.split(QLatin1Char(',')));

    // And in the event of a DELETE, when the runner has left it.
    m_onEvent = nullptr;
    useNewSession();
    m_command->setScript(NEndlessScript);
    QVERIFY(succeeds("POST", startBody()));
    m_onEvent = [&](const QString&) { endSession(); };
    QVERIFY(succeeds("DELETE"));
    QCOMPARE(m_events.last(), text("none ended"));
    QVERIFY(m_processor->children().isEmpty());
}

void NRunnerServiceTest::serviceMayBeDeletedInsideAnEvent_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<bool>("isDelete");
    QTest::newRow("start") << 1 << false;
    QTest::newRow("result") << 2 << false;
    QTest::newRow("end") << 3 << false;
    QTest::newRow("DELETE") << 2 << true;
}

void NRunnerServiceTest::serviceMayBeDeletedInsideAnEvent()
{
    QFETCH(int, number);
    QFETCH(bool, isDelete);
    if (isDelete)
        m_command->setScript(NEndlessScript);
    m_onEvent = [&](const QString&) {
        if (m_events.size() == number)
            delete m_service;
    };
    request("POST", startBody());
    QCOMPARE(status(), number == 1 ? 401 : 200);
    if (isDelete) {
        request("DELETE");
        QCOMPARE(status(), 503);
    }
    NTRY_VERIFY(!m_service);
    QCOMPARE(m_events.size(), number);
}

void NRunnerServiceTest::runnersBeyondTheLimitAreAnswered503()
{
    m_processor->setMaximumRunnerCount(2);
    QCOMPARE(m_processor->maximumRunnerCount(), 2);
    QVERIFY(succeeds("POST", startBody()));
    QVERIFY(waitForEnd());
    NwaWebSession* const first = m_identifier->session;
    m_command->setScript(NEndlessScript);
    useNewSession();
    QVERIFY(succeeds("POST", startBody()));

    useNewSession();
    request("POST", "{}");
    QCOMPARE(status(), 400);
    request("POST", startBody());
    QCOMPARE(status(), 503);
    QCOMPARE(
        m_channel->remarks, "Error in request processor for request to script \"/api/service\" with path info "
                            "\"/more\": cannot start a " +
                                m_test + " because other sessions have as many as are allowed");
    request("GET");
    QCOMPARE(status(), 404);

    // A session that has a runner may restart it.
    NwaWebSession* const third = m_identifier->session;
    m_identifier->session = first;
    QVERIFY(succeeds("POST", startBody()));
    request("POST", startBody());
    QCOMPARE(status(), 409);

    // Either end of a runner makes room.
    QVERIFY(succeeds("DELETE"));
    m_identifier->session = third;
    QVERIFY(succeeds("POST", startBody()));
    m_identifier->session = first;
    request("POST", startBody());
    QCOMPARE(status(), 503);
    m_sessions->removeSession(third->id());
    QVERIFY(succeeds("POST", startBody()));

    m_processor->setMaximumRunnerCount(0);
    useNewSession();
    request("POST", startBody());
    QCOMPARE(status(), 503);
}

void NRunnerServiceTest::serviceMakesAndOwnsItsProcessor()
{
    delete m_service;
    m_command->setScript(NEndlessScript);
    QObject parent;
    m_service = newServiceWithOwnProcessor(&parent);
    QVERIFY(m_service->parent() == &parent);
    QVERIFY(succeeds("POST", startBody()));
    QCOMPARE(m_events, QStringList(text("1 running")));
    NTRY_COMPARE(m_command->callCount(), 1);
    delete m_service;
    QVERIFY(!NTest::hasChild());
    QCOMPARE(m_events.size(), 1);
}
