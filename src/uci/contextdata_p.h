/*
 * The private part of a context.
 * Builds on growing text. The operations on contexts are public; context.c, at the top, has them.
 */
#ifndef UCI_CONTEXTDATA_P_H
#define UCI_CONTEXTDATA_P_H

#include "text_p.h"

/* Where and why parsing failed last. */
struct uci_parse_context
{
    const char* reason; /* null if a string was malformed, not a file */
    size_t line;
};

struct context
{
    struct uci_context public;
    struct uci_parse_context parse_context;
    struct uci_backend file_backend;
    char file_backend_name[8];
    uint32_t hash_key[2]; /* random: names that collide in the index cannot be chosen */
    struct text argument; /* the latest result of uci_parse_argument() */
};

#endif
