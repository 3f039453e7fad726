#include "nsqlitetest.h"

#include "support/nchildprocess.h"
#include "support/nprivatenamespace.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <functional>

#include <time.h>
#include <unistd.h>

using namespace NSqliteTest;

namespace {

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

// Instead of waiting, the time is counted.
class CountedWaiting
{
public:
    CountedWaiting()
    {
        s_isOn = true;
        s_microseconds = 0;
    }
    ~CountedWaiting() { s_isOn = false; }

    int milliseconds() const { return int(s_microseconds / 1000); }

    static bool s_isOn;
    static qint64 s_microseconds;
};

bool CountedWaiting::s_isOn = false;
qint64 CountedWaiting::s_microseconds = 0;

int waitFor(const timespec& duration)
{
    const std::function<void()> happening = s_whileWaiting;
    s_whileWaiting = std::function<void()>();
    if (happening)
        happening();
    if (!CountedWaiting::s_isOn)
        return ::clock_nanosleep(CLOCK_MONOTONIC, 0, &duration, nullptr);
    CountedWaiting::s_microseconds += qint64(duration.tv_sec) * 1000000 + duration.tv_nsec / 1000;
    return 0;
}

} // namespace

// The functions that SQLite waits with (os_unix.c of its sources names them).
extern "C" {

__attribute__((visibility("default"))) int usleep(useconds_t time)
{
    const timespec duration = {time_t(time / 1000000), long(time % 1000000) * 1000};
    return waitFor(duration);
}

__attribute__((visibility("default"))) int nanosleep(const timespec* duration, timespec*)
{
    return waitFor(*duration);
}
}

/** Several processes with one database. */
class tst_NAbstractSqliteDbManager_Processes : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void openingsInBetweenAreSeen_data();
    void openingsInBetweenAreSeen();
    void processesMayOpenAtOnce_data();
    void processesMayOpenAtOnce();
    void fileThatReplacesADamagedOneMayBeLocked();
    void openingEndsWhenTheFileKeepsChanging();
    void lockedDatabaseIsNotOpened();
    void databaseThatIsBeingWrittenIsOpened();
    void olderDatabaseThatIsBeingWrittenIsNotOpened();
    void readerAtTheEndOfAConversionIsNoRefusal();
    void lockIsWaitedForOnce_data();
    void lockIsWaitedForOnce();
    void repairKeepsRowsThatArePutInMeanwhile();
};

// What a manager finds, and when another one comes in between.
void tst_NAbstractSqliteDbManager_Processes::openingsInBetweenAreSeen_data()
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

void tst_NAbstractSqliteDbManager_Processes::openingsInBetweenAreSeen()
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
    takeMessages();
}

void tst_NAbstractSqliteDbManager_Processes::processesMayOpenAtOnce_data()
{
    openingsInBetweenAreSeen_data();
    // Nobody is let in between while this is set aside.
    QTest::newRow("no database") << QByteArray("no database\n").repeated(500) << 0 << true << text("in between");
}

void tst_NAbstractSqliteDbManager_Processes::processesMayOpenAtOnce()
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
        takeMessages();
    }
}

// The other process has set the damaged file aside, and uses the new one when the manager is about to do the same.
void tst_NAbstractSqliteDbManager_Processes::fileThatReplacesADamagedOneMayBeLocked()
{
    const QString path = newPath();
    const QString replacement = makeDatabase("CREATE TABLE t(note); INSERT INTO t VALUES('in between');", 2);
    write(path, QByteArray("no database\n").repeated(500));
    QScopedPointer<OtherProcess> other;
    InterruptedManager manager(path, 2, InterruptedManager::AtName, [&] {
        if (!QFile::remove(path) || !QFile::copy(replacement, path))
            return;
        other.reset(new OtherProcess(path));
        other->execute("BEGIN IMMEDIATE;");
    });
    manager.openDatabase();
    QVERIFY(other);
    QCOMPARE(takeMessages(), lines(Initialised));
    QCOMPARE(manager.rows("SELECT note FROM t"), lines("in between"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

// The file is another one each time that the manager has looked at it.
void tst_NAbstractSqliteDbManager_Processes::openingEndsWhenTheFileKeepsChanging()
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
    const QStringList messages = takeMessages();
    QCOMPARE(messages.first() + QLatin1Char('\n'), text(Initialised));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Processes::lockedDatabaseIsNotOpened()
{
    const QString path = makeVersionOne();
    NTestManager manager(path, 2);
    {
        OtherProcess other(path);
        QCOMPARE(other.execute("BEGIN EXCLUSIVE;"), QByteArray());
        manager.openDatabase();
        QVERIFY(!manager.database().isValid());
        QCOMPARE(takeMessages(), lines(NotOpened));
    }
    QVERIFY(!QFile::exists(path + text(".damaged")));
    manager.setConversion(convertToTwo);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
}

void tst_NAbstractSqliteDbManager_Processes::databaseThatIsBeingWrittenIsOpened()
{
    const QString path = makeVersionOne();
    OtherProcess other(path);
    QCOMPARE(other.execute("BEGIN IMMEDIATE; INSERT INTO t VALUES(3, 'c');"), QByteArray());
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
}

void tst_NAbstractSqliteDbManager_Processes::olderDatabaseThatIsBeingWrittenIsNotOpened()
{
    const QString path = makeVersionOne();
    OtherProcess other(path);
    QCOMPARE(other.execute("BEGIN IMMEDIATE;"), QByteArray());
    NTestManager manager(path, 2);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(takeMessages(), lines(NotOpened));
    QCOMPARE(manager.oldVersion(), -1);
    QCOMPARE(other.execute("SELECT count(*) FROM t;"), QByteArray("2\n"));
}

void tst_NAbstractSqliteDbManager_Processes::readerAtTheEndOfAConversionIsNoRefusal()
{
    NTestManager manager(makeVersionOne(), 2);
    {
        OtherProcess other(manager.databaseFilePath());
        QCOMPARE(other.execute("BEGIN; SELECT count(*) FROM t;"), QByteArray("2\n"));
        manager.setConversion([](NTestManager& database) {
            return database.execute("PRAGMA busy_timeout=0") && convertToTwo(database);
        });
        manager.openDatabase();
        QCOMPARE(takeMessages(), lines(NotOpened));
        QVERIFY(!manager.database().isValid());
        QCOMPARE(other.execute("SELECT note FROM t;"), QByteArray("a\nb\n"));
    }
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Converted));
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("new a\nnew b"));
}

void tst_NAbstractSqliteDbManager_Processes::lockIsWaitedForOnce_data()
{
    QTest::addColumn<QString>("lock");
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("more");
    const QString read = text("BEGIN EXCLUSIVE;");
    const QString written = text("BEGIN IMMEDIATE;");
    const QString broken = text("CREATE TABLE c(p REFERENCES t(id)); INSERT INTO c VALUES(1);");
    const QString damage = text("PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = sql || ' WHERE a > 2' "
                                "WHERE name = 'i'; PRAGMA writable_schema=OFF;");
    QTest::newRow("current, cannot be read") << read << 2 << QString();
    QTest::newRow("older, cannot be read") << read << 1 << QString();
    QTest::newRow("newer, cannot be read") << read << 3 << QString();
    QTest::newRow("older, cannot be written") << written << 1 << QString();
    QTest::newRow("newer, cannot be written") << written << 3 << QString();
    QTest::newRow("broken reference, cannot be written") << written << 2 << broken;
    QTest::newRow("damaged, cannot be written") << written << 2 << damage;
}

void tst_NAbstractSqliteDbManager_Processes::lockIsWaitedForOnce()
{
    QFETCH(QString, lock);
    QFETCH(int, stored);
    QFETCH(QString, more);
    const QByteArray statements =
        "CREATE TABLE t(id INTEGER PRIMARY KEY, a); CREATE INDEX i ON t(a); INSERT INTO t(a) VALUES(1), (2), (3);"
        "DELETE FROM t WHERE id = 1;" +
        more.toUtf8();
    const QString path = makeDatabase(statements.constData(), stored);
    const QByteArray content = contentOf(path);
    OtherProcess other(path);
    QCOMPARE(other.execute(lock.toUtf8().constData()), QByteArray());
    NTestManager manager(path, 2);
    manager.setConversion([](NTestManager&) { return true; });
    const CountedWaiting waiting;
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    QCOMPARE(takeMessages().last() + QLatin1Char('\n'), text(NotOpened));
    // What Qt's driver waits for by default; SQLite counts less than a whole step of its waiting as none.
    QVERIFY2(
        waiting.milliseconds() > 4500 && waiting.milliseconds() <= 5000,
        QByteArray::number(waiting.milliseconds()).constData());
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Processes::repairKeepsRowsThatArePutInMeanwhile()
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
        takeMessages(), lines("warning: Foreign key constraint error in database \"Test\" on child(p) referencing "
                              "parent(id) with value(3). The reference will be deleted."));
    QCOMPARE(manager.rows("SELECT x FROM child"), lines("put in"));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Processes, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_processes.moc"
