#ifndef NBASE_NABSTRACTSQLITEDBTABLE_H
#define NBASE_NABSTRACTSQLITEDBTABLE_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

class NAbstractSqliteDbManager;
class QSqlQuery;

/**
 * One table of an application's SQLite database. An application derives a class from it that gives the table's
 * name and its CREATE statements, and works with rows through the operations below.
 *
 * A row is a map from column names to values; a null value is SQL's NULL. Conditions are such maps as well: a row
 * meets one when every column IS the value, so a null value finds NULL (https://sqlite.org/lang_expr.html, "IS").
 * An empty map is no condition that everything meets but an error, so that a forgotten condition changes nothing.
 * Columns are written in ascending order of their names. An empty list of columns stands for all of them.
 *
 * Names go into the statements as they are given. Names that SQL needs quotes for are given with them, for example
 * "\"first name\""; in results a column is named without quotes. A name has no "?" and no ":" before a letter or
 * digit: Qt 4 would take it for the place of a value, even in quotes.
 *
 * The table does not own its manager, and is used in the thread that opened the manager's connection. While the
 * manager is closed every operation fails.
 */
class NBASE_EXPORT NAbstractSQLiteDbTable
{
public:
    /** @param manager the database that the table belongs to; it has to outlive the table. */
    NAbstractSQLiteDbTable(NAbstractSqliteDbManager* manager);
    virtual ~NAbstractSQLiteDbTable();

    /** The table's name in SQL, as it stands in statements and messages. */
    virtual QString tableName() const = 0;

    /** The complete CREATE TABLE statement. */
    virtual QString createTableStatement() const = 0;

    /**
     * Executes createTableStatement(). The manager calls it when it initialises the database.
     * @return whether it succeeded; a failure is logged.
     */
    virtual bool createTable();

    /** The complete CREATE TRIGGER statements of the table, if any, in the order in which to execute them. */
    virtual QStringList createTriggersStatements() const = 0;

    /**
     * Executes createTriggersStatements() in order, up to the first that fails. The manager calls it when it
     * initialises the database, after the tables are there.
     * @return whether all succeeded; a failure is logged, and the triggers before it stay.
     */
    virtual bool createTriggers();

    /**
     * Prepares @a query to delete the row @a rowid of @a table; the statement is not executed. The same holds for
     * the other statements below: they are prepared with the values bound by position.
     * @return whether SQLite accepts the statement; the query's lastError() gives the reason otherwise.
     */
    static bool rowidDeleteQuery(QSqlQuery& query, const QString& table, qlonglong rowid);

    /** Prepares @a query to select @a columns of the row @a rowid. */
    static bool
    rowidSelectQuery(QSqlQuery& query, const QString& table, qlonglong rowid, const QStringList& columns);

    /** Prepares @a query to delete the rows that meet @a where. */
    static bool deleteQuery(QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where);

    /** Prepares @a query to set @a values in the row @a rowid. */
    static bool rowidUpdateQuery(
        QSqlQuery& query, const QString& table, qlonglong rowid, const QMap<QString, QVariant>& values);

    /** Prepares @a query to insert a row with @a values. */
    static bool insertQuery(QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& values);

    /** Prepares @a query to set @a values in the rows that meet @a where. */
    static bool updateQuery(
        QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where,
        const QMap<QString, QVariant>& values);

    /** Prepares @a query to select @a columns of the rows that meet @a where, sorted by @a order. */
    static bool selectQuery(
        QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where, const QStringList& columns,
        const QList<QPair<QString, bool>>& order);

    /** Prepares @a query to select @a columns of all rows, sorted by @a order. */
    static bool selectQuery(
        QSqlQuery& query, const QString& table, const QStringList& columns,
        const QList<QPair<QString, bool>>& order);

    /**
     * The ORDER BY clause for @a order: each column with true for ascending and false for descending, the most
     * significant first.
     * @return the clause, for example "ORDER BY name ASC, id DESC"; an empty text for an empty list.
     */
    static QString orderByClause(const QList<QPair<QString, bool>>& order);

    /**
     * Inserts a row with @a values.
     * @param rowid is set to the new row's rowid; it stays as it is when the operation fails.
     * @return whether it succeeded; a failure is logged, here and in the other operations that change rows.
     */
    bool execInsertQuery(const QMap<QString, QVariant>& values, qlonglong& rowid);

    /** Deletes the rows that meet @a where. @return whether it succeeded; that none did is no failure. */
    bool execDeleteQuery(const QMap<QString, QVariant>& where);

    /** Deletes the row @a rowid. @return whether it succeeded; that there was none is no failure. */
    bool execRowidDeleteQuery(qlonglong rowid);

    /** Sets @a values in the rows that meet @a where. @return whether it succeeded; that none did is no failure.
     */
    bool execUpdateQuery(const QMap<QString, QVariant>& where, const QMap<QString, QVariant>& values);

    /** Sets @a values in the row @a rowid. @return whether it succeeded; that there is none is no failure. */
    bool execRowidUpdateQuery(qlonglong rowid, const QMap<QString, QVariant>& values);

    /**
     * The rows that meet @a where, sorted by @a order, each with @a columns. A failure is not logged and gives an
     * empty list, here and in the other selections.
     */
    QList<QMap<QString, QVariant>> execSelectQuery(
        const QMap<QString, QVariant>& where, const QStringList& columns,
        const QList<QPair<QString, bool>>& order) const;

    /** All rows, sorted by @a order, each with @a columns. */
    QList<QMap<QString, QVariant>>
    execSelectQuery(const QStringList& columns, const QList<QPair<QString, bool>>& order) const;

    /** The @a columns of the row @a rowid; an empty map when there is no such row. */
    QMap<QString, QVariant> execRowidSelectQuery(qlonglong rowid, const QStringList& columns) const;

    /** @a values as they stand in messages, for example "a=[NULL], b=5". */
    static QString fieldValuesToString(const QMap<QString, QVariant>& values);

private:
    Q_DISABLE_COPY(NAbstractSQLiteDbTable)

    NAbstractSqliteDbManager* m_manager;
};

#endif
