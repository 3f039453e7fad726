#ifndef NBASE_NSQLITEREFERENCEREPAIR_P_H
#define NBASE_NSQLITEREFERENCEREPAIR_P_H

#include <nbase/sqlite/nsqliteerrorwatch_p.h>

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>

/**
 * Deletes the rows of a database whose foreign keys refer to nothing, and then those that referred to them, until
 * there are none, and warns of each.
 *
 * It works in portions, each of which is read and deleted in one transaction: so neither is a row deleted that
 * another process has put in meanwhile, nor do many rows take much memory. A portion that SQLite does not let pass
 * (a deferred foreign key refuses its COMMIT, or a trigger rolls it back) is tried again in halves. A row that is
 * protected on its own is deleted with foreign keys off, and if even that is refused, left alone.
 */
class NSqliteReferenceRepair
{
public:
    /** @param name the database's name in the warnings. */
    NSqliteReferenceRepair(const QSqlDatabase& database, const QString& name);

    /** @return NoReason; Environment or Damage when the repair had to stop. */
    NSqliteErrorWatch::Reason run();

private:
    Q_DISABLE_COPY(NSqliteReferenceRepair)

    struct ForeignKey
    {
        QString table;
        QStringList columns;
        QString referencedTable;
        QStringList referencedColumns;
        QString selection; ///< of the columns of the row with a given rowid
        QString deletion;  ///< of this row; both are empty when no condition can name a row of the table
        int leftCount;     ///< rows that cannot be named and have been warned of
    };
    struct Reference
    {
        int foreignKey; ///< index in m_foreignKeys
        bool isNamed;
        qlonglong rowid;
    };
    // What becomes of a portion once its transaction has passed.
    struct Result
    {
        QList<QPair<int, QString>> warnings; ///< foreign keys and values
        QList<Reference> left;
        QList<Reference> refused;
        bool isOpposed = false; ///< triggers have put back as many rows as have been deleted
    };
    typedef QPair<int, qlonglong> RowKey; ///< foreign key and rowid

    static bool isAnyNamed(const QList<Reference>& references);

    NSqliteErrorWatch::Reason repairPortion();
    QSqlError read(QList<Reference>& references);
    QSqlError deleteRows(const QList<Reference>& references, Result& result);
    NSqliteErrorWatch::Reason repairInTransaction();
    void giveIn(const QList<Reference>& portion);
    void accept(const QList<Reference>& portion, const Result& result);
    void leave(const Reference& reference);
    bool isToBeSkipped(const Reference& reference, QMap<int, int>& unnamedRows) const;

    int foreignKeyOf(const QString& table, int id, const QString& referencedTable);
    qlonglong countRows() const;
    void warn(int foreignKey, const QString& values) const;
    void warnOf(const QList<Reference>& references) const;
    QString valuesOf(const Reference& reference) const;

    static RowKey keyOf(const Reference& reference) { return RowKey(reference.foreignKey, reference.rowid); }

    const QSqlDatabase m_database;
    const QString m_name;
    QList<ForeignKey> m_foreignKeys;
    QMap<QPair<QString, int>, int> m_foreignKeyIndexes;
    QSet<RowKey> m_left;
    QSet<RowKey> m_protected; ///< refused with foreign keys on, to be tried with foreign keys off
    int m_portionSize;
    bool m_isDone;
};

#endif
