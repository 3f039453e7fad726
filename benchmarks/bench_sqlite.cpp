// The database classes against the same loops written by hand with QSqlQuery, which prepares each statement as
// they do, and against SQLite's C interface with each statement prepared once, the least that can be done. The
// rows are in memory and inside one transaction, so that no disk takes part. "open" is the checked opening of a
// database file against the sqlite3 command running the three checks on it: 1, 10 and 100 MB, in the page cache.

#include <nbase/sqlite/nabstractsqlitedbmanager.h>
#include <nbase/sqlite/nabstractsqlitedbtable.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QStringList>
#include <QtSql/QSqlQuery>

#include <functional>
#include <map>
#include <sqlite3.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

namespace {

typedef QMap<QString, QVariant> Values;

const char* const CreateStatement =
    "CREATE TABLE readings(id INTEGER PRIMARY KEY, sensor INTEGER, value REAL, note TEXT)";

class Table : public NAbstractSQLiteDbTable
{
public:
    explicit Table(NAbstractSqliteDbManager* manager)
        : NAbstractSQLiteDbTable(manager)
    {
    }
    QString tableName() const override { return QString::fromLatin1("readings"); }
    QString createTableStatement() const override { return QString::fromLatin1(CreateStatement); }
    QStringList createTriggersStatements() const override { return QStringList(); }
};

class Manager : public NAbstractSqliteDbManager
{
public:
    explicit Manager(const QString& path)
        : m_path(path)
        , m_table(this)
    {
        m_tables << &m_table;
        openDatabase();
    }
    QString name() const override { return QString::fromLatin1("benchmark"); }
    QString connectionName() const override { return QString::fromLatin1("benchmark"); }
    QString databaseFilePath() const override { return m_path; }
    int currentVersion() const override { return 1; }
    QList<NAbstractSQLiteDbTable*> tables() const override { return m_tables; }
    Table& table() { return m_table; }

private:
    QString m_path;
    Table m_table;
    QList<NAbstractSQLiteDbTable*> m_tables;
};

void require(bool condition, const char* what)
{
    if (condition)
        return;
    fprintf(stderr, "%s\n", what);
    exit(EXIT_FAILURE);
}

// SQLite's own database with the same table.
class Raw
{
public:
    explicit Raw(const char* path = ":memory:")
        : m_database(nullptr)
    {
        require(sqlite3_open(path, &m_database) == SQLITE_OK, "cannot open");
        execute(CreateStatement);
    }
    ~Raw() { sqlite3_close(m_database); }
    void execute(const char* statement)
    {
        require(sqlite3_exec(m_database, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
    }
    sqlite3_stmt* prepare(const char* text)
    {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(m_database, text, -1, &statement, nullptr) == SQLITE_OK, text);
        return statement;
    }
    void insert(int count)
    {
        sqlite3_stmt* const statement = prepare("INSERT INTO readings(note, sensor, value) VALUES(?, ?, ?)");
        for (int row = 0; row < count; ++row) {
            sqlite3_bind_text(statement, 1, "measured", -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(statement, 2, row % 10);
            sqlite3_bind_double(statement, 3, row * 0.5);
            require(sqlite3_step(statement) == SQLITE_DONE, "insert");
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
    }

private:
    sqlite3* m_database;
};

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

Values reading(int row)
{
    // An application keeps the names of its columns, as the loops by hand keep them in their statements.
    static const QString sensor = text("sensor");
    static const QString value = text("value");
    static const QString note = text("note");
    Values values;
    values.insert(sensor, row % 10);
    values.insert(value, row * 0.5);
    values.insert(note, text("measured"));
    return values;
}

void insertByHand(const QSqlDatabase& database, int count)
{
    for (int row = 0; row < count; ++row) {
        QSqlQuery query(database);
        query.prepare(text("INSERT INTO readings(note, sensor, value) VALUES(?, ?, ?);"));
        query.addBindValue(text("measured"));
        query.addBindValue(row % 10);
        query.addBindValue(row * 0.5);
        require(query.exec(), "insert");
        benchmark::DoNotOptimize(query.lastInsertId().toLongLong());
    }
}

// Each loop gets its rows in a transaction that is rolled back afterwards.
void measure(benchmark::State& state, QSqlDatabase database, const std::function<void(int)>& loop)
{
    const int count = int(state.range(0));
    for (auto _ : state) {
        database.transaction();
        loop(count);
        database.rollback();
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void measureRaw(benchmark::State& state, Raw& raw, const std::function<void(int)>& loop)
{
    const int count = int(state.range(0));
    for (auto _ : state) {
        raw.execute("BEGIN");
        loop(count);
        raw.execute("ROLLBACK");
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void insertOurs(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    measure(state, manager.database(), [&](int count) {
        qlonglong rowid = 0;
        for (int row = 0; row < count; ++row)
            require(manager.table().execInsertQuery(reading(row), rowid), "insert");
    });
}

void insertHand(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    measure(state, manager.database(), [&](int count) { insertByHand(manager.database(), count); });
}

void insertRaw(benchmark::State& state)
{
    Raw raw;
    measureRaw(state, raw, [&](int count) { raw.insert(count); });
}

void updateOurs(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    insertByHand(manager.database(), int(state.range(0)));
    measure(state, manager.database(), [&](int count) {
        for (int row = 0; row < count; ++row) {
            Values values;
            values.insert(text("value"), row * 0.25);
            require(manager.table().execRowidUpdateQuery(row + 1, values), "update");
        }
    });
}

void updateHand(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    insertByHand(manager.database(), int(state.range(0)));
    measure(state, manager.database(), [&](int count) {
        for (int row = 0; row < count; ++row) {
            QSqlQuery query(manager.database());
            query.prepare(text("UPDATE readings SET value=? WHERE rowid IS ?;"));
            query.addBindValue(row * 0.25);
            query.addBindValue(qlonglong(row + 1));
            require(query.exec(), "update");
        }
    });
}

void updateRaw(benchmark::State& state)
{
    Raw raw;
    raw.insert(int(state.range(0)));
    measureRaw(state, raw, [&](int count) {
        sqlite3_stmt* const statement = raw.prepare("UPDATE readings SET value=? WHERE rowid IS ?");
        for (int row = 0; row < count; ++row) {
            sqlite3_bind_double(statement, 1, row * 0.25);
            sqlite3_bind_int64(statement, 2, row + 1);
            require(sqlite3_step(statement) == SQLITE_DONE, "update");
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
    });
}

void selectOurs(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    insertByHand(manager.database(), int(state.range(0)));
    measure(state, manager.database(), [&](int count) {
        const QList<Values> rows = manager.table().execSelectQuery(QStringList(), QList<QPair<QString, bool>>());
        require(rows.size() == count, "select");
    });
}

void selectHand(benchmark::State& state)
{
    Manager manager(text(":memory:"));
    insertByHand(manager.database(), int(state.range(0)));
    measure(state, manager.database(), [&](int count) {
        const QString names[] = {text("id"), text("sensor"), text("value"), text("note")};
        QList<Values> rows;
        QSqlQuery query(manager.database());
        query.setForwardOnly(true);
        query.prepare(text("SELECT * FROM readings ;"));
        require(query.exec(), "select");
        while (query.next()) {
            Values row;
            for (int column = 0; column < 4; ++column)
                row.insert(names[column], query.value(column));
            rows.append(row);
        }
        require(rows.size() == count, "select");
    });
}

void selectRaw(benchmark::State& state)
{
    Raw raw;
    raw.insert(int(state.range(0)));
    measureRaw(state, raw, [&](int count) {
        sqlite3_stmt* const statement = raw.prepare("SELECT * FROM readings");
        int rows = 0;
        for (; sqlite3_step(statement) == SQLITE_ROW; ++rows) {
            benchmark::DoNotOptimize(sqlite3_column_int64(statement, 0));
            benchmark::DoNotOptimize(sqlite3_column_int64(statement, 1));
            benchmark::DoNotOptimize(sqlite3_column_double(statement, 2));
            benchmark::DoNotOptimize(sqlite3_column_text16(statement, 3));
        }
        sqlite3_finalize(statement);
        require(rows == count, "select");
    });
}

// Made once for each size and removed at the end.
class Files
{
public:
    ~Files()
    {
        for (const auto& file : m_paths)
            ::unlink(file.second.c_str());
    }

    const std::string& path(int megabytes)
    {
        std::string& path = m_paths[megabytes];
        if (path.empty()) {
            path = "/tmp/nbase-bench-sqlite-XXXXXX";
            ::close(::mkstemp(&path[0]));
            Raw raw(path.c_str());
            raw.execute("CREATE INDEX by_sensor ON readings(sensor); CREATE TABLE sensors(id INTEGER PRIMARY KEY);"
                        "CREATE TABLE links(sensor REFERENCES sensors(id)); PRAGMA user_version=1; BEGIN");
            const std::string count = std::to_string(megabytes * 1700);
            raw.execute(
                ("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + count +
                 ") INSERT INTO readings SELECT i, i % 10, i * 0.5, hex(randomblob(270)) FROM n;"
                 "INSERT INTO sensors SELECT id FROM readings; INSERT INTO links SELECT id FROM sensors; COMMIT")
                    .c_str());
        }
        return path;
    }

private:
    std::map<int, std::string> m_paths;
};

Files& files()
{
    static Files files;
    return files;
}

void openOurs(benchmark::State& state)
{
    const QString path = QFile::decodeName(files().path(int(state.range(0))).c_str());
    for (auto _ : state) {
        Manager manager(path);
        require(manager.database().isOpen(), "open");
    }
}

void openCommand(benchmark::State& state)
{
    const std::string command =
        "sqlite3 " + files().path(int(state.range(0))) +
        " 'PRAGMA integrity_check; PRAGMA foreign_key_check; PRAGMA user_version' >/dev/null";
    for (auto _ : state)
        require(::system(command.c_str()) == 0, "sqlite3");
}

void add(const char* name, void (*function)(benchmark::State&), int first, int second, int third)
{
    benchmark::RegisterBenchmark(name, function)
        ->Arg(first)
        ->Arg(second)
        ->Arg(third)
        ->UseRealTime()
        ->Repetitions(5)
        ->ReportAggregatesOnly(true)
        ->Unit(benchmark::kMillisecond);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    add("insert/ours", insertOurs, 1000, 10000, 100000);
    add("insert/qsqlquery", insertHand, 1000, 10000, 100000);
    add("insert/sqlite_c", insertRaw, 1000, 10000, 100000);
    add("update_by_rowid/ours", updateOurs, 1000, 10000, 100000);
    add("update_by_rowid/qsqlquery", updateHand, 1000, 10000, 100000);
    add("update_by_rowid/sqlite_c", updateRaw, 1000, 10000, 100000);
    add("select/ours", selectOurs, 10, 1000, 100000);
    add("select/qsqlquery", selectHand, 10, 1000, 100000);
    add("select/sqlite_c", selectRaw, 10, 1000, 100000);
    add("open_megabytes/ours", openOurs, 1, 10, 100);
    add("open_megabytes/sqlite3_command", openCommand, 1, 10, 100);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
