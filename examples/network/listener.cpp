// Prints the datagrams that arrive on a UDP port, and returns what arrives on the TCP port with the same number.
//
//     nbase-example-network-listener <port>

#include <nbase/network/nnetworklistener.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

class Service : public QObject
{
    Q_OBJECT

public:
    Service()
        : m_listener(nullptr)
    {
        connect(
            &m_listener, SIGNAL(udpDatagramReceived(QUdpSocket*,QHostAddress,quint16,QByteArray)),
                                SLOT(printDatagram(QUdpSocket*,QHostAddress,quint16,QByteArray)));
        connect(
            &m_listener, SIGNAL(tcpDataReceived(QTcpSocket*,QByteArray)),
                                SLOT(returnData(QTcpSocket*,QByteArray)));
    }

    bool listen(unsigned short port)
    {
        QString error;
        QSet<QTcpSocket*> connectedSockets; // of other listeners in this process
        if (m_listener.startListeningOnUdpPort(port, error) &&
            m_listener.startListeningOnTcpPort(port, connectedSockets, error))
            return true;
        qWarning() << "port" << port << error;
        return false;
    }

private slots:
    void printDatagram(QUdpSocket*, const QHostAddress& address, quint16 port, const QByteArray& datagram)
    {
        qDebug() << address.toString() << port << datagram;
    }

    void returnData(QTcpSocket* socket, const QByteArray& data) { socket->write(data); }

private:
    NNetworkListener m_listener;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 2)
        return 2;
    Service service;
    return service.listen(arguments.at(1).toUShort()) ? application.exec() : 1;
}

#include "listener.moc"
