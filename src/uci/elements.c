#include "elements_p.h"

#include "contextdata_p.h"

#include <stdlib.h>

/* Lists up to this length are searched linearly. Most sections have ten or fifteen options: building a table would
 * cost more time at loading than it saves later, and more memory than the names of the options. */
enum { WALKED_LENGTH = 16 };

void list_init(struct uci_list* list)
{
    list->next = list->prev = list;
}

void list_insert_after(struct uci_list* place, struct uci_list* link)
{
    link->prev = place;
    link->next = place->next;
    place->next->prev = link;
    place->next = link;
}

void list_append(struct uci_list* list, struct uci_list* link)
{
    list_insert_after(list->prev, link);
}

void list_remove(struct uci_list* link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    list_init(link);
}

/* Finds the elements of a list by their names, of which each is unique: a hash table with linear probing. Short
 * lists have none. */
struct name_index
{
    struct name_slot* slots;
    uint32_t slot_count; /* a power of two, or 0 */
    uint32_t count;
};

struct package
{
    struct uci_package public;
    struct name_index sections;
    struct known_part known_part;
};

/* Name and type, or name and value, are in the same block of memory as the element until they change. */
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

static uint32_t rotate_left(uint32_t value, int bits)
{
    return (value << bits) | (value >> (32 - bits));
}

static void half_sip_round(uint32_t v[4])
{
    v[0] += v[1];
    v[1] = rotate_left(v[1], 5) ^ v[0];
    v[0] = rotate_left(v[0], 16);
    v[2] += v[3];
    v[3] = rotate_left(v[3], 8) ^ v[2];
    v[0] += v[3];
    v[3] = rotate_left(v[3], 7) ^ v[0];
    v[2] += v[1];
    v[1] = rotate_left(v[1], 13) ^ v[2];
    v[2] = rotate_left(v[2], 16);
}

/* HalfSipHash-1-3 (Aumasson and Bernstein, "SipHash: a fast short-input PRF"): no 64-bit arithmetic is needed. */
static uint32_t hash_name(const uint32_t key[2], const char* name)
{
    uint32_t v[4] = {key[0], key[1], UINT32_C(0x6c796765) ^ key[0], UINT32_C(0x74656462) ^ key[1]};
    size_t size = strlen(name);
    uint32_t word = 0;
    size_t i;

    for (i = 0; i + 4 <= size; i += 4) {
        memcpy(&word, name + i, 4);
        v[3] ^= word;
        half_sip_round(v);
        v[0] ^= word;
    }
    word = (uint32_t)size << 24;
    for (size_t rest = i; rest < size; rest++)
        word |= (uint32_t)(unsigned char)name[rest] << (8 * (rest - i));
    v[3] ^= word;
    half_sip_round(v);
    v[0] ^= word;
    v[2] ^= 0xff;
    half_sip_round(v);
    half_sip_round(v);
    half_sip_round(v);
    return v[1] ^ v[3];
}

/* ---- the index ---- */

struct name_slot
{
    struct uci_element* element; /* null if the slot is free */
    uint32_t hash;
};

static void index_insert(struct name_index* index, struct uci_element* e, uint32_t hash)
{
    uint32_t mask = index->slot_count - 1;
    uint32_t i = hash & mask;

    while (index->slots[i].element)
        i = (i + 1) & mask;
    index->slots[i].element = e;
    index->slots[i].hash = hash;
}

static void index_move_slots(const struct name_index* from, struct name_index* to)
{
    for (uint32_t i = 0; i < from->slot_count; i++)
        if (from->slots[i].element)
            index_insert(to, from->slots[i].element, from->slots[i].hash);
}

/* Makes more slots. If memory runs out, the index keeps those it has, and is dropped when they are full. */
static void index_grow(struct name_index* index, const uint32_t key[2], struct uci_list* list)
{
    struct name_index larger = {NULL, 32, index->count};
    struct uci_element* e;

    while (larger.slot_count < 2 * index->count)
        larger.slot_count *= 2;
    larger.slots = calloc(larger.slot_count, sizeof(*larger.slots));
    if (!larger.slots && index->count < index->slot_count)
        return;
    if (larger.slots && index->slots)
        index_move_slots(index, &larger);
    else if (larger.slots)
        uci_foreach_element(list, e) index_insert(&larger, e, hash_name(key, e->name));
    else
        larger.slot_count = 0;
    free(index->slots);
    *index = larger;
}

/* Adds an element that is in the list already. */
static void
index_add(struct name_index* index, const uint32_t key[2], struct uci_list* list, struct uci_element* e)
{
    index->count++;
    if (index->slots)
        index_insert(index, e, hash_name(key, e->name));
    if (index->count > (index->slots ? index->slot_count / 2 : (uint32_t)WALKED_LENGTH))
        index_grow(index, key, list);
}

/* Frees a slot and moves the elements up that linear probing has put after it. */
static void index_free_slot(struct name_index* index, uint32_t free_slot)
{
    uint32_t mask = index->slot_count - 1;

    for (uint32_t i = (free_slot + 1) & mask; index->slots[i].element; i = (i + 1) & mask) {
        uint32_t distance_of_home = (i - index->slots[i].hash) & mask;
        if (distance_of_home < ((i - free_slot) & mask))
            continue;
        index->slots[free_slot] = index->slots[i];
        free_slot = i;
    }
    index->slots[free_slot].element = NULL;
}

static void index_remove(struct name_index* index, const uint32_t key[2], struct uci_element* e)
{
    index->count--;
    if (!index->slots)
        return;
    uint32_t mask = index->slot_count - 1;
    uint32_t i = hash_name(key, e->name) & mask;
    while (index->slots[i].element != e)
        i = (i + 1) & mask;
    index_free_slot(index, i);
}

static struct uci_element* list_find(const struct uci_list* list, const char* name)
{
    struct uci_element* e;

    uci_foreach_element(list, e) if (strcmp(e->name, name) == 0) return e;
    return NULL;
}

static struct uci_element*
index_find(const struct name_index* index, const uint32_t key[2], const struct uci_list* list, const char* name)
{
    if (!index->slots)
        return list_find(list, name);
    uint32_t hash = hash_name(key, name);
    uint32_t mask = index->slot_count - 1;
    const struct name_slot* slot;
    for (uint32_t i = hash & mask; (slot = &index->slots[i])->element; i = (i + 1) & mask)
        if (slot->hash == hash && strcmp(slot->element->name, name) == 0)
            return slot->element;
    return NULL;
}

static const uint32_t* key_of(const struct uci_package* p)
{
    return ((const struct context*)p->ctx)->hash_key;
}

/* ---- strings in the block of their element, or in a block of their own ---- */

static bool is_within(const char* string, const char* text, uint32_t text_size)
{
    return (uintptr_t)string - (uintptr_t)text < text_size;
}

static bool set_string(char** string, const char* value, const char* text, uint32_t text_size)
{
    size_t size = strlen(value) + 1;
    char* copy = malloc(size);

    if (!copy)
        return false;
    memcpy(copy, value, size);
    if (!is_within(*string, text, text_size))
        free(*string);
    *string = copy;
    return true;
}

static void free_string(char* string, const char* text, uint32_t text_size)
{
    if (string && !is_within(string, text, text_size))
        free(string);
}

/* ---- plain elements ---- */

struct uci_element* element_new(enum uci_type type, const char* name)
{
    size_t size = strlen(name) + 1;
    struct uci_element* e = malloc(sizeof(*e) + size);

    if (!e)
        return NULL;
    list_init(&e->list);
    e->type = type;
    e->name = uci_dataptr(e);
    memcpy(e->name, name, size);
    return e;
}

void element_list_free(struct uci_list* list)
{
    struct uci_element *e, *next;

    uci_foreach_element_safe(list, next, e)
    {
        list_remove(&e->list);
        free(e);
    }
}

bool delta_new(
    struct uci_list* list, enum uci_command cmd, const char* section, const char* option, const char* value)
{
    size_t section_size = strlen(section) + 1;
    size_t option_size = option ? strlen(option) + 1 : 0;
    size_t value_size = value ? strlen(value) + 1 : 0;
    struct uci_delta* delta = malloc(sizeof(*delta) + section_size + option_size + value_size);

    if (!delta)
        return false;
    char* text = uci_dataptr(delta);
    delta->e.type = UCI_TYPE_DELTA;
    delta->cmd = cmd;
    delta->section = memcpy(text, section, section_size);
    delta->e.name = option ? memcpy(text + section_size, option, option_size) : NULL;
    delta->value = value ? memcpy(text + section_size + option_size, value, value_size) : NULL;
    list_append(list, &delta->e.list);
    return true;
}

/* ---- packages ---- */

struct uci_package* package_new(struct uci_context* ctx, const char* name)
{
    struct package* package = calloc(1, sizeof(*package));

    if (!package)
        return NULL;
    struct uci_package* p = &package->public;
    p->e.name = strdup(name);
    if (!p->e.name) {
        free(package);
        return NULL;
    }
    list_init(&p->e.list);
    p->e.type = UCI_TYPE_PACKAGE;
    p->ctx = ctx;
    p->backend = ctx->backend;
    list_init(&p->sections);
    list_init(&p->delta);
    list_init(&p->saved_delta);
    return p;
}

void package_free(struct uci_package* p)
{
    struct uci_element *e, *next;

    if (!p)
        return;
    list_remove(&p->e.list);
    /* The index is no longer needed; removing each section from it would only cost time. */
    struct name_index* index = &((struct package*)p)->sections;
    free(index->slots);
    index->slots = NULL;
    uci_foreach_element_safe(&p->sections, next, e) section_free(uci_to_section(e));
    element_list_free(&p->delta);
    element_list_free(&p->saved_delta);
    free(p->path);
    free(p->e.name);
    free(p);
}

struct known_part* package_known_part(struct uci_package* p)
{
    return &((struct package*)p)->known_part;
}

struct uci_package* package_loaded(const struct uci_context* ctx, const char* name)
{
    struct uci_element* e = list_find(&ctx->root, name);

    return e ? uci_to_package(e) : NULL;
}

struct uci_section* package_find(const struct uci_package* p, const char* name)
{
    struct uci_element* e = index_find(&((const struct package*)p)->sections, key_of(p), &p->sections, name);

    return e ? uci_to_section(e) : NULL;
}

/* ---- sections ---- */

static void section_index(struct uci_section* s)
{
    struct uci_package* p = s->package;

    index_add(&((struct package*)p)->sections, key_of(p), &p->sections, &s->e);
}

static void section_unindex(struct uci_section* s)
{
    index_remove(&((struct package*)s->package)->sections, key_of(s->package), &s->e);
}

/* The part of a generated name that depends on the type: Bernstein's hash of signed bytes. */
static unsigned type_hash(const char* type)
{
    uint32_t hash = 5381;

    for (; *type; type++)
        hash = hash * 33 + (uint32_t)(int32_t)(signed char)*type;
    return (hash & 0x7fffffff) % 65536;
}

/* A section may have the name that is due: an exported package can contain generated names. The next free one is
 * used then. */
static void generate_name(const struct uci_package* p, const char* type, char name[32])
{
    unsigned number = (unsigned)p->n_section;

    do
        snprintf(name, 32, "cfg%02x%04x", ++number, type_hash(type));
    while (package_find(p, name));
}

struct uci_section* section_new(struct uci_package* p, const char* type, const char* name)
{
    char generated_name[32];
    bool anonymous = !name;

    if (anonymous) {
        generate_name(p, type, generated_name);
        name = generated_name;
    }
    size_t name_size = strlen(name) + 1;
    size_t type_size = strlen(type) + 1;
    struct section* section = malloc(sizeof(*section) + name_size + type_size);
    if (!section)
        return NULL;
    memset(section, 0, sizeof(*section));
    section->text_size = (uint32_t)(name_size + type_size);
    struct uci_section* s = &section->public;
    s->e.type = UCI_TYPE_SECTION;
    s->e.name = memcpy(section->text, name, name_size);
    s->type = memcpy(section->text + name_size, type, type_size);
    s->anonymous = anonymous;
    s->package = p;
    list_init(&s->options);
    list_append(&p->sections, &s->e.list);
    p->n_section++;
    section_index(s);
    return s;
}

void section_free(struct uci_section* s)
{
    struct section* section = (struct section*)s;
    struct uci_element *e, *next;

    section_unindex(s);
    list_remove(&s->e.list);
    free(section->options.slots);
    section->options.slots = NULL;
    uci_foreach_element_safe(&s->options, next, e) option_free(uci_to_option(e));
    free_string(s->e.name, section->text, section->text_size);
    free_string(s->type, section->text, section->text_size);
    free(section);
}

struct uci_option* section_find(const struct uci_section* s, const char* name)
{
    struct uci_element* e =
        index_find(&((const struct section*)s)->options, key_of(s->package), &s->options, name);

    return e ? uci_to_option(e) : NULL;
}

bool section_set_name(struct uci_section* s, const char* name)
{
    struct section* section = (struct section*)s;

    section_unindex(s);
    bool done = set_string(&s->e.name, name, section->text, section->text_size);
    section_index(s);
    return done;
}

bool section_set_type(struct uci_section* s, const char* type)
{
    struct section* section = (struct section*)s;

    return set_string(&s->type, type, section->text, section->text_size);
}

/* ---- options ---- */

static void option_index(struct uci_option* o)
{
    struct uci_section* s = o->section;

    index_add(&((struct section*)s)->options, key_of(s->package), &s->options, &o->e);
}

static void option_unindex(struct uci_option* o)
{
    index_remove(&((struct section*)o->section)->options, key_of(o->section->package), &o->e);
}

struct uci_option* option_new(struct uci_section* s, const char* name, const char* value)
{
    size_t name_size = strlen(name) + 1;
    size_t value_size = value ? strlen(value) + 1 : 0;
    struct option* option = malloc(sizeof(*option) + name_size + value_size);

    if (!option)
        return NULL;
    memset(option, 0, sizeof(*option));
    option->text_size = (uint32_t)(name_size + value_size);
    struct uci_option* o = &option->public;
    o->e.type = UCI_TYPE_OPTION;
    o->e.name = memcpy(option->text, name, name_size);
    o->section = s;
    if (value) {
        o->type = UCI_TYPE_STRING;
        o->v.string = memcpy(option->text + name_size, value, value_size);
    } else {
        o->type = UCI_TYPE_LIST;
        list_init(&o->v.list);
    }
    list_append(&s->options, &o->e.list);
    option_index(o);
    return o;
}

static void free_value(struct uci_option* o)
{
    struct option* option = (struct option*)o;

    if (o->type == UCI_TYPE_LIST)
        element_list_free(&o->v.list);
    else
        free_string(o->v.string, option->text, option->text_size);
}

void option_free(struct uci_option* o)
{
    struct option* option = (struct option*)o;

    option_unindex(o);
    list_remove(&o->e.list);
    free_value(o);
    free_string(o->e.name, option->text, option->text_size);
    free(option);
}

bool option_set_name(struct uci_option* o, const char* name)
{
    struct option* option = (struct option*)o;

    option_unindex(o);
    bool done = set_string(&o->e.name, name, option->text, option->text_size);
    option_index(o);
    return done;
}

bool option_set_value(struct uci_option* o, const char* value)
{
    char* copy = strdup(value);

    if (!copy)
        return false;
    free_value(o);
    o->type = UCI_TYPE_STRING;
    o->v.string = copy;
    return true;
}

bool option_make_list(struct uci_option* o)
{
    if (o->type == UCI_TYPE_LIST)
        return true;
    struct uci_element* item = element_new(UCI_TYPE_ITEM, o->v.string);
    if (!item)
        return false;
    free_value(o);
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    list_append(&o->v.list, &item->list);
    return true;
}

bool option_append(struct uci_option* o, const char* value)
{
    struct uci_element* item = element_new(UCI_TYPE_ITEM, value);

    if (!item)
        return false;
    list_append(&o->v.list, &item->list);
    return true;
}
