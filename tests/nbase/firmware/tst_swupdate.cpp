#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateinstallerimagewriter.h>
#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include "support/nprocessid.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <memory>

namespace {

// Larger than what a socket holds: the daemon has begun before the first question for its status.
const int PayloadSize = 4000000;

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Whether no thread of the process is running or about to (proc(5), /proc/<pid>/task/<tid>/stat).
bool isAsleep(qint64 process)
{
    const QDir threads(QString::fromLatin1("/proc/%1/task").arg(process));
    const QStringList names = threads.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        const QByteArray status = readFile(threads.filePath(name + latin1("/stat")));
        if (status.mid(status.lastIndexOf(')'), 3) != ") S")
            return false;
    }
    return true;
}

} // namespace

// Installs packages with the system's SWUpdate.
class tst_SWUpdate : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void fileIsInstalled();
    void imageInMemoryIsInstalled();
    void streamedImageIsInstalled();
    void changedPayloadIsRejected();
    void rubbishIsRejected();
    void incompletePackageIsRejected();
    void daemonTakesOneInstallationAtATime();
    void postUpdateSucceeds();

public slots:
    void newStatus(NSWUpdate::Status status, bool isError, const QString& description);
    void finished(bool success);
    void writeMore();
    void updateStarted(NSWUpdate::Source source, int nbSteps, const QString& info);
    void newStepStarted(int nbSteps, int step, const QString& imageName);
    void stepUpdate(int nbSteps, int step, const QString& imageName, quint8 percentage);
    void updateFinished(bool success);
    void updateDone(const QString& info);

private:
    QString path(const char* name) const { return m_directory.filePath(latin1(name)); }
    bool
    run(const char* program, const QString& arguments, const QByteArray& input = QByteArray(),
        QByteArray* output = nullptr);
    QByteArray makePackage(const QByteArray& payload, const QByteArray& hashed);
    void startDaemon();
    void waitForProgressConnection();
    void verifyInstalled();
    void verifyRejected();

    NTemporaryDirectory m_directory;
    QByteArray m_progressPath;
    char* m_defaultPath;
    QProcess m_daemon;
    std::unique_ptr<NSWUpdateInstaller> m_installer;
    std::unique_ptr<NSWUpdateProgressClient> m_client;
    QByteArray m_payload;
    QByteArray m_package;
    NSwUpdateInstallerImageWriter* m_writer;
    int m_written;

    QStringList m_statuses;
    QStringList m_errors;
    QStringList m_results;
    QStringList m_progress;
    QList<int> m_percentages;
};

void tst_SWUpdate::initTestCase()
{
    quint32 state = 7;
    for (int index = 0; index < PayloadSize; ++index) {
        state = state * 1664525 + 1013904223;
        m_payload.append(char(state >> 24));
    }
    // Debian's daemon accepts only signed packages.
    QVERIFY(
        run("openssl",
            latin1("req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out certificate.pem -days 2 -subj /CN=test "
                   "-addext extendedKeyUsage=emailProtection")));
    m_package = makePackage(m_payload, m_payload);
    QVERIFY(m_package.size() > PayloadSize);
    startDaemon();

    m_progressPath = QFile::encodeName(path("swupdateprog"));
    m_defaultPath = SOCKET_PROGRESS_PATH;
    SOCKET_PROGRESS_PATH = m_progressPath.data();
    m_installer.reset(new NSWUpdateInstaller(path("sockinstctrl"), nullptr));
    m_installer->setRecordLayout(
        sizeof(void*) == 4 ? NSWUpdateInstaller::Record3104 : NSWUpdateInstaller::Record3120);
    connect(
        m_installer.get(), SIGNAL(newStatus(NSWUpdate::Status,bool,QString)),
                                  SLOT(newStatus(NSWUpdate::Status,bool,QString)));
    connect(m_installer.get(), SIGNAL(finished(bool)), SLOT(finished(bool)));
    m_client.reset(new NSWUpdateProgressClient(nullptr));
    m_client->setRecordLayout(NSWUpdateProgressClient::Record2416);
    connect(
        m_client.get(), SIGNAL(updateStarted(NSWUpdate::Source,int,QString)),
                               SLOT(updateStarted(NSWUpdate::Source,int,QString)));
    connect(m_client.get(), SIGNAL(newStepStarted(int,int,QString)), SLOT(newStepStarted(int,int,QString)));
    connect(m_client.get(), SIGNAL(stepUpdate(int,int,QString,quint8)), SLOT(stepUpdate(int,int,QString,quint8)));
    connect(m_client.get(), SIGNAL(updateFinished(bool)), SLOT(updateFinished(bool)));
    connect(m_client.get(), SIGNAL(updateDone(QString)), SLOT(updateDone(QString)));
    waitForProgressConnection();
}

// The daemon reports only to connections that it has accepted, and does not tell when it has.
void tst_SWUpdate::waitForProgressConnection()
{
    while (!m_progress.contains(latin1("failure"))) {
        init();
        QVERIFY(m_installer->startImageInstallation(m_payload.constData(), PayloadSize, QString()));
        NTRY_VERIFY(!m_results.isEmpty());
        QTest::qWait(100);
    }
}

void tst_SWUpdate::cleanupTestCase()
{
    m_client.reset();
    m_installer.reset();
    SOCKET_PROGRESS_PATH = m_defaultPath;
    m_daemon.terminate();
    m_daemon.waitForFinished();
}

void tst_SWUpdate::init()
{
    m_statuses.clear();
    m_errors.clear();
    m_results.clear();
    m_progress.clear();
    m_percentages.clear();
    QFile::remove(path("installed"));
    // An installation that is requested before the daemon waits for one is accepted, but never begins.
    NTRY_VERIFY(isAsleep(NTest::processIdOf(m_daemon)));
}

bool tst_SWUpdate::run(const char* program, const QString& arguments, const QByteArray& input, QByteArray* output)
{
    QProcess process;
    process.setWorkingDirectory(m_directory.path());
    process.start(latin1(program), arguments.split(QLatin1Char(' ')));
    process.write(input);
    process.closeWriteChannel();
    if (process.waitForFinished() && process.exitCode() == 0) {
        if (output)
            *output = process.readAllStandardOutput();
        return true;
    }
    qWarning("%s: %s", program, process.readAllStandardError().constData());
    return false;
}

// A cpio archive (SWUpdate, "SWUpdate: syntax and tags with the default parser") with a file and its hash.
QByteArray tst_SWUpdate::makePackage(const QByteArray& payload, const QByteArray& hashed)
{
    QByteArray hash;
    m_directory.writeFile(latin1("payload"), hashed);
    if (!run("openssl", latin1("dgst -sha256 -r payload"), QByteArray(), &hash))
        return QByteArray();
    hash.truncate(hash.indexOf(' '));
    m_directory.writeFile(latin1("payload"), payload);
    m_directory.writeFile(
        latin1("sw-description"), "software = { version = \"1.2.3\"; hardware-compatibility: [ \"1.0\" ];\n"
                                  "files: ( { filename = \"payload\"; path = \"" +
                                      QFile::encodeName(path("installed")) + "\"; sha256 = \"" + hash +
                                      "\"; } ); }\n");
    if (!run(
            "openssl", latin1("cms -sign -in sw-description -out sw-description.sig -signer certificate.pem "
                              "-inkey key.pem -outform DER -nosmimecap -binary")) ||
        !run("cpio", latin1("-o -H crc -O package.swu"), "sw-description\nsw-description.sig\npayload\n"))
        return QByteArray();
    return readFile(path("package.swu"));
}

void tst_SWUpdate::startDaemon()
{
    m_directory.writeFile(latin1("swupdate.cfg"), "globals : { };\n");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // The folder of its sockets.
    environment.insert(latin1("TMPDIR"), m_directory.path());
    m_daemon.setProcessEnvironment(environment);
    m_daemon.setWorkingDirectory(m_directory.path());
    m_daemon.setStandardOutputFile(path("daemon.log"));
    m_daemon.setStandardErrorFile(path("daemon.log"), QIODevice::Append);
    m_daemon.start(
        latin1("swupdate"), latin1("-f swupdate.cfg -k certificate.pem -H test:1.0 -v").split(QLatin1Char(' ')));
    const auto isReady = [this]() {
        return m_daemon.state() == QProcess::NotRunning ||
               (QFile::exists(path("sockinstctrl")) && QFile::exists(path("swupdateprog")) &&
                readFile(path("daemon.log")).contains("Main loop daemon"));
    };
    NTRY_VERIFY(isReady());
    QVERIFY2(m_daemon.state() == QProcess::Running, readFile(path("daemon.log")).constData());
}

void tst_SWUpdate::newStatus(NSWUpdate::Status status, bool isError, const QString& description)
{
    m_statuses << QString::fromLatin1("%1 %2").arg(int(status)).arg(description);
    if (isError)
        m_errors << description;
}

void tst_SWUpdate::finished(bool success)
{
    m_results << latin1(success ? "success" : "failure");
}

void tst_SWUpdate::writeMore()
{
    const QByteArray piece = m_package.mid(m_written, 100000);
    m_written += piece.size();
    if (piece.isEmpty() || m_writer->write(piece) < 0)
        m_writer->endWriting();
}

void tst_SWUpdate::updateStarted(NSWUpdate::Source source, int nbSteps, const QString& info)
{
    m_progress << QString::fromLatin1("started %1 %2 %3").arg(int(source)).arg(nbSteps).arg(info);
}

void tst_SWUpdate::newStepStarted(int nbSteps, int step, const QString& imageName)
{
    m_progress << QString::fromLatin1("step %1 %2 %3").arg(nbSteps).arg(step).arg(imageName);
}

void tst_SWUpdate::stepUpdate(int nbSteps, int step, const QString& imageName, quint8 percentage)
{
    QCOMPARE(nbSteps, 1);
    QCOMPARE(step, 1);
    QCOMPARE(imageName, latin1("payload"));
    m_percentages << percentage;
}

void tst_SWUpdate::updateFinished(bool success)
{
    m_progress << latin1(success ? "success" : "failure");
}

void tst_SWUpdate::updateDone(const QString&)
{
    m_progress << latin1("done");
}

void tst_SWUpdate::verifyInstalled()
{
    NTRY_COMPARE(m_results, QStringList() << latin1("success"));
    QVERIFY(readFile(path("installed")) == m_payload);
    QVERIFY(m_statuses.contains(latin1("3 SWUPDATE successful !")));
    QCOMPARE(m_statuses.last(), latin1("0 Waiting for requests..."));
    QCOMPARE(m_errors, QStringList());
    NTRY_VERIFY(m_progress.contains(latin1("success")));
    QVERIFY(m_progress.contains(latin1("started 0 1 info text")));
    QVERIFY(m_progress.contains(latin1("step 1 1 payload")));
    QVERIFY(m_percentages.size() > 1);
    for (int index = 1; index < m_percentages.size(); ++index)
        QVERIFY(m_percentages.at(index - 1) < m_percentages.at(index));
    QCOMPARE(m_percentages.last(), 100);
}

void tst_SWUpdate::verifyRejected()
{
    NTRY_COMPARE(m_results, QStringList() << latin1("failure"));
    QCOMPARE(m_errors, QStringList() << latin1("Image invalid or corrupted. Not installing ..."));
    NTRY_VERIFY(m_progress.contains(latin1("failure")));
    QVERIFY(!m_progress.contains(latin1("success")));
    QVERIFY(readFile(path("installed")) != m_payload);
}

void tst_SWUpdate::fileIsInstalled()
{
    QVERIFY(m_installer->startImageInstallation(path("package.swu"), latin1("info text")));
    verifyInstalled();
}

void tst_SWUpdate::imageInMemoryIsInstalled()
{
    QVERIFY(m_installer->startImageInstallation(
        m_package.constData(), quint64(m_package.size()), latin1("info text")));
    verifyInstalled();
}

void tst_SWUpdate::streamedImageIsInstalled()
{
    m_writer = m_installer->startInstallation(latin1("info text"));
    QVERIFY(m_writer);
    m_written = 0;
    connect(m_writer, SIGNAL(bytesWritten()), SLOT(writeMore()));
    connect(m_writer, SIGNAL(imageWritingSocketDisconnected()), m_writer, SLOT(endWriting()));
    writeMore();
    verifyInstalled();
}

void tst_SWUpdate::changedPayloadIsRejected()
{
    QByteArray changed = m_payload;
    changed[PayloadSize / 2] = char(changed.at(PayloadSize / 2) + 1);
    QVERIFY(!makePackage(changed, m_payload).isEmpty());
    QVERIFY(m_installer->startImageInstallation(path("package.swu"), latin1("info text")));
    verifyRejected();
    QCOMPARE(m_statuses.filter(latin1("HASH mismatch")).size(), 1);
}

void tst_SWUpdate::rubbishIsRejected()
{
    QVERIFY(m_installer->startImageInstallation(m_payload.constData(), PayloadSize, latin1("info text")));
    verifyRejected();
}

void tst_SWUpdate::incompletePackageIsRejected()
{
    QVERIFY(m_installer->startImageInstallation(m_package.constData(), PayloadSize / 2, latin1("info text")));
    verifyRejected();
    init();
    QVERIFY(m_installer->startImageInstallation(
        m_package.constData(), quint64(m_package.size()), latin1("info text")));
    verifyInstalled();
}

void tst_SWUpdate::daemonTakesOneInstallationAtATime()
{
    NSWUpdateInstaller other(path("sockinstctrl"), nullptr);
    other.setRecordLayout(m_installer->recordLayout());
    QVERIFY(m_installer->startImageInstallation(
        m_package.constData(), quint64(m_package.size()), latin1("info text")));
    NTRY_VERIFY(m_progress.contains(latin1("started 0 1 info text")));
    QVERIFY(!other.startInstallation(QString()));
    verifyInstalled();
}

void tst_SWUpdate::postUpdateSucceeds()
{
    QVERIFY(m_installer->sendPostUpdate());
    QVERIFY(m_installer->sendPostUpdate(latin1("argument")));
}

QTEST_MAIN(tst_SWUpdate)
#include "tst_swupdate.moc"
