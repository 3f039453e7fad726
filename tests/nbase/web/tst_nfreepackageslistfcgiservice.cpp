#include <nbase/web/nfreepackageslistfcgirequestprocessor.h>
#include <nbase/web/nfreepackageslistfcgiservice.h>

#include <nbase/web/nfreepackage.h>
#include <nbase/web/nfreepackageslist.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwajson.h>

#include "nwebapi/nfcgiclient.h"
#include "support/nallocatedbytes.h"
#include "support/nlighttpd.h"
#include "support/nprivatenamespace.h"
#include "support/nservicetest.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <memory>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

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

// A client of the FastCGI socket that asks for the list and does not read the reply.
class SilentClient
{
public:
    explicit SilentClient(const QString& path)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        const QByteArray name = QFile::encodeName(path);
        memcpy(address.sun_path, name.constData(), size_t(name.size()));
        const QByteArray request = NFcgiClient::request(NFcgiClient::variables("/api/packages"));
        m_isConnected =
            ::connect(m_socket, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0 &&
            ::send(m_socket, request.constData(), size_t(request.size()), MSG_NOSIGNAL) == request.size();
    }

    ~SilentClient() { ::close(m_socket); }

    bool isConnected() const { return m_isConnected; }

    /** Bytes of the reply that wait in the kernel. */
    int unreadSize() const
    {
        int size = 0;
        ::ioctl(m_socket, FIONREAD, &size);
        return size;
    }

private:
    Q_DISABLE_COPY(SilentClient)

    const int m_socket;
    bool m_isConnected;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool MeasuresMemory = false; // the sanitizers use additional memory
#else
const bool MeasuresMemory = true;
#endif

// Memory that the process holds, in kB.
int residentSize()
{
    QFile file(QString::fromLatin1("/proc/self/statm"));
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toInt() * int(::sysconf(_SC_PAGESIZE) / 1024);
}

const int LongTextSize = 3000000;
const int ReadSize = 16 * 1024; // the pieces that the service reads

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
    void realLicenseTextsAreServed();
    void licenseTextEndsAtNulInAnyPiece_data();
    void licenseTextEndsAtNulInAnyPiece();
    void queryIsNotRead();
    void fileOutsideTheFolderIsNotServed();

    void replyWaitsForASlowClient();
    void longReplyGivesOthersTheirTurn();
    void abortedReplyEnds();
    void replyEndsWithItsProcessor();
    void clientsThatDoNotReadHoldLittleMemory();
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

// A package whose document is much larger than what is written at a time.
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
    QTest::newRow("a byte less than a piece") << 2 << ReadSize - 1;
    QTest::newRow("a piece exactly") << 2 << int(ReadSize);
    QTest::newRow("a piece and a byte") << 2 << ReadSize + 1;
    QTest::newRow("two pieces exactly") << 2 << 2 * ReadSize;
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

void tst_NFreePackagesListFcgiService::realLicenseTextsAreServed()
{
    const QDir texts(text("/usr/share/common-licenses"));
    const QStringList names = texts.entryList(QDir::Files);
    QVERIFY(!names.isEmpty());
    QByteArray files;
    for (const QString& name : names) {
        QFile original(texts.filePath(name));
        QVERIFY(original.open(QIODevice::ReadOnly));
        m_folder->writeFile(text("licenses/p-1.0/") + name, original.readAll());
        files += name.toLatin1() + ' ';
    }
    load(record("p", files));
    process();
    const Processor processor(identifier(), m_list.data());
    QVERIFY(channel().body() == NwaJson::serialize(processor.freePackagesListToVariantMap()));
    QVERIFY(channel().body().contains("GNU GENERAL PUBLIC LICENSE"));
}

void tst_NFreePackagesListFcgiService::licenseTextEndsAtNulInAnyPiece_data()
{
    QTest::addColumn<int>("position");
    QTest::newRow("first byte") << 0;
    QTest::newRow("last byte of a piece") << ReadSize - 1;
    QTest::newRow("first byte of a piece") << int(ReadSize);
    QTest::newRow("inside a later piece") << 2 * ReadSize + 5;
}

void tst_NFreePackagesListFcgiService::licenseTextEndsAtNulInAnyPiece()
{
    QFETCH(int, position);
    m_folder->writeFile(
        text("licenses/p-1.0/COPYING"), QByteArray(position, 'x') + '\0' + QByteArray(3 * ReadSize, 'y'));
    load(record("p"));
    const QVariantMap texts = reply().value(text("p")).toMap().value(text("licenseFiles")).toMap();
    QCOMPARE(texts.value(text("COPYING")).toString(), QString(position, QLatin1Char('x')));
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
    NSlowChannel channel;
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

void tst_NFreePackagesListFcgiService::abortedReplyEnds()
{
    loadLongText();
    Service service(identifier(), m_list.data(), nullptr);
    NSlowChannel channel;
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
    NSlowChannel channel;
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

void tst_NFreePackagesListFcgiService::clientsThatDoNotReadHoldLittleMemory()
{
    const int clientCount = 256;
    const int kernelSize = 64 * 1024; // the least that the kernel takes for a client
    loadLongText();
    const NTemporaryDirectory sockets;
    const QString socket = sockets.filePath(text("socket"));
    NwaFcgiServer server;
    Service service(identifier(), m_list.data(), nullptr);
    server.registerService(text("/api/packages"), &service);
    QVERIFY2(server.listenOnPath(socket), server.errorString().toLatin1());

    const qint64 allocatedBefore = NTest::allocatedBytes();
    const int residentBefore = residentSize();
    {
        std::vector<std::unique_ptr<SilentClient>> clients;
        for (int index = 0; index < clientCount; ++index) {
            clients.emplace_back(new SilentClient(socket));
            QVERIFY(clients.back()->isConnected());
            // A queue of connections that is full would block the next client, which is in the same thread.
            if (index % 64 == 63)
                NTRY_COMPARE(server.connectionCount(), index + 1);
        }
        for (const std::unique_ptr<SilentClient>& client : clients)
            NTRY_VERIFY(client->unreadSize() > kernelSize);
        // The replies have stopped when the allocated size no longer changes.
        qint64 allocated = -1;
        QVERIFY(NTest::waitUntil([&]() {
            const qint64 formerly = allocated;
            allocated = NTest::allocatedBytes();
            return allocated == formerly;
        }));
        const int growth = residentSize() - residentBefore;
        QVERIFY2(!MeasuresMemory || growth < 24 * 1024, QByteArray::number(growth).constData());
    }
    NTRY_COMPARE(server.connectionCount(), 0);
    // The server returns it to the system within a second or two.
    NTRY_VERIFY(!MeasuresMemory || NTest::allocatedBytes() - allocatedBefore < 100 * 1024);
    NTRY_VERIFY(!MeasuresMemory || residentSize() - residentBefore < 2 * 1024);
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
    // Slow under a sanitizer on a busy machine.
    const int minutes = 4;
    QVERIFY(NTest::waitUntil(
        [&]() { return client.state() == QProcess::NotRunning && client.bytesAvailable() > 0; }, minutes * 60000));
    const QList<QByteArray> figures = client.readAll().split(' ');
    ::getrusage(RUSAGE_SELF, &after);
    QCOMPARE(figures.value(0), QByteArray("200"));
    QVERIFY(figures.value(1).toLongLong() > qint64(packages) * textSize);
    QCOMPARE(server.connectionCount(), 0);
    QVERIFY(!MeasuresMemory || after.ru_maxrss - before.ru_maxrss < 16 * 1024);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NFreePackagesListFcgiService, NPrivateNamespace::Mounts)
#include "tst_nfreepackageslistfcgiservice.moc"
