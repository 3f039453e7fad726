#include "elements_p.h"
#include "error_p.h"
#include "parser_p.h"
#include "paths_p.h"
#include "writer_p.h"

static int read_stream(FILE* stream, struct text* text)
{
    char block[4096];
    size_t size;

    text_append(text, "", 0);
    while ((size = fread(block, 1, sizeof(block), stream)) > 0)
        text_append(text, block, size);
    return text->failed ? UCI_ERR_MEM : ferror(stream) ? UCI_ERR_IO : UCI_OK;
}

static int check_not_loaded(const struct uci_context* ctx, const struct uci_list* list)
{
    struct uci_element* e;

    uci_foreach_element(list, e) if (package_loaded(ctx, e->name)) return UCI_ERR_DUPLICATE;
    return UCI_OK;
}

static int
import(struct uci_context* ctx, struct text* text, const struct parse_mode* mode, struct uci_package** package)
{
    struct uci_list list;

    list_init(&list);
    int result = parse_packages(ctx, text, mode, &list);
    if (result != UCI_OK)
        return result;
    result = check_not_loaded(ctx, &list);
    while (!uci_list_empty(&list)) {
        struct uci_package* p = uci_to_package(list_to_element(list.next));
        list_remove(&p->e.list);
        if (result != UCI_OK) {
            package_free(p);
            continue;
        }
        list_append(&ctx->root, &p->e.list);
        if (package)
            *package = p;
    }
    return result;
}

int uci_import(struct uci_context* ctx, FILE* stream, const char* name, struct uci_package** package, bool single)
{
    const struct parse_mode mode = {name, single && name};
    struct text text = {NULL, 0, 0, false};

    /* The name becomes a file name: it must not be a path. */
    if (!ctx || !stream || (name && (package_check_name(name) != UCI_OK || strchr(name, '/'))))
        return finish(ctx, UCI_ERR_INVAL);
    int result = read_stream(stream, &text);
    if (result == UCI_OK)
        result = import(ctx, &text, &mode, package);
    text_free(&text);
    return finish(ctx, result);
}

static int export_package(const struct uci_context* ctx, FILE* stream, const struct uci_package* p, bool header)
{
    struct text text = {NULL, 0, 0, false};

    if (header) {
        text_append_string(&text, "package ");
        text_append_string(&text, p->e.name);
        text_append_string(&text, "\n");
    }
    write_package(p, (ctx->flags & UCI_FLAG_EXPORT_NAME) != 0, &text);
    int result = text.failed ? UCI_ERR_MEM : UCI_OK;
    if (result == UCI_OK && fwrite(text.data, 1, text.size, stream) != text.size)
        result = UCI_ERR_IO;
    text_free(&text);
    return result;
}

int uci_export(struct uci_context* ctx, FILE* stream, struct uci_package* package, bool header)
{
    struct uci_element* e;
    int result = UCI_OK;

    if (!ctx || !stream)
        return finish(ctx, UCI_ERR_INVAL);
    if (package)
        return finish(ctx, export_package(ctx, stream, package, header));
    uci_foreach_element(&ctx->root, e)
    {
        result = export_package(ctx, stream, uci_to_package(e), header);
        if (result != UCI_OK)
            break;
    }
    return finish(ctx, result);
}
