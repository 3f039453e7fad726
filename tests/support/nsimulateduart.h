#ifndef NBASE_TESTS_NSIMULATEDUART_H
#define NBASE_TESTS_NSIMULATEDUART_H

#include "support/nsystemcalls.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>

#include <linux/serial.h>
#include <termios.h>

/**
 * A serial device: a pseudo-terminal, of which the test has the other end. Modem lines and RS-485, which a
 * pseudo-terminal does not have, are simulated. Programs that use it are registered with SYSTEM_CALLS. Rules for
 * the device file may be added; those that are constructed later decide.
 *
 * The other end is non-blocking. The device file stays open, so that the settings of the line outlast the port.
 */
class NSimulatedUart
{
public:
    /** A call of tcsetattr(3). */
    struct Change
    {
        int actions;
        termios settings;
    };

    NSimulatedUart();
    ~NSimulatedUart();

    /** The device file, for rules. */
    QByteArray path() const { return m_path; }

    /** The same for NSerialPort. */
    QString portName() const;

    /** The descriptor of the other end; -1 after hangUp(). */
    int otherEnd() const { return m_otherEnd; }

    /** Sends at the other end. @return the number of bytes that the line has taken. */
    int send(const QByteArray& data);

    /** What has arrived at the other end since the last call. */
    QByteArray receive();

    /** The number of bytes that have arrived at the device and have not been read. */
    int waitingBytes() const;

    /** Closes the other end: the kernel hangs the device up. */
    void hangUp();

    /** The settings of the line. */
    termios settings() const;

    /** Makes tcgetattr(3) report @a settings, and tcsetattr(3) without an effect. */
    void pretendSettings(const termios& settings);

    /** The calls of tcsetattr(3) since the last time. */
    QList<Change> takeChanges();

    /** TIOCM_CTS and others, see ioctl_tty(2). */
    int modemLines() const { return m_modemLines; }
    void setModemLines(int lines) { m_modemLines = lines; }

    serial_rs485 rs485() const { return m_rs485; }
    void setRs485(const serial_rs485& rs485) { m_rs485 = rs485; }

    /** How many times the modem lines or the RS-485 settings have been read or written. */
    int modemLineReads() const { return m_getModemLines.count(); }
    int modemLineWrites() const { return m_setModemLines.count(); }
    int rs485Reads() const { return m_getRs485.count(); }
    int rs485Writes() const { return m_writeRs485.count(); }

private:
    Q_DISABLE_COPY(NSimulatedUart)

    NSystemCalls::Calls requests(unsigned long request) const;

    int m_otherEnd;
    QByteArray m_path;
    int m_device;
    int m_modemLines;
    serial_rs485 m_rs485;
    termios m_pretendedSettings;
    QList<Change> m_changes;
    const NSystemCalls::Answer m_getModemLines;
    const NSystemCalls::Answer m_setModemLines;
    const NSystemCalls::Answer m_getRs485;
    const NSystemCalls::Answer m_writeRs485;
    const NSystemCalls::Notice m_noteChange;
    QScopedPointer<NSystemCalls::Answer> m_pretendGet;
    QScopedPointer<NSystemCalls::Answer> m_pretendSet;
};

#endif
