#include "nfuzzrequest.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    NwaCgiRequest::Variables variables;
    variables.insert("QUERY_STRING", input);
    variables.insert("SCRIPT_NAME", input);
    variables.insert("PATH_INFO", input);
    variables.insert("CONTENT_LENGTH", input);
    const NFuzzRequest request(variables, QByteArray(), 1);
    if (!request.isQueryValid() && !request.queryParameters().isEmpty())
        abort();
    if (request.queryParameters().size() > 1000 || request.contentLength() < -1)
        abort();
    if (request.scriptName() != request.pathInfo())
        abort();
    return 0;
}
