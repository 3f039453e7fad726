#include <nwebapi/nwafcgiprotocol_p.h>

#include <QtTest/QtTest>

using namespace NwaFcgiProtocol;

class tst_NwaFcgiProtocol : public QObject
{
    Q_OBJECT

private slots:
    void recordHeaderIsReadAsUnsignedBigEndianNumbers();
    void streamIsSplitIntoRecords_data();
    void streamIsSplitIntoRecords();
    void streamEndIsAnEmptyRecord();
    void requestEndCarriesTheStatus();
    void unknownTypeIsReported();
    void pairIsReadAsItWasWritten_data();
    void pairIsReadAsItWasWritten();
    void pairsFollowEachOther();
    void truncatedPairIsNotRead_data();
    void truncatedPairIsNotRead();
    void sizesBeyondTheContentAreRejected_data();
    void sizesBeyondTheContentAreRejected();
    void nameOfAPairWithATruncatedValueIsRead();
    void shortSizeWrittenLongIsRead();
};

void tst_NwaFcgiProtocol::recordHeaderIsReadAsUnsignedBigEndianNumbers()
{
    const RecordHeader header("\x01\x05\xfe\xdc\xff\x80\xc8\x77");
    QCOMPARE(header.version, 1);
    QCOMPARE(header.type, int(Stdin));
    QCOMPARE(header.requestId, 0xfedc);
    QCOMPARE(header.contentSize, 0xff80);
    QCOMPARE(header.paddingSize, 0xc8);
    QCOMPARE(header.totalSize(), 8 + 0xff80 + 0xc8);
}

void tst_NwaFcgiProtocol::streamIsSplitIntoRecords_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("recordCount");
    QTest::newRow("nothing, because an empty record would end the stream") << 0 << 0;
    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("largest record") << 65535 << 1;
    QTest::newRow("one byte more") << 65536 << 2;
    QTest::newRow("several records") << 200000 << 4;
}

void tst_NwaFcgiProtocol::streamIsSplitIntoRecords()
{
    QFETCH(int, size);
    QFETCH(int, recordCount);
    QByteArray content;
    for (int index = 0; index < size; ++index)
        content.append(char(index * 7));
    QByteArray output = "before";
    appendStream(output, Stdout, 0x1234, content.constData(), content.size());
    QVERIFY(output.startsWith("before"));
    int position = 6;
    QByteArray joined;
    int count = 0;
    while (position < output.size()) {
        const RecordHeader header(output.constData() + position);
        QCOMPARE(header.version, 1);
        QCOMPARE(header.type, int(Stdout));
        QCOMPARE(header.requestId, 0x1234);
        QVERIFY(header.contentSize > 0);
        joined += output.mid(position + HeaderSize, header.contentSize);
        position += header.totalSize();
        ++count;
    }
    QCOMPARE(position, output.size());
    QCOMPARE(count, recordCount);
    QVERIFY(joined == content);
}

void tst_NwaFcgiProtocol::streamEndIsAnEmptyRecord()
{
    QByteArray output;
    appendStreamEnd(output, Stderr, 0xabcd);
    QCOMPARE(output, QByteArray("\x01\x07\xab\xcd\0\0\0\0", 8));
}

void tst_NwaFcgiProtocol::requestEndCarriesTheStatus()
{
    QByteArray output;
    appendEndRequest(output, 2, CannotMultiplex);
    QCOMPARE(output, QByteArray("\x01\x03\0\x02\0\x08\0\0\0\0\0\0\x01\0\0\0", 16));
}

void tst_NwaFcgiProtocol::unknownTypeIsReported()
{
    QByteArray output;
    appendUnknownType(output, 0xc8);
    QCOMPARE(output, QByteArray("\x01\x0b\0\0\0\x08\0\0\xc8\0\0\0\0\0\0\0", 16));
}

void tst_NwaFcgiProtocol::pairIsReadAsItWasWritten_data()
{
    QTest::addColumn<int>("nameSize");
    QTest::addColumn<int>("valueSize");
    QTest::addColumn<int>("totalSize");
    QTest::newRow("both empty") << 0 << 0 << 2;
    QTest::newRow("empty value") << 4 << 0 << 6;
    QTest::newRow("empty name") << 0 << 4 << 6;
    QTest::newRow("largest short sizes") << 127 << 127 << 256;
    QTest::newRow("smallest long name") << 128 << 1 << 134;
    QTest::newRow("smallest long value") << 1 << 128 << 134;
    QTest::newRow("both long") << 300 << 70000 << 70308;
}

void tst_NwaFcgiProtocol::pairIsReadAsItWasWritten()
{
    QFETCH(int, nameSize);
    QFETCH(int, valueSize);
    QFETCH(int, totalSize);
    const QByteArray name(nameSize, 'n');
    const QByteArray value(valueSize, '\xe9');
    QByteArray content;
    appendPair(content, name, value);
    QCOMPARE(content.size(), totalSize);
    PairReader reader(content);
    QVERIFY(!reader.atEnd());
    QVERIFY(reader.next());
    QCOMPARE(reader.name(), name);
    QCOMPARE(reader.value(), value);
    QVERIFY(reader.atEnd());
    QVERIFY(!reader.next());
}

void tst_NwaFcgiProtocol::pairsFollowEachOther()
{
    QByteArray content;
    appendPair(content, "A", "1");
    appendPair(content, "B", QByteArray());
    appendPair(content, "A", "2");
    PairReader reader(content);
    QVERIFY(reader.next());
    QCOMPARE(reader.name() + reader.value(), QByteArray("A1"));
    QVERIFY(reader.next());
    QCOMPARE(reader.name() + reader.value(), QByteArray("B"));
    QVERIFY(reader.next());
    QCOMPARE(reader.name() + reader.value(), QByteArray("A2"));
    QVERIFY(reader.atEnd());
}

void tst_NwaFcgiProtocol::truncatedPairIsNotRead_data()
{
    QTest::addColumn<int>("nameSize");
    QTest::addColumn<int>("valueSize");
    QTest::newRow("short sizes") << 5 << 7;
    QTest::newRow("long sizes") << 130 << 140;
}

void tst_NwaFcgiProtocol::truncatedPairIsNotRead()
{
    QFETCH(int, nameSize);
    QFETCH(int, valueSize);
    QByteArray whole;
    appendPair(whole, QByteArray(nameSize, 'n'), QByteArray(valueSize, 'v'));
    for (int size = 0; size < whole.size(); ++size) {
        // A copy of exactly that size, so that a sanitizer reports every byte that is read beyond it.
        const QByteArray cut(whole.constData(), size);
        PairReader reader(cut);
        QVERIFY(!reader.next());
        QCOMPARE(reader.atEnd(), size == 0);
    }
}

void tst_NwaFcgiProtocol::sizesBeyondTheContentAreRejected_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("largest name") << QByteArray("\xff\xff\xff\xff\x01nv", 7);
    QTest::newRow("largest value") << QByteArray("\x01\xff\xff\xff\xffnv", 7);
    QTest::newRow("both largest") << QByteArray("\xff\xff\xff\xff\xff\xff\xff\xffnv", 10);
    QTest::newRow("sum that overflows to a small one") << QByteArray("\xff\xff\xff\xff\x80\0\0\x03nv", 10);
    QTest::newRow("one byte short") << QByteArray("\x01\x02nv", 4);
}

void tst_NwaFcgiProtocol::sizesBeyondTheContentAreRejected()
{
    QFETCH(QByteArray, content);
    PairReader reader(content);
    QVERIFY(!reader.next());
    QVERIFY(!reader.atEnd());
}

void tst_NwaFcgiProtocol::nameOfAPairWithATruncatedValueIsRead()
{
    QByteArray content;
    appendPair(content, "QUERY_STRING", QByteArray(100000, 'q'));
    content.truncate(1000);
    PairReader reader(content);
    QVERIFY(!reader.next());
    QCOMPARE(reader.name(), QByteArray("QUERY_STRING"));
}

void tst_NwaFcgiProtocol::shortSizeWrittenLongIsRead()
{
    const QByteArray content("\x80\0\0\x01\x80\0\0\x02nvv", 11);
    PairReader reader(content);
    QVERIFY(reader.next());
    QCOMPARE(reader.name(), QByteArray("n"));
    QCOMPARE(reader.value(), QByteArray("vv"));
}

QTEST_APPLESS_MAIN(tst_NwaFcgiProtocol)
#include "tst_nwafcgiprotocol.moc"
