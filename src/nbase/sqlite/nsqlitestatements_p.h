#ifndef NBASE_NSQLITESTATEMENTS_P_H
#define NBASE_NSQLITESTATEMENTS_P_H

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariant>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>

/** Statements that the library executes itself. */
namespace NSqliteStatements {

typedef QList<QVariant> Row;

/** @a name as it is written in a statement, whatever characters it has. */
QString quoted(const QString& name);

/**
 * Executes @a statement and reads all its rows, so that no statement is left running.
 * @param rows receives the rows, if given; those before an error as well.
 * @return an invalid error on success.
 */
QSqlError execute(const QSqlDatabase& database, const QString& statement, QList<Row>* rows = nullptr);
QSqlError execute(const QSqlDatabase& database, const char* statement, QList<Row>* rows = nullptr);

/** Whether a transaction is open on @a database; SQLite ends one itself after some errors. */
bool isInTransaction(const QSqlDatabase& database);

} // namespace NSqliteStatements

#endif
