#include "delta_p.h"
#include "elements_p.h"
#include "error_p.h"
#include "load_p.h"
#include "lookup_p.h"

#include <stdlib.h>

static bool is_reverted(const struct delta_line* line, const char* section, const char* option)
{
    if (section && strcmp(section, line->section) != 0)
        return false;
    return !option || (line->option && strcmp(option, line->option) == 0);
}

/* Writes the lines to keep. False if one is malformed: it may be the rest of another one, so all are kept. */
static bool filter_lines(
    const struct uci_package* p, struct staged* staged, const char* section, const char* option, struct text* kept)
{
    struct words words = {
        .position = staged->own.text.data + staged->own.begin,
        .end = staged->own.text.data + staged->own.text.size};
    struct delta_line line;
    enum delta_result read;

    while ((read = delta_next(&words, p->e.name, &line)) != DELTA_END) {
        if (read == DELTA_REFUSED)
            return false;
        if (!is_reverted(&line, section, option))
            delta_write(kept, p, line.cmd, line.section, line.option, line.value);
    }
    return true;
}

/* Removes the lines from the file of staged changes. */
static int drop_lines(const struct uci_package* p, struct staged* staged, const char* section, const char* option)
{
    struct text kept = {NULL, 0, 0, false};
    int result = UCI_OK;

    if (staged->own.text.size && !memchr(staged->own.text.data, 0, staged->own.text.size) &&
        filter_lines(p, staged, section, option, &kept))
        result = kept.failed ? UCI_ERR_MEM : staged_rewrite(&staged->file, staged->path, &kept);
    text_free(&kept);
    return result;
}

/* The package file is kept locked: a commit stages its changes while it holds that lock, and they must not be
 * dropped before it has applied them. */
static int drop_staged(const struct uci_package* p, const char* section, const char* option)
{
    struct staged staged;
    struct locked_file file;
    struct text package_file = {NULL, 0, 0, false};
    int result = file_open_shared(&file, p->path);
    bool is_locked = result == UCI_OK;

    if (is_locked)
        result = file_read(&file, &package_file);
    if (result == UCI_OK || result == UCI_ERR_NOTFOUND)
        result = staged_open(&staged, p->ctx, p->e.name, &package_file, true);
    text_free(&package_file);
    if (result == UCI_OK) {
        result = drop_lines(p, &staged, section, option);
        staged_close(&staged);
    }
    if (is_locked)
        file_close(&file);
    return result;
}

/* Loads the package again by its name. The names of the place are kept. */
static int reload(struct uci_context* ctx, struct uci_ptr* ptr)
{
    char* name = strdup(ptr->p->e.name);

    if (!name)
        return UCI_ERR_MEM;
    if (ptr->package == ptr->p->e.name)
        ptr->package = NULL;
    package_free(ptr->p);
    ptr->p = NULL;
    ptr->s = NULL;
    ptr->o = NULL;
    ptr->last = NULL;
    int result = load_package(ctx, name, &ptr->p);
    free(name);
    if (result == UCI_OK)
        ptr->last = &ptr->p->e;
    if (result == UCI_OK && !ptr->package)
        ptr->package = ptr->p->e.name;
    return result;
}

static int revert(struct uci_context* ctx, struct uci_ptr* ptr)
{
    int result = lookup_place(ctx, ptr);

    if (result != UCI_OK)
        return result;
    if (!ptr->p->has_delta)
        return UCI_ERR_INVAL;
    bool own_section = ptr->s && ptr->section == ptr->s->e.name;
    bool own_option = ptr->o && ptr->option == ptr->o->e.name;
    result = staged_append_pending(ptr->p);
    if (result == UCI_OK)
        result = drop_staged(ptr->p, ptr->section, ptr->option);
    if (result != UCI_OK)
        return result;
    if (own_section)
        ptr->section = "";
    if (own_option)
        ptr->option = "";
    return reload(ctx, ptr);
}

int uci_revert(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return finish(ctx, ctx && ptr ? revert(ctx, ptr) : UCI_ERR_INVAL);
}
