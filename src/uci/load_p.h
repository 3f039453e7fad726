/*
 * Loading packages: the package file with its staged changes.
 * Builds on paths, the parser and the staged changes.
 */
#ifndef UCI_LOAD_P_H
#define UCI_LOAD_P_H

#include "staged_p.h"

/* Loads a package and adds it to the context. */
int load_package(struct uci_context* ctx, const char* name, struct uci_package** package);

/*
 * Reads an open package file and applies the staged changes, whose file stays open, locked for emptying it if
 * asked. The package is not added to the context.
 */
int load_staged(
    struct uci_context* ctx, const struct locked_file* file, const char* name, struct staged* staged,
    bool exclusive, struct uci_package** package);

#endif
