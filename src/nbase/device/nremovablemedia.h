#ifndef NBASE_NREMOVABLEMEDIA_H
#define NBASE_NREMOVABLEMEDIA_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

/**
 * One partition of a USB stick or memory card, with what was found when the object was made; mount point and space
 * are looked up at each call.
 *
 * Everywhere a device name is the kernel's name of the block device without "/dev/", for example "sda1" or
 * "mmcblk0p1"; it becomes part of paths as it is. No operation waits for the other end of a FIFO, or logs
 * anything: on failure the result is an empty string, false, 0 or MediaUnknown. The static operations are
 * thread-safe.
 */
class NBASE_EXPORT NRemovableMedia
{
    Q_GADGET
    Q_ENUMS(MediaType)

public:
    /** The kind of a medium. */
    enum MediaType {
        MediaUsb,        ///< "usb": a partition of a USB stick or another disk of the kernel's SCSI layer
        MediaMemoryCard, ///< "mmc": a partition of a memory card
        MediaUnknown     ///< "unknown": anything else, whole disks among them
    };

    /** The device names of MediaUsb: "sd[a-z]+[0-9]+". */
    static const QString S_USB_KEY_REGEXP;

    /** The device names of MediaMemoryCard: "(mmcblk[0-9]+)p[0-9]+"; the group is the whole card. */
    static const QString S_MEMORY_CARD_REGEXP;

    /** Reads label, type and write protection of @a deviceName; the device need not exist. */
    explicit NRemovableMedia(const QString& deviceName);
    virtual ~NRemovableMedia();

    /** The kernel's name of the block device, without "/dev/". */
    QString deviceName() const;

    /** The volume label when the object was made, see removableMediaLabel(). */
    QString label() const;

    /** See removableMediaType(). */
    MediaType mediaType() const;

    /** Whether the medium was write-protected when the object was made, see isRemovableMediaReadOnly(). */
    bool readOnly() const;

    /**
     * The bytes of the file system that ordinary users can have in use: those in use and those that are still
     * available to them (f_bavail in statvfs(3)). Less than the size of the file system where a part of it is
     * reserved for root.
     * @return 0 when the medium is not mounted, or when its mount point contains an escape, see
     * removableMediaMountPoint().
     */
    quint64 capacity() const;

    /** The bytes of the file system that are in use. @return 0 as with capacity(). */
    quint64 usedBytes() const;

    /** The type that the device name tells, by S_USB_KEY_REGEXP and S_MEMORY_CARD_REGEXP, which match all of it.
     */
    static NRemovableMedia::MediaType removableMediaType(const QString& deviceName);

    /** Every type with its text: "usb", "mmc", "unknown". */
    static QMap<NRemovableMedia::MediaType, QString> mediaTypes();

    /**
     * The volume label of the FAT12, FAT16 or FAT32 file system on the device, read from the device itself, which
     * the process must be allowed to do. The label's bytes are taken for Latin-1, without the blanks at its end.
     *
     * It is the first entry of the root directory, when that is a label and the system is FAT32, otherwise the
     * one in the boot sector. docs/firmware.md says where this differs from other programs.
     * @return an empty string when there is no label, or the boot sector is not that of a FAT file system.
     */
    static QString removableMediaLabel(const QString& deviceName);

    /** Whether the kernel reports the device as read-only: "/sys/class/block/<device name>/ro" begins with "1". */
    static bool isRemovableMediaReadOnly(const QString& deviceName);

    /**
     * Where the device is mounted, according to the first line of "/proc/mounts" that begins with its name.
     * @return the mount point as it is written there: a blank, tab, line feed or backslash in it is an escape,
     * "\040" for a blank (proc(5), getmntent(3)). Empty when the device is not mounted.
     */
    static QString removableMediaMountPoint(const QString& deviceName);

    /** Whether @a number is 1, 2, 4, 8 and so on. */
    static bool isPowerOf2(unsigned int number);

private:
    Q_DISABLE_COPY(NRemovableMedia)

    QString m_deviceName;
    QString m_label;
    MediaType m_mediaType;
    bool m_readOnly;
};

#endif
