#include "elements_p.h"

void uci_parse_section(
    struct uci_section* s, const struct uci_parse_option* opts, int n_opts, struct uci_option** tb)
{
    for (int i = 0; i < n_opts; i++) {
        struct uci_option* o = opts[i].name ? section_find(s, opts[i].name) : NULL;
        tb[i] = o && o->type == opts[i].type ? o : NULL;
    }
}

/* A byte that ends each piece keeps "ab", "c" apart from "a", "bc". */
static uint32_t hash_string(uint32_t hash, const char* text)
{
    do
        hash = (hash ^ (unsigned char)*text) * UINT32_C(16777619); /* FNV-1a, 32 bits */
    while (*text++);
    return hash;
}

uint32_t uci_hash_options(struct uci_option** tb, int n_opts)
{
    uint32_t hash = UINT32_C(2166136261);
    struct uci_element* item;

    for (int i = 0; i < n_opts; i++) {
        if (!tb[i])
            continue;
        hash = hash_string(hash, tb[i]->e.name);
        if (tb[i]->type == UCI_TYPE_STRING)
            hash = hash_string(hash, tb[i]->v.string);
        else
            uci_foreach_element(&tb[i]->v.list, item) hash = hash_string(hash, item->name);
    }
    return hash;
}
