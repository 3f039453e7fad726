#ifndef DEMODEVICE_EXPLAININGREQUESTPROCESSOR_H
#define DEMODEVICE_EXPLAININGREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

/** Base of the processors whose refusals are documents: {"message": ...}, for a person to read. */
class ExplainingRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit ExplainingRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier);

protected:
    /** Answers @a request with @a error and @a message, and deletes it. */
    static void refuse(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& message);
};

#endif
