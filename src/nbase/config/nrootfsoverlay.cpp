#include <nbase/config/nrootfsoverlay.h>

#include <nsystem/nfilereplacement_p.h>
#include <nsystem/nlinereader_p.h>
#include <nsystem/nsystemcall_p.h>

#include <errno.h>
#include <libconfig.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

namespace {

const char* const ConfigurationPath = "/etc/nrootfsoverlay/nrootfsoverlay.conf";
const char* const OverlayPath = "/rootfsoverlay";
const char* const OverlayDevice = "overlayfs:/rootfsoverlay";
const char* const AutoBackupPath = "/rootfsoverlay/.autobackup";
const char* const BootActionPath = "/rootfsoverlay/.bootaction";
const char* const MountTablePath = "/proc/mounts";

const char* const BootActionWords[] = {"wipe", "restore", "none"};
const int BootActionCount = sizeof(BootActionWords) / sizeof(BootActionWords[0]);

// A longer line is no identifier.
const int MaximumLineLength = 16 * 1024 * 1024;

// A copy of @a line from malloc(), with a NUL at the end; null when memory is short.
char* duplicated(const NLineReader::Line& line)
{
    char* const copy = static_cast<char*>(malloc(size_t(line.size) + 1));
    if (!copy)
        return nullptr;
    memcpy(copy, line.bytes, size_t(line.size));
    copy[line.size] = '\0';
    return copy;
}

// The first line of the file @a path, without its line feed; null, with errno, for an empty file or on failure.
char* readFirstLine(const char* path)
{
    const NFileDescriptor file = NSystem::openRegularFile(path);
    if (!file.isOpen())
        return nullptr;
    NLineReader reader(MaximumLineLength);
    NLineReader::Line line;
    reader.start(file.number());
    if (!reader.next(&line))
        return nullptr;
    if (line.isComplete)
        return duplicated(line);
    errno = ENOMEM;
    return nullptr;
}

int writeMarker(const char* path, const char* content)
{
    return NSystem::replaceFile(path, content, strlen(content));
}

bool lookUpConfiguration(const config_t& file, NroBackupConf& configuration)
{
    const char* directory = nullptr;
    if (!config_lookup_int(&file, "backup.mmc", &configuration.mmc) || configuration.mmc < 0)
        return false;
    if (!config_lookup_int(&file, "backup.partition", &configuration.partition) || configuration.partition <= 0)
        return false;
    if (!config_lookup_string(&file, "backup.dir", &directory))
        return false;
    snprintf(configuration.dir, sizeof(configuration.dir), "%s", directory);
    return true;
}

bool readConfiguration(NroBackupConf& configuration)
{
    // Some versions of libconfig end the process when they read a directory.
    struct stat status;
    if (::stat(ConfigurationPath, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    config_t file;
    config_init(&file);
    const bool isRead =
        config_read_file(&file, ConfigurationPath) == CONFIG_TRUE && lookUpConfiguration(file, configuration);
    config_destroy(&file);
    return isRead;
}

const char* cidPath()
{
    static char path[70];
    if (!path[0] && nroBackupMediaMmcDeviceName())
        snprintf(path, sizeof(path), "/sys/block/%s/device/cid", nroBackupMediaMmcDeviceName());
    return path[0] ? path : nullptr;
}

const char* readOnlyFlagPath()
{
    static char path[70];
    if (!path[0] && nroBackupMediaMmcDeviceName())
        snprintf(path, sizeof(path), "/sys/block/%s/ro", nroBackupMediaMmcDeviceName());
    return path[0] ? path : nullptr;
}

// A copy of the field behind the device and a blank in @a line; null when no blank ends it.
char* mountpointInLine(const char* line, size_t deviceLength)
{
    const char* const begin = line + deviceLength + 1;
    const char* const end = strchr(begin, ' ');
    return end ? strndup(begin, size_t(end - begin)) : nullptr;
}

} // namespace

const NroBackupConf* nroBackupConf(void)
{
    static NroBackupConf configuration;
    static bool isKnown = false;
    if (!isKnown)
        isKnown = readConfiguration(configuration);
    return isKnown ? &configuration : nullptr;
}

const char* nroBackupDirPath(void)
{
    const NroBackupConf* const configuration = nroBackupConf();
    return configuration ? configuration->dir : nullptr;
}

const char* nroBackupMediaMmcDeviceName(void)
{
    static char name[20];
    const NroBackupConf* const configuration = nroBackupConf();
    if (!name[0] && configuration)
        snprintf(name, sizeof(name), "mmcblk%d", configuration->mmc);
    return name[0] ? name : nullptr;
}

const char* nroBackupMediaName(void)
{
    static char name[35];
    const NroBackupConf* const configuration = nroBackupConf();
    if (!name[0] && configuration)
        snprintf(name, sizeof(name), "%sp%d", nroBackupMediaMmcDeviceName(), configuration->partition);
    return name[0] ? name : nullptr;
}

const char* nroBackupMediaDevPath(void)
{
    static char path[40];
    if (!path[0] && nroBackupMediaName())
        snprintf(path, sizeof(path), "/dev/%s", nroBackupMediaName());
    return path[0] ? path : nullptr;
}

char* nroBackupMediaId(void)
{
    const char* const path = cidPath();
    if (path)
        return readFirstLine(path);
    errno = ENODATA;
    return nullptr;
}

char* nroAutoBackupMediaId(void)
{
    return readFirstLine(AutoBackupPath);
}

int nroPathIsMoutpoint(const char* path)
{
    struct stat status;
    struct stat parentStatus;
    if (!path || ::lstat(path, &status) != 0 || !S_ISDIR(status.st_mode))
        return 0;
    const size_t size = strlen(path) + sizeof("/..");
    char* const parent = static_cast<char*>(malloc(size));
    if (!parent)
        return 0;
    snprintf(parent, size, "%s/..", path);
    const bool isKnown = ::stat(parent, &parentStatus) == 0;
    free(parent);
    return isKnown && (status.st_dev != parentStatus.st_dev || status.st_ino == parentStatus.st_ino);
}

char* nroFindMountpoint(const char* device)
{
    errno = 0;
    FILE* const table = device ? fopen(MountTablePath, "re") : nullptr;
    if (!table)
        return nullptr;
    const size_t deviceLength = strlen(device);
    char* line = nullptr;
    size_t capacity = 0;
    char* mountpoint = nullptr;
    while (getline(&line, &capacity, table) >= 0) {
        if (strncmp(line, device, deviceLength) != 0 || line[deviceLength] != ' ')
            continue;
        mountpoint = mountpointInLine(line, deviceLength);
        break;
    }
    const int error = errno;
    free(line);
    fclose(table);
    errno = error;
    return mountpoint;
}

int nroIsRootfsOverlayMounted(void)
{
    if (!nroPathIsMoutpoint(OverlayPath))
        return 0;
    char* const mountpoint = nroFindMountpoint(OverlayDevice);
    free(mountpoint);
    return mountpoint != nullptr;
}

char* nroBackupMediaMountpoint(void)
{
    const char* const path = nroBackupMediaDevPath();
    if (path)
        return nroFindMountpoint(path);
    errno = ENODATA;
    return nullptr;
}

int nroIsBackupMediaMounted(void)
{
    char* const mountpoint = nroBackupMediaMountpoint();
    free(mountpoint);
    return mountpoint != nullptr;
}

int nroIsBackupMediaReadOnly(void)
{
    const char* const path = readOnlyFlagPath();
    if (!path) {
        errno = ENODATA;
        return 0;
    }
    char* const flag = readFirstLine(path);
    const int isReadOnly = flag && flag[0] == '1';
    free(flag);
    return isReadOnly;
}

int nroIsAutoBackupEnabled(void)
{
    struct stat status;
    return ::lstat(AutoBackupPath, &status) == 0 && !S_ISDIR(status.st_mode);
}

int nroWriteAutoBackupEnabled(int enabled, const char* mediaId)
{
    if (!enabled)
        return NSystem::removeFile(AutoBackupPath);
    return mediaId ? writeMarker(AutoBackupPath, mediaId) : 0;
}

int nroConvertStringToBootAction(const char* word, bool* ok)
{
    int action = 0;
    while (action < BootActionCount && (!word || strcmp(word, BootActionWords[action]) != 0))
        ++action;
    if (ok)
        *ok = action < BootActionCount;
    return action < BootActionCount ? action : int(NRO_BOOT_ACTION_NONE);
}

int nroGetBootAction(void)
{
    char* const word = readFirstLine(BootActionPath);
    const int action = nroConvertStringToBootAction(word, nullptr);
    free(word);
    return action;
}

int nroWriteBootAction(int action)
{
    if (unsigned(action) >= unsigned(NRO_BOOT_ACTION_NONE))
        return NSystem::removeFile(BootActionPath);
    return writeMarker(BootActionPath, BootActionWords[action]);
}

int nroCanSetAutoBackupEnabled(int enable)
{
    if (!nroIsRootfsOverlayMounted())
        return NRO_OVERLAY_NOT_MOUNTED;
    if (!enable)
        return NRO_DONE;
    if (!nroIsBackupMediaMounted())
        return NRO_MEDIA_NOT_MOUNTED;
    return nroIsBackupMediaReadOnly() ? NRO_MEDIA_READ_ONLY : NRO_DONE;
}

int nroCanSetBootAction(int action)
{
    if (!nroIsRootfsOverlayMounted())
        return NRO_OVERLAY_NOT_MOUNTED;
    if (action != NRO_BOOT_ACTION_RESTORE)
        return NRO_DONE;
    return nroIsAutoBackupEnabled() ? NRO_AUTO_BACKUP_ENABLED : NRO_DONE;
}

int nroSetBootAction(int action)
{
    const int refusal = nroCanSetBootAction(action);
    if (refusal != NRO_DONE)
        return refusal;
    return nroWriteBootAction(action) ? NRO_DONE : NRO_WRITE_FAILED;
}

int nroSetAutoBackupEnabled(int enable)
{
    const int refusal = nroCanSetAutoBackupEnabled(enable);
    if (refusal != NRO_DONE)
        return refusal;
    if (!enable)
        return nroWriteAutoBackupEnabled(0, nullptr) ? NRO_DONE : NRO_WRITE_FAILED;
    // If the restore cannot be cancelled, automatic backup is enabled nevertheless: the caller asked for it.
    if (nroGetBootAction() == NRO_BOOT_ACTION_RESTORE && nroSetBootAction(NRO_BOOT_ACTION_NONE) == NRO_DONE)
        return NRO_RESTORE_CANCELLED;
    char* const mediaId = nroBackupMediaId();
    const int isWritten = nroWriteAutoBackupEnabled(1, mediaId);
    free(mediaId);
    return isWritten ? NRO_DONE : NRO_WRITE_FAILED;
}

QString NRootfsOverlay::backupMediaMmcDeviceName()
{
    return QString::fromLatin1(nroBackupMediaMmcDeviceName());
}

QString NRootfsOverlay::backupMediaName()
{
    return QString::fromLatin1(nroBackupMediaName());
}
