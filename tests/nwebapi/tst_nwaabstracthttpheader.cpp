#include <nwebapi/nwaabstracthttpheader.h>

#include <QtTest/QtTest>

#include <sstream>

namespace {

QByteArray rendered(const NwaAbstractHttpHeader& header)
{
    std::ostringstream stream;
    stream << header;
    const std::string text = stream.str();
    return QByteArray(text.data(), int(text.size()));
}

} // namespace

class tst_NwaAbstractHttpHeader : public QObject
{
    Q_OBJECT

private slots:
    void headerWithoutFieldsIsTheEmptyLine();
    void statusComesFirst();
    void fieldsKeepTheirOrderAndMayRepeat();
    void statusOutOfRangeIs500_data();
    void statusOutOfRangeIs500();
    void phraseOfStatus_data();
    void phraseOfStatus();
    void textsCannotAddFields_data();
    void textsCannotAddFields();
    void fieldWithoutNameIsLeftOut();
};

void tst_NwaAbstractHttpHeader::headerWithoutFieldsIsTheEmptyLine()
{
    QCOMPARE(rendered(NwaAbstractHttpHeader()), QByteArray("\r\n"));
}

void tst_NwaAbstractHttpHeader::statusComesFirst()
{
    NwaAbstractHttpHeader header;
    header.addField("Location", "/a");
    header.setStatus(404);
    QCOMPARE(rendered(header), QByteArray("Status: 404 Not Found\r\nLocation: /a\r\n\r\n"));
}

void tst_NwaAbstractHttpHeader::fieldsKeepTheirOrderAndMayRepeat()
{
    NwaAbstractHttpHeader header;
    header.addField("B", "1");
    header.addField("A", "");
    header.addField("B", "2");
    QCOMPARE(rendered(header), QByteArray("B: 1\r\nA: \r\nB: 2\r\n\r\n"));
}

void tst_NwaAbstractHttpHeader::statusOutOfRangeIs500_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("negative") << -404 << QByteArray("Status: 500 Internal Server Error\r\n\r\n");
    QTest::newRow("zero") << 0 << QByteArray("Status: 500 Internal Server Error\r\n\r\n");
    QTest::newRow("too small") << 99 << QByteArray("Status: 500 Internal Server Error\r\n\r\n");
    QTest::newRow("smallest") << 100 << QByteArray("Status: 100 Continue\r\n\r\n");
    QTest::newRow("largest") << 999 << QByteArray("Status: 999 Unknown\r\n\r\n");
    QTest::newRow("too large") << 1000 << QByteArray("Status: 500 Internal Server Error\r\n\r\n");
}

void tst_NwaAbstractHttpHeader::statusOutOfRangeIs500()
{
    QFETCH(int, code);
    QFETCH(QByteArray, line);
    NwaAbstractHttpHeader header;
    header.setStatus(code);
    QCOMPARE(rendered(header), line);
}

void tst_NwaAbstractHttpHeader::phraseOfStatus_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("phrase");
    QTest::newRow("200") << 200 << QByteArray("OK");
    QTest::newRow("400") << 400 << QByteArray("Bad Request");
    QTest::newRow("401") << 401 << QByteArray("Unauthorized");
    QTest::newRow("403") << 403 << QByteArray("Forbidden");
    QTest::newRow("404") << 404 << QByteArray("Not Found");
    QTest::newRow("405") << 405 << QByteArray("Method Not Allowed");
    QTest::newRow("409") << 409 << QByteArray("Conflict");
    QTest::newRow("413") << 413 << QByteArray("Content Too Large");
    QTest::newRow("414") << 414 << QByteArray("URI Too Long");
    QTest::newRow("415") << 415 << QByteArray("Unsupported Media Type");
    QTest::newRow("431") << 431 << QByteArray("Request Header Fields Too Large");
    QTest::newRow("500") << 500 << QByteArray("Internal Server Error");
    QTest::newRow("501") << 501 << QByteArray("Not Implemented");
    QTest::newRow("503") << 503 << QByteArray("Service Unavailable");
    QTest::newRow("no such code") << 299 << QByteArray("Unknown");
}

void tst_NwaAbstractHttpHeader::phraseOfStatus()
{
    QFETCH(int, code);
    QFETCH(QByteArray, phrase);
    QCOMPARE(NwaAbstractHttpHeader::reasonPhrase(code), phrase);
}

void tst_NwaAbstractHttpHeader::textsCannotAddFields_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("line break in value") << QByteArray("A") << QByteArray("1\r\nB: 2") << QByteArray("A: 1B: 2");
    QTest::newRow("line feed in value") << QByteArray("A") << QByteArray("1\n\nbody") << QByteArray("A: 1body");
    QTest::newRow("null character in value") << QByteArray("A") << QByteArray("1\0002", 3) << QByteArray("A: 12");
    QTest::newRow("delete in value") << QByteArray("A") << QByteArray("1\1772") << QByteArray("A: 12");
    QTest::newRow("tab in value") << QByteArray("A") << QByteArray("1\t2") << QByteArray("A: 1\t2");
    QTest::newRow("UTF-8 in value") << QByteArray("A") << QByteArray("\xc3\xa4") << QByteArray("A: \xc3\xa4");
    QTest::newRow("line break in name") << QByteArray("A\r\nB") << QByteArray("1") << QByteArray("AB: 1");
    QTest::newRow("colon in name") << QByteArray("A:B") << QByteArray("1") << QByteArray("AB: 1");
    QTest::newRow("blank in name") << QByteArray("A B") << QByteArray("1") << QByteArray("AB: 1");
    QTest::newRow("all token characters")
        << QByteArray("!#$%&'*+-.^_`|~09azAZ") << QByteArray("1") << QByteArray("!#$%&'*+-.^_`|~09azAZ: 1");
    QTest::newRow("separators in name")
        << QByteArray("A(),/:;<=>?@[\\]{}\"\xe4") << QByteArray("1") << QByteArray("A: 1");
}

void tst_NwaAbstractHttpHeader::textsCannotAddFields()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, value);
    QFETCH(QByteArray, line);
    NwaAbstractHttpHeader header;
    header.addField(name, value);
    QCOMPARE(rendered(header), line + "\r\n\r\n");
}

void tst_NwaAbstractHttpHeader::fieldWithoutNameIsLeftOut()
{
    NwaAbstractHttpHeader header;
    header.addField("", "1");
    header.addField(": \r\n", "2");
    QCOMPARE(rendered(header), QByteArray("\r\n"));
}

QTEST_APPLESS_MAIN(tst_NwaAbstractHttpHeader)
#include "tst_nwaabstracthttpheader.moc"
