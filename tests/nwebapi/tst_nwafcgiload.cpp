#include <support/nlighttpd.h>
#include <support/ntemporarydirectory.h>

#include <QtTest/QtTest>

/**
 * Runs the load test against a small program behind a real web server for 5 seconds, or for the number of seconds
 * in the environment variable NBASE_LOAD_TEST_SECONDS.
 */
class tst_NwaFcgiLoad : public QObject
{
    Q_OBJECT

private slots:
    void loadLeavesMemoryAndDescriptorsUnchanged();
};

void tst_NwaFcgiLoad::loadLeavesMemoryAndDescriptorsUnchanged()
{
    // The address sanitizer delays the reuse of freed memory, which would look like a leak here.
    const QByteArray options = qgetenv("ASAN_OPTIONS");
    qputenv(
        "ASAN_OPTIONS", (options.isEmpty() ? QByteArray() : options + ':') +
                            "quarantine_size_mb=0:thread_local_quarantine_size_kb=0");
    NLighttpd lighttpd;
    QVERIFY2(
        lighttpd.start(lighttpd.spawnedFastCgi(
            QString::fromLatin1("/documents"), QString::fromLocal8Bit(NFCGI_DOCUMENTS_PROGRAM))),
        lighttpd.log().constData());
    QProcess asker;
    asker.start(
        QString::fromLatin1("curl"),
        QStringList() << QString::fromLatin1("-s") << lighttpd.url(QString::fromLatin1("/documents/pid")));
    QVERIFY(asker.waitForFinished());
    const QByteArray processNumber = asker.readAllStandardOutput();

    const QByteArray seconds = qgetenv("NBASE_LOAD_TEST_SECONDS");
    QProcess loader;
    loader.start(
        QString::fromLatin1(NFCGI_LOAD_SCRIPT),
        QStringList() << QString::fromLatin1("--connections") << QString::fromLatin1("64")
                      << QString::fromLatin1("--duration")
                      << QString::fromLatin1(seconds.isEmpty() ? QByteArray("5") : seconds)
                      << QString::fromLatin1("--pid") << QString::fromLatin1(processNumber)
                      << lighttpd.url(QString::fromLatin1("/documents/100"))
                      << lighttpd.url(QString::fromLatin1("/documents/10000"))
                      << lighttpd.url(QString::fromLatin1("/documents/70000")));
    QVERIFY(loader.waitForFinished(-1));
    const QByteArray output = loader.readAllStandardOutput();
    QVERIFY2(loader.exitCode() == 0, (output + loader.readAllStandardError()).constData());
    qDebug("%s", output.trimmed().constData());
}

QTEST_MAIN(tst_NwaFcgiLoad)
#include "tst_nwafcgiload.moc"
