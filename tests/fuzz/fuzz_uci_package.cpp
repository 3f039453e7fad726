#include <uci.h>

#include <stdlib.h>

#include <string>

// The input is a package file. If it can be read, it is written, read again, and written identically.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

/** Reads a text as a package in a context of its own and writes it. @return whether it could be read. */
bool rewrite(const std::string& text, std::string& result)
{
    uci_context* context = uci_alloc_context();
    uci_package* package = nullptr;
    // A memory stream cannot be empty; a newline is as empty a package.
    std::string bytes = text.empty() ? std::string("\n") : text;
    FILE* stream = fmemopen(&bytes[0], bytes.size(), "r");
    const bool read = uci_import(context, stream, "fuzz", &package, true) == UCI_OK;
    fclose(stream);
    if (read) {
        char* data = nullptr;
        size_t size = 0;
        stream = open_memstream(&data, &size);
        require(uci_export(context, stream, package, false) == UCI_OK);
        fclose(stream);
        result.assign(data, size);
        free(data);
    }
    uci_free_context(context);
    return read;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    std::string once, twice;
    if (!rewrite(std::string(reinterpret_cast<const char*>(data), size), once))
        return 0;
    require(rewrite(once, twice));
    require(once == twice);
    return 0;
}
