#ifndef NBASE_NSQLITEFILE_P_H
#define NBASE_NSQLITEFILE_P_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtSql/QSqlError>

/**
 * The file of a database. SQLite's errors alone do not show whether a file is damaged or only unusable at present,
 * because a damaged header produces errors that a read-only file, for example, produces as well. So the file
 * system is asked too.
 */
class NSqliteFile
{
public:
    /** What an error of SQLite means for the file. */
    enum Fault {
        NoFault,
        Refused,   ///< SQLite refuses the statement; the file does not matter
        Damaged,   ///< the file is damaged, or is no database
        Obstructed ///< the file cannot be read or written at present
    };

    /** @param path the name that SQLite gets; it may be a symbolic link. */
    explicit NSqliteFile(const QString& path);

    /** The meaning of a result code (https://sqlite.org/rescode.html), as far as the code alone shows it. */
    static Fault faultOf(int resultCode);

    /** The meaning of @a error. SQLite also refuses to write a file because its header forbids that. */
    Fault faultOf(const QSqlError& error) const;

    /** The directory of the file itself, where SQLite keeps its journals. */
    QByteArray directory() const;

    /** The size in bytes; 0 when there is no file. */
    qint64 size() const;

    /** Whether the process is not permitted to write the file, or to make files beside it. */
    bool isReadOnly() const;

    /** Whether less than @a needed bytes can be written to the disk, or no file can be made. */
    bool isDiskFull(qint64 needed) const;

    /**
     * Whether another process has a lock on the file. To be called while the process itself has no connection to
     * it: any locks of its own are lost (fcntl(2), "record locks").
     */
    bool isLocked() const;

    /**
     * Renames the file and its journals: ".damaged" follows the file's name. Files that have these names are
     * replaced.
     */
    bool setAside() const;

private:
    QByteArray path() const;

    const QByteArray m_name;
};

#endif
