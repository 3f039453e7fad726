// Requests for a document in the program's memory, one at a time on each of several connections: through lighttpd,
// as on a device, and without a web server in between, which shows the cost of the transport itself.

#include "fcgiload.h"

#include "support/nlighttpd.h"
#include "support/ntemporarydirectory.h"

#include <benchmark/benchmark.h>

#include <QtCore/QProcess>
#include <QtCore/QVector>

using namespace FcgiLoad;

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QByteArray record(int type, const QByteArray& content)
{
    QByteArray header("\x01\0\0\x01\0\0\0\0", 8);
    header[1] = char(type);
    header[4] = char(content.size() >> 8);
    header[5] = char(content.size());
    return header + content;
}

// The records that a web server sends for a browser's request.
QByteArray fastCgiRequest(const QByteArray& script, int documentSize)
{
    QByteArray params;
    const QByteArray variables[][2] = {
        {"CONTENT_LENGTH", "0"},
        {"SCRIPT_NAME", script},
        {"PATH_INFO", '/' + QByteArray::number(documentSize)},
        {"REQUEST_URI", script + '/' + QByteArray::number(documentSize)},
        {"QUERY_STRING", ""},
        {"REQUEST_METHOD", "GET"},
        {"SERVER_PROTOCOL", "HTTP/1.1"},
        {"SERVER_SOFTWARE", "lighttpd/1.4.69"},
        {"GATEWAY_INTERFACE", "CGI/1.1"},
        {"REQUEST_SCHEME", "http"},
        {"SERVER_PORT", "80"},
        {"SERVER_ADDR", "127.0.0.1"},
        {"SERVER_NAME", "device"},
        {"REMOTE_ADDR", "127.0.0.1"},
        {"REMOTE_PORT", "50000"},
        {"DOCUMENT_ROOT", "/srv/www"},
        {"SCRIPT_FILENAME", "/srv/www" + script},
        {"REDIRECT_STATUS", "200"},
        {"HTTP_HOST", "device"},
        {"HTTP_ACCEPT", "application/json"},
        {"HTTP_ACCEPT_ENCODING", "gzip, deflate, br"},
        {"HTTP_COOKIE", "session={00112233-4455-6677-8899-aabbccddeeff}"}};
    for (const QByteArray(&variable)[2] : variables)
        params += QByteArray(1, char(variable[0].size())) + char(variable[1].size()) + variable[0] + variable[1];
    return record(1, QByteArray("\0\x01\0\0\0\0\0\0", 8)) + record(4, params) + record(4, QByteArray()) +
           record(5, QByteArray());
}

/** Both programs, and one web server in front of both. */
class Servers
{
public:
    Servers()
    {
        startServer(m_ours, text(FCGI_OURS_PROGRAM), QStringList(oursSocket()));
        startServer(m_libfcgi, text(FCGI_LIBFCGI_PROGRAM), QStringList(libfcgiSocket()));
        if (!m_lighttpd.start(
                NLighttpd::fastCgi(text("/ours"), oursSocket()) +
                NLighttpd::fastCgi(text("/libfcgi"), libfcgiSocket()) +
                "server.max-keep-alive-requests = 1000000\n"))
            qFatal("lighttpd does not start:\n%s", m_lighttpd.log().constData());
    }

    ~Servers()
    {
        m_lighttpd.stop();
        m_ours.kill();
        m_libfcgi.kill();
        m_ours.waitForFinished();
        m_libfcgi.waitForFinished();
    }

    QString oursSocket() const { return m_directory.filePath(text("ours")); }
    QString libfcgiSocket() const { return m_directory.filePath(text("libfcgi")); }
    quint16 port() const { return m_lighttpd.port(); }

private:
    NTemporaryDirectory m_directory;
    QProcess m_ours;
    QProcess m_libfcgi;
    NLighttpd m_lighttpd;
};

Servers* servers;

void measure(benchmark::State& state, const Address& address, const QByteArray& request, qint64 replySize)
{
    Connection connections[ConnectionCount];
    load(address, request, replySize, int(state.range(0)), connections);
    for (auto _ : state)
        load(address, request, replySize, int(state.range(0)), connections);
    state.SetItemsProcessed(state.iterations() * ConnectionCount * RequestsPerConnection);
}

void throughWebServer(benchmark::State& state, const char* script)
{
    const Address address = Address::loopback(servers->port());
    const QByteArray request = QByteArray("GET /") + script + '/' + QByteArray::number(int(state.range(0))) +
                               " HTTP/1.1\r\nHost: device\r\n\r\n";
    measure(state, address, request, httpReplySize(address, request, int(state.range(0))));
}

void direct(benchmark::State& state, const char* script, const QString& socket)
{
    measure(state, Address::unixSocket(socket), fastCgiRequest(QByteArray("/") + script, int(state.range(0))), 0);
}

void withSizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(100)->Arg(7000)->Arg(70000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark->Repetitions(7)->MinTime(0.2);
}

} // namespace

int main(int argc, char** argv)
{
    Servers all;
    servers = &all;
    withSizes(benchmark::RegisterBenchmark("fcgi_through_lighttpd/ours", throughWebServer, "ours"));
    withSizes(benchmark::RegisterBenchmark("fcgi_through_lighttpd/libfcgi", throughWebServer, "libfcgi"));
    withSizes(benchmark::RegisterBenchmark("fcgi_direct/ours", direct, "ours", all.oursSocket()));
    withSizes(benchmark::RegisterBenchmark("fcgi_direct/libfcgi", direct, "libfcgi", all.libfcgiSocket()));

    // The variants alternate, so that other load on the machine affects both.
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    QVector<char*> arguments;
    arguments << argv[0] << interleave;
    for (int index = 1; index < argc; ++index)
        arguments << argv[index];
    int count = arguments.size();
    benchmark::Initialize(&count, arguments.data());
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
