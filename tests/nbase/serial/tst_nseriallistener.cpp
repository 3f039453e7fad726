#include "nclosereceiver.h"

#include "support/nallocatedbytes.h"
#include "support/nmessagerecorder.h"
#include "support/nregisteredtimers.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"
#include "support/ntestwait.h"

#include <nbase/serial/nseriallistener.h>
#include <nbase/serial/nseriallistenersingleton.h>
#include <nbase/serial/nserialport.h>
#include <nbase/serial/nserialportallocator.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtTest/QtTest>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

using namespace NSystemCalls;

namespace {

const int ChunkSize = 512;
const int RetryInterval = 5000;

NSerialListenerSingleton* singleton()
{
    return NSerialListenerSingleton::instance();
}

// Makes the singleton try again now what it would in 5 seconds.
bool retry()
{
    return NTest::fireTimer(singleton());
}

QList<int> retryIntervals()
{
    QList<int> intervals;
    for (const QPair<int, int>& timer : NTest::registeredTimers(singleton()))
        intervals.append(timer.second);
    return intervals;
}

// A terminal whose other end the test is. The slave stays open in this object, so that the test can see what has
// arrived there.
class Terminal
{
public:
    Terminal()
        : m_master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        char name[64] = "";
        if (grantpt(m_master.number()) != 0 || unlockpt(m_master.number()) != 0 ||
            ptsname_r(m_master.number(), name, sizeof(name)) != 0)
            qFatal("there is no terminal");
        m_path = name;
        m_slave = NSystem::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    }

    QString path() const { return QString::fromLatin1(m_path); }

    bool write(const QByteArray& data)
    {
        return ::write(m_master.number(), data.constData(), size_t(data.size())) == data.size();
    }

    /** Writes and waits until everything is ready to be read. */
    bool writeThrough(const QByteArray& data)
    {
        const int before = waiting();
        if (!write(data))
            return false;
        while (waiting() < before + data.size())
            std::this_thread::yield();
        return true;
    }

    void hangUp() { m_master.reset(); }

private:
    int waiting() const
    {
        int count = 0;
        return ::ioctl(m_slave.number(), FIONREAD, &count) == 0 ? count : 0;
    }

    NFileDescriptor m_master;
    NFileDescriptor m_slave;
    QByteArray m_path;
};

// A listener with what it has heard: "started", "error", "removed", or the size of a chunk. The log may be shared.
class Listener : public QObject
{
    Q_OBJECT

public:
    typedef std::function<void(NSerialPort*)> Handler;

    Listener()
        : listener(new NSerialListener(nullptr))
    {
        connect(
            listener.get(), SIGNAL(dataReceived(NSerialPort*, QByteArray)),
                                   SLOT(dataReceived(NSerialPort*, QByteArray)));
        connect(
            listener.get(), SIGNAL(serialPortAboutToRemove(NSerialPort*)),
                                   SLOT(serialPortAboutToRemove(NSerialPort*)));
        connect(listener.get(), SIGNAL(listeningStarted(NSerialPort*)), SLOT(listeningStarted(NSerialPort*)));
        connect(listener.get(), SIGNAL(listeningError(NSerialPort*)), SLOT(listeningError(NSerialPort*)));
    }

    bool start(NSerialPort* port) { return listener->startListeningOnSerialPort(port); }
    void stop(NSerialPort* port) { listener->stopListeningOnSerialPort(port); }

    /** What has been heard of all ports, without the data. */
    QString heard() const { return m_heard.join(latin1(" ")); }

    QStringList heardSignals() const { return m_heard; }

    /** Waits for what is @a expected to have been heard since the last time. */
    bool hears(const char* expected)
    {
        const bool isHeard = NTest::waitUntil([&]() { return heard() == latin1(expected); });
        m_heard.clear();
        return isHeard;
    }

    std::unique_ptr<NSerialListener> listener;
    QHash<NSerialPort*, QByteArray> data;
    QList<int> chunkSizes;
    Handler onData;
    Handler onSignal; // any but dataReceived()

private slots:
    void dataReceived(NSerialPort* serialPort, const QByteArray& bytes)
    {
        // Nothing is delivered that is empty; a port that gave it again and again would exhaust the memory.
        if (bytes.isEmpty())
            qFatal("an empty chunk");
        data[serialPort] += bytes;
        chunkSizes.append(bytes.size());
        call(onData, serialPort);
    }

    void serialPortAboutToRemove(NSerialPort* serialPort) { signal("removed", serialPort); }
    void listeningStarted(NSerialPort* serialPort) { signal("started", serialPort); }
    void listeningError(NSerialPort* serialPort) { signal("error", serialPort); }

private:
    void signal(const char* name, NSerialPort* port)
    {
        m_heard.append(latin1(name));
        call(onSignal, port);
    }

    static void call(const Handler& handler, NSerialPort* port)
    {
        const Handler copy = handler;
        if (copy)
            copy(port);
    }

    QStringList m_heard;
};

// A port and listeners on it that have started.
class Line
{
public:
    explicit Line(int count)
        : port(new NSerialPort(terminal.path(), nullptr))
        , listeners(size_t(count))
    {
        for (Listener& listener : listeners)
            listener.start(port.get());
        isOpen = true;
        for (Listener& listener : listeners)
            isOpen = listener.hears("started") && isOpen;
    }

    Terminal terminal;
    std::unique_ptr<NSerialPort> port;
    std::vector<Listener> listeners;
    bool isOpen;
};

// Bytes that differ wherever a piece of them is lost, doubled or moved.
QByteArray pattern(int size, int seed = 0)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251 + seed) & 0x7F);
    return bytes;
}

// Waits until another port has been opened and read: what was to happen before has happened.
bool dataFlowElsewhere()
{
    Line line(1);
    return line.isOpen && line.terminal.write("data") &&
           NTest::waitUntil([&]() { return line.listeners[0].data[line.port.get()] == "data"; });
}

} // namespace

class tst_NSerialListener : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void signalsHaveTheirParameters_data();
    void signalsHaveTheirParameters();
    void singletonIsOneObject();

    void nullPortIsRefused();
    void listeningAllocatesAndOpensThePort();
    void openingIsLimitedToTenSeconds();
    void portThatIsOpenAlreadyStaysOpen();
    void portOpenedForWritingOnlyGivesNothing();
    void dataArriveInChunks();
    void allListenersGetTheSameChunks();
    void startingAgainChangesNothing();
    void laterListenerGetsLaterDataOnly();
    void tenListenersOnTenPorts();

    void portHeldPermanentlyIsRefused();
    void refusedPortLeavesNoEntry();
    void temporaryHolderIsWaitedFor();
    void stoppingWhileWaitingNeverOpens();
    void oneOfTwoMayStopWhileWaiting();

    void lastListenerClosesAndReleases();
    void stoppingWhileOpeningClosesAndReleases();
    void stoppingOnNullStopsOnEveryPort();
    void stoppingOnAnUnknownPortChangesNothing();
    void destroyedListenerStopsEverywhere();

    void failedOpeningIsReportedAndRetried_data();
    void failedOpeningIsReportedAndRetried();
    void eachFailureIsRetried();
    void deviceThatAppearsLaterIsFound();
    void joiningAndLeavingKeepTheRetryTimer();
    void withoutListenersNoTimerRuns();
    void hangUpIsReportedAndRetried();
    void failedReadIsReportedAndRetried_data();
    void failedReadIsReportedAndRetried();
    void dataFlowAgainAfterStopAndStart();
    void portsFailIndependently();

    void destroyedPortIsReportedOnceToEachListener();
    void destroyedPortIsReportedInEveryState_data();
    void destroyedPortIsReportedInEveryState();

    void handlersMayDoAnything_data();
    void handlersMayDoAnything();
    void joiningInAHandlerHearsFromTheNextChunk();
    void joiningInAHandlerGetsNoStartSignal();
    void stoppingAndStartingInAHandlerListensAgain();
    void nestedEventLoopKeepsTheOrderOfChunks();
    void portMayBeReplacedInANestedEventLoop();
    void listenerBeingDestroyedIsRefused();
    void portBeingDestroyedIsRefused();

    void deletingTheSingletonClosesThePorts();
    void retriesNeedNoMemory();
};

// Each test leaves nothing behind that belongs to the process.
void tst_NSerialListener::cleanup()
{
    QCOMPARE(retryIntervals(), QList<int>());
}

void tst_NSerialListener::signalsHaveTheirParameters_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("names");

    QTest::newRow("data") << QByteArray("dataReceived(NSerialPort*,QByteArray)") << QByteArray("serialPort data");
    QTest::newRow("removal") << QByteArray("serialPortAboutToRemove(NSerialPort*)") << QByteArray("serialPort");
    QTest::newRow("start") << QByteArray("listeningStarted(NSerialPort*)") << QByteArray("serialPort");
    QTest::newRow("error") << QByteArray("listeningError(NSerialPort*)") << QByteArray("serialPort");
}

void tst_NSerialListener::signalsHaveTheirParameters()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArray, names);

    const int index = NSerialListener::staticMetaObject.indexOfSignal(signature.constData());
    QVERIFY(index >= 0);
    QCOMPARE(NSerialListener::staticMetaObject.method(index).parameterNames(), names.split(' '));
}

void tst_NSerialListener::singletonIsOneObject()
{
    QVERIFY((std::is_base_of<NSingleton<NSerialListenerSingleton>, NSerialListenerSingleton>::value));
    QVERIFY((std::is_base_of<QObject, NSerialListenerSingleton>::value));
    QCOMPARE(NSerialListenerSingleton::instance(), singleton());
    QVERIFY(!singleton()->parent());
}

void tst_NSerialListener::nullPortIsRefused()
{
    Listener listener;
    QVERIFY(!listener.start(nullptr));
    listener.stop(nullptr);
    QCOMPARE(listener.heard(), QString());
}

void tst_NSerialListener::listeningAllocatesAndOpensThePort()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    Listener listener;
    Block block(Calls(Open).onPath(terminal.path().toLatin1()));
    QVERIFY(listener.start(&port));
    NSerialPortAllocator other(nullptr);
    QVERIFY(!other.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    QVERIFY(block.waitUntilReached());
    QCoreApplication::processEvents();
    QVERIFY(!port.isOpen());
    QCOMPARE(listener.heard(), QString());
    block.release();
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QVERIFY(port.isOpen());
    QCOMPARE(int(port.openMode()), int(QIODevice::ReadWrite));
    QCOMPARE(retryIntervals(), QList<int>());
}

void tst_NSerialListener::openingIsLimitedToTenSeconds()
{
    NMessageRecorder recorder;
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    Listener listener;
    std::atomic<bool> isLate(false);
    Answer opening(Calls(Open).onPath(terminal.path().toLatin1()), [&](const Invocation&) {
        while (!isLate)
            std::this_thread::yield();
        errno = ENXIO;
        return -1;
    });
    QVERIFY(listener.start(&port));
    QTimer* const timer = port.findChild<QTimer*>();
    QVERIFY(timer);
    QVERIFY(timer->isActive());
    QCOMPARE(timer->interval(), 10000);
    isLate = true;
    QVERIFY(NTest::fireTimer(timer));
    QCOMPARE(listener.heard(), latin1("error"));
    QCOMPARE(
        recorder.take(), QStringList() << latin1("warning: Listening error on serial port %1: opening timeout")
                                              .arg(terminal.path()));
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
    isLate = false;
    QVERIFY(retry());
    QVERIFY(timer->isActive());
    QCOMPARE(timer->interval(), 10000);
    isLate = true;
    NTRY_COMPARE(listener.heard(), latin1("error error"));
}

void tst_NSerialListener::portThatIsOpenAlreadyStaysOpen()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    Listener listener;
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QVERIFY(terminal.write("data"));
    NTRY_COMPARE(listener.data[&port], QByteArray("data"));
}

void tst_NSerialListener::portOpenedForWritingOnlyGivesNothing()
{
    NMessageRecorder recorder;
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    QVERIFY(port.open(QIODevice::WriteOnly));
    Listener listener;
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QVERIFY(terminal.write("data"));
    NTRY_VERIFY(port.bytesAvailable() == 4);
    QCOMPARE(listener.chunkSizes, QList<int>());
}

void tst_NSerialListener::dataArriveInChunks()
{
    Line line(1);
    QVERIFY(line.isOpen);
    const QByteArray bytes = pattern(3000);
    QVERIFY(line.terminal.writeThrough(bytes));
    Listener& listener = line.listeners[0];
    NTRY_COMPARE(listener.data[line.port.get()], bytes);
    QCOMPARE(listener.chunkSizes, QList<int>() << 512 << 512 << 512 << 512 << 512 << 440);
    listener.chunkSizes.clear();
    QVERIFY(line.terminal.writeThrough(pattern(ChunkSize)));
    NTRY_COMPARE(listener.data[line.port.get()].size(), bytes.size() + ChunkSize);
    QCOMPARE(listener.chunkSizes, QList<int>() << ChunkSize);
    QCOMPARE(line.port->bytesAvailable(), qint64(0));
    QCOMPARE(listener.heard(), QString());
}

void tst_NSerialListener::allListenersGetTheSameChunks()
{
    Line line(3);
    QVERIFY(line.isOpen);
    QByteArray bytes;
    for (int i = 1; i <= 40; ++i) {
        const QByteArray piece = pattern(i * 37 % 1200 + 1, i);
        bytes += piece;
        QVERIFY(line.terminal.write(piece));
        QTest::qWait(0);
    }
    for (Listener& listener : line.listeners)
        NTRY_COMPARE(listener.data[line.port.get()], bytes);
    QCOMPARE(line.listeners[1].chunkSizes, line.listeners[0].chunkSizes);
    QCOMPARE(line.listeners[2].chunkSizes, line.listeners[0].chunkSizes);
    for (const int size : line.listeners[0].chunkSizes)
        QVERIFY(size >= 1 && size <= ChunkSize);
}

void tst_NSerialListener::startingAgainChangesNothing()
{
    Line line(1);
    QVERIFY(line.isOpen);
    Listener& listener = line.listeners[0];
    QVERIFY(listener.start(line.port.get()));
    QVERIFY(line.terminal.writeThrough("once"));
    NTRY_VERIFY(!listener.chunkSizes.isEmpty());
    QCOMPARE(listener.data[line.port.get()], QByteArray("once"));
    QCOMPARE(listener.heard(), QString());
    listener.stop(line.port.get());
    QVERIFY(!line.port->isOpen());
}

void tst_NSerialListener::laterListenerGetsLaterDataOnly()
{
    Line line(1);
    QVERIFY(line.isOpen);
    QVERIFY(line.terminal.write("early"));
    NTRY_COMPARE(line.listeners[0].data[line.port.get()], QByteArray("early"));
    Listener later;
    Record opening(Calls(Open).onPath(line.terminal.path().toLatin1()));
    QVERIFY(later.start(line.port.get()));
    QVERIFY(line.terminal.write("late"));
    NTRY_COMPARE(later.data[line.port.get()], QByteArray("late"));
    QCOMPARE(line.listeners[0].data[line.port.get()], QByteArray("earlylate"));
    QCOMPARE(later.heard(), QString());
    QCOMPARE(opening.take(), QList<QByteArray>());
}

void tst_NSerialListener::tenListenersOnTenPorts()
{
    const int count = 10;
    std::vector<Terminal> terminals(count);
    std::vector<std::unique_ptr<NSerialPort>> ports;
    std::vector<Listener> listeners(count);
    for (const Terminal& terminal : terminals)
        ports.push_back(std::unique_ptr<NSerialPort>(new NSerialPort(terminal.path(), nullptr)));
    for (Listener& listener : listeners) {
        for (const std::unique_ptr<NSerialPort>& port : ports)
            QVERIFY(listener.start(port.get()));
    }
    for (Listener& listener : listeners)
        NTRY_COMPARE(listener.heard().count(latin1("started")), count);

    std::vector<QByteArray> sent(count);
    for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < count; ++i) {
            const QByteArray piece = pattern((round * 131 + i * 57) % 1500 + 1, round * count + i);
            QVERIFY(terminals[size_t(i)].write(piece));
            sent[size_t(i)] += piece;
        }
        QTest::qWait(0);
    }
    for (int i = 0; i < count; ++i) {
        NSerialPort* const port = ports[size_t(i)].get();
        for (Listener& listener : listeners)
            NTRY_COMPARE(listener.data[port], sent[size_t(i)]);
    }
    for (const Listener& listener : listeners)
        QCOMPARE(listener.chunkSizes, listeners[0].chunkSizes);
    listeners.clear();
    for (const std::unique_ptr<NSerialPort>& port : ports)
        QVERIFY(!port->isOpen());
}

// ---- allocation ----

void tst_NSerialListener::portHeldPermanentlyIsRefused()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    NSerialPortAllocator holder(nullptr);
    QVERIFY(holder.requestSerialPortAllocation(&port, NSerialPortAllocator::PermanentAllocation));
    Listener listener;
    QVERIFY(!listener.start(&port));
    Listener other;
    QVERIFY(!other.start(&port));
    holder.releaseSerialPort(&port);
    QVERIFY(other.start(&port));
    NTRY_COMPARE(other.heard(), latin1("started"));
    QCOMPARE(listener.heard(), QString());
}

void tst_NSerialListener::refusedPortLeavesNoEntry()
{
    Listener listener;
    {
        NSerialPort port(latin1("/dev/ptmx"), nullptr);
        NSerialPortAllocator holder(nullptr);
        QVERIFY(holder.requestSerialPortAllocation(&port, NSerialPortAllocator::PermanentAllocation));
        Record opening(Calls(Open).onPath("/dev/ptmx"));
        QVERIFY(!listener.start(&port));
        // With an entry, this would join it.
        QVERIFY(!listener.start(&port));
        listener.stop(&port);
        holder.releaseSerialPort(&port);
        QCoreApplication::processEvents();
        QCOMPARE(opening.take(), QList<QByteArray>());
    }
    QCOMPARE(listener.heard(), QString());
}

void tst_NSerialListener::temporaryHolderIsWaitedFor()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    NSerialPortAllocator holder(nullptr);
    QVERIFY(holder.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    Record opening(Calls(Open).onPath(terminal.path().toLatin1()));
    Listener listener;
    QVERIFY(listener.start(&port));
    // What the holder reads is not for listeners.
    QVERIFY(port.open(QIODevice::ReadWrite));
    QVERIFY(terminal.write("holder's"));
    NTRY_VERIFY(port.bytesAvailable() == 8);
    QCOMPARE(listener.chunkSizes, QList<int>());
    port.close();
    QCOMPARE(opening.take().size(), 1);
    QCOMPARE(listener.heard(), QString());
    holder.releaseSerialPort(&port);
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QCOMPARE(opening.take().size(), 1);
    QVERIFY(terminal.write("listener's"));
    NTRY_COMPARE(listener.data[&port], QByteArray("listener's"));
}

void tst_NSerialListener::stoppingWhileWaitingNeverOpens()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    NSerialPortAllocator holder(nullptr);
    NSerialPortAllocator next(nullptr);
    QVERIFY(holder.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    Record opening(Calls(Open).onPath(terminal.path().toLatin1()));
    Listener listener;
    QVERIFY(listener.start(&port));
    QVERIFY(!next.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    QVERIFY(port.open(QIODevice::ReadWrite)); // by the holder
    listener.stop(&port);
    QVERIFY(port.isOpen());
    QCOMPARE(opening.take().size(), 1);
    QVERIFY(next.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    port.close();
    holder.releaseSerialPort(&port);
    next.releaseSerialPort(&port);
    QVERIFY(dataFlowElsewhere());
    QCOMPARE(opening.take(), QList<QByteArray>());
    QCOMPARE(listener.heard(), QString());
    QVERIFY(!port.isOpen());
}

void tst_NSerialListener::oneOfTwoMayStopWhileWaiting()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    NSerialPortAllocator holder(nullptr);
    QVERIFY(holder.requestSerialPortAllocation(&port, NSerialPortAllocator::TemporaryAllocation));
    Listener first;
    Listener second;
    QVERIFY(first.start(&port));
    QVERIFY(second.start(&port));
    first.stop(&port);
    holder.releaseSerialPort(&port);
    NTRY_COMPARE(second.heard(), latin1("started"));
    QCOMPARE(first.heard(), QString());
}

// ---- stopping ----

void tst_NSerialListener::lastListenerClosesAndReleases()
{
    Line line(2);
    QVERIFY(line.isOpen);
    NSerialPort* const port = line.port.get();
    NSerialPortAllocator other(nullptr);
    line.listeners[0].stop(port);
    QVERIFY(port->isOpen());
    QVERIFY(line.terminal.write("second"));
    NTRY_COMPARE(line.listeners[1].data[port], QByteArray("second"));
    QCOMPARE(line.listeners[0].chunkSizes, QList<int>());
    QVERIFY(!other.requestSerialPortAllocation(port, NSerialPortAllocator::TemporaryAllocation));
    line.listeners[1].stop(port);
    QVERIFY(!port->isOpen());
    QVERIFY(other.requestSerialPortAllocation(port, NSerialPortAllocator::TemporaryAllocation));

    // Nothing is connected any more.
    QVERIFY(port->open(QIODevice::ReadWrite));
    QVERIFY(line.terminal.write("other's"));
    NTRY_VERIFY(port->bytesAvailable() == 7);
    NMessageRecorder recorder;
    line.terminal.hangUp();
    NTRY_COMPARE(port->errorString(), NSystem::errorText(EIO));
    port->close();
    port->asyncOpen(QIODevice::ReadWrite, -1);
    NTRY_COMPARE(port->errorString(), NSystem::errorText(ENOENT));
    QCOMPARE(recorder.take(), QStringList());
    QCOMPARE(line.listeners[0].heard() + line.listeners[1].heard(), QString());
}

void tst_NSerialListener::stoppingWhileOpeningClosesAndReleases()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    Listener listener;
    for (int i = 0; i < 100; ++i) {
        QVERIFY(listener.start(&port));
        listener.stop(&port);
        NSerialPortAllocator other(nullptr);
        QVERIFY(other.requestSerialPortAllocation(&port, NSerialPortAllocator::PermanentAllocation));
    }
    QVERIFY(dataFlowElsewhere());
    QVERIFY(!port.isOpen());
    QCOMPARE(listener.heard(), QString());
}

void tst_NSerialListener::stoppingOnNullStopsOnEveryPort()
{
    Line line(2);
    Line other(1);
    QVERIFY(line.isOpen && other.isOpen);
    Listener& listener = line.listeners[0];
    QVERIFY(listener.start(other.port.get()));
    other.listeners[0].stop(nullptr);
    QVERIFY(other.port->isOpen());
    listener.stop(nullptr);
    QVERIFY(!other.port->isOpen());
    QVERIFY(line.port->isOpen());
    QVERIFY(line.terminal.write("data"));
    NTRY_COMPARE(line.listeners[1].data[line.port.get()], QByteArray("data"));
    QCOMPARE(listener.chunkSizes, QList<int>());
}

void tst_NSerialListener::stoppingOnAnUnknownPortChangesNothing()
{
    Line line(1);
    QVERIFY(line.isOpen);
    Listener stranger;
    stranger.stop(line.port.get());
    stranger.stop(nullptr);
    NSerialPort port(latin1("/dev/ptmx"), nullptr);
    QVERIFY(port.open(QIODevice::ReadWrite));
    line.listeners[0].stop(&port);
    QVERIFY(port.isOpen());
    QVERIFY(line.terminal.write("data"));
    NTRY_COMPARE(line.listeners[0].data[line.port.get()], QByteArray("data"));
}

void tst_NSerialListener::destroyedListenerStopsEverywhere()
{
    Line line(2);
    Line other(1);
    QVERIFY(line.isOpen && other.isOpen);
    QVERIFY(other.listeners[0].start(line.port.get()));
    other.listeners[0].listener.reset();
    QVERIFY(!other.port->isOpen());
    line.listeners[0].listener.reset();
    QVERIFY(line.terminal.write("data"));
    NTRY_COMPARE(line.listeners[1].data[line.port.get()], QByteArray("data"));
    line.listeners[1].listener.reset();
    QVERIFY(!line.port->isOpen());
    QCOMPARE(line.listeners[0].chunkSizes + other.listeners[0].chunkSizes, QList<int>());
}

// ---- errors ----

void tst_NSerialListener::failedOpeningIsReportedAndRetried_data()
{
    QTest::addColumn<int>("error");

    QTest::newRow("no such device") << ENXIO;
    QTest::newRow("busy") << EBUSY;
    QTest::newRow("no permission") << EACCES;
    QTest::newRow("too many open files") << EMFILE;
}

void tst_NSerialListener::failedOpeningIsReportedAndRetried()
{
    QFETCH(int, error);

    NMessageRecorder recorder;
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    Listener first;
    Listener second;
    {
        Fault fault(Calls(Open).onPath(terminal.path().toLatin1()), error);
        QVERIFY(first.start(&port));
        QVERIFY(second.start(&port));
        QCOMPARE(retryIntervals(), QList<int>());
        NTRY_COMPARE(first.heard(), latin1("error"));
        QCOMPARE(second.heard(), latin1("error"));
        QCOMPARE(port.errorString(), NSystem::errorText(error));
        QCOMPARE(
            recorder.take(), QStringList() << latin1("warning: Listening error on serial port %1: %2")
                                                  .arg(terminal.path(), NSystem::errorText(error)));
        QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
    }
    QVERIFY(retry());
    QCOMPARE(retryIntervals(), QList<int>());
    NTRY_COMPARE(first.heard(), latin1("error started"));
    QCOMPARE(second.heard(), latin1("error started"));
    QVERIFY(terminal.write("data"));
    NTRY_COMPARE(first.data[&port], QByteArray("data"));
    QCOMPARE(recorder.take(), QStringList());
}

void tst_NSerialListener::eachFailureIsRetried()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    NSerialPort port(directory.filePath(latin1("tty")), nullptr);
    Listener listener;
    QVERIFY(listener.start(&port));
    for (int i = 1; i <= 20; ++i) {
        NTRY_COMPARE(listener.heard().count(latin1("error")), i);
        QCOMPARE(recorder.messages().size(), i);
        QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
        QVERIFY(retry());
        QCOMPARE(retryIntervals(), QList<int>());
    }
}

void tst_NSerialListener::deviceThatAppearsLaterIsFound()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    Terminal terminal;
    const QString path = directory.filePath(latin1("ttyUSB0"));
    NSerialPort port(path, nullptr);
    Listener listener;
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("error"));
    QCOMPARE(
        recorder.take(), QStringList() << latin1("warning: Listening error on serial port %1: %2")
                                              .arg(path, NSystem::errorText(ENOENT)));
    QCOMPARE(symlink(terminal.path().toLatin1().constData(), path.toLatin1().constData()), 0);
    QVERIFY(retry());
    NTRY_COMPARE(listener.heard(), latin1("error started"));
    QVERIFY(terminal.write("data"));
    NTRY_COMPARE(listener.data[&port], QByteArray("data"));
}

void tst_NSerialListener::joiningAndLeavingKeepTheRetryTimer()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    NSerialPort port(directory.filePath(latin1("tty")), nullptr);
    Listener first;
    QVERIFY(first.start(&port));
    NTRY_COMPARE(first.heard(), latin1("error"));
    const QList<QPair<int, int>> timers = NTest::registeredTimers(singleton());
    QCOMPARE(timers.size(), 1);
    Listener second;
    QVERIFY(second.start(&port));
    QCOMPARE(NTest::registeredTimers(singleton()), timers);
    first.stop(&port);
    QCOMPARE(NTest::registeredTimers(singleton()), timers);
    QCOMPARE(second.heard(), QString());
    QVERIFY(retry());
    NTRY_COMPARE(second.heard(), latin1("error"));
    QCOMPARE(first.heard(), latin1("error"));
}

void tst_NSerialListener::withoutListenersNoTimerRuns()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    NSerialPort port(directory.filePath(latin1("tty")), nullptr);
    Listener listener;
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("error"));
    QCOMPARE(retryIntervals().size(), 1);
    listener.stop(&port);
    QCOMPARE(retryIntervals(), QList<int>());

    // A new beginning opens the port at once.
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("error error"));
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
    listener.listener.reset();
    QCOMPARE(retryIntervals(), QList<int>());
}

void tst_NSerialListener::hangUpIsReportedAndRetried()
{
    NMessageRecorder recorder;
    Line line(2);
    QVERIFY(line.isOpen);
    QVERIFY(line.terminal.writeThrough("last words"));
    NTRY_COMPARE(line.listeners[1].data[line.port.get()], QByteArray("last words"));
    line.terminal.hangUp();
    for (Listener& listener : line.listeners)
        NTRY_COMPARE(listener.heard(), latin1("error"));
    QCOMPARE(
        recorder.take(), QStringList() << latin1("warning: Listening error on serial port %1: %2")
                                              .arg(line.terminal.path(), NSystem::errorText(EIO)));
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
    QVERIFY(line.port->isOpen());
    QVERIFY(retry());
    for (Listener& listener : line.listeners)
        NTRY_COMPARE(listener.heard(), latin1("error started"));
    QVERIFY(line.port->isOpen());
    QVERIFY(dataFlowElsewhere());
    QCOMPARE(retryIntervals(), QList<int>());
    QCOMPARE(recorder.take(), QStringList());
    QCOMPARE(line.listeners[0].heard(), latin1("error started"));
}

void tst_NSerialListener::failedReadIsReportedAndRetried_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("text");

    QTest::newRow("number of bytes") << int(Ioctl) << ENODEV << NSystem::errorText(ENODEV);
    QTest::newRow("read") << int(Read) << EIO << NSystem::errorText(EIO);
    QTest::newRow("end") << int(Read) << 0 << latin1("Serial port hangs-up");
}

void tst_NSerialListener::failedReadIsReportedAndRetried()
{
    QFETCH(int, call);
    QFETCH(int, error);
    QFETCH(QString, text);

    NMessageRecorder recorder;
    Line line(2);
    QVERIFY(line.isOpen);
    Calls calls = Calls(call).onPath(line.terminal.path().toLatin1());
    if (call == Ioctl)
        calls.withRequest(FIONREAD);
    Answer answer(calls, [error](const Invocation&) {
        errno = error;
        return error == 0 ? 0 : -1;
    });
    QVERIFY(line.terminal.write("lost"));
    for (Listener& listener : line.listeners)
        NTRY_COMPARE(listener.heard(), latin1("error"));
    QCOMPARE(
        recorder.take(),
        QStringList() << latin1("warning: Listening error on serial port %1: %2").arg(line.terminal.path(), text));
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
    QVERIFY(retry());
    for (Listener& listener : line.listeners)
        NTRY_COMPARE(listener.heard(), latin1("error started"));
    QCOMPARE(line.listeners[0].chunkSizes, QList<int>());
}

void tst_NSerialListener::dataFlowAgainAfterStopAndStart()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    std::unique_ptr<Terminal> terminal(new Terminal);
    const QByteArray path = directory.filePath(latin1("tty")).toLatin1();
    QCOMPARE(symlink(terminal->path().toLatin1().constData(), path.constData()), 0);
    NSerialPort port(QString::fromLatin1(path), nullptr);
    Listener listener;
    QVERIFY(listener.start(&port));
    QVERIFY(listener.hears("started"));
    terminal->hangUp();
    QVERIFY(listener.hears("error"));

    // The device is plugged in again. The retry leaves the port as it is.
    Terminal again;
    QCOMPARE(unlink(path.constData()), 0);
    QCOMPARE(symlink(again.path().toLatin1().constData(), path.constData()), 0);
    QVERIFY(retry());
    QVERIFY(listener.hears("started"));
    QVERIFY(again.writeThrough("lost\n"));
    QVERIFY(dataFlowElsewhere());
    QCOMPARE(listener.chunkSizes, QList<int>());

    listener.stop(&port);
    QVERIFY(listener.start(&port));
    QVERIFY(listener.hears("started"));
    QVERIFY(again.write("data"));
    NTRY_COMPARE(listener.data[&port], QByteArray("data"));
}

void tst_NSerialListener::portsFailIndependently()
{
    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    Line line(1);
    QVERIFY(line.isOpen);
    NSerialPort one(directory.filePath(latin1("one")), nullptr);
    NSerialPort other(directory.filePath(latin1("other")), nullptr);
    Listener& listener = line.listeners[0];
    QVERIFY(listener.start(&one));
    QVERIFY(listener.hears("error"));
    const QPair<int, int> timerOfOne = NTest::registeredTimers(singleton()).value(0);
    QVERIFY(listener.start(&other));
    QVERIFY(listener.hears("error"));
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval << RetryInterval);
    recorder.take();
    QTimerEvent event(timerOfOne.first);
    QCoreApplication::sendEvent(singleton(), &event);
    QVERIFY(listener.hears("error"));
    QCOMPARE(recorder.take().size(), 1);
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval << RetryInterval);
    QVERIFY(line.terminal.write("data"));
    NTRY_COMPARE(listener.data[line.port.get()], QByteArray("data"));
    listener.stop(&other);
    QCOMPARE(retryIntervals().size(), 1);
}

// ---- removal of ports ----

void tst_NSerialListener::destroyedPortIsReportedOnceToEachListener()
{
    Line line(3);
    QVERIFY(line.isOpen);
    line.listeners[1].stop(line.port.get());
    Listener other;
    NSerialPort* reported = nullptr;
    bool wasOpen = true;
    line.listeners[0].onSignal = [&](NSerialPort* port) {
        reported = port;
        wasOpen = port->isOpen();
    };
    NSerialPort* const port = line.port.get();
    line.port.reset();
    QCOMPARE(reported, port);
    QVERIFY(!wasOpen);
    QCOMPARE(line.listeners[0].heard(), latin1("removed"));
    QCOMPARE(line.listeners[1].heard(), QString());
    QCOMPARE(line.listeners[2].heard(), latin1("removed"));
    QCOMPARE(other.heard(), QString());
    line.listeners[0].stop(nullptr);
    QVERIFY(line.terminal.write("data"));
    QVERIFY(dataFlowElsewhere());
    QCOMPARE(line.listeners[0].chunkSizes, QList<int>());
}

void tst_NSerialListener::destroyedPortIsReportedInEveryState_data()
{
    QTest::addColumn<QByteArray>("state");

    QTest::newRow("waiting") << QByteArray("waiting");
    QTest::newRow("opening") << QByteArray("opening");
    QTest::newRow("error") << QByteArray("error");
    QTest::newRow("opening again") << QByteArray("opening again");
}

void tst_NSerialListener::destroyedPortIsReportedInEveryState()
{
    QFETCH(QByteArray, state);

    NMessageRecorder recorder;
    NTemporaryDirectory directory;
    std::unique_ptr<NSerialPort> port(new NSerialPort(directory.filePath(latin1("tty")), nullptr));
    NSerialPortAllocator holder(nullptr);
    if (state == "waiting")
        QVERIFY(holder.requestSerialPortAllocation(port.get(), NSerialPortAllocator::TemporaryAllocation));
    Listener listener;
    QVERIFY(listener.start(port.get()));
    if (state == "error" || state == "opening again") {
        QVERIFY(listener.hears("error"));
        QCOMPARE(retryIntervals().size(), 1);
    }
    if (state == "opening again")
        QVERIFY(retry());
    port.reset();
    QVERIFY(listener.hears("removed"));
    QCOMPARE(retryIntervals(), QList<int>());
    QVERIFY(dataFlowElsewhere());
    QCOMPARE(listener.heard(), QString());
}

// ---- handlers ----

void tst_NSerialListener::handlersMayDoAnything_data()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QByteArray>("actions");

    // s: the listener stops; S: all stop; d: the listener is deleted; o: the others are deleted; x: the others
    // stop; p: the port is deleted; q: another port with the same listeners is deleted.
    const char* const actions[] = {"s",  "S",  "d",  "o",   "x",   "p",  "q",    "so",
                                   "dp", "pd", "po", "odp", "pdo", "qp", "Sdoqp"};
    for (const char* const signal : {"data", "started", "error", "removed"}) {
        for (const char* const action : actions)
            QTest::newRow((QByteArray(signal) + ' ' + action).constData())
                << QByteArray(signal) << QByteArray(action);
    }
}

void tst_NSerialListener::handlersMayDoAnything()
{
    QFETCH(QByteArray, signal);
    QFETCH(QByteArray, actions);

    NMessageRecorder recorder;
    const int count = 4;
    Line line(count);
    Line another(1);
    QVERIFY(line.isOpen && another.isOpen);
    NSerialPort* const port = line.port.get();
    for (Listener& listener : line.listeners)
        QVERIFY(listener.start(another.port.get()));

    // What the actions of the first listener that hears the signal leave.
    Listener* actor = nullptr;
    QSet<Listener*> onLine;
    QSet<Listener*> onAnother;
    QHash<Listener*, int> removals;
    for (Listener& listener : line.listeners) {
        onLine.insert(&listener);
        onAnother.insert(&listener);
    }
    const auto remove = [&](std::unique_ptr<NSerialPort>& port, QSet<Listener*>& listeners) {
        for (Listener* const listener : listeners)
            ++removals[listener];
        listeners.clear();
        port.reset();
    };
    const auto act = [&](Listener* self) {
        if (actor)
            return;
        actor = self;
        for (const char action : actions) {
            if (action == 'p' && line.port)
                remove(line.port, onLine);
            else if (action == 'q' && another.port)
                remove(another.port, onAnother);
            for (Listener& listener : line.listeners) {
                const bool isSelf = &listener == self;
                const bool isDeleted = action == (isSelf ? 'd' : 'o');
                const bool isStopped = action == 'S' || action == (isSelf ? 's' : 'x');
                if (!listener.listener || !(isDeleted || isStopped))
                    continue;
                onLine.remove(&listener);
                if (isStopped) {
                    listener.stop(port);
                } else {
                    onAnother.remove(&listener);
                    listener.listener.reset();
                }
            }
        }
    };
    for (Listener& each : line.listeners) {
        Listener* const listener = &each;
        const Listener::Handler handler = [=](NSerialPort*) { act(listener); };
        (signal == "data" ? listener->onData : listener->onSignal) = handler;
    }

    if (signal == "data") {
        QVERIFY(line.terminal.writeThrough(pattern(2 * ChunkSize)));
    } else if (signal == "error") {
        line.terminal.hangUp();
    } else if (signal == "removed") {
        line.port.reset();
    } else {
        for (Listener& listener : line.listeners)
            listener.stop(port);
        for (Listener& listener : line.listeners)
            QVERIFY(listener.start(port));
    }
    NTRY_VERIFY(actor);
    QTest::qWait(0);

    for (Listener& each : line.listeners) {
        Listener* const listener = &each;
        const bool remains = onLine.contains(listener);
        QStringList expected;
        if (signal != "data" && (listener == actor || remains))
            expected.append(QString::fromLatin1(signal));
        for (int i = 0; i < removals.value(listener); ++i)
            expected.append(latin1("removed"));
        QStringList heard = listener->heardSignals();
        // Those after the one that acts hear of a port's removal first.
        heard.sort();
        expected.sort();
        QCOMPARE(heard, expected);
        QCOMPARE(
            int(listener->chunkSizes.size()), signal == "data" ? (remains             ? 2
                                                                  : listener == actor ? 1
                                                                                      : 0)
                                                               : 0);
    }
    const bool isListenedOn = line.port && !onLine.isEmpty();
    QCOMPARE(retryIntervals().size(), signal == "error" && isListenedOn ? 1 : 0);
    if (line.port)
        QCOMPARE(line.port->isOpen(), isListenedOn);
    if (another.port)
        QVERIFY(another.port->isOpen());
}

void tst_NSerialListener::joiningInAHandlerHearsFromTheNextChunk()
{
    Line line(2);
    QVERIFY(line.isOpen);
    NSerialPort* const port = line.port.get();
    Listener later;
    for (Listener& listener : line.listeners)
        listener.onData = [&](NSerialPort*) { QVERIFY(later.start(port)); };
    const QByteArray bytes = pattern(3 * ChunkSize);
    QVERIFY(line.terminal.writeThrough(bytes));
    NTRY_COMPARE(line.listeners[0].data[port], bytes);
    QCOMPARE(later.data[port], bytes.mid(ChunkSize));
    QCOMPARE(later.chunkSizes, QList<int>() << ChunkSize << ChunkSize);
    QCOMPARE(later.heard(), QString());
}

void tst_NSerialListener::joiningInAHandlerGetsNoStartSignal()
{
    Terminal terminal;
    NSerialPort port(terminal.path(), nullptr);
    Listener listener;
    Listener later;
    listener.onSignal = [&](NSerialPort*) { QVERIFY(later.start(&port)); };
    QVERIFY(listener.start(&port));
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QVERIFY(terminal.write("data"));
    NTRY_COMPARE(later.data[&port], QByteArray("data"));
    QCOMPARE(later.heard(), QString());
}

void tst_NSerialListener::stoppingAndStartingInAHandlerListensAgain()
{
    Line line(1);
    QVERIFY(line.isOpen);
    NSerialPort* const port = line.port.get();
    Listener& listener = line.listeners[0];
    listener.onData = [&](NSerialPort*) {
        listener.onData = nullptr;
        listener.stop(port);
        QVERIFY(!port->isOpen());
        QVERIFY(listener.start(port));
    };
    QVERIFY(line.terminal.writeThrough(pattern(2 * ChunkSize)));
    NTRY_COMPARE(listener.heard(), latin1("started"));
    QCOMPARE(listener.chunkSizes, QList<int>() << ChunkSize);
    QVERIFY(line.terminal.write("data"));
    NTRY_COMPARE(listener.data[port], pattern(ChunkSize) + "data");
}

void tst_NSerialListener::nestedEventLoopKeepsTheOrderOfChunks()
{
    Line line(4);
    QVERIFY(line.isOpen);
    NSerialPort* const port = line.port.get();
    const QByteArray bytes = pattern(2 * ChunkSize);
    const QByteArray more = pattern(3 * ChunkSize + 7, 1);
    int loops = 0;
    for (Listener& listener : line.listeners) {
        listener.onData = [&](NSerialPort*) {
            if (++loops > 2)
                return;
            QVERIFY(line.terminal.writeThrough(more));
            NTRY_VERIFY(port->bytesAvailable() >= more.size());
        };
    }
    QVERIFY(line.terminal.writeThrough(bytes));
    for (Listener& listener : line.listeners) {
        NTRY_COMPARE(listener.data[port].size(), bytes.size() + 2 * more.size());
        QCOMPARE(listener.data[port], bytes + more + more);
        QCOMPARE(listener.chunkSizes, line.listeners[0].chunkSizes);
    }
}

// A port may be created where one was that has been deleted.
void tst_NSerialListener::portMayBeReplacedInANestedEventLoop()
{
    std::aligned_storage<sizeof(NSerialPort), alignof(NSerialPort)>::type memory;
    Terminal terminal;
    Terminal replacement;
    NSerialPort* port = new (&memory) NSerialPort(terminal.path(), nullptr);
    Listener first;
    Listener second;
    QVERIFY(first.start(port));
    NTRY_COMPARE(first.heard(), latin1("started"));
    bool isReceivedInside = false;
    first.onData = [&](NSerialPort*) {
        first.onData = nullptr;
        port->~NSerialPort();
        port = new (&memory) NSerialPort(replacement.path(), nullptr);
        QVERIFY(second.start(port));
        NTRY_COMPARE(second.heard(), latin1("started"));
        QVERIFY(replacement.write("data"));
        isReceivedInside = NTest::waitUntil([&]() { return second.data[port] == "data"; }, 5000);
    };
    QVERIFY(terminal.write("old"));
    NTRY_COMPARE(second.data[port], QByteArray("data"));
    QVERIFY(isReceivedInside);
    QCOMPARE(first.data[port], QByteArray("old"));
    port->~NSerialPort();
    QCOMPARE(second.heard(), latin1("started removed"));
}

void tst_NSerialListener::listenerBeingDestroyedIsRefused()
{
    Line line(1);
    QVERIFY(line.isOpen);
    Terminal terminal;
    NSerialPort other(terminal.path(), nullptr);
    NSerialListener* const listener = line.listeners[0].listener.release();
    bool isClosed = false;
    const NCloseReceiver receiver(line.port.get(), [&]() {
        isClosed = true;
        QVERIFY(!listener->startListeningOnSerialPort(&other));
        QVERIFY(!listener->startListeningOnSerialPort(line.port.get()));
        listener->stopListeningOnSerialPort(nullptr);
    });
    delete listener;
    QVERIFY(isClosed);
    QVERIFY(dataFlowElsewhere());
    QVERIFY(!other.isOpen());
    NSerialPortAllocator allocator(nullptr);
    QVERIFY(allocator.requestSerialPortAllocation(&other, NSerialPortAllocator::PermanentAllocation));
    QVERIFY(allocator.requestSerialPortAllocation(line.port.get(), NSerialPortAllocator::PermanentAllocation));
}

void tst_NSerialListener::portBeingDestroyedIsRefused()
{
    Line line(2);
    QVERIFY(line.isOpen);
    Listener later;
    for (Listener& each : line.listeners) {
        Listener* const listener = &each;
        listener->onSignal = [=, &later](NSerialPort* port) {
            QVERIFY(!later.start(port));
            QVERIFY(!listener->start(port));
            listener->stop(port);
        };
    }
    delete line.port.release();
    for (Listener& listener : line.listeners)
        QVERIFY(listener.heard().isEmpty() || listener.heard() == latin1("removed"));
    QCOMPARE(line.listeners[0].heard() + line.listeners[1].heard(), latin1("removedremoved"));
    QCOMPARE(later.heard(), QString());
}

// ---- the process ----

void tst_NSerialListener::deletingTheSingletonClosesThePorts()
{
    Line line(1);
    QVERIFY(line.isOpen);
    NSerialPort waiting(latin1("/dev/ptmx"), nullptr);
    NSerialPortAllocator holder(nullptr);
    QVERIFY(holder.requestSerialPortAllocation(&waiting, NSerialPortAllocator::TemporaryAllocation));
    QVERIFY(line.listeners[0].start(&waiting));
    delete singleton();
    QVERIFY(!line.port->isOpen());
    holder.releaseSerialPort(&waiting);
    QVERIFY(holder.requestSerialPortAllocation(&waiting, NSerialPortAllocator::PermanentAllocation));
    QVERIFY(holder.requestSerialPortAllocation(line.port.get(), NSerialPortAllocator::PermanentAllocation));
    holder.releaseSerialPort(line.port.get());
    QVERIFY(line.listeners[0].start(line.port.get()));
    NTRY_COMPARE(line.listeners[0].heard(), latin1("started"));
}

// As many failures as a device causes that is missing for three days.
void tst_NSerialListener::retriesNeedNoMemory()
{
    const int warmUp = 1000;
    const int retries = 3 * 24 * 60 * 60 / 5;
    NMessageRecorder recorder;
    NSerialPort port(latin1("/dev/ttyMissing"), nullptr);
    Fault fault(Calls(Open).onPath("/dev/ttyMissing"), ENOENT);
    NSerialListener listener(nullptr);
    QEventLoop loop;
    loop.connect(&listener, SIGNAL(listeningError(NSerialPort*)), SLOT(quit()));
    QVERIFY(listener.startListeningOnSerialPort(&port));
    loop.exec();
    recorder.take();
    qint64 before = 0;
    for (int i = 0; i < warmUp + retries; ++i) {
        if (i == warmUp)
            before = NTest::allocatedBytes();
        QVERIFY(retry());
        loop.exec();
        QCOMPARE(recorder.take().size(), 1);
    }
    QVERIFY(NTest::allocatedBytes() - before < 64 * 1024);
    QCOMPARE(fault.count(), warmUp + retries + 1);
    QCOMPARE(retryIntervals(), QList<int>() << RetryInterval);
}

QTEST_MAIN(tst_NSerialListener)
#include "tst_nseriallistener.moc"
