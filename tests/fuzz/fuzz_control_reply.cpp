// Answers requests to the update daemon with the input, whole or cut, and compares the results with the bytes.

#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdaterecords_p.h>

#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QtEndian>

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

namespace {

const int RecordSize = 2072;
const size_t MaximumSize = 4096;

int server = -1;
QString path;

void require(bool condition)
{
    if (!condition)
        abort();
}

quint32 number(const QByteArray& bytes, int offset)
{
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData() + offset));
}

void answer(const QByteArray& reply)
{
    const int connection = ::accept(server, nullptr, nullptr);
    char request[RecordSize];
    require(::recv(connection, request, sizeof(request), MSG_WAITALL) == RecordSize);
    require(::send(connection, reply.constData(), size_t(reply.size()), MSG_NOSIGNAL) == reply.size());
    ::close(connection);
}

void checkStatus(const QByteArray& record)
{
    const NSWUpdateRecords::StatusReply status = NSWUpdateRecords::statusReply(record);
    require(quint32(status.current) == number(record, 8));
    require(quint32(status.lastResult) == number(record, 12));
    require(status.isError == (number(record, 16) != 0));
    const QByteArray text = record.mid(20, 2048);
    const int end = text.indexOf('\0');
    require(status.description.toLatin1() == (end < 0 ? text : text.left(end)));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    new QCoreApplication(*argc, *argv);
    static const NTemporaryDirectory directory;
    path = directory.filePath(QString::fromLatin1("control"));
    const QByteArray name = QFile::encodeName(path);
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(::bind(server, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0);
    require(::listen(server, 8) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (size > MaximumSize)
        return 0;
    const QByteArray reply(reinterpret_cast<const char*>(data), int(size));
    const bool isAccepted = reply.size() >= RecordSize && number(reply, 4) == 1;
    NSWUpdateInstaller installer(path, nullptr);
    {
        std::thread daemon(answer, reply);
        require(installer.sendPostUpdate() == isAccepted);
        daemon.join();
    }
    {
        std::thread daemon(answer, reply);
        require((installer.startInstallation(QString()) != nullptr) == isAccepted);
        daemon.join();
    }
    if (reply.size() >= RecordSize)
        checkStatus(reply.left(RecordSize));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
