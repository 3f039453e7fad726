// Reads the input as CSV from each kind of source, with equal results, then writes the records and reads them back
// unchanged. The first byte selects the separator.

#include <nbase/io/ncsvfilereader.h>
#include <nbase/io/ncsvfilewriter.h>

#include <QtCore/QBuffer>
#include <QtCore/QTextStream>

#include <sstream>
#include <stdlib.h>

namespace {

typedef QList<QStringList> Records;

void require(bool condition)
{
    if (!condition)
        abort();
}

struct Result
{
    Result()
        : good(false)
    {
    }

    bool operator==(const Result& other) const { return good == other.good && records == other.records; }

    bool good;
    Records records;
};

Result parsed(NCsvFileReader& reader)
{
    Result result;
    result.good = reader.parseFile(result.records);
    return result;
}

// The list of fields is reused for all records.
Result parsedIntoOneList(NCsvFileReader& reader)
{
    Result result;
    result.good = true;
    QStringList fields;
    while (result.good && !reader.atEnd()) {
        result.good = reader.parseNextLine(fields);
        if (result.good)
            result.records << fields;
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (size == 0)
        return 0;
    const QChar separators[] = {
        QLatin1Char(','), QLatin1Char(';'), QLatin1Char(':'), QLatin1Char(char(data[0])), QChar(0x2c2c)};
    const QChar separator = separators[data[0] % 5];
    const char* const bytes = reinterpret_cast<const char*>(data) + 1;
    const int length = int(size) - 1;
    const QString text = QString::fromLatin1(bytes, length);

    NCsvFileReader ofString(text, separator);
    const Result result = parsed(ofString);
    NCsvFileReader again(text, separator);
    require(parsedIntoOneList(again) == result);

    QByteArray array(bytes, length);
    QTextStream stream(&array, QIODevice::ReadOnly);
    stream.setCodec("ISO 8859-1");
    stream.setAutoDetectUnicode(false);
    NCsvFileReader ofStream(&stream, separator);
    require(parsed(ofStream) == result);

    NCsvFileReader ofArray(array, separator);
    parsed(ofArray);

    std::istringstream standard(std::string(bytes, size_t(length)));
    NCsvFileReader ofStandard(static_cast<std::istream*>(&standard), separator);
    const Result ofBytes = parsed(ofStandard);
    // The standard stream keeps carriage returns, and a line break at the end is followed by an empty line.
    if (result.good && length > 0 && !array.contains('\r') && !array.endsWith('\n'))
        require(ofBytes == result);

    // With a quote or a line break as the separator, the written text has a different meaning.
    if (separator == QLatin1Char('"') || separator == QLatin1Char('\n') || separator == QLatin1Char('\r'))
        return 0;
    QString written;
    {
        NCsvFileWriter writer(&written, separator);
        for (const QStringList& record : result.records)
            writer.appendLine(record);
    }
    NCsvFileReader reader(written, separator);
    const Result readBack = parsed(reader);
    require(readBack.good);
    // A text source drops the carriage return before a line feed, also inside quotes.
    if (!array.contains('\r'))
        require(readBack.records == result.records);
    return 0;
}
