#include "contextdata_p.h"
#include "error_p.h"
#include "words_p.h"

#include <stdlib.h>

/* Appends the next line of a stream. UCI_ERR_NOTFOUND: there is none. */
static int append_line(FILE* stream, struct text* text)
{
    char* line = NULL;
    size_t capacity = 0;
    ssize_t size = stream ? getline(&line, &capacity, stream) : -1;
    int result = size < 0 ? UCI_ERR_NOTFOUND : UCI_OK;

    /* The caller could not see what follows a NUL byte. */
    if (size >= 0 && memchr(line, 0, (size_t)size))
        result = UCI_ERR_PARSE;
    if (result == UCI_OK)
        text_append(text, line, (size_t)size);
    free(line);
    return result == UCI_OK && text->failed ? UCI_ERR_MEM : result;
}

/* A word and, after it in the same buffer, the text that is left to read. The word overwrites the text. */
struct argument
{
    struct text* text;
    size_t word_size;
    size_t used;      /* bytes of the text */
    const char* open; /* null if the word is complete; otherwise what makes the next line continue it */
    bool must_continue;
    bool from_stream;
};

/* Reads the word, or the next piece of it, from an offset of the text, and appends it to the word. */
static void read_piece(struct argument* argument, size_t begin)
{
    struct text* text = argument->text;
    struct words words = {.position = text->data + begin, .end = text->data + text->size};
    const char* piece = words_next(&words);
    size_t size = strlen(piece);

    memmove(text->data + argument->word_size, piece, size + 1);
    argument->word_size += size;
    argument->used = (size_t)(words.position - text->data);
    argument->must_continue = words.unterminated != 0;
    argument->open = NULL;
    if (words.unterminated)
        argument->open = words.unterminated == '"' ? "\"" : "'";
    else if (words.continued && words.end[-1] == '\n')
        argument->open = "''"; /* so that a leading blank ends the word */
}

/* Reads the next line, which continues the word. */
static int read_continuation(struct argument* argument, FILE* stream)
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
        result = read_continuation(argument, stream);
    if (result == UCI_ERR_NOTFOUND)
        result = argument->must_continue ? UCI_ERR_PARSE : UCI_OK;
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
