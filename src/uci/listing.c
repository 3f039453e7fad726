#include "error_p.h"
#include "paths_p.h"

#include <dirent.h>
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

static bool add_names_in(struct names* names, const char* path)
{
    DIR* directory = opendir(path);
    struct dirent* entry;
    struct stat status;
    bool done = true;

    while (directory && done && (entry = readdir(directory))) {
        if (package_check_name(entry->d_name) != UCI_OK)
            continue;
        char* file = path_join(path, entry->d_name);
        bool regular = file && stat(file, &status) == 0 && S_ISREG(status.st_mode);
        done = file && (!regular || add_name(names, entry->d_name));
        free(file);
    }
    if (directory)
        closedir(directory);
    return done;
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
    if (add_names_in(&names, ctx->confdir) && (!*ctx->conf2dir || add_names_in(&names, ctx->conf2dir))) {
        if (names.count)
            qsort(names.name, names.count, sizeof(*names.name), compare_names);
        *list = join_names(&names);
    }
    for (size_t i = 0; i < names.count; i++)
        free(names.name[i]);
    free(names.name);
    return finish(ctx, *list ? UCI_OK : UCI_ERR_MEM);
}
