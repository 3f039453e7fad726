#include "explainingrequestprocessor.h"

#include <nwebapi/nwahttpjsonheader.h>

ExplainingRequestProcessor::ExplainingRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier)
    : NwaStandardFcgiRequestProcessor(identifier)
{
}

void ExplainingRequestProcessor::refuse(
    NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& message)
{
    QVariantMap object;
    object.insert(QString::fromLatin1("message"), message);
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    header.setStatus(error);
    sendJsonReply(request, object, header);
}
