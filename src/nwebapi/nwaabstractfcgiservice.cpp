#include <nwebapi/nwaabstractfcgiservice.h>

NwaAbstractFcgiService::NwaAbstractFcgiService(QObject* parent)
    : QObject(parent)
{
}

NwaAbstractFcgiService::~NwaAbstractFcgiService() {}
