#include "uci_p.h"

#include <limits.h>
#include <stdlib.h>

/* Remembers a change of a place, unless it came from a file of changes or the package has no such file. */
static int remember_change(const struct uci_ptr* ptr, bool remember, enum uci_command cmd, const char* value)
{
    if (!remember || !ptr->p->has_delta)
        return UCI_OK;
    const char* option = ptr->o ? ptr->o->e.name : ptr->option;
    return delta_new(&ptr->p->delta, cmd, ptr->s->e.name, option, value) ? UCI_OK : UCI_ERR_MEM;
}

/* Reads the number that a text begins with, 0 if there is none. */
static int leading_number(const char* text)
{
    long number = strtol(text, NULL, 10);

    return number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : (int)number;
}

/* ---- deleting ---- */

static struct uci_element* find_item(const struct uci_option* o, const char* index)
{
    struct uci_element* item;
    char* end;
    long left = strtol(index, &end, 10);

    if (end == index || left < 0)
        return NULL;
    uci_foreach_element(&o->v.list, item) if (left-- == 0) return item;
    return NULL;
}

static int delete_item(struct uci_ptr* ptr, bool remember)
{
    struct uci_element* item = find_item(ptr->o, ptr->value);

    if (!item)
        return UCI_OK;
    list_remove(&item->list);
    free(item);
    return remember_change(ptr, remember, UCI_CMD_REMOVE, ptr->value);
}

/* A name that vanishes with its element leaves the empty name, which nothing has: without any, the next call would
 * act on what the element was part of. */
static void delete_found(struct uci_ptr* ptr)
{
    if (ptr->o) {
        if (ptr->option == ptr->o->e.name)
            ptr->option = "";
        option_free(ptr->o);
        ptr->o = NULL;
        ptr->last = &ptr->s->e;
        return;
    }
    if (ptr->section == ptr->s->e.name)
        ptr->section = "";
    section_free(ptr->s);
    ptr->s = NULL;
    ptr->last = &ptr->p->e;
}

static int delete_place(struct uci_ptr* ptr, bool remember)
{
    if (!ptr->section)
        return UCI_ERR_INVAL;
    if (!ptr->s || (ptr->option && !ptr->o))
        return UCI_ERR_NOTFOUND;
    if (ptr->o && ptr->o->type == UCI_TYPE_LIST && ptr->value && *ptr->value)
        return delete_item(ptr, remember);
    int result = remember_change(ptr, remember, UCI_CMD_REMOVE, NULL);
    if (result == UCI_OK)
        delete_found(ptr);
    return result;
}

/* ---- setting ---- */

static int set_option(struct uci_ptr* ptr, bool* changed)
{
    struct uci_option* o = ptr->o;

    *changed = !o || o->type != UCI_TYPE_STRING || strcmp(o->v.string, ptr->value) != 0;
    if (!*changed)
        return UCI_OK;
    if (o)
        return option_set_value(o, ptr->value) ? UCI_OK : UCI_ERR_MEM;
    ptr->o = option_new(ptr->s, ptr->option, ptr->value);
    return ptr->o ? UCI_OK : UCI_ERR_MEM;
}

static int set_section(struct uci_ptr* ptr, bool* changed)
{
    *changed = !ptr->s || strcmp(ptr->s->type, ptr->value) != 0;
    if (!is_printable(ptr->value))
        return UCI_ERR_INVAL;
    if (!*changed)
        return UCI_OK;
    if (!ptr->s) {
        ptr->s = section_new(ptr->p, ptr->value, ptr->section);
        return ptr->s ? UCI_OK : UCI_ERR_MEM;
    }
    /* Odd, but what callers of libuci know: a type of another length makes the name that was made for an unnamed
     * section its own, one of the same length does not. */
    bool stays_anonymous = ptr->s->anonymous && strlen(ptr->s->type) == strlen(ptr->value);
    if (!section_set_type(ptr->s, ptr->value))
        return UCI_ERR_MEM;
    ptr->s->anonymous = stays_anonymous;
    return UCI_OK;
}

static int set_place(struct uci_ptr* ptr, bool remember)
{
    bool changed;

    if (!ptr->value || !ptr->section || !*ptr->section || (ptr->option && !ptr->s))
        return UCI_ERR_INVAL;
    if (!*ptr->value) {
        /* An empty value is no value. That is a change of its own, even where a file of changes says so. */
        bool found = ptr->option ? ptr->o != NULL : ptr->s != NULL;
        return found ? delete_place(ptr, true) : UCI_OK;
    }
    int result = ptr->option ? set_option(ptr, &changed) : set_section(ptr, &changed);
    if (result != UCI_OK)
        return result;
    ptr->last = ptr->o ? &ptr->o->e : &ptr->s->e;
    if (!changed)
        return UCI_OK;
    return remember_change(ptr, remember, UCI_CMD_CHANGE, ptr->value);
}

/* Makes a section without a name of its own, under the name that it was given when it was added. */
static int add_place(struct uci_ptr* ptr, bool remember)
{
    int result = set_place(ptr, remember);

    if (result == UCI_OK && !ptr->option && ptr->s)
        ptr->s->anonymous = true;
    return result;
}

/* ---- lists ---- */

static bool is_list_place(const struct uci_ptr* ptr)
{
    return ptr->value && ptr->s && ptr->option;
}

static int add_to_list(struct uci_ptr* ptr, bool remember)
{
    if (!is_list_place(ptr))
        return UCI_ERR_INVAL;
    if (!ptr->o)
        ptr->o = option_new(ptr->s, ptr->option, NULL);
    if (!ptr->o || !option_make_list(ptr->o) || !option_append(ptr->o, ptr->value))
        return UCI_ERR_MEM;
    ptr->last = &ptr->o->e;
    return remember_change(ptr, remember, UCI_CMD_LIST_ADD, ptr->value);
}

static int remove_from_list(struct uci_ptr* ptr, bool remember)
{
    struct uci_element *item, *next;

    if (!is_list_place(ptr))
        return UCI_ERR_INVAL;
    if (!ptr->o || ptr->o->type != UCI_TYPE_LIST)
        return UCI_OK;
    int result = remember_change(ptr, remember, UCI_CMD_LIST_DEL, ptr->value);
    if (result != UCI_OK)
        return result;
    uci_foreach_element_safe(&ptr->o->v.list, next, item)
    {
        if (strcmp(item->name, ptr->value) != 0)
            continue;
        list_remove(&item->list);
        free(item);
    }
    return UCI_OK;
}

/* ---- names and order ---- */

static int rename_place(struct uci_ptr* ptr, bool remember)
{
    if (!ptr->section || !ptr->value)
        return UCI_ERR_INVAL;
    if (!ptr->s || (ptr->option && !ptr->o))
        return UCI_ERR_NOTFOUND;
    int result = remember_change(ptr, remember, UCI_CMD_RENAME, ptr->value);
    if (result != UCI_OK)
        return result;
    if (ptr->o) {
        bool own_name = ptr->option == ptr->o->e.name;
        result = option_set_name(ptr->o, ptr->value) ? UCI_OK : UCI_ERR_MEM;
        ptr->option = own_name ? ptr->o->e.name : ptr->option;
        return result;
    }
    bool own_name = ptr->section == ptr->s->e.name;
    result = section_set_name(ptr->s, ptr->value) ? UCI_OK : UCI_ERR_MEM;
    ptr->section = own_name ? ptr->s->e.name : ptr->section;
    ptr->s->anonymous = false;
    return result;
}

static int reorder_place(struct uci_ptr* ptr, int position, const char* text, bool remember)
{
    if (!ptr->s)
        return UCI_ERR_NOTFOUND;
    struct uci_list* head = &ptr->p->sections;
    struct uci_list* before = ptr->s->e.list.prev;
    list_remove(&ptr->s->e.list);
    struct uci_list* place = head;
    for (; position > 0 && place->next != head; position--)
        place = place->next;
    list_insert_after(place, &ptr->s->e.list);
    if (place == before)
        return UCI_OK;
    return remember_change(ptr, remember, UCI_CMD_REORDER, text);
}

int change_apply(struct uci_context* ctx, enum uci_command cmd, struct uci_ptr* ptr, bool remember)
{
    int result = place_resolve(ctx, ptr);

    if (result != UCI_OK)
        return result;
    switch (cmd) {
    case UCI_CMD_ADD:
        return add_place(ptr, remember);
    case UCI_CMD_REMOVE:
        return delete_place(ptr, remember);
    case UCI_CMD_CHANGE:
        return set_place(ptr, remember);
    case UCI_CMD_RENAME:
        return rename_place(ptr, remember);
    case UCI_CMD_REORDER:
        return reorder_place(ptr, leading_number(ptr->value), ptr->value, remember);
    case UCI_CMD_LIST_ADD:
        return add_to_list(ptr, remember);
    case UCI_CMD_LIST_DEL:
        return remove_from_list(ptr, remember);
    }
    return UCI_ERR_INVAL;
}

/* ---- the public functions ---- */

static int change(struct uci_context* ctx, enum uci_command cmd, struct uci_ptr* ptr)
{
    return finish(ctx, ctx && ptr ? change_apply(ctx, cmd, ptr, true) : UCI_ERR_INVAL);
}

int uci_set(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return change(ctx, UCI_CMD_CHANGE, ptr);
}

int uci_delete(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return change(ctx, UCI_CMD_REMOVE, ptr);
}

int uci_rename(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return change(ctx, UCI_CMD_RENAME, ptr);
}

int uci_add_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return change(ctx, UCI_CMD_LIST_ADD, ptr);
}

int uci_del_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return change(ctx, UCI_CMD_LIST_DEL, ptr);
}

int uci_add_section(struct uci_context* ctx, struct uci_package* p, const char* type, struct uci_section** res)
{
    if (!ctx || !p || !type)
        return finish(ctx, UCI_ERR_INVAL);
    struct uci_section* s = section_new(p, type, NULL);
    if (!s)
        return finish(ctx, UCI_ERR_MEM);
    struct uci_ptr ptr;
    memset(&ptr, 0, sizeof(ptr));
    ptr.p = p;
    ptr.s = s;
    int result = remember_change(&ptr, true, UCI_CMD_ADD, type);
    if (result != UCI_OK)
        section_free(s);
    else if (res)
        *res = s;
    return finish(ctx, result);
}

int uci_reorder_section(struct uci_context* ctx, struct uci_section* s, int pos)
{
    struct uci_ptr ptr;
    char text[16];

    if (!ctx || !s)
        return finish(ctx, UCI_ERR_INVAL);
    memset(&ptr, 0, sizeof(ptr));
    ptr.s = s;
    snprintf(text, sizeof(text), "%d", pos);
    int result = place_resolve(ctx, &ptr);
    return finish(ctx, result == UCI_OK ? reorder_place(&ptr, pos, text, true) : result);
}
