#include "writer_p.h"

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

static void write_option(struct text* text, const struct uci_option* o)
{
    struct uci_element* item;

    if (o->type == UCI_TYPE_STRING)
        write_line(text, "\toption ", o->e.name, o->v.string);
    else
        uci_foreach_element(&o->v.list, item) write_line(text, "\tlist ", o->e.name, item->name);
}

static void write_section(struct text* text, const struct uci_section* s, bool names)
{
    struct uci_element* e;

    text_append_string(text, "\nconfig ");
    write_type(text, s->type);
    if (!s->anonymous || names) {
        text_append(text, " ", 1);
        text_append_quoted(text, s->e.name);
    }
    text_append(text, "\n", 1);
    uci_foreach_element(&s->options, e) write_option(text, uci_to_option(e));
}

void write_package(const struct uci_package* p, bool names, struct text* text)
{
    struct uci_element* e;

    uci_foreach_element(&p->sections, e) write_section(text, uci_to_section(e), names);
    text_append(text, "\n", 1);
}
