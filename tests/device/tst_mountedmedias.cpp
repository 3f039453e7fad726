#include "mountedmedias.h"

#include "support/nmessagerecorder.h"
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nbase/device/nremovablemedia.h>

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <algorithm>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

Q_DECLARE_METATYPE(NRemovableMedia*)

namespace {

const char* const BlockDevices = "/sys/class/block";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** The kernel's directory of a partition, without attributes; it is gone at the end of the scope. */
class Partition
{
public:
    explicit Partition(const char* deviceName)
        : m_name(text(deviceName))
    {
        QDir(text(BlockDevices)).mkdir(m_name);
    }

    ~Partition() { pull(); }

    void pull() { QDir(text(BlockDevices)).rmdir(m_name); }

    void replace()
    {
        // The number of the removed directory must not be used again.
        const QDir devices(text(BlockDevices));
        QVERIFY(devices.mkdir(text("other")));
        pull();
        QVERIFY(QFile::rename(devices.filePath(text("other")), devices.filePath(m_name)));
    }

private:
    Q_DISABLE_COPY(Partition)

    QString m_name;
};

/** A file system in memory that is mounted as that of a device. */
class Volume
{
public:
    explicit Volume(const char* deviceName)
        : m_device(QByteArray("/dev/") + deviceName)
        , m_isMounted(false)
    {
        mount();
    }

    ~Volume() { unmount(); }

    void mount()
    {
        const QByteArray path = QFile::encodeName(m_directory.path());
        m_isMounted = ::mount(m_device.constData(), path.constData(), "tmpfs", 0, "size=1m") == 0;
    }

    void unmount()
    {
        if (m_isMounted)
            ::umount2(QFile::encodeName(m_directory.path()).constData(), MNT_DETACH);
        m_isMounted = false;
    }

    bool isMounted() const { return m_isMounted; }

private:
    Q_DISABLE_COPY(Volume)

    NTemporaryDirectory m_directory;
    QByteArray m_device;
    bool m_isMounted;
};

/** Notes the signals of a list in their order, and what the list contains then. */
class Recorder : public QObject
{
    Q_OBJECT

public:
    explicit Recorder(MountedMedias* medias)
        : m_medias(medias)
        , m_refreshes(false)
    {
        connect(medias, SIGNAL(removableMediaInserted(NRemovableMedia*)), SLOT(insert(NRemovableMedia*)));
        connect(medias, SIGNAL(removableMediaRemoved(QString)), SLOT(remove(QString)));
    }

    /** Has the list looked through inside each signal. */
    void refreshInSignals() { m_refreshes = true; }

    QStringList take()
    {
        QStringList texts;
        texts.swap(m_texts);
        return texts;
    }

    bool isEmpty() const { return m_texts.isEmpty(); }
    int count() const { return m_texts.size(); }

private slots:
    void insert(NRemovableMedia* media)
    {
        m_known.insert(media->deviceName(), media);
        const bool isListed = m_medias->removableMedias().value(media->deviceName()) == media;
        note(text("inserted ") + media->deviceName() + text(isListed ? "" : ", not listed"));
    }

    // The medium is still there, though not in the list anymore.
    void remove(const QString& deviceName)
    {
        const bool isListed = m_medias->removableMedias().contains(deviceName);
        const NRemovableMedia* const media = m_known.take(deviceName);
        const QString name = media ? media->deviceName() : deviceName;
        note(text("removed ") + name + text(isListed ? ", still listed" : ""));
    }

private:
    void note(const QString& text)
    {
        m_texts.append(text);
        if (m_refreshes)
            m_medias->refresh();
    }

    MountedMedias* m_medias;
    QHash<QString, NRemovableMedia*> m_known;
    QStringList m_texts;
    bool m_refreshes;
};

int descriptors()
{
    return QDir(text("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

} // namespace

class tst_MountedMedias : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void listIsEmptyWithoutSys();
    void mountedMediaAreFoundAtFirst();
    void mountingAndUnmountingIsReported();
    void mediumDescribesTheVolume();
    void mediumThatIsPulledWhileMountedIsRemoved();
    void mediumThatIsReplacedIsRemovedAndInserted();
    void severalMediaAreKeptApart();
    void otherMountsAndDevicesAreNotMedia();
    void builtInDisksAreNotMedia_data();
    void builtInDisksAreNotMedia();
    void refreshLooksAtOnce();
    void refreshInASignalIsAllowed();
    void nothingIsCheckedWithoutMedia();
    void nothingIsLeftOpen();
    void signalsComeSoon();

private:
    QScopedPointer<NMessageRecorder> m_messages;
};

void tst_MountedMedias::initTestCase()
{
    qRegisterMetaType<NRemovableMedia*>("NRemovableMedia*");
    NPrivateNamespace::mountEmptyDirectory(text(BlockDevices));
}

void tst_MountedMedias::init()
{
    m_messages.reset(new NMessageRecorder);
}

void tst_MountedMedias::cleanup()
{
    QCOMPARE(m_messages->messages(), QStringList());
    m_messages.reset();
}

void tst_MountedMedias::listIsEmptyWithoutSys()
{
    NPrivateNamespace::mountEmptyDirectory(text("/sys"));
    const Volume volume("sdz1");
    MountedMedias medias;
    QVERIFY(volume.isMounted());
    QVERIFY(medias.removableMedias().isEmpty());
    medias.refresh();
    QVERIFY(medias.removableMedias().isEmpty());
    NPrivateNamespace::unmount(text("/sys"));
}

void tst_MountedMedias::mountedMediaAreFoundAtFirst()
{
    const Partition partition("sdz1");
    const Volume volume("sdz1");
    const MountedMedias medias;
    QCOMPARE(medias.removableMedias().keys(), QList<QString>() << text("sdz1"));
}

void tst_MountedMedias::mountingAndUnmountingIsReported()
{
    const Partition partition("sdz1");
    MountedMedias medias;
    Recorder recorder(&medias);
    QVERIFY(medias.removableMedias().isEmpty());
    Volume volume("sdz1");
    QVERIFY(volume.isMounted());
    NTRY_COMPARE(recorder.count(), 1);
    QCOMPARE(recorder.take(), QStringList() << text("inserted sdz1"));
    volume.unmount();
    NTRY_COMPARE(recorder.count(), 1);
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz1"));
    volume.mount();
    NTRY_COMPARE(recorder.count(), 1);
    QCOMPARE(recorder.take(), QStringList() << text("inserted sdz1"));
}

void tst_MountedMedias::mediumDescribesTheVolume()
{
    const Partition partition("mmcblk9p1");
    const Volume volume("mmcblk9p1");
    const MountedMedias medias;
    const NRemovableMedia* const media = medias.removableMedias().value(text("mmcblk9p1"));
    QVERIFY(media);
    QCOMPARE(media->deviceName(), text("mmcblk9p1"));
    QCOMPARE(int(media->mediaType()), int(NRemovableMedia::MediaMemoryCard));
    QCOMPARE(media->capacity(), quint64(1024 * 1024));
    QVERIFY(!media->readOnly());
}

// The mount stays until somebody removes it.
void tst_MountedMedias::mediumThatIsPulledWhileMountedIsRemoved()
{
    Partition partition("sdz1");
    const Volume volume("sdz1");
    MountedMedias medias;
    Recorder recorder(&medias);
    partition.pull();
    NTRY_COMPARE(recorder.count(), 1);
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz1"));
    QVERIFY(medias.removableMedias().isEmpty());
}

void tst_MountedMedias::mediumThatIsReplacedIsRemovedAndInserted()
{
    Partition partition("sdz1");
    const Volume volume("sdz1");
    MountedMedias medias;
    Recorder recorder(&medias);
    partition.replace();
    NTRY_COMPARE(recorder.count(), 2);
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz1") << text("inserted sdz1"));
}

void tst_MountedMedias::severalMediaAreKeptApart()
{
    Partition first("sdz1");
    const Partition second("sdz2");
    const Partition third("mmcblk9p1");
    const Volume firstVolume("sdz1");
    Volume secondVolume("sdz2");
    const Volume thirdVolume("mmcblk9p1");
    MountedMedias medias;
    Recorder recorder(&medias);
    QCOMPARE(medias.removableMedias().size(), 3);
    const NRemovableMedia* const media = medias.removableMedias().value(text("mmcblk9p1"));
    secondVolume.unmount();
    NTRY_COMPARE(recorder.count(), 1);
    first.pull();
    NTRY_COMPARE(recorder.count(), 2);
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz2") << text("removed sdz1"));
    QCOMPARE(medias.removableMedias().keys(), QList<QString>() << text("mmcblk9p1"));
    QCOMPARE(medias.removableMedias().value(text("mmcblk9p1")), media);
}

void tst_MountedMedias::otherMountsAndDevicesAreNotMedia()
{
    const Partition wholeDisk("sdz");
    const Partition loop("loop0");
    const Partition unmounted("sdz2");
    MountedMedias medias;
    Recorder recorder(&medias);
    const Volume wholeDiskVolume("sdz");
    const Volume loopVolume("loop0");
    const Volume withoutPartition("sdz3");
    QVERIFY(wholeDiskVolume.isMounted() && loopVolume.isMounted() && withoutPartition.isMounted());
    // What is mounted later is reported later.
    const Partition last("sdz4");
    const Volume lastVolume("sdz4");
    NTRY_VERIFY(!recorder.isEmpty());
    QCOMPARE(recorder.take(), QStringList() << text("inserted sdz4"));
}

void tst_MountedMedias::builtInDisksAreNotMedia_data()
{
    QTest::addColumn<QString>("disk"); // below /sys/devices
    QTest::addColumn<QString>("partition");
    QTest::addColumn<QString>("attribute");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("isListed");
    const auto add = [](const char* name, const char* disk, const char* partition, const char* attribute,
                        const char* value, bool isListed) {
        QTest::newRow(name) << text(disk) << text(partition) << text(attribute) << QByteArray(value) << isListed;
    };
    add("USB stick", "platform/usb1/1-1/host0/block/sdz", "sdz1", "removable", "1\n", true);
    add("USB disk", "platform/usb1/1-1/host0/block/sdz", "sdz1", "removable", "0\n", true);
    add("SATA disk", "pci0/ata1/host0/block/sdz", "sdz1", "removable", "0\n", false);
    add("removable SATA disk", "pci0/ata1/host0/block/sdz", "sdz1", "removable", "1\n", true);
    add("unknown disk", "pci0/ata1/host0/block/sdz", "sdz1", "size", "0\n", true);
    add("SD card", "platform/mmc0/block/mmcblk9", "mmcblk9p1", "device/type", "SD\n", true);
    add("eMMC chip", "platform/mmc0/block/mmcblk9", "mmcblk9p1", "device/type", "MMC\n", false);
    add("unknown card", "platform/mmc0/block/mmcblk9", "mmcblk9p1", "size", "0\n", true);
}

void tst_MountedMedias::builtInDisksAreNotMedia()
{
    QFETCH(QString, disk);
    QFETCH(QString, partition);
    QFETCH(QString, attribute);
    QFETCH(QByteArray, value);
    const NTemporaryDirectory devices;
    devices.writeFile(disk + QLatin1Char('/') + attribute, value);
    const QString directory = devices.filePath(disk + QLatin1Char('/') + partition);
    QVERIFY(QDir().mkpath(directory));
    const QString link = QDir(text(BlockDevices)).filePath(partition);
    QVERIFY(QFile::link(directory, link));
    const Volume volume(partition.toLatin1().constData());
    const MountedMedias medias;
    QTEST(medias.removableMedias().contains(partition), "isListed");
    QVERIFY(QFile::remove(link));
}

void tst_MountedMedias::refreshLooksAtOnce()
{
    Partition partition("sdz1");
    MountedMedias medias;
    Recorder recorder(&medias);
    const Volume volume("sdz1");
    medias.refresh();
    QCOMPARE(recorder.take(), QStringList() << text("inserted sdz1"));
    partition.replace();
    medias.refresh();
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz1") << text("inserted sdz1"));
    partition.pull();
    medias.refresh();
    medias.refresh();
    QCOMPARE(recorder.take(), QStringList() << text("removed sdz1"));
}

void tst_MountedMedias::refreshInASignalIsAllowed()
{
    Partition first("sdz1");
    const Partition second("sdz2");
    MountedMedias medias;
    Recorder recorder(&medias);
    recorder.refreshInSignals();
    const Volume firstVolume("sdz1");
    Volume secondVolume("sdz2");
    medias.refresh();
    QStringList texts = recorder.take();
    texts.sort();
    QCOMPARE(texts, QStringList() << text("inserted sdz1") << text("inserted sdz2"));
    first.pull();
    secondVolume.unmount();
    medias.refresh();
    texts = recorder.take();
    texts.sort();
    QCOMPARE(texts, QStringList() << text("removed sdz1") << text("removed sdz2"));
}

void tst_MountedMedias::nothingIsCheckedWithoutMedia()
{
    const Partition partition("sdz1");
    MountedMedias medias;
    const QTimer* const check = medias.findChild<QTimer*>();
    QVERIFY(check && !check->isActive());
    Volume volume("sdz1");
    medias.refresh();
    QVERIFY(check->isActive());
    QCOMPARE(check->interval(), int(MountedMedias::CheckInterval));
    volume.unmount();
    medias.refresh();
    QVERIFY(!check->isActive());
}

void tst_MountedMedias::nothingIsLeftOpen()
{
    const Partition partition("sdz1");
    const int before = descriptors();
    for (int turn = 0; turn < 3; ++turn) {
        MountedMedias medias;
        Recorder recorder(&medias);
        const Volume volume("sdz1");
        NTRY_COMPARE(recorder.count(), 1);
    }
    QCOMPARE(descriptors(), before);
}

// Prints how long the list takes; the limit of a user's patience is 300 ms.
void tst_MountedMedias::signalsComeSoon()
{
    QList<qint64> insertions;
    QList<qint64> removals;
    QList<qint64> pulls;
    MountedMedias medias;
    Recorder recorder(&medias);
    const auto measure = [&](const QElapsedTimer& timer, QList<qint64>* times) {
        while (recorder.isEmpty() && timer.elapsed() < 30000)
            QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        times->append(timer.elapsed());
        return recorder.take().size() == 1;
    };
    for (int turn = 0; turn < 10; ++turn) {
        Partition partition("sdz1");
        QElapsedTimer timer;
        timer.start();
        Volume volume("sdz1");
        QVERIFY(measure(timer, &insertions));
        if (turn % 2) {
            timer.start();
            volume.unmount();
            QVERIFY(measure(timer, &removals));
        } else {
            timer.start();
            partition.pull();
            QVERIFY(measure(timer, &pulls));
        }
    }
    printf(
        "longest times: mounted %d ms, unmounted %d ms, pulled out %d ms\n",
        int(*std::max_element(insertions.begin(), insertions.end())),
        int(*std::max_element(removals.begin(), removals.end())),
        int(*std::max_element(pulls.begin(), pulls.end())));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_MountedMedias, NPrivateNamespace::Mounts)
#include "tst_mountedmedias.moc"
