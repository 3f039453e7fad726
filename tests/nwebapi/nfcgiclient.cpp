#include "nfcgiclient.h"

#include <QtCore/QFile>
#include <QtCore/QSocketNotifier>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const int RecordHeaderSize = 8;
const int MaximumContentSize = 65535;

int number16(const QByteArray& data, int position)
{
    return quint8(data.at(position)) << 8 | quint8(data.at(position + 1));
}

QByteArray pairSize(int size)
{
    if (size < 128)
        return QByteArray(1, char(size));
    QByteArray bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.append(char(size >> shift));
    bytes[0] = char(bytes.at(0) | 0x80);
    return bytes;
}

int headerEnd(const QByteArray& output)
{
    const int end = output.indexOf("\r\n\r\n");
    return end < 0 ? -1 : end + 4;
}

} // namespace

NFcgiClient::NFcgiClient(QObject* parent)
    : QObject(parent)
    , m_descriptor(-1)
    , m_readNotifier(nullptr)
    , m_writeNotifier(nullptr)
    , m_closed(false)
{
}

NFcgiClient::~NFcgiClient()
{
    disconnectNow();
}

bool NFcgiClient::connectToPath(const QString& path)
{
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    memcpy(address.sun_path, name.constData(), qMin(size_t(name.size()), sizeof(address.sun_path) - 1));
    return start(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), &address, sizeof(address));
}

bool NFcgiClient::connectToPort(const QString& address, quint16 port)
{
    const QByteArray text = address.toLatin1();
    struct sockaddr_in version4;
    memset(&version4, 0, sizeof(version4));
    if (::inet_pton(AF_INET, text.constData(), &version4.sin_addr) == 1) {
        version4.sin_family = AF_INET;
        version4.sin_port = htons(port);
        return start(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), &version4, sizeof(version4));
    }
    struct sockaddr_in6 version6;
    memset(&version6, 0, sizeof(version6));
    ::inet_pton(AF_INET6, text.constData(), &version6.sin6_addr);
    version6.sin6_family = AF_INET6;
    version6.sin6_port = htons(port);
    return start(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0), &version6, sizeof(version6));
}

// The kernel completes a connection to a local listening socket before the server accepts it.
bool NFcgiClient::start(int descriptor, const void* address, int size)
{
    disconnectNow();
    m_closed = false;
    m_input.clear();
    m_unsent.clear();
    forget();
    if (descriptor < 0)
        return false;
    if (::connect(descriptor, static_cast<const struct sockaddr*>(address), socklen_t(size)) != 0) {
        ::close(descriptor);
        return false;
    }
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    m_descriptor = descriptor;
    m_readNotifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    m_writeNotifier = new QSocketNotifier(descriptor, QSocketNotifier::Write, this);
    m_writeNotifier->setEnabled(false);
    connect(m_readNotifier, SIGNAL(activated(int)), this, SLOT(receive()));
    connect(m_writeNotifier, SIGNAL(activated(int)), this, SLOT(send()));
    return true;
}

void NFcgiClient::disconnectNow()
{
    if (m_descriptor < 0)
        return;
    m_readNotifier->setEnabled(false);
    m_readNotifier->deleteLater();
    m_writeNotifier->setEnabled(false);
    m_writeNotifier->deleteLater();
    ::close(m_descriptor);
    m_descriptor = -1;
}

void NFcgiClient::endSending()
{
    ::shutdown(m_descriptor, SHUT_WR);
}

void NFcgiClient::endReceiving()
{
    ::shutdown(m_descriptor, SHUT_RD);
}

void NFcgiClient::stopReceiving()
{
    m_readNotifier->setEnabled(false);
}

void NFcgiClient::startReceiving()
{
    m_readNotifier->setEnabled(true);
}

QByteArray NFcgiClient::record(int type, int requestId, const QByteArray& content, int paddingSize)
{
    QByteArray record;
    record.append(char(1));
    record.append(char(type));
    record.append(char(requestId >> 8));
    record.append(char(requestId));
    record.append(char(content.size() >> 8));
    record.append(char(content.size()));
    record.append(char(paddingSize));
    record.append('\0');
    return record + content + QByteArray(paddingSize, 'p');
}

QByteArray NFcgiClient::beginRecord(int requestId, bool keepConnection, int role)
{
    QByteArray content(8, '\0');
    content[0] = char(role >> 8);
    content[1] = char(role);
    content[2] = char(keepConnection ? 1 : 0);
    return record(BeginRequest, requestId, content);
}

QByteArray NFcgiClient::pair(const QByteArray& name, const QByteArray& value)
{
    return pairSize(name.size()) + pairSize(value.size()) + name + value;
}

QByteArray NFcgiClient::pairs(const Params& params)
{
    QByteArray content;
    for (int index = 0; index < params.size(); ++index)
        content += pair(params.at(index).first, params.at(index).second);
    return content;
}

NFcgiClient::Params NFcgiClient::variables(const QByteArray& scriptName, const QByteArray& method)
{
    Params params;
    params << qMakePair(QByteArray("SCRIPT_NAME"), scriptName) << qMakePair(QByteArray("REQUEST_METHOD"), method);
    return params;
}

QByteArray NFcgiClient::stream(int type, int requestId, const QByteArray& content)
{
    QByteArray records;
    for (int position = 0; position < content.size(); position += MaximumContentSize)
        records += record(type, requestId, content.mid(position, MaximumContentSize));
    return records + record(type, requestId, QByteArray());
}

QByteArray NFcgiClient::request(const Params& params, const QByteArray& body, int requestId, bool keep)
{
    return beginRecord(requestId, keep) + stream(ParamsType, requestId, pairs(params)) +
           stream(StdinType, requestId, body);
}

void NFcgiClient::begin(int requestId, bool keepConnection, int role)
{
    raw(beginRecord(requestId, keepConnection, role));
}

void NFcgiClient::params(const Params& params, int requestId)
{
    raw(stream(ParamsType, requestId, pairs(params)));
}

void NFcgiClient::body(const QByteArray& data, int requestId)
{
    QByteArray records = stream(StdinType, requestId, data);
    records.chop(RecordHeaderSize);
    raw(records);
}

void NFcgiClient::endBody(int requestId)
{
    raw(record(StdinType, requestId, QByteArray()));
}

void NFcgiClient::abort(int requestId)
{
    raw(record(AbortRequest, requestId, QByteArray()));
}

void NFcgiClient::raw(const QByteArray& data)
{
    m_unsent += data;
    send();
}

void NFcgiClient::send()
{
    while (m_descriptor >= 0 && !m_unsent.isEmpty()) {
        const ssize_t size = ::send(m_descriptor, m_unsent.constData(), size_t(m_unsent.size()), MSG_NOSIGNAL);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0 && errno != EAGAIN)
            m_unsent.clear();
        if (size < 0)
            break;
        m_unsent.remove(0, int(size));
    }
    if (m_descriptor >= 0)
        m_writeNotifier->setEnabled(!m_unsent.isEmpty());
}

void NFcgiClient::receive()
{
    char buffer[65536];
    const ssize_t size = ::recv(m_descriptor, buffer, sizeof(buffer), 0);
    if (size > 0) {
        m_input.append(buffer, int(size));
        for (const Record& record : takeRecords(m_input))
            process(record);
        return;
    }
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    m_closed = true;
    m_readNotifier->setEnabled(false);
}

QList<NFcgiClient::Record> NFcgiClient::takeRecords(QByteArray& input)
{
    QList<Record> records;
    int position = 0;
    while (input.size() - position >= RecordHeaderSize) {
        Record record;
        record.type = quint8(input.at(position + 1));
        record.requestId = number16(input, position + 2);
        const int contentSize = number16(input, position + 4);
        const int totalSize = RecordHeaderSize + contentSize + quint8(input.at(position + 6));
        if (input.size() - position < totalSize)
            break;
        record.content = input.mid(position + RecordHeaderSize, contentSize);
        records.append(record);
        position += totalSize;
    }
    input.remove(0, position);
    return records;
}

void NFcgiClient::process(const Record& record)
{
    m_records.append(record);
    if (record.type == StdoutType)
        m_output[record.requestId] += record.content;
    else if (record.type == StderrType)
        m_remarks[record.requestId] += record.content;
    else if (record.type == EndRequest)
        m_statuses.insert(record.requestId, quint8(record.content.at(4)));
}

int NFcgiClient::unsentSize() const
{
    return m_unsent.size();
}

bool NFcgiClient::isClosed() const
{
    return m_closed;
}

bool NFcgiClient::hasEnded(int requestId) const
{
    return m_statuses.contains(requestId);
}

int NFcgiClient::protocolStatus(int requestId) const
{
    return m_statuses.value(requestId, -1);
}

QByteArray NFcgiClient::output(int requestId) const
{
    return m_output.value(requestId);
}

QByteArray NFcgiClient::remarks(int requestId) const
{
    return m_remarks.value(requestId);
}

int NFcgiClient::status(int requestId) const
{
    const QByteArray reply = output(requestId);
    const int end = headerEnd(reply);
    if (end < 0)
        return 0;
    const int position = reply.left(end).indexOf("Status: ");
    return position < 0 ? 200 : reply.mid(position + 8, 3).toInt();
}

QByteArray NFcgiClient::replyBody(int requestId) const
{
    const QByteArray reply = output(requestId);
    return headerEnd(reply) < 0 ? QByteArray() : reply.mid(headerEnd(reply));
}

QList<NFcgiClient::Record> NFcgiClient::records() const
{
    return m_records;
}

QList<NFcgiClient::Record> NFcgiClient::connectionRecords() const
{
    QList<Record> records;
    for (const Record& record : m_records) {
        if (record.requestId == 0)
            records.append(record);
    }
    return records;
}

void NFcgiClient::forget()
{
    m_records.clear();
    m_output.clear();
    m_remarks.clear();
    m_statuses.clear();
}
