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

/* A word and, after it in the buffer of the context, the text that is left to read. The word overwrites the text.
 */
struct argument
{
    struct text* text;
    size_t word; /* the offset of the word, and of its end */
    size_t word_end;
    size_t used;      /* the offset of what is left to read */
    const char* open; /* null if the word is complete; otherwise what makes the next line continue it */
    bool must_continue;
    bool in_buffer; /* the text is in the buffer only: the caller continues there */
};

/* Reads the word, or the next piece of it, from an offset of the text, and appends it to the word. */
static void read_piece(struct argument* argument, size_t begin)
{
    struct text* text = argument->text;
    struct words words = {.position = text->data + begin, .end = text->data + text->size};
    const char* piece = words_next(&words);
    size_t size = strlen(piece);

    memmove(text->data + argument->word_end, piece, size + 1);
    argument->word_end += size;
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
    size_t begin = argument->word_end;

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
    argument->in_buffer = true;
    read_piece(argument, begin);
    return UCI_OK;
}

/* Whether a string is what an earlier call has left to read. */
static bool is_rest(const struct text* text, const char* string)
{
    return text->data && (uintptr_t)string - (uintptr_t)text->data <= text->size;
}

/* Provides the text to read from: a line of the stream, a copy of the string, or the rest in the buffer as it is.
 */
static int take_text(struct argument* argument, FILE* stream, const char* string)
{
    struct text* text = argument->text;

    argument->in_buffer = !string || is_rest(text, string);
    text->failed = false;
    if (string && argument->in_buffer) {
        argument->word = (size_t)(string - text->data);
        text->size = argument->word + strlen(string);
    } else {
        text->size = 0;
        if (!string)
            return append_line(stream, text);
        text_append_string(text, string);
    }
    argument->word_end = argument->word;
    return text->failed ? UCI_ERR_MEM : UCI_OK;
}

static int parse_argument(struct argument* argument, FILE* stream, char** str, char** word)
{
    struct text* text = argument->text;
    int result = take_text(argument, stream, *str);

    if (result == UCI_ERR_NOTFOUND)
        return UCI_OK;
    if (result != UCI_OK)
        return result;
    read_piece(argument, argument->word);
    while (result == UCI_OK && argument->open)
        result = read_continuation(argument, stream);
    if (result == UCI_ERR_NOTFOUND)
        result = argument->must_continue ? UCI_ERR_PARSE : UCI_OK;
    if (result != UCI_OK)
        return result;
    *str = (argument->in_buffer ? text->data : *str) + argument->used;
    *word = text->data + argument->word;
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
