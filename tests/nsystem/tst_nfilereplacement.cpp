#include <nsystem/nfilereplacement_p.h>

#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/nthreads.h"
#include "support/nwithoutfileoverride.h"

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool replace(const QByteArray& path, const QByteArray& content, mode_t mode = 0666)
{
    return NSystem::replaceFile(path.constData(), content.constData(), size_t(content.size()), mode);
}

// The content of a file; "missing" when it cannot be read.
QByteArray contentOf(const QByteArray& path)
{
    const NFileDescriptor file = NSystem::openRegularFile(path.constData());
    QByteArray content(100000, '\0');
    const ssize_t size = NSystem::readAll(file.number(), content.data(), size_t(content.size()));
    return size < 0 ? QByteArray("missing") : content.left(int(size));
}

struct stat statusOf(const QByteArray& path)
{
    struct stat status;
    memset(&status, 0, sizeof(status));
    ::stat(path.constData(), &status);
    return status;
}

} // namespace

class tst_NFileReplacement : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void newFileHasTheContentAndTheMode();
    void existingFileKeepsItsMode();
    void existingFileKeepsItsOwner();
    void linksAreFollowed_data();
    void linksAreFollowed();
    void tooManyLinksAreRefused();
    void otherThanFilesAreRefused_data();
    void otherThanFilesAreRefused();
    void fileThatMayNotBeWrittenIsKept();
    void directoryThatMayNotBeWrittenKeepsTheFile();
    void leftoverOfAnInterruptedReplacementIsNoObstacle();
    void failureOfTheDiskKeepsTheFile_data();
    void failureOfTheDiskKeepsTheFile();
    void readersSeeOneContentOrTheOther();
    void removalTakesTheLeftoverAlong();
    void removalTakesTheLinkNotTheFile();
    void removalReportsFailure();

private:
    QStringList names() const;

    QScopedPointer<NTemporaryDirectory> m_directory;
    QByteArray m_folder;
    QByteArray m_path;
};

void tst_NFileReplacement::init()
{
    m_directory.reset(new NTemporaryDirectory);
    m_folder = QFile::encodeName(m_directory->path());
    m_path = m_folder + "/file";
}

void tst_NFileReplacement::cleanup()
{
    ::chmod(m_folder.constData(), 0700);
    m_directory.reset();
}

QStringList tst_NFileReplacement::names() const
{
    return QDir(m_directory->path())
        .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

void tst_NFileReplacement::newFileHasTheContentAndTheMode()
{
    const mode_t mask = ::umask(0027);
    QVERIFY(replace(m_path, "content"));
    ::umask(mask);
    QCOMPARE(contentOf(m_path), QByteArray("content"));
    QCOMPARE(int(statusOf(m_path).st_mode & 07777), 0640);
    QCOMPARE(names(), QStringList(QString::fromLatin1("file")));

    QVERIFY(replace(m_folder + "/secret", "", 0600));
    QCOMPARE(int(statusOf(m_folder + "/secret").st_mode & 07777), 0600);
}

void tst_NFileReplacement::existingFileKeepsItsMode()
{
    QVERIFY(replace(m_path, "old and longer"));
    QVERIFY(::chmod(m_path.constData(), 0604) == 0);
    const ino_t inode = statusOf(m_path).st_ino;
    QVERIFY(replace(m_path, "new"));
    QCOMPARE(contentOf(m_path), QByteArray("new"));
    QCOMPARE(int(statusOf(m_path).st_mode & 07777), 0604);
    QVERIFY(statusOf(m_path).st_ino != inode);
}

// Only root can give files away; another user sees that his own files stay his.
void tst_NFileReplacement::existingFileKeepsItsOwner()
{
    QVERIFY(replace(m_path, "old"));
    const uid_t owner = ::geteuid() == 0 ? 1234 : ::geteuid();
    const gid_t group = ::geteuid() == 0 ? 4321 : ::getegid();
    QVERIFY(::chown(m_path.constData(), owner, group) == 0);
    QVERIFY(::chmod(m_path.constData(), 04755) == 0);
    QVERIFY(replace(m_path, "new"));
    QCOMPARE(contentOf(m_path), QByteArray("new"));
    QCOMPARE(statusOf(m_path).st_uid, owner);
    QCOMPARE(statusOf(m_path).st_gid, group);
    QCOMPARE(int(statusOf(m_path).st_mode & 07777), 04755);
}

void tst_NFileReplacement::linksAreFollowed_data()
{
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<bool>("exists");

    QTest::newRow("relative") << QByteArray("folder/file") << true;
    QTest::newRow("absolute") << QByteArray("%1/folder/file") << true;
    QTest::newRow("through another link") << QByteArray("other") << true;
    QTest::newRow("to a file that does not exist yet") << QByteArray("folder/file") << false;
}

void tst_NFileReplacement::linksAreFollowed()
{
    QFETCH(QByteArray, target);
    QFETCH(bool, exists);
    const QByteArray file = m_folder + "/folder/file";
    QVERIFY(::mkdir((m_folder + "/folder").constData(), 0700) == 0);
    QVERIFY(::symlink("folder/file", (m_folder + "/other").constData()) == 0);
    QVERIFY(::symlink(target.replace("%1", m_folder).constData(), m_path.constData()) == 0);
    if (exists)
        QVERIFY(replace(file, "old"));

    QVERIFY(replace(m_path, "new"));
    QCOMPARE(contentOf(file), QByteArray("new"));
    QVERIFY(QFileInfo(QFile::decodeName(m_path)).isSymLink());
    QCOMPARE(QDir(QFile::decodeName(m_folder + "/folder")).entryList(QDir::Files).size(), 1);
}

void tst_NFileReplacement::tooManyLinksAreRefused()
{
    QVERIFY(::symlink("file", m_path.constData()) == 0);
    QVERIFY(!replace(m_path, "new"));
    QCOMPARE(errno, ELOOP);
}

void tst_NFileReplacement::otherThanFilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<int>("error");

    QTest::newRow("FIFO that nobody reads") << QByteArray("%1/fifo") << EINVAL;
    QTest::newRow("directory") << QByteArray("%1/folder") << EISDIR;
    QTest::newRow("in a directory that is missing") << QByteArray("%1/missing/file") << ENOENT;
    QTest::newRow("below a file") << QByteArray("%1/file/below") << ENOTDIR;
}

void tst_NFileReplacement::otherThanFilesAreRefused()
{
    QFETCH(QByteArray, path);
    QFETCH(int, error);
    QVERIFY(replace(m_path, "old"));
    QVERIFY(::mkfifo((m_folder + "/fifo").constData(), 0600) == 0);
    QVERIFY(::mkdir((m_folder + "/folder").constData(), 0700) == 0);
    const QStringList before = names();

    QVERIFY(!replace(path.replace("%1", m_folder), "new"));
    QCOMPARE(errno, error);
    QCOMPARE(names(), before);
    QCOMPARE(contentOf(m_path), QByteArray("old"));
}

void tst_NFileReplacement::fileThatMayNotBeWrittenIsKept()
{
    QVERIFY(replace(m_path, "old"));
    QVERIFY(::chmod(m_path.constData(), 0444) == 0);
    const NWithoutFileOverride withoutFileOverride;
    QVERIFY(!replace(m_path, "new"));
    QCOMPARE(errno, EACCES);
    QCOMPARE(contentOf(m_path), QByteArray("old"));
    QCOMPARE(names().size(), 1);
}

void tst_NFileReplacement::directoryThatMayNotBeWrittenKeepsTheFile()
{
    QVERIFY(replace(m_path, "old"));
    QVERIFY(::chmod(m_folder.constData(), 0555) == 0);
    const NWithoutFileOverride withoutFileOverride;
    QVERIFY(!replace(m_path, "new"));
    QCOMPARE(errno, EACCES);
    QCOMPARE(contentOf(m_path), QByteArray("old"));
}

void tst_NFileReplacement::leftoverOfAnInterruptedReplacementIsNoObstacle()
{
    m_directory->writeFile(QString::fromLatin1("file.new"), "half of it");
    QVERIFY(::chmod((m_path + ".new").constData(), 0) == 0);
    QVERIFY(replace(m_path, "new"));
    QCOMPARE(contentOf(m_path), QByteArray("new"));

    // A link of that name must not lead the new content elsewhere.
    QVERIFY(::symlink("elsewhere", (m_path + ".new").constData()) == 0);
    QVERIFY(replace(m_path, "newer"));
    QCOMPARE(contentOf(m_path), QByteArray("newer"));
    QCOMPARE(names(), QStringList(QString::fromLatin1("file")));
}

void tst_NFileReplacement::failureOfTheDiskKeepsTheFile_data()
{
    QTest::addColumn<int>("call");

    QTest::newRow("flushing") << (NSystemCalls::Fsync | NSystemCalls::Fdatasync);
    QTest::newRow("closing") << int(NSystemCalls::Close);
}

void tst_NFileReplacement::failureOfTheDiskKeepsTheFile()
{
    QFETCH(int, call);
    QVERIFY(replace(m_path, "old"));
    {
        // The first descriptor that is closed is the one that showed that the file may be written.
        const NSystemCalls::Fault fault(
            NSystemCalls::Calls(call).skip(call == NSystemCalls::Close ? 1 : 0).times(1), EIO);
        QVERIFY(!replace(m_path, "new"));
        QCOMPARE(errno, EIO);
        QCOMPARE(fault.count(), 1);
    }
    QCOMPARE(contentOf(m_path), QByteArray("old"));
    QCOMPARE(names(), QStringList(QString::fromLatin1("file")));
}

void tst_NFileReplacement::readersSeeOneContentOrTheOther()
{
    const QByteArray contents[] = {QByteArray(20000, 'a'), QByteArray(50000, 'b'), QByteArray("c")};
    QVERIFY(replace(m_path, contents[0]));
    const QByteArray path = m_path;
    QVERIFY(NTest::holdsInThreads(4, [&contents, path](int index) {
        bool isAlwaysWhole = true;
        for (int round = 0; round < 50; ++round) {
            if (index < 3) {
                isAlwaysWhole = replace(path, contents[index]) && isAlwaysWhole;
                continue;
            }
            const QByteArray content = contentOf(path);
            isAlwaysWhole =
                isAlwaysWhole && (content == contents[0] || content == contents[1] || content == contents[2]);
        }
        return isAlwaysWhole;
    }));
    QCOMPARE(names(), QStringList(QString::fromLatin1("file")));
}

void tst_NFileReplacement::removalTakesTheLeftoverAlong()
{
    QVERIFY(replace(m_path, "content"));
    m_directory->writeFile(QString::fromLatin1("file.new"), "half of it");
    QVERIFY(NSystem::removeFile(m_path.constData()));
    QCOMPARE(names(), QStringList());
    QVERIFY(NSystem::removeFile(m_path.constData()));
}

void tst_NFileReplacement::removalTakesTheLinkNotTheFile()
{
    QVERIFY(replace(m_folder + "/target", "content"));
    QVERIFY(::symlink("target", m_path.constData()) == 0);
    QVERIFY(NSystem::removeFile(m_path.constData()));
    QCOMPARE(names(), QStringList(QString::fromLatin1("target")));
}

void tst_NFileReplacement::removalReportsFailure()
{
    QVERIFY(::mkdir(m_path.constData(), 0700) == 0);
    QVERIFY(!NSystem::removeFile(m_path.constData()));
    QVERIFY(errno == EISDIR || errno == EPERM);
    QCOMPARE(names().size(), 1);
}

QTEST_APPLESS_MAIN(tst_NFileReplacement)

#include "tst_nfilereplacement.moc"
