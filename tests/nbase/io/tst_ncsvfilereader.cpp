#include <nbase/io/ncsvfilereader.h>
#include <nbase/io/ncsvfilewriter.h>
#include <nbase/io/nqiodevicestreambuf.h>
#include <nbase/io/nsequentialbuffer.h>

#include "support/nchildprocess.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTextCodec>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <sstream>
#include <string.h>
#include <sys/resource.h>

namespace {

typedef QList<QStringList> Records;

// Fields from a text that separates them by "|".
QStringList fields(const char* joined)
{
    return latin1(joined).split(QLatin1Char('|'));
}

// A device that returns its content in pieces and then fails without being at its end.
class FailingDevice : public QIODevice
{
public:
    FailingDevice(const QByteArray& content, qint64 failure, int pieceSize)
        : m_content(content)
        , m_failure(failure)
        , m_pieceSize(pieceSize)
    {
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    }

    bool isSequential() const override { return true; }
    bool atEnd() const override { return false; }
    qint64 bytesAvailable() const override { return m_content.size() + 1; }

protected:
    qint64 readData(char* data, qint64 maximumSize) override
    {
        const int size = int(qMin(maximumSize, qint64(qMin(m_pieceSize, m_content.size()))));
        if (size == 0)
            return m_failure;
        memcpy(data, m_content.constData(), size_t(size));
        m_content.remove(0, size);
        return size;
    }

    qint64 writeData(const char*, qint64) override { return -1; }

private:
    QByteArray m_content;
    const qint64 m_failure;
    const int m_pieceSize;
};

// Returns an unterminated quoted field of a given size, with a line feed after every 64 bytes.
class EndlessField : public std::streambuf
{
public:
    explicit EndlessField(qint64 size)
        : m_left(size)
    {
        memset(m_block, 'x', sizeof(m_block));
        for (size_t index = 63; index < sizeof(m_block); index += 64)
            m_block[index] = '\n';
    }

protected:
    int_type underflow() override
    {
        if (m_left <= 0)
            return traits_type::eof();
        m_block[0] = m_left == m_size ? '"' : 'x';
        m_left -= qint64(sizeof(m_block));
        setg(m_block, m_block, m_block + sizeof(m_block));
        return traits_type::to_int_type(*gptr());
    }

private:
    qint64 m_left;
    const qint64 m_size = m_left;
    char m_block[4096];
};

// Throws after its first line, as a stream buffer over a network may.
class ThrowingBuffer : public std::streambuf
{
public:
    ThrowingBuffer() { setg(m_line, m_line, m_line + 2); }

protected:
    int_type underflow() override { throw 1; }

private:
    char m_line[2] = {'a', '\n'};
};

Records parseArray(const QByteArray& bytes, bool* ok = nullptr, QChar separator = QLatin1Char(','))
{
    Records records;
    NCsvFileReader reader(bytes, separator);
    const bool isGood = reader.parseFile(records);
    if (ok)
        *ok = isGood;
    return records;
}

// The same records from every run: what a field may contain, and how often, decides what is found.
class RandomRecords
{
public:
    explicit RandomRecords(unsigned seed, bool latin1)
        : m_random(seed)
        , m_latin1(latin1)
    {
    }

    QStringList next()
    {
        QStringList record;
        const unsigned count = number(5) + 1;
        for (unsigned index = 0; index < count; ++index)
            record << field();
        return record;
    }

private:
    unsigned number(unsigned limit)
    {
        m_random = m_random * 6364136223846793005ull + 1442695040888963407ull;
        return unsigned(m_random >> 33) % limit;
    }

    QString field()
    {
        static const ushort characters[] = {',', ';', ':', '"', '"',  '\n',   ' ',
                                            'a', 'b', 'z', 0,   0xe9, 0x20ac, 0x4e2d};
        QString field;
        for (unsigned size = number(8); size > 0; --size)
            field += QChar(characters[number(m_latin1 ? 12 : 14)]);
        return field;
    }

    quint64 m_random;
    const bool m_latin1;
};

} // namespace

Q_DECLARE_METATYPE(Records)

class tst_NCsvFileReader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void textIsSplitIntoFields_data();
    void textIsSplitIntoFields();
    void malformedTextIsRefused_data();
    void malformedTextIsRefused();
    void separatorIsConfigurable_data();
    void separatorIsConfigurable();
    void separatorBeyondLatin1SplitsAtNulOnly();

    void everySourceProvidesTheRecord();
    void copiedSourcesMayBeDestroyed();
    void givenStreamIsNeitherClosedNorDeleted();
    void byteOrderMarkIsSkipped_data();
    void byteOrderMarkIsSkipped();
    void nulIsPreserved();
    void fieldOfOneMegabyte();
    void hundredThousandColumns();
    void fieldOfManyLines();

    void emptySourceHasNoRecords();
    void parsingAtTheEndGivesNoFields();
    void earlierFieldsAreReplaced();
    void copiedFieldsDoNotChange();
    void readNextStreamLineReturnsLinesUnchanged();
    void standardStreamKeepsCarriageReturns();
    void standardStreamEndsAfterItsEndWasReached();
    void standardStreamReturnsEachLineOnce();
    void failedStandardStreamHasNoLine_data();
    void failedStandardStreamHasNoLine();
    void nullStandardStreamIsAtItsEnd();

    void failedStandardStreamStops_data();
    void failedStandardStreamStops();
    void throwingStandardStreamStops();
    void failingDeviceStops_data();
    void failingDeviceStops();
    void linesMayArriveInPieces();
    void lineBreakMayBeSplitBetweenReads_data();
    void lineBreakMayBeSplitBetweenReads();
    void byteWithAllBitsSetIsALetterOfAStandardStream();
    void streamBufferOverADeviceIsReadToItsEnd();
    void deviceClosedMeanwhileIsAtItsEnd();
    void sequentialBufferIsReadToItsEnd();
    void openQuotesNeedNoMoreMemoryThanTheField();
    void fieldExceedingMemoryIsRefused();
    void withoutMemoryOnlyTheEarlierFieldsRemain_data();
    void withoutMemoryOnlyTheEarlierFieldsRemain();
    void withoutMemoryThereIsNoLine();
    void recordsBeforeMemoryIsExhaustedRemain_data();
    void recordsBeforeMemoryIsExhaustedRemain();

    void millionRandomRecordsAreReadBackUnchanged_data();
    void millionRandomRecordsAreReadBackUnchanged();
    void filesOfAnOfficeProgramAreRead_data();
    void filesOfAnOfficeProgramAreRead();
    void filesOfPythonAreRead_data();
    void filesOfPythonAreRead();
};

void tst_NCsvFileReader::initTestCase()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

void tst_NCsvFileReader::textIsSplitIntoFields_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Records>("records");
    // RFC 4180, section 2, rules 1 to 7.
    QTest::newRow("rule 1") << QByteArray("aaa,bbb,ccc\r\nzzz,yyy,xxx\r\n")
                            << (Records() << fields("aaa|bbb|ccc") << fields("zzz|yyy|xxx"));
    QTest::newRow("rule 2") << QByteArray("aaa,bbb,ccc\r\nzzz,yyy,xxx")
                            << (Records() << fields("aaa|bbb|ccc") << fields("zzz|yyy|xxx"));
    QTest::newRow("rule 3") << QByteArray("field_name,field_name,field_name\r\naaa,bbb,ccc\r\nzzz,yyy,xxx\r\n")
                            << (Records() << fields("field_name|field_name|field_name") << fields("aaa|bbb|ccc")
                                          << fields("zzz|yyy|xxx"));
    QTest::newRow("rule 4") << QByteArray("aaa,bbb , ccc") << (Records() << fields("aaa|bbb | ccc"));
    QTest::newRow("rule 5") << QByteArray("\"aaa\",\"bbb\",\"ccc\"\r\nzzz,yyy,xxx")
                            << (Records() << fields("aaa|bbb|ccc") << fields("zzz|yyy|xxx"));
    QTest::newRow("rule 6") << QByteArray("\"aaa\",\"b\r\nbb\",\"ccc\"\r\nzzz,yyy,xxx")
                            << (Records() << fields("aaa|b\nbb|ccc") << fields("zzz|yyy|xxx"));
    QTest::newRow("rule 7") << QByteArray("\"aaa\",\"b\"\"bb\",\"ccc\"") << (Records() << fields("aaa|b\"bb|ccc"));

    QTest::newRow("empty line") << QByteArray("\n") << (Records() << fields(""));
    QTest::newRow("empty lines") << QByteArray("a\n\n\nb\n")
                                 << (Records() << fields("a") << fields("") << fields("") << fields("b"));
    QTest::newRow("separator at the end") << QByteArray("a,\n") << (Records() << fields("a|"));
    QTest::newRow("only a separator") << QByteArray(",\n") << (Records() << fields("|"));
    QTest::newRow("empty fields") << QByteArray(",,a,,\n") << (Records() << fields("||a||"));
    QTest::newRow("empty quoted field") << QByteArray("\"\"\n") << (Records() << fields(""));
    QTest::newRow("empty quoted fields") << QByteArray("\"\",\"\"") << (Records() << fields("|"));
    QTest::newRow("separator behind quotes")
        << QByteArray("\"a\",\nb") << (Records() << fields("a|") << fields("b"));
    QTest::newRow("only quotes") << QByteArray("\"\"\"\"\"\"") << (Records() << fields("\"\""));
    QTest::newRow("quoted separator") << QByteArray("\",\",\"a,b\"") << (Records() << fields(",|a,b"));
    QTest::newRow("quote inside a plain field")
        << QByteArray("a\"b,c\"\"d,e\"") << (Records() << fields("a\"b|c\"\"d|e\""));
    QTest::newRow("quote behind a blank") << QByteArray("a, \"b\",c") << (Records() << fields("a| \"b\"|c"));
    QTest::newRow("blanks in quotes") << QByteArray("\" a \"") << (Records() << fields(" a "));
    QTest::newRow("line breaks only") << QByteArray("\"\n\n\"\n") << (Records() << fields("\n\n"));
    QTest::newRow("quotes around a line break")
        << QByteArray("\"\"\"\n\"\"\"\n") << (Records() << fields("\"\n\""));
    QTest::newRow("line ends in doubled quotes")
        << QByteArray("\"a\"\"\nb\"\n") << (Records() << fields("a\"\nb"));
    QTest::newRow("fields behind a line break")
        << QByteArray("x,\"a\nb\",y\nz") << (Records() << fields("x|a\nb|y") << fields("z"));
    QTest::newRow("lengths differ") << QByteArray("a\nb,c\nd,e,f\n")
                                    << (Records() << fields("a") << fields("b|c") << fields("d|e|f"));
    QTest::newRow("letters beyond ASCII")
        << QByteArray("\xc3\xa9,\xe2\x82\xac")
        << (Records() << (QStringList() << QString(QChar(0xe9)) << QString(QChar(0x20ac))));
}

void tst_NCsvFileReader::textIsSplitIntoFields()
{
    QFETCH(QByteArray, bytes);
    QFETCH(Records, records);
    bool ok = false;
    QCOMPARE(parseArray(bytes, &ok), records);
    QVERIFY(ok);
}

void tst_NCsvFileReader::malformedTextIsRefused_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("goodRecords");
    QTest::addColumn<QStringList>("left");
    QTest::newRow("text behind quotes") << QByteArray("\"x\"y") << 0 << QStringList();
    QTest::newRow("text behind the second field") << QByteArray("a,\"x\"y\nb") << 0 << fields("a");
    QTest::newRow("blank behind quotes") << QByteArray("\"x\" ,y") << 0 << QStringList();
    QTest::newRow("other separator behind quotes") << QByteArray("\"x\";y") << 0 << QStringList();
    QTest::newRow("open quotes") << QByteArray("a,b\nc,\"d\ne") << 1 << fields("c");
    QTest::newRow("only a quote") << QByteArray("\"") << 0 << QStringList();
    QTest::newRow("three quotes") << QByteArray("\"\"\"") << 0 << QStringList();
    QTest::newRow("open at the end of a line") << QByteArray("a\n\"\n") << 1 << QStringList();
}

void tst_NCsvFileReader::malformedTextIsRefused()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, goodRecords);
    QFETCH(QStringList, left);
    bool ok = true;
    QCOMPARE(parseArray(bytes, &ok).size(), goodRecords);
    QVERIFY(!ok);
    NCsvFileReader reader(bytes, NCsvUtilities::SeparatorComma);
    QStringList record;
    for (int index = 0; index < goodRecords; ++index)
        QVERIFY(reader.parseNextLine(record));
    QVERIFY(!reader.parseNextLine(record));
    QCOMPARE(record, left);
}

void tst_NCsvFileReader::separatorIsConfigurable_data()
{
    QTest::addColumn<int>("separator");
    QTest::addColumn<QStringList>("record");
    QTest::newRow("comma") << 0 << fields("a;\"b:c\"|d");
    QTest::newRow("semicolon") << 1 << fields("a|b:c\",d");
    QTest::newRow("colon") << 2 << fields("a;\"b|c\",d");
}

void tst_NCsvFileReader::separatorIsConfigurable()
{
    QFETCH(int, separator);
    QFETCH(QStringList, record);
    const QString line = latin1("a;\"b:c\",d");
    const NCsvUtilities::Separator value = NCsvUtilities::Separator(separator);
    NCsvFileReader byValue(line, value);
    NCsvFileReader byCharacter(line, NCsvUtilities::characterFromSeparator(value));
    QStringList read;
    if (value == NCsvUtilities::SeparatorSemicolon) {
        // The quote begins a field there, and what follows the closing one is an error.
        QVERIFY(!byValue.parseNextLine(read));
        QVERIFY(!byCharacter.parseNextLine(read));
        NCsvFileReader good(latin1("a;\"b;c\";\"d\"\"e\""), value);
        QVERIFY(good.parseNextLine(read));
        QCOMPARE(read, fields("a|b;c|d\"e"));
        return;
    }
    QVERIFY(byValue.parseNextLine(read));
    QCOMPARE(read, record);
    QVERIFY(byCharacter.parseNextLine(read));
    QCOMPARE(read, record);
}

void tst_NCsvFileReader::separatorBeyondLatin1SplitsAtNulOnly()
{
    const QString line = QString::fromLatin1("a,b\0c", 5) + QChar(0x2c2c) + QChar(0x122c);
    NCsvFileReader reader(line, QChar(0x2c2c));
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, QStringList() << latin1("a,b") << latin1("c") + QChar(0x2c2c) + QChar(0x122c));
}

void tst_NCsvFileReader::everySourceProvidesTheRecord()
{
    const QChar character = QLatin1Char(';');
    const NCsvUtilities::Separator separator = NCsvUtilities::SeparatorSemicolon;
    QByteArray utf8("a;\"b;c\";\xc3\xa9\n");
    QString string = QString::fromUtf8(utf8.constData());
    const QString constString = string;
    const QByteArray constArray = utf8;
    const QStringList expected = QStringList() << latin1("a") << latin1("b;c") << QString(QChar(0xe9));

    for (int byCharacter = 0; byCharacter < 2; ++byCharacter) {
        QBuffer device(&utf8);
        QVERIFY(device.open(QIODevice::ReadOnly));
        QTextStream stream(&string, QIODevice::ReadOnly);
        std::istringstream standard(std::string("a;\"b;c\";\xe9\n"));
        std::istream* const source = &standard;
        QList<NCsvFileReader*> readers;
        if (byCharacter) {
            readers << new NCsvFileReader(&device, character) << new NCsvFileReader(&string, character)
                    << new NCsvFileReader(constString, character) << new NCsvFileReader(&utf8, character)
                    << new NCsvFileReader(constArray, character) << new NCsvFileReader(&stream, character)
                    << new NCsvFileReader(source, character);
        } else {
            readers << new NCsvFileReader(&device, separator) << new NCsvFileReader(&string, separator)
                    << new NCsvFileReader(constString, separator) << new NCsvFileReader(&utf8, separator)
                    << new NCsvFileReader(constArray, separator) << new NCsvFileReader(&stream, separator)
                    << new NCsvFileReader(source, separator);
        }
        for (int index = 0; index < readers.size(); ++index) {
            QScopedPointer<NCsvFileReader> reader(readers.at(index));
            QStringList record;
            QVERIFY(!reader->atEnd());
            QVERIFY(reader->parseNextLine(record));
            QCOMPARE(record, expected);
        }
        QVERIFY(device.isOpen());
    }
}

void tst_NCsvFileReader::copiedSourcesMayBeDestroyed()
{
    QScopedPointer<QString> string(new QString(latin1("a,b")));
    QScopedPointer<QByteArray> array(new QByteArray("a,b"));
    NCsvFileReader ofString(*string, NCsvUtilities::SeparatorComma);
    NCsvFileReader ofArray(*array, NCsvUtilities::SeparatorComma);
    string.reset();
    array.reset();
    QStringList record;
    QVERIFY(ofString.parseNextLine(record));
    QCOMPARE(record, fields("a|b"));
    QVERIFY(ofArray.parseNextLine(record));
    QCOMPARE(record, fields("a|b"));
}

void tst_NCsvFileReader::givenStreamIsNeitherClosedNorDeleted()
{
    QString string = latin1("a,b\nrest\n");
    QTextStream stream(&string, QIODevice::ReadOnly);
    QStringList record;
    {
        NCsvFileReader reader(&stream, NCsvUtilities::SeparatorComma);
        QVERIFY(reader.parseNextLine(record));
    }
    QCOMPARE(stream.readLine(), latin1("rest"));
}

void tst_NCsvFileReader::byteOrderMarkIsSkipped_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("UTF-16, little-endian") << QByteArray("\xff\xfe\x61\0,\0\xe9\0\n\0", 10);
    QTest::newRow("UTF-16, big-endian") << QByteArray("\xfe\xff\0\x61\0,\0\xe9\0\n", 10);
    QTest::newRow("UTF-8") << QByteArray("\xef\xbb\xbf\x61,\xc3\xa9\n");
}

void tst_NCsvFileReader::byteOrderMarkIsSkipped()
{
    QFETCH(QByteArray, bytes);
    bool ok = false;
    QCOMPARE(parseArray(bytes, &ok), Records() << (QStringList() << latin1("a") << QString(QChar(0xe9))));
    QVERIFY(ok);
}

void tst_NCsvFileReader::nulIsPreserved()
{
    const QByteArray bytes("a\0b,\"\0\"\n", 8);
    const QStringList expected = QStringList() << QString::fromLatin1("a\0b", 3) << QString(QChar(0));
    QCOMPARE(parseArray(bytes), Records() << expected);
    std::istringstream stream(std::string(bytes.constData(), size_t(bytes.size())));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, expected);
}

void tst_NCsvFileReader::fieldOfOneMegabyte()
{
    const QByteArray plain(1024 * 1024, 'p');
    const QByteArray quotes = QByteArray(512 * 1024, 'q') + "\"\"" + QByteArray(512 * 1024, ',');
    const Records records = parseArray(plain + ",\"" + quotes + "\"\n");
    QCOMPARE(records.size(), 1);
    QVERIFY(records.first() == QStringList() << latin1(plain) << latin1(QByteArray(quotes).replace("\"\"", "\"")));
}

void tst_NCsvFileReader::hundredThousandColumns()
{
    QByteArray bytes;
    for (int column = 0; column < 100000; ++column)
        bytes += (column == 0 ? "" : ",") + QByteArray::number(column);
    const Records records = parseArray(bytes + "\n");
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().size(), 100000);
    QCOMPARE(records.first().last(), latin1("99999"));
}

void tst_NCsvFileReader::fieldOfManyLines()
{
    const QByteArray content = QByteArray("one line \"\"more\"\"\n").repeated(100000);
    const Records records = parseArray("a,\"" + content + "\",b\n");
    QCOMPARE(records.size(), 1);
    QVERIFY(records.first().at(1) == latin1(QByteArray(content).replace("\"\"", "\"")));
    QCOMPARE(records.first().at(2), latin1("b"));
}

void tst_NCsvFileReader::emptySourceHasNoRecords()
{
    Records records = Records() << fields("old");
    NCsvFileReader reader(QByteArray(), NCsvUtilities::SeparatorComma);
    QVERIFY(reader.atEnd());
    QVERIFY(reader.parseFile(records));
    QCOMPARE(records, Records());
}

void tst_NCsvFileReader::parsingAtTheEndGivesNoFields()
{
    NCsvFileReader reader(latin1(""), NCsvUtilities::SeparatorComma);
    QStringList record = fields("old|fields");
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, QStringList());
}

void tst_NCsvFileReader::earlierFieldsAreReplaced()
{
    NCsvFileReader reader(latin1("long first field,b,c,d\nx,\"y\"\n1,2,3,4,5\n"), NCsvUtilities::SeparatorComma);
    QStringList record = fields("some|thing");
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("long first field|b|c|d"));
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("x|y"));
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("1|2|3|4|5"));
}

void tst_NCsvFileReader::copiedFieldsDoNotChange()
{
    const QString longText(5000, QLatin1Char('l'));
    NCsvFileReader reader(longText + latin1(",b\nc,\"d\"\"\"\n"), NCsvUtilities::SeparatorComma);
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    const QStringList keptList = record;
    const QString keptField = record.at(1);
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("c|d\""));
    QCOMPARE(keptList, QStringList() << longText << latin1("b"));
    QCOMPARE(keptField, latin1("b"));
    QVERIFY(record.at(0).capacity() < 1000);
}

void tst_NCsvFileReader::readNextStreamLineReturnsLinesUnchanged()
{
    NCsvFileReader reader(latin1("\"a\",b \n\nc"), NCsvUtilities::SeparatorComma);
    QCOMPARE(reader.readNextStreamLine(), latin1("\"a\",b "));
    QVERIFY(!reader.readNextStreamLine().isNull());
    QCOMPARE(reader.readNextStreamLine(), latin1("c"));
    QVERIFY(reader.atEnd());
    QVERIFY(reader.readNextStreamLine().isNull());
}

void tst_NCsvFileReader::standardStreamKeepsCarriageReturns()
{
    std::istringstream stream(std::string("a,b\r\n\"c\nd\",e"));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("a|b\r"));
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, fields("c\nd|e"));

    std::istringstream lines(std::string("\xe9\r\n"));
    NCsvFileReader lineReader(static_cast<std::istream*>(&lines), NCsvUtilities::SeparatorComma);
    QCOMPARE(lineReader.readNextStreamLine(), QString(QChar(0xe9)) + QLatin1Char('\r'));

    std::istringstream quoted(std::string("\"a\"\r\n"));
    NCsvFileReader quotedReader(static_cast<std::istream*>(&quoted), NCsvUtilities::SeparatorComma);
    QVERIFY(!quotedReader.parseNextLine(record));
}

void tst_NCsvFileReader::standardStreamEndsAfterItsEndWasReached()
{
    std::istringstream ended(std::string("a\nb"));
    NCsvFileReader reader(static_cast<std::istream*>(&ended), NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(reader.parseFile(records));
    QCOMPARE(records, Records() << fields("a") << fields("b"));
    QVERIFY(reader.atEnd());

    std::istringstream lineBreak(std::string("a\n"));
    NCsvFileReader next(static_cast<std::istream*>(&lineBreak), NCsvUtilities::SeparatorComma);
    QVERIFY(next.parseFile(records));
    QCOMPARE(records, Records() << fields("a") << fields(""));

    std::istringstream open(std::string("\"a\n"));
    NCsvFileReader unterminated(static_cast<std::istream*>(&open), NCsvUtilities::SeparatorComma);
    QVERIFY(!unterminated.parseFile(records));
    QCOMPARE(records, Records());
}

void tst_NCsvFileReader::standardStreamReturnsEachLineOnce()
{
    std::istringstream stream(std::string("a\nb"));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    QCOMPARE(reader.readNextStreamLine(), latin1("a"));
    QCOMPARE(reader.readNextStreamLine(), latin1("b"));
    QVERIFY(reader.readNextStreamLine().isNull());
    QVERIFY(reader.readNextStreamLine().isNull());

    std::istringstream lineBreak(std::string("a\n"));
    NCsvFileReader next(static_cast<std::istream*>(&lineBreak), NCsvUtilities::SeparatorComma);
    QCOMPARE(next.readNextStreamLine(), latin1("a"));
    const QString last = next.readNextStreamLine();
    QVERIFY(last.isEmpty() && !last.isNull());
    QVERIFY(next.readNextStreamLine().isNull());
}

void tst_NCsvFileReader::failedStandardStreamHasNoLine_data()
{
    failedStandardStreamStops_data();
}

void tst_NCsvFileReader::failedStandardStreamHasNoLine()
{
    QFETCH(int, state);
    std::istringstream stream(std::string("a\nb\n"));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    QCOMPARE(reader.readNextStreamLine(), latin1("a"));
    stream.setstate(std::ios_base::iostate(state));
    QVERIFY(reader.readNextStreamLine().isNull());
    stream.clear();
    QCOMPARE(reader.readNextStreamLine(), latin1("b"));
}

void tst_NCsvFileReader::nullStandardStreamIsAtItsEnd()
{
    NCsvFileReader reader(static_cast<std::istream*>(nullptr), NCsvUtilities::SeparatorComma);
    QVERIFY(reader.atEnd());
    QVERIFY(reader.readNextStreamLine().isNull());
    Records records;
    QVERIFY(reader.parseFile(records));
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    QCOMPARE(record, QStringList());
}

void tst_NCsvFileReader::failedStandardStreamStops_data()
{
    QTest::addColumn<int>("state");
    QTest::newRow("bad") << int(std::ios_base::badbit);
    QTest::newRow("failed") << int(std::ios_base::failbit);
}

void tst_NCsvFileReader::failedStandardStreamStops()
{
    QFETCH(int, state);
    std::istringstream stream(std::string("a\n\"b\nc\"\n"));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    stream.setstate(std::ios_base::iostate(state));
    QVERIFY(!reader.parseNextLine(record));
    Records records;
    QVERIFY(!reader.parseFile(records));
    QCOMPARE(records, Records());
}

void tst_NCsvFileReader::throwingStandardStreamStops()
{
    ThrowingBuffer buffer;
    std::istream quiet(&buffer);
    NCsvFileReader reader(&quiet, NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(!reader.parseFile(records));
    QCOMPARE(records, Records() << fields("a"));
    quiet.clear();
    QVERIFY(reader.readNextStreamLine().isNull());

    std::istringstream loud(std::string("a"));
    loud.exceptions(std::ios_base::badbit | std::ios_base::failbit | std::ios_base::eofbit);
    NCsvFileReader loudReader(static_cast<std::istream*>(&loud), NCsvUtilities::SeparatorComma);
    QVERIFY(loudReader.parseFile(records));
    QCOMPARE(records, Records() << fields("a"));
    QVERIFY(loudReader.readNextStreamLine().isNull());
}

void tst_NCsvFileReader::failingDeviceStops_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("failure");
    QTest::addColumn<int>("goodRecords");
    QTest::newRow("failure at once") << QByteArray() << -1 << 0;
    QTest::newRow("nothing at once") << QByteArray() << 0 << 0;
    QTest::newRow("failure behind a line") << QByteArray("a\n") << -1 << 1;
    QTest::newRow("nothing behind a line") << QByteArray("a\n") << 0 << 1;
    QTest::newRow("failure inside quotes") << QByteArray("a\n\"b\n") << -1 << 1;
    QTest::newRow("nothing inside quotes") << QByteArray("a\n\"b\n") << 0 << 1;
}

void tst_NCsvFileReader::failingDeviceStops()
{
    QFETCH(QByteArray, content);
    QFETCH(int, failure);
    QFETCH(int, goodRecords);
    FailingDevice device(content, failure, 1000);
    NCsvFileReader reader(&device, NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(!reader.parseFile(records));
    QCOMPARE(records.size(), goodRecords);
}

void tst_NCsvFileReader::linesMayArriveInPieces()
{
    FailingDevice device("first,\"sec\nond\"\nthird,\xc3\xa9\n", -1, 1);
    NCsvFileReader reader(&device, NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(!reader.parseFile(records));
    QCOMPARE(
        records,
        Records() << fields("first|sec\nond") << (QStringList() << latin1("third") << QString(QChar(0xe9))));
}

void tst_NCsvFileReader::lineBreakMayBeSplitBetweenReads_data()
{
    QTest::addColumn<int>("pieceSize");
    QTest::addColumn<int>("fieldSize");
    for (int pieceSize = 1; pieceSize <= 4; ++pieceSize)
        QTest::newRow(("pieces of " + QByteArray::number(pieceSize)).constData()) << pieceSize << 1;
    // A QTextStream reads 16384 bytes at a time.
    for (int fieldSize = 16384 - 4; fieldSize <= 16384; ++fieldSize)
        QTest::newRow(("field of " + QByteArray::number(fieldSize)).constData()) << 1000000 << fieldSize;
}

void tst_NCsvFileReader::lineBreakMayBeSplitBetweenReads()
{
    QFETCH(int, pieceSize);
    QFETCH(int, fieldSize);
    const QByteArray field(fieldSize, 'x');
    FailingDevice device(field + ",b\r\n\"c\r\nd\"\r\n\r\ne\r\n", -1, pieceSize);
    NCsvFileReader reader(&device, NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(!reader.parseFile(records));
    QCOMPARE(
        records, Records() << (QStringList() << latin1(field) << latin1("b")) << fields("c\nd") << fields("")
                           << fields("e"));
}

// Where char is signed, this byte is easily confused with the end of the text.
void tst_NCsvFileReader::byteWithAllBitsSetIsALetterOfAStandardStream()
{
    const QString letter(QChar(0xff));
    std::istringstream stream(std::string("\xff,\"\xff\n\xff\"\n\xff"));
    NCsvFileReader reader(static_cast<std::istream*>(&stream), NCsvUtilities::SeparatorComma);
    Records records;
    QVERIFY(reader.parseFile(records));
    QCOMPARE(
        records,
        Records() << (QStringList() << letter << letter + QLatin1Char('\n') + letter) << QStringList(letter));
}

void tst_NCsvFileReader::streamBufferOverADeviceIsReadToItsEnd()
{
    QBuffer device;
    QVERIFY(device.open(QIODevice::ReadWrite));
    const int count = 1000;
    {
        NQIODeviceStreambuf buffer(&device);
        std::ostream stream(&buffer);
        NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
        RandomRecords records(1, true);
        for (int index = 0; index < count; ++index)
            writer.appendLine(records.next() << QString(QChar(0xff)));
    }
    QVERIFY(device.size() > 10 * 1024);
    QVERIFY(device.seek(0));
    NQIODeviceStreambuf buffer(&device);
    std::istream stream(&buffer);
    NCsvFileReader reader(&stream, NCsvUtilities::SeparatorComma);
    RandomRecords expected(1, true);
    QStringList record;
    for (int index = 0; index < count; ++index) {
        QVERIFY(reader.parseNextLine(record));
        QCOMPARE(record, expected.next() << QString(QChar(0xff)));
    }
    QVERIFY(reader.parseNextLine(record)); // the empty line behind the last line break
    QCOMPARE(record, fields(""));
    QVERIFY(reader.atEnd());
}

void tst_NCsvFileReader::deviceClosedMeanwhileIsAtItsEnd()
{
    QByteArray bytes = QByteArray("a,b\n").repeated(10000);
    QBuffer device(&bytes);
    QVERIFY(device.open(QIODevice::ReadOnly));
    NCsvFileReader reader(&device, NCsvUtilities::SeparatorComma);
    QStringList record;
    QVERIFY(reader.parseNextLine(record));
    device.close();
    Records records;
    reader.parseFile(records); // the text read ahead ends within a line
    QVERIFY(records.size() < 10000);
    QVERIFY(reader.atEnd());
}

void tst_NCsvFileReader::sequentialBufferIsReadToItsEnd()
{
    NSequentialBuffer buffer(nullptr);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    {
        NCsvFileWriter writer(&buffer, NCsvUtilities::SeparatorColon);
        writer.appendLine(fields("a:b|c"));
        writer.appendLine(fields("d|e"));
    }
    buffer.closeWriteChannel();
    NCsvFileReader reader(&buffer, NCsvUtilities::SeparatorColon);
    Records records;
    QVERIFY(reader.parseFile(records));
    QCOMPARE(records, Records() << fields("a:b|c") << fields("d|e"));
}

void tst_NCsvFileReader::openQuotesNeedNoMoreMemoryThanTheField()
{
    const int megabytes = 64;
    const int status = NTest::runInChild([]() {
        struct rusage before, after;
        ::getrusage(RUSAGE_SELF, &before);
        EndlessField field(qint64(megabytes) << 20);
        std::istream stream(&field);
        NCsvFileReader reader(&stream, NCsvUtilities::SeparatorComma);
        QStringList record;
        if (reader.parseNextLine(record) || !record.isEmpty())
            return 1;
        ::getrusage(RUSAGE_SELF, &after);
        return after.ru_maxrss - before.ru_maxrss < (2 * megabytes + 16) * 1024 ? 0 : 2;
    });
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    QVERIFY(status == 0 || status == 2); // a sanitizer needs memory itself
#else
    QCOMPARE(status, 0);
#endif
}

void tst_NCsvFileReader::fieldExceedingMemoryIsRefused()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const qint64 size = qint64(1) << 20; // a sanitizer needs more address space than any limit allows
#else
    const qint64 size = qint64(1) << 30;
#endif
    const int status = NTest::runInChild([size]() {
        if (size > (1 << 20) && !NTest::leaveMemory(300))
            return 1;
        EndlessField field(size);
        std::istream stream(&field);
        NCsvFileReader reader(&stream, NCsvUtilities::SeparatorComma);
        QStringList record;
        return reader.parseNextLine(record) || !record.isEmpty() ? 2 : 0;
    });
    QCOMPARE(status, 0);
}

void tst_NCsvFileReader::withoutMemoryOnlyTheEarlierFieldsRemain_data()
{
    QTest::addColumn<int>("megabytes");
    QTest::addColumn<QStringList>("left");
    QTest::addColumn<bool>("good");
    QTest::newRow("none for the line") << 40 << QStringList() << false;
    QTest::newRow("none for the field") << 190 << fields("first") << false;
    QTest::newRow("enough") << 400 << fields("first|long|third") << true;
}

// A sanitizer needs more address space than any limit allows. With one, the field is short and its allocation
// succeeds.
void tst_NCsvFileReader::withoutMemoryOnlyTheEarlierFieldsRemain()
{
    QFETCH(int, megabytes);
    QFETCH(QStringList, left);
    QFETCH(bool, good);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int size = 100;
    left = fields("first|long|third");
    good = true;
#else
    const int size = 40 * 1000 * 1000; // 80 MB for the line and as much for the field, or half as much again
#endif
    const int status = NTest::runInChild([=]() {
        QString string =
            latin1("one,two,three\nfirst,\"") + QString(size, QLatin1Char('x')) + latin1("\"\"\",third\n");
        NCsvFileReader reader(&string, NCsvUtilities::SeparatorComma);
        QStringList record;
        if (!reader.parseNextLine(record) || record != fields("one|two|three"))
            return 1;
        if (size > 100 && !NTest::leaveMemory(megabytes))
            return 2;
        if (reader.parseNextLine(record) != good || record.size() != left.size())
            return 3;
        for (int index = 0; index < left.size(); ++index) {
            const bool isLong = left.at(index) == latin1("long");
            if (isLong ? record.at(index).size() != size + 1 : record.at(index) != left.at(index))
                return 4;
        }
        return 0;
    });
    QCOMPARE(status, 0);
}

void tst_NCsvFileReader::withoutMemoryThereIsNoLine()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int size = 100; // as above
#else
    const int size = 40 * 1000 * 1000;
#endif
    const int status = NTest::runInChild([=]() {
        QString string(size, QLatin1Char('x'));
        NCsvFileReader reader(&string, NCsvUtilities::SeparatorComma);
        if (size > 100 && !NTest::leaveMemory(40))
            return 1;
        return reader.readNextStreamLine().isNull() == (size > 100) ? 0 : 2;
    });
    QCOMPARE(status, 0);
}

// Whether the allocation of a record or of the list fails depends on how much memory is left.
void tst_NCsvFileReader::recordsBeforeMemoryIsExhaustedRemain_data()
{
    QTest::addColumn<int>("megabytes");
    const int sizes[] = {40, 48, 56};
    for (int size : sizes)
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_NCsvFileReader::recordsBeforeMemoryIsExhaustedRemain()
{
    QFETCH(int, megabytes);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int count = 100; // as above
#else
    const int count = 3 * 1000 * 1000; // far more than fit
#endif
    const QByteArray bytes = QByteArray("a\n").repeated(count);
    const int status = NTest::runInChild([=]() {
        NCsvFileReader reader(bytes, NCsvUtilities::SeparatorComma);
        Records records;
        const bool isLimited = count > 100;
        if (isLimited && !NTest::leaveMemory(megabytes))
            return 1;
        if (reader.parseFile(records) == isLimited || records.isEmpty())
            return 2;
        for (int index = 0; index < records.size(); ++index) {
            const QStringList& record = records.at(index);
            if (record.size() != 1 || record.first() != QLatin1String("a"))
                return 3;
        }
        return (records.size() < count) == isLimited ? 0 : 4;
    });
    QCOMPARE(status, 0);
}

void tst_NCsvFileReader::millionRandomRecordsAreReadBackUnchanged_data()
{
    QTest::addColumn<int>("separator");
    QTest::newRow("comma") << 0;
    QTest::newRow("semicolon") << 1;
    QTest::newRow("colon") << 2;
}

void tst_NCsvFileReader::millionRandomRecordsAreReadBackUnchanged()
{
    QFETCH(int, separator);
    const NCsvUtilities::Separator value = NCsvUtilities::Separator(separator);
    const NTemporaryDirectory directory;
    enum Kind { Device, String, Array, Stream, Standard, KindCount };
    const int blockSize = 1000;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int recordCount = 100 * 1000; // a sanitizer is slow, and this covers every case many times
#else
    const int recordCount = 1000 * 1000;
#endif
    int count = 0;
    for (int block = 0; count < recordCount; ++block) {
        const Kind kind = Kind(block % KindCount);
        const unsigned seed = unsigned(block * 3 + separator + 1);

        QFile file(directory.filePath(latin1("records")));
        QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Truncate));
        QString string;
        QByteArray array;
        QTextStream stream(&array);
        stream.setCodec("UTF-16");
        std::stringstream standard;
        QScopedPointer<NCsvFileWriter> writer;
        switch (kind) {
        case Device:
            writer.reset(new NCsvFileWriter(&file, value));
            break;
        case String:
            writer.reset(new NCsvFileWriter(&string, value));
            break;
        case Array:
            writer.reset(new NCsvFileWriter(&array, value));
            break;
        case Stream:
            writer.reset(new NCsvFileWriter(&stream, value));
            break;
        default:
            writer.reset(new NCsvFileWriter(static_cast<std::ostream*>(&standard), value));
        }
        RandomRecords records(seed, kind == Standard);
        for (int index = 0; index < blockSize; ++index)
            writer->appendLine(records.next());
        writer.reset();

        stream.flush();
        file.seek(0);
        stream.seek(0);
        QScopedPointer<NCsvFileReader> reader;
        switch (kind) {
        case Device:
            reader.reset(new NCsvFileReader(&file, value));
            break;
        case String:
            reader.reset(block % 2 ? new NCsvFileReader(string, value) : new NCsvFileReader(&string, value));
            break;
        case Array:
            reader.reset(block % 2 ? new NCsvFileReader(array, value) : new NCsvFileReader(&array, value));
            break;
        case Stream:
            reader.reset(new NCsvFileReader(&stream, value));
            break;
        default:
            reader.reset(new NCsvFileReader(static_cast<std::istream*>(&standard), value));
        }
        RandomRecords expected(seed, kind == Standard);
        QStringList record;
        for (int index = 0; index < blockSize; ++index) {
            QVERIFY(reader->parseNextLine(record));
            QCOMPARE(record, expected.next());
        }
        QVERIFY(kind == Standard || reader->atEnd());
        count += blockSize;
    }
}

void tst_NCsvFileReader::filesOfAnOfficeProgramAreRead_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("separator");
    QTest::newRow("comma") << latin1("comma") << 0;
    QTest::newRow("semicolon") << latin1("semicolon") << 1;
    QTest::newRow("colon") << latin1("colon") << 2;
    QTest::newRow("all quoted") << latin1("quoted") << 0;
}

void tst_NCsvFileReader::filesOfAnOfficeProgramAreRead()
{
    QFETCH(QString, name);
    QFETCH(int, separator);
    QFile file(latin1(NBASE_TEST_DATA_DIR "/csv/libreoffice-%1.csv").arg(name));
    QVERIFY(file.open(QIODevice::ReadOnly));
    NCsvFileReader reader(&file, NCsvUtilities::Separator(separator));
    Records records;
    QVERIFY(reader.parseFile(records));
    const uint beyondUtf16[] = {0xe9, 0xdf, 0x20ac, 0x1f600};
    QCOMPARE(
        records, Records() << fields("plain|12.5|with, comma|semi; colon: both")
                           << fields("say \"yes\"|\"|\"\"|ends with \"")
                           << fields("line one\nline two|\n||tabhere")
                           << (fields("|| leading and trailing ") << QString::fromUcs4(beyondUtf16, 4))
                           << fields("'single'|=text|a\nb\n\"c\",d;e:f|last"));
}

void tst_NCsvFileReader::filesOfPythonAreRead_data()
{
    QTest::addColumn<QString>("quoting");
    QTest::addColumn<int>("separator");
    const char* const quotings[] = {"QUOTE_MINIMAL", "QUOTE_ALL", "QUOTE_NONNUMERIC"};
    const char* const names[] = {"minimal", "all", "not for numbers"};
    for (int quoting = 0; quoting < 3; ++quoting) {
        for (int separator = 0; separator < 3; ++separator) {
            const QChar character = NCsvUtilities::separators().value(NCsvUtilities::Separator(separator));
            const QByteArray row = names[quoting] + QByteArray(" ") + character.toLatin1();
            QTest::newRow(row.constData()) << latin1(quotings[quoting]) << separator;
        }
    }
}

void tst_NCsvFileReader::filesOfPythonAreRead()
{
    QFETCH(QString, quoting);
    QFETCH(int, separator);
    const NCsvUtilities::Separator value = NCsvUtilities::Separator(separator);
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(latin1("python.csv"));
    const QString program =
        latin1("import csv, sys\n"
               "with open(sys.argv[1], 'w', newline='', encoding='utf-8') as file:\n"
               "    writer = csv.writer(file, delimiter=sys.argv[2], quoting=getattr(csv, sys.argv[3]))\n"
               "    writer.writerow(['plain', 'a,b', 'a;b', 'a:b', ' blanks '])\n"
               "    writer.writerow(['\"', '\"\"', 'say \"yes\"', '', 'tab\\t'])\n"
               "    writer.writerow(['two\\nlines', '\\n', '\\u20ac', '12', 12])\n");
    QCOMPARE(
        QProcess::execute(
            latin1("python3"), QStringList() << latin1("-c") << program << path
                                             << QString(NCsvUtilities::characterFromSeparator(value)) << quoting),
        0);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    NCsvFileReader reader(&file, value);
    Records records;
    QVERIFY(reader.parseFile(records));
    QCOMPARE(
        records, Records() << fields("plain|a,b|a;b|a:b| blanks ") << fields("\"|\"\"|say \"yes\"||tab\t")
                           << (fields("two\nlines|\n") << QString(QChar(0x20ac)) << latin1("12") << latin1("12")));
}

QTEST_APPLESS_MAIN(tst_NCsvFileReader)
#include "tst_ncsvfilereader.moc"
