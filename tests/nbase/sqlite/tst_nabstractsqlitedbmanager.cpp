#include "ntestdatabase.h"

#include "support/nchildprocess.h"
#include "support/nfilefault.h"
#include "support/nmessagerecorder.h"
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtSql/QSqlDriver>
#include <QtSql/QSqlIndex>
#include <QtSql/QSqlRecord>
#include <QtTest/QtTest>

#include <functional>
#include <random>

#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

QStringList lines(const char* messages)
{
    QStringList result = text(messages).split(QLatin1Char('\n'));
    if (result.last().isEmpty())
        result.removeLast();
    return result;
}

const char* const Created =
    "warning: The integrity check of the database \"Test\" has failed. It will be initialized.\n";
const char* const NotOpened = "critical: Cannot open the database \"Test\"\n";
const char* const Refused =
    "warning: The database \"Test\" cannot be converted from version 1 to version 2. It will be "
    "initialized.\n";
const char* const Converted = "debug: The database \"Test\" has been converted from version 1 to version 2\n";
const char* const Newer =
    "warning: The version of the database \"Test\" (3) is greater than the current version of the "
    "database (2). It will be initialized.\n";

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
}

// A number from 0 to below @a limit; the same sequence in each run.
int random(int limit)
{
    static std::mt19937 generator;
    return int(generator() % unsigned(limit));
}

// Another process: the sqlite3 command with a database, told what to do line by line.
class OtherProcess
{
public:
    explicit OtherProcess(const QString& path)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(text("sqlite3"), QStringList(path));
        if (!m_process.waitForStarted())
            qFatal("sqlite3 does not start");
    }

    ~OtherProcess()
    {
        m_process.closeWriteChannel();
        m_process.waitForFinished();
    }

    // Waits until the statements have been executed. Returns what they printed.
    QByteArray execute(const char* statements)
    {
        m_process.write(QByteArray(statements) + "\n.print done\n");
        QByteArray output;
        while (!output.endsWith("done\n") && m_process.waitForReadyRead(30000))
            output += m_process.readAll();
        output.chop(5);
        return output;
    }

private:
    QProcess m_process;
};

// A manager that is interrupted once, when it asks for its version or its name: it has looked at the file then,
// and is about to act.
class InterruptedManager : public NTestManager
{
public:
    enum Moment { AtVersion, AtName };

    InterruptedManager(const QString& path, int version, Moment moment, const std::function<void()>& interruption)
        : NTestManager(path, version)
        , m_moment(moment)
        , m_interruption(interruption)
    {
    }

    QString name() const override
    {
        interrupt(AtName);
        return NTestManager::name();
    }

    int currentVersion() const override
    {
        interrupt(AtVersion);
        return NTestManager::currentVersion();
    }

private:
    void interrupt(Moment moment) const
    {
        const std::function<void()> interruption = m_interruption;
        if (!interruption || moment != m_moment)
            return;
        m_interruption = std::function<void()>();
        interruption();
    }

    Moment m_moment;
    mutable std::function<void()> m_interruption;
};

// What happens while SQLite waits for a lock, once.
std::function<void()> s_whileWaiting;

void waitingBegins()
{
    const std::function<void()> happening = s_whileWaiting;
    s_whileWaiting = std::function<void()>();
    if (happening)
        happening();
}

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

bool convertToTwo(NTestManager& manager)
{
    return manager.execute("CREATE TABLE child2(id INTEGER PRIMARY KEY, note)") &&
           manager.execute("INSERT INTO child2 SELECT id, 'new ' || note FROM t") &&
           manager.execute("DROP TABLE t") && manager.execute("ALTER TABLE child2 RENAME TO t");
}

// What a conversion may do with its database; the first that goes wrong, or a null text.
#define REQUIRE(condition) \
    if (!(condition)) \
    return text(#condition)

QString useDatabase(NTestManager& manager)
{
    QSqlDatabase database = manager.database();
    REQUIRE(database.isValid() && database.isOpen());
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

int openFileCount()
{
    return QDir(text("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

} // namespace

// The functions that SQLite waits with (os_unix.c of its sources names them).
extern "C" {

__attribute__((visibility("default"))) int usleep(useconds_t time)
{
    waitingBegins();
    const timespec duration = {time_t(time / 1000000), long(time % 1000000) * 1000};
    return ::clock_nanosleep(CLOCK_MONOTONIC, 0, &duration, nullptr);
}

__attribute__((visibility("default"))) int nanosleep(const timespec* duration, timespec* remaining)
{
    waitingBegins();
    return ::clock_nanosleep(CLOCK_MONOTONIC, 0, duration, remaining);
}
}

class tst_NAbstractSqliteDbManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void closedManagerHasNoDatabase();
    void missingFileIsMadeWithItsDirectory();
    void emptyFileIsInitialised();
    void currentDatabaseIsLeftAsItIs();
    void openingAgainLeavesNoRemarks();
    void closedConnectionIsOpenedWhenItIsAskedFor();
    void foreignKeysAreEnforcedAfterEachOpening_data();
    void foreignKeysAreEnforcedAfterEachOpening();
    void pathThatIsNoFileIsRefused();

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
    void newerDatabaseIsInitialised();
    void initialisationRemovesEverything();
    void initialisationEndsTheCallersTransaction();
    void initialisationEndsTheCallersQueries();
    void failingTablesDoNotStopTheOthers();

    void fileThatIsNoDatabaseIsSetAside();
    void damageIsReportedLineByLine();
    void damageThatPreventsDroppingSetsTheFileAside();
    void companionsGoWithADamagedFile();
    void fileBehindASymbolicLinkIsSetAside();
    void databaseThatCannotBeCheckedIsLeftAsItIs_data();
    void databaseThatCannotBeCheckedIsLeftAsItIs();
    void openingsLeaveNoDescriptors();

    void openingsInBetweenAreSeen_data();
    void openingsInBetweenAreSeen();
    void processesMayOpenAtOnce_data();
    void processesMayOpenAtOnce();
    void openingEndsWhereOthersNeverDo();

    void lockedDatabaseIsNotOpened();
    void databaseThatIsBeingWrittenIsOpened();
    void olderDatabaseThatIsBeingWrittenIsNotOpened();
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
    void readerAtTheEndOfAConversionIsNoRefusal();
    void faultDuringTheCreationOfATableKeepsWhatIsThere();
    void unreadablePagesAreNoDamage();
    void anySingleFailureKeepsOldOrNewData_data();
    void anySingleFailureKeepsOldOrNewData();

    void brokenReferencesAreDeleted();
    void brokenReferencesOfSeveralColumnsAreDeleted();
    void referencesWithoutColumnsPrintNone();
    void rowsWithoutRowidAreLeftAlone();
    void rowWithSeveralBrokenReferencesIsDeleted();
    void deletionsThatBreakOtherReferencesGoOn();
    void actionsOfForeignKeysAreTaken();
    void repairWorksOnNamesThatNeedQuotes();
    void repairFindsRowsWhoseRowidNameIsTaken();
    void repairLeavesRowsAloneThatCannotBeNamed();
    void repairEndsWhereTriggersOpposeIt();
    void repairKeepsRowsThatArePutInMeanwhile();
    void repairFindsRowsWhoseRowidNameIsGenerated();
    void missingParentTablesDoNotStopTheRepair();
    void deferredForeignKeysDoNotStopTheRepair();
    void triggersThatRollBackDoNotStopTheRepair();
    void repairGoesOnBehindRowsThatTriggersKeep();

    void killedConversionLeavesOldOrNewData();
    void damagedCopiesAlwaysEndWell();

private:
    QString newPath();
    QString makeDatabase(const char* statements, int version);
    QString makeVersionOne();
    QString mountSmallDisk(const char* size);
    void openAndKeepVersionOne(NTestManager& manager);

    NTemporaryDirectory* m_directory;
    NMessageRecorder* m_recorder;
    int m_count;
};

// The files lie in memory: what is tested does not depend on the disk, and hundreds of commits take no time there.
void tst_NAbstractSqliteDbManager::initTestCase()
{
    m_directory = new NTemporaryDirectory;
    m_count = 0;
    NPrivateNamespace::mountEmptyDirectory(m_directory->path());
}

void tst_NAbstractSqliteDbManager::cleanupTestCase()
{
    NPrivateNamespace::unmount(m_directory->path());
    delete m_directory;
}

void tst_NAbstractSqliteDbManager::init()
{
    m_recorder = new NMessageRecorder;
}

void tst_NAbstractSqliteDbManager::cleanup()
{
    const QStringList messages = m_recorder->take();
    delete m_recorder;
    QCOMPARE(messages, QStringList());
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
}

QString tst_NAbstractSqliteDbManager::newPath()
{
    const QString directory = m_directory->filePath(QString::number(++m_count));
    QDir().mkpath(directory);
    return directory + text("/test.db");
}

QString tst_NAbstractSqliteDbManager::makeDatabase(const char* statements, int version)
{
    const QString path = newPath();
    OtherProcess process(path);
    const QByteArray output =
        process.execute(QByteArray(statements) + "\nPRAGMA user_version=" + QByteArray::number(version) + ";");
    if (!output.isEmpty())
        qFatal("%s", output.constData());
    return path;
}

QString tst_NAbstractSqliteDbManager::makeVersionOne()
{
    return makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note); INSERT INTO t VALUES(1, 'a'), (2, 'b');", 1);
}

QString tst_NAbstractSqliteDbManager::mountSmallDisk(const char* size)
{
    const QString path = newPath();
    const QByteArray directory = QFile::encodeName(QFileInfo(path).path());
    if (::mount("tmpfs", directory.constData(), "tmpfs", 0, size) != 0)
        qFatal("cannot mount at %s", directory.constData());
    return path;
}

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
    QCOMPARE(m_recorder->take(), lines(Created));
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
    QCOMPARE(m_recorder->take(), lines(Created));
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

void tst_NAbstractSqliteDbManager::openingAgainLeavesNoRemarks()
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
    m_recorder->take();
}

void tst_NAbstractSqliteDbManager::pathThatIsNoFileIsRefused()
{
    NTestManager directory(QFileInfo(newPath()).path());
    directory.openDatabase();
    QVERIFY(!directory.database().isValid());
    QCOMPARE(m_recorder->take(), lines(NotOpened));
    NTestManager belowFile(makeVersionOne() + text("/test.db"));
    belowFile.openDatabase();
    QVERIFY(!belowFile.database().isValid());
    QCOMPARE(m_recorder->take(), lines(NotOpened));
}

void tst_NAbstractSqliteDbManager::olderDatabaseIsConverted()
{
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    QStringList foreignKeys;
    manager.setConversion([&](NTestManager& database) {
        foreignKeys = database.rows("PRAGMA foreign_keys");
        return convertToTwo(database);
    });
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
    QCOMPARE(manager.oldVersion(), 1);
    QCOMPARE(foreignKeys, lines("0"));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager::conversionIsRefusedByTheBase()
{
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Refused));
    QCOMPARE(manager.rows("SELECT * FROM t"), QStringList());
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
}

void tst_NAbstractSqliteDbManager::failedConversionInitialises_data()
{
    QTest::addColumn<QString>("statements");
    QTest::addColumn<bool>("result");
    QTest::newRow("refused after changes") << text("DROP TABLE t;CREATE TABLE other(a)") << false;
    QTest::newRow("rolled back by itself") << text("ROLLBACK") << false;
    QTest::newRow("committed by itself and failed") << text("DROP TABLE t;COMMIT") << false;
    QTest::newRow("committed by itself") << text("COMMIT") << true;
    QTest::newRow("failed with a transaction of its own open") << text("COMMIT;BEGIN;DROP TABLE t") << false;
}

void tst_NAbstractSqliteDbManager::failedConversionInitialises()
{
    QFETCH(QString, statements);
    QFETCH(bool, result);
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.setConversion([&](NTestManager& database) {
        const QStringList all = statements.split(QLatin1Char(';'));
        for (const QString& statement : all)
            database.execute(statement.toUtf8().constData());
        return result;
    });
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    QVERIFY(manager.execute("BEGIN"));
    QVERIFY(manager.execute("ROLLBACK"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::conversionMayLeaveATransactionOpen()
{
    NTestManager manager(makeVersionOne(), 2);
    manager.setConversion([](NTestManager& database) {
        return convertToTwo(database) && database.execute("COMMIT") && database.execute("BEGIN") &&
               database.execute("SAVEPOINT inner");
    });
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
    QVERIFY(manager.execute("BEGIN"));
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

// The hook's connection is the manager's, seen through a watch; that must not show.
void tst_NAbstractSqliteDbManager::conversionUsesItsDatabaseLikeAnyOther()
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
    const QStringList messages = m_recorder->take();
    QCOMPARE(wrong, QString());
    QCOMPARE(messages, lines(Converted));
    QCOMPARE(manager.rows("SELECT * FROM t"), lines("1|new a\n2|new b\n3|new c\n4|\n5|new e\n6|new f"));
    QCOMPARE(manager.database().connectionName(), text("test connection"));
    QCOMPARE(QSqlDatabase::connectionNames(), lines("test connection"));
}

void tst_NAbstractSqliteDbManager::conversionMayUseTables()
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
    QCOMPARE(m_recorder->take(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("b\nc"));
    QCOMPARE(manager.rows("SELECT a FROM added"), lines("c"));
}

void tst_NAbstractSqliteDbManager::mistakesInAConversionInitialise_data()
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
void tst_NAbstractSqliteDbManager::mistakesInAConversionInitialise()
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
    QCOMPARE(m_recorder->take(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
}

void tst_NAbstractSqliteDbManager::damageOutsideTheFileDoesNotStopInitialisation_data()
{
    QTest::addColumn<bool>("isAttached");
    QTest::newRow("what a virtual table stores") << false;
    QTest::newRow("attached file") << true;
}

void tst_NAbstractSqliteDbManager::damageOutsideTheFileDoesNotStopInitialisation()
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
    QCOMPARE(m_recorder->take(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
}

void tst_NAbstractSqliteDbManager::queryThatAConversionLeavesDoesNotStopInitialisation()
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
    QCOMPARE(m_recorder->take(), lines(Refused));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
    QVERIFY(!query->next());
    QVERIFY(!query->exec());
}

void tst_NAbstractSqliteDbManager::newerDatabaseIsInitialised()
{
    NTestManager manager(makeDatabase("CREATE TABLE t(a); CREATE TABLE future(a);", 3), 2);
    NTestTable table(&manager, "t", "(b)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Newer));
    QCOMPARE(manager.rows("SELECT sql FROM sqlite_master"), lines("CREATE TABLE t(b)"));
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
}

void tst_NAbstractSqliteDbManager::initialisationRemovesEverything()
{
    const QString path = makeDatabase(
        "CREATE TABLE \"needs \"\"quotes\"\"\"(id INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO \"needs "
        "\"\"quotes\"\"\" "
        "VALUES(5); CREATE TABLE child(a REFERENCES \"needs \"\"quotes\"\"\"(id)); INSERT INTO child VALUES(5);"
        "CREATE VIEW seen AS SELECT * FROM child; CREATE INDEX byA ON child(a); CREATE VIRTUAL TABLE words USING "
        "fts5(a);"
        "CREATE TRIGGER deleted AFTER DELETE ON child BEGIN SELECT raise(ABORT, 'no'); END;",
        1);
    NTestManager manager(path);
    NTestTable table(&manager, "seen", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT * FROM child"), lines("5"));
    manager.initializeDatabase();
    QCOMPARE(
        manager.rows("SELECT sql FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"),
        lines("CREATE TABLE seen(a)"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
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
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 3);
    QCOMPARE(messages.at(0) + QLatin1Char('\n'), text(Created));
    QVERIFY(messages.at(1).contains(text("while creating table \"wrong\"")));
    QVERIFY(messages.at(2).contains(text("while creating triggers for table \"wrong\"")));
    QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("t\ntried"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::fileThatIsNoDatabaseIsSetAside()
{
    const QString path = newPath();
    const QByteArray content = QByteArray("no database at all\n").repeated(1000);
    for (int round = 0; round < 2; ++round) {
        write(path, content);
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(a)");
        manager.addTable(&table);
        manager.openDatabase();
        QCOMPARE(m_recorder->take(), lines(Created));
        QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
        QCOMPARE(contentOf(path + text(".damaged")), content);
    }
    QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files), lines("test.db\ntest.db.damaged"));
}

void tst_NAbstractSqliteDbManager::damageIsReportedLineByLine()
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
    const QStringList messages = m_recorder->take();
    QVERIFY(messages.size() >= 3);
    QCOMPARE(
        messages.first(),
        text("warning: Integrity check on the database \"Test\" fails. The following error(s) have been "
             "returned:"));
    const QStringList errors = messages.mid(1, messages.size() - 2);
    for (const QString& error : errors)
        QVERIFY2(error.startsWith(text("warning: ")) && error.contains(text("index i")), qPrintable(error));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Created));
    QCOMPARE(manager.rows("SELECT sql FROM sqlite_master"), lines("CREATE TABLE t(b)"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::damageThatPreventsDroppingSetsTheFileAside()
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
    const QStringList messages = m_recorder->take();
    QVERIFY(messages.size() >= 2);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Created));
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(manager.rows("PRAGMA integrity_check"), lines("ok"));
}

void tst_NAbstractSqliteDbManager::companionsGoWithADamagedFile()
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
    QCOMPARE(m_recorder->take(), lines(Created));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(contentOf(path + text(".damaged")), QByteArray("new"));
    QVERIFY(!QFile::exists(path + text(".damaged-wal")));
    QVERIFY(!QFile::exists(path + text("-journal")));
    QVERIFY(!QFile::exists(path + text("-shm")));
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("new-shm"));
}

void tst_NAbstractSqliteDbManager::fileBehindASymbolicLinkIsSetAside()
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
    QCOMPARE(m_recorder->take(), lines(Created));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QVERIFY(QFileInfo(link).isSymLink());
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("shared memory"));
    QCOMPARE(QDir(QFileInfo(link).path()).entryList(QDir::Files), lines("test.db"));
}

void tst_NAbstractSqliteDbManager::databaseThatCannotBeCheckedIsLeftAsItIs_data()
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
void tst_NAbstractSqliteDbManager::databaseThatCannotBeCheckedIsLeftAsItIs()
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
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 2);
    QVERIFY2(
        messages.first().startsWith(text("warning: The integrity of the database \"Test\" cannot be checked: ")) &&
            messages.first().contains(error),
        qPrintable(messages.first()));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QCOMPARE(contentOf(path), content);
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
    m_recorder->take();
    QCOMPARE(openFileCount(), before);
}

// What a manager finds, and when another one comes in between.
void tst_NAbstractSqliteDbManager::openingsInBetweenAreSeen_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("moment");
    QTest::addColumn<bool>("isConverted");
    QTest::addColumn<QString>("expected");
    const QByteArray one = contentOf(makeVersionOne());
    const QByteArray newer =
        contentOf(makeDatabase("CREATE TABLE t(id INTEGER PRIMARY KEY, note); INSERT INTO t VALUES(1, 'a');", 3));
    const QByteArray damaged = contentOf(makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note); CREATE INDEX i ON t(note); INSERT INTO t VALUES(1, 'a');"
        "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = sql || ' WHERE note IS NULL' WHERE name = 'i';",
        2));
    const int version = InterruptedManager::AtVersion;
    const int name = InterruptedManager::AtName;
    QTest::newRow("first start") << QByteArray() << name << true << text("in between");
    QTest::newRow("conversion") << one << version << true << text("new a\nnew b\nin between");
    QTest::newRow("refused conversion") << one << name << false << text("in between");
    QTest::newRow("newer") << newer << version << true << text("in between");
    QTest::newRow("damaged") << damaged << name << true << text("in between");
}

void tst_NAbstractSqliteDbManager::openingsInBetweenAreSeen()
{
    QFETCH(QByteArray, content);
    QFETCH(int, moment);
    QFETCH(bool, isConverted);
    QFETCH(QString, expected);
    const QString path = newPath();
    write(path, content);
    const auto conversion = [&](NTestManager& database) { return isConverted && convertToTwo(database); };
    NTestManager other(path, 2);
    other.setConnectionName("other connection");
    other.setConversion(conversion);
    NTestTable otherTable(&other, "t", "(id INTEGER PRIMARY KEY, note)");
    other.addTable(&otherTable);
    bool isInserted = false;
    QByteArray copy;
    InterruptedManager manager(path, 2, InterruptedManager::Moment(moment), [&] {
        other.openDatabase();
        isInserted = other.execute("INSERT INTO t(note) VALUES('in between')");
        other.closeDatabase();
        copy = contentOf(path + text(".damaged"));
    });
    manager.setConversion(conversion);
    NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note)");
    manager.addTable(&table);
    manager.openDatabase();
    QVERIFY(isInserted);
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id").join(text("\n")), expected);
    QCOMPARE(contentOf(path + text(".damaged")), copy);
    m_recorder->take();
}

void tst_NAbstractSqliteDbManager::processesMayOpenAtOnce_data()
{
    openingsInBetweenAreSeen_data();
    // Nobody is let in between while this is set aside.
    QTest::newRow("no database") << QByteArray("no database\n").repeated(500) << 0 << true << text("in between");
}

void tst_NAbstractSqliteDbManager::processesMayOpenAtOnce()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, isConverted);
    QFETCH(QString, expected);
    const bool isDatabase = content.isEmpty() || content.startsWith("SQLite format");
    const QString path = newPath();
    for (int round = 0; round < 40; ++round) {
        QFile::remove(path + text("-journal"));
        QFile::remove(path + text(".damaged"));
        QFile::remove(path);
        if (!content.isEmpty())
            write(path, content);
        int start[2];
        QVERIFY(::pipe(start) == 0);
        pid_t processes[3];
        for (pid_t& process : processes) {
            process = ::fork();
            QVERIFY(process >= 0);
            if (process > 0)
                continue;
            ::close(start[1]);
            char byte;
            const ssize_t end = ::read(start[0], &byte, 1);
            NTestManager manager(path, 2);
            NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note)");
            manager.addTable(&table);
            manager.setConversion([&](NTestManager& database) { return isConverted && convertToTwo(database); });
            manager.openDatabase();
            ::_exit(end == 0 && manager.execute("INSERT INTO t(note) VALUES('in between')") ? 0 : 1);
        }
        // They wait for the end of the pipe.
        ::close(start[0]);
        ::close(start[1]);
        for (pid_t process : processes)
            QCOMPARE(NTest::waitForChild(process), 0);
        QString all = expected;
        all.replace(text("in between"), text("in between\nin between\nin between"));
        NTestManager reader(path, 2);
        reader.openDatabase();
        QCOMPARE(reader.rows("SELECT note FROM t ORDER BY id").join(text("\n")), all);
        QCOMPARE(contentOf(path + text(".damaged")), isDatabase ? QByteArray() : content);
        m_recorder->take();
    }
}

// The file is another one each time that the manager has looked at it.
void tst_NAbstractSqliteDbManager::openingEndsWhereOthersNeverDo()
{
    class RestlessManager : public NTestManager
    {
    public:
        RestlessManager(const QString& path, const QByteArray& content)
            : NTestManager(path, 2)
            , m_content(content)
        {
        }

        QString name() const override
        {
            write(databaseFilePath(), ++m_count % 2 ? m_content : QByteArray());
            return NTestManager::name();
        }

        mutable int m_count = 0;

    private:
        QByteArray m_content;
    };

    const QString path = newPath();
    RestlessManager manager(path, QByteArray("no database\n").repeated(500));
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QVERIFY(manager.m_count > 3);
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.first() + QLatin1Char('\n'), text(Created));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::lockedDatabaseIsNotOpened()
{
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    {
        OtherProcess other(path);
        QCOMPARE(other.execute("BEGIN EXCLUSIVE;"), QByteArray());
        manager.openDatabase();
        QVERIFY(!manager.database().isValid());
        QCOMPARE(m_recorder->take(), lines(NotOpened));
    }
    QVERIFY(!QFile::exists(path + text(".damaged")));
    manager.setConversion(convertToTwo);
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
}

void tst_NAbstractSqliteDbManager::databaseThatIsBeingWrittenIsOpened()
{
    const QString path = makeVersionOne();
    OtherProcess other(path);
    QCOMPARE(other.execute("BEGIN IMMEDIATE; INSERT INTO t VALUES(3, 'c');"), QByteArray());
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
}

void tst_NAbstractSqliteDbManager::olderDatabaseThatIsBeingWrittenIsNotOpened()
{
    const QString path = makeVersionOne();
    OtherProcess other(path);
    QCOMPARE(other.execute("BEGIN IMMEDIATE;"), QByteArray());
    NTestManager manager(path, 2);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(m_recorder->take(), lines(NotOpened));
    QCOMPARE(manager.oldVersion(), -1);
    QCOMPARE(other.execute("SELECT count(*) FROM t;"), QByteArray("2\n"));
}

void tst_NAbstractSqliteDbManager::readOnlyFileIsOpenedAsItIs()
{
    const QString path = makeVersionOne();
    const NWithoutFileOverride permissionsCount;
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
}

void tst_NAbstractSqliteDbManager::readOnlyFileIsNotInitialised_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("messages");
    QTest::newRow("older") << 1 << text(NotOpened);
    QTest::newRow("newer") << 3 << text(Newer) + text(NotOpened);
}

void tst_NAbstractSqliteDbManager::readOnlyFileIsNotInitialised()
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
    QCOMPARE(m_recorder->take(), lines(messages.toUtf8().constData()));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager::readOnlyDirectoryIsOpenedAsItIs()
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
        QCOMPARE(m_recorder->take(), lines(NotOpened));
        manager.openDatabase();
        QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
    }
    ::chmod(QFile::encodeName(directory).constData(), 0755);
}

void tst_NAbstractSqliteDbManager::readOnlyDirectoryStaysEmpty()
{
    const QString path = newPath();
    const NWithoutFileOverride permissionsCount;
    const QByteArray directory = QFile::encodeName(QFileInfo(path).path());
    QVERIFY(::chmod(directory.constData(), 0555) == 0);
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(m_recorder->take(), lines(NotOpened));
    ::chmod(directory.constData(), 0755);
}

void tst_NAbstractSqliteDbManager::readOnlyFileIsNotRepaired()
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
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 2);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QCOMPARE(contentOf(path), content);
}

void tst_NAbstractSqliteDbManager::fullDiskKeepsWhatIsThere_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("messages");
    QTest::newRow("conversion") << 1 << text(NotOpened);
    QTest::newRow("initialisation") << 3 << text(Newer) + text(NotOpened);
}

void tst_NAbstractSqliteDbManager::fullDiskKeepsWhatIsThere()
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
        const QStringList written = m_recorder->take();
        manager.closeDatabase();
        if (isOpen && stored != 1)
            break;
        QVERIFY2(!isOpen, qPrintable(QString::number(room)));
        ++failures;
        // The tables log what they could not do in between.
        const QStringList expected = lines(messages.toUtf8().constData());
        QCOMPARE(written.first(), expected.first());
        QCOMPARE(written.last(), expected.last());
        QVERIFY(stored != 1 || written.size() == 1);
        reader.openDatabase();
        QCOMPARE(reader.rows("SELECT id, note FROM t"), before);
        QCOMPARE(reader.rows("PRAGMA integrity_check"), lines("ok"));
    }
    QVERIFY(failures > 0);
    NPrivateNamespace::unmount(QFileInfo(path).path());
}

void tst_NAbstractSqliteDbManager::fullDiskRefusesRows()
{
    const QString path = mountSmallDisk("size=256k");
    {
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(a)");
        manager.addTable(&table);
        manager.openDatabase();
        QCOMPARE(m_recorder->take(), lines(Created));
        QMap<QString, QVariant> values;
        values.insert(text("a"), QByteArray(10000, 'x'));
        qlonglong rowid = 0;
        int count = 0;
        while (table.execInsertQuery(values, rowid))
            ++count;
        QVERIFY(count > 0);
        const QStringList messages = m_recorder->take();
        QCOMPARE(messages.size(), 1);
        QVERIFY(messages.at(0).startsWith(text("critical: SQL error 13 (\"database or disk is full")));
        QCOMPARE(manager.rows("SELECT count(*) FROM t"), QStringList(QString::number(count)));
        manager.openDatabase();
        QCOMPARE(manager.rows("SELECT count(*) FROM t"), QStringList(QString::number(count)));
    }
    NPrivateNamespace::unmount(QFileInfo(path).path());
}

// Opens a database of version 1 with the notes a and b, which cannot be done; once it can, nothing is lost.
void tst_NAbstractSqliteDbManager::openAndKeepVersionOne(NTestManager& manager)
{
    const QString path = manager.databaseFilePath();
    const QByteArray content = contentOf(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(m_recorder->take(), lines(NotOpened));
    OtherProcess reader(path);
    QCOMPARE(
        reader.execute(
            "SELECT count(*), min(note), max(note) FROM t; PRAGMA user_version; PRAGMA integrity_check;"),
        QByteArray("2|a|b\n1\nok\n"));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
    manager.setConversion(convertToTwo);
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager::faultDuringAConversionIsNoRefusal_data()
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

void tst_NAbstractSqliteDbManager::faultDuringAConversionIsNoRefusal()
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
    NPrivateNamespace::unmount(QFileInfo(path).path());
}

void tst_NAbstractSqliteDbManager::faultThatAConversionDoesNotReportKeepsTheVersion()
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

void tst_NAbstractSqliteDbManager::faultThatAConversionOvercomesDoesNotCount()
{
    NTestManager manager(makeVersionOne(), 2);
    manager.setConversion([](NTestManager& database) {
        return !database.execute("ATTACH '/missing/missing.db' AS missing") && convertToTwo(database);
    });
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
}

void tst_NAbstractSqliteDbManager::readerAtTheEndOfAConversionIsNoRefusal()
{
    NTestManager manager(makeVersionOne(), 2);
    {
        OtherProcess other(manager.databaseFilePath());
        QCOMPARE(other.execute("BEGIN; SELECT count(*) FROM t;"), QByteArray("2\n"));
        manager.setConversion([](NTestManager& database) {
            return database.execute("PRAGMA busy_timeout=0") && convertToTwo(database);
        });
        manager.openDatabase();
        QCOMPARE(m_recorder->take(), lines(NotOpened));
        QVERIFY(!manager.database().isValid());
        QCOMPARE(other.execute("SELECT note FROM t;"), QByteArray("a\nb\n"));
    }
    manager.openDatabase();
    QCOMPARE(m_recorder->take(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager::faultDuringTheCreationOfATableKeepsWhatIsThere()
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
    const QStringList messages = m_recorder->take();
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

void tst_NAbstractSqliteDbManager::unreadablePagesAreNoDamage()
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
            QCOMPARE(m_recorder->take(), lines(NotOpened));
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

void tst_NAbstractSqliteDbManager::anySingleFailureKeepsOldOrNewData_data()
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
void tst_NAbstractSqliteDbManager::anySingleFailureKeepsOldOrNewData()
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
        const QStringList messages = m_recorder->take();
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
        m_recorder->take();
    }
    QVERIFY(failures > 1);
}

void tst_NAbstractSqliteDbManager::brokenReferencesAreDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id), x);"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(1, 'kept'), (2, 'gone'), (NULL, 'kept too');",
        1));
    manager.openDatabase();
    QCOMPARE(
        m_recorder->take(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing "
              "parent(id) with value(2). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT x FROM child"), lines("kept\nkept too"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

void tst_NAbstractSqliteDbManager::brokenReferencesOfSeveralColumnsAreDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(a, b, UNIQUE(a, b)); CREATE TABLE child(x, y, FOREIGN KEY(x, y) REFERENCES parent(a, "
        "b));"
        "INSERT INTO child VALUES('one', 2);",
        1));
    manager.openDatabase();
    QCOMPARE(
        m_recorder->take(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(x, y) referencing "
              "parent(a, b) with value(one, 2). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT * FROM child"), QStringList());
}

void tst_NAbstractSqliteDbManager::referencesWithoutColumnsPrintNone()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(a, b, PRIMARY KEY(a, b)); CREATE TABLE single(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(x, y, FOREIGN KEY(x, y) REFERENCES parent); CREATE TABLE other(z REFERENCES single);"
        "INSERT INTO child VALUES(1, 2); INSERT INTO other VALUES(3);",
        1));
    manager.openDatabase();
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 2);
    const QString all = messages.join(text("\n"));
    QVERIFY(all.contains(text(" on child(x, y) referencing parent() with value(1, 2).")));
    QVERIFY(all.contains(text(" on other(z) referencing single() with value(3).")));
}

void tst_NAbstractSqliteDbManager::rowsWithoutRowidAreLeftAlone()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p PRIMARY KEY REFERENCES parent(id)) "
        "WITHOUT "
        "ROWID; INSERT INTO child VALUES(2), (3); CREATE TABLE other(q REFERENCES parent(id)); INSERT INTO other "
        "VALUES(4);",
        1));
    manager.openDatabase();
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 3);
    QCOMPARE(messages.filter(text(" on child(p) referencing parent(id) with value(). The")).size(), 2);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("2\n3"));
    QCOMPARE(manager.rows("SELECT q FROM other"), QStringList());
}

void tst_NAbstractSqliteDbManager::rowWithSeveralBrokenReferencesIsDeleted()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id), q REFERENCES "
        "parent(id));"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(2, 3), (1, 4), (1, 1);",
        1));
    manager.openDatabase();
    const QStringList messages = m_recorder->take();
    QVERIFY(
        !messages.filter(text("with value(2)")).isEmpty() || !messages.filter(text("with value(3)")).isEmpty());
    QCOMPARE(messages.filter(text("with value(4)")).size(), 1);
    QCOMPARE(manager.rows("SELECT p, q FROM child"), lines("1|1"));
}

void tst_NAbstractSqliteDbManager::deletionsThatBreakOtherReferencesGoOn()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(id INTEGER PRIMARY KEY, p REFERENCES parent(id));"
        "CREATE TABLE grandchild(id INTEGER PRIMARY KEY, c REFERENCES child(id) ON DELETE RESTRICT);"
        "CREATE TABLE leaf(g REFERENCES grandchild(id));"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(10, 1), (20, 2); INSERT INTO grandchild "
        "VALUES(100, 10), "
        "(200, 20); INSERT INTO leaf VALUES(100), (200);",
        1));
    manager.openDatabase();
    const QString prefix = text("warning: Foreign key constraint error in database \"Test\" on ");
    const QString suffix = text(" The reference will be deleted.");
    QCOMPARE(
        m_recorder->take(), QStringList()
                                << prefix + text("child(p) referencing parent(id) with value(2).") + suffix
                                << prefix + text("grandchild(c) referencing child(id) with value(20).") + suffix
                                << prefix + text("leaf(g) referencing grandchild(id) with value(200).") + suffix);
    QCOMPARE(manager.rows("SELECT id FROM child"), lines("10"));
    QCOMPARE(manager.rows("SELECT id FROM grandchild"), lines("100"));
    QCOMPARE(manager.rows("SELECT g FROM leaf"), lines("100"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

void tst_NAbstractSqliteDbManager::actionsOfForeignKeysAreTaken()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE child(id INTEGER PRIMARY KEY, p REFERENCES parent(id)); INSERT INTO child VALUES(1, 7);"
        "CREATE TABLE nulled(c REFERENCES child(id) ON DELETE SET NULL); INSERT INTO nulled VALUES(1);"
        "CREATE TABLE cascaded(c REFERENCES child(id) ON DELETE CASCADE); INSERT INTO cascaded VALUES(1);",
        1));
    manager.openDatabase();
    QCOMPARE(m_recorder->take().size(), 1);
    QCOMPARE(manager.rows("SELECT count(*), count(c) FROM nulled"), lines("1|0"));
    QCOMPARE(manager.rows("SELECT count(*) FROM cascaded"), lines("0"));
}

void tst_NAbstractSqliteDbManager::repairWorksOnNamesThatNeedQuotes()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE \"the parent\"(\"the id\" INTEGER PRIMARY KEY);"
        "CREATE TABLE \"a \"\"child\"\"\"(\"order\" REFERENCES \"the parent\"(\"the id\")); INSERT INTO \"a "
        "\"\"child\"\"\" "
        "VALUES(9);",
        1));
    manager.openDatabase();
    QCOMPARE(
        m_recorder->take(),
        lines("warning: Foreign key constraint error in database \"Test\" on a \"child\"(order) "
              "referencing the parent(the id) with value(9). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT * FROM \"a \"\"child\"\"\""), QStringList());
}

void tst_NAbstractSqliteDbManager::repairFindsRowsWhoseRowidNameIsTaken()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(rowid, p REFERENCES parent(id)); INSERT INTO child VALUES(2, 1), (1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(m_recorder->take().filter(text("with value(5)")).size(), 1);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1"));
}

// A condition on a column that took the last name of the rowid would delete rows that are right.
void tst_NAbstractSqliteDbManager::repairLeavesRowsAloneThatCannotBeNamed()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(rowid, oid, _ROWID_, p REFERENCES parent(id));"
        "INSERT INTO child VALUES(2, 2, 2, 1), (1, 1, 1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(
        m_recorder->take(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing parent(id) with "
              "value(). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1\n5"));
}

void tst_NAbstractSqliteDbManager::repairEndsWhereTriggersOpposeIt()
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
    QCOMPARE(m_recorder->take().size(), 2);
    QCOMPARE(manager.rows("SELECT p FROM kept"), lines("1"));
    QCOMPARE(manager.rows("SELECT p FROM again"), lines("2"));
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

void tst_NAbstractSqliteDbManager::repairKeepsRowsThatArePutInMeanwhile()
{
    const QString path = makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE child(p REFERENCES parent(id), x);"
        "INSERT INTO parent VALUES(1); INSERT INTO child VALUES(2, 'gone'), (3, 'gone too');",
        1);
    OtherProcess other(path);
    QCOMPARE(
        other.execute(
            "BEGIN IMMEDIATE; DELETE FROM child WHERE p = 2; INSERT INTO child(rowid, p, x) VALUES(1, 1, "
            "'put in');"),
        QByteArray());
    s_whileWaiting = [&] { other.execute("COMMIT;"); };
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!s_whileWaiting);
    QCOMPARE(
        m_recorder->take(),
        lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing "
              "parent(id) with value(3). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT x FROM child"), lines("put in"));
}

// A condition on the generated column would delete the row that is right.
void tst_NAbstractSqliteDbManager::repairFindsRowsWhoseRowidNameIsGenerated()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); INSERT INTO parent VALUES(1);"
        "CREATE TABLE child(x, p REFERENCES parent(id), rowid GENERATED ALWAYS AS (x));"
        "INSERT INTO child VALUES(2, 1), (1, 5);",
        1));
    manager.openDatabase();
    QCOMPARE(m_recorder->take().filter(text("with value(5)")).size(), 1);
    QCOMPARE(manager.rows("SELECT p FROM child"), lines("1"));
}

// With foreign keys on, SQLite does not even prepare a deletion there.
void tst_NAbstractSqliteDbManager::missingParentTablesDoNotStopTheRepair()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE child(p REFERENCES parent(id), q REFERENCES other(id)); CREATE TABLE other(id INTEGER "
        "PRIMARY "
        "KEY); INSERT INTO other VALUES(1); INSERT INTO child VALUES(NULL, 1), (NULL, 2), (3, 1), (3, 2);",
        1));
    manager.openDatabase();
    QCOMPARE(m_recorder->take().size(), 3);
    QCOMPARE(manager.rows("SELECT p, q FROM child"), lines("|1"));
}

void tst_NAbstractSqliteDbManager::deferredForeignKeysDoNotStopTheRepair()
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
    manager.openDatabase();
    const QStringList messages = m_recorder->take();
    QCOMPARE(messages.filter(text(" on a(p) referencing parent(id) with value(9).")).size(), 3);
    QCOMPARE(messages.filter(text(" on b(x) referencing a(id) with value(2).")).size(), 1);
    QCOMPARE(messages.filter(text(" on c(p) referencing parent(id) with value(")).size(), 2);
    QCOMPARE(messages.size(), 6);
    QCOMPARE(manager.rows("SELECT id FROM a"), lines("4"));
    QCOMPARE(manager.rows("SELECT x FROM b"), lines("4"));
    QCOMPARE(manager.rows("SELECT count(*), count(x) FROM nulled"), lines("2|0"));
    QCOMPARE(manager.rows("SELECT count(*) FROM c"), lines("1"));
    QCOMPARE(manager.rows("PRAGMA foreign_key_check"), QStringList());
    QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
}

void tst_NAbstractSqliteDbManager::triggersThatRollBackDoNotStopTheRepair()
{
    NTestManager manager(makeDatabase(
        "CREATE TABLE parent(id INTEGER PRIMARY KEY); CREATE TABLE a(p REFERENCES parent(id));"
        "CREATE TABLE b(p REFERENCES parent(id)); CREATE TABLE c(p REFERENCES parent(id));"
        "INSERT INTO a VALUES(1), (2); INSERT INTO b VALUES(3), (4); INSERT INTO c VALUES(5), (6);"
        "CREATE TRIGGER keep BEFORE DELETE ON b WHEN old.p = 3 BEGIN SELECT raise(ROLLBACK, 'no'); END;",
        1));
    for (int round = 0; round < 2; ++round) {
        manager.openDatabase();
        const QStringList messages = m_recorder->take();
        QCOMPARE(messages.filter(text(" on b(p) referencing parent(id) with value(3).")).size(), 1);
        QCOMPARE(messages.size(), round == 0 ? 6 : 1);
        QCOMPARE(manager.rows("SELECT p FROM a UNION ALL SELECT p FROM b UNION ALL SELECT p FROM c"), lines("3"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
    }
}

// More rows than are repaired in one transaction, behind as many that stay.
void tst_NAbstractSqliteDbManager::repairGoesOnBehindRowsThatTriggersKeep()
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
    QStringList messages = m_recorder->take();
    QCOMPARE(messages.size(), 25000);
    QCOMPARE(messages.removeDuplicates(), 0);
    QCOMPARE(manager.rows("SELECT count(*), max(p) FROM child"), lines("12000|12000"));
}

void tst_NAbstractSqliteDbManager::killedConversionLeavesOldOrNewData()
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
        m_recorder->take();
    }
}

void tst_NAbstractSqliteDbManager::damagedCopiesAlwaysEndWell()
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
        const QStringList messages = m_recorder->take();
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

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager.moc"
