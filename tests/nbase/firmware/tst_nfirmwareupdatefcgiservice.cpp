#include <nbase/firmware/nfirmwareupdatefcgirequestprocessor.h>
#include <nbase/firmware/nfirmwareupdatefcgiservice.h>

#include <nbase/device/nremovablemedia.h>
#include <nbase/device/nremovablemediaslist.h>
#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwawebsession.h>

#include "nrandombytes.h"
#include "nscripteddaemon.h"
#include "nupdatedaemonthread.h"

#include "nwebapi/nfcgiclient.h"
#include "support/nallocatedbytes.h"
#include "support/nlighttpd.h"
#include "support/nmounttable.h"
#include "support/nprivatenamespace.h"
#include "support/nservicetest.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QCryptographicHash>
#include <QtCore/QFile>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <unistd.h>

#include <functional>
#include <memory>

using NSystemCalls::Calls;
using NSystemCalls::Record;

namespace {

typedef NFirmwareUpdateFcgiRequestProcessor Processor;
typedef NFirmwareUpdateFcgiService Service;
typedef QPair<QByteArray, QByteArray> Param;

const char* const Remark =
    "Error in request processor for request to script \"/api/firmware\" with path info \"/more\": ";
const char* const CannotStart = "cannot start the installation of a package";
const char* const FormType = "multipart/form-data; boundary=frontier";
const char* const FormEnd = "--frontier--\r\n";
const int PostUpdateType = 4;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool MeasuresMemory = false; // the sanitizers use additional memory
const int LargePackage = 20;       // megabytes
#else
const bool MeasuresMemory = true;
const int LargePackage = 200;
#endif

const int Megabyte = 1024 * 1024;

class Medias : public NRemovableMediasList
{
public:
    ~Medias() override { qDeleteAll(m_medias); }

    void insert(const char* name)
    {
        const QString deviceName = latin1(name);
        m_medias.insert(deviceName, new NRemovableMedia(deviceName));
    }

    const QHash<QString, NRemovableMedia*>& removableMedias() const override { return m_medias; }
    void refresh() override {}

private:
    QHash<QString, NRemovableMedia*> m_medias;
};

class TestProcessor : public Processor
{
public:
    using Processor::Processor;

    bool canUpdateFirmwareWithSession(NwaWebSession* session) const override
    {
        askedFor = session;
        return !isRefusing;
    }

    mutable NwaWebSession* askedFor = nullptr;
    bool isRefusing = false;
};

QByteArray partHeader(const QByteArray& name)
{
    return "--frontier\r\nContent-Disposition: form-data; name=\"" + name +
           "\"; filename=\"../p.swu\"\r\nContent-Type: application/octet-stream\r\n\r\n";
}

QByteArray part(const QByteArray& name, const QByteArray& content)
{
    return partHeader(name) + content + "\r\n";
}

QByteArray packageForm(const QByteArray& content)
{
    return part("package", content) + FormEnd;
}

// The length and the text of a request.
QByteArray informationOf(const QByteArray& request)
{
    return request.mid(20);
}

int typeOf(const QByteArray& request)
{
    return request.at(4);
}

// Memory that a process holds, in kB.
int residentSize(const QString& process = latin1("self"))
{
    QFile file(latin1("/proc/") + process + latin1("/statm"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("the size of a process cannot be read");
    return file.readAll().split(' ').value(1).toInt() * int(::sysconf(_SC_PAGESIZE) / 1024);
}

void runDeletions()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

class tst_NFirmwareUpdateFcgiService : public QObject
{
    Q_OBJECT

public:
    tst_NFirmwareUpdateFcgiService();

private slots:
    void init();
    void cleanup();

    void namesAreFixed();
    void requestWithoutSessionIsAnswered401_data();
    void requestWithoutSessionIsAnswered401();
    void refusedSessionIsAnswered403_data();
    void refusedSessionIsAnswered403();
    void otherMethodsAreAnswered405_data();
    void otherMethodsAreAnswered405();
    void headIsAnsweredWithoutTheDocument();
    void packagesSectionIsReadOnly();
    void serviceMakesAndOwnsItsProcessor();

    void statusHasTheMembersOfItsState_data();
    void statusHasTheMembersOfItsState();
    void stateFollowsTheDaemon();
    void failureOfTheDaemonIsReported();
    void packagesOfTheMediasAreListed();
    void withoutMediasTheListIsEmpty();

    void otherContentTypesAreAnswered415_data();
    void otherContentTypesAreAnswered415();
    void invalidDocumentsAreAnswered400_data();
    void invalidDocumentsAreAnswered400();
    void namesThatLeadElsewhereAreRefused_data();
    void namesThatLeadElsewhereAreRefused();
    void packageOfAMediaIsInstalled();
    void packageThatCannotBeReadIsAnswered409_data();
    void packageThatCannotBeReadIsAnswered409();
    void refusalOfTheDaemonIsAnswered409();
    void startWithoutInstallerIsAnswered409();

    void uploadArrivesByteByByte_data();
    void uploadArrivesByteByByte();
    void uploadMayArriveInAnyPieces_data();
    void uploadMayArriveInAnyPieces();
    void uploadIsAnsweredBeforeTheRestOfTheForm();
    void formWithoutPackageIsAnswered400_data();
    void formWithoutPackageIsAnswered400();
    void secondStartIsAnswered409_data();
    void secondStartIsAnswered409();
    void pauseIsNotTheEnd();
    void abandonedUploadEndsWhereItIs_data();
    void abandonedUploadEndsWhereItIs();
    void clientMayGoBeforeThePackage();
    void clientMayGoWhileTheDaemonWaits();
    void uploadIsAnsweredWhenTheDaemonDropsIt_data();
    void uploadIsAnsweredWhenTheDaemonDropsIt();
    void uploadIsAnsweredWhenTheDaemonDropsItDuringAPause();
    void sessionMayEndDuringAnUpload();
    void slowDaemonSlowsTheClient();

    void postUpdateFollowsASuccessAfterHalfASecond();
    void postUpdateDoesNotFollowAFailure();
    void serviceMayBeDeletedInsideItsEvent_data();
    void serviceMayBeDeletedInsideItsEvent();
    void serviceMayBeDeletedDuringAnUpload_data();
    void serviceMayBeDeletedDuringAnUpload();
    void serviceMayBeDeletedWhenTheImageEnds_data();
    void serviceMayBeDeletedWhenTheImageEnds();
    void installerMayBeDeletedDuringAnUpload();
    void requestMayBeDeletedDuringAnUpload_data();
    void requestMayBeDeletedDuringAnUpload();

    void largePackageGoesThroughTheWebServerInLittleMemory();

protected slots:
    void takeEvent();
    void takeInstallerSignal();

private:
    void makeService();
    bool serveWith(NUpdateDaemonThread* daemon, const char* options);
    QVariantMap status() const;
    void send(
        NFcgiClient& client, const QByteArray& method, const QByteArray& query = QByteArray(),
        const QByteArray& contentType = QByteArray(), const QByteArray& body = QByteArray());
    int
    ask(const QByteArray& method, const QByteArray& query = QByteArray(),
        const QByteArray& contentType = QByteArray(), const QByteArray& body = QByteArray());
    int upload(const QByteArray& content);
    void beginUpload(NFcgiClient& client, int bodySize, const QByteArray& sent);
    bool waitForIdle();
    QByteArray mediaDocument(const char* media, const char* file) const;

    std::unique_ptr<NScriptedDaemon> m_daemon;
    std::unique_ptr<NTemporaryDirectory> m_directory;
    std::unique_ptr<NMountTable> m_mounts;
    std::unique_ptr<NTemporaryDirectory> m_media;
    std::unique_ptr<NwaWebSessionManager> m_sessions;
    std::unique_ptr<NFixedSession> m_identifier;
    std::unique_ptr<Medias> m_medias;
    QPointer<NSWUpdateInstaller> m_installer;
    std::unique_ptr<NSWUpdateProgressClient> m_progress;
    TestProcessor* m_processor; ///< of m_service
    QPointer<NwaStandardFcgiService> m_service;
    std::unique_ptr<NwaFcgiServer> m_server;
    std::unique_ptr<NFcgiClient> m_client;
    QByteArray m_progressPath;
    QList<QVariantMap> m_states; ///< at each event
    bool m_hasFinished;
    std::function<void()> m_onEvent;
    std::function<void()> m_onInstallerSignal;
};

tst_NFirmwareUpdateFcgiService::tst_NFirmwareUpdateFcgiService()
    : m_processor(nullptr)
    , m_hasFinished(false)
{
}

void tst_NFirmwareUpdateFcgiService::init()
{
    m_daemon.reset(new NScriptedDaemon);
    m_directory.reset(new NTemporaryDirectory);
    m_media.reset(new NTemporaryDirectory);
    m_mounts.reset(new NMountTable);
    m_mounts->write("/dev/sdz1 " + QFile::encodeName(m_media->path()) + " vfat rw 0 0\n");
    m_medias.reset(new Medias);
    m_medias->insert("sdz1");
    m_sessions.reset(new NwaWebSessionManager);
    m_identifier.reset(new NFixedSession(m_sessions->createSession()));
    m_installer = new NSWUpdateInstaller(m_daemon->path(), nullptr);
    // No daemon listens there, unless the test starts one.
    m_progressPath = QFile::encodeName(m_directory->filePath(latin1("progress")));
    SOCKET_PROGRESS_PATH = m_progressPath.data();
    m_progress.reset(new NSWUpdateProgressClient(nullptr));
    m_server.reset(new NwaFcgiServer);
    QVERIFY(m_server->listenOnPath(m_directory->filePath(latin1("socket"))));
    m_client.reset(new NFcgiClient);
    m_states.clear();
    m_hasFinished = false;
    m_onEvent = nullptr;
    m_onInstallerSignal = nullptr;
    makeService();
}

void tst_NFirmwareUpdateFcgiService::makeService()
{
    delete m_service;
    m_processor = new TestProcessor(m_identifier.get(), m_installer, m_progress.get(), m_medias.get(), nullptr);
    m_service = new Service(m_processor, nullptr);
    m_server->registerService(latin1("/api/firmware"), m_service);
    connect(m_service, SIGNAL(firmwareUpdateEvent()), SLOT(takeEvent()));
    connect(m_installer, SIGNAL(finished(bool)), SLOT(takeInstallerSignal()));
}

void tst_NFirmwareUpdateFcgiService::cleanup()
{
    m_onEvent = nullptr;
    m_onInstallerSignal = nullptr;
    delete m_service;
    m_client.reset();
    m_server.reset();
    delete m_installer;
    m_progress.reset();
    runDeletions();
    m_identifier.reset();
    m_sessions.reset();
    m_medias.reset();
    m_mounts.reset();
    m_media.reset();
    m_directory.reset();
    m_daemon.reset();
}

void tst_NFirmwareUpdateFcgiService::takeEvent()
{
    m_states.append(status());
    if (m_onEvent)
        m_onEvent();
}

void tst_NFirmwareUpdateFcgiService::takeInstallerSignal()
{
    m_hasFinished = true;
    if (m_onInstallerSignal)
        m_onInstallerSignal();
}

QVariantMap tst_NFirmwareUpdateFcgiService::status() const
{
    return m_processor->firmwareUpdateStatusToVariantMap();
}

void tst_NFirmwareUpdateFcgiService::send(
    NFcgiClient& client, const QByteArray& method, const QByteArray& query, const QByteArray& contentType,
    const QByteArray& body)
{
    QVERIFY(client.connectToPath(m_directory->filePath(latin1("socket"))));
    NFcgiClient::Params params = NFcgiClient::variables("/api/firmware", method);
    params << Param("PATH_INFO", "/more") << Param("QUERY_STRING", query)
           << Param("CONTENT_LENGTH", QByteArray::number(body.size()));
    if (!contentType.isNull())
        params << Param("CONTENT_TYPE", contentType);
    client.raw(NFcgiClient::request(params, body));
}

// Returns the status of the reply, which is in m_client.
int tst_NFirmwareUpdateFcgiService::ask(
    const QByteArray& method, const QByteArray& query, const QByteArray& contentType, const QByteArray& body)
{
    send(*m_client, method, query, contentType, body);
    return NTest::waitUntil([&]() { return m_client->hasEnded(); }) ? m_client->status() : -1;
}

int tst_NFirmwareUpdateFcgiService::upload(const QByteArray& content)
{
    return ask("POST", QByteArray(), FormType, packageForm(content));
}

// Sends the beginning of a form of a known size.
void tst_NFirmwareUpdateFcgiService::beginUpload(NFcgiClient& client, int bodySize, const QByteArray& sent)
{
    QVERIFY(client.connectToPath(m_directory->filePath(latin1("socket"))));
    client.begin();
    client.params(
        NFcgiClient::variables("/api/firmware", "POST")
        << Param("PATH_INFO", "/more") << Param("CONTENT_TYPE", FormType)
        << Param("CONTENT_LENGTH", QByteArray::number(bodySize)));
    client.body(sent);
}

// Whether the running installation ends, so that another one can be started.
bool tst_NFirmwareUpdateFcgiService::waitForIdle()
{
    const bool hasEnded = NTest::waitUntil([&]() { return m_hasFinished; });
    m_hasFinished = false;
    return hasEnded;
}

QByteArray tst_NFirmwareUpdateFcgiService::mediaDocument(const char* media, const char* file) const
{
    return QByteArray("{\"media\":\"") + media + "\",\"packageFileName\":\"" + file + "\"}";
}

void tst_NFirmwareUpdateFcgiService::namesAreFixed()
{
    QCOMPARE(Processor::S_STREAM_FIELD_NAME, latin1("stream"));
    QCOMPARE(Processor::S_SECTION_FIELD_NAME, latin1("section"));
    QCOMPARE(Processor::S_PACKAGES_SECTION_NAME, latin1("packages"));
}

// Rights

void tst_NFirmwareUpdateFcgiService::requestWithoutSessionIsAnswered401_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("status") << QByteArray("GET") << QByteArray() << QByteArray() << QByteArray();
    QTest::newRow("packages") << QByteArray("GET") << QByteArray("section=packages") << QByteArray()
                              << QByteArray();
    QTest::newRow("upload") << QByteArray("POST") << QByteArray() << QByteArray(FormType) << packageForm("image");
    QTest::newRow("package of a media")
        << QByteArray("POST") << QByteArray() << QByteArray("application/json") << mediaDocument("sdz1", "a.swu");
    QTest::newRow("wrong document") << QByteArray("POST") << QByteArray() << QByteArray("application/json")
                                    << QByteArray("{");
    QTest::newRow("wrong type") << QByteArray("POST") << QByteArray() << QByteArray("text/plain")
                                << QByteArray("x");
    QTest::newRow("POST of packages") << QByteArray("POST") << QByteArray("section=packages") << QByteArray()
                                      << QByteArray();
}

void tst_NFirmwareUpdateFcgiService::requestWithoutSessionIsAnswered401()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, query);
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, body);
    m_media->writeFile(latin1("a.swu"), "image");
    m_identifier->session = nullptr;
    QCOMPARE(ask(method, query, type, body), 401);
    QVERIFY(!m_client->replyBody().contains('{'));
    QCOMPARE(m_client->remarks(), QByteArray());
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::refusedSessionIsAnswered403_data()
{
    requestWithoutSessionIsAnswered401_data();
}

void tst_NFirmwareUpdateFcgiService::refusedSessionIsAnswered403()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, query);
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, body);
    m_media->writeFile(latin1("a.swu"), "image");
    m_processor->isRefusing = true;
    QCOMPARE(ask(method, query, type, body), 403);
    QVERIFY(m_processor->askedFor == m_identifier->session);
    QVERIFY(!m_client->replyBody().contains('{'));
    QCOMPARE(m_client->remarks(), QByteArray());
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::otherMethodsAreAnswered405_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("PUT") << QByteArray("PUT");
    QTest::newRow("DELETE") << QByteArray("DELETE");
    QTest::newRow("OPTIONS") << QByteArray("OPTIONS");
    QTest::newRow("post") << QByteArray("post");
}

void tst_NFirmwareUpdateFcgiService::otherMethodsAreAnswered405()
{
    QFETCH(QByteArray, method);
    QCOMPARE(ask(method), 405);
    QVERIFY(m_client->output().contains("\r\nAllow: GET, HEAD, POST\r\n"));
}

void tst_NFirmwareUpdateFcgiService::headIsAnsweredWithoutTheDocument()
{
    QCOMPARE(ask("HEAD"), 200);
    QCOMPARE(m_client->output(), QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
}

void tst_NFirmwareUpdateFcgiService::packagesSectionIsReadOnly()
{
    QCOMPARE(ask("POST", "section=packages", FormType, packageForm("image")), 405);
    QVERIFY(m_client->output().contains("\r\nAllow: GET, HEAD, POST\r\n"));
    QVERIFY(m_processor->askedFor == m_identifier->session);
    QVERIFY(m_daemon->takeRequests().isEmpty());
    QCOMPARE(ask("GET", "section=packages"), 200);
    QCOMPARE(m_client->replyBody(), QByteArray("{\"sdz1\":[]}"));

    // Only this value, once, means the section.
    const QList<QByteArray> others = QList<QByteArray>() << "section=Packages"
                                                         << "section=packages&section=packages"
                                                         << "section=state"
                                                         << "packages"
                                                         << "stream";
    for (const QByteArray& query : others) {
        QCOMPARE(ask("GET", query), 200);
        QCOMPARE(m_client->replyBody(), QByteArray("{\"state\":\"idle\"}"));
        QCOMPARE(ask("POST", query, "text/plain", "x"), 415);
    }
}

void tst_NFirmwareUpdateFcgiService::serviceMakesAndOwnsItsProcessor()
{
    QObject parent;
    Service* const service =
        new Service(m_identifier.get(), m_installer, m_progress.get(), m_medias.get(), &parent);
    QVERIFY(service->parent() == &parent);
    m_server->registerService(latin1("/api/firmware"), service);
    QCOMPARE(ask("GET"), 200);
    QCOMPARE(m_client->replyBody(), QByteArray("{\"state\":\"idle\"}"));
    QSignalSpy spy(service, SIGNAL(firmwareUpdateEvent()));
    QMetaObject::invokeMethod(m_progress.get(), "updateFinished", Q_ARG(bool, true));
    QCOMPARE(spy.count(), 1);

    const QPointer<TestProcessor> processor(m_processor);
    delete m_service;
    QVERIFY(!processor);
}

// The state

void tst_NFirmwareUpdateFcgiService::statusHasTheMembersOfItsState_data()
{
    QTest::addColumn<QString>("signalNames");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("none") << QString() << QByteArray("{\"state\":\"idle\"}");
    QTest::newRow("started") << latin1("started")
                             << QByteArray("{\"information\":\"text\",\"state\":\"starting\",\"stepsCount\":3}");
    QTest::newRow("new step") << latin1("started new")
                              << QByteArray("{\"currentStep\":2,\"imageName\":\"image\",\"information\":\"text\","
                                            "\"state\":\"installing\",\"stepPercentage\":0,\"stepsCount\":4}");
    QTest::newRow("step") << latin1("started new step")
                          << QByteArray("{\"currentStep\":3,\"imageName\":\"other\",\"information\":\"text\","
                                        "\"state\":\"installing\",\"stepPercentage\":200,\"stepsCount\":5}");
    QTest::newRow("next step") << latin1("started step new")
                               << QByteArray("{\"currentStep\":2,\"imageName\":\"image\",\"information\":\"text\","
                                             "\"state\":\"installing\",\"stepPercentage\":0,\"stepsCount\":4}");
    QTest::newRow("success") << latin1("started new success")
                             << QByteArray("{\"information\":\"text\",\"state\":\"finished\",\"success\":true}");
    QTest::newRow("failure") << latin1("started failure")
                             << QByteArray("{\"information\":\"text\",\"state\":\"finished\",\"success\":false}");
    QTest::newRow("failure after success")
        << latin1("started success failure")
        << QByteArray("{\"information\":\"text\",\"state\":\"finished\",\"success\":false}");
    QTest::newRow("second update") << latin1("started step success second")
                                   << QByteArray("{\"information\":\"\",\"state\":\"starting\",\"stepsCount\":1}");
    // The progress client has connected in the middle of an update.
    QTest::newRow("start missed, step")
        << latin1("step")
        << QByteArray("{\"currentStep\":3,\"imageName\":\"other\",\"information\":\"\","
                      "\"state\":\"installing\",\"stepPercentage\":200,\"stepsCount\":5}");
    QTest::newRow("start missed, end") << latin1("success")
                                       << QByteArray(
                                              "{\"information\":\"\",\"state\":\"finished\",\"success\":true}");
    QTest::newRow("others") << latin1("download done subprocess") << QByteArray("{\"state\":\"idle\"}");
}

void tst_NFirmwareUpdateFcgiService::statusHasTheMembersOfItsState()
{
    QFETCH(QString, signalNames);
    QFETCH(QByteArray, expected);
    QObject* const client = m_progress.get();
    int events = 0;
    for (const QString& name : signalNames.split(QLatin1Char(' '))) {
        ++events;
        if (name == latin1("started"))
            QMetaObject::invokeMethod(
                client, "updateStarted", Q_ARG(NSWUpdate::Source, NSWUpdate::SourceLocal), Q_ARG(int, 3),
                Q_ARG(QString, latin1("text")));
        else if (name == latin1("second"))
            QMetaObject::invokeMethod(
                client, "updateStarted", Q_ARG(NSWUpdate::Source, NSWUpdate::SourceUnknown), Q_ARG(int, 1),
                Q_ARG(QString, QString()));
        else if (name == latin1("new"))
            QMetaObject::invokeMethod(
                client, "newStepStarted", Q_ARG(int, 4), Q_ARG(int, 2), Q_ARG(QString, latin1("image")));
        else if (name == latin1("step"))
            QMetaObject::invokeMethod(
                client, "stepUpdate", Q_ARG(int, 5), Q_ARG(int, 3), Q_ARG(QString, latin1("other")),
                Q_ARG(quint8, 200));
        else if (name == latin1("success") || name == latin1("failure"))
            QMetaObject::invokeMethod(client, "updateFinished", Q_ARG(bool, name == latin1("success")));
        else
            --events;
    }
    QCOMPARE(m_states.size(), events);
    QCOMPARE(ask("GET"), 200);
    QCOMPARE(m_client->replyBody(), expected);
    QVERIFY(m_states.isEmpty() || NwaJson::serialize(m_states.last()) == expected);
    QVERIFY(m_client->output().startsWith("Content-Type: application/json; charset=utf-8\r\n"));
}

// Has the service install packages with the stand-in instead of the scripted daemon.
bool tst_NFirmwareUpdateFcgiService::serveWith(NUpdateDaemonThread* daemon, const char* options)
{
    if (!daemon->listen())
        return false;
    daemon->setOptions(options);
    m_progressPath = QFile::encodeName(daemon->progressPath());
    SOCKET_PROGRESS_PATH = m_progressPath.data();
    if (!NTest::waitUntil([daemon]() { return daemon->progressConnections() == 1; }))
        return false;
    delete m_service;
    delete m_installer;
    m_installer = new NSWUpdateInstaller(daemon->controlPath(), nullptr);
    makeService();
    return true;
}

void tst_NFirmwareUpdateFcgiService::stateFollowsTheDaemon()
{
    NUpdateDaemonThread daemon;
    QVERIFY(serveWith(&daemon, "steps 2 step-time 10"));

    QCOMPARE(upload(NTest::randomBytes(500000)), 200);
    QVERIFY(NwaJson::parse(m_client->replyBody(), nullptr).toMap().contains(latin1("state")));
    QVERIFY(waitForIdle());
    NTRY_COMPARE(status().value(latin1("state")), QVariant(latin1("finished")));
    QCOMPARE(daemon.imageSize(), qint64(500000));
    QCOMPARE(status().value(latin1("success")), QVariant(true));

    QStringList states;
    for (const QVariantMap& state : m_states) {
        QString text = state.value(latin1("state")).toString();
        if (text == latin1("installing"))
            text += QString::fromLatin1(" %1/%2 %3")
                        .arg(state.value(latin1("currentStep")).toInt())
                        .arg(state.value(latin1("stepsCount")).toInt())
                        .arg(state.value(latin1("imageName")).toString());
        if (states.isEmpty() || states.last() != text)
            states.append(text);
    }
    // The end that the installer has seen is one more event.
    states.removeDuplicates();
    QCOMPARE(
        states, latin1("starting,installing 0/2 ,installing 1/2 image-1.bin,installing 2/2 image-2.bin,finished")
                    .split(QLatin1Char(',')));
}

void tst_NFirmwareUpdateFcgiService::failureOfTheDaemonIsReported()
{
    NUpdateDaemonThread daemon;
    QVERIFY(serveWith(&daemon, "steps 2 step-time 10 fail-step 2"));

    QCOMPARE(upload(NTest::randomBytes(500000)), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(status().value(latin1("state")), QVariant(latin1("finished")));
    QCOMPARE(status().value(latin1("success")), QVariant(false));
}

// The list of the packages

void tst_NFirmwareUpdateFcgiService::packagesOfTheMediasAreListed()
{
    const QList<QByteArray> files = QList<QByteArray>() << "b.swu"
                                                        << "a.swu"
                                                        << "c.SWU"
                                                        << "d.swu.txt"
                                                        << "\xC3\xA9.swu"
                                                        << "folder.swu/e.swu";
    for (const QByteArray& file : files)
        m_media->writeFile(QFile::decodeName(file), "package");
    const NTemporaryDirectory second;
    second.writeFile(latin1("f.swu"), "package");
    const NTemporaryDirectory other;
    other.writeFile(latin1("g.swu"), "package");
    m_mounts->write(
        "/dev/sdz1 " + QFile::encodeName(m_media->path()) + " vfat rw 0 0\n/dev/mmcblk0p1 " +
        QFile::encodeName(second.path()) + " vfat rw 0 0\n/dev/sdz2 " + QFile::encodeName(second.path()) +
        "/missing vfat rw 0 0\n/dev/sdz4 " + QFile::encodeName(other.path()) + " vfat rw 0 0\n");
    m_medias->insert("mmcblk0p1");
    m_medias->insert("sdz2"); // cannot be read
    m_medias->insert("sdz3"); // is not mounted; sdz4 is mounted, but not in the list
    QCOMPARE(ask("GET", "section=packages"), 200);
    QCOMPARE(
        m_client->replyBody(),
        QByteArray("{\"mmcblk0p1\":[\"f.swu\"],\"sdz1\":[\"a.swu\",\"b.swu\",\"\xC3\xA9.swu\"]}"));
    QCOMPARE(m_client->output().split('\r').first(), QByteArray("Content-Type: application/json; charset=utf-8"));
}

void tst_NFirmwareUpdateFcgiService::withoutMediasTheListIsEmpty()
{
    m_medias.reset(new Medias);
    makeService();
    QCOMPARE(ask("GET", "section=packages"), 200);
    QCOMPARE(m_client->replyBody(), QByteArray("{}"));
}

// Packages of removable media

void tst_NFirmwareUpdateFcgiService::otherContentTypesAreAnswered415_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("none") << QByteArray();
    QTest::newRow("text") << QByteArray("text/plain");
    QTest::newRow("octets") << QByteArray("application/octet-stream");
    QTest::newRow("form") << QByteArray("application/x-www-form-urlencoded");
    QTest::newRow("other form in parts") << QByteArray("multipart/mixed; boundary=frontier");
    QTest::newRow("other JSON") << QByteArray("application/json-patch+json");
}

void tst_NFirmwareUpdateFcgiService::otherContentTypesAreAnswered415()
{
    QFETCH(QByteArray, type);
    QCOMPARE(ask("POST", QByteArray(), type, mediaDocument("sdz1", "a.swu")), 415);
    QCOMPARE(
        m_client->remarks(),
        Remark + QByteArray("Media type for a request body must be \"multipart/form-data\" or "
                            "\"application/json\""));
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::invalidDocumentsAreAnswered400_data()
{
    QTest::addColumn<QByteArray>("document");
    const QList<QByteArray> documents = QList<QByteArray>()
                                        << ""
                                        << "{"
                                        << "null"
                                        << "[]"
                                        << "\"sdz1\""
                                        << "{}"
                                        << "{\"media\":\"sdz1\"}"
                                        << "{\"packageFileName\":\"a.swu\"}"
                                        << "{\"media\":1,\"packageFileName\":\"a.swu\"}"
                                        << "{\"media\":\"sdz1\",\"packageFileName\":null}"
                                        << "{\"media\":\"sdz1\",\"packageFileName\":[\"a.swu\"]}"
                                        << "{\"Media\":\"sdz1\",\"packageFileName\":\"a.swu\"}";
    for (const QByteArray& document : documents)
        QTest::newRow(document.isEmpty() ? "nothing" : document.constData()) << document;
}

void tst_NFirmwareUpdateFcgiService::invalidDocumentsAreAnswered400()
{
    QFETCH(QByteArray, document);
    m_media->writeFile(latin1("a.swu"), "image");
    QCOMPARE(ask("POST", QByteArray(), "application/json", document), 400);
    QCOMPARE(m_client->remarks(), QByteArray());
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::namesThatLeadElsewhereAreRefused_data()
{
    QTest::addColumn<QByteArray>("media");
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<int>("status");
    QTest::newRow("media that is not in the list") << QByteArray("sdz4") << QByteArray("a.swu") << 404;
    QTest::newRow("no media") << QByteArray() << QByteArray("a.swu") << 404;
    QTest::newRow("path as the media") << QByteArray("../sdz1") << QByteArray("a.swu") << 404;
    QTest::newRow("no file") << QByteArray("sdz1") << QByteArray() << 400;
    QTest::newRow("this folder") << QByteArray("sdz1") << QByteArray(".") << 400;
    QTest::newRow("folder above") << QByteArray("sdz1") << QByteArray("..") << 400;
    QTest::newRow("file of the folder above") << QByteArray("sdz1") << QByteArray("../a.swu") << 400;
    QTest::newRow("file of a folder") << QByteArray("sdz1") << QByteArray("folder/a.swu") << 400;
    QTest::newRow("absolute path") << QByteArray("sdz1") << QByteArray("/etc/passwd") << 400;
    QTest::newRow("same folder") << QByteArray("sdz1") << QByteArray("./a.swu") << 400;
    QTest::newRow("slash at the end") << QByteArray("sdz1") << QByteArray("a.swu/") << 400;
    QTest::newRow("zero character") << QByteArray("sdz1") << QByteArray("a.swu\\u0000") << 400;
}

void tst_NFirmwareUpdateFcgiService::namesThatLeadElsewhereAreRefused()
{
    QFETCH(QByteArray, media);
    QFETCH(QByteArray, file);
    QFETCH(int, status);
    m_media->writeFile(latin1("a.swu"), "image");
    m_media->writeFile(latin1("folder/a.swu"), "image");
    m_mounts->write(
        "/dev/sdz1 " + QFile::encodeName(m_media->path()) + " vfat rw 0 0\n/dev/sdz4 " +
        QFile::encodeName(m_media->path()) + " vfat rw 0 0\n");
    Record opened((Calls(NSystemCalls::Open)));
    QCOMPARE(ask("POST", QByteArray(), "application/json", mediaDocument(media, file)), status);
    QCOMPARE(opened.take(), QList<QByteArray>());
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::packageOfAMediaIsInstalled()
{
    const QByteArray image = NTest::randomBytes(300000);
    m_media->writeFile(latin1("..a b.swu"), image);
    QCOMPARE(
        ask("POST", QByteArray(), "application/json; charset=utf-8", mediaDocument("sdz1", "..a b.swu")), 200);
    QCOMPARE(m_client->replyBody(), QByteArray("{\"state\":\"idle\"}"));
    QVERIFY(waitForIdle());
    QCOMPARE(m_daemon->image(), image);
    const QByteArray request = m_daemon->takeRequests().value(0);
    QCOMPARE(typeOf(request), 0);
    QCOMPARE(informationOf(request).count('\0'), informationOf(request).size());
}

void tst_NFirmwareUpdateFcgiService::packageThatCannotBeReadIsAnswered409_data()
{
    QTest::addColumn<QByteArray>("media");
    QTest::addColumn<QByteArray>("file");
    QTest::newRow("missing") << QByteArray("sdz1") << QByteArray("missing.swu");
    QTest::newRow("empty") << QByteArray("sdz1") << QByteArray("empty.swu");
    QTest::newRow("folder") << QByteArray("sdz1") << QByteArray("folder.swu");
    QTest::newRow("media that is not mounted") << QByteArray("sdz2") << QByteArray("a.swu");
}

void tst_NFirmwareUpdateFcgiService::packageThatCannotBeReadIsAnswered409()
{
    QFETCH(QByteArray, media);
    QFETCH(QByteArray, file);
    m_media->writeFile(latin1("empty.swu"), "");
    m_media->writeFile(latin1("folder.swu/a"), "image");
    m_medias->insert("sdz2");
    // The file of a medium without a mount point must not be looked for here.
    m_directory->writeFile(latin1("a.swu"), "image");
    const QString formerDirectory = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_directory->path()));
    const int answer = ask("POST", QByteArray(), "application/json", mediaDocument(media, file));
    QVERIFY(QDir::setCurrent(formerDirectory));
    QCOMPARE(answer, 409);
    QCOMPARE(m_client->remarks(), QByteArray(Remark) + CannotStart);
    QVERIFY(m_daemon->takeRequests().isEmpty());
}

void tst_NFirmwareUpdateFcgiService::refusalOfTheDaemonIsAnswered409()
{
    m_media->writeFile(latin1("a.swu"), "image");
    m_daemon->addReply(m_daemon->acknowledgement(2));
    m_daemon->addReply(QByteArray(), NScriptedDaemon::Close);
    m_daemon->addReply(m_daemon->acknowledgement(2));
    QCOMPARE(ask("POST", QByteArray(), "application/json", mediaDocument("sdz1", "a.swu")), 409);
    QCOMPARE(m_client->remarks(), QByteArray(Remark) + CannotStart);
    for (int count = 0; count < 2; ++count) {
        QCOMPARE(upload("image"), 409);
        QCOMPARE(m_client->remarks(), QByteArray(Remark) + CannotStart);
    }
    QCOMPARE(m_daemon->image(), QByteArray());
    QCOMPARE(upload("image"), 200);
}

void tst_NFirmwareUpdateFcgiService::startWithoutInstallerIsAnswered409()
{
    m_media->writeFile(latin1("a.swu"), "image");
    delete m_installer;
    QCOMPARE(ask("POST", QByteArray(), "application/json", mediaDocument("sdz1", "a.swu")), 409);
    QCOMPARE(upload("image"), 409);
    QCOMPARE(ask("GET"), 200);
}

// Uploads

void tst_NFirmwareUpdateFcgiService::uploadArrivesByteByByte_data()
{
    QTest::addColumn<QByteArray>("image");
    const QList<int> sizes = QList<int>() << 0 << 1 << 4095 << 4096 << 4097 << 8192 << 65536 << 3000000;
    for (const int size : sizes)
        QTest::newRow(QByteArray::number(size).constData()) << NTest::randomBytes(size);
    QTest::newRow("boundaries inside")
        << QByteArray("\r\n--frontie\r\r\n--frontiex--frontier--\r\n--").repeated(1000);
    QTest::newRow("line breaks") << QByteArray("\r\n").repeated(5000);
}

void tst_NFirmwareUpdateFcgiService::uploadArrivesByteByByte()
{
    QFETCH(QByteArray, image);
    // Other fields of the form may precede and follow.
    const QByteArray form = "preamble\r\n" + part("comment", "--") + part("Package", "none") +
                            part("package", image) + part("package", "other") + FormEnd + "epilogue";
    QCOMPARE(ask("POST", QByteArray(), FormType, form), 200);
    QCOMPARE(m_client->replyBody(), QByteArray("{\"state\":\"idle\"}"));
    QCOMPARE(m_client->remarks(), QByteArray());
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
    const QByteArray request = m_daemon->takeRequests().value(0);
    QCOMPARE(typeOf(request), 0);
    QCOMPARE(informationOf(request).count('\0'), informationOf(request).size());
}

void tst_NFirmwareUpdateFcgiService::uploadMayArriveInAnyPieces_data()
{
    QTest::addColumn<int>("pieceSize");
    QTest::newRow("1") << 1;
    QTest::newRow("7") << 7;
    QTest::newRow("4097") << 4097;
    QTest::newRow("65535") << 65535;
}

void tst_NFirmwareUpdateFcgiService::uploadMayArriveInAnyPieces()
{
    QFETCH(int, pieceSize);
    const QByteArray image = NTest::randomBytes(pieceSize * 100);
    const QByteArray form = packageForm(image);
    beginUpload(*m_client, form.size(), QByteArray());
    for (int offset = 0; offset < form.size(); offset += pieceSize) {
        m_client->body(form.mid(offset, pieceSize));
        QCoreApplication::processEvents();
    }
    m_client->endBody();
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
}

void tst_NFirmwareUpdateFcgiService::uploadIsAnsweredBeforeTheRestOfTheForm()
{
    beginUpload(*m_client, 1000000, part("package", "image") + partHeader("other") + "rest");
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image(), QByteArray("image"));
}

void tst_NFirmwareUpdateFcgiService::formWithoutPackageIsAnswered400_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("body");
    const QByteArray type = FormType;
    QTest::newRow("empty form") << type << QByteArray(FormEnd);
    QTest::newRow("no body") << type << QByteArray();
    QTest::newRow("other parts") << type << part("stream", "image") + part("file", "image") + FormEnd;
    QTest::newRow("other case") << type << part("PACKAGE", "image") + FormEnd;
    QTest::newRow("part without a name")
        << type << QByteArray("--frontier\r\nContent-Disposition: form-data\r\n\r\nimage\r\n") + FormEnd;
    QTest::newRow("broken off") << type << QByteArray("--frontier\r\nContent-Disp");
    QTest::newRow("broken off in another part") << type << partHeader("other") + "image";
    QTest::newRow("other boundary") << QByteArray("multipart/form-data; boundary=other") << packageForm("image");
    QTest::newRow("no boundary") << QByteArray("multipart/form-data") << packageForm("image");
}

void tst_NFirmwareUpdateFcgiService::formWithoutPackageIsAnswered400()
{
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, body);
    QCOMPARE(ask("POST", QByteArray(), type, body), 400);
    QCOMPARE(m_client->remarks(), QByteArray());
    QVERIFY(m_daemon->takeRequests().isEmpty());
    QCOMPARE(upload("image"), 200);
}

void tst_NFirmwareUpdateFcgiService::secondStartIsAnswered409_data()
{
    QTest::addColumn<bool>("isUpload");
    QTest::newRow("upload") << true;
    QTest::newRow("package of a media") << false;
}

void tst_NFirmwareUpdateFcgiService::secondStartIsAnswered409()
{
    QFETCH(bool, isUpload);
    m_media->writeFile(latin1("a.swu"), "other");
    const QByteArray image = NTest::randomBytes(100000);
    const QByteArray form = packageForm(image);
    NFcgiClient first;
    beginUpload(first, form.size(), form.left(50000));
    NTRY_VERIFY(m_daemon->image().size() > 40000);

    if (isUpload)
        QCOMPARE(upload("other"), 409);
    else
        QCOMPARE(ask("POST", QByteArray(), "application/json", mediaDocument("sdz1", "a.swu")), 409);
    QCOMPARE(m_client->remarks(), QByteArray(Remark) + CannotStart);
    QCOMPARE(ask("GET"), 200);
    QCOMPARE(m_daemon->takeRequests().size(), 1);

    first.body(form.mid(50000));
    first.endBody();
    NTRY_VERIFY(first.hasEnded());
    QCOMPARE(first.status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
}

void tst_NFirmwareUpdateFcgiService::pauseIsNotTheEnd()
{
    // Pauses at each kind of place where the service may wait for the client.
    const QByteArray image = NTest::randomBytes(6000);
    const QByteArray form = part("other", "x") + packageForm(image);
    const int begin = form.indexOf(image);
    const int end = begin + image.size();
    const QList<int> places = QList<int>() << 5 << 100 << begin - 50 << begin - 1 << begin << begin + 1
                                           << begin + 4096 << end - 1 << end << end + 1 << end + 11;
    NFcgiClient client;
    beginUpload(client, form.size(), QByteArray());
    int sent = 0;
    for (const int place : places) {
        client.body(form.mid(sent, place - sent));
        sent = place;
        // Four bytes at the end may still belong to a boundary.
        NTRY_VERIFY(m_daemon->image().size() >= qBound(0, place - begin - 4, image.size()));
        QCOMPARE(ask("GET"), 200);
        QVERIFY(!client.hasEnded());
    }
    client.body(form.mid(sent));
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
}

void tst_NFirmwareUpdateFcgiService::abandonedUploadEndsWhereItIs_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("status");
    QTest::newRow("client is gone") << QByteArray("gone") << 0;
    QTest::newRow("web server aborts the request") << QByteArray("abort") << 0;
    QTest::newRow("body is shorter than announced") << QByteArray("short") << 400;
    QTest::newRow("form has no end") << QByteArray("endless") << 400;
}

void tst_NFirmwareUpdateFcgiService::abandonedUploadEndsWhereItIs()
{
    QFETCH(QByteArray, kind);
    QFETCH(int, status);
    const QByteArray image = NTest::randomBytes(30000) + 'x';
    const QByteArray form = partHeader("package") + image;
    NFcgiClient client;
    beginUpload(client, form.size() + (kind == "endless" ? 0 : 1), form);
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    if (kind == "gone")
        client.disconnectNow();
    else if (kind == "abort")
        client.abort();
    else
        client.endBody();
    NTRY_VERIFY(kind == "gone" || client.hasEnded());
    QCOMPARE(client.status(), status);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
    client.disconnectNow();
    NTRY_COMPARE(m_server->connectionCount(), 0);

    QCOMPARE(upload("next"), 200);
    QVERIFY(waitForIdle());
    NTRY_VERIFY(m_daemon->image().endsWith("next"));
}

void tst_NFirmwareUpdateFcgiService::clientMayGoBeforeThePackage()
{
    NFcgiClient client;
    beginUpload(client, 1000000, part("other", "x") + "--frontier\r\nContent-Disp");
    QCOMPARE(ask("GET"), 200);
    client.disconnectNow();
    NTRY_COMPARE(m_server->connectionCount(), 0);
    QVERIFY(m_daemon->takeRequests().isEmpty());
    QCOMPARE(upload("image"), 200);
}

void tst_NFirmwareUpdateFcgiService::clientMayGoWhileTheDaemonWaits()
{
    m_daemon->holdImages();
    NFcgiClient client;
    beginUpload(client, 10 * Megabyte, partHeader("package") + QByteArray(5 * Megabyte, 'i'));
    NTRY_COMPARE(m_daemon->requestCount(), 1);
    QCOMPARE(ask("GET"), 200);
    client.disconnectNow();
    QCOMPARE(upload("other"), 409);
    QVERIFY(!m_hasFinished);
    m_daemon->continueImages();
    QVERIFY(waitForIdle());
    QVERIFY(m_daemon->image().size() < 5 * Megabyte);
    QCOMPARE(upload("next"), 200);
    QVERIFY(waitForIdle());
    NTRY_VERIFY(m_daemon->image().endsWith("next"));
}

void tst_NFirmwareUpdateFcgiService::uploadIsAnsweredWhenTheDaemonDropsIt_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("at once") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("4096") << 4096;
    QTest::newRow("50000") << 50000;
    QTest::newRow("2000000") << 2000000;
}

void tst_NFirmwareUpdateFcgiService::uploadIsAnsweredWhenTheDaemonDropsIt()
{
    QFETCH(int, size);
    if (size == 0)
        m_daemon->addReply(m_daemon->acknowledgement(), NScriptedDaemon::Close);
    else
        m_daemon->closeImageAfter(size);
    NFcgiClient client;
    beginUpload(client, 10 * Megabyte, partHeader("package") + QByteArray(5 * Megabyte, 'i'));
    // Only a part of the body has been sent.
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    QCOMPARE(client.replyBody(), QByteArray("{\"state\":\"idle\"}"));
    QVERIFY(waitForIdle());
    QVERIFY(m_daemon->image().size() >= size);

    m_daemon->closeImageAfter(-1);
    QCOMPARE(upload("next"), 200);
    QVERIFY(waitForIdle());
    NTRY_VERIFY(m_daemon->image().endsWith("next"));
}

void tst_NFirmwareUpdateFcgiService::uploadIsAnsweredWhenTheDaemonDropsItDuringAPause()
{
    m_daemon->closeImageAfter(20000);
    NFcgiClient client;
    beginUpload(client, 10 * Megabyte, partHeader("package") + QByteArray(20000, 'i'));
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    QVERIFY(waitForIdle());
    QCOMPARE(m_daemon->image().size(), 20000);
}

void tst_NFirmwareUpdateFcgiService::sessionMayEndDuringAnUpload()
{
    const QByteArray image = NTest::randomBytes(100000);
    const QByteArray form = packageForm(image);
    NFcgiClient client;
    beginUpload(client, form.size(), form.left(50000));
    NTRY_VERIFY(m_daemon->image().size() > 40000);
    const QUuid id = m_identifier->session->id();
    m_identifier->session = nullptr;
    m_sessions->removeSession(id);
    QCOMPARE(ask("GET"), 401);

    client.body(form.mid(50000));
    client.endBody();
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
}

void tst_NFirmwareUpdateFcgiService::slowDaemonSlowsTheClient()
{
    const QByteArray image = NTest::randomBytes(8 * Megabyte);
    const QByteArray form = packageForm(image);
    m_daemon->holdImages();
    NFcgiClient client;
    beginUpload(client, form.size(), form);
    client.endBody();
    // The client keeps the memory of what it has sent.
    const qint64 allocatedBefore = NTest::allocatedBytes();
    // The client has stopped when no more is taken from it.
    int unsent = -1;
    QVERIFY(NTest::waitUntil([&]() {
        const int formerly = unsent;
        unsent = ask("GET") == 200 ? client.unsentSize() : -1;
        return unsent == formerly;
    }));
    // The rest is what the kernel holds of both connections, and a little of the service.
    QVERIFY2(unsent > image.size() - Megabyte, QByteArray::number(unsent).constData());
    const qint64 growth = NTest::allocatedBytes() - allocatedBefore;
    QVERIFY2(!MeasuresMemory || growth < Megabyte, QByteArray::number(growth).constData());

    m_daemon->continueImages();
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    QVERIFY(waitForIdle());
    NTRY_COMPARE(m_daemon->image().size(), image.size());
    QVERIFY(m_daemon->image() == image);
}

// After the installation

void tst_NFirmwareUpdateFcgiService::postUpdateFollowsASuccessAfterHalfASecond()
{
    const QTimer* const timer = m_processor->findChild<QTimer*>();
    QVERIFY(timer);
    QCOMPARE(timer->interval(), 500);
    QVERIFY(timer->isSingleShot());
    QVERIFY(!timer->isActive());
    QCOMPARE(upload("image"), 200);
    QVERIFY(waitForIdle());
    QVERIFY(timer->isActive());
    m_daemon->takeRequests();
    QList<QByteArray> requests;
    NTRY_VERIFY(!(requests += m_daemon->takeRequests()).isEmpty());
    QVERIFY(!timer->isActive());
    QCOMPARE(requests.size(), 1);
    QCOMPARE(typeOf(requests.first()), PostUpdateType);
    QCOMPARE(informationOf(requests.first()).count('\0'), informationOf(requests.first()).size());
}

void tst_NFirmwareUpdateFcgiService::postUpdateDoesNotFollowAFailure()
{
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(0, 4));
    QCOMPARE(upload("image"), 200);
    QVERIFY(waitForIdle());
    QVERIFY(!m_processor->findChild<QTimer*>()->isActive());
}

// Deletions

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedInsideItsEvent_data()
{
    QTest::addColumn<QByteArray>("signalName");
    QTest::newRow("update started") << QByteArray("started");
    QTest::newRow("new step") << QByteArray("new");
    QTest::newRow("step") << QByteArray("step");
    QTest::newRow("update finished") << QByteArray("finished");
    QTest::newRow("installation finished") << QByteArray("installation");
}

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedInsideItsEvent()
{
    QFETCH(QByteArray, signalName);
    m_onEvent = [&]() { delete m_service; };
    QObject* const client = m_progress.get();
    if (signalName == "started")
        QMetaObject::invokeMethod(
            client, "updateStarted", Q_ARG(NSWUpdate::Source, NSWUpdate::SourceLocal), Q_ARG(int, 3),
            Q_ARG(QString, QString()));
    else if (signalName == "new")
        QMetaObject::invokeMethod(
            client, "newStepStarted", Q_ARG(int, 4), Q_ARG(int, 2), Q_ARG(QString, QString()));
    else if (signalName == "step")
        QMetaObject::invokeMethod(
            client, "stepUpdate", Q_ARG(int, 5), Q_ARG(int, 3), Q_ARG(QString, QString()), Q_ARG(quint8, 1));
    else if (signalName == "finished")
        QMetaObject::invokeMethod(client, "updateFinished", Q_ARG(bool, true));
    else
        QCOMPARE(upload("image"), 200);
    NTRY_VERIFY(!m_service);
    QCOMPARE(m_states.size(), 1);
    QCOMPARE(ask("GET"), 404);
}

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedDuringAnUpload_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<bool>("isHeld");
    QTest::newRow("before the package") << part("other", "x") << false;
    QTest::newRow("when the client pauses") << partHeader("package") + "image" << false;
    QTest::newRow("when the daemon does not read") << partHeader("package") + QByteArray(Megabyte, 'i') << true;
}

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedDuringAnUpload()
{
    QFETCH(QByteArray, sent);
    QFETCH(bool, isHeld);
    if (isHeld)
        m_daemon->holdImages();
    NFcgiClient client;
    beginUpload(client, 5 * Megabyte, sent);
    QCOMPARE(ask("GET"), 200);
    const bool isStarted = sent.contains("name=\"package\"");
    NTRY_COMPARE(m_daemon->requestCount(), int(isStarted));
    delete m_service;
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 503);

    m_daemon->continueImages();
    QVERIFY(!isStarted || waitForIdle());
    makeService();
    QCOMPARE(upload("next"), 200);
    QVERIFY(waitForIdle());
    NTRY_VERIFY(m_daemon->image().endsWith("next"));
}

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedWhenTheImageEnds_data()
{
    QTest::addColumn<bool>("isInstaller");
    QTest::addColumn<bool>("isUpload");
    QTest::addColumn<int>("status");
    QTest::newRow("service, upload") << false << true << 200;
    QTest::newRow("service, package of a media") << false << false << 503;
    QTest::newRow("installer, upload") << true << true << 200;
    QTest::newRow("installer, package of a media") << true << false << 200;
}

void tst_NFirmwareUpdateFcgiService::serviceMayBeDeletedWhenTheImageEnds()
{
    QFETCH(bool, isInstaller);
    QFETCH(bool, isUpload);
    QFETCH(int, status);
    m_onInstallerSignal = [&]() {
        if (isInstaller)
            delete m_installer;
        else
            delete m_service;
    };
    if (isUpload) {
        QCOMPARE(upload(QByteArray()), status);
    } else {
        // The file cannot be read, so that the installation ends inside its start.
        const QString file = m_media->writeFile(latin1("a.swu"), "image");
        const NSystemCalls::Fault fault(Calls(NSystemCalls::Read).onPath(QFile::encodeName(file)), EIO);
        QCOMPARE(ask("POST", QByteArray(), "application/json", mediaDocument("sdz1", "a.swu")), status);
        QVERIFY(fault.count() > 0);
    }
    QVERIFY(waitForIdle());
    QVERIFY(isInstaller ? m_installer.isNull() : m_service.isNull());
    QCOMPARE(ask("GET"), isInstaller ? 200 : 404);
}

void tst_NFirmwareUpdateFcgiService::installerMayBeDeletedDuringAnUpload()
{
    NFcgiClient client;
    beginUpload(client, Megabyte, partHeader("package") + "image");
    NTRY_COMPARE(m_daemon->image(), QByteArray("image"));
    delete m_installer;
    NTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.status(), 200);
    NTRY_COMPARE(m_daemon->endedConnections(), 1);
    QCOMPARE(upload("next"), 409);
}

namespace {

// Has the beginning of a body only.
class PausingChannel : public NMemoryChannel
{
public:
    using NMemoryChannel::NMemoryChannel;

    bool atBodyEnd() const override { return false; }
};

} // namespace

void tst_NFirmwareUpdateFcgiService::requestMayBeDeletedDuringAnUpload_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("before the package") << part("other", "x");
    QTest::newRow("in the package") << partHeader("package") + "image";
}

void tst_NFirmwareUpdateFcgiService::requestMayBeDeletedDuringAnUpload()
{
    QFETCH(QByteArray, sent);
    PausingChannel channel(sent);
    const QPointer<NwaFcgiRequest> request(
        new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", "POST", "CONTENT_TYPE", FormType)));
    m_service->processRequest(request);
    const bool isStarted = sent.contains("name=\"package\"");
    NTRY_VERIFY(!isStarted || m_daemon->image() == "image");
    QCoreApplication::processEvents();
    QVERIFY(request);
    delete request;
    QVERIFY(!isStarted || waitForIdle());
    QCOMPARE(upload("next"), 200);
    QVERIFY(waitForIdle());
    NTRY_VERIFY(m_daemon->image() == (isStarted ? "imagenext" : "next"));
}

// Large packages

void tst_NFirmwareUpdateFcgiService::largePackageGoesThroughTheWebServerInLittleMemory()
{
    m_mounts.reset(); // other processes cannot be seen with it
    NUpdateDaemonThread daemon;
    QVERIFY(daemon.listen());
    const QString received = m_directory->filePath(latin1("received"));
    daemon.setOptions("step-time 10 output " + QFile::encodeName(received));
    delete m_service;
    delete m_installer;
    m_installer = new NSWUpdateInstaller(daemon.controlPath(), nullptr);
    makeService();

    const QString package = m_directory->filePath(latin1("package"));
    QCryptographicHash hash(QCryptographicHash::Sha1);
    {
        QFile file(package);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QByteArray block = NTest::randomBytes(Megabyte);
        for (int number = 0; number < LargePackage; ++number) {
            block.replace(number, 4, QByteArray::number(number).rightJustified(4));
            hash.addData(block);
            QCOMPARE(file.write(block), qint64(block.size()));
        }
    }
    NLighttpd webServer;
    QVERIFY2(
        webServer.start(
            "server.stream-request-body = 2\n" +
            NLighttpd::fastCgi(latin1("/api/firmware"), m_directory->filePath(latin1("socket")))),
        webServer.log());
    QCOMPARE(ask("GET"), 200);

    const QString webServerProcess = QString::number(webServer.processId());
    const int before = residentSize();
    const int webServerBefore = residentSize(webServerProcess);
    int largest = before;
    int webServerLargest = webServerBefore;
    int polls = 0;
    QProcess client;
    client.start(
        latin1("curl"), QStringList() << latin1("--noproxy") << latin1("*") << latin1("-sS") << latin1("-o")
                                      << latin1("/dev/null") << latin1("-w") << latin1("%{http_code}")
                                      << latin1("-F") << latin1("package=@") + package
                                      << webServer.url(latin1("/api/firmware")));
    // Slow under a sanitizer on a busy machine.
    const int minutes = 4;
    QVERIFY(NTest::waitUntil(
        [&]() {
            polls += ask("GET") == 200;
            largest = qMax(largest, residentSize());
            webServerLargest = qMax(webServerLargest, residentSize(webServerProcess));
            return client.state() == QProcess::NotRunning;
        },
        minutes * 60000));
    QCOMPARE(client.readAll(), QByteArray("200"));
    QVERIFY(waitForIdle());
    QVERIFY(polls > 1);
    QVERIFY2(!MeasuresMemory || largest - before < 4096, QByteArray::number(largest - before).constData());
    const int webServerGrowth = webServerLargest - webServerBefore;
    QVERIFY2(webServerGrowth < 4096, QByteArray::number(webServerGrowth).constData());

    QFile file(received);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.size(), qint64(LargePackage) * Megabyte);
    QCryptographicHash receivedHash(QCryptographicHash::Sha1);
    while (!file.atEnd())
        receivedHash.addData(file.read(Megabyte));
    QCOMPARE(receivedHash.result(), hash.result());
    QVERIFY(file.remove());
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NFirmwareUpdateFcgiService, NPrivateNamespace::Mounts)
#include "tst_nfirmwareupdatefcgiservice.moc"
