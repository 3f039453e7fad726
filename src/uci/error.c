#include "error_p.h"

#include "contextdata_p.h"

static const char* const messages[] = {
    [UCI_OK] = "Success",
    [UCI_ERR_MEM] = "Out of memory",
    [UCI_ERR_INVAL] = "Invalid argument",
    [UCI_ERR_NOTFOUND] = "Entry not found",
    [UCI_ERR_IO] = "I/O error",
    [UCI_ERR_PARSE] = "Parse error",
    [UCI_ERR_DUPLICATE] = "Duplicate entry",
    [UCI_ERR_UNKNOWN] = "Unknown error",
};

static void append_reason(struct text* text, const struct uci_parse_context* where)
{
    char place[64];

    if (!where->reason)
        return;
    snprintf(place, sizeof(place), ") at line %lu", (unsigned long)where->line);
    text_append_string(text, " (");
    text_append_string(text, where->reason);
    text_append_string(text, place);
}

void uci_get_errorstr(struct uci_context* ctx, char** dest, const char* prefix)
{
    struct text text = {NULL, 0, 0, false};
    int error = !ctx ? UCI_ERR_INVAL : ctx->err >= 0 && ctx->err < UCI_ERR_LAST ? ctx->err : UCI_ERR_UNKNOWN;

    if (prefix) {
        text_append_string(&text, prefix);
        text_append_string(&text, ": ");
    }
    text_append_string(&text, messages[error]);
    if (error == UCI_ERR_PARSE)
        append_reason(&text, ctx->pctx);
    if (text.failed)
        text_free(&text);
    if (dest) {
        *dest = text.data;
        return;
    }
    fprintf(stderr, "%s\n", text.data ? text.data : messages[error]);
    text_free(&text);
}

void uci_perror(struct uci_context* ctx, const char* prefix)
{
    uci_get_errorstr(ctx, NULL, prefix);
}

int finish(struct uci_context* ctx, int result)
{
    if (!ctx)
        return result;
    ctx->err = result;
    if (result != UCI_OK && ctx->flags & UCI_FLAG_PERROR)
        uci_perror(ctx, NULL);
    return result;
}
