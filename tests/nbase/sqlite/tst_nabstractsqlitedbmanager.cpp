#include "nsqlitetest.h"

#include "support/nprivatenamespace.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

using namespace NSqliteTest;

namespace {

int openFileCount()
{
    return QDir(text("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

// How many bytes the process has read from files (proc(5), "io").
qint64 bytesRead()
{
    QFile file(text("/proc/self/io"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read /proc/self/io");
    const QByteArray counts = file.readAll();
    const QByteArray name("rchar: ");
    const int begin = counts.indexOf(name) + name.size();
    return counts.mid(begin, counts.indexOf('\n', begin) - begin).toLongLong();
}

} // namespace

/** Opening, closing and initialising. */
class tst_NAbstractSqliteDbManager : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void closedManagerHasNoDatabase();
    void missingFileIsMadeWithItsDirectory();
    void emptyFileIsInitialised();
    void currentDatabaseIsLeftAsItIs();
    void openingAgainLogsNothing();
    void closedConnectionIsOpenedWhenItIsAskedFor();
    void foreignKeysAreEnforcedAfterEachOpening_data();
    void foreignKeysAreEnforcedAfterEachOpening();
    void pathThatIsNoFileIsRefused();
    void newerDatabaseIsInitialised();
    void initialisationRemovesTheTables();
    void initialisationLeavesViewsAndTemporaryTables();
    void databaseWithNothingButAViewHasNoTables();
    void soundDatabaseIsReadOnce_data();
    void soundDatabaseIsReadOnce();
    void initialisationEndsTheCallersTransaction();
    void initialisationEndsTheCallersQueries();
    void failingTablesDoNotStopTheOthers();
    void openingsLeaveNoDescriptors();
};

void tst_NAbstractSqliteDbManager::closedManagerHasNoDatabase()
{
    NTestManager manager(newPath());
    QVERIFY(!manager.database().isValid());
    manager.closeDatabase();
    QVERIFY(!manager.database().isValid());
}

void tst_NAbstractSqliteDbManager::missingFileIsMadeWithItsDirectory()
{
    const QString path = QFileInfo(newPath()).path() + text("/a/b c/\xc3\xa9/test.db");
    NTestManager manager(path, 7);
    NTestTable child(&manager, "child", "(parent REFERENCES parent(id))");
    NTestTable parent(&manager, "parent", "(id INTEGER PRIMARY KEY)");
    child.addTrigger("CREATE TRIGGER first AFTER INSERT ON parent BEGIN INSERT INTO child VALUES(new.id); END");
    manager.addTable(&child);
    manager.addTable(&parent);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(QFile::exists(path));
    QCOMPARE(manager.database().connectionName(), text("test connection"));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("child\nparent\nfirst"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("7"));
    QVERIFY(manager.execute("INSERT INTO parent VALUES(1)"));
    QCOMPARE(manager.rows("SELECT * FROM child"), lines("1"));
}

void tst_NAbstractSqliteDbManager::emptyFileIsInitialised()
{
    const QString path = newPath();
    write(path, QByteArray());
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::currentDatabaseIsLeftAsItIs()
{
    const QString path = makeVersionOne();
    const QByteArray content = contentOf(path);
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
    int version = -1;
    QVERIFY(manager.checkDatabaseIntegrity(version));
    QCOMPARE(version, 1);
    manager.closeDatabase();
    QCOMPARE(contentOf(path), content);
}

void tst_NAbstractSqliteDbManager::openingAgainLogsNothing()
{
    NTestManager manager(makeVersionOne());
    for (int round = 0; round < 3; ++round) {
        manager.openDatabase();
        manager.openDatabase();
        QVERIFY(manager.database().isOpen());
        if (round != 1)
            manager.closeDatabase();
    }
    manager.closeDatabase();
}

void tst_NAbstractSqliteDbManager::closedConnectionIsOpenedWhenItIsAskedFor()
{
    NTestManager manager(makeVersionOne());
    manager.openDatabase();
    manager.database().close();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
}

void tst_NAbstractSqliteDbManager::foreignKeysAreEnforcedAfterEachOpening_data()
{
    QTest::addColumn<int>("stored");
    QTest::newRow("new") << 0;
    QTest::newRow("older") << 1;
    QTest::newRow("current") << 2;
    QTest::newRow("newer") << 3;
}

void tst_NAbstractSqliteDbManager::foreignKeysAreEnforcedAfterEachOpening()
{
    QFETCH(int, stored);
    const QString path =
        stored == 0 ? newPath() : makeDatabase("CREATE TABLE t(id INTEGER PRIMARY KEY, note);", stored);
    NTestManager manager(path, 2);
    manager.setConversion(convertToTwo);
    manager.openDatabase();
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    takeMessages();
}

void tst_NAbstractSqliteDbManager::pathThatIsNoFileIsRefused()
{
    NTestManager directory(QFileInfo(newPath()).path());
    directory.openDatabase();
    QVERIFY(!directory.database().isValid());
    QCOMPARE(takeMessages(), lines(NotOpened));
    NTestManager belowFile(makeVersionOne() + text("/test.db"));
    belowFile.openDatabase();
    QVERIFY(!belowFile.database().isValid());
    QCOMPARE(takeMessages(), lines(NotOpened));
}

void tst_NAbstractSqliteDbManager::newerDatabaseIsInitialised()
{
    NTestManager manager(makeDatabase("CREATE TABLE t(a); CREATE TABLE future(a);", 3), 2);
    NTestTable table(&manager, "t", "(b)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Newer));
    QCOMPARE(manager.rows("SELECT sql FROM sqlite_master"), lines("CREATE TABLE t(b)"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
}

void tst_NAbstractSqliteDbManager::initialisationRemovesTheTables()
{
    const QString path = makeDatabase(
        "CREATE TABLE \"needs \"\"quotes\"\"\"(id INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO \"needs "
        "\"\"quotes\"\"\" "
        "VALUES(5); CREATE TABLE child(a REFERENCES \"needs \"\"quotes\"\"\"(id)); INSERT INTO child VALUES(5);"
        "CREATE INDEX byA ON child(a); CREATE VIRTUAL TABLE words USING fts5(a);"
        "CREATE TRIGGER deleted AFTER DELETE ON child BEGIN SELECT raise(ABORT, 'no'); END; VACUUM;",
        1);
    NTestManager manager(path);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT * FROM child"), lines("5"));
    manager.initializeDatabase();
    QCOMPARE(
        manager.rows("SELECT sql FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"),
        lines("CREATE TABLE fresh(a)"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::initialisationLeavesViewsAndTemporaryTables()
{
    NTestManager manager(
        makeDatabase("CREATE TABLE child(a); CREATE VIEW seen AS SELECT * FROM child; CREATE TABLE both(a);", 1));
    NTestTable table(&manager, "child", "(a, b)");
    manager.addTable(&table);
    manager.openDatabase();
    QVERIFY(manager.execute("CREATE TEMPORARY TABLE both(x)"));
    QVERIFY(manager.execute("INSERT INTO temp.both VALUES(1)"));
    manager.initializeDatabase();
    QCOMPARE(manager.rows("SELECT name FROM main.sqlite_master ORDER BY name"), lines("child\nseen"));
    QCOMPARE(manager.rows("SELECT x FROM temp.both"), lines("1"));
    QVERIFY(manager.execute("INSERT INTO child VALUES(2, 3)"));
    QCOMPARE(manager.rows("SELECT * FROM seen"), lines("2|3"));
}

void tst_NAbstractSqliteDbManager::databaseWithNothingButAViewHasNoTables()
{
    NTestManager manager(makeDatabase("CREATE VIEW seen AS SELECT 1 AS a;", 1));
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master ORDER BY name"), lines("seen\nt"));
}

void tst_NAbstractSqliteDbManager::soundDatabaseIsReadOnce_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("current") << 1;
    QTest::newRow("older") << 2;
}

// The file is larger than the cache, so that a second check would read it once more.
void tst_NAbstractSqliteDbManager::soundDatabaseIsReadOnce()
{
    QFETCH(int, version);
    const QString path = makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note); CREATE TABLE child(t REFERENCES t(id));"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
        "INSERT INTO t SELECT i, hex(randomblob(2000)) FROM n; INSERT INTO child VALUES(1);",
        1);
    qint64 before = bytesRead();
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(text("QSQLITE"), text("plain"));
        database.setDatabaseName(path);
        QVERIFY(database.open());
        QVERIFY(QSqlQuery(database).exec(text("PRAGMA integrity_check")));
    }
    QSqlDatabase::removeDatabase(text("plain"));
    const qint64 once = bytesRead() - before;
    QVERIFY(once > QFileInfo(path).size());
    NTestManager manager(path, version);
    manager.setConversion([](NTestManager&) { return true; });
    before = bytesRead();
    manager.openDatabase();
    const qint64 read = bytesRead() - before;
    takeMessages();
    QVERIFY(manager.database().isOpen());
    QVERIFY2(read < once + once / 10, QByteArray::number(read).constData());
}

void tst_NAbstractSqliteDbManager::initialisationEndsTheCallersTransaction()
{
    const QString path = makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id));"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(1);",
        1);
    NTestManager manager(path);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QVERIFY(manager.database().transaction());
    manager.initializeDatabase();
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
    QVERIFY(manager.database().transaction());
    QCOMPARE(OtherProcess(path).execute(".tables"), QByteArray("fresh\n"));
}

void tst_NAbstractSqliteDbManager::initialisationEndsTheCallersQueries()
{
    const QString path = makeVersionOne();
    NTestManager manager(path);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QSqlQuery query(manager.database());
    query.setForwardOnly(true);
    QVERIFY(query.exec(text("SELECT * FROM t")) && query.next());
    manager.initializeDatabase();
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    QVERIFY(!query.next());
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::failingTablesDoNotStopTheOthers()
{
    const QString path = newPath();
    NTestManager manager(path);
    NTestTable wrong(&manager, "wrong", "(a");
    NTestTable right(&manager, "t", "(a)");
    wrong.addTrigger("CREATE TRIGGER wrong");
    right.addTrigger("CREATE TRIGGER tried AFTER INSERT ON t BEGIN SELECT 1; END");
    manager.addTable(&wrong);
    manager.addTable(&right);
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 3);
    QCOMPARE(messages.at(0) + QLatin1Char('\n'), text(Initialised));
    QVERIFY(messages.at(1).contains(text("while creating table \"wrong\"")));
    QVERIFY(messages.at(2).contains(text("while creating triggers for table \"wrong\"")));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("t\ntried"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::openingsLeaveNoDescriptors()
{
    const QString path = newPath();
    const QByteArray contents[] = {
        QByteArray(), QByteArray("no database\n").repeated(500), contentOf(makeVersionOne())};
    const int before = openFileCount();
    for (int round = 0; round < 30; ++round) {
        write(path, contents[round % 3]);
        NTestManager manager(path, round % 4);
        NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note)");
        manager.addTable(&table);
        manager.setConversion(convertToTwo);
        manager.openDatabase();
        manager.openDatabase();
        manager.initializeDatabase();
        QVERIFY(manager.database().isOpen());
    }
    takeMessages();
    QCOMPARE(openFileCount(), before);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager.moc"
