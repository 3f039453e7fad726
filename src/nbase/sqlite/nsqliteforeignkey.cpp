#include <nbase/sqlite/nsqliteforeignkey_p.h>

#include <nbase/sqlite/nsqlitestatements_p.h>
#include <nsystem/nlatin1_p.h>

#include <QtSql/QSqlRecord>

using NSqliteStatements::execute;
using NSqliteStatements::quoted;
using NSqliteStatements::Row;

namespace {

// The name of the rowid that no column of the table has (https://sqlite.org/rowidtable.html); empty when all three
// are names of columns, or when the columns cannot be read.
QString rowidName(const QSqlDatabase& database, const QString& table)
{
    // Only table_xinfo lists generated columns; versions of SQLite without it have no such columns.
    QList<Row> columns;
    const char* const statements[] = {"PRAGMA table_xinfo(%1)", "PRAGMA table_info(%1)"};
    for (const char* statement : statements) {
        if (columns.isEmpty() && execute(database, latin1(statement).arg(quoted(table)), &columns).isValid())
            return QString();
    }
    QStringList names = QStringList() << latin1("rowid") << latin1("oid") << latin1("_rowid_");
    for (const Row& column : columns)
        names.removeAll(column.value(1).toString().toLower());
    return columns.isEmpty() ? QString() : names.value(0);
}

// A statement that could not be prepared is not executed: Qt would replace its error.
QSqlError executePrepared(QSqlQuery& query, bool isPrepared, qlonglong rowid)
{
    if (isPrepared) {
        query.bindValue(0, rowid);
        query.exec();
    }
    return query.lastError();
}

} // namespace

NSqliteForeignKey::NSqliteForeignKey(
    const QSqlDatabase& database, const QString& table, int id, const QString& referencedTable, bool hasRowid)
    : m_table(table)
    , m_id(id)
    , m_referencedTable(referencedTable)
    , m_canIdentifyRows(false)
    , m_isSelectionPrepared(false)
    , m_isDeletionPrepared(false)
    , m_selection(database)
    , m_deletion(database)
{
    QStringList selected;
    QList<Row> rows;
    execute(database, latin1("PRAGMA foreign_key_list(%1)").arg(quoted(table)), &rows);
    for (const Row& row : rows) {
        if (row.value(0).toInt() != id)
            continue;
        m_columns.append(row.value(3).toString());
        selected.append(quoted(m_columns.last()));
        if (!row.value(4).isNull())
            m_referencedColumns.append(row.value(4).toString());
    }
    const QString rowid = hasRowid ? rowidName(database, table) : QString();
    m_canIdentifyRows = !rowid.isEmpty();
    if (!m_canIdentifyRows)
        return;
    const QString row = latin1(" FROM ") + quoted(table) + latin1(" WHERE ") + rowid + latin1(" IS ?");
    m_selection.setForwardOnly(true);
    m_isSelectionPrepared = m_selection.prepare(latin1("SELECT ") + selected.join(latin1(", ")) + row);
    m_isDeletionPrepared = m_deletion.prepare(latin1("DELETE") + row);
}

QSqlError NSqliteForeignKey::readValues(qlonglong rowid, QString& values)
{
    if (!m_canIdentifyRows)
        return QSqlError();
    const QSqlError error = executePrepared(m_selection, m_isSelectionPrepared, rowid);
    if (error.isValid() || !m_selection.next())
        return m_selection.lastError();
    QStringList read;
    for (int column = 0; column < m_columns.size(); ++column)
        read.append(m_selection.value(column).toString());
    values = read.join(latin1(", "));
    m_selection.finish();
    return QSqlError();
}

QSqlError NSqliteForeignKey::deleteRow(qlonglong rowid)
{
    return m_canIdentifyRows ? executePrepared(m_deletion, m_isDeletionPrepared, rowid) : QSqlError();
}
