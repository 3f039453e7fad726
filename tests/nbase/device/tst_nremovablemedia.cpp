#include <nbase/device/nremovablemedia.h>
#include <nbase/device/nremovablemediaslist.h>

#include "nfatbytes.h"

#include "support/nmessagerecorder.h"
#include "support/nmounttable.h"
#include "support/nprivatenamespace.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/nthreads.h"

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QMetaEnum>
#include <QtCore/QProcess>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using NSystemCalls::Answer;
using NSystemCalls::Calls;
using NSystemCalls::Fault;
using NSystemCalls::Invocation;
using NSystemCalls::ShortTransfer;

Q_DECLARE_METATYPE(NRemovableMedia*)

namespace {

// A device that does not exist on the machine. Its node is a regular file in a private /dev.
const char* const DeviceName = "sdz1";
const char* const DevicePath = "/dev/sdz1";

const char* const BlockDevices = "/sys/class/block";
const char* const MountTable = "/proc/mounts";

QString label()
{
    return NRemovableMedia::removableMediaLabel(latin1(DeviceName));
}

QString mountPoint()
{
    return NRemovableMedia::removableMediaMountPoint(latin1(DeviceName));
}

bool isReadOnly()
{
    return NRemovableMedia::isRemovableMediaReadOnly(latin1(DeviceName));
}

/** Writes into the device at an offset; it grows as far as needed, without using memory for what is between. */
bool writeAt(qint64 offset, const QByteArray& bytes)
{
    QFile file(latin1(DevicePath));
    return file.open(QIODevice::ReadWrite) && file.seek(offset) && file.write(bytes) == bytes.size();
}

QByteArray readAt(qint64 offset, int size)
{
    QFile file(latin1(DevicePath));
    return file.open(QIODevice::ReadOnly) && file.seek(offset) ? file.read(size) : QByteArray();
}

bool makeDevice(qint64 size)
{
    QFile::remove(latin1(DevicePath));
    QFile file(latin1(DevicePath));
    return file.open(QIODevice::WriteOnly) && file.resize(size);
}

/** Runs a command. @return what it printed; a null array when it failed. */
QByteArray outputOf(const char* command, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(latin1(command), arguments);
    const bool hasEnded = process.waitForFinished();
    const QByteArray output = process.readAll();
    if (hasEnded && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return output.isNull() ? QByteArray("") : output;
    return QByteArray();
}

/** @param options of mkfs.vfat, separated by blanks. @param label empty for none. */
bool format(qint64 size, const QString& options, const QByteArray& label)
{
    QStringList arguments = options.split(QLatin1Char(' '));
    if (!label.isEmpty())
        arguments << latin1("-n") << latin1(label.constData());
    return makeDevice(size) &&
           !outputOf("/usr/sbin/mkfs.vfat", arguments << latin1("--invariant") << latin1(DevicePath)).isNull();
}

/** What blkid reports of the device, bytes for which it has no text included; empty where it finds nothing. */
QByteArray blkid(const char* tag)
{
    QStringList arguments;
    arguments << latin1("-p") << latin1("-o") << latin1("value") << latin1("-s") << latin1(tag)
              << latin1(DevicePath);
    const QByteArray output = outputOf("/usr/sbin/blkid", arguments);
    return output.left(output.indexOf('\n'));
}

/** A list as an application derives it: media are inserted and removed by its own code. */
class MediasList : public NRemovableMediasList
{
    Q_OBJECT

public:
    MediasList()
        : NRemovableMediasList(nullptr)
    {
    }

    ~MediasList() override { qDeleteAll(m_medias); }

    const QHash<QString, NRemovableMedia*>& removableMedias() const override { return m_medias; }

    void refresh() override { ++refreshes; }

    void insert(const QString& deviceName)
    {
        NRemovableMedia* const media = new NRemovableMedia(deviceName);
        m_medias.insert(deviceName, media);
        emit removableMediaInserted(media);
    }

    void remove(const QString& deviceName)
    {
        NRemovableMedia* const media = m_medias.take(deviceName);
        emit removableMediaRemoved(deviceName);
        delete media;
    }

    int refreshes = 0;

private:
    QHash<QString, NRemovableMedia*> m_medias;
};

} // namespace

class tst_NRemovableMedia : public QObject
{
    Q_OBJECT

private slots:
    void typeTextsMayBeReadConcurrently();

    void initTestCase();
    void init();
    void cleanup();

    void expressionsAreFixed();
    void typeFollowsFromTheName_data();
    void typeFollowsFromTheName();
    void everyTypeHasItsText();
    void typesAreAMetaEnumeration();
    void powersOf2_data();
    void powersOf2();

    void formattedVolume_data();
    void formattedVolume();
    void labelOfMkfs_data();
    void labelOfMkfs();
    void labelOfFatlabel_data();
    void labelOfFatlabel();
    void rootDirectoryEntry_data();
    void rootDirectoryEntry();
    void entryTwoClustersPastTheFatsIsTaken_data();
    void entryTwoClustersPastTheFatsIsTaken();
    void fileTwoClustersPastTheFatsIsTakenForAnEntry();
    void rootDirectoryOfFat32AtAnotherCluster();
    void offsetOfTheEntry_data();
    void offsetOfTheEntry();
    void bootSectorLabel_data();
    void bootSectorLabel();
    void bootSector_data();
    void bootSector();
    void truncatedDevice_data();
    void truncatedDevice();
    void unreadableEntryFallsBackToTheBootSector();
    void failureGivesNoLabel_data();
    void failureGivesNoLabel();
    void piecewiseAndInterruptedReadsAreContinued();
    void deviceThatCannotSeekHasNoLabel();
    void fifoDoesNotBlock();
    void missingDeviceHasNoLabel();
    void deviceIsOnlyRead();

    void writeProtection_data();
    void writeProtection();
    void writeProtectionThatCannotBeRead();

    void mountPoint_data();
    void mountPoint();
    void mountTableMayBeLong();
    void mountTableThatCannotBeRead();
    void mountPointIsDecodedAsAFileName();

    void spaceOfAMountedVolume();
    void mountPointWithABlankHasNoSpace();
    void spaceInNumbers_data();
    void spaceInNumbers();
    void unmountedMediumHasNoSpace();
    void spaceThatCannotBeReadIs0();

    void mediumKeepsWhatItWasMadeWith();
    void mediumOfAMissingDevice();
    void mediumHasAVirtualDestructor();
    void listIsDerivedByTheApplication();

private:
    QScopedPointer<NMessageRecorder> m_messages;
};

// The table of texts is made by the first call, so nothing may be called before.
void tst_NRemovableMedia::typeTextsMayBeReadConcurrently()
{
    QVERIFY(NTest::holdsInThreads(4, [](int) {
        return NRemovableMedia::mediaTypes().value(NRemovableMedia::MediaMemoryCard) == QLatin1String("mmc") &&
               NRemovableMedia::removableMediaType(latin1("sdb1")) == NRemovableMedia::MediaUsb;
    }));
}

void tst_NRemovableMedia::initTestCase()
{
    // Afterwards /dev is a directory in memory, to which files can be added.
    NPrivateNamespace::mountCopy(latin1("/dev/null"), latin1(DevicePath));
    NPrivateNamespace::unmount(latin1(DevicePath));
    NPrivateNamespace::mountEmptyDirectory(latin1(BlockDevices));
}

void tst_NRemovableMedia::init()
{
    m_messages.reset(new NMessageRecorder);
}

// Nothing is logged on any failure.
void tst_NRemovableMedia::cleanup()
{
    QCOMPARE(m_messages->messages(), QStringList());
    m_messages.reset();
    ::remove(DevicePath);
}

// ---- types ----

void tst_NRemovableMedia::expressionsAreFixed()
{
    QCOMPARE(NRemovableMedia::S_USB_KEY_REGEXP, latin1("sd[a-z]+[0-9]+"));
    QCOMPARE(NRemovableMedia::S_MEMORY_CARD_REGEXP, latin1("(mmcblk[0-9]+)p[0-9]+"));
}

void tst_NRemovableMedia::typeFollowsFromTheName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("type");
    for (const char* name : {"sda1", "sdb1", "sdz15", "sdaa1", "sdabc123", "sda0"})
        QTest::newRow(name) << latin1(name) << int(NRemovableMedia::MediaUsb);
    for (const char* name : {"mmcblk0p1", "mmcblk1p2", "mmcblk10p12"})
        QTest::newRow(name) << latin1(name) << int(NRemovableMedia::MediaMemoryCard);
    for (const char* name :
         {"",
          "sdb",
          "sda",
          "mmcblk1",
          "mmcblk0",
          "mmcblk0p",
          "mmcblkp1",
          "sd1",
          "SDA1",
          "sdA1",
          "sda1 ",
          " sda1",
          "/dev/sda1",
          "sda1p1",
          "sda1\n",
          "xsda1",
          "mmcblk0boot0",
          "mmcblk0p1p",
          "loop0",
          "nvme0n1p1",
          "sd\xe9"
          "1"})
        QTest::newRow(name) << latin1(name) << int(NRemovableMedia::MediaUnknown);
}

void tst_NRemovableMedia::typeFollowsFromTheName()
{
    QFETCH(QString, name);
    QFETCH(int, type);
    QCOMPARE(int(NRemovableMedia::removableMediaType(name)), type);
    QCOMPARE(int(NRemovableMedia(name).mediaType()), type);
}

void tst_NRemovableMedia::everyTypeHasItsText()
{
    const QMap<NRemovableMedia::MediaType, QString> types = NRemovableMedia::mediaTypes();
    QCOMPARE(types.size(), 3);
    QCOMPARE(types.value(NRemovableMedia::MediaUsb), latin1("usb"));
    QCOMPARE(types.value(NRemovableMedia::MediaMemoryCard), latin1("mmc"));
    QCOMPARE(types.value(NRemovableMedia::MediaUnknown), latin1("unknown"));
    // Made once: the copies share their data.
    QVERIFY(NRemovableMedia::mediaTypes().isSharedWith(types));
}

void tst_NRemovableMedia::typesAreAMetaEnumeration()
{
    const QMetaObject& gadget = NRemovableMedia::staticMetaObject;
    const QMetaEnum types = gadget.enumerator(gadget.indexOfEnumerator("MediaType"));
    QCOMPARE(QByteArray(types.name()), QByteArray("MediaType"));
    QCOMPARE(types.keyCount(), 3);
    QCOMPARE(types.keyToValue("MediaUsb"), 0);
    QCOMPARE(types.keyToValue("MediaMemoryCard"), 1);
    QCOMPARE(types.keyToValue("MediaUnknown"), 2);
}

void tst_NRemovableMedia::powersOf2_data()
{
    QTest::addColumn<uint>("number");
    QTest::addColumn<bool>("isPower");
    for (int exponent = 0; exponent < 32; ++exponent) {
        const uint power = 1u << exponent;
        QTest::newRow(QByteArray::number(power).constData()) << power << true;
        if (exponent > 1)
            QTest::newRow(QByteArray::number(power - 1).constData()) << power - 1 << false;
        if (exponent > 0)
            QTest::newRow(QByteArray::number(power + 1).constData()) << power + 1 << false;
    }
    QTest::newRow("0") << 0u << false;
    QTest::newRow("all bits") << 0xFFFFFFFFu << false;
    QTest::newRow("two bits") << 0x80008000u << false;
}

void tst_NRemovableMedia::powersOf2()
{
    QFETCH(uint, number);
    QTEST(NRemovableMedia::isPowerOf2(number), "isPower");
}

// ---- the label ----

void tst_NRemovableMedia::formattedVolume_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("options");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("isKnownToBlkid");
    static const struct
    {
        int kind;
        qint64 clusters;
    } kinds[] = {{12, 3900}, {16, 20000}, {32, 66000}};
    const qint64 room = 16 * 1024 * 1024; // for FATs and reserved sectors
    for (const auto& kind : kinds) {
        for (int sectorSize = 512; sectorSize <= 32768; sectorSize *= 2) {
            for (int sectors = 1; sectors <= 128; sectors *= 2) {
                QString options = latin1("-F %1 -S %2 -s %3").arg(kind.kind).arg(sectorSize).arg(sectors);
                // A root directory that is aligned to such clusters has more entries than a boot sector can tell;
                // mkfs.vfat then takes memory for none, and writes the label beyond it.
                if (kind.kind != 32 && sectorSize * sectors / 32 > 65535)
                    options += latin1(" -a");
                const qint64 content = kind.clusters * sectorSize * sectors;
                // More than 4085 clusters are refused as FAT12.
                QTest::newRow(options.toLatin1().constData())
                    << kind.kind << options << (kind.kind == 12 ? content : content + room)
                    << (sectorSize <= 4096);
            }
        }
        for (const char* option : {"-f 1", "-f 4", "-R 64", "-r 16", "-r 2048", "-a", "-h 63", "-M 0xf0"}) {
            const QString options = latin1("-F %1 -s 1 %2").arg(kind.kind).arg(latin1(option));
            QTest::newRow(options.toLatin1().constData())
                << kind.kind << options << kind.clusters * 512 + (kind.kind == 12 ? 0 : room) << true;
        }
    }
}

// Without a label, with one, and with another one in the root directory than in the boot sector. Of FAT12 and
// FAT16, only blkid finds that one. blkid does not recognise sectors above 4096 bytes, which the format (see
// nfatvolumelabel_p.h) does not have.
void tst_NRemovableMedia::formattedVolume()
{
    QFETCH(int, kind);
    QFETCH(QString, options);
    QFETCH(qint64, size);
    QFETCH(bool, isKnownToBlkid);

    QVERIFY(format(size, options, QByteArray()));
    QCOMPARE(label(), QString());
    QCOMPARE(blkid("LABEL"), QByteArray());

    QVERIFY(format(size, options, "VOLUME 1"));
    QCOMPARE(label(), latin1("VOLUME 1"));
    QCOMPARE(blkid("LABEL"), QByteArray(isKnownToBlkid ? "VOLUME 1" : ""));

    const QByteArray bootSector = readAt(0, 512);
    const qint64 root = NFatBytes::rootDirectory(bootSector);
    // With clusters of 2 MiB and more, mkfs.vfat makes no root directory in FAT12 and FAT16.
    if (kind == 32 || NFatBytes::wordAt(bootSector, 17) > 0)
        QCOMPARE(readAt(root, 11), NFatBytes::name("VOLUME 1"));
    else
        QVERIFY(NFatBytes::clusterSize(bootSector) >= 2 * 1024 * 1024);
    QVERIFY(writeAt(root, NFatBytes::name("OTHER NAME")));
    QCOMPARE(label(), latin1(kind == 32 ? "OTHER NAME" : "VOLUME 1"));
    QCOMPARE(blkid("LABEL"), QByteArray(isKnownToBlkid ? "OTHER NAME" : ""));
}

void tst_NRemovableMedia::labelOfMkfs_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QByteArray>("given");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QByteArray>("reported"); // by blkid
    static const struct
    {
        const char* name;
        const char* given;
        const char* expected;
    } rows[] = {
        {"one character", "A", "A"},
        {"as long as possible", "ABCDEFGHIJK", "ABCDEFGHIJK"},
        {"blanks inside", "A B  C", "A B  C"},
        {"lower case", "volume", "volume"},
        {"special characters", "!#$%&'()-@^", "!#$%&'()-@^"},
        {"more special characters", "_`{}~", "_`{}~"},
        {"NO NAME", "NO NAME", ""},
        {"other case than NO NAME", "No Name", "No Name"},
        {"NO NAME and more", "NO NAME 2", "NO NAME 2"},
    };
    for (const char* options : {"-F 12 -s 8", "-F 16 -s 1", "-F 32 -s 1"}) {
        for (const auto& row : rows) {
            const QByteArray name = QByteArray(options) + ", " + row.name;
            QTest::newRow(name.constData())
                << latin1(options) << QByteArray(row.given) << latin1(row.expected) << QByteArray(row.expected);
        }
    }
}

void tst_NRemovableMedia::labelOfMkfs()
{
    QFETCH(QString, options);
    QFETCH(QByteArray, given);
    QVERIFY(format(Q_INT64_C(14) << 20, options, given));
    QTEST(label(), "expected");
    QTEST(blkid("LABEL"), "reported");
}

void tst_NRemovableMedia::labelOfFatlabel_data()
{
    QTest::addColumn<QString>("options");
    for (const char* options : {"-F 12 -s 8", "-F 16 -s 1", "-F 32 -s 1"})
        QTest::newRow(options) << latin1(options);
}

// It changes both labels.
void tst_NRemovableMedia::labelOfFatlabel()
{
    const char* const command = "/usr/sbin/fatlabel";
    QFETCH(QString, options);
    QVERIFY(format(Q_INT64_C(14) << 20, options, "FIRST"));
    QVERIFY(!outputOf(command, QStringList() << latin1(DevicePath) << latin1("SECOND")).isNull());
    QCOMPARE(label(), latin1("SECOND"));
    QCOMPARE(blkid("LABEL"), QByteArray("SECOND"));
    QVERIFY(!outputOf(command, QStringList() << latin1("-r") << latin1(DevicePath)).isNull());
    QCOMPARE(label(), QString());
    QCOMPARE(blkid("LABEL"), QByteArray());
}

void tst_NRemovableMedia::rootDirectoryEntry_data()
{
    QTest::addColumn<QByteArray>("entry");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QByteArray>("reported"); // by blkid
    const auto add = [](const char* name, const QByteArray& entry, const char* expected, const char* reported) {
        QTest::newRow(name) << entry << latin1(expected) << QByteArray(reported);
    };
    using NFatBytes::entry;
    add("label", entry("ROOT"), "ROOT", "ROOT");
    add("label that was archived", entry("ROOT", 0x28), "ROOT", "ROOT");
    add("blanks before and inside", entry("  A B"), "  A B", "  A B");
    add("NO NAME", entry("NO NAME"), "NO NAME", "NO NAME");
    add("NUL", entry(QByteArray("AB\0CD", 5)), "AB", "AB");
    add("NUL after blanks", entry(QByteArray("AB  \0CD", 7)), "AB", "AB");
    add("0x05 for 0xE5",
        entry("\x05"
              "BC"),
        "\xe5"
        "BC",
        "\xe5"
        "BC");
    add("0x05 elsewhere", entry("A\x05"), "A\x05", "A\x05");
    add("bytes above 127", entry("\x80\xc4\xff"), "\x80\xc4\xff", "\x80\xc4\xff");
    // There is no label, and blkid does not read that of the boot sector then.
    add("not used", entry(QByteArray(1, '\0')), "BOOT", "");
    add("deleted",
        entry("\xe5"
              "BC"),
        "BOOT", "");
    add("file", entry("FILE", 0x20), "BOOT", "");
    add("folder", entry("FOLDER", 0x10), "BOOT", "");
    add("all attributes but that of a label", entry("FILE", 0xF7), "BOOT", "");
    // blkid looks through the whole directory.
    add("label behind a file", entry("FILE", 0x20) + entry("SECOND"), "BOOT", "SECOND");
    add("label behind a label", entry("FIRST") + entry("SECOND"), "FIRST", "FIRST");
    // An empty label is one.
    add("blanks", entry(""), "", "");
    // Only blkid takes names that begin with a dot.
    add("dot", entry(".DOT"), "BOOT", ".DOT");
    // blkid removes other white space at the end as well.
    add("tab", entry("AB\t"), "AB\t", "AB");
    // Not labels by the rules of the format; blkid skips them. The first is a part of a long file name.
    add("long file name", entry("Apart", 0x0F), "Apart", "");
    add("folder with the attribute of a label", entry("FOLDER", 0x18), "FOLDER", "");
    add("all attributes", entry("ANY", 0xFF), "ANY", "");
}

void tst_NRemovableMedia::rootDirectoryEntry()
{
    QFETCH(QByteArray, entry);
    QVERIFY(format(Q_INT64_C(40) << 20, latin1("-F 32 -s 1"), "BOOT"));
    QVERIFY(writeAt(NFatBytes::rootDirectory(readAt(0, 512)), entry));
    QTEST(label(), "expected");
    QTEST(blkid("LABEL"), "reported");
    QCOMPARE(blkid("LABEL_FATBOOT"), QByteArray("BOOT"));
}

void tst_NRemovableMedia::entryTwoClustersPastTheFatsIsTaken_data()
{
    QTest::addColumn<QString>("options");
    QTest::newRow("FAT12") << latin1("-F 12 -s 8");
    QTest::newRow("FAT16") << latin1("-F 16 -s 4");
}

// With 512 entries, the root directory of FAT12 and FAT16 is 16 KiB long, so that small clusters lead into it.
// blkid takes the first label in the directory.
void tst_NRemovableMedia::entryTwoClustersPastTheFatsIsTaken()
{
    QFETCH(QString, options);
    QVERIFY(format(Q_INT64_C(14) << 20, options, "BOOT"));
    const QByteArray bootSector = readAt(0, 512);
    const qint64 root = NFatBytes::rootDirectory(bootSector);
    const qint64 offset = 2 * NFatBytes::clusterSize(bootSector);
    QVERIFY(offset < qint64(NFatBytes::wordAt(bootSector, 17)) * 32);
    QVERIFY(writeAt(root + offset, NFatBytes::entry("LATER")));
    QCOMPARE(label(), latin1("LATER"));
    QCOMPARE(blkid("LABEL"), QByteArray("BOOT"));
}

// With larger clusters, the content of a file is there.
void tst_NRemovableMedia::fileTwoClustersPastTheFatsIsTakenForAnEntry()
{
    QVERIFY(format(Q_INT64_C(200) << 20, latin1("-F 16 -s 32 -r 512"), "BOOT"));
    const QByteArray bootSector = readAt(0, 512);
    const qint64 offset = NFatBytes::rootDirectory(bootSector) + 2 * NFatBytes::clusterSize(bootSector);
    QVERIFY(writeAt(offset, "Dear readers, not every file is harmless."));
    QCOMPARE(label(), latin1("BOOT"));
    // The bit 0x08 is set in the comma.
    QVERIFY(writeAt(offset, "Dear reader, not every file is harmless."));
    QCOMPARE(label(), latin1("Dear reader"));
    QCOMPARE(blkid("LABEL"), QByteArray("BOOT"));
}

// The rule leads back into the FATs then.
void tst_NRemovableMedia::rootDirectoryOfFat32AtAnotherCluster()
{
    QVERIFY(format(Q_INT64_C(40) << 20, latin1("-F 32 -s 1"), "BOOT"));
    QByteArray bootSector = readAt(0, 512);
    const qint64 root = NFatBytes::rootDirectory(bootSector);
    NFatBytes::putDoubleWord(bootSector, 44, 3);
    QVERIFY(writeAt(0, bootSector));
    QVERIFY(writeAt(root + 512, NFatBytes::entry("MOVED")));
    QCOMPARE(label(), latin1("BOOT"));
    QCOMPARE(blkid("LABEL"), QByteArray("MOVED"));
    QVERIFY(writeAt(root - 512, NFatBytes::entry("BACKWARDS")));
    QCOMPARE(label(), latin1("BACKWARDS"));
}

void tst_NRemovableMedia::offsetOfTheEntry_data()
{
    QTest::addColumn<uint>("bytesPerSector");
    QTest::addColumn<uint>("sectorsPerCluster");
    QTest::addColumn<uint>("reserved");
    QTest::addColumn<uint>("fats");
    QTest::addColumn<uint>("sectorsPerFat");
    QTest::addColumn<uint>("rootCluster"); // 0 for FAT16
    QTest::addColumn<qint64>("offset");
    const auto add = [](const char* name, uint bytes, uint cluster, uint reserved, uint fats, uint perFat,
                        uint root, qint64 offset) {
        QTest::newRow(name) << bytes << cluster << reserved << fats << perFat << root << offset;
    };
    add("FAT32", 512, 8, 32, 2, 100, 2, (32 + 200) * 512);
    add("FAT16", 512, 8, 1, 2, 100, 0, (1 + 200 + 16) * 512);
    add("one FAT", 512, 8, 32, 1, 100, 2, (32 + 100) * 512);
    add("large sectors", 32768, 128, 2, 2, 1, 2, 4 * 32768);
    add("sectors of one byte", 1, 1, 600, 1, 1000, 2, 1600);
    add("largest cluster of FAT16", 512, 128, 1, 1, 1, 0, (2 + 256) * 512);
    add("largest number of FATs", 512, 1, 65535, 255, 65535, 2, (65535 + Q_INT64_C(255) * 65535) * 512);
    add("beyond 4 GiB", 512, 1, 1, 1, 0x900000, 2, Q_INT64_C(0x900001) * 512);
    add("beyond 2^31 sectors", 512, 1, 1, 1, 0x80000000u, 2, Q_INT64_C(0x80000001) * 512);
    add("root cluster above 2", 512, 4, 32, 2, 100, 12, (232 - 40) * 512);
    // These wrap around at 32 bits.
    add("largest root cluster", 512, 2, 32, 2, 100, 0xFFFFFFFFu, (232 + 6) * 512);
    add("largest FATs", 512, 1, 300, 255, 0xFFFFFFFFu, 2, (300 - 255) * 512);
    add("below 0", 512, 1, 1, 1, 1, 10, Q_INT64_C(0xFFFFFFFA) * 512);
}

void tst_NRemovableMedia::offsetOfTheEntry()
{
    QFETCH(uint, bytesPerSector);
    QFETCH(uint, sectorsPerCluster);
    QFETCH(uint, reserved);
    QFETCH(uint, fats);
    QFETCH(uint, sectorsPerFat);
    QFETCH(uint, rootCluster);
    QFETCH(qint64, offset);
    QByteArray sector = rootCluster ? NFatBytes::fat32BootSector("BOOT") : NFatBytes::fat16BootSector("BOOT");
    NFatBytes::putWord(sector, 11, quint16(bytesPerSector));
    NFatBytes::putByte(sector, 13, int(sectorsPerCluster));
    NFatBytes::putWord(sector, 14, quint16(reserved));
    NFatBytes::putByte(sector, 16, int(fats));
    if (rootCluster) {
        NFatBytes::putDoubleWord(sector, 36, sectorsPerFat);
        NFatBytes::putDoubleWord(sector, 44, rootCluster);
    } else {
        NFatBytes::putWord(sector, 22, quint16(sectorsPerFat));
    }
    QVERIFY(writeAt(0, sector));
    QVERIFY(writeAt(offset, NFatBytes::entry("ENTRY")));
    QCOMPARE(label(), latin1("ENTRY"));
    // Nothing around it counts.
    QVERIFY(writeAt(offset, NFatBytes::entry("", 0)));
    QVERIFY(writeAt(offset + 32, NFatBytes::entry("NEXT")));
    QCOMPARE(label(), latin1("BOOT"));
}

void tst_NRemovableMedia::bootSectorLabel_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("expected");
    const auto add = [](const char* name, const QByteArray& bytes, const char* expected) {
        QTest::newRow(name) << NFatBytes::name(bytes) << latin1(expected);
    };
    add("label", "BOOT", "BOOT");
    add("all bytes", "12345678901", "12345678901");
    add("blanks", "", "");
    add("NUL", QByteArray("AB\0CD", 5), "AB");
    add("NUL after blanks", QByteArray("AB  \0CD", 7), "AB");
    add("NUL first", QByteArray("\0AB", 3), "");
    add("NO NAME", "NO NAME", "");
    add("NO NAME and NUL", QByteArray("NO NAME\0XYZ", 11), "");
    add("NO NAME behind a blank", " NO NAME", " NO NAME");
    add("other case than NO NAME", "No name", "No name");
    add("bytes above 127", "\x80\xc4\xff", "\x80\xc4\xff");
    // These are special in a directory entry only.
    add("0x05",
        "\x05"
        "A",
        "\x05"
        "A");
    add("0xE5", "\xe5", "\xe5");
    add("dot", ".A", ".A");
}

void tst_NRemovableMedia::bootSectorLabel()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, expected);
    QByteArray sector = NFatBytes::fat16BootSector("");
    NFatBytes::put(sector, 43, bytes);
    QVERIFY(writeAt(0, sector + QByteArray(16384, '\0')));
    QCOMPARE(label(), expected);
    sector = NFatBytes::fat32BootSector("");
    NFatBytes::put(sector, 71, bytes);
    QVERIFY(writeAt(0, sector));
    QCOMPARE(label(), expected);
}

void tst_NRemovableMedia::bootSector_data()
{
    QTest::addColumn<QByteArray>("sector");
    QTest::addColumn<bool>("isValid");
    const auto add = [](const QByteArray& base, const QByteArray& name, int offset, const QByteArray& value,
                        bool isValid) {
        QByteArray sector = base;
        NFatBytes::put(sector, offset, value);
        QTest::newRow(name.constData()) << sector << isValid;
    };
    const QByteArray fat16 = NFatBytes::fat16BootSector("BOOT");
    const QByteArray fat32 = NFatBytes::fat32BootSector("BOOT");
    QTest::newRow("zeros") << QByteArray(512, '\0') << false;
    QTest::newRow("ones") << QByteArray(512, '\xff') << false;
    for (const QByteArray& base : {fat16, fat32}) {
        const QByteArray kind(base == fat16 ? "FAT16, " : "FAT32, ");
        const auto addWord = [&](const char* name, int offset, int value, bool isValid) {
            const char bytes[] = {char(value & 0xFF), char(value >> 8)};
            add(base, kind + name + ' ' + QByteArray::number(value), offset, QByteArray(bytes, 2), isValid);
        };
        const auto addByte = [&](const char* name, int offset, int value, bool isValid) {
            add(base, kind + name + ' ' + QByteArray::number(value), offset, QByteArray(1, char(value)), isValid);
        };
        QTest::newRow((kind + "as it is").constData()) << base << true;
        add(base, kind + "ends with 0x55 0xAB", 510, "\x55\xab", false);
        add(base, kind + "ends with 0x54 0xAA", 510, "\x54\xaa", false);
        add(base, kind + "ends with 0xAA 0x55", 510, "\xaa\x55", false);
        for (int size = 1; size <= 32768; size *= 2)
            addWord("bytes per sector", 11, size, true);
        for (int size : {0, 3, 511, 513, 768, 65535})
            addWord("bytes per sector", 11, size, false);
        for (int count = 1; count <= 128; count *= 2)
            addByte("sectors per cluster", 13, count, true);
        for (int count : {0, 3, 127, 129, 192, 255})
            addByte("sectors per cluster", 13, count, false);
        for (int count : {1, 255, 256, 65535})
            addWord("reserved sectors", 14, count, true);
        addWord("reserved sectors", 14, 0, false);
        for (int count : {1, 2, 255})
            addByte("FATs", 16, count, true);
        addByte("FATs", 16, 0, false);
        const int signature = base == fat16 ? 38 : 66;
        for (int value : {0x00, 0x28, 0x2A, 0xA9})
            addByte("signature", signature, value, false);
        // Signature and type of the other kind are of no use.
        add(base, kind + "signature elsewhere", signature, QByteArray(1, '\0'), false);
        for (const char* type : {"FAT12   ", "FAT16   ", "FAT     ", "FAT32   "}) {
            const bool is32 = strcmp(type, "FAT32   ") == 0;
            add(base, kind + "type " + type, base == fat16 ? 54 : 82, type, is32 == (base == fat32));
        }
        const QByteArray own(base == fat16 ? "FAT16   " : "FAT32   ");
        add(base, kind + "type in lower case", base == fat16 ? 54 : 82, own.toLower(), false);
        for (int end = 0; end < 8; ++end) {
            QByteArray type = own;
            type[end] = '\0';
            add(base, kind + "type ends at " + QByteArray::number(end), base == fat16 ? 54 : 82, type, false);
        }
        add(base, kind + "type NTFS", base == fat16 ? 54 : 82, "NTFS    ", false);
    }
    for (int size : {1, 255, 256, 65535}) {
        const char bytes[] = {char(size & 0xFF), char(size >> 8)};
        add(fat16, "FAT16, sectors per FAT " + QByteArray::number(size), 22, QByteArray(bytes, 2), true);
        // Then the sector is read as that of a FAT16 file system.
        add(fat32, "FAT32, sectors per FAT " + QByteArray::number(size), 22, QByteArray(bytes, 2), false);
    }
    add(fat16, "FAT16, sectors per FAT 0", 22, QByteArray(2, '\0'), false);
    add(fat32, "FAT32, sectors per FAT 0", 36, QByteArray(4, '\0'), false);
    add(fat32, "FAT32, sectors per FAT 2^24", 36, QByteArray("\0\0\0\x01", 4), true);
    add(fat32, "FAT32, root cluster 0", 44, QByteArray(4, '\0'), false);
    add(fat32, "FAT32, root cluster 1", 44, QByteArray("\x01\0\0\0", 4), false);
    add(fat32, "FAT32, root cluster 3", 44, QByteArray("\x03\0\0\0", 4), true);
    add(fat32, "FAT32, root cluster 2^24", 44, QByteArray("\0\0\0\x01", 4), true);
}

void tst_NRemovableMedia::bootSector()
{
    QFETCH(QByteArray, sector);
    QFETCH(bool, isValid);
    QVERIFY(writeAt(0, sector));
    QCOMPARE(label(), latin1(isValid ? "BOOT" : ""));
}

void tst_NRemovableMedia::truncatedDevice_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("expected");
    const int entry = 10 * 512;
    for (int size : {0, 1, 511})
        QTest::newRow(QByteArray::number(size).constData()) << size << QString();
    for (int size : {512, 513, entry - 1, entry, entry + 1, entry + 31})
        QTest::newRow(QByteArray::number(size).constData()) << size << latin1("BOOT");
    for (int size : {entry + 32, entry + 33})
        QTest::newRow(QByteArray::number(size).constData()) << size << latin1("ENTRY");
}

void tst_NRemovableMedia::truncatedDevice()
{
    QFETCH(int, size);
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("BOOT")));
    QVERIFY(writeAt(10 * 512, NFatBytes::entry("ENTRY") + '\0'));
    QCOMPARE(::truncate(DevicePath, size), 0);
    QTEST(label(), "expected");
}

void tst_NRemovableMedia::unreadableEntryFallsBackToTheBootSector()
{
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("BOOT")));
    QVERIFY(writeAt(10 * 512, NFatBytes::entry("ENTRY")));
    const Fault fault(Calls(NSystemCalls::Read).onPath(DevicePath).skip(1), EIO);
    QCOMPARE(label(), latin1("BOOT"));
    QCOMPARE(fault.count(), 1);
}

void tst_NRemovableMedia::failureGivesNoLabel_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("skipped");
    QTest::addColumn<int>("error");
    QTest::newRow("opening for the boot sector") << int(NSystemCalls::Open) << 0 << EACCES;
    QTest::newRow("no medium") << int(NSystemCalls::Open) << 0 << ENOMEDIUM;
    QTest::newRow("reading the boot sector") << int(NSystemCalls::Read) << 0 << EIO;
    QTest::newRow("opening for the entry") << int(NSystemCalls::Open) << 1 << ENXIO;
}

void tst_NRemovableMedia::failureGivesNoLabel()
{
    QFETCH(int, call);
    QFETCH(int, skipped);
    QFETCH(int, error);
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("BOOT")));
    QVERIFY(writeAt(10 * 512, NFatBytes::entry("ENTRY")));
    const Fault fault(Calls(call).onPath(DevicePath).skip(skipped), error);
    QCOMPARE(label(), QString());
    QCOMPARE(fault.count(), 1);
}

void tst_NRemovableMedia::piecewiseAndInterruptedReadsAreContinued()
{
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("BOOT")));
    QVERIFY(writeAt(10 * 512, NFatBytes::entry("ENTRY")));
    const ShortTransfer pieces(Calls(NSystemCalls::Read).onPath(DevicePath), 7);
    const Fault interruption(Calls(NSystemCalls::Read).onPath(DevicePath).skip(2).times(1), EINTR);
    const Fault openInterruption(Calls(NSystemCalls::Open).onPath(DevicePath).times(1), EINTR);
    QCOMPARE(label(), latin1("ENTRY"));
    QCOMPARE(openInterruption.count(), 1);
    QCOMPARE(interruption.count(), 1);
}

void tst_NRemovableMedia::deviceThatCannotSeekHasNoLabel()
{
    QCOMPARE(::mkfifo(DevicePath, 0600), 0);
    const NFileDescriptor fifo = NSystem::open(DevicePath, O_RDWR | O_NONBLOCK);
    const QByteArray sector = NFatBytes::fat32BootSector("BOOT");
    QVERIFY(NSystem::writeAll(fifo.number(), sector.constData(), size_t(sector.size())));
    QCOMPARE(label(), QString());
    char byte;
    QCOMPARE(NSystem::read(fifo.number(), &byte, 1), ssize_t(-1)); // it was read as a valid sector
}

void tst_NRemovableMedia::fifoDoesNotBlock()
{
    QCOMPARE(::mkfifo(DevicePath, 0600), 0);
    QCOMPARE(label(), QString());
    const NFileDescriptor writer = NSystem::open(DevicePath, O_RDWR | O_NONBLOCK);
    QVERIFY(writer.isOpen());
    QCOMPARE(label(), QString());
}

void tst_NRemovableMedia::missingDeviceHasNoLabel()
{
    QCOMPARE(label(), QString());
    for (const char* name : {"", ".", "null", "zero", "no/such", "../dev"})
        QCOMPARE(NRemovableMedia::removableMediaLabel(latin1(name)), QString());
}

void tst_NRemovableMedia::deviceIsOnlyRead()
{
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("BOOT")));
    int openings = 0;
    int flags = 0;
    const NSystemCalls::Notice notice(
        Calls(NSystemCalls::Open).onPath(DevicePath), [&](const Invocation& invocation) {
            ++openings;
            flags |= invocation.flags & (O_ACCMODE | O_CREAT | O_TRUNC | O_EXCL);
        });
    QCOMPARE(label(), latin1("BOOT"));
    QCOMPARE(openings, 2);
    QCOMPARE(flags, O_RDONLY);
}

// ---- write protection ----

void tst_NRemovableMedia::writeProtection_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("expected");
    QTest::newRow("protected") << QByteArray("1\n") << true;
    QTest::newRow("not protected") << QByteArray("0\n") << false;
    QTest::newRow("no line feed") << QByteArray("1") << true;
    QTest::newRow("other characters behind it") << QByteArray("10") << true;
    QTest::newRow("blank before it") << QByteArray(" 1\n") << false;
    QTest::newRow("2") << QByteArray("2\n") << false;
    QTest::newRow("01") << QByteArray("01\n") << false;
    QTest::newRow("0xB1") << QByteArray("\xb1") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void tst_NRemovableMedia::writeProtection()
{
    QFETCH(QByteArray, content);
    QVERIFY(QDir(latin1(BlockDevices)).mkpath(latin1(DeviceName)));
    QFile file(latin1("/sys/class/block/sdz1/ro"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    file.close();
    QTEST(isReadOnly(), "expected");
    QCOMPARE(NRemovableMedia(latin1(DeviceName)).readOnly(), isReadOnly());
    QVERIFY(!NRemovableMedia::isRemovableMediaReadOnly(latin1("sdz")));
    QVERIFY(file.remove());
}

void tst_NRemovableMedia::writeProtectionThatCannotBeRead()
{
    const char* const path = "/sys/class/block/sdz1/ro";
    QVERIFY(!NRemovableMedia::isRemovableMediaReadOnly(QString()));
    QVERIFY(QDir(latin1(BlockDevices)).mkpath(latin1(DeviceName)));
    QVERIFY(!isReadOnly());
    QCOMPARE(::mkdir(path, 0755), 0);
    QVERIFY(!isReadOnly());
    QCOMPARE(::rmdir(path), 0);
    QCOMPARE(::mkfifo(path, 0600), 0);
    QVERIFY(!isReadOnly());
    QCOMPARE(::unlink(path), 0);

    QFile file(latin1(path));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("1\n") == 2);
    file.close();
    {
        const Fault interruption(Calls(NSystemCalls::Read).onPath(path).times(1), EINTR);
        QVERIFY(isReadOnly());
        QCOMPARE(interruption.count(), 1);
    }
    {
        const Fault fault(Calls(NSystemCalls::Read).onPath(path), EIO);
        QVERIFY(!isReadOnly());
    }
    const Fault fault(Calls(NSystemCalls::Open).onPath(path), EACCES);
    QVERIFY(!isReadOnly());
    QVERIFY(file.remove());
}

// ---- the mount point ----

void tst_NRemovableMedia::mountPoint_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<QString>("expected");
    const auto add = [](const char* name, const char* table, const char* expected) {
        QTest::newRow(name) << QByteArray(table) << latin1(expected);
    };
    add("mounted", "/dev/sdz1 /media/stick vfat rw,relatime 0 0\n", "/media/stick");
    add("other lines around it",
        "proc /proc proc rw 0 0\n/dev/sdz1 /media/stick vfat rw 0 0\n/dev/sda1 / ext4 rw 0 0\n", "/media/stick");
    add("first of several lines", "/dev/sdz1 /first vfat rw 0 0\n/dev/sdz1 /second vfat rw 0 0\n", "/first");
    add("escapes are not decoded", "/dev/sdz1 /media/my\\040stick\\134\\011\\012 vfat rw 0 0\n",
        "/media/my\\040stick\\134\\011\\012");
    add("blanks before the line", " \t /dev/sdz1 /media/stick vfat rw 0 0\n", "/media/stick");
    add("no line feed", "/dev/sdz1 /media/stick vfat rw 0 0", "/media/stick");
    add("carriage return", "/dev/sdz1 /media/stick\r\n", "/media/stick");
    add("nothing behind the mount point", "/dev/sdz1 /media/stick\n", "/media/stick");
    add("mount point that contains a tab", "/dev/sdz1 /media\tstick vfat\n", "/media\tstick");
    add("empty mount point", "/dev/sdz1  /media/stick vfat rw 0 0\n/dev/sdz1 /second vfat rw 0 0\n", "");
    add("nothing behind the device", "/dev/sdz1 \n/dev/sdz1\n/dev/sdz1 /third vfat rw 0 0\n", "/third");
    add("tab behind the device", "/dev/sdz1\t/media/stick vfat rw 0 0\n", "");
    add("longer name", "/dev/sdz10 /media/stick vfat rw 0 0\n", "");
    add("shorter name", "/dev/sdz /media/stick vfat rw 0 0\n", "");
    add("other case", "/dev/SDZ1 /media/stick vfat rw 0 0\n", "");
    add("device elsewhere in the line", "none /dev/sdz1 vfat rw 0 0\n/dev/loop0 /x vfat a=/dev/sdz1 0 0\n", "");
    add("name without /dev/", "sdz1 /media/stick vfat rw 0 0\n", "");
    add("empty table", "", "");
}

void tst_NRemovableMedia::mountPoint()
{
    QFETCH(QByteArray, table);
    NMountTable mountTable;
    mountTable.write(table);
    QTEST(::mountPoint(), "expected");
}

void tst_NRemovableMedia::mountTableMayBeLong()
{
    NMountTable mountTable;
    QByteArray table;
    for (int i = 0; i < 5000; ++i)
        table += "/dev/sdy" + QByteArray::number(i) + " /media/" + QByteArray::number(i) + " vfat rw 0 0\n";
    table += "overlay /overlay overlay lowerdir=" + QByteArray(100000, 'x') + " 0 0\n";
    mountTable.write(table + "/dev/sdz1 /media/stick vfat rw 0 0\n");
    const ShortTransfer pieces(Calls(NSystemCalls::Read).onPath(MountTable), 1000);
    const Fault interruption(Calls(NSystemCalls::Read).onPath(MountTable).skip(5).times(1), EINTR);
    QCOMPARE(::mountPoint(), latin1("/media/stick"));
    QCOMPARE(interruption.count(), 1);
}

void tst_NRemovableMedia::mountTableThatCannotBeRead()
{
    NMountTable mountTable;
    QCOMPARE(::mountPoint(), QString());
    mountTable.write("/dev/sdz1 /media/stick vfat rw 0 0\n");
    {
        const Fault fault(Calls(NSystemCalls::Open).onPath(MountTable), EACCES);
        QCOMPARE(::mountPoint(), QString());
    }
    {
        const Fault fault(Calls(NSystemCalls::Read).onPath(MountTable), EIO);
        QCOMPARE(::mountPoint(), QString());
    }
    QCOMPARE(::mountPoint(), latin1("/media/stick"));
    QCOMPARE(::unlink(MountTable), 0);
    QCOMPARE(::mkfifo(MountTable, 0600), 0);
    QCOMPARE(::mountPoint(), QString());
}

// A path with it leads to the mount point again, in every locale that has these characters.
void tst_NRemovableMedia::mountPointIsDecodedAsAFileName()
{
    NMountTable mountTable;
    const QByteArray bytes = "/media/cl\xc3\xa9";
    mountTable.write("/dev/sdz1 " + bytes + " vfat rw 0 0\n");
    QCOMPARE(::mountPoint(), QFile::decodeName(bytes));
}

// ---- space ----

namespace {

/** A file system in memory that is mounted as that of the device, in the kernel's own table. */
class MountedVolume
{
public:
    explicit MountedVolume(const char* name)
        : m_path(QFile::encodeName(m_directory.filePath(latin1(name))))
        , m_isMounted(
              ::mkdir(m_path.constData(), 0755) == 0 &&
              ::mount(DevicePath, m_path.constData(), "tmpfs", 0, "size=1m") == 0)
    {
    }

    ~MountedVolume() { ::umount2(m_path.constData(), MNT_DETACH); }

    bool isMounted() const { return m_isMounted; }
    const QByteArray& path() const { return m_path; }

private:
    Q_DISABLE_COPY(MountedVolume)

    NTemporaryDirectory m_directory;
    const QByteArray m_path;
    const bool m_isMounted;
};

} // namespace

// The size of the kernel's table is reported as 0.
void tst_NRemovableMedia::spaceOfAMountedVolume()
{
    const NRemovableMedia medium(latin1(DeviceName));
    {
        const MountedVolume volume("stick");
        QVERIFY(volume.isMounted());
        QCOMPARE(::mountPoint(), QFile::decodeName(volume.path()));
        QCOMPARE(medium.capacity(), quint64(1024 * 1024));
        QCOMPARE(medium.usedBytes(), quint64(0));
        QFile file(QFile::decodeName(volume.path() + "/file"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(256 * 1024, 'x')) == 256 * 1024);
        file.close();
        QCOMPARE(medium.capacity(), quint64(1024 * 1024));
        QCOMPARE(medium.usedBytes(), quint64(256 * 1024));
    }
    QCOMPARE(::mountPoint(), QString());
    QCOMPARE(medium.capacity(), quint64(0));
    QCOMPARE(medium.usedBytes(), quint64(0));
}

void tst_NRemovableMedia::mountPointWithABlankHasNoSpace()
{
    const MountedVolume volume("my stick");
    QVERIFY(volume.isMounted());
    QVERIFY(::mountPoint().endsWith(latin1("/my\\040stick")));
    const NRemovableMedia medium(latin1(DeviceName));
    QCOMPARE(medium.capacity(), quint64(0));
    QCOMPARE(medium.usedBytes(), quint64(0));
}

void tst_NRemovableMedia::spaceInNumbers_data()
{
    QTest::addColumn<quint64>("fragment");
    QTest::addColumn<quint64>("blocks");
    QTest::addColumn<quint64>("free");
    QTest::addColumn<quint64>("available");
    QTest::addColumn<quint64>("capacity");
    QTest::addColumn<quint64>("used");
    const auto add = [](const char* name, quint64 fragment, quint64 blocks, quint64 free, quint64 available,
                        quint64 capacity, quint64 used) {
        QTest::newRow(name) << fragment << blocks << free << available << capacity << used;
    };
    add("nothing reserved", 512, 1000, 400, 400, 512 * 1000, 512 * 600);
    add("reserved for root", 4096, 1000, 400, 350, 4096 * 950, 4096 * 600);
    add("full for ordinary users", 4096, 1000, 50, 0, 4096 * 950, 4096 * 950);
    add("empty", 4096, 1000, 1000, 1000, 4096 * 1000, 0);
    add("without blocks", 4096, 0, 0, 0, 0, 0);
    add("8 TiB", 4096, Q_UINT64_C(1) << 31, 1, 1, Q_UINT64_C(1) << 43, (Q_UINT64_C(1) << 43) - 4096);
    add("64 TiB", 4096, Q_UINT64_C(1) << 34, Q_UINT64_C(1) << 33, Q_UINT64_C(1) << 33, Q_UINT64_C(1) << 46,
        Q_UINT64_C(1) << 45);
}

void tst_NRemovableMedia::spaceInNumbers()
{
    QFETCH(quint64, fragment);
    QFETCH(quint64, blocks);
    QFETCH(quint64, free);
    QFETCH(quint64, available);
    NMountTable mountTable;
    mountTable.write("/dev/sdz1 /media/stick vfat rw 0 0\n");
    const Answer answer(Calls(NSystemCalls::Statvfs).onPath("/media/stick"), [=](const Invocation& invocation) {
        struct statvfs* const statistics = static_cast<struct statvfs*>(invocation.argument);
        memset(statistics, 0, sizeof(*statistics));
        statistics->f_bsize = 65536; // not the unit of the others
        statistics->f_frsize = static_cast<unsigned long>(fragment);
        statistics->f_blocks = blocks;
        statistics->f_bfree = free;
        statistics->f_bavail = available;
        return 0;
    });
    const NRemovableMedia medium(latin1(DeviceName));
    QTEST(medium.capacity(), "capacity");
    QTEST(medium.usedBytes(), "used");
    QCOMPARE(answer.count(), 2); // read at each call
}

void tst_NRemovableMedia::unmountedMediumHasNoSpace()
{
    NMountTable mountTable;
    mountTable.write("/dev/sdz2 / vfat rw 0 0\n");
    const NRemovableMedia medium(latin1(DeviceName));
    QCOMPARE(medium.capacity(), quint64(0));
    QCOMPARE(medium.usedBytes(), quint64(0));
    QVERIFY(NRemovableMedia(latin1("sdz2")).capacity() > 0);
}

void tst_NRemovableMedia::spaceThatCannotBeReadIs0()
{
    NMountTable mountTable;
    mountTable.write("/dev/sdz1 / vfat rw 0 0\n");
    const NRemovableMedia medium(latin1(DeviceName));
    {
        const Fault fault(Calls(NSystemCalls::Statvfs).onPath("/"), ENOTCONN);
        QCOMPARE(medium.capacity(), quint64(0));
        QCOMPARE(medium.usedBytes(), quint64(0));
        QCOMPARE(fault.count(), 2);
    }
    const Fault interruption(Calls(NSystemCalls::Statvfs).onPath("/").times(1), EINTR);
    QVERIFY(medium.capacity() > 0);
    QCOMPARE(interruption.count(), 1);
}

// ---- the object and the list ----

void tst_NRemovableMedia::mediumKeepsWhatItWasMadeWith()
{
    const QString protection = latin1("/sys/class/block/mmcblk9p1/ro");
    QVERIFY(QDir().mkpath(QFileInfo(protection).path()));
    QFile file(protection);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("1\n") == 2);
    file.close();
    QVERIFY(writeAt(0, NFatBytes::fat32BootSector("CARD")));
    QCOMPARE(::rename(DevicePath, "/dev/mmcblk9p1"), 0);

    const NRemovableMedia medium(latin1("mmcblk9p1"));
    QVERIFY(file.remove());
    QVERIFY(QFile::remove(latin1("/dev/mmcblk9p1")));
    QCOMPARE(medium.deviceName(), latin1("mmcblk9p1"));
    QCOMPARE(medium.label(), latin1("CARD"));
    QCOMPARE(int(medium.mediaType()), int(NRemovableMedia::MediaMemoryCard));
    QVERIFY(medium.readOnly());
}

void tst_NRemovableMedia::mediumOfAMissingDevice()
{
    const NRemovableMedia medium(latin1("sdz7"));
    QCOMPARE(medium.deviceName(), latin1("sdz7"));
    QCOMPARE(medium.label(), QString());
    QCOMPARE(int(medium.mediaType()), int(NRemovableMedia::MediaUsb));
    QVERIFY(!medium.readOnly());
    QCOMPARE(medium.capacity(), quint64(0));
    QCOMPARE(medium.usedBytes(), quint64(0));
}

void tst_NRemovableMedia::mediumHasAVirtualDestructor()
{
    class Derived : public NRemovableMedia
    {
    public:
        explicit Derived(bool* isDestroyed)
            : NRemovableMedia(latin1(DeviceName))
            , m_isDestroyed(isDestroyed)
        {
        }

        ~Derived() override { *m_isDestroyed = true; }

    private:
        bool* m_isDestroyed;
    };
    bool isDestroyed = false;
    const NRemovableMedia* const medium = new Derived(&isDestroyed);
    delete medium;
    QVERIFY(isDestroyed);
}

void tst_NRemovableMedia::listIsDerivedByTheApplication()
{
    MediasList list;
    NRemovableMediasList& base = list;
    qRegisterMetaType<NRemovableMedia*>("NRemovableMedia*");
    QSignalSpy inserted(&base, SIGNAL(removableMediaInserted(NRemovableMedia*)));
    QSignalSpy removed(&base, SIGNAL(removableMediaRemoved(QString)));
    QVERIFY(inserted.isValid());
    QVERIFY(removed.isValid());
    QVERIFY(base.removableMedias().isEmpty());

    list.insert(latin1(DeviceName));
    QCOMPARE(base.removableMedias().keys(), QList<QString>() << latin1(DeviceName));
    NRemovableMedia* const medium = base.removableMedias().value(latin1(DeviceName));
    QCOMPARE(inserted.size(), 1);
    QCOMPARE(inserted.at(0).at(0).value<NRemovableMedia*>(), medium);
    QCOMPARE(medium->deviceName(), latin1(DeviceName));

    list.remove(latin1(DeviceName));
    QCOMPARE(removed.size(), 1);
    QCOMPARE(removed.at(0).at(0).toString(), latin1(DeviceName));
    QVERIFY(base.removableMedias().isEmpty());

    base.refresh();
    QCOMPARE(list.refreshes, 1);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NRemovableMedia, NPrivateNamespace::Mounts)
#include "tst_nremovablemedia.moc"
