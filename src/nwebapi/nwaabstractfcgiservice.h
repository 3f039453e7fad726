#ifndef NWEBAPI_NWAABSTRACTFCGISERVICE_H
#define NWEBAPI_NWAABSTRACTFCGISERVICE_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QObject>

class NwaFcgiRequest;

/** What an NwaFcgiServer hands the requests for a script name to. */
class NWEBAPI_EXPORT NwaAbstractFcgiService : public QObject
{
    Q_OBJECT

public:
    /** A service that no server knows yet, see NwaFcgiServer::registerService(). */
    explicit NwaAbstractFcgiService(QObject* parent = nullptr);
    ~NwaAbstractFcgiService() override;

    /** Takes @a request over: answers it, now or later, and deletes it. */
    virtual void processRequest(NwaFcgiRequest* request) = 0;

private:
    Q_DISABLE_COPY(NwaAbstractFcgiService)
};

#endif
