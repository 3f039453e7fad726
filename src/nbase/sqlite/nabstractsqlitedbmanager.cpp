#include <nbase/sqlite/nabstractsqlitedbmanager.h>

#include <nbase/sqlite/nabstractsqlitedbtable.h>
#include <nbase/sqlite/nsqlitefile_p.h>
#include <nbase/sqlite/nsqliteforeignkey_p.h>
#include <nbase/sqlite/nsqlitestatements_p.h>
#include <nsystem/ndirectorylock_p.h>
#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QRegExp>
#include <QtCore/QVector>

using NSqliteStatements::execute;
using NSqliteStatements::isInTransaction;
using NSqliteStatements::quoted;
using NSqliteStatements::Row;

namespace {

// An opening starts again when another process has changed the database in between. More than a few times mean
// that something else is wrong.
const int MostAttempts = 10;

// Less room than this on the disk is none: the largest page of SQLite.
const qint64 LeastRoom = Q_INT64_C(64) * 1024;

// A conversion needs as much room again as the database has, for new tables or for the journal. Databases of a few
// pages may grow in a conversion.
const qint64 LeastRoomForConversion = Q_INT64_C(1024) * 1024;

const char* const ForeignKeyCheck = "PRAGMA foreign_key_check;";

enum Outcome {
    Done,
    Failed,     ///< the database itself is the reason: it is damaged, or refuses what was asked
    Obstructed, ///< the file cannot be read or written at present
    Changed,    ///< another process has changed the database since it was examined
    Interrupted ///< the transaction of a conversion has been ended before the conversion returned
};

// What an examination of the database has found.
struct Finding
{
    enum Kind { Sound, NoTables, Damaged, Obstructed };

    Kind kind;
    int version;
    QStringList messages; ///< SQLite's, if there are any
};

// The rows in which a foreign key refers to nothing. There may be hundreds of thousands.
struct BrokenReferences
{
    NSqliteForeignKey key;
    QVector<qlonglong> rowids;
};

QByteArray local(const QString& text)
{
    return text.toLocal8Bit();
}

bool openConnection(const QString& name, const QString& path)
{
    QSqlDatabase database = QSqlDatabase::addDatabase(latin1("QSQLITE"), name);
    database.setDatabaseName(path);
    return database.open();
}

// The integrity check continues at a page that cannot be read and reports it like damage: most pages with the
// result code, overflow pages and free pages without.
bool hasReadErrors(const QStringList& messages)
{
    const QString all = messages.join(latin1("\n"));
    QRegExp code(latin1("error code=(\\d+)"));
    for (int at = code.indexIn(all); at >= 0; at = code.indexIn(all, at + code.matchedLength())) {
        if (NSqliteFile::faultOf(code.cap(1).toInt()) == NSqliteFile::Obstructed)
            return true;
    }
    return all.contains(latin1("failed to get page"));
}

// The steps of an opening after the connection has been made, in their order. Each decision to delete something is
// made again under a lock before it is carried out, because another process may have been faster.
class Preparation
{
public:
    explicit Preparation(NAbstractSqliteDbManager& manager);

    Outcome run(NDirectoryLock& lock);
    Outcome checkIntegrity(Finding& finding);
    Outcome initialize(const Finding* reason, NDirectoryLock& lock);

private:
    Finding examine() const;
    Finding examineOnce() const;
    Finding checkStructure() const;
    bool isStillSo(const Finding& finding) const;
    Outcome outcomeOf(const QSqlError& error) const;
    Outcome confirmedOutcomeOf(const QSqlError& error) const;

    Outcome deleteBrokenReferences();
    QSqlError deleteBrokenReferencesInTransaction() const;
    QSqlError readBrokenReferences(QList<BrokenReferences>& references) const;
    QSqlError deleteRow(NSqliteForeignKey& key, qlonglong rowid) const;
    bool endsTransaction(const QSqlError& error) const;

    Outcome convert(Finding& finding);
    Outcome convertInTransaction(int oldVersion);
    Outcome outcomeOfFailedConversion(Finding& finding) const;

    Outcome initializeInPlace(const Finding* reason);
    Outcome dropTables() const;
    Outcome createTables() const;
    bool isCreationObstructed() const;
    Outcome replaceFile(const Finding* reason, NDirectoryLock& lock);

    NAbstractSqliteDbManager& m_manager;
    QSqlDatabase m_database;
    const NSqliteFile m_file;
};

} // namespace

// Open

NAbstractSqliteDbManager::NAbstractSqliteDbManager() {}

NAbstractSqliteDbManager::~NAbstractSqliteDbManager()
{
    closeDatabase();
}

void NAbstractSqliteDbManager::openDatabase()
{
    closeDatabase();
    QFileInfo(databaseFilePath()).dir().mkpath(latin1("."));
    // Openings share the lock; one that gives the file another name needs it alone.
    NDirectoryLock lock(NSqliteFile(databaseFilePath()).directory().constData(), NDirectoryLock::Shared);
    Outcome outcome = lock.isLocked() ? Changed : Obstructed;
    for (int attempt = 0; attempt < MostAttempts && outcome == Changed; ++attempt) {
        closeDatabase();
        m_connectionName = connectionName();
        if (m_connectionName.isNull())
            break;
        const bool isOpen = openConnection(m_connectionName, databaseFilePath());
        outcome = isOpen ? Preparation(*this).run(lock) : Obstructed;
    }
    if (outcome == Done)
        return;
    closeDatabase();
    qCritical("Cannot open the database \"%s\"", local(name()).constData());
}

QSqlDatabase NAbstractSqliteDbManager::database() const
{
    if (m_connectionName.isNull())
        return QSqlDatabase();
    return QSqlDatabase::database(m_connectionName, true);
}

void NAbstractSqliteDbManager::closeDatabase()
{
    if (m_connectionName.isNull())
        return;
    QSqlDatabase::removeDatabase(m_connectionName);
    m_connectionName = QString();
}

Preparation::Preparation(NAbstractSqliteDbManager& manager)
    : m_manager(manager)
    , m_database(manager.database())
    , m_file(m_database.databaseName())
{
}

Outcome Preparation::run(NDirectoryLock& lock)
{
    execute(m_database, "PRAGMA foreign_keys=ON");

    Finding finding;
    const Outcome integrity = checkIntegrity(finding);
    if (integrity == Obstructed)
        return Obstructed;
    if (integrity == Failed) {
        qWarning(
            "The integrity check of the database \"%s\" has failed. It will be initialized.",
            local(m_manager.name()).constData());
        return initialize(&finding, lock);
    }

    const int currentVersion = m_manager.currentVersion();
    if (finding.version == currentVersion)
        return Done;
    if (finding.version > currentVersion) {
        qWarning(
            "The version of the database \"%s\" (%d) is greater than the current version of the database (%d). It "
            "will be initialized.",
            local(m_manager.name()).constData(), finding.version, currentVersion);
        return initialize(&finding, lock);
    }

    const int oldVersion = finding.version;
    const Outcome conversion = convert(finding);
    if (conversion == Done)
        qDebug(
            "The database \"%s\" has been converted from version %d to version %d",
            local(m_manager.name()).constData(), oldVersion, currentVersion);
    if (conversion != Failed)
        return conversion;
    qWarning(
        "The database \"%s\" cannot be converted from version %d to version %d. It will be initialized.",
        local(m_manager.name()).constData(), oldVersion, currentVersion);
    return initialize(&finding, lock);
}

// Integrity

bool NAbstractSqliteDbManager::checkDatabaseIntegrity(int& version)
{
    Finding finding;
    if (!database().isOpen() || Preparation(*this).checkIntegrity(finding) != Done)
        return false;
    version = finding.version;
    return true;
}

Outcome Preparation::checkIntegrity(Finding& finding)
{
    finding = examine();
    if (finding.kind == Finding::Obstructed) {
        for (const QString& message : finding.messages)
            qWarning(
                "The integrity of the database \"%s\" cannot be checked: %s", local(m_manager.name()).constData(),
                local(message).constData());
        return Obstructed;
    }
    if (finding.kind == Finding::Damaged && !finding.messages.isEmpty()) {
        qWarning(
            "Integrity check on the database \"%s\" fails. The following error(s) have been returned:",
            local(m_manager.name()).constData());
        for (const QString& message : finding.messages)
            qWarning("%s", local(message).constData());
    }
    if (finding.kind != Finding::Sound)
        return Failed;

    const Outcome repair = deleteBrokenReferences();
    if (repair == Failed)
        finding.kind = Finding::Damaged;
    if (repair != Done)
        return repair;

    QList<Row> versions;
    const QSqlError error = execute(m_database, "PRAGMA user_version", &versions);
    finding.version = versions.value(0).value(0).toInt();
    return m_file.faultOf(error) == NSqliteFile::Obstructed ? Obstructed : Done;
}

// SQLite takes some read errors for damage. Damage is found a second time.
Finding Preparation::examine() const
{
    const Finding finding = examineOnce();
    return finding.kind == Finding::Damaged ? examineOnce() : finding;
}

Finding Preparation::examineOnce() const
{
    // What QSqlDatabase::tables(QSql::Tables) asks, which does not report a failure.
    const char* const TablesStatement = "SELECT name FROM sqlite_master WHERE type = 'table' "
                                        "UNION ALL SELECT name FROM sqlite_temp_master WHERE type = 'table'";
    QList<Row> tables;
    const QSqlError error = execute(m_database, TablesStatement, &tables);
    if (!error.isValid() && !tables.isEmpty())
        return checkStructure();
    // The statement itself is right, so one that is refused shows that the schema cannot be read.
    Finding finding = {error.isValid() ? Finding::Damaged : Finding::NoTables, 0, QStringList()};
    if (m_file.faultOf(error) == NSqliteFile::Obstructed)
        finding.kind = Finding::Obstructed;
    return finding;
}

Finding Preparation::checkStructure() const
{
    Finding finding = {Finding::Sound, 0, QStringList()};
    QList<Row> rows;
    const QSqlError error = execute(m_database, "PRAGMA integrity_check;", &rows);
    const NSqliteFile::Fault fault = m_file.faultOf(error);
    for (const Row& row : rows)
        finding.messages.append(row.value(0).toString());
    if (fault == NSqliteFile::Obstructed || hasReadErrors(finding.messages)) {
        finding.kind = Finding::Obstructed;
        finding.messages.clear();
    } else if (fault == NSqliteFile::Refused) {
        // The schema needs a function or a collation that is not registered.
        finding.kind = Finding::Obstructed;
        finding.messages = QStringList(error.text());
    } else if (fault == NSqliteFile::Damaged || finding.messages != QStringList(latin1("ok"))) {
        finding.kind = Finding::Damaged;
    }
    return finding;
}

// Whether what @a finding rests on is still there, when it is looked at again under a lock.
bool Preparation::isStillSo(const Finding& finding) const
{
    if (finding.kind != Finding::Sound)
        return examineOnce().kind == finding.kind;
    // Then it is the version that counts.
    QList<Row> versions;
    execute(m_database, "PRAGMA user_version", &versions);
    return versions.value(0).value(0).toInt() == finding.version;
}

Outcome Preparation::outcomeOf(const QSqlError& error) const
{
    switch (m_file.faultOf(error)) {
    case NSqliteFile::NoFault:
        return Done;
    case NSqliteFile::Obstructed:
        return Obstructed;
    default:
        return Failed;
    }
}

// The same; but damage that the integrity check does not find is a read error.
Outcome Preparation::confirmedOutcomeOf(const QSqlError& error) const
{
    if (m_file.faultOf(error) == NSqliteFile::Damaged && examine().kind != Finding::Damaged)
        return Obstructed;
    return outcomeOf(error);
}

// Repair

// One transaction, with foreign keys enforced. A row that the database does not let go stays, and so do rows that
// refer to it.
Outcome Preparation::deleteBrokenReferences()
{
    QSqlQuery check(m_database);
    check.setForwardOnly(true);
    check.exec(latin1(ForeignKeyCheck));
    const bool isSound = !check.next();
    QSqlError error = check.lastError();
    check.finish();
    // Nothing is locked or written then. A foreign key that is declared wrongly cannot be checked.
    if (isSound)
        return m_file.faultOf(error) == NSqliteFile::Refused ? Done : confirmedOutcomeOf(error);

    error = execute(m_database, "BEGIN IMMEDIATE");
    if (!error.isValid())
        error = deleteBrokenReferencesInTransaction();
    if (!error.isValid())
        error = execute(m_database, "COMMIT");
    if (!error.isValid())
        return Done;
    execute(m_database, "ROLLBACK");
    // A trigger has ended the transaction, or a deferred foreign key forbids it: all rows stay.
    return m_file.faultOf(error) == NSqliteFile::Refused ? Done : confirmedOutcomeOf(error);
}

// Returns the error that ends the transaction, if there is one.
QSqlError Preparation::deleteBrokenReferencesInTransaction() const
{
    QList<BrokenReferences> references;
    QSqlError error = readBrokenReferences(references);
    if (endsTransaction(error))
        return error;
    for (BrokenReferences& broken : references) {
        for (qlonglong rowid : broken.rowids) {
            error = deleteRow(broken.key, rowid);
            if (endsTransaction(error))
                return error;
        }
    }
    return QSqlError();
}

// The check is read to its end before a row is deleted: whether a statement that is still running sees the changes
// of another one is undefined (https://sqlite.org/isolation.html).
QSqlError Preparation::readBrokenReferences(QList<BrokenReferences>& references) const
{
    QSqlQuery check(m_database);
    check.setForwardOnly(true);
    check.exec(latin1(ForeignKeyCheck));
    while (check.next()) {
        const QString table = check.value(0).toString();
        const int id = check.value(3).toInt();
        if (references.isEmpty() || !references.last().key.is(table, id)) {
            // The rows of a table WITHOUT ROWID have none.
            const NSqliteForeignKey key(
                m_database, table, id, check.value(2).toString(), !check.value(1).isNull());
            const BrokenReferences broken = {key, QVector<qlonglong>()};
            references.append(broken);
        }
        references.last().rowids.append(check.value(1).toLongLong());
    }
    return check.lastError();
}

QSqlError Preparation::deleteRow(NSqliteForeignKey& key, qlonglong rowid) const
{
    QString values;
    const QSqlError error = key.readValues(rowid, values);
    qWarning(
        "Foreign key constraint error in database \"%s\" on %s(%s) referencing %s(%s) with value(%s). The "
        "reference will be deleted.",
        local(m_manager.name()).constData(), local(key.table()).constData(), local(key.columns()).constData(),
        local(key.referencedTable()).constData(), local(key.referencedColumns()).constData(),
        local(values).constData());
    return endsTransaction(error) ? error : key.deleteRow(rowid);
}

// Whether @a error ends the transaction of the repair; one that only refuses a statement does not.
bool Preparation::endsTransaction(const QSqlError& error) const
{
    const NSqliteFile::Fault fault = m_file.faultOf(error);
    if (fault == NSqliteFile::Refused)
        return !isInTransaction(m_database);
    return fault != NSqliteFile::NoFault;
}

// Conversion

bool NAbstractSqliteDbManager::convertDatabaseFromOldVersion(int)
{
    return false;
}

Outcome Preparation::convert(Finding& finding)
{
    execute(m_database, "PRAGMA foreign_keys=OFF");
    Outcome outcome = convertInTransaction(finding.version);
    // SQLite itself ends the transaction at an input or output error, which may be over by now.
    if (outcome == Interrupted)
        outcome = convertInTransaction(finding.version);
    const bool isDiskFull =
        outcome == Interrupted && m_file.isDiskFull(qMax(m_file.size(), LeastRoomForConversion));
    // Also ends a transaction that the application has begun.
    if (outcome != Done)
        execute(m_database, "ROLLBACK");
    if (outcome == Failed || outcome == Interrupted)
        outcome = isDiskFull ? Obstructed : outcomeOfFailedConversion(finding);
    execute(m_database, "PRAGMA foreign_keys=ON");
    return outcome;
}

Outcome Preparation::convertInTransaction(int oldVersion)
{
    QList<Row> versions;
    QSqlError error = execute(m_database, "BEGIN IMMEDIATE");
    if (!error.isValid())
        error = execute(m_database, "PRAGMA user_version", &versions);
    if (!error.isValid() && versions.value(0).value(0).toInt() != oldVersion)
        return Changed;
    // Writing what is there already shows whether the file can be written, before the application tries.
    if (!error.isValid())
        error = execute(m_database, latin1("PRAGMA user_version=%1").arg(oldVersion));
    if (error.isValid())
        return confirmedOutcomeOf(error);

    const bool isConverted = m_manager.convertDatabaseFromOldVersion(oldVersion);
    // Without the transaction, the new version would be stored even if the conversion has been undone.
    if (!isInTransaction(m_database))
        return Interrupted;
    // What the conversion has written is still on the disk.
    if (!isConverted)
        return m_file.isDiskFull(LeastRoom) ? Obstructed : Failed;
    error = execute(m_database, latin1("PRAGMA user_version=%1").arg(m_manager.currentVersion()));
    if (!error.isValid())
        error = execute(m_database, "COMMIT");
    return confirmedOutcomeOf(error);
}

// A conversion reports only that it has failed. Whether an obstruction was the reason is found out by reading and
// writing the database.
Outcome Preparation::outcomeOfFailedConversion(Finding& finding) const
{
    const Finding now = examine();
    if (now.kind == Finding::Obstructed)
        return Obstructed;
    if (now.kind == Finding::Damaged) {
        finding.kind = Finding::Damaged;
        return Failed;
    }
    QSqlError error = execute(m_database, "BEGIN IMMEDIATE");
    if (!error.isValid())
        error = execute(m_database, latin1("PRAGMA user_version=%1").arg(finding.version));
    execute(m_database, "ROLLBACK");
    return m_file.faultOf(error) == NSqliteFile::Obstructed ? Obstructed : Failed;
}

// Initialisation

void NAbstractSqliteDbManager::initializeDatabase()
{
    if (!database().isOpen())
        return;
    NDirectoryLock lock(NSqliteFile(database().databaseName()).directory().constData(), NDirectoryLock::Shared);
    if (lock.isLocked())
        Preparation(*this).initialize(nullptr, lock);
}

// Without a @a reason, the application has asked for it.
Outcome Preparation::initialize(const Finding* reason, NDirectoryLock& lock)
{
    const bool isDamaged = reason && reason->kind == Finding::Damaged;
    Outcome outcome = initializeInPlace(reason);
    // Closing the connection ends statements of the application that keep a table from being dropped.
    if (outcome == Failed && !isDamaged) {
        m_database.close();
        outcome = m_database.open() ? initializeInPlace(reason) : Obstructed;
    }
    // A damaged file makes SQLite report obstructions that do not exist.
    if (outcome == Failed || (outcome == Obstructed && isDamaged))
        outcome = replaceFile(reason, lock);
    return outcome;
}

Outcome Preparation::initializeInPlace(const Finding* reason)
{
    // Ends a transaction of the caller's, in which foreign keys could not be switched off.
    execute(m_database, "ROLLBACK");
    execute(m_database, "PRAGMA foreign_keys=OFF");
    Outcome outcome = outcomeOf(execute(m_database, "BEGIN IMMEDIATE"));
    if (outcome == Done && reason && !isStillSo(*reason))
        outcome = Changed;
    if (outcome == Done)
        outcome = dropTables();
    // What is left of a damaged file must bear the new tables.
    if (outcome == Done && reason && reason->kind == Finding::Damaged && checkStructure().kind != Finding::Sound)
        outcome = Failed;
    if (outcome == Done)
        outcome = createTables();
    if (outcome != Done)
        execute(m_database, "ROLLBACK");
    execute(m_database, "PRAGMA foreign_keys=ON");
    return outcome;
}

Outcome Preparation::dropTables() const
{
    // Virtual tables come first: they cannot be dropped without the tables that they keep their rows in.
    const char* const TablesStatement =
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
        "ESCAPE '\\' ORDER BY sql LIKE 'CREATE VIRTUAL TABLE %' DESC";
    QList<Row> tables;
    QSqlError error = execute(m_database, TablesStatement, &tables);
    for (int index = 0; index < tables.size() && !error.isValid(); ++index)
        error = execute(
            m_database, latin1("DROP TABLE IF EXISTS main.") + quoted(tables.at(index).value(0).toString()));
    return outcomeOf(error);
}

Outcome Preparation::createTables() const
{
    const QList<NAbstractSQLiteDbTable*> tables = m_manager.tables();
    for (NAbstractSQLiteDbTable* table : tables) {
        if (!table->createTable() && isCreationObstructed())
            return Obstructed;
    }
    for (NAbstractSQLiteDbTable* table : tables) {
        if (!table->createTriggers() && isCreationObstructed())
            return Obstructed;
    }
    const QSqlError error = execute(m_database, latin1("PRAGMA user_version=%1").arg(m_manager.currentVersion()));
    if (error.isValid())
        return outcomeOf(error);
    // It is refused where a table has ended the transaction itself.
    const QSqlError end = execute(m_database, "COMMIT");
    return m_file.faultOf(end) == NSqliteFile::Refused ? Done : outcomeOf(end);
}

// A statement that SQLite refuses does not stop the others. At an input or output error, SQLite ends the
// transaction, and all is as it was.
bool Preparation::isCreationObstructed() const
{
    return !isInTransaction(m_database) || m_file.isDiskFull(LeastRoom);
}

// A process that has the file open under its old name would take the journal of the new one for its own
// (https://sqlite.org/howtocorrupt.html). So the file is replaced only under the exclusive lock.
Outcome Preparation::replaceFile(const Finding* reason, NDirectoryLock& lock)
{
    m_database.close();
    if (!lock.makeExclusive() || !m_database.open())
        return Obstructed;
    // First of all: a process that has replaced the file meanwhile may be writing to the new one.
    if (reason && !isStillSo(*reason))
        return Changed;
    m_database.close();
    if (m_file.isReadOnly() || m_file.isDiskFull(LeastRoom) || m_file.isLocked())
        return Obstructed;
    const bool isSetAside = m_file.setAside();
    return m_database.open() && isSetAside ? initializeInPlace(nullptr) : Obstructed;
}
