#include "change_p.h"

#include "elements_p.h"
#include "words_p.h"

#include <stdlib.h>

/*
 * Whether a change with this value can be staged, so that it must not be made otherwise: the line would be refused
 * or read as a change of another element. Changes that were read from there are known to be.
 */
static bool can_be_staged(const struct uci_ptr* ptr, bool remember, const char* value)
{
    if (!remember || !ptr->p->has_delta)
        return true;
    return is_delta_package(ptr->p->e.name) && (!value || is_delta_value(value));
}

/* Notes a change as pending, unless it was read from staged changes or the package has none. */
static int remember_change(const struct uci_ptr* ptr, bool remember, enum uci_command cmd, const char* value)
{
    if (!remember || !ptr->p->has_delta)
        return UCI_OK;
    const char* option = ptr->o ? ptr->o->e.name : ptr->option;
    return delta_new(&ptr->p->delta, cmd, ptr->s->e.name, option, value) ? UCI_OK : UCI_ERR_MEM;
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
    if (!can_be_staged(ptr, remember, ptr->value))
        return UCI_ERR_INVAL;
    list_remove(&item->list);
    free(item);
    return remember_change(ptr, remember, UCI_CMD_REMOVE, ptr->value);
}

/* A name that is freed with its element is replaced by the empty name, which no element has. With a null name the
 * next call would act on the element's parent. */
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
    if (!can_be_staged(ptr, remember, NULL))
        return UCI_ERR_INVAL;
    int result = remember_change(ptr, remember, UCI_CMD_REMOVE, NULL);
    if (result == UCI_OK)
        delete_found(ptr);
    return result;
}

/* ---- setting ---- */

static int set_option(struct uci_ptr* ptr, bool remember, bool* changed)
{
    struct uci_option* o = ptr->o;

    *changed = !o || o->type != UCI_TYPE_STRING || strcmp(o->v.string, ptr->value) != 0;
    if (!*changed)
        return UCI_OK;
    if (!can_be_staged(ptr, remember, ptr->value) || (!o && !is_plain_name(ptr->option)))
        return UCI_ERR_INVAL;
    if (o)
        return option_set_value(o, ptr->value) ? UCI_OK : UCI_ERR_MEM;
    ptr->o = option_new(ptr->s, ptr->option, ptr->value);
    return ptr->o ? UCI_OK : UCI_ERR_MEM;
}

static int set_section(struct uci_ptr* ptr, bool remember, bool* changed)
{
    *changed = !ptr->s || strcmp(ptr->s->type, ptr->value) != 0;
    if (!is_printable(ptr->value))
        return UCI_ERR_INVAL;
    if (!*changed)
        return UCI_OK;
    if (!can_be_staged(ptr, remember, ptr->value) || (!ptr->s && !is_plain_name(ptr->section)))
        return UCI_ERR_INVAL;
    if (!ptr->s) {
        ptr->s = section_new(ptr->p, ptr->value, ptr->section);
        return ptr->s ? UCI_OK : UCI_ERR_MEM;
    }
    /* Odd, but libuci does it: an unnamed section keeps its generated name as its own if the new type has another
     * length, and stays unnamed otherwise. */
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
        /* An empty value deletes. The deletion is pending, even if it was read from staged changes. */
        bool found = ptr->option ? ptr->o != NULL : ptr->s != NULL;
        return found ? delete_place(ptr, true) : UCI_OK;
    }
    int result = ptr->option ? set_option(ptr, remember, &changed) : set_section(ptr, remember, &changed);
    if (result != UCI_OK)
        return result;
    ptr->last = ptr->o ? &ptr->o->e : &ptr->s->e;
    if (!changed)
        return UCI_OK;
    return remember_change(ptr, remember, UCI_CMD_CHANGE, ptr->value);
}

/* Makes a section unnamed, with the name that was generated for it when the change was made. */
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
    if (!is_list_place(ptr) || !can_be_staged(ptr, remember, ptr->value))
        return UCI_ERR_INVAL;
    if (!ptr->o && !is_plain_name(ptr->option))
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
    if (!can_be_staged(ptr, remember, ptr->value))
        return UCI_ERR_INVAL;
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

/* Two elements of one name would become one when the file is read. */
static bool is_taken(const struct uci_ptr* ptr, const char* name)
{
    if (ptr->o) {
        const struct uci_option* o = section_find(ptr->s, name);
        return o && o != ptr->o;
    }
    const struct uci_section* s = package_find(ptr->p, name);
    return s && s != ptr->s;
}

static int rename_place(struct uci_ptr* ptr, bool remember)
{
    if (!ptr->section || !ptr->value)
        return UCI_ERR_INVAL;
    if (!ptr->s || (ptr->option && !ptr->o))
        return UCI_ERR_NOTFOUND;
    if (!can_be_staged(ptr, remember, NULL) || !is_plain_name(ptr->value) || is_taken(ptr, ptr->value))
        return UCI_ERR_INVAL;
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

/* The position is the number that the value begins with, 0 if there is none. */
static int reorder_place(struct uci_ptr* ptr, bool remember)
{
    if (!ptr->s)
        return UCI_ERR_NOTFOUND;
    if (!can_be_staged(ptr, remember, NULL))
        return UCI_ERR_INVAL;
    struct uci_list* head = &ptr->p->sections;
    struct uci_list* before = ptr->s->e.list.prev;
    list_remove(&ptr->s->e.list);
    struct uci_list* link = head;
    for (long position = strtol(ptr->value, NULL, 10); position > 0 && link->next != head; position--)
        link = link->next;
    list_insert_after(link, &ptr->s->e.list);
    if (link == before)
        return UCI_OK;
    return remember_change(ptr, remember, UCI_CMD_REORDER, ptr->value);
}

int change_apply(enum uci_command cmd, struct uci_ptr* ptr, bool remember)
{
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
        return reorder_place(ptr, remember);
    case UCI_CMD_LIST_ADD:
        return add_to_list(ptr, remember);
    case UCI_CMD_LIST_DEL:
        return remove_from_list(ptr, remember);
    }
    return UCI_ERR_INVAL;
}

int change_add_section(struct uci_package* p, const char* type, struct uci_section** section)
{
    struct uci_ptr ptr;

    memset(&ptr, 0, sizeof(ptr));
    ptr.p = p;
    if (!is_printable(type) || !can_be_staged(&ptr, true, NULL))
        return UCI_ERR_INVAL;
    struct uci_section* s = section_new(p, type, NULL);
    if (!s)
        return UCI_ERR_MEM;
    ptr.s = s;
    int result = remember_change(&ptr, true, UCI_CMD_ADD, type);
    if (result == UCI_OK)
        *section = s;
    else
        section_free(s);
    return result;
}
