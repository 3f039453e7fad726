#include <nbase/io/ncsvfilewriter.h>

#include "support/nchildprocess.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QTextCodec>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <fstream>
#include <sstream>

namespace {

QString written(const QStringList& fields, const QChar& separator = QLatin1Char(','))
{
    QString string;
    NCsvFileWriter(&string, separator).appendLine(fields);
    return string;
}

// The record that is written to every kind of sink.
QStringList record()
{
    return QStringList() << latin1("a,b") << latin1("c;d:e") << QString(QChar(0xe9)) << QString();
}

// A device that accepts a limited number of bytes in all.
class SmallDevice : public QIODevice
{
public:
    explicit SmallDevice(int size)
        : m_size(size)
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

    bool isSequential() const override { return true; }

    QByteArray taken;

protected:
    qint64 readData(char*, qint64) override { return -1; }

    qint64 writeData(const char* data, qint64 size) override
    {
        const qint64 part = qMin(size, qint64(m_size - taken.size()));
        taken.append(data, int(part));
        return part;
    }

private:
    const int m_size;
};

// The same as a stream buffer.
class SmallBuffer : public std::streambuf
{
public:
    explicit SmallBuffer(int size)
        : m_device(size)
    {
    }

    QByteArray taken() const { return m_device.taken; }

protected:
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        return std::streamsize(m_device.write(s, n));
    }

private:
    SmallDevice m_device;
};

const char* const FullFile = "/dev/full"; // see full(4)

const int RecordCount = 10000;

// Larger than all buffers involved.
void writeRecords(NCsvFileWriter& writer)
{
    for (int index = 0; index < RecordCount; ++index)
        writer.appendLine(QStringList() << latin1("some") << latin1("thing"));
}

QByteArray allRecords()
{
    return QByteArray("some,thing\n").repeated(RecordCount);
}

} // namespace

class tst_NCsvFileWriter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void fieldsAreEscapedOnlyWhereNeeded_data();
    void fieldsAreEscapedOnlyWhereNeeded();
    void specialCharactersAreFoundAnywhereInAField_data();
    void specialCharactersAreFoundAnywhereInAField();
    void recordEndsWithALineFeed();
    void emptyListWritesNothing();
    void emptyFieldsAreWritten();
    void separatorBeyondLatin1IsNul();

    void everySinkReceivesTheRecord();
    void givenStreamsAreNeitherFlushedNorDeleted();
    void standardStreamGetsLatin1();
    void standardStreamKeepsNul();
    void nullStandardStreamIsIgnored();
    void exceptionsOfAStandardStreamAreCaught();
    void nonEmptySinksAreWrittenTo();
    void stringsArePaddedToTheStreamsFieldWidth();

    void escapingUsesOnlyTheMemoryNeeded();
    void escapingWithoutMemoryReturnsANullString();
    void recordWithoutMemoryIsLeftOutCompletely_data();
    void recordWithoutMemoryIsLeftOutCompletely();
    void fullDeviceReportsItsError_data();
    void fullDeviceReportsItsError();
    void fullStreamReportsItsStatus_data();
    void fullStreamReportsItsStatus();
    void nothingIsWrittenAfterAFailure();
    void deviceMayBeClosedMeanwhile();
};

void tst_NCsvFileWriter::initTestCase()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

void tst_NCsvFileWriter::fieldsAreEscapedOnlyWhereNeeded_data()
{
    QTest::addColumn<QChar>("separator");
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("escaped");
    const QChar comma = QLatin1Char(',');
    const QChar semicolon = QLatin1Char(';');
    QTest::newRow("plain") << comma << latin1("abc") << latin1("abc");
    QTest::newRow("empty") << comma << latin1("") << latin1("");
    QTest::newRow("blanks") << comma << latin1(" a ") << latin1(" a ");
    QTest::newRow("separator") << comma << latin1("a,b") << latin1("\"a,b\"");
    QTest::newRow("other separator") << comma << latin1("a;b:c") << latin1("a;b:c");
    QTest::newRow("semicolon") << semicolon << latin1("a;b") << latin1("\"a;b\"");
    QTest::newRow("comma with semicolon") << semicolon << latin1("a,b") << latin1("a,b");
    QTest::newRow("quote") << comma << latin1("x\"y") << latin1("\"x\"\"y\"");
    QTest::newRow("only a quote") << comma << latin1("\"") << latin1("\"\"\"\"");
    QTest::newRow("line feed") << comma << latin1("a\nb") << latin1("\"a\nb\"");
    QTest::newRow("carriage return") << comma << latin1("a\rb") << latin1("\"a\rb\"");
    QTest::newRow("tabulator") << comma << latin1("a\tb") << latin1("a\tb");
}

void tst_NCsvFileWriter::fieldsAreEscapedOnlyWhereNeeded()
{
    QFETCH(QChar, separator);
    QFETCH(QString, field);
    QFETCH(QString, escaped);
    QString string;
    const NCsvFileWriter writer(&string, separator);
    QCOMPARE(writer.escapeString(field), escaped);
    QCOMPARE(written(QStringList() << field, separator), escaped + QLatin1Char('\n'));
}

void tst_NCsvFileWriter::specialCharactersAreFoundAnywhereInAField_data()
{
    QTest::addColumn<QChar>("separator");
    QTest::addColumn<QChar>("special");
    const char separators[] = {',', ';', ':', 'x', 'y', '\0', char(0xe9)};
    for (char separator : separators) {
        const char specials[] = {separator, '"', '\r', '\n'};
        for (char special : specials)
            QTest::newRow(
                (QByteArray::number(uchar(separator)) + ' ' + QByteArray::number(uchar(special))).constData())
                << QChar(QLatin1Char(separator)) << QChar(QLatin1Char(special));
    }
}

void tst_NCsvFileWriter::specialCharactersAreFoundAnywhereInAField()
{
    QFETCH(QChar, separator);
    QFETCH(QChar, special);
    QString sink;
    const NCsvFileWriter writer(&sink, separator);
    for (int size = 0; size < 20; ++size) {
        // A character with the same low byte is a different character.
        const QString plain(size, QChar(special.unicode() + 0x100));
        QCOMPARE(writer.escapeString(plain), plain);
        for (int position = 0; position < size; ++position) {
            QString field = plain;
            field[position] = special;
            const QString inside =
                special == QLatin1Char('"') ? QString(field).insert(position, QLatin1Char('"')) : field;
            QCOMPARE(writer.escapeString(field), QLatin1Char('"') + inside + QLatin1Char('"'));
        }
    }
}

void tst_NCsvFileWriter::recordEndsWithALineFeed()
{
    QCOMPARE(written(QStringList() << latin1("a,b") << latin1("c")), latin1("\"a,b\",c\n"));
    QCOMPARE(written(QStringList() << latin1("a")), latin1("a\n"));
}

void tst_NCsvFileWriter::emptyListWritesNothing()
{
    QCOMPARE(written(QStringList()), QString());
}

void tst_NCsvFileWriter::emptyFieldsAreWritten()
{
    QCOMPARE(written(QStringList() << QString()), latin1("\n"));
    QCOMPARE(written(QStringList() << QString() << latin1("") << QString()), latin1(",,\n"));
}

void tst_NCsvFileWriter::separatorBeyondLatin1IsNul()
{
    const QString string = written(QStringList() << latin1("a") << latin1("b"), QChar(0x2c2c));
    QCOMPARE(string, QString::fromLatin1("a\0b\n", 4));
}

void tst_NCsvFileWriter::everySinkReceivesTheRecord()
{
    const QByteArray utf8("a,b;\"c;d:e\";\xc3\xa9;\n");
    const QByteArray latin1("a,b;\"c;d:e\";\xe9;\n");
    for (int byCharacter = 0; byCharacter < 2; ++byCharacter) {
        const QChar character = QLatin1Char(';');
        const NCsvUtilities::Separator separator = NCsvUtilities::SeparatorSemicolon;

        QBuffer device;
        QVERIFY(device.open(QIODevice::WriteOnly));
        if (byCharacter)
            NCsvFileWriter(&device, character).appendLine(record());
        else
            NCsvFileWriter(&device, separator).appendLine(record());
        QCOMPARE(device.data(), utf8);
        QVERIFY(device.isOpen());

        QString string;
        if (byCharacter)
            NCsvFileWriter(&string, character).appendLine(record());
        else
            NCsvFileWriter(&string, separator).appendLine(record());
        QCOMPARE(string, QString::fromUtf8(utf8.constData()));

        QByteArray array;
        if (byCharacter)
            NCsvFileWriter(&array, character).appendLine(record());
        else
            NCsvFileWriter(&array, separator).appendLine(record());
        QCOMPARE(array, utf8);

        QByteArray streamed;
        QTextStream stream(&streamed, QIODevice::WriteOnly);
        stream.setCodec("ISO 8859-1");
        if (byCharacter)
            NCsvFileWriter(&stream, character).appendLine(record());
        else
            NCsvFileWriter(&stream, separator).appendLine(record());
        stream.flush();
        QCOMPARE(streamed, latin1);

        std::ostringstream standard;
        std::ostream* const sink = &standard;
        if (byCharacter)
            NCsvFileWriter(sink, character).appendLine(record());
        else
            NCsvFileWriter(sink, separator).appendLine(record());
        QCOMPARE(standard.str().c_str(), latin1.constData());
    }
}

void tst_NCsvFileWriter::givenStreamsAreNeitherFlushedNorDeleted()
{
    QByteArray array;
    QTextStream stream(&array, QIODevice::WriteOnly);
    {
        NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
        writer.appendLine(QStringList() << latin1("a"));
    }
    QCOMPARE(array, QByteArray());
    stream << latin1("b");
    stream.flush();
    QCOMPARE(array, QByteArray("a\nb"));
}

void tst_NCsvFileWriter::standardStreamGetsLatin1()
{
    std::ostringstream standard;
    NCsvFileWriter writer(static_cast<std::ostream*>(&standard), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << QString(QChar(0x20ac)) << QString(QChar(0xff)));
    QCOMPARE(standard.str().c_str(), "?,\xff\n");
}

void tst_NCsvFileWriter::standardStreamKeepsNul()
{
    std::ostringstream standard;
    NCsvFileWriter writer(static_cast<std::ostream*>(&standard), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << QString::fromLatin1("a\0b", 3));
    QVERIFY(standard.str() == std::string("a\0b\n", 4));
}

void tst_NCsvFileWriter::nullStandardStreamIsIgnored()
{
    NCsvFileWriter writer(static_cast<std::ostream*>(nullptr), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << latin1("a"));
    QCOMPARE(writer.escapeString(latin1("a,")), latin1("\"a,\""));
}

void tst_NCsvFileWriter::exceptionsOfAStandardStreamAreCaught()
{
    std::ostringstream standard;
    standard.setstate(std::ios_base::badbit);
    try {
        standard.exceptions(std::ios_base::badbit);
    } catch (const std::ios_base::failure&) {
    }
    NCsvFileWriter writer(static_cast<std::ostream*>(&standard), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << latin1("a"));
    QVERIFY(standard.bad());
}

void tst_NCsvFileWriter::nonEmptySinksAreWrittenTo()
{
    const QStringList record(latin1("x"));
    const NCsvUtilities::Separator separator = NCsvUtilities::SeparatorComma;

    QByteArray array("existing text");
    NCsvFileWriter(&array, separator).appendLine(record);
    QCOMPARE(array, QByteArray("x\nisting text"));

    QString string(latin1("existing text"));
    NCsvFileWriter(&string, separator).appendLine(record);
    QCOMPARE(string, latin1("existing textx\n"));

    QBuffer device;
    device.setData("existing text");
    QVERIFY(device.open(QIODevice::ReadWrite));
    QVERIFY(device.seek(9));
    NCsvFileWriter(&device, separator).appendLine(record);
    QCOMPARE(device.data(), QByteArray("existing x\nxt"));

    const NTemporaryDirectory directory;
    QFile file(directory.writeFile(latin1("file"), "existing text\n"));
    QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Append));
    NCsvFileWriter(&file, separator).appendLine(record);
    QVERIFY(file.seek(0));
    QCOMPARE(file.readAll(), QByteArray("existing text\nx\n"));

    QTextStream stream(&string);
    QVERIFY(stream.seek(0));
    stream << latin1("!");
    NCsvFileWriter(&stream, separator).appendLine(record);
    QCOMPARE(string, latin1("existing textx\n!x\n"));

    std::ostringstream standard(std::string("existing text"), std::ios_base::out | std::ios_base::ate);
    NCsvFileWriter(static_cast<std::ostream*>(&standard), separator).appendLine(record);
    QCOMPARE(standard.str().c_str(), "existing textx\n");
}

void tst_NCsvFileWriter::stringsArePaddedToTheStreamsFieldWidth()
{
    QString string;
    QTextStream stream(&string);
    NCsvFileWriter writer(&stream, QLatin1Char(','));
    const QStringList record = QStringList() << latin1("a") << latin1("b,c") << QString() << latin1("longer");
    stream.setFieldWidth(5);
    stream.setFieldAlignment(QTextStream::AlignLeft);
    stream.setPadChar(QLatin1Char('.'));
    writer.appendLine(record);
    writer.appendLine(QStringList());
    QCOMPARE(string, latin1("a....,....\"b,c\",.........,....longer\n...."));

    stream.setFieldAlignment(QTextStream::AlignRight);
    string.clear();
    writer.appendLine(QStringList() << latin1("a") << latin1("b"));
    QCOMPARE(string, latin1("....a....,....b....\n"));

    stream.setFieldWidth(0);
    string.clear();
    writer.appendLine(record);
    QCOMPARE(string, latin1("a,\"b,c\",,longer\n"));
}

void tst_NCsvFileWriter::escapingUsesOnlyTheMemoryNeeded()
{
    QString sink;
    const NCsvFileWriter writer(&sink, QLatin1Char(','));
    const QString plain(100000, QLatin1Char('a'));
    QVERIFY(writer.escapeString(plain).constData() == plain.constData());
    const QString escaped = writer.escapeString(plain + latin1("\","));
    QCOMPARE(escaped.size(), 100000 + 5);
    QVERIFY(escaped.capacity() < escaped.size() + 100);
}

// A sanitizer needs more address space than any limit allows. With one, the fields are short and the allocations
// succeed.
void tst_NCsvFileWriter::escapingWithoutMemoryReturnsANullString()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int size = 100;
#else
    const int size = 50 * 1000 * 1000;
#endif
    const int status = NTest::runInChild([=]() {
        QString sink;
        const NCsvFileWriter writer(&sink, QLatin1Char(','));
        const QString plain(size, QLatin1Char('a'));
        const QString quotes(size, QLatin1Char('"'));
        const bool isLimited = size > 100;
        if (isLimited && !NTest::leaveMemory(80))
            return 1;
        const QString unchanged = writer.escapeString(plain);
        return unchanged == plain && writer.escapeString(quotes).isNull() == isLimited ? 0 : 2;
    });
    QCOMPARE(status, 0);
}

void tst_NCsvFileWriter::recordWithoutMemoryIsLeftOutCompletely_data()
{
    QTest::addColumn<bool>("standard");
    QTest::newRow("text stream") << false;
    QTest::newRow("standard stream") << true;
}

// A sanitizer needs more address space than any limit allows. With one, the record is small and the allocations
// succeed.
void tst_NCsvFileWriter::recordWithoutMemoryIsLeftOutCompletely()
{
    QFETCH(bool, standard);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int size = 100;
#else
    const int size = 100000000;
#endif
    const int status = NTest::runInChild([standard, size]() {
        const QStringList fields = QStringList() << latin1("first") << QString(size, QLatin1Char('a'));
        const bool isLimited = size > 100;
        if (isLimited && !NTest::leaveMemory(100))
            return 1;
        QString string;
        QTextStream textStream(&string, QIODevice::WriteOnly);
        std::ostringstream standardStream;
        QScopedPointer<NCsvFileWriter> writer(
            standard ? new NCsvFileWriter(static_cast<std::ostream*>(&standardStream), QLatin1Char(','))
                     : new NCsvFileWriter(&textStream, QLatin1Char(',')));
        writer->appendLine(fields);
        textStream.flush();
        const bool isRefused = standard ? standardStream.bad() : textStream.status() == QTextStream::WriteFailed;
        const bool isEmpty = standard ? standardStream.str().empty() : string.isEmpty();
        return isRefused == isLimited && isEmpty == isLimited ? 0 : 2;
    });
    QCOMPARE(status, 0);
}

void tst_NCsvFileWriter::fullDeviceReportsItsError_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("isLong");
    const int modes[] = {QIODevice::WriteOnly, QIODevice::WriteOnly | QIODevice::Unbuffered};
    for (int mode : modes) {
        const QByteArray name = mode & QIODevice::Unbuffered ? "unbuffered" : "buffered";
        QTest::newRow((name + ", a record").constData()) << mode << false;
        QTest::newRow((name + ", many records").constData()) << mode << true;
    }
}

void tst_NCsvFileWriter::fullDeviceReportsItsError()
{
    QFETCH(int, mode);
    QFETCH(bool, isLong);
    QFile file(latin1(FullFile));
    QVERIFY(file.open(QIODevice::OpenMode(mode)));
    {
        NCsvFileWriter writer(&file, NCsvUtilities::SeparatorComma);
        if (isLong)
            writeRecords(writer);
        else
            writer.appendLine(record());
    }
    QVERIFY(file.error() != QFile::NoError);
}

void tst_NCsvFileWriter::fullStreamReportsItsStatus_data()
{
    QTest::addColumn<bool>("standard");
    QTest::newRow("text stream") << false;
    QTest::newRow("standard stream") << true;
}

void tst_NCsvFileWriter::fullStreamReportsItsStatus()
{
    QFETCH(bool, standard);
    if (standard) {
        std::ofstream stream(FullFile);
        QVERIFY(stream.is_open());
        NCsvFileWriter writer(static_cast<std::ostream*>(&stream), NCsvUtilities::SeparatorComma);
        writer.appendLine(record());
        QVERIFY(stream.good());
        stream.flush();
        QVERIFY(stream.bad());
        stream.clear();
        writeRecords(writer);
        QVERIFY(stream.bad());
        return;
    }
    QFile file(latin1(FullFile));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QTextStream stream(&file);
    NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
    writer.appendLine(record());
    QCOMPARE(stream.status(), QTextStream::Ok);
    stream.flush();
    QCOMPARE(stream.status(), QTextStream::WriteFailed);
    stream.resetStatus();
    writeRecords(writer);
    QCOMPARE(stream.status(), QTextStream::WriteFailed);
}

void tst_NCsvFileWriter::nothingIsWrittenAfterAFailure()
{
    const int size = 20000; // it ends in the middle of a record
    const QByteArray beginning = allRecords().left(size);

    SmallDevice device(size);
    {
        NCsvFileWriter writer(&device, NCsvUtilities::SeparatorComma);
        writeRecords(writer);
    }
    QCOMPARE(device.taken, beginning);

    SmallDevice target(size);
    {
        QTextStream stream(&target);
        NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
        writeRecords(writer);
        stream.flush();
        QCOMPARE(stream.status(), QTextStream::WriteFailed);
    }
    QCOMPARE(target.taken, beginning);

    SmallBuffer buffer(size);
    std::ostream stream(&buffer);
    NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
    writeRecords(writer);
    QVERIFY(stream.bad());
    QCOMPARE(buffer.taken(), beginning);
}

void tst_NCsvFileWriter::deviceMayBeClosedMeanwhile()
{
    const QByteArray before("\"a,b\",c;d:e,\xc3\xa9,\n"); // still in the stream's buffer when the device closed
    QBuffer device;
    QVERIFY(device.open(QIODevice::WriteOnly));
    {
        NCsvFileWriter writer(&device, NCsvUtilities::SeparatorComma);
        writer.appendLine(record());
        device.close();
        writeRecords(writer);
    }
    QCOMPARE(device.data(), before);

    QBuffer target;
    QVERIFY(target.open(QIODevice::WriteOnly));
    QTextStream stream(&target);
    NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
    writer.appendLine(record());
    target.close();
    QCOMPARE(stream.status(), QTextStream::Ok);
    writeRecords(writer);
    QCOMPARE(stream.status(), QTextStream::WriteFailed);
    QCOMPARE(target.data(), before);
}

QTEST_APPLESS_MAIN(tst_NCsvFileWriter)
#include "tst_ncsvfilewriter.moc"
