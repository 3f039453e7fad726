#include <nbase/sqlite/nsqliteerrorwatch_p.h>

#include <nbase/nbaseqtcompat_p.h>

#include <QtCore/QStringList>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlDriver>
#include <QtSql/QSqlIndex>
#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>
#include <QtSql/QSqlResult>

namespace {

typedef NSqliteErrorWatch::Reason Reason;

// Beyond SQLite's codes, which begin with 0: the error is Qt's own, and no concern of the file's.
bool isOfQt(const QSqlError& error)
{
    return NBaseQtCompat::sqlErrorNumber(error) < 0;
}

class Notes
{
public:
    explicit Notes(const QSharedPointer<Reason>& reason)
        : m_reason(reason)
    {
    }

    void add(const QSqlError& error) const
    {
        if (error.isValid() && !isOfQt(error))
            *m_reason = qMax(*m_reason, NSqliteErrorWatch::reasonOf(error));
    }

private:
    QSharedPointer<Reason> m_reason;
};

// Hands everything on to a result of the original connection.
class WatchedResult : public QSqlResult
{
public:
    WatchedResult(const QSqlDriver* driver, QSqlResult* original, const Notes& notes)
        : QSqlResult(driver)
        , m_query(original)
        , m_notes(notes)
    {
    }

    QVariant handle() const override { return m_query.result()->handle(); }

protected:
    // Qt gives the statement with its placeholders named already, which is the original's to do.
    bool prepare(const QString&) override
    {
        const bool isPrepared = m_query.prepare(lastQuery());
        takeError();
        return isPrepared;
    }

    bool exec() override
    {
        for (int position = 0; position < boundValueCount(); ++position) {
            const QVariant value = boundValue(position);
            if (bindingSyntax() == NamedBinding)
                m_query.bindValue(boundValueName(position), value, bindValueType(position));
            else
                m_query.bindValue(position, value, bindValueType(position));
        }
        m_query.setNumericalPrecisionPolicy(numericalPrecisionPolicy());
        return executed(m_query.exec());
    }

    bool reset(const QString& statement) override
    {
        m_query.setNumericalPrecisionPolicy(numericalPrecisionPolicy());
        return executed(m_query.exec(statement));
    }

    // A finished query must not keep its table locked.
    void setActive(bool isActive) override
    {
        if (!isActive)
            m_query.finish();
        QSqlResult::setActive(isActive);
    }

    void setForwardOnly(bool isForwardOnly) override
    {
        m_query.setForwardOnly(isForwardOnly);
        QSqlResult::setForwardOnly(isForwardOnly);
    }

    bool fetch(int row) override { return moved(m_query.seek(row)); }
    bool fetchNext() override { return moved(m_query.next()); }
    bool fetchPrevious() override { return moved(m_query.previous()); }
    bool fetchFirst() override { return moved(m_query.first()); }
    bool fetchLast() override { return moved(m_query.last()); }
    QVariant data(int column) override { return m_query.value(column); }
    bool isNull(int column) override { return m_query.isNull(column); }
    QSqlRecord record() const override { return m_query.record(); }
    QVariant lastInsertId() const override { return m_query.lastInsertId(); }
    int size() override { return m_query.size(); }
    int numRowsAffected() override { return m_query.numRowsAffected(); }

private:
    bool executed(bool isDone)
    {
        takeError();
        setSelect(m_query.isSelect());
        setActive(m_query.isActive());
        setAt(QSql::BeforeFirstRow);
        return isDone;
    }

    bool moved(bool isDone)
    {
        takeError();
        setAt(m_query.at());
        return isDone;
    }

    void takeError()
    {
        setLastError(m_query.lastError());
        m_notes.add(m_query.lastError());
    }

    QSqlQuery m_query;
    Notes m_notes;
};

// Opening and closing remain with the original connection.
class WatchingDriver : public QSqlDriver
{
public:
    WatchingDriver(const QSqlDatabase& original, const Notes& notes)
        : m_original(original)
        , m_notes(notes)
    {
    }

    bool hasFeature(DriverFeature feature) const override { return m_original.driver()->hasFeature(feature); }
    bool open(const QString&, const QString&, const QString&, const QString&, int, const QString&) override
    {
        return isOpen();
    }
    void close() override {}
    bool isOpen() const override { return m_original.isOpen(); }
    QVariant handle() const override { return m_original.driver()->handle(); }
    QSqlResult* createResult() const override
    {
        return new WatchedResult(this, m_original.driver()->createResult(), m_notes);
    }

    bool beginTransaction() override { return done(m_original.transaction()); }
    bool commitTransaction() override { return done(m_original.commit()); }
    bool rollbackTransaction() override { return done(m_original.rollback()); }

    QStringList tables(QSql::TableType type) const override { return m_original.tables(type); }
    QSqlIndex primaryIndex(const QString& table) const override { return m_original.primaryIndex(table); }
    QSqlRecord record(const QString& table) const override { return m_original.record(table); }
    QString escapeIdentifier(const QString& name, IdentifierType type) const override
    {
        return m_original.driver()->escapeIdentifier(name, type);
    }

private:
    bool done(bool isDone)
    {
        const QSqlError error = isDone ? QSqlError() : m_original.lastError();
        setLastError(error);
        m_notes.add(error);
        return isDone;
    }

    QSqlDatabase m_original;
    Notes m_notes;
};

} // namespace

NSqliteErrorWatch::Reason NSqliteErrorWatch::reasonOf(const QSqlError& error)
{
    return error.isValid() ? reasonOf(NBaseQtCompat::sqlErrorNumber(error)) : NoReason;
}

NSqliteErrorWatch::Reason NSqliteErrorWatch::reasonOf(int resultCode)
{
    // The upper bits of an extended code only tell more of the same.
    switch (resultCode & 0xff) {
    case 4: // SQLITE_ABORT
    case 6: // SQLITE_LOCKED
        return Connection;
    case 11: // SQLITE_CORRUPT
    case 24: // SQLITE_FORMAT
    case 26: // SQLITE_NOTADB
        return Damage;
    case 1:  // SQLITE_ERROR
    case 12: // SQLITE_NOTFOUND
    case 17: // SQLITE_SCHEMA
    case 18: // SQLITE_TOOBIG
    case 19: // SQLITE_CONSTRAINT
    case 20: // SQLITE_MISMATCH
    case 21: // SQLITE_MISUSE
    case 25: // SQLITE_RANGE
        return Statement;
    default:
        return Environment;
    }
}

NSqliteErrorWatch::NSqliteErrorWatch(QString& connectionName)
    : m_connectionName(connectionName)
    , m_originalName(connectionName)
    , m_watchedName(connectionName + QString::fromLatin1(" (watched)"))
    , m_reason(new Reason(NoReason))
{
    const QSqlDatabase original = QSqlDatabase::database(m_originalName);
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): Qt deletes a connection's driver with it.
    QSqlDatabase watched = QSqlDatabase::addDatabase(new WatchingDriver(original, Notes(m_reason)), m_watchedName);
    watched.setDatabaseName(original.databaseName());
    m_connectionName = m_watchedName;
}

NSqliteErrorWatch::~NSqliteErrorWatch()
{
    QSqlDatabase::removeDatabase(m_watchedName);
    m_connectionName = m_originalName;
}
