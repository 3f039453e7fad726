#include <uci.h>

#include <stdlib.h>

#include <string>

// The input is a stream from which words are read until its end: first from its lines, then from the rest of each.
// For any input, each call consumes something and returns a word within its memory.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

/** Reads the remaining words of a line, in a copy of its own. */
void readRest(uci_context* context, std::string line)
{
    char* position = &line[0];
    while (*position) {
        char* const before = position;
        char* word = nullptr;
        if (uci_parse_argument(context, nullptr, &position, &word) != UCI_OK)
            return;
        require(position > before && position <= &line[0] + line.size());
        require(std::string(word).size() <= size_t(position - before));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static uci_context* const context = uci_alloc_context();
    // A memory stream cannot be empty; a newline has no words either.
    std::string text = size ? std::string(reinterpret_cast<const char*>(data), size) : std::string("\n");
    FILE* stream = fmemopen(&text[0], text.size(), "r");
    for (;;) {
        const long before = ftell(stream);
        char* position = nullptr;
        char* word = nullptr;
        const int result = uci_parse_argument(context, stream, &position, &word);
        require(result == UCI_OK || result == UCI_ERR_PARSE);
        require(result == UCI_OK || !word);
        if (result == UCI_OK && !word)
            break;
        require(ftell(stream) > before);
        if (result == UCI_OK)
            readRest(context, position);
    }
    fclose(stream);
    return 0;
}
