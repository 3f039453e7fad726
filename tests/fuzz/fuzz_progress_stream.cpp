// Sends the input to a progress client and compares its signals with the records of the input. The first byte
// chooses the layout, the second one the size of the pieces.

#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include "support/ntemporarydirectory.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QMetaMethod>
#include <QtCore/QTimer>
#include <QtCore/QtEndian>

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const size_t MaximumSize = 16384;

const int Sizes[] = {2400, 2416, 2408};

int server = -1;
QByteArray path;

void require(bool condition)
{
    if (!condition)
        abort();
}

quint32 number(const unsigned char* bytes)
{
    return qFromLittleEndian<quint32>(bytes);
}

// Counts the signals of a client without their arguments.
class SignalCounter : public QObject
{
public:
    explicit SignalCounter(NSWUpdateProgressClient* client)
        : m_count(0)
    {
        const QMetaObject* const type = client->metaObject();
        for (int index = type->methodOffset(); index < type->methodCount(); ++index) {
            if (type->method(index).methodType() == QMetaMethod::Signal)
                QMetaObject::connect(client, index, this, QObject::staticMetaObject.methodCount());
        }
    }

    int qt_metacall(QMetaObject::Call call, int index, void** arguments) override
    {
        const int own = QObject::qt_metacall(call, index, arguments);
        if (own >= 0 && call == QMetaObject::InvokeMetaMethod)
            ++m_count;
        return own < 0 ? own : -1;
    }

    int count() const { return m_count; }

private:
    int m_count;
};

int expectedSignals(const unsigned char* bytes, size_t size, int layout)
{
    const bool isVersioned = layout > 0;
    if (isVersioned && size >= 8 && memcmp(bytes + 4, "ACK", 4) == 0) {
        bytes += 8;
        size -= 8;
    }
    int count = 0;
    for (; size >= size_t(Sizes[layout]); size -= size_t(Sizes[layout]), bytes += Sizes[layout]) {
        const quint32 status = number(bytes + 4);
        count += (status >= 1 && status <= 7) || (status == 8 && isVersioned);
    }
    return count;
}

bool isReconnecting(const NSWUpdateProgressClient& client)
{
    for (const QTimer* timer : client.findChildren<QTimer*>()) {
        if (timer->isActive())
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    new QCoreApplication(*argc, *argv);
    static const NTemporaryDirectory directory;
    path = QFile::encodeName(directory.filePath(QString::fromLatin1("progress")));
    SOCKET_PROGRESS_PATH = path.data();
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.constData(), size_t(path.size()));
    server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(::bind(server, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0);
    require(::listen(server, 8) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (size < 2 || size > MaximumSize)
        return 0;
    const int layout = data[0] % 3;
    const size_t pieceSize = data[1] == 0 ? size : data[1] * size_t(64);
    data += 2;
    size -= 2;

    NSWUpdateProgressClient client(nullptr);
    client.setRecordLayout(NSWUpdateProgressClient::RecordLayout(layout));
    const SignalCounter counter(&client);
    const int connection = ::accept(server, nullptr, nullptr);
    require(connection >= 0);
    for (size_t offset = 0; offset < size; offset += pieceSize) {
        const size_t piece = qMin(pieceSize, size - offset);
        require(::send(connection, data + offset, piece, MSG_NOSIGNAL) == ssize_t(piece));
        QCoreApplication::processEvents();
    }
    ::close(connection);
    while (!isReconnecting(client))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::processEvents();
    require(counter.count() == expectedSignals(data, size, layout));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
