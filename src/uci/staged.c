#include "uci_p.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

/* ---- reading and applying ---- */

/* Applies the changes in one directory that is not the staging directory. A file that cannot be read has none. */
static int apply_directory(struct uci_package* p, const char* directory, size_t* applied)
{
    struct locked_file file;
    struct text text;
    char* path = path_join(directory, p->e.name);

    if (!path)
        return UCI_ERR_MEM;
    int result = file_open_shared(&file, path);
    free(path);
    if (result != UCI_OK)
        return UCI_OK;
    result = file_read(&file, &text);
    file_close(&file);
    if (result != UCI_OK)
        return result;
    result = delta_apply(p, &text, 0, applied);
    text_free(&text);
    return result;
}

/* Applies the changes in all directories that are read before the staging directory. */
static int apply_former_directories(struct uci_package* p, size_t* applied)
{
    struct uci_element* e;

    uci_foreach_element(&p->ctx->delta_path, e)
    {
        if (e->list.next == &p->ctx->delta_path)
            break;
        int result = apply_directory(p, e->name, applied);
        if (result != UCI_OK)
            return result;
    }
    return UCI_OK;
}

char* staged_path(const struct uci_package* p)
{
    return path_join(p->ctx->savedir, p->e.name);
}

void staged_close(struct staged* staged)
{
    file_close(&staged->file);
    text_free(&staged->text);
}

int staged_open(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file,
    bool exclusive)
{
    struct stat status;

    memset(staged, 0, sizeof(*staged));
    staged->file.fd = -1;
    char* path = path_join(ctx->savedir, name);
    if (!path)
        return UCI_ERR_MEM;
    int result = UCI_ERR_NOTFOUND;
    if (!exclusive)
        result = file_open_shared(&staged->file, path);
    else if (stat(path, &status) == 0)
        result = file_open_exclusive(&staged->file, path, UCI_FILEMODE);
    free(path);
    if (result != UCI_OK)
        return exclusive && result == UCI_ERR_IO ? UCI_ERR_IO : UCI_OK;
    result = file_read(&staged->file, &staged->text);
    if (result == UCI_OK)
        staged->begin = delta_skip_committed(&staged->text, package_file);
    else
        staged_close(staged);
    return result;
}

int staged_apply(struct uci_package* p, struct staged* staged, size_t* applied)
{
    int result = apply_former_directories(p, applied);

    return result == UCI_OK && staged->text.size ? delta_apply(p, &staged->text, staged->begin, applied) : result;
}

/* ---- appending ---- */

/*
 * Cuts off what a killed writer left of a change, if it would swallow what is appended, and gives the size of the
 * rest. The whole file is read for that: a newline at its end may be one of a value.
 */
static int drop_torn_line(const struct locked_file* file, size_t* whole)
{
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    size_t size = text.size;
    *whole = delta_whole_size(&text);
    text_free(&text);
    return *whole < size ? file_truncate(file, *whole) : UCI_OK;
}

void staged_mark(struct staged* staged, struct fingerprint committed)
{
    struct text mark = {NULL, 0, 0, false};

    if (staged->file.fd < 0)
        return;
    staged->whole = staged->text.size;
    delta_write_mark(&mark, committed);
    /* Without room for the mark the commit goes on: it is what makes room. */
    if (!mark.failed && drop_torn_line(&staged->file, &staged->whole) == UCI_OK)
        file_append(&staged->file, &mark);
    text_free(&mark);
}

void staged_settle(struct staged* staged, bool committed)
{
    if (staged->file.fd >= 0)
        file_truncate(&staged->file, committed ? 0 : staged->whole);
}

/* ---- staging ---- */

/* A missing staging directory is made as open to others as the configuration directory is. */
static void make_staging_directory(const struct uci_context* ctx)
{
    struct stat status;
    mode_t mode = stat(ctx->confdir, &status) == 0 ? status.st_mode & 0777 : UCI_DIRMODE;

    if (stat(ctx->savedir, &status) < 0 && errno == ENOENT)
        mkdir(ctx->savedir, mode); /* if that fails, so does opening the file in it */
}

/* A new file of changes is as open to others as the package file, whose values it repeats: that of the
 * configuration directory as it is by now, or that of the directory that goes before. */
static unsigned staging_mode(const struct uci_package* p)
{
    struct stat status;
    char* path = p->uses_conf2 ? strdup(p->path) : path_join(p->ctx->confdir, p->e.name);
    unsigned mode = path && stat(path, &status) == 0 ? status.st_mode & 0777 : UCI_FILEMODE;

    free(path);
    return mode;
}

static int append_pending(const struct uci_package* p)
{
    struct text text = {NULL, 0, 0, false};
    struct locked_file file;
    struct uci_element* e;
    size_t whole;

    make_staging_directory(p->ctx);
    uci_foreach_element(&p->delta, e)
    {
        const struct uci_delta* delta = uci_to_delta(e);
        delta_write(&text, p, delta->cmd, delta->section, e->name, delta->value);
    }
    char* path = staged_path(p);
    int result = text.failed || !path ? UCI_ERR_MEM : UCI_OK;
    if (result == UCI_OK && file_open_exclusive(&file, path, staging_mode(p)) != UCI_OK)
        result = UCI_ERR_IO;
    if (result == UCI_OK) {
        result = drop_torn_line(&file, &whole);
        if (result == UCI_OK)
            result = file_append(&file, &text);
        if (result == UCI_OK && file.made)
            file_flush_directory(path);
        file_close(&file);
    }
    free(path);
    text_free(&text);
    return result;
}

/* Moves the pending changes to the list of those that are staged, or forgets them if nobody wants that list. */
static void pending_to_staged(struct uci_package* p)
{
    if (!(p->ctx->flags & UCI_FLAG_SAVED_DELTA)) {
        element_list_free(&p->delta);
        return;
    }
    while (!uci_list_empty(&p->delta)) {
        struct uci_list* link = p->delta.next;
        list_remove(link);
        list_append(&p->saved_delta, link);
    }
}

int store_stage(struct uci_package* p)
{
    if (uci_list_empty(&p->delta))
        return UCI_OK;
    int result = append_pending(p);
    if (result == UCI_OK)
        pending_to_staged(p);
    return result;
}
