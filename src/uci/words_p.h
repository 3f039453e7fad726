/*
 * Names, and the words that the file formats consist of.
 * Builds on nothing else of the store.
 */
#ifndef UCI_WORDS_P_H
#define UCI_WORDS_P_H

#include "uci.h"

/* The name of a section or option. */
bool is_plain_name(const char* name);

/* The name in a "package" line. */
bool is_package_line_name(const char* name);

/* The name of a package, or the type of a section. */
bool is_printable(const char* text);

/* A value that can be staged. */
bool is_delta_value(const char* value);

/* The name of a package whose changes can be staged: each of their lines begins with it. */
bool is_delta_package(const char* name);

/* Reads words from a text, which is overwritten by them. */
struct words
{
    char* position;
    char* end;         /* a NUL byte follows the text */
    size_t line;       /* the number of lines read */
    bool line_over;    /* no word can follow on this line */
    char unterminated; /* the quote that is open at the end of the text, or 0 */
    size_t quote_line; /* the number of lines before the one in which the latest quote opens */
    bool continued;    /* a backslash at the end of the text continues the line */
    bool separated;    /* the latest word was the empty one that ";" stands for */
};

/* Reads the next word of the line, an empty one if there is none. It ends with a NUL byte. */
char* words_next(struct words* words);

void words_skip_line(struct words* words);

#endif
