#include <nbase/sqlite/nsqlitereferencerepair_p.h>

#include <nbase/sqlite/nsqlitestatements_p.h>

#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

using NSqliteStatements::execute;
using NSqliteStatements::isInTransaction;
using NSqliteStatements::quoted;
using NSqliteStatements::Row;

namespace {

typedef NSqliteErrorWatch::Reason Reason;

const int LargestPortion = 10000;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray local(const QString& text)
{
    return text.toLocal8Bit();
}

QString joined(const QStringList& texts)
{
    return texts.join(text(", "));
}

// The values of the row at which @a query is, as text.
QString values(const QSqlQuery& query)
{
    QStringList result;
    const int count = query.record().count();
    for (int column = 0; column < count; ++column)
        result.append(query.value(column).toString());
    return joined(result);
}

// Who is to blame for an error that is not merely a statement's refusal.
bool stopsTheRepair(const QSqlError& error)
{
    const Reason reason = NSqliteErrorWatch::reasonOf(error);
    return reason == NSqliteErrorWatch::Environment || reason == NSqliteErrorWatch::Damage;
}

Reason confirmedReason(const QSqlDatabase& database, const QSqlError& error)
{
    return NSqliteStatements::confirmed(database, NSqliteErrorWatch::reasonOf(error));
}

// The name of the rowid that no column of the table has taken for itself (https://sqlite.org/rowidtable.html);
// empty when all three are taken, or when that cannot be found out.
QString rowidName(const QSqlDatabase& database, const QString& table)
{
    // Only the first names generated columns; old versions of SQLite do not know it, nor generated columns.
    const char* const statements[] = {"PRAGMA table_xinfo(%1)", "PRAGMA table_info(%1)"};
    QList<Row> columns;
    for (const char* statement : statements) {
        if (columns.isEmpty() && execute(database, text(statement).arg(quoted(table)), &columns).isValid())
            return QString();
    }
    QStringList names = QStringList() << text("rowid") << text("oid") << text("_rowid_");
    for (const Row& column : columns)
        names.removeAll(column.value(1).toString().toLower());
    return columns.isEmpty() ? QString() : names.value(0);
}

// One statement on a row for each foreign key, prepared when it is needed first.
class RowQueries
{
public:
    explicit RowQueries(const QSqlDatabase& database)
        : m_database(database)
    {
    }

    // A statement that cannot be prepared is not executed: its error would be replaced by a remark on the values.
    QSqlQuery& execute(int foreignKey, const QString& statement, qlonglong rowid)
    {
        QMap<int, QSqlQuery>::iterator query = m_queries.find(foreignKey);
        if (query == m_queries.end()) {
            query = m_queries.insert(foreignKey, QSqlQuery(m_database));
            query->setForwardOnly(true);
            if (!query->prepare(statement))
                m_unprepared.insert(foreignKey);
        }
        if (m_unprepared.contains(foreignKey))
            return *query;
        query->bindValue(0, rowid);
        query->exec();
        return *query;
    }

private:
    const QSqlDatabase m_database;
    QMap<int, QSqlQuery> m_queries;
    QSet<int> m_unprepared;
};

} // namespace

NSqliteReferenceRepair::NSqliteReferenceRepair(const QSqlDatabase& database, const QString& name)
    : m_database(database)
    , m_name(name)
    , m_portionSize(LargestPortion)
    , m_isDone(false)
{
}

Reason NSqliteReferenceRepair::run()
{
    Reason reason = NSqliteErrorWatch::NoReason;
    while (!m_isDone && reason == NSqliteErrorWatch::NoReason) {
        reason = repairPortion();
        if (m_protected.isEmpty())
            continue;
        execute(m_database, "PRAGMA foreign_keys=OFF");
        while (!m_protected.isEmpty() && reason == NSqliteErrorWatch::NoReason)
            reason = repairPortion();
        execute(m_database, "PRAGMA foreign_keys=ON");
    }
    return reason;
}

Reason NSqliteReferenceRepair::repairPortion()
{
    // The first look takes no lock: a database without rows to delete needs not be written.
    QList<Reference> found;
    QSqlError error = read(found);
    if (stopsTheRepair(error))
        return confirmedReason(m_database, error);
    if (found.isEmpty()) {
        // A foreign key that is declared wrongly cannot be checked; that is for its author to see.
        m_isDone = m_isDone || m_protected.isEmpty();
        m_protected.clear();
        return NSqliteErrorWatch::NoReason;
    }
    if (!isAnyNamed(found)) {
        Result result;
        deleteRows(found, result);
        accept(found, result);
        return NSqliteErrorWatch::NoReason;
    }
    error = execute(m_database, "BEGIN IMMEDIATE");
    if (!stopsTheRepair(error))
        return repairInTransaction();
    warnOf(found);
    return confirmedReason(m_database, error);
}

Reason NSqliteReferenceRepair::repairInTransaction()
{
    QList<Reference> portion;
    Result result;
    QSqlError error = read(portion);
    if (!error.isValid())
        error = deleteRows(portion, result);
    if (!error.isValid())
        error = execute(m_database, "COMMIT");
    if (!error.isValid()) {
        accept(portion, result);
        return NSqliteErrorWatch::NoReason;
    }
    execute(m_database, "ROLLBACK");
    if (!stopsTheRepair(error)) {
        giveIn(portion);
        return NSqliteErrorWatch::NoReason;
    }
    warnOf(portion);
    return confirmedReason(m_database, error);
}

// Rows that cannot be deleted now are warned of nevertheless.
void NSqliteReferenceRepair::warnOf(const QList<Reference>& references) const
{
    for (const Reference& reference : references)
        warn(reference.foreignKey, valuesOf(reference));
}

bool NSqliteReferenceRepair::isAnyNamed(const QList<Reference>& references)
{
    for (const Reference& reference : references) {
        if (reference.isNamed)
            return true;
    }
    return false;
}

QSqlError NSqliteReferenceRepair::read(QList<Reference>& references)
{
    QMap<int, int> unnamedRows;
    QSqlQuery query(m_database);
    query.setForwardOnly(true);
    query.exec(text("PRAGMA foreign_key_check;"));
    while (references.size() < m_portionSize && query.next()) {
        const int foreignKey =
            foreignKeyOf(query.value(0).toString(), query.value(3).toInt(), query.value(2).toString());
        // The rowid is null for a row of a table without rowid.
        const bool isNamed = !query.value(1).isNull() && !m_foreignKeys.at(foreignKey).deletion.isEmpty();
        const Reference reference = {foreignKey, isNamed, query.value(1).toLongLong()};
        if (!isToBeSkipped(reference, unnamedRows))
            references.append(reference);
    }
    return query.lastError();
}

bool NSqliteReferenceRepair::isToBeSkipped(const Reference& reference, QMap<int, int>& unnamedRows) const
{
    const bool isEnforced = m_protected.isEmpty();
    if (reference.isNamed)
        return m_left.contains(keyOf(reference)) || (!isEnforced && !m_protected.contains(keyOf(reference)));
    const int count = ++unnamedRows[reference.foreignKey];
    return !isEnforced || count <= m_foreignKeys.at(reference.foreignKey).leftCount;
}

// Stops only at what the whole transaction suffers from.
QSqlError NSqliteReferenceRepair::deleteRows(const QList<Reference>& references, Result& result)
{
    const qlonglong rowsBefore = countRows();
    int deletedCount = 0;
    RowQueries selections(m_database);
    RowQueries deletions(m_database);
    for (const Reference& reference : references) {
        const ForeignKey& key = m_foreignKeys.at(reference.foreignKey);
        QString found;
        bool isDeleted = false;
        if (reference.isNamed) {
            QSqlQuery& selection = selections.execute(reference.foreignKey, key.selection, reference.rowid);
            const bool isThere = selection.next();
            if (selection.lastError().isValid())
                return selection.lastError();
            // It is gone with a row that it referred to, or because of another reference of its own.
            if (!isThere)
                continue;
            found = values(selection);
            selection.finish();
            QSqlQuery& deletion = deletions.execute(reference.foreignKey, key.deletion, reference.rowid);
            const QSqlError error = deletion.lastError();
            if (stopsTheRepair(error) || (error.isValid() && !isInTransaction(m_database)))
                return error;
            if (error.isValid() && m_protected.isEmpty()) {
                result.refused.append(reference);
                continue;
            }
            isDeleted = !error.isValid() && deletion.numRowsAffected() > 0;
        }
        result.warnings.append(qMakePair(reference.foreignKey, found));
        if (isDeleted)
            ++deletedCount;
        else
            result.left.append(reference);
    }
    const bool isWithoutEffect = result.warnings.isEmpty() && result.refused.isEmpty();
    result.isOpposed = isWithoutEffect || (deletedCount > 0 && countRows() >= rowsBefore);
    return QSqlError();
}

void NSqliteReferenceRepair::accept(const QList<Reference>& portion, const Result& result)
{
    for (const QPair<int, QString>& warning : result.warnings)
        warn(warning.first, warning.second);
    for (const Reference& reference : result.left)
        leave(reference);
    for (const Reference& reference : portion)
        m_protected.remove(keyOf(reference));
    for (const Reference& reference : result.refused)
        m_protected.insert(keyOf(reference));
    m_isDone = m_isDone || result.isOpposed;
    m_portionSize = qMin(2 * m_portionSize, LargestPortion);
}

// The transaction of @a portion cannot pass.
void NSqliteReferenceRepair::giveIn(const QList<Reference>& portion)
{
    if (portion.size() > 1) {
        m_portionSize = portion.size() / 2;
        return;
    }
    for (const Reference& reference : portion) {
        if (reference.isNamed && m_protected.isEmpty()) {
            m_protected.insert(keyOf(reference));
            continue;
        }
        warn(reference.foreignKey, valuesOf(reference));
        m_protected.remove(keyOf(reference));
        leave(reference);
    }
}

void NSqliteReferenceRepair::leave(const Reference& reference)
{
    if (reference.isNamed)
        m_left.insert(keyOf(reference));
    else
        ++m_foreignKeys[reference.foreignKey].leftCount;
}

// What foreign_key_list says is looked up once.
int NSqliteReferenceRepair::foreignKeyOf(const QString& table, int id, const QString& referencedTable)
{
    const QPair<QString, int> name(table, id);
    if (m_foreignKeyIndexes.contains(name))
        return m_foreignKeyIndexes.value(name);
    ForeignKey key = {table, QStringList(), referencedTable, QStringList(), QString(), QString(), 0};
    QList<Row> columns;
    execute(m_database, text("PRAGMA foreign_key_list(%1)").arg(quoted(table)), &columns);
    for (const Row& column : columns) {
        if (column.value(0).toInt() != id)
            continue;
        key.columns.append(column.value(3).toString());
        // A foreign key that names no columns refers to the primary key.
        if (!column.value(4).isNull())
            key.referencedColumns.append(column.value(4).toString());
    }
    const QString rowid = rowidName(m_database, table);
    if (!rowid.isEmpty()) {
        const QString row = text(" FROM ") + quoted(table) + text(" WHERE ") + rowid + text(" IS ?");
        key.selection = text("SELECT ") + joined(quoted(key.columns)) + row;
        key.deletion = text("DELETE") + row;
    }
    m_foreignKeyIndexes.insert(name, m_foreignKeys.size());
    m_foreignKeys.append(key);
    return m_foreignKeys.size() - 1;
}

// The values of the referring columns, which cannot be told of a row that cannot be named.
QString NSqliteReferenceRepair::valuesOf(const Reference& reference) const
{
    if (!reference.isNamed)
        return QString();
    RowQueries selections(m_database);
    QSqlQuery& selection = selections.execute(
        reference.foreignKey, m_foreignKeys.at(reference.foreignKey).selection, reference.rowid);
    return selection.next() ? values(selection) : QString();
}

// How many rows there are in the tables that have had broken references.
qlonglong NSqliteReferenceRepair::countRows() const
{
    QStringList tables;
    for (const ForeignKey& key : m_foreignKeys)
        tables.append(key.table);
    tables.removeDuplicates();
    qlonglong result = 0;
    for (const QString& table : tables) {
        QList<Row> rows;
        execute(m_database, text("SELECT count(*) FROM ") + quoted(table), &rows);
        result += rows.value(0).value(0).toLongLong();
    }
    return result;
}

void NSqliteReferenceRepair::warn(int foreignKey, const QString& values) const
{
    const ForeignKey& key = m_foreignKeys.at(foreignKey);
    qWarning(
        "Foreign key constraint error in database \"%s\" on %s(%s) referencing %s(%s) with value(%s). The "
        "reference will be deleted.",
        local(m_name).constData(), local(key.table).constData(), local(joined(key.columns)).constData(),
        local(key.referencedTable).constData(), local(joined(key.referencedColumns)).constData(),
        local(values).constData());
}
