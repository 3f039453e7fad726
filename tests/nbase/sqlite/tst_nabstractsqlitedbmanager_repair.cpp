#include "nsqlitetest.h"

#include "support/nprivatenamespace.h"

#include <QtTest/QtTest>

using namespace NSqliteTest;

/** The deletion of rows whose foreign keys refer to nothing. */
class tst_NAbstractSqliteDbManager_Repair : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void brokenReferencesAreDeleted();
    void brokenReferencesOfSeveralColumnsAreDeleted();
    void referencesWithoutColumnsPrintNone();
    void rowsWithoutRowidAreLeftAlone();
    void rowWithSeveralBrokenReferencesIsDeleted();
    void rowsThatOthersReferToStay();
    void actionsOfForeignKeysAreTaken();
    void repairWorksOnNamesThatNeedQuotes();
    void repairFindsRowsWhoseRowidNameIsTaken();
    void repairLeavesRowsThatCannotBeIdentified();
    void repairLeavesRowsThatTriggersKeep();
    void repairFindsRowsWhoseRowidNameIsGenerated();
    void rowsWithoutTheirParentTableStay();
    void deferredForeignKeysAreMetByTheWholeRepair();
    void deferredForeignKeysUndoTheRepair();
    void triggersThatRollBackUndoTheRepair();
    void repairContinuesAfterRowsThatTriggersKeep();
};

void tst_NAbstractSqliteDbManager_Repair::brokenReferencesAreDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id), x);"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(1, 'kept'), (2, 'gone'), (NULL, 'kept too');",
        1));
    manager.openDatabase();
    QCOMPARE(
        takeMessages(), lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing "
                              "parent(id) with value(2). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT x FROM child"), lines("kept\nkept too"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

void tst_NAbstractSqliteDbManager_Repair::brokenReferencesOfSeveralColumnsAreDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(a, b, UNIQUE(a, b)); CREATE TABLE child(x, y, FOREIGN KEY(x, y) REFERENCES parent(a, "
        "b));"
        "INSERT INTO child VALUES('one', 2);",
        1));
    manager.openDatabase();
    QCOMPARE(
        takeMessages(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(x, y) referencing "
              "parent(a, b) with value(one, 2). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT * FROM child"), QStringList());
}

void tst_NAbstractSqliteDbManager_Repair::referencesWithoutColumnsPrintNone()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(a, b, PRIMARY KEY(a, b)); CREATE TABLE single(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(x, y, FOREIGN KEY(x, y) REFERENCES parent); CREATE TABLE other(z REFERENCES single);"
        "INSERT INTO child VALUES(1, 2); INSERT INTO other VALUES(3);",
        1));
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 2);
    const QString all = messages.join(text("\n"));
    QVERIFY(all.contains(text(" on child(x, y) referencing parent() with value(1, 2).")));
    QVERIFY(all.contains(text(" on other(z) referencing single() with value(3).")));
}

void tst_NAbstractSqliteDbManager_Repair::rowsWithoutRowidAreLeftAlone()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p PRIMARY KEY REFERENCES parent(id)) "
        "WITHOUT "
        "ROWID; INSERT INTO child VALUES(2), (3); CREATE TABLE other(q REFERENCES parent(id)); INSERT INTO other "
        "VALUES(4);",
        1));
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 3);
    QCOMPARE(messages.filter(text(" on child(p) referencing parent(id) with value(). The")).size(), 2);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("2\n3"));
    QCOMPARE(manager.rows("SELECT q FROM other"), QStringList());
}

void tst_NAbstractSqliteDbManager_Repair::rowWithSeveralBrokenReferencesIsDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id), q REFERENCES "
        "parent(id));"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(2, 3), (1, 4), (1, 1);",
        1));
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QVERIFY(
        !messages.filter(text("with value(2)")).isEmpty() || !messages.filter(text("with value(3)")).isEmpty());
    QCOMPARE(messages.filter(text("with value(4)")).size(), 1);
    // The row is reported for each of its references; the second time it is gone.
    QCOMPARE(messages.filter(text("with value()")).size(), 1);
    QCOMPARE(messages.size(), 3);
    QCOMPARE(manager.rows("SELECT p, q FROM child"), lines("1|1"));
}

void tst_NAbstractSqliteDbManager_Repair::rowsThatOthersReferToStay()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(id INTEGER PRIMARY KEY, p REFERENCES parent(id));"
        "CREATE TABLE grandchild(id INTEGER PRIMARY KEY, c REFERENCES child(id) ON DELETE RESTRICT);"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(10, 1), (20, 2), (30, 3); INSERT INTO grandchild "
        "VALUES(100, 10), (200, 20);",
        1));
    for (int round = 0; round < 2; ++round) {
        manager.openDatabase();
        const QString prefix =
            text("warning: Foreign key constraint error in database \"Test\" on child(p) referencing parent(id) ");
        QStringList expected(prefix + text("with value(2). The reference will be deleted."));
        if (round == 0)
            expected.append(prefix + text("with value(3). The reference will be deleted."));
        QCOMPARE(takeMessages(), expected);
        QCOMPARE(manager.rows("SELECT id FROM child"), lines("10\n20"));
        QCOMPARE(manager.rows("SELECT id FROM grandchild"), lines("100\n200"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    }
}

void tst_NAbstractSqliteDbManager_Repair::actionsOfForeignKeysAreTaken()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(id INTEGER PRIMARY KEY, p REFERENCES parent(id)); INSERT INTO child VALUES(1, 7);"
        "CREATE TABLE nulled(c REFERENCES child(id) ON DELETE SET NULL); INSERT INTO nulled VALUES(1);"
        "CREATE TABLE cascaded(c REFERENCES child(id) ON DELETE CASCADE); INSERT INTO cascaded VALUES(1);",
        1));
    manager.openDatabase();
    QCOMPARE(takeMessages().size(), 1);
    QCOMPARE(manager.rows("SELECT count(*), count(c) FROM nulled"), lines("1|0"));
    QCOMPARE(manager.rows("SELECT count(*) FROM cascaded"), lines("0"));
}

void tst_NAbstractSqliteDbManager_Repair::repairWorksOnNamesThatNeedQuotes()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE \"the parent\"(\"the id\" INTEGER PRIMARY KEY);"
        "CREATE TABLE \"a \"\"child\"\"\"(\"order\" REFERENCES \"the parent\"(\"the id\")); INSERT INTO \"a "
        "\"\"child\"\"\" "
        "VALUES(9);",
        1));
    manager.openDatabase();
    QCOMPARE(
        takeMessages(), lines("warning: Foreign key constraint error in database \"Test\" on a \"child\"(order) "
                              "referencing the parent(the id) with value(9). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT * FROM \"a \"\"child\"\"\""), QStringList());
}

void tst_NAbstractSqliteDbManager_Repair::repairFindsRowsWhoseRowidNameIsTaken()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(rowid, p REFERENCES parent(id)); INSERT INTO child VALUES(2, 1), (1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(takeMessages().filter(text("with value(5)")).size(), 1);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1"));
}

// A condition on a column that took the last name of the rowid would delete rows that are right.
void tst_NAbstractSqliteDbManager_Repair::repairLeavesRowsThatCannotBeIdentified()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(rowid, oid, _ROWID_, p REFERENCES parent(id));"
        "INSERT INTO child VALUES(2, 2, 2, 1), (1, 1, 1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(
        takeMessages(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing parent(id) with "
              "value(). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1\n5"));
}

void tst_NAbstractSqliteDbManager_Repair::repairLeavesRowsThatTriggersKeep()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE kept(p REFERENCES parent(id)); INSERT INTO kept VALUES(1);"
        "CREATE TRIGGER keep BEFORE DELETE ON kept BEGIN SELECT raise(ABORT, 'kept'); END;"
        "CREATE TABLE again(id INTEGER PRIMARY KEY AUTOINCREMENT, p REFERENCES parent(id));"
        "INSERT INTO again(p) VALUES(2);"
        "CREATE TRIGGER again AFTER DELETE ON again BEGIN INSERT INTO again(p) VALUES(old.p); END;",
        1));
    manager.openDatabase();
    QCOMPARE(takeMessages().size(), 2);
    QCOMPARE(manager.rows("SELECT p FROM kept"), lines("1"));
    QCOMPARE(manager.rows("SELECT p FROM again"), lines("2"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

// A condition on the generated column would delete the row that is right.
void tst_NAbstractSqliteDbManager_Repair::repairFindsRowsWhoseRowidNameIsGenerated()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(x, p REFERENCES parent(id), rowid GENERATED ALWAYS AS (x));"
        "INSERT INTO child VALUES(2, 1), (1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(takeMessages().filter(text("with value(5)")).size(), 1);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1"));
}

// With foreign keys on, SQLite does not even prepare a deletion there.
void tst_NAbstractSqliteDbManager_Repair::rowsWithoutTheirParentTableStay()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE child(p REFERENCES parent(id), q REFERENCES other(id));"
        "CREATE TABLE other(id INTEGER PRIMARY KEY); CREATE TABLE after(q REFERENCES other(id));"
        "INSERT INTO other VALUES(1); INSERT INTO child VALUES(NULL, 1), (NULL, 2), (3, 1), (3, 2);"
        "INSERT INTO after VALUES(1), (5);",
        1));
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QCOMPARE(messages.filter(text(" on child(p) referencing parent(id) with value(3).")).size(), 2);
    QCOMPARE(messages.filter(text(" on child(q) referencing other(id) with value(2).")).size(), 2);
    QCOMPARE(messages.filter(text(" on after(q) referencing other(id) with value(5).")).size(), 1);
    QCOMPARE(messages.size(), 5);
    QCOMPARE(manager.rows("SELECT p, q FROM child"), lines("|1\n|2\n3|1\n3|2"));
    QCOMPARE(manager.rows("SELECT q FROM after"), lines("1"));
}

void tst_NAbstractSqliteDbManager_Repair::deferredForeignKeysAreMetByTheWholeRepair()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE a(id INTEGER PRIMARY KEY, p REFERENCES parent(id));"
        "CREATE TABLE b(x REFERENCES a(id) DEFERRABLE INITIALLY DEFERRED, p REFERENCES parent(id));"
        "INSERT INTO a VALUES(1, 9), (2, NULL); INSERT INTO b VALUES(1, 9), (2, NULL);",
        1));
    manager.openDatabase();
    QCOMPARE(takeMessages().size(), 2);
    QCOMPARE(manager.rows("SELECT id FROM a"), lines("2"));
    QCOMPARE(manager.rows("SELECT x FROM b"), lines("2"));
    QCOMPARE(manager.rows("PRAGMA foreign_key_check"), QStringList());
}

// SQLite refuses the commit, because a row of b would be without the row that it refers to.
void tst_NAbstractSqliteDbManager_Repair::deferredForeignKeysUndoTheRepair()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE a(id INTEGER PRIMARY KEY, p REFERENCES parent(id));"
        "CREATE TABLE b(x REFERENCES a(id) DEFERRABLE INITIALLY DEFERRED);"
        "CREATE TABLE nulled(x REFERENCES a(id) ON DELETE SET NULL);"
        "CREATE TABLE c(p REFERENCES parent(id));"
        "INSERT INTO a VALUES(1, 9), (2, 9), (3, 9), (4, NULL); INSERT INTO b VALUES(2), (4);"
        "INSERT INTO nulled VALUES(1), (3); INSERT INTO c VALUES(7), (8), (NULL);",
        1));
    for (int round = 0; round < 2; ++round) {
        manager.openDatabase();
        const QStringList messages = takeMessages();
        QCOMPARE(messages.filter(text(" on a(p) referencing parent(id) with value(9).")).size(), 3);
        QCOMPARE(messages.filter(text(" on c(p) referencing parent(id) with value(")).size(), 2);
        QCOMPARE(messages.size(), 5);
        QCOMPARE(manager.rows("SELECT id FROM a"), lines("1\n2\n3\n4"));
        QCOMPARE(manager.rows("SELECT x FROM b"), lines("2\n4"));
        QCOMPARE(manager.rows("SELECT count(*), count(x) FROM nulled"), lines("2|2"));
        QCOMPARE(manager.rows("SELECT count(*) FROM c"), lines("3"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
        QVERIFY(manager.execute("BEGIN"));
        QVERIFY(manager.execute("ROLLBACK"));
    }
}

// Without the transaction, another process could put a row in the place of one that has been checked.
void tst_NAbstractSqliteDbManager_Repair::triggersThatRollBackUndoTheRepair()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE a(p REFERENCES parent(id));"
        "INSERT INTO a VALUES(1), (2), (3), (4);"
        "CREATE TRIGGER keep BEFORE DELETE ON a WHEN old.p = 3 BEGIN SELECT raise(ROLLBACK, 'no'); END;",
        1));
    for (int round = 0; round < 2; ++round) {
        manager.openDatabase();
        const QStringList messages = takeMessages();
        QCOMPARE(messages.size(), 3);
        QVERIFY(messages.last().contains(text(" on a(p) referencing parent(id) with value(3).")));
        QCOMPARE(manager.rows("SELECT p FROM a"), lines("1\n2\n3\n4"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    }
}

void tst_NAbstractSqliteDbManager_Repair::repairContinuesAfterRowsThatTriggersKeep()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id));"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 25000) "
        "INSERT INTO child SELECT i FROM n;"
        "CREATE TRIGGER keep BEFORE DELETE ON child WHEN old.p <= 11000 BEGIN SELECT raise(ABORT, 'no'); END;"
        "CREATE TRIGGER ignore BEFORE DELETE ON child WHEN old.p BETWEEN 11001 AND 12000 "
        "BEGIN SELECT raise(IGNORE); END;",
        1));
    manager.openDatabase();
    QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 25000);
    QCOMPARE(messages.removeDuplicates(), 0);
    QCOMPARE(manager.rows("SELECT count(*), max(p) FROM child"), lines("12000|12000"));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Repair, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_repair.moc"
