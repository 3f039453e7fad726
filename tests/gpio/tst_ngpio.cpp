// The arguments of the command ngpio. No line of this machine is touched.
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

namespace {

struct Result
{
    int status;
    QByteArray output;
    QByteArray error;
};

Result run(const char* program, const QStringList& arguments)
{
    QProcess process;
    process.start(QString::fromLocal8Bit(program), arguments, QIODevice::ReadOnly);
    process.waitForFinished();
    const Result result = {
        process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
        process.readAllStandardError()};
    return result;
}

QStringList wordsOf(const QByteArray& text)
{
    return text.isEmpty() ? QStringList() : QString::fromLatin1(text.constData()).split(QLatin1Char(' '));
}

const QByteArray Unknown("no-chip:1: there is no such line");

} // namespace

class tst_NGpio : public QObject
{
    Q_OBJECT

private slots:
    void helpAndVersionArePrinted();
    void wrongArgumentsAreRefused_data();
    void wrongArgumentsAreRefused();
    void rightArgumentsAreAccepted_data();
    void rightArgumentsAreAccepted();
    void watchingAndDrivingWaitForTheLine_data();
    void watchingAndDrivingWaitForTheLine();
    void fullStandardOutputIsAFailure();
    void exampleNeedsTwoLines();
};

void tst_NGpio::helpAndVersionArePrinted()
{
    const QList<QByteArray> requests = QList<QByteArray>() << "--help"
                                                           << "-h"
                                                           << "list --help"
                                                           << "drive --help";
    for (const QByteArray& arguments : requests) {
        const Result help = run(NGPIO, wordsOf(arguments));
        QCOMPARE(help.status, 0);
        QVERIFY(help.output.startsWith("Usage: ngpio list"));
        QVERIFY(help.error.isEmpty());
        const QList<QByteArray> lines = help.output.split('\n');
        for (const QByteArray& line : lines)
            QVERIFY2(line.size() <= 105, line.constData());
    }
    const Result version = run(NGPIO, wordsOf("--version"));
    QCOMPARE(version.status, 0);
    QCOMPARE(version.output, QByteArray("ngpio " NGPIO_VERSION "\n"));
}

void tst_NGpio::wrongArgumentsAreRefused_data()
{
    QTest::addColumn<QByteArray>("error");
    QTest::newRow("") << QByteArray("no task is given");
    QTest::newRow("show X") << QByteArray("\"show\" is not one of list, read, watch, drive");
    QTest::newRow("read") << QByteArray("no line is given");
    QTest::newRow("watch --changes 1") << QByteArray("no line is given");
    QTest::newRow("drive") << QByteArray("no line is given");
    QTest::newRow("drive X") << QByteArray("\"X\" is not of the form LINE=active or LINE=inactive");
    QTest::newRow("drive X=1") << QByteArray("\"1\" is not one of active, inactive");
    QTest::newRow("read --wrong X") << QByteArray("unknown option --wrong");
    QTest::newRow("read X --bias") << QByteArray("--bias needs a value");
    QTest::newRow("read --bias up X") << QByteArray("\"up\" is not one of unchanged, none, pull-up, pull-down");
    QTest::newRow("read --debounce 1.5 X") << QByteArray("\"1.5\" is not a number from 0 to 1000000");
    QTest::newRow("read --debounce -1 X") << QByteArray("\"-1\" is not a number from 0 to 1000000");
    QTest::newRow("watch --changes 0 X") << QByteArray("\"0\" is not a number from 1 to 1000000");
    QTest::newRow("watch --for 1000001 X") << QByteArray("\"1000001\" is not a number from 0 to 1000000");
    QTest::newRow("drive --output drain X=active")
        << QByteArray("\"drain\" is not one of push-pull, open-drain, open-source");
    QTest::newRow("drive --at-end off X=active") << QByteArray("\"off\" is not one of unchanged, low, high");
    QTest::newRow("--normally-closed") << QByteArray("--normally-closed is not an option of this task");
    QTest::newRow("list --bias none") << QByteArray("--bias is not an option of this task");
    QTest::newRow("read --for 1 X") << QByteArray("--for is not an option of this task");
    QTest::newRow("read --changes 1 X") << QByteArray("--changes is not an option of this task");
    QTest::newRow("watch --at-end low X") << QByteArray("--at-end is not an option of this task");
    QTest::newRow("drive --debounce 1 X=active") << QByteArray("--debounce is not an option of this task");
}

void tst_NGpio::wrongArgumentsAreRefused()
{
    QFETCH(QByteArray, error);
    const Result result = run(NGPIO, wordsOf(QTest::currentDataTag()));
    QCOMPARE(result.status, 2);
    QCOMPARE(result.error, "ngpio: " + error + "\nTry \"ngpio --help\".\n");
    QVERIFY(result.output.isEmpty());
}

void tst_NGpio::rightArgumentsAreAccepted_data()
{
    QTest::addColumn<QByteArray>("error");
    QTest::newRow("list no-chip") << QByteArray("no-chip: there is no such chip");
    QTest::newRow("read no-chip:1") << Unknown;
    QTest::newRow("read --bias pull-down --debounce 1000000 --normally-closed no-chip:1") << Unknown;
    QTest::newRow("read --bias=none no-chip:1 --debounce=0") << Unknown;
    QTest::newRow("read -- --line") << QByteArray("--line: there is no such line");
    QTest::newRow("watch --changes 1 --for 0 no-chip:1 no-chip:2") << Unknown;
    QTest::newRow("drive --output open-source --at-end high --for 0 no-chip:1=inactive") << Unknown;
    QTest::newRow("drive --for 0 A=B=active") << QByteArray("A=B: there is no such line");
}

void tst_NGpio::rightArgumentsAreAccepted()
{
    QFETCH(QByteArray, error);
    const Result result = run(NGPIO, wordsOf(QTest::currentDataTag()));
    QCOMPARE(result.status, 1);
    QCOMPARE(result.error, "ngpio: " + error + '\n');
}

void tst_NGpio::watchingAndDrivingWaitForTheLine_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::newRow("watch") << QByteArray("watch no-chip:1");
    QTest::newRow("drive") << QByteArray("drive no-chip:1=active");
}

void tst_NGpio::watchingAndDrivingWaitForTheLine()
{
    QFETCH(QByteArray, arguments);
    QProcess process;
    process.start(QString::fromLocal8Bit(NGPIO), wordsOf(arguments), QIODevice::ReadOnly);
    QByteArray output;
    while (!output.endsWith('\n') && process.waitForReadyRead())
        output += process.readAllStandardOutput();
    QVERIFY2(
        QRegExp(QLatin1String("\\[ *\\d+\\.\\d{6}\\] no-chip:1 invalid: there is no such line\n"))
            .exactMatch(QString::fromLatin1(output.constData())),
        output.constData());
    process.terminate();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 1);
}

void tst_NGpio::fullStandardOutputIsAFailure()
{
    QProcess process;
    process.setStandardOutputFile(QLatin1String("/dev/full"));
    process.start(QString::fromLocal8Bit(NGPIO), wordsOf("watch no-chip:1"), QIODevice::ReadOnly);
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 1);
    QCOMPARE(process.readAllStandardError(), QByteArray("ngpio: standard output: No space left on device\n"));
}

void tst_NGpio::exampleNeedsTwoLines()
{
    QCOMPARE(run(DOORLIGHT, wordsOf("no-chip:1")).status, 2);
}

QTEST_MAIN(tst_NGpio)
#include "tst_ngpio.moc"
