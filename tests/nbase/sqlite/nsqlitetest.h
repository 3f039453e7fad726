#ifndef NBASE_TESTS_NSQLITETEST_H
#define NBASE_TESTS_NSQLITETEST_H

#include "ntestdatabase.h"

#include "support/nmessagerecorder.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QScopedPointer>
#include <QtCore/QStringList>

/** Helpers that the tests of the SQLite manager share. */
namespace NSqliteTest {

// Messages of the manager NTestManager as NMessageRecorder keeps them.
extern const char* const Initialised; ///< no tables, or damage
extern const char* const NotOpened;
extern const char* const Refused;   ///< the conversion from version 1 to 2
extern const char* const Converted; ///< from version 1 to 2
extern const char* const Newer;     ///< version 3 instead of 2

QString text(const char* utf8);

/** @a text taken apart at the newlines; one at its end is left out. */
QStringList lines(const char* text);
QStringList lines(const QString& text);

QByteArray contentOf(const QString& path);

/** Replaces the content of the file at @a path; ends the program when it cannot be written. */
void write(const QString& path, const QByteArray& content);

/** A number from 0 to below @a limit; the same sequence in each run. */
int random(int limit);

/** A conversion from version 1 to 2 for the database of NSqliteTestCase::makeVersionOne(). */
bool convertToTwo(NTestManager& manager);

/** Another process: the command sqlite3 with a database open, which executes statements one call at a time. */
class OtherProcess
{
public:
    explicit OtherProcess(const QString& path);
    ~OtherProcess();

    /** Waits until the statements have been executed. @return what they printed. */
    QByteArray execute(const char* statements);

private:
    QProcess m_process;
};

} // namespace NSqliteTest

/**
 * The base of the tests of the SQLite manager. Their files are in memory, so that the speed of the disk does not
 * matter. A test fails when messages are left that it has not taken, or when a connection is left.
 */
class NSqliteTestCase : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

protected:
    /** The path of a file that does not exist, in a directory of its own. */
    QString newPath();

    /** A database made by @a statements, with @a version as its user_version. @return its path. */
    QString makeDatabase(const char* statements, int version);

    /** A database of version 1: the table t(id, note) with the rows (1, 'a') and (2, 'b'). */
    QString makeVersionOne();

    /** The path of a file that does not exist, on a disk of its own. @param size as in "size=1m". */
    QString mountSmallDisk(const char* size);
    void unmountSmallDisk(const QString& path);

    /** The messages since the test began or this was called last. */
    QStringList takeMessages();

private:
    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NMessageRecorder> m_recorder;
    int m_count = 0;
};

#endif
