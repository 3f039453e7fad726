// Reading the system log, compared with grep(1) with the same expression on the same file: 1, 10 and 100 MB of a
// typical log. "log_lines_errors" returns the few lines that are errors, "log_lines_all" every line, and
// "log_lines_one_program" the lines of one program. grep only counts matching lines, once comparing bytes and once
// in the user's locale.

#include <nbase/core/nsyslog.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <QtCore/QFile>

#include <string>
#include <vector>

namespace {

const int Megabyte = 1000 * 1000;

// Lines of a router's log, with their typical frequency.
const char* const Lines[] = {
    "daemon.info dhcpd[811]: DHCPREQUEST for 192.168.1.%u from 52:54:00:12:34:56 via br0",
    "daemon.info dhcpd[811]: DHCPACK on 192.168.1.%u to 52:54:00:12:34:56 (panel) via br0",
    "kern.info kernel: [%u.551231] br0: port 2(eth1) entered forwarding state",
    "kern.info kernel: [%u.018211] mmcblk0: p1 p2 p3 p4",
    "auth.info sshd[%u]: Accepted publickey for root from 192.168.1.7 port 51122 ssh2: ED25519",
    "authpriv.info sshd[%u]: pam_unix(sshd:session): session opened for user root(uid=0) by (uid=0)",
    "cron.info crond[402]: USER root pid %u cmd run-parts /etc/cron.hourly",
    "daemon.notice ntpd[377]: ntp engine offset 0.%u s",
    "local3.debug device[540]: input 3 changed to high after %u ms",
    "local3.debug device[540]: serial port ttyS1: 64 bytes read, %u in total",
    "user.warn device[540]: the answer of the meter took %u ms",
    "daemon.err lighttpd[501]: (connections.c.712) connection closed: write failed on fd %u",
};

// Created once for each size and removed at the end.
class LogFiles
{
public:
    ~LogFiles()
    {
        for (const std::string& path : m_paths)
            ::unlink(path.c_str());
    }

    const std::string& path(int megabytes)
    {
        for (size_t index = 0; index < m_megabytes.size(); ++index) {
            if (m_megabytes[index] == megabytes)
                return m_paths[index];
        }
        m_megabytes.push_back(megabytes);
        m_paths.push_back(write(megabytes));
        return m_paths.back();
    }

private:
    static std::string write(int megabytes)
    {
        std::string path = "/tmp/nbase-bench-syslog-XXXXXX";
        const int descriptor = ::mkstemp(&path[0]);
        FILE* const file = descriptor < 0 ? nullptr : fdopen(descriptor, "w");
        if (!file) {
            perror("cannot make the log");
            exit(EXIT_FAILURE);
        }
        unsigned random = 1;
        for (long size = 0, second = 0; size < long(megabytes) * Megabyte; second += random >> 30) {
            random = random * 1664525u + 1013904223u;
            size += fprintf(
                file, "Nov %2ld %02ld:%02ld:%02ld gateway ", 1 + second / 86400 % 30, second / 3600 % 24,
                second / 60 % 60, second % 60);
            size += fprintf(file, Lines[(random >> 8) % (sizeof(Lines) / sizeof(Lines[0]))], random >> 16);
            size += fprintf(file, "\n");
        }
        fclose(file);
        return path;
    }

    std::vector<int> m_megabytes;
    std::vector<std::string> m_paths;
};

LogFiles& logFiles()
{
    static LogFiles files;
    return files;
}

QString joined(const QStringList& labels)
{
    return labels.join(QString::fromLatin1("|"));
}

// The expression that NSysLog::logLines() documents, in grep's notation.
std::string expression(int level, const char* program)
{
    const QString text =
        QString::fromLatin1("^(%1) [ 0-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [^ ]* (%2)\\.(%3) %4: .*$")
            .arg(
                joined(NSysLog::S_LOG_MONTHES_LABELS), joined(NSysLog::S_LOG_FACILITIES_LABELS),
                joined(NSysLog::S_LOG_LEVELS_LABELS.mid(0, level + 1)), QString::fromLatin1(program));
    return text.toLatin1().constData();
}

// The number of lines that grep finds; -1 when it fails.
long grep(const std::string& path, const std::string& pattern, bool comparingBytes)
{
    int output[2];
    if (::pipe2(output, O_CLOEXEC) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    const char* const arguments[] = {"env",        comparingBytes ? "LC_ALL=C" : "NOTHING=",
                                     "grep",       "-E",
                                     "-a",         "-c",
                                     "-e",         pattern.c_str(),
                                     path.c_str(), nullptr};
    pid_t process = -1;
    const int error =
        ::posix_spawnp(&process, "env", &actions, nullptr, const_cast<char* const*>(arguments), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    char text[32] = "";
    const ssize_t size = ::read(output[0], text, sizeof(text) - 1);
    ::close(output[0]);
    int status = -1;
    if (error != 0 || ::waitpid(process, &status, 0) != process || !WIFEXITED(status) || size <= 0)
        return -1;
    return strtol(text, nullptr, 10);
}

void finish(benchmark::State& state, long lines)
{
    if (lines <= 0)
        state.SkipWithError("no lines were found");
    state.SetBytesProcessed(state.iterations() * state.range(0) * Megabyte);
    state.counters["lines"] = double(lines);
}

void ours(benchmark::State& state, int level, const char* program)
{
    const QString path = QFile::decodeName(logFiles().path(int(state.range(0))).c_str());
    const NSysLog log(0, LOG_USER, QStringList(path), nullptr);
    const QList<QRegExp> programs = QList<QRegExp>() << QRegExp(QString::fromLatin1(program));
    long lines = 0;
    for (auto _ : state)
        lines = log.logLines(NSysLog::LogLevels(level), programs).size();
    finish(state, lines);
}

void grep(benchmark::State& state, int level, const char* program, bool comparingBytes)
{
    const std::string& path = logFiles().path(int(state.range(0)));
    const std::string pattern = expression(level, program);
    long lines = 0;
    for (auto _ : state)
        lines = grep(path, pattern, comparingBytes);
    finish(state, lines);
}

void registerCase(const std::string& name, int level, const char* program)
{
    const auto add = [&](const char* variant, const std::function<void(benchmark::State&)>& function) {
        benchmark::RegisterBenchmark((name + '/' + variant).c_str(), function)
            ->RangeMultiplier(10)
            ->Range(1, 100)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    };
    add("ours", [=](benchmark::State& state) { ours(state, level, program); });
    add("grep_bytes", [=](benchmark::State& state) { grep(state, level, program, true); });
    add("grep_locale", [=](benchmark::State& state) { grep(state, level, program, false); });
}

} // namespace

int main(int argc, char** argv)
{
    registerCase("log_lines_errors", NSysLog::Error, "[^: ]*");
    registerCase("log_lines_all", NSysLog::Debug, "[^: ]*");
    registerCase("log_lines_one_program", NSysLog::Debug, "device\\[[0-9]+\\]");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
