#include "error_p.h"
#include "paths_p.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

struct names
{
    char** name;
    size_t count;
    size_t capacity;
};

static bool add_name(struct names* names, const char* name)
{
    if (names->count == names->capacity) {
        size_t capacity = names->capacity ? names->capacity * 2 : 16;
        char** larger = realloc(names->name, capacity * sizeof(*larger));
        if (!larger)
            return false;
        names->name = larger;
        names->capacity = capacity;
    }
    names->name[names->count] = strdup(name);
    return names->name[names->count] && ++names->count;
}

/* Whether a file may be a package. One that cannot be examined is taken for one, so that reading it reports why.
 */
static bool may_be_package(const char* path)
{
    struct stat status;

    if (stat(path, &status) == 0)
        return S_ISREG(status.st_mode);
    return errno != ENOENT && errno != ELOOP;
}

static int add_name_in(struct names* names, const char* path, const char* name)
{
    if (package_check_name(name) != UCI_OK)
        return UCI_OK;
    char* file = path_join(path, name);
    if (!file)
        return UCI_ERR_MEM;
    bool added = !may_be_package(file) || add_name(names, name);
    free(file);
    return added ? UCI_OK : UCI_ERR_MEM;
}

/* UCI_ERR_NOTFOUND: there is no such directory. */
static int add_names_in(struct names* names, const char* path)
{
    DIR* directory = opendir(path);
    int result = UCI_OK;

    if (!directory)
        return errno == ENOENT ? UCI_ERR_NOTFOUND : errno == ENOMEM ? UCI_ERR_MEM : UCI_ERR_IO;
    while (result == UCI_OK) {
        errno = 0;
        const struct dirent* entry = readdir(directory);
        if (!entry) {
            result = errno ? UCI_ERR_IO : UCI_OK;
            break;
        }
        result = add_name_in(names, path, entry->d_name);
    }
    closedir(directory);
    return result;
}

/* The directory whose packages take precedence need not exist. */
static int add_names(struct names* names, const struct uci_context* ctx)
{
    int result = add_names_in(names, ctx->confdir);

    if (result != UCI_OK || !*ctx->conf2dir)
        return result;
    result = add_names_in(names, ctx->conf2dir);
    return result == UCI_ERR_NOTFOUND ? UCI_OK : result;
}

static int compare_names(const void* one, const void* other)
{
    return strcmp(*(char* const*)one, *(char* const*)other);
}

/* Makes one block of an array of pointers and the names that they point to, each name once. */
static char** join_names(const struct names* names)
{
    size_t size = (names->count + 1) * sizeof(char*);

    for (size_t i = 0; i < names->count; i++)
        size += strlen(names->name[i]) + 1;
    char** block = malloc(size);
    if (!block)
        return NULL;
    char* text = (char*)(block + names->count + 1);
    size_t count = 0;
    for (size_t i = 0; i < names->count; i++) {
        if (i > 0 && strcmp(names->name[i], names->name[i - 1]) == 0)
            continue;
        size_t name_size = strlen(names->name[i]) + 1;
        block[count++] = memcpy(text, names->name[i], name_size);
        text += name_size;
    }
    block[count] = NULL;
    return block;
}

int uci_list_configs(struct uci_context* ctx, char*** list)
{
    struct names names = {NULL, 0, 0};

    if (!ctx || !list)
        return finish(ctx, UCI_ERR_INVAL);
    *list = NULL;
    int result = add_names(&names, ctx);
    if (result == UCI_OK) {
        if (names.count)
            qsort(names.name, names.count, sizeof(*names.name), compare_names);
        *list = join_names(&names);
        result = *list ? UCI_OK : UCI_ERR_MEM;
    }
    for (size_t i = 0; i < names.count; i++)
        free(names.name[i]);
    free(names.name);
    return finish(ctx, result);
}
