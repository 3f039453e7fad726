#include <nbase/config/nrootfsoverlay.h>

#include <nbase/core/ndirectorylock_p.h>

#include <errno.h>
#include <fcntl.h>
#include <libconfig.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const ConfigurationPath = "/etc/nrootfsoverlay/nrootfsoverlay.conf";
const char* const OverlayPath = "/rootfsoverlay";
const char* const OverlayDevice = "overlayfs:/rootfsoverlay";
const char* const AutoBackupPath = "/rootfsoverlay/.autobackup";
const char* const BootActionPath = "/rootfsoverlay/.bootaction";
const char* const MountTablePath = "/proc/mounts";

const char* const BootActionWords[] = {"wipe", "restore", "none"};
const int BootActionCount = sizeof(BootActionWords) / sizeof(BootActionWords[0]);

// A file that has no line end for so long holds no identifier, and is not worth the memory.
const size_t LongestLine = size_t(16) * 1024 * 1024;

ssize_t readSome(int file, char* buffer, size_t size)
{
    ssize_t count;
    do
        count = ::read(file, buffer, size);
    while (count < 0 && errno == EINTR);
    return count;
}

bool writeAll(int file, const char* text)
{
    size_t size = strlen(text);
    while (size > 0) {
        const ssize_t count = ::write(file, text, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        text += count;
        size -= size_t(count);
    }
    return true;
}

// The first line of what can be read from @a file, without its line feed; NULL for nothing, or on failure.
char* readFirstLine(int file)
{
    size_t capacity = 256;
    size_t size = 0;
    char* line = static_cast<char*>(malloc(capacity));
    while (line) {
        const ssize_t count = readSome(file, line + size, capacity - size - 1);
        if (count < 0 || (count == 0 && size == 0))
            break;
        char* const end = static_cast<char*>(memchr(line + size, '\n', size_t(count)));
        size += size_t(count);
        if (end || count == 0) {
            *(end ? end : line + size) = '\0';
            return line;
        }
        if (size + 1 < capacity)
            continue;
        capacity *= 2;
        char* const longer = capacity > LongestLine ? nullptr : static_cast<char*>(realloc(line, capacity));
        if (!longer) {
            errno = ENOMEM;
            break;
        }
        line = longer;
    }
    free(line);
    return nullptr;
}

char* readFirstLine(const char* path)
{
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return nullptr;
    char* const line = readFirstLine(file);
    const int error = errno;
    ::close(file);
    errno = error;
    return line;
}

bool closeFile(int file)
{
    // Linux releases the descriptor even when a signal interrupts closing.
    return ::close(file) == 0 || errno == EINTR;
}

bool canBeWritten(const char* path)
{
    const int file = ::open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0)
        return errno == ENOENT;
    ::close(file);
    return true;
}

// Where the next content of a marker is written: beside it, and then renamed, so that a full disk or a power cut
// leaves the old marker or the new one and nothing in between. What a power cut leaves here goes with the next
// change.
class NewMarker
{
public:
    explicit NewMarker(const char* marker)
    {
        snprintf(m_path, sizeof(m_path), "%s.new", marker);
        ::unlink(m_path);
    }

    ~NewMarker() { ::unlink(m_path); }

    bool write(const char* content) const
    {
        const int file = ::open(m_path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (file < 0)
            return false;
        const bool isWritten = writeAll(file, content) && ::fsync(file) == 0;
        return closeFile(file) && isWritten;
    }

    bool replace(const char* marker) const { return ::rename(m_path, marker) == 0; }

private:
    char m_path[64];
};

// The lock keeps a process from writing where another one is writing, or taking away what that has written.
int writeMarker(const char* path, const char* content)
{
    const NDirectoryLock lock(OverlayPath, NDirectoryLock::Exclusive);
    if (!lock.isLocked() || !canBeWritten(path))
        return 0;
    const NewMarker marker(path);
    return marker.write(content) && marker.replace(path) && lock.synchronize();
}

int removeMarker(const char* path)
{
    const NDirectoryLock lock(OverlayPath, NDirectoryLock::Exclusive);
    if (!lock.isLocked())
        return 0;
    const NewMarker leftOver(path);
    if (::unlink(path) != 0)
        return errno == ENOENT;
    lock.synchronize();
    return 1;
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
    // Reading a directory, some versions of libconfig end the process.
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

// What follows "@a device " in @a line, up to the next blank; a copy, or NULL when the line has none.
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
        return removeMarker(AutoBackupPath);
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
        return removeMarker(BootActionPath);
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
    // When the restore cannot be cancelled, automatic backup is still what was asked for.
    if (nroGetBootAction() == NRO_BOOT_ACTION_RESTORE && nroSetBootAction(NRO_BOOT_ACTION_NONE) == NRO_DONE)
        return NRO_RESTORE_CANCELLED;
    char* const mediaId = nroBackupMediaId();
    const int isWritten = nroWriteAutoBackupEnabled(1, mediaId);
    free(mediaId);
    return isWritten ? NRO_DONE : NRO_WRITE_FAILED;
}

QString NRootfsOverlay::backupMediaMmcDeviceName()
{
    // A null pointer gives a null text.
    return QString::fromLatin1(nroBackupMediaMmcDeviceName());
}

QString NRootfsOverlay::backupMediaName()
{
    return QString::fromLatin1(nroBackupMediaName());
}
