// Loading the time zone database, compared with a loop of system calls that opens and reads the same files: the
// table zone.tab, and all files of the regions in the table.
//
// timezones_system: the zones of this machine, about 400. timezones_made_up: a number of artificial zones.

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QSet>
#include <QtCore/QStringList>

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

const int RegionCount = 10;

char buffer[64 * 1024];

// Mounts a directory in place of the database until the end of the scope.
class MountedZones
{
public:
    explicit MountedZones(const QString& folder)
        : m_place(NBuildrootUclibcTimeZoneDatabase::S_TIMEZONE_DB_DIR.path())
    {
        NPrivateNamespace::mountCopy(folder, m_place);
    }
    ~MountedZones() { NPrivateNamespace::unmount(m_place); }

private:
    Q_DISABLE_COPY(MountedZones)

    const QString m_place;
};

const NTemporaryDirectory& systemZones()
{
    static NTemporaryDirectory directory;
    static const int status =
        QProcess::execute(QString::fromLatin1(NBASE_MAKE_ZONES), QStringList(directory.path()));
    if (status != 0)
        exit(EXIT_FAILURE);
    return directory;
}

// A name of lower-case letters, because zone names have no digits.
QByteArray nameFor(int number)
{
    QByteArray name;
    for (; number > 0 || name.isEmpty(); number /= 26)
        name.append(char('a' + number % 26));
    return name;
}

void makeZones(const NTemporaryDirectory& directory, int count)
{
    QByteArray table = "# made up\n";
    for (int number = 0; number < count; ++number) {
        const QByteArray zone = "Region_" + nameFor(number % RegionCount) + "/Town_" + nameFor(number);
        table += "XX\t+404251-0740023\t" + zone + "\tsome of the country\n";
        directory.writeFile(QString::fromLatin1("uclibc/" + zone), "CET-1CEST,M3.5.0,M10.5.0/3\n");
    }
    directory.writeFile(QString::fromLatin1("zone.tab"), table);
    directory.writeFile(QString::fromLatin1("version"), "2024a\n");
}

int loadDatabase()
{
    const NBuildrootUclibcTimeZoneDatabase database;
    int towns = 0;
    for (const NTimeZoneRegion* region : database.regions())
        towns += region->towns().size();
    return towns;
}

long readFile(int directory, const char* name)
{
    const int file = ::openat(directory, name, O_RDONLY | O_CLOEXEC);
    long total = 0;
    ssize_t count;
    while ((count = ::read(file, buffer, sizeof(buffer))) == ssize_t(sizeof(buffer)))
        total += count;
    ::close(file);
    return total + count;
}

// The floor does not include looking up the regions: they are known beforehand.
long readFiles(int parent, const char* name, const QSet<QByteArray>* regions)
{
    const int descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const directory = ::fdopendir(descriptor);
    long total = 0;
    while (const struct dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] == '.')
            continue;
        if (entry->d_type == DT_DIR) {
            if (!regions || regions->contains(QByteArray(entry->d_name)))
                total += readFiles(descriptor, entry->d_name, nullptr);
        } else if (!regions) {
            total += readFile(descriptor, entry->d_name);
        }
    }
    ::closedir(directory);
    return total;
}

QSet<QByteArray> regionNames()
{
    QSet<QByteArray> names;
    const NBuildrootUclibcTimeZoneDatabase database;
    for (const QString& name : database.regions().keys())
        names.insert(name.toLatin1());
    return names;
}

void measureOurs(benchmark::State& state, const QString& folder)
{
    const MountedZones mounted(folder);
    for (auto _ : state)
        benchmark::DoNotOptimize(loadDatabase());
    state.counters["zones"] = loadDatabase();
}

void measureReadFiles(benchmark::State& state, const QString& folder)
{
    const MountedZones mounted(folder);
    const QSet<QByteArray> regions = regionNames();
    const QByteArray database = "/usr/share/zoneinfo/";
    for (auto _ : state) {
        benchmark::DoNotOptimize(readFile(AT_FDCWD, (database + "zone.tab").constData()));
        benchmark::DoNotOptimize(readFile(AT_FDCWD, (database + "version").constData()));
        benchmark::DoNotOptimize(readFiles(AT_FDCWD, (database + "uclibc").constData(), &regions));
    }
}

void systemOurs(benchmark::State& state)
{
    measureOurs(state, systemZones().path());
}

void systemReadFiles(benchmark::State& state)
{
    measureReadFiles(state, systemZones().path());
}

void madeUpOurs(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    makeZones(directory, int(state.range(0)));
    measureOurs(state, directory.path());
}

void madeUpReadFiles(benchmark::State& state)
{
    const NTemporaryDirectory directory;
    makeZones(directory, int(state.range(0)));
    measureReadFiles(state, directory.path());
}

BENCHMARK(systemOurs)->Name("timezones_system/ours");
BENCHMARK(systemReadFiles)->Name("timezones_system/readfiles");
BENCHMARK(madeUpOurs)->Name("timezones_made_up/ours")->Arg(40)->Arg(400)->Arg(4000);
BENCHMARK(madeUpReadFiles)->Name("timezones_made_up/readfiles")->Arg(40)->Arg(400)->Arg(4000);

} // namespace

int main(int argc, char** argv)
{
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    systemZones();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
