#ifndef DEMODEVICE_MOUNTEDMEDIAS_H
#define DEMODEVICE_MOUNTEDMEDIAS_H

#include <nbase/device/nremovablemediaslist.h>

#include <QtCore/QFile>
#include <QtCore/QTimer>

/**
 * The USB sticks and memory cards that are mounted. It mounts nothing itself: on a device, mdev or udev does that.
 *
 * A medium is in the list while the kernel has its partition (in "/sys/class/block") and "/proc/mounts" names a
 * mount point for it. Disks and cards that are built in are left out as far as the kernel knows: SCSI disks that
 * are neither removable nor connected by USB, and eMMC chips.
 *
 * Mounting and unmounting are noticed at once, because the kernel reports them (proc(5), /proc/pid/mounts). The
 * kernel does not report that a medium was pulled out while it is mounted, so the partitions in the list are
 * checked every CheckInterval. Without media there is nothing to check. Where there is no /sys, no /proc or no
 * block device, the list is empty.
 *
 * Receivers of the signals must not delete the list. A removed medium is deleted after its signal.
 */
class MountedMedias : public NRemovableMediasList
{
    Q_OBJECT

public:
    enum { CheckInterval = 150 }; ///< milliseconds

    /** Finds the media that are mounted already, which no signal reports. */
    explicit MountedMedias(QObject* parent = nullptr);
    ~MountedMedias() override;

    const QHash<QString, NRemovableMedia*>& removableMedias() const override;

public slots:
    void refresh() override;

private slots:
    void checkPartitions();

private:
    Q_DISABLE_COPY(MountedMedias)

    void update();
    void insert(const QString& deviceName, quint64 partition);
    void remove(const QString& deviceName);

    QFile m_mountTable;
    QTimer m_check;
    QHash<QString, NRemovableMedia*> m_medias;
    QHash<QString, quint64> m_partitions; ///< of the media: what distinguishes them from others of the same name
};

#endif
