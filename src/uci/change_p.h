/*
 * Changes of a package in memory.
 * Builds on names and elements. The public functions are in edit.c.
 */
#ifndef UCI_CHANGE_P_H
#define UCI_CHANGE_P_H

#include "uci.h"

/* Applies a change to a place whose elements are found, see place_find(). Remembering it makes it pending. */
int change_apply(enum uci_command cmd, struct uci_ptr* ptr, bool remember);

/* Adds an unnamed section, which is pending then. */
int change_add_section(struct uci_package* p, const char* type, struct uci_section** section);

#endif
