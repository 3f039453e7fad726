#ifndef NBASE_TESTS_NTESTDATABASE_H
#define NBASE_TESTS_NTESTDATABASE_H

#include <nbase/sqlite/nabstractsqlitedbmanager.h>
#include <nbase/sqlite/nabstractsqlitedbtable.h>

#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>

#include <functional>

/** A table whose statements a test gives. */
class NTestTable : public NAbstractSQLiteDbTable
{
public:
    NTestTable(NAbstractSqliteDbManager* manager, const char* name, const char* columns)
        : NAbstractSQLiteDbTable(manager)
        , m_name(QString::fromUtf8(name))
        , m_statement(QString::fromLatin1("CREATE TABLE ") + m_name + QString::fromUtf8(columns))
    {
    }

    QString tableName() const override { return m_name; }
    QString createTableStatement() const override { return m_statement; }
    QStringList createTriggersStatements() const override { return m_triggers; }

    void setCreateTableStatement(const char* statement) { m_statement = QString::fromUtf8(statement); }
    void addTrigger(const char* statement) { m_triggers.append(QString::fromUtf8(statement)); }

private:
    QString m_name;
    QString m_statement;
    QStringList m_triggers;
};

/** A database whose file, version, tables and conversion a test gives. Its name in messages is "Test". */
class NTestManager : public NAbstractSqliteDbManager
{
public:
    explicit NTestManager(const QString& path, int version = 1)
        : m_path(path)
        , m_connectionName(QString::fromLatin1("test connection"))
        , m_version(version)
    {
    }

    bool convertDatabaseFromOldVersion(int oldVersion) override
    {
        m_oldVersion = oldVersion;
        return m_conversion ? m_conversion(*this)
                            : NAbstractSqliteDbManager::convertDatabaseFromOldVersion(oldVersion);
    }

    QString name() const override { return QString::fromLatin1("Test"); }
    QString connectionName() const override { return m_connectionName; }
    QString databaseFilePath() const override { return m_path; }
    int currentVersion() const override { return m_version; }
    QList<NAbstractSQLiteDbTable*> tables() const override { return m_tables; }

    void setVersion(int version) { m_version = version; }
    void setConnectionName(const char* name) { m_connectionName = QString::fromLatin1(name); }
    void addTable(NAbstractSQLiteDbTable* table) { m_tables.append(table); }
    void setConversion(const std::function<bool(NTestManager&)>& conversion) { m_conversion = conversion; }
    int oldVersion() const { return m_oldVersion; }

    /** Executes @a statement on the open database. @return whether it succeeded. */
    bool execute(const char* statement)
    {
        QSqlQuery query(database());
        return query.exec(QString::fromUtf8(statement));
    }

    /** The rows that @a statement gives, each with its columns joined with "|"; "!" and the error when it fails.
     */
    QStringList rows(const char* statement)
    {
        QSqlQuery query(database());
        QStringList result;
        if (!query.exec(QString::fromUtf8(statement)))
            return QStringList(QString::fromLatin1("!") + query.lastError().text());
        while (query.next()) {
            QStringList columns;
            for (int column = 0; query.value(column).isValid(); ++column)
                columns.append(query.value(column).toString());
            result.append(columns.join(QString::fromLatin1("|")));
        }
        return result;
    }

private:
    QString m_path;
    QString m_connectionName;
    int m_version;
    int m_oldVersion = -1;
    QList<NAbstractSQLiteDbTable*> m_tables;
    std::function<bool(NTestManager&)> m_conversion;
};

#endif
