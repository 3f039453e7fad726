#include <nbase/serial/nserialport.h>

#include <nbase/nbaseqtcompat_p.h>
#include <nbase/serial/nserialportfileopeningevent.h>
#include <nbase/serial/nserialportfileopeningworkerthread.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>
#include <QtCore/QSocketNotifier>

#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

const int DevicePrefixSize = 5; // "/dev/"

// How many grants of a port nest, each within the release of the holder before.
const int MaximumGrantDepth = 16;

const tcflag_t XonXoffFlags = IXON | IXOFF | IXANY;

const NSerialPort::PortSettings DefaultSettings = {
    NSerialPort::BaudRate9600, NSerialPort::DataBits8, NSerialPort::ParityNone, NSerialPort::StopBits1,
    NSerialPort::FlowControlNone};

struct SpeedOfBaudRate
{
    NSerialPort::BaudRate baudRate;
    speed_t speed;
};

const SpeedOfBaudRate Speeds[] = {{NSerialPort::BaudRate110, B110},       {NSerialPort::BaudRate300, B300},
                                  {NSerialPort::BaudRate600, B600},       {NSerialPort::BaudRate1200, B1200},
                                  {NSerialPort::BaudRate2400, B2400},     {NSerialPort::BaudRate4800, B4800},
                                  {NSerialPort::BaudRate9600, B9600},     {NSerialPort::BaudRate19200, B19200},
                                  {NSerialPort::BaudRate38400, B38400},   {NSerialPort::BaudRate57600, B57600},
                                  {NSerialPort::BaudRate115200, B115200}, {NSerialPort::BaudRate230400, B230400}};

struct NameOfPrefix
{
    const char* prefix;
    const char* name;
};

const NameOfPrefix FriendlyNames[] = {
    {"ttyS", "Serial port "},
    {"ttyAPP", "Serial port "},
    {"ttyCUSE", "Virtual serial port "},
    {"ttyUSB", "USB-serial adapter "},
    {"rfcomm", "Bluetooth-serial adapter "}};

struct StatusOfLine
{
    int line; ///< for the driver, see ioctl_tty(2)
    NSerialPort::LineStatusBit status;
};

const StatusOfLine LineStatuses[] = {
    {TIOCM_CTS, NSerialPort::LineCts},
    {TIOCM_DSR, NSerialPort::LineDsr},
    {TIOCM_CAR, NSerialPort::LineDcd},
    {TIOCM_RNG, NSerialPort::LineRi},
    {TIOCM_RTS, NSerialPort::LineRts},
    {TIOCM_DTR, NSerialPort::LineDtr},
    {TIOCM_ST, NSerialPort::LineSecondaryTransmit},
    {TIOCM_SR, NSerialPort::LineSecondaryReceive}};

void setBits(tcflag_t& flags, tcflag_t mask, tcflag_t bits)
{
    flags = (flags & ~mask) | bits;
}

} // namespace

NSerialPort::NSerialPort(const QString& portName, const PortSettings& settings, QObject* parent)
    : QIODevice(parent)
    , m_portName(portName)
    , m_deviceName(portName.mid(DevicePrefixSize))
    , m_friendlyName(friendlyName(m_deviceName))
    , m_settings(settings)
    , m_openingThread(nullptr)
    , m_asyncOpenTimer(this)
    , m_fd(-1)
    , m_notifier(nullptr)
    , m_changedSettings(AllSettings)
    , m_readBufferBegin(0)
    , m_isBeingDestroyed(false)
    , m_grantDepth(0)
    , m_isHeadWaiting(false)
{
    memset(&m_savedTermios, 0, sizeof(m_savedTermios));
    m_termios = m_savedTermios;
    NBaseQtCompat::makePrecise(&m_asyncOpenTimer);
    m_asyncOpenTimer.setSingleShot(true);
    connect(&m_asyncOpenTimer, SIGNAL(timeout()), SLOT(handleAsyncOpenTimeout()));
}

NSerialPort::NSerialPort(const QString& portName, QObject* parent)
    : NSerialPort(portName, DefaultSettings, parent)
{
}

NSerialPort::~NSerialPort()
{
    m_isBeingDestroyed = true;
    NSerialPort::close();
    // Receivers may delete other allocators, which then remove their requests.
    while (!m_allocationQueue.isEmpty()) {
        NSerialPortAllocator* const allocator = m_allocationQueue.first().first;
        removeRequests(allocator, 0);
        m_isHeadWaiting = !m_allocationQueue.isEmpty();
        allocator->processSerialPortAboutToRemove(this);
    }
}

QString NSerialPort::portName() const
{
    return m_portName;
}

QString NSerialPort::deviceName() const
{
    return m_deviceName;
}

QString NSerialPort::friendlyName() const
{
    return m_friendlyName;
}

NSerialPort::PortSettings NSerialPort::portSettings() const
{
    return m_settings;
}

NSerialPort::BaudRate NSerialPort::baudRate() const
{
    return m_settings.baudRate;
}

NSerialPort::DataBits NSerialPort::dataBits() const
{
    return m_settings.dataBits;
}

NSerialPort::ParityType NSerialPort::parity() const
{
    return m_settings.parity;
}

NSerialPort::StopBits NSerialPort::stopBits() const
{
    return m_settings.stopBits;
}

NSerialPort::FlowControlType NSerialPort::flowControl() const
{
    return m_settings.flowControl;
}

QString NSerialPort::friendlyName(const QString& deviceName)
{
    for (size_t i = 0; i < sizeof(FriendlyNames) / sizeof(FriendlyNames[0]); ++i) {
        const QLatin1String prefix(FriendlyNames[i].prefix);
        if (deviceName.startsWith(prefix))
            return QLatin1String(FriendlyNames[i].name) + deviceName.mid(int(strlen(FriendlyNames[i].prefix)));
    }
    return QString();
}

// ---- opening and closing ----

int NSerialPort::openFile(const QString& portName, int& errorNumber)
{
    // Without O_NONBLOCK, open() waits for the carrier.
    const int fd = ::open(portName.toLatin1().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    errorNumber = fd < 0 ? errno : 0;
    return fd;
}

bool NSerialPort::open(QIODevice::OpenMode mode)
{
    if (!mode || isOpen() || m_isBeingDestroyed)
        return isOpen();
    int errorNumber;
    const int fd = openFile(m_portName, errorNumber);
    return open(fd, errorNumber, mode);
}

bool NSerialPort::open(int fd, int errorNumber, QIODevice::OpenMode mode)
{
    if (!mode || isOpen() || m_isBeingDestroyed) {
        if (fd >= 0)
            ::close(fd);
        setErrorString(QString());
        return isOpen();
    }
    if (fd < 0) {
        setErrorString(NSystem::errorText(errorNumber));
        return false;
    }
    m_fd = fd;
    QIODevice::open(mode);

    if (tcgetattr(fd, &m_savedTermios) != 0)
        memset(&m_savedTermios, 0, sizeof(m_savedTermios));
    m_termios = m_savedTermios;
    cfmakeraw(&m_termios);
    m_termios.c_cflag |= CREAD | CLOCAL;
    m_termios.c_lflag &= ~tcflag_t(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL);
    m_termios.c_oflag &= ~tcflag_t(OPOST);
    m_termios.c_iflag &= ~tcflag_t(IGNPAR | PARMRK | INPCK | ISTRIP | ICRNL | IXANY);
    m_termios.c_cc[VMIN] = 1;
    m_termios.c_cc[VTIME] = 0;
    const cc_t disabled = cc_t(fpathconf(fd, _PC_VDISABLE));
    m_termios.c_cc[VINTR] = disabled;
    m_termios.c_cc[VQUIT] = disabled;
    m_termios.c_cc[VSTART] = disabled;
    m_termios.c_cc[VSTOP] = disabled;
    m_termios.c_cc[VSUSP] = disabled;
    m_changedSettings = AllSettings;
    updatePortSettings();

    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read);
    m_notifier->moveToThread(thread());
    m_notifier->setParent(this);
    connect(m_notifier, SIGNAL(activated(int)), SLOT(canRead()));
    return isOpen();
}

void NSerialPort::asyncOpen(QIODevice::OpenMode mode, int timeoutMs)
{
    if (m_openingThread || m_isBeingDestroyed)
        return;
    m_asyncOpenMode = mode;
    m_openingThread = new NSerialPortFileOpeningWorkerThread(this, this);
    m_openingThread->start(QThread::InheritPriority);
    // The system refuses more threads (pthread_create(3)); the event loop reports it like any other failure.
    if (!m_openingThread->isRunning() && !m_openingThread->isFinished()) {
        QCoreApplication::postEvent(
            this, new NSerialPortFileOpeningEvent(-1, EAGAIN, m_openingThread->openingNumber()));
    }
    if (timeoutMs >= 0)
        m_asyncOpenTimer.start(timeoutMs);
}

void NSerialPort::customEvent(QEvent* event)
{
    if (event->type() != NSerialPortFileOpeningEvent::S_EVENT_TYPE) {
        QIODevice::customEvent(event);
        return;
    }
    NSerialPortFileOpeningEvent* const result = static_cast<NSerialPortFileOpeningEvent*>(event);
    // The result of an opening that was abandoned: the event closes its descriptor.
    if (!m_openingThread || result->openingNumber() != m_openingThread->openingNumber())
        return;
    m_asyncOpenTimer.stop();
    m_openingThread->wait();
    m_openingThread->deleteLater();
    m_openingThread = nullptr;
    const QIODevice::OpenMode mode = m_asyncOpenMode;
    m_asyncOpenMode = QIODevice::NotOpen;
    const int errorNumber = result->errorNumber();
    if (open(result->takeDescriptor(), errorNumber, mode))
        emit opened();
    else
        emit openingError();
}

void NSerialPort::handleAsyncOpenTimeout()
{
    close();
    setErrorString(latin1("opening timeout"));
    emit openingError();
}

void NSerialPort::abandonOpening()
{
    if (!m_openingThread)
        return;
    m_asyncOpenTimer.stop();
    m_openingThread->abandon();
    m_openingThread->deleteLater();
    m_openingThread = nullptr;
    m_asyncOpenMode = QIODevice::NotOpen;
}

void NSerialPort::close()
{
    abandonOpening();
    // A receiver of aboutToClose() may call this again.
    if (!isOpen() || !m_notifier)
        return;
    m_notifier->disconnect(this);
    delete m_notifier;
    m_notifier = nullptr;
    QIODevice::close();
    tcdrain(m_fd);
    tcsetattr(m_fd, TCSAFLUSH, &m_savedTermios);
    ::close(m_fd);
    m_fd = -1;
    m_readBuffer.clear();
    m_readBufferBegin = 0;
}

// ---- settings and lines ----

template <typename Value> void NSerialPort::changeSetting(Value& setting, Value value, Setting bit)
{
    if (setting == value)
        return;
    setting = value;
    m_changedSettings |= bit;
    updatePortSettings();
}

void NSerialPort::setBaudRate(BaudRate baudRate)
{
    changeSetting(m_settings.baudRate, baudRate, BaudRateSetting);
}

void NSerialPort::setDataBits(DataBits dataBits)
{
    changeSetting(m_settings.dataBits, dataBits, DataBitsSetting);
}

void NSerialPort::setParity(ParityType parity)
{
    changeSetting(m_settings.parity, parity, ParitySetting);
}

void NSerialPort::setStopBits(StopBits stopBits)
{
    changeSetting(m_settings.stopBits, stopBits, StopBitsSetting);
}

void NSerialPort::setFlowControl(FlowControlType flowControl)
{
    changeSetting(m_settings.flowControl, flowControl, FlowControlSetting);
}

void NSerialPort::updatePortSettings()
{
    if (!isOpen() || m_changedSettings == 0)
        return;
    if (m_changedSettings & BaudRateSetting) {
        for (size_t i = 0; i < sizeof(Speeds) / sizeof(Speeds[0]); ++i) {
            if (Speeds[i].baudRate == m_settings.baudRate)
                cfsetspeed(&m_termios, Speeds[i].speed);
        }
    }
    if (m_changedSettings & DataBitsSetting) {
        const tcflag_t size = m_settings.dataBits == DataBits7 ? CS7 : m_settings.dataBits == DataBits8 ? CS8 : 0;
        setBits(m_termios.c_cflag, CSIZE, size);
    }
    if (m_changedSettings & ParitySetting) {
        switch (m_settings.parity) {
        case ParityNone: // PARODD has no effect then and is left as it is
            setBits(m_termios.c_cflag, PARENB, 0);
            break;
        case ParityEven:
            setBits(m_termios.c_cflag, PARENB | PARODD, PARENB);
            break;
        case ParityOdd:
            setBits(m_termios.c_cflag, PARENB | PARODD, PARENB | PARODD);
            break;
        }
    }
    if (m_changedSettings & StopBitsSetting) {
        switch (m_settings.stopBits) {
        case StopBits1:
            setBits(m_termios.c_cflag, CSTOPB, 0);
            break;
        case StopBits2:
            setBits(m_termios.c_cflag, CSTOPB, CSTOPB);
            break;
        }
    }
    if (m_changedSettings & FlowControlSetting) {
        switch (m_settings.flowControl) {
        case FlowControlNone:
            setFlowControlFlags(0, 0, false);
            break;
        case FlowControlHardware:
            setFlowControlFlags(0, CRTSCTS, false);
            break;
        case FlowControlXonXoff:
            setFlowControlFlags(XonXoffFlags, 0, false);
            break;
        case FlowControlRs485Rts:
            setFlowControlFlags(0, 0, true);
            break;
        }
    }
    tcsetattr(m_fd, TCSAFLUSH, &m_termios);
    m_changedSettings = 0;
    // Input that tcsetattr() has discarded may have been announced already. canRead() would find nothing, which
    // means the end; enabling the notifier again withdraws the announcement.
    if (m_notifier && m_notifier->isEnabled()) {
        m_notifier->setEnabled(false);
        m_notifier->setEnabled(true);
    }
}

void NSerialPort::setFlowControlFlags(tcflag_t inputFlags, tcflag_t controlFlags, bool rs485)
{
    setBits(m_termios.c_iflag, XonXoffFlags, inputFlags);
    setBits(m_termios.c_cflag, CRTSCTS, controlFlags);
    setRs485Mode(rs485);
}

void NSerialPort::setRs485Mode(bool on)
{
    // Polarity of RTS and delays are those of the driver: they depend on the board.
    serial_rs485 rs485;
    memset(&rs485, 0, sizeof(rs485));
    if (::ioctl(m_fd, TIOCGRS485, &rs485) == -1)
        memset(&rs485, 0, sizeof(rs485));
    if (bool(rs485.flags & SER_RS485_ENABLED) == on)
        return;
    rs485.flags ^= SER_RS485_ENABLED;
    ::ioctl(m_fd, TIOCSRS485, &rs485);
}

int NSerialPort::lineStatus() const
{
    int lines = 0;
    if (!isOpen() || ::ioctl(m_fd, TIOCMGET, &lines) == -1)
        return 0;
    int status = 0;
    for (size_t i = 0; i < sizeof(LineStatuses) / sizeof(LineStatuses[0]); ++i) {
        if (lines & LineStatuses[i].line)
            status |= LineStatuses[i].status;
    }
    return status;
}

void NSerialPort::setDtr(bool set)
{
    setModemLine(TIOCM_DTR, set);
}

void NSerialPort::setRts(bool set)
{
    setModemLine(TIOCM_RTS, set);
}

void NSerialPort::setModemLine(int line, bool set)
{
    if (!isOpen())
        return;
    int lines = 0;
    if (::ioctl(m_fd, TIOCMGET, &lines) == -1)
        lines = 0;
    lines = set ? lines | line : lines & ~line;
    ::ioctl(m_fd, TIOCMSET, &lines);
}

void NSerialPort::flush()
{
    if (isOpen())
        tcdrain(m_fd);
}

// ---- data ----

bool NSerialPort::isSequential() const
{
    return true;
}

qint64 NSerialPort::bytesAvailable() const
{
    return isOpen() ? m_readBuffer.size() - m_readBufferBegin + QIODevice::bytesAvailable() : 0;
}

bool NSerialPort::canReadLine() const
{
    return m_readBuffer.indexOf('\n', m_readBufferBegin) >= 0 || QIODevice::canReadLine();
}

void NSerialPort::canRead()
{
    int waiting = 0;
    if (::ioctl(m_fd, FIONREAD, &waiting) == -1) {
        finishReading(NSystem::errorText());
        return;
    }
    // Removing the bytes that have been read moves all others, which would slow down the reading of a backlog.
    if (m_readBufferBegin > m_readBuffer.size() / 2) {
        m_readBuffer.remove(0, m_readBufferBegin);
        m_readBufferBegin = 0;
    }
    const int size = m_readBuffer.size();
    m_readBuffer.resize(size + qMax(waiting, 0));
    const ssize_t count = ::read(m_fd, m_readBuffer.data() + size, size_t(m_readBuffer.size() - size));
    const int error = errno;
    m_readBuffer.resize(size + int(qMax(count, ssize_t(0))));
    if (count == 0)
        finishReading(latin1("Serial port hangs-up"));
    else if (count < 0 && error != EAGAIN && error != EINTR)
        finishReading(NSystem::errorText(error));
    else
        emit readyRead();
}

void NSerialPort::finishReading(const QString& reason)
{
    setErrorString(reason);
    m_notifier->setEnabled(false);
    emit readChannelFinished();
}

qint64 NSerialPort::readData(char* data, qint64 maxSize)
{
    const int unread = m_readBuffer.size() - m_readBufferBegin;
    if (unread == 0 && maxSize > 0)
        return m_notifier && m_notifier->isEnabled() ? 0 : -1;
    const int size = int(qMin(qint64(unread), maxSize));
    if (size == 0) // QIODevice passes a null pointer then
        return 0;
    memcpy(data, m_readBuffer.constData() + m_readBufferBegin, size_t(size));
    m_readBufferBegin += size;
    if (m_readBufferBegin == m_readBuffer.size()) {
        m_readBuffer.clear();
        m_readBufferBegin = 0;
    }
    return size;
}

qint64 NSerialPort::writeData(const char* data, qint64 maxSize)
{
    const ssize_t count = ::write(m_fd, data, size_t(maxSize));
    if (count == -1)
        setErrorString(NSystem::errorText());
    return count;
}

// ---- allocation ----

bool NSerialPort::requestPortAllocation(NSerialPortAllocator* allocator, NSerialPortAllocator::AllocationType type)
{
    if (m_isBeingDestroyed)
        return false;
    if (!m_allocationQueue.isEmpty() &&
        m_allocationQueue.last().second == NSerialPortAllocator::PermanentAllocation)
        return false;
    m_allocationQueue.append(qMakePair(allocator, type));
    if (m_allocationQueue.size() == 1)
        allocator->processSerialPortAllocation(this, type);
    return true;
}

void NSerialPort::releasePort(NSerialPortAllocator* allocator)
{
    if (m_allocationQueue.isEmpty() || m_allocationQueue.first().first != allocator)
        return;
    m_allocationQueue.removeFirst();
    m_isHeadWaiting = !m_allocationQueue.isEmpty();
    // Holders that give the port back in their grants would take a stack as deep as the queue is long. The
    // innermost of the loops below grants all further requests, each after the grant before has returned.
    if (m_isBeingDestroyed || m_grantDepth == MaximumGrantDepth)
        return;
    ++m_grantDepth;
    const QPointer<NSerialPort> port(this);
    while (port && m_isHeadWaiting) {
        m_isHeadWaiting = false;
        const Request request = m_allocationQueue.first();
        request.first->processSerialPortAllocation(this, request.second);
    }
    if (port)
        --m_grantDepth;
}

void NSerialPort::cancelPortAllocationRequests(NSerialPortAllocator* allocator)
{
    removeRequests(allocator, m_isHeadWaiting ? 0 : 1);
}

void NSerialPort::removeRequests(NSerialPortAllocator* allocator, int begin)
{
    for (int i = m_allocationQueue.size() - 1; i >= begin; --i) {
        if (m_allocationQueue.at(i).first == allocator)
            m_allocationQueue.removeAt(i);
    }
    if (m_allocationQueue.isEmpty())
        m_isHeadWaiting = false;
}
