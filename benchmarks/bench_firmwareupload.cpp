// Uploads of a firmware package of so many megabytes through lighttpd and the web service to the socket of the
// daemon, which takes the bytes and does nothing else, against a bare libfcgi program that copies its input to the
// same socket in pieces of the same size. Its input is the form as it is; the service finds the package in it.

#include "controlsource.h"
#include "fcgiload.h"

#include "support/nlighttpd.h"
#include "support/ntemporarydirectory.h"

#include <benchmark/benchmark.h>

#include <QtCore/QProcess>
#include <QtCore/QVector>

#include <chrono>

using namespace ControlSockets;
using namespace FcgiLoad;

namespace {

const int Megabyte = 1000000;

typedef std::chrono::steady_clock Clock;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** Both programs, the web server in front of them and the daemon behind them. */
class Servers
{
public:
    Servers()
        : m_daemon(controlSocket())
    {
        startServer(m_ours, text(FIRMWAREUPLOAD_OURS_PROGRAM), QStringList() << oursSocket() << controlSocket());
        m_libfcgi.start(text(FIRMWAREUPLOAD_LIBFCGI_PROGRAM), QStringList() << libfcgiSocket() << controlSocket());
        // Each body is passed on while it arrives.
        if (!m_lighttpd.start(
                "server.stream-request-body = 2\n" + NLighttpd::fastCgi(text("/ours"), oursSocket()) +
                NLighttpd::fastCgi(text("/libfcgi"), libfcgiSocket())))
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

    const ControlSource& daemon() const { return m_daemon; }
    quint16 port() const { return m_lighttpd.port(); }

private:
    QString oursSocket() const { return m_directory.filePath(text("ours")); }
    QString libfcgiSocket() const { return m_directory.filePath(text("libfcgi")); }
    QString controlSocket() const { return m_directory.filePath(text("control")); }

    NTemporaryDirectory m_directory;
    ControlSource m_daemon;
    QProcess m_ours;
    QProcess m_libfcgi;
    NLighttpd m_lighttpd;
};

Servers* servers;

QByteArray request(const char* script, int packageSize)
{
    const QByteArray form =
        "--frontier\r\nContent-Disposition: form-data; name=\"package\"; filename=\"p.swu\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n" +
        QByteArray(packageSize, 'i') + "\r\n--frontier--\r\n";
    return QByteArray("POST /") + script +
           " HTTP/1.1\r\nHost: device\r\nConnection: close\r\n"
           "Content-Type: multipart/form-data; boundary=frontier\r\nContent-Length: " +
           QByteArray::number(form.size()) + "\r\n\r\n" + form;
}

void upload(const QByteArray& request)
{
    const NFileDescriptor connection(Address::loopback(servers->port()).connect());
    require(NSystem::writeAll(connection.number(), request.constData(), size_t(request.size())));
    QByteArray reply;
    char buffer[4096];
    ssize_t size = 0;
    while ((size = NSystem::read(connection.number(), buffer, sizeof(buffer))) > 0)
        reply.append(buffer, int(size));
    if (!reply.startsWith("HTTP/1.1 200 "))
        qFatal("the reply is not the one expected:\n%s", reply.left(1000).constData());
}

void measure(benchmark::State& state, const char* script, bool asksForStatus)
{
    const QByteArray sent = request(script, int(state.range(0)) * Megabyte);
    for (auto _ : state) {
        const int statusRequests = servers->daemon().statusRequests();
        const Clock::time_point begin = Clock::now();
        upload(sent);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
        // The next upload would be refused before.
        while (asksForStatus && servers->daemon().statusRequests() == statusRequests)
            ::usleep(1000);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * Megabyte);
}

void withSizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond)->UseManualTime();
    benchmark->Repetitions(7)->MinTime(0.2);
}

} // namespace

int main(int argc, char** argv)
{
    Servers all;
    servers = &all;
    withSizes(benchmark::RegisterBenchmark("firmware_upload/ours", measure, "ours", true));
    withSizes(benchmark::RegisterBenchmark("firmware_upload/libfcgi", measure, "libfcgi", false));

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
