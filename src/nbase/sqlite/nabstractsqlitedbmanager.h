#ifndef NBASE_NABSTRACTSQLITEDBMANAGER_H
#define NBASE_NABSTRACTSQLITEDBMANAGER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtSql/QSqlDatabase>

class NAbstractSQLiteDbTable;
class NDirectoryLock;

/**
 * One SQLite database file of an application. An application derives a class from it that says where the file is,
 * which tables it has and which version of the schema it expects; opening then ends with a checked database of
 * that version, or with a closed manager.
 *
 * What cannot be repaired or converted is initialised: the database is usable afterwards, and all that was in it
 * is lost but for the warning in the log and, where the file itself was beyond use, one copy whose name ends in
 * ".damaged". A file that is healthy and just cannot be read or written now (locked by another process, read-only,
 * on a full disk, behind an input or output error) is left as it is.
 *
 * Several processes may open the same database at once: each looks again under SQLite's lock before it changes
 * what it has found, so none undoes what another has done.
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
     * version changes with the commit. The base refuses every conversion. Queries on database() must not outlive
     * the conversion: it is a connection that notes SQLite's errors meanwhile.
     * @return whether the database has been converted. Otherwise the transaction is rolled back and the database
     * initialised; where a statement met an error of the disk or another process's lock, it is left as it was and
     * not opened. Where one met damage that the file itself does not have, the conversion is executed a second
     * time first.
     */
    virtual bool convertDatabaseFromOldVersion(int oldVersion);

    /** The database's name in messages. */
    virtual QString name() const = 0;

    /** The name to register the connection with Qt under; nobody else in the process may use it. */
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
     * When it cannot be done the manager is closed, which database() tells, and a critical message is logged.
     * Another process that holds the file locked is waited for as long as Qt's driver is set to, 5 seconds
     * originally; one that sets a damaged file aside in the same directory, half a minute. A schema that needs
     * functions or collations which SQLite does not have cannot be checked, and is not opened.
     */
    void openDatabase();

    /** The open database; an invalid one while the manager is closed. */
    QSqlDatabase database() const;

    /** Closes the database, if it is open, and takes its connection from Qt. */
    void closeDatabase();

    /**
     * Checks the structure of the database and deletes rows whose foreign keys refer to nothing, repeatedly where
     * that leaves other rows without what they refer to. Each is logged. Where foreign keys have actions
     * for deleted rows, these are taken; a row of a table without rowid, or with columns that have taken all names
     * of it, or one that a trigger keeps, is logged and left alone. To be called outside a transaction.
     * @param version is set to the stored version when the structure is sound.
     * @return whether the database has tables and is sound; false as well when that cannot be found out.
     */
    bool checkDatabaseIntegrity(int& version);

    /**
     * Removes everything from the database and makes the tables and then the triggers of tables() anew, in one
     * transaction: a failure of the disk leaves everything as it was. A statement of a table that fails is logged
     * by the table, and the others are executed nevertheless.
     *
     * A transaction of the caller's is rolled back. Where one of his queries keeps a table from being dropped, the
     * connection is opened anew: his queries end, and the connection's settings and temporary tables are gone.
     */
    void initializeDatabase();

private:
    Q_DISABLE_COPY(NAbstractSqliteDbManager)

    struct Finding;

    enum Outcome {
        Done,
        Failed,      ///< the database itself is the reason: it is damaged, or refuses what was asked
        Unavailable, ///< it cannot be read or written now
        Doubtful,    ///< it has met damage that the file itself does not have
        Changed,     ///< another process has changed it since it was looked at
        InUse        ///< a statement of this connection's is still running
    };

    static Outcome outcomeOf(int reason);
    bool openConnection();
    bool reopenConnection();
    Outcome prepareDatabase(NDirectoryLock& lock);
    Finding examine() const;
    Outcome checkIntegrity(Finding& found);
    Outcome convert(int oldVersion);
    Outcome convertInTransaction(int oldVersion);
    Outcome failedConversion(int reason) const;
    Outcome initialize(const Finding* reason, NDirectoryLock& lock);
    Outcome initializeInPlace(const Finding* reason);
    Outcome replaceSchema();
    Outcome createSchema();
    Outcome replaceFile(const Finding* reason, NDirectoryLock& lock);

    QString m_connectionName;
};

#endif
