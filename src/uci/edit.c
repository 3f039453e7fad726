#include "change_p.h"
#include "error_p.h"
#include "lookup_p.h"

static int edit(struct uci_context* ctx, enum uci_command cmd, struct uci_ptr* ptr)
{
    if (!ctx || !ptr)
        return finish(ctx, UCI_ERR_INVAL);
    int result = lookup_place(ctx, ptr);
    return finish(ctx, result == UCI_OK ? change_apply(cmd, ptr, true) : result);
}

int uci_set(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, UCI_CMD_CHANGE, ptr);
}

int uci_delete(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, UCI_CMD_REMOVE, ptr);
}

int uci_rename(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, UCI_CMD_RENAME, ptr);
}

int uci_add_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, UCI_CMD_LIST_ADD, ptr);
}

int uci_del_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, UCI_CMD_LIST_DEL, ptr);
}

int uci_add_section(struct uci_context* ctx, struct uci_package* p, const char* type, struct uci_section** res)
{
    struct uci_section* s = NULL;

    if (!ctx || !p || !type)
        return finish(ctx, UCI_ERR_INVAL);
    int result = change_add_section(p, type, &s);
    if (result == UCI_OK && res)
        *res = s;
    return finish(ctx, result);
}

int uci_reorder_section(struct uci_context* ctx, struct uci_section* s, int pos)
{
    struct uci_ptr ptr;
    char position[16];

    if (!ctx || !s)
        return finish(ctx, UCI_ERR_INVAL);
    memset(&ptr, 0, sizeof(ptr));
    snprintf(position, sizeof(position), "%d", pos);
    ptr.s = s;
    ptr.value = position;
    return edit(ctx, UCI_CMD_REORDER, &ptr);
}
