#include <nbase/web/nfreepackageslistfcgirequestprocessor.h>
#include <nbase/web/nfreepackageslistfcgiservice.h>

#include <nbase/web/nfreepackage.h>
#include <nbase/web/nfreepackageslist.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwajson.h>

#include "support/nlighttpd.h"
#include "support/nprivatenamespace.h"
#include "support/nservicetest.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <sys/resource.h>
#include <unistd.h>

namespace {

typedef NFreePackagesListFcgiRequestProcessor Processor;
typedef NFreePackagesListFcgiService Service;

const char* const Header =
    "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\"\n";

class RefusingProcessor : public NRefusingProcessor<Processor>
{
public:
    using NRefusingProcessor<Processor>::NRefusingProcessor;

    bool canReadFreePackagesListWithSession(NwaWebSession* session) const override { return refuse(session); }
};

// A client who takes only what he is asked to take.
class SlowChannel : public NMemoryChannel
{
public:
    SlowChannel()
        : largestBacklog(0)
        , m_taken(0)
    {
    }

    bool write(Stream stream, const char* data, int size) override
    {
        const bool good = NMemoryChannel::write(stream, data, size);
        largestBacklog = qMax(largestBacklog, replyBacklog());
        return good;
    }

    int replyBacklog() const override { return output.size() - m_taken; }

    void take(NwaFcgiRequest* request)
    {
        m_taken = output.size();
        tellReplyTaken(request);
    }

    void abort(NwaFcgiRequest* request) { tellAborted(request); }

    int largestBacklog;

private:
    int m_taken;
};

// A client who has taken everything already whenever something is written.
class FastChannel : public NMemoryChannel
{
public:
    void tellTaken(NwaFcgiRequest* request) { tellReplyTaken(request); }
};

// Somebody else whom the event loop serves in turn with a reply.
class Neighbour : public QObject
{
    Q_OBJECT

public:
    explicit Neighbour(const NMemoryChannel& channel)
        : m_channel(channel)
        , m_written(channel.output.size())
        , m_mostWritten(0)
    {
    }

    /** The most that was written between two turns. */
    int mostWritten() const { return m_mostWritten; }

public slots:
    void takeTurn()
    {
        m_mostWritten = qMax(m_mostWritten, m_channel.output.size() - m_written);
        m_written = m_channel.output.size();
        if (m_channel.finishCount == 0)
            QMetaObject::invokeMethod(this, "takeTurn", Qt::QueuedConnection);
    }

private:
    const NMemoryChannel& m_channel;
    int m_written;
    int m_mostWritten;
};

const int LongTextSize = 3000000;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray record(const QByteArray& name, const QByteArray& files = "COPYING")
{
    return '"' + name + "\",\"1.0\",\"MIT, BSD\",\"" + files + "\",\"" + name + ".tar\",\"http://example.org/\"\n";
}

} // namespace

class tst_NFreePackagesListFcgiService : public NServiceTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void packageDocumentHoldsItsFields();
    void packageWithoutLicenseFilesHasAnEmptyObject();
    void missingLicenseFileHasAnEmptyText();
    void licenseTextIsLatin1UpToNul();
    void licenseTextIsReadOnEveryRequest();
    void replyIsTheWholeDocument_data();
    void replyIsTheWholeDocument();
    void queryIsNotRead();
    void fileOutsideTheFolderIsNotServed();

    void replyWaitsForASlowClient();
    void longReplyGivesOthersTheirTurn();
    void replyThatWasTakenWaitsForItsTurn();
    void abortedReplyEnds();
    void replyEndsWithItsProcessor();
    void twoHundredMegabytesGoThroughTheWebServerInLittleMemory();

protected:
    NwaStandardFcgiService* newService() override;
    NwaStandardFcgiService* newRefusingService(NRefusal* refusal, QObject* parent) override;

private:
    void load(const QByteArray& records);
    void loadLongText();
    QVariantMap reply();

    QScopedPointer<NTemporaryDirectory> m_folder;
    QScopedPointer<NFreePackagesList> m_list;
};

void tst_NFreePackagesListFcgiService::init()
{
    m_folder.reset(new NTemporaryDirectory);
    NPrivateNamespace::mountCopy(m_folder->path(), text("/usr/share/free_packages"));
    NServiceTest::init();
    load(record("p"));
}

void tst_NFreePackagesListFcgiService::cleanup()
{
    m_list.reset();
    NPrivateNamespace::unmount(text("/usr/share/free_packages"));
}

void tst_NFreePackagesListFcgiService::load(const QByteArray& records)
{
    m_folder->writeFile(text("manifest.csv"), Header + records);
    m_list.reset(new NFreePackagesList(nullptr));
}

// A package whose document is far more than what is written at once.
void tst_NFreePackagesListFcgiService::loadLongText()
{
    m_folder->writeFile(text("licenses/p-1.0/COPYING"), QByteArray(LongTextSize, 'x'));
    load(record("p"));
}

NwaStandardFcgiService* tst_NFreePackagesListFcgiService::newService()
{
    return new Service(identifier(), m_list.data(), nullptr);
}

NwaStandardFcgiService* tst_NFreePackagesListFcgiService::newRefusingService(NRefusal* refusal, QObject* parent)
{
    return new Service(new RefusingProcessor(identifier(), m_list.data(), refusal), parent);
}

QVariantMap tst_NFreePackagesListFcgiService::reply()
{
    process();
    bool ok = false;
    const QVariant document = NwaJson::parse(channel().body(), &ok);
    return ok ? document.toMap() : QVariantMap();
}

void tst_NFreePackagesListFcgiService::packageDocumentHoldsItsFields()
{
    m_folder->writeFile(text("licenses/p-1.0/COPYING"), "do\nas you \"like\"\t");
    m_folder->writeFile(text("licenses/p-1.0/doc/NOTICE"), "notice");
    load(record("p", "COPYING doc/NOTICE"));
    QVariantMap texts;
    texts.insert(text("COPYING"), text("do\nas you \"like\"\t"));
    texts.insert(text("doc/NOTICE"), text("notice"));
    QVariantMap expected;
    expected.insert(text("version"), text("1.0"));
    expected.insert(text("licenses"), QVariantList() << text("MIT") << text("BSD"));
    expected.insert(text("licenseFiles"), texts);
    expected.insert(text("sourceSite"), text("http://example.org/"));
    expected.insert(text("sourceArchive"), text("p.tar"));
    QVariantMap document;
    document.insert(text("p"), expected);
    QCOMPARE(reply(), document);
    QCOMPARE(channel().header(), QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));

    const Processor processor(identifier(), m_list.data());
    const QVariantMap package = processor.freePackageToVariantMap(m_list->freePackages().value(text("p")));
    QCOMPARE(NwaJson::serialize(package), NwaJson::serialize(expected));
    QCOMPARE(NwaJson::serialize(processor.freePackagesListToVariantMap()), NwaJson::serialize(document));
}

void tst_NFreePackagesListFcgiService::packageWithoutLicenseFilesHasAnEmptyObject()
{
    load(record("p", ""));
    process();
    QVERIFY(channel().body().contains("\"licenseFiles\":{}"));
}

void tst_NFreePackagesListFcgiService::missingLicenseFileHasAnEmptyText()
{
    load(record("p"));
    process();
    QVERIFY(channel().body().contains("\"licenseFiles\":{\"COPYING\":\"\"}"));
}

void tst_NFreePackagesListFcgiService::licenseTextIsLatin1UpToNul()
{
    m_folder->writeFile(text("licenses/p-1.0/COPYING"), QByteArray("caf\xe9\0secret", 11));
    load(record("p"));
    const QVariantMap texts = reply().value(text("p")).toMap().value(text("licenseFiles")).toMap();
    QCOMPARE(texts.value(text("COPYING")).toString(), text("caf\xe9"));
    const Processor processor(identifier(), m_list.data());
    const QVariantMap package = processor.freePackageToVariantMap(m_list->freePackages().value(text("p")));
    QCOMPARE(package.value(text("licenseFiles")).toMap().value(text("COPYING")).toString(), text("caf\xe9"));
}

void tst_NFreePackagesListFcgiService::licenseTextIsReadOnEveryRequest()
{
    load(record("p"));
    process();
    m_folder->writeFile(text("licenses/p-1.0/COPYING"), "new");
    process();
    QVERIFY(channel().body().contains("\"COPYING\":\"new\""));
}

void tst_NFreePackagesListFcgiService::replyIsTheWholeDocument_data()
{
    QTest::addColumn<int>("packages");
    QTest::addColumn<int>("textSize");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("one") << 1 << 10;
    QTest::newRow("many small") << 500 << 100;
    QTest::newRow("a piece exactly") << 2 << 32 * 1024;
    QTest::newRow("a piece and a byte") << 2 << 32 * 1024 + 1;
    QTest::newRow("long texts") << 3 << 1000000;
}

void tst_NFreePackagesListFcgiService::replyIsTheWholeDocument()
{
    QFETCH(int, packages);
    QFETCH(int, textSize);
    QByteArray records;
    for (int index = 0; index < packages; ++index) {
        const QByteArray name = "p\"\xe9" + QByteArray::number(index);
        QByteArray license(textSize, '\0');
        for (int position = 0; position < textSize; ++position)
            license[position] = char(1 + (position + index) % 255);
        m_folder->writeFile(text("licenses/") + QString::fromLatin1(name) + text("-1.0/COPYING"), license);
        records += record(name, "COPYING missing");
    }
    load(records);
    process();
    const Processor processor(identifier(), m_list.data());
    QVERIFY(channel().body() == NwaJson::serialize(processor.freePackagesListToVariantMap()));
    QCOMPARE(processor.freePackagesListToVariantMap().size(), packages);
}

void tst_NFreePackagesListFcgiService::queryIsNotRead()
{
    load(record("p") + record("q"));
    process();
    const QByteArray whole = channel().body();
    process("section=information&package=p");
    QCOMPARE(channel().body(), whole);
}

void tst_NFreePackagesListFcgiService::fileOutsideTheFolderIsNotServed()
{
    const NTemporaryDirectory outside;
    const QString secret = outside.writeFile(text("secret"), "secret");
    m_folder->writeFile(text("licenses/p-1.0/COPYING"), "the licence");
    QCOMPARE(
        ::symlink(
            QFile::encodeName(secret).constData(),
            QFile::encodeName(m_folder->filePath(text("licenses/p-1.0/link"))).constData()),
        0);
    load(
        record("p", "COPYING link ../../../../../etc/passwd /etc/passwd") +
        "\"../../../../../etc\",\"1\",\"\",\"../passwd ../etc/passwd\",\"\",\"\"\n");
    const QVariantMap document = reply();
    QCOMPARE(document.size(), 2);
    const QVariantMap texts = document.value(text("p")).toMap().value(text("licenseFiles")).toMap();
    QCOMPARE(texts.size(), 4);
    QCOMPARE(texts.value(text("COPYING")).toString(), text("the licence"));
    QVERIFY(!channel().body().contains("secret"));
    QVERIFY(!channel().body().contains("root:"));
}

void tst_NFreePackagesListFcgiService::replyWaitsForASlowClient()
{
    loadLongText();
    Service service(identifier(), m_list.data(), nullptr);
    SlowChannel channel;
    QPointer<NwaFcgiRequest> request(new NwaFcgiRequest(&channel, variables("", "GET")));
    service.processRequest(request);
    QVERIFY(request);
    int takings = 0;
    while (request) {
        const int before = channel.output.size();
        channel.take(request);
        NTRY_VERIFY(!request || channel.output.size() > before);
        ++takings;
    }
    QVERIFY(takings > 10);
    QVERIFY(channel.largestBacklog < 200000);
    QCOMPARE(channel.finishCount, 1);
    QVERIFY(channel.body().endsWith("\"version\":\"1.0\"}}"));
    QVERIFY(channel.body().size() > LongTextSize);
}

void tst_NFreePackagesListFcgiService::longReplyGivesOthersTheirTurn()
{
    loadLongText();
    Service service(identifier(), m_list.data(), nullptr);
    NMemoryChannel channel;
    service.processRequest(new NwaFcgiRequest(&channel, variables("", "GET")));
    QCOMPARE(channel.finishCount, 0);
    NTRY_COMPARE(channel.finishCount, 1);
    QVERIFY(channel.body().size() > LongTextSize);
}

void tst_NFreePackagesListFcgiService::replyThatWasTakenWaitsForItsTurn()
{
    loadLongText();
    Service service(identifier(), m_list.data(), nullptr);
    FastChannel channel;
    NwaFcgiRequest* const request = new NwaFcgiRequest(&channel, variables("", "GET"));
    service.processRequest(request);
    const int firstTurn = channel.output.size();
    QVERIFY(firstTurn < LongTextSize / 3);
    channel.tellTaken(request);
    channel.tellTaken(request);
    Neighbour neighbour(channel);
    neighbour.takeTurn();
    NTRY_COMPARE(channel.finishCount, 1);
    QVERIFY(channel.body().size() > LongTextSize);
    QVERIFY2(neighbour.mostWritten() < 2 * firstTurn, QByteArray::number(neighbour.mostWritten()));
}

void tst_NFreePackagesListFcgiService::abortedReplyEnds()
{
    loadLongText();
    Service service(identifier(), m_list.data(), nullptr);
    SlowChannel channel;
    QPointer<NwaFcgiRequest> request(new NwaFcgiRequest(&channel, variables("", "GET")));
    service.processRequest(request);
    QVERIFY(request);
    channel.abort(request);
    NTRY_VERIFY(!request);
    QCOMPARE(channel.finishCount, 0);
}

void tst_NFreePackagesListFcgiService::replyEndsWithItsProcessor()
{
    loadLongText();
    SlowChannel channel;
    QPointer<NwaFcgiRequest> request;
    {
        Service service(identifier(), m_list.data(), nullptr);
        request = new NwaFcgiRequest(&channel, variables("", "GET"));
        service.processRequest(request);
        QVERIFY(request);
    }
    QVERIFY(!request);
    QCOMPARE(channel.finishCount, 1);
}

void tst_NFreePackagesListFcgiService::twoHundredMegabytesGoThroughTheWebServerInLittleMemory()
{
    const int packages = 2000;
    const int textSize = 100 * 1000;
    const QByteArray file =
        QFile::encodeName(m_folder->writeFile(text("text"), QByteArray("licence \n").repeated(textSize / 9 + 1)));
    QCOMPARE(::truncate(file.constData(), textSize), 0);
    QByteArray records;
    for (int index = 0; index < packages; ++index) {
        const QByteArray name = "package" + QByteArray::number(index);
        const QString folder = text("licenses/") + QString::fromLatin1(name) + text("-1.0");
        QVERIFY(QDir(m_folder->path()).mkpath(folder));
        const QByteArray copy = QFile::encodeName(m_folder->filePath(folder + text("/COPYING")));
        QCOMPARE(::link(file.constData(), copy.constData()), 0);
        records += record(name);
    }
    load(records);

    const NTemporaryDirectory sockets;
    NwaFcgiServer server;
    Service service(identifier(), m_list.data(), nullptr);
    server.registerService(text("/api/packages"), &service);
    QVERIFY2(server.listenOnPath(sockets.filePath(text("socket"))), server.errorString().toLatin1());
    NLighttpd webServer;
    QVERIFY2(
        webServer.start(
            "server.stream-response-body = 2\n" +
            NLighttpd::fastCgi(text("/api/packages"), sockets.filePath(text("socket")))),
        webServer.log());

    struct rusage before, after;
    ::getrusage(RUSAGE_SELF, &before);
    QProcess client;
    client.start(
        text("curl"), QStringList() << text("--noproxy") << text("*") << text("-sS") << text("-o")
                                    << text("/dev/null") << text("-w") << text("%{http_code} %{size_download}")
                                    << webServer.url(text("/api/packages")));
    // Under a sanitizer, on a busy machine, this takes its time.
    const int minutes = 4;
    QVERIFY(NTest::waitUntil(
        [&]() { return client.state() == QProcess::NotRunning && client.bytesAvailable() > 0; }, minutes * 60000));
    const QList<QByteArray> figures = client.readAll().split(' ');
    ::getrusage(RUSAGE_SELF, &after);
    QCOMPARE(figures.value(0), QByteArray("200"));
    QVERIFY(figures.value(1).toLongLong() > qint64(packages) * textSize);
    QCOMPARE(server.connectionCount(), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take memory of their own
    QVERIFY(after.ru_maxrss - before.ru_maxrss < 16 * 1024);
#endif
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NFreePackagesListFcgiService, NPrivateNamespace::Mounts)
#include "tst_nfreepackageslistfcgiservice.moc"
