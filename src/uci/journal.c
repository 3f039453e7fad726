#include "journal_p.h"

#include "paths_p.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

/* A link is made in one step and flushed with its directory: there is no incomplete one. */
static char* link_path(const char* package_file)
{
    return path_beside(package_file, ".uci-commit");
}

void journal_begin(const char* package_file, const char* staged_file)
{
    char* path = link_path(package_file);
    char* target = realpath(staged_file, NULL); /* the next commit may have another working directory */

    if (path && target) {
        /* If there are no links, only commits of this staging directory recognise an interrupted one. */
        int result = symlink(target, path);
        (void)result;
    }
    free(target);
    free(path);
}

void journal_end(const char* package_file)
{
    char* path = link_path(package_file);

    if (path)
        unlink(path);
    free(path);
}

char* journal_read(const char* package_file)
{
    char target[PATH_MAX];
    char* path = link_path(package_file);
    ssize_t size = path ? readlink(path, target, sizeof(target) - 1) : -1;

    free(path);
    if (size < 0)
        return NULL;
    target[size] = 0;
    return strdup(target);
}
