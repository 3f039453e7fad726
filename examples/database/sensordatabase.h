#ifndef SENSORDATABASE_H
#define SENSORDATABASE_H

#include <nbase/sqlite/nabstractsqlitedbmanager.h>
#include <nbase/sqlite/nabstractsqlitedbtable.h>

/** One row for each sensor. Its column "readings" counts the rows of the other table, which a trigger there keeps.
 */
class SensorTable : public NAbstractSQLiteDbTable
{
public:
    explicit SensorTable(NAbstractSqliteDbManager* manager);

    QString tableName() const;
    QString createTableStatement() const;
    QStringList createTriggersStatements() const;

    /** The rowid of the sensor @a name, which is inserted when it is new; 0 when that fails. */
    qlonglong rowidOf(const QString& name, const QString& unit);

    /** All sensors, sorted by name. */
    QList<QMap<QString, QVariant>> all() const;
};

/** One row for each reading; it belongs to a sensor. */
class ReadingTable : public NAbstractSQLiteDbTable
{
public:
    explicit ReadingTable(NAbstractSqliteDbManager* manager);

    QString tableName() const;
    QString createTableStatement() const;
    QStringList createTriggersStatements() const;

    bool add(qlonglong sensor, double value);
};

/**
 * The application's database. In version 1 a sensor had neither a unit nor a count of its readings, and there was
 * no trigger.
 */
class SensorDatabase : public NAbstractSqliteDbManager
{
public:
    explicit SensorDatabase(const QString& path);

    bool convertDatabaseFromOldVersion(int oldVersion);
    QString name() const;
    QString connectionName() const;
    QString databaseFilePath() const;
    int currentVersion() const;
    QList<NAbstractSQLiteDbTable*> tables() const;

    SensorTable& sensors() { return m_sensors; }
    ReadingTable& readings() { return m_readings; }

private:
    QString m_path;
    SensorTable m_sensors;
    ReadingTable m_readings;
    QList<NAbstractSQLiteDbTable*> m_tables;
};

#endif
