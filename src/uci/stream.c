#include "uci_p.h"

#include <stdlib.h>

/* ---- packages from and to streams ---- */

static int read_stream(FILE* stream, struct text* text)
{
    char block[4096];
    size_t size;

    text_append(text, "", 0);
    while ((size = fread(block, 1, sizeof(block), stream)) > 0)
        text_append(text, block, size);
    return text->failed ? UCI_ERR_MEM : ferror(stream) ? UCI_ERR_IO : UCI_OK;
}

static int check_not_loaded(const struct uci_context* ctx, const struct uci_list* list)
{
    struct uci_element* e;

    uci_foreach_element(list, e) if (context_find(ctx, e->name)) return UCI_ERR_DUPLICATE;
    return UCI_OK;
}

static int
import(struct uci_context* ctx, struct text* text, const struct parse_mode* mode, struct uci_package** package)
{
    struct uci_list list;

    list_init(&list);
    int result = parse_packages(ctx, text, mode, &list);
    if (result != UCI_OK)
        return result;
    result = check_not_loaded(ctx, &list);
    while (!uci_list_empty(&list)) {
        struct uci_package* p = uci_to_package(list_to_element(list.next));
        list_remove(&p->e.list);
        if (result != UCI_OK) {
            package_free(p);
            continue;
        }
        list_append(&ctx->root, &p->e.list);
        if (package)
            *package = p;
    }
    return result;
}

int uci_import(struct uci_context* ctx, FILE* stream, const char* name, struct uci_package** package, bool single)
{
    const struct parse_mode mode = {name, single && name};
    struct text text = {NULL, 0, 0, false};

    /* The name becomes that of a file: no part of it may be a path. */
    if (!ctx || !stream || (name && (store_check_name(name) != UCI_OK || strchr(name, '/'))))
        return finish(ctx, UCI_ERR_INVAL);
    int result = read_stream(stream, &text);
    if (result == UCI_OK)
        result = import(ctx, &text, &mode, package);
    text_free(&text);
    return finish(ctx, result);
}

static int export_package(const struct uci_context* ctx, FILE* stream, const struct uci_package* p, bool header)
{
    struct text text = {NULL, 0, 0, false};

    if (header) {
        text_append_string(&text, "package ");
        text_append_string(&text, p->e.name);
        text_append_string(&text, "\n");
    }
    int result = write_package(p, (ctx->flags & UCI_FLAG_EXPORT_NAME) != 0, &text);
    if (result == UCI_OK && fwrite(text.data, 1, text.size, stream) != text.size)
        result = UCI_ERR_IO;
    text_free(&text);
    return result;
}

int uci_export(struct uci_context* ctx, FILE* stream, struct uci_package* package, bool header)
{
    struct uci_element* e;
    int result = UCI_OK;

    if (!ctx || !stream)
        return finish(ctx, UCI_ERR_INVAL);
    if (package)
        return finish(ctx, export_package(ctx, stream, package, header));
    uci_foreach_element(&ctx->root, e)
    {
        result = export_package(ctx, stream, uci_to_package(e), header);
        if (result != UCI_OK)
            break;
    }
    return finish(ctx, result);
}

/* ---- words ---- */

/* Appends the next line of a stream. False at its end. */
static bool read_line(FILE* stream, struct text* text)
{
    char block[256];
    size_t before = text->size;

    while (stream && fgets(block, sizeof(block), stream)) {
        text_append_string(text, block);
        if (text->failed || text->data[text->size - 1] == '\n')
            break;
    }
    return text->size > before;
}

/* Whether the text ends within a word: in quotes, or with a backslash that calls for the next line. */
static bool ends_within_word(const struct words* words, const struct text* line)
{
    return words->unterminated || (words->continued && line->data[line->size - 1] == '\n');
}

static int copy_argument(struct text* argument, const struct text* line, struct words* words, char** word)
{
    argument->size = 0;
    text_append(argument, line->data, line->size);
    if (argument->failed)
        return UCI_ERR_MEM;
    memset(words, 0, sizeof(*words));
    words->position = argument->data;
    words->end = argument->data + argument->size;
    *word = words_next(words);
    return UCI_OK;
}

int uci_parse_argument(struct uci_context* ctx, FILE* stream, char** str, char** result)
{
    struct text line = {NULL, 0, 0, false};
    struct words words;
    char* word = NULL;

    if (!ctx || !str || !result)
        return finish(ctx, UCI_ERR_INVAL);
    struct text* argument = &((struct context*)ctx)->argument;
    *result = NULL;
    text_append(&line, "", 0);
    size_t given = *str ? strlen(*str) : 0;
    if (*str)
        text_append_string(&line, *str);
    else if (!read_line(stream, &line)) {
        text_free(&line);
        return finish(ctx, UCI_OK);
    }
    int code = copy_argument(argument, &line, &words, &word);
    while (code == UCI_OK && ends_within_word(&words, &line) && read_line(stream, &line))
        code = copy_argument(argument, &line, &words, &word);
    if (code == UCI_OK && words.unterminated)
        code = UCI_ERR_PARSE;
    if (code == UCI_OK) {
        size_t used = (size_t)(words.position - argument->data);
        *str = *str && used <= given ? *str + used : words.position;
        *result = word;
    }
    text_free(&line);
    return finish(ctx, code);
}

bool uci_validate_text(const char* str)
{
    return str && is_printable(str);
}

/* ---- options by table ---- */

void uci_parse_section(
    struct uci_section* s, const struct uci_parse_option* opts, int n_opts, struct uci_option** tb)
{
    for (int i = 0; i < n_opts; i++) {
        struct uci_option* o = opts[i].name ? section_find(s, opts[i].name) : NULL;
        tb[i] = o && o->type == opts[i].type ? o : NULL;
    }
}

/* A byte that ends each piece keeps "ab", "c" apart from "a", "bc". */
static uint32_t hash_string(uint32_t hash, const char* text)
{
    do
        hash = (hash ^ (unsigned char)*text) * UINT32_C(16777619); /* FNV-1a, 32 bits */
    while (*text++);
    return hash;
}

uint32_t uci_hash_options(struct uci_option** tb, int n_opts)
{
    uint32_t hash = UINT32_C(2166136261);
    struct uci_element* item;

    for (int i = 0; i < n_opts; i++) {
        if (!tb[i])
            continue;
        hash = hash_string(hash, tb[i]->e.name);
        if (tb[i]->type == UCI_TYPE_STRING)
            hash = hash_string(hash, tb[i]->v.string);
        else
            uci_foreach_element(&tb[i]->v.list, item) hash = hash_string(hash, item->name);
    }
    return hash;
}
