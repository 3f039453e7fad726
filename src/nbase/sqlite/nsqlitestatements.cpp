#include <nbase/sqlite/nsqlitestatements_p.h>

#include <nsystem/nlatin1_p.h>

#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

QString NSqliteStatements::quoted(const QString& name)
{
    const QChar quote = QLatin1Char('"');
    return quote + QString(name).replace(quote, QString(2, quote)) + quote;
}

QSqlError NSqliteStatements::execute(const QSqlDatabase& database, const QString& statement, QList<Row>* rows)
{
    QSqlQuery query(database);
    query.setForwardOnly(true);
    if (!query.exec(statement))
        return query.lastError().isValid() ? query.lastError() : database.lastError();
    const int columns = rows ? query.record().count() : 0;
    while (rows && query.next()) {
        Row row;
        for (int column = 0; column < columns; ++column)
            row.append(query.value(column));
        rows->append(row);
    }
    return query.lastError();
}

QSqlError NSqliteStatements::execute(const QSqlDatabase& database, const char* statement, QList<Row>* rows)
{
    return execute(database, latin1(statement), rows);
}

// BEGIN is refused inside a transaction (https://sqlite.org/lang_transaction.html).
bool NSqliteStatements::isInTransaction(const QSqlDatabase& database)
{
    if (execute(database, "BEGIN").isValid())
        return true;
    execute(database, "ROLLBACK");
    return false;
}
