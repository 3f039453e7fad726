// "nserial --list" on machines with other devices.
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

class tst_PortList : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void portsAreListedInNaturalOrderWithTheirFriendlyNames();
    void consolesAndPortsThatTheMachineDoesNotHaveAreNotListed();
    void machineWithoutPorts();

private:
    void addHardware(const char* device);

    QScopedPointer<NTemporaryDirectory> m_devices;
};

namespace {

const char* const Devices = "/sys/class/tty";

QByteArray listed()
{
    QProcess command;
    command.start(QString::fromLocal8Bit(qgetenv("NSERIAL")), QStringList(latin1("--list")));
    if (!command.waitForFinished() || command.exitCode() != 0)
        return command.errorString().toLocal8Bit() + command.readAllStandardError();
    return command.readAllStandardOutput();
}

} // namespace

void tst_PortList::init()
{
    m_devices.reset(new NTemporaryDirectory);
    NPrivateNamespace::mountCopy(m_devices->path(), latin1(Devices));
}

void tst_PortList::cleanup()
{
    NPrivateNamespace::unmount(latin1(Devices));
    m_devices.reset();
}

void tst_PortList::addHardware(const char* device)
{
    QVERIFY(QDir(m_devices->path()).mkpath(latin1(device) + latin1("/device")));
}

void tst_PortList::portsAreListedInNaturalOrderWithTheirFriendlyNames()
{
    for (const char* device : {"ttyUSB10", "ttyUSB9", "ttyS0", "ttyAPP3", "rfcomm0", "ttyCUSE1", "ttyACM0"})
        addHardware(device);
    m_devices->writeFile(latin1("ttyS0/type"), "4\n");
    QCOMPARE(
        listed(), QByteArray("/dev/rfcomm0  Bluetooth-serial adapter 0\n"
                             "/dev/ttyACM0\n"
                             "/dev/ttyAPP3  Serial port 3\n"
                             "/dev/ttyCUSE1  Virtual serial port 1\n"
                             "/dev/ttyS0  Serial port 0\n"
                             "/dev/ttyUSB9  USB-serial adapter 9\n"
                             "/dev/ttyUSB10  USB-serial adapter 10\n"));
}

void tst_PortList::consolesAndPortsThatTheMachineDoesNotHaveAreNotListed()
{
    QVERIFY(QDir(m_devices->path()).mkdir(latin1("tty0")));
    QVERIFY(QDir(m_devices->path()).mkdir(latin1("console")));
    addHardware("ttyS0");
    m_devices->writeFile(latin1("ttyS0/type"), "4\n");
    addHardware("ttyS1");
    m_devices->writeFile(latin1("ttyS1/type"), "0\n");
    QCOMPARE(listed(), QByteArray("/dev/ttyS0  Serial port 0\n"));
}

void tst_PortList::machineWithoutPorts()
{
    QCOMPARE(listed(), QByteArray());
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_PortList, NPrivateNamespace::Mounts)
#include "tst_portlist.moc"
