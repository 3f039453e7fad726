#include "support/ntemporarydirectory.h"

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyparametersaccessor.h>

#include <nwebapi/nwajson.h>

#include <QtCore/QFile>
#include <QtTest/QtTest>

namespace {

typedef NNetworkProxyParameters::Parameters Parameters;

const char file[] = "\nconfig proxy 'http'\n\toption host 'web.example'\n\toption port '3128'\n"
                    "\toption username 'user'\n\toption password 'secret'\n\n";

const char otherSettings[] = "{\"enabled\":true,\"exceptions\":[\"lan\"],\"http\":{\"host\":\"h\",\"port\":1},"
                             "\"proxyDns\":true}";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

const NwaWebSession* someSession()
{
    static const char address = 0;
    return reinterpret_cast<const NwaWebSession*>(&address);
}

class DerivedAccessor : public NNetworkProxyParametersAccessor
{
public:
    explicit DerivedAccessor(NNetworkProxyParameters* parameters)
        : NNetworkProxyParametersAccessor(parameters)
        , askedFor(nullptr)
    {
    }

    bool canReadCriticalParametersWithSession(const NwaWebSession* session) const override
    {
        askedFor = session;
        return false;
    }

    /** The HTTP server is not changed. */
    bool extractParametersFromVariant(const QVariant& document, Parameters& parameters) const override
    {
        if (!NNetworkProxyParametersAccessor::extractParametersFromVariant(document, parameters))
            return false;
        parameters.httpProxyServerUrl = fixedServer;
        return true;
    }

    mutable const NwaWebSession* askedFor;
    QUrl fixedServer;
};

} // namespace

class tst_NNetworkProxyParametersAccessor : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void everySessionMayDoEverything();
    void settingsIncludeCredentialsOnlyWithTheRight();
    void settingsAreReplaced();
    void wrongDocumentsAreInvalid_data();
    void wrongDocumentsAreInvalid();
    void storageFailureIsNoInvalidParameter();
    void derivedClassReadsTheDocument();

private:
    QByteArray document(const NNetworkProxyParametersAccessor& accessor) const
    {
        return NwaJson::serialize(accessor.parametersAsVariant(someSession()));
    }
    bool set(const NNetworkProxyParametersAccessor& accessor, const QByteArray& document);

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NUciCursor> m_cursor;
    QScopedPointer<NNetworkProxyParameters> m_settings;
    bool m_isInvalid;
};

void tst_NNetworkProxyParametersAccessor::init()
{
    m_directory.reset(new NTemporaryDirectory);
    m_directory->writeFile(text("config/proxy"), file);
    m_cursor.reset(new NUciCursor(m_directory->filePath(text("config")), m_directory->filePath(text("save"))));
    m_settings.reset(new NNetworkProxyParameters(m_cursor.data(), text("proxy"), nullptr));
    m_isInvalid = true;
}

void tst_NNetworkProxyParametersAccessor::cleanup()
{
    m_settings.reset();
    m_cursor.reset();
    m_directory.reset();
}

bool tst_NNetworkProxyParametersAccessor::set(
    const NNetworkProxyParametersAccessor& accessor, const QByteArray& document)
{
    bool ok = false;
    const QVariant value = NwaJson::parse(document, &ok);
    if (!ok)
        qFatal("not JSON: %s", document.constData());
    return accessor.setParametersFromVariant(value, m_isInvalid);
}

void tst_NNetworkProxyParametersAccessor::everySessionMayDoEverything()
{
    const NNetworkProxyParametersAccessor accessor(m_settings.data());
    QVERIFY(accessor.canReadParametersWithSession(someSession()));
    QVERIFY(accessor.canReadCriticalParametersWithSession(someSession()));
    QVERIFY(accessor.canSetParametersWithSession(someSession()));
}

void tst_NNetworkProxyParametersAccessor::settingsIncludeCredentialsOnlyWithTheRight()
{
    const NNetworkProxyParametersAccessor accessor(m_settings.data());
    QCOMPARE(document(accessor), NwaJson::serialize(m_settings->networkProxyAsVariantMap(true)));
    QVERIFY(document(accessor).contains("secret"));
    const DerivedAccessor derived(m_settings.data());
    QCOMPARE(document(derived), NwaJson::serialize(m_settings->networkProxyAsVariantMap(false)));
    QVERIFY(derived.askedFor == someSession());
    QVERIFY(!document(derived).contains("secret"));
}

void tst_NNetworkProxyParametersAccessor::settingsAreReplaced()
{
    const NNetworkProxyParametersAccessor accessor(m_settings.data());
    QVERIFY(set(accessor, otherSettings));
    QVERIFY(!m_isInvalid);
    QCOMPARE(document(accessor), QByteArray(otherSettings));
    QVERIFY(m_settings->httpProxyServerUrl().password().isEmpty());
    QSignalSpy changes(m_settings.data(), SIGNAL(networkProxyParametersChanged()));
    m_isInvalid = true;
    QVERIFY(set(accessor, otherSettings));
    QVERIFY(!m_isInvalid);
    QCOMPARE(changes.count(), 0);
}

void tst_NNetworkProxyParametersAccessor::wrongDocumentsAreInvalid_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::newRow("array") << QByteArray("[]");
    QTest::newRow("nothing") << QByteArray("{}");
    QTest::newRow("no exceptions") << QByteArray(otherSettings).replace("exceptions", "other");
    QTest::newRow("port 0") << QByteArray(otherSettings).replace("1", "0");
    QTest::newRow("bad host") << QByteArray(otherSettings).replace("\"h\"", "\"h_\"");
}

void tst_NNetworkProxyParametersAccessor::wrongDocumentsAreInvalid()
{
    QFETCH(QByteArray, document);
    const NNetworkProxyParametersAccessor accessor(m_settings.data());
    m_isInvalid = false;
    QVERIFY(!set(accessor, document));
    QVERIFY(m_isInvalid);
    QCOMPARE(m_settings->httpProxyServerUrl().host(), text("web.example"));
}

void tst_NNetworkProxyParametersAccessor::storageFailureIsNoInvalidParameter()
{
    const NNetworkProxyParametersAccessor accessor(m_settings.data());
    QVERIFY(!set(accessor, QByteArray(otherSettings).replace("lan", "\xe2\x82\xac")));
    QVERIFY(!m_isInvalid);
    QCOMPARE(m_settings->httpProxyServerUrl().host(), text("web.example"));
}

void tst_NNetworkProxyParametersAccessor::derivedClassReadsTheDocument()
{
    DerivedAccessor derived(m_settings.data());
    derived.fixedServer = m_settings->httpProxyServerUrl();
    QVERIFY(set(derived, otherSettings));
    QVERIFY(m_settings->proxyEnabled());
    QCOMPARE(m_settings->httpProxyServerUrl().password(), text("secret"));
}

QTEST_MAIN(tst_NNetworkProxyParametersAccessor)
#include "tst_nnetworkproxyparametersaccessor.moc"
