#ifndef NBASE_NSQLITEERRORWATCH_P_H
#define NBASE_NSQLITEERRORWATCH_P_H

#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtSql/QSqlError>

/**
 * Sees which errors the statements of an application meet, of which it tells no more than whether it succeeded.
 *
 * Qt's driver keeps no record of errors, and its SQLite may be built into it, out of reach. So the statements go
 * through a connection of the watch's own, which hands them on to the manager's and notes what comes back. Both
 * are one connection to SQLite: transactions, settings and temporary tables are the same.
 */
class NSqliteErrorWatch
{
public:
    /** What an error says, in ascending order of what weighs more when there are several. */
    enum Reason {
        NoReason,
        Connection, ///< a statement that it has not finished, or a transaction that it has ended, is in the way
        Statement,  ///< SQLite refuses the statement
        Damage,     ///< the file is damaged
        Environment ///< the file cannot be read or written now
    };

    /** What an error with @a resultCode says (https://sqlite.org/rescode.html). */
    static Reason reasonOf(int resultCode);
    static Reason reasonOf(const QSqlError& error);

    /**
     * Watches from now on whoever works on the connection that is named @a connectionName at the time.
     * @param connectionName is changed to the name of the watched connection until the watch ends.
     */
    explicit NSqliteErrorWatch(QString& connectionName);
    ~NSqliteErrorWatch();

    /** The weightiest reason so far. */
    Reason reason() const { return *m_reason; }

private:
    Q_DISABLE_COPY(NSqliteErrorWatch)

    QString& m_connectionName;
    const QString m_originalName;
    const QString m_watchedName;
    const QSharedPointer<Reason> m_reason;
};

#endif
