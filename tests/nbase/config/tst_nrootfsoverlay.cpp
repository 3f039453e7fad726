#include <nbase/config/nrootfsoverlay.h>

#include "support/nchildprocess.h"
#include "support/nmounttable.h"
#include "support/nprivatenamespace.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const Configuration = "/etc/nrootfsoverlay/nrootfsoverlay.conf";
const char* const AutoBackup = "/rootfsoverlay/.autobackup";
const char* const BootAction = "/rootfsoverlay/.bootaction";
const char* const ReadOnlyFlag = "/sys/block/mmcblk1/ro";
const char* const CardId = "/sys/block/mmcblk1/device/cid";
const char* const ValidConfiguration = "backup: { mmc = 1; partition = 2; dir = \"saved/overlay\"; };\n";

const int Flushing = NSystemCalls::Fsync | NSystemCalls::Fdatasync;

void write(const char* path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(latin1(path)).path());
    QFile file(latin1(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        qFatal("cannot write %s", path);
}

// The content of a file; null when it does not exist.
QByteArray read(const char* path)
{
    QFile file(latin1(path));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray content = file.readAll();
    return content.isNull() ? QByteArray("") : content;
}

void removeEntry(const char* path)
{
    if (::remove(path) != 0 && errno != ENOENT)
        qFatal("cannot remove %s", path);
}

// A text that the library has allocated.
QByteArray taken(char* allocated)
{
    const QByteArray result(allocated);
    free(allocated);
    return result;
}

void mountAs(const char* device, const char* path, const char* options = "mode=755")
{
    if (::mount(device, path, "tmpfs", 0, options) != 0)
        qFatal("cannot mount at %s", path);
}

void unmount(const char* path)
{
    NPrivateNamespace::unmount(latin1(path));
}

} // namespace

class tst_NRootfsOverlay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void withoutConfigurationNothingIsKnown();
    void configurationIsReadWhenItAppears();
    void namesAreKept();
    void configurationsAreChecked_data();
    void configurationsAreChecked();
    void longDirectoryIsTruncated();
    void cProgramGetsTheSameResults();

    void mountpointsAreFound();
    void mountpointsOfDirectoriesAreFound();
    void firstEntryOfTheTableCounts();
    void mountTablesOfAnyFormAreRead_data();
    void mountTablesOfAnyFormAreRead();
    void missingMountTableIsAnError();
    void overlayNeedsTheMountAndTheEntry();
    void mediaIsMounted();
    void readOnlyFlagIsRead_data();
    void readOnlyFlagIsRead();
    void cardIdIsItsFirstLine_data();
    void cardIdIsItsFirstLine();
    void fileWithoutALineEndIsRejected();

    void bootActionsHaveTheirWords_data();
    void bootActionsHaveTheirWords();
    void bootActionIsItsFirstLine_data();
    void bootActionIsItsFirstLine();
    void bootActionIsWritten_data();
    void bootActionIsWritten();
    void autoBackupIsWrittenAndRemoved();
    void markersThatAreDirectories();
    void markersThatCannotBeRead();
    void markersThatCannotBeWritten();
    void fullDiskKeepsTheMarkers();
    void closingDecidesWhetherAMarkerIsWritten();
    void markersAreFlushedToTheDisk();
    void leftoversOfAPowerLossAreRemovedByTheNextChange();
    void markersKeepTheirModeAndOwner();
    void linkToAMarkerIsFollowed();
    void nonRegularMarkersAreNotChanged();
    void processesMayWriteConcurrently();

    void overlayMustBeMounted();
    void mediaMustBeMountedAndWritable();
    void restoreIsRefusedWithAutoBackup();
    void enablingCancelsAPendingRestore();
    void restoreThatCannotBeCancelledDoesNotStopEnabling();
    void enablingNeedsAnIdentifier();
    void wipeMayAlwaysBeRequested();
    void disablingNeedsNoMedia();
};

void tst_NRootfsOverlay::initTestCase()
{
    NPrivateNamespace::mountEmptyDirectory(latin1("/etc/nrootfsoverlay"));
    NPrivateNamespace::mountEmptyDirectory(latin1("/sys/block"));
    NPrivateNamespace::mountEmptyDirectory(latin1("/rootfsoverlay"));
    NPrivateNamespace::mountEmptyDirectory(latin1("/media"));
    QVERIFY(QDir().mkpath(latin1("/media/backup")));
}

// The overlay and the media are mounted, the card is writable, nothing is pending.
void tst_NRootfsOverlay::init()
{
    mountAs("overlayfs:/rootfsoverlay", "/rootfsoverlay");
    mountAs("/dev/mmcblk1p2", "/media/backup");
    write(ReadOnlyFlag, "0\n");
    write(CardId, "0353445355313647805d3fb2a500c4b7\n");
}

void tst_NRootfsOverlay::cleanup()
{
    unmount("/media/backup");
    unmount("/rootfsoverlay");
}

void tst_NRootfsOverlay::withoutConfigurationNothingIsKnown()
{
    removeEntry(Configuration);
    QVERIFY(!nroBackupConf());
    QVERIFY(!nroBackupDirPath());
    QVERIFY(!nroBackupMediaMmcDeviceName());
    QVERIFY(!nroBackupMediaName());
    QVERIFY(!nroBackupMediaDevPath());
    errno = 0;
    QVERIFY(!nroBackupMediaId());
    QCOMPARE(errno, ENODATA);
    errno = 0;
    QVERIFY(!nroBackupMediaMountpoint());
    QCOMPARE(errno, ENODATA);
    QCOMPARE(nroIsBackupMediaMounted(), 0);
    errno = 0;
    QCOMPARE(nroIsBackupMediaReadOnly(), 0);
    QCOMPARE(errno, ENODATA);
    QCOMPARE(nroSetAutoBackupEnabled(1), 2);
    QVERIFY(NRootfsOverlay::backupMediaMmcDeviceName().isNull());
    QVERIFY(NRootfsOverlay::backupMediaName().isNull());
}

void tst_NRootfsOverlay::configurationIsReadWhenItAppears()
{
    write(Configuration, "backup: { mmc = 1; partition = 0; dir = \"x\"; };\n");
    QVERIFY(!nroBackupConf());
    write(Configuration, ValidConfiguration);
    const NroBackupConf* const configuration = nroBackupConf();
    QVERIFY(configuration);
    QCOMPARE(configuration->mmc, 1);
    QCOMPARE(configuration->partition, 2);
    QCOMPARE(configuration->dir, "saved/overlay");
}

void tst_NRootfsOverlay::namesAreKept()
{
    QCOMPARE(nroBackupMediaMmcDeviceName(), "mmcblk1");
    write(Configuration, "backup: { mmc = 7; partition = 8; dir = \"other\"; };\n");
    QCOMPARE(nroBackupConf()->mmc, 1);
    QCOMPARE(nroBackupDirPath(), "saved/overlay");
    QCOMPARE(nroBackupMediaMmcDeviceName(), "mmcblk1");
    QCOMPARE(nroBackupMediaName(), "mmcblk1p2");
    QCOMPARE(nroBackupMediaDevPath(), "/dev/mmcblk1p2");
    QCOMPARE(NRootfsOverlay::backupMediaMmcDeviceName(), latin1("mmcblk1"));
    QCOMPARE(NRootfsOverlay::backupMediaName(), latin1("mmcblk1p2"));
    write(Configuration, ValidConfiguration);
}

void tst_NRootfsOverlay::configurationsAreChecked_data()
{
    QTest::addColumn<QByteArray>("configuration");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray names = "conf=%1,%2,d\ndir=d\nmmc=mmcblk%1\nmedia=mmcblk%1p%2\ndevice=/dev/mmcblk%1p%2\n";
    const QByteArray none = "dir=NULL\nmmc=NULL\nmedia=NULL\ndevice=NULL\nid=NULL\n";
    QTest::newRow("valid") << QByteArray("backup: { mmc = 0; partition = 1; dir = \"d\"; };")
                           << QByteArray(names).replace("%1", "0").replace("%2", "1");
    QTest::newRow("large") << QByteArray("backup = { dir = \"d\"; partition = 2147483647; mmc = 2147483647; };")
                           << QByteArray(names).replace("%1", "2147483647").replace("%2", "2147483647");
    QTest::newRow("comments and more") << QByteArray(
                                              "# x\nother = 1;\nbackup: { mmc = 3; /* y */ partition = 4; dir = "
                                              "\"d\"; list = [1, 2]; };")
                                       << QByteArray(names).replace("%1", "3").replace("%2", "4");
    QTest::newRow("empty") << QByteArray() << none;
    QTest::newRow("negative device") << QByteArray("backup: { mmc = -1; partition = 1; dir = \"d\"; };") << none;
    QTest::newRow("partition 0") << QByteArray("backup: { mmc = 1; partition = 0; dir = \"d\"; };") << none;
    QTest::newRow("no device") << QByteArray("backup: { partition = 1; dir = \"d\"; };") << none;
    QTest::newRow("no partition") << QByteArray("backup: { mmc = 1; dir = \"d\"; };") << none;
    QTest::newRow("no directory") << QByteArray("backup: { mmc = 1; partition = 2; };") << none;
    QTest::newRow("text for a number") << QByteArray("backup: { mmc = \"1\"; partition = 2; dir = \"d\"; };")
                                       << none;
    QTest::newRow("number for a text") << QByteArray("backup: { mmc = 1; partition = 2; dir = 3; };") << none;
    QTest::newRow("no group") << QByteArray("mmc = 1; partition = 2; dir = \"d\";") << none;
    QTest::newRow("syntax error") << QByteArray("backup: { mmc = 1; partition = 2; dir = \"d\"") << none;
}

void tst_NRootfsOverlay::configurationsAreChecked()
{
    QFETCH(QByteArray, configuration);
    QFETCH(QByteArray, expected);
    write(Configuration, configuration);
    QProcess program;
    program.start(latin1(NBASE_C_PROGRAM), QStringList());
    QVERIFY(program.waitForFinished());
    const QByteArray output = program.readAllStandardOutput();
    QVERIFY2(output.startsWith(expected), output.constData());
    write(Configuration, ValidConfiguration);
}

void tst_NRootfsOverlay::longDirectoryIsTruncated()
{
    write(Configuration, "backup: { mmc = 1; partition = 2; dir = \"" + QByteArray(10000, 'x') + "\"; };\n");
    QProcess program;
    program.start(latin1(NBASE_C_PROGRAM), QStringList());
    QVERIFY(program.waitForFinished());
    QVERIFY(program.readAllStandardOutput().contains("\ndir=" + QByteArray(4095, 'x') + "\n"));
    removeEntry(Configuration);
    QVERIFY(QDir().mkpath(latin1(Configuration)));
    program.start(latin1(NBASE_C_PROGRAM), QStringList());
    QVERIFY(program.waitForFinished());
    QVERIFY(program.readAllStandardOutput().startsWith("dir=NULL\n"));
    removeEntry(Configuration);
    write(Configuration, ValidConfiguration);
}

void tst_NRootfsOverlay::cProgramGetsTheSameResults()
{
    QProcess program;
    program.start(latin1(NBASE_C_PROGRAM), QStringList());
    QVERIFY(program.waitForFinished());
    QCOMPARE(
        program.readAllStandardOutput().constData(),
        "conf=1,2,saved/overlay\ndir=saved/overlay\nmmc=mmcblk1\nmedia=mmcblk1p2\ndevice=/dev/mmcblk1p2\n"
        "id=0353445355313647805d3fb2a500c4b7\nauto id=NULL\n/proc=1\nmountpoint of "
        "overlay=/rootfsoverlay\noverlay=1\n"
        "mountpoint=/media/backup\nmounted=1\nread-only=0\nauto=0\nrestore=1,1\ncan auto=0\ncan restore=0\nset "
        "wipe=0\n"
        "action=0\nwrite none=1\nwrite auto=1\nset auto=0\n");
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(read(AutoBackup), QByteArray("0353445355313647805d3fb2a500c4b7"));
}

void tst_NRootfsOverlay::mountpointsAreFound()
{
    QCOMPARE(taken(nroFindMountpoint("/dev/mmcblk1p2")), QByteArray("/media/backup"));
    const char* const others[] = {"/dev/mmcblk1p", "/dev/mmcblk1p22", "dev/mmcblk1p2", "/dev/mmcblk1p2/"};
    for (const char* other : others) {
        errno = EINVAL;
        QVERIFY2(!nroFindMountpoint(other), other);
        QCOMPARE(errno, 0);
    }
    QVERIFY(!nroFindMountpoint(nullptr));
    const QByteArray longName = "/dev/" + QByteArray(4000, 'd');
    QVERIFY(QDir().mkpath(latin1("/media/a b")));
    mountAs(longName.constData(), "/media/a b");
    QCOMPARE(taken(nroFindMountpoint(longName.constData())), QByteArray("/media/a\\040b"));
    unmount("/media/a b");
}

void tst_NRootfsOverlay::mountpointsOfDirectoriesAreFound()
{
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay"), 1);
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay/"), 1);
    QCOMPARE(nroPathIsMoutpoint("/"), 1);
    QCOMPARE(nroPathIsMoutpoint("/proc"), 1);
    QVERIFY(QDir().mkpath(latin1("/rootfsoverlay/directory")));
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay/directory"), 0);
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay/missing"), 0);
    write("/rootfsoverlay/file", "x");
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay/file"), 0);
    QVERIFY(::symlink("/proc", "/rootfsoverlay/link") == 0);
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay/link"), 0);
    QCOMPARE(nroPathIsMoutpoint(""), 0);
    QCOMPARE(nroPathIsMoutpoint(nullptr), 0);
    QCOMPARE(nroPathIsMoutpoint(QByteArray(100000, '/').constData()), 0);
}

void tst_NRootfsOverlay::firstEntryOfTheTableCounts()
{
    QVERIFY(QDir().mkpath(latin1("/media/second")));
    mountAs("/dev/mmcblk1p2", "/media/second");
    QCOMPARE(taken(nroBackupMediaMountpoint()), QByteArray("/media/backup"));
    unmount("/media/second");
}

void tst_NRootfsOverlay::mountTablesOfAnyFormAreRead_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<QByteArray>("mountpoint");
    const QByteArray device = "/dev/mmcblk1p2";
    const QByteArray longText(3 * 1000 * 1000, 'x');
    QTest::newRow("empty") << QByteArray() << QByteArray();
    QTest::newRow("no line end") << device + " /a vfat" << QByteArray("/a");
    QTest::newRow("no further blank") << device + " /a" << QByteArray();
    QTest::newRow("no further blank in the first of two") << device + " /a\n" + device + " /b vfat\n"
                                                          << QByteArray();
    QTest::newRow("nothing behind the device") << device << QByteArray();
    QTest::newRow("only a blank behind the device") << device + " " << QByteArray();
    QTest::newRow("empty mount point") << device + "  vfat\n" << QByteArray("");
    QTest::newRow("tab") << device + "\t/a vfat\n" << QByteArray();
    QTest::newRow("inside the line") << "x " + device + " /a vfat\n" << QByteArray();
    QTest::newRow("blank before") << " " + device + " /a vfat\n" << QByteArray();
    QTest::newRow("behind a long line") << longText + "\n" + device + " /a vfat\n" << QByteArray("/a");
    QTest::newRow("long mount point") << device + " /" + longText + " vfat\n"
                                      << "/" + longText;
    QTest::newRow("NUL before") << QByteArray("\0\n", 2) + device + " /a vfat\n" << QByteArray("/a");
}

void tst_NRootfsOverlay::mountTablesOfAnyFormAreRead()
{
    QFETCH(QByteArray, table);
    QFETCH(QByteArray, mountpoint);
    NMountTable mountTable;
    mountTable.write(table);
    char* const found = nroFindMountpoint("/dev/mmcblk1p2");
    const int error = errno;
    QCOMPARE(found == nullptr, mountpoint.isNull());
    QCOMPARE(taken(found), mountpoint);
    QCOMPARE(error, 0);
}

void tst_NRootfsOverlay::missingMountTableIsAnError()
{
    const NMountTable mountTable;
    QVERIFY(!nroFindMountpoint("/dev/mmcblk1p2"));
    QCOMPARE(errno, ENOENT);
    QCOMPARE(nroIsRootfsOverlayMounted(), 0);
}

void tst_NRootfsOverlay::overlayNeedsTheMountAndTheEntry()
{
    QCOMPARE(nroIsRootfsOverlayMounted(), 1);
    mountAs("something else", "/rootfsoverlay");
    QCOMPARE(nroIsRootfsOverlayMounted(), 1);
    unmount("/rootfsoverlay");
    unmount("/rootfsoverlay");
    // The directory is still a mount point, under another name.
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay"), 1);
    QCOMPARE(nroIsRootfsOverlayMounted(), 0);
    // The entry alone is not sufficient either.
    unmount("/rootfsoverlay");
    QVERIFY(QDir().mkpath(latin1("/media/elsewhere")));
    mountAs("overlayfs:/rootfsoverlay", "/media/elsewhere");
    QCOMPARE(nroPathIsMoutpoint("/rootfsoverlay"), 0);
    QCOMPARE(nroIsRootfsOverlayMounted(), 0);
    unmount("/media/elsewhere");
    NPrivateNamespace::mountEmptyDirectory(latin1("/rootfsoverlay"));
    mountAs("overlayfs:/rootfsoverlay", "/rootfsoverlay");
}

void tst_NRootfsOverlay::mediaIsMounted()
{
    QCOMPARE(nroIsBackupMediaMounted(), 1);
    QCOMPARE(taken(nroBackupMediaMountpoint()), QByteArray("/media/backup"));
    unmount("/media/backup");
    QCOMPARE(nroIsBackupMediaMounted(), 0);
    QVERIFY(!nroBackupMediaMountpoint());
    QCOMPARE(errno, 0);
    mountAs("/dev/mmcblk1p2", "/media/backup");
}

void tst_NRootfsOverlay::readOnlyFlagIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("expected");
    QTest::newRow("0") << QByteArray("0\n") << 0;
    QTest::newRow("1") << QByteArray("1\n") << 1;
    QTest::newRow("1 without line end") << QByteArray("1") << 1;
    QTest::newRow("only the first character counts") << QByteArray("10") << 1;
    QTest::newRow("blank") << QByteArray(" 1") << 0;
    QTest::newRow("line end first") << QByteArray("\n1") << 0;
    QTest::newRow("empty") << QByteArray("") << 0;
    QTest::newRow("missing") << QByteArray() << 0;
}

void tst_NRootfsOverlay::readOnlyFlagIsRead()
{
    QFETCH(QByteArray, content);
    QFETCH(int, expected);
    write(ReadOnlyFlag, content);
    if (content.isNull())
        removeEntry(ReadOnlyFlag);
    errno = 0;
    QCOMPARE(nroIsBackupMediaReadOnly(), expected);
    QVERIFY(errno != ENODATA);
}

void tst_NRootfsOverlay::cardIdIsItsFirstLine_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray longText(3 * 1000 * 1000, 'x');
    QTest::newRow("line") << QByteArray("0353\n") << QByteArray("0353");
    QTest::newRow("no line end") << QByteArray("0353") << QByteArray("0353");
    QTest::newRow("two lines") << QByteArray("0353\n4445\n") << QByteArray("0353");
    QTest::newRow("carriage return stays") << QByteArray("0353\r\n") << QByteArray("0353\r");
    QTest::newRow("empty line") << QByteArray("\n0353\n") << QByteArray("");
    QTest::newRow("empty file") << QByteArray("") << QByteArray();
    QTest::newRow("missing") << QByteArray() << QByteArray();
    QTest::newRow("long line") << longText + "\n0353\n" << longText;
    QTest::newRow("long line without line end") << longText << longText;
    for (int length = 253; length < 259; ++length) {
        const QByteArray line(length, 'y');
        QTest::newRow((QByteArray::number(length) + " bytes").constData()) << line + '\n' << line;
    }
}

void tst_NRootfsOverlay::cardIdIsItsFirstLine()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, expected);
    write(CardId, content);
    write(AutoBackup, content);
    if (content.isNull()) {
        removeEntry(CardId);
        removeEntry(AutoBackup);
    }
    char* const id = nroBackupMediaId();
    const int error = errno;
    char* const autoBackupId = nroAutoBackupMediaId();
    QCOMPARE(id == nullptr, expected.isNull());
    QCOMPARE(autoBackupId == nullptr, expected.isNull());
    QCOMPARE(taken(id), expected);
    QCOMPARE(taken(autoBackupId), expected);
    if (content.isNull())
        QCOMPARE(error, ENOENT);
}

void tst_NRootfsOverlay::fileWithoutALineEndIsRejected()
{
    write(AutoBackup, "");
    write(BootAction, "wipe");
    QVERIFY(::truncate(AutoBackup, off_t(1) << 40) == 0);
    QVERIFY(::truncate(BootAction, off_t(1) << 40) == 0);
    QVERIFY(!nroAutoBackupMediaId());
    QCOMPARE(nroIsAutoBackupEnabled(), 1);
    QCOMPARE(nroGetBootAction(), 2);
}

void tst_NRootfsOverlay::bootActionsHaveTheirWords_data()
{
    QTest::addColumn<QByteArray>("word");
    QTest::addColumn<int>("action");
    QTest::addColumn<bool>("isKnown");
    QTest::newRow("wipe") << QByteArray("wipe") << 0 << true;
    QTest::newRow("restore") << QByteArray("restore") << 1 << true;
    QTest::newRow("none") << QByteArray("none") << 2 << true;
    QTest::newRow("capital") << QByteArray("Restore") << 2 << false;
    QTest::newRow("blank behind") << QByteArray("wipe ") << 2 << false;
    QTest::newRow("part") << QByteArray("wip") << 2 << false;
    QTest::newRow("empty") << QByteArray("") << 2 << false;
}

void tst_NRootfsOverlay::bootActionsHaveTheirWords()
{
    QFETCH(QByteArray, word);
    QFETCH(int, action);
    QFETCH(bool, isKnown);
    bool ok = !isKnown;
    QCOMPARE(nroConvertStringToBootAction(word.constData(), &ok), action);
    QCOMPARE(ok, isKnown);
    QCOMPARE(nroConvertStringToBootAction(word.constData(), nullptr), action);
    ok = true;
    QCOMPARE(nroConvertStringToBootAction(nullptr, &ok), 2);
    QVERIFY(!ok);
}

void tst_NRootfsOverlay::bootActionIsItsFirstLine_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("action");
    QTest::newRow("wipe") << QByteArray("wipe") << 0;
    QTest::newRow("restore with line feed") << QByteArray("restore\n") << 1;
    QTest::newRow("two lines") << QByteArray("wipe\nrestore\n") << 0;
    QTest::newRow("none") << QByteArray("none") << 2;
    QTest::newRow("capital") << QByteArray("Restore\n") << 2;
    QTest::newRow("carriage return") << QByteArray("restore\r\n") << 2;
    QTest::newRow("empty") << QByteArray("") << 2;
    QTest::newRow("empty line") << QByteArray("\nwipe") << 2;
    QTest::newRow("long") << QByteArray(1000000, 'w') << 2;
    QTest::newRow("missing") << QByteArray() << 2;
}

void tst_NRootfsOverlay::bootActionIsItsFirstLine()
{
    QFETCH(QByteArray, content);
    QFETCH(int, action);
    write(BootAction, content);
    if (content.isNull())
        removeEntry(BootAction);
    QCOMPARE(nroGetBootAction(), action);
}

void tst_NRootfsOverlay::bootActionIsWritten_data()
{
    QTest::addColumn<int>("action");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("wipe") << 0 << QByteArray("wipe");
    QTest::newRow("restore") << 1 << QByteArray("restore");
    QTest::newRow("none") << 2 << QByteArray();
    QTest::newRow("three") << 3 << QByteArray();
    QTest::newRow("negative") << -1 << QByteArray();
}

void tst_NRootfsOverlay::bootActionIsWritten()
{
    QFETCH(int, action);
    QFETCH(QByteArray, content);
    for (int round = 0; round < 2; ++round) {
        QCOMPARE(nroWriteBootAction(action), 1);
        QCOMPARE(read(BootAction), content);
        QCOMPARE(read(BootAction).isNull(), content.isNull());
        write(BootAction, "something long that was there before");
    }
    QCOMPARE(nroSetBootAction(action), 0);
    QCOMPARE(read(BootAction), content);
    QCOMPARE(
        QDir(latin1("/rootfsoverlay")).entryList(QDir::Files | QDir::Hidden).size(), content.isNull() ? 0 : 1);
}

void tst_NRootfsOverlay::autoBackupIsWrittenAndRemoved()
{
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QCOMPARE(nroWriteAutoBackupEnabled(1, nullptr), 0);
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QCOMPARE(nroWriteAutoBackupEnabled(1, "first and long"), 1);
    QCOMPARE(nroWriteAutoBackupEnabled(-1, "second"), 1);
    QCOMPARE(read(AutoBackup), QByteArray("second"));
    QCOMPARE(taken(nroAutoBackupMediaId()), QByteArray("second"));
    QCOMPARE(nroIsAutoBackupEnabled(), 1);
    QCOMPARE(nroWriteAutoBackupEnabled(0, nullptr), 1);
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QCOMPARE(nroWriteAutoBackupEnabled(0, "x"), 1);
    QVERIFY(::symlink("/nowhere", AutoBackup) == 0);
    QCOMPARE(nroIsAutoBackupEnabled(), 1);
}

void tst_NRootfsOverlay::markersThatAreDirectories()
{
    QVERIFY(QDir().mkpath(latin1(AutoBackup)));
    QVERIFY(QDir().mkpath(latin1(BootAction)));
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QVERIFY(!nroAutoBackupMediaId());
    QCOMPARE(nroGetBootAction(), 2);
    QCOMPARE(nroWriteAutoBackupEnabled(1, "x"), 0);
    QCOMPARE(nroWriteAutoBackupEnabled(0, nullptr), 0);
    QCOMPARE(nroWriteBootAction(0), 0);
    QCOMPARE(nroWriteBootAction(2), 0);
    QCOMPARE(nroSetBootAction(0), 6);
    QCOMPARE(nroSetBootAction(2), 6);
    QCOMPARE(nroSetAutoBackupEnabled(1), 6);
    QCOMPARE(nroSetAutoBackupEnabled(0), 6);
    QVERIFY(QFileInfo(latin1(AutoBackup)).isDir());
    QVERIFY(QFileInfo(latin1(BootAction)).isDir());
}

void tst_NRootfsOverlay::markersThatCannotBeRead()
{
    write(AutoBackup, "x");
    write(BootAction, "wipe");
    QVERIFY(::chmod(AutoBackup, 0) == 0 && ::chmod(BootAction, 0) == 0);
    const NWithoutFileOverride permissionsCount;
    QVERIFY(!nroAutoBackupMediaId());
    QCOMPARE(errno, EACCES);
    QCOMPARE(nroIsAutoBackupEnabled(), 1);
    QCOMPARE(nroGetBootAction(), 2);
}

void tst_NRootfsOverlay::markersThatCannotBeWritten()
{
    write(AutoBackup, "x");
    write(BootAction, "wipe");
    const NWithoutFileOverride permissionsCount;
    QVERIFY(::chmod(BootAction, 0444) == 0);
    QCOMPARE(nroSetBootAction(0), 6);
    QVERIFY(::chmod("/rootfsoverlay", 0555) == 0);
    QCOMPARE(nroSetBootAction(2), 6);
    QCOMPARE(nroSetAutoBackupEnabled(0), 6);
    QCOMPARE(nroSetAutoBackupEnabled(1), 6);
    QCOMPARE(read(AutoBackup), QByteArray("x"));
    QCOMPARE(read(BootAction), QByteArray("wipe"));
    ::chmod("/rootfsoverlay", 0755);
}

void tst_NRootfsOverlay::fullDiskKeepsTheMarkers()
{
    unmount("/rootfsoverlay");
    mountAs("overlayfs:/rootfsoverlay", "/rootfsoverlay", "size=12k");
    write(AutoBackup, "before");
    write(BootAction, "wipe");
    write("/rootfsoverlay/filler", QByteArray(4096, 'x'));
    QCOMPARE(nroSetAutoBackupEnabled(1), 6);
    QCOMPARE(nroWriteAutoBackupEnabled(1, "after"), 0);
    QCOMPARE(nroSetBootAction(0), 6);
    QCOMPARE(read(AutoBackup), QByteArray("before"));
    QCOMPARE(read(BootAction), QByteArray("wipe"));
    QCOMPARE(QDir(latin1("/rootfsoverlay")).entryList(QDir::Files | QDir::Hidden).size(), 3);
    removeEntry("/rootfsoverlay/filler");
    QCOMPARE(nroWriteAutoBackupEnabled(1, "after"), 1);
    QCOMPARE(read(AutoBackup), QByteArray("after"));
}

// close() fails in turn for each file that writing a marker closes; one of them is the marker.
void tst_NRootfsOverlay::closingDecidesWhetherAMarkerIsWritten()
{
    int refusals = 0;
    bool isOver = false;
    for (int skipped = 0; !isOver; ++skipped) {
        write(AutoBackup, "before");
        const NSystemCalls::Fault fault(NSystemCalls::Calls(NSystemCalls::Close).skip(skipped).times(1), EIO);
        const int isWritten = nroWriteAutoBackupEnabled(1, "after");
        isOver = fault.count() == 0;
        refusals += !isWritten;
        QCOMPARE(read(AutoBackup), QByteArray(isWritten ? "after" : "before"));
        QCOMPARE(QDir(latin1("/rootfsoverlay")).entryList(QDir::Files | QDir::Hidden).size(), 1);
    }
    QCOMPARE(refusals, 1);
}

void tst_NRootfsOverlay::markersAreFlushedToTheDisk()
{
    write(BootAction, "before");
    {
        const NSystemCalls::Fault fault(Flushing, EIO);
        QCOMPARE(nroWriteBootAction(0), 0);
        QCOMPARE(fault.count(), 1);
    }
    QCOMPARE(read(BootAction), QByteArray("before"));
    {
        // The directory is the last.
        const NSystemCalls::Fault fault(NSystemCalls::Calls(Flushing).skip(1).times(1), EIO);
        QCOMPARE(nroWriteBootAction(0), 0);
        QCOMPARE(fault.count(), 1);
    }
    QCOMPARE(read(BootAction), QByteArray("wipe"));
    {
        const NSystemCalls::Fault fault(Flushing, EIO);
        QCOMPARE(nroWriteBootAction(2), 1);
        QCOMPARE(fault.count(), 1);
    }
    QVERIFY(read(BootAction).isNull());
}

void tst_NRootfsOverlay::leftoversOfAPowerLossAreRemovedByTheNextChange()
{
    const NWithoutFileOverride permissionsCount;
    write("/rootfsoverlay/.autobackup.new", "something long that was not finished");
    write("/rootfsoverlay/.bootaction.new", "wi");
    write("/rootfsoverlay/elsewhere", "untouched");
    QVERIFY(::chmod("/rootfsoverlay/.autobackup.new", 0) == 0);
    QCOMPARE(nroWriteAutoBackupEnabled(1, "id"), 1);
    QCOMPARE(read(AutoBackup), QByteArray("id"));
    QCOMPARE(nroWriteBootAction(2), 1);
    QVERIFY(::symlink("elsewhere", "/rootfsoverlay/.bootaction.new") == 0);
    QCOMPARE(nroWriteBootAction(1), 1);
    QCOMPARE(read("/rootfsoverlay/elsewhere"), QByteArray("untouched"));
    QCOMPARE(
        QDir(latin1("/rootfsoverlay")).entryList(QDir::Files | QDir::Hidden, QDir::Name),
        QStringList() << latin1(".autobackup") << latin1(".bootaction") << latin1("elsewhere"));
    struct stat status;
    const mode_t mask = ::umask(022);
    QCOMPARE(nroWriteBootAction(0), 1);
    ::umask(mask);
    QVERIFY(::stat(BootAction, &status) == 0);
    QCOMPARE(int(status.st_mode & 0777), 0644);
}

void tst_NRootfsOverlay::markersKeepTheirModeAndOwner()
{
    write(BootAction, "wipe");
    QVERIFY(::chmod(BootAction, 0604) == 0);
    struct stat before;
    QVERIFY(::stat(BootAction, &before) == 0);
    QCOMPARE(nroWriteBootAction(1), 1);
    struct stat after;
    QVERIFY(::stat(BootAction, &after) == 0);
    QCOMPARE(int(after.st_mode & 07777), 0604);
    QCOMPARE(after.st_uid, before.st_uid);
    QCOMPARE(after.st_gid, before.st_gid);
}

void tst_NRootfsOverlay::linkToAMarkerIsFollowed()
{
    write("/rootfsoverlay/elsewhere", "old");
    QVERIFY(::symlink("elsewhere", AutoBackup) == 0);
    QCOMPARE(nroWriteAutoBackupEnabled(1, "id"), 1);
    QVERIFY(QFileInfo(latin1(AutoBackup)).isSymLink());
    QCOMPARE(read("/rootfsoverlay/elsewhere"), QByteArray("id"));
    QCOMPARE(nroWriteAutoBackupEnabled(0, nullptr), 1);
    QVERIFY(!QFileInfo(latin1(AutoBackup)).isSymLink());
    QCOMPARE(read("/rootfsoverlay/elsewhere"), QByteArray("id"));
}

// Opening a FIFO without a peer would block the caller.
void tst_NRootfsOverlay::nonRegularMarkersAreNotChanged()
{
    QVERIFY(::mkfifo(BootAction, 0600) == 0);
    QCOMPARE(nroGetBootAction(), 2);
    QCOMPARE(nroWriteBootAction(1), 0);
    struct stat status;
    QVERIFY(::stat(BootAction, &status) == 0 && S_ISFIFO(status.st_mode));
    QCOMPARE(nroWriteBootAction(2), 1);
    QVERIFY(::stat(BootAction, &status) != 0);
}

void tst_NRootfsOverlay::processesMayWriteConcurrently()
{
    const QList<QByteArray> identifiers = QList<QByteArray>()
                                          << QByteArray(5000, 'a') << QByteArray(20, 'b') << QByteArray(300, 'c');
    pid_t processes[3];
    for (int index = 0; index < 3; ++index) {
        processes[index] = ::fork();
        QVERIFY(processes[index] >= 0);
        if (processes[index] > 0)
            continue;
        bool isDone = true;
        for (int round = 0; round < 300; ++round)
            isDone = nroWriteAutoBackupEnabled(1, identifiers.at(index).constData()) &&
                     identifiers.contains(read(AutoBackup)) && isDone;
        ::_exit(isDone ? 0 : 1);
    }
    for (pid_t process : processes)
        QCOMPARE(NTest::waitForChild(process), 0);
    QVERIFY(identifiers.contains(read(AutoBackup)));
    QCOMPARE(QDir(latin1("/rootfsoverlay")).entryList(QDir::Files | QDir::Hidden).size(), 1);
}

void tst_NRootfsOverlay::overlayMustBeMounted()
{
    unmount("/rootfsoverlay");
    for (int enable = 0; enable < 2; ++enable) {
        QCOMPARE(nroCanSetAutoBackupEnabled(enable), 1);
        QCOMPARE(nroSetAutoBackupEnabled(enable), 1);
    }
    for (int action = -1; action < 4; ++action) {
        QCOMPARE(nroCanSetBootAction(action), 1);
        QCOMPARE(nroSetBootAction(action), 1);
    }
    mountAs("overlayfs:/rootfsoverlay", "/rootfsoverlay");
}

void tst_NRootfsOverlay::mediaMustBeMountedAndWritable()
{
    write(ReadOnlyFlag, "1\n");
    QCOMPARE(nroCanSetAutoBackupEnabled(1), 3);
    QCOMPARE(nroSetAutoBackupEnabled(1), 3);
    QCOMPARE(nroCanSetAutoBackupEnabled(0), 0);
    unmount("/media/backup");
    QCOMPARE(nroCanSetAutoBackupEnabled(1), 2);
    QCOMPARE(nroSetAutoBackupEnabled(1), 2);
    QCOMPARE(nroCanSetAutoBackupEnabled(0), 0);
    mountAs("/dev/mmcblk1p2", "/media/backup");
    write(ReadOnlyFlag, "0\n");
    QCOMPARE(nroCanSetAutoBackupEnabled(1), 0);
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
}

void tst_NRootfsOverlay::restoreIsRefusedWithAutoBackup()
{
    QCOMPARE(nroCanSetBootAction(1), 0);
    QCOMPARE(nroSetAutoBackupEnabled(1), 0);
    write(BootAction, "untouched");
    QCOMPARE(nroCanSetBootAction(1), 5);
    QCOMPARE(nroSetBootAction(1), 5);
    QCOMPARE(read(BootAction), QByteArray("untouched"));
    QCOMPARE(nroCanSetBootAction(0), 0);
    QCOMPARE(nroCanSetBootAction(2), 0);
    QCOMPARE(nroSetAutoBackupEnabled(0), 0);
    QCOMPARE(nroSetBootAction(1), 0);
    QCOMPARE(nroGetBootAction(), 1);
}

void tst_NRootfsOverlay::enablingCancelsAPendingRestore()
{
    QCOMPARE(nroSetBootAction(1), 0);
    QCOMPARE(nroSetAutoBackupEnabled(1), 4);
    QVERIFY(read(BootAction).isNull());
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QCOMPARE(nroSetAutoBackupEnabled(1), 0);
    QCOMPARE(read(AutoBackup), QByteArray("0353445355313647805d3fb2a500c4b7"));
    QCOMPARE(nroSetAutoBackupEnabled(1), 0);
}

void tst_NRootfsOverlay::restoreThatCannotBeCancelledDoesNotStopEnabling()
{
    // A marker that is mounted can be read and not removed.
    NTemporaryDirectory directory;
    const QString marker = directory.writeFile(latin1("restore"), "restore");
    write(BootAction, "");
    NPrivateNamespace::mountCopy(marker, latin1(BootAction));
    QCOMPARE(nroGetBootAction(), 1);
    QCOMPARE(nroSetAutoBackupEnabled(1), 0);
    QCOMPARE(nroIsAutoBackupEnabled(), 1);
    QCOMPARE(nroGetBootAction(), 1);
    unmount(BootAction);
}

void tst_NRootfsOverlay::enablingNeedsAnIdentifier()
{
    write(CardId, "");
    QCOMPARE(nroSetAutoBackupEnabled(1), 6);
    removeEntry(CardId);
    QCOMPARE(nroSetAutoBackupEnabled(1), 6);
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
}

void tst_NRootfsOverlay::wipeMayAlwaysBeRequested()
{
    unmount("/media/backup");
    write(AutoBackup, "x");
    QCOMPARE(nroSetBootAction(0), 0);
    QCOMPARE(read(BootAction), QByteArray("wipe"));
    QCOMPARE(nroSetBootAction(2), 0);
    QVERIFY(read(BootAction).isNull());
    mountAs("/dev/mmcblk1p2", "/media/backup");
}

void tst_NRootfsOverlay::disablingNeedsNoMedia()
{
    QCOMPARE(nroSetAutoBackupEnabled(1), 0);
    QCOMPARE(nroSetBootAction(0), 0);
    unmount("/media/backup");
    QCOMPARE(nroSetAutoBackupEnabled(0), 0);
    QCOMPARE(nroIsAutoBackupEnabled(), 0);
    QCOMPARE(nroGetBootAction(), 0);
    QCOMPARE(nroSetAutoBackupEnabled(0), 0);
    mountAs("/dev/mmcblk1p2", "/media/backup");
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NRootfsOverlay, NPrivateNamespace::Mounts)
#include "tst_nrootfsoverlay.moc"
