#include <nbase/network/nnetworklistener.h>

#include <nbase/network/nnetworklistenersingleton.h>

NNetworkListener::NNetworkListener(QObject* parent)
    : QObject(parent)
{
}

NNetworkListener::~NNetworkListener()
{
    stopListeningOnAllPorts();
}

bool NNetworkListener::startListeningOnTcpPort(
    unsigned short port, QSet<QTcpSocket*>& connectedSockets, QString& errorString)
{
    return NNetworkListenerSingleton::instance()->startListeningOnTcpPort(
        this, port, connectedSockets, errorString);
}

bool NNetworkListener::startListeningOnUdpPort(unsigned short port, QString& errorString)
{
    return NNetworkListenerSingleton::instance()->startListeningOnUdpPort(this, port, errorString);
}

void NNetworkListener::stopListeningOnTcpPort(unsigned short port)
{
    NNetworkListenerSingleton::instance()->stopListeningOnTcpPort(this, port);
}

void NNetworkListener::stopListeningOnUdpPort(unsigned short port)
{
    NNetworkListenerSingleton::instance()->stopListeningOnUdpPort(this, port);
}

void NNetworkListener::stopListeningOnAllPorts()
{
    NNetworkListenerSingleton::instance()->stopListeningOnAllPorts(this);
}
