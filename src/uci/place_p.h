/*
 * Places: parsing them, and finding them in one package.
 * Builds on names and elements. lookup.c, further up, loads packages.
 */
#ifndef UCI_PLACE_P_H
#define UCI_PLACE_P_H

#include "uci.h"

/* Cuts "package[.section[.option]][=value]" into the names of a place. */
int place_parse(struct uci_ptr* ptr, char* text);

/* Finds the section that a place names as "@type[index]", if there is one. UCI_ERR_INVAL: malformed. */
int place_find_indexed_section(struct uci_ptr* ptr);

/* Finds the section and option that a place names in its package; fills in missing names of given elements. */
void place_find(struct uci_ptr* ptr);

#endif
