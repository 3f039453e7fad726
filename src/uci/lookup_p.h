/*
 * Looking up places, in packages that are loaded when needed.
 * Builds on places and on loading.
 */
#ifndef UCI_LOOKUP_P_H
#define UCI_LOOKUP_P_H

#include "uci.h"

/* As place_find(), with the package found or loaded by its name where it is not given. */
int lookup_place(struct uci_context* ctx, struct uci_ptr* ptr);

#endif
