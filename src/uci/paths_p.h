/*
 * Names and paths of packages.
 * Builds on names.
 */
#ifndef UCI_PATHS_P_H
#define UCI_PATHS_P_H

#include "uci.h"

/* Returns directory and name joined with "/", or null when out of memory. */
char* path_join(const char* directory, const char* name);

/*
 * Returns the path of a hidden file beside a file, with a suffix, or null when out of memory. The path of the file
 * has a "/".
 */
char* path_beside(const char* path, const char* suffix);

/* Returns UCI_OK if a package may have this name, or the error code of uci_load(). */
int package_check_name(const char* name);

/* Whether a name is the path of a file outside of the configuration directory. */
bool package_is_outside(const char* name);

/* Returns the path of a package file inside of the configuration directories, or null when out of memory. */
char* package_path(const struct uci_context* ctx, const char* name, bool* uses_conf2);

/* Returns the path of the file of the staged changes of a package, or null when out of memory. */
char* staged_path(const struct uci_context* ctx, const char* name);

#endif
