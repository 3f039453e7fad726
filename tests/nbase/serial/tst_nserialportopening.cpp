#include <nbase/serial/nserialport.h>
#include <nbase/serial/nserialportallocator.h>
#include <nbase/serial/nserialportfileopeningevent.h>
#include <nbase/serial/nserialportfileopeningworkerthread.h>

#include "nporthandler.h"

#include "support/nsimulateduart.h"
#include "support/nsystemcalls.h"
#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>

using namespace NSystemCalls;

namespace {

typedef NSerialPortFileOpeningEvent OpeningEvent;
typedef NSerialPortFileOpeningWorkerThread OpeningThread;

// Each opening takes ten times as long with a sanitizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int AbandonedOpenings = 1000;
#else
const int AbandonedOpenings = 10000;
#endif

/** What receivers of the results do. */
const struct NamedAction
{
    const char* name;
    NPortHandler::Action action;
} Actions[] = {
    {"nothing", NPortHandler::Nothing},
    {"close", NPortHandler::Close},
    {"delete", NPortHandler::Delete},
    {"delete later", NPortHandler::DeleteLater},
    {"open again", NPortHandler::ReopenInThread}};

int entries(const char* path)
{
    DIR* const directory = ::opendir(path);
    int count = 0;
    while (directory && ::readdir(directory))
        ++count;
    if (directory)
        ::closedir(directory);
    return count;
}

int descriptors()
{
    return entries("/proc/self/fd");
}

int threads()
{
    return entries("/proc/self/task");
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

/** A port that notes its signals. */
class Port : public NSerialPort
{
    Q_OBJECT

public:
    explicit Port(const QString& portName)
        : NSerialPort(portName, nullptr)
        , m_closings(0)
    {
        connect(this, SIGNAL(opened()), SLOT(noteOpened()));
        connect(this, SIGNAL(openingError()), SLOT(noteOpeningError()));
        connect(this, SIGNAL(aboutToClose()), SLOT(noteAboutToClose()));
    }

    ~Port() override { disconnect(this); }

    void close() override
    {
        ++m_closings;
        NSerialPort::close();
    }

    OpeningThread* openingThread() const { return findChild<OpeningThread*>(); }
    QTimer* timer() const { return findChild<QTimer*>(); }
    int closings() const { return m_closings; }
    QStringList events() const { return m_events; }

private slots:
    void noteOpened() { m_events << latin1("opened"); }
    void noteOpeningError() { m_events << latin1("error: ") + errorString(); }
    void noteAboutToClose() { m_events << latin1("about to close"); }

private:
    QStringList m_events;
    int m_closings;
};

/** Opens a port in all ways while it is being destroyed. */
class LateOpener : public QObject
{
    Q_OBJECT

public:
    LateOpener(NSerialPort* port, NSerialPortAllocator* allocator)
        : m_port(port)
    {
        connect(port, SIGNAL(aboutToClose()), SLOT(openPort()));
        connect(allocator, SIGNAL(serialPortAboutToRemove(NSerialPort*)), SLOT(openPort()));
    }

    /** What open() has returned. */
    QStringList results() const { return m_results; }

private slots:
    void openPort()
    {
        const bool isOpen = m_port->open(QIODevice::ReadWrite);
        int error = 0;
        const int descriptor = NSerialPort::openFile(m_port->portName(), error);
        const bool isCompleted = m_port->open(descriptor, error, QIODevice::ReadWrite);
        m_port->asyncOpen(QIODevice::ReadWrite, -1);
        m_results << latin1(isOpen ? "open, " : "closed, ") + latin1(isCompleted ? "open" : "closed");
    }

private:
    NSerialPort* m_port;
    QStringList m_results;
};

/** Counts the turns of the event loop. */
class TurnCounter : public QObject
{
    Q_OBJECT

public:
    TurnCounter()
        : m_turns(0)
    {
        m_timer.start(0);
        connect(&m_timer, SIGNAL(timeout()), SLOT(count()));
    }

    int turns() const { return m_turns; }

private slots:
    void count() { ++m_turns; }

private:
    QTimer m_timer;
    int m_turns;
};

/** A port in the event loop of another thread. */
class PortThread : public QThread
{
    Q_OBJECT

public:
    PortThread(NSimulatedUart* uart, bool isBlocked)
        : m_uart(uart)
        , m_isBlocked(isBlocked)
    {
    }

    QStringList events() const { return m_events; }
    QByteArray data() const { return m_data; }

protected:
    void run() override
    {
        Port port(m_uart->portName());
        port.asyncOpen(QIODevice::ReadWrite, m_isBlocked ? 1 : -1);
        QEventLoop loop;
        while (port.events().isEmpty())
            loop.processEvents(QEventLoop::WaitForMoreEvents);
        if (!m_isBlocked) {
            m_uart->send("data");
            while (port.bytesAvailable() < 4)
                loop.processEvents(QEventLoop::WaitForMoreEvents);
            m_data = port.readAll();
        }
        m_events = port.events();
    }

private:
    NSimulatedUart* m_uart;
    bool m_isBlocked;
    QStringList m_events;
    QByteArray m_data;
};

// A generator for any thread.
unsigned randomNumber()
{
    static std::atomic<unsigned> state(1);
    unsigned number = state.fetch_add(0x9e3779b9U) + 0x9e3779b9U;
    number = (number ^ (number >> 16)) * 0x85ebca6bU;
    number = (number ^ (number >> 13)) * 0xc2b2ae35U;
    return number ^ (number >> 16);
}

// The thread sanitizer ends the process when a thread is cancelled in its functions, except for those that wait
// for a condition variable. syscall(2) is no cancellation point.
qint64 openDevice(const Invocation& invocation)
{
#ifdef __SANITIZE_THREAD__
    return ::syscall(SYS_openat, AT_FDCWD, invocation.path, invocation.flags);
#else
    return ::open(invocation.path, invocation.flags);
#endif
}

void sleepMicroseconds(unsigned microseconds)
{
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> lock(mutex);
    never.wait_for(lock, std::chrono::microseconds(microseconds));
}

/** Opens files when the thread is cancelled. */
class LastMoment
{
public:
    struct Descriptors
    {
        std::atomic<int> device;
        std::atomic<int> otherDevice;
        std::atomic<int> blocking;
        std::atomic<int> readOnly;
        std::atomic<int> inherited;
    };

    LastMoment(const Invocation& invocation, const QByteArray& otherPath, Descriptors* descriptors)
        : m_invocation(invocation)
        , m_otherPath(otherPath)
        , m_descriptors(descriptors)
    {
    }

    ~LastMoment()
    {
        const int flags = m_invocation.flags;
        m_descriptors->device = ::open(m_invocation.path, flags);
        m_descriptors->otherDevice = ::open(m_otherPath.constData(), flags);
        m_descriptors->blocking = ::open(m_invocation.path, flags & ~O_NONBLOCK);
        m_descriptors->readOnly = ::open(m_invocation.path, flags & ~O_ACCMODE);
        m_descriptors->inherited = ::open(m_invocation.path, flags & ~O_CLOEXEC);
    }

private:
    Q_DISABLE_COPY(LastMoment)

    const Invocation m_invocation;
    const QByteArray m_otherPath;
    Descriptors* m_descriptors;
};

/** Raises the limit of descriptors again when the thread is cancelled. */
class LimitUntilCancelled
{
public:
    explicit LimitUntilCancelled(const struct rlimit& saved)
        : m_saved(saved)
    {
    }

    ~LimitUntilCancelled() { ::setrlimit(RLIMIT_NOFILE, &m_saved); }

private:
    Q_DISABLE_COPY(LimitUntilCancelled)

    const struct rlimit m_saved;
};

/** Whether this thread can be cancelled. */
int cancelState()
{
    int state = -1;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    ::pthread_setcancelstate(state, nullptr);
    return state;
}

/** Notes whether a thread can be cancelled when it has run. */
class CancelStateNote : public QObject
{
    Q_OBJECT

public:
    explicit CancelStateNote(QThread* thread)
        : m_state(-1)
    {
        connect(thread, SIGNAL(finished()), SLOT(take()), Qt::DirectConnection);
    }

    int state() const { return m_state; }

private slots:
    void take() { m_state = cancelState(); }

private:
    std::atomic<int> m_state;
};

void deliverDeferredDeletions()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

class tst_NSerialPortOpening : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void eventCarriesItsResult();
    void eventClosesItsDescriptor();
    void eventThatNobodyAwaitsClosesItsDescriptor();
    void threadBelongsToThePort();
    void threadCanBeTerminatedInOpenOnly();

    void openingEmitsOpened_data();
    void openingEmitsOpened();
    void openingFailsWithTheReason_data();
    void openingFailsWithTheReason();
    void openingOfAMissingDeviceFails();
    void openingWithoutAModeFailsWithoutAReason();
    void openingOfAnOpenPortChangesNothing();
    void openingReportsNothingBeforeItReturns();
    void openingAppliesTheSettingsOfItsEnd();
    void openingCanBeRepeated();
    void openingWithoutAThreadFails();
    void openingWithoutAThreadMayBeAbandoned();
    void openingWithoutDescriptorsFails();

    void eventLoopRunsWhileOpenBlocks();
    void secondOpeningIsIgnored();
    void synchronousOpeningWins();
    void failedSynchronousOpeningLeavesTheOther();

    void openingTimesOut_data();
    void openingTimesOut();
    void timeOutClosesAnOpenPort();
    void openingInTimeStopsTheTimer();
    void negativeTimeOutStartsNoTimer_data();
    void negativeTimeOutStartsNoTimer();
    void openingAfterATimeOutSucceeds();

    void closeAbandonsTheOpening_data();
    void closeAbandonsTheOpening();
    void destructionAbandonsTheOpening_data();
    void destructionAbandonsTheOpening();
    void closeBeforeTheResultArrives_data();
    void closeBeforeTheResultArrives();
    void descriptorOfTheLastMomentIsClosed();
    void descriptorsOfOthersAreKeptWhenTheyCouldNotBeListed();
    void lateResultDoesNotEndANewerOpening();
    void lateResultDoesNotReachAnOpenPort();
    void destructionBeforeTheResultArrives();

    void handlersMayDoAnything_data();
    void handlersMayDoAnything();
    void handlersOfATimeOutMayDoAnything_data();
    void handlersOfATimeOutMayDoAnything();
    void portThatIsBeingDestroyedCannotBeOpened();

    void portMayLiveInAnotherThread_data();
    void portMayLiveInAnotherThread();

    void abandonedOpeningsLeaveNothing_data();
    void abandonedOpeningsLeaveNothing();

private:
    void waitForTheResult();

    QScopedPointer<NSimulatedUart> m_uart;
    QScopedPointer<Answer> m_device;
    QScopedPointer<Port> m_port;
    int m_descriptors;
    int m_threads;
};

void tst_NSerialPortOpening::init()
{
    // The event loop of the test keeps descriptors of its own.
    QCoreApplication::processEvents();
    m_uart.reset(new NSimulatedUart);
#ifdef __SANITIZE_THREAD__
    m_device.reset(new Answer(Calls(Open).onPath(m_uart->path()), openDevice));
#endif
    m_port.reset(new Port(m_uart->portName()));
    m_descriptors = descriptors();
    m_threads = threads();
}

// No test may leave a descriptor or a thread.
void tst_NSerialPortOpening::cleanup()
{
    m_port.reset();
    deliverDeferredDeletions();
    // A thread leaves the list of the kernel a moment after it has ended for the process.
    NTRY_COMPARE(threads(), m_threads);
    NTRY_COMPARE(descriptors(), m_descriptors);
    m_device.reset();
    m_uart.reset();
}

/** The event loop does not run. */
void tst_NSerialPortOpening::waitForTheResult()
{
    QVERIFY(m_port->openingThread());
    QVERIFY(m_port->openingThread()->wait());
}

// ---- event and thread ----

void tst_NSerialPortOpening::eventCarriesItsResult()
{
    const int type = OpeningEvent::S_EVENT_TYPE;
    QVERIFY(type >= int(QEvent::User));
    QVERIFY(type <= int(QEvent::MaxUser));
    // The type is registered: nobody else gets it.
    QVERIFY(QEvent::registerEventType(type) != type);
    OpeningEvent failure(-1, ENXIO);
    QCOMPARE(int(failure.type()), type);
    QCOMPARE(failure.descriptor(), -1);
    QCOMPARE(failure.errorNumber(), ENXIO);
    QCOMPARE(failure.takeDescriptor(), -1);
    const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    OpeningEvent success(descriptor, 0);
    QCOMPARE(success.descriptor(), descriptor);
    QCOMPARE(success.errorNumber(), 0);
    ::close(success.takeDescriptor());
}

void tst_NSerialPortOpening::eventClosesItsDescriptor()
{
    const int kept = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int taken = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        const OpeningEvent keeping(kept, 0);
        OpeningEvent giving(taken, 0);
        QCOMPARE(giving.takeDescriptor(), taken);
        QCOMPARE(giving.takeDescriptor(), -1);
        QCOMPARE(giving.descriptor(), -1);
    }
    QCOMPARE(::fcntl(kept, F_GETFD), -1);
    QVERIFY(::fcntl(taken, F_GETFD) != -1);
    ::close(taken);
}

void tst_NSerialPortOpening::eventThatNobodyAwaitsClosesItsDescriptor()
{
    for (int isOpen = 0; isOpen < 2; ++isOpen) {
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        QCoreApplication::postEvent(m_port.data(), new OpeningEvent(descriptor, 0));
        QCoreApplication::sendPostedEvents();
        QCOMPARE(::fcntl(descriptor, F_GETFD), -1);
        QCOMPARE(m_port->isOpen(), isOpen == 1);
        QCOMPARE(m_port->events(), QStringList());
        QVERIFY(m_port->open(QIODevice::ReadWrite));
    }
}

void tst_NSerialPortOpening::threadBelongsToThePort()
{
    Block block(Calls(Open).onPath(m_uart->path()));
    QVERIFY(!m_port->openingThread());
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    const QPointer<OpeningThread> thread(m_port->openingThread());
    QVERIFY(thread);
    QCOMPARE(thread->parent(), m_port.data());
    QCOMPARE(thread->objectName(), latin1("NSerialPort's file opening thread: ") + m_uart->portName());
    QVERIFY(block.waitUntilReached());
    QVERIFY(thread->isRunning());
    QCOMPARE(threads(), m_threads + 1);
    block.release();
    NTRY_COMPARE(m_port->events().size(), 1);
    deliverDeferredDeletions();
    QVERIFY(!thread);
}

void tst_NSerialPortOpening::threadCanBeTerminatedInOpenOnly()
{
    Block block(Calls(Open).onPath(m_uart->path()));
    std::atomic<int> stateInOpen(-1);
    const Notice notice(
        Calls(Open).onPath(m_uart->path()), [&stateInOpen](const Invocation&) { stateInOpen = cancelState(); });
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    QVERIFY(block.waitUntilReached());
    const CancelStateNote note(m_port->openingThread());
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(stateInOpen), int(PTHREAD_CANCEL_ENABLE));
    QCOMPARE(note.state(), int(PTHREAD_CANCEL_DISABLE));
}

// ---- results ----

void tst_NSerialPortOpening::openingEmitsOpened_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("timeout");
    QTest::newRow("read") << int(QIODevice::ReadOnly) << -1;
    QTest::newRow("write") << int(QIODevice::WriteOnly) << 60000;
    QTest::newRow("both") << int(QIODevice::ReadWrite) << 60000;
    QTest::newRow("unbuffered") << int(QIODevice::ReadWrite | QIODevice::Unbuffered) << -1;
}

void tst_NSerialPortOpening::openingEmitsOpened()
{
    QFETCH(int, mode);
    QFETCH(int, timeout);
    QList<int> flags;
    const Notice notice(
        Calls(Open).onPath(m_uart->path()), [&flags](const Invocation& invocation) { flags << invocation.flags; });
    m_port->asyncOpen(QIODevice::OpenMode(mode), timeout);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QVERIFY(m_port->isOpen());
    QCOMPARE(int(m_port->openMode()), mode);
    QCOMPARE(flags.size(), 1);
    QCOMPARE(flags.first() & ~O_LARGEFILE, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    QCOMPARE(m_uart->takeChanges().size(), 1);
    QCOMPARE(descriptors(), m_descriptors + 1);
    deliverDeferredDeletions();
    QVERIFY(!m_port->openingThread());
    if (mode & QIODevice::ReadOnly) {
        m_uart->send("hello");
        NTRY_COMPARE(m_port->bytesAvailable(), qint64(5));
    }
}

void tst_NSerialPortOpening::openingFailsWithTheReason_data()
{
    QTest::addColumn<int>("error");
    const int errors[] = {ENOENT, EACCES, EBUSY, ENXIO, EIO, EMFILE, ENFILE, EINTR, ENOMEM};
    for (int error : errors)
        QTest::newRow(strerror(error)) << error;
}

void tst_NSerialPortOpening::openingFailsWithTheReason()
{
    QFETCH(int, error);
    const Fault fault(Calls(Open).onPath(m_uart->path()), error);
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("error: ") + errorText(error));
    QVERIFY(!m_port->isOpen());
    QVERIFY(!m_port->timer()->isActive());
    QCOMPARE(m_port->errorString(), errorText(error));
    QCOMPARE(fault.count(), 1);
    QCOMPARE(m_port->closings(), 0);
}

void tst_NSerialPortOpening::openingOfAMissingDeviceFails()
{
    Port port(latin1("/dev/pts/none"));
    port.asyncOpen(QIODevice::ReadWrite, -1);
    NTRY_COMPARE(port.events(), QStringList() << latin1("error: No such file or directory"));
}

void tst_NSerialPortOpening::openingWithoutAModeFailsWithoutAReason()
{
    const Record opens(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::NotOpen, -1);
    const QString noReason = latin1("error: ") + Port(m_uart->portName()).errorString();
    NTRY_COMPARE(m_port->events(), QStringList() << noReason);
    QCOMPARE(opens.count(), 1);
    QVERIFY(!m_port->isOpen());
    QCOMPARE(descriptors(), m_descriptors);
    QCOMPARE(m_uart->takeChanges().size(), 0);
}

void tst_NSerialPortOpening::openingOfAnOpenPortChangesNothing()
{
    QVERIFY(m_port->open(QIODevice::ReadOnly));
    m_uart->takeChanges();
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadOnly));
    QCOMPARE(m_uart->takeChanges().size(), 0);
    QCOMPARE(descriptors(), m_descriptors + 1);
    m_uart->send("hello");
    NTRY_COMPARE(m_port->bytesAvailable(), qint64(5));
    // Even when the device cannot be opened once more.
    const Fault fault(Calls(Open).onPath(m_uart->path()), EBUSY);
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened") << latin1("opened"));
    QCOMPARE(m_port->bytesAvailable(), qint64(5));
}

void tst_NSerialPortOpening::openingReportsNothingBeforeItReturns()
{
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    waitForTheResult();
    QCOMPARE(m_port->events(), QStringList());
    QVERIFY(!m_port->isOpen());
    QCoreApplication::sendPostedEvents();
    QCOMPARE(m_port->events(), QStringList() << latin1("opened"));
}

void tst_NSerialPortOpening::openingAppliesTheSettingsOfItsEnd()
{
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    m_port->setBaudRate(NSerialPort::BaudRate57600);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    const termios settings = m_uart->settings();
    QCOMPARE(uint(::cfgetospeed(&settings)), uint(B57600));
}

void tst_NSerialPortOpening::openingCanBeRepeated()
{
    for (int round = 1; round <= 20; ++round) {
        m_port->asyncOpen(QIODevice::ReadWrite, -1);
        NTRY_COMPARE(m_port->events().count(latin1("opened")), round);
        QVERIFY(m_port->isOpen());
        m_port->close();
    }
}

void tst_NSerialPortOpening::openingWithoutAThreadFails()
{
    {
        const Fault fault(PthreadCreate, EAGAIN);
        m_port->asyncOpen(QIODevice::ReadWrite, 60000);
        QVERIFY(fault.count() > 0);
    }
    QCOMPARE(m_port->events(), QStringList());
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("error: ") + errorText(EAGAIN));
    QVERIFY(!m_port->isOpen());
    QVERIFY(!m_port->timer()->isActive());
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(m_port->events().value(1), latin1("opened"));
}

void tst_NSerialPortOpening::openingWithoutAThreadMayBeAbandoned()
{
    {
        const Fault fault(PthreadCreate, EAGAIN);
        m_port->asyncOpen(QIODevice::ReadWrite, -1);
        m_port->close();
        m_port->asyncOpen(QIODevice::ReadWrite, -1);
    }
    // The first of the two results is ignored.
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("error: ") + errorText(EAGAIN));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(m_port->events().size(), 1);
    const Fault fault(PthreadCreate, EAGAIN);
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    m_port.reset();
}

void tst_NSerialPortOpening::openingWithoutDescriptorsFails()
{
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    QVERIFY(block.waitUntilReached());
    // The lowest free descriptor is the first one beyond the limit.
    const int lowest = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    ::close(lowest);
    struct rlimit saved;
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit limit = saved;
    limit.rlim_cur = rlim_t(lowest);
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    block.release();
    NTest::waitUntil([this]() { return m_port->events().size() == 1; });
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    QCOMPARE(m_port->events(), QStringList() << latin1("error: ") + errorText(EMFILE));
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    NTRY_COMPARE(m_port->events().value(1), latin1("opened"));
}

// ---- while open() blocks ----

void tst_NSerialPortOpening::eventLoopRunsWhileOpenBlocks()
{
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    QVERIFY(block.waitUntilReached());
    const TurnCounter counter;
    NTRY_VERIFY(counter.turns() >= 200);
    QCOMPARE(m_port->events(), QStringList());
    QVERIFY(!m_port->isOpen());
    QVERIFY(m_port->openingThread()->isRunning());
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
}

void tst_NSerialPortOpening::secondOpeningIsIgnored()
{
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadOnly, -1);
    OpeningThread* const thread = m_port->openingThread();
    m_port->asyncOpen(QIODevice::ReadWrite, 0);
    QVERIFY(block.waitUntilReached());
    QCOMPARE(m_port->findChildren<OpeningThread*>(), QList<OpeningThread*>() << thread);
    QVERIFY(!m_port->timer()->isActive());
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadOnly));
    QCOMPARE(block.count(), 1);
}

void tst_NSerialPortOpening::synchronousOpeningWins()
{
    Block block(Calls(Open).onPath(m_uart->path()).times(1));
    m_port->asyncOpen(QIODevice::ReadOnly, 60000);
    QVERIFY(block.waitUntilReached());
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    QCOMPARE(m_port->events(), QStringList());
    m_uart->takeChanges();
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadWrite));
    QCOMPARE(m_uart->takeChanges().size(), 0);
    QCOMPARE(descriptors(), m_descriptors + 1);
    QVERIFY(!m_port->timer()->isActive());
}

void tst_NSerialPortOpening::failedSynchronousOpeningLeavesTheOther()
{
    Block block(Calls(Open).onPath(m_uart->path()).times(1));
    m_port->asyncOpen(QIODevice::ReadOnly, -1);
    QVERIFY(block.waitUntilReached());
    {
        const Fault fault(Calls(Open).onPath(m_uart->path()), EBUSY);
        QVERIFY(!m_port->open(QIODevice::ReadWrite));
    }
    QCOMPARE(m_port->errorString(), errorText(EBUSY));
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadOnly));
}

// ---- time-out ----

void tst_NSerialPortOpening::openingTimesOut_data()
{
    QTest::addColumn<int>("timeout");
    QTest::newRow("at once") << 0;
    QTest::newRow("after 1 ms") << 1;
    QTest::newRow("after 20 ms") << 20;
}

void tst_NSerialPortOpening::openingTimesOut()
{
    QFETCH(int, timeout);
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, timeout);
    QVERIFY(m_port->timer()->isActive());
    QVERIFY(m_port->timer()->isSingleShot());
    QCOMPARE(m_port->timer()->interval(), timeout);
    QVERIFY(block.waitUntilReached());
    QCOMPARE(m_port->events(), QStringList());
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("error: opening timeout"));
    QCOMPARE(m_port->errorString(), latin1("opening timeout"));
    QVERIFY(!m_port->isOpen());
    QVERIFY(!m_port->timer()->isActive());
    // close() is virtual.
    QCOMPARE(m_port->closings(), 1);
    deliverDeferredDeletions();
    QVERIFY(!m_port->openingThread());
    QCOMPARE(descriptors(), m_descriptors);
    NTRY_COMPARE(threads(), m_threads);
    block.release();
    QTest::qWait(1);
    QCOMPARE(m_port->events().size(), 1);
}

void tst_NSerialPortOpening::timeOutClosesAnOpenPort()
{
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    const Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, 1);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("about to close") << latin1("error: opening timeout"));
    QVERIFY(!m_port->isOpen());
    QCOMPARE(m_port->errorString(), latin1("opening timeout"));
    QCOMPARE(descriptors(), m_descriptors);
}

void tst_NSerialPortOpening::openingInTimeStopsTheTimer()
{
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    QVERIFY(m_port->timer()->isActive());
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QVERIFY(!m_port->timer()->isActive());
}

void tst_NSerialPortOpening::negativeTimeOutStartsNoTimer_data()
{
    QTest::addColumn<int>("timeout");
    QTest::newRow("-1") << -1;
    QTest::newRow("-1000") << -1000;
    QTest::newRow("least") << std::numeric_limits<int>::min();
}

void tst_NSerialPortOpening::negativeTimeOutStartsNoTimer()
{
    QFETCH(int, timeout);
    const Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, timeout);
    const QList<QTimer*> timers = m_port->findChildren<QTimer*>();
    QCOMPARE(timers.size(), 1);
    QVERIFY(!timers.first()->isActive());
}

void tst_NSerialPortOpening::openingAfterATimeOutSucceeds()
{
    {
        const Block block(Calls(Open).onPath(m_uart->path()));
        m_port->asyncOpen(QIODevice::ReadWrite, 1);
        NTRY_COMPARE(m_port->events().size(), 1);
        // The same while the device still blocks.
        m_port->asyncOpen(QIODevice::ReadWrite, 1);
        NTRY_COMPARE(m_port->events().size(), 2);
    }
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(m_port->events().value(2), latin1("opened"));
    QCOMPARE(m_port->errorString(), Port(m_uart->portName()).errorString());
}

// ---- abandoned openings ----

void tst_NSerialPortOpening::closeAbandonsTheOpening_data()
{
    QTest::addColumn<int>("timeout");
    QTest::newRow("without a time-out") << -1;
    QTest::newRow("before the time-out") << 60000;
}

void tst_NSerialPortOpening::closeAbandonsTheOpening()
{
    QFETCH(int, timeout);
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, timeout);
    QVERIFY(block.waitUntilReached());
    m_port->close();
    QVERIFY(!m_port->timer()->isActive());
    deliverDeferredDeletions();
    QVERIFY(!m_port->openingThread());
    NTRY_COMPARE(threads(), m_threads);
    QCOMPARE(descriptors(), m_descriptors);
    block.release();
    QTest::qWait(1);
    QCOMPARE(m_port->events(), QStringList());
    QCOMPARE(m_uart->takeChanges().size(), 0);
    m_port->asyncOpen(QIODevice::ReadWrite, timeout);
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
}

void tst_NSerialPortOpening::destructionAbandonsTheOpening_data()
{
    closeAbandonsTheOpening_data();
}

void tst_NSerialPortOpening::destructionAbandonsTheOpening()
{
    QFETCH(int, timeout);
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, timeout);
    const QPointer<OpeningThread> thread(m_port->openingThread());
    QVERIFY(block.waitUntilReached());
    m_port.reset();
    QVERIFY(!thread);
    NTRY_COMPARE(threads(), m_threads);
    QCOMPARE(descriptors(), m_descriptors);
}

void tst_NSerialPortOpening::closeBeforeTheResultArrives_data()
{
    QTest::addColumn<bool>("isOpen");
    QTest::newRow("closed port") << false;
    QTest::newRow("open port") << true;
}

void tst_NSerialPortOpening::closeBeforeTheResultArrives()
{
    QFETCH(bool, isOpen);
    if (isOpen)
        QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    waitForTheResult();
    m_port->close();
    QCOMPARE(descriptors(), m_descriptors + 1);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(descriptors(), m_descriptors);
    QVERIFY(!m_port->isOpen());
    QCOMPARE(m_port->events(), isOpen ? QStringList() << latin1("about to close") : QStringList());
}

// The kernel can open the device after the thread was seen to block, and the C library cancels the thread
// nevertheless.
void tst_NSerialPortOpening::descriptorOfTheLastMomentIsClosed()
{
    const NSimulatedUart otherUart;
    std::atomic<bool> isReached(false);
    LastMoment::Descriptors descriptors;
    const Answer answer(Calls(Open).onPath(m_uart->path()), [&](const Invocation& invocation) {
        const LastMoment lastMoment(invocation, otherUart.path(), &descriptors);
        isReached = true;
        for (;;)
            sleepMicroseconds(10000);
        return 0;
    });
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    while (!isReached)
        QThread::yieldCurrentThread();
    m_port->close();
    QVERIFY(descriptors.device >= 0);
    QCOMPARE(::fcntl(descriptors.device, F_GETFD), -1);
    // Those that others may have opened meanwhile are not touched.
    QCOMPARE(::close(descriptors.otherDevice), 0);
    QCOMPARE(::close(descriptors.blocking), 0);
    QCOMPARE(::close(descriptors.readOnly), 0);
    QCOMPARE(::close(descriptors.inherited), 0);
}

void tst_NSerialPortOpening::descriptorsOfOthersAreKeptWhenTheyCouldNotBeListed()
{
    int errorNumber;
    const int other = NSerialPort::openFile(m_uart->portName(), errorNumber);
    QVERIFY(other >= 0);
    struct rlimit saved;
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    std::atomic<bool> isReached(false);
    const Answer answer(Calls(Open).onPath(m_uart->path()), [&](const Invocation&) {
        const LimitUntilCancelled limit(saved);
        isReached = true;
        for (;;)
            sleepMicroseconds(10000);
        return 0;
    });
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    while (!isReached)
        QThread::yieldCurrentThread();
    struct rlimit limit = saved;
    limit.rlim_cur = 0; // those that are open stay open
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    m_port->close();
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    QCOMPARE(limit.rlim_cur, saved.rlim_cur);
    QCOMPARE(::close(other), 0);
}

void tst_NSerialPortOpening::lateResultDoesNotEndANewerOpening()
{
    m_port->asyncOpen(QIODevice::ReadOnly, -1);
    waitForTheResult();
    m_port->close();
    Block block(Calls(Open).onPath(m_uart->path()));
    m_port->asyncOpen(QIODevice::ReadWrite, 60000);
    QVERIFY(block.waitUntilReached());
    // The running thread may have a descriptor of its own.
    const int before = descriptors();
    // The port would wait for ever here if it took the result for that of the second thread.
    QCoreApplication::sendPostedEvents();
    QCOMPARE(descriptors(), before - 1);
    QCOMPARE(m_port->events(), QStringList());
    QVERIFY(!m_port->isOpen());
    QVERIFY(m_port->timer()->isActive());
    block.release();
    NTRY_COMPARE(m_port->events(), QStringList() << latin1("opened"));
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadWrite));
    QCOMPARE(descriptors(), m_descriptors + 1);
}

void tst_NSerialPortOpening::lateResultDoesNotReachAnOpenPort()
{
    m_port->asyncOpen(QIODevice::ReadOnly, -1);
    waitForTheResult();
    m_port->close();
    QVERIFY(m_port->open(QIODevice::ReadWrite));
    m_uart->takeChanges();
    QCoreApplication::sendPostedEvents();
    QCOMPARE(m_port->events(), QStringList());
    QVERIFY(m_port->isOpen());
    QCOMPARE(int(m_port->openMode()), int(QIODevice::ReadWrite));
    QCOMPARE(m_uart->takeChanges().size(), 0);
    QCOMPARE(descriptors(), m_descriptors + 1);
}

void tst_NSerialPortOpening::destructionBeforeTheResultArrives()
{
    m_port->asyncOpen(QIODevice::ReadWrite, -1);
    waitForTheResult();
    QCOMPARE(descriptors(), m_descriptors + 1);
    m_port.reset();
    QCOMPARE(descriptors(), m_descriptors);
}

// ---- handlers ----

void tst_NSerialPortOpening::handlersMayDoAnything_data()
{
    QTest::addColumn<bool>("fails");
    QTest::addColumn<int>("action");
    for (int fails = 0; fails < 2; ++fails) {
        for (const NamedAction& action : Actions) {
            QTest::newRow(QByteArray(action.name) + (fails ? " in openingError" : " in opened"))
                << bool(fails) << int(action.action);
        }
    }
}

void tst_NSerialPortOpening::handlersMayDoAnything()
{
    QFETCH(bool, fails);
    QFETCH(int, action);
    const QPointer<Port> port(new Port(m_uart->portName()));
    const NPortHandler handler(
        port, fails ? SIGNAL(openingError()) : SIGNAL(opened()), NPortHandler::Action(action));
    const Fault fault(Calls(Open).onPath(m_uart->path()).times(fails ? 1 : 0), EBUSY);
    port->asyncOpen(QIODevice::ReadWrite, 60000);
    NTRY_COMPARE(handler.calls(), 1);
    switch (action) {
    case NPortHandler::Nothing:
        QCOMPARE(port->isOpen(), !fails);
        break;
    case NPortHandler::Close:
        QVERIFY(!port->isOpen());
        QCOMPARE(descriptors(), m_descriptors);
        break;
    case NPortHandler::ReopenInThread:
        NTRY_VERIFY(port->events().size() == (fails ? 2 : 3) && port->isOpen());
        QCOMPARE(port->events().last(), latin1("opened"));
        QCOMPARE(descriptors(), m_descriptors + 1);
        break;
    default:
        NTRY_VERIFY(!port);
        QCOMPARE(descriptors(), m_descriptors);
        break;
    }
    delete port;
}

void tst_NSerialPortOpening::handlersOfATimeOutMayDoAnything_data()
{
    QTest::addColumn<int>("action");
    for (const NamedAction& action : Actions)
        QTest::newRow(action.name) << int(action.action);
}

void tst_NSerialPortOpening::handlersOfATimeOutMayDoAnything()
{
    QFETCH(int, action);
    const QPointer<Port> port(new Port(m_uart->portName()));
    const NPortHandler handler(port, SIGNAL(openingError()), NPortHandler::Action(action));
    const Block block(Calls(Open).onPath(m_uart->path()).times(1));
    port->asyncOpen(QIODevice::ReadWrite, 1);
    NTRY_COMPARE(handler.calls(), 1);
    if (action == NPortHandler::ReopenInThread) {
        // Unless the thread was abandoned before it came to the call that blocks.
        NTRY_COMPARE(port->events().size(), 2);
        QCOMPARE(port->events().last(), latin1("opened"));
    } else if (action == NPortHandler::Delete || action == NPortHandler::DeleteLater) {
        NTRY_VERIFY(!port);
    } else {
        QVERIFY(!port->isOpen());
    }
    delete port;
}

void tst_NSerialPortOpening::portThatIsBeingDestroyedCannotBeOpened()
{
    NSerialPort* const port = new NSerialPort(m_uart->portName(), nullptr);
    NSerialPortAllocator allocator(nullptr);
    QVERIFY(allocator.requestSerialPortAllocation(port, NSerialPortAllocator::TemporaryAllocation));
    const LateOpener opener(port, &allocator);
    QVERIFY(port->open(QIODevice::ReadWrite));
    const Record opens(Calls(Open).onPath(m_uart->path()));
    delete port;
    QCOMPARE(opener.results(), QStringList() << latin1("open, open") << latin1("closed, closed"));
    QCOMPARE(opens.count(), 2);
    QCOMPARE(descriptors(), m_descriptors);
    QCOMPARE(threads(), m_threads);
}

// ---- threads ----

void tst_NSerialPortOpening::portMayLiveInAnotherThread_data()
{
    QTest::addColumn<bool>("isBlocked");
    QTest::newRow("opens") << false;
    QTest::newRow("times out") << true;
}

void tst_NSerialPortOpening::portMayLiveInAnotherThread()
{
    QFETCH(bool, isBlocked);
    QScopedPointer<Block> block(isBlocked ? new Block(Calls(Open).onPath(m_uart->path())) : nullptr);
    PortThread thread(m_uart.data(), isBlocked);
    thread.start();
    QVERIFY(thread.wait());
    if (isBlocked) {
        QCOMPARE(thread.events(), QStringList() << latin1("error: opening timeout"));
    } else {
        QCOMPARE(thread.events(), QStringList() << latin1("opened"));
        QCOMPARE(thread.data(), QByteArray("data"));
    }
}

// ---- many openings ----

void tst_NSerialPortOpening::abandonedOpeningsLeaveNothing_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("longestOpening");
    QTest::addColumn<bool>("isDestroyed");
    QTest::newRow("device, closed") << AbandonedOpenings * 3 / 10 << 0 << false;
    QTest::newRow("device, destroyed") << AbandonedOpenings * 3 / 10 << 0 << true;
    QTest::newRow("slow device, closed") << AbandonedOpenings * 2 / 10 << 150 << false;
    QTest::newRow("slow device, destroyed") << AbandonedOpenings * 2 / 10 << 150 << true;
}

// The openings are abandoned at random moments: before the thread runs, in open(), and after the result has
// arrived.
void tst_NSerialPortOpening::abandonedOpeningsLeaveNothing()
{
    QFETCH(int, count);
    QFETCH(int, longestOpening);
    QFETCH(bool, isDestroyed);
    const Answer slow(
        Calls(Open).onPath(m_uart->path()).times(longestOpening == 0 ? 0 : std::numeric_limits<int>::max()),
        [longestOpening](const Invocation& invocation) {
            sleepMicroseconds(randomNumber() % unsigned(longestOpening));
            return openDevice(invocation);
        });
    int opened = 0;
    for (int i = 0; i < count; ++i) {
        m_port->asyncOpen(QIODevice::ReadWrite, -1);
        // Some are abandoned at once, some only after their end.
        const int kind = i % 16;
        const qint64 moment = kind == 0 ? 0 : randomNumber() % 150000;
        QElapsedTimer timer;
        timer.start();
        while (kind == 1 ? !m_port->isOpen() : timer.nsecsElapsed() < moment) {
            if (randomNumber() % 2 == 0)
                QCoreApplication::processEvents();
        }
        opened += m_port->isOpen();
        if (isDestroyed)
            m_port.reset(new Port(m_uart->portName()));
        else
            m_port->close();
        deliverDeferredDeletions();
    }
    QCOMPARE(descriptors(), m_descriptors);
    NTRY_COMPARE(threads(), m_threads);
    QVERIFY(opened >= count / 16);
    QVERIFY(opened < count);
}

QTEST_MAIN(tst_NSerialPortOpening)
#include "tst_nserialportopening.moc"
