#ifndef NBASE_NROOTFSOVERLAY_H
#define NBASE_NROOTFSOVERLAY_H

/*
 * The backup settings of the writable overlay of the root file system, which is mounted at "/rootfsoverlay". What
 * lies in it can be backed up to a partition of an MMC or SD card, and be restored or wiped when the device
 * starts; the programs that do so read the same two marker files. The functions are usable from C and from C++.
 *
 * They print nothing and are not thread-safe: names are put together in static buffers on their first use, and the
 * configuration is read once and kept until the process ends. The marker files are read afresh on each call, and
 * several processes may write them: each waits for the other, half a minute at most. Where the configuration is
 * missing, errno is ENODATA after the functions that say so.
 */

#ifdef __cplusplus
#include <nbase/nbaseglobal.h>

#include <QtCore/QString>
#else
#include <stdbool.h>

#define NBASE_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Where backups go. */
typedef struct NroBackupConf
{
    int mmc;        /**< number of the MMC device, 0 or more */
    int partition;  /**< number of the partition, 1 or more */
    char dir[4096]; /**< directory on the partition; a longer name is cut */
} NroBackupConf;

/** The boot actions. */
enum { NRO_BOOT_ACTION_WIPE = 0, NRO_BOOT_ACTION_RESTORE = 1, NRO_BOOT_ACTION_NONE = 2 };

/** What nroCanSetAutoBackupEnabled() and its siblings return. */
enum {
    NRO_DONE = 0,                /**< allowed, or done */
    NRO_OVERLAY_NOT_MOUNTED = 1, /**< the overlay is not mounted */
    NRO_MEDIA_NOT_MOUNTED = 2,   /**< the backup media is not mounted */
    NRO_MEDIA_READ_ONLY = 3,     /**< the backup media is read-only */
    NRO_RESTORE_CANCELLED = 4,   /**< a pending restore was cancelled, and automatic backup was not enabled */
    NRO_AUTO_BACKUP_ENABLED = 5, /**< no restore can be requested while automatic backup is enabled */
    NRO_WRITE_FAILED = 6         /**< the marker file could not be written */
};

/**
 * The keys "backup.mmc", "backup.partition" and "backup.dir" of "/etc/nrootfsoverlay/nrootfsoverlay.conf", a file
 * as libconfig reads it.
 * @return the configuration, which stays where it is; NULL when the file cannot be read or a key is missing or out
 * of its range, and the next call tries again.
 */
NBASE_EXPORT const NroBackupConf* nroBackupConf(void);

/** The configured directory on the backup partition; NULL without configuration. Not to be freed. */
NBASE_EXPORT const char* nroBackupDirPath(void);

/** The name of the MMC device, for example "mmcblk1"; NULL without configuration. Not to be freed. */
NBASE_EXPORT const char* nroBackupMediaMmcDeviceName(void);

/** The name of the backup partition, for example "mmcblk1p2"; NULL without configuration. Not to be freed. */
NBASE_EXPORT const char* nroBackupMediaName(void);

/** The device path of the partition, for example "/dev/mmcblk1p2"; NULL without configuration. Not to be freed. */
NBASE_EXPORT const char* nroBackupMediaDevPath(void);

/**
 * The card identification register (CID) of the card that is inserted, from sysfs.
 * @return text to free(); NULL without configuration (ENODATA), or when the file cannot be read or is empty.
 */
NBASE_EXPORT char* nroBackupMediaId(void);

/**
 * The identifier of the card that automatic backup was enabled for.
 * @return text to free(); NULL when the marker is absent, unreadable or empty.
 */
NBASE_EXPORT char* nroAutoBackupMediaId(void);

/** 1 when @a path is a directory on which a file system is mounted, otherwise 0; 0 for a symbolic link. */
NBASE_EXPORT int nroPathIsMoutpoint(const char* path);

/**
 * Where @a device is mounted, from "/proc/mounts" (see proc(5)), with blanks and line ends written there as "\040"
 * and the like. Where it is mounted several times, the first counts.
 * @return text to free(); NULL when it is not mounted, with errno 0, or when the table cannot be read.
 */
NBASE_EXPORT char* nroFindMountpoint(const char* device);

/** 1 when the overlay is mounted, otherwise 0. */
NBASE_EXPORT int nroIsRootfsOverlayMounted(void);

/** Where the backup media is mounted, like nroFindMountpoint(); NULL without configuration (ENODATA). */
NBASE_EXPORT char* nroBackupMediaMountpoint(void);

/** 1 when the backup media is mounted, otherwise 0. */
NBASE_EXPORT int nroIsBackupMediaMounted(void);

/** 1 when the card is write-protected; 0 otherwise, when that is not known, or without configuration (ENODATA). */
NBASE_EXPORT int nroIsBackupMediaReadOnly(void);

/** 1 when automatic backup is enabled, otherwise 0. */
NBASE_EXPORT int nroIsAutoBackupEnabled(void);

/**
 * Writes or removes the marker of automatic backup, whatever else is set; nroSetAutoBackupEnabled() keeps the
 * rules.
 * @param mediaId the identifier of the card, when @a enabled is not 0.
 * @return 1 when the marker is on the disk, or gone; otherwise 0, and an earlier marker is as it was. Only when
 * the disk refuses the very last step, bringing the directory to it, the new marker is there in spite of the 0,
 * and a power cut may bring the earlier one back, as it may a marker that has been removed then.
 */
NBASE_EXPORT int nroWriteAutoBackupEnabled(int enabled, const char* mediaId);

/**
 * The boot action whose word is @a word: "wipe", "restore" or "none", exactly.
 * @param ok is set to whether @a word is known; may be NULL.
 * @return the action; NRO_BOOT_ACTION_NONE for an unknown word.
 */
NBASE_EXPORT int nroConvertStringToBootAction(const char* word, bool* ok);

/** The pending boot action; NRO_BOOT_ACTION_NONE as well when its marker cannot be read or understood. */
NBASE_EXPORT int nroGetBootAction(void);

/**
 * Writes the marker of the boot action, whatever else is set, or removes it for any value other than wipe and
 * restore.
 * @return 1 when the marker is on the disk, or gone; otherwise 0, as nroWriteAutoBackupEnabled() does.
 */
NBASE_EXPORT int nroWriteBootAction(int action);

/** Whether automatic backup can be enabled, or disabled: NRO_DONE, NRO_OVERLAY_NOT_MOUNTED, or NRO_MEDIA_.... */
NBASE_EXPORT int nroCanSetAutoBackupEnabled(int enable);

/** Whether @a action can be requested: NRO_DONE, NRO_OVERLAY_NOT_MOUNTED or NRO_AUTO_BACKUP_ENABLED. */
NBASE_EXPORT int nroCanSetBootAction(int action);

/** Requests @a action for the next start. @return NRO_DONE, or why not. */
NBASE_EXPORT int nroSetBootAction(int action);

/**
 * Enables automatic backup for the card that is inserted, or disables it. While a restore is pending, enabling
 * only cancels the restore and returns NRO_RESTORE_CANCELLED: a second call then enables.
 * @return NRO_DONE, or why not.
 */
NBASE_EXPORT int nroSetAutoBackupEnabled(int enable);

#ifdef __cplusplus
} // extern "C"

/** Names of the backup media as Qt's text. As little thread-safe as the functions that they come from. */
class NBASE_EXPORT NRootfsOverlay
{
public:
    /** nroBackupMediaMmcDeviceName() as text; a null text without configuration. */
    static QString backupMediaMmcDeviceName();

    /** nroBackupMediaName() as text; a null text without configuration. */
    static QString backupMediaName();

private:
    NRootfsOverlay();
};
#endif

#endif
