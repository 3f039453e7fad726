#ifndef NBASE_BENCHMARKS_FCGILOAD_H
#define NBASE_BENCHMARKS_FCGILOAD_H

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** Sends requests to a server over several connections at a time. All operations end the program on failure. */
namespace FcgiLoad {

const int ConnectionCount = 8;
const int RequestsPerConnection = 25;

class Address
{
public:
    static Address unixSocket(const QString& path)
    {
        Address address;
        struct sockaddr_un* const name = reinterpret_cast<struct sockaddr_un*>(&address.m_address);
        name->sun_family = AF_UNIX;
        strncpy(name->sun_path, QFile::encodeName(path).constData(), sizeof(name->sun_path) - 1);
        address.m_size = sizeof(*name);
        return address;
    }

    static Address loopback(quint16 port)
    {
        Address address;
        struct sockaddr_in* const name = reinterpret_cast<struct sockaddr_in*>(&address.m_address);
        name->sin_family = AF_INET;
        name->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        name->sin_port = htons(port);
        address.m_size = sizeof(*name);
        return address;
    }

    int connect() const
    {
        const int descriptor = ::socket(m_address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(descriptor, reinterpret_cast<const struct sockaddr*>(&m_address), m_size) == 0)
            return descriptor;
        ::close(descriptor);
        return -1;
    }

private:
    Address() { memset(&m_address, 0, sizeof(m_address)); }

    struct sockaddr_storage m_address;
    socklen_t m_size;
};

/** Sends requests over one connection, which is opened again whenever the server has closed it. */
class Connection
{
public:
    Connection()
        : m_descriptor(-1)
    {
    }

    ~Connection() { close(); }

    int descriptor() const { return m_descriptor; }

    void send(const Address& address, const QByteArray& request)
    {
        if (m_descriptor < 0)
            m_descriptor = address.connect();
        if (::send(m_descriptor, request.constData(), size_t(request.size()), MSG_NOSIGNAL) != request.size())
            qFatal("a request cannot be sent");
        m_received = 0;
    }

    // Returns whether the reply is complete: it has its size, or if that is 0, the connection has ended.
    bool receive(qint64 replySize)
    {
        static char buffer[1 << 18];
        const ssize_t size = ::recv(m_descriptor, buffer, sizeof(buffer), 0);
        if (size < 0 || (size == 0 && replySize != 0))
            qFatal("a reply breaks off");
        m_received += size;
        if (size == 0)
            close();
        return size == 0 || (replySize != 0 && m_received >= replySize);
    }

    qint64 received() const { return m_received; }

private:
    Q_DISABLE_COPY(Connection)

    void close()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

    int m_descriptor;
    qint64 m_received;
};

inline void load(
    const Address& address, const QByteArray& request, qint64 replySize, int documentSize, Connection* connections)
{
    struct pollfd states[ConnectionCount];
    int left[ConnectionCount];
    for (int index = 0; index < ConnectionCount; ++index) {
        connections[index].send(address, request);
        left[index] = RequestsPerConnection;
        states[index].events = POLLIN;
    }
    for (int open = ConnectionCount; open > 0;) {
        for (int index = 0; index < ConnectionCount; ++index)
            states[index].fd = left[index] ? connections[index].descriptor() : -1;
        ::poll(states, ConnectionCount, -1);
        for (int index = 0; index < ConnectionCount; ++index) {
            if (states[index].fd < 0 || !states[index].revents || !connections[index].receive(replySize))
                continue;
            if (connections[index].received() < documentSize)
                qFatal("a reply is too short");
            if (--left[index])
                connections[index].send(address, request);
            else
                --open;
        }
    }
}

/** The size of a complete reply over HTTP, which is the same each time. */
inline qint64 httpReplySize(const Address& address, const QByteArray& request, int documentSize)
{
    const int descriptor = address.connect();
    ::send(descriptor, request.constData(), size_t(request.size()), MSG_NOSIGNAL);
    QByteArray reply;
    char buffer[4096];
    while (!reply.contains("\r\n\r\n")) {
        const ssize_t size = ::recv(descriptor, buffer, sizeof(buffer), 0);
        if (size <= 0)
            qFatal("there is no reply");
        reply.append(buffer, int(size));
    }
    ::close(descriptor);
    if (!reply.startsWith("HTTP/1.1 200 ") ||
        !reply.contains("Content-Length: " + QByteArray::number(documentSize) + "\r\n"))
        qFatal("the reply is not the one expected:\n%s", reply.left(1000).constData());
    return reply.indexOf("\r\n\r\n") + 4 + documentSize;
}

/** Starts @a program, whose first argument is the socket to serve, and waits until it accepts connections. */
inline void startServer(QProcess& process, const QString& program, const QStringList& arguments)
{
    process.start(program, arguments);
    process.waitForStarted();
    int descriptor = -1;
    while ((descriptor = Address::unixSocket(arguments.at(0)).connect()) < 0) {
        if (process.waitForFinished(1))
            qFatal("%s does not start", program.toLocal8Bit().constData());
    }
    ::close(descriptor);
}

} // namespace FcgiLoad

#endif
