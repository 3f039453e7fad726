/* nuci - show and change the configuration. See print_usage(). */
#include <uci.h>

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <unistd.h>

enum { EXIT_FAILED = 1, EXIT_USAGE = 255 };

static const char program[] = "nuci";

struct options
{
    bool quiet;
    bool names;            /* show unnamed sections by their generated names, not as @type[index] */
    const char* separator; /* between the items of a list, null for a blank */
    bool merge;            /* import adds to the package */
    bool keep_staged;      /* commit writes nothing: what is staged is state, not configuration */
    const char* input;     /* file to import from, or of the commands of a batch; null for standard input */
    FILE* batch;           /* the commands of the batch that is running, or null */
};

/* A command that takes many arguments runs once for each of them. If all it does is change the element that its
 * argument names, it is the function of the store that does so. */
struct command
{
    const char* name;
    int min, max;
    bool all_packages; /* without arguments it runs for each package */
    int (*run)(struct uci_context* ctx, const struct options* options, int argc, char** argv);
    int (*change)(struct uci_context* ctx, struct uci_ptr* ptr);
};

static void print_usage(FILE* stream)
{
    fputs(
        "Usage: nuci [<options>] <command> [<arguments>]\n"
        "\n"
        "Commands:\n"
        "    show       [<config>[.<section>[.<option>]]]\n"
        "    get        <config>.<section>[.<option>]\n"
        "    set        <config>.<section>[.<option>]=<value>\n"
        "    add        <config> <section-type>\n"
        "    add_list   <config>.<section>.<option>=<string>\n"
        "    del_list   <config>.<section>.<option>=<string>\n"
        "    delete     <config>.<section>[.<option>[=<index>]]\n"
        "    rename     <config>.<section>[.<option>]=<name>\n"
        "    reorder    <config>.<section>=<position>\n"
        "    changes    [<config>]\n"
        "    commit     [<config>]\n"
        "    revert     <config>[.<section>[.<option>]]\n"
        "    export     [<config>]\n"
        "    import     [<config>]\n"
        "    batch\n"
        "\n"
        "Options:\n"
        "    -c <path>  the directory of the packages (default: " UCI_CONFDIR ")\n"
        "    -C <path>  the directory of packages that take precedence (default: " UCI_CONF2DIR ")\n"
        "    -d <text>  the text that get and show print between the items of lists\n"
        "    -f <file>  the file to import from, or of the commands of a batch (default: standard input)\n"
        "    -m         merge what is imported into the package, if there is one\n"
        "    -n         export the generated names of unnamed sections\n"
        "    -N         do not export the generated names of unnamed sections (default)\n"
        "    -p <path>  read staged changes from this directory as well\n"
        "    -P <path>  read staged changes from this directory as well, stage changes there, and commit nothing\n"
        "    -t <path>  stage changes in this directory\n"
        "    -q         print no error messages\n"
        "    -s         strict reading (default)\n"
        "    -S         accepted for compatibility; reading stays strict\n"
        "    -X         show unnamed sections by their generated names\n"
        "    -h, --help\n"
        "               print this text\n"
        "    --version  print the version\n",
        stream);
}

static int report(struct uci_context* ctx, const struct options* options)
{
    if (!options->quiet)
        uci_perror(ctx, program);
    return EXIT_FAILED;
}

/* Reports a failure that no function of the store has set in the context. */
static int report_code(struct uci_context* ctx, const struct options* options, int code)
{
    ctx->err = code;
    return report(ctx, options);
}

/* ---- printing ---- */

static void print_quoted(const char* text)
{
    putchar('\'');
    for (; *text; text++) {
        if (*text == '\'')
            fputs("'\\''", stdout);
        else
            putchar(*text);
    }
    putchar('\'');
}

static bool needs_quotes(const char* text)
{
    return strpbrk(text, " \t\r\n") != NULL;
}

/* Prints the items of a list on one line. */
static void print_items(const struct options* options, const struct uci_list* list, bool quoted)
{
    struct uci_element* e;
    const char* separator = "";

    uci_foreach_element(list, e)
    {
        fputs(separator, stdout);
        separator = options->separator ? options->separator : " ";
        if (quoted || needs_quotes(e->name))
            print_quoted(e->name);
        else
            fputs(e->name, stdout);
    }
}

/* Prints the name of a section, or its type and index if it is unnamed. */
static void print_section_name(const struct options* options, const struct uci_section* s, unsigned index)
{
    if (s->anonymous && !options->names)
        printf("%s.@%s[%u]", s->package->e.name, s->type, index);
    else
        printf("%s.%s", s->package->e.name, s->e.name);
}

static void show_option(const struct options* options, const struct uci_option* o, unsigned section_index)
{
    print_section_name(options, o->section, section_index);
    printf(".%s=", o->e.name);
    if (o->type == UCI_TYPE_LIST)
        print_items(options, &o->v.list, true);
    else
        print_quoted(o->v.string);
    putchar('\n');
}

static void show_section(const struct options* options, const struct uci_section* s, unsigned index)
{
    struct uci_element* e;

    print_section_name(options, s, index);
    printf("=%s\n", s->type);
    uci_foreach_element(&s->options, e) show_option(options, uci_to_option(e), index);
}

/* ---- the indexes of sections among those of their type ---- */

struct type_counter
{
    const char* type;
    unsigned count;
};

/* All sections are counted in one pass: counting again for each would take quadratic time. */
struct type_counters
{
    struct type_counter* slot;
    size_t size; /* a power of two */
    size_t used;
};

static size_t find_slot(const struct type_counters* counters, const char* type)
{
    size_t hash = 5381;

    for (const char* c = type; *c; c++)
        hash = hash * 33 + (unsigned char)*c;
    size_t slot = hash & (counters->size - 1);
    while (counters->slot[slot].type && strcmp(counters->slot[slot].type, type) != 0)
        slot = (slot + 1) & (counters->size - 1);
    return slot;
}

static bool grow(struct type_counters* counters)
{
    struct type_counters larger = {NULL, counters->size ? counters->size * 2 : 16, counters->used};

    larger.slot = calloc(larger.size, sizeof(*larger.slot));
    if (!larger.slot)
        return false;
    for (size_t i = 0; i < counters->size; i++)
        if (counters->slot[i].type)
            larger.slot[find_slot(&larger, counters->slot[i].type)] = counters->slot[i];
    free(counters->slot);
    *counters = larger;
    return true;
}

/* Returns the index of the next section of a type, 0 when out of memory. */
static unsigned next_index(struct type_counters* counters, const char* type)
{
    if (counters->used * 2 >= counters->size && !grow(counters))
        return 0;
    struct type_counter* counter = &counters->slot[find_slot(counters, type)];
    if (!counter->type) {
        counter->type = type;
        counters->used++;
    }
    return counter->count++;
}

static unsigned index_of(const struct uci_section* s)
{
    struct uci_element* e;
    unsigned index = 0;

    uci_foreach_element(&s->package->sections, e)
    {
        const struct uci_section* other = uci_to_section(e);
        if (other == s)
            break;
        index += strcmp(other->type, s->type) == 0;
    }
    return index;
}

static void show_package(const struct options* options, const struct uci_package* p)
{
    struct type_counters counters = {NULL, 0, 0};
    struct uci_element* e;

    uci_foreach_element(&p->sections, e)
    {
        const struct uci_section* s = uci_to_section(e);
        show_section(options, s, next_index(&counters, s->type));
    }
    free(counters.slot);
}

/* Whether a file name can name a package: "a.b" is a section of a, "a=b" has a value, and a path is not a name. */
static bool is_package_name(const char* name)
{
    return uci_validate_text(name) && !strpbrk(name, "./=");
}

/* ---- commands that read ---- */

static int look_up(struct uci_context* ctx, const struct options* options, struct uci_ptr* ptr, char* text)
{
    return uci_lookup_ptr(ctx, ptr, text, true) == UCI_OK ? 0 : report(ctx, options);
}

static int
look_up_complete(struct uci_context* ctx, const struct options* options, struct uci_ptr* ptr, char* text)
{
    if (look_up(ctx, options, ptr, text))
        return EXIT_FAILED;
    if (ptr->value)
        return report_code(ctx, options, UCI_ERR_INVAL);
    return ptr->flags & UCI_LOOKUP_COMPLETE ? 0 : report_code(ctx, options, UCI_ERR_NOTFOUND);
}

static int run_show(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;

    (void)argc;
    if (look_up_complete(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (ptr.o)
        show_option(options, ptr.o, index_of(ptr.s));
    else if (ptr.s)
        show_section(options, ptr.s, index_of(ptr.s));
    else
        show_package(options, ptr.p);
    return 0;
}

static int run_get(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;

    (void)argc;
    if (look_up_complete(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (!ptr.s)
        return report_code(ctx, options, UCI_ERR_INVAL);
    if (!ptr.o)
        fputs(ptr.s->type, stdout);
    else if (ptr.o->type == UCI_TYPE_LIST)
        print_items(options, &ptr.o->v.list, false);
    else
        fputs(ptr.o->v.string, stdout);
    putchar('\n');
    return 0;
}

static int run_export(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;

    (void)argc;
    if (look_up_complete(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (ptr.target != UCI_TYPE_PACKAGE)
        return report_code(ctx, options, UCI_ERR_INVAL);
    return uci_export(ctx, stdout, ptr.p, true) == UCI_OK ? 0 : report(ctx, options);
}

static void print_change(const struct uci_package* p, const struct uci_delta* delta)
{
    static const char* const marks[] = {
        [UCI_CMD_ADD] = "",      [UCI_CMD_REMOVE] = "-",  [UCI_CMD_CHANGE] = "",   [UCI_CMD_RENAME] = "@",
        [UCI_CMD_REORDER] = "^", [UCI_CMD_LIST_ADD] = "", [UCI_CMD_LIST_DEL] = "",
    };
    const char* equals = delta->cmd == UCI_CMD_LIST_ADD ? "+=" : delta->cmd == UCI_CMD_LIST_DEL ? "-=" : "=";

    printf("%s%s.%s", marks[delta->cmd], p->e.name, delta->section);
    if (delta->e.name)
        printf(".%s", delta->e.name);
    /* A removal has no value, except for an item of a list: its index. */
    if (delta->value) {
        fputs(equals, stdout);
        print_quoted(delta->value);
    }
    putchar('\n');
}

static int run_changes(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;
    struct uci_element* e;

    (void)argc;
    if (look_up_complete(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    uci_foreach_element(&ptr.p->saved_delta, e) print_change(ptr.p, uci_to_delta(e));
    uci_foreach_element(&ptr.p->delta, e) print_change(ptr.p, uci_to_delta(e));
    return 0;
}

/* ---- commands that change ---- */

static int save(struct uci_context* ctx, const struct options* options, struct uci_package* p)
{
    return uci_save(ctx, p) == UCI_OK ? 0 : report(ctx, options);
}

static int change(
    struct uci_context* ctx, const struct options* options, char* text,
    int (*function)(struct uci_context* ctx, struct uci_ptr* ptr))
{
    struct uci_ptr ptr;

    if (look_up(ctx, options, &ptr, text))
        return EXIT_FAILED;
    if (function(ctx, &ptr) != UCI_OK)
        return report(ctx, options);
    return save(ctx, options, ptr.p);
}

static int run_reorder(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;
    char* end;

    (void)argc;
    if (look_up(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (!ptr.s || ptr.option)
        return report_code(ctx, options, ptr.section && !ptr.option ? UCI_ERR_NOTFOUND : UCI_ERR_INVAL);
    long position = ptr.value ? strtol(ptr.value, &end, 10) : 0;
    if (!ptr.value || end == ptr.value || *end || position < -1000000000 || position > 1000000000)
        return report_code(ctx, options, UCI_ERR_INVAL);
    if (uci_reorder_section(ctx, ptr.s, (int)position) != UCI_OK)
        return report(ctx, options);
    return save(ctx, options, ptr.p);
}

static int run_add(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;
    struct uci_section* s;

    (void)argc;
    if (!uci_validate_text(argv[1]))
        return report_code(ctx, options, UCI_ERR_INVAL);
    if (look_up(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (ptr.target != UCI_TYPE_PACKAGE)
        return report_code(ctx, options, UCI_ERR_INVAL);
    if (uci_add_section(ctx, ptr.p, argv[1], &s) != UCI_OK)
        return report(ctx, options);
    if (save(ctx, options, ptr.p))
        return EXIT_FAILED;
    printf("%s\n", s->e.name);
    return 0;
}

static int run_commit(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;

    (void)argc;
    if (look_up_complete(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    if (ptr.target != UCI_TYPE_PACKAGE)
        return report_code(ctx, options, UCI_ERR_INVAL);
    if (options->keep_staged)
        return 0;
    return uci_commit(ctx, &ptr.p, false) == UCI_OK ? 0 : report(ctx, options);
}

static int run_revert(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct uci_ptr ptr;

    (void)argc;
    if (look_up(ctx, options, &ptr, argv[0]))
        return EXIT_FAILED;
    return uci_revert(ctx, &ptr) == UCI_OK ? 0 : report(ctx, options);
}

/* ---- import ---- */

/* Applies an imported section as changes of the existing package. */
static int merge_section(struct uci_context* ctx, struct uci_package* target, const struct uci_section* s)
{
    struct uci_element *e, *item;
    struct uci_ptr ptr;
    struct uci_section* own = NULL;
    int result;

    memset(&ptr, 0, sizeof(ptr));
    ptr.p = target;
    if (s->anonymous) {
        result = uci_add_section(ctx, target, s->type, &own);
    } else {
        ptr.section = s->e.name;
        ptr.value = s->type;
        result = uci_set(ctx, &ptr);
        own = ptr.s;
    }
    uci_foreach_element(&s->options, e)
    {
        const struct uci_option* o = uci_to_option(e);
        memset(&ptr, 0, sizeof(ptr));
        ptr.s = own;
        ptr.option = e->name;
        if (result == UCI_OK && o->type == UCI_TYPE_STRING) {
            ptr.value = o->v.string;
            result = uci_set(ctx, &ptr);
            continue;
        }
        if (o->type == UCI_TYPE_STRING)
            continue;
        uci_foreach_element(&o->v.list, item)
        {
            ptr.value = item->name;
            if (result == UCI_OK)
                result = uci_add_list(ctx, &ptr);
        }
    }
    return result;
}

static void unload_all(struct uci_context* ctx)
{
    while (!uci_list_empty(&ctx->root))
        uci_unload(ctx, uci_to_package(list_to_element(ctx->root.next)));
}

/* In a batch, packages may be loaded. They must be neither in the way nor written. */
static int replace(struct uci_context* ctx, const struct options* options, FILE* stream, const char* name)
{
    struct uci_package* p = NULL;
    struct uci_element *e, *next;
    int result = 0;

    unload_all(ctx);
    if (uci_import(ctx, stream, name, &p, name != NULL) != UCI_OK)
        return report(ctx, options);
    uci_foreach_element_safe(&ctx->root, next, e)
    {
        struct uci_package* imported = uci_to_package(e);
        if (!result && uci_commit(ctx, &imported, true) != UCI_OK)
            result = report(ctx, options);
    }
    return result;
}

/* Reads the text in a context of its own, because the package is loaded in this one. */
static int
merge_into(struct uci_context* ctx, const struct options* options, FILE* stream, struct uci_package* target)
{
    struct uci_context* other = uci_alloc_context();
    struct uci_package* imported = NULL;
    struct uci_element* e;
    int result = 0;

    if (!other)
        result = report_code(ctx, options, UCI_ERR_MEM);
    else if (uci_import(other, stream, target->e.name, &imported, true) != UCI_OK)
        result = report(other, options);
    if (!result) {
        int code = UCI_OK;
        uci_foreach_element(&imported->sections, e)
        {
            if (code == UCI_OK)
                code = merge_section(ctx, target, uci_to_section(e));
        }
        result = code == UCI_OK ? save(ctx, options, target) : report_code(ctx, options, code);
    }
    uci_free_context(other);
    return result;
}

/* Merging into a package that does not exist creates it. */
static int merge(struct uci_context* ctx, const struct options* options, FILE* stream, char* name)
{
    struct uci_ptr ptr;
    int result = uci_lookup_ptr(ctx, &ptr, name, true);

    if (result == UCI_ERR_NOTFOUND)
        return replace(ctx, options, stream, name);
    return result == UCI_OK ? merge_into(ctx, options, stream, ptr.p) : report(ctx, options);
}

/* ---- input ---- */

/* Returns what to read from: the rest of the batch that is running, the file that was given, or standard input. */
static FILE* open_input(const struct options* options)
{
    if (options->batch)
        return options->batch;
    FILE* stream = options->input ? fopen(options->input, "re") : stdin;
    if (!stream && !options->quiet)
        fprintf(stderr, "%s: %s: %s\n", program, options->input, strerror(errno));
    return stream;
}

static void close_input(const struct options* options, FILE* stream)
{
    if (stream != stdin && stream != options->batch)
        fclose(stream);
}

static int run_import(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    char* name = argc ? argv[0] : NULL;

    if ((name && !is_package_name(name)) || (options->merge && !name))
        return report_code(ctx, options, UCI_ERR_INVAL);
    FILE* stream = open_input(options);
    if (!stream)
        return EXIT_FAILED;
    int result = options->merge ? merge(ctx, options, stream, name) : replace(ctx, options, stream, name);
    close_input(options, stream);
    return result;
}

static int run_batch(struct uci_context* ctx, const struct options* options, int argc, char** argv);

/* ---- the command line ---- */

static const struct command commands[] = {
    {"show", 0, 1, true, run_show, NULL},
    {"get", 1, 1, false, run_get, NULL},
    {"set", 1, 1000000, false, NULL, uci_set},
    {"add", 2, 2, false, run_add, NULL},
    {"add_list", 1, 1000000, false, NULL, uci_add_list},
    {"del_list", 1, 1000000, false, NULL, uci_del_list},
    {"delete", 1, 1000000, false, NULL, uci_delete},
    {"rename", 1, 1000000, false, NULL, uci_rename},
    {"reorder", 1, 1000000, false, run_reorder, NULL},
    {"changes", 0, 1, true, run_changes, NULL},
    {"commit", 0, 1, true, run_commit, NULL},
    {"revert", 1, 1000000, false, run_revert, NULL},
    {"export", 0, 1, true, run_export, NULL},
    {"import", 0, 1, false, run_import, NULL},
    {"batch", 0, 0, false, run_batch, NULL},
};

static const struct command* find_command(const char* name)
{
    for (size_t i = 0; i < sizeof(commands) / sizeof(commands[0]); i++)
        if (strcmp(commands[i].name, name) == 0)
            return &commands[i];
    return NULL;
}

/* Runs a command for each package, continuing after one that cannot be read. Files whose names cannot be package
 * names, such as backups of editors, are skipped. */
static int run_for_all(struct uci_context* ctx, const struct options* options, const struct command* command)
{
    char** list;
    int result = 0;

    if (uci_list_configs(ctx, &list) != UCI_OK)
        return report(ctx, options);
    for (char** name = list; *name; name++)
        if (is_package_name(*name) && command->run(ctx, options, 1, name))
            result = EXIT_FAILED;
    free(list);
    return result;
}

static int
run(struct uci_context* ctx, const struct options* options, const struct command* command, int argc, char** argv)
{
    if (argc == 0 && command->all_packages)
        return run_for_all(ctx, options, command);
    if (command->max <= 2)
        return command->run(ctx, options, argc, argv);
    int result = 0;
    for (int i = 0; i < argc && !result; i++) {
        if (command->change)
            result = change(ctx, options, argv[i], command->change);
        else
            result = command->run(ctx, options, 1, argv + i);
    }
    return result;
}

/* ---- batches ---- */

struct words
{
    char** word;
    size_t count;
    size_t capacity;
};

static bool add_word(struct words* words, const char* word)
{
    if (words->count == words->capacity) {
        size_t capacity = words->capacity ? 2 * words->capacity : 16;
        char** larger = realloc(words->word, capacity * sizeof(*larger));
        if (!larger)
            return false;
        words->word = larger;
        words->capacity = capacity;
    }
    words->word[words->count] = strdup(word);
    return words->word[words->count] && ++words->count;
}

static void free_words(struct words* words)
{
    for (size_t i = 0; i < words->count; i++)
        free(words->word[i]);
    free(words->word);
    memset(words, 0, sizeof(*words));
}

/* Reads the words of the next line, which a quote continues on further lines. UCI_ERR_NOTFOUND: there is none. */
static int read_words(struct uci_context* ctx, FILE* stream, struct words* words)
{
    char* rest = NULL;
    char* word = NULL;

    do {
        int result = uci_parse_argument(ctx, stream, &rest, &word);
        if (result != UCI_OK)
            return result;
        if (!word)
            return UCI_ERR_NOTFOUND;
        if (*word && !add_word(words, word)) /* comments are empty words */
            return UCI_ERR_MEM;
    } while (*rest);
    return UCI_OK;
}

static int run_words(struct uci_context* ctx, const struct options* options, const struct words* words)
{
    const struct command* command = find_command(words->word[0]);
    int argc = (int)words->count - 1;

    if (command && command->run != run_batch && argc >= command->min && argc <= command->max)
        return run(ctx, options, command, argc, words->word + 1);
    if (!options->quiet)
        fprintf(stderr, "%s: Unknown command: %s\n", program, words->word[0]);
    return EXIT_FAILED;
}

/* Packages stay loaded from one command to the next, unless it fails: what it has changed must not be saved later.
 */
static bool run_next(struct uci_context* ctx, const struct options* options)
{
    struct words words = {NULL, 0, 0};
    int result = read_words(ctx, options->batch, &words);
    bool is_last = result == UCI_ERR_NOTFOUND || result == UCI_ERR_MEM ||
                   (words.count > 0 && strcmp(words.word[0], "exit") == 0);

    if (result != UCI_OK && result != UCI_ERR_NOTFOUND)
        report_code(ctx, options, result);
    else if (!is_last && words.count > 0 && run_words(ctx, options, &words) != 0)
        unload_all(ctx);
    fflush(stdout);
    free_words(&words);
    return !is_last;
}

/* As with libuci's command, a command that fails is reported, and does not make the batch fail. */
static int run_batch(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    struct options inner = *options;

    (void)argc;
    (void)argv;
    inner.batch = open_input(options);
    if (!inner.batch)
        return EXIT_FAILED;
    while (run_next(ctx, &inner)) {
    }
    int result = ferror(inner.batch) ? report_code(ctx, options, UCI_ERR_IO) : 0;
    close_input(options, inner.batch);
    return result;
}

/* ---- options ---- */

static const struct option long_options[] = {
    {"help", no_argument, NULL, 'h'},
    {"version", no_argument, NULL, 'v'},
    {NULL, 0, NULL, 0},
};

/* Returns whether to run a command; if not, the exit status is set. */
static bool set_up(struct uci_context* ctx, struct options* options, int argc, char** argv, int* status)
{
    int option;
    int result = UCI_OK;

    *status = EXIT_USAGE;
    while (result == UCI_OK &&
           (option = getopt_long(argc, argv, "+c:C:d:f:hmnNp:P:t:qsSX", long_options, NULL)) != -1) {
        switch (option) {
        case 'c':
            result = uci_set_confdir(ctx, optarg);
            break;
        case 'C':
            result = uci_set_conf2dir(ctx, optarg);
            break;
        case 'd':
            options->separator = optarg;
            break;
        case 'f':
            options->input = optarg;
            break;
        case 'm':
            options->merge = true;
            break;
        case 'n':
            ctx->flags = (enum uci_flags)(ctx->flags | UCI_FLAG_EXPORT_NAME);
            break;
        case 'N':
            ctx->flags = (enum uci_flags)(ctx->flags & ~UCI_FLAG_EXPORT_NAME);
            break;
        case 'p':
            if (uci_add_delta_path(ctx, optarg) == UCI_ERR_MEM)
                result = UCI_ERR_MEM;
            break;
        case 'P':
            options->keep_staged = true;
            result = uci_set_savedir(ctx, optarg);
            break;
        case 't':
            result = uci_set_savedir(ctx, optarg);
            break;
        case 'q':
            options->quiet = true;
            break;
        case 's':
        case 'S':
            break;
        case 'X':
            options->names = true;
            break;
        case 'h':
            print_usage(stdout);
            *status = 0;
            return false;
        case 'v':
            puts("nuci " NUCI_VERSION);
            *status = 0;
            return false;
        default:
            if (!options->quiet)
                print_usage(stderr);
            return false;
        }
    }
    if (result != UCI_OK)
        *status = report(ctx, options);
    return result == UCI_OK;
}

static int run_command_line(struct uci_context* ctx, const struct options* options, int argc, char** argv)
{
    const struct command* command = argc > 0 ? find_command(argv[0]) : NULL;

    if (command && argc - 1 >= command->min && argc - 1 <= command->max)
        return run(ctx, options, command, argc - 1, argv + 1);
    if (!options->quiet)
        print_usage(stderr);
    return EXIT_USAGE;
}

int main(int argc, char** argv)
{
    struct options options = {.separator = NULL};
    struct uci_context* ctx = uci_alloc_context();

    if (!ctx) {
        fprintf(stderr, "%s: Out of memory\n", program);
        return EXIT_FAILED;
    }
    int result;
    if (set_up(ctx, &options, argc, argv, &result))
        result = run_command_line(ctx, &options, argc - optind, argv + optind);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        if (!options.quiet)
            fprintf(stderr, "%s: %s\n", program, strerror(errno));
        result = EXIT_FAILED;
    }
    uci_free_context(ctx);
    return result;
}
