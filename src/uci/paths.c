#include "paths_p.h"

#include "words_p.h"

#include <stdlib.h>
#include <sys/stat.h>

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

char* path_beside(const char* path, const char* suffix)
{
    const char* name = strrchr(path, '/') + 1;
    size_t size = strlen(path) + strlen(suffix) + sizeof(".");
    char* result = malloc(size);

    if (result)
        snprintf(result, size, "%.*s.%s%s", (int)(name - path), path, name, suffix);
    return result;
}

/* ---- names of packages ---- */

static bool has_parent_part(const char* name)
{
    const char* part = name;

    for (;;) {
        size_t size = strcspn(part, "/");
        if (size == 2 && part[0] == '.' && part[1] == '.')
            return true;
        if (!part[size])
            return false;
        part += size + 1;
    }
}

bool package_is_outside(const char* name)
{
    return name[0] == '/' || (name[0] == '.' && name[1] == '/');
}

int package_check_name(const char* name)
{
    if (!is_printable(name))
        return UCI_ERR_INVAL;
    /* A name leaves the configuration directory only if its first characters say so. */
    if (has_parent_part(name) || (name[0] == '.' && !package_is_outside(name)))
        return UCI_ERR_NOTFOUND;
    return UCI_OK;
}

/* ---- files ---- */

char* package_path(const struct uci_context* ctx, const char* name, bool* uses_conf2)
{
    struct stat status;

    *uses_conf2 = false;
    if (*ctx->conf2dir) {
        char* path = path_join(ctx->conf2dir, name);
        if (!path || stat(path, &status) == 0) {
            *uses_conf2 = path != NULL;
            return path;
        }
        free(path);
    }
    return path_join(ctx->confdir, name);
}

char* staged_path(const struct uci_context* ctx, const char* name)
{
    return path_join(ctx->savedir, name);
}
