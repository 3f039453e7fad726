#include <nbase/network/nnetworkproxyparametersfcgirequestprocessor.h>
#include <nbase/network/nnetworkproxyparametersfcgiservice.h>

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyparametersaccessor.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "nwebapi/nmemorychannel.h"
#include "support/nservicetest.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <errno.h>

namespace {

typedef NNetworkProxyParametersFcgiRequestProcessor Processor;
typedef NNetworkProxyParametersFcgiService Service;

const char jsonHeader[] = "Content-Type: application/json; charset=utf-8\r\n\r\n";

const char configuration[] = "\nconfig general 'general'\n"
                             "\toption enabled '1'\n"
                             "\toption proxyDns '0'\n"
                             "\tlist exception 'lan'\n"
                             "\nconfig proxy 'http'\n"
                             "\toption host 'web.example'\n"
                             "\toption port '3128'\n"
                             "\toption username 'us\xe9r'\n"
                             "\toption password 'secret'\n\n";

const char completeDocument[] =
    "{\"enabled\":true,\"exceptions\":[\"lan\"],\"http\":{\"host\":\"web.example\",\"password\":\"secret\","
    "\"port\":3128,\"username\":\"us\xc3\xa9r\"},\"proxyDns\":false}";

const char documentWithoutCredentials[] =
    "{\"enabled\":true,\"exceptions\":[\"lan\"],\"http\":{\"host\":\"web.example\",\"port\":3128},"
    "\"proxyDns\":false}";

const char newDocument[] =
    "{\"enabled\":false,\"exceptions\":[],\"ftp\":{\"host\":\"f\",\"port\":21},"
    "\"http\":{\"host\":\"10.0.0.1\",\"password\":\"p\",\"port\":65535,\"username\":\"u\"},\"proxyDns\":true,"
    "\"socks5\":{\"host\":\"s\",\"port\":2},\"ssl\":{\"host\":\"t\",\"port\":3}}";

const char storageRemark[] = "Error in request processor for request to script \"/api/service\" with path info "
                             "\"/more\": network proxy's parameters setting fails";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** Gives the rights that a test sets, and notes the sessions that it is asked for. */
class RestrictingAccessor : public NNetworkProxyParametersAccessor
{
public:
    explicit RestrictingAccessor(NNetworkProxyParameters* parameters)
        : NNetworkProxyParametersAccessor(parameters)
        , canRead(true)
        , canReadCritical(true)
        , canSet(true)
    {
    }

    bool canReadParametersWithSession(const NwaWebSession* session) const override
    {
        askedFor << session;
        return canRead;
    }

    bool canReadCriticalParametersWithSession(const NwaWebSession* session) const override
    {
        askedFor << session;
        return canReadCritical;
    }

    bool canSetParametersWithSession(const NwaWebSession* session) const override
    {
        askedFor << session;
        return canSet;
    }

    bool canRead;
    bool canReadCritical;
    bool canSet;
    mutable QList<const NwaWebSession*> askedFor;
};

/** Notes its end. */
class NotingProcessor : public Processor
{
public:
    NotingProcessor(NNetworkProxyParametersAccessor* accessor, int* deletions)
        : Processor(nullptr, accessor)
        , m_deletions(deletions)
    {
    }
    ~NotingProcessor() override { ++*m_deletions; }

private:
    int* m_deletions;
};

} // namespace

class tst_NNetworkProxyParametersFcgiService : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void getIsAnsweredWithTheSettings();
    void credentialsAreReadOnlyWithTheRight();
    void settingsAreReadOnlyWithTheRight();
    void headIsAnsweredWithoutTheDocument();
    void putReplacesTheSettings();
    void putOfTheSameSettingsWritesNothing();
    void replyToPutHasCredentialsOnlyWithTheRight();
    void settingsAreChangedOnlyWithTheRight();
    void settingsMayBeChangedWithoutBeingRead();
    void requestsWithoutSessionAreAnswered401_data();
    void requestsWithoutSessionAreAnswered401();
    void requestsKeepTheSessionAlive();
    void invalidDocumentsAreAnswered400_data();
    void invalidDocumentsAreAnswered400();
    void putOfAFormIsAnswered415();
    void failedStorageIsAnswered500_data();
    void failedStorageIsAnswered500();
    void requestsOfOtherSitesAreRefused();
    void otherMethodsAreNotAllowed_data();
    void otherMethodsAreNotAllowed();
    void serviceOwnsItsProcessor();

private:
    void process(const QByteArray& method, const QByteArray& body = QByteArray());
    void process(const NwaCgiRequest::Variables& variables, const QByteArray& body);
    static NwaCgiRequest::Variables variables(const QByteArray& method);
    bool isAnswered(const QByteArray& status) const
    {
        return m_channel->header().startsWith("Status: " + status + "\r\n");
    }
    QByteArray file() const
    {
        QFile file(m_directory->filePath(text("config/proxy")));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    /** Whether the settings are those of the beginning, in the store and as the next request finds them. */
    bool isUnchanged();

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NUciCursor> m_cursor;
    QScopedPointer<NNetworkProxyParameters> m_settings;
    QScopedPointer<RestrictingAccessor> m_accessor;
    QScopedPointer<NwaWebSessionManager> m_sessions;
    QScopedPointer<NFixedSession> m_identifier;
    QScopedPointer<Service> m_service;
    QScopedPointer<NMemoryChannel> m_channel;
};

void tst_NNetworkProxyParametersFcgiService::init()
{
    m_directory.reset(new NTemporaryDirectory);
    m_directory->writeFile(text("config/proxy"), configuration);
    m_cursor.reset(new NUciCursor(m_directory->filePath(text("config")), m_directory->filePath(text("save"))));
    m_settings.reset(new NNetworkProxyParameters(m_cursor.data(), text("proxy"), nullptr));
    m_accessor.reset(new RestrictingAccessor(m_settings.data()));
    m_sessions.reset(new NwaWebSessionManager);
    m_identifier.reset(new NFixedSession(m_sessions->createSession()));
    m_service.reset(new Service(m_identifier.data(), m_accessor.data(), nullptr));
}

void tst_NNetworkProxyParametersFcgiService::cleanup()
{
    m_service.reset();
    m_channel.reset();
    m_identifier.reset();
    m_sessions.reset();
    m_accessor.reset();
    m_settings.reset();
    m_cursor.reset();
    m_directory.reset();
}

NwaCgiRequest::Variables tst_NNetworkProxyParametersFcgiService::variables(const QByteArray& method)
{
    return nVariables(
        "REQUEST_METHOD", method, "SCRIPT_NAME", "/api/service", "PATH_INFO", "/more", "CONTENT_TYPE",
        "application/json");
}

void tst_NNetworkProxyParametersFcgiService::process(const QByteArray& method, const QByteArray& body)
{
    process(variables(method), body);
}

void tst_NNetworkProxyParametersFcgiService::process(
    const NwaCgiRequest::Variables& variables, const QByteArray& body)
{
    NwaCgiRequest::Variables all = variables;
    all.insert("CONTENT_LENGTH", QByteArray::number(body.size()));
    m_channel.reset(new NMemoryChannel(body));
    m_service->processRequest(new NwaFcgiRequest(m_channel.data(), all));
    NTRY_COMPARE(m_channel->finishCount, 1);
}

bool tst_NNetworkProxyParametersFcgiService::isUnchanged()
{
    m_accessor->canRead = true;
    m_accessor->canReadCritical = true;
    m_identifier->session = m_sessions->createSession();
    process("GET");
    return m_channel->body() == completeDocument && file() == configuration;
}

void tst_NNetworkProxyParametersFcgiService::getIsAnsweredWithTheSettings()
{
    process("GET");
    QCOMPARE(m_channel->header(), QByteArray(jsonHeader));
    QCOMPARE(m_channel->body(), QByteArray(completeDocument));
    QCOMPARE(m_channel->remarks, QByteArray());
}

void tst_NNetworkProxyParametersFcgiService::credentialsAreReadOnlyWithTheRight()
{
    m_accessor->canReadCritical = false;
    process("GET");
    QCOMPARE(m_channel->header(), QByteArray(jsonHeader));
    QCOMPARE(m_channel->body(), QByteArray(documentWithoutCredentials));
    QCOMPARE(m_accessor->askedFor.size(), 2);
    QCOMPARE(m_accessor->askedFor.count(m_identifier->session), 2);
}

void tst_NNetworkProxyParametersFcgiService::settingsAreReadOnlyWithTheRight()
{
    m_accessor->canRead = false;
    process("GET");
    QVERIFY(isAnswered("403 Forbidden"));
    QVERIFY(!m_channel->body().contains("web.example"));
    QCOMPARE(m_channel->remarks, QByteArray());
}

void tst_NNetworkProxyParametersFcgiService::headIsAnsweredWithoutTheDocument()
{
    process("HEAD");
    QCOMPARE(m_channel->output, QByteArray(jsonHeader));
}

void tst_NNetworkProxyParametersFcgiService::putReplacesTheSettings()
{
    process("PUT", newDocument);
    QCOMPARE(m_channel->header(), QByteArray(jsonHeader));
    QCOMPARE(m_channel->body(), QByteArray(newDocument));
    QCOMPARE(m_channel->remarks, QByteArray());
    QVERIFY(file().contains("\toption enabled '0'\n"));
    QVERIFY(file().contains("\nconfig proxy 'http'\n\toption host '10.0.0.1'\n\toption port '65535'\n"
                            "\toption username 'u'\n\toption password 'p'\n"));
    process("GET");
    QCOMPARE(m_channel->body(), QByteArray(newDocument));
}

void tst_NNetworkProxyParametersFcgiService::putOfTheSameSettingsWritesNothing()
{
    QSignalSpy changes(m_settings.data(), SIGNAL(networkProxyParametersChanged()));
    const NSystemCalls::Fault fault(NSystemCalls::Open | NSystemCalls::Rename, EIO);
    process("PUT", completeDocument);
    QCOMPARE(m_channel->output, QByteArray(jsonHeader) + completeDocument);
    QCOMPARE(fault.count(), 0);
    QCOMPARE(changes.count(), 0);
}

void tst_NNetworkProxyParametersFcgiService::replyToPutHasCredentialsOnlyWithTheRight()
{
    m_accessor->canReadCritical = false;
    process("PUT", QByteArray(completeDocument).replace("secret", "other"));
    QCOMPARE(m_channel->output, QByteArray(jsonHeader) + documentWithoutCredentials);
    QVERIFY(file().contains("\toption password 'other'\n"));
}

void tst_NNetworkProxyParametersFcgiService::settingsAreChangedOnlyWithTheRight()
{
    m_accessor->canSet = false;
    process("PUT", newDocument);
    QVERIFY(isAnswered("403 Forbidden"));
    QCOMPARE(m_channel->remarks, QByteArray());
    QCOMPARE(m_accessor->askedFor, QList<const NwaWebSession*>() << m_identifier->session);
    QVERIFY(isUnchanged());
    // The right is checked before the document.
    process("PUT", "{");
    QVERIFY(isAnswered("403 Forbidden"));
}

void tst_NNetworkProxyParametersFcgiService::settingsMayBeChangedWithoutBeingRead()
{
    m_accessor->canRead = false;
    process("PUT", newDocument);
    QCOMPARE(m_channel->output, QByteArray(jsonHeader) + newDocument);
}

void tst_NNetworkProxyParametersFcgiService::requestsWithoutSessionAreAnswered401_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("GET") << QByteArray("GET");
    QTest::newRow("PUT") << QByteArray("PUT");
}

void tst_NNetworkProxyParametersFcgiService::requestsWithoutSessionAreAnswered401()
{
    QFETCH(QByteArray, method);
    m_identifier->session = nullptr;
    process(method, newDocument);
    QVERIFY(isAnswered("401 Unauthorized"));
    QVERIFY(!m_channel->body().contains("web.example"));
    QVERIFY(m_accessor->askedFor.isEmpty());
    QVERIFY(isUnchanged());
}

void tst_NNetworkProxyParametersFcgiService::requestsKeepTheSessionAlive()
{
    process("GET");
    process("PUT", newDocument);
    QVERIFY(!m_identifier->wasPassive);
}

void tst_NNetworkProxyParametersFcgiService::invalidDocumentsAreAnswered400_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("not JSON") << QByteArray("enabled=1");
    QTest::newRow("incomplete JSON") << QByteArray(newDocument).left(20);
    QTest::newRow("array") << QByteArray("[]");
    QTest::newRow("empty object") << QByteArray("{}");
    QTest::newRow("no http server") << QByteArray(newDocument).replace("\"http\"", "\"https\"");
    QTest::newRow("no exceptions") << QByteArray(newDocument).replace("\"exceptions\"", "\"exception\"");
    QTest::newRow("no proxyDns") << QByteArray(newDocument).replace("\"proxyDns\"", "\"proxydns\"");
    QTest::newRow("text for a boolean") << QByteArray(newDocument).replace("false", "\"false\"");
    QTest::newRow("null for an optional server")
        << QByteArray(newDocument).replace("{\"host\":\"t\",\"port\":3}", "null");
    QTest::newRow("http port 0") << QByteArray(newDocument).replace("65535", "0");
    QTest::newRow("http port 65536") << QByteArray(newDocument).replace("65535", "65536");
    QTest::newRow("http without host") << QByteArray(newDocument).replace("10.0.0.1", "");
    QTest::newRow("http with an invalid host") << QByteArray(newDocument).replace("10.0.0.1", "a_b");
    QTest::newRow("ssl port 0") << QByteArray(newDocument).replace("\"port\":3}", "\"port\":0}");
    QTest::newRow("ftp without host") << QByteArray(newDocument).replace("\"f\"", "\"\"");
    QTest::newRow("socks5 port 0") << QByteArray(newDocument).replace("\"port\":2}", "\"port\":0}");
}

void tst_NNetworkProxyParametersFcgiService::invalidDocumentsAreAnswered400()
{
    QFETCH(QByteArray, document);
    QVERIFY(document != newDocument);
    QSignalSpy changes(m_settings.data(), SIGNAL(networkProxyParametersChanged()));
    process("PUT", document);
    QVERIFY2(isAnswered("400 Bad Request"), m_channel->header().constData());
    QVERIFY(!m_channel->remarks.contains("setting fails"));
    QVERIFY(isUnchanged());
    QCOMPARE(changes.count(), 0);
}

void tst_NNetworkProxyParametersFcgiService::putOfAFormIsAnswered415()
{
    NwaCgiRequest::Variables put = variables("PUT");
    put.insert("CONTENT_TYPE", "multipart/form-data; boundary=x");
    process(put, newDocument);
    QVERIFY(isAnswered("415 Unsupported Media Type"));
    QVERIFY(isUnchanged());
}

void tst_NNetworkProxyParametersFcgiService::failedStorageIsAnswered500_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("failing");
    QTest::newRow("characters beyond Latin-1")
        << QByteArray(newDocument).replace("\"p\"", "\"\xe2\x82\xac\"") << 0;
#ifdef NBASE_OWN_UCI /* libuci may lose changes when a system call fails */
    QTest::newRow("staging fails") << QByteArray(newDocument) << int(NSystemCalls::Fdatasync);
    QTest::newRow("commit fails") << QByteArray(newDocument) << int(NSystemCalls::Rename);
#endif
}

void tst_NNetworkProxyParametersFcgiService::failedStorageIsAnswered500()
{
    QFETCH(QByteArray, document);
    QFETCH(int, failing);
    QSignalSpy changes(m_settings.data(), SIGNAL(networkProxyParametersChanged()));
    {
        const NSystemCalls::Fault fault(NSystemCalls::Calls(failing).times(1), ENOSPC);
        process("PUT", document);
        QCOMPARE(fault.count(), failing == 0 ? 0 : 1);
    }
    QVERIFY(isAnswered("500 Internal Server Error"));
    QCOMPARE(m_channel->remarks, QByteArray(storageRemark));
    QCOMPARE(changes.count(), 0);
    QVERIFY(isUnchanged());
    // The next change does not include the refused one.
    process("PUT", QByteArray(completeDocument).replace("secret", "other"));
    QVERIFY(m_channel->header() == jsonHeader);
    QCOMPARE(file(), QByteArray(configuration).replace("secret", "other"));
}

void tst_NNetworkProxyParametersFcgiService::requestsOfOtherSitesAreRefused()
{
    NwaCgiRequest::Variables put = variables("PUT");
    put.insert("HTTP_HOST", "device.example");
    put.insert("HTTP_ORIGIN", "http://other.example");
    process(put, newDocument);
    QVERIFY(isAnswered("403 Forbidden"));
    QVERIFY(isUnchanged());
}

void tst_NNetworkProxyParametersFcgiService::otherMethodsAreNotAllowed_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("POST") << QByteArray("POST");
    QTest::newRow("DELETE") << QByteArray("DELETE");
    QTest::newRow("PATCH") << QByteArray("PATCH");
    QTest::newRow("put") << QByteArray("put");
}

void tst_NNetworkProxyParametersFcgiService::otherMethodsAreNotAllowed()
{
    QFETCH(QByteArray, method);
    process(method, newDocument);
    QVERIFY(isAnswered("405 Method Not Allowed"));
    QVERIFY(m_channel->header().contains("\r\nAllow: GET, HEAD, PUT\r\n"));
    QVERIFY(isUnchanged());
}

void tst_NNetworkProxyParametersFcgiService::serviceOwnsItsProcessor()
{
    int deletions = 0;
    QObject parent;
    new Service(new NotingProcessor(m_accessor.data(), &deletions), &parent);
    QCOMPARE(deletions, 0);
    delete parent.children().first();
    QCOMPARE(deletions, 1);
}

QTEST_MAIN(tst_NNetworkProxyParametersFcgiService)
#include "tst_nnetworkproxyparametersfcgiservice.moc"
