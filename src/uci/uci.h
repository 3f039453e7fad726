/**
 * @file
 * The configuration store: packages of typed sections with options, kept as text files in one directory, with
 * changes staged in a second directory until they are committed.
 *
 * The interface is that of libuci, so that a program written for the one compiles with the other;
 * docs/configuration.md describes how the store behaves and where it differs.
 *
 * Functions return UCI_OK or one of the error codes. A context and its elements are used by one thread at a
 * time. Contexts are independent of each other, in the same process or in different ones: they share only the
 * files, which are locked (flock(2)) while they are read or written. Callers may walk the public lists and read
 * the public members, but must not change them: the store keeps an index of names beside them. All elements are
 * owned by the context.
 */
#ifndef UCI_H
#define UCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports; everything else in it is hidden. */
#if defined(__GNUC__)
#define UCI_EXPORT __attribute__((visibility("default")))
#else
#define UCI_EXPORT
#endif

/** The default configuration directory, see uci_set_confdir(). */
#define UCI_CONFDIR "/etc/config"
/** The default staging directory, see uci_set_savedir(). On most devices a restart empties it. */
#define UCI_SAVEDIR "/tmp/.uci"
/** Package files here take precedence over those of the same name in the configuration directory. */
#define UCI_CONF2DIR "/var/run/uci"
/** Mode of a new staging directory if there is no configuration directory, whose mode it gets otherwise. */
#define UCI_DIRMODE 0700
/** Mode of a new package file, and of a new file of staged changes if there is no package file. */
#define UCI_FILEMODE 0600

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,       /**< out of memory */
    UCI_ERR_INVAL,     /**< an invalid name, value or combination of arguments */
    UCI_ERR_NOTFOUND,  /**< no such package file, section or option */
    UCI_ERR_IO,        /**< a file or directory could not be opened, written or locked; nothing was changed */
    UCI_ERR_PARSE,     /**< a package file or a string is malformed; uci_get_errorstr() gives the position */
    UCI_ERR_DUPLICATE, /**< the package is loaded already, the directory is searched already */
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

struct uci_list;
struct uci_element;
struct uci_package;
struct uci_section;
struct uci_option;
struct uci_delta;
struct uci_context;
struct uci_backend;
struct uci_parse_option;
struct uci_parse_context;

/** A link in a circular list; the head of the list is the owner's link and not an element. */
struct uci_list
{
    struct uci_list* next; /**< the next link; in an empty list the head itself */
    struct uci_list* prev; /**< the previous link; in an empty list the head itself */
};

/** The type of an element; in uci_ptr::target, of the element that a string names. */
enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA = 1,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_PATH = 5,
    UCI_TYPE_BACKEND = 6,
    UCI_TYPE_ITEM = 7,
    UCI_TYPE_HOOK = 8
};

/** Whether an option has one value or a list of them. */
enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

/** Options of a context, combined with "|" in uci_context::flags. */
enum uci_flags {
    UCI_FLAG_STRICT = (1 << 0),      /**< for compatibility; reading is always strict */
    UCI_FLAG_PERROR = (1 << 1),      /**< print each error on the standard error stream */
    UCI_FLAG_EXPORT_NAME = (1 << 2), /**< uci_export() writes the generated names of unnamed sections */
    UCI_FLAG_SAVED_DELTA = (1 << 3)  /**< keep the staged changes that were read in uci_package::saved_delta */
};

/** The beginning of all members of lists. */
struct uci_element
{
    struct uci_list list; /**< the link in the list of the element */
    enum uci_type type;   /**< what the element is */
    char* name;           /**< its name, or the value of an item of a list; null where it has none */
};

/** A source of packages; there is one, "file". */
struct uci_backend
{
    struct uci_element e; /**< with the name of the backend */
};

/** A connection to the store. */
struct uci_context
{
    struct uci_list root; /**< the loaded packages */

    struct uci_parse_context* pctx; /**< the position of the latest parse error; opaque */
    struct uci_backend* backend;    /**< the backend that packages are loaded from */
    struct uci_list backends;       /**< all backends */

    enum uci_flags flags; /**< callers may set and clear flags at any time */

    char* confdir;  /**< see uci_set_confdir() */
    char* savedir;  /**< see uci_set_savedir() */
    char* conf2dir; /**< see uci_set_conf2dir() */

    struct uci_list delta_path; /**< directories that staged changes are read from, uci_context::savedir last */

    int err; /**< the result of the latest operation, see uci_get_errorstr() */
};

/** A loaded package. */
struct uci_package
{
    struct uci_element e;     /**< with the package's name */
    struct uci_list sections; /**< its sections, in the order of the file */
    struct uci_context* ctx;  /**< the context that it is loaded in */
    bool has_delta;  /**< its changes are staged; false for a package outside of the configuration directory */
    bool uses_conf2; /**< read from uci_context::conf2dir */
    char* path;      /**< its file; null where it has none yet */

    struct uci_backend* backend; /**< where the package comes from */
    void* priv;                  /**< private */
    int n_section;               /**< the number of sections made so far, for the generated names */
    struct uci_list delta;       /**< changes that are not staged yet */
    struct uci_list saved_delta; /**< staged changes that were read or saved, see UCI_FLAG_SAVED_DELTA */
};

/** A section of a package. */
struct uci_section
{
    struct uci_element e;        /**< with the section's name */
    struct uci_list options;     /**< its options, in the order of the file */
    struct uci_package* package; /**< the package that it is a section of */
    bool anonymous;              /**< has no name of its own; uci_element::name is a generated one */
    char* type;                  /**< its type */
};

/** An option of a section. */
struct uci_option
{
    struct uci_element e;        /**< with the option's name */
    struct uci_section* section; /**< the section that it is an option of */
    enum uci_option_type type;   /**< which member of uci_option::v holds the value */
    /** The value of an option. */
    union {
        struct uci_list list; /**< elements of type UCI_TYPE_ITEM, whose names are the values */
        char* string;         /**< the one value; never empty */
    } v;                      /**< the value, or the values */
};

/** What a change does. */
enum uci_command {
    UCI_CMD_ADD,
    UCI_CMD_REMOVE,
    UCI_CMD_CHANGE,
    UCI_CMD_RENAME,
    UCI_CMD_REORDER,
    UCI_CMD_LIST_ADD,
    UCI_CMD_LIST_DEL
};

/** One change; uci_element::name is the option, null for a change of the section. */
struct uci_delta
{
    struct uci_element e; /**< with the option's name */
    enum uci_command cmd; /**< what the change does */
    char* section;        /**< the section that is changed, or whose option is */
    char* value;          /**< null where the change has none */
};

/** A place in the configuration, by names or by elements; an element takes precedence over a name. */
struct uci_ptr
{
    enum uci_type target; /**< set by look-up of a string: the type of the element that it names */
    /** The result of the look-up of a place. */
    enum {
        UCI_LOOKUP_DONE = (1 << 0),
        UCI_LOOKUP_COMPLETE = (1 << 1), /**< everything named exists */
        UCI_LOOKUP_EXTENDED = (1 << 2)  /**< the section was given as \@type[index] */
    } flags;                            /**< set by look-up, combined with "|" */

    struct uci_package* p;    /**< null if not known or not found */
    struct uci_section* s;    /**< null if not known or not found */
    struct uci_option* o;     /**< null if not known or not found */
    struct uci_element* last; /**< the deepest element that was found */

    const char* package; /**< the package's name; with uci_ptr::p it may be null */
    const char* section; /**< the section's name; null where a package is meant, or with uci_ptr::s */
    const char* option;  /**< the option's name; null where a section or package is meant, or with uci_ptr::o */
    const char* value;   /**< the value for the operation, or the new name for uci_rename() */
};

/** An option that uci_parse_section() looks for. */
struct uci_parse_option
{
    const char* name;          /**< the option's name */
    enum uci_option_type type; /**< an option of another type is ignored */
};

/** @return a context without packages, with the default directories; null when out of memory. */
UCI_EXPORT struct uci_context* uci_alloc_context(void);

/** Frees @a ctx with all its packages; changes that are not staged are lost. Null is allowed. */
UCI_EXPORT void uci_free_context(struct uci_context* ctx);

/** Prints the text of the latest error of @a ctx on the standard error stream, after @a prefix unless it is null.
 */
UCI_EXPORT void uci_perror(struct uci_context* ctx, const char* prefix);

/**
 * Gives the text of the latest error of @a ctx, after @a prefix if it is not null; for a parse error in
 * a file with reason and line. With @a dest null it is printed on the standard error stream.
 * @param dest receives a string to be freed with free(), null when out of memory.
 */
UCI_EXPORT void uci_get_errorstr(struct uci_context* ctx, char** dest, const char* prefix);

/**
 * Reads packages from @a stream in the format of package files.
 * @param name the package's name, or null if the text gives it with a "package" line.
 * @param package receives the last package that was read; may be null.
 * @param single ignore "package" lines and read everything into the package @a name.
 * @return UCI_ERR_PARSE for malformed text, UCI_ERR_DUPLICATE for a package that is loaded already;
 * then nothing is loaded.
 *
 * The packages have no file yet: uci_commit() with overwrite writes them to the configuration directory.
 */
UCI_EXPORT int
uci_import(struct uci_context* ctx, FILE* stream, const char* name, struct uci_package** package, bool single);

/** Writes @a package, or all loaded packages if it is null, to @a stream; @a header puts a "package" line first.
 */
UCI_EXPORT int uci_export(struct uci_context* ctx, FILE* stream, struct uci_package* package, bool header);

/**
 * Reads the package @a name with its staged changes.
 * @param name a file of the configuration directory; a name that begins with "/" or "./" is the path of a file
 * outside; its package is named by the last part of the path and has no staged changes.
 * @param package receives the package; may be null.
 * @return UCI_ERR_INVAL for a name with blanks, control characters or bytes beyond ASCII, UCI_ERR_NOTFOUND if
 * there is no such regular file or the name has a part "..", UCI_ERR_DUPLICATE if it is loaded, UCI_ERR_PARSE if
 * it is malformed.
 */
UCI_EXPORT int uci_load(struct uci_context* ctx, const char* name, struct uci_package** package);

/** Frees @a p; its changes that are not staged are lost. */
UCI_EXPORT int uci_unload(struct uci_context* ctx, struct uci_package* p);

/**
 * Finds the place @a ptr, loading its package if necessary. A missing section or option is not an error, but
 * UCI_LOOKUP_COMPLETE is not set then.
 * @param str if not null, the place as "package[.section[.option]][=value]", which replaces all of @a ptr; the
 * string is cut into pieces, and @a ptr points to them. The section may be \@type[index], counted from 0, or
 * from the end for negative numbers; without a type all sections count.
 * @param extended whether \@type[index] is allowed.
 * @return UCI_ERR_PARSE for a malformed string, UCI_ERR_INVAL for a section that is neither a name nor
 * \@type[index], otherwise the result of uci_load().
 */
UCI_EXPORT int uci_lookup_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended);

/**
 * @name Changes
 * What could not be read back from the files is refused with UCI_ERR_INVAL: names of sections and options with
 * other characters than ASCII letters, digits and "_"; types that uci_validate_text() does not accept; values with
 * control characters other than tab, line feed and carriage return, unless the package is outside of the
 * configuration directory; any change of a package there whose name contains one of . = ' " \ \# ; or begins with
 * one of
 * + - \@ ^ | ~, which staged changes cannot name.
 * @{
 */

/** Adds an unnamed section of type @a type at the end of @a p. @param res receives it. */
UCI_EXPORT int
uci_add_section(struct uci_context* ctx, struct uci_package* p, const char* type, struct uci_section** res);

/**
 * Sets the option @a ptr to its value; creates it if it is missing, replaces it if it is a list. Without an
 * option, creates the section or changes its type. An empty value deletes the option or section, if there is one.
 * @return UCI_ERR_INVAL without a value, for a package, for an option of a missing section, for a malformed type.
 */
UCI_EXPORT int uci_set(struct uci_context* ctx, struct uci_ptr* ptr);

/**
 * Appends the value to the list @a ptr, which is created if it is missing; an option with a single value becomes a
 * list that begins with it.
 * @return UCI_ERR_INVAL without a value or an option name, or if the section is missing.
 */
UCI_EXPORT int uci_add_list(struct uci_context* ctx, struct uci_ptr* ptr);

/**
 * Removes all items that are equal to the value from the list @a ptr. It is not an error if there are none, or no
 * list.
 * @return UCI_ERR_INVAL without a value or an option name, or if the section is missing.
 */
UCI_EXPORT int uci_del_list(struct uci_context* ctx, struct uci_ptr* ptr);

/**
 * Moves @a s to position @a pos among its package's sections, counted from 0; a negative number is the first
 * position, one that is too large the last.
 */
UCI_EXPORT int uci_reorder_section(struct uci_context* ctx, struct uci_section* s, int pos);

/**
 * Renames the section or option @a ptr to its value. @return UCI_ERR_NOTFOUND if it is missing, UCI_ERR_INVAL if
 * another one has that name.
 */
UCI_EXPORT int uci_rename(struct uci_context* ctx, struct uci_ptr* ptr);

/**
 * Deletes the section or option @a ptr; if it is a list and there is a value, only the item with that number,
 * counted from 0. @return UCI_ERR_NOTFOUND if it is missing.
 */
UCI_EXPORT int uci_delete(struct uci_context* ctx, struct uci_ptr* ptr);

/** @} */

/**
 * Stages the changes of @a p: appends them to the file of its name in the staging directory, which is created
 * if necessary. A package outside of the configuration directory is written immediately.
 * @return UCI_ERR_IO if that fails; the changes stay pending then.
 */
UCI_EXPORT int uci_save(struct uci_context* ctx, struct uci_package* p);

/**
 * Stages the changes of @a p, applies all staged changes, those of other programs too, to the current package
 * file, and empties the file of staged changes. The package file is replaced in one step: at any moment it is the
 * old or the new one.
 * @param p receives the package as read again; null if the package file is malformed, which unloads the package.
 * @param overwrite write the package as it is in memory, whatever the file contains, with the staged changes
 * applied once more; nothing is written if there are none.
 * @return UCI_ERR_IO or UCI_ERR_PARSE on failure; then the package file and the staged changes are as before.
 */
UCI_EXPORT int uci_commit(struct uci_context* ctx, struct uci_package** p, bool overwrite);

/**
 * Lists the packages of both configuration directories.
 * @param list receives the names of all packages, ended by a null pointer; one block of memory for free(). Null on
 * failure.
 * @return UCI_ERR_NOTFOUND if the configuration directory does not exist, UCI_ERR_IO if one of the directories
 * cannot be read.
 */
UCI_EXPORT int uci_list_configs(struct uci_context* ctx, char*** list);

/** Sets the staging directory; previous ones are still read. */
UCI_EXPORT int uci_set_savedir(struct uci_context* ctx, const char* dir);

/** Sets the configuration directory. */
UCI_EXPORT int uci_set_confdir(struct uci_context* ctx, const char* dir);

/** Sets the directory whose packages take precedence over the configuration directory; empty for none. */
UCI_EXPORT int uci_set_conf2dir(struct uci_context* ctx, const char* dir);

/** Reads staged changes from @a dir as well. @return UCI_ERR_DUPLICATE if it is read already. */
UCI_EXPORT int uci_add_delta_path(struct uci_context* ctx, const char* dir);

/**
 * Drops the changes of the package, section or option @a ptr that are not committed, including staged ones, and
 * reads the package again.
 * @return UCI_ERR_INVAL for a package outside of the configuration directory.
 */
UCI_EXPORT int uci_revert(struct uci_context* ctx, struct uci_ptr* ptr);

/**
 * Reads one word, with quotes and backslashes as in package files.
 * @param stream source of further lines if the word does not end on the first; may be null.
 * @param str the text, advanced past the word; with *@a str null a line of @a stream is read first. If lines
 * were read, it points to the rest of the last one, which the next call reads if it gets this pointer. An empty
 * text has no further word.
 * @param result receives the word, which is valid until the next call; null at the end of the stream.
 * @return UCI_ERR_PARSE for a quote that is not closed, and for a line of @a stream with a NUL byte.
 */
UCI_EXPORT int uci_parse_argument(struct uci_context* ctx, FILE* stream, char** str, char** result);

/** Selects the backend @a name. @return UCI_ERR_NOTFOUND for all but "file". */
UCI_EXPORT int uci_set_backend(struct uci_context* ctx, const char* name);

/** @return whether @a str can be the type of a section: not empty, and no blanks, control or non-ASCII characters.
 */
UCI_EXPORT bool uci_validate_text(const char* str);

/** Parses @a str as uci_lookup_ptr() does, without looking anything up. */
UCI_EXPORT int uci_parse_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str);

/**
 * Finds the next element @a name of @a list after *@a e, or the first one if that is null.
 * @return UCI_ERR_NOTFOUND if there is none.
 */
UCI_EXPORT int
uci_lookup_next(struct uci_context* ctx, struct uci_element** e, struct uci_list* list, const char* name);

/** Fills @a tb with the @a n_opts options of @a s that @a opts names, null where one is missing or of another
 * type. */
UCI_EXPORT void
uci_parse_section(struct uci_section* s, const struct uci_parse_option* opts, int n_opts, struct uci_option** tb);

/** @return a hash of the names and values of the @a n_opts options @a tb. */
UCI_EXPORT uint32_t uci_hash_options(struct uci_option** tb, int n_opts);

/** The object of type @a type whose member @a member is at @a ptr. */
#ifndef container_of
#define container_of(ptr, type, member) ((type*)(((char*)(ptr)) - offsetof(type, member)))
#endif

/** The element of a link; not for the head of a list. */
#define list_to_element(ptr) container_of(ptr, struct uci_element, list)

/** Loops over all elements of a list; none may be removed in the loop. */
#define uci_foreach_element(_list, _ptr) \
    for ((_ptr) = list_to_element((_list)->next); &(_ptr)->list != (_list); \
         (_ptr) = list_to_element((_ptr)->list.next))

/** As uci_foreach_element, but the current element may be removed. */
#define uci_foreach_element_safe(_list, _tmp, _ptr) \
    for ((_ptr) = list_to_element((_list)->next), (_tmp) = list_to_element((_ptr)->list.next); \
         &(_ptr)->list != (_list); (_ptr) = (_tmp), (_tmp) = list_to_element((_ptr)->list.next))

/** Whether a list is empty. */
#define uci_list_empty(list) ((list)->next == (list))

/**
 * @{
 * The same as the value of uci_type in capital letters.
 */
#define uci_type_backend UCI_TYPE_BACKEND
#define uci_type_delta UCI_TYPE_DELTA
#define uci_type_package UCI_TYPE_PACKAGE
#define uci_type_section UCI_TYPE_SECTION
#define uci_type_option UCI_TYPE_OPTION
/** @} */

/**
 * @{
 * The object that begins with an element; its uci_element::type has to match.
 */
#define uci_to_backend(ptr) container_of(ptr, struct uci_backend, e)
#define uci_to_delta(ptr) container_of(ptr, struct uci_delta, e)
#define uci_to_package(ptr) container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) container_of(ptr, struct uci_option, e)
/** @} */

/** The first byte after an element. */
#define uci_dataptr(ptr) (((char*)(ptr)) + sizeof(*(ptr)))

#if defined(__cplusplus) && __cplusplus >= 201103L
/** A null pointer for the functions below; C++ compilers can warn about NULL. */
#define UCI_NULL nullptr
#else
#define UCI_NULL NULL
#endif

/** @return the loaded package @a name, or null. */
static inline struct uci_package* uci_lookup_package(struct uci_context* ctx, const char* name)
{
    struct uci_element* e = UCI_NULL;
    return uci_lookup_next(ctx, &e, &ctx->root, name) == UCI_OK ? uci_to_package(e) : UCI_NULL;
}

/** @return the section @a name of @a p, or null. */
static inline struct uci_section*
uci_lookup_section(struct uci_context* ctx, struct uci_package* p, const char* name)
{
    struct uci_ptr ptr;
    memset(&ptr, 0, sizeof(ptr));
    ptr.p = p;
    ptr.section = name;
    return uci_lookup_ptr(ctx, &ptr, UCI_NULL, false) == UCI_OK ? ptr.s : UCI_NULL;
}

/** @return the option @a name of @a s, or null. */
static inline struct uci_option*
uci_lookup_option(struct uci_context* ctx, struct uci_section* s, const char* name)
{
    struct uci_ptr ptr;
    memset(&ptr, 0, sizeof(ptr));
    ptr.s = s;
    ptr.option = name;
    return uci_lookup_ptr(ctx, &ptr, UCI_NULL, false) == UCI_OK ? ptr.o : UCI_NULL;
}

/** @return the value of the option @a name of @a s; null if there is none or it is a list. */
static inline const char*
uci_lookup_option_string(struct uci_context* ctx, struct uci_section* s, const char* name)
{
    struct uci_option* o = uci_lookup_option(ctx, s, name);
    return o && o->type == UCI_TYPE_STRING ? o->v.string : UCI_NULL;
}

#undef UCI_NULL

#ifdef __cplusplus
}
#endif

#endif
