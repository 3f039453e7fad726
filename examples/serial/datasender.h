#ifndef NSERIAL_DATASENDER_H
#define NSERIAL_DATASENDER_H

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QTimer>

class NSerialPort;
class TerminalDevice;

/** Sends bytes through a port as fast as the driver takes them. */
class DataSender : public QObject
{
    Q_OBJECT

public:
    /** Both objects must exist as long as this one. */
    DataSender(NSerialPort* port, const TerminalDevice* device);

    void stop();

public slots:
    /** Appends @a bytes to what has not been written yet. The event loop emits written(). */
    void send(const QByteArray& bytes);

    /** Call this when everything has been written. Emits sent(), at once when nothing has to be waited for. */
    void waitUntilSent();

signals:
    /** The driver has taken everything. */
    void written();

    /** The driver has passed everything to the hardware. */
    void sent();

    /** Writing has failed, for the reason that the port's errorString() gives. */
    void failed();

private slots:
    void write();

private:
    Q_DISABLE_COPY(DataSender)

    NSerialPort* m_port;
    const TerminalDevice* m_device;
    QByteArray m_unwritten;
    QTimer m_writeTimer;
    QTimer m_unsentOutputTimer;
};

#endif
