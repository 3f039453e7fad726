#include <nbase/firmware/progress_ipc.h>

#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QtEndian>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* const Trying = "Trying to connect to SWUpdate...\n";

// Each field has a value of its own.
QByteArray testRecord()
{
    QByteArray record(2400, '\0');
    const int offsets[] = {0, 4, 8, 12, 16, 20, 344, 348};
    for (int index = 0; index < 8; ++index)
        qToLittleEndian<quint32>(quint32(index + 11), reinterpret_cast<uchar*>(record.data() + offsets[index]));
    record.replace(24, 5, "image");
    record.replace(280, 7, "handler");
    record.replace(352, 4, "text");
    return record;
}

const char* const RecordText = "2400: 11 12 13 14 15 16 image handler 17 18 text\n";

} // namespace

class tst_ProgressIpc : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void pathIsThatOfTheDaemon();
    void recordIsReceived();
    void recordMayComeInPieces();
    void endOfTheConnectionIsReported_data();
    void endOfTheConnectionIsReported();
    void failedConnectionEndsTheProgram_data();
    void failedConnectionEndsTheProgram();
    void reconnectionWaitsForTheDaemon();
    void descriptorIsNotInherited();
    void failedReadClosesTheDescriptor();

private:
    void start(const char* reconnect, int records);
    bool accept();
    QByteArray output();

    NTemporaryDirectory m_directory;
    QString m_path;
    QLocalServer m_server;
    QLocalSocket* m_connection;
    QProcess m_program;
};

void tst_ProgressIpc::init()
{
    m_path = m_directory.filePath(latin1("progress"));
    QVERIFY(m_server.listen(m_path));
}

void tst_ProgressIpc::cleanup()
{
    m_server.close();
    if (m_program.state() != QProcess::NotRunning) {
        m_program.kill();
        m_program.waitForFinished();
    }
}

void tst_ProgressIpc::start(const char* reconnect, int records)
{
    m_program.start(
        latin1(PROGRESS_PROGRAM), QStringList() << m_path << latin1(reconnect) << QString::number(records));
}

bool tst_ProgressIpc::accept()
{
    const bool isConnected = m_server.waitForNewConnection(30000);
    m_connection = m_server.nextPendingConnection();
    return isConnected && m_connection;
}

QByteArray tst_ProgressIpc::output()
{
    m_program.waitForFinished();
    return m_program.readAllStandardOutput();
}

void tst_ProgressIpc::pathIsThatOfTheDaemon()
{
    QCOMPARE(QByteArray(SOCKET_PROGRESS_PATH), QByteArray("/tmp/swupdateprog"));
    QCOMPARE(sizeof(progress_msg), size_t(2400));
}

void tst_ProgressIpc::recordIsReceived()
{
    start("0", 2);
    QVERIFY(accept());
    m_connection->write(testRecord() + testRecord());
    QVERIFY(m_connection->waitForBytesWritten());
    QCOMPARE(
        output(), QByteArray(Trying) + "Connected to SWUpdate via " + QFile::encodeName(m_path) + "\n" +
                      RecordText + RecordText);
    QCOMPARE(m_program.exitCode(), 0);
    QCOMPARE(m_program.readAllStandardError(), QByteArray());
}

void tst_ProgressIpc::recordMayComeInPieces()
{
    start("0", 1);
    QVERIFY(accept());
    const QByteArray record = testRecord();
    for (int offset = 0; offset < record.size(); offset += 500) {
        m_connection->write(record.mid(offset, 500));
        QVERIFY(m_connection->waitForBytesWritten());
        QTest::qWait(1);
    }
    QVERIFY(output().endsWith(RecordText));
}

void tst_ProgressIpc::endOfTheConnectionIsReported_data()
{
    QTest::addColumn<int>("size");
    for (int size : {0, 1, 2399})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_ProgressIpc::endOfTheConnectionIsReported()
{
    QFETCH(int, size);
    start("1", 2);
    QVERIFY(accept());
    m_connection->write(testRecord() + testRecord().left(size));
    QVERIFY(m_connection->waitForBytesWritten());
    m_connection->disconnectFromServer();
    QVERIFY(output().endsWith(QByteArray(RecordText) + "Connection closing..\n-1 -1\n"));
    QCOMPARE(m_program.exitCode(), 3);
}

void tst_ProgressIpc::failedConnectionEndsTheProgram_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("no socket") << latin1("missing");
    QTest::newRow("path too long") << QString(120, QLatin1Char('x'));
}

void tst_ProgressIpc::failedConnectionEndsTheProgram()
{
    QFETCH(QString, name);
    m_path = m_directory.filePath(name);
    start("0", 1);
    QCOMPARE(output(), QByteArray(Trying));
    QCOMPARE(
        m_program.readAllStandardError(),
        "cannot communicate with SWUpdate via " + QFile::encodeName(m_path) + "\n");
    QCOMPARE(int(m_program.exitStatus()), int(QProcess::NormalExit));
    QCOMPARE(m_program.exitCode(), 1);
}

void tst_ProgressIpc::reconnectionWaitsForTheDaemon()
{
    m_server.close();
    start("1", 1);
    QByteArray text;
    NTRY_VERIFY((text += m_program.readAllStandardOutput()) == Trying);
    QTest::qWait(30);
    QVERIFY(m_server.listen(m_path));
    QVERIFY(accept());
    m_connection->write(testRecord());
    QVERIFY(m_connection->waitForBytesWritten());
    text += output();
    // One report for all attempts.
    QCOMPARE(text.count("Trying"), 1);
    QVERIFY(text.endsWith(RecordText));
    QCOMPARE(m_program.readAllStandardError(), QByteArray());
}

void tst_ProgressIpc::descriptorIsNotInherited()
{
    char* const defaultPath = SOCKET_PROGRESS_PATH;
    QByteArray path = QFile::encodeName(m_path);
    SOCKET_PROGRESS_PATH = path.data();
    const NFileDescriptor socket(progress_ipc_connect(false));
    SOCKET_PROGRESS_PATH = defaultPath;
    QVERIFY(socket.isOpen());
    QVERIFY(::fcntl(socket.number(), F_GETFD) & FD_CLOEXEC);
}

void tst_ProgressIpc::failedReadClosesTheDescriptor()
{
    int ends[2];
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    const NFileDescriptor other(ends[1]);
    int socket = ends[0];
    progress_msg record;
    QCOMPARE(progress_ipc_receive(&socket, &record), -1);
    QCOMPARE(socket, -1);
    QCOMPARE(::fcntl(ends[0], F_GETFD), -1);
    QCOMPARE(progress_ipc_receive(&socket, &record), -1);
    QCOMPARE(socket, -1);
}

QTEST_MAIN(tst_ProgressIpc)
#include "tst_progress_ipc.moc"
