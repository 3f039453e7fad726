#include "delta_p.h"

#include "place_p.h"

static const char signs[] = {
    [UCI_CMD_ADD] = '+',     [UCI_CMD_REMOVE] = '-',   [UCI_CMD_CHANGE] = 0,     [UCI_CMD_RENAME] = '@',
    [UCI_CMD_REORDER] = '^', [UCI_CMD_LIST_ADD] = '|', [UCI_CMD_LIST_DEL] = '~',
};

static enum uci_command command_of(char sign)
{
    for (int cmd = UCI_CMD_ADD; cmd <= UCI_CMD_LIST_DEL; cmd++)
        if (signs[cmd] == sign)
            return (enum uci_command)cmd;
    return UCI_CMD_CHANGE;
}

/* Whether the parts of a line form a valid change; whether it fits the package is found out by applying it. */
static bool is_sound(const struct uci_ptr* ptr, enum uci_command cmd, const char* package)
{
    if (strcmp(ptr->package, package) != 0 || !ptr->section || !is_plain_name(ptr->section))
        return false;
    if (!ptr->value)
        return cmd == UCI_CMD_REMOVE;
    switch (cmd) {
    case UCI_CMD_RENAME:
        return is_plain_name(ptr->value);
    case UCI_CMD_REORDER:
        return !ptr->option;
    case UCI_CMD_LIST_ADD:
    case UCI_CMD_LIST_DEL:
        return ptr->option != NULL;
    default:
        return true;
    }
}

static bool parse_change(char* word, const char* package, struct delta_line* line)
{
    struct uci_ptr ptr;

    line->cmd = command_of(*word);
    if (line->cmd != UCI_CMD_CHANGE)
        word++;
    if (place_parse(&ptr, word) != UCI_OK || !is_sound(&ptr, line->cmd, package))
        return false;
    line->section = ptr.section;
    line->option = ptr.option;
    line->value = ptr.value;
    return true;
}

/* Reads the end of a line. The word may be followed by one byte of white space only. */
static bool read_line_end(struct words* words)
{
    if (words->line_over || words->position == words->end)
        return true;
    words_skip_line(words);
    return false;
}

bool delta_at_mark(const struct words* words)
{
    size_t size = sizeof(DELTA_MARK) - 1;

    return (size_t)(words->end - words->position) >= size && memcmp(words->position, DELTA_MARK, size) == 0;
}

static void skip_marks(struct words* words)
{
    while (delta_at_mark(words))
        words_skip_line(words);
}

bool delta_is_torn(const struct words* words)
{
    return words->unterminated || words->continued;
}

enum delta_result delta_next(struct words* words, const char* package, struct delta_line* line)
{
    skip_marks(words);
    words->line_over = false;
    words->unterminated = 0;
    words->continued = false;
    if (words->position == words->end)
        return DELTA_END;
    char* word = words_next(words);
    bool whole = read_line_end(words) && !delta_is_torn(words) && *word;
    return whole && parse_change(word, package, line) ? DELTA_LINE : DELTA_REFUSED;
}

void delta_write(
    struct text* text, const struct uci_package* p, enum uci_command cmd, const char* section, const char* option,
    const char* value)
{
    if (signs[cmd])
        text_append(text, &signs[cmd], 1);
    text_append_string(text, p->e.name);
    text_append(text, ".", 1);
    text_append_string(text, section);
    if (option) {
        text_append(text, ".", 1);
        text_append_string(text, option);
    }
    if (value) {
        text_append(text, "=", 1);
        text_append_quoted(text, value);
    }
    text_append(text, "\n", 1);
}

size_t delta_whole_size(struct text* text)
{
    struct words words = {.position = text->data, .end = text->data + text->size};
    struct delta_line line;

    for (;;) {
        /* A mark belongs to the lines before it, and is kept. */
        skip_marks(&words);
        size_t begin = (size_t)(words.position - text->data);
        if (delta_next(&words, "", &line) == DELTA_END)
            return text->size;
        if (delta_is_torn(&words))
            return begin;
    }
}
