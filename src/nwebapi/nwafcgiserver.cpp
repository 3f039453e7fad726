#include <nwebapi/nwafcgiserver.h>

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwafcgiconnection_p.h>
#include <nwebapi/nwafcgiconnectionowner_p.h>
#include <nwebapi/nwafcgilistener_p.h>
#include <nwebapi/nwafcgipoller_p.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwaheldmemory_p.h>

#include <QtCore/QSocketNotifier>

#include <errno.h>

#include <utility>

namespace {

const int SweepInterval = 1000;

// One burst of connections must not keep the open ones waiting.
const int AcceptsAtATime = 16;

// All clients together must not keep the rest of the program waiting.
const int EventsAtATime = 16;
const int RoundsAtATime = 4;

} // namespace

/** The server as its connections see it. */
class NwaFcgiServer::Owner : public NwaFcgiConnectionOwner
{
public:
    explicit Owner(NwaFcgiServer* server)
        : m_server(server)
    {
    }

    const NwaFcgiLimits& limits() const override { return m_server->m_limits; }

    // Added up each time, so that nothing stays counted whatever becomes of a connection.
    qint64 bufferedSize() const override
    {
        qint64 size = 0;
        for (const Connection& connection : m_server->m_connections)
            size += connection->bufferedSize();
        m_server->m_heldMemory->note(size);
        return size;
    }

    void dispatch(NwaFcgiRequest* request) override
    {
        if (!request->isQueryValid()) {
            refuse(request, NwaFcgiRequest::BadRequest);
            return;
        }
        NwaAbstractFcgiService* const service = m_server->m_services.value(request->scriptName());
        if (service)
            service->processRequest(request);
        else
            refuse(request, NwaFcgiRequest::NotFound);
    }

    bool watch(int socket, int formerEvents, int events) override
    {
        return m_server->m_poller->watch(socket, formerEvents, events);
    }

    // Each connection has an event of its own, because a service that runs an event loop may wait for the next
    // one.
    void resumeSoon(const Connection& connection) override
    {
        m_server->m_resuming.enqueue(connection);
        QMetaObject::invokeMethod(m_server, "resumeNext", Qt::QueuedConnection);
    }

    void forget(int socket) override
    {
        m_server->m_connections.remove(socket);
        m_server->m_listener->setAccepting(true);
    }

private:
    static void refuse(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error)
    {
        request->sendHttpError(error);
        delete request;
    }

    NwaFcgiServer* const m_server;
};

NwaFcgiServer::NwaFcgiServer(QObject* parent)
    : QObject(parent)
    , m_owner(new Owner(this))
    , m_poller(new NwaFcgiPoller)
    , m_listener(new NwaFcgiListener(m_poller.data()))
    , m_notifier(nullptr)
    , m_heldMemory(new NwaHeldMemory)
{
    m_sweepTimer.setInterval(SweepInterval);
    connect(&m_sweepTimer, SIGNAL(timeout()), this, SLOT(sweep()));
}

NwaFcgiServer::~NwaFcgiServer()
{
    close();
}

NwaFcgiLimits NwaFcgiServer::limits() const
{
    return m_limits;
}

void NwaFcgiServer::setLimits(const NwaFcgiLimits& limits)
{
    m_limits = limits;
    m_limits.connectionCount = qMax(1, limits.connectionCount);
    m_limits.variablesSize = qMax(1, limits.variablesSize);
    m_limits.querySize = qMax(1, limits.querySize);
    m_limits.bodySize = qMax(1, limits.bodySize);
    m_limits.streamedBodyBuffer = qMax(1, limits.streamedBodyBuffer);
    m_limits.replyBuffer = qMax(1, limits.replyBuffer);
    m_limits.bufferedSize = qMax(1, limits.bufferedSize);
    m_limits.stallTimeout = qMax(1, limits.stallTimeout);
}

bool NwaFcgiServer::listenOnPath(const QString& path, int permissions)
{
    close();
    return startServing(m_listener->listenOnPath(path, permissions));
}

bool NwaFcgiServer::listenOnPort(const QString& address, quint16 port)
{
    close();
    return startServing(m_listener->listenOnPort(address, port));
}

bool NwaFcgiServer::listenOnDescriptor(int descriptor)
{
    close();
    return startServing(m_listener->listenOnDescriptor(descriptor));
}

bool NwaFcgiServer::startServing(bool isListening)
{
    if (isListening) {
        m_notifier = new QSocketNotifier(m_poller->descriptor(), QSocketNotifier::Read, this);
        connect(m_notifier, SIGNAL(activated(int)), this, SLOT(processEvents()));
    }
    return isListening;
}

bool NwaFcgiServer::isListening() const
{
    return m_listener->isListening();
}

quint16 NwaFcgiServer::port() const
{
    return m_listener->port();
}

void NwaFcgiServer::close()
{
    m_sweepTimer.stop();
    const QHash<int, Connection> connections = m_connections;
    for (const Connection& connection : connections)
        connection->close();
    if (m_notifier) {
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    m_listener->close();
}

QString NwaFcgiServer::errorString() const
{
    return m_listener->errorString();
}

void NwaFcgiServer::registerService(const QString& scriptName, NwaAbstractFcgiService* service)
{
    m_services.insert(scriptName, service);
}

void NwaFcgiServer::unregisterService(const QString& scriptName)
{
    m_services.remove(scriptName);
}

int NwaFcgiServer::connectionCount() const
{
    return m_connections.size();
}

// A service may run an event loop of its own, close the server or delete it. An event's connection is looked up by
// the descriptor when its turn comes; if another connection has that descriptor by then, it gets an event too
// many, which is harmless.
void NwaFcgiServer::processEvents()
{
    const QPointer<NwaFcgiServer> self(this);
    NwaFcgiPoller::Occurrence occurrences[EventsAtATime];
    for (int round = 0; round < RoundsAtATime; ++round) {
        const int count = m_poller->take(occurrences, EventsAtATime);
        if (count == 0)
            return;
        for (int index = 0; index < count; ++index) {
            const NwaFcgiPoller::Occurrence& occurrence = occurrences[index];
            const Connection connection = m_connections.value(occurrence.descriptor);
            if (connection)
                connection->processEvents(occurrence.events);
            else if (occurrence.descriptor == m_listener->socket())
                acceptConnections();
            if (!self)
                return;
        }
    }
}

void NwaFcgiServer::acceptConnections()
{
    const QPointer<NwaFcgiServer> self(this);
    for (int count = 0; count < AcceptsAtATime; ++count) {
        if (m_connections.size() >= m_limits.connectionCount) {
            pauseAccepting();
            return;
        }
        NFileDescriptor socket = m_listener->accept();
        if (!socket.isOpen()) {
            // A lack of descriptors or memory lasts for a while; trying again at once would only waste time.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                pauseAccepting();
            return;
        }
        const int number = socket.number();
        const Connection connection = std::make_shared<NwaFcgiConnection>(std::move(socket), m_owner.data());
        m_connections.insert(number, connection);
        if (!m_sweepTimer.isActive())
            m_sweepTimer.start();
        connection->start();
        if (!self || !m_listener->isListening())
            return;
    }
}

// New connections wait in the kernel until an open one ends or the next sweep.
void NwaFcgiServer::pauseAccepting()
{
    m_listener->setAccepting(false);
    if (!m_sweepTimer.isActive())
        m_sweepTimer.start();
}

void NwaFcgiServer::sweep()
{
    const QHash<int, Connection> connections = m_connections;
    for (const Connection& connection : connections)
        connection->closeIfStalled();
    m_heldMemory->update(m_owner->bufferedSize());
    m_listener->setAccepting(true);
    if (m_connections.isEmpty() && m_listener->isAccepting())
        m_sweepTimer.stop();
}

void NwaFcgiServer::resumeNext()
{
    const Connection connection = m_resuming.dequeue();
    connection->resume();
}
