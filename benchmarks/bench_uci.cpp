// Loading packages and looking up places in them. Loading is compared with reading the same file with getline(3)
// and copying each word; look-ups of all sections in random order with the same in a package of 100 sections. The
// number of steps is the same in both; what remains is that a large package does not fit into the caches of the
// processor.

#include <benchmark/benchmark.h>

#include <uci.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/** A configuration directory that is removed at the end of the program. */
class Directory
{
public:
    Directory()
    {
        char name[] = "/tmp/bench_uciXXXXXX";
        if (!mkdtemp(name))
            std::abort();
        m_path = name;
        mkdir((m_path + "/save").c_str(), 0755);
    }

    ~Directory()
    {
        for (const std::string& file : m_files)
            unlink(file.c_str());
        rmdir((m_path + "/save").c_str());
        rmdir(m_path.c_str());
    }

    std::string write(const std::string& name, const std::string& text)
    {
        const std::string file = m_path + '/' + name;
        FILE* stream = std::fopen(file.c_str(), "w");
        std::fwrite(text.data(), 1, text.size(), stream);
        std::fclose(stream);
        m_files.push_back(file);
        return file;
    }

    uci_context* newContext() const
    {
        uci_context* context = uci_alloc_context();
        uci_set_confdir(context, m_path.c_str());
        uci_set_savedir(context, (m_path + "/save").c_str());
        return context;
    }

private:
    std::string m_path;
    std::vector<std::string> m_files;
};

Directory& directory()
{
    static Directory instance;
    return instance;
}

std::string nameOf(const char* prefix, long number)
{
    return prefix + std::to_string(number);
}

/** A package with ten options in each section, as is typical of devices. */
std::string writeOptions(long count)
{
    std::string text;
    for (long i = 0; i < count; ++i) {
        if (i % 10 == 0)
            text += "\nconfig interface 'section" + std::to_string(i / 10) + "'\n";
        text += "\toption option" + std::to_string(i % 10) + " 'value " + std::to_string(i) + "'\n";
    }
    return directory().write(nameOf("options", count), text);
}

std::string writeOneSection(long count)
{
    std::string text("config interface 'only'\n");
    for (long i = 0; i < count; ++i)
        text += "\toption option" + std::to_string(i) + " 'value " + std::to_string(i) + "'\n";
    return directory().write(nameOf("one", count), text);
}

/** Reads a file line by line and copies each word, as any reader has to that returns strings. */
void copyWords(const std::string& file, std::vector<char*>& words)
{
    FILE* stream = std::fopen(file.c_str(), "r");
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, stream) > 0) {
        char* rest = nullptr;
        for (char* word = strtok_r(line, " \t\n", &rest); word; word = strtok_r(nullptr, " \t\n", &rest))
            words.push_back(strdup(word));
    }
    std::free(line);
    std::fclose(stream);
}

void load(benchmark::State& state, const std::string& name)
{
    uci_context* context = directory().newContext();
    for (auto _ : state) {
        uci_package* package = nullptr;
        if (uci_load(context, name.c_str(), &package) != UCI_OK)
            state.SkipWithError("the package cannot be loaded");
        benchmark::DoNotOptimize(package);
        uci_unload(context, package);
    }
    uci_free_context(context);
    state.counters["per option"] = benchmark::Counter(
        double(state.range(0)), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void readAndCopy(benchmark::State& state, const std::string& file)
{
    std::vector<char*> words;
    for (auto _ : state) {
        copyWords(file, words);
        for (char* word : words)
            std::free(word);
        words.clear();
    }
}

void loadOptions(benchmark::State& state)
{
    writeOptions(state.range(0));
    load(state, nameOf("options", state.range(0)));
}
BENCHMARK(loadOptions)->Name("uci-load/ours")->Arg(100)->Arg(10000)->Arg(100000);

void readOptions(benchmark::State& state)
{
    readAndCopy(state, writeOptions(state.range(0)));
}
BENCHMARK(readOptions)->Name("uci-load/getline and copies")->Arg(100)->Arg(10000)->Arg(100000);

void loadOneSection(benchmark::State& state)
{
    writeOneSection(state.range(0));
    load(state, nameOf("one", state.range(0)));
}
BENCHMARK(loadOneSection)->Name("uci-load-one-section/ours")->Arg(100)->Arg(10000)->Arg(100000);

void readOneSection(benchmark::State& state)
{
    readAndCopy(state, writeOneSection(state.range(0)));
}
BENCHMARK(readOneSection)->Name("uci-load-one-section/getline and copies")->Arg(100)->Arg(10000)->Arg(100000);

/** Looks up an option of each section, in random order. */
void lookUp(benchmark::State& state, long sections)
{
    std::string text;
    for (long i = 0; i < sections; ++i)
        text += "config interface 'section" + std::to_string(i) + "'\n\toption first '1'\n\toption second '2'\n";
    const std::string package = nameOf("sections", sections);
    directory().write(package, text);
    uci_context* context = directory().newContext();
    uci_package* loaded = nullptr;
    uci_load(context, package.c_str(), &loaded);
    std::vector<std::string> names;
    for (long i = 0; i < sections; ++i)
        names.push_back(nameOf("section", i));
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    size_t next = 0;
    for (auto _ : state) {
        uci_ptr place = uci_ptr();
        place.package = package.c_str();
        place.section = names[next].c_str();
        next = next + 1 < names.size() ? next + 1 : 0;
        place.option = "second";
        if (uci_lookup_ptr(context, &place, nullptr, true) != UCI_OK || !place.o)
            state.SkipWithError("the option is not found");
        benchmark::DoNotOptimize(place.o);
    }
    uci_free_context(context);
}

void lookUpInMany(benchmark::State& state)
{
    lookUp(state, state.range(0));
}
BENCHMARK(lookUpInMany)->Name("uci-lookup/ours")->Arg(1000)->Arg(10000)->Arg(100000);

void lookUpInFew(benchmark::State& state)
{
    lookUp(state, 100);
}
BENCHMARK(lookUpInFew)->Name("uci-lookup/in 100 sections")->Arg(1000)->Arg(10000)->Arg(100000);

} // namespace

int main(int argc, char** argv)
{
    // By default glibc returns memory to the kernel when a large package is unloaded, but not after a small one,
    // so that only the large one would have the cost of allocating it again.
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
