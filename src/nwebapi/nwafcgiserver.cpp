#include <nwebapi/nwafcgiserver.h>

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwafcgiconnection_p.h>
#include <nwebapi/nwafcgiconnectionowner_p.h>
#include <nwebapi/nwafcgipoller_p.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwaheldmemory_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QSocketNotifier>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

namespace {

const int Backlog = 128;
const int SweepInterval = 1000;

// One burst of connections must not keep the open ones waiting.
const int AcceptsAtATime = 16;

// Nor must the clients together keep the rest of the program waiting.
const int EventsAtATime = 16;
const int RoundsAtATime = 4;

bool makeNonBlocking(int descriptor)
{
    const int status = ::fcntl(descriptor, F_GETFL);
    return status >= 0 && ::fcntl(descriptor, F_SETFL, status | O_NONBLOCK) == 0 &&
           ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0;
}

bool isListeningSocket(int descriptor)
{
    int listening = 0;
    socklen_t size = sizeof(listening);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening;
}

bool unixAddress(const QByteArray& path, struct sockaddr_un& address)
{
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.isEmpty() || path.size() >= int(sizeof(address.sun_path)))
        return false;
    memcpy(address.sun_path, path.constData(), size_t(path.size()));
    return true;
}

// Whether @a address is a socket that a process left behind when it ended: it is there, but nobody accepts on it.
bool isAbandonedSocket(const struct sockaddr_un& address)
{
    struct stat status;
    if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
        return false;
    const bool refused =
        ::connect(descriptor, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0 &&
        errno == ECONNREFUSED;
    ::close(descriptor);
    return refused;
}

// Returns the address's size, 0 for a text that is no IP address.
socklen_t internetAddress(const QByteArray& text, quint16 port, struct sockaddr_storage& address)
{
    memset(&address, 0, sizeof(address));
    struct sockaddr_in* const version4 = reinterpret_cast<struct sockaddr_in*>(&address);
    if (::inet_pton(AF_INET, text.constData(), &version4->sin_addr) == 1) {
        version4->sin_family = AF_INET;
        version4->sin_port = htons(port);
        return sizeof(*version4);
    }
    struct sockaddr_in6* const version6 = reinterpret_cast<struct sockaddr_in6*>(&address);
    if (::inet_pton(AF_INET6, text.constData(), &version6->sin6_addr) == 1) {
        version6->sin6_family = AF_INET6;
        version6->sin6_port = htons(port);
        return sizeof(*version6);
    }
    return 0;
}

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
        m_server->setAccepting(true);
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
    , m_notifier(nullptr)
    , m_descriptor(-1)
    , m_accepting(false)
    , m_socketDevice(0)
    , m_socketInode(0)
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
    struct sockaddr_un address;
    if (!unixAddress(QFile::encodeName(path), address))
        return fail(QString::fromLatin1("\"%1\" is empty or too long for a socket's path").arg(path));
    if (isAbandonedSocket(address))
        ::unlink(address.sun_path);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The mode is set before anybody can connect, which takes listen().
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0)
        return failWithSystemError(QString::fromLatin1("cannot make the socket %1").arg(path), descriptor);
    if (!rememberSocket(path) || ::chmod(address.sun_path, mode_t(permissions)) != 0 ||
        ::listen(descriptor, Backlog) != 0)
        return failWithSystemError(QString::fromLatin1("cannot listen on the socket %1").arg(path), descriptor);
    return startListening(descriptor) ||
           failWithSystemError(QString::fromLatin1("cannot serve the socket %1").arg(path), descriptor);
}

bool NwaFcgiServer::listenOnPort(const QString& address, quint16 port)
{
    close();
    struct sockaddr_storage socketAddress;
    const socklen_t size = internetAddress(address.toLatin1(), port, socketAddress);
    if (size == 0)
        return fail(QString::fromLatin1("\"%1\" is no IP address").arg(address));
    const int descriptor = ::socket(socketAddress.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (descriptor < 0 || ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(descriptor, reinterpret_cast<struct sockaddr*>(&socketAddress), size) != 0 ||
        ::listen(descriptor, Backlog) != 0)
        return failWithSystemError(
            QString::fromLatin1("cannot listen on port %1 of %2").arg(port).arg(address), descriptor);
    return startListening(descriptor) ||
           failWithSystemError(
               QString::fromLatin1("cannot serve port %1 of %2").arg(port).arg(address), descriptor);
}

bool NwaFcgiServer::listenOnDescriptor(int descriptor)
{
    close();
    if (!isListeningSocket(descriptor))
        return fail(QString::fromLatin1("the descriptor %1 is no listening socket").arg(descriptor));
    if (!makeNonBlocking(descriptor) || !startListening(descriptor))
        return failWithSystemError(QString::fromLatin1("cannot use the descriptor %1").arg(descriptor), -1);
    return true;
}

// Leaves the descriptor to its owner when it returns false.
bool NwaFcgiServer::startListening(int descriptor)
{
    if (!m_poller->open() || !m_poller->watch(descriptor, NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable))
        return false;
    // Connections inherit it: the end of a reply must not wait for the acknowledgement of its beginning. A Unix
    // socket refuses the option and does not need it.
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    m_errorString.clear();
    m_descriptor = descriptor;
    m_accepting = true;
    m_notifier = new QSocketNotifier(m_poller->descriptor(), QSocketNotifier::Read, this);
    connect(m_notifier, SIGNAL(activated(int)), this, SLOT(processEvents()));
    return true;
}

bool NwaFcgiServer::fail(const QString& what)
{
    m_errorString = what;
    return false;
}

bool NwaFcgiServer::failWithSystemError(const QString& what, int descriptor)
{
    m_errorString = what + QString::fromLatin1(": ") + QString::fromLocal8Bit(strerror(errno));
    if (descriptor >= 0)
        ::close(descriptor);
    removeSocket();
    return false;
}

bool NwaFcgiServer::rememberSocket(const QString& path)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return false;
    m_socketPath = path;
    m_socketDevice = status.st_dev;
    m_socketInode = status.st_ino;
    return true;
}

void NwaFcgiServer::removeSocket()
{
    const QByteArray path = QFile::encodeName(m_socketPath);
    m_socketPath.clear();
    struct stat status;
    if (!path.isEmpty() && ::lstat(path.constData(), &status) == 0 && status.st_dev == m_socketDevice &&
        status.st_ino == m_socketInode)
        ::unlink(path.constData());
}

bool NwaFcgiServer::isListening() const
{
    return m_descriptor >= 0;
}

quint16 NwaFcgiServer::port() const
{
    struct sockaddr_storage address;
    socklen_t size = sizeof(address);
    if (m_descriptor < 0 || ::getsockname(m_descriptor, reinterpret_cast<struct sockaddr*>(&address), &size) != 0)
        return 0;
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<struct sockaddr_in*>(&address)->sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<struct sockaddr_in6*>(&address)->sin6_port);
    return 0;
}

void NwaFcgiServer::close()
{
    m_sweepTimer.stop();
    const QHash<int, Connection> connections = m_connections;
    for (const Connection& connection : connections)
        connection->close();
    if (m_descriptor >= 0) {
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
        m_notifier = nullptr;
        setAccepting(false);
        m_poller->close();
        // Removed while it is still served, or another process could have put its own in the place already.
        removeSocket();
        ::close(m_descriptor);
        m_descriptor = -1;
    }
}

QString NwaFcgiServer::errorString() const
{
    return m_errorString;
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

// A service may run an event loop of its own, close the server or delete it. What has become of an event's
// connection by then is told by the descriptor; if that is another connection's now, the event was one too many
// for it and no harm.
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
            else if (occurrence.descriptor == m_descriptor)
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
        NFileDescriptor socket(::accept4(m_descriptor, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket.isOpen()) {
            // A lack of descriptors or memory lasts for a while; trying on and on would only burn time.
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
        if (!self || m_descriptor < 0)
            return;
    }
}

// New connections wait in the kernel until one of ours ends or the next sweep.
void NwaFcgiServer::pauseAccepting()
{
    setAccepting(false);
    if (!m_sweepTimer.isActive())
        m_sweepTimer.start();
}

void NwaFcgiServer::setAccepting(bool accepting)
{
    if (m_descriptor < 0 || accepting == m_accepting)
        return;
    const int events[] = {NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable};
    if (m_poller->watch(m_descriptor, events[m_accepting], events[accepting]))
        m_accepting = accepting;
}

void NwaFcgiServer::sweep()
{
    const QHash<int, Connection> connections = m_connections;
    for (const Connection& connection : connections)
        connection->closeIfStalled();
    m_heldMemory->update(m_owner->bufferedSize());
    setAccepting(true);
    if (m_connections.isEmpty() && m_accepting)
        m_sweepTimer.stop();
}

void NwaFcgiServer::resumeNext()
{
    const Connection connection = m_resuming.dequeue();
    connection->resume();
}
