#include <nwebapi/nwafcgiexchange_p.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpgrammar_p.h>

#include <string.h>

NwaFcgiExchange::NwaFcgiExchange()
    : NwaFcgiExchange(0, false)
{
}

NwaFcgiExchange::NwaFcgiExchange(int id, bool keepConnection)
    : id(id)
    , keepConnection(keepConnection)
    , request(nullptr)
    , isDispatched(false)
    , hasErrorOutput(false)
    , hasBodyEnded(false)
    , receivedBodySize(0)
    , bodyRead(0)
{
}

bool NwaFcgiExchange::isStreamed() const
{
    return request && NwaHttpGrammar::mainValue(request->variable("CONTENT_TYPE")) == "multipart/form-data";
}

bool NwaFcgiExchange::isBodyBroken() const
{
    return hasBodyEnded && !request->variable("CONTENT_LENGTH").isEmpty() &&
           request->contentLength() != receivedBodySize;
}

void NwaFcgiExchange::appendToBody(const char* data, int size)
{
    // What was read is dropped here as well as in readBody(): a service that always leaves something would make
    // the whole body be kept.
    body.remove(0, bodyRead);
    bodyRead = 0;
    body.append(data, size);
    receivedBodySize += size;
}

int NwaFcgiExchange::readBody(char* data, qint64 maximumSize)
{
    const int size = int(qBound(qint64(0), maximumSize, qint64(unreadBodySize())));
    memcpy(data, body.constData() + bodyRead, size_t(size));
    bodyRead += size;
    if (bodyRead == body.size()) {
        body.clear();
        bodyRead = 0;
    }
    return size;
}
