#include "nclosereceiver.h"

#include <nbase/serial/nserialport.h>
#include <nbase/serial/nserialportallocator.h>

#include <nsystem/nlatin1_p.h>

#include <QtTest/QtTest>

#include <functional>
#include <memory>
#include <vector>

namespace {

typedef NSerialPortAllocator Allocator;
typedef Allocator::AllocationType Type;

const Type Temporary = Allocator::TemporaryAllocation;
const Type Permanent = Allocator::PermanentAllocation;

// Everything that a test observes, in its order.
typedef QStringList Log;

// A port without a device: allocators never open it.
class Port : public NSerialPort
{
public:
    explicit Port(const QString& name = latin1("/dev/P"))
        : NSerialPort(name, nullptr)
    {
    }
};

// Logs the signals of an allocator and then runs the handlers of the test.
class Receiver : public QObject
{
    Q_OBJECT

public:
    typedef std::function<void(NSerialPort*)> Handler;

    Receiver(const char* name, Log& log)
        : m_name(latin1(name))
        , m_log(log)
    {
    }

    void listenTo(Allocator* allocator)
    {
        connect(
            allocator, SIGNAL(serialPortAllocated(NSerialPort*, NSerialPortAllocator::AllocationType)),
                              SLOT(allocated(NSerialPort*, NSerialPortAllocator::AllocationType)));
        connect(allocator, SIGNAL(serialPortAboutToRemove(NSerialPort*)), SLOT(aboutToRemove(NSerialPort*)));
    }

    Handler onGrant;
    Handler onRemoval;

private slots:
    void allocated(NSerialPort* serialPort, NSerialPortAllocator::AllocationType allocationType)
    {
        m_log.append(latin1("%1 gets %2 %3")
                         .arg(
                             m_name, serialPort->deviceName(),
                             latin1(allocationType == Permanent ? "permanently" : "temporarily")));
        const Handler handler = onGrant;
        if (handler)
            handler(serialPort);
    }

    void aboutToRemove(NSerialPort* serialPort)
    {
        m_log.append(latin1("%1 loses %2").arg(m_name, serialPort->deviceName()));
        const Handler handler = onRemoval;
        if (handler)
            handler(serialPort);
    }

private:
    QString m_name;
    Log& m_log;
};

// An allocator that logs and can be deleted by handlers.
class User
{
public:
    User(const char* name, Log& log)
        : receiver(name, log)
        , allocator(new Allocator(nullptr))
    {
        receiver.listenTo(allocator.get());
    }

    Allocator* operator->() const { return allocator.get(); }

    Receiver receiver;
    std::unique_ptr<Allocator> allocator;
};

// A thread whose stack is too small for a recursion over thousands of allocators.
class SmallThread : public QThread
{
public:
    explicit SmallThread(const std::function<void()>& function)
        : m_function(function)
    {
        setStackSize(256 * 1024);
        start();
        wait();
    }

private:
    void run() override { m_function(); }

    std::function<void()> m_function;
};

class Random
{
public:
    Random()
        : m_state(1)
    {
    }

    int below(int limit)
    {
        m_state = m_state * 1664525u + 1013904223u;
        return int((quint64(m_state) * quint64(limit)) >> 32);
    }

private:
    quint32 m_state;
};

// What the ports and allocators must do, as queues of the numbers of allocators. Each port has its own log,
// because an allocator that is destroyed leaves its ports in any order.
class Model
{
public:
    typedef QPair<int, Type> Request;

    explicit Model(int count)
        : logs(count)
        , releasesInGrant(count)
        , m_queues(count)
    {
    }

    bool request(int allocator, int port, Type type)
    {
        QList<Request>& queue = m_queues[port];
        if (!queue.isEmpty() && queue.last().second == Permanent)
            return false;
        queue.append(Request(allocator, type));
        if (queue.size() == 1)
            grantHead(port);
        return true;
    }

    void release(int allocator, int port)
    {
        if (!holds(allocator, port))
            return;
        m_queues[port].removeFirst();
        grantHead(port);
    }

    void cancel(int allocator, int port)
    {
        QList<Request> rest;
        for (int i = 0; i < m_queues[port].size(); ++i) {
            if (i == 0 || m_queues[port].at(i).first != allocator)
                rest.append(m_queues[port].at(i));
        }
        m_queues[port] = rest;
    }

    void destroyAllocator(int allocator)
    {
        for (int port = 0; port < m_queues.size(); ++port) {
            cancel(allocator, port);
            release(allocator, port);
        }
    }

    void destroyPort(int port)
    {
        QList<int> reported;
        for (const Request& request : m_queues[port]) {
            if (!reported.contains(request.first))
                logs[port].append(latin1("%1 loses").arg(request.first));
            reported.append(request.first);
        }
        m_queues[port].clear();
    }

    int longestQueue() const
    {
        int longest = 0;
        for (const QList<Request>& queue : m_queues)
            longest = qMax(longest, int(queue.size()));
        return longest;
    }

    QVector<Log> logs;
    QVector<bool> releasesInGrant;

private:
    bool holds(int allocator, int port) const
    {
        return !m_queues[port].isEmpty() && m_queues[port].first().first == allocator;
    }

    void grantHead(int port)
    {
        while (!m_queues[port].isEmpty()) {
            const Request head = m_queues[port].first();
            logs[port].append(latin1("%1 gets %2").arg(head.first).arg(int(head.second)));
            if (!releasesInGrant[head.first])
                return;
            m_queues[port].removeFirst();
        }
    }

    QVector<QList<Request>> m_queues;
};

// The same operations on real ports and allocators.
class System : public QObject
{
    Q_OBJECT

public:
    explicit System(int count)
        : logs(count)
        , releasesInGrant(count)
        , m_allocators(count)
        , m_ports(count)
    {
        for (int i = 0; i < count; ++i) {
            createAllocator(i);
            m_ports[i] = new Port;
        }
    }

    ~System() override
    {
        qDeleteAll(m_ports);
        qDeleteAll(m_allocators);
    }

    bool request(int allocator, int port, Type type)
    {
        return m_allocators[allocator]->requestSerialPortAllocation(m_ports[port], type);
    }

    void release(int allocator, int port) { m_allocators[allocator]->releaseSerialPort(m_ports[port]); }

    void cancel(int allocator, int port)
    {
        m_allocators[allocator]->cancelSerialPortAllocationRequests(m_ports[port]);
    }

    void destroyAllocator(int allocator)
    {
        delete m_allocators[allocator];
        createAllocator(allocator);
    }

    void destroyPort(int port)
    {
        delete m_ports[port];
        m_ports[port] = new Port;
    }

    QVector<Log> logs;
    QVector<bool> releasesInGrant;

private slots:
    void allocated(NSerialPort* serialPort, NSerialPortAllocator::AllocationType allocationType)
    {
        const int allocator = senderNumber();
        logs[m_ports.indexOf(serialPort)].append(latin1("%1 gets %2").arg(allocator).arg(int(allocationType)));
        if (releasesInGrant[allocator])
            m_allocators[allocator]->releaseSerialPort(serialPort);
    }

    void aboutToRemove(NSerialPort* serialPort)
    {
        logs[m_ports.indexOf(serialPort)].append(latin1("%1 loses").arg(senderNumber()));
    }

private:
    int senderNumber() const { return m_allocators.indexOf(static_cast<Allocator*>(sender())); }

    void createAllocator(int number)
    {
        m_allocators[number] = new Allocator(nullptr);
        connect(
            m_allocators[number], SIGNAL(serialPortAllocated(NSerialPort*, NSerialPortAllocator::AllocationType)),
                                         SLOT(allocated(NSerialPort*, NSerialPortAllocator::AllocationType)));
        connect(
            m_allocators[number], SIGNAL(serialPortAboutToRemove(NSerialPort*)),
                                         SLOT(aboutToRemove(NSerialPort*)));
    }

    QVector<Allocator*> m_allocators;
    QVector<NSerialPort*> m_ports;
};

} // namespace

class tst_NSerialPortAllocator : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_log.clear(); }

    void typesHaveTheirValues();
    void signalsHaveTheirParameters();

    void firstRequestIsGrantedBeforeItReturns_data();
    void firstRequestIsGrantedBeforeItReturns();
    void requestsAreGrantedInTheirOrder();
    void portsAreIndependent();
    void portIsGrantedOnceForEachRequest();
    void requestsBehindAPermanentHolderAreRefused();
    void permanentRequestEndsTheQueue();
    void queueIsOpenAgainWithoutThePermanentRequest();
    void refusedRequestLeavesNothing();
    void refusedRequestKeepsEarlierOnes();
    void nullPortIsRefused();

    void releasingAWaitingPortChangesNothing();
    void releasingOrCancellingAnUnknownPortChangesNothing();
    void portIgnoresReleaseByOthers();
    void cancellingWithdrawsAllWaitingRequests();
    void cancellingKeepsTheHeldPort();
    void cancellingAgainChangesNothing();
    void portCancelsAllButTheFirstRequest();
    void unknownGrantPassesThePortOn();
    void allocationNeitherOpensNorClosesThePort();

    void destroyedPortIsReportedOnceToEachAllocator();
    void destroyedPortIsClosedWhenItIsReported();
    void allocatorsWithoutRequestsGetNoSignal();
    void destroyedAllocatorGivesEverythingBack();

    void releaseInAGrantGrantsTheNextRequest();
    void requestInAGrantWaits();
    void requestAfterReleaseInAGrantIsGranted();
    void cancelInAGrantKeepsThePort();
    void grantMayDelete_data();
    void grantMayDelete();
    void requestsAfterAPassedOnPortMayBeWithdrawnInAGrant();
    void removalMayDelete_data();
    void removalMayDelete();
    void portBeingDestroyedRefusesRequests();
    void handlersOfAPortBeingDestroyedMayReleaseAndCancel();
    void allocatorBeingDestroyedRefusesRequests();
    void allocatorBeingDestroyedGetsNoSignals();

    void thousandsOfReleasesInGrantsNeedLittleStack_data();
    void thousandsOfReleasesInGrantsNeedLittleStack();
    void randomOperationsFollowTheModel();

private:
    Log m_log;
};

// Takes what has been logged so far.
#define COMPARE_LOG(expected) \
    do { \
        const QString observed = m_log.join(latin1("; ")); \
        m_log.clear(); \
        QCOMPARE(observed, latin1(expected)); \
    } while (0)

void tst_NSerialPortAllocator::typesHaveTheirValues()
{
    QCOMPARE(int(Allocator::TemporaryAllocation), 0);
    QCOMPARE(int(Allocator::PermanentAllocation), 1);
    QCOMPARE(Allocator::staticMetaObject.indexOfEnumerator("AllocationType"), -1);
}

void tst_NSerialPortAllocator::signalsHaveTheirParameters()
{
    const QMetaObject& metaObject = Allocator::staticMetaObject;
    const int allocated =
        metaObject.indexOfSignal("serialPortAllocated(NSerialPort*,NSerialPortAllocator::AllocationType)");
    const int removed = metaObject.indexOfSignal("serialPortAboutToRemove(NSerialPort*)");
    QVERIFY(allocated >= 0);
    QVERIFY(removed >= 0);
    QCOMPARE(
        metaObject.method(allocated).parameterNames(), QList<QByteArray>() << "serialPort"
                                                                           << "allocationType");
    QCOMPARE(metaObject.method(removed).parameterNames(), QList<QByteArray>() << "serialPort");
}

void tst_NSerialPortAllocator::firstRequestIsGrantedBeforeItReturns_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("log");

    QTest::newRow("temporary") << int(Temporary) << QByteArray("A gets P temporarily");
    QTest::newRow("permanent") << int(Permanent) << QByteArray("A gets P permanently");
}

void tst_NSerialPortAllocator::firstRequestIsGrantedBeforeItReturns()
{
    QFETCH(int, type);
    QFETCH(QByteArray, log);

    Port port;
    User a("A", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Type(type)));
    COMPARE_LOG(log.constData());
    a->releaseSerialPort(&port);
    QVERIFY(a->requestSerialPortAllocation(&port, Type(type)));
    COMPARE_LOG(log.constData());
}

void tst_NSerialPortAllocator::requestsAreGrantedInTheirOrder()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(c->requestSerialPortAllocation(&port, Permanent));
    COMPARE_LOG("B gets P temporarily");
    b->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("C gets P permanently");
    c->releaseSerialPort(&port);
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::portsAreIndependent()
{
    Port p(latin1("/dev/P"));
    Port q(latin1("/dev/Q"));
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&p, Permanent));
    QVERIFY(b->requestSerialPortAllocation(&q, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&q, Temporary));
    COMPARE_LOG("A gets P permanently; B gets Q temporarily");
    a->releaseSerialPort(&q);
    COMPARE_LOG("");
    b->releaseSerialPort(&q);
    COMPARE_LOG("A gets Q temporarily");
    QVERIFY(!b->requestSerialPortAllocation(&p, Temporary));
}

void tst_NSerialPortAllocator::portIsGrantedOnceForEachRequest()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
    a->releaseSerialPort(&port); // waits now
    COMPARE_LOG("");
    b->releaseSerialPort(&port);
    COMPARE_LOG("A gets P permanently");
    a->releaseSerialPort(&port);
    a->releaseSerialPort(&port);
    COMPARE_LOG("");
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("B gets P temporarily");
}

void tst_NSerialPortAllocator::requestsBehindAPermanentHolderAreRefused()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
    COMPARE_LOG("A gets P permanently");
    QVERIFY(!b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(!b->requestSerialPortAllocation(&port, Permanent));
    QVERIFY(!a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(!a->requestSerialPortAllocation(&port, Permanent));
    a->releaseSerialPort(&port);
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::permanentRequestEndsTheQueue()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Permanent));
    QVERIFY(!c->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(!c->requestSerialPortAllocation(&port, Permanent));
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P permanently");
    b->releaseSerialPort(&port);
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::queueIsOpenAgainWithoutThePermanentRequest()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Permanent));
    QVERIFY(!c->requestSerialPortAllocation(&port, Temporary));
    b->cancelSerialPortAllocationRequests(&port);
    QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
    a->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily; C gets P temporarily");
}

void tst_NSerialPortAllocator::refusedRequestLeavesNothing()
{
    User a("A", m_log);
    User b("B", m_log);
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
        QVERIFY(!b->requestSerialPortAllocation(&port, Temporary));
        a->releaseSerialPort(&port);
        COMPARE_LOG("A gets P permanently");
    }
    COMPARE_LOG("");
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
        QVERIFY(!b->requestSerialPortAllocation(&port, Temporary));
        COMPARE_LOG("A gets P permanently");
    }
    COMPARE_LOG("A loses P");
}

void tst_NSerialPortAllocator::refusedRequestKeepsEarlierOnes()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
    QVERIFY(!b->requestSerialPortAllocation(&port, Temporary)); // waits
    QVERIFY(!a->requestSerialPortAllocation(&port, Temporary)); // holds and waits
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    b->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily; A gets P permanently");
    QVERIFY(!a->requestSerialPortAllocation(&port, Temporary)); // holds
    a->releaseSerialPort(&port);
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("B gets P temporarily");
}

void tst_NSerialPortAllocator::nullPortIsRefused()
{
    User a("A", m_log);
    QVERIFY(!a->requestSerialPortAllocation(nullptr, Temporary));
    a->releaseSerialPort(nullptr);
    a->cancelSerialPortAllocationRequests(nullptr);
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::releasingAWaitingPortChangesNothing()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("A gets P temporarily");
    b->releaseSerialPort(&port);
    COMPARE_LOG("");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
}

void tst_NSerialPortAllocator::releasingOrCancellingAnUnknownPortChangesNothing()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    b->releaseSerialPort(&port);
    b->cancelSerialPortAllocationRequests(&port);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    b->releaseSerialPort(&port);
    b->cancelSerialPortAllocationRequests(&port);
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
}

void tst_NSerialPortAllocator::portIgnoresReleaseByOthers()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    port.releasePort(a.allocator.get());
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    port.releasePort(b.allocator.get());
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
}

void tst_NSerialPortAllocator::cancellingWithdrawsAllWaitingRequests()
{
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        b->cancelSerialPortAllocationRequests(&port);
        COMPARE_LOG("A gets P temporarily");
        a->releaseSerialPort(&port);
        COMPARE_LOG("C gets P temporarily");
        c->releaseSerialPort(&port);
        COMPARE_LOG("");
        QVERIFY(c->requestSerialPortAllocation(&port, Permanent));
        COMPARE_LOG("C gets P permanently");
    }
    COMPARE_LOG("C loses P"); // and B does not know the port any more
}

void tst_NSerialPortAllocator::cancellingKeepsTheHeldPort()
{
    User a("A", m_log);
    User b("B", m_log);
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
        a->cancelSerialPortAllocationRequests(&port);
        COMPARE_LOG("A gets P temporarily");
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        a->releaseSerialPort(&port);
        COMPARE_LOG("B gets P temporarily");
        b->releaseSerialPort(&port);
        COMPARE_LOG("B gets P temporarily");
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        b->releaseSerialPort(&port);
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        a->cancelSerialPortAllocationRequests(&port);
        COMPARE_LOG("A gets P temporarily");
    }
    COMPARE_LOG("A loses P");
}

void tst_NSerialPortAllocator::cancellingAgainChangesNothing()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    a->cancelSerialPortAllocationRequests(&port);
    b->cancelSerialPortAllocationRequests(&port);
    b->cancelSerialPortAllocationRequests(&port);
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
    b->releaseSerialPort(&port);
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::portCancelsAllButTheFirstRequest()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    port.cancelPortAllocationRequests(a.allocator.get());
    a->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily; B gets P temporarily");
}

// A request that the allocator has forgotten, or has never made.
void tst_NSerialPortAllocator::unknownGrantPassesThePortOn()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    QVERIFY(port.requestPortAllocation(b.allocator.get(), Permanent));
    COMPARE_LOG("");
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(port.requestPortAllocation(b.allocator.get(), Temporary));
    QVERIFY(port.requestPortAllocation(b.allocator.get(), Temporary));
    QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
    a->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily; C gets P temporarily");

    // An allocator that holds a port and waits for nothing refuses a further grant as well.
    QVERIFY(port.requestPortAllocation(c.allocator.get(), Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    c->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily");
}

void tst_NSerialPortAllocator::allocationNeitherOpensNorClosesThePort()
{
    NSerialPort port(latin1("/dev/ptmx"), nullptr);
    User a("A", m_log);
    QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
    QVERIFY(!port.isOpen());
    QVERIFY(port.open(QIODevice::ReadWrite));
    a->releaseSerialPort(&port);
    QVERIFY(port.isOpen());
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    a->cancelSerialPortAllocationRequests(&port);
    QVERIFY(port.isOpen());
    a.allocator.reset();
    QVERIFY(port.isOpen());
}

void tst_NSerialPortAllocator::destroyedPortIsReportedOnceToEachAllocator()
{
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(c->requestSerialPortAllocation(&port, Permanent));
        COMPARE_LOG("A gets P temporarily");
    }
    COMPARE_LOG("A loses P; B loses P; C loses P");

    // The allocators do not know the port any more.
    Port port(latin1("/dev/Q"));
    a->processSerialPortAboutToRemove(&port);
    QVERIFY(b->requestSerialPortAllocation(&port, Permanent));
    COMPARE_LOG("B gets Q permanently");
}

void tst_NSerialPortAllocator::destroyedPortIsClosedWhenItIsReported()
{
    User a("A", m_log);
    bool wasOpen = true;
    a.receiver.onRemoval = [&](NSerialPort* port) { wasOpen = port->isOpen(); };
    {
        NSerialPort port(latin1("/dev/ptmx"), nullptr);
        QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
        QVERIFY(port.open(QIODevice::ReadWrite));
    }
    COMPARE_LOG("A gets ptmx permanently; A loses ptmx");
    QVERIFY(!wasOpen);
}

void tst_NSerialPortAllocator::allocatorsWithoutRequestsGetNoSignal()
{
    User a("A", m_log);
    User b("B", m_log);
    {
        Port port;
        QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        b->cancelSerialPortAllocationRequests(&port);
        a->releaseSerialPort(&port);
        COMPARE_LOG("A gets P temporarily");
    }
    COMPARE_LOG("");
}

void tst_NSerialPortAllocator::destroyedAllocatorGivesEverythingBack()
{
    Port p(latin1("/dev/P"));
    Port q(latin1("/dev/Q"));
    Port r(latin1("/dev/R"));
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    QVERIFY(a->requestSerialPortAllocation(&p, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&p, Temporary)); // holds and waits
    QVERIFY(b->requestSerialPortAllocation(&p, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&q, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&q, Temporary)); // waits only
    QVERIFY(c->requestSerialPortAllocation(&q, Temporary));
    QVERIFY(a->requestSerialPortAllocation(&r, Permanent)); // holds only
    m_log.clear();
    a.allocator.reset();
    COMPARE_LOG("B gets P temporarily");
    b->releaseSerialPort(&q);
    COMPARE_LOG("C gets Q temporarily");
    QVERIFY(b->requestSerialPortAllocation(&r, Temporary));
    COMPARE_LOG("B gets R temporarily");
    b->releaseSerialPort(&p);
    COMPARE_LOG("");
}

// ---- handlers ----

void tst_NSerialPortAllocator::releaseInAGrantGrantsTheNextRequest()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    User d("D", m_log);
    b.receiver.onGrant = [&](NSerialPort*) {
        b->releaseSerialPort(&port);
        m_log.append(latin1("B has released"));
    };
    c.receiver.onGrant = [&](NSerialPort*) {
        c->releaseSerialPort(&port);
        m_log.append(latin1("C has released"));
    };
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(d->requestSerialPortAllocation(&port, Permanent));
    m_log.clear();
    a->releaseSerialPort(&port);
    COMPARE_LOG(
        "B gets P temporarily; C gets P temporarily; D gets P permanently; C has released; B has released");
}

void tst_NSerialPortAllocator::requestInAGrantWaits()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    a.receiver.onGrant = [&](NSerialPort*) {
        a.receiver.onGrant = nullptr;
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
        QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
        QVERIFY(!b->requestSerialPortAllocation(&port, Temporary));
    };
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    COMPARE_LOG("A gets P temporarily");
    a->releaseSerialPort(&port);
    b->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily; A gets P permanently");
}

void tst_NSerialPortAllocator::requestAfterReleaseInAGrantIsGranted()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    int turns = 0;
    b.receiver.onGrant = [&](NSerialPort*) {
        if (++turns > 3)
            return;
        b->releaseSerialPort(&port);
        QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    };
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    m_log.clear();
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily; B gets P temporarily; B gets P temporarily; B gets P temporarily");
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    b->releaseSerialPort(&port);
    COMPARE_LOG("A gets P temporarily");
}

void tst_NSerialPortAllocator::cancelInAGrantKeepsThePort()
{
    Port port;
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    b.receiver.onGrant = [&](NSerialPort*) {
        b->cancelSerialPortAllocationRequests(&port);
        c->cancelSerialPortAllocationRequests(&port);
    };
    QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
    m_log.clear();
    a->releaseSerialPort(&port);
    COMPARE_LOG("B gets P temporarily");
    QVERIFY(a->requestSerialPortAllocation(&port, Permanent));
    b->releaseSerialPort(&port);
    COMPARE_LOG("A gets P permanently");
}

void tst_NSerialPortAllocator::grantMayDelete_data()
{
    QTest::addColumn<bool>("inRelease"); // otherwise in the request
    QTest::addColumn<QByteArray>("deleted");
    QTest::addColumn<QByteArray>("log");

    // A grants by giving the port back, in its destructor in "giver"; B gets it; C waits.
    QTest::newRow("itself in a request") << false << QByteArray("B") << QByteArray("B gets P temporarily");
    QTest::newRow("the port in a request")
        << false << QByteArray("P") << QByteArray("B gets P temporarily; B loses P");
    QTest::newRow("both in a request") << false << QByteArray("BP") << QByteArray("B gets P temporarily");
    QTest::newRow("itself in a release")
        << true << QByteArray("B") << QByteArray("B gets P temporarily; C gets P temporarily");
    QTest::newRow("the giver in a release") << true << QByteArray("A") << QByteArray("B gets P temporarily");
    QTest::newRow("the next in a release") << true << QByteArray("C") << QByteArray("B gets P temporarily");
    QTest::newRow("the port in a release")
        << true << QByteArray("P") << QByteArray("B gets P temporarily; B loses P; C loses P");
    QTest::newRow("itself and then the port in a release")
        << true << QByteArray("BP") << QByteArray("B gets P temporarily; C gets P temporarily; C loses P");
    QTest::newRow("the port and then itself in a release")
        << true << QByteArray("PB") << QByteArray("B gets P temporarily; B loses P; C loses P");
    QTest::newRow("everything in a release")
        << true << QByteArray("ACPB") << QByteArray("B gets P temporarily; B loses P");
    QTest::newRow("everything in another order")
        << true << QByteArray("CBPA") << QByteArray("B gets P temporarily");
}

void tst_NSerialPortAllocator::grantMayDelete()
{
    QFETCH(bool, inRelease);
    QFETCH(QByteArray, deleted);
    QFETCH(QByteArray, log);

    std::unique_ptr<NSerialPort> port(new Port);
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    b.receiver.onGrant = [&](NSerialPort*) {
        for (const char name : deleted) {
            if (name == 'P')
                port.reset();
            else
                (name == 'A' ? a : name == 'B' ? b : c).allocator.reset();
        }
    };
    if (inRelease) {
        QVERIFY(a->requestSerialPortAllocation(port.get(), Temporary));
        QVERIFY(b->requestSerialPortAllocation(port.get(), Temporary));
        QVERIFY(c->requestSerialPortAllocation(port.get(), Temporary));
        m_log.clear();
        a->releaseSerialPort(port.get());
    } else {
        QVERIFY(b->requestSerialPortAllocation(port.get(), Temporary));
    }
    COMPARE_LOG(log.constData());
}

// Grants nest up to a certain depth. Beyond it, the next request waits until the grant has returned, and may be
// withdrawn until then.
void tst_NSerialPortAllocator::requestsAfterAPassedOnPortMayBeWithdrawnInAGrant()
{
    const int depth = 100;
    for (int how = 0; how < 4; ++how) {
        m_log.clear();
        std::unique_ptr<NSerialPort> port(new Port);
        Allocator first(nullptr);
        QVERIFY(first.requestSerialPortAllocation(port.get(), Temporary));
        Log ignored;
        std::vector<std::unique_ptr<User>> users;
        for (int i = 0; i < depth; ++i) {
            users.push_back(std::unique_ptr<User>(new User("", ignored)));
            Allocator* const allocator = users.back()->allocator.get();
            users.back()->receiver.onGrant = [=](NSerialPort* granted) { allocator->releaseSerialPort(granted); };
            QVERIFY(allocator->requestSerialPortAllocation(port.get(), Temporary));
        }
        User a("A", m_log);
        User b("B", m_log);
        QVERIFY(a->requestSerialPortAllocation(port.get(), Temporary));
        QVERIFY(a->requestSerialPortAllocation(port.get(), Temporary));
        QVERIFY(b->requestSerialPortAllocation(port.get(), Temporary));
        User& last = *users.back();
        last.receiver.onGrant = [&](NSerialPort* granted) {
            last->releaseSerialPort(granted);
            COMPARE_LOG("");
            switch (how) {
            case 0:
                a->cancelSerialPortAllocationRequests(granted);
                break;
            case 1:
                a.allocator.reset();
                break;
            case 2:
                a->releaseSerialPort(granted); // has not got it yet
                QVERIFY(a->requestSerialPortAllocation(granted, Permanent));
                break;
            default:
                port.reset();
                COMPARE_LOG("A loses P; B loses P");
            }
        };
        first.releaseSerialPort(port.get());
        switch (how) {
        case 0:
        case 1:
            COMPARE_LOG("B gets P temporarily");
            break;
        case 2:
            COMPARE_LOG("A gets P temporarily");
            a->releaseSerialPort(port.get());
            a->releaseSerialPort(port.get());
            b->releaseSerialPort(port.get());
            COMPARE_LOG("A gets P temporarily; B gets P temporarily; A gets P permanently");
            break;
        default:
            COMPARE_LOG("");
        }
    }
}

void tst_NSerialPortAllocator::removalMayDelete_data()
{
    QTest::addColumn<QByteArray>("deleted");
    QTest::addColumn<QByteArray>("log");

    QTest::newRow("itself") << QByteArray("A") << QByteArray("A loses P; B loses P; C loses P");
    QTest::newRow("the next") << QByteArray("B") << QByteArray("A loses P; C loses P");
    QTest::newRow("the last") << QByteArray("C") << QByteArray("A loses P; B loses P");
    QTest::newRow("all") << QByteArray("CAB") << QByteArray("A loses P");
}

void tst_NSerialPortAllocator::removalMayDelete()
{
    QFETCH(QByteArray, deleted);
    QFETCH(QByteArray, log);

    std::unique_ptr<NSerialPort> port(new Port);
    User a("A", m_log);
    User b("B", m_log);
    User c("C", m_log);
    a.receiver.onRemoval = [&](NSerialPort*) {
        for (const char name : deleted)
            (name == 'A' ? a : name == 'B' ? b : c).allocator.reset();
    };
    QVERIFY(a->requestSerialPortAllocation(port.get(), Temporary));
    QVERIFY(b->requestSerialPortAllocation(port.get(), Temporary));
    QVERIFY(c->requestSerialPortAllocation(port.get(), Temporary));
    QVERIFY(b->requestSerialPortAllocation(port.get(), Temporary));
    m_log.clear();
    port.reset();
    COMPARE_LOG(log.constData());
}

void tst_NSerialPortAllocator::portBeingDestroyedRefusesRequests()
{
    std::unique_ptr<NSerialPort> port(new NSerialPort(latin1("/dev/ptmx"), nullptr));
    User a("A", m_log);
    User b("B", m_log);
    const NCloseReceiver receiver(port.get(), [&]() {
        m_log.append(latin1("closes"));
        QVERIFY(!a->requestSerialPortAllocation(port.get(), Temporary));
        QVERIFY(!b->requestSerialPortAllocation(port.get(), Temporary));
    });
    a.receiver.onRemoval = [&](NSerialPort* removed) {
        QVERIFY(!a->requestSerialPortAllocation(removed, Temporary));
        QVERIFY(!b->requestSerialPortAllocation(removed, Temporary));
        a->releaseSerialPort(removed);
        a->cancelSerialPortAllocationRequests(removed);
    };
    QVERIFY(a->requestSerialPortAllocation(port.get(), Temporary));
    QVERIFY(port->open(QIODevice::ReadWrite));
    NSerialPort* const removed = port.get();
    m_log.clear();
    delete removed;
    static_cast<void>(port.release());
    COMPARE_LOG("closes; A loses ptmx");
}

// An allocator that still waits or holds must get the signal, or it would keep the pointer.
void tst_NSerialPortAllocator::handlersOfAPortBeingDestroyedMayReleaseAndCancel()
{
    for (int how = 0; how < 4; ++how) {
        m_log.clear();
        User a("A", m_log);
        User b("B", m_log);
        User c("C", m_log);
        {
            std::unique_ptr<NSerialPort> owner(new NSerialPort(latin1("/dev/ptmx"), nullptr));
            NSerialPort& port = *owner;
            QVERIFY(port.open(QIODevice::ReadWrite));
            QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
            QVERIFY(b->requestSerialPortAllocation(&port, Temporary));
            QVERIFY(a->requestSerialPortAllocation(&port, Temporary));
            QVERIFY(c->requestSerialPortAllocation(&port, Temporary));
            COMPARE_LOG("A gets ptmx temporarily");
            c.receiver.onRemoval = [&](NSerialPort*) { a.allocator.reset(); };
            const NCloseReceiver receiver(&port, [&]() {
                switch (how) {
                case 0: // A waits
                    a->releaseSerialPort(&port);
                    break;
                case 1: // A holds the port
                    a->cancelSerialPortAllocationRequests(&port);
                    break;
                case 2:
                    a->releaseSerialPort(&port);
                    b->cancelSerialPortAllocationRequests(&port);
                    break;
                default:
                    a->cancelSerialPortAllocationRequests(&port);
                    a->releaseSerialPort(&port);
                    c.allocator.reset();
                }
            });
            owner.reset();
        }
        switch (how) {
        case 0:
            COMPARE_LOG("B loses ptmx; A loses ptmx; C loses ptmx");
            break;
        case 1:
            COMPARE_LOG("A loses ptmx; B loses ptmx; C loses ptmx");
            break;
        case 2:
            COMPARE_LOG("A loses ptmx; C loses ptmx");
            break;
        default:
            COMPARE_LOG("B loses ptmx");
        }
    }
}

void tst_NSerialPortAllocator::allocatorBeingDestroyedRefusesRequests()
{
    Port p(latin1("/dev/P"));
    Port q(latin1("/dev/Q"));
    User a("A", m_log);
    User b("B", m_log);
    Allocator* const destroyed = a.allocator.get();
    b.receiver.onGrant = [&](NSerialPort*) {
        QVERIFY(!destroyed->requestSerialPortAllocation(&p, Temporary));
        QVERIFY(!destroyed->requestSerialPortAllocation(&q, Temporary));
        destroyed->releaseSerialPort(&p);
        destroyed->cancelSerialPortAllocationRequests(&p);
    };
    QVERIFY(a->requestSerialPortAllocation(&p, Temporary));
    QVERIFY(b->requestSerialPortAllocation(&p, Temporary));
    m_log.clear();
    delete destroyed;
    static_cast<void>(a.allocator.release());
    COMPARE_LOG("B gets P temporarily");
    User c("C", m_log);
    QVERIFY(c->requestSerialPortAllocation(&p, Temporary));
    QVERIFY(c->requestSerialPortAllocation(&q, Temporary));
    b->releaseSerialPort(&p);
    COMPARE_LOG("C gets Q temporarily; C gets P temporarily");
}

void tst_NSerialPortAllocator::allocatorBeingDestroyedGetsNoSignals()
{
    std::unique_ptr<NSerialPort> p(new Port(latin1("/dev/P")));
    std::unique_ptr<NSerialPort> q(new Port(latin1("/dev/Q")));
    User a("A", m_log);
    User b("B", m_log);
    // Which of the two is given back first is not known; the other is held by A still.
    b.receiver.onGrant = [&](NSerialPort* granted) {
        b.receiver.onGrant = nullptr;
        (granted == p.get() ? q : p).reset();
        (granted == p.get() ? p : q).reset();
    };
    QVERIFY(a->requestSerialPortAllocation(p.get(), Temporary));
    QVERIFY(a->requestSerialPortAllocation(q.get(), Temporary));
    QVERIFY(b->requestSerialPortAllocation(p.get(), Temporary));
    QVERIFY(b->requestSerialPortAllocation(q.get(), Temporary));
    m_log.clear();
    a.allocator.reset();
    const bool isPFirst = m_log.value(0) == latin1("B gets P temporarily");
    COMPARE_LOG(
        isPFirst ? "B gets P temporarily; B loses Q; B loses P" : "B gets Q temporarily; B loses P; B loses Q");
}

// ---- many operations ----

void tst_NSerialPortAllocator::thousandsOfReleasesInGrantsNeedLittleStack_data()
{
    QTest::addColumn<bool>("isDeleted");

    QTest::newRow("released") << false;
    QTest::newRow("deleted") << true;
}

void tst_NSerialPortAllocator::thousandsOfReleasesInGrantsNeedLittleStack()
{
    QFETCH(bool, isDeleted);

    const int count = 10000;
    QList<int> order;
    bool isAccepted = true;
    SmallThread thread([&]() {
        Port port;
        Log ignored;
        std::vector<std::unique_ptr<User>> users;
        for (int i = 0; i < count; ++i) {
            users.push_back(std::unique_ptr<User>(new User("", ignored)));
            User* const user = users.back().get();
            user->receiver.onGrant = [&order, user, i, isDeleted](NSerialPort* granted) {
                order.append(i);
                if (isDeleted)
                    user->allocator.reset();
                else
                    user->allocator->releaseSerialPort(granted);
            };
        }
        Allocator first(nullptr);
        isAccepted = first.requestSerialPortAllocation(&port, Temporary);
        for (int i = 0; i < count; ++i)
            isAccepted = isAccepted && users[size_t(i)]->allocator->requestSerialPortAllocation(&port, Temporary);
        first.releaseSerialPort(&port);
        isAccepted = isAccepted && first.requestSerialPortAllocation(&port, Permanent);
    });
    QVERIFY(isAccepted);
    QCOMPARE(order.size(), count);
    for (int i = 0; i < count; ++i)
        QCOMPARE(order.at(i), i);
}

void tst_NSerialPortAllocator::randomOperationsFollowTheModel()
{
    const int count = 10;
    const int operations = 100000;
    Random random;
    Model model(count);
    System system(count);
    int grants = 0;
    int removals = 0;
    int refusals = 0;
    int longestQueue = 0;
    for (int operation = 0; operation < operations; ++operation) {
        const int allocator = random.below(count);
        const int port = random.below(count);
        const int kind = random.below(1000);
        if (kind < 600) {
            const Type type = random.below(60) == 0 ? Permanent : Temporary;
            const bool expected = model.request(allocator, port, type);
            QCOMPARE(system.request(allocator, port, type), expected);
            refusals += expected ? 0 : 1;
        } else if (kind < 930) {
            model.release(allocator, port);
            system.release(allocator, port);
        } else if (kind < 960) {
            model.cancel(allocator, port);
            system.cancel(allocator, port);
        } else if (kind < 975) {
            const bool releases = random.below(3) == 0;
            model.releasesInGrant[allocator] = releases;
            system.releasesInGrant[allocator] = releases;
        } else if (kind < 990) {
            model.destroyAllocator(allocator);
            system.destroyAllocator(allocator);
        } else {
            model.destroyPort(port);
            system.destroyPort(port);
        }
        for (int i = 0; i < count; ++i) {
            QCOMPARE(system.logs[i], model.logs[i]);
            const int lost = model.logs[i].filter(latin1("loses")).size();
            removals += lost;
            grants += model.logs[i].size() - lost;
            system.logs[i].clear();
            model.logs[i].clear();
        }
        longestQueue = qMax(longestQueue, model.longestQueue());
    }
    // The operations must reach what they are to compare.
    QVERIFY(grants > operations / 20);
    QVERIFY(removals > operations / 200);
    QVERIFY(refusals > operations / 200);
    QVERIFY(longestQueue > 20);
}

QTEST_MAIN(tst_NSerialPortAllocator)
#include "tst_nserialportallocator.moc"
