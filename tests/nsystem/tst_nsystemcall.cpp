#include <nsystem/nsystemcall_p.h>

#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

void ignoreSignal(int) {}

// Interrupts the blocking system calls of the thread that made it, during its scope.
class Interruptions
{
public:
    Interruptions()
        : m_ended(false)
    {
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        action.sa_handler = ignoreSignal; // without SA_RESTART
        ::sigaction(SIGUSR1, &action, nullptr);
        const pthread_t thread = ::pthread_self();
        m_thread = std::thread([this, thread]() {
            while (!m_ended) {
                ::pthread_kill(thread, SIGUSR1);
                ::usleep(100);
            }
        });
    }

    ~Interruptions()
    {
        m_ended = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_ended;
    std::thread m_thread;
};

struct Pipe
{
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            qFatal("cannot make a pipe");
        reading.reset(ends[0]);
        writing.reset(ends[1]);
    }

    NFileDescriptor reading;
    NFileDescriptor writing;
};

QByteArray pattern(int size)
{
    QByteArray bytes(size, '\0');
    for (int index = 0; index < size; ++index)
        bytes[index] = char(index % 251);
    return bytes;
}

} // namespace

class tst_NSystemCall : public QObject
{
    Q_OBJECT

private slots:
    void openedFilesAreNotInherited();
    void openingReportsTheError();
    void openingIsRelativeToADirectory();
    void regularFilesAreOpened();
    void otherThanRegularFilesAreRefused_data();
    void otherThanRegularFilesAreRefused();
    void fileWithoutPermissionIsRefused();
    void interruptedCallsAreRepeated();
    void readingEndsWithTheFile();
    void readingReportsTheError();
    void writingIsComplete();
    void writingReportsTheError();
    void filesAndDirectoriesAreSynchronized();
    void whatCannotBeSynchronizedIsNoError();
    void errorTextsAreTheSystems();
};

void tst_NSystemCall::openedFilesAreNotInherited()
{
    const NFileDescriptor file = NSystem::open("/dev/null", O_RDWR);
    QVERIFY(file.isOpen());
    QVERIFY(::fcntl(file.number(), F_GETFD) & FD_CLOEXEC);
}

void tst_NSystemCall::openingReportsTheError()
{
    QVERIFY(!NSystem::open("/nonexistent/file", O_RDONLY).isOpen());
    QCOMPARE(errno, ENOENT);
}

void tst_NSystemCall::openingIsRelativeToADirectory()
{
    const NTemporaryDirectory directory;
    const NFileDescriptor opened = NSystem::open(QFile::encodeName(directory.path()).constData(), O_DIRECTORY);
    const NFileDescriptor made = NSystem::openAt(opened.number(), "made", O_WRONLY | O_CREAT | O_EXCL, 0600);
    QVERIFY(made.isOpen());
    QVERIFY(QFile::exists(directory.filePath(QString::fromLatin1("made"))));
}

void tst_NSystemCall::regularFilesAreOpened()
{
    const NTemporaryDirectory directory;
    const QByteArray path = QFile::encodeName(directory.writeFile(QString::fromLatin1("file"), "content"));
    const QByteArray link = path + ".link";
    QVERIFY(::symlink(path.constData(), link.constData()) == 0);
    for (const QByteArray& name : {path, link}) {
        const NFileDescriptor file = NSystem::openRegularFile(name.constData());
        char content[8];
        QCOMPARE(NSystem::readAll(file.number(), content, sizeof(content)), ssize_t(7));
        QCOMPARE(QByteArray(content, 7), QByteArray("content"));
    }
}

void tst_NSystemCall::otherThanRegularFilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<int>("error");

    QTest::newRow("FIFO that nobody writes to") << QByteArray("%1/fifo") << EINVAL;
    QTest::newRow("link to a FIFO") << QByteArray("%1/link") << EINVAL;
    QTest::newRow("device without end") << QByteArray("/dev/zero") << EINVAL;
    QTest::newRow("directory") << QByteArray("%1") << EISDIR;
    QTest::newRow("nothing") << QByteArray("%1/nothing") << ENOENT;
}

void tst_NSystemCall::otherThanRegularFilesAreRefused()
{
    QFETCH(QByteArray, path);
    QFETCH(int, error);
    const NTemporaryDirectory directory;
    const QByteArray folder = QFile::encodeName(directory.path());
    QVERIFY(::mkfifo((folder + "/fifo").constData(), 0600) == 0);
    QVERIFY(::symlink("fifo", (folder + "/link").constData()) == 0);

    QVERIFY(!NSystem::openRegularFile(path.replace("%1", folder).constData()).isOpen());
    QCOMPARE(errno, error);
}

void tst_NSystemCall::fileWithoutPermissionIsRefused()
{
    const NTemporaryDirectory directory;
    const QByteArray path = QFile::encodeName(directory.writeFile(QString::fromLatin1("file"), "content"));
    QVERIFY(::chmod(path.constData(), 0) == 0);
    const NWithoutFileOverride withoutFileOverride;
    QVERIFY(!NSystem::openRegularFile(path.constData()).isOpen());
    QCOMPARE(errno, EACCES);
}

void tst_NSystemCall::interruptedCallsAreRepeated()
{
    int calls = 0;
    const int result = NSystem::retried([&calls]() {
        errno = EINTR;
        return ++calls < 4 ? -1 : 17;
    });
    QCOMPARE(result, 17);
    QCOMPARE(calls, 4);

    calls = 0;
    QCOMPARE(
        NSystem::retried([&calls]() {
            errno = EIO;
            return --calls;
        }),
        -1);
    QCOMPARE(calls, -1);
}

void tst_NSystemCall::readingEndsWithTheFile()
{
    Pipe pipe;
    const QByteArray sent = pattern(100000);
    std::thread writer([&pipe, &sent]() {
        for (int position = 0; position < sent.size(); position += 777)
            NSystem::writeAll(
                pipe.writing.number(), sent.constData() + position, size_t(qMin(777, sent.size() - position)));
        pipe.writing.reset();
    });
    QByteArray received(sent.size() + 1, '\0');
    ssize_t count;
    {
        const Interruptions interruptions;
        count = NSystem::readAll(pipe.reading.number(), received.data(), size_t(received.size()));
    }
    writer.join();
    QCOMPARE(count, ssize_t(sent.size()));
    QVERIFY(received.startsWith(sent));
}

void tst_NSystemCall::readingReportsTheError()
{
    const NFileDescriptor directory = NSystem::open("/", O_RDONLY);
    char byte;
    QCOMPARE(NSystem::read(directory.number(), &byte, 1), ssize_t(-1));
    QCOMPARE(NSystem::readAll(directory.number(), &byte, 1), ssize_t(-1));
    QCOMPARE(errno, EISDIR);
}

void tst_NSystemCall::writingIsComplete()
{
    Pipe pipe;
    const QByteArray sent = pattern(1000000); // more than a pipe holds
    QByteArray received;
    std::thread reader([&pipe, &received]() {
        char piece[5000];
        ssize_t count;
        while ((count = NSystem::read(pipe.reading.number(), piece, sizeof(piece))) > 0)
            received.append(piece, int(count));
    });
    bool isWritten;
    {
        const Interruptions interruptions;
        isWritten = NSystem::writeAll(pipe.writing.number(), sent.constData(), size_t(sent.size()));
    }
    pipe.writing.reset();
    reader.join();
    QVERIFY(isWritten);
    QVERIFY(received == sent);
}

void tst_NSystemCall::writingReportsTheError()
{
    const NFileDescriptor full = NSystem::open("/dev/full", O_WRONLY);
    QVERIFY(full.isOpen());
    QVERIFY(!NSystem::writeAll(full.number(), "text", 4));
    QCOMPARE(errno, ENOSPC);
    QVERIFY(NSystem::writeAll(full.number(), "", 0));
}

void tst_NSystemCall::filesAndDirectoriesAreSynchronized()
{
    const NTemporaryDirectory directory;
    const QByteArray path = QFile::encodeName(directory.writeFile(QString::fromLatin1("file"), "content"));
    QVERIFY(NSystem::synchronize(NSystem::open(path.constData(), O_WRONLY).number()));
    QVERIFY(
        NSystem::synchronize(NSystem::open(QFile::encodeName(directory.path()).constData(), O_RDONLY).number()));
    QVERIFY(!NSystem::synchronize(-1));
    QCOMPARE(errno, EBADF);
}

void tst_NSystemCall::whatCannotBeSynchronizedIsNoError()
{
    const Pipe pipe;
    QVERIFY(NSystem::synchronize(pipe.writing.number()));
}

void tst_NSystemCall::errorTextsAreTheSystems()
{
    QCOMPARE(NSystem::errorText(ENOENT), QString::fromLocal8Bit(::strerror(ENOENT)));
    errno = EIO;
    QCOMPARE(NSystem::errorText(), QString::fromLocal8Bit(::strerror(EIO)));
    QVERIFY(!NSystem::errorText(123456).isEmpty());
}

QTEST_APPLESS_MAIN(tst_NSystemCall)

#include "tst_nsystemcall.moc"
