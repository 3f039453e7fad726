// From send() to the arrival at the client of an event stream, over the server's Unix socket, compared with send()
// and recv() of the same bytes over a pair of sockets. "one" is an event for one of so many open streams, "all"
// one for each of them.

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwaeventstreams.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "fcgiload.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QCoreApplication>

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <vector>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

// As the state of a ping, some 120 bytes.
QVariant document()
{
    QVariantMap document;
    document.insert(text("host"), text("www.example.com"));
    document.insert(text("replyTime"), 0.012345);
    document.insert(text("sentNb"), 1234);
    document.insert(text("goodNb"), 1230);
    document.insert(text("meanTime"), 0.023456);
    document.insert(text("isRunning"), true);
    return document;
}

QByteArray pair(const QByteArray& name, const QByteArray& value)
{
    return QByteArray(1, char(name.size())) + char(value.size()) + name + value;
}

QByteArray record(int type, const QByteArray& content)
{
    QByteArray header("\x01\0\0\x01\0\0\0\0", 8);
    header[1] = char(type);
    header[5] = char(content.size());
    return header + content;
}

QByteArray streamRequest()
{
    const QByteArray params = pair("SCRIPT_NAME", "/stream") + pair("REQUEST_METHOD", "GET");
    return record(1, QByteArray("\0\x01\0\0\0\0\0\0", 8)) + record(4, params) + record(4, QByteArray()) +
           record(5, QByteArray());
}

/** The client's end of a connection. */
class Receiver
{
public:
    explicit Receiver(int socket)
        : m_socket(socket)
    {
    }

    // Takes what has arrived, and returns whether that ends with an empty line, as an event does.
    bool hasEvent()
    {
        const ssize_t size = ::recv(m_socket, m_buffer, sizeof(m_buffer), MSG_DONTWAIT);
        return size >= 2 && m_buffer[size - 1] == '\n' && m_buffer[size - 2] == '\n';
    }

    void close() { ::close(m_socket); }

private:
    int m_socket;
    char m_buffer[4096];
};

/** So many open streams, each of its own session. */
class Streams : public NwaAbstractFcgiService
{
public:
    explicit Streams(int count)
        : streams(&m_sessions, nullptr)
    {
        const QString path = m_directory.filePath(text("socket"));
        m_server.registerService(text("/stream"), this);
        if (!m_server.listenOnPath(path))
            abort();
        const QByteArray request = streamRequest();
        for (int index = 0; index < count; ++index) {
            const int socket = FcgiLoad::Address::unixSocket(path).connect();
            if (::send(socket, request.constData(), size_t(request.size()), 0) != request.size())
                abort();
            receivers.push_back(Receiver(socket));
            waitFor(receivers.back());
        }
    }

    ~Streams() override
    {
        for (Receiver& receiver : receivers)
            receiver.close();
    }

    void processRequest(NwaFcgiRequest* request) override
    {
        NwaWebSession* const session = m_sessions.createSession();
        sessionIds.push_back(session->id());
        streams.open(request, session);
    }

    static void waitFor(Receiver& receiver)
    {
        while (!receiver.hasEvent())
            QCoreApplication::processEvents();
    }

private:
    NTemporaryDirectory m_directory;
    NwaWebSessionManager m_sessions;
    NwaFcgiServer m_server;

public:
    NwaEventStreams streams;
    std::vector<QUuid> sessionIds;
    std::vector<Receiver> receivers;
};

void sendToOne(benchmark::State& state)
{
    Streams streams(int(state.range(0)));
    const QVariant event = document();
    size_t index = 0;
    for (auto _ : state) {
        index = (index + 1) % streams.receivers.size();
        streams.streams.send(streams.sessionIds[index], "ping", event);
        Streams::waitFor(streams.receivers[index]);
    }
}

void sendToAll(benchmark::State& state)
{
    Streams streams(int(state.range(0)));
    const QVariant event = document();
    for (auto _ : state) {
        streams.streams.sendToAll("ping", event);
        for (Receiver& receiver : streams.receivers)
            Streams::waitFor(receiver);
    }
}

void sendOverPairs(benchmark::State& state, int count)
{
    // With the lines of the number and the type, and the header of the record.
    const QByteArray event(NwaJson::serialize(document()).size() + 40, '\n');
    std::vector<int> senders;
    std::vector<Receiver> receivers;
    for (int index = 0; index < count; ++index) {
        int sockets[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
            abort();
        senders.push_back(sockets[0]);
        receivers.push_back(Receiver(sockets[1]));
    }
    for (auto _ : state) {
        for (const int sender : senders) {
            if (::send(sender, event.constData(), size_t(event.size()), MSG_NOSIGNAL) != event.size())
                abort();
        }
        for (Receiver& receiver : receivers) {
            if (!receiver.hasEvent())
                abort();
        }
    }
    for (int index = 0; index < count; ++index) {
        ::close(senders[size_t(index)]);
        receivers[size_t(index)].close();
    }
}

void sendOverOnePair(benchmark::State& state)
{
    sendOverPairs(state, 1);
}

void sendOverAsManyPairs(benchmark::State& state)
{
    sendOverPairs(state, int(state.range(0)));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    for (const int streams : {1, 10, 100}) {
        benchmark::RegisterBenchmark("eventstreams_one/ours", sendToOne)->Arg(streams)->UseRealTime();
        benchmark::RegisterBenchmark("eventstreams_one/socketpair", sendOverOnePair)->Arg(streams)->UseRealTime();
        benchmark::RegisterBenchmark("eventstreams_all/ours", sendToAll)->Arg(streams)->UseRealTime();
        benchmark::RegisterBenchmark("eventstreams_all/socketpairs", sendOverAsManyPairs)
            ->Arg(streams)
            ->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
