#ifndef NBASE_TESTS_NPORTHANDLER_H
#define NBASE_TESTS_NPORTHANDLER_H

#include <nbase/serial/nserialport.h>

#include <QtCore/QByteArray>

/** Does something to a port at the first signal that it is connected to. */
class NPortHandler : public QObject
{
    Q_OBJECT

public:
    enum Action { Nothing, Close, Reopen, ReopenInThread, Delete, DeleteLater, ReadAll };

    NPortHandler(NSerialPort* port, const char* signal, Action action)
        : m_port(port)
        , m_action(action)
        , m_calls(0)
    {
        connect(port, signal, SLOT(act()));
    }

    int calls() const { return m_calls; }

    /** What ReadAll has read. */
    QByteArray data() const { return m_data; }

private slots:
    void act()
    {
        if (++m_calls > 1)
            return;
        switch (m_action) {
        case Nothing:
            break;
        case Close:
            m_port->close();
            break;
        case Reopen:
            m_port->close();
            m_port->open(QIODevice::ReadWrite);
            break;
        case ReopenInThread:
            m_port->close();
            m_port->asyncOpen(QIODevice::ReadWrite, -1);
            break;
        case Delete:
            delete m_port;
            break;
        case DeleteLater:
            m_port->deleteLater();
            break;
        case ReadAll:
            m_data = m_port->readAll();
            break;
        }
    }

private:
    Q_DISABLE_COPY(NPortHandler)

    NSerialPort* m_port;
    Action m_action;
    int m_calls;
    QByteArray m_data;
};

#endif
