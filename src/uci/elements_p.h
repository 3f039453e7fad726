/*
 * Packages, sections, options and changes in memory.
 * Builds on the private part of the context, for the key of the index of names, and on what is known of a file.
 */
#ifndef UCI_ELEMENTS_P_H
#define UCI_ELEMENTS_P_H

#include "file_p.h"

void list_init(struct uci_list* list);
void list_append(struct uci_list* list, struct uci_list* link);
void list_insert_after(struct uci_list* place, struct uci_list* link);
void list_remove(struct uci_list* link);

struct uci_element* element_new(enum uci_type type, const char* name);
void element_list_free(struct uci_list* list);

/* Makes a package that is in no list. */
struct uci_package* package_new(struct uci_context* ctx, const char* name);

/* Removes a package from its list and frees it. */
void package_free(struct uci_package* p);

/* The part of the file of its staged changes that consists of whole lines, as far as that is known. */
struct known_part* package_known_part(struct uci_package* p);

/* Returns the package with this name that is loaded, or null. */
struct uci_package* package_loaded(const struct uci_context* ctx, const char* name);

/* Makes a section at the end of the package. Without a name it is unnamed and gets a generated one; a name must
 * not be taken. */
struct uci_section* section_new(struct uci_package* p, const char* type, const char* name);
void section_free(struct uci_section* s);

/* Returns the section with this name, or null. */
struct uci_section* package_find(const struct uci_package* p, const char* name);

/* Renames a section. The name must not be taken. */
bool section_set_name(struct uci_section* s, const char* name);
bool section_set_type(struct uci_section* s, const char* type);

/* Makes an option at the end of the section: a single value, or an empty list if the value is null. */
struct uci_option* option_new(struct uci_section* s, const char* name, const char* value);
void option_free(struct uci_option* o);

/* Returns the option with this name, or null. */
struct uci_option* section_find(const struct uci_section* s, const char* name);

/* Renames an option. The name must not be taken. */
bool option_set_name(struct uci_option* o, const char* name);

/* Makes the option a single value. */
bool option_set_value(struct uci_option* o, const char* value);

/* Makes the option a list, with its value as the first item. */
bool option_make_list(struct uci_option* o);

/* Appends an item to an option that is a list. */
bool option_append(struct uci_option* o, const char* value);

/* Appends a change to a list of changes. */
bool delta_new(
    struct uci_list* list, enum uci_command cmd, const char* section, const char* option, const char* value);

#endif
