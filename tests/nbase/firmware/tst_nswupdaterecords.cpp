#include <nbase/firmware/nswupdaterecords_p.h>

#include <nsystem/nlatin1_p.h>

#include <QtTest/QtTest>

using namespace NSWUpdateRecords;

namespace {

QByteArray littleEndian(quint32 number)
{
    QByteArray bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes.append(char((number >> shift) & 0xFF));
    return bytes;
}

// A record with fields at their offsets; the rest is zero.
class Record
{
public:
    explicit Record(int size)
        : m_bytes(size, '\0')
    {
    }

    Record& number(int offset, quint32 value) { return bytes(offset, littleEndian(value)); }

    Record& bytes(int offset, const QByteArray& field)
    {
        m_bytes.replace(offset, field.size(), field);
        return *this;
    }

    operator QByteArray() const { return m_bytes; }

private:
    QByteArray m_bytes;
};

Record request(int size, quint32 type)
{
    return Record(size).number(0, 0x14052001).number(4, type);
}

const ControlLayout& controlLayout(int size)
{
    return size == 2072 ? Control2072 : size == 3120 ? Control3120 : Control3104;
}

const ProgressLayout& progressLayout(int size)
{
    return size == 2400 ? Progress2400 : size == 2416 ? Progress2416 : Progress2408;
}

} // namespace

class tst_NSWUpdateRecords : public QObject
{
    Q_OBJECT

private slots:
    void installRequestHasTheTextAndOtherwiseZeros_data();
    void installRequestHasTheTextAndOtherwiseZeros();
    void postUpdateRequestIsTheSameInAllLayouts_data();
    void postUpdateRequestIsTheSameInAllLayouts();
    void statusRequestHasNothingButItsType();
    void onlyTypeOneIsAnAcknowledgement();
    void statusReplyIsRead();
    void descriptionEndsWithItsField();
    void unknownValuesAreUnchanged();
    void progressRecordIsRead_data();
    void progressRecordIsRead();
    void progressTextsEndWithTheirFields();
    void zeroLengthMeansNoText();
    void textOfVersionedRecordsEndsWithItsLength();
    void greetingIsNoRecord();
};

void tst_NSWUpdateRecords::installRequestHasTheTextAndOtherwiseZeros_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("sent");
    for (int size : {2072, 3120, 3104}) {
        const int limit = size == 2072 ? 2048 : 511;
        const QByteArray name = QByteArray::number(size);
        const QByteArray full(limit, 'x');
        QTest::newRow((name + " without text").constData()) << size << QByteArray() << QByteArray();
        QTest::newRow((name + " text").constData()) << size << QByteArray("abc") << QByteArray("abc");
        QTest::newRow((name + " Latin-1").constData()) << size << QByteArray("\xE9\xFF") << QByteArray("\xE9\xFF");
        QTest::newRow((name + " full").constData()) << size << full << full;
        QTest::newRow((name + " too long").constData()) << size << full + 'y' << full;
    }
}

void tst_NSWUpdateRecords::installRequestHasTheTextAndOtherwiseZeros()
{
    QFETCH(int, size);
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, sent);

    Record expected = request(size, 0);
    if (size == 2072)
        expected.number(20, quint32(sent.size())).bytes(24, sent);
    else
        expected.number(8, 1).bytes(size == 3120 ? 32 : 24, sent);
    QCOMPARE(installRequest(controlLayout(size), QString::fromLatin1(text.constData())), QByteArray(expected));
}

void tst_NSWUpdateRecords::postUpdateRequestIsTheSameInAllLayouts_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("2072") << 2072;
    QTest::newRow("3120") << 3120;
    QTest::newRow("3104") << 3104;
}

void tst_NSWUpdateRecords::postUpdateRequestIsTheSameInAllLayouts()
{
    QFETCH(int, size);
    const QByteArray text(2048, 'p');
    QCOMPARE(
        postUpdateRequest(controlLayout(size), QString::fromLatin1(text.constData()) + QLatin1Char('q')),
        QByteArray(request(size, 4).number(20, 2048).bytes(24, text)));
    QCOMPARE(postUpdateRequest(controlLayout(size), QString()), QByteArray(request(size, 4)));
    QCOMPARE(
        postUpdateRequest(controlLayout(size), latin1("r")),
        QByteArray(request(size, 4).number(20, 1).bytes(24, "r")));
}

void tst_NSWUpdateRecords::statusRequestHasNothingButItsType()
{
    for (int size : {2072, 3120, 3104})
        QCOMPARE(statusRequest(controlLayout(size)), QByteArray(request(size, 3)));
}

void tst_NSWUpdateRecords::onlyTypeOneIsAnAcknowledgement()
{
    // The magic number does not count.
    QVERIFY(isAcknowledged(Record(2072).number(4, 1)));
    QVERIFY(isAcknowledged(Record(2072).number(0, 0xFFFFFFFF).number(4, 1)));
    for (quint32 type : {0u, 2u, 3u, 4u, 0x100u, 0x01000000u, 0x101u, 0xFFFFFFFFu})
        QVERIFY(!isAcknowledged(request(2072, type)));
}

void tst_NSWUpdateRecords::statusReplyIsRead()
{
    const StatusReply status = statusReply(
        Record(2072).number(8, 2).number(12, 3).number(16, 0x01000000).bytes(20, QByteArray("a \xE9\0b", 5)));
    QCOMPARE(status.current, NSWUpdate::StatusRun);
    QCOMPARE(status.lastResult, NSWUpdate::StatusSuccess);
    QVERIFY(status.isError);
    QCOMPARE(status.description, QString::fromLatin1("a \xE9"));
    QVERIFY(!statusReply(Record(2072)).isError);
}

void tst_NSWUpdateRecords::descriptionEndsWithItsField()
{
    const QByteArray text(2048, 'd');
    QCOMPARE(
        statusReply(Record(2072).bytes(20, text + "zzzz")).description, QString::fromLatin1(text.constData()));
    QCOMPARE(
        statusReply(Record(3120).bytes(20, text + "zzzz")).description, QString::fromLatin1(text.constData()));
}

void tst_NSWUpdateRecords::unknownValuesAreUnchanged()
{
    const StatusReply status = statusReply(Record(2072).number(8, 0xFFFFFFFF).number(12, 0x12345678));
    QCOMPARE(int(status.current), -1);
    QCOMPARE(int(status.lastResult), 0x12345678);
    const QByteArray record = Record(2400).number(4, 0x80000000).number(344, 0x7FFFFFFF);
    QCOMPARE(quint32(ProgressRecord(Progress2400, record.constData()).status()), 0x80000000);
    QCOMPARE(int(ProgressRecord(Progress2400, record.constData()).source()), 0x7FFFFFFF);
}

void tst_NSWUpdateRecords::progressRecordIsRead_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("steps");
    QTest::newRow("2400") << 2400 << 12;
    QTest::newRow("2416") << 2416 << 24;
    QTest::newRow("2408") << 2408 << 20;
}

void tst_NSWUpdateRecords::progressRecordIsRead()
{
    QFETCH(int, size);
    QFETCH(int, steps);
    QCOMPARE(progressLayout(size).size, size);
    const QByteArray bytes = Record(size)
                                 .number(0, 0xFFFFFFFF)
                                 .number(4, 7)
                                 .number(8, 55)
                                 .number(steps, 300000)
                                 .number(steps + 4, 200000)
                                 .number(steps + 8, 44)
                                 .bytes(steps + 12, "image\xE9")
                                 .bytes(steps + 268, "handler")
                                 .number(steps + 332, 4)
                                 .number(steps + 336, 5)
                                 .bytes(steps + 340, "text\xFC");
    const ProgressRecord record(progressLayout(size), bytes.constData());
    QCOMPARE(record.status(), NSWUpdate::StatusSubprocess);
    QCOMPARE(int(record.downloadPercentage()), 55);
    QCOMPARE(record.stepCount(), 300000);
    QCOMPARE(record.currentStep(), 200000);
    QCOMPARE(record.stepPercentage(), 44u);
    QCOMPARE(record.imageName(), QString::fromLatin1("image\xE9"));
    QCOMPARE(record.source(), NSWUpdate::SourceLocal);
    QCOMPARE(record.text(), QString::fromLatin1("text\xFC"));
    QCOMPARE(record.announcedText(), QString::fromLatin1("text\xFC"));
}

void tst_NSWUpdateRecords::progressTextsEndWithTheirFields()
{
    const QByteArray name(256, 'n');
    const QByteArray text(2048, 't');
    const QByteArray bytes = Record(2400).bytes(24, name + "handler").number(348, 1).bytes(352, text) + "rest";
    const ProgressRecord record(Progress2400, bytes.constData());
    QCOMPARE(record.imageName(), QString::fromLatin1(name.constData()));
    QCOMPARE(record.text(), QString::fromLatin1(text.constData()));
    QCOMPARE(record.announcedText(), QString::fromLatin1(text.constData()));
}

void tst_NSWUpdateRecords::zeroLengthMeansNoText()
{
    for (quint32 length : {1u, 4u, 2048u, 0xFFFFFFFFu}) {
        const QByteArray bytes = Record(2400).number(348, length).bytes(352, "text");
        QCOMPARE(ProgressRecord(Progress2400, bytes.constData()).announcedText(), latin1("text"));
    }
    const QByteArray bytes = Record(2400).bytes(352, "old text");
    QCOMPARE(ProgressRecord(Progress2400, bytes.constData()).announcedText(), QString());
    QCOMPARE(ProgressRecord(Progress2400, bytes.constData()).text(), latin1("old text"));
}

void tst_NSWUpdateRecords::textOfVersionedRecordsEndsWithItsLength()
{
    const QByteArray longer = Record(2416).number(360, 3).bytes(364, "new text");
    QCOMPARE(ProgressRecord(Progress2416, longer.constData()).announcedText(), latin1("new"));
    QCOMPARE(ProgressRecord(Progress2416, longer.constData()).text(), latin1("new text"));
    const QByteArray shorter = Record(2408).number(356, 0xFFFFFFFF).bytes(360, "new");
    QCOMPARE(ProgressRecord(Progress2408, shorter.constData()).announcedText(), latin1("new"));
    const QByteArray none = Record(2408).bytes(360, "old");
    QCOMPARE(ProgressRecord(Progress2408, none.constData()).announcedText(), QString());
}

void tst_NSWUpdateRecords::greetingIsNoRecord()
{
    QVERIFY(isGreeting(QByteArray("\0\0\2\0ACK\0", 8).constData()));
    QVERIFY(!isGreeting(QByteArray("\0\0\2\0\1\0\0\0", 8).constData()));
    QVERIFY(!isGreeting(QByteArray("\0\0\2\0ACKs", 8).constData()));
}

QTEST_MAIN(tst_NSWUpdateRecords)
#include "tst_nswupdaterecords.moc"
