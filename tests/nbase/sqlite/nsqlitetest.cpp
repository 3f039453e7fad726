#include "nsqlitetest.h"

#include "support/nprivatenamespace.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

#include <random>

#include <sys/mount.h>

namespace NSqliteTest {

const char* const Initialised =
    "warning: The integrity check of the database \"Test\" has failed. It will be initialized.\n";
const char* const NotOpened = "critical: Cannot open the database \"Test\"\n";
const char* const Refused =
    "warning: The database \"Test\" cannot be converted from version 1 to version 2. It will be initialized.\n";
const char* const Converted = "debug: The database \"Test\" has been converted from version 1 to version 2\n";
const char* const Newer =
    "warning: The version of the database \"Test\" (3) is greater than the current version of the database (2). "
    "It will be initialized.\n";

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

QStringList lines(const char* text)
{
    return lines(QString::fromUtf8(text));
}

QStringList lines(const QString& text)
{
    QStringList result = text.split(QLatin1Char('\n'));
    if (result.last().isEmpty())
        result.removeLast();
    return result;
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
}

int random(int limit)
{
    static std::mt19937 generator;
    return int(generator() % unsigned(limit));
}

bool convertToTwo(NTestManager& manager)
{
    return manager.execute("CREATE TABLE child2(id INTEGER PRIMARY KEY, note)") &&
           manager.execute("INSERT INTO child2 SELECT id, 'new ' || note FROM t") &&
           manager.execute("DROP TABLE t") && manager.execute("ALTER TABLE child2 RENAME TO t");
}

OtherProcess::OtherProcess(const QString& path)
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(text("sqlite3"), QStringList(path));
    if (!m_process.waitForStarted())
        qFatal("sqlite3 does not start");
}

OtherProcess::~OtherProcess()
{
    m_process.closeWriteChannel();
    m_process.waitForFinished();
}

QByteArray OtherProcess::execute(const char* statements)
{
    m_process.write(QByteArray(statements) + "\n.print done\n");
    QByteArray output;
    while (!output.endsWith("done\n") && m_process.waitForReadyRead(30000))
        output += m_process.readAll();
    output.chop(5);
    return output;
}

} // namespace NSqliteTest

using namespace NSqliteTest;

void NSqliteTestCase::initTestCase()
{
    m_directory.reset(new NTemporaryDirectory);
    NPrivateNamespace::mountEmptyDirectory(m_directory->path());
}

void NSqliteTestCase::cleanupTestCase()
{
    NPrivateNamespace::unmount(m_directory->path());
    m_directory.reset();
}

void NSqliteTestCase::init()
{
    m_recorder.reset(new NMessageRecorder);
}

void NSqliteTestCase::cleanup()
{
    const QStringList messages = takeMessages();
    m_recorder.reset();
    QCOMPARE(messages, QStringList());
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
}

QString NSqliteTestCase::newPath()
{
    const QString directory = m_directory->filePath(QString::number(++m_count));
    QDir().mkpath(directory);
    return directory + text("/test.db");
}

QString NSqliteTestCase::makeDatabase(const char* statements, int version)
{
    const QString path = newPath();
    OtherProcess process(path);
    const QByteArray output =
        process.execute(QByteArray(statements) + "\nPRAGMA user_version=" + QByteArray::number(version) + ";");
    if (!output.isEmpty())
        qFatal("%s", output.constData());
    return path;
}

QString NSqliteTestCase::makeVersionOne()
{
    return makeDatabase(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, note); INSERT INTO t VALUES(1, 'a'), (2, 'b');", 1);
}

QString NSqliteTestCase::mountSmallDisk(const char* size)
{
    const QString path = newPath();
    const QByteArray directory = QFile::encodeName(QFileInfo(path).path());
    if (::mount("tmpfs", directory.constData(), "tmpfs", 0, size) != 0)
        qFatal("cannot mount at %s", directory.constData());
    return path;
}

void NSqliteTestCase::unmountSmallDisk(const QString& path)
{
    NPrivateNamespace::unmount(QFileInfo(path).path());
}

QStringList NSqliteTestCase::takeMessages()
{
    return m_recorder->take();
}
