// Reading and writing CSV. Reading is compared with a loop that only reads the same lines, writing with streaming
// complete lines. A second floor includes the cost of a string for each field: reading lines and splitting them at
// every separator into reused strings, and streaming each field and separator unchanged. Sizes are megabytes of
// text; for the long field, lines.

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
#include <vector>

namespace {

const int Megabyte = 1000 * 1000;

// The library, complete lines, or lines split at separators.
enum Way { Ours, Lines, Fields };

// A record of a typical log of measurements.
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

// The text of a number of megabytes, created once.
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

// One field with a number of lines.
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

// The minimal cost of separate fields: only separators are searched for, and the strings are reused.
bool readFields(std::istream& stream)
{
    qint64 count = 0;
    QList<QString> fields;
    for (std::string line; std::getline(stream, line);) {
        int index = 0;
        for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1, ++index) {
            end = line.find(',', begin);
            if (index == fields.size())
                fields.append(QString());
            const size_t size = (end == std::string::npos ? line.size() : end) - begin;
            fields[index] = QLatin1String(line.data() + begin, int(size));
            count += fields.at(index).size();
        }
    }
    return count > 0;
}

bool readLines(QTextStream& stream)
{
    qint64 count = 0;
    while (!stream.atEnd())
        count += stream.readLine().size();
    return count > 0;
}

// A file in memory, to exclude the disk.
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

void readDevice(benchmark::State& state, const QByteArray& bytes, Way way)
{
    TextFile text(bytes);
    bool done = true;
    for (auto _ : state) {
        text.file.seek(0);
        if (way == Ours) {
            NCsvFileReader reader(&text.file, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&text.file);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readArray(benchmark::State& state, QByteArray bytes, Way way)
{
    bool done = true;
    for (auto _ : state) {
        if (way == Ours) {
            NCsvFileReader reader(&bytes, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&bytes, QIODevice::ReadOnly);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readString(benchmark::State& state, const QByteArray& bytes, Way way)
{
    QString string = QString::fromLatin1(bytes.constData(), bytes.size());
    bool done = true;
    for (auto _ : state) {
        if (way == Ours) {
            NCsvFileReader reader(&string, NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else {
            QTextStream stream(&string, QIODevice::ReadOnly);
            done = readLines(stream);
        }
    }
    finish(state, bytes.size(), done);
}

void readStandard(benchmark::State& state, const QByteArray& bytes, Way way)
{
    const std::string string(bytes.constData(), size_t(bytes.size()));
    bool done = true;
    for (auto _ : state) {
        std::istringstream stream(string);
        if (way == Ours) {
            NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
            done = readRecords(reader);
        } else if (way == Fields) {
            done = readFields(stream);
        } else {
            size_t count = 0;
            for (std::string line; std::getline(stream, line);)
                count += line.size();
            done = count > 0;
        }
    }
    finish(state, bytes.size(), done);
}

// The data for write...(): the fields of the text's first records, and the same records as complete lines.
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

// Calls @a write with the number of each record to be written.
template <typename Write> qint64 writeMegabytes(const Records& records, int megabytes, Write write)
{
    qint64 written = 0;
    for (int index = 0; written < qint64(megabytes) * Megabyte; index = (index + 1) % records.lines.size()) {
        write(index);
        written += records.lines.at(index).size();
    }
    return written;
}

template <typename Stream, typename Write>
void streamFields(Stream& stream, const QStringList& fields, Write write)
{
    for (int index = 0; index < fields.size(); ++index) {
        write(stream, fields.at(index));
        write(stream, QString(QLatin1Char(index + 1 < fields.size() ? ',' : '\n')));
    }
}

void writeText(QTextStream& stream, const QString& text)
{
    stream << text;
}

void writeLatin1(std::ostream& stream, const QString& text)
{
    const QByteArray latin1 = text.toLatin1();
    stream.write(latin1.constData(), latin1.size());
}

void writeDevice(benchmark::State& state, bool quoted, Way way)
{
    const Records records(quoted);
    const int size = int(state.range(0));
    TextFile text((QByteArray()));
    qint64 bytes = 0;
    for (auto _ : state) {
        text.file.seek(0);
        if (way == Ours) {
            NCsvFileWriter writer(&text.file, NCsvUtilities::SeparatorComma);
            bytes = writeMegabytes(records, size, [&](int index) { writer.appendLine(records.fields.at(index)); });
            continue;
        }
        QTextStream stream(&text.file);
        bytes = writeMegabytes(records, size, [&](int index) {
            if (way == Fields)
                streamFields(stream, records.fields.at(index), writeText);
            else
                writeText(stream, records.lines.at(index));
        });
    }
    finish(state, bytes, true);
}

void writeStandard(benchmark::State& state, bool quoted, Way way)
{
    const Records records(quoted);
    const int size = int(state.range(0));
    qint64 bytes = 0;
    for (auto _ : state) {
        std::ostringstream stream;
        if (way == Ours) {
            NCsvFileWriter writer(static_cast<std::ostream*>(&stream), NCsvUtilities::SeparatorComma);
            bytes = writeMegabytes(records, size, [&](int index) { writer.appendLine(records.fields.at(index)); });
            continue;
        }
        bytes = writeMegabytes(records, size, [&](int index) {
            if (way == Fields)
                streamFields(stream, records.fields.at(index), writeLatin1);
            else
                writeLatin1(stream, records.lines.at(index));
        });
    }
    finish(state, bytes, true);
}

// Each measurement is named after its variant; @a ways are the available ones, the library's first.
void add(
    const std::string& name, const std::vector<const char*>& ways, int smallest,
    const std::function<void(benchmark::State&, Way)>& measure)
{
    for (size_t way = 0; way < ways.size(); ++way) {
        const std::string variant = name + '/' + ways.at(way);
        benchmark::RegisterBenchmark(variant.c_str(), [=](benchmark::State& state) { measure(state, Way(way)); })
            ->RangeMultiplier(10)
            ->Range(smallest, smallest * 100)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<const char*> readLineWays = {"ours", "readline"};
    const std::vector<const char*> getlineWays = {"ours", "getline", "getline_and_fields"};
    const std::vector<const char*> writeWays = {"ours", "finished_lines", "fields_as_they_are"};
    for (int quoted = 0; quoted < 2; ++quoted) {
        const std::string kind = quoted ? "_quoted" : "_plain";
        const auto bytes = [=](const benchmark::State& state) { return text(int(state.range(0)), quoted != 0); };
        add("csv_read_device" + kind, readLineWays, 1,
            [=](benchmark::State& state, Way way) { readDevice(state, bytes(state), way); });
        add("csv_read_array" + kind, readLineWays, 1,
            [=](benchmark::State& state, Way way) { readArray(state, bytes(state), way); });
        add("csv_read_string" + kind, readLineWays, 1,
            [=](benchmark::State& state, Way way) { readString(state, bytes(state), way); });
        add("csv_read_standard" + kind, getlineWays, 1,
            [=](benchmark::State& state, Way way) { readStandard(state, bytes(state), way); });
        add("csv_write_device" + kind, writeWays, 1,
            [=](benchmark::State& state, Way way) { writeDevice(state, quoted != 0, way); });
        add("csv_write_standard" + kind, writeWays, 1,
            [=](benchmark::State& state, Way way) { writeStandard(state, quoted != 0, way); });
    }
    add("csv_read_long_field", readLineWays, 1000,
        [](benchmark::State& state, Way way) { readArray(state, longField(int(state.range(0))), way); });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
