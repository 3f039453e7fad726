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

    QString tableName() const override;
    QString createTableStatement() const override;
    QStringList createTriggersStatements() const override;

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

    QString tableName() const override;
    QString createTableStatement() const override;
    QStringList createTriggersStatements() const override;

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

    bool convertDatabaseFromOldVersion(int oldVersion) override;
    QString name() const override;
    QString connectionName() const override;
    QString databaseFilePath() const override;
    int currentVersion() const override;
    QList<NAbstractSQLiteDbTable*> tables() const override;

    SensorTable& sensors() { return m_sensors; }
    ReadingTable& readings() { return m_readings; }

private:
    QString m_path;
    SensorTable m_sensors;
    ReadingTable m_readings;
    QList<NAbstractSQLiteDbTable*> m_tables;
};

#endif
