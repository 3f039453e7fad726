#include <nbase/sqlite/nabstractsqlitedbmanager.h>

#include <nsystem/ndirectorylock_p.h>
#include <nbase/sqlite/nabstractsqlitedbtable.h>
#include <nbase/sqlite/nsqliteerrorwatch_p.h>
#include <nbase/sqlite/nsqlitereferencerepair_p.h>
#include <nbase/sqlite/nsqlitestatements_p.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

using NSqliteStatements::checkStructure;
using NSqliteStatements::confirmed;
using NSqliteStatements::execute;
using NSqliteStatements::isInTransaction;
using NSqliteStatements::quoted;
using NSqliteStatements::Row;

// What a look at the database shows.
struct NAbstractSqliteDbManager::Finding
{
    enum Kind {
        Sound,
        NoTables,
        NoSchema, ///< it cannot be read: the file is damaged, or no database
        Damaged,
        Unreadable
    };

    Kind kind;
    int version;
    QStringList messages; ///< SQLite's, where there are any

    // A sound database is initialised for its version.
    bool isStillSo(const Finding& now) const { return kind == Sound ? version == now.version : kind == now.kind; }
};

namespace {

// An opening starts over when another process has changed what it was about to act upon. That process is done with
// it then, so more than a few times mean that something else is wrong.
const int MostAttempts = 10;

NSqliteErrorWatch::Reason reasonOf(const QSqlError& error)
{
    return NSqliteErrorWatch::reasonOf(error);
}

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray local(const QString& text)
{
    return text.toLocal8Bit();
}

// Virtual tables come first: dropping one drops the tables that it stores its rows in.
const char* const TablesStatement =
    "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
    "ESCAPE '\\' ORDER BY sql LIKE 'CREATE VIRTUAL TABLE %' DESC";
const char* const ViewsStatement = "SELECT name FROM sqlite_master WHERE type = 'view'";

// The file itself where its name is a symbolic link: SQLite keeps the journal beside it.
QByteArray resolved(const QString& path)
{
    // Qt's driver gives SQLite the name in UTF-8, whatever the locale is.
    const QByteArray name = path.toUtf8();
    char* const target = ::realpath(name.constData(), nullptr);
    const QByteArray result = target ? QByteArray(target) : name;
    free(target);
    return result;
}

// The directory of the file, as bytes.
QByteArray directoryOf(const QString& file)
{
    const QByteArray path = resolved(file);
    return path.contains('/') ? path.left(path.lastIndexOf('/') + 1) : QByteArray(".");
}

bool renameIfThere(const QByteArray& from, const QByteArray& to)
{
    return ::rename(from.constData(), to.constData()) == 0 || ::access(from.constData(), F_OK) != 0;
}

// What SQLite keeps beside a database file; without it, or with that of another file, a database is not what it
// was.
const char* const CompanionSuffixes[] = {"-journal", "-wal", "-shm"};

bool setAside(const QByteArray& path)
{
    const QByteArray copy = path + ".damaged";
    for (const char* suffix : CompanionSuffixes)
        ::unlink((copy + suffix).constData());
    if (!renameIfThere(path, copy))
        return false;
    // Should the power fail here, SQLite removes the journal of a file that is not there.
    bool done = true;
    for (const char* suffix : CompanionSuffixes)
        done = renameIfThere(path + suffix, copy + suffix) && done;
    return done;
}

} // namespace

// What became of statements whose refusal by the database does not matter.
NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::outcomeOf(int reason)
{
    switch (reason) {
    case NSqliteErrorWatch::Damage:
        return Failed;
    case NSqliteErrorWatch::Environment:
        return Unavailable;
    default:
        return Done;
    }
}

NAbstractSqliteDbManager::NAbstractSqliteDbManager() {}

NAbstractSqliteDbManager::~NAbstractSqliteDbManager()
{
    closeDatabase();
}

bool NAbstractSqliteDbManager::convertDatabaseFromOldVersion(int)
{
    return false;
}

void NAbstractSqliteDbManager::openDatabase()
{
    closeDatabase();
    QFileInfo(databaseFilePath()).dir().mkpath(text("."));
    // Shared by all who are opening. Who gives the file another name has it alone.
    NDirectoryLock lock(directoryOf(databaseFilePath()).constData(), NDirectoryLock::Shared);
    Outcome outcome = lock.isLocked() ? Changed : Unavailable;
    for (int attempt = 0; attempt < MostAttempts && outcome == Changed; ++attempt) {
        closeDatabase();
        outcome = openConnection() ? prepareDatabase(lock) : Unavailable;
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

bool NAbstractSqliteDbManager::checkDatabaseIntegrity(int& version)
{
    Finding found;
    if (!database().isOpen() || checkIntegrity(found) != Done)
        return false;
    version = found.version;
    return true;
}

void NAbstractSqliteDbManager::initializeDatabase()
{
    if (!database().isOpen())
        return;
    NDirectoryLock lock(directoryOf(database().databaseName()).constData(), NDirectoryLock::Shared);
    if (lock.isLocked())
        initialize(nullptr, lock);
}

bool NAbstractSqliteDbManager::openConnection()
{
    m_connectionName = connectionName();
    if (m_connectionName.isNull())
        return false;
    QSqlDatabase database = QSqlDatabase::addDatabase(text("QSQLITE"), m_connectionName);
    database.setDatabaseName(databaseFilePath());
    return database.open();
}

bool NAbstractSqliteDbManager::reopenConnection()
{
    QSqlDatabase database = this->database();
    database.close();
    return database.open();
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::prepareDatabase(NDirectoryLock& lock)
{
    execute(database(), "PRAGMA foreign_keys=ON");
    Finding found;
    const Outcome integrity = checkIntegrity(found);
    if (integrity == Unavailable)
        return Unavailable;
    if (integrity == Failed) {
        qWarning(
            "The integrity check of the database \"%s\" has failed. It will be initialized.",
            local(name()).constData());
        return initialize(&found, lock);
    }
    if (found.version == currentVersion())
        return Done;
    if (found.version > currentVersion()) {
        qWarning(
            "The version of the database \"%s\" (%d) is greater than the current version of the database (%d). It "
            "will be initialized.",
            local(name()).constData(), found.version, currentVersion());
        return initialize(&found, lock);
    }
    const Outcome conversion = convert(found.version);
    if (conversion == Done)
        qDebug(
            "The database \"%s\" has been converted from version %d to version %d", local(name()).constData(),
            found.version, currentVersion());
    if (conversion != Failed)
        return conversion;
    qWarning(
        "The database \"%s\" cannot be converted from version %d to version %d. It will be initialized.",
        local(name()).constData(), found.version, currentVersion());
    return initialize(&found, lock);
}

NAbstractSqliteDbManager::Finding NAbstractSqliteDbManager::examine() const
{
    const QSqlDatabase database = this->database();
    Finding found = {Finding::Unreadable, 0, QStringList()};
    QList<Row> tables;
    QList<Row> versions;
    const QSqlError schemaError = execute(database, TablesStatement, &tables);
    const QSqlError versionError = execute(database, "PRAGMA user_version", &versions);
    if (confirmed(database, qMax(reasonOf(schemaError), reasonOf(versionError))) == NSqliteErrorWatch::Environment)
        return found;
    found.version = versions.value(0).value(0).toInt();
    // A new file has no tables. The statement itself is right, so any other failure is the schema's.
    if (schemaError.isValid() || tables.isEmpty()) {
        found.kind = schemaError.isValid() ? Finding::NoSchema : Finding::NoTables;
        return found;
    }
    const NSqliteErrorWatch::Reason structure = checkStructure(database, found.messages);
    if (structure == NSqliteErrorWatch::NoReason)
        found.kind = Finding::Sound;
    else if (structure == NSqliteErrorWatch::Damage)
        found.kind = Finding::Damaged;
    return found;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::checkIntegrity(Finding& found)
{
    found = examine();
    if (found.kind == Finding::Unreadable) {
        for (const QString& message : found.messages)
            qWarning(
                "The integrity of the database \"%s\" cannot be checked: %s", local(name()).constData(),
                local(message).constData());
        return Unavailable;
    }
    if (found.kind == Finding::Damaged) {
        qWarning(
            "Integrity check on the database \"%s\" fails. The following error(s) have been returned:",
            local(name()).constData());
        for (const QString& message : found.messages)
            qWarning("%s", local(message).constData());
    }
    if (found.kind != Finding::Sound)
        return Failed;
    const Outcome repair = outcomeOf(NSqliteReferenceRepair(database(), name()).run());
    if (repair == Failed)
        found.kind = Finding::Damaged;
    return repair;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::convert(int oldVersion)
{
    const QSqlDatabase database = this->database();
    execute(database, "PRAGMA foreign_keys=OFF");
    Outcome outcome = Doubtful;
    // Damage is there on a second look as well. Then it would be there for ever.
    for (int look = 0; look < 2 && outcome == Doubtful; ++look) {
        outcome = convertInTransaction(oldVersion);
        // Also ends a transaction that the application has left open.
        if (outcome != Done)
            execute(database, "ROLLBACK");
    }
    execute(database, "PRAGMA foreign_keys=ON");
    return outcome == Doubtful ? Failed : outcome;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::convertInTransaction(int oldVersion)
{
    const QSqlDatabase database = this->database();
    QList<Row> versions;
    QSqlError error = execute(database, "BEGIN IMMEDIATE");
    if (!error.isValid())
        error = execute(database, "PRAGMA user_version", &versions);
    // Until the lock was there another process may have converted the database.
    if (!error.isValid() && versions.value(0).value(0).toInt() != oldVersion)
        return Changed;
    // Writing what is there already shows whether the file can be written, before anything is tried.
    if (!error.isValid())
        error = execute(database, text("PRAGMA user_version=%1").arg(oldVersion));
    if (!error.isValid()) {
        const NSqliteErrorWatch watch(m_connectionName);
        const bool isConverted = convertDatabaseFromOldVersion(oldVersion);
        // Without the transaction, the new version would be stored even if what belongs to it has been undone.
        if (!isConverted || !isInTransaction(database))
            return failedConversion(watch.reason());
        error = execute(database, text("PRAGMA user_version=%1").arg(currentVersion()));
    }
    if (!error.isValid())
        error = execute(database, "COMMIT");
    if (!error.isValid())
        return Done;
    return confirmed(database, reasonOf(error)) == NSqliteErrorWatch::Environment ? Unavailable : Failed;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::failedConversion(int reason) const
{
    if (reason != NSqliteErrorWatch::Damage)
        return reason == NSqliteErrorWatch::Environment ? Unavailable : Failed;
    // The damage may lie where no check of the file looks: in what a virtual table stores, or in an attached file.
    QStringList messages;
    switch (checkStructure(database(), messages)) {
    case NSqliteErrorWatch::NoReason:
        return Doubtful;
    case NSqliteErrorWatch::Damage:
        return Failed;
    default:
        return Unavailable;
    }
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::initialize(const Finding* reason, NDirectoryLock& lock)
{
    Outcome outcome = initializeInPlace(reason);
    // Closing the connection ends the statements that keep a table from being dropped.
    if (outcome == InUse)
        outcome = reopenConnection() ? initializeInPlace(reason) : Unavailable;
    return outcome == Failed ? replaceFile(reason, lock) : outcome;
}

// Who has the file open under its old name would take the journal of the new one for its own
// (https://sqlite.org/howtocorrupt.html). So nobody may be looking at it meanwhile.
NAbstractSqliteDbManager::Outcome
NAbstractSqliteDbManager::replaceFile(const Finding* reason, NDirectoryLock& lock)
{
    QSqlDatabase database = this->database();
    database.close();
    if (!lock.makeExclusive() || !database.open())
        return Unavailable;
    // Until the lock was there another process may have seen to it.
    if (reason && !reason->isStillSo(examine()))
        return Changed;
    database.close();
    const bool isSetAside = setAside(resolved(database.databaseName()));
    return database.open() && isSetAside ? initializeInPlace(nullptr) : Unavailable;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::initializeInPlace(const Finding* reason)
{
    const QSqlDatabase database = this->database();
    // What the caller has begun goes with the rest, and foreign keys cannot be switched inside a transaction.
    execute(database, "ROLLBACK");
    execute(database, "PRAGMA foreign_keys=OFF");
    Outcome outcome = outcomeOf(reasonOf(execute(database, "BEGIN IMMEDIATE")));
    // Until the lock was there another process may have seen to it.
    if (outcome != Unavailable && reason && !reason->isStillSo(examine()))
        outcome = Changed;
    if (outcome == Done)
        outcome = replaceSchema();
    // A table may have ended the transaction: COMMIT is a refused statement then.
    if (outcome == Done)
        outcome = outcomeOf(reasonOf(execute(database, "COMMIT")));
    if (outcome != Done)
        execute(database, "ROLLBACK");
    execute(database, "PRAGMA foreign_keys=ON");
    return outcome;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::replaceSchema()
{
    const QSqlDatabase database = this->database();
    const char* const kinds[][2] = {{TablesStatement, "TABLE"}, {ViewsStatement, "VIEW"}};
    for (const char* const* kind : kinds) {
        QList<Row> names;
        QSqlError error = execute(database, kind[0], &names);
        for (int index = 0; index < names.size() && !error.isValid(); ++index)
            error = execute(
                database,
                text("DROP ") + text(kind[1]) + text(" IF EXISTS ") + quoted(names.at(index).value(0).toString()));
        if (reasonOf(error) == NSqliteErrorWatch::Connection)
            return InUse;
        if (error.isValid())
            return reasonOf(error) == NSqliteErrorWatch::Environment ? Unavailable : Failed;
    }

    // What is left of a damaged file must bear the new tables.
    QStringList messages;
    const Outcome structure = outcomeOf(checkStructure(database, messages));
    if (structure != Done)
        return structure;
    return createSchema();
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::createSchema()
{
    const QSqlDatabase database = this->database();
    const QList<NAbstractSQLiteDbTable*> created = tables();
    // Statements that SQLite refuses are their table's affair.
    const NSqliteErrorWatch watch(m_connectionName);
    for (int index = 0; index < created.size() && outcomeOf(watch.reason()) == Done; ++index)
        created.at(index)->createTable();
    for (int index = 0; index < created.size() && outcomeOf(watch.reason()) == Done; ++index)
        created.at(index)->createTriggers();
    if (outcomeOf(watch.reason()) != Done)
        return outcomeOf(watch.reason());
    return outcomeOf(reasonOf(execute(database, text("PRAGMA user_version=%1").arg(currentVersion()))));
}
