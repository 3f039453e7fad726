// The cost of linking the library without calling it: the time from the start of a program to its end, and its
// resident memory. "startup/without" is the same program without any library, "startup/toolkit" links only the Qt
// libraries that the library uses; the difference to the latter is the cost of the library itself. The counter
// "resident_KiB" is the resident memory.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

// Starts @a program with the descriptor @a input as its standard input. Returns -1 when that fails.
pid_t start(const char* program, int input)
{
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    char* const arguments[] = {const_cast<char*>(program), nullptr};
    pid_t process = -1;
    const int error = ::posix_spawn(&process, program, &actions, nullptr, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? process : -1;
}

bool endsWell(pid_t process)
{
    int status = 0;
    return ::waitpid(process, &status, 0) == process && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

char processState(const std::string& directory)
{
    char state = '?';
    FILE* const file = fopen((directory + "/stat").c_str(), "re");
    if (!file)
        return state;
    if (fscanf(file, "%*d (%*[^)]) %c", &state) != 1)
        state = '?';
    fclose(file);
    return state;
}

double residentPages(const std::string& directory)
{
    unsigned long resident = 0;
    FILE* const file = fopen((directory + "/statm").c_str(), "re");
    if (!file)
        return 0;
    if (fscanf(file, "%*u %lu", &resident) != 1)
        resident = 0;
    fclose(file);
    return double(resident);
}

// What the process has written to and shares with no other, which is what a further program costs (proc(5),
// smaps).
double privateKibibytes(const std::string& directory)
{
    unsigned long dirty = 0;
    FILE* const file = fopen((directory + "/smaps_rollup").c_str(), "re");
    if (!file)
        return 0;
    char line[256];
    while (fgets(line, sizeof(line), file)) {
        if (sscanf(line, "Private_Dirty: %lu kB", &dirty) == 1)
            break;
    }
    fclose(file);
    return double(dirty);
}

// Counts the memory of a program that has reached main(), where it sleeps until its standard input ends.
void countMemory(benchmark::State& state, const char* program)
{
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0)
        return;
    const pid_t process = start(program, input[0]);
    ::close(input[0]);
    const std::string directory = "/proc/" + std::to_string(process);
    double pages = 0;
    // It also sleeps while the dynamic linker waits for the disk, so it must be found asleep repeatedly.
    for (int asleep = 0; asleep < 20;) {
        ::usleep(1000);
        asleep = processState(directory) == 'S' ? asleep + 1 : 0;
        pages = residentPages(directory);
    }
    state.counters["resident_KiB"] = pages * double(::sysconf(_SC_PAGESIZE)) / 1024;
    state.counters["private_KiB"] = privateKibibytes(directory);
    ::close(input[1]);
    endsWell(process);
}

void startup(benchmark::State& state, const char* program)
{
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (auto _ : state) {
        const pid_t process = start(program, nothing);
        if (process < 0 || !endsWell(process)) {
            state.SkipWithError("the program did not run");
            break;
        }
    }
    ::close(nothing);
    countMemory(state, program);
}

BENCHMARK_CAPTURE(startup, ours, STARTUP_LIBRARY)->UseRealTime()->Unit(benchmark::kMicrosecond);
#ifdef STARTUP_LIBRARY_WITHOUT_GUI
BENCHMARK_CAPTURE(startup, without_gui, STARTUP_LIBRARY_WITHOUT_GUI)->UseRealTime()->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK_CAPTURE(startup, toolkit, STARTUP_TOOLKIT)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(startup, without, STARTUP_NOTHING)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
