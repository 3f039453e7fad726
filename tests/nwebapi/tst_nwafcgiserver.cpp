#include "nfcgiclient.h"
#include "nfcgitestservice.h"

#include <nsystem/nfiledescriptor_p.h>
#include <nwebapi/nwafcgiserver.h>
#include <support/nallocatedbytes.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QtTest/QtTest>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

Q_DECLARE_METATYPE(NFcgiClient::Params)

namespace {

typedef QPair<QByteArray, QByteArray> Param;

NFcgiClient::Params with(const QByteArray& name, const QByteArray& value, const QByteArray& method = "GET")
{
    return NFcgiClient::variables("/test", method) << Param(name, value);
}

NFcgiClient::Params announcing(const QByteArray& contentLength)
{
    return with("CONTENT_LENGTH", contentLength, "POST");
}

NFcgiClient::Params announcingForm(int size)
{
    return announcing(QByteArray::number(size)) << Param("CONTENT_TYPE", "multipart/form-data; boundary=b");
}

mode_t modeOf(const QString& path)
{
    struct stat status;
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Makes a Unix socket that listens, or one like that of a process that was killed.
int makeSocket(const QString& path, bool listening)
{
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0 ||
        (listening && ::listen(descriptor, 5) != 0))
        qFatal("cannot make a socket");
    return descriptor;
}

} // namespace

/** Makes opening another descriptor fail (EMFILE) until the end of the scope. */
class DescriptorExhaustion
{
public:
    DescriptorExhaustion()
    {
        ::getrlimit(RLIMIT_NOFILE, &m_limit);
        const int next = ::dup(0);
        ::close(next);
        const struct rlimit limit = {rlim_t(next), m_limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }

    ~DescriptorExhaustion() { ::setrlimit(RLIMIT_NOFILE, &m_limit); }

private:
    struct rlimit m_limit;
};

class tst_NwaFcgiServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void listensOnAUnixSocket();
    void socketHasThePermissionsGiven_data();
    void socketHasThePermissionsGiven();
    void socketIsRemovedWhenTheServerEnds();
    void socketOfAnotherServerIsNotRemoved();
    void abandonedSocketIsReplaced();
    void socketInUseIsNotReplaced();
    void otherFileIsNotReplaced();
    void longestPathIsListenedOn();
    void burstOfConnectionsIsQueued();
    void invalidPathIsRefused_data();
    void invalidPathIsRefused();
    void listensOnATcpPort_data();
    void listensOnATcpPort();
    void portInUseIsRefused();
    void invalidAddressIsRefused_data();
    void invalidAddressIsRefused();
    void listensOnAnInheritedDescriptor();
    void descriptorThatDoesNotListenIsRefused_data();
    void descriptorThatDoesNotListenIsRefused();
    void listensElsewhereAfterListening();
    void successClearsTheError();
    void newServerDoesNotListen();

    void requestsGoToTheServiceOfTheirScript();
    void unknownScriptIsAnswered404_data();
    void unknownScriptIsAnswered404();
    void serviceThatIsUnregisteredIsNotFound();
    void serviceThatIsDestroyedIsNotFound();
    void latestServiceOfAScriptIsUsed();
    void serviceMayDeleteTheServer();
    void serviceMayCloseTheServer();
    void serviceMayRunAnEventLoop();
    void serviceMayWaitForAnotherClientInAnEventLoop();

    void capabilitiesAreReported();
    void unknownCapabilitiesAreOmitted();
    void answerToRepeatedQuestionsIsBounded();
    void unknownRecordAboutTheConnectionIsReported_data();
    void unknownRecordAboutTheConnectionIsReported();
    void unknownRoleIsRefused_data();
    void unknownRoleIsRefused();
    void secondRequestAtATimeIsRefused();
    void everyStreamOfTheReplyThatWasUsedIsEnded_data();
    void everyStreamOfTheReplyThatWasUsedIsEnded();
    void keptConnectionCarriesRequestAfterRequest();
    void keptConnectionCarriesRequestsSentAhead();
    void keptConnectionEndsWithItsPeersSending();
    void keptConnectionContinuesAfterAnAbort();
    void paddingIsSkipped();
    void requestCutAtEveryByteIsServed();
    void requestSentByteByByteIsServed();
    void paramsAreJoinedFromAnyRecords();
    void highestRequestIdIsServed();
    void recordsOfOtherRequestsAreIgnored();
    void bodyMayComeBeforeTheParams();
    void dataRecordsAreIgnored();
    void lateParamsAreIgnored();
    void garbageClosesTheConnection_data();
    void garbageClosesTheConnection();

    void badRequestIsAnsweredWithAnError_data();
    void badRequestIsAnsweredWithAnError();
    void badHeadRequestIsAnsweredWithoutABody_data();
    void badHeadRequestIsAnsweredWithoutABody();
    void goodRequestNearALimitIsServed_data();
    void goodRequestNearALimitIsServed();
    void bodyBeyondTheLimitIsAnswered413_data();
    void bodyBeyondTheLimitIsAnswered413();
    void hugeBodyBeforeTheParamsIsDropped();
    void formIsNotLimitedByTheBodyLimit_data();
    void formIsNotLimitedByTheBodyLimit();
    void partOfAFormThatWasReadIsNotHeld();
    void requestBeyondTheLimitOfAllConnectionsIsAnswered503_data();
    void requestBeyondTheLimitOfAllConnectionsIsAnswered503();
    void completeRequestIsServedAtTheLimitOfAllConnections_data();
    void completeRequestIsServedAtTheLimitOfAllConnections();
    void restOfARefusedRequestIsDiscarded();
    void heldBytesAreReleasedWithTheConnection();
    void queuedReplyCountsForTheLimitOfAllConnections();
    void unreadBodyCountsForTheLimitOfAllConnections();
    void clientsThatSendAheadAndReadNothingDoNotAffectOthers();
    void tenMegabytesOfQueryAreAnswered414();
    void clientCannotForgeAHeaderField_data();
    void clientCannotForgeAHeaderField();

    void silentClientsAreDroppedWhileOthersAreServed();
    void slowServiceDoesNotEndTheConnection();
    void serviceMayPauseWithinItsReply();
    void clientThatDoesNotReadItsReplyIsDropped();
    void replyBeyondTheBufferDropsTheConnection();
    void replyOfPiecesOfAnySizeArrivesAsItIs_data();
    void replyOfPiecesOfAnySizeArrivesAsItIs();
    void serviceIsNotifiedWhenItsReplyIsSent();
    void answersThatAreNotReadAreBounded();
    void errorReplyMayBreakTheConnection();
    void clientMayDisconnectAnywhere_data();
    void clientMayDisconnectAnywhere();
    void clientThatEndsItsSendingGetsItsReply_data();
    void clientThatEndsItsSendingGetsItsReply();
    void clientThatEndsItsSendingTooEarlyIsDropped();
    void disconnectionIsNoticedWhileTheBodyWaits_data();
    void disconnectionIsNoticedWhileTheBodyWaits();
    void clientThatEndsItsSendingWhileItsBodyWaitsGetsItsReply_data();
    void clientThatEndsItsSendingWhileItsBodyWaitsGetsItsReply();
    void connectionsBeyondTheLimitWait();
    void acceptingResumesAfterALackOfDescriptors();
    void limitsAreAtLeastOne();

private:
    QString socketPath() const;
    QString path(const char* name) const;
    void setUpLimits(void (*change)(NwaFcgiLimits&));
    bool connectOverTcp();
    bool answers();
    bool isServed(NFcgiClient& client, const QByteArray& expected = "GET");

    QScopedPointer<NTemporaryDirectory> m_directory;
    NwaFcgiServer* m_server;
    QScopedPointer<NFcgiTestService> m_service;
    QScopedPointer<NFcgiClient> m_client;
    int m_openDescriptors;
};

void tst_NwaFcgiServer::init()
{
    m_openDescriptors = NTest::openDescriptors();
    m_directory.reset(new NTemporaryDirectory);
    m_server = new NwaFcgiServer;
    m_service.reset(new NFcgiTestService(
        [](NwaFcgiRequest* request) { NTest::reply(request, request->variable("REQUEST_METHOD")); }));
    m_server->registerService(QString::fromLatin1("/test"), m_service.data());
    QVERIFY2(m_server->listenOnPath(socketPath()), qPrintable(m_server->errorString()));
    m_client.reset(new NFcgiClient);
    QVERIFY(m_client->connectToPath(socketPath()));
}

void tst_NwaFcgiServer::cleanup()
{
    m_client.reset();
    m_service.reset();
    delete m_server;
    m_server = nullptr;
    m_directory.reset();
    QCOMPARE(NTest::openDescriptors(), m_openDescriptors);
}

QString tst_NwaFcgiServer::socketPath() const
{
    return path("socket");
}

QString tst_NwaFcgiServer::path(const char* name) const
{
    return m_directory->filePath(QString::fromLatin1(name));
}

void tst_NwaFcgiServer::setUpLimits(void (*change)(NwaFcgiLimits&))
{
    NwaFcgiLimits limits = m_server->limits();
    change(limits);
    m_server->setLimits(limits);
}

// Makes the server listen on a TCP port, and the client connect to it.
bool tst_NwaFcgiServer::connectOverTcp()
{
    const QString address = QString::fromLatin1("127.0.0.1");
    return m_server->listenOnPort(address, 0) && m_client->connectToPort(address, m_server->port());
}

// Whether the server still answers another client's request.
bool tst_NwaFcgiServer::answers()
{
    NFcgiClient client;
    return client.connectToPath(socketPath()) && isServed(client);
}

bool tst_NwaFcgiServer::isServed(NFcgiClient& client, const QByteArray& expected)
{
    client.raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    return NTest::waitUntil([&]() { return client.isClosed(); }) && client.replyBody() == expected;
}

// Listening

void tst_NwaFcgiServer::listensOnAUnixSocket()
{
    QVERIFY(m_server->isListening());
    QCOMPARE(m_server->port(), quint16(0));
    QVERIFY(isServed(*m_client));
}

void tst_NwaFcgiServer::socketHasThePermissionsGiven_data()
{
    QTest::addColumn<int>("permissions");
    QTest::newRow("group may connect") << 0660;
    QTest::newRow("owner alone") << 0600;
    QTest::newRow("everybody") << 0666;
}

void tst_NwaFcgiServer::socketHasThePermissionsGiven()
{
    QFETCH(int, permissions);
    const mode_t mask = ::umask(077);
    const bool listening = m_server->listenOnPath(path("other"), permissions);
    ::umask(mask);
    QVERIFY(listening);
    QCOMPARE(int(modeOf(path("other"))), permissions);
    NwaFcgiServer unspecified;
    QVERIFY(unspecified.listenOnPath(path("unspecified")));
    QCOMPARE(int(modeOf(path("unspecified"))), 0660);
}

void tst_NwaFcgiServer::socketIsRemovedWhenTheServerEnds()
{
    m_server->close();
    QVERIFY(!QFileInfo(socketPath()).exists());
    QVERIFY(!m_server->isListening());
    {
        NwaFcgiServer server;
        QVERIFY(server.listenOnPath(path("other")));
        QVERIFY(modeOf(path("other")) != 0);
    }
    QCOMPARE(int(modeOf(path("other"))), 0);
}

void tst_NwaFcgiServer::socketOfAnotherServerIsNotRemoved()
{
    QVERIFY(QFile::remove(socketPath()));
    NwaFcgiServer successor;
    QVERIFY2(successor.listenOnPath(socketPath()), qPrintable(successor.errorString()));
    m_server->close();
    QVERIFY(m_client->connectToPath(socketPath()));
    successor.registerService(QString::fromLatin1("/test"), m_service.data());
    QVERIFY(isServed(*m_client));
    successor.close();
    QCOMPARE(int(modeOf(socketPath())), 0);
}

void tst_NwaFcgiServer::abandonedSocketIsReplaced()
{
    ::close(makeSocket(path("abandoned"), true));
    QVERIFY(m_server->listenOnPath(path("abandoned")));
    NFcgiClient client;
    QVERIFY(client.connectToPath(path("abandoned")));
    QVERIFY(isServed(client));
}

void tst_NwaFcgiServer::socketInUseIsNotReplaced()
{
    const int served = makeSocket(path("served"), true);
    NwaFcgiServer server;
    QVERIFY(!server.listenOnPath(path("served")));
    QCOMPARE(
        server.errorString(),
        QString::fromLatin1("cannot make the socket %1: Address already in use").arg(path("served")));
    QVERIFY(!server.isListening());
    NFcgiClient client;
    QVERIFY(client.connectToPath(path("served")));
    ::close(served);
}

void tst_NwaFcgiServer::otherFileIsNotReplaced()
{
    m_directory->writeFile(QString::fromLatin1("file"), "precious");
    NwaFcgiServer server;
    QVERIFY(!server.listenOnPath(path("file")));
    QCOMPARE(
        server.errorString(),
        QString::fromLatin1("cannot make the socket %1: Address already in use").arg(path("file")));
    QFile file(path("file"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("precious"));
}

void tst_NwaFcgiServer::longestPathIsListenedOn()
{
    const QByteArray name(107 - m_directory->path().size() - 1, 'n');
    QVERIFY(m_server->listenOnPath(path(name.constData())));
    NFcgiClient client;
    QVERIFY(client.connectToPath(path(name.constData())));
    QVERIFY(isServed(client));
}

// The event loop does not run, so none of the connections is accepted. A web server connects without blocking.
void tst_NwaFcgiServer::burstOfConnectionsIsQueued()
{
    QFile setting(QString::fromLatin1("/proc/sys/net/core/somaxconn"));
    QVERIFY(setting.open(QIODevice::ReadOnly));
    const int count = qMin(600, setting.readAll().trimmed().toInt());
    QVERIFY(count > 128);
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(socketPath()).constData(), sizeof(address.sun_path));
    std::vector<NFileDescriptor> clients;
    for (int index = 0; index < count; ++index) {
        clients.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        QVERIFY(
            ::connect(
                clients.back().number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) ==
            0);
    }
}

void tst_NwaFcgiServer::invalidPathIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const QString tooLong = QLatin1Char('/') + QString(107, QLatin1Char('n'));
    QTest::newRow("empty") << QString() << QString::fromLatin1("\"\" is empty or too long for a socket's path");
    QTest::newRow("108 bytes")
        << tooLong << QString::fromLatin1("\"%1\" is empty or too long for a socket's path").arg(tooLong);
    QTest::newRow("no such directory") << QString::fromLatin1("/nowhere/socket")
                                       << QString::fromLatin1(
                                              "cannot make the socket /nowhere/socket: No such file or directory");
}

void tst_NwaFcgiServer::invalidPathIsRefused()
{
    QFETCH(QString, path);
    QFETCH(QString, error);
    QVERIFY(!m_server->listenOnPath(path));
    QCOMPARE(m_server->errorString(), error);
    QVERIFY(!m_server->isListening());
}

void tst_NwaFcgiServer::listensOnATcpPort_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("version 4") << QString::fromLatin1("127.0.0.1");
    QTest::newRow("version 6") << QString::fromLatin1("::1");
}

void tst_NwaFcgiServer::listensOnATcpPort()
{
    QFETCH(QString, address);
    QVERIFY2(m_server->listenOnPort(address, 0), qPrintable(m_server->errorString()));
    const quint16 port = m_server->port();
    QVERIFY(port != 0);
    NFcgiClient client;
    QVERIFY(client.connectToPort(address, port));
    QVERIFY(isServed(client));
    // A port that was just used can be reused at once, although the kernel still keeps the old connection.
    m_server->close();
    QCOMPARE(m_server->port(), quint16(0));
    QVERIFY2(m_server->listenOnPort(address, port), qPrintable(m_server->errorString()));
    QCOMPARE(m_server->port(), port);
}

void tst_NwaFcgiServer::portInUseIsRefused()
{
    const QString address = QString::fromLatin1("127.0.0.1");
    QVERIFY(m_server->listenOnPort(address, 0));
    NwaFcgiServer second;
    QVERIFY(!second.listenOnPort(address, m_server->port()));
    QCOMPARE(
        second.errorString(), QString::fromLatin1("cannot listen on port %1 of 127.0.0.1: Address already in use")
                                  .arg(m_server->port()));
}

void tst_NwaFcgiServer::invalidAddressIsRefused_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("empty") << QString();
    QTest::newRow("name") << QString::fromLatin1("localhost");
    QTest::newRow("number too large") << QString::fromLatin1("127.0.0.256");
    QTest::newRow("three numbers") << QString::fromLatin1("127.0.1");
    QTest::newRow("version 6 in brackets") << QString::fromLatin1("[::1]");
}

void tst_NwaFcgiServer::invalidAddressIsRefused()
{
    QFETCH(QString, address);
    QVERIFY(!m_server->listenOnPort(address, 0));
    QCOMPARE(m_server->errorString(), QString::fromLatin1("\"%1\" is no IP address").arg(address));
    QVERIFY(!m_server->isListening());
}

void tst_NwaFcgiServer::listensOnAnInheritedDescriptor()
{
    const int descriptor = makeSocket(path("inherited"), true);
    QVERIFY2(m_server->listenOnDescriptor(descriptor), qPrintable(m_server->errorString()));
    NFcgiClient client;
    QVERIFY(client.connectToPath(path("inherited")));
    QVERIFY(isServed(client));
    m_server->close();
    QCOMPARE(::fcntl(descriptor, F_GETFD), -1);
    // The file is removed by the process that made it.
    QVERIFY(modeOf(path("inherited")) != 0);
}

void tst_NwaFcgiServer::descriptorThatDoesNotListenIsRefused_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("not open") << 0;
    QTest::newRow("file") << 1;
    QTest::newRow("socket that does not listen") << 2;
}

void tst_NwaFcgiServer::descriptorThatDoesNotListenIsRefused()
{
    QFETCH(int, kind);
    int descriptor = -1;
    if (kind == 1)
        descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (kind == 2)
        descriptor = makeSocket(path("deaf"), false);
    QVERIFY(!m_server->listenOnDescriptor(descriptor));
    QCOMPARE(
        m_server->errorString(), QString::fromLatin1("the descriptor %1 is no listening socket").arg(descriptor));
    // The descriptor stays the caller's.
    if (kind != 0)
        QCOMPARE(::close(descriptor), 0);
}

void tst_NwaFcgiServer::listensElsewhereAfterListening()
{
    QVERIFY(m_server->listenOnPath(path("other")));
    QCOMPARE(int(modeOf(socketPath())), 0);
    NFcgiClient client;
    QVERIFY(client.connectToPath(path("other")));
    QVERIFY(isServed(client));
}

void tst_NwaFcgiServer::successClearsTheError()
{
    QVERIFY(!m_server->listenOnPath(QString()));
    QVERIFY(!m_server->errorString().isEmpty());
    QVERIFY(m_server->listenOnPath(socketPath()));
    QVERIFY(m_server->errorString().isEmpty());
}

void tst_NwaFcgiServer::newServerDoesNotListen()
{
    NwaFcgiServer server;
    QVERIFY(!server.isListening());
    QCOMPARE(server.port(), quint16(0));
    QCOMPARE(server.connectionCount(), 0);
    QVERIFY(server.errorString().isNull());
    server.close();
    QVERIFY(!server.isListening());
}

// Services

void tst_NwaFcgiServer::requestsGoToTheServiceOfTheirScript()
{
    NFcgiTestService other([](NwaFcgiRequest* request) { NTest::reply(request, "other"); });
    m_server->registerService(QString::fromUtf8("/\xc3\xa9t\xc3\xa9"), &other);
    QVERIFY(isServed(*m_client));
    NFcgiClient client;
    QVERIFY(client.connectToPath(socketPath()));
    client.raw(NFcgiClient::request(NFcgiClient::variables("/\xc3\xa9t\xc3\xa9")));
    NTRY_VERIFY(client.isClosed());
    QCOMPARE(client.replyBody(), QByteArray("other"));
    QCOMPARE(m_service->count(), 1);
    QCOMPARE(other.count(), 1);
}

void tst_NwaFcgiServer::unknownScriptIsAnswered404_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::newRow("no script name") << QByteArray();
    QTest::newRow("other") << QByteArray("/other");
    QTest::newRow("more than a registered one") << QByteArray("/test/");
    QTest::newRow("less than a registered one") << QByteArray("/tes");
    QTest::newRow("other case") << QByteArray("/TEST");
    QTest::newRow("not decodable") << QByteArray("/test\xff");
    QTest::newRow("null byte") << QByteArray("/test\0", 6);
}

void tst_NwaFcgiServer::unknownScriptIsAnswered404()
{
    QFETCH(QByteArray, script);
    m_client->raw(NFcgiClient::request(NFcgiClient::variables(script)));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), 404);
    QCOMPARE(m_service->count(), 0);
}

void tst_NwaFcgiServer::serviceThatIsUnregisteredIsNotFound()
{
    m_server->unregisterService(QString::fromLatin1("/test"));
    m_server->unregisterService(QString::fromLatin1("/never registered"));
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), 404);
}

void tst_NwaFcgiServer::serviceThatIsDestroyedIsNotFound()
{
    m_service.reset();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), 404);
}

void tst_NwaFcgiServer::latestServiceOfAScriptIsUsed()
{
    NFcgiTestService latest([](NwaFcgiRequest* request) { NTest::reply(request, "latest"); });
    m_server->registerService(QString::fromLatin1("/test"), &latest);
    QVERIFY(isServed(*m_client, "latest"));
}

void tst_NwaFcgiServer::serviceMayDeleteTheServer()
{
    NFcgiTestService service([this](NwaFcgiRequest* request) {
        delete m_server;
        m_server = nullptr;
        QVERIFY(request->isAborted());
        delete request;
    });
    m_server->registerService(QString::fromLatin1("/test"), &service);
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(!m_server);
    QCOMPARE(m_client->output(), QByteArray());
}

void tst_NwaFcgiServer::serviceMayCloseTheServer()
{
    // Once while the connection is being accepted, and once on an open connection.
    for (int round = 0; round < 2; ++round) {
        NFcgiTestService service([this](NwaFcgiRequest* request) {
            m_server->close();
            NTest::reply(request, "too late");
        });
        m_server->registerService(QString::fromLatin1("/test"), &service);
        QVERIFY(m_server->listenOnPath(socketPath()));
        QVERIFY(m_client->connectToPath(socketPath()));
        if (round == 1)
            NTRY_COMPARE(m_server->connectionCount(), 1);
        m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
        NTRY_VERIFY(m_client->isClosed());
        QVERIFY(!m_server->isListening());
        QCOMPARE(m_server->connectionCount(), 0);
    }
}

void tst_NwaFcgiServer::serviceMayRunAnEventLoop()
{
    NFcgiTestService service([this](NwaFcgiRequest* request) {
        // A further request of the same client arrives while the loop runs; it must wait.
        m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, true));
        QVERIFY(answers());
        NTest::reply(request, "looped");
    });
    m_server->registerService(QString::fromLatin1("/loop"), &service);
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/loop"), QByteArray(), 2, true));
    NTRY_VERIFY(m_client->hasEnded(2));
    QCOMPARE(m_client->replyBody(2), QByteArray("looped"));
    NTRY_VERIFY(m_client->hasEnded(1));
    QCOMPARE(m_client->replyBody(1), QByteArray("GET"));
}

void tst_NwaFcgiServer::serviceMayWaitForAnotherClientInAnEventLoop()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    NFcgiClient other;
    bool otherWasServed = false;
    NFcgiTestService loopingService([&](NwaFcgiRequest* request) {
        otherWasServed = NTest::waitUntil([&]() { return !other.output().isEmpty(); });
        NTest::reply(request, "looped");
    });
    m_server->registerService(QString::fromLatin1("/loop"), &loopingService);
    QVERIFY(other.connectToPath(socketPath()));
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, true));
    NTRY_COMPARE(service.count(), 1);
    other.raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 2);
    // The next request has arrived before the first is answered, so the connection continues with it at once; the
    // other client is served after that.
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/loop"), QByteArray(), 2, true));
    QCOMPARE(m_client->unsentSize(), 0);
    NTest::reply(service.request(0), "first");
    service.request(1)->outputStream() << "Content-Type: text/plain\r\n\r\nbeginning" << std::flush;
    NTRY_VERIFY(m_client->hasEnded(2));
    QVERIFY(otherWasServed);
    QCOMPARE(m_client->replyBody(2), QByteArray("looped"));
}

// The protocol

void tst_NwaFcgiServer::capabilitiesAreReported()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.connectionCount = 17; });
    NFcgiClient::Params question;
    question << Param("FCGI_MAX_CONNS", "") << Param("FCGI_MAX_REQS", "") << Param("FCGI_MPXS_CONNS", "");
    m_client->raw(NFcgiClient::record(NFcgiClient::GetValues, 0, NFcgiClient::pairs(question)));
    NTRY_COMPARE(m_client->connectionRecords().size(), 1);
    NFcgiClient::Params answer;
    answer << Param("FCGI_MAX_CONNS", "17") << Param("FCGI_MAX_REQS", "17") << Param("FCGI_MPXS_CONNS", "0");
    QCOMPARE(m_client->connectionRecords().at(0).type, int(NFcgiClient::GetValuesResult));
    QCOMPARE(m_client->connectionRecords().at(0).content, NFcgiClient::pairs(answer));
    QVERIFY(isServed(*m_client));
}

void tst_NwaFcgiServer::unknownCapabilitiesAreOmitted()
{
    m_client->raw(NFcgiClient::record(NFcgiClient::GetValues, 0, NFcgiClient::pair("FCGI_FAVOURITE_COLOUR", "")));
    NTRY_COMPARE(m_client->connectionRecords().size(), 1);
    QCOMPARE(m_client->connectionRecords().at(0).type, int(NFcgiClient::GetValuesResult));
    QCOMPARE(m_client->connectionRecords().at(0).content, QByteArray());
}

void tst_NwaFcgiServer::answerToRepeatedQuestionsIsBounded()
{
    QByteArray question;
    while (question.size() < 65000)
        question += NFcgiClient::pair("FCGI_MAX_CONNS", "");
    m_client->raw(NFcgiClient::record(NFcgiClient::GetValues, 0, question));
    QVERIFY(isServed(*m_client));
}

void tst_NwaFcgiServer::unknownRecordAboutTheConnectionIsReported_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("0") << 0;
    QTest::newRow("a request's type") << 1;
    QTest::newRow("an answer's type") << 10;
    QTest::newRow("12") << 12;
    QTest::newRow("255") << 255;
}

void tst_NwaFcgiServer::unknownRecordAboutTheConnectionIsReported()
{
    QFETCH(int, type);
    m_client->raw(NFcgiClient::record(type, 0, "content"));
    NTRY_COMPARE(m_client->connectionRecords().size(), 1);
    QCOMPARE(m_client->connectionRecords().at(0).type, int(NFcgiClient::UnknownType));
    QCOMPARE(m_client->connectionRecords().at(0).content, QByteArray(1, char(type)) + QByteArray(7, '\0'));
    QVERIFY(isServed(*m_client));
}

void tst_NwaFcgiServer::unknownRoleIsRefused_data()
{
    QTest::addColumn<int>("role");
    QTest::newRow("none") << 0;
    QTest::newRow("authorizer") << 2;
    QTest::newRow("filter") << 3;
    QTest::newRow("responder in the wrong byte") << 256;
    QTest::newRow("responder and more") << 257;
}

void tst_NwaFcgiServer::unknownRoleIsRefused()
{
    QFETCH(int, role);
    m_client->begin(1, true, role);
    m_client->params(NFcgiClient::variables("/test"));
    m_client->endBody();
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->protocolStatus(), 3);
    QCOMPARE(m_service->count(), 0);
    m_client->forget();
    QVERIFY(isServed(*m_client));
}

void tst_NwaFcgiServer::secondRequestAtATimeIsRefused()
{
    m_client->begin(1);
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test", "SECOND"), "body", 2));
    NTRY_VERIFY(m_client->hasEnded(2));
    QCOMPARE(m_client->protocolStatus(2), 1);
    QVERIFY(!m_client->hasEnded(1));
    m_client->params(NFcgiClient::variables("/test"));
    m_client->endBody();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(1), QByteArray("GET"));
    QCOMPARE(m_service->count(), 1);
}

void tst_NwaFcgiServer::everyStreamOfTheReplyThatWasUsedIsEnded_data()
{
    QTest::addColumn<QByteArray>("remark");
    QTest::newRow("reply alone") << QByteArray();
    QTest::newRow("reply and remark") << QByteArray("remark");
    QTest::newRow("large remark") << QByteArray(100000, 'r');
}

void tst_NwaFcgiServer::everyStreamOfTheReplyThatWasUsedIsEnded()
{
    QFETCH(QByteArray, remark);
    NFcgiTestService service([&](NwaFcgiRequest* request) {
        request->errorStream().write(remark.constData(), remark.size());
        NTest::reply(request, "reply");
    });
    m_server->registerService(QString::fromLatin1("/remark"), &service);
    QList<int> ends;
    if (!remark.isEmpty())
        ends << NFcgiClient::StderrType;
    ends.prepend(NFcgiClient::StdoutType);
    // The error output of one request does not affect the next.
    for (int id = 1; id <= 2; ++id)
        m_client->raw(NFcgiClient::request(NFcgiClient::variables("/remark"), QByteArray(), id, true));
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 3, false));
    NTRY_VERIFY(m_client->isClosed());
    QHash<int, QList<int>> endsFound;
    for (const NFcgiClient::Record& record : m_client->records()) {
        if (record.content.isEmpty())
            endsFound[record.requestId] << record.type;
    }
    QCOMPARE(endsFound.value(1), ends);
    QCOMPARE(endsFound.value(2), ends);
    QCOMPARE(endsFound.value(3), QList<int>() << NFcgiClient::StdoutType);
    QCOMPARE(m_client->remarks(1), remark);
    QCOMPARE(m_client->records().last().type, int(NFcgiClient::EndRequest));
}

void tst_NwaFcgiServer::keptConnectionCarriesRequestAfterRequest()
{
    for (int id = 1; id <= 10; ++id) {
        m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test", QByteArray::number(id)), "", id, true));
        NTRY_VERIFY(m_client->hasEnded(id));
        QCOMPARE(m_client->replyBody(id), QByteArray::number(id));
        QVERIFY(!m_client->isClosed());
        QCOMPARE(m_server->connectionCount(), 1);
    }
    m_client->forget();
    QVERIFY(isServed(*m_client));
    NTRY_COMPARE(m_server->connectionCount(), 0);
}

void tst_NwaFcgiServer::keptConnectionCarriesRequestsSentAhead()
{
    QByteArray requests;
    for (int id = 1; id <= 10; ++id)
        requests +=
            NFcgiClient::request(NFcgiClient::variables("/test", QByteArray::number(id)), "body", id, true);
    m_client->raw(requests);
    NTRY_VERIFY(m_client->hasEnded(10));
    for (int id = 1; id <= 10; ++id)
        QCOMPARE(m_client->replyBody(id), QByteArray::number(id));
}

void tst_NwaFcgiServer::keptConnectionEndsWithItsPeersSending()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), "", 1, true));
    NTRY_COMPARE(service.count(), 1);
    m_client->endSending();
    QCoreApplication::processEvents();
    NTest::reply(service.request(), "reply");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("reply"));
}

void tst_NwaFcgiServer::keptConnectionContinuesAfterAnAbort()
{
    m_client->begin(1, true);
    m_client->params(NFcgiClient::variables("/test"));
    m_client->abort();
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->protocolStatus(), 0);
    QCOMPARE(m_client->output(), QByteArray());
    m_client->forget();
    QVERIFY(isServed(*m_client));
    QCOMPARE(m_service->count(), 1);
}

void tst_NwaFcgiServer::paddingIsSkipped()
{
    const QByteArray params = NFcgiClient::pairs(NFcgiClient::variables("/test"));
    m_client->begin();
    m_client->raw(NFcgiClient::record(NFcgiClient::ParamsType, 1, params, 1));
    m_client->raw(NFcgiClient::record(NFcgiClient::ParamsType, 1, QByteArray(), 7));
    m_client->raw(NFcgiClient::record(NFcgiClient::StdinType, 1, QByteArray(), 255));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("GET"));
}

void tst_NwaFcgiServer::requestCutAtEveryByteIsServed()
{
    NFcgiTestService service(NTest::echo);
    m_server->registerService(QString::fromLatin1("/test"), &service);
    const QByteArray request = NFcgiClient::request(announcing("4"), "body");
    for (int position = 1; position < request.size(); ++position) {
        QVERIFY(m_client->connectToPath(socketPath()));
        m_client->raw(request.left(position));
        QCoreApplication::processEvents();
        m_client->raw(request.mid(position));
        NTRY_VERIFY(m_client->isClosed());
        QCOMPARE(m_client->replyBody(), QByteArray("body"));
    }
}

void tst_NwaFcgiServer::requestSentByteByByteIsServed()
{
    for (char byte : NFcgiClient::request(announcing("4"), "body")) {
        m_client->raw(QByteArray(1, byte));
        QCoreApplication::processEvents();
    }
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("POST"));
}

void tst_NwaFcgiServer::paramsAreJoinedFromAnyRecords()
{
    m_client->begin();
    for (char byte : NFcgiClient::pairs(NFcgiClient::variables("/test", QByteArray(300, 'M'))))
        m_client->raw(NFcgiClient::record(NFcgiClient::ParamsType, 1, QByteArray(1, byte)));
    m_client->raw(NFcgiClient::record(NFcgiClient::ParamsType, 1, QByteArray()));
    m_client->endBody();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray(300, 'M'));
}

void tst_NwaFcgiServer::highestRequestIdIsServed()
{
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 65535));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(65535), QByteArray("GET"));
}

void tst_NwaFcgiServer::recordsOfOtherRequestsAreIgnored()
{
    m_client->params(NFcgiClient::variables("/test", "EARLY"));
    m_client->endBody();
    m_client->begin(2);
    m_client->params(NFcgiClient::variables("/test", "OTHER"), 3);
    m_client->body("other", 3);
    m_client->abort(3);
    m_client->params(NFcgiClient::variables("/test"), 2);
    m_client->endBody(3);
    m_client->endBody(2);
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(2), QByteArray("GET"));
    QCOMPARE(m_service->count(), 1);
    for (const NFcgiClient::Record& record : m_client->records())
        QCOMPARE(record.requestId, 2);
}

void tst_NwaFcgiServer::bodyMayComeBeforeTheParams()
{
    NFcgiTestService service(NTest::echo);
    m_server->registerService(QString::fromLatin1("/test"), &service);
    m_client->begin();
    m_client->body("early");
    m_client->endBody();
    m_client->params(announcing("5"));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("early"));
}

void tst_NwaFcgiServer::dataRecordsAreIgnored()
{
    m_client->begin();
    m_client->params(NFcgiClient::variables("/test"));
    m_client->raw(NFcgiClient::record(8, 1, "file"));
    m_client->raw(NFcgiClient::record(6, 1, "output"));
    m_client->raw(NFcgiClient::record(200, 1, "unknown"));
    m_client->endBody();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("GET"));
}

void tst_NwaFcgiServer::lateParamsAreIgnored()
{
    m_client->begin();
    m_client->params(NFcgiClient::variables("/test"));
    m_client->params(NFcgiClient::variables("/other"));
    m_client->endBody();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("GET"));
}

void tst_NwaFcgiServer::garbageClosesTheConnection_data()
{
    QTest::addColumn<QByteArray>("garbage");
    QByteArray version2 = NFcgiClient::beginRecord();
    version2[0] = 2;
    QByteArray version0 = NFcgiClient::beginRecord();
    version0[0] = 0;
    QTest::newRow("version 2") << version2;
    QTest::newRow("version 0") << version0;
    QTest::newRow("version 2 later") << NFcgiClient::beginRecord() + version2;
    QTest::newRow("HTTP") << QByteArray("GET / HTTP/1.1\r\nHost: device\r\n\r\n");
    QTest::newRow("zeros") << QByteArray(100, '\0');
    QTest::newRow("ones") << QByteArray(100000, '\xff');
    QTest::newRow("request begun without a role")
        << NFcgiClient::record(NFcgiClient::BeginRequest, 1, QByteArray());
    QTest::newRow("request begun with a truncated role")
        << NFcgiClient::record(NFcgiClient::BeginRequest, 1, "\1");
    QTest::newRow("same request begun twice") << NFcgiClient::beginRecord() + NFcgiClient::beginRecord();
}

void tst_NwaFcgiServer::garbageClosesTheConnection()
{
    QFETCH(QByteArray, garbage);
    m_client->raw(garbage);
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->records().size(), 0);
    QVERIFY(answers());
    QCOMPARE(m_server->connectionCount(), 0);
}

// Bad requests and limits

void tst_NwaFcgiServer::badRequestIsAnsweredWithAnError_data()
{
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    const QByteArray plain = NFcgiClient::pairs(NFcgiClient::variables("/test"));
    QTest::newRow("params cut in a size") << plain + QByteArray("\x80\0", 2) << QByteArray() << 400;
    QTest::newRow("params cut in a name") << plain + QByteArray("\x05\0nam", 5) << QByteArray() << 400;
    QTest::newRow("params cut in a value") << plain + QByteArray("\x01\x05nval", 6) << QByteArray() << 400;
    QTest::newRow("largest name size") << plain + QByteArray("\xff\xff\xff\xff\x01nv", 7) << QByteArray() << 400;
    QTest::newRow("largest value size") << plain + QByteArray("\x01\xff\xff\xff\xffnv", 7) << QByteArray() << 400;
    QTest::newRow("largest sizes") << plain + QByteArray("\xff\xff\xff\xff\xff\xff\xff\xff", 8) << QByteArray()
                                   << 400;
    QTest::newRow("body shorter than announced")
        << NFcgiClient::pairs(announcing("5")) << QByteArray("1234") << 400;
    QTest::newRow("body longer than announced")
        << NFcgiClient::pairs(announcing("3")) << QByteArray("1234") << 400;
    QTest::newRow("announced body missing") << NFcgiClient::pairs(announcing("1")) << QByteArray() << 400;
    QTest::newRow("body announced as empty") << NFcgiClient::pairs(announcing("0")) << QByteArray("1") << 400;
    QTest::newRow("negative size") << NFcgiClient::pairs(announcing("-1")) << QByteArray() << 400;
    QTest::newRow("size with a sign") << NFcgiClient::pairs(announcing("+1")) << QByteArray("1") << 400;
    QTest::newRow("size that is not a number") << NFcgiClient::pairs(announcing("many")) << QByteArray() << 400;
    QTest::newRow("size and more") << NFcgiClient::pairs(announcing("1 2")) << QByteArray("1") << 400;
    QTest::newRow("hexadecimal size") << NFcgiClient::pairs(announcing("0x1")) << QByteArray("1") << 400;
    QTest::newRow("size beyond 64 bits")
        << NFcgiClient::pairs(announcing("99999999999999999999")) << QByteArray() << 400;
    QTest::newRow("query with a truncated escape")
        << NFcgiClient::pairs(with("QUERY_STRING", "a=%4")) << QByteArray() << 400;
    QTest::newRow("query with a wrong escape")
        << NFcgiClient::pairs(with("QUERY_STRING", "a=%zz")) << QByteArray() << 400;
    QTest::newRow("query that is not UTF-8")
        << NFcgiClient::pairs(with("QUERY_STRING", "a=%ff")) << QByteArray() << 400;
    QTest::newRow("query too long") << NFcgiClient::pairs(with("QUERY_STRING", QByteArray(16 * 1024 + 1, 'q')))
                                    << QByteArray() << 414;
    QTest::newRow("query longer than all variables may be")
        << NFcgiClient::pairs(with("QUERY_STRING", QByteArray(70000, 'q'))) << QByteArray() << 414;
    QTest::newRow("address longer than all variables may be")
        << NFcgiClient::pairs(with("REQUEST_URI", QByteArray(70000, 'q'))) << QByteArray() << 414;
    QTest::newRow("too much of a variable")
        << NFcgiClient::pairs(with("HTTP_COOKIE", QByteArray(70000, 'c'))) << QByteArray() << 431;
    NFcgiClient::Params many;
    for (int index = 0; index < 5000; ++index)
        many << Param("HTTP_X_" + QByteArray::number(index), "value");
    QTest::newRow("too many variables") << NFcgiClient::pairs(many) << QByteArray() << 431;
}

void tst_NwaFcgiServer::badRequestIsAnsweredWithAnError()
{
    QFETCH(QByteArray, params);
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    m_client->begin();
    m_client->raw(NFcgiClient::stream(NFcgiClient::ParamsType, 1, params));
    m_client->raw(NFcgiClient::stream(NFcgiClient::StdinType, 1, body));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), status);
    QCOMPARE(m_client->protocolStatus(), 0);
    QCOMPARE(m_service->count(), 0);
    QVERIFY(answers());
}

void tst_NwaFcgiServer::badHeadRequestIsAnsweredWithoutABody_data()
{
    QTest::addColumn<NFcgiClient::Params>("params");
    QTest::addColumn<int>("status");
    QTest::newRow("wrong query") << with("QUERY_STRING", "a=%zz", "HEAD") << 400;
    QTest::newRow("wrong size") << with("CONTENT_LENGTH", "many", "HEAD") << 400;
    QTest::newRow("unknown script") << NFcgiClient::variables("/unknown", "HEAD") << 404;
    QTest::newRow("large body") << with("CONTENT_LENGTH", "10000000", "HEAD") << 413;
    QTest::newRow("long query") << with("QUERY_STRING", QByteArray(17 * 1024, 'q'), "HEAD") << 414;
    QTest::newRow("query longer than all variables may be")
        << with("QUERY_STRING", QByteArray(70000, 'q'), "HEAD") << 414;
    QTest::newRow("large variable") << with("HTTP_COOKIE", QByteArray(70000, 'c'), "HEAD") << 431;
}

void tst_NwaFcgiServer::badHeadRequestIsAnsweredWithoutABody()
{
    QFETCH(NFcgiClient::Params, params);
    QFETCH(int, status);
    m_client->raw(NFcgiClient::request(params));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), status);
    QCOMPARE(m_client->replyBody(), QByteArray());
    QCOMPARE(m_service->count(), 0);
}

void tst_NwaFcgiServer::goodRequestNearALimitIsServed_data()
{
    QTest::addColumn<NFcgiClient::Params>("params");
    QTest::addColumn<int>("bodySize");
    QTest::newRow("longest query") << with("QUERY_STRING", QByteArray(16 * 1024, 'q')) << 0;
    const int rest = NFcgiClient::pairs(with("HTTP_COOKIE", QByteArray(60000, 'c'))).size() - 60000;
    QTest::newRow("largest variables") << with("HTTP_COOKIE", QByteArray(64 * 1024 - rest, 'c')) << 0;
    QTest::newRow("largest body") << announcing("1048576") << 1048576;
    QTest::newRow("largest body, not announced") << announcing("") << 1048576;
    QTest::newRow("size with zeros") << announcing("00003") << 3;
}

void tst_NwaFcgiServer::goodRequestNearALimitIsServed()
{
    QFETCH(NFcgiClient::Params, params);
    QFETCH(int, bodySize);
    m_client->raw(NFcgiClient::request(params, QByteArray(bodySize, 'b')));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), 200);
    QCOMPARE(m_service->count(), 1);
}

void tst_NwaFcgiServer::bodyBeyondTheLimitIsAnswered413_data()
{
    QTest::addColumn<QByteArray>("announced");
    QTest::addColumn<int>("size");
    QTest::newRow("announced, and not even begun") << QByteArray("1048577") << 0;
    QTest::newRow("announced and sent") << QByteArray("1048577") << 1048577;
    QTest::newRow("announced far beyond") << QByteArray("9223372036854775807") << 1000;
    QTest::newRow("not announced") << QByteArray() << 1048577;
    QTest::newRow("announced small") << QByteArray("5") << 10000000;
    QTest::newRow("10 MB") << QByteArray("10000000") << 10000000;
}

void tst_NwaFcgiServer::bodyBeyondTheLimitIsAnswered413()
{
    QFETCH(QByteArray, announced);
    QFETCH(int, size);
    m_client->begin();
    m_client->params(announcing(announced));
    m_client->body(QByteArray(size, 'b'));
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 413);
    // The rest of the body is read, because a client may read only after sending all of it.
    NTRY_COMPARE(m_client->unsentSize(), 0);
    QCOMPARE(m_service->count(), 0);
    NTRY_VERIFY(m_client->isClosed());
    m_client->disconnectNow();
    NTRY_COMPARE(m_server->connectionCount(), 0);
}

void tst_NwaFcgiServer::hugeBodyBeforeTheParamsIsDropped()
{
    m_client->begin();
    m_client->body(QByteArray(3000000, 'b'));
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(answers());
}

void tst_NwaFcgiServer::formIsNotLimitedByTheBodyLimit_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("with a boundary") << QByteArray("multipart/form-data; boundary=b");
    QTest::newRow("with blanks and capitals") << QByteArray(" Multipart/Form-Data ;boundary=b");
    QTest::newRow("without parameters") << QByteArray("multipart/form-data");
}

void tst_NwaFcgiServer::formIsNotLimitedByTheBodyLimit()
{
    QFETCH(QByteArray, type);
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    NFcgiClient::Params params = announcing("3000000");
    params << Param("CONTENT_TYPE", type);
    m_client->raw(NFcgiClient::request(params, QByteArray(3000000, 'b')));
    NTRY_COMPARE(service.count(), 1);
    QByteArray body;
    NTRY_VERIFY((body += NTest::readAvailableBody(service.request()), service.request()->atBodyEnd()));
    QCOMPARE(body.size(), 3000000);
}

void tst_NwaFcgiServer::partOfAFormThatWasReadIsNotHeld()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    const QByteArray piece(1024 * 1024, 'b');
    const int size = 50 * piece.size();
    m_client->begin();
    m_client->params(announcingForm(size));
    NTRY_COMPARE(service.count(), 1);
    QByteArray buffer(piece.size(), '\0');
    qint64 read = 0;
    qint64 afterFirstPiece = 0;
    for (int sent = piece.size(); sent <= size; sent += piece.size()) {
        m_client->body(piece);
        // One byte is always left, as by a service that waits for the rest of a line.
        NTRY_VERIFY((read += service.request()->readBody(buffer.data(), sent - 1 - read)) == sent - 1);
        QCOMPARE(m_client->unsentSize(), 0);
        if (sent == piece.size())
            afterFirstPiece = NTest::allocatedBytes();
    }
    QVERIFY(NTest::allocatedBytes() - afterFirstPiece < piece.size());
    m_client->endBody();
    NTRY_VERIFY((read += service.request()->readBody(buffer.data(), 1)) == size);
    NTRY_VERIFY(service.request()->atBodyEnd());
}

void tst_NwaFcgiServer::requestBeyondTheLimitOfAllConnectionsIsAnswered503_data()
{
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("body") << NFcgiClient::stream(
                                 NFcgiClient::ParamsType, 1, NFcgiClient::pairs(announcing("5000")))
                          << NFcgiClient::record(NFcgiClient::StdinType, 1, QByteArray(2000, 'b'));
    QTest::newRow("body before the params")
        << QByteArray() << NFcgiClient::record(NFcgiClient::StdinType, 1, QByteArray(2000, 'b'));
    QTest::newRow("params") << NFcgiClient::record(NFcgiClient::ParamsType, 1, QByteArray(2000, 'p'))
                            << QByteArray();
    QTest::newRow("half a record")
        << QByteArray() << NFcgiClient::record(NFcgiClient::StdinType, 1, QByteArray(5000, 'b')).left(2000);
}

void tst_NwaFcgiServer::requestBeyondTheLimitOfAllConnectionsIsAnswered503()
{
    QFETCH(QByteArray, params);
    QFETCH(QByteArray, body);
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    m_client->begin();
    m_client->params(announcing("9500"));
    m_client->body(QByteArray(9000, 'b'));
    QVERIFY(answers());

    NFcgiClient second;
    QVERIFY(second.connectToPath(socketPath()));
    second.raw(NFcgiClient::beginRecord() + params + body);
    NTRY_VERIFY(second.hasEnded());
    QCOMPARE(second.status(), 503);
    QCOMPARE(m_service->count(), 1);

    // The first request continues, and releases its memory.
    m_client->body(QByteArray(500, 'b'));
    m_client->endBody();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->status(), 200);
    NFcgiClient third;
    QVERIFY(third.connectToPath(socketPath()));
    third.raw(NFcgiClient::request(announcing("9500"), QByteArray(9500, 'b')));
    NTRY_VERIFY(third.isClosed());
    QCOMPARE(third.status(), 200);
}

void tst_NwaFcgiServer::completeRequestIsServedAtTheLimitOfAllConnections_data()
{
    QTest::addColumn<NFcgiClient::Params>("params");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("without a body") << NFcgiClient::variables("/test") << QByteArray();
    QTest::newRow("with a body") << announcing("500") << QByteArray(500, 'b');
}

// Incomplete requests must not prevent complete ones from being served.
void tst_NwaFcgiServer::completeRequestIsServedAtTheLimitOfAllConnections()
{
    QFETCH(NFcgiClient::Params, params);
    QFETCH(QByteArray, body);
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    m_client->begin();
    m_client->params(announcing("20000"));
    m_client->body(QByteArray(10000, 'b'));
    QVERIFY(answers());
    NFcgiClient second;
    QVERIFY(second.connectToPath(socketPath()));
    second.raw(NFcgiClient::request(params, body));
    NTRY_VERIFY(second.isClosed());
    QCOMPARE(second.status(), 200);
    QCOMPARE(m_client->records().size(), 0);
}

void tst_NwaFcgiServer::restOfARefusedRequestIsDiscarded()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    const QByteArray halfARecord =
        NFcgiClient::record(NFcgiClient::StdinType, 1, QByteArray(20000, 'b')).left(11000);
    // The clients are still connected when the next one comes.
    QList<QSharedPointer<NFcgiClient>> clients;
    for (int count = 0; count < 3; ++count) {
        const QSharedPointer<NFcgiClient> client(new NFcgiClient);
        clients << client;
        QVERIFY(client->connectToPath(socketPath()));
        client->raw(NFcgiClient::beginRecord() + halfARecord);
        NTRY_VERIFY(client->hasEnded());
        QCOMPARE(client->status(), 503);
        client->raw(halfARecord);
        QVERIFY(answers());
    }
}

void tst_NwaFcgiServer::heldBytesAreReleasedWithTheConnection()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    for (int round = 0; round < 10; ++round) {
        QVERIFY(m_client->connectToPath(socketPath()));
        m_client->begin(1, true);
        m_client->params(announcing("9500"));
        m_client->body(QByteArray(9000, 'b'));
        QVERIFY(answers());
        QCOMPARE(m_client->records().size(), 0);
        if (round % 2 == 0) {
            m_client->abort();
            NTRY_VERIFY(m_client->hasEnded());
        }
        m_client->disconnectNow();
        NTRY_COMPARE(m_server->connectionCount(), 0);
    }
}

void tst_NwaFcgiServer::queuedReplyCountsForTheLimitOfAllConnections()
{
    const int size = 5000000;
    NFcgiTestService service([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(size, 'r')); });
    m_server->registerService(QString::fromLatin1("/large"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    m_client->stopReceiving();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/large")));
    NTRY_COMPARE(service.count(), 1);
    NFcgiClient second;
    QVERIFY(second.connectToPath(socketPath()));
    second.raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, true));
    NTRY_VERIFY(second.hasEnded());
    QCOMPARE(second.status(), 503);
    QCOMPARE(m_service->count(), 0);
    // The limit applies to further requests; the reply itself has a limit of its own.
    m_client->startReceiving();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody().size(), size);
    second.forget();
    QVERIFY(isServed(second));
}

void tst_NwaFcgiServer::unreadBodyCountsForTheLimitOfAllConnections()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/form"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.bufferedSize = 10000; });
    const QByteArray body(60000, 'b');
    NFcgiClient::Params params = announcingForm(body.size());
    params << Param("SCRIPT_NAME", "/form");
    m_client->raw(NFcgiClient::request(params, body));
    NTRY_COMPARE(service.count(), 1);
    NTRY_VERIFY(!answers());
    QByteArray read;
    NTRY_VERIFY((read += NTest::readAvailableBody(service.request()), service.request()->atBodyEnd()));
    QVERIFY(read == body);
    QVERIFY(answers());
    NTest::reply(service.request(), "taken");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("taken"));
}

void tst_NwaFcgiServer::clientsThatSendAheadAndReadNothingDoNotAffectOthers()
{
    const int clientCount = 60;
    const int requestCount = 20;
    const int size = 100000;
    NFcgiTestService service([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(size, 'r')); });
    m_server->registerService(QString::fromLatin1("/large"), &service);
    QByteArray requests;
    for (int id = 1; id <= requestCount; ++id)
        requests += NFcgiClient::request(NFcgiClient::variables("/large"), QByteArray(), id, true);
    const qint64 allocatedBefore = NTest::allocatedBytes();
    QList<QSharedPointer<NFcgiClient>> clients;
    for (int count = 0; count < clientCount; ++count) {
        clients << QSharedPointer<NFcgiClient>(new NFcgiClient);
        QVERIFY(clients.last()->connectToPath(socketPath()));
        clients.last()->stopReceiving();
        clients.last()->raw(requests);
    }

    // While their requests are being served, and when no more of them can be.
    NTRY_VERIFY(service.count() >= clientCount);
    int served = 0;
    do {
        served = service.count();
        QVERIFY(answers());
    } while (service.count() > served);
    // Of each client, at most one reply is held.
    QVERIFY(NTest::allocatedBytes() - allocatedBefore < clientCount * (size + 64 * 1024));

    // The other requests are served as soon as there is room for their replies.
    const QSharedPointer<NFcgiClient> reader = clients.takeFirst();
    clients.clear();
    reader->startReceiving();
    NTRY_VERIFY(reader->hasEnded(requestCount));
    for (int id = 1; id <= requestCount; ++id) {
        QCOMPARE(reader->status(id), 200);
        QCOMPARE(reader->replyBody(id).size(), size);
    }
}

void tst_NwaFcgiServer::tenMegabytesOfQueryAreAnswered414()
{
    m_client->raw(NFcgiClient::request(with("QUERY_STRING", QByteArray(10 * 1024 * 1024, 'q'))));
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 414);
    NTRY_COMPARE(m_client->unsentSize(), 0);
    QVERIFY(answers());
}

void tst_NwaFcgiServer::clientCannotForgeAHeaderField_data()
{
    QTest::addColumn<NFcgiClient::Params>("params");
    QTest::newRow("script name") << NFcgiClient::variables("/x\r\nX-Forged: 1\r\n\r\n<script>");
    QTest::newRow("query") << with("QUERY_STRING", "a=b\r\nX-Forged: 1");
    QTest::newRow("escaped query") << with("QUERY_STRING", "%zz%0d%0aX-Forged:%201");
}

void tst_NwaFcgiServer::clientCannotForgeAHeaderField()
{
    QFETCH(NFcgiClient::Params, params);
    m_client->raw(NFcgiClient::request(params));
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(m_client->status() != 0);
    QVERIFY(!m_client->output().contains("X-Forged"));
    QVERIFY(!m_client->remarks().contains('\n'));
}

// Clients that stall or disconnect

void tst_NwaFcgiServer::silentClientsAreDroppedWhileOthersAreServed()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.stallTimeout = 1; });
    const QByteArray request = NFcgiClient::request(announcing("4"), "body");
    QMap<QByteArray, QByteArray> sent;
    sent.insert("nothing at all", QByteArray());
    sent.insert("truncated record header", request.left(5));
    sent.insert("beginning", NFcgiClient::beginRecord());
    sent.insert("truncated params", request.left(40));
    sent.insert("truncated body", request.left(request.size() - 10));
    sent.insert(
        "kept connection at rest", NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, true));
    sent.insert(
        "refused body that never ends",
        NFcgiClient::beginRecord() +
            NFcgiClient::stream(NFcgiClient::ParamsType, 1, NFcgiClient::pairs(announcing("9000000"))));
    QMap<QByteArray, QSharedPointer<NFcgiClient>> clients;
    for (const QByteArray& name : sent.keys()) {
        const QSharedPointer<NFcgiClient> client(new NFcgiClient);
        clients.insert(name, client);
        QVERIFY(client->connectToPath(socketPath()));
        client->raw(sent.value(name));
    }
    QVERIFY(answers());
    for (const QByteArray& name : clients.keys())
        QVERIFY2(
            NTest::waitUntil([&]() { return clients.value(name)->isClosed(); }),
            (name + " is not dropped").constData());
    NTRY_COMPARE(m_server->connectionCount(), 0);
    QVERIFY(answers());
}

void tst_NwaFcgiServer::slowServiceDoesNotEndTheConnection()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.stallTimeout = 1; });
    NFcgiClient silent;
    QVERIFY(silent.connectToPath(socketPath()));
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    // Two later clients have been dropped one after the other, so this one would have been as well.
    NTRY_VERIFY(silent.isClosed());
    QVERIFY(silent.connectToPath(socketPath()));
    NTRY_VERIFY(silent.isClosed());
    NTest::reply(service.request(), "slow");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("slow"));
}

void tst_NwaFcgiServer::serviceMayPauseWithinItsReply()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.stallTimeout = 1; });
    NFcgiClient silent;
    QVERIFY(silent.connectToPath(socketPath()));
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    service.request()->outputStream() << "Content-Type: text/plain\r\n\r\nbeginning" << std::flush;
    NTRY_VERIFY(silent.isClosed());
    QVERIFY(silent.connectToPath(socketPath()));
    NTRY_VERIFY(silent.isClosed());
    service.request()->outputStream() << ", end";
    delete service.request();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("beginning, end"));
}

void tst_NwaFcgiServer::clientThatDoesNotReadItsReplyIsDropped()
{
    NFcgiTestService service([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(5000000, 'r')); });
    m_server->registerService(QString::fromLatin1("/test"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.stallTimeout = 1; });
    m_client->stopReceiving();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    NTRY_COMPARE(m_server->connectionCount(), 0);
    m_client->startReceiving();
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(!m_client->hasEnded());
}

void tst_NwaFcgiServer::replyBeyondTheBufferDropsTheConnection()
{
    bool good = true;
    NFcgiTestService service([&](NwaFcgiRequest* request) {
        request->outputStream() << "Content-Type: text/plain\r\n\r\n";
        const QByteArray piece(10000, 'r');
        for (int count = 0; count < 1000 && good; ++count)
            good = request->outputStream().write(piece.constData(), piece.size()).good();
        delete request;
    });
    m_server->registerService(QString::fromLatin1("/test"), &service);
    setUpLimits([](NwaFcgiLimits& limits) { limits.replyBuffer = 1000000; });
    m_client->stopReceiving();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    QVERIFY(!good);
    NTRY_COMPARE(m_server->connectionCount(), 0);
    m_client->startReceiving();
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(!m_client->hasEnded());
    QVERIFY(m_client->output().size() > 0);
}

void tst_NwaFcgiServer::replyOfPiecesOfAnySizeArrivesAsItIs_data()
{
    QTest::addColumn<bool>("slowClient");
    QTest::newRow("client that takes it at once") << false;
    QTest::newRow("client that takes nothing for a while") << true;
}

void tst_NwaFcgiServer::replyOfPiecesOfAnySizeArrivesAsItIs()
{
    QFETCH(bool, slowClient);
    // Around the sizes above which a piece is sent at once, exceeds a block and exceeds a record.
    const int sizes[] = {1,     2047,  2048,  2049,   32767, 32768, 32769,  0,       65527, 65528,
                         65529, 65535, 65536, 131070, 10,    50000, 131071, 1000000, 7,     300000};
    QByteArray text;
    for (int size : sizes) {
        for (int index = 0; index < size; ++index)
            text.append(char('a' + (index / 7 + size) % 26));
    }
    NFcgiTestService service([&](NwaFcgiRequest* request) {
        request->outputStream() << "Content-Type: text/plain\r\n\r\n";
        const char* piece = text.constData();
        for (int size : sizes) {
            request->outputStream().write(piece, size).flush();
            request->errorStream() << 'e' << std::flush;
            piece += size;
        }
        delete request;
    });
    m_server->registerService(QString::fromLatin1("/test"), &service);
    if (slowClient)
        m_client->stopReceiving();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    m_client->startReceiving();
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(m_client->replyBody() == text);
    QCOMPARE(m_client->remarks(), QByteArray(int(sizeof(sizes) / sizeof(sizes[0])), 'e'));
    QVERIFY(m_client->hasEnded());
}

void tst_NwaFcgiServer::serviceIsNotifiedWhenItsReplyIsSent()
{
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    m_client->stopReceiving();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(service.count(), 1);
    NwaFcgiRequest* const request = service.request();
    QCOMPARE(request->replyBacklog(), 0);
    QSignalSpy taken(request, SIGNAL(replyTaken()));

    const QByteArray text(3000000, 'r');
    request->outputStream() << "Content-Type: text/plain\r\n\r\n";
    request->outputStream().write(text.constData(), text.size());
    // The kernel holds less for a client.
    QVERIFY(request->replyBacklog() > 1000000);
    QCOMPARE(taken.count(), 0);
    m_client->startReceiving();
    NTRY_VERIFY(taken.count() > 0);
    QCOMPARE(request->replyBacklog(), 0);

    taken.clear();
    request->outputStream() << "end" << std::flush;
    NTRY_COMPARE(taken.count(), 1);
    delete request;
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(m_client->replyBody() == text + "end");
}

void tst_NwaFcgiServer::answersThatAreNotReadAreBounded()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.replyBuffer = 100000; });
    m_client->stopReceiving();
    QByteArray records;
    for (int count = 0; count < 1000; ++count)
        records += NFcgiClient::record(200, 0, QByteArray());
    for (int count = 0; count < 100; ++count)
        m_client->raw(records);
    NTRY_COMPARE(m_client->unsentSize(), 0);
    NTRY_COMPARE(m_server->connectionCount(), 0);
    QVERIFY(answers());
}

void tst_NwaFcgiServer::errorReplyMayBreakTheConnection()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.replyBuffer = 1; });
    m_client->endReceiving();
    m_client->raw(NFcgiClient::request(announcing("many")));
    NTRY_VERIFY(m_client->isClosed());
    NTRY_COMPARE(m_server->connectionCount(), 0);
    QVERIFY(answers());
}

void tst_NwaFcgiServer::clientMayDisconnectAnywhere_data()
{
    QTest::addColumn<bool>("form");
    QTest::addColumn<int>("buffer");
    QTest::newRow("body that is awaited") << false << 1024;
    QTest::newRow("body that is streamed") << true << 1024;
    QTest::newRow("body that fills the buffer") << true << 1;
}

void tst_NwaFcgiServer::clientMayDisconnectAnywhere()
{
    QFETCH(bool, form);
    QFETCH(int, buffer);
    NwaFcgiLimits limits;
    limits.streamedBodyBuffer = buffer;
    m_server->setLimits(limits);
    NFcgiClient::Params params = announcing("4");
    params << Param("CONTENT_TYPE", form ? "multipart/form-data; boundary=b" : "text/plain");
    const QByteArray request = NFcgiClient::request(params, "body");
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    for (int position = 0; position <= request.size(); ++position) {
        const int count = service.count();
        QVERIFY(m_client->connectToPath(socketPath()));
        m_client->raw(request.left(position));
        NTRY_COMPARE(m_server->connectionCount(), 1);
        QCoreApplication::processEvents();
        m_client->disconnectNow();
        NTRY_COMPARE(m_server->connectionCount(), 0);
        if (service.count() == count)
            continue;
        QVERIFY(service.request(count)->isAborted());
        NTest::reply(service.request(count), "not sent");
    }
    QVERIFY(service.count() > 0);
    // While a reply is being sent, of which the client has read nothing or a part.
    for (int size = 0; size <= 1000000; size += 500000) {
        const int count = service.count();
        QVERIFY(m_client->connectToPath(socketPath()));
        m_client->raw(request);
        NTRY_COMPARE(service.count(), count + 1);
        m_client->stopReceiving();
        NTest::reply(service.request(count), QByteArray(5000000, 'r'));
        m_client->startReceiving();
        NTRY_VERIFY(m_client->output().size() >= size);
        m_client->disconnectNow();
        NTRY_COMPARE(m_server->connectionCount(), 0);
    }
}

void tst_NwaFcgiServer::clientThatEndsItsSendingGetsItsReply_data()
{
    QTest::addColumn<bool>("overTcp");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("keep");
    QTest::newRow("Unix socket") << false << 10 << false;
    QTest::newRow("TCP") << true << 10 << false;
    QTest::newRow("Unix socket, kept connection") << false << 10 << true;
    QTest::newRow("Unix socket, large reply") << false << 5000000 << false;
    QTest::newRow("TCP, large reply") << true << 5000000 << false;
    QTest::newRow("TCP, large reply, kept connection") << true << 5000000 << true;
}

void tst_NwaFcgiServer::clientThatEndsItsSendingGetsItsReply()
{
    QFETCH(bool, overTcp);
    QFETCH(int, size);
    QFETCH(bool, keep);
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    if (overTcp)
        QVERIFY(connectOverTcp());
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, keep));
    m_client->endSending();
    NTRY_COMPARE(service.count(), 1);
    QCoreApplication::processEvents();
    QVERIFY(!service.request()->isAborted());
    NTest::reply(service.request(), QByteArray(size, 'r'));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody().size(), size);
    QCOMPARE(m_client->protocolStatus(), 0);
}

void tst_NwaFcgiServer::clientThatEndsItsSendingTooEarlyIsDropped()
{
    const QByteArray request = NFcgiClient::request(announcing("4"), "body");
    m_client->raw(request.left(request.size() - 1));
    m_client->endSending();
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->records().size(), 0);
    QCOMPARE(m_service->count(), 0);
}

void tst_NwaFcgiServer::disconnectionIsNoticedWhileTheBodyWaits_data()
{
    QTest::addColumn<bool>("overTcp");
    QTest::addColumn<bool>("endsItsSendingOnly");
    QTest::newRow("Unix socket") << false << false;
    QTest::newRow("Unix socket, end of sending") << false << true;
    QTest::newRow("TCP") << true << false;
    QTest::newRow("TCP, end of sending") << true << true;
}

void tst_NwaFcgiServer::disconnectionIsNoticedWhileTheBodyWaits()
{
    QFETCH(bool, overTcp);
    QFETCH(bool, endsItsSendingOnly);
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    if (overTcp)
        QVERIFY(connectOverTcp());
    m_client->begin();
    m_client->params(announcingForm(3000000));
    m_client->body(QByteArray(100000, 'b'));
    NTRY_COMPARE(service.count(), 1);
    NTRY_COMPARE(m_client->unsentSize(), 0);
    QSignalSpy aborted(service.request(), SIGNAL(aborted()));
    if (endsItsSendingOnly)
        m_client->endSending();
    else
        m_client->disconnectNow();
    NTRY_COMPARE(aborted.count(), 1);
    QCOMPARE(m_server->connectionCount(), 0);
}

void tst_NwaFcgiServer::clientThatEndsItsSendingWhileItsBodyWaitsGetsItsReply_data()
{
    QTest::addColumn<bool>("overTcp");
    QTest::newRow("Unix socket") << false;
    QTest::newRow("TCP") << true;
}

void tst_NwaFcgiServer::clientThatEndsItsSendingWhileItsBodyWaitsGetsItsReply()
{
    QFETCH(bool, overTcp);
    NFcgiTestService service;
    m_server->registerService(QString::fromLatin1("/test"), &service);
    setUpLimits([](NwaFcgiLimits& limits) {
        limits.stallTimeout = 1;
        limits.streamedBodyBuffer = 1000;
    });
    if (overTcp)
        QVERIFY(connectOverTcp());
    NFcgiClient silent;
    QVERIFY(
        overTcp ? silent.connectToPort(QString::fromLatin1("127.0.0.1"), m_server->port())
                : silent.connectToPath(socketPath()));
    const QByteArray body(100000, 'b');
    m_client->raw(NFcgiClient::request(announcingForm(body.size()), body));
    NTRY_COMPARE(service.count(), 1);
    NTRY_COMPARE(m_client->unsentSize(), 0);
    m_client->endSending();
    // Every connection has been checked by then.
    NTRY_VERIFY(silent.isClosed());
    QVERIFY(!service.request()->isAborted());
    QByteArray read;
    NTRY_VERIFY((read += NTest::readAvailableBody(service.request()), service.request()->atBodyEnd()));
    QVERIFY(read == body);
    NTest::reply(service.request(), "taken");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("taken"));
}

void tst_NwaFcgiServer::connectionsBeyondTheLimitWait()
{
    setUpLimits([](NwaFcgiLimits& limits) { limits.connectionCount = 2; });
    NFcgiClient second;
    NFcgiClient third;
    QVERIFY(second.connectToPath(socketPath()));
    QVERIFY(third.connectToPath(socketPath()));
    third.raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    NTRY_COMPARE(m_server->connectionCount(), 2);
    // It still waits after a whole interval between two checks.
    QVERIFY(!NTest::waitUntil([&]() { return third.isClosed(); }, 1500));
    QCOMPARE(m_server->connectionCount(), 2);
    second.disconnectNow();
    NTRY_VERIFY(third.isClosed());
    QCOMPARE(third.replyBody(), QByteArray("GET"));
}

void tst_NwaFcgiServer::acceptingResumesAfterALackOfDescriptors()
{
    // The event loop opens a descriptor when it first runs.
    QCoreApplication::processEvents();
    NFcgiClient second;
    QVERIFY(second.connectToPath(socketPath()));
    second.raw(NFcgiClient::request(NFcgiClient::variables("/test")));
    {
        const DescriptorExhaustion exhaustion;
        QVERIFY(!NTest::waitUntil([&]() { return second.isClosed(); }, 1500));
    }
    NTRY_VERIFY(second.isClosed());
    QCOMPARE(second.replyBody(), QByteArray("GET"));
}

void tst_NwaFcgiServer::limitsAreAtLeastOne()
{
    NwaFcgiLimits limits;
    limits.connectionCount = 0;
    limits.variablesSize = -1;
    limits.querySize = 0;
    limits.bodySize = -1000;
    limits.streamedBodyBuffer = 0;
    limits.replyBuffer = 0;
    limits.bufferedSize = 0;
    limits.stallTimeout = 0;
    m_server->setLimits(limits);
    QCOMPARE(m_server->limits().connectionCount, 1);
    QCOMPARE(m_server->limits().variablesSize, 1);
    QCOMPARE(m_server->limits().querySize, 1);
    QCOMPARE(m_server->limits().bodySize, 1);
    QCOMPARE(m_server->limits().streamedBodyBuffer, 1);
    QCOMPARE(m_server->limits().replyBuffer, 1);
    QCOMPARE(m_server->limits().bufferedSize, 1);
    QCOMPARE(m_server->limits().stallTimeout, 1);
}

QTEST_MAIN(tst_NwaFcgiServer)
#include "tst_nwafcgiserver.moc"
