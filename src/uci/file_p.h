/*
 * Files that are locked while they are open, see flock(2), unless their file system has no locks.
 * Builds on growing text.
 */
#ifndef UCI_FILE_P_H
#define UCI_FILE_P_H

#include "text_p.h"

struct locked_file
{
    int fd;                    /* -1 if none is open */
    unsigned long long size;   /* when it was locked */
    unsigned long long device; /* these two tell it apart from other files */
    unsigned long long number;
    bool made; /* created by opening it */
};

/* How far a file is known, from reading it or appending to it earlier. With all members 0 nothing is known. */
struct known_part
{
    unsigned long long device;
    unsigned long long number;
    unsigned long long size;
    char end[64]; /* its last bytes, less if it is shorter */
};

/* Opens for reading with a shared lock. UCI_ERR_NOTFOUND: there is no such regular file. */
int file_open_shared(struct locked_file* file, const char* path);

/* Opens for writing with an exclusive lock; creates the file with the given mode if there is none. */
int file_open_exclusive(struct locked_file* file, const char* path, unsigned mode);

/* Removes an open file that opening has created, unless it was replaced or written since. */
void file_remove_made(const struct locked_file* file, const char* path);

void file_close(struct locked_file* file);

/* Reads a whole file, up to its size when it was locked. */
int file_read(const struct locked_file* file, struct text* text);

/* The same from an offset on. */
int file_read_from(const struct locked_file* file, unsigned long long offset, struct text* text);

/* Notes that a file is known up to a size. */
void file_note(const struct locked_file* file, unsigned long long size, struct known_part* known);

/*
 * The size up to which a file is still the known one; 0 if it was replaced, or emptied and written again. The
 * latter is recognised by the last bytes of the known part. They contain the end of a line of staged changes at
 * least, so that even where they happen to be the same, they are the end of a line.
 */
unsigned long long file_known_size(const struct locked_file* file, const struct known_part* known);

/* Appends to a file, on a line of its own, and flushes it. On failure the file is as before. */
int file_append(struct locked_file* file, const struct text* text);

/* Truncates a file and flushes it. */
int file_truncate(struct locked_file* file, unsigned long long size);

/* Flushes the directory of a file, so that the file is still there after a power loss. */
void file_flush_directory(const char* path);

/* Writes all bytes to a descriptor. */
bool write_fully(int fd, const char* data, size_t size);

#endif
