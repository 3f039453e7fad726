// Serial ports on the kernel's drivers for 8250 UARTs and USB serial adapters, in the virtual device.
#include "nvirtualdevice.h"

#include "support/nmessagerecorder.h"
#include "support/ntestwait.h"

#include <nbase/serial/nseriallistener.h>
#include <nbase/serial/nserialport.h>

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <linux/serial.h>
#include <string.h>
#include <sys/ioctl.h>

Q_DECLARE_METATYPE(NSerialPort*)
Q_DECLARE_METATYPE(NSerialPort::PortSettings)

namespace {

const char* const Uarts = "8250";
const char* const UsbAdapters = "USB";

// From <asm/termios.h>, which cannot be included together with <termios.h>.
const int LineOut1 = 0x2000;
const int LineLoop = 0x8000;

const int ManyBytes = 1024 * 1024;
const int ManyBytesTimeout = 280000; // milliseconds

const NSerialPort::PortSettings DefaultSettings = {
    NSerialPort::BaudRate9600, NSerialPort::DataBits8, NSerialPort::ParityNone, NSerialPort::StopBits1,
    NSerialPort::FlowControlNone};

NSerialPort::PortSettings withSpeed(NSerialPort::BaudRate baudRate)
{
    NSerialPort::PortSettings settings = DefaultSettings;
    settings.baudRate = baudRate;
    return settings;
}

/** The ends of the line between two ports of this kind; empty while they are not there. */
QString firstPort(const QByteArray& kind)
{
    return kind == Uarts ? QString::fromLatin1("/dev/ttyS1") : NVirtualDevice::usbSerialPort("usb0");
}

QString secondPort(const QByteArray& kind)
{
    return kind == Uarts ? QString::fromLatin1("/dev/ttyS2") : NVirtualDevice::usbSerialPort("usb1");
}

/** The device itself, beside the port that is tested. */
class Device
{
public:
    explicit Device(const QString& portName)
    {
        int errorNumber;
        m_descriptor.reset(NSerialPort::openFile(portName, errorNumber));
    }

    bool isOpen() const { return m_descriptor.isOpen(); }
    int number() const { return m_descriptor.number(); }

    termios settings() const
    {
        termios settings;
        memset(&settings, 0, sizeof(settings));
        tcgetattr(number(), &settings);
        return settings;
    }

    /** Everything that tcgetattr(3) reports. */
    QByteArray settingsText() const
    {
        const termios now = settings();
        QByteArray text;
        const unsigned values[] = {now.c_iflag, now.c_oflag,       now.c_cflag,      now.c_lflag,
                                   now.c_line,  cfgetispeed(&now), cfgetospeed(&now)};
        for (unsigned value : values)
            text += QByteArray::number(value, 16) + ' ';
        return text + QByteArray(reinterpret_cast<const char*>(now.c_cc), NCCS).toHex();
    }

    int breaks() const
    {
        serial_icounter_struct counters;
        memset(&counters, 0, sizeof(counters));
        return ioctl(number(), TIOCGICOUNT, &counters) == 0 ? counters.brk : -1;
    }

private:
    NFileDescriptor m_descriptor;
};

/** Connects the outputs of a UART with its own inputs. */
class Loopback
{
public:
    explicit Loopback(const Device& device)
        : m_device(device)
    {
        change(TIOCMBIS, LineLoop);
    }

    ~Loopback() { change(TIOCMBIC, LineLoop | LineOut1); }

    bool change(unsigned long request, int lines) const { return ioctl(m_device.number(), request, &lines) == 0; }

private:
    Q_DISABLE_COPY(Loopback)

    const Device& m_device;
};

/** Adds what arrives until there are @a size bytes. @return whether they have arrived. */
bool receive(NSerialPort& port, QByteArray& received, int size, int timeout = 30000)
{
    return NTest::waitUntil(
        [&]() {
            received += port.readAll();
            return received.size() >= size;
        },
        timeout);
}

/** Two ports at the ends of a line. */
class Line
{
public:
    explicit Line(const QByteArray& kind, const NSerialPort::PortSettings& settings = DefaultSettings)
        : first(firstPort(kind), settings, nullptr)
        , second(secondPort(kind), settings, nullptr)
    {
    }

    bool open()
    {
        return first.open(QIODevice::ReadWrite) && second.open(QIODevice::ReadWrite) && skip(first, second) &&
               skip(second, first);
    }

    NSerialPort first;
    NSerialPort second;

private:
    // What an earlier test has sent may still be on its way.
    static bool skip(NSerialPort& from, NSerialPort& to)
    {
        const QByteArray mark("end of what was sent before");
        QByteArray received;
        return from.write(mark) == mark.size() && NTest::waitUntil([&]() {
                   received += to.readAll();
                   return received.endsWith(mark);
               });
    }
};

/** Sends all of @a data as the driver takes it, and receives at the same time. */
bool transfer(NSerialPort& from, NSerialPort& to, const QByteArray& data, QByteArray& received)
{
    int sent = 0;
    return NTest::waitUntil(
        [&]() {
            const qint64 count = from.write(data.constData() + sent, data.size() - sent);
            sent += int(qMax(count, qint64(0)));
            received += to.readAll();
            return received.size() >= data.size();
        },
        ManyBytesTimeout);
}

/** Bytes without a pattern that a loss could hide in, the same in each run. */
QByteArray manyBytes(int size)
{
    QByteArray bytes(size, '\0');
    quint32 state = 1;
    for (int i = 0; i < size; ++i) {
        state = state * 1664525 + 1013904223;
        bytes[i] = char(state >> 24);
    }
    return bytes;
}

int entries(const char* directory)
{
    return QDir(QString::fromLatin1(directory))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

} // namespace

class tst_SerialDevices : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void settingsReachTheDriver_data();
    void settingsReachTheDriver();
    void changedSettingsReachTheDriver_data() { settingsReachTheDriver_data(); }
    void changedSettingsReachTheDriver();
    void driverKeepsASpeedThatItCannotExceed();
    void formerSettingsAreRestored_data() { addKinds(); }
    void formerSettingsAreRestored();
    void modemLinesOfAUart();
    void modemLinesOfAnAdapter();
    void driverWithoutRs485_data() { addKinds(); }
    void driverWithoutRs485();

    void everyByteArrives_data();
    void everyByteArrives();
    void manyBytesArrive_data() { addKinds(); }
    void manyBytesArrive();
    void breakIsAZeroByte();

    void unpluggedWhileOpen();
    void unpluggedWhileBeingRead();
    void unpluggedWhileWriting();
    void unpluggedWhileBeingOpened();
    void nameIsTakenUntilThePortIsClosed();
    void unpluggedWhileListenedTo();
    void listenerFindsAnAdapterThatIsPluggedInLater();

private:
    static void addKinds();
    static QString pluggedIn(const char* serialNumber);
    static bool plugIn();
    static bool unplug();

    int m_descriptors;
    int m_threads;
};

void tst_SerialDevices::addKinds()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::newRow("8250") << QByteArray(Uarts);
    QTest::newRow("USB") << QByteArray(UsbAdapters);
}

// The kernel needs a moment to find it.
QString tst_SerialDevices::pluggedIn(const char* serialNumber)
{
    NTest::waitUntil([&]() { return !NVirtualDevice::usbSerialPort(serialNumber).isEmpty(); });
    return NVirtualDevice::usbSerialPort(serialNumber);
}

bool tst_SerialDevices::plugIn()
{
    return NVirtualDevice::request("plug usb0").isEmpty() && !pluggedIn("usb0").isEmpty();
}

bool tst_SerialDevices::unplug()
{
    return NVirtualDevice::request("unplug usb0").isEmpty() &&
           NTest::waitUntil([]() { return NVirtualDevice::usbSerialPort("usb0").isEmpty(); });
}

void tst_SerialDevices::initTestCase()
{
    qRegisterMetaType<NSerialPort*>("NSerialPort*");
    QVERIFY(!pluggedIn("usb0").isEmpty());
    QVERIFY(!pluggedIn("usb1").isEmpty());
}

void tst_SerialDevices::init()
{
    if (NVirtualDevice::usbSerialPort("usb0").isEmpty())
        QVERIFY(plugIn());
    m_descriptors = entries("/proc/self/fd");
    m_threads = entries("/proc/self/task");
}

void tst_SerialDevices::cleanup()
{
    NTRY_COMPARE(entries("/proc/self/fd"), m_descriptors);
    NTRY_COMPARE(entries("/proc/self/task"), m_threads);
}

// ---- settings and lines ----

void tst_SerialDevices::settingsReachTheDriver_data()
{
    typedef NSerialPort P;
    static const struct
    {
        P::BaudRate baudRate;
        speed_t speed;
    } speeds[] = {{P::BaudRate110, B110},     {P::BaudRate300, B300},       {P::BaudRate600, B600},
                  {P::BaudRate1200, B1200},   {P::BaudRate2400, B2400},     {P::BaudRate4800, B4800},
                  {P::BaudRate9600, B9600},   {P::BaudRate19200, B19200},   {P::BaudRate38400, B38400},
                  {P::BaudRate57600, B57600}, {P::BaudRate115200, B115200}, {P::BaudRate230400, B230400}};
    static const struct
    {
        const char* name;
        P::DataBits dataBits;
        P::ParityType parity;
        P::StopBits stopBits;
        P::FlowControlType flowControl;
        tcflag_t controlFlags;
        tcflag_t inputFlags;
    } rows[] = {
        {"7 data bits", P::DataBits7, P::ParityNone, P::StopBits1, P::FlowControlNone, CS7, 0},
        {"even parity", P::DataBits8, P::ParityEven, P::StopBits1, P::FlowControlNone, CS8 | PARENB, 0},
        {"odd parity", P::DataBits8, P::ParityOdd, P::StopBits1, P::FlowControlNone, CS8 | PARENB | PARODD, 0},
        {"2 stop bits", P::DataBits8, P::ParityNone, P::StopBits2, P::FlowControlNone, CS8 | CSTOPB, 0},
        {"RTS and CTS", P::DataBits8, P::ParityNone, P::StopBits1, P::FlowControlHardware, CS8 | CRTSCTS, 0},
        {"XON and XOFF", P::DataBits8, P::ParityNone, P::StopBits1, P::FlowControlXonXoff, CS8,
         IXON | IXOFF | IXANY},
        {"all at once", P::DataBits7, P::ParityOdd, P::StopBits2, P::FlowControlHardware,
         CS7 | PARENB | PARODD | CSTOPB | CRTSCTS, 0},
    };
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<NSerialPort::PortSettings>("settings");
    QTest::addColumn<uint>("speed");
    QTest::addColumn<uint>("controlFlags");
    QTest::addColumn<uint>("inputFlags");
    for (const char* kind : {Uarts, UsbAdapters}) {
        const QByteArray prefix = QByteArray(kind) + ", ";
        for (const auto& row : speeds) {
            // See driverKeepsASpeedThatItCannotExceed().
            if (row.baudRate <= 115200 || kind == UsbAdapters) {
                QTest::newRow((prefix + QByteArray::number(row.baudRate)).constData())
                    << QByteArray(kind) << withSpeed(row.baudRate) << uint(row.speed) << uint(CS8) << 0u;
            }
        }
        for (const auto& row : rows) {
            const NSerialPort::PortSettings settings = {
                P::BaudRate4800, row.dataBits, row.parity, row.stopBits, row.flowControl};
            QTest::newRow((prefix + row.name).constData())
                << QByteArray(kind) << settings << uint(B4800) << uint(row.controlFlags) << uint(row.inputFlags);
        }
    }
}

namespace {

void verifySettings(const Device& device)
{
    QFETCH(uint, speed);
    QFETCH(uint, controlFlags);
    QFETCH(uint, inputFlags);
    const termios now = device.settings();
    QCOMPARE(uint(cfgetospeed(&now)), speed);
    QCOMPARE(uint(cfgetispeed(&now)), speed);
    QCOMPARE(uint(now.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS)), controlFlags);
    QCOMPARE(uint(now.c_iflag & (IXON | IXOFF | IXANY)), inputFlags);
}

} // namespace

void tst_SerialDevices::settingsReachTheDriver()
{
    QFETCH(QByteArray, kind);
    QFETCH(NSerialPort::PortSettings, settings);
    NSerialPort port(firstPort(kind), settings, nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    const Device device(port.portName());
    verifySettings(device);
}

void tst_SerialDevices::changedSettingsReachTheDriver()
{
    QFETCH(QByteArray, kind);
    QFETCH(NSerialPort::PortSettings, settings);
    NSerialPort port(firstPort(kind), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    port.setBaudRate(settings.baudRate);
    port.setDataBits(settings.dataBits);
    port.setParity(settings.parity);
    port.setStopBits(settings.stopBits);
    port.setFlowControl(settings.flowControl);
    const Device device(port.portName());
    verifySettings(device);
}

// The clock of a UART of a PC allows 115,200 baud at most.
void tst_SerialDevices::driverKeepsASpeedThatItCannotExceed()
{
    NSerialPort port(firstPort(Uarts), withSpeed(NSerialPort::BaudRate19200), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    port.setBaudRate(NSerialPort::BaudRate230400);
    const Device device(port.portName());
    const termios now = device.settings();
    QCOMPARE(uint(cfgetospeed(&now)), uint(B19200));
    QCOMPARE(port.baudRate(), NSerialPort::BaudRate230400);
    QCOMPARE(port.write("still open"), qint64(10));
}

void tst_SerialDevices::formerSettingsAreRestored()
{
    QFETCH(QByteArray, kind);
    const Device device(firstPort(kind));
    termios former = device.settings();
    cfsetspeed(&former, B2400);
    former.c_cflag =
        (former.c_cflag & ~tcflag_t(CSIZE | CLOCAL)) | CS7 | PARENB | PARODD | CSTOPB | CRTSCTS | HUPCL;
    former.c_iflag = ICRNL | IXON | INPCK;
    former.c_oflag = OPOST | ONLCR;
    former.c_lflag = ICANON | ECHO | ISIG;
    former.c_cc[VINTR] = 7;
    former.c_cc[VSTART] = 5;
    former.c_cc[VMIN] = 9;
    QCOMPARE(tcsetattr(device.number(), TCSANOW, &former), 0);
    const QByteArray formerText = device.settingsText();

    NSerialPort port(firstPort(kind), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    const termios now = device.settings();
    QCOMPARE(uint(cfgetospeed(&now)), uint(B9600));
    QCOMPARE(uint(now.c_lflag & (ICANON | ECHO | ISIG)), 0u);
    QCOMPARE(uint(now.c_oflag & OPOST), 0u);
    port.setBaudRate(NSerialPort::BaudRate57600);
    port.close();
    QCOMPARE(device.settingsText(), formerText);
}

// The outputs RTS, DTR, OUT1 and OUT2 are connected with CTS, DSR, RI and DCD. The driver needs OUT2 for its
// interrupts.
void tst_SerialDevices::modemLinesOfAUart()
{
    typedef NSerialPort P;
    NSerialPort port(firstPort(Uarts), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    const Device device(port.portName());
    QCOMPARE(port.lineStatus(), int(P::LineRts | P::LineDtr | P::LineCts | P::LineDsr | P::LineDcd));

    const Loopback loopback(device);
    port.setRts(false);
    port.setDtr(false);
    QCOMPARE(port.lineStatus(), int(P::LineDcd));
    port.setRts();
    QCOMPARE(port.lineStatus(), int(P::LineDcd | P::LineRts | P::LineCts));
    port.setDtr();
    QCOMPARE(port.lineStatus(), int(P::LineDcd | P::LineRts | P::LineCts | P::LineDtr | P::LineDsr));
    port.setRts(false);
    QCOMPARE(port.lineStatus(), int(P::LineDcd | P::LineDtr | P::LineDsr));
    QVERIFY(loopback.change(TIOCMBIS, LineOut1));
    QCOMPARE(port.lineStatus(), int(P::LineDcd | P::LineDtr | P::LineDsr | P::LineRi));
    // The other outputs stay as they are.
    port.setDtr(false);
    QCOMPARE(port.lineStatus(), int(P::LineDcd | P::LineRi));

    QByteArray received;
    QCOMPARE(port.write("to itself"), qint64(9));
    QVERIFY(receive(port, received, 9));
    QCOMPARE(received, QByteArray("to itself"));
}

void tst_SerialDevices::modemLinesOfAnAdapter()
{
    typedef NSerialPort P;
    const int inputs = P::LineCts | P::LineDsr | P::LineDcd;
    NSerialPort port(firstPort(UsbAdapters), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(port.lineStatus(), int(inputs | P::LineRts | P::LineDtr));
    port.setRts(false);
    QCOMPARE(port.lineStatus(), int(inputs | P::LineDtr));
    port.setDtr(false);
    QCOMPARE(port.lineStatus(), inputs);
    port.setRts();
    QCOMPARE(port.lineStatus(), int(inputs | P::LineRts));
}

void tst_SerialDevices::driverWithoutRs485()
{
    QFETCH(QByteArray, kind);
    NSerialPort::PortSettings settings = DefaultSettings;
    settings.flowControl = NSerialPort::FlowControlRs485Rts;
    Line line(kind, settings);
    QVERIFY(line.open());
    const Device device(line.first.portName());
    serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    rs485.flags = SER_RS485_ENABLED;
    QCOMPARE(ioctl(device.number(), TIOCSRS485, &rs485), -1);

    const termios now = device.settings();
    QCOMPARE(uint(now.c_cflag & CRTSCTS), 0u);
    QCOMPARE(uint(now.c_iflag & (IXON | IXOFF | IXANY)), 0u);
    QByteArray received;
    QCOMPARE(line.first.write("without RS-485"), qint64(14));
    QVERIFY(receive(line.second, received, 14));
    line.first.setFlowControl(NSerialPort::FlowControlNone);
    QCOMPARE(line.first.write("nor now"), qint64(7));
    QVERIFY(receive(line.second, received, 21));
    QCOMPARE(received, QByteArray("without RS-485nor now"));
}

// ---- data ----

void tst_SerialDevices::everyByteArrives_data()
{
    static const struct
    {
        const char* name;
        NSerialPort::FlowControlType type;
    } rows[] = {
        {"no flow control", NSerialPort::FlowControlNone}, {"RTS and CTS", NSerialPort::FlowControlHardware}};
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("flowControl");
    for (const char* kind : {Uarts, UsbAdapters}) {
        for (const auto& row : rows)
            QTest::newRow((QByteArray(kind) + ", " + row.name).constData()) << QByteArray(kind) << int(row.type);
    }
}

void tst_SerialDevices::everyByteArrives()
{
    QFETCH(QByteArray, kind);
    QFETCH(int, flowControl);
    NSerialPort::PortSettings settings = DefaultSettings;
    settings.flowControl = NSerialPort::FlowControlType(flowControl);
    Line line(kind, settings);
    QVERIFY(line.open());
    QByteArray there;
    for (int i = 0; i < 256; ++i)
        there += char(i);
    QByteArray back;
    for (int i = 255; i >= 0; --i)
        back += char(i);
    QCOMPARE(line.first.write(there), qint64(there.size()));
    QCOMPARE(line.second.write(back), qint64(back.size()));
    QByteArray receivedThere;
    QByteArray receivedBack;
    QVERIFY(receive(line.second, receivedThere, there.size()));
    QVERIFY(receive(line.first, receivedBack, back.size()));
    QCOMPARE(receivedThere, there);
    QCOMPARE(receivedBack, back);
}

void tst_SerialDevices::manyBytesArrive()
{
    QFETCH(QByteArray, kind);
    Line line(kind, withSpeed(kind == Uarts ? NSerialPort::BaudRate115200 : NSerialPort::BaudRate230400));
    QVERIFY(line.open());
    const QByteArray data = manyBytes(ManyBytes);
    QByteArray received;
    transfer(line.first, line.second, data, received);
    QCOMPARE(received.size(), data.size());
    QVERIFY(received == data);
}

void tst_SerialDevices::breakIsAZeroByte()
{
    Line line(Uarts);
    QVERIFY(line.open());
    const Device device(line.first.portName());
    const int breaks = device.breaks();
    QByteArray received;
    QCOMPARE(line.second.write("before"), qint64(6));
    QVERIFY(receive(line.first, received, 6));
    QCOMPARE(NVirtualDevice::request("break serial1"), QByteArray());
    QVERIFY(receive(line.first, received, 7));
    QCOMPARE(line.second.write("after"), qint64(5));
    QVERIFY(receive(line.first, received, 12));
    QCOMPARE(received, QByteArray("before\0after", 12));
    QCOMPARE(device.breaks(), breaks + 1);
}

// ---- unplugging ----

void tst_SerialDevices::unpluggedWhileOpen()
{
    Line line(UsbAdapters);
    QVERIFY(line.open());
    NSerialPort& port = line.first;
    const QString name = port.portName();
    QSignalSpy finished(&port, SIGNAL(readChannelFinished()));
    QVERIFY(unplug());
    NTRY_COMPARE(finished.count(), 1);
    QCOMPARE(port.errorString(), NSystem::errorText(EIO));
    QVERIFY(port.isOpen());
    QCOMPARE(port.bytesAvailable(), qint64(0));
    char byte;
    QCOMPARE(port.read(&byte, 1), qint64(-1));
    QCOMPARE(port.write("x"), qint64(-1));
    QCOMPARE(port.errorString(), NSystem::errorText(EIO));
    QCOMPARE(port.lineStatus(), 0);
    port.setRts(false);
    port.setBaudRate(NSerialPort::BaudRate2400);
    port.setFlowControl(NSerialPort::FlowControlRs485Rts);
    port.flush();
    port.close();
    QVERIFY(!port.isOpen());
    QVERIFY(!port.open(QIODevice::ReadWrite));
    QCOMPARE(port.errorString(), NSystem::errorText(ENOENT));

    QVERIFY(plugIn());
    QCOMPARE(NVirtualDevice::usbSerialPort("usb0"), name);
    port.setFlowControl(NSerialPort::FlowControlNone);
    QVERIFY(port.open(QIODevice::ReadWrite));
    QByteArray received;
    QCOMPARE(port.write("back again"), qint64(10));
    QVERIFY(receive(line.second, received, 10));
    QCOMPARE(received, QByteArray("back again"));
    received.clear();
    QCOMPARE(line.second.write("and heard"), qint64(9));
    QVERIFY(receive(port, received, 9));
    QCOMPARE(received, QByteArray("and heard"));
    QCOMPARE(finished.count(), 1);
}

void tst_SerialDevices::unpluggedWhileBeingRead()
{
    Line line(UsbAdapters);
    QVERIFY(line.open());
    QSignalSpy finished(&line.first, SIGNAL(readChannelFinished()));
    const QByteArray data = manyBytes(ManyBytes);
    QByteArray received;
    int sent = 0;
    bool isUnplugged = false;
    QByteArray unplugging;
    QVERIFY(NTest::waitUntil([&]() {
        sent += int(qMax(line.second.write(data.constData() + sent, data.size() - sent), qint64(0)));
        if (received.size() < ManyBytes / 50) {
            received += line.first.readAll();
        } else if (!isUnplugged) {
            unplugging = NVirtualDevice::request("unplug usb0");
            isUnplugged = true;
        }
        return finished.count() > 0;
    }));
    QCOMPARE(unplugging, QByteArray());
    QCOMPARE(line.first.errorString(), NSystem::errorText(EIO));
    // What had arrived before can still be read.
    received += line.first.readAll();
    QVERIFY(received.size() < data.size());
    QVERIFY(received == data.left(received.size()));
    char byte;
    QCOMPARE(line.first.read(&byte, 1), qint64(-1));
    NTRY_VERIFY(NVirtualDevice::usbSerialPort("usb0").isEmpty());
}

void tst_SerialDevices::unpluggedWhileWriting()
{
    Line line(UsbAdapters);
    QVERIFY(line.open());
    const QByteArray data = manyBytes(4096);
    for (int i = 0; i < 10; ++i) {
        if (line.first.write(data) < 0)
            QCOMPARE(line.first.errorString(), NSystem::errorText(EAGAIN));
    }
    QVERIFY(unplug());
    QVERIFY(NTest::waitUntil(
        [&]() { return line.first.write(data) < 0 && line.first.errorString() == NSystem::errorText(EIO); }));
    // Does not wait for what can no longer be sent.
    line.first.close();
}

void tst_SerialDevices::unpluggedWhileBeingOpened()
{
    for (int round = 0; round < 10; ++round) {
        NSerialPort port(pluggedIn("usb0"), nullptr);
        QSignalSpy opened(&port, SIGNAL(opened()));
        QSignalSpy failed(&port, SIGNAL(openingError()));
        QSignalSpy finished(&port, SIGNAL(readChannelFinished()));
        port.asyncOpen(QIODevice::ReadWrite, -1);
        if (round % 2 == 0)
            QTest::qWait(round);
        QCOMPARE(NVirtualDevice::request("unplug usb0"), QByteArray());
        NTRY_COMPARE(finished.count() + failed.count(), 1);
        QCOMPARE(opened.count(), finished.count());
        port.close();
        NTRY_VERIFY(NVirtualDevice::usbSerialPort("usb0").isEmpty());
        QVERIFY(plugIn());
    }
}

// The kernel gives the name to another device only after the port has been closed.
void tst_SerialDevices::nameIsTakenUntilThePortIsClosed()
{
    const QString name = pluggedIn("usb0");
    NSerialPort port(name, nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    QVERIFY(unplug());
    QVERIFY(plugIn());
    QVERIFY(NVirtualDevice::usbSerialPort("usb0") != name);
    port.close();
    QVERIFY(unplug());
    QVERIFY(plugIn());
    QCOMPARE(NVirtualDevice::usbSerialPort("usb0"), name);
}

void tst_SerialDevices::unpluggedWhileListenedTo()
{
    NSerialPort port(pluggedIn("usb0"), nullptr);
    NSerialPort other(pluggedIn("usb1"), nullptr);
    NSerialListener listener(nullptr);
    QSignalSpy started(&listener, SIGNAL(listeningStarted(NSerialPort*)));
    QSignalSpy failed(&listener, SIGNAL(listeningError(NSerialPort*)));
    QSignalSpy received(&listener, SIGNAL(dataReceived(NSerialPort*, QByteArray)));
    QVERIFY(other.open(QIODevice::ReadWrite));
    QVERIFY(listener.startListeningOnSerialPort(&port));
    NTRY_COMPARE(started.count(), 1);
    QCOMPARE(other.write("heard"), qint64(5));
    NTRY_VERIFY(!received.isEmpty());

    NMessageRecorder messages;
    QVERIFY(unplug());
    NTRY_COMPARE(failed.count(), 1);
    QCOMPARE(
        messages.take(), QStringList(QString::fromLatin1("warning: Listening error on serial port %1: %2")
                                         .arg(port.portName(), NSystem::errorText(EIO))));
    QVERIFY(port.isOpen());
    // The retry finds the port open, although nothing arrives any more.
    NTRY_COMPARE(started.count(), 2);
    QCOMPARE(failed.count(), 1);

    listener.stopListeningOnSerialPort(&port);
    QVERIFY(!port.isOpen());
    QVERIFY(plugIn());
    QCOMPARE(NVirtualDevice::usbSerialPort("usb0"), port.portName());
    QVERIFY(listener.startListeningOnSerialPort(&port));
    NTRY_COMPARE(started.count(), 3);
    received.clear();
    QCOMPARE(other.write("heard again"), qint64(11));
    NTRY_VERIFY(!received.isEmpty());
    QCOMPARE(failed.count(), 1);
    QCOMPARE(messages.take(), QStringList());
}

void tst_SerialDevices::listenerFindsAnAdapterThatIsPluggedInLater()
{
    NSerialPort port(pluggedIn("usb0"), nullptr);
    NSerialPort other(pluggedIn("usb1"), nullptr);
    QVERIFY(other.open(QIODevice::ReadWrite));
    QVERIFY(unplug());

    NSerialListener listener(nullptr);
    QSignalSpy started(&listener, SIGNAL(listeningStarted(NSerialPort*)));
    QSignalSpy failed(&listener, SIGNAL(listeningError(NSerialPort*)));
    QSignalSpy received(&listener, SIGNAL(dataReceived(NSerialPort*, QByteArray)));
    const NMessageRecorder messages;
    QVERIFY(listener.startListeningOnSerialPort(&port));
    NTRY_COMPARE(failed.count(), 1);
    QCOMPARE(port.errorString(), NSystem::errorText(ENOENT));
    QVERIFY(plugIn());
    NTRY_COMPARE(started.count(), 1);
    QCOMPARE(other.write("found"), qint64(5));
    NTRY_VERIFY(!received.isEmpty());
}

QTEST_MAIN(tst_SerialDevices)

#include "tst_serialdevices.moc"
