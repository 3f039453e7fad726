#include "nsqlitetest.h"

#include "support/nchildprocess.h"
#include "support/nprivatenamespace.h"
#include "support/nsystemcalls.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

#include <functional>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace NSqliteTest;
using NSystemCalls::Calls;
using NSystemCalls::Fault;

namespace {

// More than a cache of five pages holds, so that it is written at once.
const char* const FillTable =
    "CREATE TABLE filled AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
    "SELECT hex(randomblob(2000)) FROM n";

// A lock that another process has on a file, for the scope; none without a path.
class FileLock
{
public:
    explicit FileLock(const QString& path)
        : m_process(-1)
    {
        int locked[2];
        if (path.isNull() || ::pipe(locked) != 0)
            return;
        m_process = ::fork();
        if (m_process == 0) {
            // A byte that SQLite locks to read.
            struct flock lock = {};
            lock.l_type = F_RDLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = 0x40000002;
            lock.l_len = 1;
            const int file = ::open(QFile::encodeName(path).constData(), O_RDONLY);
            if (::fcntl(file, F_SETLK, &lock) == 0 && ::write(locked[1], "", 1) == 1)
                ::pause();
            ::_exit(1);
        }
        char byte;
        ::close(locked[1]);
        if (::read(locked[0], &byte, 1) != 1)
            qFatal("cannot lock %s", qPrintable(path));
        ::close(locked[0]);
    }

    ~FileLock()
    {
        if (m_process <= 0)
            return;
        ::kill(m_process, SIGKILL);
        NTest::waitForChild(m_process);
    }

private:
    Q_DISABLE_COPY(FileLock)

    pid_t m_process;
};

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
        const Fault fault(NSystemCalls::Pwrite, EIO);
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
    void databaseThatCanOnlyBeReadAfterAConversionIsNoRefusal();
    void faultThatAConversionDoesNotReportKeepsTheVersion();
    void faultThatIsOverDuringAConversionIsNoRefusal_data();
    void faultThatIsOverDuringAConversionIsNoRefusal();
    void faultOfAnotherFileIsARefusal_data();
    void faultOfAnotherFileIsARefusal();
    void faultThatAConversionOvercomesDoesNotCount();
    void faultDuringTheCreationOfATableKeepsWhatIsThere();
    void unreadablePagesAreNoDamage();
    void anySingleFailureKeepsOldOrNewData_data();
    void anySingleFailureKeepsOldOrNewData();
    void damagedFileIsKeptWhereItCannotBeReplaced_data();
    void damagedFileIsKeptWhereItCannotBeReplaced();

private:
    void openAndKeepVersionOne(NTestManager& manager, const std::function<void()>& endFault);
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

// Opens a database of version 1 with the notes a and b, which fails; after @a endFault, nothing is lost.
void tst_NAbstractSqliteDbManager_Faults::openAndKeepVersionOne(
    NTestManager& manager, const std::function<void()>& endFault)
{
    const QString path = manager.databaseFilePath();
    const QByteArray content = contentOf(path);
    manager.openDatabase();
    endFault();
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
    QTest::addColumn<int>("filler");
    QTest::addColumn<QString>("table");
    QTest::addColumn<QString>("afterwards");
    const int refusedWrites = 0;
    const int nearlyFull = 1900 * 1024;
    const int full = 2048 * 1024;
    const QString none;
    QTest::newRow("full disk") << full << text("big") << none;
    QTest::newRow("nearly full disk") << nearlyFull << text("big") << none;
    QTest::newRow("full disk, and other statements") << full << text("big") << text("SELECT 1");
    QTest::newRow("full disk, and a transaction of its own") << full << text("big") << text("BEGIN");
    QTest::newRow("nearly full disk, and undone") << nearlyFull << text("big") << text("ROLLBACK");
    // The statement is undone, and the transaction continues.
    QTest::newRow("statement that can be undone, full disk") << full << text("\"unique\"") << none;
    QTest::newRow("statement that can be undone, nearly full disk") << nearlyFull << text("\"unique\"") << none;
    QTest::newRow("refused write") << refusedWrites << text("big") << none;
    QTest::newRow("refused write, and undone") << refusedWrites << text("big") << text("ROLLBACK");
    QTest::newRow("refused write, and a transaction of its own") << refusedWrites << text("big") << text("BEGIN");
}

// The manager finds the fault when it looks for the reason of the failure.
void tst_NAbstractSqliteDbManager_Faults::faultDuringAConversionIsNoRefusal()
{
    QFETCH(int, filler);
    QFETCH(QString, table);
    QFETCH(QString, afterwards);
    const QString path = mountSmallDisk("size=2m");
    QVERIFY(QFile::copy(makeVersionOne(), path));
    const QString fillerPath = QFileInfo(path).path() + text("/filler");
    {
        NTestManager manager(path, 2);
        QScopedPointer<Fault> refusal;
        int failures = 0;
        manager.setConversion([&](NTestManager& database) {
            database.execute("PRAGMA cache_size=5");
            database.execute("CREATE TABLE big(i, note)");
            database.execute("CREATE TABLE \"unique\"(i UNIQUE, note UNIQUE)");
            QFile file(fillerPath);
            if (filler > 0 && file.open(QIODevice::WriteOnly))
                file.write(QByteArray(filler, 'x'));
            else if (!refusal)
                refusal.reset(new Fault(NSystemCalls::Pwrite, EIO));
            file.close();
            const QString fill = text("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
                                      "200) INSERT INTO %1 SELECT i, hex(randomblob(2000)) FROM n");
            failures += !database.execute(fill.arg(table).toUtf8().constData());
            if (!afterwards.isEmpty())
                database.execute(afterwards.toUtf8().constData());
            return false;
        });
        openAndKeepVersionOne(manager, [&] {
            refusal.reset();
            QFile::remove(fillerPath);
        });
        QVERIFY(failures > 0);
    }
    unmountSmallDisk(path);
}

// The journal cannot be written, so the database has not changed and can be read.
void tst_NAbstractSqliteDbManager_Faults::databaseThatCanOnlyBeReadAfterAConversionIsNoRefusal()
{
    NTestManager manager(makeVersionOne(), 2);
    QScopedPointer<Fault> fault;
    manager.setConversion([&](NTestManager& database) {
        fault.reset(new Fault(NSystemCalls::Pwrite, EIO));
        return database.execute("UPDATE t SET note = 'new'") || !database.execute("BEGIN");
    });
    openAndKeepVersionOne(manager, [&] { fault.reset(); });
}

void tst_NAbstractSqliteDbManager_Faults::faultThatAConversionDoesNotReportKeepsTheVersion()
{
    NTestManager manager(makeVersionOne(), 2);
    QScopedPointer<Fault> fault;
    manager.setConversion([&](NTestManager& database) {
        if (!fault)
            fault.reset(new Fault(NSystemCalls::Pwrite, EIO));
        database.execute("PRAGMA cache_size=5");
        database.execute(FillTable);
        return true;
    });
    openAndKeepVersionOne(manager, [&] { fault.reset(); });
}

// SQLite has ended the transaction, so the conversion is executed a second time.
void tst_NAbstractSqliteDbManager_Faults::faultThatIsOverDuringAConversionIsNoRefusal_data()
{
    QTest::addColumn<bool>("isReported");
    QTest::newRow("reported") << true;
    QTest::newRow("not reported") << false;
}

void tst_NAbstractSqliteDbManager_Faults::faultThatIsOverDuringAConversionIsNoRefusal()
{
    QFETCH(bool, isReported);
    NTestManager manager(makeVersionOne(), 2);
    int calls = 0;
    manager.setConversion([&](NTestManager& database) {
        if (++calls > 1)
            return convertToTwo(database);
        const Fault fault(NSystemCalls::Pwrite, EIO);
        database.execute("PRAGMA cache_size=5");
        return !database.execute(FillTable) && !isReported;
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QCOMPARE(calls, 2);
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager_Faults::faultOfAnotherFileIsARefusal_data()
{
    QTest::addColumn<QString>("statement");
    QTest::newRow("locked") << text("SELECT * FROM other.o");
    QTest::newRow("missing") << text("ATTACH '/missing/missing.db' AS missing");
}

// The database itself can be read and written, and nothing else is looked at.
void tst_NAbstractSqliteDbManager_Faults::faultOfAnotherFileIsARefusal()
{
    QFETCH(QString, statement);
    const QString otherPath = makeDatabase("CREATE TABLE o(a);", 0);
    OtherProcess other(otherPath);
    QCOMPARE(other.execute("BEGIN EXCLUSIVE;"), QByteArray());
    NTestManager manager(makeVersionOne(), 2);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    int calls = 0;
    manager.setConversion([&](NTestManager& database) {
        ++calls;
        const QByteArray attach = "ATTACH '" + otherPath.toUtf8() + "' AS other";
        return database.execute("PRAGMA busy_timeout=0") && database.execute(attach.constData()) &&
               database.execute(statement.toUtf8().constData());
    });
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Refused));
    QCOMPARE(calls, 1);
    QCOMPARE(manager.rows("SELECT name FROM main.sqlite_master"), lines("fresh"));
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
        const Fault fault(Calls(NSystemCalls::Pread).atOffset(offset), EIO);
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
    const int calls[] = {
        NSystemCalls::Pread, NSystemCalls::Pwrite, NSystemCalls::Fsync | NSystemCalls::Fdatasync,
        NSystemCalls::Unlink};
    for (int index = 0; index < 4; ++index) {
        QTest::newRow((QByteArray(names[index]) + " while converting").constData()) << calls[index] << 1;
        QTest::newRow((QByteArray(names[index]) + " while initialising").constData()) << calls[index] << 3;
        QTest::newRow((QByteArray(names[index]) + " while repairing").constData()) << calls[index] << 2;
    }
}

// Each of the calls that an opening makes fails in turn, one in each opening. Only a read error that a conversion
// meets, that leaves its transaction open and that is over at once, counts as a refusal.
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
        bool isRefused = false;
        manager.setConversion([&](NTestManager& database) {
            const bool isConverted = database.execute("PRAGMA cache_size=5") &&
                                     database.execute("UPDATE t SET note = 'new'") &&
                                     database.execute("CREATE INDEX i ON t(note)");
            isRefused = !isConverted && call == NSystemCalls::Pread && !database.execute("BEGIN");
            return isConverted;
        });
        {
            const Fault fault(Calls(call).skip(failures).times(1), EIO);
            manager.openDatabase();
            isOver = fault.count() == 0;
        }
        ++failures;
        const QStringList messages = takeMessages();
        const QByteArray when = QByteArray::number(failures) + ": " + messages.join(text("\n")).toUtf8();
        QVERIFY2(messages.filter(text("cannot be converted")).isEmpty() == !isRefused, when.constData());
        QVERIFY2(messages.filter(text("integrity check")).isEmpty(), when.constData());
        const QString openData = isRefused ? text("0|0||2") : newData;
        if (manager.database().isOpen()) {
            QCOMPARE(manager.rows(state), QStringList(openData));
        } else {
            QVERIFY2((messages.last() + QLatin1Char('\n')) == text(NotOpened), when.constData());
            OtherProcess reader(path);
            const QString found =
                QString::fromLatin1(reader.execute((QByteArray(state) + ';').constData())).trimmed();
            QVERIFY2(found == oldData || found == repaired || found == newData, qPrintable(found));
        }
        manager.openDatabase();
        QCOMPARE(manager.rows(state), QStringList(openData));
        // What is to be deleted anyway may be set aside.
        QVERIFY(!QFile::remove(path + text(".damaged")) || stored == 3);
        takeMessages();
    }
    QVERIFY(failures > 1);
}

void tst_NAbstractSqliteDbManager_Faults::damagedFileIsKeptWhereItCannotBeReplaced_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("obstacle");
    // The header forbids writing, and the number of free pages is wrong.
    QByteArray unwritable = contentOf(makeVersionOne());
    unwritable[18] = 3;
    unwritable[39] = 9;
    const QByteArray noDatabase = QByteArray("no database\n").repeated(500);
    const char* const obstacles[] = {"read-only file", "read-only directory", "full disk", "lock"};
    for (const char* obstacle : obstacles) {
        QTest::newRow((QByteArray("unwritable header, ") + obstacle).constData()) << unwritable << text(obstacle);
        QTest::newRow((QByteArray("no database, ") + obstacle).constData()) << noDatabase << text(obstacle);
    }
}

void tst_NAbstractSqliteDbManager_Faults::damagedFileIsKeptWhereItCannotBeReplaced()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, obstacle);
    const QString path = mountSmallDisk("size=256k");
    const QString fillerPath = QFileInfo(path).path() + text("/filler");
    const QByteArray directory = QFile::encodeName(QFileInfo(path).path());
    write(path, content);
    {
        const NWithoutFileOverride permissionsCount;
        NTestManager manager(path);
        NTestTable table(&manager, "fresh", "(a)");
        manager.addTable(&table);
        {
            const FileLock lock(obstacle == text("lock") ? path : QString());
            QFile filler(fillerPath);
            if (obstacle == text("full disk") && filler.open(QIODevice::WriteOnly))
                filler.write(QByteArray(256 * 1024, 'x'));
            filler.close();
            if (obstacle == text("read-only file"))
                QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
            if (obstacle == text("read-only directory"))
                QVERIFY(::chmod(directory.constData(), 0555) == 0);
            manager.openDatabase();
            QVERIFY(!manager.database().isValid());
            QCOMPARE(takeMessages().last() + QLatin1Char('\n'), text(NotOpened));
            QCOMPARE(contentOf(path), content);
            QVERIFY(!QFile::exists(path + text(".damaged")));
        }
        QVERIFY(::chmod(directory.constData(), 0755) == 0);
        QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner));
        QFile::remove(fillerPath);
        manager.openDatabase();
        takeMessages();
        QCOMPARE(manager.rows("SELECT name FROM sqlite_master"), lines("fresh"));
        QCOMPARE(contentOf(path + text(".damaged")), content);
    }
    unmountSmallDisk(path);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Faults, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_faults.moc"
