/*
 * Reads the format of package files.
 * Builds on words and elements.
 */
#ifndef UCI_PARSER_P_H
#define UCI_PARSER_P_H

#include "text_p.h"

/* How to read a text as packages. */
struct parse_mode
{
    const char* name; /* null: "package" lines give it */
    bool single;      /* "package" lines are ignored */
};

/*
 * Parses a text, which is overwritten, and appends the packages to the list. They are not added to the context. On
 * failure the list is empty, and the context knows where and why.
 */
int parse_packages(
    struct uci_context* ctx, struct text* text, const struct parse_mode* mode, struct uci_list* list);

/* Parses a text as one package. */
int parse_package(struct uci_context* ctx, struct text* text, const char* name, struct uci_package** result);

#endif
