#include <nbase/serial/nseriallistener.h>

#include <nbase/serial/nseriallistenersingleton.h>

NSerialListener::NSerialListener(QObject* parent)
    : QObject(parent)
{
}

NSerialListener::~NSerialListener()
{
    stopListeningOnSerialPort(nullptr);
}

bool NSerialListener::startListeningOnSerialPort(NSerialPort* port)
{
    return NSerialListenerSingleton::instance()->startListeningOnSerialPort(this, port);
}

void NSerialListener::stopListeningOnSerialPort(NSerialPort* port)
{
    NSerialListenerSingleton::instance()->stopListeningOnSerialPort(this, port);
}
