// A real USB stick and file systems on loop devices, in the virtual device.
#include "mountedmedias.h"
#include "nvirtualdevice.h"

#include "nbase/device/nfatbytes.h"

#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nbase/device/nremovablemedia.h>

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <linux/loop.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(NRemovableMedia*)

namespace {

const int SectorSize = 512;
const qint64 StickSize = 64 * 1024 * 1024;
const qint64 PartitionOffset = 1024 * 1024;

const char* const Disk = "/dev/sda";
const char* const PartitionName = "sda1";
const char* const PartitionPath = "/dev/sda1";
const char* const PartitionDirectory = "/sys/class/block/sda1";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

bool exists(const char* path)
{
    return ::access(path, F_OK) == 0;
}

bool run(const char* command, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(text(command), arguments);
    const bool hasSucceeded =
        process.waitForFinished() && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!hasSucceeded)
        printf("%s %s: %s\n", command, qPrintable(arguments.join(text(" "))), process.readAll().constData());
    return hasSucceeded;
}

/** @param options separated by blanks. @param label empty for none. */
bool format(const QString& path, const QString& options, const char* label)
{
    QStringList arguments = options.split(QLatin1Char(' '));
    if (*label)
        arguments << text("-n") << text(label);
    return run("/usr/sbin/mkfs.vfat", arguments << path);
}

bool writeAt(const char* path, qint64 offset, const QByteArray& bytes)
{
    const NFileDescriptor file = NSystem::open(path, O_WRONLY);
    return file.isOpen() && ::lseek(file.number(), off_t(offset), SEEK_SET) == off_t(offset) &&
           NSystem::writeAll(file.number(), bytes.constData(), size_t(bytes.size())) &&
           NSystem::synchronize(file.number());
}

QByteArray readAt(const char* path, qint64 offset, int size)
{
    QFile file(text(path));
    return file.open(QIODevice::ReadOnly) && file.seek(offset) ? file.read(size) : QByteArray();
}

/** A partition table with one partition, which takes all of the stick from PartitionOffset on. */
QByteArray partitionTable()
{
    QByteArray sector(SectorSize, '\0');
    NFatBytes::putByte(sector, 446 + 4, 0x0C); // FAT32 with LBA
    NFatBytes::putDoubleWord(sector, 446 + 8, PartitionOffset / SectorSize);
    NFatBytes::putDoubleWord(sector, 446 + 12, (StickSize - PartitionOffset) / SectorSize);
    NFatBytes::putWord(sector, 510, 0xAA55);
    return sector;
}

bool plugIn()
{
    return NVirtualDevice::request("plug media0").isEmpty() && NTest::waitUntil([]() {
               return exists(PartitionDirectory) && NSystem::open(PartitionPath, O_RDONLY).isOpen();
           });
}

bool unplug()
{
    return NVirtualDevice::request("unplug media0").isEmpty() &&
           NTest::waitUntil([]() { return !exists(PartitionDirectory); });
}

/** The stick in its socket during the scope; finding it takes the kernel more than a second. */
class PluggedStick
{
public:
    PluggedStick()
        : m_isFound(plugIn())
    {
    }

    ~PluggedStick()
    {
        if (exists(PartitionDirectory))
            unplug();
    }

    bool isFound() const { return m_isFound; }

private:
    Q_DISABLE_COPY(PluggedStick)

    const bool m_isFound;
};

/** A mounted file system, which is unmounted at the end of the scope. */
class Mount
{
public:
    Mount(const char* device, const char* name, unsigned long flags = 0)
        : m_path(QFile::encodeName(m_directory.filePath(text(name))))
        , m_isMounted(::mkdir(m_path.constData(), 0755) == 0 && NTest::waitUntil([this, device, flags]() {
                          // A partition that was found may go once more, when the kernel reads the table again.
                          return ::mount(device, m_path.constData(), "vfat", flags, nullptr) == 0;
                      }))
    {
    }

    ~Mount()
    {
        if (m_isMounted)
            ::umount2(m_path.constData(), MNT_DETACH);
    }

    bool isMounted() const { return m_isMounted; }
    QString path() const { return QFile::decodeName(m_path); }

    bool writeFile(int size) const
    {
        QFile file(path() + text("/file"));
        return file.open(QIODevice::WriteOnly) && file.write(QByteArray(size, 'x')) == size;
    }

private:
    Q_DISABLE_COPY(Mount)

    NTemporaryDirectory m_directory;
    const QByteArray m_path;
    const bool m_isMounted;
};

/** A file as a block device. */
class LoopDevice
{
public:
    explicit LoopDevice(const QString& path)
        : m_control(NSystem::open("/dev/loop-control", O_RDWR))
        , m_name("loop" + QByteArray::number(::ioctl(m_control.number(), LOOP_CTL_GET_FREE)))
        , m_file(NSystem::open(QFile::encodeName(path).constData(), O_RDWR))
        , m_device(NSystem::open(this->path().constData(), O_RDWR))
        , m_isSet(::ioctl(m_device.number(), LOOP_SET_FD, m_file.number()) == 0)
    {
    }

    ~LoopDevice()
    {
        if (m_isSet)
            ::ioctl(m_device.number(), LOOP_CLR_FD, 0);
    }

    bool isSet() const { return m_isSet; }
    QString name() const { return QString::fromLatin1(m_name.constData()); }
    QByteArray path() const { return "/dev/" + m_name; }

private:
    Q_DISABLE_COPY(LoopDevice)

    const NFileDescriptor m_control;
    const QByteArray m_name;
    const NFileDescriptor m_file;
    const NFileDescriptor m_device;
    const bool m_isSet;
};

/** The clusters of a file system, as its boot sector describes them. */
qint64 clusters(const QByteArray& bootSector)
{
    const quint32 word = NFatBytes::wordAt(bootSector, 19);
    const qint64 sectorSize = NFatBytes::wordAt(bootSector, 11);
    const qint64 sectors = word ? word : NFatBytes::doubleWordAt(bootSector, 32);
    const qint64 beforeClusters =
        NFatBytes::rootDirectory(bootSector) + qint64(NFatBytes::wordAt(bootSector, 17)) * 32;
    return (sectors * sectorSize - beforeClusters) / NFatBytes::clusterSize(bootSector);
}

} // namespace

class tst_RemovableMedia : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void stickIsDescribed_data();
    void stickIsDescribed();
    void stickIsMounted();
    void mountPointWithABlankHasNoSpace();
    void stickIsWriteProtected();
    void stickWithoutAMediumHasNoLabel();
    void loopDeviceIsDescribed_data();
    void loopDeviceIsDescribed();
    void deviceThatEndsBeforeTheEntry();

    void listFollowsTheStick();
};

void tst_RemovableMedia::initTestCase()
{
    qRegisterMetaType<NRemovableMedia*>("NRemovableMedia*");
    QCOMPARE(NVirtualDevice::request("plug media0"), QByteArray());
    // The kernel creates the file before the disk can be opened.
    NTRY_VERIFY(writeAt(Disk, 0, partitionTable()));
    QVERIFY(NVirtualDevice::request("unplug media0").isEmpty());
    NTRY_VERIFY(!exists(Disk));
}

void tst_RemovableMedia::stickIsDescribed_data()
{
    QTest::addColumn<QString>("options");
    for (const char* options : {"-F 12 -s 128", "-F 16 -s 8", "-F 32 -s 1", "-F 32 -S 4096 -s 1"})
        QTest::newRow(options) << text(options);
}

void tst_RemovableMedia::stickIsDescribed()
{
    QFETCH(QString, options);
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), options, "STICK 1"));
    const NRemovableMedia stick(text(PartitionName));
    QCOMPARE(stick.deviceName(), text(PartitionName));
    QCOMPARE(stick.label(), text("STICK 1"));
    QCOMPARE(int(stick.mediaType()), int(NRemovableMedia::MediaUsb));
    QVERIFY(!stick.readOnly());
    QCOMPARE(NRemovableMedia::removableMediaMountPoint(text(PartitionName)), QString());
    QCOMPARE(stick.capacity(), quint64(0));
    QCOMPARE(stick.usedBytes(), quint64(0));
    // The partition table of the whole disk is no boot sector.
    QCOMPARE(NRemovableMedia::removableMediaLabel(text("sda")), QString());

    QVERIFY(unplug());
    QCOMPARE(NRemovableMedia::removableMediaLabel(text(PartitionName)), QString());
    QVERIFY(plugIn());
    QCOMPARE(NRemovableMedia::removableMediaLabel(text(PartitionName)), text("STICK 1"));

    QVERIFY(format(text(PartitionPath), options, ""));
    QCOMPARE(NRemovableMedia::removableMediaLabel(text(PartitionName)), QString());
}

void tst_RemovableMedia::stickIsMounted()
{
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), text("-F 32 -s 8"), "STICK"));
    const QByteArray bootSector = readAt(PartitionPath, 0, SectorSize);
    const NRemovableMedia stick(text(PartitionName));
    const Mount mount(PartitionPath, "stick");
    QVERIFY(mount.isMounted());
    QCOMPARE(NRemovableMedia::removableMediaMountPoint(text(PartitionName)), mount.path());
    QCOMPARE(stick.capacity(), quint64(clusters(bootSector) * NFatBytes::clusterSize(bootSector)));
    QCOMPARE(stick.usedBytes(), quint64(4096)); // the root directory
    QVERIFY(mount.writeFile(1000 * 1000));
    QCOMPARE(stick.usedBytes(), quint64(4096 + 245 * 4096));
    QCOMPARE(NRemovableMedia::removableMediaLabel(text(PartitionName)), text("STICK"));
}

void tst_RemovableMedia::mountPointWithABlankHasNoSpace()
{
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), text("-F 32 -s 8"), "STICK"));
    const Mount mount(PartitionPath, "my stick");
    QVERIFY(mount.isMounted());
    QVERIFY(NRemovableMedia::removableMediaMountPoint(text(PartitionName)).endsWith(text("/my\\040stick")));
    QCOMPARE(NRemovableMedia(text(PartitionName)).capacity(), quint64(0));
}

// A read-only mount is not the medium's.
void tst_RemovableMedia::stickIsWriteProtected()
{
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), text("-F 32 -s 8"), "STICK"));
    {
        const Mount mount(PartitionPath, "stick", MS_RDONLY);
        QVERIFY(mount.isMounted());
        QVERIFY(!NRemovableMedia::isRemovableMediaReadOnly(text(PartitionName)));
    }
    const NFileDescriptor device = NSystem::open(PartitionPath, O_RDONLY);
    int isReadOnly = 1;
    QCOMPARE(::ioctl(device.number(), BLKROSET, &isReadOnly), 0);
    const NRemovableMedia stick(text(PartitionName));
    QVERIFY(stick.readOnly());
    QCOMPARE(stick.label(), text("STICK"));
    isReadOnly = 0;
    QCOMPARE(::ioctl(device.number(), BLKROSET, &isReadOnly), 0);
    QVERIFY(!NRemovableMedia::isRemovableMediaReadOnly(text(PartitionName)));
    QVERIFY(stick.readOnly());
}

// A device whose node is still there, but not the device.
void tst_RemovableMedia::stickWithoutAMediumHasNoLabel()
{
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), text("-F 32 -s 8"), "STICK"));
    struct stat status;
    QCOMPARE(::stat(PartitionPath, &status), 0);
    QVERIFY(unplug());
    NTRY_VERIFY(!exists(PartitionPath));
    QCOMPARE(::mknod(PartitionPath, S_IFBLK | 0600, status.st_rdev), 0);
    const QString label = NRemovableMedia::removableMediaLabel(text(PartitionName));
    QCOMPARE(::unlink(PartitionPath), 0);
    QCOMPARE(label, QString());
}

void tst_RemovableMedia::loopDeviceIsDescribed_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<qint64>("size");
    static const struct
    {
        int kind;
        qint64 clusters;
    } kinds[] = {{12, 3900}, {16, 20000}, {32, 66000}};
    for (const auto& kind : kinds) {
        for (int sectorSize = 512; sectorSize <= 4096; sectorSize *= 2) {
            for (int sectors = 1; sectors <= 128; sectors *= 2) {
                const QString options = text("-F %1 -S %2 -s %3").arg(kind.kind).arg(sectorSize).arg(sectors);
                const qint64 room = kind.kind == 12 ? 0 : 16 * 1024 * 1024;
                QTest::newRow(options.toLatin1().constData())
                    << options << kind.clusters * sectorSize * sectors + room;
            }
        }
    }
}

void tst_RemovableMedia::loopDeviceIsDescribed()
{
    QFETCH(QString, options);
    QFETCH(qint64, size);
    const NTemporaryDirectory directory;
    const QString image = directory.writeFile(text("image"), QByteArray());
    QVERIFY(QFile::resize(image, size));
    QVERIFY(format(image, options, "LOOP"));
    const LoopDevice device(image);
    QVERIFY(device.isSet());
    const QByteArray bootSector = readAt(device.path().constData(), 0, SectorSize);
    const quint64 clusterSize = quint64(NFatBytes::clusterSize(bootSector));

    const NRemovableMedia medium(device.name());
    QCOMPARE(medium.label(), text("LOOP"));
    QCOMPARE(int(medium.mediaType()), int(NRemovableMedia::MediaUnknown));
    const Mount mount(device.path().constData(), "volume");
    QVERIFY(mount.isMounted());
    QCOMPARE(NRemovableMedia::removableMediaMountPoint(device.name()), mount.path());
    QCOMPARE(medium.capacity(), quint64(clusters(bootSector)) * clusterSize);
    const quint64 used = medium.usedBytes();
    QCOMPARE(used, options.contains(text("-F 32")) ? clusterSize : quint64(0));
    QVERIFY(mount.writeFile(int(clusterSize) + 1));
    QCOMPARE(medium.usedBytes(), used + 2 * clusterSize);
}

// The kernel refuses an offset beyond the end of a block device; in a file it is allowed.
void tst_RemovableMedia::deviceThatEndsBeforeTheEntry()
{
    const NTemporaryDirectory directory;
    const QByteArray zeros(8 * SectorSize, '\0');
    const QString image =
        directory.writeFile(text("image"), NFatBytes::fat32BootSector("BOOT") + zeros + QByteArray(512, '\0'));
    const LoopDevice device(image);
    QVERIFY(device.isSet());
    const NFileDescriptor file = NSystem::open(device.path().constData(), O_RDONLY);
    QCOMPARE(::lseek(file.number(), 11 * SectorSize, SEEK_SET), off_t(-1));
    // At the end, and beyond it.
    QCOMPARE(NRemovableMedia::removableMediaLabel(device.name()), text("BOOT"));
    QByteArray sector = NFatBytes::fat32BootSector("BOOT");
    NFatBytes::putDoubleWord(sector, 36, 0x80000000u);
    QVERIFY(writeAt(device.path().constData(), 0, sector));
    QCOMPARE(NRemovableMedia::removableMediaLabel(device.name()), text("BOOT"));
}

// Prints how long the list takes.
void tst_RemovableMedia::listFollowsTheStick()
{
    const PluggedStick plugged;
    QVERIFY(plugged.isFound());
    QVERIFY(format(text(PartitionPath), text("-F 32 -s 8"), "STICK"));
    MountedMedias medias;
    QSignalSpy inserted(&medias, SIGNAL(removableMediaInserted(NRemovableMedia*)));
    QSignalSpy removed(&medias, SIGNAL(removableMediaRemoved(QString)));
    QVERIFY(medias.removableMedias().isEmpty());
    qint64 insertion = 0;
    qint64 removal = 0;
    QElapsedTimer timer;
    for (int turn = 0; turn < 3; ++turn) {
        const Mount mount(PartitionPath, "stick");
        timer.start(); // the kernel has reported it
        QVERIFY(mount.isMounted());
        QVERIFY(NTest::waitUntil([&]() { return inserted.size() == turn + 1; }));
        insertion = qMax(insertion, timer.elapsed());
        NRemovableMedia* const stick = inserted.at(turn).at(0).value<NRemovableMedia*>();
        QCOMPARE(medias.removableMedias().value(text(PartitionName)), stick);
        QCOMPARE(stick->label(), text("STICK"));
        QVERIFY(stick->capacity() > quint64(60 * 1024 * 1024));

        // Pulled out while it is mounted.
        QCOMPARE(NVirtualDevice::request("unplug media0"), QByteArray());
        while (exists(PartitionDirectory))
            ::usleep(1000); // without the event loop, which the list needs
        timer.start();
        QVERIFY(NTest::waitUntil([&]() { return removed.size() == turn + 1; }));
        removal = qMax(removal, timer.elapsed());
        QCOMPARE(removed.at(turn).at(0).toString(), text(PartitionName));
        QVERIFY(medias.removableMedias().isEmpty());
        QVERIFY(!NRemovableMedia::removableMediaMountPoint(text(PartitionName)).isEmpty());
        QVERIFY(::umount2(QFile::encodeName(mount.path()).constData(), MNT_DETACH) == 0);
        QVERIFY(plugIn());
    }
    printf("longest times: mounted %d ms, pulled out %d ms\n", int(insertion), int(removal));
    QCOMPARE(inserted.size(), 3);
    QCOMPARE(removed.size(), 3);
}

QTEST_MAIN(tst_RemovableMedia)

#include "tst_removablemedia.moc"
