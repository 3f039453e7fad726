#ifndef NWEBAPI_NWAABSTRACTFCGISERVICE_H
#define NWEBAPI_NWAABSTRACTFCGISERVICE_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QObject>

class NwaFcgiRequest;

/** Receives the requests for a script name from an NwaFcgiServer. */
class NWEBAPI_EXPORT NwaAbstractFcgiService : public QObject
{
    Q_OBJECT

public:
    /** A service that is not registered yet, see NwaFcgiServer::registerService(). */
    explicit NwaAbstractFcgiService(QObject* parent = nullptr);
    ~NwaAbstractFcgiService() override;

    /** Takes ownership of @a request, answers it, now or later, and deletes it. */
    virtual void processRequest(NwaFcgiRequest* request) = 0;

private:
    Q_DISABLE_COPY(NwaAbstractFcgiService)
};

#endif
