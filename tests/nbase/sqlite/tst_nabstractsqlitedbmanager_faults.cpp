#include "nsqlitetest.h"

#include "support/nfilefault.h"
#include "support/nprivatenamespace.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

#include <sys/stat.h>

using namespace NSqliteTest;

namespace {

// A table that is created while nothing can be written.
class UnwritableTable : public NTestTable
{
public:
    UnwritableTable(NAbstractSqliteDbManager* manager, const char* name, const char* columns)
        : NTestTable(manager, name, columns)
    {
    }

    bool createTable() override
    {
        const NFileFault fault(NFileFault::Write);
        return NTestTable::createTable();
    }
};

} // namespace

/** Files and disks that cannot be read or written at present. */
class tst_NAbstractSqliteDbManager_Faults : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void readOnlyFileIsOpenedAsItIs();
    void readOnlyFileIsNotInitialised_data();
    void readOnlyFileIsNotInitialised();
    void readOnlyDirectoryIsOpenedAsItIs();
    void readOnlyDirectoryStaysEmpty();
    void readOnlyFileIsNotRepaired();
    void fullDiskKeepsWhatIsThere_data();
    void fullDiskKeepsWhatIsThere();
    void fullDiskRefusesRows();
    void faultDuringAConversionIsNoRefusal_data();
    void faultDuringAConversionIsNoRefusal();
    void faultThatAConversionDoesNotReportKeepsTheVersion();
    void faultThatAConversionOvercomesDoesNotCount();
    void faultDuringTheCreationOfATableKeepsWhatIsThere();
    void unreadablePagesAreNoDamage();
    void anySingleFailureKeepsOldOrNewData_data();
    void anySingleFailureKeepsOldOrNewData();

private:
    void openAndKeepVersionOne(NTestManager& manager);
};

void tst_NAbstractSqliteDbManager_Faults::readOnlyFileIsOpenedAsItIs()
{
    const QString path = makeVersionOne();
    const NWithoutFileOverride permissionsCount;
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
}

void tst_NAbstractSqliteDbManager_Faults::readOnlyFileIsNotInitialised_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("messages");
    QTest::newRow("older") << 1 << text(NotOpened);
    QTest::newRow("newer") << 3 << text(Newer) + text(NotOpened);
}

void tst_NAbstractSqliteDbManager_Faults::readOnlyFileIsNotInitialised()
{
    QFETCH(int, stored);
    QFETCH(QString, messages);
    const QString path = makeDatabase("CREATE TABLE t(a); INSERT INTO t VALUES(1);", stored);
    const QByteArray content = contentOf(path);
    const NWithoutFileOverride permissionsCount;
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
    NTestManager manager(path, 2);
    manager.setConversion([](NTestManager&) { return false; });
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(takeMessages(), lines(messages));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Faults::readOnlyDirectoryIsOpenedAsItIs()
{
    const QString path = makeVersionOne();
    const QString directory = QFileInfo(path).path();
    const NWithoutFileOverride permissionsCount;
    QVERIFY(::chmod(QFile::encodeName(directory).constData(), 0555) == 0);
    {
        NTestManager manager(path);
        manager.openDatabase();
        QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
        NTestManager converter(path, 2);
        converter.setConversion(convertToTwo);
        manager.closeDatabase();
        converter.openDatabase();
        QVERIFY(!converter.database().isValid());
        QCOMPARE(takeMessages(), lines(NotOpened));
        manager.openDatabase();
        QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
    }
    ::chmod(QFile::encodeName(directory).constData(), 0755);
}

void tst_NAbstractSqliteDbManager_Faults::readOnlyDirectoryStaysEmpty()
{
    const QString path = newPath();
    const NWithoutFileOverride permissionsCount;
    const QByteArray directory = QFile::encodeName(QFileInfo(path).path());
    QVERIFY(::chmod(directory.constData(), 0555) == 0);
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(takeMessages(), lines(NotOpened));
    ::chmod(directory.constData(), 0755);
}

void tst_NAbstractSqliteDbManager_Faults::readOnlyFileIsNotRepaired()
{
    const QString path = makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id)); INSERT INTO "
        "child "
        "VALUES(1);",
        1);
    const QByteArray content = contentOf(path);
    const NWithoutFileOverride permissionsCount;
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 2);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QCOMPARE(contentOf(path), content);
}

void tst_NAbstractSqliteDbManager_Faults::fullDiskKeepsWhatIsThere_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("messages");
    QTest::newRow("conversion") << 1 << text(NotOpened);
    QTest::newRow("initialisation") << 3 << text(Newer) + text(NotOpened);
}

void tst_NAbstractSqliteDbManager_Faults::fullDiskKeepsWhatIsThere()
{
    QFETCH(int, stored);
    QFETCH(QString, messages);
    const QString path = mountSmallDisk("size=1m");
    const char* const statements = "CREATE TABLE t(id INTEGER PRIMARY KEY, note);"
                                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) "
                                   "INSERT INTO t SELECT i, hex(randomblob(2000)) FROM n;";
    QVERIFY(QFile::copy(makeDatabase(statements, stored), path));
    const QString filler = QFileInfo(path).path() + text("/filler");
    int failures = 0;
    // From no room at all to enough for an initialisation, which needs little, but not for a conversion.
    for (int room = 0; room < 200000; room = 2 * room + 4096) {
        struct stat status;
        QVERIFY(::stat(QFile::encodeName(path).constData(), &status) == 0);
        write(filler, QByteArray(1024 * 1024 - int(status.st_size) - room, 'x'));
        NTestManager reader(path, stored);
        reader.openDatabase();
        const QStringList before = reader.rows("SELECT id, note FROM t");
        QCOMPARE(before.size(), 100);
        reader.closeDatabase();
        NTestManager manager(path, 2);
        NTestTable table(&manager, "t", "(a)");
        table.addTrigger("CREATE TRIGGER filled AFTER INSERT ON t BEGIN SELECT 1; END");
        if (stored == 1)
            manager.setConversion([](NTestManager& database) {
                database.execute("PRAGMA cache_size=5");
                return convertToTwo(database);
            });
        manager.addTable(&table);
        manager.openDatabase();
        const bool isOpen = manager.database().isOpen();
        const QStringList written = takeMessages();
        manager.closeDatabase();
        if (isOpen && stored != 1)
            break;
        QVERIFY2(!isOpen, qPrintable(QString::number(room)));
        ++failures;
        // The tables log what they could not do in between.
        const QStringList expected = lines(messages);
        QCOMPARE(written.first(), expected.first());
        QCOMPARE(written.last(), expected.last());
        QVERIFY(stored != 1 || written.size() == 1);
        reader.openDatabase();
        QCOMPARE(reader.rows("SELECT id, note FROM t"), before);
        QCOMPARE(reader.rows("PRAGMA integrity_check"), lines("ok"));
    }
    QVERIFY(failures > 0);
    unmountSmallDisk(path);
}

void tst_NAbstractSqliteDbManager_Faults::fullDiskRefusesRows()
{
    const QString path = mountSmallDisk("size=256k");
    {
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(a)");
        manager.addTable(&table);
        manager.openDatabase();
        QCOMPARE(takeMessages(), lines(Initialised));
        QMap<QString, QVariant> values;
        values.insert(text("a"), QByteArray(10000, 'x'));
        qlonglong rowid = 0;
        int count = 0;
        while (table.execInsertQuery(values, rowid))
            ++count;
        QVERIFY(count > 0);
        const QStringList messages = takeMessages();
        QCOMPARE(messages.size(), 1);
        QVERIFY(messages.at(0).startsWith(text("critical: SQL error 13 (\"database or disk is full")));
        QCOMPARE(manager.rows("SELECT count(*) FROM t"), QStringList(QString::number(count)));
        manager.openDatabase();
        QCOMPARE(manager.rows("SELECT count(*) FROM t"), QStringList(QString::number(count)));
    }
    unmountSmallDisk(path);
}

// Opens a database of version 1 with the notes a and b, which cannot be done; once it can, nothing is lost.
void tst_NAbstractSqliteDbManager_Faults::openAndKeepVersionOne(NTestManager& manager)
{
    const QString path = manager.databaseFilePath();
    const QByteArray content = contentOf(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(takeMessages(), lines(NotOpened));
    OtherProcess reader(path);
    QCOMPARE(
        reader.execute(
            "SELECT count(*), min(note), max(note) FROM t; PRAGMA user_version; PRAGMA integrity_check;"),
        QByteArray("2|a|b\n1\nok\n"));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
    manager.setConversion(convertToTwo);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager_Faults::faultDuringAConversionIsNoRefusal_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("statement");
    QTest::addColumn<QString>("afterwards");
    const QString fill = text("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
                              "INSERT INTO big SELECT i, hex(randomblob(2000)) FROM n");
    const QString none;
    QTest::newRow("full disk") << text("full") << fill << none;
    QTest::newRow("full disk, and other statements") << text("full") << fill << text("SELECT 1");
    QTest::newRow("full disk, and a transaction of its own") << text("full") << fill << text("BEGIN");
    QTest::newRow("full disk, and undone") << text("full") << fill << text("ROLLBACK");
    // The statement is undone, and the transaction goes on.
    const QString fillUnique = QString(fill).replace(text(" big "), text(" \"unique\" "));
    QTest::newRow("full disk during a statement that can be undone") << text("full") << fillUnique << none;
    QTest::newRow("refused write") << text("write") << fill << none;
    QTest::newRow("refused write, and undone") << text("write") << fill << text("ROLLBACK");
    QTest::newRow("other database locked") << text("lock") << text("SELECT * FROM other.o") << none;
    QTest::newRow("other database missing")
        << text("none") << text("ATTACH '/missing/missing.db' AS missing") << none;
}

void tst_NAbstractSqliteDbManager_Faults::faultDuringAConversionIsNoRefusal()
{
    QFETCH(QString, fault);
    QFETCH(QString, statement);
    QFETCH(QString, afterwards);
    const QString path = mountSmallDisk("size=2m");
    QVERIFY(QFile::copy(makeVersionOne(), path));
    const QString otherPath = makeDatabase("CREATE TABLE o(a);", 0);
    {
        NTestManager manager(path, 2);
        int failures = 0;
        manager.setConversion([&](NTestManager& database) {
            database.execute("PRAGMA cache_size=5");
            database.execute("PRAGMA busy_timeout=0");
            database.execute("CREATE TABLE big(i, note)");
            database.execute("CREATE TABLE \"unique\"(i UNIQUE, note UNIQUE)");
            const QByteArray attach = "ATTACH '" + otherPath.toUtf8() + "' AS other";
            database.execute(attach.constData());
            const QString filler = QFileInfo(path).path() + text("/filler");
            if (fault == text("full"))
                write(filler, QByteArray(1900 * 1024, 'x'));
            const QScopedPointer<NFileFault> refusal(
                fault == text("write") ? new NFileFault(NFileFault::Write) : nullptr);
            OtherProcess other(otherPath);
            if (fault == text("lock"))
                other.execute("BEGIN EXCLUSIVE;");
            failures += !database.execute(statement.toUtf8().constData());
            QFile::remove(filler);
            if (!afterwards.isEmpty())
                database.execute(afterwards.toUtf8().constData());
            return false;
        });
        openAndKeepVersionOne(manager);
        QCOMPARE(failures, 1);
    }
    unmountSmallDisk(path);
}

void tst_NAbstractSqliteDbManager_Faults::faultThatAConversionDoesNotReportKeepsTheVersion()
{
    NTestManager manager(makeVersionOne(), 2);
    manager.setConversion([](NTestManager& database) {
        const NFileFault fault(NFileFault::Write);
        database.execute("PRAGMA cache_size=5");
        database.execute(
            "CREATE TABLE big AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i "
            "< 200) SELECT hex(randomblob(2000)) FROM n");
        return true;
    });
    openAndKeepVersionOne(manager);
}

void tst_NAbstractSqliteDbManager_Faults::faultThatAConversionOvercomesDoesNotCount()
{
    NTestManager manager(makeVersionOne(), 2);
    manager.setConversion([](NTestManager& database) {
        return !database.execute("ATTACH '/missing/missing.db' AS missing") && convertToTwo(database);
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
}

void tst_NAbstractSqliteDbManager_Faults::faultDuringTheCreationOfATableKeepsWhatIsThere()
{
    const QString path = makeDatabase("CREATE TABLE t(a); INSERT INTO t VALUES(1);", 3);
    const QByteArray content = contentOf(path);
    NTestManager manager(path, 2);
    // More than what SQLite keeps in memory.
    UnwritableTable big(
        &manager, "big",
        " AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
        "SELECT hex(randomblob(2000)) FROM n");
    NTestTable after(&manager, "after", "(a)");
    manager.addTable(&big);
    manager.addTable(&after);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 3);
    QCOMPARE(messages.first() + QLatin1Char('\n'), text(Newer));
    QVERIFY2(
        messages.at(1).startsWith(text("critical: SQL error 10 (\"disk I/O error")), qPrintable(messages.at(1)));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    // SQLite may leave it to the next reader to undo what has been written.
    OtherProcess reader(path);
    QCOMPARE(
        reader.execute("SELECT a FROM t; PRAGMA user_version; PRAGMA integrity_check;"), QByteArray("1\n3\nok\n"));
    QCOMPARE(contentOf(path), content);
}

void tst_NAbstractSqliteDbManager_Faults::unreadablePagesAreNoDamage()
{
    // With overflow pages, free pages and an index.
    const QString path = makeDatabase(
        "PRAGMA page_size=512; CREATE TABLE t(id INTEGER PRIMARY KEY, note); CREATE INDEX i ON t(note);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
        "INSERT INTO t SELECT i, 'note ' || i FROM n; INSERT INTO t VALUES(1000, zeroblob(3000));"
        "DELETE FROM t WHERE id BETWEEN 20 AND 180;",
        1);
    const QByteArray content = contentOf(path);
    int closed = 0;
    for (int offset = 0; offset < content.size(); offset += 512) {
        NTestManager manager(path);
        const NFileFault fault(NFileFault::Read, offset);
        manager.openDatabase();
        // Nobody needs to read what is in a free page.
        if (fault.count() > 0) {
            QCOMPARE(takeMessages(), lines(NotOpened));
            QVERIFY(!manager.database().isValid());
            ++closed;
        }
        manager.closeDatabase();
        QVERIFY(contentOf(path) == content);
        QVERIFY(!QFile::exists(path + text(".damaged")));
    }
    QVERIFY(closed > 10);
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT count(*) FROM t"), lines("40"));
}

void tst_NAbstractSqliteDbManager_Faults::anySingleFailureKeepsOldOrNewData_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("stored");
    const char* const names[] = {"read", "write", "synchronize", "remove"};
    const NFileFault::Call calls[] = {
        NFileFault::Read, NFileFault::Write, NFileFault::Synchronize, NFileFault::Remove};
    for (int index = 0; index < 4; ++index) {
        QTest::newRow((QByteArray(names[index]) + " while converting").constData()) << int(calls[index]) << 1;
        QTest::newRow((QByteArray(names[index]) + " while initialising").constData()) << int(calls[index]) << 3;
        QTest::newRow((QByteArray(names[index]) + " while repairing").constData()) << int(calls[index]) << 2;
    }
}

// Each of the calls that an opening makes fails in turn, one in each opening.
void tst_NAbstractSqliteDbManager_Faults::anySingleFailureKeepsOldOrNewData()
{
    QFETCH(int, call);
    QFETCH(int, stored);
    const QByteArray content = contentOf(makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note, p REFERENCES t(id));"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) "
        "INSERT INTO t SELECT i, hex(randomblob(500)), NULL FROM n; UPDATE t SET p = 500 WHERE id = 100;",
        stored));
    const QString path = newPath();
    const char* const state =
        "SELECT count(*), count(p), sum(note = 'new'), (SELECT user_version FROM pragma_user_version) FROM t";
    const QString oldData = text("100|1|0|%1").arg(stored);
    const QString newData = text(stored == 1 ? "99|0|99|2" : stored == 2 ? "99|0|0|2" : "0|0||2");
    // The repair is a transaction of its own.
    const QString repaired = text("99|0|0|%1").arg(stored);
    int failures = 0;
    for (bool isOver = false; !isOver;) {
        write(path, content);
        NTestManager manager(path, 2);
        NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note, p REFERENCES t(id))");
        manager.addTable(&table);
        manager.setConversion([](NTestManager& database) {
            return database.execute("PRAGMA cache_size=5") && database.execute("UPDATE t SET note = 'new'") &&
                   database.execute("CREATE INDEX i ON t(note)");
        });
        {
            const QScopedPointer<NFileFault> fault(NFileFault::once(NFileFault::Call(call), failures));
            manager.openDatabase();
            isOver = fault->count() == 0;
        }
        ++failures;
        const QStringList messages = takeMessages();
        const QByteArray when = QByteArray::number(failures) + ": " + messages.join(text("\n")).toUtf8();
        QVERIFY2(messages.filter(text("cannot be converted")).isEmpty(), when.constData());
        QVERIFY2(messages.filter(text("integrity check")).isEmpty(), when.constData());
        if (manager.database().isOpen()) {
            QCOMPARE(manager.rows(state), QStringList(newData));
        } else {
            QVERIFY2((messages.last() + QLatin1Char('\n')) == text(NotOpened), when.constData());
            OtherProcess reader(path);
            const QString found =
                QString::fromLatin1(reader.execute((QByteArray(state) + ';').constData())).trimmed();
            QVERIFY2(found == oldData || found == repaired || found == newData, qPrintable(found));
        }
        manager.openDatabase();
        QCOMPARE(manager.rows(state), QStringList(newData));
        // What is given up anyway may be set aside.
        QVERIFY(!QFile::remove(path + text(".damaged")) || stored == 3);
        takeMessages();
    }
    QVERIFY(failures > 1);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Faults, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_faults.moc"
