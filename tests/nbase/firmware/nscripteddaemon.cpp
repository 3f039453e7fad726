#include "nscripteddaemon.h"

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QtEndian>

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const int InstallRequestType = 0;
const int StatusRequestType = 3;

void require(bool condition, const char* what)
{
    if (!condition)
        qFatal("scripted daemon: %s: %s", what, strerror(errno));
}

void setNumber(QByteArray& record, int offset, quint32 value)
{
    qToLittleEndian<quint32>(value, reinterpret_cast<uchar*>(record.data() + offset));
}

} // namespace

NScriptedDaemon::NScriptedDaemon(int recordSize)
    : m_recordSize(recordSize)
    , m_server(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , m_isHeld(false)
    , m_openImages(0)
    , m_imageLimit(-1)
    , m_endedConnections(0)
{
    int ends[2];
    require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
    m_stopReader.reset(ends[0]);
    m_stopWriter.reset(ends[1]);

    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path());
    require(size_t(name.size()) < sizeof(address.sun_path), "path");
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    require(
        ::bind(m_server.number(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0 &&
            ::listen(m_server.number(), 128) == 0,
        "listen");
    m_thread = std::thread(&NScriptedDaemon::run, this);
}

NScriptedDaemon::~NScriptedDaemon()
{
    m_stopWriter.reset();
    continueImages();
    m_thread.join();
    for (std::thread& connection : m_connections)
        connection.join();
}

QString NScriptedDaemon::path() const
{
    return m_directory.filePath(QString::fromLatin1("control"));
}

void NScriptedDaemon::addReply(const QByteArray& bytes, End end)
{
    addPieces(QList<QByteArray>() << bytes, end);
}

void NScriptedDaemon::addPieces(const QList<QByteArray>& pieces, End end)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Reply reply = {pieces, end};
    m_replies.append(reply);
}

QByteArray NScriptedDaemon::acknowledgement(int type) const
{
    QByteArray record(m_recordSize, '\0');
    setNumber(record, 4, quint32(type));
    return record;
}

QByteArray NScriptedDaemon::status(int current, int lastResult, const QByteArray& text, int error) const
{
    QByteArray record(m_recordSize, '\0');
    setNumber(record, 0, 0x14052001);
    setNumber(record, 4, 1);
    setNumber(record, 8, quint32(current));
    setNumber(record, 12, quint32(lastResult));
    setNumber(record, 16, quint32(error));
    memcpy(record.data() + 20, text.constData(), size_t(qMin(text.size(), 2048)));
    return record;
}

void NScriptedDaemon::closeImageAfter(qint64 bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_imageLimit = bytes;
}

void NScriptedDaemon::holdImages()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isHeld = true;
}

void NScriptedDaemon::continueImages()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isHeld = false;
    m_continued.notify_all();
}

QList<QByteArray> NScriptedDaemon::takeRequests()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const QList<QByteArray> requests = m_requests;
    m_requests.clear();
    return requests;
}

int NScriptedDaemon::requestCount() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

QByteArray NScriptedDaemon::image() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_image;
}

int NScriptedDaemon::endedConnections() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_endedConnections;
}

void NScriptedDaemon::run()
{
    while (waitForInput(m_server.number())) {
        const int socket = ::accept4(m_server.number(), nullptr, nullptr, SOCK_CLOEXEC);
        if (socket >= 0)
            m_connections.push_back(std::thread(&NScriptedDaemon::serve, this, socket));
    }
}

// Returns false when the daemon ends.
bool NScriptedDaemon::waitForInput(int socket) const
{
    struct pollfd files[] = {{socket, POLLIN, 0}, {m_stopReader.number(), POLLIN, 0}};
    const int count = NSystem::retried([&]() { return ::poll(files, 2, -1); });
    return count > 0 && files[1].revents == 0;
}

void NScriptedDaemon::serve(int number)
{
    const NFileDescriptor socket(number);
    QByteArray request(m_recordSize, '\0');
    int size = 0;
    while (size < m_recordSize) {
        if (!waitForInput(number))
            return;
        const ssize_t count = NSystem::read(number, request.data() + size, size_t(m_recordSize - size));
        if (count <= 0)
            return;
        size += int(count);
    }
    const Reply reply = takeReply(request);
    for (const QByteArray& piece : reply.pieces) {
        if (reply.pieces.size() > 1)
            ::usleep(1000);
        ::send(number, piece.constData(), size_t(piece.size()), MSG_NOSIGNAL);
    }
    if (reply.end == Keep)
        readImage(number);
    if (request.at(4) == InstallRequestType)
        endImage();
}

NScriptedDaemon::Reply NScriptedDaemon::takeReply(const QByteArray& request)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool isStatus = request.at(4) == StatusRequestType;
    // Like a daemon that does one thing after the other, it has read what was sent before the question.
    if (isStatus)
        m_continued.wait_for(lock, std::chrono::seconds(10), [this]() { return m_isHeld || m_openImages == 0; });
    if (request.at(4) == InstallRequestType)
        ++m_openImages;
    m_requests.append(request);
    if (!m_replies.isEmpty())
        return m_replies.takeFirst();
    const Reply reply = {QList<QByteArray>() << (isStatus ? status(0, 3) : acknowledgement()), Keep};
    return reply;
}

void NScriptedDaemon::endImage()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_openImages;
    m_continued.notify_all();
}

// Of a connection that is no image, this is the end only.
void NScriptedDaemon::readImage(int socket)
{
    char bytes[16384];
    while (waitForInput(socket)) {
        waitWhileHeld();
        const ssize_t count = NSystem::read(socket, bytes, sizeof(bytes));
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (count <= 0) {
            ++m_endedConnections;
            return;
        }
        m_image.append(bytes, int(count));
        if (m_imageLimit >= 0 && m_image.size() >= m_imageLimit)
            return;
    }
}

void NScriptedDaemon::waitWhileHeld()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_continued.wait(lock, [this]() { return !m_isHeld; });
}
