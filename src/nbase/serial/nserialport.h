#ifndef NBASE_NSERIALPORT_H
#define NBASE_NSERIALPORT_H

#include <nbase/nbaseglobal.h>
#include <nbase/serial/nserialportallocator.h>

#include <QtCore/QByteArray>
#include <QtCore/QIODevice>
#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <termios.h>

/**
 * The type of the enumerations of settings, which may have values that are not listed: with a fixed type, they can
 * hold any int. The moc of Qt 4 does not know the syntax.
 */
#ifdef Q_MOC_RUN
#define NSERIALPORT_INT
#else
#define NSERIALPORT_INT : int
#endif

class NSerialPortFileOpeningWorkerThread;
class QSocketNotifier;

/**
 * A serial port: a sequential device over a terminal device file of Linux, such as "/dev/ttyS0", "/dev/ttyUSB0" or
 * "/dev/rfcomm0". Opening puts the line into raw mode (termios(3)) with the settings of this object; closing
 * restores what the device had before.
 *
 * What arrives is read as soon as the event loop runs, into a buffer without limit, and announced by readyRead().
 * What is written goes to the driver at once and without a buffer: write() may take fewer bytes than it is given,
 * and fails with "Resource temporarily unavailable" (EAGAIN) when the driver's buffer is full.
 *
 * open() can block for as long as the driver needs, seconds with some USB and Bluetooth adapters. asyncOpen() does
 * the same in a thread of its own and reports the result with a signal.
 *
 * When the other end hangs up or reading fails, readChannelFinished() is emitted and errorString() gives the
 * reason. The port then stays open, but nothing is read until it has been closed and opened again.
 *
 * Users of one port in a process take turns with NSerialPortAllocator, and share what arrives with
 * NSerialListener. All operations must be called on the object's thread. Receivers of a signal may close, reopen
 * or delete the port; on aboutToClose(), only with deleteLater().
 */
class NBASE_EXPORT NSerialPort : public QIODevice
{
    Q_OBJECT
    Q_ENUMS(BaudRate)
    Q_ENUMS(DataBits)
    Q_ENUMS(ParityType)
    Q_ENUMS(StopBits)
    Q_ENUMS(FlowControlType)

public:
    /** Bits per second. */
    enum BaudRate NSERIALPORT_INT {
        BaudRate110 = 110,
        BaudRate300 = 300,
        BaudRate600 = 600,
        BaudRate1200 = 1200,
        BaudRate2400 = 2400,
        BaudRate4800 = 4800,
        BaudRate9600 = 9600,
        BaudRate19200 = 19200,
        BaudRate38400 = 38400,
        BaudRate57600 = 57600,
        BaudRate115200 = 115200,
        BaudRate230400 = 230400
    };

    /** Data bits of a character. */
    enum DataBits NSERIALPORT_INT { DataBits7 = 7, DataBits8 = 8 };

    /** What the parity bit of a character adds up to. */
    enum ParityType NSERIALPORT_INT { ParityNone = 0, ParityEven = 1, ParityOdd = 2 };

    /** Stop bits of a character. */
    enum StopBits NSERIALPORT_INT { StopBits1 = 1, StopBits2 = 2 };

    /** How the ends of the line keep each other from sending, or who drives the line. */
    enum FlowControlType NSERIALPORT_INT {
        FlowControlNone = 0,
        FlowControlHardware = 1, ///< with the lines RTS and CTS
        FlowControlXonXoff = 2,  ///< enables XON/XOFF in the driver, see open() for what comes of it
        FlowControlRs485Rts = 3  ///< no flow control: the driver enables an RS-485 transmitter with RTS
    };

    /** The settings of a line. */
    struct PortSettings
    {
        BaudRate baudRate;           ///< in both directions
        DataBits dataBits;           ///< of a character
        ParityType parity;           ///< is sent, and not checked
        StopBits stopBits;           ///< of a character
        FlowControlType flowControl; ///< or RS-485
    };

    /** The bits of lineStatus(), see ioctl_tty(2). */
    enum LineStatusBit {
        LineCts = 0x01,               ///< input: clear to send
        LineDsr = 0x02,               ///< input: data set ready
        LineDcd = 0x04,               ///< input: data carrier detect
        LineRi = 0x08,                ///< input: ring indicator
        LineRts = 0x10,               ///< output: request to send
        LineDtr = 0x20,               ///< output: data terminal ready
        LineSecondaryTransmit = 0x40, ///< secondary transmitted data
        LineSecondaryReceive = 0x80   ///< secondary received data
    };

    /**
     * A closed port.
     * @param portName the path of the device file, for example "/dev/ttyS1".
     */
    NSerialPort(const QString& portName, const PortSettings& settings, QObject* parent);

    /** A closed port with 9600 baud, 8 data bits, no parity, 1 stop bit and no flow control. */
    NSerialPort(const QString& portName, QObject* parent);

    /** Closes the port; then the allocators that hold or wait for it emit serialPortAboutToRemove(). */
    ~NSerialPort() override;

    /** The path of the device file. */
    QString portName() const;

    /** The path without its first five characters, "/dev/": "ttyS1". Empty for a shorter one. */
    QString deviceName() const;

    /** What users call the port, see friendlyName(const QString&). */
    QString friendlyName() const;

    /** @{ The settings, which a closed port will have when it is opened. */
    PortSettings portSettings() const;
    BaudRate baudRate() const;
    DataBits dataBits() const;
    ParityType parity() const;
    StopBits stopBits() const;
    FlowControlType flowControl() const;
    /** @} */

    /**
     * Opens the device file, for reading and writing whatever @a mode is, and sets up the line. Blocks as long as
     * the driver does. @a mode restricts read() and write() as with any QIODevice.
     *
     * The line passes all bytes unchanged. This disables the characters XON and XOFF as well: with
     * FlowControlXonXoff the driver neither sends nor obeys them, and those that arrive are data.
     * @return whether the port is open; errorString() gives the reason of a failure. With mode 0, or when the port
     * is open already or being destroyed, nothing happens.
     */
    bool open(QIODevice::OpenMode mode) override;

    /**
     * Opens the port without blocking the caller. The event loop emits opened() or openingError(). Does nothing
     * while an earlier call is in progress or the port is being destroyed. A port that is open stays as it is and
     * emits opened().
     * @param timeoutMs after how many milliseconds the port is closed and openingError() emitted, with the error
     * string "opening timeout"; a negative value is no limit.
     */
    void asyncOpen(QIODevice::OpenMode mode, int timeoutMs);

    /**
     * Completes the opening of a device file.
     * @param fd what openFile() returned; it belongs to the port from now on.
     * @param errorNumber what openFile() stored.
     * @return whether the port is open. With @a mode 0, or when the port is open already or being destroyed, @a fd
     * is closed and the error string emptied. When @a fd is negative, the error string is the text of @a
     * errorNumber.
     */
    bool open(int fd, int errorNumber, QIODevice::OpenMode mode);

    /**
     * Abandons an opening that is in progress. An open port waits until the driver has sent everything, which flow
     * control may delay without limit, restores the line's former settings and closes the device file. What has
     * not been read is lost.
     */
    void close() override;

    /** Waits until the driver has sent everything (tcdrain(3)). Does nothing while the port is closed. */
    void flush();

    /** The modem lines, a combination of LineStatusBit; 0 while the port is closed, or when they cannot be read.
     */
    int lineStatus() const;

    /** True: there is no position in a serial line. */
    bool isSequential() const override;

    /** The number of bytes that read() can take at once; 0 while the port is closed. */
    qint64 bytesAvailable() const override;

    /** Whether a line feed has arrived. */
    bool canReadLine() const override;

    /**
     * Opens the device file @a portName (converted to Latin-1) without making it the controlling terminal and
     * without waiting for a carrier. May be called on any thread.
     * @param errorNumber receives errno on failure, otherwise 0.
     * @return the descriptor, which the caller must close; -1 on failure.
     */
    static int openFile(const QString& portName, int& errorNumber);

    /**
     * What users call the device: "Serial port 1" for "ttyS1" or "ttyAPP1", "Virtual serial port 1" for
     * "ttyCUSE1", "USB-serial adapter 1" for "ttyUSB1", "Bluetooth-serial adapter 1" for "rfcomm1".
     * @return a null string for any other device.
     */
    static QString friendlyName(const QString& deviceName);

    /**
     * For NSerialPortAllocator::requestSerialPortAllocation(): appends a request to the queue of this port, and
     * grants it at once when there was none.
     * @return false when the last request is a permanent one, or when this port is being destroyed.
     */
    bool requestPortAllocation(NSerialPortAllocator* allocator, NSerialPortAllocator::AllocationType type);

    /** For NSerialPortAllocator: passes the port on to the next request, if @a allocator holds it. */
    void releasePort(NSerialPortAllocator* allocator);

    /** For NSerialPortAllocator: removes the waiting requests of @a allocator. */
    void cancelPortAllocationRequests(NSerialPortAllocator* allocator);

public slots:
    /**
     * @{
     * Changes a setting; that of an open port at once, which discards what has been received and not read from the
     * driver (tcsetattr(3), TCSAFLUSH). Does nothing when the setting has that value.
     */
    void setBaudRate(NSerialPort::BaudRate baudRate);
    void setDataBits(NSerialPort::DataBits dataBits);
    void setParity(NSerialPort::ParityType parity);
    void setStopBits(NSerialPort::StopBits stopBits);
    void setFlowControl(NSerialPort::FlowControlType flowControl);
    /** @} */

    /** @{ Sets or clears an output line. Does nothing while the port is closed. */
    void setDtr(bool set = true);
    void setRts(bool set = true);
    /** @} */

signals:
    /** asyncOpen() has succeeded. */
    void opened();

    /** asyncOpen() has failed, for the reason that errorString() gives. */
    void openingError();

protected:
    /** Takes bytes from the buffer. @return how many; -1 when there are none and will be none. */
    qint64 readData(char* data, qint64 maxSize) override;

    /** Passes bytes to the driver. @return how many it has taken; -1 on failure, see errorString(). */
    qint64 writeData(const char* data, qint64 maxSize) override;

    /** Completes an asynchronous opening. */
    void customEvent(QEvent* event) override;

private slots:
    void handleAsyncOpenTimeout();
    void canRead();

private:
    Q_DISABLE_COPY(NSerialPort)

    typedef QPair<NSerialPortAllocator*, NSerialPortAllocator::AllocationType> Request;

    enum Setting {
        BaudRateSetting = 0x01,
        DataBitsSetting = 0x02,
        ParitySetting = 0x04,
        StopBitsSetting = 0x10,
        FlowControlSetting = 0x20,
        AllSettings = BaudRateSetting | DataBitsSetting | ParitySetting | StopBitsSetting | FlowControlSetting
    };

    template <typename Value> void changeSetting(Value& setting, Value value, Setting bit);
    void updatePortSettings();
    void setFlowControlFlags(tcflag_t inputFlags, tcflag_t controlFlags, bool rs485);
    void setRs485Mode(bool on);
    void setModemLine(int line, bool set);
    void abandonOpening();
    void finishReading(const QString& reason);
    void removeRequests(NSerialPortAllocator* allocator, int begin);

    QString m_portName;
    QString m_deviceName;
    QString m_friendlyName;
    PortSettings m_settings;
    QIODevice::OpenMode m_asyncOpenMode;                 ///< 0 when no asynchronous opening is in progress
    NSerialPortFileOpeningWorkerThread* m_openingThread; ///< null when no asynchronous opening is in progress
    QTimer m_asyncOpenTimer;
    int m_fd;                    ///< -1 while closed
    QSocketNotifier* m_notifier; ///< null while closed, and while the port is being closed
    termios m_savedTermios;
    termios m_termios;
    int m_changedSettings; ///< the settings to be applied, a combination of Setting
    QByteArray m_readBuffer;
    QList<Request> m_allocationQueue; ///< the first request is that of the holder

    int m_readBufferBegin; ///< where the unread bytes begin; those before are removed when more arrive
    bool m_isBeingDestroyed;
    int m_grantDepth;     ///< how many calls of releasePort() are granting requests
    bool m_isHeadWaiting; ///< the first request of the queue has not been granted yet
};

#undef NSERIALPORT_INT

#endif
