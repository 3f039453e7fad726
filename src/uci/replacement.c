#include "replacement_p.h"

#include "paths_p.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

/* Gives the new file the mode and owner of the old one. False if they cannot be kept. */
static bool copy_attributes(int new_fd, int old_fd)
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

int replacement_prepare(
    struct replacement* replacement, const struct locked_file* file, const char* path, const struct text* text)
{
    replacement->new_path = NULL;
    replacement->path = realpath(path, NULL);
    if (!replacement->path)
        return errno == ENOMEM ? UCI_ERR_MEM : UCI_ERR_IO;
    /* The name is always the same, so that a file left by a killed process is replaced by the next. */
    char* new_path = path_beside(replacement->path, ".uci-new");
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
    bool done = write_fully(fd, text->data, text->size) && copy_attributes(fd, file->fd) && fsync(fd) == 0;
    if (close(fd) < 0 || !done) {
        replacement_free(replacement);
        return UCI_ERR_IO;
    }
    return UCI_OK;
}

int replacement_apply(struct replacement* replacement)
{
    if (rename(replacement->new_path, replacement->path) < 0)
        return UCI_ERR_IO;
    file_flush_directory(replacement->path);
    free(replacement->new_path);
    replacement->new_path = NULL;
    return UCI_OK;
}
