#include "nmemorychannel.h"

#include <nwebapi/nwafcgiexchange_p.h>

#include <QtTest/QtTest>

class tst_NwaFcgiExchange : public QObject
{
    Q_OBJECT

private slots:
    void newExchangeHasNoRequest();
    void assignmentBeginsAnew();
    void bodyIsReadInPiecesOfAnySize_data();
    void bodyIsReadInPiecesOfAnySize();
    void whatWasReadIsNotHeld();
    void bodyIsBrokenWhenItsSizeIsNotTheAnnouncedOne_data();
    void bodyIsBrokenWhenItsSizeIsNotTheAnnouncedOne();
    void formIsStreamed_data();
    void formIsStreamed();
};

void tst_NwaFcgiExchange::newExchangeHasNoRequest()
{
    const NwaFcgiExchange none;
    QVERIFY(!none.isActive());
    QVERIFY(!none.isStreamed());
    QCOMPARE(none.unreadBodySize(), 0);
    const NwaFcgiExchange begun(65535, true);
    QVERIFY(begun.isActive());
    QCOMPARE(begun.id, 65535);
    QVERIFY(begun.keepConnection);
    QVERIFY(!begun.request);
}

void tst_NwaFcgiExchange::assignmentBeginsAnew()
{
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables());
    NwaFcgiExchange exchange(1, true);
    exchange.variables = "variables";
    exchange.request = &request;
    exchange.isDispatched = true;
    exchange.hasErrorOutput = true;
    exchange.hasBodyEnded = true;
    exchange.appendToBody("body", 4);
    char byte = 0;
    QCOMPARE(exchange.readBody(&byte, 1), 1);

    exchange = NwaFcgiExchange();
    QVERIFY(!exchange.isActive());
    QVERIFY(!exchange.keepConnection);
    QVERIFY(exchange.variables.isEmpty());
    QVERIFY(!exchange.request);
    QVERIFY(!exchange.isDispatched);
    QVERIFY(!exchange.hasErrorOutput);
    QVERIFY(!exchange.hasBodyEnded);
    QCOMPARE(exchange.receivedBodySize, qint64(0));
    QVERIFY(exchange.body.isEmpty());
    QCOMPARE(exchange.unreadBodySize(), 0);
}

void tst_NwaFcgiExchange::bodyIsReadInPiecesOfAnySize_data()
{
    QTest::addColumn<int>("pieceSize");
    QTest::addColumn<qint64>("readSize");
    QTest::newRow("byte by byte") << 1 << qint64(1);
    QTest::newRow("more is read than arrives") << 3 << qint64(40);
    QTest::newRow("more arrives than is read") << 7 << qint64(2);
    QTest::newRow("all at once") << 1000 << qint64(1000);
}

void tst_NwaFcgiExchange::bodyIsReadInPiecesOfAnySize()
{
    QFETCH(int, pieceSize);
    QFETCH(qint64, readSize);
    QByteArray text;
    for (int index = 0; index < 1000; ++index)
        text.append(char(index * 31));
    NwaFcgiExchange exchange(1, false);
    QByteArray buffer(1000, '\0');
    QByteArray read;
    for (int position = 0; position < text.size(); position += pieceSize) {
        const QByteArray piece = text.mid(position, pieceSize);
        exchange.appendToBody(piece.constData(), piece.size());
        const int size = exchange.readBody(buffer.data(), readSize);
        QCOMPARE(qint64(size), qMin(readSize, qint64(size + exchange.unreadBodySize())));
        read += buffer.left(size);
        QCOMPARE(exchange.receivedBodySize, qint64(read.size() + exchange.unreadBodySize()));
    }
    read += buffer.left(exchange.readBody(buffer.data(), 1000));
    QCOMPARE(read, text);
    QCOMPARE(exchange.readBody(buffer.data(), 1000), 0);
    QCOMPARE(exchange.readBody(buffer.data(), -1), 0);
}

void tst_NwaFcgiExchange::whatWasReadIsNotHeld()
{
    NwaFcgiExchange exchange(1, false);
    const QByteArray piece(1000, 'p');
    QByteArray buffer(1000, '\0');
    exchange.appendToBody("x", 1);
    for (int count = 0; count < 100; ++count) {
        // A byte is always left.
        exchange.appendToBody(piece.constData(), piece.size());
        QCOMPARE(exchange.body.size(), piece.size() + 1);
        QCOMPARE(exchange.readBody(buffer.data(), piece.size()), piece.size());
        QCOMPARE(exchange.unreadBodySize(), 1);
    }
    QCOMPARE(exchange.readBody(buffer.data(), 1), 1);
    QVERIFY(exchange.body.isEmpty());
}

void tst_NwaFcgiExchange::bodyIsBrokenWhenItsSizeIsNotTheAnnouncedOne_data()
{
    QTest::addColumn<QByteArray>("announced");
    QTest::addColumn<bool>("ended");
    QTest::addColumn<bool>("broken");
    QTest::newRow("complete") << QByteArray("4") << true << false;
    QTest::newRow("not announced") << QByteArray() << true << false;
    QTest::newRow("more to come") << QByteArray("5") << false << false;
    QTest::newRow("too short") << QByteArray("5") << true << true;
    QTest::newRow("too long") << QByteArray("3") << true << true;
    QTest::newRow("announced as empty") << QByteArray("0") << true << true;
}

void tst_NwaFcgiExchange::bodyIsBrokenWhenItsSizeIsNotTheAnnouncedOne()
{
    QFETCH(QByteArray, announced);
    QFETCH(bool, ended);
    QFETCH(bool, broken);
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("CONTENT_LENGTH", announced));
    NwaFcgiExchange exchange(1, false);
    exchange.request = &request;
    exchange.appendToBody("body", 4);
    exchange.hasBodyEnded = ended;
    QCOMPARE(exchange.isBodyBroken(), broken);
    // What has been read counts.
    char buffer[4];
    QCOMPARE(exchange.readBody(buffer, 4), 4);
    QCOMPARE(exchange.isBodyBroken(), broken);
}

void tst_NwaFcgiExchange::formIsStreamed_data()
{
    QTest::addColumn<QByteArray>("contentType");
    QTest::addColumn<bool>("streamed");
    QTest::newRow("form") << QByteArray("multipart/form-data; boundary=b") << true;
    QTest::newRow("other letters and blanks") << QByteArray(" Multipart/Form-Data ;boundary=b") << true;
    QTest::newRow("other multipart type") << QByteArray("multipart/mixed; boundary=b") << false;
    QTest::newRow("JSON") << QByteArray("application/json") << false;
    QTest::newRow("none") << QByteArray() << false;
}

void tst_NwaFcgiExchange::formIsStreamed()
{
    QFETCH(QByteArray, contentType);
    QFETCH(bool, streamed);
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("CONTENT_TYPE", contentType));
    NwaFcgiExchange exchange(1, false);
    exchange.request = &request;
    QCOMPARE(exchange.isStreamed(), streamed);
}

QTEST_APPLESS_MAIN(tst_NwaFcgiExchange)
#include "tst_nwafcgiexchange.moc"
