#include <nbase/sqlite/nabstractsqlitedbmanager.h>

#include <nbase/sqlite/nabstractsqlitedbtable.h>
#include <nbase/sqlite/nsqliteerrorwatch_p.h>
#include <nbase/sqlite/nsqlitereferencerepair_p.h>
#include <nbase/sqlite/nsqlitestatements_p.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>

#include <stdio.h>
#include <unistd.h>

using NSqliteStatements::checkStructure;
using NSqliteStatements::confirmed;
using NSqliteStatements::execute;
using NSqliteStatements::isInTransaction;
using NSqliteStatements::quoted;
using NSqliteStatements::Row;

namespace {

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

QByteArray filePath(const QSqlDatabase& database)
{
    // Qt's driver gives SQLite the name in UTF-8, whatever the locale is.
    return database.databaseName().toUtf8();
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
    if (openConnection() && prepareDatabase())
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
    return database().isOpen() && checkIntegrity(version) == Done;
}

void NAbstractSqliteDbManager::initializeDatabase()
{
    if (database().isOpen())
        initialize();
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

bool NAbstractSqliteDbManager::prepareDatabase()
{
    execute(database(), "PRAGMA foreign_keys=ON");
    int version = 0;
    const Outcome integrity = checkIntegrity(version);
    if (integrity == Unavailable)
        return false;
    if (integrity == Failed) {
        qWarning(
            "The integrity check of the database \"%s\" has failed. It will be initialized.",
            local(name()).constData());
        return initialize() == Done;
    }
    if (version == currentVersion())
        return true;
    if (version > currentVersion()) {
        qWarning(
            "The version of the database \"%s\" (%d) is greater than the current version of the database (%d). It "
            "will be initialized.",
            local(name()).constData(), version, currentVersion());
        return initialize() == Done;
    }
    const Outcome conversion = convert(version);
    if (conversion == Unavailable)
        return false;
    if (conversion == Done) {
        qDebug(
            "The database \"%s\" has been converted from version %d to version %d", local(name()).constData(),
            version, currentVersion());
        return true;
    }
    qWarning(
        "The database \"%s\" cannot be converted from version %d to version %d. It will be initialized.",
        local(name()).constData(), version, currentVersion());
    return initialize() == Done;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::checkIntegrity(int& version)
{
    const QSqlDatabase database = this->database();
    QList<Row> tables;
    const QSqlError schemaError = execute(database, TablesStatement, &tables);
    if (confirmed(database, reasonOf(schemaError)) == NSqliteErrorWatch::Environment)
        return Unavailable;
    // A new file has no tables. The statement itself is right, so any other failure is the schema's.
    if (schemaError.isValid() || tables.isEmpty())
        return Failed;

    QStringList messages;
    const Outcome structure = outcomeOf(checkStructure(database, messages));
    if (structure == Unavailable)
        return Unavailable;
    if (structure == Failed) {
        qWarning(
            "Integrity check on the database \"%s\" fails. The following error(s) have been returned:",
            local(name()).constData());
        for (const QString& message : messages)
            qWarning("%s", local(message).constData());
        return Failed;
    }

    const Outcome repair = outcomeOf(NSqliteReferenceRepair(database, name()).run());
    if (repair != Done)
        return repair;

    QList<Row> versions;
    const QSqlError versionError = execute(database, "PRAGMA user_version", &versions);
    if (confirmed(database, reasonOf(versionError)) == NSqliteErrorWatch::Environment)
        return Unavailable;
    version = versions.value(0).value(0).toInt();
    return Done;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::convert(int oldVersion)
{
    const QSqlDatabase database = this->database();
    execute(database, "PRAGMA foreign_keys=OFF");
    const Outcome outcome = convertInTransaction(oldVersion);
    // Also ends a transaction that the application has left open.
    if (outcome != Done)
        execute(database, "ROLLBACK");
    execute(database, "PRAGMA foreign_keys=ON");
    return outcome;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::convertInTransaction(int oldVersion)
{
    const QSqlDatabase database = this->database();
    // Taking the lock and writing what is there already shows whether the file can be written, before anything is
    // tried.
    QSqlError error = execute(database, "BEGIN IMMEDIATE");
    if (!error.isValid())
        error = execute(database, text("PRAGMA user_version=%1").arg(oldVersion));
    if (!error.isValid()) {
        const NSqliteErrorWatch watch(m_connectionName);
        const bool isConverted = convertDatabaseFromOldVersion(oldVersion);
        // Without the transaction, the new version would be stored even if what belongs to it has been undone.
        if (!isConverted || !isInTransaction(database))
            return confirmed(database, watch.reason()) == NSqliteErrorWatch::Environment ? Unavailable : Failed;
        error = execute(database, text("PRAGMA user_version=%1").arg(currentVersion()));
    }
    if (!error.isValid())
        error = execute(database, "COMMIT");
    if (!error.isValid())
        return Done;
    return confirmed(database, reasonOf(error)) == NSqliteErrorWatch::Environment ? Unavailable : Failed;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::initialize()
{
    const Outcome outcome = initializeInPlace();
    return outcome == Failed ? replaceDamagedFile() : outcome;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::replaceDamagedFile()
{
    {
        QSqlDatabase database = this->database();
        const QByteArray path = filePath(database);
        database.close();
        const bool isSetAside = setAside(path);
        if (!database.open() || !isSetAside)
            return Unavailable;
    }
    return initializeInPlace();
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::initializeInPlace()
{
    const QSqlDatabase database = this->database();
    execute(database, "PRAGMA foreign_keys=OFF");
    // The caller may have begun a transaction of his own, and a table may end it: both are refused statements.
    Outcome outcome = outcomeOf(reasonOf(execute(database, "BEGIN IMMEDIATE")));
    if (outcome == Done)
        outcome = replaceSchema();
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
