#include <uci.h>

#include <stdlib.h>
#include <string.h>

#include <string>

// The input is a stream from which words are read until its end: the first of each line, the others from a copy of
// the rest, and then from the rest itself, as callers do. For any input, each call consumes something and returns
// a word within its memory.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

/** Reads the words that remain of a text. Where the context keeps the text, a word may continue in the stream. */
void readRest(uci_context* context, FILE* stream, char* position)
{
    while (*position) {
        char* const before = position;
        const size_t left = strlen(before);
        const long consumed = stream ? ftell(stream) : 0;
        char* word = nullptr;
        if (uci_parse_argument(context, stream, &position, &word) != UCI_OK)
            return;
        if (stream && ftell(stream) > consumed)
            continue;
        require(position > before && position <= before + left);
        require(strlen(word) <= size_t(position - before));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static uci_context* const context = uci_alloc_context();
    static uci_context* const other = uci_alloc_context();
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
        if (result != UCI_OK)
            continue;
        std::string copy(position);
        readRest(other, nullptr, &copy[0]);
        readRest(context, stream, position);
    }
    fclose(stream);
    return 0;
}
