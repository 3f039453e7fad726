#include "portlist.h"

#include <nbase/serial/nserialport.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QMap>
#include <QtCore/QRegExp>
#include <QtCore/QStringList>

namespace {

const int NumberWidth = 10; // digits of the largest number of a device

/** Whether the terminal device belongs to hardware; consoles and pseudoterminals do not. */
bool isSerialPort(const QDir& device)
{
    if (!device.exists(QString::fromLatin1("device")))
        return false;
    // The driver of 8250 ports also registers those that the machine does not have. Their type is 0, unknown.
    QFile type(device.filePath(QString::fromLatin1("type")));
    return !type.open(QIODevice::ReadOnly) || type.readAll().trimmed() != "0";
}

/** Sorts numbers by their values: ttyS2 before ttyS10. */
QString sortingKey(const QString& name)
{
    QRegExp number(QString::fromLatin1("\\d+"));
    QString key;
    int end = 0;
    for (int begin = number.indexIn(name); begin >= 0; begin = number.indexIn(name, end)) {
        key += name.mid(end, begin - end) + number.cap().rightJustified(NumberWidth, QLatin1Char('0'));
        end = begin + number.matchedLength();
    }
    return key + name.mid(end);
}

} // namespace

QByteArray portList()
{
    const QDir devices(QString::fromLatin1("/sys/class/tty"));
    QMap<QString, QString> ports;
    const QStringList names = devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        if (isSerialPort(QDir(devices.filePath(name))))
            ports.insert(sortingKey(name), name);
    }
    QByteArray list;
    for (const QString& name : ports) {
        const QString friendlyName = NSerialPort::friendlyName(name);
        list += "/dev/" + name.toLocal8Bit();
        if (!friendlyName.isNull())
            list += "  " + friendlyName.toLocal8Bit();
        list += '\n';
    }
    return list;
}
