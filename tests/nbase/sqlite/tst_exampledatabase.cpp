#include "support/ntemporarydirectory.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray run(const char* program, const QStringList& arguments, QByteArray* messages = nullptr)
{
    QProcess process;
    process.start(text(program), arguments);
    if (!process.waitForFinished() || process.exitCode() != 0)
        return "failed: " + process.readAllStandardError();
    if (messages)
        *messages = process.readAllStandardError();
    return process.readAllStandardOutput();
}

} // namespace

/** The example of a database of one's own, run as a program. */
class tst_ExampleDatabase : public QObject
{
    Q_OBJECT

private slots:
    void readingsAreCountedFromStartToStart();
    void databaseOfVersionOneIsConverted();
    void callWithoutAFileIsRefused();
};

void tst_ExampleDatabase::readingsAreCountedFromStartToStart()
{
    const NTemporaryDirectory directory;
    const QStringList file(directory.filePath(text("data/sensors.db")));
    QCOMPARE(run(NBASE_EXAMPLE, file), QByteArray("boiler (degrees): 1\n"));
    QByteArray messages;
    QCOMPARE(run(NBASE_EXAMPLE, file, &messages), QByteArray("boiler (degrees): 2\n"));
    QCOMPARE(messages, QByteArray());
}

void tst_ExampleDatabase::databaseOfVersionOneIsConverted()
{
    const NTemporaryDirectory directory;
    const QString file = directory.filePath(text("sensors.db"));
    const QString versionOne = text(
        "CREATE TABLE sensors(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);"
        "CREATE TABLE readings(sensor INTEGER NOT NULL REFERENCES sensors(id) ON DELETE CASCADE, value REAL);"
        "INSERT INTO sensors VALUES(1, 'boiler'), (2, 'attic'); INSERT INTO readings VALUES(1, 1.5), (1, 2.5), "
        "(2, 3.5); PRAGMA user_version=1");
    QCOMPARE(run("sqlite3", QStringList() << file << versionOne), QByteArray());
    QByteArray messages;
    QCOMPARE(run(NBASE_EXAMPLE, QStringList(file), &messages), QByteArray("attic (): 1\nboiler (): 3\n"));
    QVERIFY2(
        messages.contains("The database \"sensors\" has been converted from version 1 to version 2"),
        messages.constData());
    QCOMPARE(
        run("sqlite3",
            QStringList() << file << text("SELECT group_concat(value) FROM readings; PRAGMA user_version")),
        QByteArray("1.5,2.5,3.5,21.5\n2\n"));
}

void tst_ExampleDatabase::callWithoutAFileIsRefused()
{
    QVERIFY(run(NBASE_EXAMPLE, QStringList()).startsWith("failed: usage: "));
}

QTEST_MAIN(tst_ExampleDatabase)
#include "tst_exampledatabase.moc"
