#include <nbase/serial/nserialportfileopeningworkerthread.h>

#include <nbase/serial/nserialport.h>
#include <nbase/serial/nserialportfileopeningevent.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QSet>

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The first number is 1: 0 stands for no thread.
int nextOpeningNumber()
{
    static QAtomicInt latest(0);
    return latest.fetchAndAddOrdered(1) + 1;
}

// Lists the descriptors that the process has open. It fails when the process has no descriptor left for that, and
// when /proc is not mounted.
bool listOpenDescriptors(QSet<int>* descriptors)
{
    descriptors->clear();
    DIR* const directory = opendir("/proc/self/fd");
    if (!directory)
        return false;
    while (const dirent* const entry = readdir(directory)) {
        bool isNumber; // "." and ".." are none
        const int descriptor = QByteArray(entry->d_name).toInt(&isNumber);
        if (isNumber)
            descriptors->insert(descriptor);
    }
    descriptors->remove(dirfd(directory));
    closedir(directory);
    return true;
}

// Whether it is what NSerialPort::openFile() gets for the device with this number.
bool isPortDescriptor(int descriptor, dev_t device)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == device &&
           (fcntl(descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK)) == (O_RDWR | O_NONBLOCK) &&
           fcntl(descriptor, F_GETFD) == FD_CLOEXEC;
}

} // namespace

NSerialPortFileOpeningWorkerThread::NSerialPortFileOpeningWorkerThread(NSerialPort* port, QObject* parent)
    : QThread(parent)
    , m_port(port)
    , m_portName(port->portName())
    , m_openingNumber(nextOpeningNumber())
{
    setObjectName(latin1("NSerialPort's file opening thread: %1").arg(m_portName));
}

void NSerialPortFileOpeningWorkerThread::run()
{
    m_threadId.fetchAndStoreOrdered(int(syscall(SYS_gettid)));
    int errorNumber = 0;
    setTerminationEnabled(true);
    const int descriptor = NSerialPort::openFile(m_portName, errorNumber);
    setTerminationEnabled(false);
    m_hasReturned.fetchAndStoreOrdered(1);
    QCoreApplication::postEvent(m_port, new NSerialPortFileOpeningEvent(descriptor, errorNumber, m_openingNumber));
}

// The C library cancels a thread even when the kernel has opened the file already and is about to return its
// descriptor (pthread_cancel(3); glibc before 2.41, uClibc). Therefore a thread that can still return is not
// terminated: it is waited for. One that blocks can be woken in the last moment, so that the descriptors that have
// appeared since it was seen to block are looked through.
void NSerialPortFileOpeningWorkerThread::abandon()
{
    QSet<int> descriptors;
    bool isListed = listOpenDescriptors(&descriptors);
    while (!isAsleep()) {
        if (wait(1))
            return;
        isListed = listOpenDescriptors(&descriptors);
    }
    terminate();
    wait();
    QSet<int> newDescriptors;
    // Without the first list, the descriptors of others would pass for new ones.
    if (m_hasReturned.fetchAndAddOrdered(0) != 0 || !isListed || !listOpenDescriptors(&newDescriptors))
        return;
    newDescriptors -= descriptors;
    struct stat status;
    if (newDescriptors.isEmpty() || stat(m_portName.toLatin1().constData(), &status) != 0)
        return;
    for (QSet<int>::const_iterator i = newDescriptors.constBegin(); i != newDescriptors.constEnd(); ++i) {
        if (isPortDescriptor(*i, status.st_rdev))
            ::close(*i);
    }
}

// Whether the thread waits in the kernel: the third field of proc(5), /proc/pid/stat. Without /proc it counts as
// asleep.
bool NSerialPortFileOpeningWorkerThread::isAsleep()
{
    const int threadId = m_threadId.fetchAndAddOrdered(0);
    if (threadId == 0)
        return false;
    const QByteArray path = "/proc/self/task/" + QByteArray::number(threadId) + "/stat";
    const NFileDescriptor file = NSystem::open(path.constData(), O_RDONLY);
    char text[64]; // more than the first three fields
    const ssize_t size = file.isOpen() ? NSystem::readAll(file.number(), text, sizeof(text) - 1) : 0;
    text[qMax(size, ssize_t(0))] = '\0';
    const char* const nameEnd = strrchr(text, ')');
    return !nameEnd || strncmp(nameEnd, ") S", 3) == 0 || strncmp(nameEnd, ") D", 3) == 0;
}
