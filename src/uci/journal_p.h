/*
 * Which commit of a package is under way. Beside the package file there is a symbolic link then, to the file of
 * staged changes that the commit empties last. If the commit is interrupted, the next one finds these changes by
 * it, even if it has another staging directory. Builds on paths.
 */
#ifndef UCI_JOURNAL_P_H
#define UCI_JOURNAL_P_H

/* The paths of package files are those of the files themselves, with symbolic links resolved. */

/* Makes the link, if the file system has any. */
void journal_begin(const char* package_file, const char* staged_file);

/* Removes the link, if there is one. */
void journal_end(const char* package_file);

/* Returns the file of staged changes of an interrupted commit, or null. */
char* journal_read(const char* package_file);

#endif
