#include "words_p.h"

/* The meaning of a byte outside of quotes. */
enum byte_class { PLAIN, BLANK, NEWLINE, SINGLE_QUOTE, DOUBLE_QUOTE, BACKSLASH, COMMENT, SEMICOLON };

static const unsigned char byte_classes[256] = {
    [' '] = BLANK,      ['\t'] = BLANK,   ['\v'] = BLANK,        ['\f'] = BLANK,
    ['\r'] = BLANK,     ['\n'] = NEWLINE, ['\''] = SINGLE_QUOTE, ['"'] = DOUBLE_QUOTE,
    ['\\'] = BACKSLASH, ['#'] = COMMENT,  [';'] = SEMICOLON,
};

static enum byte_class class_of(char byte)
{
    return (enum byte_class)byte_classes[(unsigned char)byte];
}

/* Not isalnum(): the formats are ASCII, independent of the locale. */
static bool is_name_byte(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool is_plain_name(const char* name)
{
    if (!*name)
        return false;
    while (is_name_byte(*name))
        name++;
    return !*name;
}

bool is_package_line_name(const char* name)
{
    if (!*name)
        return false;
    while (is_name_byte(*name) || *name == '-')
        name++;
    return !*name;
}

bool is_printable(const char* text)
{
    if (!*text)
        return false;
    while (*text > 32 && *text < 127)
        text++;
    return !*text;
}

bool uci_validate_text(const char* str)
{
    return str && is_printable(str);
}

bool is_delta_value(const char* value)
{
    for (; *value; value++) {
        unsigned char byte = (unsigned char)*value;
        if (byte < 32 && byte != '\t' && byte != '\n' && byte != '\r')
            return false;
    }
    return true;
}

bool is_delta_package(const char* name)
{
    return !strchr("+-@^|~", *name) && !strpbrk(name, ".='\"\\#;");
}

void words_skip_line(struct words* words)
{
    char* newline = memchr(words->position, '\n', (size_t)(words->end - words->position));

    words->position = newline ? newline + 1 : words->end;
    words->line_over = true;
    words->line++;
}

static void count_lines(struct words* words, const char* from, const char* end)
{
    while ((from = memchr(from, '\n', (size_t)(end - from)))) {
        words->line++;
        from++;
    }
}

/* Returns the beginning of the next line if the backslash at from is the last byte of its line, or null. */
static char* next_line_after_backslash(char* from, char* end)
{
    if (from + 1 < end && from[1] == '\n')
        return from + 2;
    if (from + 2 < end && from[1] == '\r' && from[2] == '\n')
        return from + 3;
    return from + 1 == end ? end : NULL;
}

static char* copy_run(char* to, const char* from, size_t size)
{
    if (to != from)
        memmove(to, from, size);
    return to + size;
}

/* Copies a quoted piece. words->position is after the opening quote, and then after the closing one. */
static char* copy_single_quoted(struct words* words, char* to)
{
    char* from = words->position;
    char* quote = memchr(from, '\'', (size_t)(words->end - from));

    count_lines(words, from, quote ? quote : words->end);
    words->unterminated = quote ? 0 : '\'';
    words->position = quote ? quote + 1 : words->end;
    return copy_run(to, from, (size_t)((quote ? quote : words->end) - from));
}

static char* copy_double_quoted(struct words* words, char* to)
{
    char* from = words->position;
    char* end = words->end;

    while (from < end && *from != '"') {
        if (*from == '\\') {
            char* next_line = next_line_after_backslash(from, end);
            if (next_line) {
                words->line++;
                from = next_line;
                continue;
            }
            from++;
        }
        words->line += *from == '\n';
        *to++ = *from++;
    }
    words->unterminated = from == end ? '"' : 0;
    words->position = from == end ? end : from + 1;
    return to;
}

/* Copies what a backslash stands for: the byte after it, or nothing at the end of a line. */
static char* copy_escaped(struct words* words, char* to)
{
    char* next_line = next_line_after_backslash(words->position, words->end);

    if (next_line) {
        words->line++;
        words->position = next_line;
        words->continued = next_line == words->end;
        return to;
    }
    *to = words->position[1];
    words->position += 2;
    return to + 1;
}

static char* copy_plain(struct words* words, char* to)
{
    char* from = words->position;
    char* end = from + 1;

    while (end < words->end && class_of(*end) == PLAIN)
        end++;
    words->position = end;
    return copy_run(to, from, (size_t)(end - from));
}

/* Copies a word to its own beginning, up to the byte that ends it, which is not read. */
static char* copy_word(struct words* words, char* to, bool* only_plain)
{
    while (words->position < words->end && !words->unterminated) {
        enum byte_class byte = class_of(*words->position);
        if (byte == PLAIN) {
            to = copy_plain(words, to);
            continue;
        }
        if (byte != SINGLE_QUOTE && byte != DOUBLE_QUOTE && byte != BACKSLASH)
            return to;
        *only_plain = false;
        if (byte == BACKSLASH) {
            to = copy_escaped(words, to);
            continue;
        }
        words->position++;
        words->quote_line = words->line;
        to = byte == SINGLE_QUOTE ? copy_single_quoted(words, to) : copy_double_quoted(words, to);
    }
    return to;
}

/* Reads the byte that ends a word, so that a NUL byte may overwrite it. */
static void end_word(struct words* words, bool only_plain)
{
    if (words->position == words->end) {
        words->line_over = true;
        return;
    }
    switch (class_of(*words->position)) {
    case COMMENT:
        words_skip_line(words);
        break;
    case SEMICOLON:
        if (only_plain) /* only after an unquoted word, ";" comments out the rest of the line */
            words_skip_line(words);
        break;
    case NEWLINE:
        words->line_over = true;
        words->line++;
        words->position++;
        break;
    default:
        words->position++;
    }
}

char* words_next(struct words* words)
{
    words->separated = false;
    while (words->position < words->end && !words->line_over && class_of(*words->position) == BLANK)
        words->position++;
    char* word = words->position;
    if (words->line_over || word == words->end) {
        words->line_over = true;
        return words->end; /* the NUL byte after the text */
    }
    if (class_of(*word) == SEMICOLON) {
        words->separated = true;
        words->position++;
        return words->end;
    }
    bool only_plain = true;
    char* end = copy_word(words, word, &only_plain);
    end_word(words, only_plain);
    *end = 0;
    return word;
}
