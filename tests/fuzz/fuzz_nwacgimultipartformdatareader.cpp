#include "nfuzzrequest.h"

#include <nwebapi/nwacgimultipartformdatareader.h>

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

namespace {

// Everything that the reader returns, as one array.
QByteArray everythingRead(
    const NwaCgiRequest::Variables& variables, const QByteArray& body, int pieceSize, unsigned int readSize)
{
    NFuzzRequest request(variables, body, pieceSize);
    NwaCgiMultipartFormDataReader reader(&request);
    QByteArray result;
    QString name;
    QString fileName;
    QString contentType;
    for (;;) {
        if (!reader.nextPart(name, fileName, contentType)) {
            if (reader.isWaiting())
                continue;
            return result + reader.errorString().toUtf8();
        }
        result += name.toUtf8() + '\0' + fileName.toUtf8() + '\0' + contentType.toUtf8() + '\0';
        while (!reader.atPartEnd() && !reader.hasError())
            result += reader.readFromPart(readSize);
    }
}

} // namespace

// The first two bytes choose how the body is cut into pieces and read; a line with the content type follows, then
// the body. However the body arrives, the result must be the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const QByteArray input(reinterpret_cast<const char*>(data) + 2, int(size) - 2);
    const int lineEnd = input.indexOf('\n');
    NwaCgiRequest::Variables variables;
    variables.insert("CONTENT_TYPE", input.left(qMax(0, lineEnd)));
    const QByteArray body = input.mid(lineEnd + 1);
    const QByteArray whole = everythingRead(variables, body, int(size), 4096);
    if (everythingRead(variables, body, 1 + data[0], 1u + data[1]) != whole)
        abort();
    return 0;
}
