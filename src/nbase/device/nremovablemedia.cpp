#include <nbase/device/nremovablemedia.h>

#include <nbase/device/nfatvolumelabel_p.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nlinereader_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QMetaEnum>
#include <QtCore/QRegExp>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

typedef QMap<NRemovableMedia::MediaType, QString> MediaTypes;

QString mediaTypeText(int type)
{
    switch (type) {
    case NRemovableMedia::MediaUsb:
        return latin1("usb");
    case NRemovableMedia::MediaMemoryCard:
        return latin1("mmc");
    case NRemovableMedia::MediaUnknown:
        return latin1("unknown");
    }
    return QString();
}

MediaTypes readMediaTypes()
{
    MediaTypes texts;
    const QMetaObject& gadget = NRemovableMedia::staticMetaObject;
    const QMetaEnum types = gadget.enumerator(gadget.indexOfEnumerator("MediaType"));
    for (int index = 0; index < types.keyCount(); ++index) {
        const int value = types.value(index);
        texts.insert(static_cast<NRemovableMedia::MediaType>(value), mediaTypeText(value));
    }
    return texts;
}

QByteArray devicePath(const QString& deviceName)
{
    return "/dev/" + QFile::encodeName(deviceName);
}

// A device is not opened as a regular file is, but a FIFO in its place must not block either.
NFileDescriptor openDevice(const QString& deviceName)
{
    return NSystem::open(devicePath(deviceName).constData(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
}

bool readBootSector(const QString& deviceName, char* bytes)
{
    const NFileDescriptor device = openDevice(deviceName);
    const int size = NFatVolumeLabel::BootSectorSize;
    return device.isOpen() && NSystem::readAll(device.number(), bytes, size) == size;
}

// A block device refuses an offset beyond its end with EINVAL; a read there would find nothing, as in a regular
// file.
bool seek(const NFileDescriptor& device, quint64 offset)
{
    return ::lseek(device.number(), off_t(offset), SEEK_SET) >= 0 || errno == EINVAL;
}

// Where a device is mounted, as a path for system calls. A null array when it is not.
QByteArray mountPointOf(const QString& deviceName)
{
    const NFileDescriptor table = NSystem::openRegularFile("/proc/mounts");
    if (!table.isOpen())
        return QByteArray();
    const QByteArray prefix = devicePath(deviceName) + ' ';
    NLineReader reader;
    reader.start(table.number());
    NLineReader::Line line;
    while (reader.next(&line)) {
        const QByteArray text = QByteArray(line.bytes, line.size).trimmed();
        if (text.startsWith(prefix))
            return text.mid(prefix.size()).split(' ').first();
    }
    return QByteArray();
}

// @return false when the device is not mounted or its file system does not answer.
bool readStatistics(const QString& deviceName, struct statvfs* statistics)
{
    const QByteArray mountPoint = mountPointOf(deviceName);
    return !mountPoint.isEmpty() &&
           NSystem::retried([&]() { return ::statvfs(mountPoint.constData(), statistics); }) == 0;
}

} // namespace

const QString NRemovableMedia::S_USB_KEY_REGEXP = latin1("sd[a-z]+[0-9]+");

const QString NRemovableMedia::S_MEMORY_CARD_REGEXP = latin1("(mmcblk[0-9]+)p[0-9]+");

NRemovableMedia::NRemovableMedia(const QString& deviceName)
    : m_deviceName(deviceName)
    , m_label(removableMediaLabel(deviceName))
    , m_mediaType(removableMediaType(deviceName))
    , m_readOnly(isRemovableMediaReadOnly(deviceName))
{
}

NRemovableMedia::~NRemovableMedia() {}

QString NRemovableMedia::deviceName() const
{
    return m_deviceName;
}

QString NRemovableMedia::label() const
{
    return m_label;
}

NRemovableMedia::MediaType NRemovableMedia::mediaType() const
{
    return m_mediaType;
}

bool NRemovableMedia::readOnly() const
{
    return m_readOnly;
}

quint64 NRemovableMedia::capacity() const
{
    struct statvfs statistics;
    if (!readStatistics(m_deviceName, &statistics))
        return 0;
    const quint64 blocks = quint64(statistics.f_blocks) - statistics.f_bfree + statistics.f_bavail;
    return quint64(statistics.f_frsize) * blocks;
}

quint64 NRemovableMedia::usedBytes() const
{
    struct statvfs statistics;
    if (!readStatistics(m_deviceName, &statistics))
        return 0;
    return quint64(statistics.f_frsize) * (quint64(statistics.f_blocks) - statistics.f_bfree);
}

NRemovableMedia::MediaType NRemovableMedia::removableMediaType(const QString& deviceName)
{
    if (QRegExp(S_USB_KEY_REGEXP).exactMatch(deviceName))
        return MediaUsb;
    return QRegExp(S_MEMORY_CARD_REGEXP).exactMatch(deviceName) ? MediaMemoryCard : MediaUnknown;
}

QMap<NRemovableMedia::MediaType, QString> NRemovableMedia::mediaTypes()
{
    static const MediaTypes types = readMediaTypes();
    return types;
}

QString NRemovableMedia::removableMediaLabel(const QString& deviceName)
{
    char bootSector[NFatVolumeLabel::BootSectorSize];
    if (!readBootSector(deviceName, bootSector))
        return QString();
    const NFatVolumeLabel::BootSector sector = NFatVolumeLabel::parseBootSector(bootSector);
    if (!sector.isValid)
        return QString();
    const NFileDescriptor device = openDevice(deviceName);
    if (!device.isOpen() || !seek(device, sector.entryOffset))
        return QString();
    char entry[NFatVolumeLabel::DirectoryEntrySize];
    const bool isComplete = NSystem::readAll(device.number(), entry, sizeof(entry)) == ssize_t(sizeof(entry));
    return isComplete && NFatVolumeLabel::isLabelEntry(entry) ? NFatVolumeLabel::entryLabel(entry) : sector.label;
}

bool NRemovableMedia::isRemovableMediaReadOnly(const QString& deviceName)
{
    const QByteArray path = "/sys/class/block/" + QFile::encodeName(deviceName) + "/ro";
    const NFileDescriptor file = NSystem::openRegularFile(path.constData());
    char character;
    return file.isOpen() && NSystem::read(file.number(), &character, 1) == 1 && character == '1';
}

QString NRemovableMedia::removableMediaMountPoint(const QString& deviceName)
{
    return QFile::decodeName(mountPointOf(deviceName));
}

bool NRemovableMedia::isPowerOf2(unsigned int number)
{
    return NFatVolumeLabel::isPowerOf2(number);
}
