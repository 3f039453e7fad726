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

    uci_foreach_element(list, e) if (package_loaded(ctx, e->name)) return UCI_ERR_DUPLICATE;
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
    if (!ctx || !stream || (name && (package_check_name(name) != UCI_OK || strchr(name, '/'))))
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

/* Appends the next line of a stream. UCI_ERR_NOTFOUND: there is none. */
static int append_line(FILE* stream, struct text* text)
{
    char* line = NULL;
    size_t capacity = 0;
    ssize_t size = stream ? getline(&line, &capacity, stream) : -1;
    int result = size < 0 ? UCI_ERR_NOTFOUND : UCI_OK;

    /* What stands behind a NUL byte could not be given to the caller. */
    if (size >= 0 && memchr(line, 0, (size_t)size))
        result = UCI_ERR_PARSE;
    if (result == UCI_OK)
        text_append(text, line, (size_t)size);
    free(line);
    return result == UCI_OK && text->failed ? UCI_ERR_MEM : result;
}

/* A word that is read out of the text behind it, which is overwritten; the text is read on as the word goes on. */
struct argument
{
    struct text* text;
    size_t word_size;
    size_t used;      /* of the text */
    const char* open; /* how the next line has to begin to be read as the rest of the word; null if that is over */
    bool must_go_on;
    bool from_stream;
};

/* Puts the word, or the next piece of it, that the text has at a place behind what is there of the word. */
static void read_piece(struct argument* argument, size_t begin)
{
    struct text* text = argument->text;
    struct words words = {.position = text->data + begin, .end = text->data + text->size};
    const char* piece = words_next(&words);
    size_t size = strlen(piece);

    memmove(text->data + argument->word_size, piece, size + 1);
    argument->word_size += size;
    argument->used = (size_t)(words.position - text->data);
    argument->must_go_on = words.unterminated != 0;
    argument->open = NULL;
    if (words.unterminated)
        argument->open = words.unterminated == '"' ? "\"" : "'";
    else if (words.continued && words.end[-1] == '\n')
        argument->open = "''"; /* a blank ends the word, and is not passed over before it */
}

/* Reads the next line that a word goes on in. */
static int read_on(struct argument* argument, FILE* stream)
{
    struct text line = {NULL, 0, 0, false};
    size_t begin = argument->word_size;

    text_append_string(&line, argument->open);
    int result = append_line(stream, &line);
    if (result == UCI_OK) {
        argument->text->size = begin;
        text_append(argument->text, line.data, line.size);
        result = argument->text->failed ? UCI_ERR_MEM : UCI_OK;
    }
    text_free(&line);
    if (result != UCI_OK)
        return result;
    argument->from_stream = true;
    read_piece(argument, begin);
    return UCI_OK;
}

static int parse_argument(struct argument* argument, FILE* stream, char** str, char** word)
{
    struct text* text = argument->text;
    int result = UCI_OK;

    text->size = 0;
    text->failed = false;
    argument->from_stream = !*str;
    if (*str)
        text_append_string(text, *str);
    else
        result = append_line(stream, text);
    if (result == UCI_ERR_NOTFOUND)
        return UCI_OK;
    if (result == UCI_OK && text->failed)
        result = UCI_ERR_MEM;
    if (result != UCI_OK)
        return result;
    read_piece(argument, 0);
    while (result == UCI_OK && argument->open)
        result = read_on(argument, stream);
    if (result == UCI_ERR_NOTFOUND)
        result = argument->must_go_on ? UCI_ERR_PARSE : UCI_OK;
    if (result != UCI_OK)
        return result;
    *str = (argument->from_stream ? text->data : *str) + argument->used;
    *word = text->data;
    return UCI_OK;
}

int uci_parse_argument(struct uci_context* ctx, FILE* stream, char** str, char** result)
{
    struct argument argument = {.text = NULL};

    if (!ctx || !str || !result)
        return finish(ctx, UCI_ERR_INVAL);
    argument.text = &((struct context*)ctx)->argument;
    *result = NULL;
    ctx->pctx->reason = NULL;
    return finish(ctx, parse_argument(&argument, stream, str, result));
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
