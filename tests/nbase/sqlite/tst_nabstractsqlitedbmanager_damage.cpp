#include "nsqlitetest.h"

#include "support/nprivatenamespace.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

using namespace NSqliteTest;

namespace {

const int HeaderSize = 100; // https://sqlite.org/fileformat.html, "The Database Header"
const int WriteVersionOffset = 18;

// What one damaged copy is made of: a name for messages, and its content.
struct Copy
{
    QByteArray name;
    QByteArray content;
};

QByteArray withByte(QByteArray content, int offset, int value)
{
    content[offset] = char(value);
    return content;
}

// Each byte of the header with values that mean something there, with a large one and with a flipped bit.
QList<Copy> headerCopies(const QByteArray& original)
{
    QList<Copy> copies;
    for (int offset = 0; offset < HeaderSize; ++offset) {
        const int old = uchar(original.at(offset));
        const int values[] = {old == 0 ? 1 : 0, 2, 3, 0xff, old ^ 0x40};
        for (int value : values) {
            const Copy copy = {
                "header byte " + QByteArray::number(offset) + " = " + QByteArray::number(value),
                withByte(original, offset, value)};
            copies.append(copy);
        }
    }
    return copies;
}

const int KindsOfDamage = 7;

QByteArray randomDamage(QByteArray content, int pageSize, int kind)
{
    const int pages = content.size() / pageSize;
    switch (kind) {
    case 0: // anywhere
        for (int count = random(20) + 1; count > 0; --count)
            content[random(content.size())] = char(random(256));
        break;
    case 1: // in the header and the schema
        for (int count = random(3) + 1; count > 0; --count)
            content[random(pageSize)] = char(random(256));
        break;
    case 2: // several bytes of the header
        for (int count = random(4) + 1; count > 0; --count)
            content[16 + random(HeaderSize - 16)] = char(random(256));
        break;
    case 3: // cut off inside a page
        content.truncate(random(content.size()));
        break;
    case 4: // cut off between pages
        content.truncate(random(pages) * pageSize);
        break;
    case 5: // pages in each other's place
        for (int count = random(3) + 1; count > 0; --count) {
            const int first = random(pages) * pageSize;
            const int second = random(pages) * pageSize;
            const QByteArray page = content.mid(first, pageSize);
            content.replace(first, pageSize, content.mid(second, pageSize));
            content.replace(second, pageSize, page);
        }
        break;
    default: // an erased page
        content.replace(random(pages) * pageSize, pageSize, QByteArray(pageSize, random(2) ? '\0' : '\xff'));
        break;
    }
    return content;
}

} // namespace

/** Damaged files. */
class tst_NAbstractSqliteDbManager_Damage : public NSqliteTestCase
{
    Q_OBJECT

private slots:
    void fileThatIsNoDatabaseIsSetAside();
    void damageIsReportedLineByLine();
    void damageThatPreventsDroppingSetsTheFileAside();
    void companionsGoWithADamagedFile();
    void fileBehindASymbolicLinkIsSetAside();
    void databaseThatCannotBeCheckedIsLeftAsItIs_data();
    void databaseThatCannotBeCheckedIsLeftAsItIs();
    void headerThatForbidsWritingIsKeptWithItsRows();
    void headerThatForbidsWritingIsReplacedWhereItMustBeWritten_data();
    void headerThatForbidsWritingIsReplacedWhereItMustBeWritten();
    void damagedHeadersAreReplaced_data();
    void damagedHeadersAreReplaced();
    void damagedCopiesAreOpened_data();
    void damagedCopiesAreOpened();

private:
    QString openCopy(const QString& path, const QByteArray& content, QStringList& messages);
};

void tst_NAbstractSqliteDbManager_Damage::fileThatIsNoDatabaseIsSetAside()
{
    const QString path = newPath();
    const QByteArray content = QByteArray("no database at all\n").repeated(1000);
    for (int round = 0; round < 2; ++round) {
        write(path, content);
        NTestManager manager(path);
        NTestTable table(&manager, "t", "(a)");
        manager.addTable(&table);
        manager.openDatabase();
        QCOMPARE(takeMessages(), lines(Initialised));
        QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
        QCOMPARE(manager.rows("PRAGMA foreign_keys"), lines("1"));
        QCOMPARE(contentOf(path + text(".damaged")), content);
    }
    QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files), lines("test.db\ntest.db.damaged"));
}

void tst_NAbstractSqliteDbManager_Damage::damageIsReportedLineByLine()
{
    const QString path = makeDatabase(
        "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1), (2), (3);"
        "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = replace(sql, 't(a)', 't(a) WHERE a > 2') WHERE "
        "name = 'i';",
        1);
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(b)");
    manager.addTable(&table);
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QVERIFY(messages.size() >= 3);
    QCOMPARE(
        messages.first(),
        text("warning: Integrity check on the database \"Test\" fails. The following error(s) have been "
             "returned:"));
    const QStringList errors = messages.mid(1, messages.size() - 2);
    for (const QString& error : errors)
        QVERIFY2(error.startsWith(text("warning: ")) && error.contains(text("index i")), qPrintable(error));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Initialised));
    QCOMPARE(manager.rows("SELECT sql FROM sqlite_master"), lines("CREATE TABLE t(b)"));
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

void tst_NAbstractSqliteDbManager_Damage::damageThatPreventsDroppingSetsTheFileAside()
{
    const QString path = makeDatabase("CREATE TABLE t(a); INSERT INTO t VALUES(zeroblob(9000));", 1);
    QByteArray content = contentOf(path);
    // The kind of the second page, the table's.
    content[4096] = char(0x77);
    write(path, content);
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    const QStringList messages = takeMessages();
    QVERIFY(messages.size() >= 2);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Initialised));
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(manager.rows("PRAGMA integrity_check"), lines("ok"));
}

void tst_NAbstractSqliteDbManager_Damage::companionsGoWithADamagedFile()
{
    const QString path = newPath();
    const char* const suffixes[] = {"", "-journal", "-wal", "-shm"};
    for (const char* suffix : suffixes) {
        write(path + text(suffix), QByteArray("new") + suffix);
        write(path + text(".damaged") + text(suffix), "old");
    }
    QVERIFY(QFile::remove(path + text("-wal")));
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QCOMPARE(contentOf(path + text(".damaged")), QByteArray("new"));
    QVERIFY(!QFile::exists(path + text(".damaged-wal")));
    QVERIFY(!QFile::exists(path + text("-journal")));
    QVERIFY(!QFile::exists(path + text("-shm")));
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("new-shm"));
}

void tst_NAbstractSqliteDbManager_Damage::fileBehindASymbolicLinkIsSetAside()
{
    const QString path = newPath();
    const QString link = newPath();
    const QByteArray content = QByteArray("no database\n").repeated(500);
    write(path, content);
    write(path + text("-shm"), "shared memory");
    QVERIFY(QFile::link(path, link));
    NTestManager manager(link);
    NTestTable table(&manager, "t", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(Initialised));
    QVERIFY(manager.execute("INSERT INTO t VALUES(1)"));
    QVERIFY(QFileInfo(link).isSymLink());
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QCOMPARE(contentOf(path + text(".damaged-shm")), QByteArray("shared memory"));
    QCOMPARE(QDir(QFileInfo(link).path()).entryList(QDir::Files), lines("test.db"));
}

void tst_NAbstractSqliteDbManager_Damage::databaseThatCannotBeCheckedIsLeftAsItIs_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<QString>("error");
    QTest::newRow("function") << text("UPDATE sqlite_master SET sql = 'CREATE TABLE t(a CHECK(valid(a)))' WHERE "
                                      "name = 't';")
                              << text("unknown function: valid()");
    QTest::newRow("collation") << text("UPDATE sqlite_master SET sql = 'CREATE INDEX i ON t(a COLLATE de)' WHERE "
                                       "name = 'i';")
                               << text("no such collation sequence: de");
}

// Functions and collations are registered on an open connection: too late for the check.
void tst_NAbstractSqliteDbManager_Damage::databaseThatCannotBeCheckedIsLeftAsItIs()
{
    QFETCH(QString, statement);
    QFETCH(QString, error);
    const QByteArray statements =
        "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES('a'); PRAGMA writable_schema=ON;" +
        statement.toUtf8();
    const QString path = makeDatabase(statements.constData(), 1);
    const QByteArray content = contentOf(path);
    NTestManager manager(path);
    manager.openDatabase();
    QVERIFY(!manager.database().isValid());
    const QStringList messages = takeMessages();
    QCOMPARE(messages.size(), 2);
    QVERIFY2(
        messages.first().startsWith(text("warning: The integrity of the database \"Test\" cannot be checked: ")) &&
            messages.first().contains(error),
        qPrintable(messages.first()));
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(NotOpened));
    QCOMPARE(contentOf(path), content);
    QVERIFY(!QFile::exists(path + text(".damaged")));
}

// SQLite reads such a file; the rows are worth more than the permission to change them.
void tst_NAbstractSqliteDbManager_Damage::headerThatForbidsWritingIsKeptWithItsRows()
{
    const QString path = makeVersionOne();
    write(path, withByte(contentOf(path), WriteVersionOffset, 3));
    const QByteArray content = contentOf(path);
    NTestManager manager(path);
    manager.openDatabase();
    QCOMPARE(manager.rows("SELECT note FROM t ORDER BY id"), lines("a\nb"));
    QVERIFY(!manager.execute("DELETE FROM t"));
    manager.closeDatabase();
    QCOMPARE(contentOf(path), content);
}

void tst_NAbstractSqliteDbManager_Damage::headerThatForbidsWritingIsReplacedWhereItMustBeWritten_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QString>("messages");
    QTest::newRow("older") << 1 << text(Refused);
    QTest::newRow("newer") << 3 << text(Newer);
}

// The file system permits writing, so the next opening would find the same.
void tst_NAbstractSqliteDbManager_Damage::headerThatForbidsWritingIsReplacedWhereItMustBeWritten()
{
    QFETCH(int, stored);
    QFETCH(QString, messages);
    const QString path = makeDatabase("CREATE TABLE t(id INTEGER PRIMARY KEY, note);", stored);
    write(path, withByte(contentOf(path), WriteVersionOffset, 3));
    const QByteArray content = contentOf(path);
    NTestManager manager(path, 2);
    manager.setConversion(convertToTwo);
    NTestTable table(&manager, "fresh", "(a)");
    manager.addTable(&table);
    manager.openDatabase();
    QCOMPARE(takeMessages(), lines(messages));
    QCOMPARE(manager.oldVersion(), -1);
    QCOMPARE(manager.rows("PRAGMA user_version"), lines("2"));
    QVERIFY(manager.execute("INSERT INTO fresh VALUES(1)"));
    QCOMPARE(contentOf(path + text(".damaged")), content);
}

void tst_NAbstractSqliteDbManager_Damage::damagedHeadersAreReplaced_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray original = contentOf(makeVersionOne());
    // With a root page there, the file has to have pointer maps, which it does not have.
    for (int offset = 52; offset < 56; ++offset)
        QTest::newRow(("largest root page, byte " + QByteArray::number(offset)).constData())
            << withByte(original, offset, 1);
    // Only the first free page is missing, which dropping tables does not need.
    QTest::newRow("write version and free list") << withByte(withByte(original, WriteVersionOffset, 3), 39, 9);
    // The encoding is UTF-16, which the second reading reports in another way than the first.
    QTest::newRow("text encoding") << withByte(original, 59, 2);
}

// SQLite reports obstructions in some of these cases, which would be there at each opening.
void tst_NAbstractSqliteDbManager_Damage::damagedHeadersAreReplaced()
{
    QFETCH(QByteArray, content);
    const QString path = newPath();
    QStringList messages;
    QCOMPARE(openCopy(path, content, messages), QString());
    QCOMPARE(contentOf(path + text(".damaged")), content);
    QCOMPARE(messages.last() + QLatin1Char('\n'), text(Initialised));
}

// Opens a file with @a content. Returns what is wrong with the result, or a null text.
QString tst_NAbstractSqliteDbManager_Damage::openCopy(
    const QString& path, const QByteArray& content, QStringList& messages)
{
    const char* const suffixes[] = {"", "-journal", "-wal", "-shm", ".damaged"};
    for (const char* suffix : suffixes)
        QFile::remove(path + text(suffix));
    write(path, content);
    NTestManager manager(path);
    NTestTable table(&manager, "t", "(id INTEGER PRIMARY KEY, note, p REFERENCES t(id))");
    manager.addTable(&table);
    manager.openDatabase();
    messages = takeMessages();
    if (!manager.database().isOpen())
        return text("not opened");
    if (manager.rows("PRAGMA user_version") != lines("1"))
        return text("of another version");
    if (manager.rows("PRAGMA integrity_check") != lines("ok"))
        return text("not sound");
    // A row that the repair has to leave is reported. A foreign key of a damaged schema cannot be checked.
    const QStringList references = manager.rows("PRAGMA foreign_key_check");
    if (!references.isEmpty() && !references.first().startsWith(text("!foreign key mismatch")) &&
        references.size() > messages.filter(text("Foreign key constraint error")).size())
        return text("broken references: ") + references.join(text(" "));
    // Such a file may only be read, unless it had to be made anew.
    if (uchar(contentOf(path).at(WriteVersionOffset)) > 2)
        return manager.rows("SELECT count(*) FROM t").first().toInt() > 0 ? QString() : text("without its rows");
    if (!manager.execute("CREATE TABLE usable(a)") || !manager.execute("INSERT INTO usable VALUES(1)") ||
        manager.rows("SELECT a FROM usable") != lines("1"))
        return text("not usable");
    return QString();
}

void tst_NAbstractSqliteDbManager_Damage::damagedCopiesAreOpened_data()
{
    QTest::addColumn<QByteArray>("statements");
    QTest::addColumn<int>("pageSize");
    QTest::newRow("two pages")
        << QByteArray("CREATE TABLE t(id INTEGER PRIMARY KEY, note); INSERT INTO t VALUES(1, 'a');") << 4096;
    // Rows on overflow pages, indexes, free pages, foreign keys and a trigger.
    const char* const statements =
        "PRAGMA page_size=512; CREATE TABLE t(id INTEGER PRIMARY KEY, note, p REFERENCES t(id));"
        "CREATE INDEX i ON t(note); CREATE INDEX j ON t(p); CREATE TABLE counted(count);"
        "CREATE TRIGGER inserted AFTER INSERT ON t BEGIN UPDATE counted SET count = count + 1; END;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %1) "
        "INSERT INTO t SELECT i, 'note ' || i, nullif(i / 2, 0) FROM n;"
        "INSERT INTO t VALUES(100000, zeroblob(3000), 1); DELETE FROM t WHERE id BETWEEN %1 - 80 AND %1;";
    QTest::newRow("small") << text(statements).arg(300).toUtf8() << 512;
    QTest::newRow("large") << text(statements).arg(4000).toUtf8() << 512;
}

// What the next opening would find as well must not keep a database closed for ever.
void tst_NAbstractSqliteDbManager_Damage::damagedCopiesAreOpened()
{
    QFETCH(QByteArray, statements);
    QFETCH(int, pageSize);
    const int RandomCopies = 200;
    const QByteArray original = contentOf(makeDatabase(statements.constData(), 1));
    QList<Copy> copies = headerCopies(original);
    for (int index = 0; index < RandomCopies; ++index) {
        const Copy copy = {
            "random copy " + QByteArray::number(index), randomDamage(original, pageSize, index % KindsOfDamage)};
        copies.append(copy);
    }
    const QString path = newPath();
    QStringList failures;
    int setAside = 0;
    for (const Copy& copy : copies) {
        QStringList messages;
        const QString wrong = openCopy(path, copy.content, messages);
        setAside += QFile::exists(path + text(".damaged"));
        if (!wrong.isEmpty())
            failures.append(text(copy.name) + text(": ") + wrong + text(", ") + messages.join(text("; ")));
    }
    QVERIFY2(failures.isEmpty(), failures.join(text("\n")).toUtf8().constData());
    QVERIFY(setAside > copies.size() / 10);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NAbstractSqliteDbManager_Damage, NPrivateNamespace::Mounts)
#include "tst_nabstractsqlitedbmanager_damage.moc"
