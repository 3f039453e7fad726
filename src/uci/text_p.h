/*
 * Text that grows at its end.
 * Builds on nothing else of the store.
 */
#ifndef UCI_TEXT_P_H
#define UCI_TEXT_P_H

#include "uci.h"

/* Ended by a NUL byte once something was appended. */
struct text
{
    char* data;
    size_t size;
    size_t capacity;
    bool failed; /* out of memory: what was appended since is missing */
};

void text_append(struct text* text, const char* data, size_t size);
void text_append_string(struct text* text, const char* string);

/* Appends a string as one quoted word of the file formats. */
void text_append_quoted(struct text* text, const char* string);

void text_free(struct text* text);

#endif
