#include <nwebapi/nwafcgilistener_p.h>

#include <nsystem/nsystemcall_p.h>
#include <nwebapi/nwafcgipoller_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <limits>
#include <utility>

namespace {

// As many as the system allows (listen(2)). Web servers take the error of a full queue on a Unix socket, EAGAIN,
// for a connection that is being made, and fail the request.
const int Backlog = std::numeric_limits<int>::max();

NFileDescriptor newSocket(int family)
{
    return NFileDescriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

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

// Whether a process that has ended left the socket @a address behind: it exists, but nobody accepts connections.
bool isAbandonedSocket(const struct sockaddr_un& address)
{
    struct stat status;
    if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const NFileDescriptor socket = newSocket(AF_UNIX);
    return socket.isOpen() &&
           ::connect(socket.number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0 &&
           errno == ECONNREFUSED;
}

// Returns the size of the address, 0 for a text that is not an IP address.
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

NwaFcgiListener::NwaFcgiListener(NwaFcgiPoller* poller)
    : m_poller(poller)
    , m_isAccepting(false)
    , m_device(0)
    , m_inode(0)
{
}

NwaFcgiListener::~NwaFcgiListener()
{
    close();
}

bool NwaFcgiListener::listenOnPath(const QString& path, int permissions)
{
    struct sockaddr_un address;
    if (!unixAddress(QFile::encodeName(path), address))
        return fail(QString::fromLatin1("\"%1\" is empty or too long for a socket's path").arg(path));
    if (isAbandonedSocket(address))
        ::unlink(address.sun_path);
    NFileDescriptor socket = newSocket(AF_UNIX);
    if (!socket.isOpen() ||
        ::bind(socket.number(), reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0)
        return failWithSystemError(QString::fromLatin1("cannot make the socket %1").arg(path));
    // The mode is set before listen() lets anybody connect.
    if (!rememberSocketFile(path) || ::chmod(address.sun_path, mode_t(permissions)) != 0 ||
        ::listen(socket.number(), Backlog) != 0)
        return failWithSystemError(QString::fromLatin1("cannot listen on the socket %1").arg(path));
    return start(socket) || failWithSystemError(QString::fromLatin1("cannot serve the socket %1").arg(path));
}

bool NwaFcgiListener::listenOnPort(const QString& address, quint16 port)
{
    struct sockaddr_storage socketAddress;
    const socklen_t size = internetAddress(address.toLatin1(), port, socketAddress);
    if (size == 0)
        return fail(QString::fromLatin1("\"%1\" is no IP address").arg(address));
    NFileDescriptor socket = newSocket(socketAddress.ss_family);
    const int on = 1;
    if (!socket.isOpen() || ::setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(socket.number(), reinterpret_cast<struct sockaddr*>(&socketAddress), size) != 0 ||
        ::listen(socket.number(), Backlog) != 0)
        return failWithSystemError(QString::fromLatin1("cannot listen on port %1 of %2").arg(port).arg(address));
    return start(socket) ||
           failWithSystemError(QString::fromLatin1("cannot serve port %1 of %2").arg(port).arg(address));
}

bool NwaFcgiListener::listenOnDescriptor(int descriptor)
{
    if (!isListeningSocket(descriptor))
        return fail(QString::fromLatin1("the descriptor %1 is no listening socket").arg(descriptor));
    NFileDescriptor socket(descriptor);
    if (makeNonBlocking(descriptor) && start(socket))
        return true;
    socket.release();
    return failWithSystemError(QString::fromLatin1("cannot use the descriptor %1").arg(descriptor));
}

// Takes the socket only if it succeeds.
bool NwaFcgiListener::start(NFileDescriptor& socket)
{
    if (!m_poller->open() || !m_poller->watch(socket.number(), NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable))
        return false;
    // Connections inherit it: the end of a reply must not wait for the acknowledgement of its beginning. A Unix
    // socket refuses the option and does not need it.
    const int on = 1;
    ::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    m_socket = std::move(socket);
    m_isAccepting = true;
    m_errorString.clear();
    return true;
}

bool NwaFcgiListener::fail(const QString& what)
{
    m_errorString = what;
    return false;
}

bool NwaFcgiListener::failWithSystemError(const QString& what)
{
    m_errorString = what + QString::fromLatin1(": ") + NSystem::errorText();
    removeSocketFile();
    return false;
}

void NwaFcgiListener::close()
{
    if (!isListening())
        return;
    setAccepting(false);
    m_poller->close();
    // Removed before the socket is closed: afterwards another process may have put its own there.
    removeSocketFile();
    m_socket.reset();
}

bool NwaFcgiListener::rememberSocketFile(const QString& path)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return false;
    m_path = path;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    return true;
}

void NwaFcgiListener::removeSocketFile()
{
    const QByteArray path = QFile::encodeName(m_path);
    m_path.clear();
    struct stat status;
    if (!path.isEmpty() && ::lstat(path.constData(), &status) == 0 && status.st_dev == m_device &&
        status.st_ino == m_inode)
        ::unlink(path.constData());
}

quint16 NwaFcgiListener::port() const
{
    struct sockaddr_storage address;
    socklen_t size = sizeof(address);
    if (!isListening() ||
        ::getsockname(m_socket.number(), reinterpret_cast<struct sockaddr*>(&address), &size) != 0)
        return 0;
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<struct sockaddr_in*>(&address)->sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<struct sockaddr_in6*>(&address)->sin6_port);
    return 0;
}

NFileDescriptor NwaFcgiListener::accept() const
{
    return NFileDescriptor(NSystem::retried(
        [this]() { return ::accept4(m_socket.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); }));
}

void NwaFcgiListener::setAccepting(bool accepting)
{
    if (!isListening() || accepting == m_isAccepting)
        return;
    const int events[] = {NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable};
    if (m_poller->watch(m_socket.number(), events[m_isAccepting], events[accepting]))
        m_isAccepting = accepting;
}
