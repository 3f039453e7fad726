/*
 * Replacing a file in one step.
 * Builds on paths and files.
 */
#ifndef UCI_REPLACEMENT_P_H
#define UCI_REPLACEMENT_P_H

#include "file_p.h"

/*
 * The new contents are written to a new file beside the old one, with its mode and owner, and the new file is
 * renamed to the old one's path. On failure the old file is unchanged.
 */
struct replacement
{
    char* path;     /* of the file itself, with symbolic links resolved */
    char* new_path; /* of the new file, null after the renaming */
};

/* Writes and flushes the new file. If that succeeds, the replacement has to be freed. */
int replacement_prepare(
    struct replacement* replacement, const struct locked_file* file, const char* path, const struct text* text);

/* Renames the new file. */
int replacement_apply(struct replacement* replacement);

/* Removes the new file if it was not renamed. */
void replacement_free(struct replacement* replacement);

#endif
