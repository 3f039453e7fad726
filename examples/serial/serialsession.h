#ifndef NSERIAL_SERIALSESSION_H
#define NSERIAL_SERIALSESSION_H

#include "commandline.h"
#include "datasender.h"
#include "standardinput.h"
#include "terminaldevice.h"

#include <nbase/serial/nserialport.h>

#include <QtCore/QObject>

/** Opens a port, does what the command line asks for, and closes the port, which restores the line. */
class SerialSession : public QObject
{
    Q_OBJECT

public:
    explicit SerialSession(const CommandLine& commandLine);

    void start();

    /** Empty while nothing has failed. */
    QByteArray errorText() const;

public slots:
    void interrupt();

signals:
    /** The port is closed. */
    void finished();

private slots:
    void usePort();
    void receive();
    void sendMore();
    void endSending();
    void failWithPort();
    void fail(const QByteArray& reason);

private:
    Q_DISABLE_COPY(SerialSession)

    void printStatus();
    void print(const QByteArray& text);
    void finish();

    const CommandLine m_commandLine;
    NSerialPort m_port;
    TerminalDevice m_device;
    DataSender m_sender;
    StandardInput m_input;
    bool m_isSending;
    bool m_isFinished;
    qint64 m_receivedSize;
    QByteArray m_errorText;
};

#endif
