#include "nvirtualdevice.h"

#include <nsystem/nlinereader_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <fcntl.h>
#include <string.h>

QByteArray NVirtualDevice::request(const char* action)
{
    const NFileDescriptor control = NSystem::open("/dev/virtual-device/control", O_RDWR);
    if (!control.isOpen())
        return NSystem::errorText().toLocal8Bit();
    const QByteArray line = QByteArray(action) + '\n';
    NLineReader reader;
    NLineReader::Line answer;
    if (!NSystem::writeAll(control.number(), line.constData(), size_t(line.size())))
        return NSystem::errorText().toLocal8Bit();
    reader.start(control.number());
    if (!reader.next(&answer))
        return "no answer";
    const QByteArray text(answer.bytes, answer.size);
    return text == "done" ? QByteArray() : text;
}

QString NVirtualDevice::usbSerialPort(const char* serialNumber)
{
    const QDir devices(QLatin1String("/sys/bus/usb-serial/devices"));
    const QStringList names = devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (int i = 0; i < names.size(); ++i) {
        // The parent of the port is the interface of the USB device.
        const QDir port(QDir(devices.filePath(names.at(i))).canonicalPath());
        QFile file(port.filePath(QLatin1String("../../serial")));
        if (file.open(QIODevice::ReadOnly) && file.readAll().trimmed() == serialNumber)
            return QLatin1String("/dev/") + names.at(i);
    }
    return QString();
}
