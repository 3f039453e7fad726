#ifndef NWEBAPI_NWASTANDARDFCGISERVICE_H
#define NWEBAPI_NWASTANDARDFCGISERVICE_H

#include <nwebapi/nwaabstractfcgiservice.h>

#include <QtCore/QPointer>

class NwaAbstractFcgiRequestProcessor;

/** A service whose requests are all answered by one request processor. */
class NWEBAPI_EXPORT NwaStandardFcgiService : public NwaAbstractFcgiService
{
    Q_OBJECT

public:
    /**
     * @param processor answers the requests. The service owns it; a processor that is a QObject may be deleted by
     * its parent before.
     */
    NwaStandardFcgiService(NwaAbstractFcgiRequestProcessor* processor, QObject* parent);
    ~NwaStandardFcgiService() override;

    /** Passes @a request to the processor. */
    void processRequest(NwaFcgiRequest* request) override;

private:
    Q_DISABLE_COPY(NwaStandardFcgiService)

    bool processorIsAlive() const;

    NwaAbstractFcgiRequestProcessor* m_processor;
    bool m_processorIsObject;
    QPointer<QObject> m_processorObject;
};

#endif
