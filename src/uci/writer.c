#include "writer_p.h"

#include "elements_p.h"
#include "words_p.h"

/* Types are quoted only if necessary, as in files written by hand. */
static void write_type(struct text* text, const char* type)
{
    if (strpbrk(type, "'\"\\#;"))
        text_append_quoted(text, type);
    else
        text_append_string(text, type);
}

static void write_line(struct text* text, const char* keyword, const char* name, const char* value)
{
    text_append_string(text, keyword);
    text_append_string(text, name);
    text_append(text, " ", 1);
    text_append_quoted(text, value);
    text_append(text, "\n", 1);
}

static int write_option(struct text* text, const struct uci_option* o)
{
    struct uci_element* item;

    if (!is_plain_name(o->e.name))
        return UCI_ERR_INVAL;
    if (o->type == UCI_TYPE_STRING)
        write_line(text, "\toption ", o->e.name, o->v.string);
    else
        uci_foreach_element(&o->v.list, item) write_line(text, "\tlist ", o->e.name, item->name);
    return UCI_OK;
}

/*
 * Whether a section is written with its name. Two sections of one name become one section when the file is read.
 * If their types differ, the whole file would be unreadable, so the later one is written without its name.
 */
static bool keeps_name(const struct uci_section* s)
{
    struct uci_element* e;

    if (package_find(s->package, s->e.name) == s)
        return true;
    uci_foreach_element(&s->package->sections, e)
    {
        const struct uci_section* other = uci_to_section(e);
        if (other == s)
            return true;
        if (!other->anonymous && strcmp(e->name, s->e.name) == 0)
            return strcmp(other->type, s->type) == 0;
    }
    return true;
}

static int write_section(struct text* text, const struct uci_section* s, bool names)
{
    struct uci_element* e;
    int result = UCI_OK;

    if (!is_printable(s->type))
        return UCI_ERR_INVAL;
    text_append_string(text, "\nconfig ");
    write_type(text, s->type);
    if (!s->anonymous && !is_plain_name(s->e.name))
        return UCI_ERR_INVAL;
    if (s->anonymous ? names : keeps_name(s)) {
        text_append(text, " ", 1);
        text_append_quoted(text, s->e.name);
    }
    text_append(text, "\n", 1);
    uci_foreach_element(&s->options, e)
    {
        result = write_option(text, uci_to_option(e));
        if (result != UCI_OK)
            return result;
    }
    return result;
}

int write_package(const struct uci_package* p, bool names, struct text* text)
{
    struct uci_element* e;

    uci_foreach_element(&p->sections, e)
    {
        int result = write_section(text, uci_to_section(e), names);
        if (result != UCI_OK)
            return result;
    }
    text_append(text, "\n", 1);
    return text->failed ? UCI_ERR_MEM : UCI_OK;
}
