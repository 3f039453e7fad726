// Pings of 127.0.0.1 by so many sessions at the same time, one per session and second, through the web service's
// processor. The time is that of the processor for one ping, of the program and the commands together, compared
// with starting the command and waiting for its end. The counter "core_percent" is the use of one processor core,
// "zombies" the largest number of ended commands that were found at a time, "descriptors" how many descriptors
// were left at the end.

#include <nbase/network/nnetworkping.h>
#include <nbase/network/nnetworkpingfcgirequestprocessor.h>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

namespace {

typedef std::chrono::steady_clock Clock;

const int Seconds = 5;

double seconds(const struct timeval& time)
{
    return double(time.tv_sec) + double(time.tv_usec) / 1e6;
}

// The time that this program and its ended children have used.
double processorTime()
{
    double time = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage;
        ::getrusage(who, &usage);
        time += seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return time;
}

int descriptorCount()
{
    return QDir(QString::fromLatin1("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

// The children of the only thread that starts any (proc(5)).
int zombieCount()
{
    QFile list(QString::fromLatin1("/proc/self/task/%1/children").arg(::getpid()));
    if (!list.open(QIODevice::ReadOnly))
        return 0;
    int count = 0;
    const QList<QByteArray> children = list.readAll().trimmed().split(' ');
    for (const QByteArray& child : children) {
        QFile file(QString::fromLatin1("/proc/%1/stat").arg(child.toInt()));
        if (!child.isEmpty() && file.open(QIODevice::ReadOnly) && file.readAll().contains(") Z "))
            ++count;
    }
    return count;
}

// Uses the command ping of BusyBox, as on the devices.
class BusyBoxPing
{
public:
    BusyBoxPing()
    {
        const QByteArray searchPath = qgetenv("PATH");
        const QList<QByteArray> directories = searchPath.split(':');
        for (const QByteArray& directory : directories) {
            if (QFile::exists(QFile::decodeName(directory + "/busybox")))
                QFile::link(
                    QFile::decodeName(directory + "/busybox"), m_directory.filePath(QString::fromLatin1("ping")));
        }
        qputenv("PATH", QFile::encodeName(m_directory.path()) + ':' + searchPath);
    }

private:
    NTemporaryDirectory m_directory;
};

void pingInSessions(benchmark::State& state)
{
    NwaWebSessionManager sessions;
    NwaCookieFcgiSessionIdentifier identifier(&sessions);
    NNetworkPingFcgiRequestProcessor processor(&identifier, &sessions, nullptr);
    processor.setMaximumRunnerCount(int(state.range(0)));
    double usedTime = 0;
    double passedTime = 0;
    int zombies = 0;
    const int descriptors = descriptorCount();
    for (auto _ : state) {
        const double usedBefore = processorTime();
        const Clock::time_point begin = Clock::now();
        std::vector<NNetworkPing*> pings;
        std::vector<QUuid> ids;
        for (int i = 0; i < state.range(0); ++i) {
            NwaWebSession* const session = sessions.createSession();
            ids.push_back(session->id());
            pings.push_back(processor.startPing(session, QString::fromLatin1("127.0.0.1"), 0, 5, 1));
        }
        Clock::duration passed;
        double nextScan = 0;
        do {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            passed = Clock::now() - begin;
            const double now = std::chrono::duration<double>(passed).count();
            if (now >= nextScan) {
                zombies = qMax(zombies, zombieCount());
                nextScan = now + 0.1;
            }
        } while (passed < std::chrono::seconds(Seconds));
        quint32 count = 0;
        for (const NNetworkPing* const ping : pings) {
            if (ping->goodNb() != ping->sentNb())
                state.SkipWithError("a ping was not answered");
            count += ping->sentNb();
        }
        for (const QUuid& id : ids)
            sessions.removeSession(id);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const double used = processorTime() - usedBefore;
        usedTime += used;
        passedTime += std::chrono::duration<double>(Clock::now() - begin).count();
        state.SetIterationTime(used / count);
    }
    state.counters["core_percent"] = 100 * usedTime / passedTime;
    state.counters["zombies"] = zombies;
    state.counters["descriptors"] = descriptorCount() - descriptors;
}

void startPing(benchmark::State& state)
{
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const char* const arguments[] = {"ping", "-c1", "-W5", "127.0.0.1", nullptr};
    for (auto _ : state) {
        const double usedBefore = processorTime();
        const int count = int(state.range(0)) * Seconds;
        for (int i = 0; i < count; ++i) {
            pid_t process = -1;
            int status = -1;
            if (::posix_spawnp(&process, "ping", &actions, nullptr, const_cast<char**>(arguments), environ) != 0 ||
                ::waitpid(process, &status, 0) != process || status != 0)
                state.SkipWithError("a ping was not answered");
        }
        state.SetIterationTime((processorTime() - usedBefore) / count);
    }
    ::posix_spawn_file_actions_destroy(&actions);
}

} // namespace

int main(int argc, char** argv)
{
    // There, any user may ping.
    NPrivateNamespace::enter(NPrivateNamespace::Network);
    QCoreApplication application(argc, argv);
    const BusyBoxPing ping;
    // Qt opens a pipe for the signals of children when the first one is started.
    QProcess::execute(QString::fromLatin1("/bin/true"), QStringList());
    for (const int sessions : {1, 10, 100}) {
        benchmark::RegisterBenchmark("ping_sessions/ours", pingInSessions)
            ->Arg(sessions)
            ->UseManualTime()
            ->Iterations(3)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("ping_sessions/spawn", startPing)
            ->Arg(sessions)
            ->UseManualTime()
            ->Iterations(3)
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
