// Listens on several ports and prints what arrives, also after a device was unplugged and plugged in again.
//
//     nbase-example-serial-listener <port>...

#include <nbase/serial/nseriallistener.h>
#include <nbase/serial/nserialport.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QStringList>

class Printer : public QObject
{
    Q_OBJECT

public:
    Printer()
        : m_listener(nullptr)
    {
        connect(&m_listener, SIGNAL(listeningStarted(NSerialPort*)), SLOT(printStart(NSerialPort*)));
        connect(&m_listener, SIGNAL(listeningError(NSerialPort*)), SLOT(restart(NSerialPort*)));
        connect(
            &m_listener, SIGNAL(dataReceived(NSerialPort*, QByteArray)),
                                SLOT(printData(NSerialPort*, QByteArray)));
    }

    /** The listener opens @a port, which must exist as long as it listens. */
    void listen(NSerialPort* port)
    {
        if (!m_listener.startListeningOnSerialPort(port))
            qWarning() << port->portName() << "belongs to somebody else";
    }

private slots:
    void printStart(NSerialPort* port) { qDebug() << port->portName() << "is open"; }

    void printData(NSerialPort* port, const QByteArray& data) { qDebug() << port->portName() << data; }

    void restart(NSerialPort* port)
    {
        // A port whose other end has hung up is still open, and nothing is read from it. The next attempt to open
        // it, 5 seconds later, finds the device again if the port is closed until then.
        port->close();
    }

private:
    NSerialListener m_listener;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Printer printer;
    const QStringList portNames = application.arguments().mid(1);
    for (const QString& portName : portNames)
        printer.listen(new NSerialPort(portName, &application));
    return application.exec();
}

#include "listener.moc"
