#include "contextdata_p.h"
#include "elements_p.h"
#include "error_p.h"

#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

/* Random numbers, or at least different ones each time if the system provides none. */
static void make_hash_key(uint32_t key[2], const void* address)
{
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    ssize_t size = fd < 0 ? -1 : read(fd, key, 2 * sizeof(*key));

    if (fd >= 0)
        close(fd);
    if (size == (ssize_t)(2 * sizeof(*key)))
        return;
    key[0] = (uint32_t)(uintptr_t)address ^ (uint32_t)getpid();
    key[1] = (uint32_t)time(NULL) ^ (uint32_t)clock();
}

static bool append_directory(struct uci_list* list, const char* dir)
{
    struct uci_element* e = element_new(UCI_TYPE_PATH, dir);

    if (e)
        list_append(list, &e->list);
    return e != NULL;
}

struct uci_context* uci_alloc_context(void)
{
    struct context* context = calloc(1, sizeof(*context));

    if (!context)
        return NULL;
    struct uci_context* ctx = &context->public;
    list_init(&ctx->root);
    list_init(&ctx->backends);
    list_init(&ctx->delta_path);
    context->file_backend.e.type = UCI_TYPE_BACKEND;
    context->file_backend.e.name = context->file_backend_name;
    memcpy(context->file_backend_name, "file", sizeof("file"));
    list_append(&ctx->backends, &context->file_backend.e.list);
    ctx->backend = &context->file_backend;
    ctx->pctx = &context->parse_context;
    ctx->flags = (enum uci_flags)(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    make_hash_key(context->hash_key, context);
    ctx->confdir = strdup(UCI_CONFDIR);
    ctx->savedir = strdup(UCI_SAVEDIR);
    ctx->conf2dir = strdup(UCI_CONF2DIR);
    if (!ctx->confdir || !ctx->savedir || !ctx->conf2dir || !append_directory(&ctx->delta_path, UCI_SAVEDIR)) {
        uci_free_context(ctx);
        return NULL;
    }
    return ctx;
}

void uci_free_context(struct uci_context* ctx)
{
    if (!ctx)
        return;
    while (!uci_list_empty(&ctx->root))
        package_free(uci_to_package(list_to_element(ctx->root.next)));
    element_list_free(&ctx->delta_path);
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx->conf2dir);
    text_free(&((struct context*)ctx)->argument);
    free(ctx);
}

/* ---- directories ---- */

static int set_directory(char** directory, const char* dir)
{
    if (!dir)
        return UCI_ERR_INVAL;
    char* copy = strdup(dir);
    if (!copy)
        return UCI_ERR_MEM;
    free(*directory);
    *directory = copy;
    return UCI_OK;
}

int uci_set_confdir(struct uci_context* ctx, const char* dir)
{
    return finish(ctx, ctx ? set_directory(&ctx->confdir, dir) : UCI_ERR_INVAL);
}

int uci_set_conf2dir(struct uci_context* ctx, const char* dir)
{
    return finish(ctx, ctx ? set_directory(&ctx->conf2dir, dir) : UCI_ERR_INVAL);
}

static struct uci_element* find_directory(const struct uci_list* list, const char* dir)
{
    struct uci_element* e;

    uci_foreach_element(list, e) if (strcmp(e->name, dir) == 0) return e;
    return NULL;
}

/* The staging directory is read last, so that its changes take precedence. */
int uci_set_savedir(struct uci_context* ctx, const char* dir)
{
    if (!ctx || !dir)
        return finish(ctx, UCI_ERR_INVAL);
    struct uci_element* known = find_directory(&ctx->delta_path, dir);
    if (!known && !append_directory(&ctx->delta_path, dir))
        return finish(ctx, UCI_ERR_MEM);
    if (known) {
        list_remove(&known->list);
        list_append(&ctx->delta_path, &known->list);
    }
    return finish(ctx, set_directory(&ctx->savedir, dir));
}

int uci_add_delta_path(struct uci_context* ctx, const char* dir)
{
    if (!ctx || !dir)
        return finish(ctx, UCI_ERR_INVAL);
    if (find_directory(&ctx->delta_path, dir))
        return finish(ctx, UCI_ERR_DUPLICATE);
    struct uci_element* e = element_new(UCI_TYPE_PATH, dir);
    if (!e)
        return finish(ctx, UCI_ERR_MEM);
    list_insert_after(ctx->delta_path.prev->prev, &e->list);
    return finish(ctx, UCI_OK);
}

int uci_set_backend(struct uci_context* ctx, const char* name)
{
    if (!ctx || !name)
        return finish(ctx, UCI_ERR_INVAL);
    return finish(ctx, strcmp(name, ctx->backend->e.name) == 0 ? UCI_OK : UCI_ERR_NOTFOUND);
}
