#include "parser_p.h"

#include "contextdata_p.h"
#include "elements_p.h"
#include "words_p.h"

struct parser
{
    struct uci_context* ctx;
    const struct parse_mode* mode;
    struct words words;
    struct uci_list* packages; /* those read so far */
    struct uci_package* package;
    struct uci_section* section;
    const char* reason; /* of a parse error */
};

/* A quote that is not closed makes the rest of the file one word, whatever else is wrong with it. */
static int parse_error(struct parser* parser, const char* reason)
{
    parser->reason = parser->words.unterminated ? "unterminated quote" : reason;
    return UCI_ERR_PARSE;
}

/* Starts the package that the following commands belong to. */
static int begin_package(struct parser* parser, const char* name)
{
    struct uci_element* e;

    uci_foreach_element(parser->packages, e) if (strcmp(e->name, name) == 0) return UCI_ERR_DUPLICATE;
    parser->section = NULL;
    parser->package = package_new(parser->ctx, name);
    if (!parser->package)
        return UCI_ERR_MEM;
    list_append(parser->packages, &parser->package->e.list);
    return UCI_OK;
}

/* Every command ends with an empty word: the end of the line, or ";". */
static int end_command(struct parser* parser)
{
    const char* word = words_next(&parser->words);

    return *word || parser->words.unterminated ? parse_error(parser, "too many arguments") : UCI_OK;
}

static int parse_package_command(struct parser* parser)
{
    const char* name = words_next(&parser->words);

    if (!is_package_line_name(name))
        return parse_error(parser, "invalid package name");
    int result = end_command(parser);
    return result != UCI_OK || parser->mode->single ? result : begin_package(parser, name);
}

/* A section that exists already is continued. */
static int open_section(struct parser* parser, const char* type, const char* name)
{
    struct uci_section* found = *name ? package_find(parser->package, name) : NULL;

    if (found && strcmp(found->type, type) != 0)
        return parse_error(parser, "section of different type exists with the same name");
    parser->section = found ? found : section_new(parser->package, type, *name ? name : NULL);
    return parser->section ? UCI_OK : UCI_ERR_MEM;
}

static int parse_config_command(struct parser* parser)
{
    if (!parser->package && !parser->mode->name)
        return parse_error(parser, "section without a package name");
    if (!parser->package) {
        int result = begin_package(parser, parser->mode->name);
        if (result != UCI_OK)
            return result;
    }
    const char* type = words_next(&parser->words);
    const char* name = words_next(&parser->words);
    if (!is_printable(type))
        return parse_error(parser, "invalid section type");
    if (*name && !is_plain_name(name))
        return parse_error(parser, "invalid section name");
    int result = end_command(parser);
    return result == UCI_OK ? open_section(parser, type, name) : result;
}

static int parse_option_command(struct parser* parser, bool list)
{
    if (!parser->section)
        return parse_error(parser, "option or list without a section");
    const char* name = words_next(&parser->words);
    const char* value = words_next(&parser->words);
    if (!is_plain_name(name))
        return parse_error(parser, "invalid option name");
    int result = end_command(parser);
    if (result != UCI_OK || (!list && !*value)) /* an option without a value is ignored */
        return result;
    struct uci_option* o = section_find(parser->section, name);
    bool done;
    if (!list)
        done = o ? option_set_value(o, value) : option_new(parser->section, name, value) != NULL;
    else if (o)
        done = option_make_list(o) && option_append(o, value);
    else
        done = (o = option_new(parser->section, name, NULL)) && option_append(o, value);
    return done ? UCI_OK : UCI_ERR_MEM;
}

/* Skips a keyword, which cannot be quoted and has to be followed by a blank or tab. */
static bool take_keyword(struct words* words, const char* keyword)
{
    size_t size = strlen(keyword);
    size_t left = (size_t)(words->end - words->position);

    if (left <= size || memcmp(words->position, keyword, size) != 0)
        return false;
    if (words->position[size] != ' ' && words->position[size] != '\t')
        return false;
    words->position += size;
    return true;
}

static int parse_command(struct parser* parser)
{
    struct words* words = &parser->words;

    words->line_over = false;
    if (take_keyword(words, "option") || take_keyword(words, "o"))
        return parse_option_command(parser, false);
    if (take_keyword(words, "list") || take_keyword(words, "l"))
        return parse_option_command(parser, true);
    if (take_keyword(words, "config") || take_keyword(words, "c"))
        return parse_config_command(parser);
    if (take_keyword(words, "package") || take_keyword(words, "p"))
        return parse_package_command(parser);
    return parse_error(parser, "invalid command");
}

static bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r' && c != '\n');
}

static void skip_blanks(struct words* words)
{
    while (words->position < words->end && is_blank(*words->position))
        words->position++;
}

/* Whether the rest of the line is empty or a comment; if so, it is skipped. */
static bool at_end_of_line(struct words* words)
{
    skip_blanks(words);
    if (words->position < words->end && *words->position != '\n' && *words->position != '#')
        return false;
    words_skip_line(words);
    return true;
}

/* Whether another command follows on the same line. After a ";" there has to be one, or a comment. */
static bool command_follows(struct words* words)
{
    if (words->line_over)
        return false;
    if (!words->separated)
        return !at_end_of_line(words);
    skip_blanks(words);
    return words->position == words->end || *words->position != '#' || !at_end_of_line(words);
}

static int parse_line(struct parser* parser)
{
    int result;

    if (at_end_of_line(&parser->words))
        return UCI_OK;
    do
        result = parse_command(parser);
    while (result == UCI_OK && command_follows(&parser->words));
    return result;
}

/* The line in which reading stopped, or in which the quote opens that is not closed, counted from 1. */
static size_t line_of_error(const struct words* words)
{
    if (words->unterminated)
        return words->quote_line + 1;
    return words->line + (words->line_over ? 0 : 1);
}

static void free_packages(struct uci_list* list)
{
    while (!uci_list_empty(list))
        package_free(uci_to_package(list_to_element(list->next)));
}

int parse_packages(
    struct uci_context* ctx, struct text* text, const struct parse_mode* mode, struct uci_list* list)
{
    struct parser parser = {.ctx = ctx, .mode = mode, .packages = list};
    int result = UCI_OK;

    parser.words.position = text->data;
    parser.words.end = text->data + text->size;
    /* File systems leave NUL bytes in a file whose writing was interrupted by a power loss. */
    if (memchr(text->data, 0, text->size))
        result = parse_error(&parser, "NUL byte");
    while (result == UCI_OK && parser.words.position < parser.words.end)
        result = parse_line(&parser);
    if (result == UCI_OK && !parser.package && mode->name)
        result = begin_package(&parser, mode->name);
    if (result == UCI_OK)
        return UCI_OK;
    free_packages(list);
    ctx->pctx->reason = parser.reason;
    ctx->pctx->line = line_of_error(&parser.words);
    return result;
}

int parse_package(struct uci_context* ctx, struct text* text, const char* name, struct uci_package** result)
{
    const struct parse_mode mode = {name, true};
    struct uci_list list;

    list_init(&list);
    int code = parse_packages(ctx, text, &mode, &list);
    if (code != UCI_OK)
        return code;
    struct uci_package* p = uci_to_package(list_to_element(list.next));
    list_remove(&p->e.list);
    *result = p;
    return UCI_OK;
}
