#include "staged_p.h"

#include "change_p.h"
#include "delta_p.h"
#include "elements_p.h"
#include "mark_p.h"
#include "paths_p.h"
#include "place_p.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

/* ---- appending the pending changes ---- */

/* A missing staging directory gets the mode of the configuration directory. */
static void make_staging_directory(const struct uci_context* ctx)
{
    struct stat status;
    mode_t mode = stat(ctx->confdir, &status) == 0 ? status.st_mode & 0777 : UCI_DIRMODE;

    if (stat(ctx->savedir, &status) < 0 && errno == ENOENT)
        mkdir(ctx->savedir, mode); /* if that fails, opening the file in it fails as well */
}

/* A new file of staged changes gets the mode of the package file, whose values it repeats. */
static unsigned staging_mode(const struct uci_package* p)
{
    struct stat status;
    char* path = p->uses_conf2 ? strdup(p->path) : path_join(p->ctx->confdir, p->e.name);
    unsigned mode = path && stat(path, &status) == 0 ? status.st_mode & 0777 : UCI_FILEMODE;

    free(path);
    return mode;
}

static void write_pending(const struct uci_package* p, struct text* text)
{
    struct uci_element* e;

    uci_foreach_element(&p->delta, e)
    {
        const struct uci_delta* delta = uci_to_delta(e);
        delta_write(text, p, delta->cmd, delta->section, e->name, delta->value);
    }
}

/*
 * Cuts off an incomplete change at the end, which a killed writer left, if it would swallow what is appended.
 * Gives the size of the rest. The whole file is read for that: a newline at its end may be part of a value.
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

static int append_text(const struct uci_package* p, const char* path, const struct text* text)
{
    struct locked_file file;
    size_t whole;

    make_staging_directory(p->ctx);
    if (file_open_exclusive(&file, path, staging_mode(p)) != UCI_OK)
        return UCI_ERR_IO;
    int result = drop_torn_line(&file, &whole);
    if (result == UCI_OK)
        result = file_append(&file, text);
    if (result == UCI_OK && file.made)
        file_flush_directory(path);
    file_close(&file);
    return result;
}

/* Moves the pending changes to the list of the staged ones, or drops them if that list is not kept. */
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

int staged_append_pending(struct uci_package* p)
{
    struct text text = {NULL, 0, 0, false};

    if (uci_list_empty(&p->delta))
        return UCI_OK;
    write_pending(p, &text);
    char* path = staged_path(p->ctx, p->e.name);
    int result = text.failed || !path ? UCI_ERR_MEM : append_text(p, path, &text);
    free(path);
    text_free(&text);
    if (result == UCI_OK)
        pending_to_staged(p);
    return result;
}

/* ---- opening ---- */

int staged_open(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file,
    bool exclusive)
{
    struct stat status;

    memset(staged, 0, sizeof(*staged));
    staged->file.fd = -1;
    char* path = staged_path(ctx, name);
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
        result = mark_skip_committed(&staged->text, package_file, &staged->begin);
    if (result != UCI_OK)
        staged_close(staged);
    return result;
}

void staged_close(struct staged* staged)
{
    file_close(&staged->file);
    text_free(&staged->text);
}

/* ---- applying ---- */

static int apply_line(struct uci_package* p, const struct delta_line* line)
{
    struct uci_ptr ptr;

    memset(&ptr, 0, sizeof(ptr));
    ptr.p = p;
    ptr.section = line->section;
    ptr.option = line->option;
    ptr.value = line->value;
    place_find(&ptr);
    return change_apply(line->cmd, &ptr, false);
}

/* Applies the lines from an offset on, and adds the number of those that could be applied. */
static int apply_text(struct uci_package* p, struct text* text, size_t begin, size_t* applied)
{
    struct words words = {.position = text->data + begin, .end = text->data + text->size};
    struct delta_line line;
    enum delta_result read;

    /* NUL bytes are replaced by a byte that no line may hold: only the lines they are in are refused then. */
    for (char* nul = words.position; (nul = memchr(nul, 0, (size_t)(words.end - nul)));)
        *nul = 1;
    while ((read = delta_next(&words, p->e.name, &line)) != DELTA_END) {
        if (read != DELTA_LINE)
            continue;
        int result = apply_line(p, &line);
        if (result == UCI_ERR_MEM)
            return result;
        if (result != UCI_OK)
            continue;
        ++*applied;
        if (p->ctx->flags & UCI_FLAG_SAVED_DELTA &&
            !delta_new(&p->saved_delta, line.cmd, line.section, line.option, line.value))
            return UCI_ERR_MEM;
    }
    return UCI_OK;
}

/* Applies the changes in a directory other than the staging directory; none if there is no readable file. */
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
    result = apply_text(p, &text, 0, applied);
    text_free(&text);
    return result;
}

int staged_apply(struct staged* staged, struct uci_package* p)
{
    struct uci_element* e;

    uci_foreach_element(&p->ctx->delta_path, e)
    {
        if (e->list.next == &p->ctx->delta_path) /* the last one is the staging directory */
            break;
        int result = apply_directory(p, e->name, &staged->applied);
        if (result != UCI_OK)
            return result;
    }
    if (!staged->text.size)
        return UCI_OK;
    return apply_text(p, &staged->text, staged->begin, &staged->applied);
}

/* ---- emptying ---- */

int staged_empty_if_committed(const struct staged* staged)
{
    bool is_committed = staged->begin > 0 && staged->begin == staged->text.size;

    return is_committed && staged->file.fd >= 0 ? file_truncate(&staged->file, 0) : UCI_OK;
}

/* Appends the mark of a commit. Gives the size of the file without it. */
static void append_mark(const struct staged* staged, const struct text* package_file, size_t* whole)
{
    struct text mark = {NULL, 0, 0, false};

    *whole = staged->text.size;
    mark_write(&mark, package_file);
    /* Without space for the mark the commit continues: it frees the space. */
    if (!mark.failed && drop_torn_line(&staged->file, whole) == UCI_OK)
        file_append(&staged->file, &mark);
    text_free(&mark);
}

int staged_commit(const struct staged* staged, struct replacement* replacement, const struct text* package_file)
{
    size_t whole;

    if (staged->file.fd < 0)
        return replacement_apply(replacement);
    append_mark(staged, package_file, &whole);
    int result = replacement_apply(replacement);
    file_truncate(&staged->file, result == UCI_OK ? 0 : whole);
    return result;
}
