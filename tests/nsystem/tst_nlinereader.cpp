#include <nsystem/nlinereader_p.h>

#include "support/ntemporarydirectory.h"

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

#include <thread>

namespace {

// The lines that @a reader gives, and "..." behind those that are not complete.
QList<QByteArray> linesOf(NLineReader& reader, int file)
{
    QList<QByteArray> lines;
    NLineReader::Line line;
    reader.start(file);
    while (reader.next(&line))
        lines.append(QByteArray(line.bytes, line.size) + (line.isComplete ? "" : "..."));
    return lines;
}

} // namespace

class tst_NLineReader : public QObject
{
    Q_OBJECT

private slots:
    void linesOfAFile_data();
    void linesOfAFile();
    void linesMayComeInPieces();
    void linesLargerThanTheFirstBuffer();
    void filesAreReadOneAfterTheOther();
    void textEndsAtTheFirstNul();
    void failureIsNotTheEnd();
};

void tst_NLineReader::linesOfAFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QList<QByteArray>>("lines");

    typedef QList<QByteArray> Lines;
    QTest::newRow("empty") << QByteArray() << Lines();
    QTest::newRow("one line") << QByteArray("a\n") << (Lines() << "a");
    QTest::newRow("no line feed at the end") << QByteArray("a\nb")
                                             << (Lines() << "a"
                                                         << "b");
    QTest::newRow("empty lines") << QByteArray("\n\na\n\n")
                                 << (Lines() << ""
                                             << ""
                                             << "a"
                                             << "");
    QTest::newRow("carriage return") << QByteArray("a\r\nb\r")
                                     << (Lines() << "a\r"
                                                 << "b\r");
    QTest::newRow("NUL byte") << QByteArray("a\0b\nc", 5) << (Lines() << QByteArray("a\0b", 3) << "c");
    QTest::newRow("one byte short of the maximum") << QByteArray("1234567\nb\n")
                                                   << (Lines() << "1234567"
                                                               << "b");
    QTest::newRow("longer than the maximum") << QByteArray("123456789\nb\n")
                                             << (Lines() << "12345678..."
                                                         << "b");
    QTest::newRow("several times the maximum") << QByteArray(50, 'x') + "\nb\n"
                                               << (Lines() << "xxxxxxxx..."
                                                           << "b");
    QTest::newRow("too long at the end") << QByteArray(50, 'x') << (Lines() << "xxxxxxxx...");
}

void tst_NLineReader::linesOfAFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QList<QByteArray>, lines);
    const NTemporaryDirectory directory;
    const QString path = directory.writeFile(QString::fromLatin1("file"), content);
    const NFileDescriptor file = NSystem::openRegularFile(QFile::encodeName(path).constData());
    NLineReader reader(8);
    QCOMPARE(linesOf(reader, file.number()), lines);
    QVERIFY(!reader.hasFailed());
}

void tst_NLineReader::linesMayComeInPieces()
{
    int ends[2];
    QVERIFY(::pipe2(ends, O_CLOEXEC) == 0);
    const NFileDescriptor reading(ends[0]);
    NFileDescriptor writing(ends[1]);
    std::thread writer([&writing]() {
        for (const char byte : QByteArray("first\nsecond\nlast"))
            NSystem::writeAll(writing.number(), &byte, 1);
        writing.reset();
    });
    NLineReader reader;
    const QList<QByteArray> lines = linesOf(reader, reading.number());
    writer.join();
    QCOMPARE(
        lines, QList<QByteArray>() << "first"
                                   << "second"
                                   << "last");
}

void tst_NLineReader::linesLargerThanTheFirstBuffer()
{
    QList<QByteArray> lines;
    QByteArray content;
    for (int size = 1; size < 300000; size = size * 3 + 1) {
        lines.append(QByteArray(size, char('a' + lines.size())));
        content += lines.last() + '\n';
    }
    const NTemporaryDirectory directory;
    const QString path = directory.writeFile(QString::fromLatin1("file"), content);
    const NFileDescriptor file = NSystem::openRegularFile(QFile::encodeName(path).constData());
    NLineReader reader;
    QCOMPARE(linesOf(reader, file.number()), lines);
}

void tst_NLineReader::filesAreReadOneAfterTheOther()
{
    const NTemporaryDirectory directory;
    NLineReader reader(8);
    for (const char* content : {"one\nand the rest of it", "two", ""}) {
        const QString path = directory.writeFile(QString::fromLatin1("file"), content);
        const NFileDescriptor file = NSystem::openRegularFile(QFile::encodeName(path).constData());
        NLineReader::Line line;
        reader.start(file.number());
        QCOMPARE(reader.next(&line), *content != '\0');
        if (*content)
            QCOMPARE(QByteArray(line.bytes, line.size), QByteArray(content, 3));
    }
}

void tst_NLineReader::textEndsAtTheFirstNul()
{
    const NLineReader::Line complete = {"a\xe9\0b", 4, true};
    QCOMPARE(complete.textUpToNul(), QString::fromLatin1("a\xe9"));
    QVERIFY(complete.isTextComplete());

    const NLineReader::Line cutBehindNul = {"a\0b", 3, false};
    QVERIFY(cutBehindNul.isTextComplete());

    const NLineReader::Line cut = {"abc", 3, false};
    QCOMPARE(cut.textUpToNul(), QString::fromLatin1("abc"));
    QVERIFY(!cut.isTextComplete());
}

void tst_NLineReader::failureIsNotTheEnd()
{
    const NFileDescriptor directory = NSystem::open("/", O_RDONLY);
    NLineReader reader;
    NLineReader::Line line;
    reader.start(directory.number());
    QVERIFY(!reader.next(&line));
    QVERIFY(reader.hasFailed());
    QCOMPARE(errno, EISDIR);
}

QTEST_APPLESS_MAIN(tst_NLineReader)

#include "tst_nlinereader.moc"
