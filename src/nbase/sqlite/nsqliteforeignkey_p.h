#ifndef NBASE_NSQLITEFOREIGNKEY_P_H
#define NBASE_NSQLITEFOREIGNKEY_P_H

#include <nsystem/nlatin1_p.h>

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>

/** A foreign key, and the statements on the rows of the table that it belongs to. */
class NSqliteForeignKey
{
public:
    /**
     * The foreign key @a id of @a table, as PRAGMA foreign_key_check reports it.
     * @param hasRowid whether the table has a rowid.
     */
    NSqliteForeignKey(
        const QSqlDatabase& database, const QString& table, int id, const QString& referencedTable, bool hasRowid);

    bool is(const QString& table, int id) const { return m_id == id && m_table == table; }

    QString table() const { return m_table; }
    QString columns() const { return m_columns.join(latin1(", ")); }
    QString referencedTable() const { return m_referencedTable; }

    /** Empty when the foreign key names no columns: it refers to the primary key then. */
    QString referencedColumns() const { return m_referencedColumns.join(latin1(", ")); }

    /**
     * Reads the values of the foreign key in the row @a rowid, joined with ", ".
     * @param values stays empty where there is no such row, or where no condition can identify it.
     */
    QSqlError readValues(qlonglong rowid, QString& values);

    /** Deletes the row @a rowid, unless no condition can identify it. */
    QSqlError deleteRow(qlonglong rowid);

private:
    QString m_table;
    int m_id;
    QString m_referencedTable;
    QStringList m_columns;
    QStringList m_referencedColumns;
    bool m_canIdentifyRows;
    bool m_isSelectionPrepared;
    bool m_isDeletionPrepared;
    QSqlQuery m_selection;
    QSqlQuery m_deletion;
};

#endif
