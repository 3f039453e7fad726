#include <nbase/sqlite/nsqlitestatements_p.h>

#include <QtCore/QRegExp>
#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

// The integrity check goes on when it cannot read a page, and tells so as if it were a fault of the database's:
// with the result code for most kinds of pages, without for overflow and free pages.
bool tellsOfReadErrors(const QStringList& messages)
{
    const QString all = messages.join(text("\n"));
    QRegExp code(text("error code=(\\d+)"));
    for (int at = code.indexIn(all); at >= 0; at = code.indexIn(all, at + code.matchedLength())) {
        if (NSqliteErrorWatch::reasonOf(code.cap(1).toInt()) == NSqliteErrorWatch::Environment)
            return true;
    }
    return all.contains(text("failed to get page"));
}

NSqliteErrorWatch::Reason lookAtStructure(const QSqlDatabase& database, QStringList& messages)
{
    QList<NSqliteStatements::Row> rows;
    const QSqlError error = NSqliteStatements::execute(database, "PRAGMA integrity_check;", &rows);
    messages.clear();
    for (const NSqliteStatements::Row& row : rows)
        messages.append(row.value(0).toString());
    NSqliteErrorWatch::Reason reason = NSqliteErrorWatch::reasonOf(error);
    if (reason == NSqliteErrorWatch::NoReason && messages != QStringList(text("ok")))
        reason = NSqliteErrorWatch::Damage;
    // What cannot be read is not known to be damaged.
    if (reason == NSqliteErrorWatch::Damage && tellsOfReadErrors(messages))
        reason = NSqliteErrorWatch::Environment;
    // The schema may need a function or a collation that nobody has registered.
    if (reason == NSqliteErrorWatch::Statement)
        messages = QStringList(error.text());
    else if (reason != NSqliteErrorWatch::Damage)
        messages.clear();
    return reason;
}

} // namespace

QString NSqliteStatements::quoted(const QString& name)
{
    return QLatin1Char('"') + QString(name).replace(QLatin1Char('"'), text("\"\"")) + QLatin1Char('"');
}

QStringList NSqliteStatements::quoted(const QStringList& names)
{
    QStringList result;
    for (const QString& name : names)
        result.append(quoted(name));
    return result;
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
    return execute(database, text(statement), rows);
}

// BEGIN is refused inside a transaction (https://sqlite.org/lang_transaction.html).
bool NSqliteStatements::isInTransaction(const QSqlDatabase& database)
{
    if (execute(database, "BEGIN").isValid())
        return true;
    execute(database, "ROLLBACK");
    return false;
}

// In places SQLite takes what it cannot read for damaged; damage is there on a second look as well.
NSqliteErrorWatch::Reason NSqliteStatements::checkStructure(const QSqlDatabase& database, QStringList& messages)
{
    const NSqliteErrorWatch::Reason reason = lookAtStructure(database, messages);
    return reason == NSqliteErrorWatch::Damage ? lookAtStructure(database, messages) : reason;
}

NSqliteErrorWatch::Reason
NSqliteStatements::confirmed(const QSqlDatabase& database, NSqliteErrorWatch::Reason reason)
{
    if (reason != NSqliteErrorWatch::Damage)
        return reason;
    QStringList messages;
    return checkStructure(database, messages) == NSqliteErrorWatch::Damage ? NSqliteErrorWatch::Damage
                                                                           : NSqliteErrorWatch::Environment;
}
