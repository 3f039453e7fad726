/*
 * Results of the public functions, and their texts.
 * Builds on growing text.
 */
#ifndef UCI_ERROR_P_H
#define UCI_ERROR_P_H

#include "uci.h"

/* Sets the result of a public function in its context, prints it if the context asks for that, and returns it. */
int finish(struct uci_context* ctx, int result);

#endif
