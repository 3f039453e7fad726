#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateinstallerimagewriter.h>

#include "nrandombytes.h"
#include "nscripteddaemon.h"
#include "nupdatedaemonthread.h"

#include "support/nregisteredtimers.h"
#include "support/nsystemcalls.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QPointer>
#include <QtTest/QtTest>

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

using NSystemCalls::Calls;
using NSystemCalls::Fault;

namespace {

const int ShortWait = 30;

QString statusText(int status, const char* description, bool isError = false)
{
    return QString::fromLatin1("%1%2 %3").arg(status).arg(latin1(isError ? "!" : ""), latin1(description));
}

// The intervals of the one-shot timers that are running on this thread.
QList<int> singleShotIntervals()
{
    QList<int> intervals;
    QAbstractEventDispatcher* const dispatcher = QAbstractEventDispatcher::instance();
    for (QObject* timer : dispatcher->findChildren<QObject*>()) {
        for (const QPair<int, int>& registered : NTest::registeredTimers(timer))
            intervals.append(registered.second);
    }
    return intervals;
}

int openDescriptors(const QString& path)
{
    int count = 0;
    const QDir directory(latin1("/proc/self/fd"));
    for (const QFileInfo& file : directory.entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        count += file.symLinkTarget() == path;
    return count;
}

bool isMapped(const QString& path)
{
    QFile maps(latin1("/proc/self/maps"));
    return maps.open(QIODevice::ReadOnly) && maps.readAll().contains(QFile::encodeName(path));
}

void runDeletions()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// Notes the signals of an installer and its writer, and calls a function of the test in each.
class Receiver : public QObject
{
    Q_OBJECT

public:
    explicit Receiver(NSWUpdateInstaller* installer)
        : m_installer(installer)
    {
        connect(
            installer, SIGNAL(newStatus(NSWUpdate::Status,bool,QString)),
                              SLOT(newStatus(NSWUpdate::Status,bool,QString)));
        connect(installer, SIGNAL(finished(bool)), SLOT(finished(bool)));
    }

    void watch(NSwUpdateInstallerImageWriter* writer)
    {
        connect(writer, SIGNAL(bytesWritten()), SLOT(bytesWritten()));
        connect(writer, SIGNAL(imageWritten()), SLOT(imageWritten()));
        connect(writer, SIGNAL(imageWritingSocketDisconnected()), SLOT(disconnected()));
    }

    QStringList take()
    {
        const QStringList events = m_events;
        m_events.clear();
        return events;
    }

    bool hasFinished() const
    {
        return m_events.contains(latin1("finished")) || m_events.contains(latin1("finished!"));
    }

    int count(const char* event) const { return m_events.count(latin1(event)); }
    NSWUpdateInstaller* installer() const { return m_installer; }

    std::function<void(const QString&)> reaction;

private slots:
    void newStatus(NSWUpdate::Status status, bool isError, const QString& description)
    {
        note(QString::fromLatin1("%1%2 %3").arg(int(status)).arg(latin1(isError ? "!" : ""), description));
    }

    void finished(bool success) { note(latin1(success ? "finished" : "finished!")); }
    void bytesWritten() { note(latin1("bytes")); }
    void imageWritten() { note(latin1("image")); }
    void disconnected() { note(latin1("disconnected")); }

private:
    void note(const QString& event)
    {
        m_events.append(event);
        if (reaction)
            reaction(event);
    }

    const QPointer<NSWUpdateInstaller> m_installer;
    QStringList m_events;
};

} // namespace

Q_DECLARE_METATYPE(NSWUpdate::Status)

class tst_NSWUpdateInstaller : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void nothingListens_data();
    void nothingListens();
    void refusedInstallation_data();
    void refusedInstallation();
    void postUpdateIsTrueWhenAcknowledged_data();
    void postUpdateIsTrueWhenAcknowledged();
    void postUpdateSendsItsText();
    void installRequestSendsItsText();
    void replyThatEndsEarlyIsAFailedExchange_data();
    void replyThatEndsEarlyIsAFailedExchange();
    void replyThatStopsIsAFailedExchange_data();
    void replyThatStopsIsAFailedExchange();
    void daemonMayNotAcceptTheConnection_data();
    void daemonMayNotAcceptTheConnection();
    void replyMayComeInPieces_data();
    void replyMayComeInPieces();
    void wholeReplyCountsThoughTheConnectionEnds();
    void extraBytesAreIgnored();
    void waitsAreLongByDefault();
    void statusIsReportedWhenItChangesOrHasAText();
    void statusIsAskedAgainAtOnceOrAfterAWhile();
    void changedErrorOrResultAloneIsNotReported();
    void resultIsThatOfTheIdleReply_data();
    void resultIsThatOfTheIdleReply();
    void statusesAreReportedUnchanged();
    void signalsCanBeQueued();
    void failedPollEndsTheInstallation();
    void failedPollForgetsTheLastStatus();
    void startInFinishedAfterAFailedPollIsRefused();
    void startInFinishedIsAccepted();
    void lastStatusIsThatOfAllInstallers();
    void lastStatusOutlivesItsInstaller();
    void imageInMemoryArrives_data();
    void imageInMemoryArrives();
    void imageFromAFileArrives();
    void emptyOrMissingImageIsRefused();
    void refusedFileIsReleased();
    void fileIsReleasedBeforeTheFirstPoll();
    void fileIsReleasedWhenTheConnectionIsLost();
    void fileIsReleasedByTheDestructor();
    void fileThatBecomesShorterFails_data();
    void fileThatBecomesShorterFails();
    void fileThatCannotBeReadFails();
    void refusedStartLeavesTheRunningImageAlone();
    void postUpdateDuringAnInstallationIsRefused();
    void ownImageIsEndedWhenTheConnectionIsLost();
    void callerEndsItsImageWhenTheConnectionIsLost();
    void imageWrittenIsReportedToAllReceivers();
    void installerMayBeDeletedInAnySignal_data();
    void installerMayBeDeletedInAnySignal();
    void laterLayouts_data();
    void laterLayouts();
    void standInDaemon_data();
    void standInDaemon();

private:
    // Runs an installation of a small image in memory until it has finished.
    bool install(NSWUpdateInstaller* installer, Receiver* receiver);
    bool waitForEnd(Receiver* receiver);

    std::unique_ptr<NScriptedDaemon> m_daemon;
    NTemporaryDirectory m_directory;
};

void tst_NSWUpdateInstaller::init()
{
    m_daemon.reset(new NScriptedDaemon);
}

void tst_NSWUpdateInstaller::cleanup()
{
    // The last status of the process returns to idle.
    m_daemon.reset(new NScriptedDaemon);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    QVERIFY(install(&installer, &receiver));
    m_daemon.reset();
    runDeletions();
}

bool tst_NSWUpdateInstaller::waitForEnd(Receiver* receiver)
{
    return NTest::waitUntil([&]() { return receiver->hasFinished(); });
}

bool tst_NSWUpdateInstaller::install(NSWUpdateInstaller* installer, Receiver* receiver)
{
    return installer->startImageInstallation("image", 5, QString()) && waitForEnd(receiver);
}

void tst_NSWUpdateInstaller::nothingListens_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("no socket") << m_directory.filePath(latin1("none"));
    QTest::newRow("path too long") << m_directory.filePath(QString(120, QLatin1Char('x')));
    QTest::newRow("no path") << QString();
}

void tst_NSWUpdateInstaller::nothingListens()
{
    QFETCH(QString, path);
    NSWUpdateInstaller installer(path, nullptr);
    Receiver receiver(&installer);
    QVERIFY(!installer.startInstallation(QString()));
    QVERIFY(!installer.startImageInstallation("image", 5, QString()));
    QVERIFY(!installer.startImageInstallation(m_directory.writeFile(latin1("image"), "image"), QString()));
    QVERIFY(!installer.sendPostUpdate());
    QCOMPARE(receiver.take(), QStringList());
}

void tst_NSWUpdateInstaller::refusedInstallation_data()
{
    QTest::addColumn<int>("type");
    for (int type : {0, 2, 3, 4, 0x101, -1})
        QTest::newRow(QByteArray::number(type).constData()) << type;
}

void tst_NSWUpdateInstaller::refusedInstallation()
{
    QFETCH(int, type);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement(type));
    QVERIFY(!installer.startInstallation(latin1("info")));
    NTRY_COMPARE(m_daemon->endedConnections(), 1);
    m_daemon->addReply(m_daemon->acknowledgement(type));
    QVERIFY(!installer.startImageInstallation("image", 5, latin1("info")));
    NTRY_COMPARE(m_daemon->endedConnections(), 2);
    QCOMPARE(receiver.take(), QStringList());
    QCOMPARE(m_daemon->image(), QByteArray());
    QVERIFY(installer.sendPostUpdate());
}

void tst_NSWUpdateInstaller::postUpdateIsTrueWhenAcknowledged_data()
{
    QTest::addColumn<int>("type");
    for (int type : {0, 1, 2, 3, 4, 0x101, -1})
        QTest::newRow(QByteArray::number(type).constData()) << type;
}

void tst_NSWUpdateInstaller::postUpdateIsTrueWhenAcknowledged()
{
    QFETCH(int, type);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    m_daemon->addReply(m_daemon->acknowledgement(type));
    bool result = type != 1;
    QVERIFY(QMetaObject::invokeMethod(&installer, "sendPostUpdate", Q_RETURN_ARG(bool, result)));
    QCOMPARE(result, type == 1);
    NTRY_COMPARE(m_daemon->endedConnections(), 1);
}

void tst_NSWUpdateInstaller::postUpdateSendsItsText()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    QVERIFY(installer.sendPostUpdate(QString::fromLatin1("a \xE9")));
    QVERIFY(installer.sendPostUpdate(QString(3000, QLatin1Char('x'))));
    const QList<QByteArray> requests = m_daemon->takeRequests();
    QCOMPARE(requests.size(), 2);
    const QByteArray head("\x01\x20\x05\x14\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    QCOMPARE(requests.at(0), head + QByteArray("\3\0\0\0a \xE9", 7) + QByteArray(2045, '\0'));
    QCOMPARE(requests.at(1), head + QByteArray("\0\x08\0\0", 4) + QByteArray(2048, 'x'));
}

void tst_NSWUpdateInstaller::installRequestSendsItsText()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    QVERIFY(installer.startImageInstallation("image", 5, QString(2049, QLatin1Char('x'))));
    QVERIFY(waitForEnd(&receiver));
    const QList<QByteArray> requests = m_daemon->takeRequests();
    QCOMPARE(requests.size(), 2);
    const QByteArray magic("\x01\x20\x05\x14", 4);
    QCOMPARE(requests.at(0), magic + QByteArray(16, '\0') + QByteArray("\0\x08\0\0", 4) + QByteArray(2048, 'x'));
    QCOMPARE(requests.at(1), magic + QByteArray("\3\0\0\0", 4) + QByteArray(2064, '\0'));
}

void tst_NSWUpdateInstaller::replyThatEndsEarlyIsAFailedExchange_data()
{
    QTest::addColumn<int>("request");
    QTest::newRow("install") << 0;
    QTest::newRow("status") << 3;
    QTest::newRow("post-update") << 4;
}

void tst_NSWUpdateInstaller::replyThatEndsEarlyIsAFailedExchange()
{
    QFETCH(int, request);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    for (int size = 0; size < 2072;) {
        if (request == 3)
            m_daemon->addReply(m_daemon->acknowledgement());
        m_daemon->addReply(m_daemon->status(0, 3).left(size), NScriptedDaemon::Close);
        if (request == 4) {
            QVERIFY2(!installer.sendPostUpdate(), QByteArray::number(size).constData());
        } else if (request == 0) {
            QVERIFY2(!installer.startInstallation(QString()), QByteArray::number(size).constData());
        } else {
            QVERIFY(install(&installer, &receiver));
            QCOMPARE(receiver.take(), QStringList() << latin1("finished!"));
        }
        runDeletions();
        // An installation for each status reply takes longer than the other requests.
        size += request == 3 && size > 24 && size < 2064 ? 7 : 1;
    }
}

void tst_NSWUpdateInstaller::replyThatStopsIsAFailedExchange_data()
{
    QTest::addColumn<int>("size");
    for (int size : {0, 1, 4, 8, 24, 2071})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NSWUpdateInstaller::replyThatStopsIsAFailedExchange()
{
    QFETCH(int, size);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    installer.setWaitTime(ShortWait);
    m_daemon->addReply(m_daemon->acknowledgement().left(size));
    QVERIFY(!installer.startInstallation(QString()));
    m_daemon->addReply(m_daemon->acknowledgement().left(size));
    QVERIFY(!installer.sendPostUpdate());
    NTRY_COMPARE(m_daemon->endedConnections(), 2);
    installer.setWaitTime(30000);
    QVERIFY(installer.startInstallation(QString()));
}

void tst_NSWUpdateInstaller::daemonMayNotAcceptTheConnection_data()
{
    QTest::addColumn<bool>("isQueueFull");
    QTest::newRow("queued") << false;
    QTest::newRow("queue full") << true;
}

void tst_NSWUpdateInstaller::daemonMayNotAcceptTheConnection()
{
    QFETCH(bool, isQueueFull);
    const QByteArray path = QFile::encodeName(m_directory.filePath(latin1("hanging")));
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const struct sockaddr* const name = reinterpret_cast<const struct sockaddr*>(&address);
    const int flags = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
    NFileDescriptor server(::socket(AF_UNIX, flags, 0));
    QCOMPARE(::bind(server.number(), name, sizeof(address)), 0);
    QCOMPARE(::listen(server.number(), 2), 0);
    std::vector<NFileDescriptor> others;
    while (isQueueFull) {
        others.push_back(NFileDescriptor(::socket(AF_UNIX, flags, 0)));
        if (::connect(others.back().number(), name, sizeof(address)) != 0)
            break;
    }
    NSWUpdateInstaller installer(QFile::decodeName(path), nullptr);
    installer.setWaitTime(ShortWait);
    QVERIFY(!installer.startInstallation(QString()));
    QVERIFY(!installer.sendPostUpdate());
    runDeletions();
    server.reset();
    ::unlink(path.constData());
}

void tst_NSWUpdateInstaller::replyMayComeInPieces_data()
{
    QTest::addColumn<int>("first");
    for (int first : {1, 4, 5, 8, 100, 1000, 2071})
        QTest::newRow(QByteArray::number(first).constData()) << first;
}

void tst_NSWUpdateInstaller::replyMayComeInPieces()
{
    QFETCH(int, first);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray reply = m_daemon->acknowledgement();
    const QByteArray status = m_daemon->status(0, 3, "text");
    m_daemon->addPieces(QList<QByteArray>() << reply.left(first) << reply.mid(first));
    m_daemon->addPieces(QList<QByteArray>() << status.left(first) << status.mid(first));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(0, "text") << latin1("finished"));

    QList<QByteArray> bytes;
    for (int index = 0; index < 100; ++index)
        bytes.append(reply.mid(index, 1));
    m_daemon->addPieces(bytes << reply.mid(100));
    QVERIFY(installer.sendPostUpdate());
}

void tst_NSWUpdateInstaller::wholeReplyCountsThoughTheConnectionEnds()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    for (int round = 0; round < 50; ++round) {
        m_daemon->addReply(m_daemon->acknowledgement(), NScriptedDaemon::Close);
        QVERIFY(installer.sendPostUpdate());
    }
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(0, 3), NScriptedDaemon::Close);
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
}

void tst_NSWUpdateInstaller::extraBytesAreIgnored()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(1000000);
    m_daemon->addReply(m_daemon->acknowledgement() + QByteArray(100000, 'x'));
    m_daemon->addReply(m_daemon->status(0, 3) + "x");
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), QString()));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
    QVERIFY(m_daemon->image() == image);
    m_daemon->addReply(m_daemon->acknowledgement() + "x", NScriptedDaemon::Close);
    QVERIFY(installer.sendPostUpdate());
}

void tst_NSWUpdateInstaller::waitsAreLongByDefault()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    QCOMPARE(installer.waitTime(), 30000);
    QCOMPARE(int(installer.recordLayout()), int(NSWUpdateInstaller::Record2072));
    installer.setWaitTime(-1);
    QCOMPARE(installer.waitTime(), 0);
}

void tst_NSWUpdateInstaller::statusIsReportedWhenItChangesOrHasAText()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(1, 4));
    m_daemon->addReply(m_daemon->status(1, 4));
    m_daemon->addReply(m_daemon->status(2, 4, "text"));
    m_daemon->addReply(m_daemon->status(2, 4, "text"));
    m_daemon->addReply(m_daemon->status(2, 4));
    m_daemon->addReply(m_daemon->status(4, 4, QByteArray(2048, 'e'), 7));
    m_daemon->addReply(m_daemon->status(2, 4, "\xE9"));
    m_daemon->addReply(m_daemon->status(0, 3, "Waiting"));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(
        receiver.take(), QStringList() << statusText(1, "") << statusText(2, "text") << statusText(2, "text")
                                       << statusText(4, QByteArray(2048, 'e').constData(), true)
                                       << statusText(2, "\xE9") << statusText(0, "Waiting") << latin1("finished"));
    QCOMPARE(m_daemon->takeRequests().size(), 9);
}

void tst_NSWUpdateInstaller::statusIsAskedAgainAtOnceOrAfterAWhile()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    QList<int> intervals;
    receiver.reaction = [&](const QString&) { intervals += singleShotIntervals(); };
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(1));
    m_daemon->addReply(m_daemon->status(1));
    QVERIFY(installer.startImageInstallation("image", 5, QString()));
    // The change, after which the second question follows without a timer; its answer is the same.
    NTRY_COMPARE(receiver.count("1 "), 1);
    NTRY_VERIFY(singleShotIntervals().contains(100));
    QVERIFY(waitForEnd(&receiver));
    QVERIFY(!intervals.contains(100));
    QCOMPARE(receiver.take(), QStringList() << statusText(1, "") << statusText(0, "") << latin1("finished"));
}

void tst_NSWUpdateInstaller::changedErrorOrResultAloneIsNotReported()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2, 0));
    m_daemon->addReply(m_daemon->status(2, 3, "", 1));
    m_daemon->addReply(m_daemon->status(2, 4, QByteArray("\0text", 5), 2));
    m_daemon->addReply(m_daemon->status(0, 4));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(2, "") << statusText(0, "") << latin1("finished!"));
}

void tst_NSWUpdateInstaller::resultIsThatOfTheIdleReply_data()
{
    QTest::addColumn<int>("lastResult");
    QTest::addColumn<QString>("result");
    for (int result : {0, 1, 2, 4, 5, 6, 7, 8, 9, -1, 0x103})
        QTest::newRow(QByteArray::number(result).constData()) << result << latin1("finished!");
    QTest::newRow("success") << 3 << latin1("finished");
}

void tst_NSWUpdateInstaller::resultIsThatOfTheIdleReply()
{
    QFETCH(int, lastResult);
    QFETCH(QString, result);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(0, lastResult));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << result);
}

void tst_NSWUpdateInstaller::statusesAreReportedUnchanged()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    QStringList expected;
    for (int status : {1, 2, 3, 4, 5, 6, 7, 8, 9, 0x7FFFFFFF, -1}) {
        m_daemon->addReply(m_daemon->status(status));
        expected << statusText(status, "");
    }
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), expected << statusText(0, "") << latin1("finished"));
}

void tst_NSWUpdateInstaller::signalsCanBeQueued()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    installer.disconnect(&receiver);
    connect(
        &installer, SIGNAL(newStatus(NSWUpdate::Status,bool,QString)), &receiver,
                           SLOT(newStatus(NSWUpdate::Status,bool,QString)), Qt::QueuedConnection);
    connect(&installer, SIGNAL(finished(bool)), &receiver, SLOT(finished(bool)), Qt::QueuedConnection);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2, 0, "text"));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(2, "text") << statusText(0, "") << latin1("finished"));
}

void tst_NSWUpdateInstaller::failedPollEndsTheInstallation()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2, 3));
    m_daemon->addReply(QByteArray(), NScriptedDaemon::Close);
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(2, "") << latin1("finished!"));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
}

void tst_NSWUpdateInstaller::failedPollForgetsTheLastStatus()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2));
    m_daemon->addReply(QByteArray(), NScriptedDaemon::Close);
    QVERIFY(install(&installer, &receiver));
    receiver.take();
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(2, "") << statusText(0, "") << latin1("finished"));
}

void tst_NSWUpdateInstaller::startInFinishedAfterAFailedPollIsRefused()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    int started = 0;
    int posted = 0;
    receiver.reaction = [&](const QString&) {
        started += installer.startInstallation(QString()) != nullptr;
        posted += installer.sendPostUpdate();
    };
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(QByteArray(), NScriptedDaemon::Close);
    QVERIFY(install(&installer, &receiver));
    receiver.reaction = nullptr;
    QCOMPARE(receiver.take(), QStringList() << latin1("finished!"));
    QCOMPARE(started, 0);
    QCOMPARE(posted, 0);
    QCOMPARE(m_daemon->takeRequests().size(), 2);
    QVERIFY(installer.sendPostUpdate());
}

void tst_NSWUpdateInstaller::startInFinishedIsAccepted()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    int started = 0;
    receiver.reaction = [&](const QString& event) {
        if (event == latin1("finished") && started < 3)
            started += installer.startImageInstallation("again", 5, QString());
    };
    QVERIFY(installer.startImageInstallation("image", 5, QString()));
    NTRY_COMPARE(receiver.count("finished"), 4);
    QCOMPARE(started, 3);
    QCOMPARE(m_daemon->image(), QByteArray("imageagainagainagain"));
}

void tst_NSWUpdateInstaller::lastStatusIsThatOfAllInstallers()
{
    NScriptedDaemon otherDaemon;
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    NSWUpdateInstaller other(otherDaemon.path(), nullptr);
    Receiver receiver(&installer);
    Receiver otherReceiver(&other);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2));
    otherDaemon.addReply(otherDaemon.acknowledgement());
    otherDaemon.addReply(otherDaemon.status(2));
    for (int index = 0; index < 200; ++index)
        m_daemon->addReply(m_daemon->status(2));
    QVERIFY(installer.startImageInstallation("image", 5, QString()));
    NTRY_COMPARE(receiver.count("2 "), 1);
    QVERIFY(install(&other, &otherReceiver));
    // The other one does not report the same status; its change to idle is what both know now.
    QCOMPARE(otherReceiver.take(), QStringList() << statusText(0, "") << latin1("finished"));
    NTRY_COMPARE(receiver.count("2 "), 2);
}

void tst_NSWUpdateInstaller::lastStatusOutlivesItsInstaller()
{
    {
        NSWUpdateInstaller installer(m_daemon->path(), nullptr);
        Receiver receiver(&installer);
        m_daemon->addReply(m_daemon->acknowledgement());
        m_daemon->addReply(m_daemon->status(2));
        m_daemon->addReply(m_daemon->status(2));
        QVERIFY(installer.startImageInstallation("image", 5, QString()));
        NTRY_COMPARE(receiver.count("2 "), 1);
    }
    m_daemon.reset(new NScriptedDaemon);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(2));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << statusText(0, "") << latin1("finished"));
}

void tst_NSWUpdateInstaller::imageInMemoryArrives_data()
{
    QTest::addColumn<int>("size");
    for (int size : {1, 4095, 4096, 4097, 8192, 3000000})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NSWUpdateInstaller::imageInMemoryArrives()
{
    QFETCH(int, size);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(size);
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(size), QString()));
    NSwUpdateInstallerImageWriter* const writer = installer.findChild<NSwUpdateInstallerImageWriter*>();
    QVERIFY(writer);
    receiver.watch(writer);
    QVERIFY(waitForEnd(&receiver));
    QVERIFY(m_daemon->image() == image);
    // Each chunk is sent before the next one is written.
    QCOMPARE(receiver.count("bytes"), (size + 4095) / 4096);
    QCOMPARE(receiver.count("image"), 1);
    QCOMPARE(receiver.count("disconnected"), 0);
}

void tst_NSWUpdateInstaller::imageFromAFileArrives()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(3000001);
    const QString path = m_directory.writeFile(QString::fromUtf8("im\xC3\xA9ge"), image);
    QVERIFY(installer.startImageInstallation(path, latin1("info")));
    // A file that is removed meanwhile is sent nevertheless.
    QVERIFY(QFile::remove(path));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
    QVERIFY(m_daemon->image() == image);
}

void tst_NSWUpdateInstaller::emptyOrMissingImageIsRefused()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QString fifo = m_directory.filePath(latin1("fifo"));
    QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    QVERIFY(!installer.startImageInstallation(m_directory.writeFile(latin1("empty"), ""), QString()));
    QVERIFY(!installer.startImageInstallation(m_directory.filePath(latin1("missing")), QString()));
    QVERIFY(!installer.startImageInstallation(m_directory.path(), QString()));
    QVERIFY(!installer.startImageInstallation(fifo, QString()));
    QVERIFY(!installer.startImageInstallation(latin1("/dev/null"), QString()));
    QVERIFY(!installer.startImageInstallation(QString(), QString()));
    QVERIFY(!installer.startImageInstallation("image", 0, QString()));
    QVERIFY(!installer.startImageInstallation(static_cast<const char*>(nullptr), 0, QString()));
    QVERIFY(!installer.startImageInstallation(static_cast<const char*>(nullptr), 5, QString()));
    QCOMPARE(receiver.take(), QStringList());
    QCOMPARE(m_daemon->takeRequests().size(), 0);
    QVERIFY(install(&installer, &receiver));
}

void tst_NSWUpdateInstaller::refusedFileIsReleased()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(10000));
    m_daemon->addReply(m_daemon->acknowledgement(2));
    QVERIFY(!installer.startImageInstallation(path, QString()));
    QCOMPARE(openDescriptors(path), 0);
    QVERIFY(!isMapped(path));
}

void tst_NSWUpdateInstaller::fileIsReleasedBeforeTheFirstPoll()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(10000));
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(1));
    int held = -1;
    receiver.reaction = [&](const QString& event) {
        if (event == statusText(1, ""))
            held = openDescriptors(path) + isMapped(path);
    };
    QVERIFY(installer.startImageInstallation(path, QString()));
    QCOMPARE(openDescriptors(path) + isMapped(path), 2);
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(held, 0);
}

void tst_NSWUpdateInstaller::fileIsReleasedWhenTheConnectionIsLost()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(5000000));
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(1));
    m_daemon->closeImageAfter(10000);
    int held = -1;
    receiver.reaction = [&](const QString& event) {
        if (event == statusText(1, ""))
            held = openDescriptors(path) + isMapped(path);
    };
    QVERIFY(installer.startImageInstallation(path, QString()));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(held, 0);
}

void tst_NSWUpdateInstaller::fileIsReleasedByTheDestructor()
{
    const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(5000000));
    {
        NSWUpdateInstaller installer(m_daemon->path(), nullptr);
        QVERIFY(installer.startImageInstallation(path, QString()));
        QCOMPARE(openDescriptors(path), 1);
    }
    QCOMPARE(openDescriptors(path), 0);
    QVERIFY(!isMapped(path));
    NTRY_COMPARE(m_daemon->endedConnections(), 1);
    QVERIFY(m_daemon->image().size() < 5000000);
}

void tst_NSWUpdateInstaller::fileThatBecomesShorterFails_data()
{
    QTest::addColumn<int>("size");
    for (int size : {0, 1, 4096, 8191, 8192, 100000, 999999})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NSWUpdateInstaller::fileThatBecomesShorterFails()
{
    QFETCH(int, size);
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(1000000);
    const QString path = m_directory.writeFile(latin1("image"), image);
    QVERIFY(installer.startImageInstallation(path, QString()));
    QVERIFY(QFile::resize(path, size));
    QVERIFY(waitForEnd(&receiver));
    // The daemon reports a success, but it cannot have got the whole image.
    QCOMPARE(receiver.take(), QStringList() << latin1("finished!"));
    QCOMPARE(m_daemon->image(), image.left(qMax(4096, size - size % 4096)));
    QVERIFY(install(&installer, &receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
}

void tst_NSWUpdateInstaller::fileThatCannotBeReadFails()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(100000));
    Fault fault(Calls(NSystemCalls::Read).onPath(QFile::encodeName(path)).skip(3), EIO);
    QVERIFY(installer.startImageInstallation(path, QString()));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished!"));
    QCOMPARE(m_daemon->image().size(), 3 * 4096);
    QVERIFY(fault.count() > 0);
}

void tst_NSWUpdateInstaller::refusedStartLeavesTheRunningImageAlone()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(2000000);
    const QString path = m_directory.writeFile(latin1("image"), image);
    const auto startOthers = [&]() {
        QVERIFY(!installer.startInstallation(QString()));
        QVERIFY(!installer.startImageInstallation("other", 5, QString()));
        QVERIFY(!installer.startImageInstallation("other", 0, QString()));
        QVERIFY(!installer.startImageInstallation(path, QString()));
        QVERIFY(!installer.startImageInstallation(m_directory.filePath(latin1("missing")), QString()));
    };
    receiver.reaction = [&](const QString& event) {
        if (event == latin1("bytes") && receiver.count("bytes") < 10)
            startOthers();
    };
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), QString()));
    receiver.watch(installer.findChild<NSwUpdateInstallerImageWriter*>());
    QVERIFY(waitForEnd(&receiver));
    QVERIFY(m_daemon->image() == image);
    QVERIFY(installer.startImageInstallation(path, QString()));
    startOthers();
    receiver.take();
    QVERIFY(waitForEnd(&receiver));
    QVERIFY(m_daemon->image() == image + image);
    QCOMPARE(m_daemon->takeRequests().size(), 4);
}

void tst_NSWUpdateInstaller::postUpdateDuringAnInstallationIsRefused()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    NSwUpdateInstallerImageWriter* const writer = installer.startInstallation(QString());
    QVERIFY(writer);
    QVERIFY(!installer.sendPostUpdate());
    QCOMPARE(m_daemon->takeRequests().size(), 1);
    m_daemon->addReply(m_daemon->status(1));
    int posted = 0;
    receiver.reaction = [&](const QString& event) {
        posted += installer.sendPostUpdate() && event != latin1("finished");
    };
    writer->endWriting();
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(posted, 0);
    QVERIFY(installer.sendPostUpdate());
}

void tst_NSWUpdateInstaller::ownImageIsEndedWhenTheConnectionIsLost()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    const QByteArray image = NTest::randomBytes(5000000);
    m_daemon->addReply(m_daemon->acknowledgement());
    m_daemon->addReply(m_daemon->status(0, 4, "broken"));
    m_daemon->closeImageAfter(10000);
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), QString()));
    receiver.watch(installer.findChild<NSwUpdateInstallerImageWriter*>());
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.count("image"), 1);
    QCOMPARE(receiver.count("0 broken"), 1);
    QCOMPARE(receiver.count("finished!"), 1);
    // The daemon decides: it may need no more of the image than it has read.
    m_daemon->closeImageAfter(m_daemon->image().size() + 10000);
    receiver.take();
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), QString()));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished"));
}

void tst_NSWUpdateInstaller::callerEndsItsImageWhenTheConnectionIsLost()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    m_daemon->closeImageAfter(1);
    NSwUpdateInstallerImageWriter* const writer = installer.startInstallation(QString());
    QVERIFY(writer);
    receiver.watch(writer);
    QCOMPARE(writer->write("image"), qint64(5));
    NTRY_COMPARE(receiver.count("disconnected"), 1);
    QTest::qWait(0);
    QCOMPARE(receiver.count("image"), 0);
    QCOMPARE(m_daemon->takeRequests().size(), 1);
    QVERIFY(!installer.startInstallation(QString()));
    receiver.take();
    writer->endWriting();
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), QStringList() << latin1("finished") << latin1("image"));
}

void tst_NSWUpdateInstaller::imageWrittenIsReportedToAllReceivers()
{
    NSWUpdateInstaller installer(m_daemon->path(), nullptr);
    Receiver receiver(&installer);
    NSwUpdateInstallerImageWriter* const writer = installer.startInstallation(QString());
    QVERIFY(writer);
    receiver.watch(writer);
    const QPointer<NSwUpdateInstallerImageWriter> guard(writer);
    QCOMPARE(writer->write(QByteArray("image")), qint64(5));
    writer->endWriting();
    QCOMPARE(writer->write("more"), qint64(-1));
    receiver.reaction = [&](const QString& event) {
        if (event == latin1("image"))
            writer->endWriting();
    };
    NTRY_COMPARE(receiver.count("image"), 1);
    runDeletions();
    QVERIFY(!guard);
    QCOMPARE(receiver.count("image"), 1);
    QCOMPARE(m_daemon->image(), QByteArray("image"));
}

void tst_NSWUpdateInstaller::installerMayBeDeletedInAnySignal_data()
{
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QByteArray>("replies");
    QTest::newRow("bytes written") << latin1("bytes") << QByteArray("1");
    QTest::newRow("image written") << latin1("image") << QByteArray("1");
    QTest::newRow("connection lost") << latin1("disconnected") << QByteArray("lost");
    QTest::newRow("busy") << latin1("1 ") << QByteArray("1");
    QTest::newRow("idle") << latin1("0 ") << QByteArray("10");
    QTest::newRow("success") << latin1("finished") << QByteArray("10");
    QTest::newRow("success without news") << latin1("finished") << QByteArray();
    QTest::newRow("failure") << latin1("finished!") << QByteArray("1x");
    QTest::newRow("failure without news") << latin1("finished!") << QByteArray("x");
}

void tst_NSWUpdateInstaller::installerMayBeDeletedInAnySignal()
{
    QFETCH(QString, signal);
    QFETCH(QByteArray, replies);
    // A small image is sent before its connection can be lost.
    for (int size : {replies == "lost" ? 1000001 : 5, 1000000}) {
        cleanup();
        init();
        m_daemon->addReply(m_daemon->acknowledgement());
        if (replies == "lost")
            m_daemon->closeImageAfter(1);
        else
            for (char reply : replies)
                m_daemon->addReply(
                    reply == 'x' ? QByteArray() : m_daemon->status(reply - '0', 3),
                    reply == 'x' ? NScriptedDaemon::Close : NScriptedDaemon::Keep);
        NSWUpdateInstaller* const installer = new NSWUpdateInstaller(m_daemon->path(), nullptr);
        const QPointer<NSWUpdateInstaller> guard(installer);
        Receiver receiver(installer);
        receiver.reaction = [&](const QString& event) {
            if (event == signal)
                delete receiver.installer();
        };
        const QString path = m_directory.writeFile(latin1("image"), NTest::randomBytes(size));
        QVERIFY(installer->startImageInstallation(path, QString()));
        if (guard)
            receiver.watch(installer->findChild<NSwUpdateInstallerImageWriter*>());
        NTRY_VERIFY(!guard);
        runDeletions();
        QCOMPARE(receiver.count(signal.toLatin1().constData()), 1);
        QCOMPARE(openDescriptors(path), 0);
    }
}

void tst_NSWUpdateInstaller::laterLayouts_data()
{
    QTest::addColumn<int>("layout");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("textOffset");
    QTest::newRow("64 bits") << int(NSWUpdateInstaller::Record3120) << 3120 << 32;
    QTest::newRow("32 bits") << int(NSWUpdateInstaller::Record3104) << 3104 << 24;
}

void tst_NSWUpdateInstaller::laterLayouts()
{
    QFETCH(int, layout);
    QFETCH(int, size);
    QFETCH(int, textOffset);
    NScriptedDaemon daemon(size);
    NSWUpdateInstaller installer(daemon.path(), nullptr);
    Receiver receiver(&installer);
    installer.setRecordLayout(NSWUpdateInstaller::RecordLayout(layout));
    QCOMPARE(int(installer.recordLayout()), layout);
    daemon.addReply(daemon.acknowledgement());
    daemon.addReply(daemon.status(2, 0, "text", 1));
    QVERIFY(installer.startImageInstallation("image", 5, latin1("info")));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(
        receiver.take(), QStringList() << statusText(2, "text", true) << statusText(0, "") << latin1("finished"));
    QCOMPARE(daemon.image(), QByteArray("image"));
    QCOMPARE(daemon.takeRequests().first().mid(textOffset, 5), QByteArray("info\0", 5));
    daemon.addReply(daemon.acknowledgement().left(2072), NScriptedDaemon::Close);
    QVERIFY(!installer.sendPostUpdate());
    QVERIFY(installer.sendPostUpdate(latin1("post")));
    QCOMPARE(daemon.takeRequests().last().mid(20, 9), QByteArray("\4\0\0\0post\0", 9));
}

void tst_NSWUpdateInstaller::standInDaemon_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("layout");
    QTest::addColumn<QStringList>("expected");
    const QStringList start = QStringList()
                              << latin1("1 Software Update started !") << latin1("2 Software update started");
    const QStringList end = QStringList()
                            << latin1("2 Main thread sleep again !") << latin1("0 Waiting for requests...");
    const QStringList success =
        start + (QStringList() << latin1("2 Installing image-1.bin") << latin1("3 SWUPDATE successful !")) + end +
        QStringList(latin1("finished"));
    const QStringList failure = end + QStringList(latin1("finished!"));
    QTest::newRow("success") << QByteArray("step-time 20") << 0 << success;
    QTest::newRow("pieces") << QByteArray("step-time 20 pieces 300") << 0 << success;
    QTest::newRow("3120") << QByteArray("step-time 20 control-size 3120 extra 9") << 1 << success;
    QTest::newRow("3104") << QByteArray("step-time 20 control-size 3104") << 2 << success;
    QTest::newRow("slow image") << QByteArray("step-time 20 image-rate 4000000") << 0 << success;
    QTest::newRow("failing step") << QByteArray("step-time 20 steps 2 fail-step 2 message no_space") << 0
                                  << start +
                                         (QStringList()
                                          << latin1("2 Installing image-1.bin")
                                          << latin1("2 Installing image-2.bin") << latin1("4! no space")) +
                                         failure;
    QTest::newRow("failing end") << QByteArray("step-time 20 fail-step 2 message bad") << 0
                                 << start +
                                        (QStringList() << latin1("2 Installing image-1.bin") << latin1("4! bad")) +
                                        failure;
    QTest::newRow("no archive") << QByteArray("cpio 1") << 0
                                << start +
                                       (QStringList()
                                        << latin1("4! ERROR : CPIO Format not recognized: magic not found")) +
                                       failure;
    QTest::newRow("image dropped") << QByteArray("fault image=disconnect after 20000 message lost") << 0
                                   << start + (QStringList() << latin1("4! lost")) + failure;
    QTest::newRow("status disconnected")
        << QByteArray("fault status=disconnect after 100") << 0 << QStringList(latin1("finished!"));
    QTest::newRow("status silent") << QByteArray("fault status=silence after 100") << 0
                                   << QStringList(latin1("finished!"));
}

void tst_NSWUpdateInstaller::standInDaemon()
{
    QFETCH(QByteArray, options);
    QFETCH(int, layout);
    QFETCH(QStringList, expected);
    NUpdateDaemonThread daemon;
    QVERIFY(daemon.listen());
    daemon.setOptions(options.constData());
    NSWUpdateInstaller installer(daemon.controlPath(), nullptr);
    Receiver receiver(&installer);
    installer.setRecordLayout(NSWUpdateInstaller::RecordLayout(layout));
    if (options.contains("silence"))
        installer.setWaitTime(1000);
    const QByteArray image = NTest::randomBytes(1000000);
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), latin1("info")));
    QVERIFY(waitForEnd(&receiver));
    QCOMPARE(receiver.take(), expected);
    if (!options.contains("image=") && !options.contains("silence"))
        NTRY_COMPARE(daemon.imageSize(), qint64(1000000));
}

QTEST_MAIN(tst_NSWUpdateInstaller)
#include "tst_nswupdateinstaller.moc"
