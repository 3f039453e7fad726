#include "ntestdatabase.h"

#include "support/nmessagerecorder.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QDateTime>
#include <QtSql/QSqlQuery>
#include <QtTest/QtTest>

#include <limits>

typedef QMap<QString, QVariant> Values;
typedef QList<Values> Rows;
typedef QList<QPair<QString, bool>> Order;

Q_DECLARE_METATYPE(Values)

namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

Values values(const char* name, const QVariant& value)
{
    Values result;
    result.insert(text(name), value);
    return result;
}

Values values(const char* firstName, const QVariant& first, const char* secondName, const QVariant& second)
{
    Values result = values(firstName, first);
    result.insert(text(secondName), second);
    return result;
}

QStringList columns(const char* names)
{
    return text(names).split(QLatin1Char(' '));
}

Order order(const char* name, bool ascending)
{
    return Order() << qMakePair(text(name), ascending);
}

} // namespace

class tst_NAbstractSQLiteDbTable : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void statementsAreWrittenAsDocumented();
    void placeholdersInNamesAreTakenByWhatFollows();
    void valuesAreBoundInTheOrderOfTheStatement();
    void buildersDoNotExecute();
    void orderIsWrittenMostSignificantFirst();
    void valuesAreWrittenForMessages();

    void rowsAreInsertedAndSelected();
    void selectionsAreSortedAndLimitedToColumns();
    void nullConditionsFindNull();
    void rowsAreUpdatedAndDeleted();
    void changingNoRowIsSuccess();
    void largestRowidsAreKept_data();
    void largestRowidsAreKept();
    void valuesComeBackAsTheyWere_data();
    void valuesComeBackAsTheyWere();
    void valuesAreStoredAsByAStatementOfOnesOwn_data();
    void valuesAreStoredAsByAStatementOfOnesOwn();
    void namesThatNeedQuotesAreGivenQuoted();
    void emptyConditionsAreErrors();
    void failuresAreLogged();
    void textInMessagesMayBeAnything();
    void failingSelectionsAreEmptyAndSilent();
    void selectionThatFailsInItsMidstIsEmpty();
    void failingTableIsLogged();
    void failingTriggerLeavesThoseBeforeIt();
    void triggersAreExecutedInOrder();
    void closedManagerNeverReachesTheDefaultConnection();

private:
    QString error(const char* message) const;

    NTemporaryDirectory* m_directory;
    NMessageRecorder* m_recorder;
    NTestManager* m_manager;
    NTestTable* m_table;
};

void tst_NAbstractSQLiteDbTable::init()
{
    m_directory = new NTemporaryDirectory;
    m_recorder = new NMessageRecorder;
    m_manager = new NTestManager(m_directory->filePath(text("test.db")));
    m_table = new NTestTable(m_manager, "t", "(a, b, c UNIQUE)");
    m_manager->addTable(m_table);
    m_manager->openDatabase();
    m_recorder->take();
}

void tst_NAbstractSQLiteDbTable::cleanup()
{
    delete m_table;
    delete m_manager;
    const QStringList messages = m_recorder->take();
    delete m_recorder;
    delete m_directory;
    QCOMPARE(messages, QStringList());
}

// A message about the table, with the database's path in place of "%DB".
QString tst_NAbstractSQLiteDbTable::error(const char* message) const
{
    return QString(text("critical: ") + text(message)).replace(text("%DB"), m_manager->databaseFilePath());
}

void tst_NAbstractSQLiteDbTable::statementsAreWrittenAsDocumented()
{
    typedef NAbstractSQLiteDbTable Table;
    const QString t = text("t");
    const Values one = values("a", QVariant());
    const Values two = values("b", 2, "a", 1);
    QSqlQuery query(m_manager->database());
    Table::rowidDeleteQuery(query, t, 1);
    QCOMPARE(query.lastQuery(), text("DELETE FROM t WHERE rowid IS ?;"));
    Table::rowidSelectQuery(query, t, 1, QStringList());
    QCOMPARE(query.lastQuery(), text("SELECT * FROM t WHERE rowid IS ?;"));
    Table::rowidSelectQuery(query, t, 1, columns("b a"));
    QCOMPARE(query.lastQuery(), text("SELECT b, a FROM t WHERE rowid IS ?;"));
    Table::deleteQuery(query, t, one);
    QCOMPARE(query.lastQuery(), text("DELETE FROM t WHERE a IS ?;"));
    Table::deleteQuery(query, t, two);
    QCOMPARE(query.lastQuery(), text("DELETE FROM t WHERE a IS ? AND b IS ?;"));
    Table::rowidUpdateQuery(query, t, 1, two);
    QCOMPARE(query.lastQuery(), text("UPDATE t SET a=?, b=? WHERE rowid IS ?;"));
    Table::insertQuery(query, t, two);
    QCOMPARE(query.lastQuery(), text("INSERT INTO t(a, b) VALUES(?, ?);"));
    Table::updateQuery(query, t, one, two);
    QCOMPARE(query.lastQuery(), text("UPDATE t SET a=?, b=? WHERE a IS ?;"));
    Table::updateQuery(query, t, two, one);
    QCOMPARE(query.lastQuery(), text("UPDATE t SET a=? WHERE a IS ? AND b IS ?;"));
    Table::selectQuery(query, t, two, columns("b c"), order("a", false));
    QCOMPARE(query.lastQuery(), text("SELECT b, c FROM t WHERE a IS ? AND b IS ? ORDER BY a DESC;"));
    Table::selectQuery(query, t, one, QStringList(), Order());
    QCOMPARE(query.lastQuery(), text("SELECT * FROM t WHERE a IS ? ;"));
    Table::selectQuery(query, t, QStringList(), Order());
    QCOMPARE(query.lastQuery(), text("SELECT * FROM t ;"));
    Table::selectQuery(query, t, columns("c"), order("c", true));
    QCOMPARE(query.lastQuery(), text("SELECT c FROM t ORDER BY c ASC;"));
    Table::deleteQuery(query, t, Values());
    QCOMPARE(query.lastQuery(), text("DELETE FROM t WHERE  IS ?;"));
}

void tst_NAbstractSQLiteDbTable::placeholdersInNamesAreTakenByWhatFollows()
{
    QSqlQuery query(m_manager->database());
    NAbstractSQLiteDbTable::deleteQuery(query, text("\"%2\""), values("a", 1));
    QCOMPARE(query.lastQuery(), text("DELETE FROM \"a\" WHERE a IS ?;"));
}

void tst_NAbstractSQLiteDbTable::valuesAreBoundInTheOrderOfTheStatement()
{
    const Values where = values("b", 1, "a", QVariant());
    const Values changes = values("c", text("3"), "b", 2);
    const QVariant null;
    QSqlQuery query(m_manager->database());
    NAbstractSQLiteDbTable::updateQuery(query, text("t"), where, changes);
    QCOMPARE(query.boundValues().size(), 4);
    QCOMPARE(query.boundValue(0), QVariant(2));
    QCOMPARE(query.boundValue(1), QVariant(text("3")));
    QCOMPARE(query.boundValue(2), null);
    QCOMPARE(query.boundValue(3), QVariant(1));
    NAbstractSQLiteDbTable::rowidUpdateQuery(query, text("t"), Q_INT64_C(1) << 40, changes);
    QCOMPARE(query.boundValue(0), QVariant(2));
    QCOMPARE(query.boundValue(1), QVariant(text("3")));
    QCOMPARE(query.boundValue(2), QVariant(Q_INT64_C(1) << 40));
}

void tst_NAbstractSQLiteDbTable::buildersDoNotExecute()
{
    QSqlQuery query(m_manager->database());
    NAbstractSQLiteDbTable::insertQuery(query, text("t"), values("a", 1));
    QVERIFY(!query.isActive());
    QCOMPARE(m_manager->rows("SELECT count(*) FROM t"), columns("0"));
    QVERIFY(query.exec());
    QCOMPARE(m_manager->rows("SELECT count(*) FROM t"), columns("1"));
}

void tst_NAbstractSQLiteDbTable::orderIsWrittenMostSignificantFirst()
{
    QCOMPARE(
        NAbstractSQLiteDbTable::orderByClause(order("name", true) + order("id", false)),
        text("ORDER BY name ASC, id DESC"));
    QCOMPARE(NAbstractSQLiteDbTable::orderByClause(Order()), text(""));
}

void tst_NAbstractSQLiteDbTable::valuesAreWrittenForMessages()
{
    QCOMPARE(m_table->fieldValuesToString(values("b", 5, "a", QVariant())), text("a=[NULL], b=5"));
    QCOMPARE(m_table->fieldValuesToString(values("a", QVariant(QVariant::Int))), text("a=[NULL]"));
    QCOMPARE(m_table->fieldValuesToString(values("a", text(""))), text("a="));
    QCOMPARE(m_table->fieldValuesToString(values("%2", text("%1"))), text("%2=%1"));
    QCOMPARE(m_table->fieldValuesToString(Values()), text(""));
}

void tst_NAbstractSQLiteDbTable::rowsAreInsertedAndSelected()
{
    qlonglong rowid = -1;
    QVERIFY(m_table->execInsertQuery(values("a", 1, "b", text("x")), rowid));
    QCOMPARE(rowid, Q_INT64_C(1));
    QVERIFY(m_table->execInsertQuery(values("a", 2), rowid));
    QCOMPARE(rowid, Q_INT64_C(2));
    const Rows rows = m_table->execSelectQuery(QStringList(), order("rowid", true));
    QCOMPARE(rows.size(), 2);
    QCOMPARE(QStringList(rows.at(0).keys()), columns("a b c"));
    QCOMPARE(rows.at(0).value(text("a")), QVariant(Q_INT64_C(1)));
    QCOMPARE(rows.at(0).value(text("b")), QVariant(text("x")));
    QVERIFY(rows.at(0).value(text("c")).isNull());
    QCOMPARE(rows.at(1).value(text("a")).toInt(), 2);
    QCOMPARE(m_table->execRowidSelectQuery(2, columns("a")), values("a", Q_INT64_C(2)));
    QCOMPARE(m_table->execRowidSelectQuery(2, QStringList()).size(), 3);
    QVERIFY(m_table->execRowidSelectQuery(3, QStringList()).isEmpty());
}

void tst_NAbstractSQLiteDbTable::selectionsAreSortedAndLimitedToColumns()
{
    qlonglong rowid = 0;
    for (int number = 0; number < 6; ++number)
        QVERIFY(m_table->execInsertQuery(values("a", number % 2, "b", number), rowid));
    const Rows all = m_table->execSelectQuery(columns("b"), order("a", false) + order("b", true));
    QStringList sequence;
    for (const Values& row : all) {
        QCOMPARE(row.size(), 1);
        sequence.append(row.value(text("b")).toString());
    }
    QCOMPARE(sequence, columns("1 3 5 0 2 4"));
    const Rows some = m_table->execSelectQuery(values("a", 1), columns("b"), order("b", false));
    QCOMPARE(some.size(), 3);
    QCOMPARE(some.at(0).value(text("b")).toInt(), 5);
    QVERIFY(m_table->execSelectQuery(values("a", 7), columns("b"), Order()).isEmpty());
}

void tst_NAbstractSQLiteDbTable::nullConditionsFindNull()
{
    qlonglong rowid = 0;
    QVERIFY(m_table->execInsertQuery(values("a", QVariant(), "b", 1), rowid));
    QVERIFY(m_table->execInsertQuery(values("a", 5, "b", 2), rowid));
    QCOMPARE(m_table->execSelectQuery(values("a", QVariant()), columns("b"), Order()).size(), 1);
    QVERIFY(m_table->execUpdateQuery(values("a", QVariant()), values("b", 3)));
    QCOMPARE(m_manager->rows("SELECT b FROM t ORDER BY b"), columns("2 3"));
    QVERIFY(m_table->execDeleteQuery(values("a", QVariant())));
    QCOMPARE(m_manager->rows("SELECT b FROM t"), columns("2"));
}

void tst_NAbstractSQLiteDbTable::rowsAreUpdatedAndDeleted()
{
    qlonglong rowid = 0;
    for (int number = 1; number <= 4; ++number)
        QVERIFY(m_table->execInsertQuery(values("a", number, "b", number % 2), rowid));
    QVERIFY(m_table->execUpdateQuery(values("b", 1, "a", 3), values("a", 30)));
    QVERIFY(m_table->execRowidUpdateQuery(4, values("a", 40, "b", 41)));
    QCOMPARE(m_manager->rows("SELECT a, b FROM t ORDER BY rowid"), columns("1|1 2|0 30|1 40|41"));
    QVERIFY(m_table->execDeleteQuery(values("b", 1)));
    QVERIFY(m_table->execRowidDeleteQuery(2));
    QCOMPARE(m_manager->rows("SELECT a, b FROM t ORDER BY rowid"), columns("40|41"));
}

void tst_NAbstractSQLiteDbTable::changingNoRowIsSuccess()
{
    QVERIFY(m_table->execDeleteQuery(values("a", 1)));
    QVERIFY(m_table->execRowidDeleteQuery(1));
    QVERIFY(m_table->execUpdateQuery(values("a", 1), values("b", 1)));
    QVERIFY(m_table->execRowidUpdateQuery(1, values("b", 1)));
}

void tst_NAbstractSQLiteDbTable::largestRowidsAreKept_data()
{
    QTest::addColumn<qlonglong>("rowid");
    QTest::newRow("largest") << std::numeric_limits<qlonglong>::max();
    QTest::newRow("smallest") << std::numeric_limits<qlonglong>::min();
    QTest::newRow("beyond 32 bits") << (Q_INT64_C(1) << 33);
    QTest::newRow("zero") << Q_INT64_C(0);
    QTest::newRow("negative") << Q_INT64_C(-1);
}

void tst_NAbstractSQLiteDbTable::largestRowidsAreKept()
{
    QFETCH(qlonglong, rowid);
    qlonglong inserted = 77;
    QVERIFY(m_table->execInsertQuery(values("rowid", rowid, "a", 1), inserted));
    QCOMPARE(inserted, rowid);
    QVERIFY(m_table->execRowidUpdateQuery(rowid, values("a", 2)));
    QCOMPARE(m_table->execRowidSelectQuery(rowid, columns("a rowid")), values("a", Q_INT64_C(2), "rowid", rowid));
    QVERIFY(m_table->execRowidDeleteQuery(rowid));
    QVERIFY(m_table->execRowidSelectQuery(rowid, QStringList()).isEmpty());
}

void tst_NAbstractSQLiteDbTable::valuesComeBackAsTheyWere_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("stored");
    const QVariant null;
    QByteArray blob(10 * 1000 * 1000, '\0');
    for (int index = 0; index < blob.size(); ++index)
        blob[index] = char(index * 7 % 251);
    const QString withNul = QString::fromLatin1("a\0b", 3);
    QTest::newRow("int") << QVariant(-5) << QVariant(Q_INT64_C(-5));
    QTest::newRow("unsigned") << QVariant(4000000000u) << QVariant(Q_INT64_C(4000000000));
    QTest::newRow("64 bits") << QVariant(std::numeric_limits<qlonglong>::min())
                             << QVariant(std::numeric_limits<qlonglong>::min());
    QTest::newRow("double") << QVariant(0.1) << QVariant(0.1);
    QTest::newRow("text") << QVariant(text("it's \"?\" %1")) << QVariant(text("it's \"?\" %1"));
    QTest::newRow("empty text") << QVariant(text("")) << QVariant(text(""));
    QTest::newRow("text beyond ASCII") << QVariant(text("h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"))
                                       << QVariant(text("h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    QTest::newRow("text with NUL") << QVariant(withNul) << QVariant(withNul);
    QTest::newRow("bytes") << QVariant(QByteArray("a\0\xff", 3)) << QVariant(QByteArray("a\0\xff", 3));
    QTest::newRow("10 MB") << QVariant(blob) << QVariant(blob);
    QTest::newRow("date") << QVariant(QDate(2026, 2, 3)) << QVariant(text("2026-02-03"));
    QTest::newRow("infinity") << QVariant(std::numeric_limits<double>::infinity())
                              << QVariant(std::numeric_limits<double>::infinity());
    QTest::newRow("largest unsigned 64 bits")
        << QVariant(std::numeric_limits<qulonglong>::max()) << QVariant(text("18446744073709551615"));
    QTest::newRow("character") << QVariant(QChar(0xe9)) << QVariant(text("\xc3\xa9"));
    QTest::newRow("null") << null << null;
    QTest::newRow("null of a type") << QVariant(QVariant::Int) << null;
}

void tst_NAbstractSQLiteDbTable::valuesComeBackAsTheyWere()
{
    QFETCH(QVariant, value);
    QFETCH(QVariant, stored);
    qlonglong rowid = 0;
    QVERIFY(m_table->execInsertQuery(values("a", value), rowid));
    QVERIFY(m_table->execUpdateQuery(values("a", value), values("b", value)));
    m_manager->openDatabase();
    const QVariant result = m_table->execRowidSelectQuery(rowid, columns("b")).value(text("b"));
    QCOMPARE(result.isNull(), stored.isNull());
    if (stored.isNull())
        return;
    QCOMPARE(int(result.type()), int(stored.type()));
    QVERIFY(result == stored);
}

void tst_NAbstractSQLiteDbTable::valuesAreStoredAsByAStatementOfOnesOwn_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("true") << QVariant(true);
    QTest::newRow("false") << QVariant(false);
    QTest::newRow("date and time") << QVariant(QDateTime(QDate(2026, 2, 3), QTime(4, 5, 6)));
    QTest::newRow("time") << QVariant(QTime(4, 5, 6));
}

// Qt 4 stores these as the texts that QVariant makes of them, Qt 5 in forms of its own.
void tst_NAbstractSQLiteDbTable::valuesAreStoredAsByAStatementOfOnesOwn()
{
    QFETCH(QVariant, value);
    QSqlQuery query(m_manager->database());
    QVERIFY(query.prepare(text("INSERT INTO t(a) VALUES(?)")));
    query.addBindValue(value);
    QVERIFY(query.exec());
    qlonglong rowid = 0;
    QVERIFY(m_table->execInsertQuery(values("a", value), rowid));
    QCOMPARE(
        m_manager->rows("SELECT count(*), count(DISTINCT a), count(DISTINCT typeof(a)) FROM t"), columns("2|1|1"));
    QCOMPARE(m_table->execSelectQuery(values("a", value), QStringList(), Order()).size(), 2);
}

void tst_NAbstractSQLiteDbTable::namesThatNeedQuotesAreGivenQuoted()
{
    NTestTable table(m_manager, "\"my \"\"table\"\" \xc3\xa9\"", "(\"first name\", [order], \"what; x\")");
    QVERIFY(table.createTable());
    qlonglong rowid = 0;
    Values row = values("\"first name\"", text("Zo\xc3\xab"), "[order]", 3);
    row.insert(text("\"what; x\""), 4);
    QVERIFY(table.execInsertQuery(row, rowid));
    QVERIFY(table.execUpdateQuery(values("\"first name\"", text("Zo\xc3\xab")), values("[order]", 5)));
    const Rows rows = table.execSelectQuery(
        values("\"what; x\"", 4), QStringList(text("\"first name\"")) << text("[order]"), order("[order]", true));
    QCOMPARE(rows.size(), 1);
    QCOMPARE(rows.at(0), values("first name", text("Zo\xc3\xab"), "order", Q_INT64_C(5)));
}

void tst_NAbstractSQLiteDbTable::emptyConditionsAreErrors()
{
    qlonglong rowid = 0;
    QVERIFY(m_table->execInsertQuery(values("a", 1), rowid));
    QVERIFY(!m_table->execDeleteQuery(Values()));
    QVERIFY(!m_table->execUpdateQuery(Values(), values("a", 2)));
    QVERIFY(m_table->execSelectQuery(Values(), QStringList(), Order()).isEmpty());
    QCOMPARE(m_manager->rows("SELECT a FROM t"), columns("1"));
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 2);
    QVERIFY(messages.at(0).startsWith(text("critical: SQL error 1 (\"near \"IS\": syntax error")));
    QVERIFY(messages.at(0).endsWith(
        error("\") while deleting line(s) [] in table \"t\" of database \"%DB\"").mid(10)));
}

void tst_NAbstractSQLiteDbTable::failuresAreLogged()
{
    NTestTable table(m_manager, "missing", "(a)");
    qlonglong rowid = 77;
    const Values where = values("a", QVariant(), "b", 5);
    const Values changes = values("c", text("x"));
    QVERIFY(!table.execInsertQuery(where, rowid));
    QCOMPARE(rowid, Q_INT64_C(77));
    QVERIFY(!table.execDeleteQuery(where));
    QVERIFY(!table.execRowidDeleteQuery(Q_INT64_C(-5000000000)));
    QVERIFY(!table.execUpdateQuery(where, changes));
    QVERIFY(!table.execRowidUpdateQuery(Q_INT64_C(5000000000), changes));
    QStringList expected;
    const char* const messages[] = {
        "while inserting line [a=[NULL], b=5] in table \"missing\" of database \"%DB\"",
        "while deleting line(s) [a=[NULL], b=5] in table \"missing\" of database \"%DB\"",
        "while deleting line with rowid -5000000000 in table \"missing\" of database \"%DB\"",
        "while updating line(s) [a=[NULL], b=5] in table \"missing\" of database \"%DB\" with values [c=x]",
        "while updating line with rowid 5000000000 in table \"missing\" of database \"%DB\" with values [c=x]",
    };
    for (const char* message : messages)
        expected.append(
            error((QByteArray("SQL error 1 (\"no such table: missing Unable to execute statement\") ") + message)
                      .constData()));
    QCOMPARE(m_recorder->take(), expected);

    QVERIFY(m_table->execInsertQuery(values("c", 1), rowid));
    QVERIFY(!m_table->execInsertQuery(values("c", 1), rowid));
    const QStringList refused = m_recorder->take();
    QCOMPARE(refused.size(), 1);
    QVERIFY(refused.at(0).startsWith(text("critical: SQL error 19 (\"UNIQUE constraint failed: t.c ")));
}

void tst_NAbstractSQLiteDbTable::textInMessagesMayBeAnything()
{
    NTestTable table(m_manager, "missing", "(a)");
    QVERIFY(!table.execDeleteQuery(values("a", text("%s%n \xc3\xa9"))));
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 1);
    QVERIFY(messages.at(0).contains(text("[a=%s%n ")));
}

void tst_NAbstractSQLiteDbTable::failingSelectionsAreEmptyAndSilent()
{
    const NTestTable table(m_manager, "missing", "(a)");
    QVERIFY(table.execSelectQuery(QStringList(), Order()).isEmpty());
    QVERIFY(table.execSelectQuery(values("a", 1), QStringList(), Order()).isEmpty());
    QVERIFY(table.execRowidSelectQuery(1, QStringList()).isEmpty());
}

void tst_NAbstractSQLiteDbTable::selectionThatFailsInItsMidstIsEmpty()
{
    qlonglong rowid = 0;
    QVERIFY(m_table->execInsertQuery(values("a", text("1")), rowid));
    QVERIFY(m_table->execInsertQuery(values("a", text("not JSON")), rowid));
    QCOMPARE(m_table->execSelectQuery(columns("a"), Order()).size(), 2);
    QVERIFY(m_table->execSelectQuery(columns("json(a)"), Order()).isEmpty());
}

void tst_NAbstractSQLiteDbTable::failingTableIsLogged()
{
    QVERIFY(!m_table->createTable());
    QCOMPARE(
        m_recorder->take(),
        QStringList(
            error("SQL error 1 (\"table t already exists Unable to execute statement\") while creating table "
                  "\"t\" of database \"%DB\"")));
}

void tst_NAbstractSQLiteDbTable::failingTriggerLeavesThoseBeforeIt()
{
    m_table->addTrigger("CREATE TRIGGER first AFTER INSERT ON t BEGIN SELECT 1; END");
    m_table->addTrigger("CREATE TRIGGER second AFTER INSERT ON missing BEGIN SELECT 1; END");
    m_table->addTrigger("CREATE TRIGGER third AFTER INSERT ON t BEGIN SELECT 1; END");
    QVERIFY(!m_table->createTriggers());
    QCOMPARE(
        m_recorder->take(),
        QStringList(
            error("SQL error 1 (\"no such table: main.missing Unable to execute statement\") while creating "
                  "triggers for table \"t\" of database \"%DB\"")));
    QCOMPARE(m_manager->rows("SELECT name FROM sqlite_master WHERE type = 'trigger'"), columns("first"));
}

void tst_NAbstractSQLiteDbTable::triggersAreExecutedInOrder()
{
    QVERIFY(m_table->createTriggers());
    m_table->addTrigger("CREATE TRIGGER z AFTER INSERT ON t BEGIN UPDATE t SET b = 1; END");
    m_table->addTrigger("CREATE TRIGGER y AFTER INSERT ON t BEGIN UPDATE t SET b = 2; END");
    QVERIFY(m_table->createTriggers());
    QCOMPARE(m_manager->rows("SELECT name FROM sqlite_master WHERE type = 'trigger'"), columns("z y"));
}

void tst_NAbstractSQLiteDbTable::closedManagerNeverReachesTheDefaultConnection()
{
    {
        QSqlDatabase other = QSqlDatabase::addDatabase(text("QSQLITE"));
        other.setDatabaseName(text(":memory:"));
        QVERIFY(other.open());
        QSqlQuery query(other);
        QVERIFY(query.exec(text("CREATE TABLE t(a, b, c)")));
        QVERIFY(query.exec(text("INSERT INTO t VALUES(1, 2, 3)")));
        query.finish();

        m_manager->closeDatabase();
        NTestTable untried(m_manager, "untried", "(a)");
        qlonglong rowid = 77;
        QVERIFY(!m_table->execInsertQuery(values("a", 1), rowid));
        QCOMPARE(rowid, Q_INT64_C(77));
        QVERIFY(!m_table->execDeleteQuery(values("a", 1)));
        QVERIFY(!m_table->execRowidDeleteQuery(1));
        QVERIFY(!m_table->execUpdateQuery(values("a", 1), values("a", 2)));
        QVERIFY(!m_table->execRowidUpdateQuery(1, values("a", 2)));
        QVERIFY(!untried.createTable());
        untried.addTrigger("CREATE TRIGGER x AFTER INSERT ON t BEGIN SELECT 1; END");
        QVERIFY(!untried.createTriggers());
        QVERIFY(m_table->execSelectQuery(QStringList(), Order()).isEmpty());
        QVERIFY(m_table->execSelectQuery(values("a", 1), QStringList(), Order()).isEmpty());
        QVERIFY(m_table->execRowidSelectQuery(1, QStringList()).isEmpty());
        m_manager->initializeDatabase();
        int version = 77;
        QVERIFY(!m_manager->checkDatabaseIntegrity(version));
        QCOMPARE(version, 77);

        QVERIFY(query.exec(text("SELECT count(*) || '|' || sum(a) FROM t")));
        QVERIFY(query.next());
        QCOMPARE(query.value(0).toString(), text("1|1"));
        QCOMPARE(other.tables(), columns("t"));
    }
    QSqlDatabase::removeDatabase(QString::fromLatin1(QSqlDatabase::defaultConnection));
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 7);
    for (const QString& message : messages)
        QVERIFY2(
            message.startsWith(text("critical: SQL error -1 (\"Driver not loaded Driver not loaded\") while ")),
            qPrintable(message));
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    tst_NAbstractSQLiteDbTable test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_nabstractsqlitedbtable.moc"
