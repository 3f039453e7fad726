#ifndef NBASE_NROOTFSOVERLAY_H
#define NBASE_NROOTFSOVERLAY_H

/*
 * Backup settings of the writable overlay of the root file system, which is mounted at "/rootfsoverlay". Its
 * content can be backed up to a partition of an MMC or SD card, and be restored or wiped when the device starts;
 * the programs that do so read the same two marker files. The functions can be called from C and from C++.
 *
 * They print nothing and are not thread-safe: names are built in static buffers on first use, and the
 * configuration is read once and cached until the process ends. The marker files are read at each call. Several
 * processes may write them: each waits for the others, 30 seconds at most. A marker is replaced safely: its mode
 * and owner are kept, a symbolic link is followed, and a power cut leaves the old content or the new one.
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

/** The destination of backups. */
typedef struct NroBackupConf
{
    int mmc;        /**< number of the MMC device, 0 or more */
    int partition;  /**< number of the partition, 1 or more */
    char dir[4096]; /**< directory on the partition, truncated to the size of the array */
} NroBackupConf;

/** The boot actions. */
enum { NRO_BOOT_ACTION_WIPE = 0, NRO_BOOT_ACTION_RESTORE = 1, NRO_BOOT_ACTION_NONE = 2 };

/** Results of nroCanSetAutoBackupEnabled(), nroCanSetBootAction(), nroSetBootAction() and
 * nroSetAutoBackupEnabled(). */
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
 * The keys "backup.mmc", "backup.partition" and "backup.dir" of the libconfig file
 * "/etc/nrootfsoverlay/nrootfsoverlay.conf".
 * @return the configuration, valid until the process ends; NULL when the file cannot be read or a key is missing
 * or out of range, and the next call tries again.
 */
NBASE_EXPORT const NroBackupConf* nroBackupConf(void);

/** The configured directory on the backup partition; NULL without configuration. Must not be freed. */
NBASE_EXPORT const char* nroBackupDirPath(void);

/** The name of the MMC device, for example "mmcblk1"; NULL without configuration. Must not be freed. */
NBASE_EXPORT const char* nroBackupMediaMmcDeviceName(void);

/** The name of the backup partition, for example "mmcblk1p2"; NULL without configuration. Must not be freed. */
NBASE_EXPORT const char* nroBackupMediaName(void);

/** The device path of the partition, for example "/dev/mmcblk1p2"; NULL without configuration. Must not be freed.
 */
NBASE_EXPORT const char* nroBackupMediaDevPath(void);

/**
 * The card identification register (CID) of the inserted card, from sysfs.
 * @return text to free(); NULL without configuration (ENODATA), or when the file cannot be read or is empty.
 */
NBASE_EXPORT char* nroBackupMediaId(void);

/**
 * The identifier of the card that automatic backup was enabled for.
 * @return text to free(); NULL when the marker is absent, unreadable or empty, or its first line is longer than
 * 16 MiB (ENOMEM).
 */
NBASE_EXPORT char* nroAutoBackupMediaId(void);

/** 1 when @a path is a directory on which a file system is mounted, otherwise 0; 0 for a symbolic link. */
NBASE_EXPORT int nroPathIsMoutpoint(const char* path);

/**
 * The first mount point of @a device in "/proc/mounts" (proc(5)), as it stands there: blanks and line feeds are
 * written as "\040" and "\012".
 * @return text to free(); NULL when it is not mounted, with errno 0, or when the table cannot be read.
 */
NBASE_EXPORT char* nroFindMountpoint(const char* device);

/** 1 when the overlay is mounted, otherwise 0. */
NBASE_EXPORT int nroIsRootfsOverlayMounted(void);

/** The mount point of the backup media, as nroFindMountpoint() returns it; NULL without configuration (ENODATA).
 */
NBASE_EXPORT char* nroBackupMediaMountpoint(void);

/** 1 when the backup media is mounted, otherwise 0. */
NBASE_EXPORT int nroIsBackupMediaMounted(void);

/** 1 when the card is write-protected; 0 otherwise, also when that cannot be read or without configuration
 * (ENODATA). */
NBASE_EXPORT int nroIsBackupMediaReadOnly(void);

/** 1 when automatic backup is enabled, otherwise 0. */
NBASE_EXPORT int nroIsAutoBackupEnabled(void);

/**
 * Writes or removes the marker of automatic backup without checking anything else; nroSetAutoBackupEnabled()
 * checks the other settings.
 * @param mediaId the identifier of the card, when @a enabled is not 0.
 * @return 1 when the marker is on the disk, or removed; 0 on failure, with errno, and an earlier marker is
 * unchanged. When only the last step fails, flushing the directory, the result is 0 although the new marker is in
 * place; it may be lost in a power cut. A removal may be undone by a power cut in the same way.
 */
NBASE_EXPORT int nroWriteAutoBackupEnabled(int enabled, const char* mediaId);

/**
 * The boot action named @a word: "wipe", "restore" or "none", case-sensitive.
 * @param ok set to whether @a word is one of them; may be NULL.
 * @return the action; NRO_BOOT_ACTION_NONE for an unknown word.
 */
NBASE_EXPORT int nroConvertStringToBootAction(const char* word, bool* ok);

/** The pending boot action; NRO_BOOT_ACTION_NONE also when its marker cannot be read or has other content. */
NBASE_EXPORT int nroGetBootAction(void);

/**
 * Writes the marker of the boot action without checking anything else, or removes it for any value other than wipe
 * and restore.
 * @return as nroWriteAutoBackupEnabled().
 */
NBASE_EXPORT int nroWriteBootAction(int action);

/** Whether automatic backup can be enabled or disabled: NRO_DONE, NRO_OVERLAY_NOT_MOUNTED or one of NRO_MEDIA_....
 */
NBASE_EXPORT int nroCanSetAutoBackupEnabled(int enable);

/** Whether @a action can be requested: NRO_DONE, NRO_OVERLAY_NOT_MOUNTED or NRO_AUTO_BACKUP_ENABLED. */
NBASE_EXPORT int nroCanSetBootAction(int action);

/** Requests @a action for the next start. @return NRO_DONE, or the reason of the refusal or failure. */
NBASE_EXPORT int nroSetBootAction(int action);

/**
 * Enables automatic backup for the inserted card, or disables it. While a restore is pending, enabling only
 * cancels the restore and returns NRO_RESTORE_CANCELLED; a second call then enables.
 * @return NRO_DONE, or the reason of the refusal or failure.
 */
NBASE_EXPORT int nroSetAutoBackupEnabled(int enable);

#ifdef __cplusplus
} // extern "C"

/** Names of the backup media as QString. Not thread-safe, like the functions above. */
class NBASE_EXPORT NRootfsOverlay
{
public:
    /** nroBackupMediaMmcDeviceName() as a QString; null without configuration. */
    static QString backupMediaMmcDeviceName();

    /** nroBackupMediaName() as a QString; null without configuration. */
    static QString backupMediaName();

private:
    NRootfsOverlay();
};
#endif

#endif
