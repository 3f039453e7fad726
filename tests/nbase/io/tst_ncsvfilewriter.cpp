#include <nbase/io/ncsvfilewriter.h>

#include "support/nchildprocess.h"

#include <QtCore/QBuffer>
#include <QtCore/QTextCodec>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <sstream>
#include <sys/resource.h>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QString written(const QStringList& fields, const QChar& separator = QLatin1Char(','))
{
    QString string;
    NCsvFileWriter(&string, separator).appendLine(fields);
    return string;
}

// The record that every kind of sink gets.
QStringList record()
{
    return QStringList() << text("a,b") << text("c;d:e") << QString(QChar(0xe9)) << QString();
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

    void everySinkTakesTheRecord();
    void givenStreamsAreLeftToTheirOwner();
    void standardStreamGetsLatin1();
    void standardStreamKeepsNul();
    void nullStandardStreamTakesNothing();
    void standardStreamThatThrowsDoesNotThrowHere();
    void recordWithoutMemoryIsLeftOutWhole_data();
    void recordWithoutMemoryIsLeftOutWhole();
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
    QTest::newRow("plain") << comma << text("abc") << text("abc");
    QTest::newRow("empty") << comma << text("") << text("");
    QTest::newRow("blanks") << comma << text(" a ") << text(" a ");
    QTest::newRow("separator") << comma << text("a,b") << text("\"a,b\"");
    QTest::newRow("other separator") << comma << text("a;b:c") << text("a;b:c");
    QTest::newRow("semicolon") << semicolon << text("a;b") << text("\"a;b\"");
    QTest::newRow("comma with semicolon") << semicolon << text("a,b") << text("a,b");
    QTest::newRow("quote") << comma << text("x\"y") << text("\"x\"\"y\"");
    QTest::newRow("only a quote") << comma << text("\"") << text("\"\"\"\"");
    QTest::newRow("line feed") << comma << text("a\nb") << text("\"a\nb\"");
    QTest::newRow("carriage return") << comma << text("a\rb") << text("\"a\rb\"");
    QTest::newRow("tabulator") << comma << text("a\tb") << text("a\tb");
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
        // What has the same low byte is another character.
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
    QCOMPARE(written(QStringList() << text("a,b") << text("c")), text("\"a,b\",c\n"));
    QCOMPARE(written(QStringList() << text("a")), text("a\n"));
}

void tst_NCsvFileWriter::emptyListWritesNothing()
{
    QCOMPARE(written(QStringList()), QString());
}

void tst_NCsvFileWriter::emptyFieldsAreWritten()
{
    QCOMPARE(written(QStringList() << QString()), text("\n"));
    QCOMPARE(written(QStringList() << QString() << text("") << QString()), text(",,\n"));
}

void tst_NCsvFileWriter::separatorBeyondLatin1IsNul()
{
    const QString string = written(QStringList() << text("a") << text("b"), QChar(0x2c2c));
    QCOMPARE(string, QString::fromLatin1("a\0b\n", 4));
}

void tst_NCsvFileWriter::everySinkTakesTheRecord()
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

void tst_NCsvFileWriter::givenStreamsAreLeftToTheirOwner()
{
    QByteArray array;
    QTextStream stream(&array, QIODevice::WriteOnly);
    {
        NCsvFileWriter writer(&stream, NCsvUtilities::SeparatorComma);
        writer.appendLine(QStringList() << text("a"));
    }
    QCOMPARE(array, QByteArray());
    stream << text("b");
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

void tst_NCsvFileWriter::nullStandardStreamTakesNothing()
{
    NCsvFileWriter writer(static_cast<std::ostream*>(NULL), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << text("a"));
    QCOMPARE(writer.escapeString(text("a,")), text("\"a,\""));
}

void tst_NCsvFileWriter::standardStreamThatThrowsDoesNotThrowHere()
{
    std::ostringstream standard;
    standard.setstate(std::ios_base::badbit);
    try {
        standard.exceptions(std::ios_base::badbit);
    } catch (const std::ios_base::failure&) {
    }
    NCsvFileWriter writer(static_cast<std::ostream*>(&standard), NCsvUtilities::SeparatorComma);
    writer.appendLine(QStringList() << text("a"));
    QVERIFY(standard.bad());
}

void tst_NCsvFileWriter::recordWithoutMemoryIsLeftOutWhole_data()
{
    QTest::addColumn<bool>("standard");
    QTest::newRow("text stream") << false;
    QTest::newRow("standard stream") << true;
}

// A sanitizer takes more addresses than any limit would leave: there the record is small and gets its memory.
void tst_NCsvFileWriter::recordWithoutMemoryIsLeftOutWhole()
{
    QFETCH(bool, standard);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int size = 100;
#else
    const int size = 100000000;
#endif
    const int status = NTest::runInChild([standard, size]() {
        const QStringList fields = QStringList() << text("first") << QString(size, QLatin1Char('a'));
        const struct rlimit limit = {rlim_t(400) << 20, rlim_t(400) << 20};
        const bool isLimited = size > 100;
        if (isLimited && ::setrlimit(RLIMIT_AS, &limit) != 0)
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

QTEST_APPLESS_MAIN(tst_NCsvFileWriter)
#include "tst_ncsvfilewriter.moc"
