#include <nwebapi/nwajson.h>

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

// What was read is written and read again: the result must be the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bool ok = false;
    const QVariant document =
        NwaJson::parse(QByteArray(reinterpret_cast<const char*>(data), int(size)), &ok, 1000);
    if (!ok)
        return 0;
    const QByteArray text = NwaJson::serialize(document);
    const QVariant again = NwaJson::parse(text, &ok, 1000);
    if (!ok || NwaJson::serialize(again) != text)
        abort();
    return 0;
}
