#include "nsqlitetest.h"

#include "support/nprivatenamespace.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

using namespace NSqliteTest;

/** Damaged files. */
class tst_NAbstractSqliteDbManager_Damage : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void fileThatIsNoDatabaseIsSetAside();
    void damageIsReportedLineByLine();
    void damageThatPreventsDroppingSetsTheFileAside();
    void companionsGoWithADamagedFile();
    void fileBehindASymbolicLinkIsSetAside();
    void databaseThatCannotBeCheckedIsLeftAsItIs_data();
    void databaseThatCannotBeCheckedIsLeftAsItIs();
    void damagedCopiesAlwaysEndWell();
};

void tst_NAbstractSqliteDbManager_Damage::fileThatIsNoDatabaseIsSetAside()
{
    const QString path = newPath();
    const QByteArray content = QByteArray("no database at all\n").repeated(1000);
    for (int round = 0; round < 2; ++round) {
        write(path, content);
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(a)");
        manager.addTable(&table);
        manager.openDatabase();
        QCOMPARE(takeMessages(), lines(Initialised));
        QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
        QCOMPARE(contentOf(path + text(".damaged")), content);
    }
    QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files), lines("test.db\ntest.db.damaged"));
}

void tst_NAbstractSqliteDbManager_Damage::damageIsReportedLineByLine()
{
    const QString path = makeDatabase(
        "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1), (2), (3);"
        "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = replace(sql, 't(a)', 't(a) WHERE a > 2') WHERE "
        "name = 'i';",
        1);
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(b)");
    manager.addTable(&table);
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QVERIFY(messages.size() >= 3);
    QCOMPARE(
        messages.first(),
        text("warning: Integrity check on the database \"Test\" fails. The following error(s) have been "
             "returned:"));
    const QStringList errors = messages.mid(1, messages.size() - 2);
    for (const QString& error : errors)
        QVERIFY2(error.startsWith(text("warning: ")) && error.contains(text("index i")), qPrintable(error));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Initialised));
    QCOMPARE(manager.rows("SELECT sql FROM sqlite_master"), lines("CREATE TABLE t(b)"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Damage::damageThatPreventsDroppingSetsTheFileAside()
{
    const QString path = makeDatabase("CREATE TABLE t(a); INSERT INTO t VALUES(zeroblob(9000));", 1);
    QByteArray content = contentOf(path);
    // The kind of the second page, the table's.
    content[4096] = char(0x77);
    write(path, content);
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QVERIFY(messages.size() >= 2);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Initialised));
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(manager.rows("PRAGMA integrity_check"), lines("ok"));
}

void tst_NAbstractSqliteDbManager_Damage::companionsGoWithADamagedFile()
{
    const QString path = newPath();
    const char* const suffixes[] = {"", "-journal", "-wal", "-shm"};
    for (const char* suffix : suffixes) {
        write(path + text(suffix), QByteArray("new") + suffix);
        write(path + text(".damaged") + text(suffix), "old");
    }
    QVERIFY(QFile::remove(path + text("-wal")));
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(contentOf(path + text(".damaged")), QByteArray("new"));
    QVERIFY(!QFile::exists(path + text(".damaged-wal")));
    QVERIFY(!QFile::exists(path + text("-journal")));
    QVERIFY(!QFile::exists(path + text("-shm")));
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("new-shm"));
}

void tst_NAbstractSqliteDbManager_Damage::fileBehindASymbolicLinkIsSetAside()
{
    const QString path = newPath();
    const QString link = newPath();
    const QByteArray content = QByteArray("no database\n").repeated(500);
    write(path, content);
    write(path + text("-shm"), "shared memory");
    QVERIFY(QFile::link(path, link));
    NTestManager manager(link);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QVERIFY(QFileInfo(link).isSymLink());
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("shared memory"));
    QCOMPARE(QDir(QFileInfo(link).path()).entryList(QDir::Files), lines("test.db"));
}

void tst_NAbstractSqliteDbManager_Damage::databaseThatCannotBeCheckedIsLeftAsItIs_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<QString>("error");
    QTest::newRow("function") << text("UPDATE sqlite_master SET sql = 'CREATE TABLE t(a CHECK(valid(a)))' WHERE "
                                      "name = 't';")
                              << text("unknown function: valid()");
    QTest::newRow("collation") << text("UPDATE sqlite_master SET sql = 'CREATE INDEX i ON t(a COLLATE de)' WHERE "
                                       "name = 'i';")
                               << text("no such collation sequence: de");
}

// Functions and collations are registered on an open connection: too late for the check.
void tst_NAbstractSqliteDbManager_Damage::databaseThatCannotBeCheckedIsLeftAsItIs()
{
    QFETCH(QString, statement);
    QFETCH(QString, error);
    const QByteArray statements =
        "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES('a'); PRAGMA writable_schema=ON;" +
        statement.toUtf8();
    const QString path = makeDatabase(statements.constData(), 1);
    const QByteArray content = contentOf(path);
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 2);
    QVERIFY2(
        messages.first().startsWith(text("warning: The integrity of the database \"Test\" cannot be checked: ")) &&
            messages.first().contains(error),
        qPrintable(messages.first()));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Damage::damagedCopiesAlwaysEndWell()
{
    const QByteArray original = contentOf(makeDatabase(
        "PRAGMA page_size=512; CREATE TABLE t(id INTEGER PRIMARY KEY, note, p REFERENCES t(id)); CREATE INDEX i "
        "ON t(note);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300) "
        "INSERT INTO t SELECT i, 'note ' || i, nullif(i / 2, 0) FROM n; INSERT INTO t VALUES(1000, "
        "zeroblob(3000), 1);"
        "DELETE FROM t WHERE id BETWEEN 200 AND 280;",
        1));
    const int pages = original.size() / 512;
    const QString path = newPath();
    int opened = 0;
    int setAside = 0;
    for (int round = 0; round < 1000; ++round) {
        QByteArray content = original;
        switch (round % 4) {
        case 0: // anywhere
            for (int count = random(20) + 1; count > 0; --count)
                content[random(content.size())] = char(random(256));
            break;
        case 1: // in the header and the schema
            for (int count = random(3) + 1; count > 0; --count)
                content[random(512)] = char(random(256));
            break;
        case 2:
            content.truncate(random(content.size()));
            break;
        case 3:
            for (int count = random(3) + 1; count > 0; --count) {
                const int first = random(pages) * 512;
                const int second = random(pages) * 512;
                const QByteArray page = content.mid(first, 512);
                content.replace(first, 512, content.mid(second, 512));
                content.replace(second, 512, page);
            }
            break;
        }
        QFile::remove(path + text("-journal"));
        QFile::remove(path + text("-wal"));
        QFile::remove(path + text("-shm"));
        QFile::remove(path + text(".damaged"));
        write(path, content);
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note, p REFERENCES t(id))");
        manager.addTable(&table);
        manager.openDatabase();
        const QStringList messages = takeMessages();
        if (!manager.database().isOpen()) {
            QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
            continue;
        }
        ++opened;
        setAside += QFile::exists(path + text(".damaged"));
        QCOMPARE(manager.rows("PRAGMA user_version"), lines("1"));
        QCOMPARE(manager.rows("PRAGMA integrity_check"), lines("ok"));
        // Where the schema says something else now, its foreign keys may be wrong.
        const QString references = manager.rows("PRAGMA foreign_key_check").join(text(" "));
        QVERIFY2(
            references.isEmpty() || references.startsWith(text("!foreign key mismatch")), qPrintable(references));
        // The header says that the file may only be read (https://sqlite.org/fileformat.html, 1.3.3).
        if (uchar(contentOf(path).at(18)) > 2)
            continue;
        QVERIFY(manager.execute("CREATE TABLE usable(a)"));
        QVERIFY(manager.execute("INSERT INTO usable VALUES(1)"));
        QCOMPARE(manager.rows("SELECT a FROM usable"), lines("1"));
    }
    QVERIFY(opened > 900);
    QVERIFY(setAside > 100);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Damage, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_damage.moc"
