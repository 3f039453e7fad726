#include <nwebapi/nwastandardfcgiservice.h>

#include <nwebapi/nwaabstractfcgirequestprocessor.h>
#include <nwebapi/nwafcgirequest.h>

NwaStandardFcgiService::NwaStandardFcgiService(NwaAbstractFcgiRequestProcessor* processor, QObject* parent)
    : NwaAbstractFcgiService(parent)
    , m_processor(processor)
    , m_processorIsObject(dynamic_cast<QObject*>(processor) != nullptr)
    , m_processorObject(dynamic_cast<QObject*>(processor))
{
}

NwaStandardFcgiService::~NwaStandardFcgiService()
{
    if (processorIsAlive())
        delete m_processor;
}

void NwaStandardFcgiService::processRequest(NwaFcgiRequest* request)
{
    if (processorIsAlive())
        return m_processor->processRequest(request);
    request->sendHttpError(NwaFcgiRequest::ServiceUnavailable);
    delete request;
}

bool NwaStandardFcgiService::processorIsAlive() const
{
    return m_processor && (!m_processorIsObject || !m_processorObject.isNull());
}
