#include <nbase/sqlite/nabstractsqlitedbmanager.h>

#include <nbase/sqlite/nabstractsqlitedbtable.h>
#include <nbase/sqlite/nsqliteerrorwatch_p.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QMap>
#include <QtCore/QRegExp>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

#include <stdio.h>
#include <unistd.h>

namespace {

typedef QList<QVariant> Row;

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

// A name as it stands in a statement, whatever characters it has.
QString quoted(const QString& name)
{
    return QLatin1Char('"') + QString(name).replace(QLatin1Char('"'), text("\"\"")) + QLatin1Char('"');
}

QStringList quoted(const QStringList& names)
{
    QStringList result;
    for (const QString& name : names)
        result.append(quoted(name));
    return result;
}

// Reads all rows before anything else happens, so that nothing is changed under a statement that is still running.
QSqlError execute(const QSqlDatabase& database, const QString& statement, QList<Row>* rows = NULL)
{
    QSqlQuery query(database);
    query.setForwardOnly(true);
    if (!query.exec(statement))
        return query.lastError().isValid() ? query.lastError() : database.lastError();
    const int columns = rows ? query.record().count() : 0;
    while (rows && query.next()) {
        Row row;
        for (int column = 0; column < columns; ++column)
            row.append(query.value(column));
        rows->append(row);
    }
    return query.lastError();
}

QSqlError execute(const QSqlDatabase& database, const char* statement, QList<Row>* rows = NULL)
{
    return execute(database, text(statement), rows);
}

// Virtual tables come first: dropping one drops the tables that it stores its rows in.
const char* const TablesStatement =
    "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
    "ESCAPE '\\' ORDER BY sql LIKE 'CREATE VIRTUAL TABLE %' DESC";
const char* const ViewsStatement = "SELECT name FROM sqlite_master WHERE type = 'view'";

// The integrity check goes on when it cannot read a page, and tells so as if it were a fault of the database's:
// with the result code for most kinds of pages, without for overflow and free pages.
bool tellsOfReadErrors(const QStringList& messages)
{
    const QString all = messages.join(text("\n"));
    QRegExp code(text("error code=(\\d+)"));
    for (int at = code.indexIn(all); at >= 0; at = code.indexIn(all, at + code.matchedLength())) {
        if (NSqliteErrorWatch::reasonOf(code.cap(1).toInt()) == NSqliteErrorWatch::Environment)
            return true;
    }
    return all.contains(text("failed to get page"));
}

NSqliteErrorWatch::Reason lookAtStructure(const QSqlDatabase& database, QStringList& messages)
{
    QList<Row> rows;
    const QSqlError error = execute(database, "PRAGMA integrity_check;", &rows);
    messages.clear();
    for (const Row& row : rows)
        messages.append(row.value(0).toString());
    if (!error.isValid() && messages.value(0) == text("ok"))
        return NSqliteErrorWatch::NoReason;
    // What cannot be read is not known to be damaged.
    if (reasonOf(error) == NSqliteErrorWatch::Environment || tellsOfReadErrors(messages))
        return NSqliteErrorWatch::Environment;
    return NSqliteErrorWatch::Damage;
}

// What is wrong with the structure of the database, and SQLite's @a messages about it. In places SQLite takes what
// it cannot read for damaged; damage is there on a second look as well.
NSqliteErrorWatch::Reason checkStructure(const QSqlDatabase& database, QStringList& messages)
{
    const NSqliteErrorWatch::Reason reason = lookAtStructure(database, messages);
    return reason == NSqliteErrorWatch::Damage ? lookAtStructure(database, messages) : reason;
}

// The same goes for the statements that follow the check: the damage that they meet must be there.
NSqliteErrorWatch::Reason confirmed(const QSqlDatabase& database, NSqliteErrorWatch::Reason reason)
{
    if (reason != NSqliteErrorWatch::Damage)
        return reason;
    QStringList messages;
    return checkStructure(database, messages) == NSqliteErrorWatch::Damage ? NSqliteErrorWatch::Damage
                                                                           : NSqliteErrorWatch::Environment;
}

// BEGIN is refused inside a transaction. SQLite ends one by itself after some failures of the disk
// (https://sqlite.org/lang_transaction.html).
bool isInTransaction(const QSqlDatabase& database)
{
    if (execute(database, "BEGIN").isValid())
        return true;
    execute(database, "ROLLBACK");
    return false;
}

// A row whose foreign key refers to nothing.
struct BrokenReference
{
    QString table;
    QString rowCondition; ///< FROM and WHERE for this row; empty for a row that no condition can name
    QString referencedTable;
    int foreignKey;
};

// The name of the rowid that no column of the table has taken for itself (https://sqlite.org/rowidtable.html);
// empty when all three are taken.
QString rowidName(const QSqlDatabase& database, const QString& table)
{
    QList<Row> columns;
    execute(database, text("PRAGMA table_info(%1)").arg(quoted(table)), &columns);
    QStringList names = QStringList() << text("rowid") << text("oid") << text("_rowid_");
    for (const Row& column : columns)
        names.removeAll(column.value(1).toString().toLower());
    return names.value(0);
}

// @a rowid is null for a row of a table without rowid.
QString rowCondition(const QSqlDatabase& database, const QString& table, const QVariant& rowid)
{
    const QString name = rowidName(database, table);
    if (rowid.isNull() || name.isEmpty())
        return QString();
    return text(" FROM ") + quoted(table) + text(" WHERE ") + name + text(" IS ") +
           QString::number(rowid.toLongLong());
}

QSqlError readBrokenReferences(const QSqlDatabase& database, QList<BrokenReference>& references)
{
    QList<Row> rows;
    const QSqlError error = execute(database, "PRAGMA foreign_key_check;", &rows);
    for (const Row& row : rows) {
        const QString table = row.value(0).toString();
        const BrokenReference reference = {
            table, rowCondition(database, table, row.value(1)), row.value(2).toString(), row.value(3).toInt()};
        references.append(reference);
    }
    return error;
}

void warnOfBrokenReference(const QSqlDatabase& database, const QString& name, const BrokenReference& reference)
{
    QList<Row> keys;
    execute(database, text("PRAGMA foreign_key_list(%1)").arg(quoted(reference.table)), &keys);
    QStringList columns;
    QStringList referencedColumns;
    for (const Row& key : keys) {
        if (key.value(0).toInt() != reference.foreignKey)
            continue;
        columns.append(key.value(3).toString());
        // A foreign key that names no columns refers to the primary key.
        if (!key.value(4).isNull())
            referencedColumns.append(key.value(4).toString());
    }

    QStringList values;
    QList<Row> rows;
    if (!reference.rowCondition.isEmpty())
        execute(database, text("SELECT ") + quoted(columns).join(text(", ")) + reference.rowCondition, &rows);
    const Row row = rows.value(0);
    for (const QVariant& value : row)
        values.append(value.toString());

    const QString separator = text(", ");
    qWarning(
        "Foreign key constraint error in database \"%s\" on %s(%s) referencing %s(%s) with value(%s). The "
        "reference will be deleted.",
        local(name).constData(), local(reference.table).constData(), local(columns.join(separator)).constData(),
        local(reference.referencedTable).constData(), local(referencedColumns.join(separator)).constData(),
        local(values.join(separator)).constData());
}

// How many rows there are in the tables of @a references.
qlonglong countRows(const QSqlDatabase& database, const QList<BrokenReference>& references)
{
    QStringList tables;
    for (const BrokenReference& reference : references)
        tables.append(reference.table);
    tables.removeDuplicates();
    qlonglong result = 0;
    for (const QString& table : tables) {
        QList<Row> rows;
        execute(database, text("SELECT count(*) FROM ") + quoted(table), &rows);
        result += rows.value(0).value(0).toLongLong();
    }
    return result;
}

// Deletes the rows of @a references. Those that a foreign key or a trigger keeps go to @a kept.
QSqlError
deleteRows(const QSqlDatabase& database, const QList<BrokenReference>& references, QList<BrokenReference>& kept)
{
    const QSqlError beginning = execute(database, "BEGIN IMMEDIATE");
    if (reasonOf(beginning) == NSqliteErrorWatch::Environment)
        return beginning;
    for (const BrokenReference& reference : references) {
        QSqlQuery query(database);
        if (query.exec(text("DELETE") + reference.rowCondition))
            continue;
        const QSqlError error = query.lastError();
        if (reasonOf(error) != NSqliteErrorWatch::Statement) {
            execute(database, "ROLLBACK");
            return error;
        }
        kept.append(reference);
    }
    const QSqlError error = execute(database, "COMMIT");
    if (error.isValid())
        execute(database, "ROLLBACK");
    return error;
}

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

    const Outcome repair = repairReferences();
    if (repair != Done)
        return repair;

    QList<Row> versions;
    const QSqlError versionError = execute(database, "PRAGMA user_version", &versions);
    if (confirmed(database, reasonOf(versionError)) == NSqliteErrorWatch::Environment)
        return Unavailable;
    version = versions.value(0).value(0).toInt();
    return Done;
}

NAbstractSqliteDbManager::Outcome NAbstractSqliteDbManager::repairReferences()
{
    const QSqlDatabase database = this->database();
    // How often a row that cannot be named has been warned of; it is found again in each round.
    QMap<QString, int> warningsOfUnnamedRows;
    for (;;) {
        QList<BrokenReference> found;
        const QSqlError checkError = readBrokenReferences(database, found);
        // A foreign key that is declared wrongly cannot be checked; that is for its author to see.
        const Outcome check = outcomeOf(confirmed(database, reasonOf(checkError)));
        if (check != Done)
            return check;

        QList<BrokenReference> references;
        QMap<QString, int> unnamedRows;
        for (const BrokenReference& reference : found) {
            const QString key = reference.table + QLatin1Char('\n') + QString::number(reference.foreignKey);
            if (!reference.rowCondition.isEmpty())
                references.append(reference);
            else if (++unnamedRows[key] <= warningsOfUnnamedRows.value(key))
                continue;
            else
                ++warningsOfUnnamedRows[key];
            warnOfBrokenReference(database, name(), reference);
        }
        if (references.isEmpty())
            return Done;

        const qlonglong count = countRows(database, references);
        QList<BrokenReference> kept;
        QSqlError error = deleteRows(database, references, kept);
        if (!error.isValid() && !kept.isEmpty()) {
            // Other rows refer to these. They follow in the next round.
            QList<BrokenReference> keptByTriggers;
            execute(database, "PRAGMA foreign_keys=OFF");
            error = deleteRows(database, kept, keptByTriggers);
            execute(database, "PRAGMA foreign_keys=ON");
        }
        if (error.isValid())
            return outcomeOf(confirmed(database, reasonOf(error)));
        // Triggers may keep rows, or put them back.
        if (countRows(database, references) >= count)
            return Done;
    }
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
