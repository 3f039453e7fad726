#include <support/nlighttpd.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QtTest/QtTest>

namespace {

const char Host[] = "http://127.0.0.1";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray loginAs(const QByteArray& user, const QByteArray& password)
{
    return "{\"user\": \"" + user + "\", \"password\": \"" + password + "\"}";
}

} // namespace

/** The example of the guide to web services, behind a web server as the guide configures it. */
class tst_WebServiceExample : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void commandsOfTheGuideDoWhatItSays();
    void wrongLoginIsRefused_data();
    void wrongLoginIsRefused();
    void wrongGreetingIsRefused_data();
    void wrongGreetingIsRefused();
    void onlyUserNamesOfSomeLengthAreLogged();

private:
    QByteArray run(const QByteArray& command);
    QByteArray send(const QByteArray& options, const QByteArray& path, const QByteArray& body);

    NTemporaryDirectory m_directory;
    NLighttpd m_lighttpd;
    QProcess m_program;
    QList<QByteArray> m_commands;
};

void tst_WebServiceExample::initTestCase()
{
    QFile guide(QString::fromLocal8Bit(NWEBAPI_GUIDE));
    QVERIFY(guide.open(QIODevice::ReadOnly));
    QByteArray configuration;
    const QStringList pieces = QString::fromUtf8(guide.readAll()).split(text("```\n"));
    for (const QString& piece : pieces) {
        if (piece.startsWith(text("server.modules")))
            configuration = piece.toUtf8();
        if (piece.startsWith(text("curl ")))
            m_commands = piece.toUtf8().trimmed().split('\n');
    }
    QCOMPARE(m_commands.size(), 4);

    const QString socket = m_directory.filePath(text("socket"));
    m_program.setProcessChannelMode(QProcess::ForwardedChannels);
    m_program.start(QString::fromLocal8Bit(NWEBAPI_EXAMPLE_PROGRAM), QStringList() << socket);
    NTRY_VERIFY(QFileInfo(socket).exists());

    configuration.replace("/run/webservice.socket", QFile::encodeName(socket));
    // It is loaded already.
    configuration.replace("server.modules += ( \"mod_fastcgi\" )", "");
    QVERIFY2(m_lighttpd.start(configuration), m_lighttpd.log().constData());
}

void tst_WebServiceExample::cleanupTestCase()
{
    m_program.terminate();
    QVERIFY(m_program.waitForFinished());
}

// Runs a command of the guide. Returns the reply's body, and the status on a separate line.
QByteArray tst_WebServiceExample::run(const QByteArray& command)
{
    QByteArray complete = command;
    complete.replace(Host, m_lighttpd.url(QString()).toLatin1());
    complete.replace("curl ", "curl -s -S --noproxy '*' -w '\\n%{http_code}' ");
    QProcess shell;
    shell.setWorkingDirectory(m_directory.path());
    shell.start(text("sh"), QStringList() << text("-c") << QString::fromUtf8(complete));
    return shell.waitForFinished() ? shell.readAllStandardOutput() : QByteArray("curl does not end");
}

QByteArray tst_WebServiceExample::send(const QByteArray& options, const QByteArray& path, const QByteArray& body)
{
    m_directory.writeFile(text("body"), body);
    return run("curl " + options + " --data-binary @body " + Host + path);
}

void tst_WebServiceExample::commandsOfTheGuideDoWhatItSays()
{
    QCOMPARE(run(m_commands.at(1)), QByteArray("401 Unauthorized\n\n401"));
    QCOMPARE(run(m_commands.at(0)), QByteArray("{}\n200"));
    QCOMPARE(run(m_commands.at(1)), QByteArray("{\"greeting\":\"Hello\",\"user\":\"demo\"}\n200"));
    QCOMPARE(run(m_commands.at(2)), QByteArray("{\"greeting\":\"Good morning\",\"user\":\"demo\"}\n200"));
    QCOMPARE(run(m_commands.at(1)), QByteArray("{\"greeting\":\"Good morning\",\"user\":\"demo\"}\n200"));
    QCOMPARE(run(m_commands.at(3)), QByteArray("{}\n200"));
    QCOMPARE(run(m_commands.at(1)), QByteArray("401 Unauthorized\n\n401"));
}

void tst_WebServiceExample::wrongLoginIsRefused_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    QTest::newRow("wrong password") << loginAs("demo", "Demo") << 401;
    QTest::newRow("wrong user") << loginAs("Demo", "demo") << 401;
    QTest::newRow("no password") << QByteArray("{\"user\": \"demo\"}") << 400;
    QTest::newRow("other type") << QByteArray("{\"user\": \"demo\", \"password\": 1}") << 400;
    QTest::newRow("no object") << QByteArray("[]") << 400;
    QTest::newRow("no JSON") << QByteArray("user=demo") << 400;
    QTest::newRow("nothing") << QByteArray() << 400;
    QTest::newRow("JSON 100,000 deep") << QByteArray(100000, '[') << 400;
    QTest::newRow("longest name") << loginAs(QByteArray(64, 'n'), "demo") << 401;
    QTest::newRow("name too long") << loginAs(QByteArray(65, 'n'), "demo") << 400;
    QTest::newRow("huge name") << loginAs(QByteArray(1000000, 'n'), "demo") << 400;
    QTest::newRow("document too large") << loginAs(QByteArray(2000000, 'n'), "demo") << 413;
}

void tst_WebServiceExample::wrongLoginIsRefused()
{
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    const QByteArray reply = send("-i -H 'Expect:'", "/api/login", body);
    QVERIFY2(reply.endsWith('\n' + QByteArray::number(status)), reply.constData());
    QVERIFY(!reply.contains("Set-Cookie"));
    // A challenge for which no browser asks for a password.
    QCOMPARE(reply.count("\r\nWWW-Authenticate: Cookie\r\n"), status == 401 ? 1 : 0);
    QCOMPARE(run(m_commands.at(0)), QByteArray("{}\n200"));
}

void tst_WebServiceExample::wrongGreetingIsRefused_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("none") << QByteArray("{}");
    QTest::newRow("other type") << QByteArray("{\"greeting\": null}");
    QTest::newRow("no object") << QByteArray("\"Good morning\"");
    QTest::newRow("no JSON") << QByteArray("Good morning");
}

void tst_WebServiceExample::wrongGreetingIsRefused()
{
    QFETCH(QByteArray, body);
    QCOMPARE(run(m_commands.at(0)), QByteArray("{}\n200"));
    const QByteArray before = run(m_commands.at(1));
    QCOMPARE(send("-b cookies -X PUT", "/api/greeting", body), QByteArray("400 Bad Request\n\n400"));
    QCOMPARE(run(m_commands.at(1)), before);
}

void tst_WebServiceExample::onlyUserNamesOfSomeLengthAreLogged()
{
    send("", "/api/login", loginAs(QByteArray(65, 'l'), "demo"));
    send("", "/api/login", loginAs(QByteArray(64, 's'), "demo"));
    NTRY_VERIFY(m_lighttpd.log().contains("The login of \"" + QByteArray(64, 's') + "\" failed."));
    QVERIFY(!m_lighttpd.log().contains("lllll"));
}

QTEST_MAIN(tst_WebServiceExample)
#include "tst_webserviceexample.moc"
