#include "text_p.h"

#include <stdlib.h>

static bool reserve(struct text* text, size_t size)
{
    if (size < text->capacity)
        return true;
    size_t capacity = text->capacity ? text->capacity : 128;
    while (capacity <= size)
        capacity *= 2;
    char* data = realloc(text->data, capacity);
    if (!data) {
        text->failed = true;
        return false;
    }
    text->data = data;
    text->capacity = capacity;
    return true;
}

void text_append(struct text* text, const char* data, size_t size)
{
    if (text->failed || !reserve(text, text->size + size))
        return;
    memcpy(text->data + text->size, data, size);
    text->size += size;
    text->data[text->size] = 0;
}

void text_append_string(struct text* text, const char* string)
{
    text_append(text, string, strlen(string));
}

void text_append_quoted(struct text* text, const char* string)
{
    const char* quote;

    text_append(text, "'", 1);
    while ((quote = strchr(string, '\''))) {
        text_append(text, string, (size_t)(quote - string));
        text_append(text, "'\\''", 4);
        string = quote + 1;
    }
    text_append_string(text, string);
    text_append(text, "'", 1);
}

void text_free(struct text* text)
{
    free(text->data);
    memset(text, 0, sizeof(*text));
}
