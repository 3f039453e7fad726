#include "gpioline.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFileSystemWatcher>
#include <QtCore/QPointer>
#include <QtCore/QSocketNotifier>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>

namespace {

/** One for all lines, because a user may have 128 inotify instances only. */
QFileSystemWatcher* deviceDirectory()
{
    static QPointer<QFileSystemWatcher> watcher;
    if (!watcher) {
        watcher = new QFileSystemWatcher(QCoreApplication::instance());
        watcher->addPath(QLatin1String("/dev"));
    }
    return watcher;
}

QString textOf(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

bool isTemporary(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

GpioLine::GpioLine(const QString& address, const gpio_v2_line_config& config)
    : m_address(address)
    , m_config(config)
    , m_offset(-1)
    , m_notifier(nullptr)
{
    connect(deviceDirectory(), SIGNAL(directoryChanged(QString)), SLOT(checkChip()));
}

GpioLine::~GpioLine()
{
    // Before the descriptor is closed.
    delete m_notifier;
}

bool GpioLine::request()
{
    if (!isHeld())
        m_errorText = requestFromChip();
    return isHeld();
}

QString GpioLine::requestFromChip()
{
    setNotifier(-1, nullptr);
    m_chip.close();
    GpioAddress address;
    const QString reason = address.find(m_address);
    if (!reason.isEmpty())
        return reason;
    if (!m_chip.open(address.chip))
        return textOf(errno);
    m_offset = address.offset;
    // Watched first, so that a release between the two steps is reported.
    m_chip.watchLine(m_offset);
    m_line.reset(m_chip.requestLine(m_offset, m_config));
    if (isHeld()) {
        m_chip.close();
        ::fcntl(descriptor(), F_SETFL, O_NONBLOCK);
        setNotifier(descriptor(), SIGNAL(eventsArrived()));
        return QString();
    }
    const int error = errno;
    setNotifier(m_chip.descriptor(), SLOT(readChangesOfHolder()));
    gpio_v2_line_info info;
    if (!m_chip.readLineInfo(m_offset, &info))
        return textOf(error);
    if (error == EBUSY)
        return QString::fromLatin1("held by \"%1\"").arg(QString::fromLocal8Bit(info.consumer));
    // What the kernel says about a line without an interrupt, although the chip is there.
    if ((error == ENODEV || error == ENXIO) && m_config.flags & GPIO_V2_LINE_FLAG_EDGE_RISING)
        return QLatin1String("the chip does not report edges of this line");
    return textOf(error);
}

void GpioLine::setNotifier(int descriptor, const char* slot)
{
    // This may be called by the notifier itself.
    if (m_notifier) {
        m_notifier->setEnabled(false);
        m_notifier->disconnect(this);
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    if (descriptor < 0)
        return;
    m_notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read);
    connect(m_notifier, SIGNAL(activated(int)), slot);
}

bool GpioLine::isHeld() const
{
    return m_line.isOpen();
}

int GpioLine::descriptor() const
{
    return m_line.number();
}

QString GpioLine::errorText() const
{
    return m_errorText;
}

gpio_v2_line_config& GpioLine::config()
{
    return m_config;
}

bool GpioLine::readLevel(bool* level) const
{
    gpio_v2_line_values values;
    memset(&values, 0, sizeof(values));
    values.mask = 1;
    if (::ioctl(descriptor(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values) != 0)
        return false;
    *level = values.bits & 1;
    return true;
}

bool GpioLine::writeLevel(bool level)
{
    gpio_v2_line_values values;
    memset(&values, 0, sizeof(values));
    values.mask = 1;
    values.bits = level;
    if (::ioctl(descriptor(), GPIO_V2_LINE_SET_VALUES_IOCTL, &values) == 0)
        return true;
    lose();
    return false;
}

int GpioLine::readEvents(gpio_v2_line_event* events, int size)
{
    const ssize_t count = ::read(descriptor(), events, size_t(size) * sizeof(*events));
    if (count > 0)
        return int(size_t(count) / sizeof(*events));
    if (count == 0 || !isTemporary(errno))
        lose();
    return 0;
}

void GpioLine::readChangesOfHolder()
{
    gpio_v2_line_info_changed change;
    bool isReleased = false;
    ssize_t count;
    while ((count = ::read(m_chip.descriptor(), &change, sizeof(change))) == ssize_t(sizeof(change)))
        isReleased |= change.event_type == GPIO_V2_LINE_CHANGED_RELEASED;
    if (count >= 0 || !isTemporary(errno))
        setNotifier(-1, nullptr); // an unplugged chip, whose descriptor would be readable for ever
    if (isReleased)
        requestAgain();
}

void GpioLine::checkChip()
{
    bool level;
    if (!isHeld())
        requestAgain();
    else if (!readLevel(&level))
        lose();
}

void GpioLine::requestAgain()
{
    if (!isHeld() && request())
        emit obtained();
}

void GpioLine::lose()
{
    m_errorText = textOf(errno);
    setNotifier(-1, nullptr);
    m_line.reset();
    // The chip may be back already, without a further change of the directory.
    QMetaObject::invokeMethod(this, "requestAgain", Qt::QueuedConnection);
    emit lost();
}
