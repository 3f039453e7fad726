#include <nbase/sqlite/nabstractsqlitedbtable.h>

#include <nbase/nbaseqtcompat_p.h>
#include <nbase/sqlite/nabstractsqlitedbmanager.h>
#include <nsystem/nlatin1_p.h>

#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlDriver>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

#include <initializer_list>

#include <string.h>

namespace {

typedef QMap<QString, QVariant> Values;
typedef QList<QPair<QString, bool>> Order;

QString joined(const Values& values, const char* separator)
{
    const int UsualSize = 16;
    QString result;
    result.reserve(values.size() * UsualSize);
    for (Values::const_iterator it = values.constBegin(); it != values.constEnd(); ++it) {
        if (it != values.constBegin())
            result += QLatin1String(separator);
        result += it.key();
    }
    return result;
}

// Puts the texts in the places %1, %2, ... one after the other, so that a text may bring places for those after
// it.
QString substitutedInTurn(const char* pattern, std::initializer_list<QString> texts)
{
    QString result = latin1(pattern);
    for (const QString& inserted : texts)
        result = result.arg(inserted);
    return result;
}

// The same. Texts have no places in almost all cases; then the statement is put together in one piece of memory,
// because one is made for each row.
QString substituted(const char* pattern, std::initializer_list<QString> texts)
{
    int size = int(strlen(pattern));
    for (const QString& inserted : texts) {
        if (inserted.contains(QLatin1Char('%')))
            return substitutedInTurn(pattern, texts);
        size += inserted.size();
    }
    QString result;
    result.reserve(size);
    for (const char* at = pattern; *at; ++at) {
        if (*at == '%')
            result += texts.begin()[*++at - '1'];
        else
            result += QLatin1Char(*at);
    }
    return result;
}

QString joinedColumns(const QStringList& columns)
{
    return columns.isEmpty() ? latin1("*") : columns.join(latin1(", "));
}

QString placeholders(int count)
{
    QString marks = latin1("?, ").repeated(count);
    marks.chop(2);
    return marks;
}

void bind(QSqlQuery& query, const Values& values)
{
    for (const QVariant& value : values)
        query.addBindValue(value, QSql::In);
}

// One statement on the connection of a manager, with what is needed to report its failure.
class Statement
{
public:
    // A QSqlQuery on an invalid connection would use the default connection of the process; one on the
    // driver's own result does not.
    explicit Statement(const NAbstractSqliteDbManager* manager)
        : m_database(manager->database())
        , m_query(m_database.driver()->createResult())
    {
        m_query.setForwardOnly(true);
    }

    // @a prepare gets the query to prepare and bind. A statement that cannot be prepared is not executed: the
    // error would be replaced by one about the number of values.
    template <typename Prepare> bool execute(Prepare prepare)
    {
        return m_database.isOpen() && prepare(m_query) && m_query.exec();
    }

    bool execute(const QString& statement) { return m_database.isOpen() && m_query.exec(statement); }

    QSqlQuery& query() { return m_query; }
    int errorNumber() const { return NBaseQtCompat::sqlErrorNumber(error()); }
    QByteArray errorText() const { return error().text().toLocal8Bit(); }
    QByteArray databaseName() const { return m_database.databaseName().toLocal8Bit(); }

private:
    QSqlError error() const { return m_database.isOpen() ? m_query.lastError() : m_database.lastError(); }

    QSqlDatabase m_database;
    QSqlQuery m_query;
};

// The names of the columns are the same in each row, so they are looked up once. A selection that fails after some
// rows has failed as a whole.
QList<Values> rows(QSqlQuery& query)
{
    QList<Values> result;
    QStringList names;
    while (query.next()) {
        if (names.isEmpty()) {
            const QSqlRecord record = query.record();
            for (int column = 0; column < record.count(); ++column)
                names.append(record.fieldName(column));
        }
        Values row;
        for (int column = 0; column < names.size(); ++column)
            row.insert(names.at(column), query.value(column));
        result.append(row);
    }
    return query.lastError().isValid() ? QList<Values>() : result;
}

} // namespace

NAbstractSQLiteDbTable::NAbstractSQLiteDbTable(NAbstractSqliteDbManager* manager)
    : m_manager(manager)
{
}

NAbstractSQLiteDbTable::~NAbstractSQLiteDbTable() {}

bool NAbstractSQLiteDbTable::createTable()
{
    Statement statement(m_manager);
    if (statement.execute(createTableStatement()))
        return true;
    qCritical(
        "SQL error %d (\"%s\") while creating table \"%s\" of database \"%s\"", statement.errorNumber(),
        statement.errorText().constData(), qPrintable(tableName()), statement.databaseName().constData());
    return false;
}

bool NAbstractSQLiteDbTable::createTriggers()
{
    Statement statement(m_manager);
    const QStringList triggers = createTriggersStatements();
    for (const QString& trigger : triggers) {
        if (statement.execute(trigger))
            continue;
        qCritical(
            "SQL error %d (\"%s\") while creating triggers for table \"%s\" of database \"%s\"",
            statement.errorNumber(), statement.errorText().constData(), qPrintable(tableName()),
            statement.databaseName().constData());
        return false;
    }
    return true;
}

bool NAbstractSQLiteDbTable::rowidDeleteQuery(QSqlQuery& query, const QString& table, qlonglong rowid)
{
    const bool isPrepared = query.prepare(substituted("DELETE FROM %1 WHERE rowid IS ?;", {table}));
    query.addBindValue(rowid, QSql::In);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::rowidSelectQuery(
    QSqlQuery& query, const QString& table, qlonglong rowid, const QStringList& columns)
{
    const bool isPrepared =
        query.prepare(substituted("SELECT %1 FROM %2 WHERE rowid IS ?;", {joinedColumns(columns), table}));
    query.addBindValue(rowid, QSql::In);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::deleteQuery(
    QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where)
{
    const bool isPrepared =
        query.prepare(substituted("DELETE FROM %1 WHERE %2 IS ?;", {table, joined(where, " IS ? AND ")}));
    bind(query, where);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::rowidUpdateQuery(
    QSqlQuery& query, const QString& table, qlonglong rowid, const QMap<QString, QVariant>& values)
{
    const bool isPrepared =
        query.prepare(substituted("UPDATE %1 SET %2=? WHERE rowid IS ?;", {table, joined(values, "=?, ")}));
    bind(query, values);
    query.addBindValue(rowid, QSql::In);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::insertQuery(
    QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& values)
{
    const bool isPrepared = query.prepare(
        substituted("INSERT INTO %1(%2) VALUES(%3);", {table, joined(values, ", "), placeholders(values.size())}));
    bind(query, values);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::updateQuery(
    QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where,
    const QMap<QString, QVariant>& values)
{
    const bool isPrepared = query.prepare(substituted(
        "UPDATE %1 SET %2=? WHERE %3 IS ?;", {table, joined(values, "=?, "), joined(where, " IS ? AND ")}));
    bind(query, values);
    bind(query, where);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::selectQuery(
    QSqlQuery& query, const QString& table, const QMap<QString, QVariant>& where, const QStringList& columns,
    const QList<QPair<QString, bool>>& order)
{
    const bool isPrepared = query.prepare(substituted(
        "SELECT %1 FROM %2 WHERE %3 IS ? %4;",
        {joinedColumns(columns), table, joined(where, " IS ? AND "), orderByClause(order)}));
    bind(query, where);
    return isPrepared;
}

bool NAbstractSQLiteDbTable::selectQuery(
    QSqlQuery& query, const QString& table, const QStringList& columns, const QList<QPair<QString, bool>>& order)
{
    return query.prepare(
        substituted("SELECT %1 FROM %2 %3;", {joinedColumns(columns), table, orderByClause(order)}));
}

QString NAbstractSQLiteDbTable::orderByClause(const QList<QPair<QString, bool>>& order)
{
    if (order.isEmpty())
        return latin1("");
    QStringList items;
    for (const QPair<QString, bool>& item : order)
        items.append(item.first + latin1(item.second ? " ASC" : " DESC"));
    return latin1("ORDER BY %1").arg(items.join(latin1(", ")));
}

bool NAbstractSQLiteDbTable::execInsertQuery(const QMap<QString, QVariant>& values, qlonglong& rowid)
{
    Statement statement(m_manager);
    if (statement.execute([&](QSqlQuery& query) { return insertQuery(query, tableName(), values); })) {
        rowid = statement.query().lastInsertId().toLongLong();
        return true;
    }
    qCritical(
        "SQL error %d (\"%s\") while inserting line [%s] in table \"%s\" of database \"%s\"",
        statement.errorNumber(), statement.errorText().constData(), qPrintable(fieldValuesToString(values)),
        qPrintable(tableName()), statement.databaseName().constData());
    return false;
}

bool NAbstractSQLiteDbTable::execDeleteQuery(const QMap<QString, QVariant>& where)
{
    Statement statement(m_manager);
    if (statement.execute([&](QSqlQuery& query) { return deleteQuery(query, tableName(), where); }))
        return true;
    qCritical(
        "SQL error %d (\"%s\") while deleting line(s) [%s] in table \"%s\" of database \"%s\"",
        statement.errorNumber(), statement.errorText().constData(), qPrintable(fieldValuesToString(where)),
        qPrintable(tableName()), statement.databaseName().constData());
    return false;
}

bool NAbstractSQLiteDbTable::execRowidDeleteQuery(qlonglong rowid)
{
    Statement statement(m_manager);
    if (statement.execute([&](QSqlQuery& query) { return rowidDeleteQuery(query, tableName(), rowid); }))
        return true;
    qCritical(
        "SQL error %d (\"%s\") while deleting line with rowid %lld in table \"%s\" of database \"%s\"",
        statement.errorNumber(), statement.errorText().constData(), rowid, qPrintable(tableName()),
        statement.databaseName().constData());
    return false;
}

bool NAbstractSQLiteDbTable::execUpdateQuery(
    const QMap<QString, QVariant>& where, const QMap<QString, QVariant>& values)
{
    Statement statement(m_manager);
    if (statement.execute([&](QSqlQuery& query) { return updateQuery(query, tableName(), where, values); }))
        return true;
    qCritical(
        "SQL error %d (\"%s\") while updating line(s) [%s] in table \"%s\" of database \"%s\" with values [%s]",
        statement.errorNumber(), statement.errorText().constData(), qPrintable(fieldValuesToString(where)),
        qPrintable(tableName()), statement.databaseName().constData(), qPrintable(fieldValuesToString(values)));
    return false;
}

bool NAbstractSQLiteDbTable::execRowidUpdateQuery(qlonglong rowid, const QMap<QString, QVariant>& values)
{
    Statement statement(m_manager);
    if (statement.execute([&](QSqlQuery& query) { return rowidUpdateQuery(query, tableName(), rowid, values); }))
        return true;
    qCritical(
        "SQL error %d (\"%s\") while updating line with rowid %lld in table \"%s\" of database \"%s\" with values "
        "[%s]",
        statement.errorNumber(), statement.errorText().constData(), rowid, qPrintable(tableName()),
        statement.databaseName().constData(), qPrintable(fieldValuesToString(values)));
    return false;
}

QList<QMap<QString, QVariant>> NAbstractSQLiteDbTable::execSelectQuery(
    const QMap<QString, QVariant>& where, const QStringList& columns,
    const QList<QPair<QString, bool>>& order) const
{
    Statement statement(m_manager);
    if (!statement.execute(
            [&](QSqlQuery& query) { return selectQuery(query, tableName(), where, columns, order); }))
        return QList<Values>();
    return rows(statement.query());
}

QList<QMap<QString, QVariant>>
NAbstractSQLiteDbTable::execSelectQuery(const QStringList& columns, const QList<QPair<QString, bool>>& order) const
{
    Statement statement(m_manager);
    if (!statement.execute([&](QSqlQuery& query) { return selectQuery(query, tableName(), columns, order); }))
        return QList<Values>();
    return rows(statement.query());
}

QMap<QString, QVariant>
NAbstractSQLiteDbTable::execRowidSelectQuery(qlonglong rowid, const QStringList& columns) const
{
    Statement statement(m_manager);
    if (!statement.execute([&](QSqlQuery& query) { return rowidSelectQuery(query, tableName(), rowid, columns); }))
        return Values();
    return rows(statement.query()).value(0);
}

QString NAbstractSQLiteDbTable::fieldValuesToString(const QMap<QString, QVariant>& values)
{
    QStringList items;
    for (Values::const_iterator it = values.constBegin(); it != values.constEnd(); ++it) {
        const QString value = it.value().isNull() ? latin1("[NULL]") : it.value().toString();
        items.append(it.key() + QLatin1Char('=') + value);
    }
    return items.join(latin1(", "));
}
