#include <uci.h>

#include <stdlib.h>

#include <string>

// The input is a place as one string. For any input, the look-up returns, and the elements found have the names in
// the place.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

/** A context with one package, so that most inputs are looked up in it; there are no files. */
uci_context* newContext()
{
    char text[] = "config t a\n\toption o 1\nconfig t\n\tlist l x\nconfig u b\n";
    uci_context* context = uci_alloc_context();
    uci_set_confdir(context, "/nonexistent");
    uci_set_savedir(context, "/nonexistent");
    FILE* stream = fmemopen(text, sizeof(text) - 1, "r");
    require(uci_import(context, stream, "p", nullptr, true) == UCI_OK);
    fclose(stream);
    return context;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static uci_context* const context = newContext();
    std::string text(reinterpret_cast<const char*>(data), size);
    text.push_back('\0');
    uci_ptr place;
    const int result = uci_lookup_ptr(context, &place, &text[0], true);
    require(result >= UCI_OK && result < UCI_ERR_LAST);
    if (result != UCI_OK)
        return 0;
    require(place.p && place.last);
    require(!place.s || std::string(place.s->e.name) == place.section);
    require(!place.o || std::string(place.o->e.name) == place.option);
    const bool complete = (place.s || !place.section) && (place.o || !place.option);
    require(complete == ((place.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0));
    return 0;
}
