// Reading values with the typed getters, compared with the look-up of the option that each of them begins with:
// the same call of the store, with names that are already converted.

#include <nbase/config/nucicursor.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <uci.h>

namespace {

/** The number of places, spread over the package, that are read in turn. */
const int PlaceCount = 64;

QString packageName(int sections)
{
    return QString::fromLatin1("interfaces%1").arg(sections);
}

QByteArray packageText(int sections)
{
    QByteArray text;
    for (int index = 0; index < sections; ++index) {
        text += "\nconfig interface 'section" + QByteArray::number(index) +
                "'\n"
                "\toption text 'static'\n"
                "\toption number '1500'\n"
                "\toption large '1234567890123'\n"
                "\toption real '12.75'\n"
                "\toption flag 'enabled'\n"
                "\toption mac '00:1a:2b:3c:4d:5e'\n"
                "\toption address '192.168.1.254'\n"
                "\toption bytes 'bm9sdmFy'\n"
                "\tlist items 'first'\n"
                "\tlist items 'second'\n";
    }
    return text;
}

/** A configuration directory with packages of every size, removed at the end of the program. */
class Store
{
public:
    Store()
        : m_path(
              QDir::tempPath() + QString::fromLatin1("/bench_ucicursor%1").arg(QCoreApplication::applicationPid()))
    {
        QDir().mkpath(m_path);
        static const int sizes[] = {100, 1000, 10000};
        for (size_t index = 0; index < sizeof(sizes) / sizeof(sizes[0]); ++index) {
            QFile file(m_path + QLatin1Char('/') + packageName(sizes[index]));
            if (!file.open(QIODevice::WriteOnly) || file.write(packageText(sizes[index])) < 0)
                std::abort();
            m_files << file.fileName();
        }
    }

    ~Store()
    {
        for (int index = 0; index < m_files.size(); ++index)
            QFile::remove(m_files.at(index));
        QDir().rmdir(m_path);
    }

    QString path() const { return m_path; }

private:
    QString m_path;
    QStringList m_files;
};

const Store& store()
{
    static const Store instance;
    return instance;
}

QStringList sectionNames(int sections)
{
    QStringList names;
    for (int index = 0; index < PlaceCount; ++index)
        names << QString::fromLatin1("section%1").arg(index * sections / PlaceCount);
    return names;
}

template <typename Read> void readWithCursor(benchmark::State& state, const char* option, Read read)
{
    const int sections = int(state.range(0));
    NUciCursor cursor(store().path(), store().path() + QString::fromLatin1("/save"));
    const QString package = packageName(sections);
    const QString name = QString::fromLatin1(option);
    const QStringList names = sectionNames(sections);
    int next = 0;
    if (!cursor.option(package, names.at(0), name))
        state.SkipWithError("the option is not found");
    for (auto _ : state) {
        read(cursor, package, names.at(next), name);
        next = (next + 1) % PlaceCount;
    }
    cursor.unload(package);
}

void lookUp(benchmark::State& state, const char* option)
{
    const int sections = int(state.range(0));
    uci_context* const context = uci_alloc_context();
    uci_set_confdir(context, QFile::encodeName(store().path()).constData());
    const QByteArray package = packageName(sections).toLatin1();
    uci_package* loaded = nullptr;
    if (uci_load(context, package.constData(), &loaded) != UCI_OK)
        state.SkipWithError("the package cannot be loaded");
    QList<QByteArray> names;
    for (int index = 0; index < PlaceCount; ++index)
        names << sectionNames(sections).at(index).toLatin1();
    int next = 0;
    for (auto _ : state) {
        uci_ptr place = uci_ptr();
        place.package = package.constData();
        place.section = names.at(next).constData();
        place.option = option;
        if (uci_lookup_ptr(context, &place, nullptr, true) != UCI_OK || !place.o)
            state.SkipWithError("the option is not found");
        benchmark::DoNotOptimize(place.o);
        next = (next + 1) % PlaceCount;
    }
    uci_free_context(context);
}

#define NBASE_BENCHMARK_GETTER(getter, option, defaultValue) \
    void getter(benchmark::State& state) \
    { \
        readWithCursor( \
            state, option, \
            [](NUciCursor& cursor, const QString& package, const QString& section, const QString& name) { \
                benchmark::DoNotOptimize(cursor.getter(package, section, name, defaultValue)); \
            }); \
    } \
    BENCHMARK(getter)->Name(#getter "/ours")->RangeMultiplier(10)->Range(100, 10000); \
    void getter##LookUp(benchmark::State& state) \
    { \
        lookUp(state, option); \
    } \
    BENCHMARK(getter##LookUp)->Name(#getter "/uci_lookup_ptr")->RangeMultiplier(10)->Range(100, 10000)

NBASE_BENCHMARK_GETTER(optionAsString, "text", QString());
NBASE_BENCHMARK_GETTER(optionAsShort, "number", short(0));
NBASE_BENCHMARK_GETTER(optionAsUShort, "number", ushort(0));
NBASE_BENCHMARK_GETTER(optionAsInt, "number", 0);
NBASE_BENCHMARK_GETTER(optionAsUInt, "number", 0u);
NBASE_BENCHMARK_GETTER(optionAsLong, "number", 0l);
NBASE_BENCHMARK_GETTER(optionAsULong, "number", 0ul);
NBASE_BENCHMARK_GETTER(optionAsLongLong, "large", 0ll);
NBASE_BENCHMARK_GETTER(optionAsULongLong, "large", 0ull);
NBASE_BENCHMARK_GETTER(optionAsFloat, "real", 0.0f);
NBASE_BENCHMARK_GETTER(optionAsDouble, "real", 0.0);
NBASE_BENCHMARK_GETTER(optionAsBoolean, "flag", false);
NBASE_BENCHMARK_GETTER(optionAsMacAddress, "mac", NMacAddress());
NBASE_BENCHMARK_GETTER(optionAsIpv4Address, "address", QHostAddress());
NBASE_BENCHMARK_GETTER(optionAsStringList, "items", QStringList());
NBASE_BENCHMARK_GETTER(optionAsByteArray, "bytes", QByteArray());

} // namespace

BENCHMARK_MAIN();
