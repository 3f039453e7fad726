/*
 * Marks of commits in the staged changes. They make it possible to recognise that a commit was interrupted after
 * it had replaced the package file and before it emptied the staged changes. Builds on the format of staged
 * changes.
 */
#ifndef UCI_MARK_P_H
#define UCI_MARK_P_H

#include "text_p.h"

/* Appends the mark of a commit that makes this the text of the package file. */
void mark_write(struct text* text, const struct text* package_file);

/*
 * Gives the size of the lines that this package file contains already: those up to the latest mark, if it matches.
 * Out of memory is not the same as no mark: the lines would be applied again.
 */
int mark_skip_committed(const struct text* text, const struct text* package_file, size_t* size);

#endif
