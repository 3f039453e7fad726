#include "nsqlitetest.h"

#include "support/nchildprocess.h"
#include "support/nprivatenamespace.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QScopedPointer>
#include <QtSql/QSqlDriver>
#include <QtSql/QSqlIndex>
#include <QtSql/QSqlRecord>
#include <QtTest/QtTest>

#include <signal.h>
#include <unistd.h>

using namespace NSqliteTest;

namespace {

// What a conversion may do with its database; the first that goes wrong, or a null text.
#define REQUIRE(condition) \
    if (!(condition)) \
    return text(#condition)

QString useDatabase(NTestManager& manager)
{
    QSqlDatabase database = manager.database();
    REQUIRE(database.isValid() && database.isOpen());
    REQUIRE(database.connectionName() == manager.connectionName());
    REQUIRE(QSqlDatabase::connectionNames() == QStringList(manager.connectionName()));
    REQUIRE(database.databaseName() == manager.databaseFilePath());
    REQUIRE(database.tables() == lines("t"));
    REQUIRE(database.record(text("t")).count() == 2);
    REQUIRE(database.primaryIndex(text("t")).fieldName(0) == text("id"));
    REQUIRE(database.driver()->handle().isValid());
    REQUIRE(database.driver()->escapeIdentifier(text("a b"), QSqlDriver::FieldName) == text("\"a b\""));
    // The transaction is the manager's.
    REQUIRE(!database.transaction() && database.lastError().isValid());

    REQUIRE(database.exec(text("SELECT note FROM t")).next() && !database.lastError().isValid());
    REQUIRE(!database.exec(text("SELECT")).isActive() && database.lastError().isValid());

    QSqlQuery query(database);
    REQUIRE(query.prepare(text("INSERT INTO t(note, id) VALUES(?, ?)")));
    query.addBindValue(text("c"));
    query.addBindValue(3);
    REQUIRE(
        query.exec() && query.lastInsertId().toInt() == 3 && query.numRowsAffected() == 1 && !query.isSelect());
    query.bindValue(0, QVariant(QVariant::String));
    query.bindValue(1, 4);
    REQUIRE(query.exec());
    REQUIRE(!query.exec() && query.lastError().text().contains(text("UNIQUE constraint failed: t.id")));
    QVariantList ids;
    QVariantList notes;
    ids << 5 << 6;
    notes << text("e") << text("f");
    query.bindValue(0, notes);
    query.bindValue(1, ids);
    REQUIRE(query.execBatch());
    query.prepare(text("INSERT INTO t(note, id) VALUES(?, ?)"));
    query.addBindValue(7);
    REQUIRE(!query.exec() && query.lastError().isValid());

    REQUIRE(query.prepare(text("SELECT id, note FROM t WHERE id >= :from AND id <= :to ORDER BY id")));
    query.bindValue(text(":to"), 4);
    query.bindValue(text(":from"), 2);
    REQUIRE(query.exec() && query.isSelect() && query.record().fieldName(1) == text("note"));
    QStringList found;
    while (query.next())
        found.append(query.isNull(1) ? text("null") : query.value(1).toString());
    REQUIRE(found == lines("b\nc\nnull"));
    REQUIRE(query.previous() && query.at() == 2);
    REQUIRE(query.first() && query.value(0).toInt() == 2);
    REQUIRE(query.seek(1) && query.value(1).toString() == text("c"));
    REQUIRE(query.last() && query.value(0).toInt() == 4);
    REQUIRE(!query.next() && !query.isValid());

    QSqlQuery forward(database);
    forward.setForwardOnly(true);
    REQUIRE(forward.exec(text("SELECT * FROM t")) && forward.next() && forward.value(1).toString() == text("a"));
    // A query that is finished, or gone, does not keep its table.
    forward.finish();
    query.clear();
    REQUIRE(convertToTwo(manager));
    return QString();
}

#undef REQUIRE

} // namespace

/** The conversion of an older database. */
class tst_NAbstractSqliteDbManager_Conversion : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void olderDatabaseIsConverted();
    void conversionIsRefusedByTheBase();
    void failedConversionInitialises_data();
    void failedConversionInitialises();
    void conversionMayLeaveATransactionOpen();
    void conversionUsesItsDatabaseLikeAnyOther();
    void conversionMayUseTables();
    void mistakesInAConversionInitialise_data();
    void mistakesInAConversionInitialise();
    void damageOutsideTheFileDoesNotStopInitialisation_data();
    void damageOutsideTheFileDoesNotStopInitialisation();
    void queryThatAConversionLeavesDoesNotStopInitialisation();
    void killedConversionLeavesOldOrNewData();
};

void tst_NAbstractSqliteDbManager_Conversion::olderDatabaseIsConverted()
{
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    QStringList foreignKeys;
    manager.setConversion([&](NTestManager& database) {
        foreignKeys = database.rows("PRAGMA foreign_keys");
        return convertToTwo(database);
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QCOMPARE(manager.oldVersion(), 1);
    QCOMPARE(foreignKeys, lines("0"));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager_Conversion::conversionIsRefusedByTheBase()
{
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(manager.rows("SELECT * FROM t"), QStringList());
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
}

void tst_NAbstractSqliteDbManager_Conversion::failedConversionInitialises_data()
{
    QTest::addColumn<QString>("statements");
    QTest::addColumn<bool>("result");
    QTest::addColumn<int>("expectedCalls");
    QTest::newRow("refused at once") << text("SELECT 1") << false << 1;
    QTest::newRow("refused after changes") << text("DROP TABLE t;CREATE TABLE other(a)") << false << 1;
    // A transaction that is not open any more may have been ended by an error.
    QTest::newRow("rolled back by itself") << text("ROLLBACK") << false << 2;
    QTest::newRow("committed by itself and failed") << text("DROP TABLE t;COMMIT") << false << 2;
    QTest::newRow("committed by itself") << text("COMMIT") << true << 2;
    QTest::newRow("failed with a transaction of its own open") << text("COMMIT;BEGIN;DROP TABLE t") << false << 1;
}

void tst_NAbstractSqliteDbManager_Conversion::failedConversionInitialises()
{
    QFETCH(QString, statements);
    QFETCH(bool, result);
    QFETCH(int, expectedCalls);
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    int calls = 0;
    manager.setConversion([&](NTestManager& database) {
        ++calls;
        const QStringList all = statements.split(QLatin1Char(';'));
        for (const QString& statement : all)
            database.execute(statement.toUtf8().constData());
        return result;
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(calls, expectedCalls);
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    QVERIFY(manager.execute("BEGIN"));
    QVERIFY(manager.execute("ROLLBACK"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Conversion::conversionMayLeaveATransactionOpen()
{
    NTestManager manager(makeVersionOne(), 2);
    manager.setConversion([](NTestManager& database) {
        return convertToTwo(database) && database.execute("COMMIT") && database.execute("BEGIN") &&
               database.execute("SAVEPOINT inner");
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QVERIFY(manager.execute("BEGIN"));
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

// The same with the connection of an open database and with that of a conversion.
void tst_NAbstractSqliteDbManager_Conversion::conversionUsesItsDatabaseLikeAnyOther()
{
    NTestManager plain(makeVersionOne());
    plain.openDatabase();
    QVERIFY(plain.execute("BEGIN"));
    QCOMPARE(useDatabase(plain), QString());
    plain.closeDatabase();

    NTestManager manager(makeVersionOne(), 2);
    QString wrong;
    manager.setConversion([&](NTestManager& self) {
        wrong = useDatabase(self);
        return wrong.isEmpty();
    });
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QCOMPARE(wrong, QString());
    QCOMPARE(messages, lines(Converted));
    QCOMPARE(manager.rows("SELECT * FROM t"), lines("1|new a\n2|new b\n3|new c\n4|\n5|new e\n6|new f"));
    QCOMPARE(manager.database().connectionName(), text("test connection"));
    QCOMPARE(QSqlDatabase::connectionNames(), lines("test connection"));
}

void tst_NAbstractSqliteDbManager_Conversion::conversionMayUseTables()
{
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note)");
    NTestTable added(&manager, "added", "(a)");
    added.addTrigger("CREATE TRIGGER copied AFTER INSERT ON t BEGIN INSERT INTO added VALUES(new.note); END");
    manager.addTable(&table);
    manager.addTable(&added);
    manager.setConversion([&](NTestManager&) {
        QMap<QString, QVariant> values;
        values.insert(text("note"), text("c"));
        qlonglong rowid = 0;
        return added.createTable() && added.createTriggers() && table.execInsertQuery(values, rowid) &&
               rowid == 3 && table.execRowidDeleteQuery(1) &&
               table.execSelectQuery(values, QStringList(), QList<QPair<QString, bool>>()).size() == 1;
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("b\nc"));
    QCOMPARE(manager.rows("SELECT a FROM added"), lines("c"));
}

void tst_NAbstractSqliteDbManager_Conversion::mistakesInAConversionInitialise_data()
{
    QTest::addColumn<QString>("mistake");
    const char* const mistakes[] = {
        "syntax",
        "constraint",
        "missing value",
        "table in use",
        "rows of an undone transaction",
        "trigger that undoes all"};
    for (const char* mistake : mistakes)
        QTest::newRow(mistake) << text(mistake);
}

// What would fail again however often it is tried must not keep the database closed for ever.
void tst_NAbstractSqliteDbManager_Conversion::mistakesInAConversionInitialise()
{
    QFETCH(QString, mistake);
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    bool failed = false;
    manager.setConversion([&](NTestManager& database) {
        QSqlQuery query(database.database());
        if (mistake == text("syntax")) {
            failed = !query.exec(text("CREATE TABLES"));
        } else if (mistake == text("constraint")) {
            failed = !query.exec(text("INSERT INTO t(id) VALUES(1)"));
        } else if (mistake == text("missing value")) {
            query.prepare(text("INSERT INTO t VALUES(?, ?)"));
            query.addBindValue(3);
            failed = !query.exec();
        } else if (mistake == text("table in use")) {
            query.setForwardOnly(true);
            failed = query.exec(text("SELECT * FROM t")) && query.next() && !database.execute("DROP TABLE t");
        } else if (mistake == text("rows of an undone transaction")) {
            query.setForwardOnly(true);
            failed = database.execute("CREATE TABLE other(a)") && query.exec(text("SELECT * FROM t")) &&
                     query.next() && database.execute("ROLLBACK") && !query.next();
        } else {
            failed = database.execute(
                         "CREATE TRIGGER undo BEFORE DELETE ON t BEGIN SELECT raise(ROLLBACK, 'no'); END") &&
                     !query.exec(text("DELETE FROM t"));
        }
        return false;
    });
    manager.openDatabase();
    QVERIFY(failed);
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
}

void tst_NAbstractSqliteDbManager_Conversion::damageOutsideTheFileDoesNotStopInitialisation_data()
{
    QTest::addColumn<bool>("isAttached");
    QTest::newRow("what a virtual table stores") << false;
    QTest::newRow("attached file") << true;
}

void tst_NAbstractSqliteDbManager_Conversion::damageOutsideTheFileDoesNotStopInitialisation()
{
    QFETCH(bool, isAttached);
    const QString other = newPath();
    write(other, QByteArray("no database\n").repeated(500));
    NTestManager manager(
        makeDatabase(
            "CREATE VIRTUAL TABLE words USING fts5(a); INSERT INTO words VALUES('x y'), ('z');"
            "UPDATE words_data SET block = x'00' WHERE id >= 1;",
            1),
        2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.setConversion([&](NTestManager& database) {
        const QByteArray attach = "ATTACH '" + other.toUtf8() + "' AS other";
        return database.execute(
            isAttached ? attach.constData() : "INSERT INTO words(words) VALUES('integrity-check')");
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
}

void tst_NAbstractSqliteDbManager_Conversion::queryThatAConversionLeavesDoesNotStopInitialisation()
{
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    QScopedPointer<QSqlQuery> query;
    manager.setConversion([&](NTestManager& database) {
        query.reset(new QSqlQuery(database.database()));
        query->exec(text("SELECT * FROM t"));
        query->next();
        return false;
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QVERIFY(!query->next());
    QVERIFY(!query->exec());
}

void tst_NAbstractSqliteDbManager_Conversion::killedConversionLeavesOldOrNewData()
{
    const QByteArray original = contentOf(makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
        "INSERT INTO t SELECT i, 'note ' || i FROM n;",
        1));
    const QString path = newPath();
    const QStringList oldData = lines("2000|0|1");
    const QStringList newData = lines("2000|2000|2");
    const char* const state = "SELECT count(*), sum(note LIKE 'new %'), user_version FROM t, pragma_user_version";
    const auto convert = [](NTestManager& manager) {
        return manager.execute("PRAGMA cache_size=5") && convertToTwo(manager);
    };
    // Longer than the whole opening takes, so that some processes are killed at its end and some do end.
    int longest = 0;
    for (int round = 0; round < 300; ++round) {
        QFile::remove(path + text("-journal"));
        write(path, original);
        QElapsedTimer timer;
        timer.start();
        const pid_t process = ::fork();
        if (process == 0) {
            NTestManager manager(path, 2);
            manager.setConversion(convert);
            manager.openDatabase();
            ::_exit(0);
        }
        QVERIFY(process > 0);
        if (round > 0) {
            ::usleep(useconds_t(random(longest)));
            ::kill(process, SIGKILL);
        }
        QVERIFY(NTest::waitForChild(process) != -1);
        if (round == 0)
            longest = int(timer.nsecsElapsed() / 1000) + 1;

        NTestManager reader(path, 1);
        {
            QSqlDatabase database = QSqlDatabase::addDatabase(text("QSQLITE"), text("reader"));
            database.setDatabaseName(path);
            QVERIFY(database.open());
            QSqlQuery query(database);
            QVERIFY(query.exec(text(state)) && query.next());
            const QString found = query.value(0).toString() + QLatin1Char('|') + query.value(1).toString() +
                                  QLatin1Char('|') + query.value(2).toString();
            QVERIFY2(found == oldData.first() || found == newData.first(), qPrintable(found));
        }
        QSqlDatabase::removeDatabase(text("reader"));
        NTestManager manager(path, 2);
        manager.setConversion(convert);
        manager.openDatabase();
        QCOMPARE(manager.rows(state), newData);
        takeMessages();
    }
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Conversion, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_conversion.moc"
