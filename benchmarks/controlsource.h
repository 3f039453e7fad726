#ifndef NBASE_BENCHMARKS_CONTROLSOURCE_H
#define NBASE_BENCHMARKS_CONTROLSOURCE_H

#include <nsystem/nfiledescriptor_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QString>

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <thread>
#include <vector>

/** Sockets that take and send the bytes of the SWUpdate daemon and do nothing else. */
namespace ControlSockets {

const int ControlSize = 2072;

/** Ends the program unless @a condition holds. */
inline void require(bool condition)
{
    if (!condition)
        abort();
}

inline struct sockaddr_un addressOf(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    return address;
}

inline NFileDescriptor listenOn(const QString& path)
{
    const struct sockaddr_un address = addressOf(path);
    NFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(
        ::bind(socket.number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(socket.number(), 8) == 0);
    return socket;
}

inline NFileDescriptor connectTo(const QString& path)
{
    const struct sockaddr_un address = addressOf(path);
    NFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(::connect(socket.number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0);
    return socket;
}

/** Answers requests, and takes images until their connection ends. */
class ControlSource
{
public:
    explicit ControlSource(const QString& path)
        : m_statusRequests(0)
        , m_server(listenOn(path))
        , m_thread(&ControlSource::run, this)
    {
    }

    ~ControlSource()
    {
        ::shutdown(m_server.number(), SHUT_RDWR);
        m_thread.join();
    }

    /** How often the status has been asked for. */
    int statusRequests() const { return m_statusRequests; }

private:
    enum { StatusType = 3 };

    void run()
    {
        std::vector<char> bytes(65536);
        for (;;) {
            const NFileDescriptor connection(::accept(m_server.number(), nullptr, nullptr));
            if (!connection.isOpen())
                return;
            require(NSystem::readAll(connection.number(), bytes.data(), ControlSize) == ControlSize);
            m_statusRequests += bytes[4] == StatusType;
            char reply[ControlSize] = "";
            reply[4] = 1;
            reply[12] = 3;
            require(NSystem::writeAll(connection.number(), reply, sizeof(reply)));
            while (NSystem::read(connection.number(), bytes.data(), bytes.size()) > 0) {
            }
        }
    }

    std::atomic<int> m_statusRequests;
    const NFileDescriptor m_server;
    std::thread m_thread;
};

} // namespace ControlSockets

#endif
