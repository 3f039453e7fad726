#include "uci_p.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

char* path_join(const char* directory, const char* name)
{
    size_t directory_size = strlen(directory);
    size_t name_size = strlen(name);
    char* path = malloc(directory_size + name_size + 2);

    if (!path)
        return NULL;
    memcpy(path, directory, directory_size);
    path[directory_size] = '/';
    memcpy(path + directory_size + 1, name, name_size);
    path[directory_size + 1 + name_size] = '\0';
    return path;
}

/* ---- opening and locking ---- */

static int lock(int fd, int operation)
{
    int result;

    do
        result = flock(fd, operation);
    while (result < 0 && errno == EINTR);
    return result;
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
        /* Not blocking, so that a FIFO in the place of the file holds nobody up. */
        file->fd = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, (mode_t)mode);
        if (file->fd < 0 && errno == EINTR)
            continue;
        if (file->fd < 0)
            return errno == ENOENT || errno == ENOTDIR || errno == EISDIR ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
        if (fstat(file->fd, &opened) < 0 || !S_ISREG(opened.st_mode)) {
            file_close(file);
            return UCI_ERR_NOTFOUND;
        }
        if (lock(file->fd, operation) < 0) {
            file_close(file);
            return UCI_ERR_IO;
        }
        /* Another process may have replaced it before it was locked. */
        if (stat(path, &now) == 0 && is_same_file(&opened, &now)) {
            file->size = (unsigned long long)now.st_size;
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
    char* real_path = file->made ? realpath(path, NULL) : NULL; /* of a link that led nowhere the link stays */

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

static bool read_fully(int fd, char* data, size_t size, size_t* done)
{
    *done = 0;
    while (*done < size) {
        ssize_t result = pread(fd, data + *done, size - *done, (off_t)*done);
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

static bool write_fully(int fd, const char* data, size_t size)
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

int file_read(const struct locked_file* file, struct text* text)
{
    memset(text, 0, sizeof(*text));
    if (file->size >= PTRDIFF_MAX) /* on 32-bit boards files may be larger than all memory */
        return UCI_ERR_MEM;
    size_t size = (size_t)file->size;
    text->data = malloc(size + 1);
    if (!text->data)
        return UCI_ERR_MEM;
    text->capacity = size + 1;
    if (!read_fully(file->fd, text->data, size, &text->size)) {
        text_free(text);
        return UCI_ERR_IO;
    }
    text->data[text->size] = 0;
    return UCI_OK;
}

int file_truncate(const struct locked_file* file, size_t size)
{
    int result;

    do
        result = ftruncate(file->fd, (off_t)size);
    while (result < 0 && errno == EINTR);
    return result == 0 && fdatasync(file->fd) == 0 ? UCI_OK : UCI_ERR_IO;
}

/* Whether a file ends within a line, as it does when a writer was killed or somebody edited it. */
static bool ends_within_line(const struct locked_file* file)
{
    struct stat status;
    char last;

    if (fstat(file->fd, &status) < 0 || status.st_size == 0)
        return false;
    return pread(file->fd, &last, 1, status.st_size - 1) == 1 && last != '\n';
}

int file_append(const struct locked_file* file, const struct text* text)
{
    struct stat status;

    if (fstat(file->fd, &status) < 0)
        return UCI_ERR_IO;
    bool done = !ends_within_line(file) || write_fully(file->fd, "\n", 1);
    done = done && write_fully(file->fd, text->data, text->size) && fdatasync(file->fd) == 0;
    if (!done)
        file_truncate(file, (size_t)status.st_size);
    return done ? UCI_OK : UCI_ERR_IO;
}

/* ---- replacing ---- */

/* The new file's name is always the same: what a process leaves that was killed is in nobody's way for long. */
static char* name_beside(const char* path)
{
    const char* name = strrchr(path, '/') + 1;
    struct text text = {NULL, 0, 0, false};

    text_append(&text, path, (size_t)(name - path));
    text_append_string(&text, ".");
    text_append_string(&text, name);
    text_append_string(&text, ".uci-new");
    if (text.failed)
        text_free(&text);
    return text.data;
}

/* Gives the new file the mode and owner of the old one; a file that would change its owner is not written. */
static bool take_over_attributes(int new_fd, int old_fd)
{
    struct stat old_status, new_status;

    if (fstat(old_fd, &old_status) < 0 || fstat(new_fd, &new_status) < 0)
        return false;
    bool same_owner = old_status.st_uid == new_status.st_uid && old_status.st_gid == new_status.st_gid;
    if (!same_owner && fchown(new_fd, old_status.st_uid, old_status.st_gid) < 0)
        return false;
    return fchmod(new_fd, old_status.st_mode & 07777) == 0;
}

void replacement_free(struct replacement* replacement)
{
    if (replacement->new_path)
        unlink(replacement->new_path);
    free(replacement->path);
    free(replacement->new_path);
    memset(replacement, 0, sizeof(*replacement));
}

int file_write_beside(
    struct replacement* replacement, const struct locked_file* file, const char* path, const struct text* text)
{
    replacement->new_path = NULL;
    replacement->path = realpath(path, NULL);
    if (!replacement->path)
        return errno == ENOMEM ? UCI_ERR_MEM : UCI_ERR_IO;
    char* new_path = name_beside(replacement->path);
    if (!new_path) {
        replacement_free(replacement);
        return UCI_ERR_MEM;
    }
    unlink(new_path);
    int fd = open(new_path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        free(new_path);
        replacement_free(replacement);
        return UCI_ERR_IO;
    }
    replacement->new_path = new_path;
    bool done = write_fully(fd, text->data, text->size) && take_over_attributes(fd, file->fd) && fsync(fd) == 0;
    if (close(fd) < 0 || !done) {
        replacement_free(replacement);
        return UCI_ERR_IO;
    }
    return UCI_OK;
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
    /* Some file systems cannot; the file is in its place all the same, so that there is nothing to report. */
    fsync(fd);
    close(fd);
}

int file_replace(struct replacement* replacement)
{
    if (rename(replacement->new_path, replacement->path) < 0)
        return UCI_ERR_IO;
    file_flush_directory(replacement->path);
    free(replacement->new_path);
    replacement->new_path = NULL;
    return UCI_OK;
}
