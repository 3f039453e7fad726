#include <nbase/serial/nserialport.h>

#include "nporthandler.h"

#include "support/nsimulateduart.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nsystem/nfiledescriptor_p.h>
#include <nsystem/nlatin1_p.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <type_traits>
#include <vector>

using namespace NSystemCalls;

typedef NSerialPort::PortSettings Settings;
typedef QList<QByteArray> Lines;

// What applications rely on when they write "const NSerialPort::PortSettings settings = {...}".
static_assert(std::is_pod<Settings>::value, "PortSettings is an aggregate");

namespace {

enum Setting { BaudRate, DataBits, Parity, StopBits, FlowControl };

const tcflag_t XonXoff = IXON | IXOFF | IXANY;
const tcflag_t Speed = CBAUD | CBAUDEX;
const tcflag_t InputSpeedZero = 020000000000; // IBAUD0, which glibc keeps in c_iflag; see cfsetspeed(3)
const int Disabled = 0x5a;                    // what fpathconf() reports in these tests

/** The effect of a value: the bits of these masks get these values. */
struct Effect
{
    tcflag_t inputMask;
    tcflag_t input;
    tcflag_t controlMask;
    tcflag_t control;
};

Effect controlEffect(tcflag_t mask, tcflag_t bits)
{
    const Effect effect = {0, 0, mask, bits};
    return effect;
}

Effect flowEffect(tcflag_t input, tcflag_t control)
{
    const Effect effect = {XonXoff, input, CRTSCTS, control};
    return effect;
}

const Effect NoEffect = {0, 0, 0, 0};

/** A port that counts its signals and gives access to what QIODevice calls. */
class Port : public NSerialPort
{
    Q_OBJECT

public:
    explicit Port(const QString& portName)
        : NSerialPort(portName, nullptr)
    {
        count();
    }

    Port(const QString& portName, const Settings& settings)
        : NSerialPort(portName, settings, nullptr)
    {
        count();
    }

    using NSerialPort::readData;

    QSocketNotifier* notifier() const { return findChild<QSocketNotifier*>(); }

    int readyReads;
    QList<qint64> available; ///< at each readyRead()
    int channelsFinished;
    int openingResults;

private slots:
    void countReadyRead()
    {
        ++readyReads;
        available << bytesAvailable();
    }

    void countChannelFinished() { ++channelsFinished; }
    void countOpeningResult() { ++openingResults; }

private:
    void count()
    {
        readyReads = 0;
        channelsFinished = 0;
        openingResults = 0;
        connect(this, SIGNAL(readyRead()), SLOT(countReadyRead()));
        connect(this, SIGNAL(readChannelFinished()), SLOT(countChannelFinished()));
        connect(this, SIGNAL(opened()), SLOT(countOpeningResult()));
        connect(this, SIGNAL(openingError()), SLOT(countOpeningResult()));
    }
};

/** Pipes that are readable all the time. The first one that is noticed changes the baud rate of a port. */
class Neighbours : public QObject
{
    Q_OBJECT

public:
    explicit Neighbours(Port* port)
        : m_port(port)
        , m_wasFirst(false)
        , m_hasActed(false)
    {
    }

    ~Neighbours() override
    {
        for (int descriptor : m_descriptors)
            ::close(descriptor);
    }

    void add(int count)
    {
        for (int i = 0; i < count; ++i) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0 || ::write(ends[1], "x", 1) != 1)
                qFatal("no pipe: %s", strerror(errno));
            m_descriptors << ends[0] << ends[1];
            connect(
                new QSocketNotifier(ends[0], QSocketNotifier::Read, this), SIGNAL(activated(int)), SLOT(act()));
        }
    }

    /** Whether a pipe was noticed before the port had read. */
    bool wasFirst() const { return m_wasFirst; }

private slots:
    void act()
    {
        if (m_hasActed)
            return;
        m_hasActed = true;
        m_wasFirst = m_port->readyReads == 0;
        m_port->setBaudRate(NSerialPort::BaudRate115200);
    }

private:
    Port* m_port;
    bool m_wasFirst;
    bool m_hasActed;
    QList<int> m_descriptors;
};

/** Lets input be discarded while its notification is pending, in the event loop of this thread. */
class DiscardingThread : public QThread
{
    Q_OBJECT

public:
    DiscardingThread(NSimulatedUart* uart, const QByteArray& dispatcher)
        : m_uart(uart)
        , m_dispatcher(dispatcher)
    {
    }

    QString error() const { return m_error; }

protected:
    void run() override
    {
        // Which notifier of a turn comes first is up to the event dispatcher. Qt's own takes them in the order of
        // a hash of their numbers, the same in each round: so each round uses other numbers.
        std::vector<NFileDescriptor> usedNumbers;
        for (int round = 0; round < 50 && m_error.isNull(); ++round) {
            if (tryOnce())
                return;
            usedNumbers.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        if (m_error.isNull())
            m_error = latin1("the port was always noticed first");
    }

private:
    bool tryOnce()
    {
        QEventLoop loop;
        const QString dispatcher =
            QString::fromLatin1(QAbstractEventDispatcher::instance()->metaObject()->className());
        if (!dispatcher.contains(QString::fromLatin1(m_dispatcher))) {
            m_error = latin1("the thread has a ") + dispatcher;
            return false;
        }
        Port port(m_uart->portName());
        Neighbours neighbours(&port);
        neighbours.add(4);
        port.open(QIODevice::ReadWrite);
        neighbours.add(4);
        m_uart->send("discarded");
        while (m_uart->waitingBytes() != 9)
            QThread::yieldCurrentThread();
        loop.processEvents();
        if (!neighbours.wasFirst())
            return false;
        m_uart->send("arrives");
        for (int turn = 0; turn < 10000 && port.channelsFinished == 0 && port.bytesAvailable() < 7; ++turn) {
            loop.processEvents();
            QThread::yieldCurrentThread();
        }
        const QByteArray data = port.readAll();
        if (port.channelsFinished != 0)
            m_error = latin1("reading has ended: ") + port.errorString();
        else if (data != "arrives")
            m_error = latin1("received: ") + QString::fromLatin1(data);
        return true;
    }

    NSimulatedUart* m_uart;
    QByteArray m_dispatcher;
    QString m_error;
};

termios filledSettings(unsigned char byte)
{
    termios settings;
    memset(&settings, byte, sizeof(settings));
    return settings;
}

QByteArray hexadecimal(tcflag_t flags)
{
    return QByteArray::number(flags, 16).rightJustified(8, '0');
}

/** All that a driver gets of it. */
QByteArray text(const termios& settings)
{
    return "input " + hexadecimal(settings.c_iflag) + ", output " + hexadecimal(settings.c_oflag) + ", control " +
           hexadecimal(settings.c_cflag) + ", local " + hexadecimal(settings.c_lflag) + ", line " +
           QByteArray::number(settings.c_line) + ", characters " +
           QByteArray(reinterpret_cast<const char*>(settings.c_cc), NCCS).toHex() + ", speeds " +
           QByteArray::number(uint(::cfgetispeed(&settings))) + ' ' +
           QByteArray::number(uint(::cfgetospeed(&settings)));
}

QByteArray text(const serial_rs485& rs485)
{
    return QByteArray(reinterpret_cast<const char*>(&rs485), sizeof(rs485)).toHex();
}

/** What opening makes of a line with all bits 0 or all bits 1, with the default settings of a port. */
termios openedSettings(bool fromOnes)
{
    termios settings = filledSettings(fromOnes ? 0xff : 0);
    if (fromOnes) {
        settings.c_iflag = ~tcflag_t(
            IGNBRK | BRKINT | IGNPAR | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF |
            InputSpeedZero);
        settings.c_oflag = ~tcflag_t(OPOST);
        settings.c_lflag = ~tcflag_t(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN);
        settings.c_cflag = ~tcflag_t(Speed | CSIZE | CSTOPB | PARENB | CRTSCTS);
    }
    settings.c_cflag |= CREAD | CLOCAL | CS8;
    ::cfsetspeed(&settings, B9600);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    const int disabled[] = {VINTR, VQUIT, VSTART, VSTOP, VSUSP};
    for (int character : disabled)
        settings.c_cc[character] = Disabled;
    return settings;
}

termios changed(termios settings, Setting setting, const Effect& effect)
{
    settings.c_iflag = (settings.c_iflag & ~effect.inputMask) | effect.input;
    settings.c_cflag = (settings.c_cflag & ~effect.controlMask) | effect.control;
    if (setting == BaudRate)
        ::cfsetspeed(&settings, effect.control);
    return settings;
}

void change(NSerialPort* port, Setting setting, int value)
{
    switch (setting) {
    case BaudRate:
        port->setBaudRate(NSerialPort::BaudRate(value));
        break;
    case DataBits:
        port->setDataBits(NSerialPort::DataBits(value));
        break;
    case Parity:
        port->setParity(NSerialPort::ParityType(value));
        break;
    case StopBits:
        port->setStopBits(NSerialPort::StopBits(value));
        break;
    case FlowControl:
        port->setFlowControl(NSerialPort::FlowControlType(value));
        break;
    }
}

Settings settingsWith(Setting setting, int value)
{
    Settings settings = {
        NSerialPort::BaudRate9600, NSerialPort::DataBits8, NSerialPort::ParityNone, NSerialPort::StopBits1,
        NSerialPort::FlowControlNone};
    switch (setting) {
    case BaudRate:
        settings.baudRate = NSerialPort::BaudRate(value);
        break;
    case DataBits:
        settings.dataBits = NSerialPort::DataBits(value);
        break;
    case Parity:
        settings.parity = NSerialPort::ParityType(value);
        break;
    case StopBits:
        settings.stopBits = NSerialPort::StopBits(value);
        break;
    case FlowControl:
        settings.flowControl = NSerialPort::FlowControlType(value);
        break;
    }
    return settings;
}

int valueOf(const Settings& settings, Setting setting)
{
    const int values[] = {
        settings.baudRate, settings.dataBits, settings.parity, settings.stopBits, settings.flowControl};
    return values[setting];
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

} // namespace

Q_DECLARE_METATYPE(Setting)
Q_DECLARE_METATYPE(Effect)

class tst_NSerialPort : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void friendlyNameFollowsThePrefix_data();
    void friendlyNameFollowsThePrefix();
    void namesComeFromThePath_data();
    void namesComeFromThePath();
    void defaultSettings();
    void gettersReturnTheSettings_data();
    void gettersReturnTheSettings();
    void enumerationsAreRegistered_data();
    void enumerationsAreRegistered();
    void settersAreSlots_data();
    void settersAreSlots();

    void constructorDoesNotOpenTheDevice();
    void openingUsesTheseFlags_data();
    void openingUsesTheseFlags();
    void nameIsConvertedToLatin1();
    void openModeIsThatOfTheCaller_data();
    void openModeIsThatOfTheCaller();
    void openingFailsWithTheReason_data();
    void openingFailsWithTheReason();
    void openingWithoutAModeDoesNothing();
    void openingAnOpenPortDoesNothing();
    void completionWithoutAModeClosesTheDescriptor();
    void completionOnAnOpenPortClosesTheDescriptor();
    void completionFailsWithTheReason();
    void descriptorWithoutSettingsOpens();
    void successfulOpeningLeavesNoError();

    void openingMakesTheLineRaw_data();
    void openingMakesTheLineRaw();
    void settingIsAppliedByOpening_data();
    void settingIsAppliedByOpening();
    void settingOfAClosedPortIsAppliedByOpening_data();
    void settingOfAClosedPortIsAppliedByOpening();
    void settingOfAnOpenPortIsAppliedAtOnce_data();
    void settingOfAnOpenPortIsAppliedAtOnce();
    void currentValueIsNotAppliedAgain_data();
    void currentValueIsNotAppliedAgain();
    void unlistedValueAtOpening_data();
    void unlistedValueAtOpening();
    void unlistedValueOfAnOpenPort_data();
    void unlistedValueOfAnOpenPort();
    void everyOpeningAppliesAllSettings();
    void parityNoneLeavesTheKindOfParity();
    void realTerminalGetsTheSettings();
    void refusedSettingsAreIgnored();
    void closingRestoresTheSettings_data();
    void closingRestoresTheSettings();
    void closingDrainsRestoresAndCloses();
    void closingAClosedPortDoesNothing();

    void rs485FollowsTheFlowControl_data();
    void rs485FollowsTheFlowControl();
    void rs485KeepsTheOtherSettings_data();
    void rs485KeepsTheOtherSettings();
    void rs485IsLeftAloneByOtherSettings();
    void rs485ThatCannotBeReadCountsAsOff_data();
    void rs485ThatCannotBeReadCountsAsOff();
    void rs485ThatCannotBeWrittenIsIgnored();

    void lineStatusHasABitForEachLine_data();
    void lineStatusHasABitForEachLine();
    void lineStatusIsZeroWhenItCannotBeRead();
    void outputLinesAreSetAndCleared_data();
    void outputLinesAreSetAndCleared();
    void outputLinesThatCannotBeReadCountAsCleared();
    void flushWaitsForTheDriver();
    void closedPortMakesNoCalls();

    void portIsSequential();
    void receivedBytesAreAnnounced();
    void allBytesPassUnchanged();
    void notificationReadsWhatIsWaitingOnce();
    void interruptedReadAddsNothing_data();
    void interruptedReadAddsNothing();
    void failedReadEndsReading_data();
    void failedReadEndsReading();
    void failedCountEndsReading_data();
    void failedCountEndsReading();
    void readOfZeroBytesEndsReading_data();
    void readOfZeroBytesEndsReading();
    void hangUpOfATerminalEndsReading();
    void closedPeerOfASocketEndsReading();
    void unreadBytesOutlastTheEnd();
    void nothingIsReadAfterTheEnd();
    void reopenedPortReadsAgain();
    void readDataReportsTheEnd();
    void readDataTakesFromTheFront();
    void bytesAvailableCountsBothBuffers();
    void linesAreRead();
    void closingDiscardsUnreadBytes();
    void largeBacklogIsReadInOddSizes();
    void bytesMayBeReadWhileOthersArrive();
    void discardedInputIsNoHangUp_data();
    void discardedInputIsNoHangUp();
    void discardingAfterTheEndDoesNotResumeReading();

    void writtenBytesArrive();
    void writeMayBeShort();
    void failedWriteReportsTheReason_data();
    void failedWriteReportsTheReason();
    void fullLineTakesNothing();

    void handlersMayDoAnything_data();
    void handlersMayDoAnything();
    void portMayBeClosedAndDeletedLaterInAboutToClose_data();
    void portMayBeClosedAndDeletedLaterInAboutToClose();
    void portMayBeMovedToAnotherThread();

private:
    void addSettings();
    bool sendAndWait(const QByteArray& data);

    QScopedPointer<NSimulatedUart> m_uart;
    QScopedPointer<Port> m_port;
    QScopedPointer<Answer> m_disabled;
};

void tst_NSerialPort::init()
{
    m_uart.reset(new NSimulatedUart);
    m_port.reset(new Port(m_uart->portName()));
    m_disabled.reset(new Answer(Calls(Fpathconf).onPath(m_uart->path()), [](const Invocation& invocation) {
        return invocation.flags == _PC_VDISABLE ? Disabled : 0;
    }));
}

void tst_NSerialPort::cleanup()
{
    m_port.reset();
    m_disabled.reset();
    m_uart.reset();
}

/** Sends and waits until the bytes have arrived at the device; the event loop does not run. */
bool tst_NSerialPort::sendAndWait(const QByteArray& data)
{
    const int size = m_uart->waitingBytes() + data.size();
    if (m_uart->send(data) != data.size())
        return false;
    QElapsedTimer timer;
    timer.start();
    while (m_uart->waitingBytes() != size) {
        if (timer.hasExpired(30000))
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

// ---- names and values ----

void tst_NSerialPort::friendlyNameFollowsThePrefix_data()
{
    QTest::addColumn<QString>("deviceName");
    QTest::addColumn<QString>("friendlyName");
    const struct
    {
        const char* deviceName;
        const char* friendlyName;
    } cases[] = {
        {"ttyS0", "Serial port 0"},
        {"ttyS1", "Serial port 1"},
        {"ttyS", "Serial port "},
        {"ttySAC2", "Serial port AC2"},
        {"ttyAPP3", "Serial port 3"},
        {"ttyAPP", "Serial port "},
        {"ttyCUSE12", "Virtual serial port 12"},
        {"ttyUSB0", "USB-serial adapter 0"},
        {"ttyUSB", "USB-serial adapter "},
        {"rfcomm7", "Bluetooth-serial adapter 7"},
        {"ttyS ttyS", "Serial port  ttyS"},
        {"ttyACM0", nullptr},
        {"ttys0", nullptr},
        {"TTYS0", nullptr},
        {"ttyusb0", nullptr},
        {"ttyAP3", nullptr},
        {"ttyCUS1", nullptr},
        {"RFCOMM0", nullptr},
        {"tty", nullptr},
        {"xttyS0", nullptr},
        {"pts/3", nullptr},
        {"", nullptr}};
    for (const auto& row : cases)
        QTest::newRow(row.deviceName) << latin1(row.deviceName) << QString::fromLatin1(row.friendlyName);
    QTest::newRow("null") << QString() << QString();
    QTest::newRow("not ASCII") << QString::fromUtf8("ttyUSB\xc3\xa9")
                               << QString::fromUtf8("USB-serial adapter \xc3\xa9");
}

void tst_NSerialPort::friendlyNameFollowsThePrefix()
{
    QFETCH(QString, deviceName);
    QFETCH(QString, friendlyName);
    QCOMPARE(NSerialPort::friendlyName(deviceName), friendlyName);
    QCOMPARE(NSerialPort::friendlyName(deviceName).isNull(), friendlyName.isNull());
    const NSerialPort port(latin1("/dev/") + deviceName, nullptr);
    QCOMPARE(port.friendlyName(), friendlyName);
    QCOMPARE(port.friendlyName().isNull(), friendlyName.isNull());
}

void tst_NSerialPort::namesComeFromThePath_data()
{
    QTest::addColumn<QString>("portName");
    QTest::addColumn<QString>("deviceName");
    QTest::newRow("device") << latin1("/dev/ttyS1") << latin1("ttyS1");
    QTest::newRow("subdirectory") << latin1("/dev/pts/3") << latin1("pts/3");
    QTest::newRow("any five characters") << latin1("12345ttyS1") << latin1("ttyS1");
    QTest::newRow("six characters") << latin1("/dev/a") << latin1("a");
    QTest::newRow("five characters") << latin1("/dev/") << QString();
    QTest::newRow("four characters") << latin1("/dev") << QString();
    QTest::newRow("empty") << latin1("") << QString();
    QTest::newRow("null") << QString() << QString();
}

void tst_NSerialPort::namesComeFromThePath()
{
    QFETCH(QString, portName);
    QFETCH(QString, deviceName);
    const NSerialPort port(portName, nullptr);
    QCOMPARE(port.portName(), portName);
    QCOMPARE(port.deviceName(), deviceName);
}

void tst_NSerialPort::defaultSettings()
{
    QObject parent;
    const NSerialPort* const port = new NSerialPort(latin1("/dev/ttyS0"), &parent);
    QCOMPARE(port->parent(), &parent);
    QCOMPARE(port->baudRate(), NSerialPort::BaudRate9600);
    QCOMPARE(port->dataBits(), NSerialPort::DataBits8);
    QCOMPARE(port->parity(), NSerialPort::ParityNone);
    QCOMPARE(port->stopBits(), NSerialPort::StopBits1);
    QCOMPARE(port->flowControl(), NSerialPort::FlowControlNone);
    const Settings settings = port->portSettings();
    QCOMPARE(settings.baudRate, NSerialPort::BaudRate9600);
    QCOMPARE(settings.dataBits, NSerialPort::DataBits8);
    QCOMPARE(settings.parity, NSerialPort::ParityNone);
    QCOMPARE(settings.stopBits, NSerialPort::StopBits1);
    QCOMPARE(settings.flowControl, NSerialPort::FlowControlNone);
}

/** Every listed value of every setting. */
void tst_NSerialPort::addSettings()
{
    QTest::addColumn<Setting>("setting");
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    QTest::addColumn<Effect>("effect");
    const struct
    {
        int baudRate;
        speed_t speed;
    } speeds[] = {{110, B110},     {300, B300},     {600, B600},       {1200, B1200},
                  {2400, B2400},   {4800, B4800},   {9600, B9600},     {19200, B19200},
                  {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};
    for (const auto& row : speeds) {
        const int other = row.baudRate == 9600 ? 230400 : 9600;
        QTest::newRow("baud rate " + QByteArray::number(row.baudRate))
            << BaudRate << other << row.baudRate << controlEffect(Speed, row.speed);
    }
    QTest::newRow("7 data bits") << DataBits << 8 << 7 << controlEffect(CSIZE, CS7);
    QTest::newRow("8 data bits") << DataBits << 7 << 8 << controlEffect(CSIZE, CS8);
    QTest::newRow("even parity") << Parity << 0 << 1 << controlEffect(PARENB | PARODD, PARENB);
    QTest::newRow("even parity after odd") << Parity << 2 << 1 << controlEffect(PARENB | PARODD, PARENB);
    QTest::newRow("odd parity") << Parity << 0 << 2 << controlEffect(PARENB | PARODD, PARENB | PARODD);
    QTest::newRow("odd parity after even") << Parity << 1 << 2 << controlEffect(PARENB | PARODD, PARENB | PARODD);
    QTest::newRow("no parity after even") << Parity << 1 << 0 << controlEffect(PARENB, 0);
    QTest::newRow("no parity after odd") << Parity << 2 << 0 << controlEffect(PARENB, 0);
    QTest::newRow("1 stop bit") << StopBits << 2 << 1 << controlEffect(CSTOPB, 0);
    QTest::newRow("2 stop bits") << StopBits << 1 << 2 << controlEffect(CSTOPB, CSTOPB);
    const Effect flows[] = {flowEffect(0, 0), flowEffect(0, CRTSCTS), flowEffect(XonXoff, 0), flowEffect(0, 0)};
    for (int from = 0; from < 4; ++from) {
        for (int to = 0; to < 4; ++to) {
            if (from != to) {
                QTest::newRow("flow control " + QByteArray::number(to) + " after " + QByteArray::number(from))
                    << FlowControl << from << to << flows[to];
            }
        }
    }
}

void tst_NSerialPort::gettersReturnTheSettings_data()
{
    addSettings();
}

void tst_NSerialPort::gettersReturnTheSettings()
{
    QFETCH(Setting, setting);
    QFETCH(int, from);
    QFETCH(int, to);
    NSerialPort port(m_uart->portName(), settingsWith(setting, from), nullptr);
    QCOMPARE(valueOf(port.portSettings(), setting), from);
    change(&port, setting, to);
    const Settings expected = settingsWith(setting, to);
    QCOMPARE(port.baudRate(), expected.baudRate);
    QCOMPARE(port.dataBits(), expected.dataBits);
    QCOMPARE(port.parity(), expected.parity);
    QCOMPARE(port.stopBits(), expected.stopBits);
    QCOMPARE(port.flowControl(), expected.flowControl);
    for (int other = BaudRate; other <= FlowControl; ++other)
        QCOMPARE(valueOf(port.portSettings(), Setting(other)), valueOf(expected, Setting(other)));
}

void tst_NSerialPort::enumerationsAreRegistered_data()
{
    QTest::addColumn<QByteArray>("enumeration");
    QTest::addColumn<Lines>("keys");
    const auto add = [](const char* enumeration, const Lines& keys) {
        QTest::newRow(enumeration) << QByteArray(enumeration) << keys;
    };
    add("BaudRate", Lines() << "BaudRate110=110"
                            << "BaudRate300=300"
                            << "BaudRate600=600"
                            << "BaudRate1200=1200"
                            << "BaudRate2400=2400"
                            << "BaudRate4800=4800"
                            << "BaudRate9600=9600"
                            << "BaudRate19200=19200"
                            << "BaudRate38400=38400"
                            << "BaudRate57600=57600"
                            << "BaudRate115200=115200"
                            << "BaudRate230400=230400");
    add("DataBits", Lines() << "DataBits7=7"
                            << "DataBits8=8");
    add("ParityType", Lines() << "ParityNone=0"
                              << "ParityEven=1"
                              << "ParityOdd=2");
    add("StopBits", Lines() << "StopBits1=1"
                            << "StopBits2=2");
    add("FlowControlType", Lines() << "FlowControlNone=0"
                                   << "FlowControlHardware=1"
                                   << "FlowControlXonXoff=2"
                                   << "FlowControlRs485Rts=3");
}

void tst_NSerialPort::enumerationsAreRegistered()
{
    QFETCH(QByteArray, enumeration);
    QFETCH(Lines, keys);
    const QMetaObject& type = NSerialPort::staticMetaObject;
    const int index = type.indexOfEnumerator(enumeration);
    QVERIFY(index >= 0);
    const QMetaEnum values = type.enumerator(index);
    Lines found;
    for (int i = 0; i < values.keyCount(); ++i) {
        found << QByteArray(values.key(i)) + '=' + QByteArray::number(values.value(i));
        QCOMPARE(values.keyToValue(values.key(i)), values.value(i));
    }
    QCOMPARE(found, keys);
}

void tst_NSerialPort::settersAreSlots_data()
{
    QTest::addColumn<QByteArray>("slot");
    const char* const slots_[] = {
        "setBaudRate(NSerialPort::BaudRate)",
        "setDataBits(NSerialPort::DataBits)",
        "setParity(NSerialPort::ParityType)",
        "setStopBits(NSerialPort::StopBits)",
        "setFlowControl(NSerialPort::FlowControlType)",
        "setDtr(bool)",
        "setDtr()",
        "setRts(bool)",
        "setRts()"};
    for (const char* slot : slots_)
        QTest::newRow(slot) << QByteArray(slot);
}

void tst_NSerialPort::settersAreSlots()
{
    QFETCH(QByteArray, slot);
    const int index = NSerialPort::staticMetaObject.indexOfSlot(slot);
    QVERIFY(index >= 0);
    QCOMPARE(NSerialPort::staticMetaObject.method(index).access(), QMetaMethod::Public);
}

// ---- opening ----

void tst_NSerialPort::constructorDoesNotOpenTheDevice()
{
    const Record calls(Calls(Open).onPath(m_uart->path()));
    const Port port(m_uart->portName());
    QCOMPARE(calls.count(), 0);
    QVERIFY(!port.isOpen());
    QCOMPARE(port.openMode(), QIODevice::OpenMode(QIODevice::NotOpen));
}

void tst_NSerialPort::openingUsesTheseFlags_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("read") << int(QIODevice::ReadOnly);
    QTest::newRow("write") << int(QIODevice::WriteOnly);
    QTest::newRow("both") << int(QIODevice::ReadWrite);
    QTest::newRow("truncate") << int(QIODevice::ReadWrite | QIODevice::Truncate | QIODevice::Text);
}

void tst_NSerialPort::openingUsesTheseFlags()
{
    QFETCH(int, mode);
    QList<int> flags;
    const Notice notice(
        Calls(Open).onPath(m_uart->path()), [&flags](const Invocation& invocation) { flags << invocation.flags; });
    QVERIFY(m_port->open(QIODevice::OpenMode(mode)));
    QCOMPARE(flags.size(), 1);
    QCOMPARE(flags.first() & ~O_LARGEFILE, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
}

void tst_NSerialPort::nameIsConvertedToLatin1()
{
    const NTemporaryDirectory directory;
    const QByteArray path = directory.path().toLatin1() + "/tty\xe9";
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    int error = EDOM;
    const int descriptor = NSerialPort::openFile(QString::fromLatin1(path), error);
    QVERIFY(descriptor >= 0);
    ::close(descriptor);
    QCOMPARE(error, 0);
    QCOMPARE(NSerialPort::openFile(QString::fromLatin1(path + '2'), error), -1);
    QCOMPARE(error, ENOENT);
}

void tst_NSerialPort::openModeIsThatOfTheCaller_data()
{
    openingUsesTheseFlags_data();
}

void tst_NSerialPort::openModeIsThatOfTheCaller()
{
    QFETCH(int, mode);
    QVERIFY(m_port->open(QIODevice::OpenMode(mode)));
    QVERIFY(m_port->isOpen());
    QCOMPARE(int(m_port->openMode()), mode);
    QVERIFY(m_port->notifier());
    QVERIFY(m_port->notifier()->isEnabled());
    QCOMPARE(m_port->notifier()->thread(), m_port->thread());
    QCOMPARE(m_port->openingResults, 0);
    m_port->close();
    QVERIFY(!m_port->isOpen());
    QVERIFY(!m_port->notifier());
}

void tst_NSerialPort::openingFailsWithTheReason_data()
{
    QTest::addColumn<int>("error");
    const int errors[] = {ENOENT, EACCES, EBUSY, ENXIO, EIO, EMFILE, ENFILE, EINTR, EAGAIN};
    for (int error : errors)
        QTest::newRow(strerror(error)) << error;
}

void tst_NSerialPort::openingFailsWithTheReason()
{
    QFETCH(int, error);
    const Fault fault(Calls(Open).onPath(m_uart->path()).times(1), error);
    QVERIFY(!m_port->open(QIODevice::ReadWrite));
    QVERIFY(!m_port->isOpen());
    QCOMPARE(m_port->errorString(), errorText(error));
    QCOMPARE(fault.count(), 1);
    QCOMPARE(m_uart->takeChanges().size(), 0);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
}

void tst_NSerialPort::openingWithoutAModeDoesNothing()
{
    {
        const Fault fault(Calls(Open).onPath(m_uart->path()), EBUSY);
        m_port->open(QIODevice::ReadWrite);
    }
    const Record calls(Calls(Open).onPath(m_uart->path()));
    QVERIFY(!m_port->open(QIODevice::NotOpen));
    QCOMPARE(calls.count(), 0);
    QCOMPARE(m_port->errorString(), errorText(EBUSY));
}

void tst_NSerialPort::openingAnOpenPortDoesNothing()
{
    QVERIFY(m_port->open(QIODevice::ReadOnly));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(m_port->channelsFinished, 1);
    }
    const Record calls(Open | Tcgetattr | Tcsetattr | Ioctl);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(m_port->open(QIODevice::NotOpen));
    QCOMPARE(calls.count(), 0);
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadOnly));
    QCOMPARE(m_port->errorString(), errorText(EIO));
}

void tst_NSerialPort::completionWithoutAModeClosesTheDescriptor()
{
    {
        const Fault fault(Calls(Open).onPath(m_uart->path()), EBUSY);
        m_port->open(QIODevice::ReadWrite);
    }
    int error = 0;
    const int descriptor = NSerialPort::openFile(m_uart->portName(), error);
    QVERIFY(!m_port->open(descriptor, 0, QIODevice::NotOpen));
    QCOMPARE(::fcntl(descriptor, F_GETFD), -1);
    QVERIFY(!m_port->isOpen());
    QCOMPARE(m_uart->takeChanges().size(), 0);
    // QIODevice has a text of its own for an empty one.
    QVERIFY(m_port->errorString() != errorText(EBUSY));
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
    const Record calls(Close);
    QVERIFY(!m_port->open(-1, EBUSY, QIODevice::NotOpen));
    QCOMPARE(calls.count(), 0);
    QVERIFY(m_port->errorString() != errorText(EBUSY));
}

void tst_NSerialPort::completionOnAnOpenPortClosesTheDescriptor()
{
    QVERIFY(m_port->open(QIODevice::ReadOnly));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(m_port->channelsFinished, 1);
    }
    m_uart->takeChanges();
    int error = 0;
    const int descriptor = NSerialPort::openFile(m_uart->portName(), error);
    QVERIFY(m_port->open(descriptor, 0, QIODevice::ReadWrite));
    QCOMPARE(::fcntl(descriptor, F_GETFD), -1);
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadOnly));
    QCOMPARE(m_uart->takeChanges().size(), 0);
    QVERIFY(!m_port->notifier()->isEnabled());
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
    QVERIFY(m_port->open(-1, EBUSY, QIODevice::ReadWrite));
    QVERIFY(m_port->isOpen());
}

void tst_NSerialPort::completionFailsWithTheReason()
{
    QVERIFY(!m_port->open(-1, ENODEV, QIODevice::ReadWrite));
    QVERIFY(!m_port->isOpen());
    QCOMPARE(m_port->errorString(), errorText(ENODEV));
}

void tst_NSerialPort::descriptorWithoutSettingsOpens()
{
    int ends[2];
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    QList<QByteArray> changes;
    const Notice notice(Calls(Tcsetattr).onDescriptor(ends[0]), [&changes](const Invocation& invocation) {
        changes << text(*static_cast<const termios*>(invocation.argument));
    });
    // Nothing of a failed call is used.
    const Answer noSettings(Calls(Tcgetattr).onDescriptor(ends[0]), [](const Invocation& invocation) {
        memset(invocation.argument, 0xff, sizeof(termios));
        errno = ENOTTY;
        return -1;
    });
    const Answer disabled(Calls(Fpathconf).onDescriptor(ends[0]), [](const Invocation&) { return Disabled; });
    QVERIFY(m_port->open(ends[0], 0, QIODevice::ReadWrite));
    QCOMPARE(changes, Lines() << text(openedSettings(false)));
    QCOMPARE(m_port->lineStatus(), 0);
    QCOMPARE(m_port->write("out"), qint64(3));
    char bytes[3];
    QCOMPARE(::read(ends[1], bytes, sizeof(bytes)), ssize_t(3));
    QCOMPARE(::write(ends[1], "in", 2), ssize_t(2));
    NTRY_COMPARE(m_port->bytesAvailable(), qint64(2));
    QCOMPARE(m_port->readAll(), QByteArray("in"));
    m_port->close();
    QCOMPARE(changes.value(1), text(filledSettings(0)));
    QCOMPARE(::fcntl(ends[0], F_GETFD), -1);
    ::close(ends[1]);
}

void tst_NSerialPort::successfulOpeningLeavesNoError()
{
    QVERIFY(!m_port->open(-1, ENODEV, QIODevice::ReadWrite));
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
}

// ---- settings ----

void tst_NSerialPort::openingMakesTheLineRaw_data()
{
    QTest::addColumn<bool>("fromOnes");
    QTest::newRow("all bits 0") << false;
    QTest::newRow("all bits 1") << true;
}

void tst_NSerialPort::openingMakesTheLineRaw()
{
    QFETCH(bool, fromOnes);
    m_uart->pretendSettings(filledSettings(fromOnes ? 0xff : 0));
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(changes.first().actions, TCSAFLUSH);
    QCOMPARE(text(changes.first().settings), text(openedSettings(fromOnes)));
}

void tst_NSerialPort::settingIsAppliedByOpening_data()
{
    addSettings();
}

void tst_NSerialPort::settingIsAppliedByOpening()
{
    QFETCH(Setting, setting);
    QFETCH(int, to);
    QFETCH(Effect, effect);
    for (int fromOnes = 0; fromOnes < 2; ++fromOnes) {
        m_uart->pretendSettings(filledSettings(fromOnes ? 0xff : 0));
        Port port(m_uart->portName(), settingsWith(setting, to));
        QVERIFY(port.open(QIODevice::ReadWrite));
        const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
        QCOMPARE(changes.size(), 1);
        QCOMPARE(changes.first().actions, TCSAFLUSH);
        QCOMPARE(text(changes.first().settings), text(changed(openedSettings(fromOnes), setting, effect)));
        port.close();
        m_uart->takeChanges();
    }
}

void tst_NSerialPort::settingOfAClosedPortIsAppliedByOpening_data()
{
    addSettings();
}

void tst_NSerialPort::settingOfAClosedPortIsAppliedByOpening()
{
    QFETCH(Setting, setting);
    QFETCH(int, from);
    QFETCH(int, to);
    QFETCH(Effect, effect);
    m_uart->pretendSettings(filledSettings(0));
    Port port(m_uart->portName(), settingsWith(setting, from));
    {
        const Record calls(Tcgetattr | Tcsetattr | Ioctl);
        change(&port, setting, to);
        QCOMPARE(calls.count(), 0);
    }
    QVERIFY(port.open(QIODevice::ReadWrite));
    const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(text(changes.first().settings), text(changed(openedSettings(false), setting, effect)));
}

void tst_NSerialPort::settingOfAnOpenPortIsAppliedAtOnce_data()
{
    addSettings();
}

void tst_NSerialPort::settingOfAnOpenPortIsAppliedAtOnce()
{
    QFETCH(Setting, setting);
    QFETCH(int, from);
    QFETCH(int, to);
    QFETCH(Effect, effect);
    for (int fromOnes = 0; fromOnes < 2; ++fromOnes) {
        m_uart->pretendSettings(filledSettings(fromOnes ? 0xff : 0));
        Port port(m_uart->portName(), settingsWith(setting, from));
        QVERIFY(port.open(QIODevice::ReadWrite));
        const termios opened = m_uart->takeChanges().value(0).settings;
        change(&port, setting, to);
        const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
        QCOMPARE(changes.size(), 1);
        QCOMPARE(changes.first().actions, TCSAFLUSH);
        QCOMPARE(text(changes.first().settings), text(changed(opened, setting, effect)));
        port.close();
        m_uart->takeChanges();
    }
}

void tst_NSerialPort::currentValueIsNotAppliedAgain_data()
{
    addSettings();
}

void tst_NSerialPort::currentValueIsNotAppliedAgain()
{
    QFETCH(Setting, setting);
    QFETCH(int, from);
    QFETCH(int, to);
    Port port(m_uart->portName(), settingsWith(setting, from));
    QVERIFY(port.open(QIODevice::ReadWrite));
    change(&port, setting, to);
    const Record calls(Tcgetattr | Tcsetattr | Ioctl);
    change(&port, setting, to);
    QCOMPARE(calls.count(), 0);
}

void tst_NSerialPort::unlistedValueAtOpening_data()
{
    QTest::addColumn<Setting>("setting");
    QTest::addColumn<int>("value");
    QTest::addColumn<Effect>("effect");
    QTest::newRow("baud rate 0") << BaudRate << 0 << NoEffect;
    QTest::newRow("baud rate 14400") << BaudRate << 14400 << NoEffect;
    QTest::newRow("baud rate 460800") << BaudRate << 460800 << NoEffect;
    QTest::newRow("baud rate B9600") << BaudRate << int(B9600) << NoEffect;
    QTest::newRow("5 data bits") << DataBits << 5 << controlEffect(CSIZE, 0);
    QTest::newRow("6 data bits") << DataBits << 6 << controlEffect(CSIZE, 0);
    QTest::newRow("9 data bits") << DataBits << 9 << controlEffect(CSIZE, 0);
    QTest::newRow("parity 3") << Parity << 3 << NoEffect;
    QTest::newRow("0 stop bits") << StopBits << 0 << NoEffect;
    QTest::newRow("3 stop bits") << StopBits << 3 << NoEffect;
    QTest::newRow("flow control 4") << FlowControl << 4 << NoEffect;
    QTest::newRow("negative flow control") << FlowControl << -1 << NoEffect;
}

void tst_NSerialPort::unlistedValueAtOpening()
{
    QFETCH(Setting, setting);
    QFETCH(int, value);
    QFETCH(Effect, effect);
    serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    rs485.flags = SER_RS485_ENABLED;
    m_uart->setRs485(rs485);
    m_uart->pretendSettings(filledSettings(0xff));
    Port port(m_uart->portName(), settingsWith(setting, value));
    QVERIFY(port.open(QIODevice::ReadWrite));
    termios expected = changed(openedSettings(true), DataBits, effect);
    if (setting == BaudRate) {
        expected.c_cflag |= Speed;
        expected.c_iflag |= InputSpeedZero;
        expected.c_ispeed = expected.c_ospeed = speed_t(~0);
    } else if (setting == StopBits) {
        expected.c_cflag |= CSTOPB;
    } else if (setting == FlowControl) {
        expected.c_cflag |= CRTSCTS;
        expected.c_iflag |= IXOFF; // the two others are cleared by opening
    }
    QCOMPARE(text(m_uart->takeChanges().value(0).settings), text(expected));
    QCOMPARE(m_uart->rs485Writes(), setting == FlowControl ? 0 : 1);
    QCOMPARE(valueOf(port.portSettings(), setting), value);
}

void tst_NSerialPort::unlistedValueOfAnOpenPort_data()
{
    unlistedValueAtOpening_data();
}

void tst_NSerialPort::unlistedValueOfAnOpenPort()
{
    QFETCH(Setting, setting);
    QFETCH(int, value);
    QFETCH(Effect, effect);
    m_uart->pretendSettings(filledSettings(0));
    const Settings settings = {
        NSerialPort::BaudRate115200, NSerialPort::DataBits7, NSerialPort::ParityOdd, NSerialPort::StopBits2,
        NSerialPort::FlowControlXonXoff};
    Port port(m_uart->portName(), settings);
    QVERIFY(port.open(QIODevice::ReadWrite));
    const termios opened = m_uart->takeChanges().value(0).settings;
    const int rs485Reads = m_uart->rs485Reads();
    change(&port, setting, value);
    const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(text(changes.first().settings), text(changed(opened, DataBits, effect)));
    QCOMPARE(m_uart->rs485Reads(), rs485Reads);
}

void tst_NSerialPort::everyOpeningAppliesAllSettings()
{
    const Settings settings = {
        NSerialPort::BaudRate230400, NSerialPort::DataBits7, NSerialPort::ParityOdd, NSerialPort::StopBits2,
        NSerialPort::FlowControlHardware};
    Port port(m_uart->portName(), settings);
    termios expected = openedSettings(false);
    ::cfsetspeed(&expected, B230400);
    expected.c_cflag = B230400 | CS7 | PARENB | PARODD | CSTOPB | CRTSCTS | CREAD | CLOCAL;
    for (int opening = 0; opening < 3; ++opening) {
        serial_rs485 rs485;
        memset(&rs485, 0, sizeof(rs485));
        rs485.flags = SER_RS485_ENABLED;
        m_uart->setRs485(rs485);
        m_uart->pretendSettings(filledSettings(0));
        QVERIFY(port.open(QIODevice::ReadWrite));
        QCOMPARE(text(m_uart->takeChanges().value(0).settings), text(expected));
        QCOMPARE(m_uart->rs485().flags, 0U);
        port.close();
        m_uart->takeChanges();
    }
}

void tst_NSerialPort::parityNoneLeavesTheKindOfParity()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->setParity(NSerialPort::ParityOdd);
    m_port->setParity(NSerialPort::ParityNone);
    QCOMPARE(m_uart->takeChanges().value(2).settings.c_cflag & (PARENB | PARODD), tcflag_t(PARODD));
    m_port->setParity(NSerialPort::ParityEven);
    m_port->setParity(NSerialPort::ParityNone);
    QCOMPARE(m_uart->takeChanges().value(1).settings.c_cflag & (PARENB | PARODD), tcflag_t(0));
}

void tst_NSerialPort::realTerminalGetsTheSettings()
{
    m_disabled.reset();
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->setBaudRate(NSerialPort::BaudRate57600);
    m_port->setStopBits(NSerialPort::StopBits2);
    m_port->setFlowControl(NSerialPort::FlowControlXonXoff);
    const termios settings = m_uart->settings();
    QCOMPARE(uint(::cfgetospeed(&settings)), uint(B57600));
    QCOMPARE(uint(::cfgetispeed(&settings)), uint(B57600));
    QCOMPARE(settings.c_cflag & CSTOPB, tcflag_t(CSTOPB));
    QCOMPARE(settings.c_iflag, XonXoff);
    QCOMPARE(settings.c_lflag & (ICANON | ECHO | ISIG), tcflag_t(0));
    QCOMPARE(int(settings.c_cc[VINTR]), int(::fpathconf(m_uart->otherEnd(), _PC_VDISABLE)));
}

void tst_NSerialPort::refusedSettingsAreIgnored()
{
    const Fault fault(Calls(Tcsetattr | Tcgetattr).onPath(m_uart->path()), EIO);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->setBaudRate(NSerialPort::BaudRate110);
    QCOMPARE(fault.count(), 3);
    QCOMPARE(m_port->baudRate(), NSerialPort::BaudRate110);
    QVERIFY(m_port->isOpen());
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
    m_port->close();
    QCOMPARE(fault.count(), 4);
    QVERIFY(!m_port->isOpen());
}

void tst_NSerialPort::closingRestoresTheSettings_data()
{
    QTest::addColumn<int>("seed");
    for (int seed = 1; seed <= 20; ++seed)
        QTest::newRow(QByteArray::number(seed)) << seed;
}

void tst_NSerialPort::closingRestoresTheSettings()
{
    QFETCH(int, seed);
    srandom(unsigned(seed));
    termios saved;
    for (size_t i = 0; i < sizeof(saved); ++i)
        reinterpret_cast<unsigned char*>(&saved)[i] = (unsigned char)(random());
    m_uart->pretendSettings(saved);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->setParity(NSerialPort::ParityEven);
    m_port->setFlowControl(NSerialPort::FlowControlRs485Rts);
    m_port->setBaudRate(NSerialPort::BaudRate300);
    m_uart->takeChanges();
    m_port->close();
    const QList<NSimulatedUart::Change> changes = m_uart->takeChanges();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(changes.first().actions, TCSAFLUSH);
    QVERIFY(memcmp(&changes.first().settings, &saved, sizeof(saved)) == 0);
}

void tst_NSerialPort::closingDrainsRestoresAndCloses()
{
    const QByteArray before = text(m_uart->settings());
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(text(m_uart->settings()) != before);
    Record calls(Calls(Tcdrain | Tcsetattr | Close).onPath(m_uart->path()));
    m_port->close();
    const QByteArray name = m_uart->path().split('/').last();
    QCOMPARE(calls.take(), Lines() << "tcdrain " + name << "tcsetattr " + name << "close " + name);
    QCOMPARE(text(m_uart->settings()), before);
}

void tst_NSerialPort::closingAClosedPortDoesNothing()
{
    const NPortHandler aboutToClose(m_port.data(), SIGNAL(aboutToClose()), NPortHandler::Nothing);
    const Record calls(Tcdrain | Tcsetattr | Close);
    m_port->close();
    QCOMPARE(calls.count(), 0);
    QCOMPARE(aboutToClose.calls(), 0);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->close();
    const int count = calls.count();
    m_port->close();
    QCOMPARE(calls.count(), count);
    QCOMPARE(aboutToClose.calls(), 1);
}

// ---- RS-485 ----

void tst_NSerialPort::rs485FollowsTheFlowControl_data()
{
    QTest::addColumn<bool>("isOn");
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    for (int isOn = 0; isOn < 2; ++isOn) {
        for (int from = 0; from < 4; ++from) {
            for (int to = 0; to < 4; ++to) {
                QTest::newRow(
                    QByteArray(isOn ? "on" : "off") + ", " + QByteArray::number(from) + " to " +
                    QByteArray::number(to))
                    << bool(isOn) << from << to;
            }
        }
    }
}

void tst_NSerialPort::rs485FollowsTheFlowControl()
{
    QFETCH(bool, isOn);
    QFETCH(int, from);
    QFETCH(int, to);
    serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    rs485.flags = isOn ? SER_RS485_ENABLED : 0;
    m_uart->setRs485(rs485);
    Port port(m_uart->portName(), settingsWith(FlowControl, from));
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(m_uart->rs485().flags != 0, from == NSerialPort::FlowControlRs485Rts);
    QCOMPARE(m_uart->rs485Reads(), 1);
    QCOMPARE(m_uart->rs485Writes(), isOn != (from == NSerialPort::FlowControlRs485Rts) ? 1 : 0);
    const int writes = m_uart->rs485Writes();
    change(&port, FlowControl, to);
    QCOMPARE(m_uart->rs485().flags != 0, to == NSerialPort::FlowControlRs485Rts);
    QCOMPARE(m_uart->rs485Reads(), from == to ? 1 : 2);
    const bool isSwitched = (from == NSerialPort::FlowControlRs485Rts) != (to == NSerialPort::FlowControlRs485Rts);
    QCOMPARE(m_uart->rs485Writes() - writes, isSwitched ? 1 : 0);
    port.close();
    QCOMPARE(m_uart->rs485Reads(), from == to ? 1 : 2);
}

void tst_NSerialPort::rs485KeepsTheOtherSettings_data()
{
    QTest::addColumn<int>("byte");
    QTest::newRow("all bits 0") << 0;
    QTest::newRow("all bits 1") << 0xff;
    QTest::newRow("alternating") << 0xa5;
}

void tst_NSerialPort::rs485KeepsTheOtherSettings()
{
    QFETCH(int, byte);
    serial_rs485 on;
    memset(&on, byte, sizeof(on));
    on.flags |= SER_RS485_ENABLED;
    serial_rs485 off = on;
    off.flags &= ~unsigned(SER_RS485_ENABLED);
    m_uart->setRs485(on);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(text(m_uart->rs485()), text(off));
    m_port->setFlowControl(NSerialPort::FlowControlRs485Rts);
    QCOMPARE(text(m_uart->rs485()), text(on));
    m_port->setFlowControl(NSerialPort::FlowControlHardware);
    QCOMPARE(text(m_uart->rs485()), text(off));
}

void tst_NSerialPort::rs485IsLeftAloneByOtherSettings()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    rs485.flags = SER_RS485_ENABLED;
    m_uart->setRs485(rs485);
    m_port->setBaudRate(NSerialPort::BaudRate115200);
    m_port->setDataBits(NSerialPort::DataBits7);
    m_port->setParity(NSerialPort::ParityEven);
    m_port->setStopBits(NSerialPort::StopBits2);
    QCOMPARE(m_uart->rs485Reads(), 1);
    QCOMPARE(m_uart->rs485Writes(), 0);
}

void tst_NSerialPort::rs485ThatCannotBeReadCountsAsOff_data()
{
    QTest::addColumn<int>("flowControl");
    QTest::addColumn<int>("writes");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("hardware") << 1 << 0;
    QTest::newRow("XON/XOFF") << 2 << 0;
    QTest::newRow("RS-485") << 3 << 1;
}

void tst_NSerialPort::rs485ThatCannotBeReadCountsAsOff()
{
    QFETCH(int, flowControl);
    QFETCH(int, writes);
    // Nothing of a failed call is used.
    const Answer unreadable(
        Calls(Ioctl).onPath(m_uart->path()).withRequest(TIOCGRS485), [](const Invocation& invocation) {
            memset(invocation.argument, 0xff, sizeof(serial_rs485));
            errno = ENOTTY;
            return -1;
        });
    Port port(m_uart->portName(), settingsWith(FlowControl, flowControl));
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(m_uart->rs485Writes(), writes);
    serial_rs485 expected;
    memset(&expected, 0, sizeof(expected));
    expected.flags = writes != 0 ? SER_RS485_ENABLED : 0;
    QCOMPARE(text(m_uart->rs485()), text(expected));
}

void tst_NSerialPort::rs485ThatCannotBeWrittenIsIgnored()
{
    const Fault fault(Calls(Ioctl).onPath(m_uart->path()).withRequest(TIOCSRS485), EINVAL);
    Port port(m_uart->portName(), settingsWith(FlowControl, NSerialPort::FlowControlRs485Rts));
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(fault.count(), 1);
    QCOMPARE(m_uart->takeChanges().size(), 1);
    QCOMPARE(port.errorString(), Port(m_uart->portName()).errorString());
}

// ---- lines ----

void tst_NSerialPort::lineStatusHasABitForEachLine_data()
{
    QTest::addColumn<int>("lines");
    QTest::addColumn<int>("status");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("CTS") << int(TIOCM_CTS) << 0x01;
    QTest::newRow("DSR") << int(TIOCM_DSR) << 0x02;
    QTest::newRow("DCD") << int(TIOCM_CAR) << 0x04;
    QTest::newRow("RI") << int(TIOCM_RNG) << 0x08;
    QTest::newRow("RTS") << int(TIOCM_RTS) << 0x10;
    QTest::newRow("DTR") << int(TIOCM_DTR) << 0x20;
    QTest::newRow("secondary transmit") << int(TIOCM_ST) << 0x40;
    QTest::newRow("secondary receive") << int(TIOCM_SR) << 0x80;
    QTest::newRow("all") << ~0 << 0xff;
    const int named = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR | TIOCM_RNG | TIOCM_RTS | TIOCM_DTR | TIOCM_ST | TIOCM_SR;
    QTest::newRow("others") << ~named << 0;
}

void tst_NSerialPort::lineStatusHasABitForEachLine()
{
    QFETCH(int, lines);
    QFETCH(int, status);
    m_uart->setModemLines(lines);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->lineStatus(), status);
    m_port->close();
    QCOMPARE(m_port->lineStatus(), 0);
}

void tst_NSerialPort::lineStatusIsZeroWhenItCannotBeRead()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Answer unreadable(
        Calls(Ioctl).onPath(m_uart->path()).withRequest(TIOCMGET), [](const Invocation& invocation) {
            *static_cast<int*>(invocation.argument) = ~0;
            errno = ENOTTY;
            return -1;
        });
    QCOMPARE(m_port->lineStatus(), 0);
    QCOMPARE(unreadable.count(), 1);
}

void tst_NSerialPort::outputLinesAreSetAndCleared_data()
{
    QTest::addColumn<bool>("isDtr");
    QTest::addColumn<bool>("set");
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("after");
    const int others = TIOCM_CTS | TIOCM_CAR;
    QTest::newRow("set DTR") << true << true << others << (others | TIOCM_DTR);
    QTest::newRow("set DTR again") << true << true << (others | TIOCM_DTR) << (others | TIOCM_DTR);
    QTest::newRow("clear DTR") << true << false << ~0 << ~TIOCM_DTR;
    QTest::newRow("clear DTR again") << true << false << others << others;
    QTest::newRow("set RTS") << false << true << others << (others | TIOCM_RTS);
    QTest::newRow("set RTS again") << false << true << (others | TIOCM_RTS) << (others | TIOCM_RTS);
    QTest::newRow("clear RTS") << false << false << ~0 << ~TIOCM_RTS;
    QTest::newRow("clear RTS again") << false << false << others << others;
}

void tst_NSerialPort::outputLinesAreSetAndCleared()
{
    QFETCH(bool, isDtr);
    QFETCH(bool, set);
    QFETCH(int, before);
    QFETCH(int, after);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_uart->modemLineWrites(), 0);
    m_uart->setModemLines(before);
    if (isDtr)
        m_port->setDtr(set);
    else
        m_port->setRts(set);
    QCOMPARE(m_uart->modemLines(), after);
    QCOMPARE(m_uart->modemLineReads(), 1);
    QCOMPARE(m_uart->modemLineWrites(), 1);
    if (!set)
        return;
    m_uart->setModemLines(before);
    QVERIFY(QMetaObject::invokeMethod(m_port.data(), isDtr ? "setDtr" : "setRts"));
    QCOMPARE(m_uart->modemLines(), after);
}

void tst_NSerialPort::outputLinesThatCannotBeReadCountAsCleared()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Answer unreadable(
        Calls(Ioctl).onPath(m_uart->path()).withRequest(TIOCMGET), [](const Invocation& invocation) {
            *static_cast<int*>(invocation.argument) = ~0;
            errno = ENOTTY;
            return -1;
        });
    m_port->setDtr();
    QCOMPARE(m_uart->modemLines(), int(TIOCM_DTR));
    m_port->setRts(false);
    QCOMPARE(m_uart->modemLines(), 0);
    const Fault unwritable(Calls(Ioctl).onPath(m_uart->path()).withRequest(TIOCMSET), ENOTTY);
    m_port->setRts();
    QCOMPARE(unwritable.count(), 1);
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
}

void tst_NSerialPort::flushWaitsForTheDriver()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    Record calls(Tcdrain);
    m_port->flush();
    QCOMPARE(calls.take(), Lines() << "tcdrain " + m_uart->path().split('/').last());
    const Fault fault(Tcdrain, EINTR);
    m_port->flush();
    QCOMPARE(fault.count(), 1);
    QVERIFY(m_port->isOpen());
}

void tst_NSerialPort::closedPortMakesNoCalls()
{
    for (int round = 0; round < 2; ++round) {
        const Record calls(Ioctl | Tcgetattr | Tcsetattr | Tcdrain | Read | Fpathconf);
        m_port->setDtr();
        m_port->setRts(false);
        m_port->flush();
        QCOMPARE(m_port->lineStatus(), 0);
        m_port->setBaudRate(round == 0 ? NSerialPort::BaudRate110 : NSerialPort::BaudRate300);
        m_port->setFlowControl(round == 0 ? NSerialPort::FlowControlRs485Rts : NSerialPort::FlowControlNone);
        QCOMPARE(m_port->bytesAvailable(), qint64(0));
        QVERIFY(!m_port->canReadLine());
        QCOMPARE(calls.count(), 0);
        QVERIFY(m_port->open(QIODevice::ReadWrite));
        m_port->close();
    }
}

// ---- reading ----

void tst_NSerialPort::portIsSequential()
{
    QVERIFY(m_port->isSequential());
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(m_port->isSequential());
}

void tst_NSerialPort::receivedBytesAreAnnounced()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    QVERIFY(sendAndWait("hello"));
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    NTRY_COMPARE(m_port->readyReads, 1);
    QCOMPARE(m_port->bytesAvailable(), qint64(5));
    QCOMPARE(m_port->readAll(), QByteArray("hello"));
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    QCOMPARE(m_port->read(10), QByteArray());
    QCOMPARE(m_port->channelsFinished, 0);
}

void tst_NSerialPort::allBytesPassUnchanged()
{
    m_disabled.reset();
    QByteArray bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes.append(char(byte));
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait(bytes));
    NTRY_COMPARE(m_port->bytesAvailable(), qint64(256));
    QCOMPARE(m_port->readAll(), bytes);
    QCOMPARE(m_port->write(bytes), qint64(256));
    QByteArray received;
    NTRY_COMPARE((received += m_uart->receive()).size(), 256);
    QCOMPARE(received, bytes);
}

void tst_NSerialPort::notificationReadsWhatIsWaitingOnce()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    Lines calls;
    const Notice notice(Calls(Ioctl | Read).onPath(m_uart->path()), [&calls](const Invocation& invocation) {
        if (invocation.call == Read)
            calls << "read " + QByteArray::number(int(invocation.size));
        else
            calls << (invocation.request == FIONREAD ? "count" : "another request");
    });
    QVERIFY(sendAndWait(QByteArray(1234, 'x')));
    NTRY_COMPARE(m_port->readyReads, 1);
    QCOMPARE(
        calls, Lines() << "count"
                       << "read 1234");
    QVERIFY(sendAndWait("y"));
    NTRY_COMPARE(m_port->readyReads, 2);
    QCOMPARE(
        calls, Lines() << "count"
                       << "read 1234"
                       << "count"
                       << "read 1");
    QCOMPARE(m_port->bytesAvailable(), qint64(1235));
}

void tst_NSerialPort::interruptedReadAddsNothing_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("EAGAIN") << EAGAIN;
    QTest::newRow("EINTR") << EINTR;
}

void tst_NSerialPort::interruptedReadAddsNothing()
{
    QFETCH(int, error);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait("first"));
    NTRY_COMPARE(m_port->readyReads, 1);
    const Answer interrupted(Calls(Read).onPath(m_uart->path()).times(1), [error](const Invocation& invocation) {
        memset(invocation.argument, 'x', invocation.size);
        errno = error;
        return -1;
    });
    QVERIFY(sendAndWait("second"));
    NTRY_COMPARE(m_port->readyReads, 3);
    QCOMPARE(m_port->available, QList<qint64>() << 5 << 5 << 11);
    QCOMPARE(m_port->readAll(), QByteArray("firstsecond"));
    QCOMPARE(m_port->channelsFinished, 0);
    QVERIFY(m_port->notifier()->isEnabled());
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
}

void tst_NSerialPort::failedReadEndsReading_data()
{
    QTest::addColumn<int>("error");
    const int errors[] = {EIO, ENXIO, ENODEV, EBADF, EINVAL};
    for (int error : errors)
        QTest::newRow(strerror(error)) << error;
}

void tst_NSerialPort::failedReadEndsReading()
{
    QFETCH(int, error);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Fault fault(Calls(Read).onPath(m_uart->path()), error);
    QVERIFY(sendAndWait("x"));
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->errorString(), errorText(error));
    QCOMPARE(m_port->readyReads, 0);
    QVERIFY(m_port->isOpen());
    QVERIFY(!m_port->notifier()->isEnabled());
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    char byte;
    QCOMPARE(m_port->readData(&byte, 1), qint64(-1));
}

void tst_NSerialPort::failedCountEndsReading_data()
{
    failedReadEndsReading_data();
    QTest::newRow(strerror(EAGAIN)) << EAGAIN;
    QTest::newRow(strerror(EINTR)) << EINTR;
}

void tst_NSerialPort::failedCountEndsReading()
{
    QFETCH(int, error);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Fault fault(Calls(Ioctl).onPath(m_uart->path()).withRequest(FIONREAD), error);
    const Record reads(Calls(Read).onPath(m_uart->path()));
    QVERIFY(sendAndWait("x"));
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->errorString(), errorText(error));
    QCOMPARE(m_port->readyReads, 0);
    QCOMPARE(reads.count(), 0);
    QVERIFY(m_port->isOpen());
    QVERIFY(!m_port->notifier()->isEnabled());
    char byte;
    QCOMPARE(m_port->readData(&byte, 1), qint64(-1));
}

void tst_NSerialPort::readOfZeroBytesEndsReading_data()
{
    QTest::addColumn<int>("waiting");
    QTest::newRow("nothing is waiting") << 0;
    QTest::newRow("bytes were waiting") << 10;
}

void tst_NSerialPort::readOfZeroBytesEndsReading()
{
    QFETCH(int, waiting);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Answer count(
        Calls(Ioctl).onPath(m_uart->path()).withRequest(FIONREAD), [waiting](const Invocation& invocation) {
            *static_cast<int*>(invocation.argument) = waiting;
            return 0;
        });
    size_t size = 99;
    const Answer read(Calls(Read).onPath(m_uart->path()), [&size](const Invocation& invocation) {
        size = invocation.size;
        return 0;
    });
    QVERIFY(sendAndWait("x"));
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(int(size), waiting);
    QCOMPARE(m_port->errorString(), latin1("Serial port hangs-up"));
    QCOMPARE(m_port->readyReads, 0);
    QVERIFY(m_port->isOpen());
    QVERIFY(!m_port->notifier()->isEnabled());
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    char byte;
    QCOMPARE(m_port->readData(&byte, 1), qint64(-1));
}

void tst_NSerialPort::hangUpOfATerminalEndsReading()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_uart->hangUp();
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->errorString(), errorText(EIO));
    QVERIFY(m_port->isOpen());
    QCOMPARE(m_port->read(1), QByteArray());
    QCOMPARE(m_port->write("x"), qint64(-1));
    m_port->close();
    QVERIFY(!m_port->isOpen());
}

void tst_NSerialPort::closedPeerOfASocketEndsReading()
{
    int ends[2];
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    QVERIFY(m_port->open(ends[0], 0, QIODevice::ReadWrite));
    ::close(ends[1]);
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->errorString(), latin1("Serial port hangs-up"));
}

void tst_NSerialPort::unreadBytesOutlastTheEnd()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait("last words\n"));
    NTRY_COMPARE(m_port->readyReads, 1);
    m_uart->hangUp();
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->bytesAvailable(), qint64(11));
    QVERIFY(m_port->canReadLine());
    char bytes[20];
    QCOMPARE(m_port->read(bytes, 20), qint64(11));
    QCOMPARE(QByteArray(bytes, 11), QByteArray("last words\n"));
    QCOMPARE(m_port->read(bytes, 20), qint64(-1));
}

void tst_NSerialPort::nothingIsReadAfterTheEnd()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(m_port->channelsFinished, 1);
    }
    const Record calls(Calls(Read | Ioctl).onPath(m_uart->path()));
    QVERIFY(sendAndWait("more"));
    for (int turn = 0; turn < 20; ++turn)
        QTest::qWait(1);
    QCOMPARE(calls.count(), 0);
    QCOMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->readyReads, 0);
}

void tst_NSerialPort::reopenedPortReadsAgain()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(m_port->channelsFinished, 1);
    }
    m_port->close();
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(m_port->notifier()->isEnabled());
    char byte;
    QCOMPARE(m_port->readData(&byte, 1), qint64(0));
    QVERIFY(sendAndWait("again"));
    NTRY_COMPARE(m_port->readyReads, 1);
    QCOMPARE(m_port->readAll(), QByteArray("again"));
}

void tst_NSerialPort::readDataReportsTheEnd()
{
    char byte;
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->readData(&byte, 1), qint64(0));
    QCOMPARE(m_port->readData(&byte, 0), qint64(0));
    QCOMPARE(m_port->read(&byte, 1), qint64(0));
    m_uart->hangUp();
    NTRY_COMPARE(m_port->channelsFinished, 1);
    QCOMPARE(m_port->readData(&byte, 1), qint64(-1));
    QCOMPARE(m_port->readData(&byte, 0), qint64(0));
    QCOMPARE(m_port->read(&byte, 1), qint64(-1));
}

void tst_NSerialPort::readDataTakesFromTheFront()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    QVERIFY(sendAndWait("0123456789"));
    NTRY_COMPARE(m_port->readyReads, 1);
    QByteArray taken;
    for (int size = 0; size < 6; ++size) {
        char bytes[6];
        const qint64 count = m_port->readData(bytes, size);
        taken += QByteArray(bytes, int(count)) + '|';
        QCOMPARE(m_port->bytesAvailable(), qint64(10 - qMin(10, size * (size + 1) / 2)));
    }
    QCOMPARE(taken, QByteArray("|0|12|345|6789||"));
}

void tst_NSerialPort::bytesAvailableCountsBothBuffers()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait("012\n456789"));
    NTRY_COMPARE(m_port->readyReads, 1);
    // QIODevice takes all of it into its own buffer.
    char byte = 0;
    QVERIFY(m_port->getChar(&byte));
    QCOMPARE(byte, '0');
    QCOMPARE(m_port->bytesAvailable(), qint64(9));
    QVERIFY(m_port->canReadLine());
    QVERIFY(sendAndWait("ab"));
    NTRY_COMPARE(m_port->readyReads, 2);
    QCOMPARE(m_port->bytesAvailable(), qint64(11));
    QCOMPARE(m_port->readLine(), QByteArray("12\n"));
    QCOMPARE(m_port->peek(3), QByteArray("456"));
    QCOMPARE(m_port->readAll(), QByteArray("456789ab"));
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
}

void tst_NSerialPort::linesAreRead()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(!m_port->canReadLine());
    QVERIFY(sendAndWait("one"));
    NTRY_COMPARE(m_port->readyReads, 1);
    QVERIFY(!m_port->canReadLine());
    QVERIFY(sendAndWait("\r\ntwo"));
    NTRY_COMPARE(m_port->readyReads, 2);
    QVERIFY(m_port->canReadLine());
    QCOMPARE(m_port->readLine(), QByteArray("one\r\n"));
    QVERIFY(!m_port->canReadLine());
    QCOMPARE(m_port->readAll(), QByteArray("two"));
    QVERIFY(!m_port->canReadLine());
}

void tst_NSerialPort::closingDiscardsUnreadBytes()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait("line\nrest"));
    NTRY_COMPARE(m_port->readyReads, 1);
    QCOMPARE(m_port->read(2), QByteArray("li"));
    m_port->close();
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    QVERIFY(!m_port->canReadLine());
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->bytesAvailable(), qint64(0));
    QVERIFY(sendAndWait("new"));
    NTRY_COMPARE(m_port->readyReads, 2);
    QCOMPARE(m_port->readAll(), QByteArray("new"));
}

namespace {

QByteArray numberedBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 state = 1;
    for (int i = 0; i < size; ++i) {
        state = state * 1664525 + 1013904223;
        bytes[i] = char(state >> 24);
    }
    return bytes;
}

} // namespace

void tst_NSerialPort::largeBacklogIsReadInOddSizes()
{
    m_disabled.reset();
    const QByteArray sent = numberedBytes(3 * 1024 * 1024 + 17);
    QVERIFY(m_port->open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    int offset = 0;
    while (offset < sent.size() || m_port->bytesAvailable() < sent.size()) {
        offset += m_uart->send(sent.mid(offset, 4093));
        QCoreApplication::processEvents();
        QVERIFY(m_port->channelsFinished == 0);
    }
    const int sizes[] = {1, 2, 3, 511, 512, 513, 4095, 16385, 65537, 300001};
    QByteArray received;
    for (int i = 0; m_port->bytesAvailable() > 0; ++i) {
        const int size = sizes[i % int(sizeof(sizes) / sizeof(sizes[0]))];
        const QByteArray piece = m_port->read(size);
        QCOMPARE(piece.size(), qMin(size, sent.size() - received.size()));
        received += piece;
        QCOMPARE(m_port->bytesAvailable(), qint64(sent.size() - received.size()));
    }
    QVERIFY(received == sent);
}

void tst_NSerialPort::bytesMayBeReadWhileOthersArrive()
{
    m_disabled.reset();
    const QByteArray sent = numberedBytes(1024 * 1024 + 1);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QByteArray received;
    int offset = 0;
    for (int turn = 0; received.size() < sent.size(); ++turn) {
        offset += m_uart->send(sent.mid(offset, 1 + (turn * 7919) % 4096));
        QCoreApplication::processEvents();
        // Reads less than arrives, in other pieces, and sometimes all.
        received += turn % 64 == 0 ? m_port->readAll() : m_port->read(1 + (turn * 104729) % 1500);
        QVERIFY(m_port->channelsFinished == 0);
    }
    QVERIFY(received == sent);
}

void tst_NSerialPort::discardedInputIsNoHangUp_data()
{
    QTest::addColumn<QByteArray>("noGlib");
    QTest::addColumn<QByteArray>("dispatcher");
    QTest::newRow("Unix") << QByteArray("1") << QByteArray("UNIX");
    // Qt may have been built without GLib.
    qputenv("QT_NO_GLIB", "");
    QThread thread;
    thread.start();
    while (!QAbstractEventDispatcher::instance(&thread))
        QThread::yieldCurrentThread();
    const QByteArray name = QAbstractEventDispatcher::instance(&thread)->metaObject()->className();
    thread.quit();
    thread.wait();
    if (name.contains("Glib"))
        QTest::newRow("GLib") << QByteArray("") << QByteArray("Glib");
}

void tst_NSerialPort::discardedInputIsNoHangUp()
{
    QFETCH(QByteArray, noGlib);
    QFETCH(QByteArray, dispatcher);
    qputenv("QT_NO_GLIB", noGlib);
    DiscardingThread thread(m_uart.data(), dispatcher);
    thread.start();
    QVERIFY(thread.wait());
    QCOMPARE(thread.error(), QString());
}

void tst_NSerialPort::discardingAfterTheEndDoesNotResumeReading()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(m_port->channelsFinished, 1);
    }
    m_port->setBaudRate(NSerialPort::BaudRate115200);
    QVERIFY(!m_port->notifier()->isEnabled());
    char byte;
    QCOMPARE(m_port->readData(&byte, 1), qint64(-1));
}

// ---- writing ----

void tst_NSerialPort::writtenBytesArrive()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    Record calls(Calls(Write).onPath(m_uart->path()));
    QCOMPARE(m_port->write("hello", 5), qint64(5));
    QCOMPARE(calls.count(), 1);
    QCOMPARE(m_port->bytesToWrite(), qint64(0));
    QByteArray received;
    NTRY_COMPARE(received += m_uart->receive(), QByteArray("hello"));
}

void tst_NSerialPort::writeMayBeShort()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const ShortTransfer transfer(Calls(Write).onPath(m_uart->path()), 3);
    QCOMPARE(m_port->write("hello"), qint64(3));
    QCOMPARE(transfer.count(), 1);
    QCOMPARE(m_port->write("lo"), qint64(2));
    QByteArray received;
    NTRY_COMPARE(received += m_uart->receive(), QByteArray("hello"));
}

void tst_NSerialPort::failedWriteReportsTheReason_data()
{
    QTest::addColumn<int>("error");
    const int errors[] = {EAGAIN, EINTR, EIO, ENOSPC};
    for (int error : errors)
        QTest::newRow(strerror(error)) << error;
}

void tst_NSerialPort::failedWriteReportsTheReason()
{
    QFETCH(int, error);
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Fault fault(Calls(Write).onPath(m_uart->path()), error);
    QCOMPARE(m_port->write("hello"), qint64(-1));
    QCOMPARE(fault.count(), 1);
    QCOMPARE(m_port->errorString(), errorText(error));
    QVERIFY(m_port->isOpen());
    QVERIFY(m_port->notifier()->isEnabled());
}

void tst_NSerialPort::fullLineTakesNothing()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const QByteArray block(1024, 'x');
    qint64 written = 0;
    qint64 count;
    while ((count = m_port->write(block)) >= 0 && written < 64 * 1024 * 1024)
        written += count;
    QCOMPARE(count, qint64(-1));
    QCOMPARE(m_port->errorString(), errorText(EAGAIN));
    qint64 received = 0;
    NTRY_COMPARE(received += m_uart->receive().size(), written);
    QCOMPARE(m_port->write("x"), qint64(1));
}

// ---- handlers ----

void tst_NSerialPort::handlersMayDoAnything_data()
{
    QTest::addColumn<bool>("isEnd");
    QTest::addColumn<int>("action");
    QTest::newRow("close in readyRead") << false << int(NPortHandler::Close);
    QTest::newRow("reopen in readyRead") << false << int(NPortHandler::Reopen);
    QTest::newRow("delete in readyRead") << false << int(NPortHandler::Delete);
    QTest::newRow("delete later in readyRead") << false << int(NPortHandler::DeleteLater);
    QTest::newRow("close in readChannelFinished") << true << int(NPortHandler::Close);
    QTest::newRow("reopen in readChannelFinished") << true << int(NPortHandler::Reopen);
    QTest::newRow("delete in readChannelFinished") << true << int(NPortHandler::Delete);
    QTest::newRow("delete later in readChannelFinished") << true << int(NPortHandler::DeleteLater);
}

void tst_NSerialPort::handlersMayDoAnything()
{
    QFETCH(bool, isEnd);
    QFETCH(int, action);
    const QPointer<Port> port(new Port(m_uart->portName()));
    const NPortHandler handler(
        port, isEnd ? SIGNAL(readChannelFinished()) : SIGNAL(readyRead()), NPortHandler::Action(action));
    QVERIFY(port->open(QIODevice::ReadWrite));
    {
        const Fault fault(Calls(Read).onPath(m_uart->path()).times(isEnd ? 1 : 0), EIO);
        QVERIFY(sendAndWait("x"));
        NTRY_COMPARE(handler.calls(), 1);
    }
    switch (action) {
    case NPortHandler::Close:
        QVERIFY(!port->isOpen());
        QVERIFY(!port->notifier());
        break;
    case NPortHandler::Reopen:
        QVERIFY(port->isOpen());
        QCOMPARE(port->bytesAvailable(), qint64(0));
        QVERIFY(sendAndWait("again"));
        NTRY_COMPARE(port->bytesAvailable(), qint64(5));
        QCOMPARE(port->readAll(), QByteArray("again"));
        break;
    default:
        NTRY_VERIFY(!port);
        break;
    }
    delete port;
}

void tst_NSerialPort::portMayBeClosedAndDeletedLaterInAboutToClose_data()
{
    QTest::addColumn<int>("action");
    QTest::newRow("close") << int(NPortHandler::Close);
    QTest::newRow("reopen") << int(NPortHandler::Reopen);
    QTest::newRow("delete later") << int(NPortHandler::DeleteLater);
    QTest::newRow("read") << int(NPortHandler::ReadAll);
}

void tst_NSerialPort::portMayBeClosedAndDeletedLaterInAboutToClose()
{
    QFETCH(int, action);
    const QPointer<Port> port(new Port(m_uart->portName()));
    const NPortHandler handler(port, SIGNAL(aboutToClose()), NPortHandler::Action(action));
    QVERIFY(port->open(QIODevice::ReadWrite));
    QVERIFY(sendAndWait("x"));
    NTRY_COMPARE(port->readyReads, 1);
    m_uart->takeChanges();
    const Record closings(Calls(Close).onPath(m_uart->path()));
    port->close();
    QCOMPARE(handler.calls(), 1);
    QCOMPARE(closings.count(), 1);
    QCOMPARE(m_uart->takeChanges().size(), 1);
    QVERIFY(!port->isOpen());
    if (action == NPortHandler::ReadAll)
        QCOMPARE(handler.data(), QByteArray("x"));
    if (action == NPortHandler::DeleteLater)
        NTRY_VERIFY(!port);
    delete port;
}

void tst_NSerialPort::portMayBeMovedToAnotherThread()
{
    QThread thread;
    thread.start();
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Record closings(Calls(Close).onPath(m_uart->path()));
    QSocketNotifier* const notifier = m_port->notifier();
    m_port->moveToThread(&thread);
    QCOMPARE(notifier->thread(), &thread);
    QCOMPARE(m_port->findChild<QTimer*>()->thread(), &thread);
    m_port.take()->deleteLater();
    thread.quit();
    QVERIFY(thread.wait());
    QCOMPARE(closings.count(), 1);
}

QTEST_MAIN(tst_NSerialPort)
#include "tst_nserialport.moc"
