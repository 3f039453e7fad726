#include "lookup_p.h"

#include "contextdata_p.h"
#include "elements_p.h"
#include "error_p.h"
#include "load_p.h"
#include "place_p.h"

/* ---- places in packages that may have to be loaded ---- */

static int find_or_load_package(struct uci_context* ctx, struct uci_ptr* ptr)
{
    if (!ptr->p && ptr->package)
        ptr->p = package_loaded(ctx, ptr->package);
    if (ptr->p) {
        if (!ptr->package)
            ptr->package = ptr->p->e.name;
        return UCI_OK;
    }
    return ptr->package ? load_package(ctx, ptr->package, &ptr->p) : UCI_ERR_INVAL;
}

int lookup_place(struct uci_context* ctx, struct uci_ptr* ptr)
{
    if (ptr->o)
        ptr->s = ptr->o->section;
    if (ptr->s)
        ptr->p = ptr->s->package;
    int result = find_or_load_package(ctx, ptr);
    if (result == UCI_OK)
        place_find(ptr);
    return result;
}

/* Replaces the position of an earlier error in a file: a malformed string has none. */
static int parse_string(struct uci_context* ctx, struct uci_ptr* ptr, char* text)
{
    ctx->pctx->reason = NULL;
    return place_parse(ptr, text);
}

static int lookup_string(struct uci_context* ctx, struct uci_ptr* ptr, char* text, bool extended)
{
    int result = parse_string(ctx, ptr, text);

    if (result == UCI_OK)
        result = find_or_load_package(ctx, ptr);
    if (result == UCI_OK && ptr->flags & UCI_LOOKUP_EXTENDED)
        result = extended ? place_find_indexed_section(ptr) : UCI_ERR_INVAL;
    if (result == UCI_OK)
        place_find(ptr);
    return result;
}

/* ---- the public functions ---- */

static bool is_complete(const struct uci_ptr* ptr)
{
    return ptr->p && (ptr->s || !ptr->section) && (ptr->o || !ptr->option);
}

int uci_lookup_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended)
{
    if (!ctx || !ptr)
        return finish(ctx, UCI_ERR_INVAL);
    int result = str ? lookup_string(ctx, ptr, str, extended) : lookup_place(ctx, ptr);
    if (result != UCI_OK)
        return finish(ctx, result);
    ptr->flags |= UCI_LOOKUP_DONE;
    if (is_complete(ptr))
        ptr->flags |= UCI_LOOKUP_COMPLETE;
    return finish(ctx, UCI_OK);
}

int uci_parse_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str)
{
    if (!ctx || !ptr || !str)
        return finish(ctx, UCI_ERR_INVAL);
    return finish(ctx, parse_string(ctx, ptr, str));
}

int uci_lookup_next(struct uci_context* ctx, struct uci_element** e, struct uci_list* list, const char* name)
{
    if (!ctx || !e || !list || !name)
        return finish(ctx, UCI_ERR_INVAL);
    struct uci_list* link = *e ? (*e)->list.next : list->next;
    for (; link != list; link = link->next) {
        if (strcmp(list_to_element(link)->name, name) != 0)
            continue;
        *e = list_to_element(link);
        return finish(ctx, UCI_OK);
    }
    return finish(ctx, UCI_ERR_NOTFOUND);
}
