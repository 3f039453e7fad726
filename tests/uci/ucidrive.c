/*
 * ucidrive - runs a script of configuration operations through <uci.h> and prints a transcript of the results;
 * tests/data/uci/README.md describes both.
 *
 * usage: ucidrive CONFDIR SAVEDIR SCRIPT
 *
 * Uses only the public interface of libuci, so that the same source can be linked to any library that offers it,
 * and nothing else beyond C99. In arguments \n \t \r \s \\ stand for newline, tab, carriage return, blank and
 * backslash, \xNN for any byte; \e on its own is the empty string.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uci.h>

enum { MAX_ARGS = 4, MAX_CONTEXTS = 4, MAX_LINE = 1 << 17 };

/* how the arguments of an operation name a place in the configuration */
enum form {
    FIELDS,       /* PKG [SECTION [OPTION [INDEX]]] */
    FIELDS_VALUE, /* PKG [SECTION [OPTION]] VALUE */
    HANDLES,      /* PKG SECTION [OPTION] VALUE, by p and s alone */
    TUPLE         /* one string, as in network.@lan[0].ip=1 */
};

struct op
{
    const char* name;
    void (*run)(void);
    int min, max; /* number of arguments */
    enum form form;
    int (*on_place)(struct uci_context* ctx, struct uci_ptr* ptr);
    int (*on_package)(struct uci_context* ctx, struct uci_package* p);
};

/* the operation that is running, and its arguments */
static const struct op* op;
static char* arg[MAX_ARGS + 1];
static int args;
static const char *conf_dir, *save_dir;
static struct uci_context* contexts[MAX_CONTEXTS];
static int current; /* index of the context in use */
#define CTX (contexts[current])

static const char plain[] = "\n\t\r \\", escaped[] = "ntrs\\";

static void die(const char* what, const char* detail)
{
    fprintf(stderr, "ucidrive: %s: %s\n", what, detail);
    exit(2);
}

/* decode the escapes of one argument in place */
static void unescape(char* s)
{
    char *to = s, hex[3] = {0, 0, 0};
    const char* known;

    for (; *s; s++) {
        if (*s != '\\') {
            *to++ = *s;
            continue;
        }
        if (*++s && (known = strchr(escaped, *s))) {
            *to++ = plain[known - escaped];
        } else if (*s == 'x' && s[1] && s[2]) {
            memcpy(hex, s + 1, 2);
            *to++ = (char)strtol(hex, NULL, 16);
            s += 2;
        } else if (*s != 'e') {
            die("bad escape in script", s);
        }
    }
    *to = 0;
}

static void put_byte(int c)
{
    const char* known = c ? strchr(plain, c) : NULL;

    if (known)
        printf("\\%c", escaped[known - plain]);
    else if (c < 33 || c > 126)
        printf("\\x%02x", c);
    else
        putchar(c);
}

/* print a blank, and a string in the form that unescape() reads */
static void put(const char* s)
{
    putchar(' ');
    if (!s || !*s)
        fputs(s ? "\\e" : "(null)", stdout);
    while (s && *s)
        put_byte((unsigned char)*s++);
}

static void put_code(int rc)
{
    static const char* const names[] = {
        [UCI_OK] = "OK",
        [UCI_ERR_MEM] = "MEM",
        [UCI_ERR_INVAL] = "INVAL",
        [UCI_ERR_NOTFOUND] = "NOTFOUND",
        [UCI_ERR_IO] = "IO",
        [UCI_ERR_PARSE] = "PARSE",
        [UCI_ERR_DUPLICATE] = "DUPLICATE",
        [UCI_ERR_UNKNOWN] = "UNKNOWN",
    };

    fputs(rc >= 0 && rc < UCI_ERR_LAST ? names[rc] : "strange-code", stdout);
}

static const char* type_name(enum uci_type type)
{
    return type == UCI_TYPE_UNSPEC    ? "unspec"
           : type == UCI_TYPE_PACKAGE ? "package"
           : type == UCI_TYPE_SECTION ? "section"
           : type == UCI_TYPE_OPTION  ? "option"
                                      : "strange-type";
}

/* the loaded package of that name, without loading it */
static struct uci_package* loaded(const char* name)
{
    struct uci_element* e;

    uci_foreach_element(&CTX->root, e) if (!strcmp(e->name, name)) return uci_to_package(e);
    fputs("not-loaded", stdout);
    return NULL;
}

static void put_section(struct uci_section* s)
{
    put(s->type);
    put(s->e.name);
    printf(" anonymous=%d", s->anonymous ? 1 : 0);
}

static void put_option(struct uci_option* o)
{
    struct uci_element* e;

    put(o->e.name);
    if (o->type == UCI_TYPE_STRING) {
        fputs(" string", stdout);
        put(o->v.string);
    } else if (o->type == UCI_TYPE_LIST) {
        fputs(" list", stdout);
        uci_foreach_element(&o->v.list, e) put(e->name);
    } else {
        fputs(" strange-type", stdout);
    }
}

/* report an element with a wrong type, neighbour in its list or owner */
static void check(struct uci_element* e, enum uci_type type, int owned)
{
    if (e->type != type || e->list.next->prev != &e->list || e->list.prev->next != &e->list || !owned)
        fputs(" broken-links", stdout);
}

static void op_dump(void)
{
    struct uci_package* p = loaded(arg[0]);
    struct uci_element *se, *oe;

    if (!p)
        return;
    fputs("OK\n    package", stdout);
    put(p->e.name);
    printf(" has_delta=%d", p->has_delta ? 1 : 0);
    check(&p->e, UCI_TYPE_PACKAGE, p->ctx == CTX);
    uci_foreach_element(&p->sections, se)
    {
        struct uci_section* s = uci_to_section(se);

        fputs("\n    section", stdout);
        put_section(s);
        check(se, UCI_TYPE_SECTION, s->package == p);
        uci_foreach_element(&s->options, oe)
        {
            struct uci_option* o = uci_to_option(oe);

            fputs("\n        option", stdout);
            put_option(o);
            check(oe, UCI_TYPE_OPTION, o->section == s);
        }
    }
}

/* fill in ptr from the arguments; tuples and handles are looked up already */
static int get_place(struct uci_ptr* ptr)
{
    int names = op->form == FIELDS ? args : args - 1, rc = UCI_OK;

    memset(ptr, 0, sizeof(*ptr));
    if (op->form == TUPLE)
        return uci_lookup_ptr(CTX, ptr, arg[0], true);
    ptr->package = arg[0];
    ptr->section = names > 1 ? arg[1] : NULL;
    if (op->form == HANDLES) {
        rc = uci_lookup_ptr(CTX, ptr, NULL, true);
        ptr->package = ptr->section = NULL;
        ptr->last = NULL;
        ptr->flags = 0;
    }
    ptr->option = names > 2 ? arg[2] : NULL;
    if (names != args || names > 3)
        ptr->value = arg[args - 1];
    return rc;
}

static void put_found(const struct uci_ptr* ptr)
{
    printf(" found=%s%s%s", ptr->p ? "p" : "", ptr->s ? "s" : "", ptr->o ? "o" : "");
}

static void op_lookup(void)
{
    struct uci_ptr ptr;
    int rc = get_place(&ptr);

    if (op->form == FIELDS)
        rc = uci_lookup_ptr(CTX, &ptr, NULL, true);
    put_code(rc);
    if (rc != UCI_OK)
        return;
    printf(" complete=%d", (ptr.flags & UCI_LOOKUP_COMPLETE) ? 1 : 0);
    put_found(&ptr);
    if (ptr.last) {
        printf(" last=%s", type_name(ptr.last->type));
        if (ptr.last->type == UCI_TYPE_SECTION)
            put_section(uci_to_section(ptr.last));
        else if (ptr.last->type == UCI_TYPE_OPTION)
            put_option(uci_to_option(ptr.last));
        else
            put(ptr.last->name);
    }
    if (op->form == TUPLE) {
        printf(" target=%s names", type_name(ptr.target));
        put(ptr.package);
        put(ptr.section);
        put(ptr.option);
        put(ptr.value);
    }
}

static void op_place(void)
{
    struct uci_ptr ptr;
    int rc = get_place(&ptr);

    if (rc != UCI_OK)
        fputs("lookup-", stdout);
    else
        rc = op->on_place(CTX, &ptr);
    put_code(rc);
    /* what a caller may use after setting something */
    if (!rc && (op->on_place == uci_set || op->on_place == uci_add_list))
        put_found(&ptr);
}

static void op_reorder(void)
{
    struct uci_ptr ptr;
    int rc = get_place(&ptr);

    if (op->form != TUPLE)
        rc = uci_lookup_ptr(CTX, &ptr, NULL, true);
    if (rc == UCI_OK && ptr.s)
        rc = uci_reorder_section(CTX, ptr.s, atoi(arg[args - 1]));
    else
        fputs("lookup-", stdout); /* "lookup-OK": no such section */
    put_code(rc);
}

static void op_load(void)
{
    struct uci_package* p = NULL;
    int rc = uci_load(CTX, arg[0], &p);

    put_code(rc);
    if (rc == UCI_OK)
        put(p ? p->e.name : NULL);
}

static void op_package(void)
{
    struct uci_package* p = loaded(arg[0]);

    if (p)
        put_code(op->on_package(CTX, p));
}

static void op_addsection(void)
{
    struct uci_package* p = loaded(arg[0]);
    struct uci_section* s = NULL;
    int rc;

    if (!p)
        return;
    rc = uci_add_section(CTX, p, arg[1], &s);
    put_code(rc);
    if (rc == UCI_OK)
        put_section(s);
}

static void op_commit(void)
{
    struct uci_package* p = loaded(arg[0]);
    int rc;

    if (!p)
        return;
    rc = uci_commit(CTX, &p, args > 1 && !strcmp(arg[1], "overwrite"));
    put_code(rc);
    /* the returned pointer has to be the package that is loaded now */
    if (rc == UCI_OK && loaded(arg[0]) != p)
        fputs(" stale-pointer", stdout);
}

/* "newcontext" replaces the context; "context N" switches to another one */
static void op_context(void)
{
    int rc = UCI_OK;

    if (args)
        current = abs(atoi(arg[0])) % MAX_CONTEXTS;
    else if (CTX)
        uci_free_context(CTX);
    if (!args || !CTX) {
        if (!(CTX = uci_alloc_context()))
            die("uci_alloc_context", "failed");
        rc = uci_set_confdir(CTX, conf_dir);
        rc = rc ? rc : uci_set_savedir(CTX, save_dir);
    }
    put_code(rc);
}

static void op_directory(void)
{
    put_code((*op->name == 'c' ? uci_set_confdir : uci_set_savedir)(CTX, arg[0]));
}

static void op_write(void)
{
    FILE* f = fopen(arg[0], *op->name == 'a' ? "ab" : "wb");

    fputs(f && fputs(arg[1], f) >= 0 && !fclose(f) ? "OK" : "failed", stdout);
}

static void op_remove(void)
{
    fputs(remove(arg[0]) ? "absent" : "OK", stdout);
}

static void op_show(void)
{
    FILE* f = fopen(arg[0], "rb");
    int byte;

    fputs(f ? "OK " : "absent", stdout);
    while (f && (byte = getc(f)) != EOF)
        put_byte(byte);
    if (f)
        fclose(f);
}

static const struct op ops[] = {
    {.name = "load", op_load, 1, 1},
    {.name = "unload", op_package, 1, 1, .on_package = uci_unload},
    {.name = "save", op_package, 1, 1, .on_package = uci_save},
    {.name = "commit", op_commit, 1, 2},
    {.name = "dump", op_dump, 1, 1},
    {.name = "lookup", op_lookup, 1, 3, FIELDS},
    {.name = "lookupstr", op_lookup, 1, 1, TUPLE},
    {.name = "set", op_place, 2, 4, FIELDS_VALUE, uci_set},
    {.name = "setstr", op_place, 1, 1, TUPLE, uci_set},
    {.name = "sethandle", op_place, 3, 4, HANDLES, uci_set},
    {.name = "addlist", op_place, 4, 4, FIELDS_VALUE, uci_add_list},
    {.name = "addliststr", op_place, 1, 1, TUPLE, uci_add_list},
    {.name = "addlisthandle", op_place, 4, 4, HANDLES, uci_add_list},
    {.name = "dellist", op_place, 4, 4, FIELDS_VALUE, uci_del_list},
    {.name = "delliststr", op_place, 1, 1, TUPLE, uci_del_list},
    {.name = "delete", op_place, 1, 4, FIELDS, uci_delete},
    {.name = "deletestr", op_place, 1, 1, TUPLE, uci_delete},
    {.name = "rename", op_place, 2, 4, FIELDS_VALUE, uci_rename},
    {.name = "renamestr", op_place, 1, 1, TUPLE, uci_rename},
    {.name = "revert", op_place, 1, 3, FIELDS, uci_revert},
    {.name = "revertstr", op_place, 1, 1, TUPLE, uci_revert},
    {.name = "addsection", op_addsection, 2, 2},
    {.name = "reorder", op_reorder, 3, 3, FIELDS_VALUE},
    {.name = "reorderstr", op_reorder, 2, 2, TUPLE},
    {.name = "newcontext", op_context, 0, 0},
    {.name = "context", op_context, 1, 1},
    {.name = "confdir", op_directory, 1, 1},
    {.name = "savedir", op_directory, 1, 1},
    {.name = "write", op_write, 2, 2},
    {.name = "append", op_write, 2, 2},
    {.name = "show", op_show, 1, 1},
    {.name = "remove", op_remove, 1, 1},
};

static void run_line(char* word, int number)
{
    const struct op* end = ops + sizeof(ops) / sizeof(*ops);
    int i;

    for (op = ops; op < end && strcmp(op->name, word); op++)
        ;
    if (op == end)
        die("unknown operation in script", word);
    printf("%d %s", number, word);
    args = 0;
    while (args <= MAX_ARGS && (arg[args] = strtok(NULL, " \t\r\n")))
        printf(" %s", arg[args++]);
    if (args < op->min || args > op->max)
        die("wrong number of arguments in script", word);
    for (i = 0; i < args; i++)
        unescape(arg[i]);
    fputs(" = ", stdout);
    fflush(stdout); /* a crash should show where it happened */
    op->run();
    putchar('\n');
}

int main(int argc, char** argv)
{
    static char line[MAX_LINE] = "newcontext";
    FILE* script = NULL;
    char* word;
    int number = 0;

    if (argc != 4 || !(script = fopen(argv[3], "rb")))
        die("usage", "ucidrive CONFDIR SAVEDIR SCRIPT");
    conf_dir = argv[1];
    save_dir = argv[2];
    run_line(strtok(line, " "), number);
    while (fgets(line, sizeof(line), script)) {
        word = strtok(line, " \t\r\n");
        if (word && *word != '#')
            run_line(word, ++number);
    }
    fclose(script);
    for (current = 0; current < MAX_CONTEXTS; current++)
        if (CTX)
            uci_free_context(CTX);
    return 0;
}
