#include "nfcgiclient.h"
#include "nfcgitestservice.h"

#include <nwebapi/nwacgimultipartformdatareader.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwastandardfcgirequestprocessor.h>
#include <nwebapi/nwastandardfcgiservice.h>
#include <support/nlighttpd.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QtTest/QtTest>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

// Answers with what arrived in one line, so that a test can compare it.
void describe(NwaFcgiRequest* request)
{
    const QByteArray body = NTest::readAvailableBody(request);
    const QString parameter = request->queryParameters().value(text("p"));
    NTest::reply(
        request, (request->method() + QLatin1Char('|') + request->pathInfo() + QLatin1Char('|') + parameter +
                  QLatin1Char('|') + QString::number(body.size()))
                     .toUtf8());
}

// Answers with the JSON document in the body.
class JsonProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    JsonProcessor()
        : NwaStandardFcgiRequestProcessor(nullptr)
    {
    }

protected:
    void processPostMethod(NwaFcgiRequest* request) override
    {
        bool ok = false;
        const QVariant document = parseJsonContent(request, &ok);
        if (ok)
            sendJsonReply(request, document);
        else
            delete request;
    }
};

QByteArray partHeader(const char* disposition)
{
    return QByteArray("--b\r\nContent-Disposition: ") + disposition + "\r\n\r\n";
}

} // namespace

/** Reads a form while it arrives and answers with a list of its parts. Deletes itself with its request. */
class FormReader : public QObject
{
    Q_OBJECT

public:
    explicit FormReader(NwaFcgiRequest* request)
        : QObject(request)
        , m_request(request)
        , m_reader(request)
        , m_partSize(-1)
    {
        connect(request, SIGNAL(bodyAvailable()), this, SLOT(readOn()));
        connect(request, SIGNAL(aborted()), request, SLOT(deleteLater()));
    }

public slots:
    void readOn()
    {
        while (readPart()) {
        }
        if (m_reader.isWaiting())
            return;
        if (!m_reader.hasError()) {
            NTest::reply(m_request, m_answer);
            return;
        }
        m_request->errorStream() << m_reader.errorString().toLatin1().constData();
        m_request->sendHttpError(NwaFcgiRequest::BadRequest);
        delete m_request;
    }

private:
    // Returns whether more can be read at once.
    bool readPart()
    {
        if (m_partSize < 0) {
            QString name;
            QString fileName;
            QString type;
            if (!m_reader.nextPart(name, fileName, type))
                return false;
            m_answer += (name + QLatin1Char('|') + fileName + QLatin1Char('|') + type + QLatin1Char('|')).toUtf8();
            m_partSize = 0;
        }
        m_partSize += m_reader.readFromPart(10000).size();
        if (m_reader.atPartEnd()) {
            m_answer += QByteArray::number(m_partSize) + '\n';
            m_partSize = -1;
        }
        return !m_reader.isWaiting() && !m_reader.hasError();
    }

    NwaFcgiRequest* m_request;
    NwaCgiMultipartFormDataReader m_reader;
    int m_partSize; ///< -1 between the parts
    QByteArray m_answer;
};

/** Runs the server behind a real web server, and calls it with libfcgi's client. */
class tst_NwaFcgiWebServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void everyMethodArrives_data();
    void everyMethodArrives();
    void headIsAnsweredWithoutDocument();
    void unknownScriptIsAnswered404();
    void undecodableQueryIsAnswered400();
    void tenMegabytesOfQueryAreRefused();
    void tooLargeBodyIsAnswered413();
    void largeReplyArrivesCompletely();
    void uploadIsReadWhileItIsSent();
    void refusedUploadGetsItsReply();
    void formIsParsedWhileItIsSent();
    void badFormIsAnswered400_data();
    void badFormIsAnswered400();
    void disconnectionWithinAFormDoesNotAffectOthers();
    void jsonIsRead();
    void badJsonIsAnswered400_data();
    void badJsonIsAnswered400();
    void disconnectionBeforeTheReplyDoesNotAffectOthers();
    void disconnectionWithinTheReplyDoesNotAffectOthers();
    void errorOutputIsWrittenToTheWebServersLog();
    void spawnedProgramIsServedOnItsInheritedDescriptor();
    void libfcgisClientIsServed_data();
    void libfcgisClientIsServed();

private:
    void startCurl(QProcess& process, const QString& path, const QStringList& options = QStringList());
    bool run(QProcess& process);
    QByteArray curl(const QString& path, const QStringList& options = QStringList());
    int status(const QString& path, const QStringList& options = QStringList());
    QStringList sending(const QByteArray& body, const char* type);

    NTemporaryDirectory m_directory;
    NLighttpd m_lighttpd;
    QScopedPointer<NwaFcgiServer> m_server;
    QScopedPointer<NFcgiTestService> m_service;
    QScopedPointer<NFcgiTestService> m_formService;
    QScopedPointer<NwaStandardFcgiService> m_jsonService;
};

void tst_NwaFcgiWebServer::initTestCase()
{
    const QString socket = m_directory.filePath(text("socket"));
    QVERIFY2(
        m_lighttpd.start(
            "server.stream-request-body = 2\n"
            "server.stream-response-body = 2\n" +
            NLighttpd::fastCgi(text("/test"), socket) + NLighttpd::fastCgi(text("/unknown"), socket) +
            NLighttpd::fastCgi(text("/form"), socket) + NLighttpd::fastCgi(text("/json"), socket) +
            m_lighttpd.spawnedFastCgi(text("/documents"), QString::fromLocal8Bit(NFCGI_DOCUMENTS_PROGRAM))),
        m_lighttpd.log().constData());
}

void tst_NwaFcgiWebServer::init()
{
    m_server.reset(new NwaFcgiServer);
    QVERIFY(m_server->listenOnPath(m_directory.filePath(text("socket")), 0666));
    m_service.reset(new NFcgiTestService(describe));
    m_server->registerService(text("/test"), m_service.data());
    m_formService.reset(
        new NFcgiTestService([](NwaFcgiRequest* request) { (new FormReader(request))->readOn(); }));
    m_server->registerService(text("/form"), m_formService.data());
    m_jsonService.reset(new NwaStandardFcgiService(new JsonProcessor, nullptr));
    m_server->registerService(text("/json"), m_jsonService.data());
}

void tst_NwaFcgiWebServer::cleanup()
{
    m_jsonService.reset();
    m_formService.reset();
    m_service.reset();
    m_server.reset();
}

void tst_NwaFcgiWebServer::startCurl(QProcess& process, const QString& path, const QStringList& options)
{
    process.start(text("curl"), QStringList() << text("-s") << text("-S") << options << m_lighttpd.url(path));
}

// Waits for a program with the event loop running, because the program waits for the server in this process.
bool tst_NwaFcgiWebServer::run(QProcess& process)
{
    return process.waitForStarted() && NTest::waitUntil([&]() { return process.state() == QProcess::NotRunning; });
}

QByteArray tst_NwaFcgiWebServer::curl(const QString& path, const QStringList& options)
{
    QProcess process;
    startCurl(process, path, options);
    return run(process) ? process.readAllStandardOutput() : QByteArray("curl does not end");
}

int tst_NwaFcgiWebServer::status(const QString& path, const QStringList& options)
{
    QStringList all = options;
    all << text("-o") << text("/dev/null") << text("-w") << text("%{http_code}");
    return curl(path, all).toInt();
}

QStringList tst_NwaFcgiWebServer::sending(const QByteArray& body, const char* type)
{
    return QStringList() << text("-H") << text("Content-Type: ") + text(type) << text("--data-binary")
                         << QLatin1Char('@') + m_directory.writeFile(text("body"), body);
}

void tst_NwaFcgiWebServer::everyMethodArrives_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("GET") << text("GET") << text("/test") << QByteArray() << QByteArray("GET|||0");
    QTest::newRow("POST") << text("POST") << text("/test/a") << QByteArray("12345") << QByteArray("POST|/a||5");
    QTest::newRow("large POST") << text("POST") << text("/test") << QByteArray(1000000, 'b')
                                << QByteArray("POST|||1000000");
    QTest::newRow("PUT") << text("PUT") << text("/test?p=1") << QByteArray("1") << QByteArray("PUT||1|1");
    QTest::newRow("DELETE") << text("DELETE") << text("/test/a/b") << QByteArray() << QByteArray("DELETE|/a/b||0");
    QTest::newRow("other") << text("PATCH") << text("/test") << QByteArray() << QByteArray("PATCH|||0");
    QTest::newRow("percent-encoded") << text("GET") << text("/test/%41%20b?p=%43+%2B") << QByteArray()
                                     << QByteArray("GET|/A b|C +|0");
    QTest::newRow("beyond ASCII") << text("GET") << text("/test/%C3%A9?p=%e2%82%ac") << QByteArray()
                                  << QByteArray("GET|/\xc3\xa9|\xe2\x82\xac|0");
}

void tst_NwaFcgiWebServer::everyMethodArrives()
{
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, expected);
    QStringList options = QStringList() << text("-X") << method;
    if (!body.isEmpty())
        options << sending(body, "text/plain");
    QCOMPARE(curl(path, options), expected);
}

void tst_NwaFcgiWebServer::headIsAnsweredWithoutDocument()
{
    const QByteArray reply = curl(text("/test"), QStringList() << text("--head"));
    QVERIFY(reply.startsWith("HTTP/1.1 200 OK\r\n"));
    QVERIFY(reply.contains("Content-Type: text/plain\r\n"));
    QVERIFY(reply.endsWith("\r\n\r\n"));
}

void tst_NwaFcgiWebServer::unknownScriptIsAnswered404()
{
    QCOMPARE(status(text("/unknown/%C3%A9")), 404);
    QCOMPARE(status(text("/test")), 200);
}

void tst_NwaFcgiWebServer::undecodableQueryIsAnswered400()
{
    QCOMPARE(status(text("/test?p=%ff")), 400);
    QCOMPARE(m_service->count(), 0);
}

// The web server has a limit of its own, which is reached first.
void tst_NwaFcgiWebServer::tenMegabytesOfQueryAreRefused()
{
    const QByteArray configuration =
        "url = \"" + m_lighttpd.url(text("/test?")).toLatin1() + QByteArray(10 * 1024 * 1024, 'q') + "\"\n";
    QProcess process;
    process.start(
        text("curl"), QStringList() << text("-s") << text("-o") << text("/dev/null") << text("-w")
                                    << text("%{http_code}") << text("-K")
                                    << m_directory.writeFile(text("query"), configuration));
    QVERIFY(run(process));
    const int code = process.readAllStandardOutput().toInt();
    QVERIFY2(code == 0 || (code >= 400 && code < 500), QByteArray::number(code).constData());
    QCOMPARE(m_service->count(), 0);
    QCOMPARE(status(text("/test")), 200);
}

void tst_NwaFcgiWebServer::tooLargeBodyIsAnswered413()
{
    QCOMPARE(status(text("/test"), sending(QByteArray(5000000, 'b'), "text/plain")), 413);
    QCOMPARE(m_service->count(), 0);
    QCOMPARE(status(text("/test")), 200);
}

void tst_NwaFcgiWebServer::largeReplyArrivesCompletely()
{
    QByteArray document;
    for (int line = 0; document.size() < 5000000; ++line)
        document += QByteArray::number(line) + '\n';
    NFcgiTestService service([&](NwaFcgiRequest* request) { NTest::reply(request, document); });
    m_server->registerService(text("/test"), &service);
    QVERIFY(curl(text("/test")) == document);
}

void tst_NwaFcgiWebServer::uploadIsReadWhileItIsSent()
{
    NFcgiTestService service;
    m_server->registerService(text("/test"), &service);
    const QString file = m_directory.writeFile(text("upload"), QByteArray(5000000, 'u'));
    QProcess process;
    startCurl(process, text("/test"), QStringList() << text("-F") << text("file=@") + file);
    NTRY_COMPARE(service.count(), 1);
    QByteArray body;
    NTRY_VERIFY((body += NTest::readAvailableBody(service.request()), service.request()->atBodyEnd()));
    QVERIFY(body.contains("filename=\"upload\""));
    QCOMPARE(qint64(body.size()), service.request()->contentLength());
    NTest::reply(service.request(), "taken");
    QVERIFY(run(process) || process.state() == QProcess::NotRunning);
    QCOMPARE(process.readAllStandardOutput(), QByteArray("taken"));
}

void tst_NwaFcgiWebServer::refusedUploadGetsItsReply()
{
    NFcgiTestService service([](NwaFcgiRequest* request) {
        request->sendHttpError(NwaFcgiRequest::Forbidden);
        delete request;
    });
    m_server->registerService(text("/test"), &service);
    const QString file = m_directory.writeFile(text("upload"), QByteArray(5000000, 'u'));
    QCOMPARE(status(text("/test"), QStringList() << text("-F") << text("file=@") + file), 403);
}

void tst_NwaFcgiWebServer::formIsParsedWhileItIsSent()
{
    const QString file = m_directory.writeFile(text("upload"), QByteArray(5000000, 'u'));
    QCOMPARE(
        curl(
            text("/form"), QStringList()
                               << text("-F") << text("comment=short") << text("-F")
                               << text("file=@") + file + text(";type=image/png") << text("-F") << text("empty=")),
        QByteArray("comment|||5\nfile|upload|image/png|5000000\nempty|||0\n"));
}

void tst_NwaFcgiWebServer::badFormIsAnswered400_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("remark");
    const QByteArray type("multipart/form-data; boundary=b");
    const QByteArray part = partHeader("form-data; name=\"a\"");
    QTest::newRow("without end") << part + "value" << type << QByteArray("the form breaks off");
    QTest::newRow("large and without end")
        << part + QByteArray(3000000, 'v') << type << QByteArray("the form breaks off");
    QTest::newRow("part without a name") << partHeader("form-data") + "value\r\n--b--\r\n"
                                         << type << QByteArray("a part has no name");
    QTest::newRow("later part without a name")
        << part + QByteArray(300000, 'v') + "\r\n" + partHeader("form-data") + "value\r\n--b--\r\n"
        << type << QByteArray("a part has no name");
    QTest::newRow("empty") << QByteArray() << type << QByteArray("the form breaks off");
    QTest::newRow("without a boundary") << part + "value\r\n--b--\r\n"
                                        << QByteArray("multipart/form-data") << QByteArray("boundary");
    QTest::newRow("boundary longer than the body")
        << QByteArray("--b") << "multipart/form-data; boundary=" + QByteArray(70, 'b')
        << QByteArray("the form breaks off");
}

void tst_NwaFcgiWebServer::badFormIsAnswered400()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, remark);
    const int remarkCount = m_lighttpd.log().count(remark);
    QCOMPARE(
        curl(text("/form"), sending(body, type.constData()) << text("-w") << text("%{http_code}")),
        QByteArray("400 Bad Request\n400"));
    NTRY_COMPARE(m_lighttpd.log().count(remark), remarkCount + 1);
    QCOMPARE(status(text("/test")), 200);
    QCOMPARE(curl(text("/form"), QStringList() << text("-F") << text("a=b")), QByteArray("a|||1\n"));
}

void tst_NwaFcgiWebServer::disconnectionWithinAFormDoesNotAffectOthers()
{
    const QString file = m_directory.writeFile(text("upload"), QByteArray(5000000, 'u'));
    QProcess process;
    startCurl(
        process, text("/form"),
        QStringList() << text("--limit-rate") << text("100k") << text("-F") << text("file=@") + file);
    NTRY_COMPARE(m_formService->count(), 1);
    process.kill();
    NTRY_COMPARE(m_server->connectionCount(), 0);
    NTRY_VERIFY(!m_formService->request());
    QCOMPARE(status(text("/test")), 200);
    QCOMPARE(curl(text("/form"), QStringList() << text("-F") << text("a=b")), QByteArray("a|||1\n"));
}

void tst_NwaFcgiWebServer::jsonIsRead()
{
    QCOMPARE(
        curl(text("/json"), sending("{\"a\": [1, null]}", "application/json")), QByteArray("{\"a\":[1,null]}"));
}

void tst_NwaFcgiWebServer::badJsonIsAnswered400_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("cut") << QByteArray("{\"a\": ");
    QTest::newRow("100,000 deep") << QByteArray(100000, '[') + QByteArray(100000, ']');
    QTest::newRow("100,000 deep and cut") << QByteArray("{\"a\":").repeated(100000);
    QTest::newRow("a megabyte of values") << '[' + QByteArray("0,").repeated(500000) + "0]";
    QTest::newRow("a megabyte of digits") << "0." + QByteArray(1000000, '1');
    QTest::newRow("not UTF-8") << QByteArray("\"\xe4\"");
}

void tst_NwaFcgiWebServer::badJsonIsAnswered400()
{
    QFETCH(QByteArray, body);
    QCOMPARE(
        curl(text("/json"), sending(body, "application/json") << text("-w") << text("%{http_code}")),
        QByteArray("400 Bad Request\n400"));
    QCOMPARE(status(text("/test")), 200);
    QCOMPARE(curl(text("/json"), sending("[]", "application/json")), QByteArray("[]"));
}

// The web server does not report that its client has disconnected; it reads the reply.
void tst_NwaFcgiWebServer::disconnectionBeforeTheReplyDoesNotAffectOthers()
{
    NFcgiTestService service;
    m_server->registerService(text("/test"), &service);
    QProcess process;
    startCurl(process, text("/test"));
    NTRY_COMPARE(service.count(), 1);
    process.kill();
    NTRY_COMPARE(process.state(), QProcess::NotRunning);
    NTest::reply(service.request(), QByteArray(1000000, 'r'));
    NTRY_COMPARE(m_server->connectionCount(), 0);
    m_server->registerService(text("/test"), m_service.data());
    QCOMPARE(status(text("/test")), 200);
}

void tst_NwaFcgiWebServer::disconnectionWithinTheReplyDoesNotAffectOthers()
{
    NFcgiTestService service([](NwaFcgiRequest* request) { NTest::reply(request, QByteArray(15000000, 'r')); });
    m_server->registerService(text("/test"), &service);
    QProcess process;
    startCurl(process, text("/test"), QStringList() << text("--limit-rate") << text("100k"));
    NTRY_COMPARE(service.count(), 1);
    NTRY_VERIFY(process.bytesAvailable() > 0);
    process.kill();
    NTRY_COMPARE(m_server->connectionCount(), 0);
    m_server->registerService(text("/test"), m_service.data());
    QCOMPARE(status(text("/test")), 200);
}

void tst_NwaFcgiWebServer::errorOutputIsWrittenToTheWebServersLog()
{
    NFcgiTestService service([](NwaFcgiRequest* request) {
        request->errorStream() << "the reason is this";
        NTest::reply(request, "answer");
    });
    m_server->registerService(text("/test"), &service);
    QCOMPARE(curl(text("/test")), QByteArray("answer"));
    NTRY_VERIFY(m_lighttpd.log().contains("the reason is this"));
}

void tst_NwaFcgiWebServer::spawnedProgramIsServedOnItsInheritedDescriptor()
{
    QCOMPARE(curl(text("/documents/100")), QByteArray(100, 'd'));
    QVERIFY(curl(text("/documents/1000000")) == QByteArray(1000000, 'd'));
    QVERIFY(curl(text("/documents/pid")).toInt() > 0);
}

void tst_NwaFcgiWebServer::libfcgisClientIsServed_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("GET") << text("GET") << QByteArray() << QByteArray("GET|/a||0");
    QTest::newRow("POST") << text("POST") << QByteArray("12345") << QByteArray("POST|/a||5");
    QTest::newRow("large POST") << text("POST") << QByteArray(300000, 'b') << QByteArray("POST|/a||300000");
}

void tst_NwaFcgiWebServer::libfcgisClientIsServed()
{
    QFETCH(QString, method);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, expected);
    QProcess process;
    process.setEnvironment(
        QStringList() << text("PATH=/usr/bin:/bin") << text("SCRIPT_NAME=/test") << text("PATH_INFO=/a")
                      << text("REQUEST_METHOD=") + method << text("CONTENT_LENGTH=%1").arg(body.size()));
    process.start(
        text("cgi-fcgi"), QStringList()
                              << text("-bind") << text("-connect") << m_directory.filePath(text("socket")));
    QVERIFY(process.waitForStarted());
    process.write(body);
    process.closeWriteChannel();
    NTRY_COMPARE(process.state(), QProcess::NotRunning);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardOutput(), "Content-Type: text/plain\r\n\r\n" + expected);
}

QTEST_MAIN(tst_NwaFcgiWebServer)
#include "tst_nwafcgiwebserver.moc"
