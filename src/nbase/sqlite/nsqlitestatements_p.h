#ifndef NBASE_NSQLITESTATEMENTS_P_H
#define NBASE_NSQLITESTATEMENTS_P_H

#include <nbase/sqlite/nsqliteerrorwatch_p.h>

#include <QtCore/QList>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>

/** Statements of the library's own, and what it makes of their errors. */
namespace NSqliteStatements {

typedef QList<QVariant> Row;

/** A name as it stands in a statement, whatever characters it has. */
QString quoted(const QString& name);
QStringList quoted(const QStringList& names);

/**
 * Executes @a statement. All rows are read before anything else happens, so that nothing is changed under a
 * statement that is still running.
 */
QSqlError execute(const QSqlDatabase& database, const QString& statement, QList<Row>* rows = nullptr);
QSqlError execute(const QSqlDatabase& database, const char* statement, QList<Row>* rows = nullptr);

/** Whether a transaction is open; SQLite ends one by itself after some failures. */
bool isInTransaction(const QSqlDatabase& database);

/**
 * What is wrong with the structure of the database: nothing, Damage with SQLite's @a messages about it, Statement
 * with the reason why it cannot be checked, or Environment.
 */
NSqliteErrorWatch::Reason checkStructure(const QSqlDatabase& database, QStringList& messages);

/** @a reason; but damage that a statement has met must be in the structure, or it is the environment's. */
NSqliteErrorWatch::Reason confirmed(const QSqlDatabase& database, NSqliteErrorWatch::Reason reason);

} // namespace NSqliteStatements

#endif
