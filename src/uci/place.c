#include "place_p.h"

#include "elements_p.h"
#include "words_p.h"

#include <stdlib.h>

/* ---- parsing ---- */

/* Cuts the text at the first separator. Returns what follows it, or null if there is none. */
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

/* ---- "@type[index]" ---- */

/* Reads "index]"; a missing number is 0. */
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

/* Counts the sections of a type, from the end for a negative index. */
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

int place_find_indexed_section(struct uci_ptr* ptr)
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

/* ---- finding ---- */

void place_find(struct uci_ptr* ptr)
{
    ptr->last = &ptr->p->e;
    /* "@type[index]" is not a name, even if a caller has given a section that very name. */
    if (!ptr->s && ptr->section && !(ptr->flags & UCI_LOOKUP_EXTENDED))
        ptr->s = package_find(ptr->p, ptr->section);
    if (!ptr->s)
        return;
    /* A name that the caller supplied is kept: it stays usable after the element is deleted. */
    if (!ptr->section || ptr->flags & UCI_LOOKUP_EXTENDED)
        ptr->section = ptr->s->e.name;
    ptr->last = &ptr->s->e;
    if (!ptr->o && ptr->option)
        ptr->o = section_find(ptr->s, ptr->option);
    if (!ptr->o)
        return;
    if (!ptr->option)
        ptr->option = ptr->o->e.name;
    ptr->last = &ptr->o->e;
}
