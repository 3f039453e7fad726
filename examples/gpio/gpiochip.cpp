#include "gpiochip.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QMap>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>

namespace {

const char* const NamePrefix = "gpiochip";

// As many as the kernel accepts for one line. Its default are 16.
const __u32 BufferedEvents = 1024;

/** Names of the kernel are bytes in a fixed array, with a zero at the end. */
template <size_t Size> QString textOf(const char (&name)[Size])
{
    return QString::fromLocal8Bit(name, int(strnlen(name, Size)));
}

/** Most lines have no name. */
bool hasName(const GpioChip& chip, int line, const QString& name)
{
    gpio_v2_line_info info;
    return !name.isEmpty() && chip.readLineInfo(line, &info) && textOf(info.name) == name;
}

/** The number, or -1. */
int numberOf(const QString& text, int limit)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    return ok && number >= 0 && number < limit ? number : -1;
}

} // namespace

GpioChip::GpioChip()
{
    memset(&m_info, 0, sizeof(m_info));
}

QStringList GpioChip::names()
{
    QMap<int, QString> names;
    const QStringList entries =
        QDir(QLatin1String("/dev")).entryList(QStringList(QLatin1String("gpiochip*")), QDir::System);
    for (const QString& entry : entries)
        names.insert(entry.mid(int(strlen(NamePrefix))).toInt(), entry);
    return names.values();
}

bool GpioChip::open(const QString& name)
{
    m_name = name;
    m_descriptor.reset(
        ::open(QFile::encodeName(QLatin1String("/dev/") + name).constData(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!m_descriptor.isOpen())
        return false;
    if (::ioctl(descriptor(), GPIO_GET_CHIPINFO_IOCTL, &m_info) == 0)
        return true;
    const int error = errno;
    close();
    errno = error;
    return false;
}

void GpioChip::close()
{
    m_descriptor.reset();
}

QString GpioChip::name() const
{
    return m_name;
}

QString GpioChip::label() const
{
    return textOf(m_info.label);
}

bool GpioChip::isCalled(const QString& text) const
{
    return text == m_name || text == QLatin1String("/dev/") + m_name ||
           QLatin1String(NamePrefix) + text == m_name || text == label();
}

int GpioChip::lineCount() const
{
    return int(m_info.lines);
}

int GpioChip::descriptor() const
{
    return m_descriptor.number();
}

bool GpioChip::readLineInfo(int offset, gpio_v2_line_info* info) const
{
    memset(info, 0, sizeof(*info));
    info->offset = __u32(offset);
    return ::ioctl(descriptor(), GPIO_V2_GET_LINEINFO_IOCTL, info) == 0;
}

bool GpioChip::watchLine(int offset) const
{
    gpio_v2_line_info info;
    memset(&info, 0, sizeof(info));
    info.offset = __u32(offset);
    return ::ioctl(descriptor(), GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &info) == 0;
}

int GpioChip::requestLine(int offset, const gpio_v2_line_config& config) const
{
    gpio_v2_line_request request;
    memset(&request, 0, sizeof(request));
    request.num_lines = 1;
    request.offsets[0] = __u32(offset);
    request.config = config;
    request.event_buffer_size = BufferedEvents;
    const QByteArray consumer = QCoreApplication::applicationName().toLocal8Bit();
    strncpy(request.consumer, consumer.constData(), sizeof(request.consumer) - 1);
    if (::ioctl(descriptor(), GPIO_V2_GET_LINE_IOCTL, &request) != 0)
        return -1;
    return request.fd;
}

GpioAddress::GpioAddress()
    : offset(-1)
{
}

QString GpioAddress::find(const QString& text)
{
    const int separator = text.lastIndexOf(QLatin1Char(':'));
    const QString chipText = text.left(qMax(separator, 0));
    const QString lineText = text.mid(separator + 1);
    QString error = QLatin1String("there is no such line");
    int found = 0;
    const QStringList chipNames = GpioChip::names();
    for (const QString& chipName : chipNames) {
        GpioChip candidate;
        if (!candidate.open(chipName)) {
            error = chipName + QLatin1String(": ") + QString::fromLocal8Bit(strerror(errno));
            continue;
        }
        if (separator >= 0 && !candidate.isCalled(chipText))
            continue;
        const int number = separator < 0 ? -1 : numberOf(lineText, candidate.lineCount());
        for (int i = 0; i < candidate.lineCount(); ++i) {
            if (number >= 0 ? i != number : !hasName(candidate, i, lineText))
                continue;
            chip = chipName;
            offset = i;
            ++found;
        }
    }
    if (found > 1)
        return QLatin1String("this is the name of several lines");
    return found == 1 ? QString() : error;
}
