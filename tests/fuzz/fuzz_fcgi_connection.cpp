// Anything that a client may send to the FastCGI server. Each input is sent over a connection of its own, in
// pieces, to a service that reads the body and answers. The first byte of the input selects the size of the pieces
// and whether the client reads its replies; the rest is sent.

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QPointer>

#include <errno.h>
#include <fcntl.h>
#include <ostream>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// More than the kernel takes at once, and within the limit of a reply: further requests have to wait.
const size_t LargeReply = 250000;

/** Reads the body and answers; for a form, when the client has sent more. */
class FuzzService : public NwaAbstractFcgiService
{
public:
    void processRequest(NwaFcgiRequest* request) override
    {
        // The previous request may still be open if its client has aborted it.
        delete m_request.data();
        m_request = request;
        if (request->atBodyEnd() || !request->variable("CONTENT_TYPE").contains("multipart"))
            answer();
    }

    // Answers the open request, if there is one.
    void answer()
    {
        if (!m_request)
            return;
        char buffer[100];
        qint64 size = 0;
        m_request->outputStream() << "Content-Type: text/plain\r\n\r\n";
        while ((size = m_request->readBody(buffer, sizeof(buffer))) > 0)
            m_request->outputStream().write(buffer, size);
        if (m_request->variable("REQUEST_METHOD") == "LARGE")
            m_request->outputStream() << std::string(LargeReply, 'r');
        m_request->errorStream() << "remark";
        delete m_request.data();
    }

private:
    QPointer<NwaFcgiRequest> m_request;
};

class Target
{
public:
    Target()
        : m_application(m_argumentCount, m_arguments)
    {
        char pattern[] = "/tmp/nbase-fuzz-XXXXXX";
        if (!::mkdtemp(pattern))
            qFatal("cannot make a temporary directory");
        m_directory = pattern;
        NwaFcgiLimits limits;
        limits.variablesSize = 2000;
        limits.querySize = 500;
        limits.bodySize = 2000;
        limits.streamedBodyBuffer = 100;
        limits.replyBuffer = 100000;
        limits.bufferedSize = 3000;
        m_server.setLimits(limits);
        if (!m_server.listenOnPath(QFile::decodeName(m_directory + "/socket")))
            qFatal("%s", m_server.errorString().toLocal8Bit().constData());
        m_server.registerService(QString::fromLatin1("/test"), &m_service);
    }

    ~Target()
    {
        m_server.close();
        ::rmdir(m_directory.constData());
    }

    void send(const char* data, size_t size, size_t pieceSize, bool takeReplies)
    {
        const int descriptor = connect();
        for (size_t position = 0; position < size; position += pieceSize) {
            if (::send(descriptor, data + position, qMin(pieceSize, size - position), MSG_NOSIGNAL) < 0)
                break;
            QCoreApplication::processEvents();
            if (takeReplies)
                discardInput(descriptor);
            m_service.answer();
        }
        ::shutdown(descriptor, SHUT_WR);
        QCoreApplication::processEvents();
        m_service.answer();
        ::close(descriptor);
        // No connection may outlive its client.
        for (int rounds = 0; m_server.connectionCount() > 0; ++rounds) {
            m_service.answer();
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            if (rounds > 1000)
                abort();
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

private:
    int connect()
    {
        struct sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, (m_directory + "/socket").constData());
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0)
            qFatal("cannot connect");
        ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
        return descriptor;
    }

    static void discardInput(int descriptor)
    {
        char buffer[4096];
        while (::recv(descriptor, buffer, sizeof(buffer), 0) > 0) {
        }
    }

    int m_argumentCount = 1;
    char m_name[5] = "fuzz";
    char* m_arguments[2] = {m_name, nullptr};
    QCoreApplication m_application;
    QByteArray m_directory;
    FuzzService m_service;
    NwaFcgiServer m_server;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Target target;
    if (size == 0)
        return 0;
    const int pieces = data[0] & 0x7f;
    const bool takeReplies = data[0] & 0x80;
    // 0 sends everything at once.
    target.send(
        reinterpret_cast<const char*>(data) + 1, size - 1, pieces ? size_t(pieces) : qMax(size, size_t(1)),
        takeReplies);
    return 0;
}
