/*
 * The file of staged changes of a package: appending, applying and emptying it.
 * Builds on files, the journal, the format of staged changes, places and changes in memory.
 */
#ifndef UCI_STAGED_P_H
#define UCI_STAGED_P_H

#include "replacement_p.h"

/* Stages the pending changes of a package: appends them to the file. */
int staged_append_pending(struct uci_package* p);

/* Staged changes of a package, as they were read. */
struct staged_text
{
    struct text text;
    size_t begin; /* of the changes that are not in the package file yet */
};

/* What is staged for a package, with the file in the staging directory locked. */
struct staged
{
    char* path;
    struct locked_file file; /* closed if there is none */
    struct staged_text own;
    struct staged_text* others; /* in the other directories, in the order in which they apply */
    size_t other_count;
    size_t applied; /* the number of changes applied */
};

/* Reads what is staged. The text of the package file has to be as it was read, before parsing overwrites it. */
int staged_open(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file,
    bool exclusive);

/* Applies what is staged in all directories. */
int staged_apply(struct staged* staged, struct uci_package* p);

/*
 * Replaces the package file and then empties the file of staged changes. Before that, the latter gets the mark of
 * the new package file: if the process is killed between the two steps, the next reader does not apply the changes
 * again.
 */
int staged_commit(struct staged* staged, struct replacement* replacement, const struct text* package_file);

/*
 * If a commit of an open package file was interrupted after it had replaced the file, drops the changes that it
 * has written from its staging directory: when the file is changed once more, they can no longer be recognised.
 */
int staged_finish_interrupted(const struct locked_file* file, const char* path);

/* Replaces the open file of staged changes by a text, or empties it. */
int staged_rewrite(struct locked_file* file, const char* path, const struct text* text);

/* Empties the file of staged changes if an interrupted commit has written all of them. */
int staged_empty_if_committed(struct staged* staged);

void staged_close(struct staged* staged);

#endif
