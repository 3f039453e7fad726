#include "uci_p.h"

#include <stdlib.h>
#include <sys/stat.h>

/* ---- names and paths ---- */

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

static bool is_outside(const char* name)
{
    return name[0] == '/' || (name[0] == '.' && name[1] == '/');
}

int store_check_name(const char* name)
{
    if (!is_printable(name))
        return UCI_ERR_INVAL;
    /* No name leads out of the configuration directory but one that says so with its first characters. */
    if (has_parent_part(name) || (name[0] == '.' && !is_outside(name)))
        return UCI_ERR_NOTFOUND;
    return UCI_OK;
}

static const char* last_part(const char* path)
{
    const char* slash = strrchr(path, '/');

    return slash ? slash + 1 : path;
}

/* Gives the path of a package that is not outside, and whether it lies in the directory that goes before. */
static char* find_path(const struct uci_context* ctx, const char* name, bool* uses_conf2)
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

/* ---- loading ---- */

/* Reads an open package file and what is staged for it; the latter locked for emptying it, if asked. */
static int read_package(
    struct uci_context* ctx, const struct locked_file* file, const char* name, struct staged* staged,
    bool exclusive, struct uci_package** package)
{
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    result = staged_open(staged, ctx, name, &text, exclusive);
    if (result == UCI_OK) {
        result = parse_package(ctx, &text, name, package);
        if (result != UCI_OK)
            staged_close(staged);
    }
    text_free(&text);
    return result;
}

static int
load_outside(struct uci_context* ctx, const struct locked_file* file, const char* name, struct uci_package** p)
{
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    result = parse_package(ctx, &text, name, p);
    text_free(&text);
    return result;
}

static int
load_inside(struct uci_context* ctx, const struct locked_file* file, const char* name, struct uci_package** p)
{
    struct staged staged;
    size_t applied = 0;
    int result = read_package(ctx, file, name, &staged, false, p);

    if (result != UCI_OK)
        return result;
    (*p)->has_delta = true;
    result = staged_apply(*p, &staged, &applied);
    staged_close(&staged);
    if (result != UCI_OK)
        package_free(*p);
    return result;
}

static int
load_path(struct uci_context* ctx, const char* path, const char* name, bool outside, struct uci_package** package)
{
    struct locked_file file;
    int result = file_open_shared(&file, path);

    if (result != UCI_OK)
        return result;
    if (package_loaded(ctx, name))
        result = UCI_ERR_DUPLICATE;
    else if (outside)
        result = load_outside(ctx, &file, name, package);
    else
        result = load_inside(ctx, &file, name, package);
    file_close(&file);
    return result;
}

int store_load(struct uci_context* ctx, const char* name, struct uci_package** package)
{
    struct uci_package* p = NULL;
    bool uses_conf2 = false;
    int result = store_check_name(name);

    if (result != UCI_OK)
        return result;
    bool outside = is_outside(name);
    char* path = outside ? strdup(name) : find_path(ctx, name, &uses_conf2);
    if (!path)
        return UCI_ERR_MEM;
    result = load_path(ctx, path, outside ? last_part(name) : name, outside, &p);
    if (result != UCI_OK) {
        free(path);
        return result;
    }
    p->path = path;
    p->uses_conf2 = uses_conf2;
    list_append(&ctx->root, &p->e.list);
    *package = p;
    return UCI_OK;
}

int uci_load(struct uci_context* ctx, const char* name, struct uci_package** package)
{
    struct uci_package* p = NULL;

    if (!ctx || !name)
        return finish(ctx, UCI_ERR_INVAL);
    int result = store_load(ctx, name, &p);
    if (package)
        *package = p;
    return finish(ctx, result);
}

int uci_unload(struct uci_context* ctx, struct uci_package* p)
{
    if (!ctx || !p)
        return finish(ctx, UCI_ERR_INVAL);
    package_free(p);
    return finish(ctx, UCI_OK);
}

/* ---- committing ---- */

/* Writes a package into its open file. The staged changes are emptied after that, and marked before. */
static int write_and_empty(const struct uci_package* p, const struct locked_file* file, struct staged* staged)
{
    struct text text = {NULL, 0, 0, false};
    struct replacement replacement;
    int result = write_package(p, false, &text);

    if (result == UCI_OK)
        result = file_write_beside(&replacement, file, p->path, &text);
    if (result == UCI_OK) {
        if (staged)
            staged_mark(staged, fingerprint_of(text.data, text.size));
        result = file_replace(&replacement);
        if (staged)
            staged_settle(staged, result == UCI_OK);
        replacement_free(&replacement);
    }
    text_free(&text);
    return result;
}

/* Puts a package that was read anew in the place of the one in memory. */
static void exchange(struct uci_package** old, struct uci_package* p)
{
    p->path = (*old)->path;
    p->uses_conf2 = (*old)->uses_conf2;
    (*old)->path = NULL;
    list_insert_after(&(*old)->e.list, &p->e.list);
    package_free(*old);
    *old = p;
}

/* Applies what is staged and writes the package, if anything was applied. */
static int apply_and_write(struct uci_package* p, const struct locked_file* file, struct staged* staged)
{
    size_t applied = 0;
    bool was_committed = staged->begin > 0 && staged->begin == staged->text.size;
    int result = staged_apply(p, staged, &applied);

    if (result != UCI_OK)
        return result;
    if (applied > 0)
        result = write_and_empty(p, file, staged);
    else if (was_committed && staged->file.fd >= 0)
        result = file_truncate(&staged->file, 0);
    if (result == UCI_OK && applied > 0)
        element_list_free(&p->saved_delta);
    return result;
}

static int commit_merged(struct uci_package** package, const struct locked_file* file)
{
    struct uci_context* ctx = (*package)->ctx;
    struct uci_package* p = NULL;
    struct staged staged;
    int result = store_stage(*package);

    if (result != UCI_OK)
        return result;
    result = read_package(ctx, file, (*package)->e.name, &staged, true, &p);
    if (result == UCI_ERR_PARSE) {
        package_free(*package);
        *package = NULL;
    }
    if (result != UCI_OK)
        return result;
    p->has_delta = true;
    exchange(package, p);
    result = apply_and_write(p, file, &staged);
    staged_close(&staged);
    return result;
}

static int commit_as_it_is(struct uci_package* p, const struct locked_file* file)
{
    struct staged staged;
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    result = staged_open(&staged, p->ctx, p->e.name, &text, true);
    text_free(&text);
    if (result != UCI_OK)
        return result;
    result = apply_and_write(p, file, &staged);
    staged_close(&staged);
    return result;
}

/* Writes a package that was imported and has no file yet; from then on its changes are staged. */
static int commit_first(struct uci_package* p)
{
    struct locked_file file;
    char* path = find_path(p->ctx, p->e.name, &p->uses_conf2);

    if (!path)
        return UCI_ERR_MEM;
    int result = file_open_exclusive(&file, path, UCI_FILEMODE);
    p->path = path;
    if (result == UCI_OK) {
        result = write_and_empty(p, &file, NULL);
        if (result != UCI_OK)
            file_remove_made(&file, path);
        file_close(&file);
    }
    p->has_delta = result == UCI_OK;
    if (result == UCI_OK)
        return UCI_OK;
    p->path = NULL;
    free(path);
    return result;
}

static int commit(struct uci_package** package, bool overwrite)
{
    struct uci_package* p = *package;
    struct locked_file file;

    if (!p->path)
        return overwrite ? commit_first(p) : UCI_ERR_INVAL;
    int result = file_open_exclusive(&file, p->path, UCI_FILEMODE);
    if (result != UCI_OK)
        return result;
    if (!p->has_delta)
        result = write_and_empty(p, &file, NULL);
    else if (overwrite)
        result = commit_as_it_is(p, &file);
    else
        result = commit_merged(package, &file);
    if (result != UCI_OK && *package)
        file_remove_made(&file, (*package)->path);
    file_close(&file);
    return result;
}

int uci_commit(struct uci_context* ctx, struct uci_package** p, bool overwrite)
{
    return finish(ctx, ctx && p && *p ? commit(p, overwrite) : UCI_ERR_INVAL);
}

int uci_save(struct uci_context* ctx, struct uci_package* p)
{
    if (!ctx || !p)
        return finish(ctx, UCI_ERR_INVAL);
    return finish(ctx, p->has_delta ? store_stage(p) : commit(&p, false));
}
