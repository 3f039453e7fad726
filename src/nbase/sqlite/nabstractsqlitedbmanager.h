#ifndef NBASE_NABSTRACTSQLITEDBMANAGER_H
#define NBASE_NABSTRACTSQLITEDBMANAGER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtSql/QSqlDatabase>

class NAbstractSQLiteDbTable;

/**
 * One SQLite database file of an application. An application derives a class from it that says where the file is,
 * which tables it has and which version of the schema it expects. Opening it gives a checked database of that
 * version, or leaves the manager closed.
 *
 * What cannot be repaired or converted is initialised: the database is usable afterwards, and its data is lost but
 * for the warning in the log and, where the file itself cannot be used, one copy whose name ends in ".damaged". A
 * file that is sound and only cannot be read or written at present (locked by another process, read-only, on a
 * full disk, behind an input or output error) is left as it is.
 *
 * Several processes may open the same database at once: each looks again under a lock before it changes what it
 * has found, so none undoes what another has done.
 *
 * The manager does not own its tables. It is used, as they are, in the thread that opened it; no copies of
 * database() may be left when it is closed.
 */
class NBASE_EXPORT NAbstractSqliteDbManager
{
public:
    NAbstractSqliteDbManager();

    /** Closes the database. */
    virtual ~NAbstractSqliteDbManager();

    /**
     * Converts the schema and the data from @a oldVersion to currentVersion() with statements on database(). It
     * runs inside a transaction that the manager begins and ends, with foreign keys not enforced; the stored
     * version changes with the commit. The base refuses every conversion.
     * @return whether the database has been converted. Otherwise the transaction is rolled back and the database
     * initialised, unless it cannot be read or written then: it is left as it was, and not opened. Where the
     * transaction has ended before, as SQLite does at an input or output error, the conversion is executed once
     * more first.
     */
    virtual bool convertDatabaseFromOldVersion(int oldVersion);

    /** The database's name in messages. */
    virtual QString name() const = 0;

    /** The name to register the connection with Qt under; nothing else in the process may use it. */
    virtual QString connectionName() const = 0;

    /** The path of the SQLite file. Its directory is made when it is missing. */
    virtual QString databaseFilePath() const = 0;

    /** The version of the schema, which SQLite stores as user_version (https://sqlite.org/pragma.html). */
    virtual int currentVersion() const = 0;

    /** The tables, in the order in which they are created. */
    virtual QList<NAbstractSQLiteDbTable*> tables() const = 0;

    /**
     * Opens the database file; one that is open already is closed first. The file is checked, rows whose foreign
     * keys refer to nothing are deleted, and a database of an older version is converted. What is missing, newer,
     * damaged or not convertible is initialised. Everything but a sound database of the current version leaves a
     * message in the log.
     *
     * On failure the manager is closed, database() is invalid, and a critical message is logged. Another process
     * that holds the file locked is waited for as long as Qt's driver is set to, 5 seconds by default; one that
     * sets a damaged file aside in the same directory, 30 seconds. A schema that needs functions or collations
     * which SQLite does not have cannot be checked, and is not opened.
     */
    void openDatabase();

    /** The open database; an invalid one while the manager is closed. */
    QSqlDatabase database() const;

    /** Closes the database, if it is open, and removes its connection from Qt. */
    void closeDatabase();

    /**
     * Checks the structure of the database and deletes rows whose foreign keys refer to nothing, in one
     * transaction with foreign keys enforced. Each is logged. A row that the database does not let go stays:
     * because other rows refer to it, because a trigger refuses, because its table has no rowid or has columns
     * with all names of the rowid. Where a deferred foreign key or a trigger undoes the transaction, all rows
     * stay. To be called outside a transaction.
     * @param version is set to the stored version when the structure is sound.
     * @return whether the database has tables and is sound; false as well when that cannot be found out.
     */
    bool checkDatabaseIntegrity(int& version);

    /**
     * Removes the tables from the database and makes the tables and then the triggers of tables() again, in one
     * transaction: a failure of the disk leaves everything as it was. A statement of a table that fails is logged
     * by the table, and the others are executed nevertheless. Views and temporary tables stay.
     *
     * A transaction of the caller is rolled back. Where one of the caller's queries keeps a table from being
     * dropped, the connection is opened again: queries end, and the connection's settings and temporary tables are
     * gone.
     */
    void initializeDatabase();

private:
    Q_DISABLE_COPY(NAbstractSqliteDbManager)

    QString m_connectionName;
};

#endif
