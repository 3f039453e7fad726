#include "uci_p.h"

#include <stdlib.h>

static const char signs[] = {
    [UCI_CMD_ADD] = '+',     [UCI_CMD_REMOVE] = '-',   [UCI_CMD_CHANGE] = 0,     [UCI_CMD_RENAME] = '@',
    [UCI_CMD_REORDER] = '^', [UCI_CMD_LIST_ADD] = '|', [UCI_CMD_LIST_DEL] = '~',
};

static const char mark[] = "#commit ";

static enum uci_command command_of(char sign)
{
    for (int cmd = UCI_CMD_ADD; cmd <= UCI_CMD_LIST_DEL; cmd++)
        if (signs[cmd] == sign)
            return (enum uci_command)cmd;
    return UCI_CMD_CHANGE;
}

/* Whether the parts of a line make sense together; whether they fit the package shows when they are applied. */
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

static bool parse_line(char* word, const char* package, struct delta_line* line)
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

/* Reads the end of a line: one byte of white space may stand behind the word, if nothing else does. */
static bool at_end_of_line(struct words* words)
{
    if (words->line_over || words->position == words->end)
        return true;
    words_skip_line(words);
    return false;
}

static bool is_mark(const struct words* words)
{
    size_t left = (size_t)(words->end - words->position);

    return left >= sizeof(mark) - 1 && memcmp(words->position, mark, sizeof(mark) - 1) == 0;
}

static void skip_marks(struct words* words)
{
    while (is_mark(words))
        words_skip_line(words);
}

/* Whether the latest line goes on behind the end of the text. */
static bool is_torn(const struct words* words)
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
    bool whole = at_end_of_line(words) && !is_torn(words) && *word;
    return whole && parse_line(word, package, line) ? DELTA_LINE : DELTA_REFUSED;
}

/*
 * Whether a line with these names would be read as a change of something else. Names that are given to the calls
 * are not checked; what is no plain name has to be refused when the line is read, and must not reach the lines
 * around it.
 */
static bool would_mislead(const struct uci_package* p, const char* section, const char* option)
{
    static const char meaningful[] = "'\"\\#;=\n";

    if (strpbrk(section, meaningful) || (option && strpbrk(option, meaningful)))
        return true;
    const char* dot = strchr(section, '.');
    if (option || !dot)
        return false;
    struct uci_element* e;
    uci_foreach_element(&p->sections, e)
    {
        size_t size = strlen(e->name);
        if (size == (size_t)(dot - section) && memcmp(e->name, section, size) == 0)
            return true;
    }
    return false;
}

void delta_write(
    struct text* text, const struct uci_package* p, enum uci_command cmd, const char* section, const char* option,
    const char* value)
{
    bool misleading = would_mislead(p, section, option);
    struct text place = {NULL, 0, 0, false};

    text_append_string(&place, p->e.name);
    text_append(&place, ".", 1);
    text_append_string(&place, section);
    if (option) {
        text_append(&place, ".", 1);
        text_append_string(&place, option);
    }
    if (signs[cmd])
        text_append(text, &signs[cmd], 1);
    if (place.failed)
        text->failed = true;
    else if (misleading)
        text_append_quoted(text, place.data);
    else
        text_append(text, place.data, place.size);
    text_free(&place);
    if (value) {
        text_append(text, "=", 1);
        text_append_quoted(text, value);
    }
    /* The blank makes the reader refuse the line. */
    text_append_string(text, misleading ? " \n" : "\n");
}

size_t delta_whole_size(struct text* text)
{
    struct words words = {.position = text->data, .end = text->data + text->size};
    struct delta_line line;

    for (;;) {
        /* A mark tells of the lines before it, and stays. */
        skip_marks(&words);
        size_t begin = (size_t)(words.position - text->data);
        if (delta_next(&words, "", &line) == DELTA_END)
            return text->size;
        if (is_torn(&words))
            return begin;
    }
}

/* ---- marks of interrupted commits ---- */

/* FNV-1a, 64 bits (Fowler, Noll, Vo; draft-eastlake-fnv). */
struct fingerprint fingerprint_of(const char* data, size_t size)
{
    struct fingerprint print = {size, UINT64_C(0xcbf29ce484222325)};

    for (size_t i = 0; i < size; i++)
        print.hash =
            ((print.hash ^ (unsigned char)data[i]) * UINT64_C(0x100000001b3)) & UINT64_C(0xffffffffffffffff);
    return print;
}

void delta_write_mark(struct text* text, struct fingerprint committed)
{
    char line[64];

    snprintf(line, sizeof(line), "%s%llx %llx\n", mark, committed.size, committed.hash);
    text_append_string(text, line);
}

/* Where the last mark begins, the size of the text if there is none; the text is overwritten. Only a line of its
 * own is a mark, not one within a quoted value, which anybody may have set. */
static size_t last_mark(struct text* text)
{
    struct words words = {.position = text->data, .end = text->data + text->size};
    struct delta_line line;
    size_t found = text->size;

    do {
        while (is_mark(&words)) {
            found = (size_t)(words.position - text->data);
            words_skip_line(&words);
        }
    } while (delta_next(&words, "", &line) != DELTA_END);
    return found;
}

size_t delta_skip_committed(const struct text* text, const struct text* package_file)
{
    struct text expected = {NULL, 0, 0, false};
    struct text copy = {NULL, 0, 0, false};

    if (!text->size || !memmem(text->data, text->size, mark, sizeof(mark) - 1))
        return 0;
    text_append(&copy, text->data, text->size);
    delta_write_mark(&expected, fingerprint_of(package_file->data, package_file->size));
    size_t begin = copy.failed ? text->size : last_mark(&copy);
    size_t left = text->size - begin;
    bool same =
        !expected.failed && left >= expected.size && memcmp(text->data + begin, expected.data, expected.size) == 0;
    size_t behind = begin + expected.size;
    text_free(&copy);
    text_free(&expected);
    return same ? behind : 0;
}

/* ---- applying ---- */

static int apply_line(struct uci_package* p, const struct delta_line* line)
{
    struct uci_ptr place;

    memset(&place, 0, sizeof(place));
    place.p = p;
    place.section = line->section;
    place.option = line->option;
    place.value = line->value;
    place_find(&place);
    return change_apply(line->cmd, &place, false);
}

int delta_apply(struct uci_package* p, struct text* text, size_t begin, size_t* applied)
{
    struct words words = {.position = text->data + begin, .end = text->data + text->size};
    struct delta_line line;
    enum delta_result read;

    /* A byte that no line may hold in place of NUL bytes, so that they spoil only the lines that they are in. */
    for (char* nul = words.position; (nul = memchr(nul, 0, (size_t)(words.end - nul)));)
        *nul = 1;
    while ((read = delta_next(&words, p->e.name, &line)) != DELTA_END) {
        if (read != DELTA_LINE)
            continue;
        int result = apply_line(p, &line);
        if (result == UCI_ERR_MEM)
            return result;
        if (result != UCI_OK)
            continue;
        ++*applied;
        if (p->ctx->flags & UCI_FLAG_SAVED_DELTA &&
            !delta_new(&p->saved_delta, line.cmd, line.section, line.option, line.value))
            return UCI_ERR_MEM;
    }
    return UCI_OK;
}
