#ifndef NBASE_TESTS_NVIRTUALDEVICE_H
#define NBASE_TESTS_NVIRTUALDEVICE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

/** The machine in which a test program runs, see scripts/run-in-virtual-device.py. */
namespace NVirtualDevice {

/**
 * Has something done to the machine, for example "unplug usb0", and waits until it has been done; the kernel may
 * notice it later.
 * @return an empty text, or why it has not been done.
 */
QByteArray request(const char* action);

/** The device file of the USB serial adapter with this serial number; an empty text while there is none. */
QString usbSerialPort(const char* serialNumber);

} // namespace NVirtualDevice

#endif
