#include <nwebapi/nwaabstractfcgirequestprocessor.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpgrammar_p.h>

namespace {

bool isMultipart(const QString& contentType)
{
    return contentType.startsWith(QLatin1String("multipart/"));
}

// Reads the body, which has arrived completely unless it is a streamed form. Returns whether it is complete.
bool readWholeBody(NwaFcgiRequest* request, QByteArray& body)
{
    char buffer[4096];
    while (!request->atBodyEnd()) {
        const qint64 count = request->readBody(buffer, sizeof(buffer));
        if (count <= 0)
            return request->atBodyEnd();
        body.append(buffer, int(count));
    }
    return true;
}

} // namespace

NwaAbstractFcgiRequestProcessor::~NwaAbstractFcgiRequestProcessor() {}

QString NwaAbstractFcgiRequestProcessor::parseContentType(NwaFcgiRequest* request)
{
    const QByteArray type = NwaHttpGrammar::mainValue(request->variable("CONTENT_TYPE"));
    return type.isEmpty() ? QString() : QString::fromLatin1(type);
}

QVariant NwaAbstractFcgiRequestProcessor::parseJsonContent(
    NwaFcgiRequest* request, bool* ok, int maximumDepth, int maximumValueCount)
{
    bool isParsed = false;
    QVariant document;
    QByteArray body;
    if (isMultipart(parseContentType(request)))
        request->sendHttpError(NwaFcgiRequest::UnsupportedMediaType);
    else if (readWholeBody(request, body))
        document = NwaJson::parse(body, &isParsed, maximumDepth, maximumValueCount);
    // Does nothing after another answer.
    if (!isParsed)
        request->sendHttpError(NwaFcgiRequest::BadRequest);
    if (ok)
        *ok = isParsed;
    return document;
}
