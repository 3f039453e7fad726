#include "sensordatabase.h"

#include <QtSql/QSqlQuery>

namespace {

typedef QMap<QString, QVariant> Values;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

} // namespace

SensorTable::SensorTable(NAbstractSqliteDbManager* manager)
    : NAbstractSQLiteDbTable(manager)
{
}

QString SensorTable::tableName() const
{
    return text("sensors");
}

QString SensorTable::createTableStatement() const
{
    return text(
        "CREATE TABLE sensors(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, unit TEXT NOT NULL DEFAULT '', "
        "readings INTEGER NOT NULL DEFAULT 0)");
}

QStringList SensorTable::createTriggersStatements() const
{
    return QStringList();
}

qlonglong SensorTable::rowidOf(const QString& name, const QString& unit)
{
    Values sensor;
    sensor.insert(text("name"), name);
    const QList<Values> found = execSelectQuery(sensor, QStringList(text("id")), QList<QPair<QString, bool>>());
    if (!found.isEmpty())
        return found.first().value(text("id")).toLongLong();
    sensor.insert(text("unit"), unit);
    qlonglong rowid = 0;
    execInsertQuery(sensor, rowid);
    return rowid;
}

QList<QMap<QString, QVariant>> SensorTable::all() const
{
    return execSelectQuery(QStringList(), QList<QPair<QString, bool>>() << qMakePair(text("name"), true));
}

ReadingTable::ReadingTable(NAbstractSqliteDbManager* manager)
    : NAbstractSQLiteDbTable(manager)
{
}

QString ReadingTable::tableName() const
{
    return text("readings");
}

QString ReadingTable::createTableStatement() const
{
    return text(
        "CREATE TABLE readings(sensor INTEGER NOT NULL REFERENCES sensors(id) ON DELETE CASCADE, value REAL)");
}

QStringList ReadingTable::createTriggersStatements() const
{
    return QStringList() << text("CREATE TRIGGER reading_counted AFTER INSERT ON readings BEGIN "
                                 "UPDATE sensors SET readings = readings + 1 WHERE id = new.sensor; END");
}

bool ReadingTable::add(qlonglong sensor, double value)
{
    Values reading;
    reading.insert(text("sensor"), sensor);
    reading.insert(text("value"), value);
    qlonglong rowid = 0;
    return execInsertQuery(reading, rowid);
}

SensorDatabase::SensorDatabase(const QString& path)
    : m_path(path)
    , m_sensors(this)
    , m_readings(this)
{
    m_tables << &m_sensors << &m_readings;
}

bool SensorDatabase::convertDatabaseFromOldVersion(int oldVersion)
{
    if (oldVersion != 1)
        return false;
    QStringList statements;
    statements << text("ALTER TABLE sensors ADD COLUMN unit TEXT NOT NULL DEFAULT ''")
               << text("ALTER TABLE sensors ADD COLUMN readings INTEGER NOT NULL DEFAULT 0")
               << text("UPDATE sensors SET readings = (SELECT count(*) FROM readings WHERE sensor = sensors.id)")
               << m_readings.createTriggersStatements();
    QSqlQuery query(database());
    for (const QString& statement : statements) {
        if (!query.exec(statement))
            return false;
    }
    return true;
}

QString SensorDatabase::name() const
{
    return text("sensors");
}

QString SensorDatabase::connectionName() const
{
    return text("sensors");
}

QString SensorDatabase::databaseFilePath() const
{
    return m_path;
}

int SensorDatabase::currentVersion() const
{
    return 2;
}

QList<NAbstractSQLiteDbTable*> SensorDatabase::tables() const
{
    // The order in which they are created: a table comes before those that refer to it.
    return m_tables;
}
