#include "mark_p.h"

#include "delta_p.h"

/* FNV-1a, 64 bits (Fowler, Noll, Vo; draft-eastlake-fnv). */
static uint64_t hash_of(const struct text* text)
{
    uint64_t hash = UINT64_C(0xcbf29ce484222325);

    for (size_t i = 0; i < text->size; i++)
        hash = (hash ^ (unsigned char)text->data[i]) * UINT64_C(0x100000001b3);
    return hash;
}

void mark_write(struct text* text, const struct text* package_file)
{
    char line[64];

    snprintf(
        line, sizeof(line), DELTA_MARK "%llx %llx\n", (unsigned long long)package_file->size,
        (unsigned long long)hash_of(package_file));
    text_append_string(text, line);
}

/*
 * The offset of the last mark, or the size of the text if there is none. The text is overwritten: it has to be
 * parsed to distinguish a mark from a quoted value with the same text.
 */
static size_t find_last(struct text* text)
{
    struct words words = {.position = text->data, .end = text->data + text->size};
    struct delta_line line;
    size_t found = text->size;

    do {
        while (delta_at_mark(&words)) {
            found = (size_t)(words.position - text->data);
            words_skip_line(&words);
        }
    } while (delta_next(&words, "", &line) != DELTA_END);
    return found;
}

int mark_skip_committed(const struct text* text, const struct text* package_file, size_t* size)
{
    struct text expected = {NULL, 0, 0, false};
    struct text copy = {NULL, 0, 0, false};

    *size = 0;
    if (!text->size || !memmem(text->data, text->size, DELTA_MARK, sizeof(DELTA_MARK) - 1))
        return UCI_OK;
    text_append(&copy, text->data, text->size);
    mark_write(&expected, package_file);
    int result = copy.failed || expected.failed ? UCI_ERR_MEM : UCI_OK;
    if (result == UCI_OK) {
        size_t begin = find_last(&copy);
        if (text->size - begin >= expected.size && memcmp(text->data + begin, expected.data, expected.size) == 0)
            *size = begin + expected.size;
    }
    text_free(&copy);
    text_free(&expected);
    return result;
}
