#ifndef NSERIAL_TERMINALDEVICE_H
#define NSERIAL_TERMINALDEVICE_H

#include <QtCore/QString>

/** A second descriptor of an open port, for what NSerialPort leaves to the driver: the output that it holds. */
class TerminalDevice
{
public:
    TerminalDevice();
    ~TerminalDevice();

    /**
     * Opens the device once more.
     * @return 0, or the number of the error: ENOTTY when the file is not a terminal device.
     */
    int open(const QString& portName);

    bool hasUnsentOutput() const;

    /** NSerialPort::close() would wait for it, without limit when flow control has stopped the output. */
    void discardUnsentOutput();

private:
    Q_DISABLE_COPY(TerminalDevice)

    int m_fd;
};

#endif
