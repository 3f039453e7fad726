#include "staged_p.h"

#include "change_p.h"
#include "delta_p.h"
#include "elements_p.h"
#include "journal_p.h"
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
 * Cuts off an incomplete change at the end, which a killed writer left, if it would swallow what is appended. A
 * newline at the end of the file may be part of a value, so that the lines have to be read, from the known part
 * on.
 */
static int drop_torn_line(struct locked_file* file, const struct known_part* known)
{
    struct text text;
    unsigned long long known_size = file_known_size(file, known);

    if (known_size == file->size)
        return UCI_OK;
    int result = file_read_from(file, known_size, &text);
    if (result != UCI_OK)
        return result;
    size_t size = text.size;
    size_t whole = delta_whole_size(&text);
    text_free(&text);
    return whole < size ? file_truncate(file, known_size + whole) : UCI_OK;
}

static int append_text(struct uci_package* p, const char* path, const struct text* text)
{
    struct locked_file file;
    struct known_part* known = package_known_part(p);

    make_staging_directory(p->ctx);
    if (file_open_exclusive(&file, path, staging_mode(p)) != UCI_OK)
        return UCI_ERR_IO;
    int result = drop_torn_line(&file, known);
    if (result == UCI_OK)
        result = file_append(&file, text);
    if (result == UCI_OK)
        file_note(&file, file.size, known);
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

/* Opens a file of staged changes, if there is one. */
static int open_file(struct locked_file* file, const char* path, bool exclusive)
{
    struct stat status;

    if (!exclusive)
        return file_open_shared(file, path);
    return stat(path, &status) == 0 ? file_open_exclusive(file, path, UCI_FILEMODE) : UCI_ERR_NOTFOUND;
}

static int
read_file(const struct locked_file* file, const struct text* package_file, struct staged_text* staged_text)
{
    int result = file_read(file, &staged_text->text);

    return result == UCI_OK ? mark_skip_committed(&staged_text->text, package_file, &staged_text->begin) : result;
}

/* Reads what is staged in a directory other than the staging directory; nothing if there is no readable file. */
static int read_directory(
    const char* directory, const char* name, const struct text* package_file, struct staged_text* staged_text)
{
    struct locked_file file;
    char* path = path_join(directory, name);

    if (!path)
        return UCI_ERR_MEM;
    int result = file_open_shared(&file, path);
    free(path);
    if (result != UCI_OK)
        return UCI_OK;
    result = read_file(&file, package_file, staged_text);
    file_close(&file);
    return result;
}

static int read_others(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file)
{
    struct uci_element* e;
    size_t count = 0;

    uci_foreach_element(&ctx->delta_path, e) count++;
    if (count == 0)
        return UCI_OK;
    staged->others = calloc(count, sizeof(*staged->others));
    if (!staged->others)
        return UCI_ERR_MEM;
    uci_foreach_element(&ctx->delta_path, e)
    {
        if (e->list.next == &ctx->delta_path) /* the last one is the staging directory */
            break;
        int result = read_directory(e->name, name, package_file, &staged->others[staged->other_count++]);
        if (result != UCI_OK)
            return result;
    }
    return UCI_OK;
}

static int read_own(struct staged* staged, const struct text* package_file, bool exclusive)
{
    int result = open_file(&staged->file, staged->path, exclusive);

    if (result != UCI_OK)
        return exclusive && result == UCI_ERR_IO ? UCI_ERR_IO : UCI_OK;
    return read_file(&staged->file, package_file, &staged->own);
}

int staged_open(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file,
    bool exclusive)
{
    memset(staged, 0, sizeof(*staged));
    staged->file.fd = -1;
    staged->path = staged_path(ctx, name);
    int result = staged->path ? read_own(staged, package_file, exclusive) : UCI_ERR_MEM;
    if (result == UCI_OK)
        result = read_others(staged, ctx, name, package_file);
    if (result != UCI_OK)
        staged_close(staged);
    return result;
}

void staged_close(struct staged* staged)
{
    file_close(&staged->file);
    text_free(&staged->own.text);
    for (size_t i = 0; i < staged->other_count; i++)
        text_free(&staged->others[i].text);
    free(staged->others);
    free(staged->path);
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

/* Applies the lines that are not in the package file yet, and adds the number of those that could be applied.
 * Gives whether the last one is incomplete. */
static int apply_text(struct uci_package* p, struct staged_text* staged_text, size_t* applied, bool* is_torn)
{
    struct text* text = &staged_text->text;
    struct delta_line line;
    enum delta_result read;

    *is_torn = false;
    if (!text->size)
        return UCI_OK;
    struct words words = {.position = text->data + staged_text->begin, .end = text->data + text->size};
    /* NUL bytes are replaced by a byte that no line may hold: only the lines they are in are refused then. */
    for (char* nul = words.position; (nul = memchr(nul, 0, (size_t)(words.end - nul)));)
        *nul = 1;
    while ((read = delta_next(&words, p->e.name, &line)) != DELTA_END) {
        *is_torn = delta_is_torn(&words);
        if (read != DELTA_LINE)
            continue;
        int result = apply_line(p, &line);
        if (result == UCI_ERR_MEM)
            return result;
        *applied += result == UCI_OK;
        /* A change that does not apply now is still staged: it may apply again when the package file has changed.
         */
        if (p->ctx->flags & UCI_FLAG_SAVED_DELTA &&
            !delta_new(&p->saved_delta, line.cmd, line.section, line.option, line.value))
            return UCI_ERR_MEM;
    }
    return UCI_OK;
}

int staged_apply(struct staged* staged, struct uci_package* p)
{
    bool is_torn;
    int result = UCI_OK;

    for (size_t i = 0; i < staged->other_count && result == UCI_OK; i++)
        result = apply_text(p, &staged->others[i], &staged->applied, &is_torn);
    if (result == UCI_OK)
        result = apply_text(p, &staged->own, &staged->applied, &is_torn);
    if (result == UCI_OK && staged->file.fd >= 0 && !is_torn)
        file_note(&staged->file, staged->own.text.size, package_known_part(p));
    return result;
}

/* ---- emptying ---- */

int staged_empty_if_committed(struct staged* staged)
{
    bool is_committed = staged->own.begin > 0 && staged->own.begin == staged->own.text.size;

    return is_committed && staged->file.fd >= 0 ? file_truncate(&staged->file, 0) : UCI_OK;
}

/* Appends the mark of a commit. */
static void append_mark(struct staged* staged, const struct text* package_file)
{
    struct text mark = {NULL, 0, 0, false};

    mark_write(&mark, package_file);
    /* Without space for the mark the commit continues: it frees the space. */
    if (!mark.failed)
        file_append(&staged->file, &mark);
    text_free(&mark);
}

int staged_commit(struct staged* staged, struct replacement* replacement, const struct text* package_file)
{
    static const struct known_part nothing = {0};

    if (staged->file.fd < 0)
        return replacement_apply(replacement);
    bool is_whole = drop_torn_line(&staged->file, &nothing) == UCI_OK;
    unsigned long long size = staged->file.size;
    if (is_whole)
        append_mark(staged, package_file);
    journal_begin(replacement->path, staged->path);
    int result = replacement_apply(replacement);
    int emptied = file_truncate(&staged->file, result == UCI_OK ? 0 : size);
    if (result != UCI_OK || emptied == UCI_OK)
        journal_end(replacement->path);
    return result;
}

int staged_rewrite(struct locked_file* file, const char* path, const struct text* text)
{
    struct replacement replacement;

    if (!text->size)
        return file_truncate(file, 0);
    int result = replacement_prepare(&replacement, file, path, text);
    if (result != UCI_OK)
        return result;
    result = replacement_apply(&replacement);
    replacement_free(&replacement);
    return result;
}

/* Drops the lines that this package file contains already. */
static int drop_committed(const char* path, const struct text* package_file)
{
    struct locked_file file;
    struct staged_text staged_text = {{NULL, 0, 0, false}, 0};
    int result = open_file(&file, path, true);

    if (result != UCI_OK)
        return result == UCI_ERR_NOTFOUND ? UCI_OK : result;
    result = read_file(&file, package_file, &staged_text);
    if (result == UCI_OK && staged_text.begin > 0) {
        const struct text rest = {
            .data = staged_text.text.data + staged_text.begin, .size = staged_text.text.size - staged_text.begin};
        result = staged_rewrite(&file, path, &rest);
    }
    text_free(&staged_text.text);
    file_close(&file);
    return result;
}

int staged_finish_interrupted(const struct locked_file* file, const char* path)
{
    struct text package_file;
    char* real_path = realpath(path, NULL);
    char* staged_file = real_path ? journal_read(real_path) : NULL;
    int result = UCI_OK;

    if (staged_file) {
        result = file_read(file, &package_file);
        if (result == UCI_OK) {
            result = drop_committed(staged_file, &package_file);
            text_free(&package_file);
        }
        if (result == UCI_OK)
            journal_end(real_path);
    }
    free(staged_file);
    free(real_path);
    return result;
}
