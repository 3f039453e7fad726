#include "mountedmedias.h"

#include <nbase/device/nremovablemedia.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QSocketNotifier>
#include <QtCore/QStringList>

#include <sys/stat.h>

namespace {

typedef QHash<QString, quint64> Partitions;

QDir blockDevices()
{
    return QDir(QString::fromLatin1("/sys/class/block"));
}

// The number of the kernel's directory for the partition, which the next medium with the same name does not get; 0
// when there is none.
quint64 partitionOf(const QString& deviceName)
{
    struct stat status;
    const QByteArray path = QFile::encodeName(blockDevices().filePath(deviceName));
    return ::stat(path.constData(), &status) == 0 ? quint64(status.st_ino) : 0;
}

QByteArray attribute(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
}

bool isBuiltIn(const QString& deviceName, NRemovableMedia::MediaType type)
{
    // The folder of the partition lies in that of its disk, and this in those of the buses that lead to it.
    const QString partition = QFileInfo(blockDevices().filePath(deviceName)).canonicalFilePath();
    const QString disk = QFileInfo(partition).path();
    if (type == NRemovableMedia::MediaMemoryCard)
        return attribute(disk + QLatin1String("/device/type")) == "MMC";
    return attribute(disk + QLatin1String("/removable")) == "0" && !partition.contains(QLatin1String("/usb"));
}

bool isMountedMedium(const QString& deviceName)
{
    const NRemovableMedia::MediaType type = NRemovableMedia::removableMediaType(deviceName);
    return type != NRemovableMedia::MediaUnknown && !isBuiltIn(deviceName, type) &&
           !NRemovableMedia::removableMediaMountPoint(deviceName).isEmpty();
}

Partitions findMedia()
{
    Partitions found;
    const QStringList names =
        blockDevices().entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& name : names) {
        const quint64 partition = partitionOf(name);
        if (partition != 0 && isMountedMedium(name))
            found.insert(name, partition);
    }
    return found;
}

} // namespace

MountedMedias::MountedMedias(QObject* parent)
    : NRemovableMediasList(parent)
    , m_mountTable(QString::fromLatin1("/proc/self/mounts"))
    , m_check(this)
{
    connect(&m_check, SIGNAL(timeout()), SLOT(checkPartitions()));
    m_check.setInterval(CheckInterval);
    // Opened before the first look, because it reports what has changed since it was opened.
    if (m_mountTable.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        QSocketNotifier* const notifier =
            new QSocketNotifier(m_mountTable.handle(), QSocketNotifier::Exception, this);
        connect(notifier, SIGNAL(activated(int)), SLOT(refresh()));
    }
    update();
}

MountedMedias::~MountedMedias()
{
    qDeleteAll(m_medias);
}

const QHash<QString, NRemovableMedia*>& MountedMedias::removableMedias() const
{
    return m_medias;
}

void MountedMedias::refresh()
{
    update();
}

void MountedMedias::update()
{
    const Partitions found = findMedia();
    const QStringList known = m_medias.keys();
    for (const QString& name : known) {
        if (m_medias.contains(name) && found.value(name) != m_partitions.value(name))
            remove(name);
    }
    for (Partitions::const_iterator it = found.constBegin(); it != found.constEnd(); ++it) {
        if (!m_medias.contains(it.key()))
            insert(it.key(), it.value());
    }
}

void MountedMedias::checkPartitions()
{
    for (Partitions::const_iterator it = m_partitions.constBegin(); it != m_partitions.constEnd(); ++it) {
        if (partitionOf(it.key()) != it.value()) {
            update();
            return;
        }
    }
}

void MountedMedias::insert(const QString& deviceName, quint64 partition)
{
    NRemovableMedia* const media = new NRemovableMedia(deviceName);
    m_medias.insert(deviceName, media);
    m_partitions.insert(deviceName, partition);
    m_check.start();
    emit removableMediaInserted(media);
}

void MountedMedias::remove(const QString& deviceName)
{
    const NRemovableMedia* const media = m_medias.take(deviceName);
    m_partitions.remove(deviceName);
    if (m_medias.isEmpty())
        m_check.stop();
    emit removableMediaRemoved(deviceName);
    delete media;
}
