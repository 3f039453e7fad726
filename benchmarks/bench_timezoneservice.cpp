// The time zone database's web service through lighttpd, with this machine's zones and a session, against a bare
// libfcgi program that sends the same bytes. Both run alternately in short slices, so that other load on the
// machine affects both; the time of a case is the median of its slices.
//
// The kernel's placement of the processes has more influence than their work, so their processors are fixed: all
// on one, where the work of all adds up, as on most devices; and the programs on another one than the web server
// and its clients.
//
// The counters: requests per second, and the processor time that the program takes for an answer, in microseconds.

#include "fcgiload.h"

#include "support/nlighttpd.h"
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QVector>

#include <algorithm>
#include <sched.h>
#include <time.h>

using namespace FcgiLoad;

namespace {

const int SliceCount = 41;
const int RequestsPerSlice = ConnectionCount * RequestsPerConnection;

struct Document
{
    const char* name;
    const char* query;
};

const Document documents[] = {
    {"information", "section=information"}, {"content", "section=content"}, {"database", ""}};

enum { DocumentCount = sizeof(documents) / sizeof(documents[0]) };

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

// The processor time that a process has taken so far, in nanoseconds.
qint64 processorTime(const QProcess& process)
{
    clockid_t clock;
    struct timespec time;
    if (::clock_getcpuclockid(pid_t(process.processId()), &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        qFatal("the processor time of a program cannot be read");
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

// Lets a process run on one processor of those that it may use now; 0 is the calling process.
void runOn(pid_t process, int processor)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    if (::sched_setaffinity(process, sizeof(processors), &processors) != 0)
        qFatal("a program cannot be put onto the processor %d", processor);
}

QVector<int> availableProcessors()
{
    cpu_set_t processors;
    QVector<int> numbers;
    ::sched_getaffinity(0, sizeof(processors), &processors);
    for (int number = 0; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(number, &processors))
            numbers.append(number);
    }
    return numbers;
}

double median(QVector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values.at(values.size() / 2);
}

/** One of both programs and what was measured of it. */
class Variant
{
public:
    Variant(const QString& program, const QString& socket, const char* prefix)
        : m_program(program)
        , m_socket(socket)
        , m_prefix(prefix)
    {
    }

    ~Variant()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    QString socket() const { return m_socket; }
    void start(const QStringList& arguments)
    {
        startServer(m_process, m_program, QStringList(m_socket) << arguments);
    }

    void runOn(int processor) { ::runOn(pid_t(m_process.processId()), processor); }

    QByteArray readLine()
    {
        while (!m_process.canReadLine() && m_process.waitForReadyRead()) {
        }
        return m_process.readLine().trimmed();
    }

    QByteArray httpRequest(const Document& document, const QByteArray& cookie) const
    {
        return "GET " + m_prefix + '?' + document.query + " HTTP/1.1\r\nHost: device\r\nCookie: " + cookie +
               "\r\n\r\n";
    }

    void measure(const Address& webServer, const QByteArray& request, const QByteArray& body)
    {
        Connection connections[ConnectionCount];
        const qint64 replySize = httpReplySize(webServer, request, body.size());
        QElapsedTimer timer;
        timer.start();
        const qint64 before = processorTime(m_process);
        load(webServer, request, replySize, body.size(), connections);
        wallTimes.append(double(timer.nsecsElapsed()) / RequestsPerSlice);
        processorTimes.append(double(processorTime(m_process) - before) / RequestsPerSlice);
    }

    QVector<double> wallTimes; ///< nanoseconds per answer, of each slice
    QVector<double> processorTimes;

private:
    Q_DISABLE_COPY(Variant)

    const QString m_program;
    const QString m_socket;
    const QByteArray m_prefix;
    QProcess m_process;
};

// What the web server sends to @a request; the reply of a program that closes its connection needs no more.
QByteArray httpBody(const Address& webServer, QByteArray request)
{
    request.replace("Host: device\r\n", "Host: device\r\nConnection: close\r\n");
    const int descriptor = webServer.connect();
    if (::send(descriptor, request.constData(), size_t(request.size()), MSG_NOSIGNAL) != request.size())
        qFatal("a request cannot be sent");
    QByteArray reply;
    char buffer[4096];
    ssize_t size = 0;
    while ((size = ::recv(descriptor, buffer, sizeof(buffer), 0)) > 0)
        reply.append(buffer, int(size));
    ::close(descriptor);
    if (!reply.startsWith("HTTP/1.1 200 "))
        qFatal("the reply is not the one expected:\n%s", reply.left(1000).constData());
    return reply.mid(reply.indexOf("\r\n\r\n") + 4);
}

class Comparison
{
public:
    Comparison()
        : m_ours(text(TIMEZONESERVICE_OURS_PROGRAM), m_directory.filePath(text("ours")), "/ours")
        , m_libfcgi(text(TIMEZONESERVICE_LIBFCGI_PROGRAM), m_directory.filePath(text("libfcgi")), "/libfcgi")
        , m_measuredIndex(-1)
        , m_measuredProcessor(-1)
    {
        if (QProcess::execute(text(NBASE_MAKE_ZONES), QStringList(m_zones.path())) != 0)
            qFatal("the zones cannot be made");
        NPrivateNamespace::mountCopy(m_zones.path(), NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_DB_DIR.path());
        m_ours.start(QStringList());
        m_cookie = m_ours.readLine();
        if (!m_lighttpd.start(
                NLighttpd::fastCgi(text("/ours"), m_ours.socket()) +
                NLighttpd::fastCgi(text("/libfcgi"), m_libfcgi.socket()) +
                "server.max-keep-alive-requests = 1000000\n"))
            qFatal("lighttpd does not start:\n%s", m_lighttpd.log().constData());
        startLibfcgi();
    }

    ~Comparison() { m_lighttpd.stop(); }

    // Measures both programs, unless that was done for the report of the other one.
    void report(benchmark::State& state, int index, int processor, bool ours)
    {
        if (m_measuredIndex != index || m_measuredProcessor != processor)
            measure(index, processor);
        const Variant& variant = ours ? m_ours : m_libfcgi;
        for (auto _ : state)
            state.SetIterationTime(median(variant.wallTimes) / 1e9);
        state.counters["requests_per_second"] = 1e9 / median(variant.wallTimes);
        state.counters["processor_us"] = median(variant.processorTimes) / 1e3;
        state.counters["bytes"] = m_bodies[index].size();
    }

private:
    Q_DISABLE_COPY(Comparison)

    void startLibfcgi()
    {
        QStringList arguments;
        for (int index = 0; index < DocumentCount; ++index) {
            m_bodies[index] = httpBody(webServer(), m_ours.httpRequest(documents[index], m_cookie));
            arguments << text(documents[index].query)
                      << m_directory.writeFile(
                             text("document") + QString::number(index),
                             "Content-Type: application/json; charset=utf-8\r\n\r\n" + m_bodies[index]);
        }
        m_libfcgi.start(arguments);
        for (int index = 0; index < DocumentCount; ++index) {
            if (httpBody(webServer(), m_libfcgi.httpRequest(documents[index], m_cookie)) != m_bodies[index])
                qFatal("the programs send different bytes");
        }
    }

    Address webServer() const { return Address::loopback(m_lighttpd.port()); }

    void measure(int index, int processor)
    {
        Variant* const variants[] = {&m_ours, &m_libfcgi};
        for (Variant* variant : variants)
            variant->runOn(processor);
        // The first slice of each warms up.
        for (int slice = 0; slice <= SliceCount; ++slice) {
            for (Variant* variant : variants) {
                if (slice <= 1) {
                    variant->wallTimes.clear();
                    variant->processorTimes.clear();
                }
                variant->measure(webServer(), variant->httpRequest(documents[index], m_cookie), m_bodies[index]);
            }
        }
        m_measuredIndex = index;
        m_measuredProcessor = processor;
    }

    NTemporaryDirectory m_directory;
    NTemporaryDirectory m_zones;
    Variant m_ours;
    Variant m_libfcgi;
    NLighttpd m_lighttpd;
    QByteArray m_cookie;
    QByteArray m_bodies[DocumentCount];
    int m_measuredIndex;
    int m_measuredProcessor;
};

void measure(benchmark::State& state, int index, int processor, bool ours)
{
    static Comparison comparison;
    comparison.report(state, index, processor, ours);
}

void registerCases(const char* placement, int processor)
{
    for (int index = 0; index < DocumentCount; ++index) {
        const QByteArray name = QByteArray("timezoneservice_") + documents[index].name + placement;
        benchmark::RegisterBenchmark((name + "/ours").constData(), measure, index, processor, true)
            ->Iterations(1)
            ->UseManualTime();
        benchmark::RegisterBenchmark((name + "/libfcgi").constData(), measure, index, processor, false)
            ->Iterations(1)
            ->UseManualTime();
    }
}

} // namespace

int main(int argc, char** argv)
{
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    QCoreApplication application(argc, argv);
    const QVector<int> processors = availableProcessors();
    runOn(0, processors.first());
    registerCases("_on_one_processor", processors.first());
    if (processors.size() > 1)
        registerCases("_on_two_processors", processors.at(1));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
