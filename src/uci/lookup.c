#include "uci_p.h"

#include <limits.h>
#include <stdlib.h>

/* ---- taking strings apart ---- */

/* Cuts off and returns what follows the first separator, or null. */
static char* cut(char* text, char separator)
{
    char* found = strchr(text, separator);

    if (!found)
        return NULL;
    *found = 0;
    return found + 1;
}

int place_parse(struct uci_ptr* ptr, char* text)
{
    memset(ptr, 0, sizeof(*ptr));
    ptr->value = cut(text, '=');
    char* section = cut(text, '.');
    char* option = section ? cut(section, '.') : NULL;
    if (!is_printable(text) || (option && !is_plain_name(option)))
        return UCI_ERR_PARSE;
    if (ptr->value && !is_delta_value(ptr->value))
        return UCI_ERR_PARSE;
    ptr->package = text;
    ptr->section = section;
    ptr->option = option;
    ptr->target = option ? UCI_TYPE_OPTION : section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    if (section && !is_plain_name(section))
        ptr->flags |= UCI_LOOKUP_EXTENDED;
    return UCI_OK;
}

/* A malformed string has no line; the place of an earlier error in a file is not that of this one. */
static int parse_string(struct uci_context* ctx, struct uci_ptr* ptr, char* str)
{
    ctx->pctx->reason = NULL;
    return place_parse(ptr, str);
}

int uci_parse_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str)
{
    if (!ctx || !ptr || !str)
        return finish(ctx, UCI_ERR_INVAL);
    return finish(ctx, parse_string(ctx, ptr, str));
}

/* ---- finding ---- */

struct uci_package* context_find(const struct uci_context* ctx, const char* name)
{
    struct uci_element* e;

    uci_foreach_element(&ctx->root, e) if (strcmp(e->name, name) == 0) return uci_to_package(e);
    return NULL;
}

static int resolve_package(struct uci_context* ctx, struct uci_ptr* ptr)
{
    if (!ptr->p && ptr->package)
        ptr->p = context_find(ctx, ptr->package);
    if (ptr->p) {
        if (!ptr->package)
            ptr->package = ptr->p->e.name;
        return UCI_OK;
    }
    return ptr->package ? store_load(ctx, ptr->package, &ptr->p) : UCI_ERR_INVAL;
}

int place_resolve(struct uci_context* ctx, struct uci_ptr* ptr)
{
    if (ptr->o)
        ptr->s = ptr->o->section;
    if (ptr->s)
        ptr->p = ptr->s->package;
    int result = resolve_package(ctx, ptr);
    if (result != UCI_OK)
        return result;
    ptr->last = &ptr->p->e;
    /* "@type[index]" is no name, even where a careless caller has given a section that very name. */
    if (!ptr->s && ptr->section && !(ptr->flags & UCI_LOOKUP_EXTENDED))
        ptr->s = package_find(ptr->p, ptr->section);
    if (!ptr->s)
        return UCI_OK;
    /* A name that the caller gave stays his: he may go on with it after the element is gone. */
    if (!ptr->section || ptr->flags & UCI_LOOKUP_EXTENDED)
        ptr->section = ptr->s->e.name;
    ptr->last = &ptr->s->e;
    if (!ptr->o && ptr->option)
        ptr->o = section_find(ptr->s, ptr->option);
    if (!ptr->o)
        return UCI_OK;
    if (!ptr->option)
        ptr->option = ptr->o->e.name;
    ptr->last = &ptr->o->e;
    return UCI_OK;
}

/* Reads the number between the brackets; none is 0. */
static bool parse_index(const char* text, long* index)
{
    char* end;

    *index = strtol(text, &end, 10);
    if (end == text)
        return strcmp(text, "]") == 0;
    return strcmp(end, "]") == 0;
}

static bool is_of_type(const struct uci_element* e, const char* type, size_t size)
{
    const char* own = uci_to_section(e)->type;

    return size == 0 || (strncmp(own, type, size) == 0 && own[size] == 0);
}

/* Finds a section by its number among those of a type, counted from the end if it is negative. */
static struct uci_section* find_by_index(const struct uci_package* p, const char* type, size_t size, long index)
{
    const struct uci_list* head = &p->sections;
    const struct uci_list* link;

    if (index >= 0) {
        for (link = head->next; link != head; link = link->next)
            if (is_of_type(list_to_element(link), type, size) && index-- == 0)
                return uci_to_section(list_to_element(link));
        return NULL;
    }
    for (link = head->prev; link != head; link = link->prev)
        if (is_of_type(list_to_element(link), type, size) && ++index == 0)
            return uci_to_section(list_to_element(link));
    return NULL;
}

/* Puts the real name in the place of @type[index]; leaves it if there is no such section. */
static int resolve_extended(struct uci_ptr* ptr)
{
    const char* text = ptr->section;
    const char* bracket = strchr(text, '[');
    long index;

    if (*text != '@' || !bracket)
        return UCI_ERR_INVAL;
    const char* type = text + 1;
    for (const char* c = type; c < bracket; c++)
        if (*c <= 32 || *c >= 127)
            return UCI_ERR_INVAL;
    if (!parse_index(bracket + 1, &index))
        return UCI_ERR_INVAL;
    ptr->s = find_by_index(ptr->p, type, (size_t)(bracket - type), index);
    return UCI_OK;
}

static int resolve_string(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended)
{
    int result = parse_string(ctx, ptr, str);

    if (result == UCI_OK)
        result = resolve_package(ctx, ptr);
    if (result != UCI_OK || !(ptr->flags & UCI_LOOKUP_EXTENDED))
        return result;
    return extended ? resolve_extended(ptr) : UCI_ERR_INVAL;
}

static bool is_complete(const struct uci_ptr* ptr)
{
    return ptr->p && (ptr->s || !ptr->section) && (ptr->o || !ptr->option);
}

int uci_lookup_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended)
{
    if (!ctx || !ptr)
        return finish(ctx, UCI_ERR_INVAL);
    int result = str ? resolve_string(ctx, ptr, str, extended) : UCI_OK;
    if (result == UCI_OK)
        result = place_resolve(ctx, ptr);
    if (result != UCI_OK)
        return finish(ctx, result);
    ptr->flags |= UCI_LOOKUP_DONE;
    if (is_complete(ptr))
        ptr->flags |= UCI_LOOKUP_COMPLETE;
    return finish(ctx, UCI_OK);
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
