// Reading and writing CSV: reading against a loop that reads the same lines and does nothing with them, writing
// against streaming lines that are finished already. Sizes are megabytes of text, those of the long field lines.

#include <nbase/io/ncsvfilereader.h>
#include <nbase/io/ncsvfilewriter.h>

#include <benchmark/benchmark.h>

#include <QtCore/QFile>
#include <QtCore/QTemporaryFile>
#include <QtCore/QTextStream>

#include <functional>
#include <map>
#include <sstream>
#include <stdlib.h>
#include <string>

namespace {

const int Megabyte = 1000 * 1000;

// One record of a log of measurements, as devices keep them.
std::string line(int number, bool quoted)
{
    const std::string count = std::to_string(number);
    if (quoted)
        return "\"2026-11-21T02:13:" + count.substr(0, 2) + "\",\"sensor, " + count +
               "\",\"21.75\",\"\"\"high\"\"\"," +
               "\"boiler \"\"north\"\", second circuit\",\"exceeded the limit that was set for it\"\n";
    return "2026-11-21T02:13:" + count.substr(0, 2) + ",sensor " + count +
           ",21.75,high,boiler north second circuit,exceeded the limit that was set for it and stayed above it\n";
}

// The text of so many megabytes, made once.
const QByteArray& text(int megabytes, bool quoted)
{
    static std::map<std::pair<int, bool>, QByteArray> texts;
    QByteArray& text = texts[std::make_pair(megabytes, quoted)];
    if (text.isEmpty()) {
        text.reserve(megabytes * Megabyte + 200);
        for (int number = 10; text.size() < megabytes * Megabyte; ++number)
            text += line(number, quoted).c_str();
    }
    return text;
}

// One field of so many lines.
QByteArray longField(int lines)
{
    QByteArray text = "\"";
    for (int index = 0; index < lines; ++index)
        text += "a line of the only field in this record, about as long as lines are\n";
    return text + "\"\n";
}

void finish(benchmark::State& state, qint64 bytes, bool done)
{
    if (!done)
        state.SkipWithError("the text was not read");
    state.SetBytesProcessed(state.iterations() * bytes);
}

bool readRecords(NCsvFileReader& reader)
{
    QStringList fields;
    bool isGood = true;
    qint64 count = 0;
    while (isGood && !reader.atEnd()) {
        isGood = reader.parseNextLine(fields);
        count += fields.size();
    }
    return isGood && count > 0;
}

bool readLines(QTextStream& stream)
{
    qint64 count = 0;
    while (!stream.atEnd())
        count += stream.readLine().size();
    return count > 0;
}

// A file in memory, so that the disk plays no part.
class TextFile
{
public:
    explicit TextFile(const QByteArray& bytes)
        : file(QString::fromLatin1("/dev/shm/bench_csv"))
    {
        if (!file.open() || file.write(bytes) != bytes.size() || !file.flush())
            abort();
    }

    QTemporaryFile file;
};

void readDevice(benchmark::State& state, const QByteArray& bytes, bool ours)
{
    TextFile text(bytes);
    bool done = true;
    for (auto _ : state) {
        text.file.seek(0);
        if (ours) {
            NCsvFileReader reader(&text.file, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&text.file);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readArray(benchmark::State& state, QByteArray bytes, bool ours)
{
    bool done = true;
    for (auto _ : state) {
        if (ours) {
            NCsvFileReader reader(&bytes, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&bytes, QIODevice::ReadOnly);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readString(benchmark::State& state, const QByteArray& bytes, bool ours)
{
    QString string = QString::fromLatin1(bytes.constData(), bytes.size());
    bool done = true;
    for (auto _ : state) {
        if (ours) {
            NCsvFileReader reader(&string, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&string, QIODevice::ReadOnly);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readStandard(benchmark::State& state, const QByteArray& bytes, bool ours)
{
    const std::string string(bytes.constData(), size_t(bytes.size()));
    bool done = true;
    for (auto _ : state) {
        std::istringstream stream(string);
        if (ours) {
            NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            size_t count = 0;
            for (std::string line; std::getline(stream, line);)
                count += line.size();
            done = count > 0;
        }
    }
    finish(state, bytes.size(), done);
}

// What write...() writes: the fields of the text's first records, and the same lines in their finished form.
struct Records
{
    explicit Records(bool quoted)
    {
        QByteArray bytes;
        for (int number = 10; number < 1010; ++number)
            bytes += line(number, quoted).c_str();
        NCsvFileReader reader(bytes, NCsvUtilities::SeparatorComma);
        if (!reader.parseFile(fields))
            abort();
        for (const QStringList& record : fields) {
            QString line;
            NCsvFileWriter(&line, NCsvUtilities::SeparatorComma).appendLine(record);
            lines << line;
        }
    }

    QList<QStringList> fields;
    QStringList lines;
};

// Hands @a write the number of each record to be written.
template <typename Write> qint64 writeMegabytes(const Records& records, int megabytes, Write write)
{
    qint64 written = 0;
    for (int index = 0; written < qint64(megabytes) * Megabyte; index = (index + 1) % records.lines.size()) {
        write(index);
        written += records.lines.at(index).size();
    }
    return written;
}

void writeDevice(benchmark::State& state, bool quoted, bool ours)
{
    const Records records(quoted);
    qint64 bytes = 0;
    for (auto _ : state) {
        QFile file(QString::fromLatin1("/dev/null"));
        if (!file.open(QIODevice::WriteOnly))
            abort();
        if (ours) {
            NCsvFileWriter writer(&file, NCsvUtilities::SeparatorComma);
            bytes = writeMegabytes(
                records, int(state.range(0)), [&](int index) { writer.appendLine(records.fields.at(index)); });
        } else {
            QTextStream stream(&file);
            bytes = writeMegabytes(
                records, int(state.range(0)), [&](int index) { stream << records.lines.at(index); });
        }
    }
    finish(state, bytes, true);
}

void writeStandard(benchmark::State& state, bool quoted, bool ours)
{
    const Records records(quoted);
    qint64 bytes = 0;
    for (auto _ : state) {
        std::ostringstream stream;
        if (ours) {
            NCsvFileWriter writer(static_cast<std::ostream*>(&stream), NCsvUtilities::SeparatorComma);
            bytes = writeMegabytes(
                records, int(state.range(0)), [&](int index) { writer.appendLine(records.fields.at(index)); });
        } else {
            bytes = writeMegabytes(records, int(state.range(0)), [&](int index) {
                const QByteArray latin1 = records.lines.at(index).toLatin1();
                stream.write(latin1.constData(), latin1.size());
            });
        }
    }
    finish(state, bytes, true);
}

void add(
    const std::string& name, const char* floor, int smallest,
    const std::function<void(benchmark::State&, bool ours)>& measure)
{
    for (int ours = 1; ours >= 0; --ours) {
        const std::string variant = name + '/' + (ours ? "ours" : floor);
        benchmark::RegisterBenchmark(variant.c_str(), [=](benchmark::State& state) { measure(state, ours != 0); })
            ->RangeMultiplier(10)
            ->Range(smallest, smallest * 100)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    for (int quoted = 0; quoted < 2; ++quoted) {
        const std::string kind = quoted ? "_quoted" : "_plain";
        const auto size = [](const benchmark::State& state) { return int(state.range(0)); };
        add("csv_read_device" + kind, "readline", 1,
            [=](benchmark::State& state, bool ours) { readDevice(state, text(size(state), quoted != 0), ours); });
        add("csv_read_array" + kind, "readline", 1,
            [=](benchmark::State& state, bool ours) { readArray(state, text(size(state), quoted != 0), ours); });
        add("csv_read_string" + kind, "readline", 1,
            [=](benchmark::State& state, bool ours) { readString(state, text(size(state), quoted != 0), ours); });
        add("csv_read_standard" + kind, "getline", 1, [=](benchmark::State& state, bool ours) {
            readStandard(state, text(size(state), quoted != 0), ours);
        });
        add("csv_write_device" + kind, "finished_lines", 1,
            [=](benchmark::State& state, bool ours) { writeDevice(state, quoted != 0, ours); });
        add("csv_write_standard" + kind, "finished_lines", 1,
            [=](benchmark::State& state, bool ours) { writeStandard(state, quoted != 0, ours); });
    }
    add("csv_read_long_field", "readline", 1000,
        [](benchmark::State& state, bool ours) { readArray(state, longField(int(state.range(0))), ours); });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
