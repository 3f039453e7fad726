#include <nbase/serial/nseriallistener.h>

#include <nbase/serial/nseriallistenersingleton.h>

NSerialListener::NSerialListener(QObject* parent)
    : QObject(parent)
    , m_isBeingDestroyed(false)
{
}

NSerialListener::~NSerialListener()
{
    // Closing a port calls receivers of the application.
    m_isBeingDestroyed = true;
    stopListeningOnSerialPort(nullptr);
}

bool NSerialListener::startListeningOnSerialPort(NSerialPort* port)
{
    return !m_isBeingDestroyed && NSerialListenerSingleton::instance()->startListeningOnSerialPort(this, port);
}

void NSerialListener::stopListeningOnSerialPort(NSerialPort* port)
{
    NSerialListenerSingleton::instance()->stopListeningOnSerialPort(this, port);
}
