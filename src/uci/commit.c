#include "elements_p.h"
#include "error_p.h"
#include "load_p.h"
#include "paths_p.h"
#include "writer_p.h"

#include <stdlib.h>

/* Replaces the open file of a package, and empties the staged changes after that, if there are any. */
static int write_file(const struct uci_package* p, const struct locked_file* file, struct staged* staged)
{
    struct text text = {NULL, 0, 0, false};
    struct replacement replacement;

    write_package(p, false, &text);
    int result = text.failed ? UCI_ERR_MEM : UCI_OK;
    if (result == UCI_OK)
        result = replacement_prepare(&replacement, file, p->path, &text);
    if (result == UCI_OK) {
        result = staged ? staged_commit(staged, &replacement, &text) : replacement_apply(&replacement);
        replacement_free(&replacement);
    }
    text_free(&text);
    return result;
}

/* Writes a package if staged changes were applied to it. */
static int write_applied(struct uci_package* p, const struct locked_file* file, struct staged* staged)
{
    if (staged->applied == 0)
        return staged_empty_if_committed(staged);
    int result = write_file(p, file, staged);
    if (result == UCI_OK)
        element_list_free(&p->saved_delta);
    return result;
}

/* Replaces the package in memory by the one that was read from the files. */
static void exchange(struct uci_package** old, struct uci_package* p)
{
    p->path = (*old)->path;
    p->uses_conf2 = (*old)->uses_conf2;
    (*old)->path = NULL;
    list_insert_after(&(*old)->e.list, &p->e.list);
    package_free(*old);
    *old = p;
}

/* Writes the current package file with all staged changes applied. */
static int commit_merged(struct uci_package** package, const struct locked_file* file)
{
    struct uci_package* p = NULL;
    struct staged staged;
    int result = staged_append_pending(*package);

    if (result != UCI_OK)
        return result;
    result = load_staged((*package)->ctx, file, (*package)->e.name, &staged, true, &p);
    if (result == UCI_ERR_PARSE) {
        package_free(*package);
        *package = NULL;
    }
    if (result != UCI_OK)
        return result;
    exchange(package, p);
    result = write_applied(p, file, &staged);
    staged_close(&staged);
    return result;
}

/* Writes the package as it is in memory, with the staged changes applied once more. */
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
    result = staged_apply(&staged, p);
    if (result == UCI_OK)
        result = write_applied(p, file, &staged);
    staged_close(&staged);
    return result;
}

/* Opens the file of a package for writing, after an interrupted commit of it, if any, is finished. */
static int open_file(struct locked_file* file, const char* path)
{
    int result = file_open_exclusive(file, path, UCI_FILEMODE);

    if (result != UCI_OK)
        return result;
    result = staged_finish_interrupted(file, path);
    if (result != UCI_OK)
        file_close(file);
    return result;
}

/* Writes an imported package, which has no file yet. From then on its changes are staged. */
static int commit_first(struct uci_package* p)
{
    struct locked_file file;
    char* path = package_path(p->ctx, p->e.name, &p->uses_conf2);

    if (!path)
        return UCI_ERR_MEM;
    int result = open_file(&file, path);
    p->path = path;
    if (result == UCI_OK) {
        result = write_file(p, &file, NULL);
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
    int result = open_file(&file, p->path);
    if (result != UCI_OK)
        return result;
    if (!p->has_delta)
        result = write_file(p, &file, NULL);
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
    return finish(ctx, p->has_delta ? staged_append_pending(p) : commit(&p, false));
}
