/*
 * Writes the format of package files.
 * Builds on growing text.
 */
#ifndef UCI_WRITER_P_H
#define UCI_WRITER_P_H

#include "text_p.h"

/* Appends a package so that it reads back as it is, with the generated names of unnamed sections if asked. */
void write_package(const struct uci_package* p, bool names, struct text* text);

#endif
