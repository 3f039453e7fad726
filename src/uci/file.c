#include "file_p.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

/* ---- opening and locking ---- */

/* Some network and FUSE file systems have no locks. Their files can be used by one program at a time all the same.
 */
static bool has_no_locks(int error)
{
    return error == ENOSYS || error == EOPNOTSUPP || error == ENOLCK;
}

static bool lock(int fd, int operation)
{
    int result;

    do
        result = flock(fd, operation);
    while (result < 0 && errno == EINTR);
    return result == 0 || has_no_locks(errno);
}

static bool is_same_file(const struct stat* one, const struct stat* other)
{
    return one->st_dev == other->st_dev && one->st_ino == other->st_ino;
}

static int open_locked(struct locked_file* file, const char* path, int flags, unsigned mode, int operation)
{
    struct stat opened, now;

    file->made = false;
    for (;;) {
        /* O_NONBLOCK: opening a FIFO must not block. */
        file->fd = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, (mode_t)mode);
        if (file->fd < 0 && errno == EINTR)
            continue;
        if (file->fd < 0)
            return errno == ENOENT || errno == ENOTDIR || errno == EISDIR ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
        if (fstat(file->fd, &opened) < 0 || !S_ISREG(opened.st_mode)) {
            file_close(file);
            return UCI_ERR_NOTFOUND;
        }
        if (!lock(file->fd, operation)) {
            file_close(file);
            return UCI_ERR_IO;
        }
        /* Another process may have replaced the file before it was locked. */
        if (stat(path, &now) == 0 && is_same_file(&opened, &now)) {
            file->size = (unsigned long long)now.st_size;
            file->device = (unsigned long long)now.st_dev;
            file->number = (unsigned long long)now.st_ino;
            return UCI_OK;
        }
        file_close(file);
    }
}

int file_open_shared(struct locked_file* file, const char* path)
{
    return open_locked(file, path, O_RDONLY, 0, LOCK_SH);
}

int file_open_exclusive(struct locked_file* file, const char* path, unsigned mode)
{
    struct stat there;
    bool is_there = stat(path, &there) == 0;

    if (is_there && !S_ISREG(there.st_mode))
        return UCI_ERR_NOTFOUND;
    int result = open_locked(file, path, O_RDWR | O_APPEND | O_CREAT, mode, LOCK_EX);
    file->made = result == UCI_OK && !is_there;
    return result == UCI_OK ? UCI_OK : UCI_ERR_IO;
}

void file_remove_made(const struct locked_file* file, const char* path)
{
    struct stat opened, now;
    char* real_path = file->made ? realpath(path, NULL) : NULL; /* a dangling link that was there is kept */

    if (real_path && fstat(file->fd, &opened) == 0 && stat(real_path, &now) == 0 && now.st_size == 0 &&
        is_same_file(&opened, &now))
        unlink(real_path);
    free(real_path);
}

void file_close(struct locked_file* file)
{
    if (file->fd >= 0)
        close(file->fd);
    file->fd = -1;
}

/* ---- reading and writing ---- */

static bool read_fully(int fd, unsigned long long offset, char* data, size_t size, size_t* done)
{
    *done = 0;
    while (*done < size) {
        ssize_t result = pread(fd, data + *done, size - *done, (off_t)(offset + *done));
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0)
            return false;
        if (result == 0)
            return true;
        *done += (size_t)result;
    }
    return true;
}

bool write_fully(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t result = write(fd, data, size);
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0)
            return false;
        data += result;
        size -= (size_t)result;
    }
    return true;
}

int file_read_from(const struct locked_file* file, unsigned long long offset, struct text* text)
{
    memset(text, 0, sizeof(*text));
    if (file->size - offset >= PTRDIFF_MAX) /* on 32-bit boards a file may be larger than the address space */
        return UCI_ERR_MEM;
    size_t size = (size_t)(file->size - offset);
    text->data = malloc(size + 1);
    if (!text->data)
        return UCI_ERR_MEM;
    text->capacity = size + 1;
    if (!read_fully(file->fd, offset, text->data, size, &text->size)) {
        text_free(text);
        return UCI_ERR_IO;
    }
    text->data[text->size] = 0;
    return UCI_OK;
}

int file_read(const struct locked_file* file, struct text* text)
{
    return file_read_from(file, 0, text);
}

int file_truncate(struct locked_file* file, unsigned long long size)
{
    int result;

    do
        result = ftruncate(file->fd, (off_t)size);
    while (result < 0 && errno == EINTR);
    if (result < 0)
        return UCI_ERR_IO;
    file->size = size;
    return fdatasync(file->fd) == 0 ? UCI_OK : UCI_ERR_IO;
}

/* Whether the last line of a file has no newline, because a writer was killed or the file was edited. */
static bool ends_within_line(const struct locked_file* file)
{
    char last;

    return file->size > 0 && pread(file->fd, &last, 1, (off_t)(file->size - 1)) == 1 && last != '\n';
}

int file_append(struct locked_file* file, const struct text* text)
{
    unsigned long long size = file->size;
    bool new_line = ends_within_line(file);
    bool done = !new_line || write_fully(file->fd, "\n", 1);

    done = done && write_fully(file->fd, text->data, text->size);
    file->size = size + (new_line ? 1 : 0) + text->size;
    done = done && fdatasync(file->fd) == 0;
    if (!done)
        file_truncate(file, size);
    return done ? UCI_OK : UCI_ERR_IO;
}

/* ---- what is known of a file ---- */

/* Reads the last bytes of the part of a file that has a size. */
static bool read_end(const struct locked_file* file, unsigned long long size, struct known_part* known)
{
    size_t wanted = size < sizeof(known->end) ? (size_t)size : sizeof(known->end);
    size_t done;

    return read_fully(file->fd, size - wanted, known->end, wanted, &done) && done == wanted;
}

void file_note(const struct locked_file* file, unsigned long long size, struct known_part* known)
{
    memset(known, 0, sizeof(*known));
    if (!read_end(file, size, known))
        return;
    known->device = file->device;
    known->number = file->number;
    known->size = size;
}

unsigned long long file_known_size(const struct locked_file* file, const struct known_part* known)
{
    struct known_part now;

    if (file->device != known->device || file->number != known->number || file->size < known->size)
        return 0;
    memset(&now, 0, sizeof(now));
    if (!read_end(file, known->size, &now) || memcmp(now.end, known->end, sizeof(now.end)) != 0)
        return 0;
    return known->size;
}

void file_flush_directory(const char* path)
{
    char* directory = strdup(path);

    if (!directory)
        return;
    strrchr(directory, '/')[1] = 0;
    int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    free(directory);
    if (fd < 0)
        return;
    /* Some file systems do not support it. That is not reported: the file has been replaced. */
    fsync(fd);
    close(fd);
}
