#include "ucistore.h"

#include "support/nprivatenamespace.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>

namespace {

const char first[] = "\nconfig interface 'lan'\n\toption ip '1'\n\n";
const char second[] = "\nconfig interface 'lan'\n\toption ip '2'\n\n";

const char oneServer[] = "\nconfig interface 'lan'\n\tlist dns 'a'\n\n";
const char twoServers[] = "\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\n";

/** Mounts a small file system on a directory. */
void mountFullDisk(const QString& path)
{
    if (mount("none", QFile::encodeName(path).constData(), "tmpfs", 0, "size=16k,mode=0755") < 0)
        qFatal("no small file system can be mounted");
}

void fillUp(const QString& path)
{
    QFile filler(path);
    if (!filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        qFatal("the disk cannot be filled");
    while (filler.write(QByteArray(4096, 'x')) > 0) {
    }
}

#if defined(SYS_ftruncate64)
const int truncateCall = SYS_ftruncate64;
#else
const int truncateCall = SYS_ftruncate;
#endif
#if defined(SYS_rename)
const int renameCall = SYS_rename;
#else
const int renameCall = SYS_renameat;
#endif

#if defined(SYS_fchown32)
const int changeOwnerCall = SYS_fchown32;
#else
const int changeOwnerCall = SYS_fchown;
#endif

/** The index of the size in the arguments of ftruncate(): 32-bit ARM passes 64-bit arguments in register pairs. */
#if defined(__arm__)
const int truncatedSize = 2;
#else
const int truncatedSize = 1;
#endif

/**
 * Makes the kernel kill this process, or do another @a action, at a system call (see seccomp(2)). Of the calls
 * that truncate a file only those to size 0 count.
 */
void failAt(int systemCall, quint32 action)
{
    sock_filter filter[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, quint32(systemCall)},
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, quint32(offsetof(seccomp_data, args) + truncatedSize * sizeof(quint64))},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, quint8(systemCall == truncateCall ? 1 : 0), 0},
        {BPF_RET | BPF_K, 0, 0, action},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) < 0)
        _exit(2);
}

} // namespace

// Sanitizers end the program when memory runs out, unless they are asked to fail the allocation.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

/** The files after the store has failed or was killed. The directories are in memory. */
class TestUciFaults : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_directory.reset(new NTemporaryDirectory);
        NPrivateNamespace::mountEmptyDirectory(m_directory->path());
        m_store.reset(new UciStore(m_directory->path()));
        m_store->writeConfig("network", first);
    }

    void cleanup()
    {
        m_store.reset();
        NPrivateNamespace::unmount(m_directory->path());
        m_directory.reset();
    }

    void fullDiskFailsTheCommitAndKeepsBothFiles()
    {
        const QString config = m_directory->filePath(QLatin1String("config"));
        mountFullDisk(config);
        m_store->writeConfig("network", first);
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QCOMPARE(m_store->set("network.lan.text=" + QByteArray(20000, 'x')), int(UCI_OK));
        fillUp(config + QLatin1String("/filler"));
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("network"), QByteArray(first));
        QVERIFY(m_store->staged("network").startsWith("network.lan.ip='2'\n"));
        QCOMPARE(m_store->value("network.lan.ip"), QByteArray("2"));
        QCOMPARE(QDir(config).entryList(QDir::Files | QDir::Hidden).size(), 2);

        m_store->reopen();
        QCOMPARE(m_store->value("network.lan.ip"), QByteArray("2"));
        QCOMPARE(m_store->set("network.lan.text="), int(UCI_OK));
        QFile::remove(config + QLatin1String("/filler"));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(second));
        NPrivateNamespace::unmount(config);
    }

    void fullStagingDiskKeepsTheChangesPending()
    {
        const QString save = m_directory->filePath(QLatin1String("save"));
        mountFullDisk(save);
        QCOMPARE(m_store->set("network.lan.a=1"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        fillUp(save + QLatin1String("/filler"));
        QCOMPARE(m_store->set("network.lan.text=" + QByteArray(9000, 'x')), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.a='1'\n"));
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("network"), QByteArray(first));
        QFile::remove(save + QLatin1String("/filler"));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QVERIFY(m_store->config("network").contains("option text 'xxx"));
        QCOMPARE(m_store->staged("network"), QByteArray());
        NPrivateNamespace::unmount(save);
    }

    void readOnlyDirectoryFailsTheCommit()
    {
        const QByteArray config = QFile::encodeName(m_directory->filePath(QLatin1String("config")));
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QCOMPARE(chmod(config.constData(), 0555), 0);
        {
            NWithoutFileOverride withoutOverride;
            QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        }
        QCOMPARE(chmod(config.constData(), 0755), 0);
        QCOMPARE(m_store->config("network"), QByteArray(first));
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.ip='2'\n"));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(second));
    }

    void readOnlyFileSystemFailsTheCommitAndIsStillRead()
    {
        const QByteArray config = QFile::encodeName(m_directory->filePath(QLatin1String("config")));
        QCOMPARE(mount("none", config.constData(), "tmpfs", 0, "mode=0755"), 0);
        m_store->writeConfig("network", first);
        QCOMPARE(mount("none", config.constData(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("network"), QByteArray(first));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.ip='2'\n"));
        QCOMPARE(umount(config.constData()), 0);
    }

    void missingDirectoryFailsTheCommit()
    {
        const QString config = m_directory->filePath(QLatin1String("config"));
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QVERIFY(QDir().rename(config, config + QLatin1String("-away")));
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QVERIFY(!QDir(config).exists());
        QVERIFY(QDir().rename(config + QLatin1String("-away"), config));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(second));
    }

    void directoriesThatCannotBeReadAreNotListed_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::newRow("the configuration directory") << QString::fromLatin1("config");
        QTest::newRow("the overriding directory") << QString::fromLatin1("over");
    }

    void directoriesThatCannotBeReadAreNotListed()
    {
        QFETCH(QString, directory);
        const QString over = m_directory->filePath(QLatin1String("over"));
        QVERIFY(QDir().mkpath(over));
        QCOMPARE(uci_set_conf2dir(m_store->context(), QFile::encodeName(over).constData()), int(UCI_OK));
        const QByteArray path = QFile::encodeName(m_directory->filePath(directory));
        QCOMPARE(chmod(path.constData(), 0000), 0);
        char** list = nullptr;
        {
            NWithoutFileOverride withoutOverride;
            QCOMPARE(uci_list_configs(m_store->context(), &list), int(UCI_ERR_IO));
            QVERIFY(!list);
        }
        QCOMPARE(chmod(path.constData(), 0755), 0);
        QVERIFY(QDir().rmdir(over));
        QCOMPARE(uci_list_configs(m_store->context(), &list), int(UCI_OK));
        QCOMPARE(QByteArray(list[0]), QByteArray("network"));
        QVERIFY(!list[1]);
        std::free(list);
    }

    void packagesThatCannotBeExaminedAreListed()
    {
        const QByteArray config = QFile::encodeName(m_directory->filePath(QLatin1String("config")));
        QVERIFY(QFile::link(QLatin1String("nowhere"), m_store->configFile("dangling")));
        QCOMPARE(chmod(config.constData(), 0444), 0); /* to list names, but not to use them */
        char** list = nullptr;
        {
            NWithoutFileOverride withoutOverride;
            QCOMPARE(uci_list_configs(m_store->context(), &list), int(UCI_OK));
            uci_package* package = nullptr;
            QCOMPARE(uci_load(m_store->context(), "network", &package), int(UCI_ERR_IO));
        }
        QCOMPARE(chmod(config.constData(), 0755), 0);
        QCOMPARE(QByteArray(list[0]), QByteArray("dangling"));
        QCOMPARE(QByteArray(list[1]), QByteArray("network"));
        QVERIFY(!list[2]);
        std::free(list);
        QCOMPARE(uci_list_configs(m_store->context(), &list), int(UCI_OK));
        QCOMPARE(QByteArray(list[0]), QByteArray("network"));
        QVERIFY(!list[1]);
        std::free(list);
    }

    void malformedFileFailsTheCommit_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("half a line") << QByteArray("config interface lan\n\toption ip 'x");
        QTest::newRow("a block of NUL bytes, as after a power loss") << QByteArray(4096, '\0');
        QTest::newRow("NUL bytes after the text") << QByteArray(first) + QByteArray(10, '\0');
        QTest::newRow("a binary file") << QByteArray("\x7f"
                                                     "ELF\x02\x01");
    }

    void malformedFileFailsTheCommit()
    {
        QFETCH(QByteArray, text);
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        m_store->writeConfig("network", text);
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_PARSE));
        QCOMPARE(m_store->config("network"), text);
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.ip='2'\n"));
        m_store->writeConfig("network", first);
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(second));
    }

    void filesLargerThanMemoryFailToLoadAndAreKept()
    {
        const QByteArray file = QFile::encodeName(m_store->configFile("network"));
        QCOMPARE(truncate(file.constData(), std::numeric_limits<qint64>::max()), 0);
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_store->context(), "network", &package), int(UCI_ERR_MEM));
        QVERIFY(!package);
        struct stat status;
        QCOMPARE(stat(file.constData(), &status), 0);
        QCOMPARE(qint64(status.st_size), std::numeric_limits<qint64>::max());
    }

    void failedCommitCreatesNoPackageFile()
    {
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QVERIFY(QFile::remove(m_store->configFile("network")));
        const QString save = m_directory->filePath(QLatin1String("save"));
        QVERIFY(QDir().rmdir(save));
        UciStore::writeFile(save, "no directory");
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("network"), QByteArray("(missing)"));
        m_store->writeConfig("network", first);
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("network"), QByteArray(first));
    }

    void failedCommitDoesNotCreateTheTargetOfALink()
    {
        const QString target = m_directory->filePath(QLatin1String("target"));
        QVERIFY(QFile::rename(m_store->configFile("network"), target));
        QVERIFY(QFile::link(target, m_store->configFile("network")));
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QVERIFY(QFile::remove(target));
        const QString save = m_directory->filePath(QLatin1String("save"));
        QVERIFY(QDir().rmdir(save));
        UciStore::writeFile(save, "no directory");
        QCOMPARE(m_store->commit("network"), int(UCI_ERR_IO));
        QVERIFY(!QFile::exists(target));
        QCOMPARE(QFile::symLinkTarget(m_store->configFile("network")), target);
    }

    void failedFirstCommitCreatesNoPackageFile()
    {
        const QString config = m_directory->filePath(QLatin1String("config"));
        mountFullDisk(config);
        char text[] = "config t 'a'\n";
        FILE* stream = fmemopen(text, sizeof(text) - 1, "r");
        uci_package* package = nullptr;
        QCOMPARE(uci_import(m_store->context(), stream, "new", &package, true), int(UCI_OK));
        std::fclose(stream);
        fillUp(config + QLatin1String("/filler"));
        QCOMPARE(uci_commit(m_store->context(), &package, true), int(UCI_ERR_IO));
        QCOMPARE(m_store->config("new"), QByteArray("(missing)"));
        QFile::remove(config + QLatin1String("/filler"));
        QCOMPARE(uci_commit(m_store->context(), &package, true), int(UCI_OK));
        QCOMPARE(m_store->config("new"), QByteArray("\nconfig t 'a'\n\n"));
        NPrivateNamespace::unmount(config);
    }

    void fileSystemWithoutLocksIsUsedUnlocked_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<int>("result");
        QTest::newRow("no such system call") << ENOSYS << int(UCI_OK);
        QTest::newRow("not supported") << EOPNOTSUPP << int(UCI_OK);
        QTest::newRow("no lock manager") << ENOLCK << int(UCI_OK);
        QTest::newRow("another error") << EIO << int(UCI_ERR_IO);
    }

    void fileSystemWithoutLocksIsUsedUnlocked()
    {
        QFETCH(int, error);
        QFETCH(int, result);
        const NSystemCalls::Fault fault(NSystemCalls::Flock, error);
        QCOMPARE(m_store->set("network.lan.ip=2"), result);
        QCOMPARE(m_store->commit("network"), result);
        QCOMPARE(m_store->config("network"), QByteArray(result == UCI_OK ? second : first));
    }

    void filesAreFlushedInOrder()
    {
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        NSystemCalls::Record calls(NSystemCalls::Fsync | NSystemCalls::Fdatasync);
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(flushed(calls), QByteArray("network save")); /* a new file, so its directory as well */
        QCOMPARE(m_store->set("network.lan.a=1"), int(UCI_OK));
        calls.take();
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(flushed(calls), QByteArray("network"));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        /* The new contents, the mark, the directory of the replaced file, the emptied changes. */
        QCOMPARE(flushed(calls), QByteArray(".network.uci-new network config network"));
        QCOMPARE(m_store->set("network.lan.b=1"), int(UCI_OK));
        QCOMPARE(m_store->set("network.lan.c=1"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        calls.take();
        QCOMPARE(m_store->revert("network.lan.b"), int(UCI_OK));
        QCOMPARE(flushed(calls), QByteArray(".network.uci-new save"));
    }

    void stagedChangesOfAnOverridingPackageGetTheModeOfItsFile()
    {
        const QString over = m_directory->filePath(QLatin1String("over"));
        QVERIFY(QDir().mkpath(over));
        UciStore::writeFile(over + QLatin1String("/network"), first);
        QCOMPARE(chmod(QFile::encodeName(over + QLatin1String("/network")).constData(), 0600), 0);
        QCOMPARE(chmod(QFile::encodeName(m_store->configFile("network")).constData(), 0644), 0);
        QCOMPARE(uci_set_conf2dir(m_store->context(), QFile::encodeName(over).constData()), int(UCI_OK));
        QCOMPARE(m_store->set("network.lan.secret=x"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        struct stat status;
        QCOMPARE(stat(QFile::encodeName(m_store->stagedFile("network")).constData(), &status), 0);
        QCOMPARE(int(status.st_mode & 0777), 0600);
    }

    void modeAndOwnerOfThePackageFileAreKept()
    {
        const QByteArray file = QFile::encodeName(m_store->configFile("network"));
        struct stat before, after;
        QCOMPARE(chmod(file.constData(), 0640), 0);
        if (geteuid() == 0) {
            /* In a user namespace only the current user exists. */
            const int result = chown(file.constData(), 12, 34);
            Q_UNUSED(result);
        }
        QCOMPARE(stat(file.constData(), &before), 0);
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(stat(file.constData(), &after), 0);
        QVERIFY(before.st_ino != after.st_ino);
        QCOMPARE(after.st_mode, before.st_mode);
        QCOMPARE(after.st_uid, before.st_uid);
        QCOMPARE(after.st_gid, before.st_gid);
    }

    void ownerThatCannotBeKeptFailsTheCommit()
    {
        const QByteArray file = QFile::encodeName(m_store->configFile("network"));
        if (chown(file.constData(), 12, 34) < 0) {
            QCOMPARE(errno, EINVAL); /* in a user namespace only the current user exists */
            return;
        }
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        commitFailing(changeOwnerCall, EPERM);
        QCOMPARE(m_store->config("network"), QByteArray(first));
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.ip='2'\n"));
        QCOMPARE(
            QDir(m_directory->filePath(QLatin1String("config"))).entryList(QDir::Files | QDir::Hidden).size(), 1);
        struct stat status;
        QCOMPARE(stat(file.constData(), &status), 0);
        QCOMPARE(int(status.st_uid), 12);
    }

    void stagedLinesWithNulBytesAreRefusedAndPreventReverts_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("in a value") << QByteArray("network.lan.b='2\0003'\n", 20);
        QTest::newRow("in the section") << QByteArray("network.lan\0.b='2'\n", 19);
        QTest::newRow("before the line") << QByteArray("\0network.lan.b='2'\n", 19);
        QTest::newRow("after the value") << QByteArray("network.lan.b='2'\0\n", 19);
        QTest::newRow("NUL bytes only") << QByteArray("\0\0\0\n", 4);
    }

    void stagedLinesWithNulBytesAreRefusedAndPreventReverts()
    {
        QFETCH(QByteArray, line);
        const QByteArray staged = "network.lan.a='1'\n" + line + "network.lan.c='3'\n";
        m_store->writeStaged("network", staged);
        QCOMPARE(m_store->value("network.lan.a"), QByteArray("1"));
        QVERIFY(m_store->value("network.lan.b").isNull());
        QCOMPARE(m_store->value("network.lan.c"), QByteArray("3"));
        QCOMPARE(m_store->revert("network"), int(UCI_OK));
        QCOMPARE(m_store->staged("network"), staged);
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\toption ip '1'\n\toption a '1'\n\toption c '3'\n\n"));
    }

    void overwritingCommitWritesNoInvalidNames_data()
    {
        QTest::addColumn<QByteArray>("section");
        QTest::addColumn<QByteArray>("option");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("an option") << QByteArray("lan") << QByteArray("not a name") << QByteArray("1");
        QTest::newRow("a section") << QByteArray("not a name") << QByteArray() << QByteArray("interface");
    }

    void overwritingCommitWritesNoInvalidNames()
    {
        QFETCH(QByteArray, section);
        QFETCH(QByteArray, option);
        QFETCH(QByteArray, value);
        QCOMPARE(m_store->set("network.lan.ip=2"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        uci_package* package = uci_lookup_package(m_store->context(), "network");
        uci_ptr ptr = uci_ptr();
        ptr.p = package;
        ptr.section = section.constData();
        ptr.option = option.isNull() ? nullptr : option.constData();
        ptr.value = value.constData();
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_commit(m_store->context(), &package, true), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(second));
        QCOMPARE(m_store->staged("network"), QByteArray());
    }

    void interruptedCommitIsNotRepeatedByTheNextChange()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        QVERIFY(m_store->staged("network").startsWith("|network.lan.dns='b'\n#commit "));
        m_store->reopen();
        QCOMPARE(m_store->addList("network.lan.dns=c"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\tlist dns 'c'\n\n"));
        QCOMPARE(m_store->staged("network"), QByteArray());
    }

    /** The lines are such that applying them takes no memory. */
    void interruptedCommitIsNotRepeatedWhenMemoryRunsOut()
    {
        m_store->writeConfig("network", oneServer);
        const QByteArray line = "~network.lan.dns='" + QByteArray(1 << 20, 'x') + "'\n";
        QByteArray lines("|network.lan.dns='b'\n");
        for (int i = 0; i < 40; ++i)
            lines += line;
        m_store->writeStaged("network", lines);
        commitUntil(truncateCall);
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
        m_store->reopen();
        const pid_t child = fork();
        if (child == 0)
            _exit(loadWithin(3 * qint64(lines.size()) / 2));
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), int(UCI_ERR_MEM));
    }

    void interruptedCommitIsNotRepeatedAfterOneFromAnotherDirectory_data()
    {
        QTest::addColumn<bool>("isRead");
        QTest::newRow("which is separate") << false;
        QTest::newRow("whose program reads the first directory as well") << true;
    }

    void interruptedCommitIsNotRepeatedAfterOneFromAnotherDirectory()
    {
        QFETCH(bool, isRead);
        const QByteArray both = "\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\toption mtu '1'\n\n";
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        commitFromAnotherDirectory(isRead);
        QCOMPARE(m_store->config("network"), both);
        QCOMPARE(m_store->staged("network"), QByteArray());
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), both);
        QCOMPARE(filesBesideThePackages(), QStringList());
    }

    /** Lines after the mark were staged after the interruption. */
    void changesStagedAfterAnInterruptedCommitOutliveOneFromAnotherDirectory()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        m_store->reopen();
        QCOMPARE(m_store->addList("network.lan.dns=c"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        commitFromAnotherDirectory(false);
        QCOMPARE(m_store->staged("network"), QByteArray("|network.lan.dns='c'\n"));
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"), QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n"
                                                   "\tlist dns 'c'\n\toption mtu '1'\n\n"));
    }

    void changesThatAnInterruptedCommitHasNotWrittenOutliveOneFromAnotherDirectory()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(renameCall);
        commitFromAnotherDirectory(false);
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\toption mtu '1'\n\n"));
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\toption mtu '1'\n\n"));
        QCOMPARE(filesBesideThePackages(), QStringList());
    }

    /** As after a restart, if the directory is in memory. */
    void stagingDirectoryOfAnInterruptedCommitMayBeGone()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        QCOMPARE(filesBesideThePackages(), QStringList(QLatin1String(".network.uci-commit")));
        QVERIFY(QFile::remove(m_store->stagedFile("network")));
        m_store->reopen();
        QCOMPARE(m_store->set("network.lan.mtu=1"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\toption mtu '1'\n\n"));
        QCOMPARE(filesBesideThePackages(), QStringList());
    }

    void interruptedCommitIsNotReverted()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        m_store->reopen();
        QCOMPARE(m_store->revert("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
        QCOMPARE(m_store->staged("network"), QByteArray());
    }

    void valueWithTheTextOfAMarkIsAValue()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        const QByteArray mark = m_store->staged("network").mid(int(sizeof("|network.lan.dns='b'")));
        QVERIFY(mark.startsWith("#commit "));
        m_store->writeStaged("network", QByteArray());
        m_store->reopen();
        QCOMPARE(m_store->set("network.lan.before=1"), int(UCI_OK));
        QCOMPARE(m_store->set("network.lan.text=x\n" + mark), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        m_store->reopen();
        QCOMPARE(m_store->value("network.lan.before"), QByteArray("1"));
        QCOMPARE(m_store->value("network.lan.text"), "x\n" + mark);
    }

    void changesAreAppliedIfThePackageFileChangedAfterAnInterruptedCommit()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        m_store->writeConfig("network", oneServer);
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
    }

    void killedCommitLosesAndRepeatsNothing_data()
    {
        QTest::addColumn<int>("systemCall");
        QTest::addColumn<bool>("written");
        QTest::newRow("before the new file is flushed") << int(SYS_fsync) << false;
        QTest::newRow("before the package file is replaced") << renameCall << false;
        QTest::newRow("before the changes are emptied") << truncateCall << true;
    }

    void killedCommitLosesAndRepeatsNothing()
    {
        QFETCH(int, systemCall);
        QFETCH(bool, written);
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(systemCall);
        QCOMPARE(m_store->config("network"), QByteArray(written ? twoServers : oneServer));
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
        QCOMPARE(m_store->staged("network"), QByteArray());
    }

    void incompleteLineDoesNotSpoilTheNextChange()
    {
        m_store->writeStaged("network", "network.lan.a='1'\nnetwork.lan.b=2");
        QCOMPARE(m_store->set("network.lan.c=3"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        m_store->reopen();
        QCOMPARE(m_store->value("network.lan.a"), QByteArray("1"));
        QCOMPARE(m_store->value("network.lan.c"), QByteArray("3"));
    }

    void incompleteQuotedLineDoesNotSpoilTheNextChange_data()
    {
        QTest::addColumn<QByteArray>("half");
        QTest::newRow("within a value") << QByteArray("network.lan.b='half");
        QTest::newRow("after a newline of the value") << QByteArray("network.lan.b='half\n");
        QTest::newRow("after a backslash") << QByteArray("network.lan.b='it'\\");
        QTest::newRow("after a backslash and a newline") << QByteArray("network.lan.b='it'\\\n");
        QTest::newRow("within double quotes") << QByteArray("network.lan.b=\"half\\\n");
    }

    void incompleteQuotedLineDoesNotSpoilTheNextChange()
    {
        QFETCH(QByteArray, half);
        m_store->writeStaged("network", "network.lan.a='1'\n" + half);
        QCOMPARE(m_store->set("network.lan.c=3"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(m_store->staged("network"), QByteArray("network.lan.a='1'\nnetwork.lan.c='3'\n"));
        m_store->reopen();
        QCOMPARE(m_store->value("network.lan.a"), QByteArray("1"));
        QCOMPARE(m_store->value("network.lan.b"), QByteArray());
        QCOMPARE(m_store->value("network.lan.c"), QByteArray("3"));
    }

    /** Here the store already knows the lines before it, and does not read them again. */
    void incompleteQuotedLineOfAnotherProgramDoesNotSpoilTheNextChange_data()
    {
        incompleteQuotedLineDoesNotSpoilTheNextChange_data();
    }

    void incompleteQuotedLineOfAnotherProgramDoesNotSpoilTheNextChange()
    {
        QFETCH(QByteArray, half);
        QCOMPARE(m_store->set("network.lan.a=1\n2"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        m_store->writeStaged("network", m_store->staged("network") + "network.lan.x='1'\n" + half);
        QCOMPARE(m_store->set("network.lan.c=3"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        const QByteArray expected = "network.lan.a='1\n2'\nnetwork.lan.x='1'\nnetwork.lan.c='3'\n";
        QCOMPARE(m_store->staged("network"), expected);

        /* Another commit has emptied the file, which then became longer than it was. */
        const QByteArray longer = "network.lan.y='" + QByteArray(500, '\n') + "'\n";
        m_store->writeStaged("network", longer + half);
        QCOMPARE(m_store->set("network.lan.c=4"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(m_store->staged("network"), longer + "network.lan.c='4'\n");

        /* Another revert has replaced the file. */
        QVERIFY(QFile::remove(m_store->stagedFile("network")));
        m_store->writeStaged("network", expected + expected + half);
        QCOMPARE(m_store->set("network.lan.c=5"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QCOMPARE(m_store->staged("network"), expected + expected + "network.lan.c='5'\n");
    }

    void stagingReadsNoMoreTheMoreIsStaged()
    {
        QByteArray lines;
        for (int i = 0; i < 8000; ++i)
            lines += "network.lan.o" + QByteArray::number(i) + "='value'\n";
        m_store->writeStaged("network", lines);
        m_store->reopen();
        QCOMPARE(m_store->set("network.lan.a=1"), int(UCI_OK));
        qint64 bytes = 0;
        const NSystemCalls::Notice reads(
            NSystemCalls::Calls(NSystemCalls::Pread | NSystemCalls::Read),
            [&bytes](const NSystemCalls::Invocation& call) { bytes += qint64(call.size); });
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QVERIFY(bytes < 1000);
        /* What another program has staged is read, but no more. */
        m_store->writeStaged("network", m_store->staged("network") + "network.lan.b='2'\n");
        bytes = 0;
        QCOMPARE(m_store->set("network.lan.a=2"), int(UCI_OK));
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        QVERIFY(bytes < 1000);
        QCOMPARE(m_store->staged("network"), lines + "network.lan.a='1'\nnetwork.lan.b='2'\nnetwork.lan.a='2'\n");
    }

    void incompleteQuotedLineAfterAMarkDoesNotRemoveTheMark()
    {
        m_store->writeConfig("network", oneServer);
        QCOMPARE(m_store->addList("network.lan.dns=b"), int(UCI_OK));
        commitUntil(truncateCall);
        m_store->writeStaged("network", m_store->staged("network") + "network.lan.b='half");
        m_store->reopen();
        QCOMPARE(m_store->set("network.lan.c=3"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig interface 'lan'\n\tlist dns 'a'\n\tlist dns 'b'\n\toption c '3'\n\n"));
    }

    void incompleteQuotedLineDoesNotHideAnInterruptedCommit_data()
    {
        incompleteQuotedLineDoesNotSpoilTheNextChange_data();
    }

    void incompleteQuotedLineDoesNotHideAnInterruptedCommit()
    {
        QFETCH(QByteArray, half);
        m_store->writeConfig("network", oneServer);
        m_store->writeStaged("network", "|network.lan.dns='b'\n" + half);
        commitUntil(truncateCall);
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
        m_store->reopen();
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), QByteArray(twoServers));
        QCOMPARE(m_store->staged("network"), QByteArray());
    }

    void failedCommitKeepsTheCompleteLines()
    {
        m_store->writeConfig("network", oneServer);
        m_store->writeStaged("network", "|network.lan.dns='b'\nnetwork.lan.b='half\n");
        commitFailing(renameCall, EROFS);
        QCOMPARE(m_store->config("network"), QByteArray(oneServer));
        QCOMPARE(m_store->staged("network"), QByteArray("|network.lan.dns='b'\n"));
    }

    void whatCannotBeReadBackIsRefused_data()
    {
        QTest::addColumn<int>("command");
        QTest::addColumn<QByteArray>("section");
        QTest::addColumn<QByteArray>("option");
        QTest::addColumn<QByteArray>("value");
        const char* const names[] = {
            "b c", "a'b", "a\"b", "a='1'\nnetwork.lan.ip", "ip=x", "ip#x", "ip;x", "ip\\", "a-b", "\xc3\xa4", ""};
        for (const char* name : names) {
            const QByteArray title = QByteArray("'") + name + "'";
            if (*name)
                refusedRow("an option " + title, UCI_CMD_CHANGE, "lan", name, "line1\nline2");
            refusedRow("a list " + title, UCI_CMD_LIST_ADD, "lan", name, "line1\nline2");
            refusedRow("a section " + title, UCI_CMD_CHANGE, name, QByteArray(), "interface");
            refusedRow("a new name of an option, " + title, UCI_CMD_RENAME, "lan", "ip", name);
            refusedRow("a new name of a section, " + title, UCI_CMD_RENAME, "lan", QByteArray(), name);
        }
        refusedRow("a section with a dot", UCI_CMD_CHANGE, "lan.ip", QByteArray(), "interface");
        refusedRow("a section by index", UCI_CMD_CHANGE, "@interface[0]", QByteArray(), "interface");
        refusedRow("a name that another option has", UCI_CMD_RENAME, "lan", "ip", "mtu");
        refusedRow("a name that another section has", UCI_CMD_RENAME, "lan", QByteArray(), "wan");
        const char* const types[] = {"a b", "line1\nline2", "\xc3\xa4", "\x7f"};
        for (const char* type : types) {
            const QByteArray title = QByteArray("'") + type + "'";
            refusedRow("a type " + title, UCI_CMD_CHANGE, "new", QByteArray(), type);
            refusedRow("another type " + title, UCI_CMD_CHANGE, "lan", QByteArray(), type);
            refusedRow("a type of an unnamed section, " + title, UCI_CMD_ADD, QByteArray(), QByteArray(), type);
        }
        for (int byte = 1; byte < 32; ++byte) {
            if (byte == '\t' || byte == '\n' || byte == '\r')
                continue;
            const QByteArray value = QByteArray("x") + char(byte) + "y";
            const QByteArray title = "byte " + QByteArray::number(byte);
            refusedRow(title + " in a value", UCI_CMD_CHANGE, "lan", "ip", value);
            refusedRow(title + " in a value of a list", UCI_CMD_LIST_ADD, "lan", "dns", value);
            refusedRow(title + " in a value to remove", UCI_CMD_LIST_DEL, "lan", "dns", value);
            refusedRow(title + " in an index", UCI_CMD_REMOVE, "lan", "dns", "0" + value);
        }
    }

    void whatCannotBeReadBackIsRefused()
    {
        QFETCH(int, command);
        QFETCH(QByteArray, section);
        QFETCH(QByteArray, option);
        QFETCH(QByteArray, value);
        const QByteArray before = "\nconfig interface 'lan'\n\toption ip '1'\n\toption mtu '2'\n\tlist dns 'a'\n";
        const QByteArray after = "\nconfig interface 'wan'\n\n";
        m_store->writeConfig("network", before + after);
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = section.constData();
        ptr.option = option.isNull() ? nullptr : option.constData();
        ptr.value = value.constData();
        QCOMPARE(change(command, &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(m_store->set("network.lan.one=1"), int(UCI_OK));
        QCOMPARE(m_store->set("network.lan.two=2"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(m_store->config("network"), before + "\toption one '1'\n\toption two '2'\n" + after);
    }

    /** The lines of its changes would not be read as changes of this package. */
    void packagesThatStagedChangesCannotNameAreNotChanged_data()
    {
        QTest::addColumn<QByteArray>("name");
        const char* const names[] = {"it's", "a\"b", "a\\b", "a#b", "a;b", "a.b", "a=b",
                                     "-a",   "+a",   "@a",   "^a",  "|a",  "~a"};
        for (const char* name : names)
            QTest::newRow(name) << QByteArray(name);
    }

    void packagesThatStagedChangesCannotNameAreNotChanged()
    {
        QFETCH(QByteArray, name);
        const QByteArray text = "\nconfig interface 'lan'\n\tlist dns 'a'\n\n";
        m_store->writeConfig(name.constData(), text);
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_store->context(), name.constData(), &package), int(UCI_OK));
        uci_ptr ptr = uci_ptr();
        ptr.p = package;
        QCOMPARE(uci_add_section(m_store->context(), package, "interface", &ptr.s), int(UCI_ERR_INVAL));
        ptr.section = "lan";
        QCOMPARE(uci_delete(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_reorder_section(m_store->context(), ptr.s, 1), int(UCI_ERR_INVAL));
        ptr.value = "other";
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_rename(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        ptr.option = "dns";
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_add_list(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_del_list(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_rename(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        ptr.value = "0";
        QCOMPARE(uci_delete(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_save(m_store->context(), package), int(UCI_OK));
        QCOMPARE(m_store->staged(name.constData()), QByteArray("(missing)"));
        QCOMPARE(m_store->config(name.constData()), text);
    }

    /** A package that is exported with generated names has sections with such names. */
    void addedSectionsGetAFreeName()
    {
        m_store->writeConfig("network", "config route 'cfg03c8b4'\n\noption a 1\n\nconfig route\n\noption a 2\n");
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_store->context(), "network", &package), int(UCI_OK));
        uci_ptr ptr = uci_ptr();
        QCOMPARE(uci_add_section(m_store->context(), package, "route", &ptr.s), int(UCI_OK));
        QCOMPARE(QByteArray(ptr.s->e.name), QByteArray("cfg04c8b4"));
        ptr.option = "a";
        ptr.value = "3";
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"), QByteArray("\nconfig route 'cfg03c8b4'\n\toption a '1'\n"
                                                   "\nconfig route\n\toption a '2'\n"
                                                   "\nconfig route\n\toption a '3'\n\n"));
    }

    /** Another program may have added or renamed a section since. */
    void stagedNamesThatAreTakenAreRefused()
    {
        m_store->writeConfig("network", "config t 'a'\n\toption x 1\n\toption y 2\nconfig u 'b'\n");
        m_store->writeStaged("network", "@network.a='b'\n@network.a.x='y'\nnetwork.a.z='3'\n");
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(
            m_store->config("network"),
            QByteArray("\nconfig t 'a'\n\toption x '1'\n\toption y '2'\n\toption z '3'\n\nconfig u 'b'\n\n"));
    }

    void fileOutsideIsNotWrittenWithAnInvalidName()
    {
        const QByteArray path = QFile::encodeName(m_directory->filePath(QLatin1String("outside")));
        UciStore::writeFile(QFile::decodeName(path), first);
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_store->context(), path.constData(), &package), int(UCI_OK));
        uci_ptr ptr = uci_ptr();
        ptr.p = package;
        ptr.section = "lan";
        ptr.option = "not a name";
        ptr.value = "1";
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_save(m_store->context(), package), int(UCI_OK));
        QCOMPARE(UciStore::readFile(QFile::decodeName(path)), QByteArray(first));
        /* Its changes are not staged, so that values may have any bytes. */
        ptr.option = "ip";
        ptr.value = "\x01";
        QCOMPARE(uci_set(m_store->context(), &ptr), int(UCI_OK));
        QCOMPARE(uci_save(m_store->context(), package), int(UCI_OK));
        QCOMPARE(UciStore::readFile(QFile::decodeName(path)), QByteArray(first).replace("'1'", "'\x01'"));
    }

    /** The killed process adds numbered items; each one that it has reported as committed has to be there once. */
    void killedProcessLeavesTheOldOrTheNewFile()
    {
        m_store->writeConfig("network", "\nconfig interface 'lan'\n\tlist n '0'\n\n");
        std::srand(1);
        int known = 0;
        for (int round = 0; round < 1000; ++round) {
            const int reported = runAndKill(known + 1);
            m_store->reopen();
            const QByteArray text = m_store->config("network");
            const int found = countItems(text);
            QVERIFY2(found >= 0, text.constData());
            QVERIFY2(found >= reported, text.constData());
            known = found;
            if (known < 30)
                continue;
            m_store->writeConfig("network", "\nconfig interface 'lan'\n\tlist n '0'\n\n");
            m_store->writeStaged("network", QByteArray());
            known = 0;
        }
        m_store->writeStaged("network", QByteArray());
        QCOMPARE(m_store->set("network.lan.last=1"), int(UCI_OK));
        QCOMPARE(m_store->commit("network"), int(UCI_OK));
        QCOMPARE(filesBesideThePackages(), QStringList());
    }

private:
    static void refusedRow(
        const QByteArray& title, uci_command command, const QByteArray& section, const QByteArray& option,
        const QByteArray& value)
    {
        QTest::newRow(title.constData()) << int(command) << section << option << value;
    }

    /** Calls the function of the store that makes this change. */
    int change(int command, uci_ptr* ptr)
    {
        uci_context* context = m_store->context();
        uci_package* package = nullptr;
        switch (command) {
        case UCI_CMD_ADD:
            if (uci_load(context, ptr->package, &package) != UCI_OK)
                return -1;
            return uci_add_section(context, package, ptr->value, &ptr->s);
        case UCI_CMD_CHANGE:
            return uci_set(context, ptr);
        case UCI_CMD_RENAME:
            return uci_rename(context, ptr);
        case UCI_CMD_LIST_ADD:
            return uci_add_list(context, ptr);
        case UCI_CMD_LIST_DEL:
            return uci_del_list(context, ptr);
        default:
            return uci_delete(context, ptr);
        }
    }

    /** Sets an option and commits it with another staging directory. */
    void commitFromAnotherDirectory(bool readsTheFirst)
    {
        const QByteArray save = QFile::encodeName(m_directory->filePath(QLatin1String("other")));
        const QByteArray config = QFile::encodeName(m_directory->filePath(QLatin1String("config")));
        const QByteArray first = QFile::encodeName(m_directory->filePath(QLatin1String("save")));
        uci_context* const context = uci_alloc_context();
        QCOMPARE(uci_set_confdir(context, config.constData()), int(UCI_OK));
        if (readsTheFirst)
            QCOMPARE(uci_set_savedir(context, first.constData()), int(UCI_OK));
        QCOMPARE(uci_set_savedir(context, save.constData()), int(UCI_OK));
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "lan";
        ptr.option = "mtu";
        ptr.value = "1";
        QCOMPARE(uci_set(context, &ptr), int(UCI_OK));
        QCOMPARE(uci_commit(context, &ptr.p, false), int(UCI_OK));
        uci_free_context(context);
    }

    QStringList filesBesideThePackages() const
    {
        QStringList names = QDir(m_directory->filePath(QLatin1String("config")))
                                .entryList(QDir::Files | QDir::System | QDir::Hidden);
        names.removeAll(QLatin1String("network"));
        return names;
    }

    /** Loads the package with so much more memory. @return its result. */
    int loadWithin(qint64 bytes)
    {
        long pages = 0;
        FILE* stream = std::fopen("/proc/self/statm", "r");
        if (!stream || std::fscanf(stream, "%ld", &pages) != 1)
            return -1;
        std::fclose(stream);
        rlimit limit;
        limit.rlim_cur = limit.rlim_max = rlim_t(qint64(pages) * sysconf(_SC_PAGESIZE) + bytes);
        if (setrlimit(RLIMIT_AS, &limit) < 0)
            return -1;
        m_store->context()->flags = UCI_FLAG_STRICT; /* the list of staged changes would take memory as well */
        uci_package* package = nullptr;
        return uci_load(m_store->context(), "network", &package);
    }

    /** The names of the files and directories that were flushed since the last time, in that order. */
    static QByteArray flushed(NSystemCalls::Record& calls)
    {
        QByteArray names;
        for (const QByteArray& call : calls.take())
            names += call.mid(call.indexOf(' '));
        return names.trimmed();
    }

    /** Stages the pending changes, and commits in a process that is killed at a system call. */
    void commitUntil(int systemCall)
    {
        int status = 0;
        commitWith(systemCall, SECCOMP_RET_KILL_PROCESS, &status);
        QVERIFY(WIFSIGNALED(status));
    }

    /** Stages the pending changes, and commits in a process whose system call fails. */
    void commitFailing(int systemCall, int error)
    {
        int status = 0;
        commitWith(systemCall, SECCOMP_RET_ERRNO | quint32(error), &status);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), int(UCI_ERR_IO));
    }

    void commitWith(int systemCall, quint32 action, int* status)
    {
        QCOMPARE(m_store->save("network"), int(UCI_OK));
        const pid_t child = fork();
        if (child == 0) {
            failAt(systemCall, action);
            _exit(m_store->commit("network"));
        }
        QCOMPARE(waitpid(child, status, 0), child);
    }

    /** The number of the last item, if the file is complete and has each number up to it once; -1 otherwise. */
    static int countItems(const QByteArray& text)
    {
        QByteArray expected("\nconfig interface 'lan'\n");
        const int count = text.count("\tlist n ");
        for (int i = 0; i < count; ++i)
            expected += "\tlist n '" + QByteArray::number(i) + "'\n";
        return text == expected + '\n' ? count - 1 : -1;
    }

    /** Commits items from @a next on in another process and kills it. @return the last number reported. */
    int runAndKill(int next)
    {
        int report[2];
        if (pipe(report) < 0)
            qFatal("no pipe");
        const pid_t child = fork();
        if (child == 0)
            commitForever(next, report[1]);
        ::close(report[1]);
        int number = next - 1;
        /* Wait until the process is running, then until a random moment. */
        if (::read(report[0], &number, sizeof(number)) != ssize_t(sizeof(number)))
            qFatal("the other process ended");
        usleep(useconds_t(std::rand() % 1000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (::read(report[0], &number, sizeof(number)) == ssize_t(sizeof(number))) {
        }
        ::close(report[0]);
        return number;
    }

    void commitForever(int next, int report)
    {
        m_store->reopen();
        /* The last process may have staged a change before it was killed; it must not be added again. */
        m_store->revert("network");
        int known = -1;
        while (::write(report, known < 0 ? &(known = next - 1) : &known, sizeof(known)) > 0) {
            const QByteArray number = QByteArray::number(known + 1);
            if (m_store->addList("network.lan.n=" + number) != UCI_OK || m_store->commit("network") != UCI_OK)
                _exit(1);
            ++known;
        }
        _exit(1);
    }

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<UciStore> m_store;
};

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, TestUciFaults, NPrivateNamespace::Mounts)
#include "tst_ucifaults.moc"
