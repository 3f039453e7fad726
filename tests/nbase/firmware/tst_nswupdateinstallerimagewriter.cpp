#include <nbase/firmware/nswupdateinstallerimagewriter.h>

#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtTest/QtTest>

#include <functional>

class tst_NSwUpdateInstallerImageWriter : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void writtenBytesArrive();
    void bytesWrittenIsReportedWhenTheQueueIsEmpty();
    void flushSendsTheQueueAtOnce();
    void flushReportsAQueueThatIsLeft();
    void flushReportsALostQueue();
    void endingWithAnEmptyQueueReportsAtOnce();
    void endingWithAQueueReportsWhenItIsEmpty();
    void endingInBytesWrittenReportsOnce();
    void endingInBytesWrittenWithMoreInTheQueueWaitsForIt();
    void endingTwiceReportsOnce();
    void nothingIsWrittenAfterTheEnd();
    void lostConnectionIsReported();
    void endingALostConnectionReportsAtOnce();
    void lostQueueEndsAWriterThatWaitsForIt();
    void endingInTheReportOfALostConnectionReportsOnce();
    void writerMayBeDeletedInItsSignals_data();
    void writerMayBeDeletedInItsSignals();

public slots:
    // Not private, or they would be tests.
    void bytesWritten() { note("bytes"); }
    void imageWritten() { note("image"); }
    void disconnected() { note("disconnected"); }

private:
    void note(const char* event)
    {
        m_events << latin1(event);
        if (m_reaction)
            m_reaction(latin1(event));
    }

    // The daemon's end reads nothing, so that the sender's queue stays.
    void fillQueue();

    NTemporaryDirectory m_directory;
    QLocalServer* m_server;
    QLocalSocket* m_socket;
    QLocalSocket* m_peer;
    NSwUpdateInstallerImageWriter* m_writer;
    QStringList m_events;
    std::function<void(const QString&)> m_reaction;
};

void tst_NSwUpdateInstallerImageWriter::init()
{
    m_events.clear();
    m_reaction = nullptr;
    m_server = new QLocalServer;
    QVERIFY(m_server->listen(m_directory.filePath(latin1("image"))));
    m_socket = new QLocalSocket;
    m_socket->connectToServer(m_server->fullServerName());
    QVERIFY(m_socket->waitForConnected());
    QVERIFY(m_server->waitForNewConnection(30000));
    m_peer = m_server->nextPendingConnection();
    m_writer = new NSwUpdateInstallerImageWriter(m_socket, this);
    connect(m_writer, SIGNAL(bytesWritten()), SLOT(bytesWritten()));
    connect(m_writer, SIGNAL(imageWritten()), SLOT(imageWritten()));
    connect(m_writer, SIGNAL(imageWritingSocketDisconnected()), SLOT(disconnected()));
}

void tst_NSwUpdateInstallerImageWriter::cleanup()
{
    qDeleteAll(findChildren<NSwUpdateInstallerImageWriter*>());
    delete m_socket;
    delete m_server;
}

void tst_NSwUpdateInstallerImageWriter::fillQueue()
{
    m_peer->setReadBufferSize(1);
    const QByteArray bytes(10000000, 'x');
    QCOMPARE(m_writer->write(bytes), qint64(bytes.size()));
}

void tst_NSwUpdateInstallerImageWriter::writtenBytesArrive()
{
    QCOMPARE(m_writer->write("abc", 2), qint64(2));
    QCOMPARE(m_writer->write(QByteArray("c\0d", 3)), qint64(3));
    NTRY_COMPARE(m_peer->bytesAvailable(), qint64(5));
    QCOMPARE(m_peer->readAll(), QByteArray("abc\0d", 5));
}

void tst_NSwUpdateInstallerImageWriter::bytesWrittenIsReportedWhenTheQueueIsEmpty()
{
    fillQueue();
    NTRY_VERIFY(m_peer->bytesAvailable() > 0);
    QVERIFY(m_socket->bytesToWrite() > 0);
    QCOMPARE(m_events, QStringList());
    m_peer->setReadBufferSize(0);
    m_peer->readAll();
    NTRY_COMPARE(m_socket->bytesToWrite(), qint64(0));
    QCOMPARE(m_events, QStringList() << latin1("bytes"));
    m_writer->write("more");
    NTRY_COMPARE(m_events.size(), 2);
    QCOMPARE(m_events.last(), latin1("bytes"));
}

void tst_NSwUpdateInstallerImageWriter::flushSendsTheQueueAtOnce()
{
    QVERIFY(m_writer->flush());
    QCOMPARE(m_events, QStringList());
    m_writer->write("image");
    QVERIFY(m_writer->flush());
    QCOMPARE(m_socket->bytesToWrite(), qint64(0));
    QCOMPARE(m_events, QStringList() << latin1("bytes"));
    NTRY_COMPARE(m_peer->bytesAvailable(), qint64(5));

    // Inside the signal as well, where it is not emitted again.
    m_reaction = [this](const QString&) {
        m_reaction = nullptr;
        m_writer->write("more");
        QVERIFY(m_writer->flush());
    };
    m_writer->write("image");
    NTRY_COMPARE(m_peer->bytesAvailable(), qint64(14));
    QVERIFY(m_events.size() >= 2);
    m_writer->endWriting();
    QCOMPARE(m_events.last(), latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::flushReportsAQueueThatIsLeft()
{
    fillQueue();
    QVERIFY(!m_writer->flush());
    QVERIFY(m_socket->bytesToWrite() > 0);
    QCOMPARE(m_events, QStringList());
    m_peer->setReadBufferSize(0);
    m_peer->readAll();
    NTRY_COMPARE(m_events, QStringList() << latin1("bytes"));
    QVERIFY(m_writer->flush());
}

void tst_NSwUpdateInstallerImageWriter::flushReportsALostQueue()
{
    fillQueue();
    m_peer->abort();
    NTRY_COMPARE(m_events, QStringList() << latin1("disconnected"));
    QVERIFY(m_writer->flush());
    QCOMPARE(m_writer->write("x"), qint64(-1));
}

void tst_NSwUpdateInstallerImageWriter::endingWithAnEmptyQueueReportsAtOnce()
{
    m_writer->endWriting();
    QCOMPARE(m_events, QStringList() << latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::endingWithAQueueReportsWhenItIsEmpty()
{
    m_writer->write("image");
    m_writer->endWriting();
    QCOMPARE(m_events, QStringList());
    NTRY_COMPARE(m_events, QStringList() << latin1("bytes") << latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::endingInBytesWrittenReportsOnce()
{
    m_reaction = [this](const QString& event) {
        if (event == latin1("bytes"))
            m_writer->endWriting();
    };
    m_writer->write("image");
    NTRY_COMPARE(m_events, QStringList() << latin1("bytes") << latin1("image"));
    QTest::qWait(0);
    QCOMPARE(m_events.size(), 2);
}

void tst_NSwUpdateInstallerImageWriter::endingInBytesWrittenWithMoreInTheQueueWaitsForIt()
{
    m_reaction = [this](const QString& event) {
        if (event != latin1("bytes"))
            return;
        m_reaction = nullptr;
        m_writer->write("more");
        m_writer->endWriting();
    };
    m_writer->write("image");
    NTRY_COMPARE(m_events, QStringList() << latin1("bytes") << latin1("bytes") << latin1("image"));
    NTRY_COMPARE(m_peer->bytesAvailable(), qint64(9));
}

void tst_NSwUpdateInstallerImageWriter::endingTwiceReportsOnce()
{
    m_writer->endWriting();
    m_writer->endWriting();
    QCOMPARE(m_events, QStringList() << latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::nothingIsWrittenAfterTheEnd()
{
    m_writer->endWriting();
    QCOMPARE(m_writer->write("x", 1), qint64(-1));
    QCOMPARE(m_writer->write(QByteArray("x")), qint64(-1));
    QCOMPARE(m_socket->bytesToWrite(), qint64(0));
}

void tst_NSwUpdateInstallerImageWriter::lostConnectionIsReported()
{
    m_peer->abort();
    NTRY_COMPARE(m_events, QStringList() << latin1("disconnected"));
    QCOMPARE(m_writer->write("x"), qint64(-1));
}

void tst_NSwUpdateInstallerImageWriter::endingALostConnectionReportsAtOnce()
{
    m_peer->abort();
    NTRY_COMPARE(m_events.size(), 1);
    m_writer->endWriting();
    QCOMPARE(m_events, QStringList() << latin1("disconnected") << latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::lostQueueEndsAWriterThatWaitsForIt()
{
    fillQueue();
    m_writer->endWriting();
    NTRY_VERIFY(m_peer->bytesAvailable() > 0);
    QCOMPARE(m_events, QStringList());
    m_peer->abort();
    NTRY_COMPARE(m_events, QStringList() << latin1("disconnected") << latin1("image"));
}

void tst_NSwUpdateInstallerImageWriter::endingInTheReportOfALostConnectionReportsOnce()
{
    m_reaction = [this](const QString& event) {
        if (event == latin1("disconnected"))
            m_writer->endWriting();
    };
    m_peer->abort();
    NTRY_COMPARE(m_events, QStringList() << latin1("disconnected") << latin1("image"));
    QTest::qWait(0);
    QCOMPARE(m_events.size(), 2);
}

void tst_NSwUpdateInstallerImageWriter::writerMayBeDeletedInItsSignals_data()
{
    QTest::addColumn<QString>("signal");
    QTest::newRow("bytes written") << latin1("bytes");
    QTest::newRow("image written") << latin1("image");
    QTest::newRow("connection lost") << latin1("disconnected");
}

void tst_NSwUpdateInstallerImageWriter::writerMayBeDeletedInItsSignals()
{
    QFETCH(QString, signal);
    const QPointer<NSwUpdateInstallerImageWriter> guard(m_writer);
    m_reaction = [&](const QString& event) {
        if (event == signal)
            delete m_writer;
    };
    if (signal == latin1("disconnected")) {
        m_peer->abort();
    } else {
        m_writer->write("image");
        m_writer->endWriting();
    }
    NTRY_VERIFY(!guard);
    QTest::qWait(0);
    QCOMPARE(m_events.last(), signal);
}

QTEST_MAIN(tst_NSwUpdateInstallerImageWriter)
#include "tst_nswupdateinstallerimagewriter.moc"
