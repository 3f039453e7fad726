#include <nbase/firmware/nswupdateinstaller.h>

#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <memory>

// The program of the stand-in daemon.
class tst_UpdateDaemon : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void helpIsPrinted();
    void wrongOptionIsRefused_data();
    void wrongOptionIsRefused();
    void packageIsInstalled();
    void onlyImagesWithTheTextFail();
    void onlyWholeArchivesAreInstalled_data();
    void onlyWholeArchivesAreInstalled();
    void optionsAreReadFromStandardInput();
    void exampleInstallsAPackage_data();
    void exampleInstallsAPackage();
    void terminationRemovesTheSockets();

private:
    void start(const char* options);
    QByteArray command(const char* line);
    QString path(const char* name) const { return m_directory->filePath(latin1(name)); }

    std::unique_ptr<NTemporaryDirectory> m_directory;
    QProcess m_program;
};

void tst_UpdateDaemon::init()
{
    m_directory.reset(new NTemporaryDirectory);
}

void tst_UpdateDaemon::cleanup()
{
    if (m_program.state() != QProcess::NotRunning) {
        m_program.terminate();
        m_program.waitForFinished();
    }
    m_directory.reset();
}

void tst_UpdateDaemon::start(const char* options)
{
    QStringList arguments = QStringList() << path("control") << path("progress");
    if (options[0] != '\0')
        arguments += latin1(options).split(QLatin1Char(' '));
    m_program.start(latin1(UPDATER_PROGRAM), arguments);
    NTRY_VERIFY(m_program.canReadLine());
    QCOMPARE(m_program.readLine(), QByteArray("ready\n"));
}

QByteArray tst_UpdateDaemon::command(const char* line)
{
    m_program.write(QByteArray(line) + '\n');
    NTest::waitUntil([this]() { return m_program.canReadLine(); });
    return m_program.readLine();
}

void tst_UpdateDaemon::helpIsPrinted()
{
    m_program.start(latin1(UPDATER_PROGRAM), QStringList() << latin1("--help"));
    QVERIFY(m_program.waitForFinished());
    QCOMPARE(m_program.exitCode(), 0);
    QVERIFY(m_program.readAllStandardOutput().startsWith("usage: nbase-demo-updater "));
}

void tst_UpdateDaemon::wrongOptionIsRefused_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("unknown") << latin1("--unknown 1");
    QTest::newRow("without dashes") << latin1("steps 1");
    QTest::newRow("without value") << latin1("--steps");
    QTest::newRow("no number") << latin1("--steps many");
    QTest::newRow("negative") << latin1("--steps -1");
    QTest::newRow("other size") << latin1("--control-size 2073");
    QTest::newRow("unknown fault") << latin1("--fault image=explode");
    QTest::newRow("unknown point") << latin1("--fault moon=silence");
}

void tst_UpdateDaemon::wrongOptionIsRefused()
{
    QFETCH(QString, option);
    m_program.start(
        latin1(UPDATER_PROGRAM), QStringList()
                                     << path("control") << path("progress") << option.split(QLatin1Char(' ')));
    QVERIFY(m_program.waitForFinished());
    QCOMPARE(m_program.exitCode(), 1);
    QVERIFY(m_program.readAllStandardError().startsWith("usage: "));
    QVERIFY(!QFile::exists(path("control")));
}

void tst_UpdateDaemon::packageIsInstalled()
{
    start("--step-time 10");
    NSWUpdateInstaller installer(path("control"), nullptr);
    QSignalSpy finished(&installer, SIGNAL(finished(bool)));
    QVERIFY(installer.startImageInstallation("image", 5, QString()));
    NTRY_COMPARE(finished.size(), 1);
    QVERIFY(finished.first().first().toBool());
    QVERIFY(installer.sendPostUpdate());
}

void tst_UpdateDaemon::onlyImagesWithTheTextFail()
{
    start("--step-time 10 --steps 2 --fail-text this_fails");
    NSWUpdateInstaller installer(path("control"), nullptr);
    QSignalSpy finished(&installer, SIGNAL(finished(bool)));
    QVERIFY(installer.startImageInstallation("this works", 10, QString()));
    NTRY_COMPARE(finished.size(), 1);
    QVERIFY(installer.startImageInstallation("but this fails", 14, QString()));
    NTRY_COMPARE(finished.size(), 2);
    QVERIFY(finished.at(0).first().toBool());
    QVERIFY(!finished.at(1).first().toBool());
}

void tst_UpdateDaemon::onlyWholeArchivesAreInstalled_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<bool>("isInstalled");
    QTest::newRow("whole") << QByteArray("070701 TRAILER!!!") << true;
    QTest::newRow("padded") << QByteArray("070701 TRAILER!!!") + QByteArray(4000, '\0') << true;
    QTest::newRow("in many pieces") << "070701" + QByteArray(100000, 'x') + "TRAILER!!!" << true;
    QTest::newRow("no archive") << QByteArray("image TRAILER!!!") << false;
    QTest::newRow("incomplete") << "070701" + QByteArray(100000, 'x') << false;
}

void tst_UpdateDaemon::onlyWholeArchivesAreInstalled()
{
    QFETCH(QByteArray, image);
    QFETCH(bool, isInstalled);
    start("--step-time 10 --cpio 1");
    NSWUpdateInstaller installer(path("control"), nullptr);
    QSignalSpy finished(&installer, SIGNAL(finished(bool)));
    QVERIFY(installer.startImageInstallation(image.constData(), quint64(image.size()), QString()));
    NTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished.first().first().toBool(), isInstalled);
}

void tst_UpdateDaemon::optionsAreReadFromStandardInput()
{
    start("--step-time 10");
    const QString output = path("output");
    QCOMPARE(command(("fail-step 1 output " + QFile::encodeName(output)).constData()), QByteArray("ok\n"));
    NSWUpdateInstaller installer(path("control"), nullptr);
    QSignalSpy finished(&installer, SIGNAL(finished(bool)));
    QVERIFY(installer.startImageInstallation("image", 5, QString()));
    NTRY_COMPARE(finished.size(), 1);
    QVERIFY(!finished.first().first().toBool());
    QFile file(output);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("image"));

    QCOMPARE(command("unknown 1"), QByteArray("unknown option or wrong value\n"));
    QCOMPARE(command("reset"), QByteArray("ok\n"));
    QCOMPARE(command("fault install=refuse"), QByteArray("ok\n"));
    QVERIFY(!installer.startInstallation(QString()));
    QCOMPARE(command("fault post-update=rubbish"), QByteArray("ok\n"));
    QVERIFY(!installer.sendPostUpdate());
    QCOMPARE(command("fault none"), QByteArray("ok\n"));
    QVERIFY(installer.sendPostUpdate());
}

void tst_UpdateDaemon::exampleInstallsAPackage_data()
{
    QTest::addColumn<QByteArray>("failure");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("success") << QByteArray("--fail-step 0") << 0;
    QTest::newRow("failure") << QByteArray("--fail-step 2") << 1;
}

void tst_UpdateDaemon::exampleInstallsAPackage()
{
    QFETCH(QByteArray, failure);
    QFETCH(int, exitCode);
    start(("--control-size 3120 --progress-size 2416 --steps 2 --step-time 100 " + failure).constData());
    QProcess example;
    example.start(
        latin1(EXAMPLE_PROGRAM), QStringList() << path("control") << path("progress")
                                               << m_directory->writeFile(latin1("package"), "image"));
    QVERIFY(example.waitForFinished());
    QCOMPARE(example.exitCode(), exitCode);
    const QByteArray output = example.readAllStandardOutput();
    QVERIFY(output.contains("step 1 of 2, image-1.bin: 100 %\n"));
    QCOMPARE(output.contains("status 3: SWUPDATE successful !\n"), exitCode == 0);
    QCOMPARE(output.contains("status 4, error: Image invalid or corrupted. Not installing ...\n"), exitCode == 1);
    QVERIFY(output.contains("status 0: Waiting for requests...\n"));
}

void tst_UpdateDaemon::terminationRemovesTheSockets()
{
    start("");
    QVERIFY(QFile::exists(path("control")));
    m_program.terminate();
    QVERIFY(m_program.waitForFinished());
    QCOMPARE(m_program.exitCode(), 0);
    QVERIFY(!QFile::exists(path("control")));
    QVERIFY(!QFile::exists(path("progress")));
}

QTEST_MAIN(tst_UpdateDaemon)
#include "tst_updatedaemon.moc"
