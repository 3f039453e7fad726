#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include "nupdatedaemonthread.h"

#include "support/nregisteredtimers.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QPointer>
#include <QtCore/QtEndian>
#include <QtTest/QtTest>

#include <functional>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// The other end of the progress socket.
class Source
{
public:
    explicit Source(const QByteArray& path)
        : m_path(path)
    {
        listen();
    }

    ~Source() { close(); }

    void listen()
    {
        ::unlink(m_path.constData());
        struct sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, m_path.constData(), size_t(m_path.size()));
        m_server.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (::bind(m_server.number(), reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(m_server.number(), 8) != 0)
            qFatal("progress source: %s", strerror(errno));
    }

    void close()
    {
        m_connection.reset();
        m_server.reset();
        ::unlink(m_path.constData());
    }

    // Waits for the next connection of the client, with its event loop running.
    bool accept()
    {
        return NTest::waitUntil([this]() { return acceptPending(); });
    }

    bool acceptPending()
    {
        const int connection = ::accept4(m_server.number(), nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0)
            m_connection.reset(connection);
        return connection >= 0;
    }

    void send(const QByteArray& bytes)
    {
        if (::send(m_connection.number(), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL) != bytes.size())
            qFatal("progress source: %s", strerror(errno));
    }

    void disconnect() { m_connection.reset(); }

    bool isDisconnectedByPeer() const
    {
        struct pollfd file = {m_connection.number(), POLLIN, 0};
        return ::poll(&file, 1, 0) == 1 && (file.revents & POLLHUP);
    }

private:
    const QByteArray m_path;
    NFileDescriptor m_server;
    NFileDescriptor m_connection;
};

struct Fields
{
    int status;
    int download;
    int steps;
    int step;
    int percentage;
    const char* image;
    int source;
    int length;
    const char* text;
};

void setNumber(QByteArray& record, int offset, int value)
{
    qToLittleEndian<quint32>(quint32(value), reinterpret_cast<uchar*>(record.data() + offset));
}

QByteArray record(const Fields& fields, int size = 2400)
{
    const int steps = size == 2400 ? 12 : size == 2416 ? 24 : 20;
    QByteArray bytes(size, '\0');
    setNumber(bytes, 4, fields.status);
    setNumber(bytes, 8, fields.download);
    setNumber(bytes, steps, fields.steps);
    setNumber(bytes, steps + 4, fields.step);
    setNumber(bytes, steps + 8, fields.percentage);
    bytes.replace(steps + 12, int(strlen(fields.image)), fields.image);
    bytes.replace(steps + 268, 7, "handler");
    setNumber(bytes, steps + 332, fields.source);
    setNumber(bytes, steps + 336, fields.length);
    bytes.replace(steps + 340, int(strlen(fields.text)), fields.text);
    return bytes;
}

QByteArray doneRecord(const char* text)
{
    const Fields fields = {6, 0, 0, 0, 0, "", 0, int(strlen(text)), text};
    return record(fields);
}

// Notes the signals of a client, and calls a function of the test in each.
class Receiver : public QObject
{
    Q_OBJECT

public:
    explicit Receiver(NSWUpdateProgressClient* client, Qt::ConnectionType type = Qt::AutoConnection)
    {
        connect(
            client, SIGNAL(updateStarted(NSWUpdate::Source,int,QString)),
                           SLOT(updateStarted(NSWUpdate::Source,int,QString)), type);
        connect(client, SIGNAL(newStepStarted(int,int,QString)), SLOT(newStepStarted(int,int,QString)), type);
        connect(
            client, SIGNAL(stepUpdate(int,int,QString,quint8)), SLOT(stepUpdate(int,int,QString,quint8)), type);
        connect(client, SIGNAL(updateFinished(bool)), SLOT(updateFinished(bool)), type);
        connect(client, SIGNAL(downloadUpdate(quint8)), SLOT(downloadUpdate(quint8)), type);
        connect(client, SIGNAL(updateDone(QString)), SLOT(updateDone(QString)), type);
        connect(client, SIGNAL(subProcessNotification(QString)), SLOT(subProcessNotification(QString)), type);
    }

    QStringList events;
    std::function<void()> reaction;

private slots:
    void updateStarted(NSWUpdate::Source source, int nbSteps, const QString& info)
    {
        note(QString::fromLatin1("started %1 %2 %3").arg(int(source)).arg(nbSteps).arg(info));
    }

    void newStepStarted(int nbSteps, int step, const QString& imageName)
    {
        note(QString::fromLatin1("step %1 %2 %3").arg(nbSteps).arg(step).arg(imageName));
    }

    void stepUpdate(int nbSteps, int step, const QString& imageName, quint8 percentage)
    {
        note(QString::fromLatin1("update %1 %2 %3 %4").arg(nbSteps).arg(step).arg(imageName).arg(percentage));
    }

    void updateFinished(bool success) { note(latin1(success ? "finished" : "finished!")); }
    void downloadUpdate(quint8 percentage) { note(QString::fromLatin1("download %1").arg(percentage)); }
    void updateDone(const QString& info) { note(latin1("done ") + info); }
    void subProcessNotification(const QString& info) { note(latin1("subprocess ") + info); }

private:
    void note(const QString& event)
    {
        events.append(event);
        if (reaction)
            reaction();
    }
};

// Runs the event loop until a record that is sent last has been reported.
void synchronize(Source& source, Receiver& receiver)
{
    source.send(doneRecord("synchronized"));
    const QString last = latin1("done synchronized");
    NTRY_VERIFY(receiver.events.contains(last));
    receiver.events.removeAll(last);
}

} // namespace

Q_DECLARE_METATYPE(Fields)

class tst_NSWUpdateProgressClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void statusDecidesAboutTheSignal_data();
    void statusDecidesAboutTheSignal();
    void laterLayouts_data();
    void laterLayouts();
    void greetingIsSkipped_data();
    void greetingIsSkipped();
    void recordsMayComeInPieces_data();
    void recordsMayComeInPieces();
    void manyRecordsKeepTheirOrder();
    void recordsBeforeTheEndOfTheConnectionCount();
    void partialRecordIsDiscardedWithItsConnection_data();
    void partialRecordIsDiscardedWithItsConnection();
    void connectsWhenTheDaemonStarts();
    void connectsAgainAfter100Milliseconds();
    void holdsOneConnection();
    void connectsToThePathOfTheGlobalVariable();
    void nameOfTheConstructorIsNotUsed();
    void pathTooLongIsAFailedConnection();
    void signalsCanBeQueued();
    void clientMayBeDeletedInAnySignal_data();
    void clientMayBeDeletedInAnySignal();
    void destructionEndsTheConnection();
    void standInDaemon_data();
    void standInDaemon();

private:
    NTemporaryDirectory m_directory;
    QByteArray m_path;
    char* m_defaultPath;
};

void tst_NSWUpdateProgressClient::initTestCase()
{
    QCOMPARE(QByteArray(SOCKET_PROGRESS_PATH), QByteArray("/tmp/swupdateprog"));
    m_defaultPath = SOCKET_PROGRESS_PATH;
    m_path = QFile::encodeName(m_directory.filePath(latin1("progress")));
    SOCKET_PROGRESS_PATH = m_path.data();
}

void tst_NSWUpdateProgressClient::cleanupTestCase()
{
    SOCKET_PROGRESS_PATH = m_defaultPath;
}

void tst_NSWUpdateProgressClient::statusDecidesAboutTheSignal_data()
{
    QTest::addColumn<Fields>("fields");
    QTest::addColumn<QString>("event");
    const auto row = [](const char* name, const Fields& fields, const char* event) {
        QTest::newRow(name) << fields << latin1(event);
    };
    row("idle", {0, 1, 2, 3, 4, "i", 1, 1, "t"}, "");
    row("start", {1, 0, 3, 0, 0, "i", 4, 4, "text"}, "started 4 3 text");
    row("start without text", {1, 0, 3, 0, 0, "i", 0, 0, "old"}, "started 0 3 ");
    row("start with a short length", {1, 0, 1, 0, 0, "", 1, 1, "text"}, "started 1 1 text");
    row("start of an unknown source", {1, 0, 1, 0, 0, "", 9, 1, "t"}, "started 9 1 t");
    row("new step", {2, 0, 3, 2, 0, "image", 0, 0, "old"}, "step 3 2 image");
    row("step update", {2, 0, 3, 2, 1, "image", 0, 0, "old"}, "update 3 2 image 1");
    row("step completed", {2, 0, 3, 2, 100, "image", 0, 0, "old"}, "update 3 2 image 100");
    row("negative steps", {2, 0, -1, -2, 0, "image", 0, 0, ""}, "step -1 -2 image");
    row("success", {3, 0, 1, 1, 100, "i", 0, 0, "old"}, "finished");
    row("failure", {4, 0, 1, 1, 100, "i", 0, 0, "old"}, "finished!");
    row("download", {5, 77, 1, 1, 100, "i", 0, 0, "old"}, "download 77");
    row("done", {6, 0, 0, 0, 0, "", 0, 4, "text"}, "done text");
    row("done without text", {6, 0, 0, 0, 0, "", 0, 0, "old"}, "done ");
    row("subprocess", {7, 0, 0, 0, 0, "", 0, 4, "text"}, "subprocess text");
    row("subprocess without a length", {7, 0, 0, 0, 0, "", 0, 0, "text"}, "subprocess text");
    row("progress", {8, 1, 2, 3, 4, "i", 1, 1, "t"}, "");
    row("unknown", {9, 1, 2, 3, 4, "i", 1, 1, "t"}, "");
    row("negative", {-1, 1, 2, 3, 4, "i", 1, 1, "t"}, "");
}

void tst_NSWUpdateProgressClient::statusDecidesAboutTheSignal()
{
    QFETCH(Fields, fields);
    QFETCH(QString, event);
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    QCOMPARE(int(client.recordLayout()), int(NSWUpdateProgressClient::Record2400));
    QVERIFY(source.accept());
    source.send(record(fields));
    synchronize(source, receiver);
    QCOMPARE(receiver.events, event.isEmpty() ? QStringList() : QStringList(event));
}

void tst_NSWUpdateProgressClient::laterLayouts_data()
{
    QTest::addColumn<int>("layout");
    QTest::addColumn<int>("size");
    QTest::newRow("2416") << int(NSWUpdateProgressClient::Record2416) << 2416;
    QTest::newRow("2408") << int(NSWUpdateProgressClient::Record2408) << 2408;
}

void tst_NSWUpdateProgressClient::laterLayouts()
{
    QFETCH(int, layout);
    QFETCH(int, size);
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    client.setRecordLayout(NSWUpdateProgressClient::RecordLayout(layout));
    QCOMPARE(int(client.recordLayout()), layout);
    Receiver receiver(&client);
    QVERIFY(source.accept());
    const Fields records[] = {
        {1, 0, 2, 0, 0, "", 4, 4, "text of before"},
        {2, 0, 2, 1, 0, "image", 0, 0, "old"},
        {8, 0, 2, 1, 40, "image", 0, 0, "old"},
        {5, 33, 2, 1, 40, "image", 0, 0, "old"},
        {7, 0, 0, 0, 0, "", 0, 0, "text"},
        {4, 0, 2, 1, 0, "", 0, 0, "old"},
        {6, 0, 0, 0, 0, "", 0, 0, "old"},
    };
    for (const Fields& fields : records)
        source.send(record(fields, size));
    NTRY_COMPARE(receiver.events.size(), 7);
    QCOMPARE(
        receiver.events, QStringList() << latin1("started 4 2 text") << latin1("step 2 1 image")
                                       << latin1("update 2 1 image 40") << latin1("download 33")
                                       << latin1("subprocess text") << latin1("finished!") << latin1("done "));
}

void tst_NSWUpdateProgressClient::greetingIsSkipped_data()
{
    QTest::addColumn<int>("cut");
    for (int cut = 0; cut <= 9; ++cut)
        QTest::newRow(QByteArray::number(cut).constData()) << cut;
}

void tst_NSWUpdateProgressClient::greetingIsSkipped()
{
    QFETCH(int, cut);
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    client.setRecordLayout(NSWUpdateProgressClient::Record2408);
    Receiver receiver(&client);
    const Fields success = {3, 0, 1, 1, 100, "i", 0, 0, "old"};
    const QByteArray bytes = QByteArray("\0\0\2\0ACK\0", 8) + record(success, 2408);
    for (int round = 1; round <= 3; ++round) {
        QVERIFY(source.accept());
        source.send(bytes.left(cut));
        QTest::qWait(5);
        source.send(bytes.mid(cut));
        NTRY_COMPARE(receiver.events.size(), round);
        QCOMPARE(receiver.events.last(), latin1("finished"));
        source.disconnect();
    }
}

void tst_NSWUpdateProgressClient::recordsMayComeInPieces_data()
{
    QTest::addColumn<int>("size");
    for (int size : {1, 2, 100, 2399, 2400, 2401, 4799, 4801, 10000})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NSWUpdateProgressClient::recordsMayComeInPieces()
{
    QFETCH(int, size);
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    QVERIFY(source.accept());
    const QByteArray bytes = doneRecord("a") + doneRecord("b") + doneRecord("c") + doneRecord("d");
    for (int offset = 0; offset < bytes.size(); offset += size) {
        source.send(bytes.mid(offset, size));
        QCoreApplication::processEvents();
    }
    NTRY_COMPARE(receiver.events.size(), 4);
    QCOMPARE(
        receiver.events,
        QStringList() << latin1("done a") << latin1("done b") << latin1("done c") << latin1("done d"));
}

void tst_NSWUpdateProgressClient::manyRecordsKeepTheirOrder()
{
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    QVERIFY(source.accept());
    QStringList expected;
    for (int index = 0; index < 1000; ++index) {
        const QByteArray text = QByteArray::number(index);
        source.send(doneRecord(text.constData()));
        expected << latin1("done ") + QString::number(index);
        if (index % 20 == 0)
            NTRY_COMPARE(receiver.events.size(), index + 1);
    }
    NTRY_COMPARE(receiver.events.size(), 1000);
    QCOMPARE(receiver.events, expected);
}

void tst_NSWUpdateProgressClient::recordsBeforeTheEndOfTheConnectionCount()
{
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    for (int round = 1; round <= 5; ++round) {
        QVERIFY(source.accept());
        source.send(doneRecord("a") + doneRecord("b"));
        source.disconnect();
        NTRY_COMPARE(receiver.events.size(), 2 * round);
    }
}

void tst_NSWUpdateProgressClient::partialRecordIsDiscardedWithItsConnection_data()
{
    QTest::addColumn<int>("size");
    for (int size : {0, 1, 4, 2399})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NSWUpdateProgressClient::partialRecordIsDiscardedWithItsConnection()
{
    QFETCH(int, size);
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    QVERIFY(source.accept());
    source.send(doneRecord("a") + doneRecord("partial").left(size));
    NTRY_COMPARE(receiver.events.size(), 1);
    source.disconnect();
    QVERIFY(source.accept());
    source.send(doneRecord("b"));
    NTRY_COMPARE(receiver.events.size(), 2);
    QCOMPARE(receiver.events, QStringList() << latin1("done a") << latin1("done b"));
}

void tst_NSWUpdateProgressClient::connectsWhenTheDaemonStarts()
{
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    QTest::qWait(0);
    Source source(m_path);
    QVERIFY(source.accept());
    synchronize(source, receiver);
    source.close();
    QTest::qWait(0);
    source.listen();
    QVERIFY(source.accept());
    synchronize(source, receiver);
}

void tst_NSWUpdateProgressClient::connectsAgainAfter100Milliseconds()
{
    NSWUpdateProgressClient client(nullptr);
    const auto intervals = [&]() {
        QList<int> found;
        for (QTimer* timer : client.findChildren<QTimer*>())
            if (timer->isActive())
                found.append(timer->interval());
        return found;
    };
    NTRY_COMPARE(intervals(), QList<int>() << 100);
    Source source(m_path);
    QVERIFY(source.accept());
    NTRY_COMPARE(intervals(), QList<int>());
    source.disconnect();
    NTRY_COMPARE(intervals(), QList<int>() << 100);
}

void tst_NSWUpdateProgressClient::holdsOneConnection()
{
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client);
    for (int round = 0; round < 3; ++round) {
        QVERIFY(source.accept());
        source.disconnect();
    }
    QVERIFY(source.accept());
    synchronize(source, receiver);
    QTest::qWait(250);
    QVERIFY(!source.acceptPending());
}

void tst_NSWUpdateProgressClient::connectsToThePathOfTheGlobalVariable()
{
    QByteArray otherPath = QFile::encodeName(m_directory.filePath(latin1("other")));
    Source source(m_path);
    Source other(otherPath);
    NSWUpdateProgressClient client(nullptr);
    QVERIFY(source.accept());
    // It takes effect with the next connection.
    SOCKET_PROGRESS_PATH = otherPath.data();
    Receiver receiver(&client);
    synchronize(source, receiver);
    source.disconnect();
    const bool isConnected = other.accept();
    SOCKET_PROGRESS_PATH = m_path.data();
    QVERIFY(isConnected);
    synchronize(other, receiver);
}

void tst_NSWUpdateProgressClient::nameOfTheConstructorIsNotUsed()
{
    Source named(QFile::encodeName(m_directory.filePath(latin1("named"))));
    Source source(m_path);
    NSWUpdateProgressClient client(m_directory.filePath(latin1("named")), nullptr);
    QVERIFY(source.accept());
    QVERIFY(!named.acceptPending());
}

void tst_NSWUpdateProgressClient::pathTooLongIsAFailedConnection()
{
    QByteArray longPath = m_path + QByteArray(120, 'x');
    SOCKET_PROGRESS_PATH = longPath.data();
    NSWUpdateProgressClient client(nullptr);
    QTest::qWait(0);
    SOCKET_PROGRESS_PATH = m_path.data();
    Source source(m_path);
    QVERIFY(source.accept());
}

void tst_NSWUpdateProgressClient::signalsCanBeQueued()
{
    Source source(m_path);
    NSWUpdateProgressClient client(nullptr);
    Receiver receiver(&client, Qt::QueuedConnection);
    QVERIFY(source.accept());
    const Fields start = {1, 0, 3, 0, 0, "i", 4, 4, "text"};
    const Fields update = {2, 0, 3, 2, 7, "image", 0, 0, ""};
    source.send(record(start) + record(update));
    NTRY_COMPARE(receiver.events.size(), 2);
    QCOMPARE(receiver.events, QStringList() << latin1("started 4 3 text") << latin1("update 3 2 image 7"));
}

void tst_NSWUpdateProgressClient::clientMayBeDeletedInAnySignal_data()
{
    QTest::addColumn<Fields>("fields");
    for (int status = 1; status <= 7; ++status) {
        const Fields fields = {status, 0, 1, 1, 0, "i", 0, 0, ""};
        QTest::newRow(QByteArray::number(status).constData()) << fields;
    }
    const Fields fields = {2, 0, 1, 1, 1, "i", 0, 0, ""};
    QTest::newRow("step update") << fields;
}

void tst_NSWUpdateProgressClient::clientMayBeDeletedInAnySignal()
{
    QFETCH(Fields, fields);
    Source source(m_path);
    NSWUpdateProgressClient* const client = new NSWUpdateProgressClient(nullptr);
    const QPointer<NSWUpdateProgressClient> guard(client);
    Receiver receiver(client);
    receiver.reaction = [=]() { delete client; };
    QVERIFY(source.accept());
    source.send(record(fields) + record(fields));
    NTRY_VERIFY(!guard);
    QTest::qWait(0);
    QCOMPARE(receiver.events.size(), 1);
    NTRY_VERIFY(source.isDisconnectedByPeer());
}

void tst_NSWUpdateProgressClient::destructionEndsTheConnection()
{
    Source source(m_path);
    {
        NSWUpdateProgressClient client(nullptr);
        QVERIFY(source.accept());
        source.send(doneRecord("unread"));
    }
    QVERIFY(source.isDisconnectedByPeer());
    QTest::qWait(0);
}

void tst_NSWUpdateProgressClient::standInDaemon_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("layout");
    QTest::newRow("2400") << QByteArray("progress-size 2400") << int(NSWUpdateProgressClient::Record2400);
    QTest::newRow("2416") << QByteArray("progress-size 2416") << int(NSWUpdateProgressClient::Record2416);
    QTest::newRow("2416 with a greeting")
        << QByteArray("progress-size 2416 greeting 1") << int(NSWUpdateProgressClient::Record2416);
    QTest::newRow("2408 in pieces") << QByteArray("progress-size 2408 greeting 1 pieces 999")
                                    << int(NSWUpdateProgressClient::Record2408);
}

void tst_NSWUpdateProgressClient::standInDaemon()
{
    QFETCH(QByteArray, options);
    QFETCH(int, layout);
    NUpdateDaemonThread daemon;
    daemon.setOptions(options.constData());
    QVERIFY(daemon.listen());
    QByteArray path = QFile::encodeName(daemon.progressPath());
    SOCKET_PROGRESS_PATH = path.data();
    NSWUpdateProgressClient client(nullptr);
    client.setRecordLayout(NSWUpdateProgressClient::RecordLayout(layout));
    Receiver receiver(&client);
    SOCKET_PROGRESS_PATH = m_path.data();
    NTRY_COMPARE(daemon.progressConnections(), 1);
    for (int status : {1, 3, 4, 6})
        daemon.sendProgress(status);
    NTRY_COMPARE(receiver.events.size(), 4);
    QCOMPARE(
        receiver.events,
        QStringList() << latin1("started 0 1 ") << latin1("finished") << latin1("finished!") << latin1("done "));
}

QTEST_MAIN(tst_NSWUpdateProgressClient)
#include "tst_nswupdateprogressclient.moc"
