/* What the parts of the store share. Nothing of this is installed. */
#ifndef UCI_P_H
#define UCI_P_H

#include "uci.h"

/* Where and why reading failed last. */
struct uci_parse_context
{
    const char* reason; /* null if a string was malformed and no file */
    size_t line;
};

/* ---- text.c: growing text ---- */

/* A text that grows at its end; always ended by a NUL byte once it holds something. */
struct text
{
    char* data;
    size_t size;
    size_t capacity;
    bool failed; /* memory ran out: what was appended since is missing */
};

void text_append(struct text* text, const char* data, size_t size);
void text_append_string(struct text* text, const char* string);
void text_append_quoted(struct text* text, const char* string);
void text_free(struct text* text);

/* ---- elements.c: elements, lists and the index of names ---- */

/* Finds the elements of a list by their names: a hash table with linear probing. Short lists have none and are
 * walked. */
struct name_index
{
    struct name_slot* slots;
    uint32_t slot_count; /* a power of two, or 0 */
    uint32_t count;
};

struct context
{
    struct uci_context public;
    struct uci_parse_context parse_context;
    struct uci_backend file_backend;
    char file_backend_name[8];
    uint32_t hash_key[2]; /* random, so that nobody can choose names that meet in one bucket */
    struct text argument; /* the latest result of uci_parse_argument() */
};

struct package
{
    struct uci_package public;
    struct name_index sections;
};

/* Name, type and value lie behind the element in the same block of memory until they change. */
struct section
{
    struct uci_section public;
    struct name_index options;
    uint32_t text_size;
    char text[];
};

struct option
{
    struct uci_option public;
    uint32_t text_size;
    char text[];
};

void list_init(struct uci_list* list);
void list_append(struct uci_list* list, struct uci_list* link);
void list_insert_after(struct uci_list* place, struct uci_list* link);
void list_remove(struct uci_list* link);

struct uci_element* element_new(enum uci_type type, const char* name);
void element_list_free(struct uci_list* list);

struct uci_package* package_new(struct uci_context* ctx, const char* name);
void package_free(struct uci_package* p);
struct uci_package* package_loaded(const struct uci_context* ctx, const char* name);
struct uci_section* package_find(const struct uci_package* p, const char* name);

/* Makes a section at the end of the package. Without a name it is anonymous and gets one. */
struct uci_section* section_new(struct uci_package* p, const char* type, const char* name);
void section_free(struct uci_section* s);
struct uci_option* section_find(const struct uci_section* s, const char* name);
bool section_set_name(struct uci_section* s, const char* name);
bool section_set_type(struct uci_section* s, const char* type);

/* Makes an option at the end of the section: a plain one with a value, an empty list without. */
struct uci_option* option_new(struct uci_section* s, const char* name, const char* value);
void option_free(struct uci_option* o);
bool option_set_name(struct uci_option* o, const char* name);
bool option_set_value(struct uci_option* o, const char* value);
bool option_make_list(struct uci_option* o);
bool option_append(struct uci_option* o, const char* value);

/* Adds a change to a list of changes. */
bool delta_new(
    struct uci_list* list, enum uci_command cmd, const char* section, const char* option, const char* value);

/* ---- words.c: names and words of the file formats ---- */

bool is_plain_name(const char* name);
bool is_package_line_name(const char* name);
bool is_printable(const char* text);
bool is_delta_value(const char* value);

/* Reads words out of a text, which is overwritten by them. */
struct words
{
    char* position;
    char* end;         /* a NUL byte follows the text */
    size_t line;       /* how many lines were passed */
    bool line_over;    /* no word can follow on this line */
    char unterminated; /* the quote that was still open at the end of the text, or 0 */
    bool continued;    /* a backslash called for another line at the end of the text */
    bool separated;    /* the latest word was the empty one that ";" stands for */
};

/* Reads the next word of the line, an empty one if there is none; the result is ended by a NUL byte. */
char* words_next(struct words* words);

void words_skip_line(struct words* words);

/* ---- place.c: places in a package ---- */

/* Cuts "package[.section[.option]][=value]" into the names of a place. */
int place_parse(struct uci_ptr* ptr, char* text);

/* Finds the section that a place names as "@type[index]", if there is one. UCI_ERR_INVAL: malformed. */
int place_find_indexed_section(struct uci_ptr* ptr);

/* Finds the section and option that a place names in its package; fills in missing names of given elements. */
void place_find(struct uci_ptr* ptr);

/* ---- change.c: changes of a package in memory ---- */

/* Applies a change to a place whose elements are found, see place_find(). Remembering it makes it pending. */
int change_apply(enum uci_command cmd, struct uci_ptr* ptr, bool remember);

/* Adds an unnamed section, which is pending then. */
int change_add_section(struct uci_package* p, const char* type, struct uci_section** section);

/* ---- parser.c, writer.c: the format of package files ---- */

/* How to read a text as packages. */
struct parse_mode
{
    const char* name; /* null: "package" lines give it */
    bool single;      /* "package" lines are remarks */
};

/*
 * Reads a text, which is overwritten, and appends the packages to the list, which is not the context's. On failure
 * nothing is left in the list.
 */
int parse_packages(
    struct uci_context* ctx, struct text* text, const struct parse_mode* mode, struct uci_list* list);

/* Reads a text as one package. */
int parse_package(struct uci_context* ctx, struct text* text, const char* name, struct uci_package** result);

/* Writes a package so that it reads back as it is. UCI_ERR_INVAL: it has a name or type that could not be read. */
int write_package(const struct uci_package* p, bool names, struct text* text);

/* ---- delta.c: the format of staged changes ---- */

/* A line of staged changes; names and value point into the text that was read. */
struct delta_line
{
    enum uci_command cmd;
    const char* section;
    const char* option;
    const char* value;
};

/* What a line begins with that is the mark of a commit, see mark.c. Marks are passed over when changes are read.
 */
#define DELTA_MARK "#commit "

/* Whether the next line is a mark. */
bool delta_at_mark(const struct words* words);

enum delta_result { DELTA_END, DELTA_LINE, DELTA_REFUSED };

/* Reads the next line of a text of staged changes, which is overwritten. */
enum delta_result delta_next(struct words* words, const char* package, struct delta_line* line);

void delta_write(
    struct text* text, const struct uci_package* p, enum uci_command cmd, const char* section, const char* option,
    const char* value);

/*
 * How much of a text of staged changes, which is overwritten, is there before a line that never ends: it would
 * swallow what is appended, as its quote is open or a backslash calls for more.
 */
size_t delta_whole_size(struct text* text);

/* ---- mark.c: marks of commits in the staged changes ---- */

/* Appends the mark of a commit that makes this the text of the package file. */
void mark_write(struct text* text, const struct text* package_file);

/*
 * The size of the lines that the package file holds already: those up to the latest mark, if a commit of this very
 * file was interrupted before it emptied the staged changes.
 */
size_t mark_skip_committed(const struct text* text, const struct text* package_file);

/* ---- context.c ---- */

/* Notes the result of a public function in the context and gives it back. */
int finish(struct uci_context* ctx, int result);

/* ---- file.c: files, locks and replacement ---- */

/* An open file, locked until it is closed. */
struct locked_file
{
    int fd;                  /* -1 if none is open */
    unsigned long long size; /* when it was locked */
    bool made;               /* it was not there before */
};

/* Opens for reading with a shared lock. UCI_ERR_NOTFOUND: there is no such regular file. */
int file_open_shared(struct locked_file* file, const char* path);

/* Opens for writing with an exclusive lock; makes the file with the given mode if there is none. */
int file_open_exclusive(struct locked_file* file, const char* path, unsigned mode);

/* Removes an open file again that opening has made, if nothing was put into its place. */
void file_remove_made(const struct locked_file* file, const char* path);

void file_close(struct locked_file* file);

/* Reads a whole file, as long as it was when it was locked. */
int file_read(const struct locked_file* file, struct text* text);

/* Appends to a file, on a line of its own, and flushes it; on failure the file is as before. */
int file_append(const struct locked_file* file, const struct text* text);

/* Cuts a file to a size and flushes it. */
int file_truncate(const struct locked_file* file, size_t size);

/* Makes sure that a file that is new in its directory is found there after a power loss. */
void file_flush_directory(const char* path);

/* Writes all bytes to a descriptor. */
bool write_fully(int fd, const char* data, size_t size);

/* ---- replacement.c: replacing files ---- */

/*
 * Replaces a file in two steps: its new contents are written to a new file beside it, which then takes its place,
 * with its mode and owner. On failure the file is as before.
 */
struct replacement
{
    char* path;     /* of the file itself, no symbolic link */
    char* new_path; /* of the new file */
};

/* Writes and flushes the new file. If that succeeds, the replacement has to be freed. */
int replacement_prepare(
    struct replacement* replacement, const struct locked_file* file, const char* path, const struct text* text);
int replacement_apply(struct replacement* replacement);

/* Removes the new file, if it has not taken the other's place. */
void replacement_free(struct replacement* replacement);

/* ---- paths.c: names and files of packages ---- */

/* Returns directory and name joined with "/", or null when out of memory. */
char* path_join(const char* directory, const char* name);

/* Returns UCI_OK if a package may have this name, or the result of uci_load() if not. */
int package_check_name(const char* name);

/* Whether a name is the path of a file outside of the configuration directory. */
bool package_is_outside(const char* name);

/* Returns the path of the file of a package that is not outside, or null when out of memory. */
char* package_path(const struct uci_context* ctx, const char* name, bool* uses_conf2);

/* Returns the path of the file of its staged changes, or null when out of memory. */
char* staged_path(const struct uci_context* ctx, const char* name);

/* ---- staged.c: the file of staged changes ---- */

/* Stages the pending changes of a package: appends them to the file. */
int staged_append_pending(struct uci_package* p);

/* What is staged for a package, with its file locked. */
struct staged
{
    struct locked_file file; /* closed if there is none */
    struct text text;
    size_t begin;   /* of the changes that are not in the package file yet */
    size_t applied; /* the number of changes that could be applied */
};

/* Reads what is staged; the text of the package file must not have been parsed, which overwrites it. */
int staged_open(
    struct staged* staged, const struct uci_context* ctx, const char* name, const struct text* package_file,
    bool exclusive);
void staged_close(struct staged* staged);

/* Applies what is staged in all directories. */
int staged_apply(struct staged* staged, struct uci_package* p);

/*
 * Replaces the package file and empties the file of staged changes. Before that, a mark with the fingerprint of
 * the new package file is appended to the latter: if the process ends between the two steps, the next reader
 * recognises the package file and does not apply the changes again.
 */
int staged_commit(const struct staged* staged, struct replacement* replacement, const struct text* package_file);

/* Empties the file of staged changes if an interrupted commit has written all of them. */
int staged_empty_if_committed(const struct staged* staged);

/* ---- load.c: loading packages ---- */

/* Loads a package under its name and adds it to the context. */
int load_package(struct uci_context* ctx, const char* name, struct uci_package** package);

/*
 * Reads an open package file and applies the staged changes, which are open then, locked for emptying them if
 * asked. The package is not the context's yet.
 */
int load_staged(
    struct uci_context* ctx, const struct locked_file* file, const char* name, struct staged* staged,
    bool exclusive, struct uci_package** package);

/* ---- lookup.c: places in packages that may have to be loaded ---- */

/* As place_find(), with the package found or loaded by its name where it is not given. */
int lookup_place(struct uci_context* ctx, struct uci_ptr* ptr);

#endif
