#include "load_p.h"

#include "elements_p.h"
#include "error_p.h"
#include "parser_p.h"
#include "paths_p.h"

#include <stdlib.h>

static int apply_staged(struct staged* staged, struct uci_package** package)
{
    (*package)->has_delta = true;
    int result = staged_apply(staged, *package);
    if (result != UCI_OK)
        package_free(*package);
    return result;
}

int load_staged(
    struct uci_context* ctx, const struct locked_file* file, const char* name, struct staged* staged,
    bool exclusive, struct uci_package** package)
{
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    result = staged_open(staged, ctx, name, &text, exclusive);
    if (result != UCI_OK) {
        text_free(&text);
        return result;
    }
    result = parse_package(ctx, &text, name, package);
    text_free(&text);
    if (result == UCI_OK)
        result = apply_staged(staged, package);
    if (result != UCI_OK)
        staged_close(staged);
    return result;
}

static int
load_inside(struct uci_context* ctx, const struct locked_file* file, const char* name, struct uci_package** p)
{
    struct staged staged;
    int result = load_staged(ctx, file, name, &staged, false, p);

    if (result == UCI_OK)
        staged_close(&staged);
    return result;
}

static int
load_outside(struct uci_context* ctx, const struct locked_file* file, const char* name, struct uci_package** p)
{
    struct text text;
    int result = file_read(file, &text);

    if (result != UCI_OK)
        return result;
    result = parse_package(ctx, &text, name, p);
    text_free(&text);
    return result;
}

static int
load_path(struct uci_context* ctx, const char* path, const char* name, bool outside, struct uci_package** package)
{
    struct locked_file file;
    int result = file_open_shared(&file, path);

    if (result != UCI_OK)
        return result;
    if (package_loaded(ctx, name))
        result = UCI_ERR_DUPLICATE;
    else if (outside)
        result = load_outside(ctx, &file, name, package);
    else
        result = load_inside(ctx, &file, name, package);
    file_close(&file);
    return result;
}

static const char* last_part(const char* path)
{
    const char* slash = strrchr(path, '/');

    return slash ? slash + 1 : path;
}

int load_package(struct uci_context* ctx, const char* name, struct uci_package** package)
{
    struct uci_package* p = NULL;
    bool uses_conf2 = false;
    int result = package_check_name(name);

    if (result != UCI_OK)
        return result;
    bool outside = package_is_outside(name);
    char* path = outside ? strdup(name) : package_path(ctx, name, &uses_conf2);
    if (!path)
        return UCI_ERR_MEM;
    result = load_path(ctx, path, outside ? last_part(name) : name, outside, &p);
    if (result != UCI_OK) {
        free(path);
        return result;
    }
    p->path = path;
    p->uses_conf2 = uses_conf2;
    list_append(&ctx->root, &p->e.list);
    *package = p;
    return UCI_OK;
}

int uci_load(struct uci_context* ctx, const char* name, struct uci_package** package)
{
    struct uci_package* p = NULL;

    if (!ctx || !name)
        return finish(ctx, UCI_ERR_INVAL);
    int result = load_package(ctx, name, &p);
    if (package)
        *package = p;
    return finish(ctx, result);
}

int uci_unload(struct uci_context* ctx, struct uci_package* p)
{
    if (!ctx || !p)
        return finish(ctx, UCI_ERR_INVAL);
    package_free(p);
    return finish(ctx, UCI_OK);
}
