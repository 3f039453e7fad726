// The ways that requests of Qt take through real proxy servers, tinyproxy for HTTP and microsocks for SOCKS5. Each
// server connects from an address of its own, so that the origin server sees which one a request has come through.
#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyparameters.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QNetworkRequest>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

namespace {

typedef NNetworkProxyParameters::Parameters Parameters;

const int ServerCount = 6;
enum Server { HttpServer, SslServer, FtpServer, HttpServerWithPassword, SocksServer, SocksServerWithPassword };

// No other program is in the private network.
const quint16 FirstServerPort = 3000;
const quint16 OriginPort = 8000;
const quint16 TlsPort = 8443;

// In the test's host table. "remote.example" is only in that of the SOCKS5 servers, which lacks the others.
const char* const HostTable =
    "127.0.0.1 localhost\n"
    "10.0.2.1 origin.example cam.plant.example badplant.example printer printer.example\n";
const char* const SocksHostTable = "10.0.3.1 remote.example\n";

// Answers HTTP requests over TLS. Arguments: port, certificate, key.
const char* const TlsServerProgram = "import http.server, ssl, sys\n"
                                     "class Handler(http.server.BaseHTTPRequestHandler):\n"
                                     "    def do_GET(self):\n"
                                     "        self.send_response(200)\n"
                                     "        self.send_header('Content-Length', '0')\n"
                                     "        self.end_headers()\n"
                                     "server = http.server.ThreadingHTTPServer(('', int(sys.argv[1])), Handler)\n"
                                     "context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)\n"
                                     "context.load_cert_chain(sys.argv[2], sys.argv[3])\n"
                                     "server.socket = context.wrap_socket(server.socket, server_side=True)\n"
                                     "print('ready', flush=True)\n"
                                     "server.serve_forever()\n";

const char* const DeviceAddress = "10.0.0.1";
const char* const Direct = "direct";

QString text(const QByteArray& latin1)
{
    return QString::fromLatin1(latin1.constData(), latin1.size());
}

QByteArray number(int value)
{
    return QByteArray::number(value);
}

quint16 portOf(int server)
{
    return quint16(FirstServerPort + server);
}

QByteArray addressOf(int server)
{
    return "10.0.1." + number(server + 1);
}

QUrl urlOf(int server, const char* userName = "", const char* password = "")
{
    QUrl url;
    url.setScheme(text("http"));
    url.setHost(text("127.0.0.1"));
    url.setPort(portOf(server));
    url.setUserName(text(userName));
    url.setPassword(text(password));
    return url;
}

/** A proxy server, which ends with the object. */
class ProxyServer
{
public:
    explicit ProxyServer(int server)
        : m_server(server)
        , m_readLines(0)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
    }

    ~ProxyServer() { stop(); }

    bool isSocks() const { return m_server == SocksServer || m_server == SocksServerWithPassword; }

    /** @return whether it accepts connections. */
    bool start(const NTemporaryDirectory& directory)
    {
        m_log.clear();
        m_readLines = 0;
        if (isSocks())
            startSocks(directory);
        else
            startHttp(directory);
        const quint16 port = portOf(m_server);
        return NTest::waitUntil([&]() {
            QTcpSocket socket;
            socket.setProxy(QNetworkProxy::NoProxy);
            socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
            return socket.waitForConnected();
        });
    }

    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.kill();
        m_process.waitForFinished();
    }

    /** What has been asked of it since the last call of forgetRequests(), for example "CONNECT host:80". */
    QStringList requests()
    {
        m_log += m_process.readAll();
        QRegExp line(
            text(isSocks() ? "client\\S+ \\S+ connected to (\\S+)" : "CONNECT .*: Request .*: (.*) HTTP/1.."));
        QStringList found;
        const QList<QByteArray> lines = m_log.split('\n');
        for (int i = m_readLines; i < lines.size() - 1; ++i) {
            if (line.exactMatch(text(lines.at(i))))
                found.append(line.cap(1));
        }
        return found;
    }

    void forgetRequests()
    {
        m_log += m_process.readAll();
        m_readLines = m_log.count('\n');
    }

    QByteArray log() const { return m_log; }

private:
    Q_DISABLE_COPY(ProxyServer)

    void startHttp(const NTemporaryDirectory& directory)
    {
        const QString file = directory.writeFile(
            text("http-" + number(m_server)),
            "Port " + number(portOf(m_server)) + "\nListen 127.0.0.1\nBind " + addressOf(m_server) +
                "\nTimeout 600\nLogLevel Connect\n" +
                (m_server == HttpServerWithPassword ? "BasicAuth user secret\n" : ""));
        m_process.start(text("tinyproxy"), QStringList() << text("-d") << text("-c") << file);
    }

    void startSocks(const NTemporaryDirectory& directory)
    {
        const QString hosts = directory.writeFile(text("hosts-of-socks"), SocksHostTable);
        QStringList arguments;
        arguments << text("--mount") << text("--propagation") << text("unchanged") << text("sh") << text("-c")
                  << text("mount --bind \"$0\" /etc/hosts && exec microsocks \"$@\"") << hosts << text("-i")
                  << text("127.0.0.1") << text("-p") << text(number(portOf(m_server))) << text("-b")
                  << text(addressOf(m_server));
        if (m_server == SocksServerWithPassword)
            arguments << text("-u") << text("user") << text("-P") << text("secret");
        m_process.start(text("unshare"), arguments);
    }

    const int m_server;
    QProcess m_process;
    QByteArray m_log;
    int m_readLines;
};

/** Answers HTTP requests, and any other line with the same line; records where the connections come from. */
class OriginServer : public QTcpServer
{
    Q_OBJECT

public:
    OriginServer() { connect(this, SIGNAL(newConnection()), SLOT(accept())); }

    /** The addresses from which requests have come. */
    QStringList clients;

private slots:
    void accept()
    {
        while (QTcpSocket* const socket = nextPendingConnection()) {
            connect(socket, SIGNAL(readyRead()), SLOT(answer()));
            connect(socket, SIGNAL(disconnected()), socket, SLOT(deleteLater()));
        }
    }

    void answer()
    {
        QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
        while (socket->canReadLine()) {
            const QByteArray line = socket->readLine();
            if (line.startsWith("GET ") || line == "hello\n")
                clients.append(socket->peerAddress().toString());
            if (line == "\r\n")
                socket->write("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\norigin");
            else if (line == "hello\n")
                socket->write(line);
        }
    }
};

} // namespace

class tst_ProxyServers : public QObject
{
    Q_OBJECT

public:
    tst_ProxyServers();
    ~tst_ProxyServers() override;

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void eachSchemeTakesItsServer();
    void missingServersAreReplacedByTheHttpServer();
    void ftpOfTheAccessManagerIsNotSentDirectly();
    void exceptionsGoDirect_data();
    void exceptionsGoDirect();
    void credentialsAreChecked_data();
    void credentialsAreChecked();
    void socksServerLooksUpNamesIfItShall_data();
    void socksServerLooksUpNamesIfItShall();
    void changeHoldsFromTheNextRequestOn();
    void settingsHoldAfterARestart();
    void deadServerIsNotCircumvented();

private:
    bool set(bool enabled, const char* exceptions = "", bool proxyDns = false);
    QByteArray get(const char* url);
    QByteArray sayHello(const char* host, quint16 port = OriginPort, const char* protocol = "");
    QByteArray takeWay();

    NTemporaryDirectory m_directory;
    QList<ProxyServer*> m_servers;
    OriginServer m_origin;
    QProcess m_tlsServer;
    QScopedPointer<NUciCursor> m_cursor;
    QScopedPointer<NNetworkProxyParameters> m_parameters;
    QScopedPointer<QNetworkAccessManager> m_manager;
    Parameters m_next; ///< the servers that set() sets
};

tst_ProxyServers::tst_ProxyServers()
{
    m_tlsServer.setProcessChannelMode(QProcess::MergedChannels);
}

tst_ProxyServers::~tst_ProxyServers()
{
    qDeleteAll(m_servers);
}

void tst_ProxyServers::initTestCase()
{
    // All of 10.0.0.0/8 leads here then. Qt never asks a proxy for loopback addresses.
    QCOMPARE(
        QProcess::execute(
            text("busybox"), QStringList() << text("ip") << text("address") << text("add")
                                           << text(QByteArray(DeviceAddress) + "/8") << text("dev") << text("lo")),
        0);
    NPrivateNamespace::mountCopy(m_directory.writeFile(text("hosts"), HostTable), text("/etc/hosts"));
    for (int server = 0; server < ServerCount; ++server) {
        m_servers.append(new ProxyServer(server));
        QVERIFY2(m_servers.last()->start(m_directory), m_servers.last()->log().constData());
    }
    m_origin.setProxy(QNetworkProxy::NoProxy);
    QVERIFY(m_origin.listen(QHostAddress(text("0.0.0.0")), OriginPort));

    const QString key = m_directory.filePath(text("key"));
    const QString certificate = m_directory.filePath(text("certificate"));
    QProcess maker;
    maker.start(
        text("openssl"), QStringList() << text("req") << text("-x509") << text("-newkey") << text("rsa:2048")
                                       << text("-nodes") << text("-subj") << text("/CN=origin.example")
                                       << text("-keyout") << key << text("-out") << certificate);
    QVERIFY(maker.waitForFinished() && maker.exitCode() == 0);
    m_tlsServer.start(
        text("python3"),
        QStringList() << text("-c") << text(TlsServerProgram) << text(number(TlsPort)) << certificate << key);
    QByteArray output;
    NTRY_VERIFY((output += m_tlsServer.readAll()).contains("ready"));
}

void tst_ProxyServers::cleanupTestCase()
{
    m_tlsServer.kill();
    m_tlsServer.waitForFinished();
}

void tst_ProxyServers::init()
{
    m_directory.writeFile(text("config/proxy"), QByteArray());
    QFile::remove(m_directory.filePath(text("saved/proxy")));
    m_cursor.reset(new NUciCursor(m_directory.filePath(text("config")), m_directory.filePath(text("saved"))));
    m_parameters.reset(new NNetworkProxyParameters(m_cursor.data(), text("proxy"), nullptr));
    m_manager.reset(new QNetworkAccessManager);
    m_next.httpProxyServerUrl = urlOf(HttpServer);
    m_next.sslProxyServerUrl = urlOf(SslServer);
    m_next.ftpProxyServerUrl = urlOf(FtpServer);
    m_next.socks5ProxyServerUrl = urlOf(SocksServer);
    takeWay();
}

void tst_ProxyServers::cleanup()
{
    m_manager.reset();
    m_parameters.reset();
    m_cursor.reset();
}

bool tst_ProxyServers::set(bool enabled, const char* exceptions, bool proxyDns)
{
    m_next.proxyEnabled = enabled;
    m_next.exceptions = text(exceptions).split(QLatin1Char(','));
    m_next.proxyDnsEnabled = proxyDns;
    return m_parameters->importParameters(m_next);
}

// @return "ok", or the number of the error.
QByteArray tst_ProxyServers::get(const char* url)
{
    QScopedPointer<QNetworkReply> reply(m_manager->get(QNetworkRequest(QUrl(text(url)))));
#ifndef QT_NO_SSL
    connect(reply.data(), SIGNAL(sslErrors(QList<QSslError>)), reply.data(), SLOT(ignoreSslErrors()));
#endif
    if (!NTest::waitUntil([&]() { return reply->isFinished(); }))
        return "no reply";
    return reply->error() == QNetworkReply::NoError ? QByteArray("ok") : number(reply->error());
}

// The protocol is the one that an application asks a proxy for; empty for the socket's own request.
QByteArray tst_ProxyServers::sayHello(const char* host, quint16 port, const char* protocol)
{
    QTcpSocket socket;
    if (*protocol) {
        const QNetworkProxyQuery query(text(host), port, text(protocol), QNetworkProxyQuery::TcpSocket);
        socket.setProxy(QNetworkProxyFactory::proxyForQuery(query).first());
    }
    socket.connectToHost(text(host), port);
    socket.write("hello\n");
    bool isAnswered = false;
    const bool isOver = NTest::waitUntil([&]() {
        isAnswered = socket.canReadLine();
        return isAnswered || socket.state() == QAbstractSocket::UnconnectedState;
    });
    if (!isOver)
        return "no answer";
    return isAnswered ? QByteArray("ok") : number(socket.error());
}

// What has been asked of the proxy servers since the last call, and "direct" for each request that has reached the
// origin server without one.
QByteArray tst_ProxyServers::takeWay()
{
    QCoreApplication::processEvents();
    QStringList ways;
    for (int server = 0; server < m_servers.size(); ++server) {
        const QStringList requests = m_servers.at(server)->requests();
        m_servers.at(server)->forgetRequests();
        for (const QString& request : requests)
            ways.append(text(number(server)) + QLatin1Char(' ') + request);
        if (m_origin.clients.removeAll(text(addressOf(server))) > 0 && requests.isEmpty())
            ways.append(text(number(server)) + text(" without a request"));
    }
    for (const QString& client : m_origin.clients)
        ways.append(client == text(DeviceAddress) ? text(Direct) : client);
    m_origin.clients.clear();
    return ways.join(text(", ")).toLatin1();
}

void tst_ProxyServers::eachSchemeTakesItsServer()
{
    QVERIFY(set(true));
    QCOMPARE(get("http://origin.example:8000/a"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + " GET http://origin.example:8000/a");
    QCOMPARE(get("https://origin.example:8443/"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(SslServer) + " CONNECT origin.example:8443");
    QCOMPARE(sayHello("origin.example", OriginPort, "ftp"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(FtpServer) + " CONNECT origin.example:8000");
    QCOMPARE(sayHello("origin.example"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(SocksServer) + " 10.0.2.1:8000");
}

void tst_ProxyServers::missingServersAreReplacedByTheHttpServer()
{
    m_next.sslProxyServerUrl = QUrl();
    m_next.ftpProxyServerUrl = QUrl();
    m_next.socks5ProxyServerUrl = QUrl();
    QVERIFY(set(true));
    QCOMPARE(get("https://origin.example:8443/"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + " CONNECT origin.example:8443");
    QCOMPARE(sayHello("origin.example", OriginPort, "ftp"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + " CONNECT origin.example:8000");

    // It is addressed as a SOCKS5 server then.
    m_next.httpProxyServerUrl = urlOf(SocksServer);
    QVERIFY(set(true));
    QCOMPARE(sayHello("origin.example"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(SocksServer) + " 10.0.2.1:8000");
}

// The access manager retrieves FTP files through caching servers only, QNetworkProxy::FtpCachingProxy.
void tst_ProxyServers::ftpOfTheAccessManagerIsNotSentDirectly()
{
    QVERIFY(set(true));
    QCOMPARE(get("ftp://origin.example:8000/a"), number(QNetworkReply::ProxyNotFoundError));
    QCOMPARE(takeWay(), QByteArray());
}

void tst_ProxyServers::exceptionsGoDirect_data()
{
    QTest::addColumn<QByteArray>("exceptions");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<bool>("isException");
    const struct
    {
        const char* exceptions;
        const char* host;
        bool isException;
    } rows[] = {
        {"", "10.0.2.1", false},
        {"10.0.2.1", "10.0.2.1", true},
        {"10.0.2.1", "10.0.2.2", false},
        {"10.0.2.1", "origin.example", false},
        {"10.0.2.0/24", "10.0.2.7", true},
        {"10.0.2.0/24", "10.0.3.7", false},
        {"10.0.0.0/255.255.0.0", "10.0.3.7", true},
        {"10.0.0.0/255.255.0.0", "10.1.3.7", false},
        {"local", "printer", true},
        {"local", "printer.example", false},
        {"printer", "printer", true},
        {"plant.example", "cam.plant.example", true},
        {"plant.example", "badplant.example", true},
        {"plant.example", "origin.example", false},
        {"172.16.0.0/12,origin.example,local", "origin.example", true},
        {"172.16.0.0/12,origin.example,local", "10.0.2.1", false},
    };
    for (const auto& row : rows) {
        const QByteArray name = QByteArray(row.host) + " with " + row.exceptions;
        QTest::newRow(name.constData()) << QByteArray(row.exceptions) << QByteArray(row.host) << row.isException;
    }
}

void tst_ProxyServers::exceptionsGoDirect()
{
    QFETCH(QByteArray, exceptions);
    QFETCH(QByteArray, host);
    QFETCH(bool, isException);
    QVERIFY(set(true, exceptions.constData()));
    const QByteArray url = "http://" + host + ":8000/";
    QCOMPARE(get(url.constData()), QByteArray("ok"));
    QCOMPARE(takeWay(), isException ? QByteArray(Direct) : number(HttpServer) + " GET " + url);
    const QByteArray address = host.startsWith("10.") ? host : QByteArray("10.0.2.1");
    QCOMPARE(sayHello(host.constData()), QByteArray("ok"));
    QCOMPARE(takeWay(), isException ? QByteArray(Direct) : number(SocksServer) + ' ' + address + ":8000");
}

void tst_ProxyServers::credentialsAreChecked_data()
{
    QTest::addColumn<QByteArray>("userName");
    QTest::addColumn<QByteArray>("password");
    QTest::addColumn<bool>("areAccepted");
    QTest::newRow("right") << QByteArray("user") << QByteArray("secret") << true;
    QTest::newRow("none") << QByteArray() << QByteArray() << false;
    QTest::newRow("other user") << QByteArray("other") << QByteArray("secret") << false;
    QTest::newRow("other password") << QByteArray("user") << QByteArray("other") << false;
}

void tst_ProxyServers::credentialsAreChecked()
{
    QFETCH(QByteArray, userName);
    QFETCH(QByteArray, password);
    QFETCH(bool, areAccepted);
    m_next.httpProxyServerUrl = urlOf(HttpServerWithPassword, userName.constData(), password.constData());
    m_next.sslProxyServerUrl = m_next.httpProxyServerUrl;
    m_next.socks5ProxyServerUrl = urlOf(SocksServerWithPassword, userName.constData(), password.constData());
    QVERIFY(set(true));
    const QList<QByteArray> urls = QList<QByteArray>() << "http://origin.example:8000/"
                                                       << "https://origin.example:8443/";
    for (const QByteArray& url : urls) {
        const QByteArray requestLine =
            url.startsWith("http:") ? "GET " + url : QByteArray("CONNECT origin.example:8443");
        const QByteArray result = get(url.constData());
        // tinyproxy answers only missing credentials with 407, and wrong ones with 401.
        if (areAccepted)
            QCOMPARE(result, QByteArray("ok"));
        else if (userName.isEmpty())
            QCOMPARE(result, number(QNetworkReply::ProxyAuthenticationRequiredError));
        else
            QVERIFY2(result != "ok" && result != "no reply", result.constData());
        QCOMPARE(!m_origin.clients.isEmpty(), areAccepted && url.startsWith("http:"));
        // Qt asks without credentials first.
        QVERIFY(takeWay().startsWith(number(HttpServerWithPassword) + " " + requestLine));
    }
    QCOMPARE(
        sayHello("origin.example"),
        areAccepted ? QByteArray("ok") : number(QAbstractSocket::ProxyAuthenticationRequiredError));
    QCOMPARE(takeWay(), areAccepted ? number(SocksServerWithPassword) + " 10.0.2.1:8000" : QByteArray());
}

void tst_ProxyServers::socksServerLooksUpNamesIfItShall_data()
{
    QTest::addColumn<bool>("proxyDns");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<QByteArray>("way");
    const QByteArray server = number(SocksServer) + ' ';
    const QByteArray unknown = number(QAbstractSocket::HostNotFoundError);
    QTest::newRow("by the device") << false << QByteArray("origin.example") << QByteArray("ok")
                                   << server + "10.0.2.1:8000";
    QTest::newRow("by the device, unknown") << false << QByteArray("remote.example") << unknown << QByteArray();
    QTest::newRow("by the server") << true << QByteArray("remote.example") << QByteArray("ok")
                                   << server + "remote.example:8000";
    QTest::newRow("by the server, unknown")
        << true << QByteArray("origin.example") << QByteArray("failed") << QByteArray();
    QTest::newRow("address") << true << QByteArray("10.0.2.1") << QByteArray("ok") << server + "10.0.2.1:8000";
}

void tst_ProxyServers::socksServerLooksUpNamesIfItShall()
{
    QFETCH(bool, proxyDns);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, result);
    QFETCH(QByteArray, way);
    QVERIFY(set(true, "", proxyDns));
    const QByteArray actual = sayHello(host.constData());
    // Which error the server reports is its own choice.
    if (result == "failed")
        QVERIFY2(actual != "ok" && actual != "no answer", actual.constData());
    else
        QCOMPARE(actual, result);
    QCOMPARE(takeWay(), way);
}

void tst_ProxyServers::changeHoldsFromTheNextRequestOn()
{
    const char* const url = "http://origin.example:8000/";
    const QByteArray request = QByteArray(" GET ") + url;
    QVERIFY(set(false));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), QByteArray(Direct));
    bool isInvalid = false;
    QVERIFY(m_parameters->setHttpProxyServerUrl(urlOf(FtpServer), isInvalid));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), QByteArray(Direct));
    QVERIFY(m_parameters->setProxyEnabled(true));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), number(FtpServer) + request);
    QVERIFY(set(true));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + request);
    QVERIFY(m_parameters->setExceptions(QStringList(text("origin.example"))));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), QByteArray(Direct));
    QVERIFY(m_parameters->setExceptions(QStringList()));
    QCOMPARE(get(url), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + request);

    QCOMPARE(sayHello("remote.example"), number(QAbstractSocket::HostNotFoundError));
    QVERIFY(m_parameters->setProxyDnsEnabled(true));
    QCOMPARE(sayHello("remote.example"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(SocksServer) + " remote.example:8000");
}

void tst_ProxyServers::settingsHoldAfterARestart()
{
    m_next.httpProxyServerUrl = urlOf(HttpServerWithPassword, "user", "secret");
    QVERIFY(set(true, "printer"));
    m_parameters.reset();
    QCOMPARE(get("http://origin.example:8000/"), QByteArray("ok"));
    QCOMPARE(takeWay(), QByteArray(Direct));

    m_cursor.reset(new NUciCursor(m_directory.filePath(text("config")), m_directory.filePath(text("saved"))));
    m_parameters.reset(new NNetworkProxyParameters(m_cursor.data(), text("proxy"), nullptr));
    QCOMPARE(get("http://origin.example:8000/"), QByteArray("ok"));
    QVERIFY(takeWay().startsWith(number(HttpServerWithPassword) + " GET http://origin.example:8000/"));
    QCOMPARE(get("http://printer:8000/"), QByteArray("ok"));
    QCOMPARE(takeWay(), QByteArray(Direct));
}

void tst_ProxyServers::deadServerIsNotCircumvented()
{
    QVERIFY(set(true));
    m_servers.at(HttpServer)->stop();
    m_servers.at(SocksServer)->stop();
    QCOMPARE(get("http://origin.example:8000/"), number(QNetworkReply::ConnectionRefusedError));
    QCOMPARE(sayHello("origin.example"), number(QAbstractSocket::ProxyConnectionRefusedError));
    QCOMPARE(takeWay(), QByteArray());

    QVERIFY(m_servers.at(HttpServer)->start(m_directory));
    QVERIFY(m_servers.at(SocksServer)->start(m_directory));
    QCOMPARE(get("http://origin.example:8000/"), QByteArray("ok"));
    QCOMPARE(takeWay(), number(HttpServer) + " GET http://origin.example:8000/");
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_ProxyServers, NPrivateNamespace::Mounts | NPrivateNamespace::Network)
#include "tst_proxyservers.moc"
