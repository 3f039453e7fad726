#include <nwebapi/nwaabstractfcgirequestprocessor.h>
#include <nwebapi/nwafcgirequest.h>

#include "nmemorychannel.h"

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

namespace {

class Processor : public NwaAbstractFcgiRequestProcessor
{
public:
    using NwaAbstractFcgiRequestProcessor::parseContentType;
    using NwaAbstractFcgiRequestProcessor::parseJsonContent;

    void processRequest(NwaFcgiRequest* request) override { delete request; }
};

} // namespace

class tst_NwaAbstractFcgiRequestProcessor : public QObject
{
    Q_OBJECT

private slots:
    void contentTypeIsTheMediaTypeInLowerCase_data();
    void contentTypeIsTheMediaTypeInLowerCase();
    void jsonBodyIsRead_data();
    void jsonBodyIsRead();
    void largeBodyIsReadWhole();
    void malformedBodyIsAnswered400_data();
    void malformedBodyIsAnswered400();
    void bodyThatBreaksOffIsAnswered400();
    void processorMaySetTheLimits_data();
    void processorMaySetTheLimits();
    void formInPartsIsAnswered415();
    void resultNeedNotBeAskedFor_data();
    void resultNeedNotBeAskedFor();
};

void tst_NwaAbstractFcgiRequestProcessor::contentTypeIsTheMediaTypeInLowerCase_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QString>("type");
    QTest::newRow("plain") << QByteArray("application/json") << QString::fromLatin1("application/json");
    QTest::newRow("capitals") << QByteArray("Application/JSON") << QString::fromLatin1("application/json");
    QTest::newRow("parameter") << QByteArray("text/plain;charset=utf-8") << QString::fromLatin1("text/plain");
    QTest::newRow("blanks") << QByteArray(" text/plain\t; charset=utf-8") << QString::fromLatin1("text/plain");
    QTest::newRow("form") << QByteArray("multipart/form-data; boundary=\"a;b\"")
                          << QString::fromLatin1("multipart/form-data");
}

void tst_NwaAbstractFcgiRequestProcessor::contentTypeIsTheMediaTypeInLowerCase()
{
    QFETCH(QByteArray, field);
    QFETCH(QString, type);
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables("CONTENT_TYPE", field));
    QCOMPARE(Processor::parseContentType(&request), type);

    NwaFcgiRequest untyped(&channel, nVariables());
    QVERIFY(Processor::parseContentType(&untyped).isNull());
    NwaFcgiRequest empty(&channel, nVariables("CONTENT_TYPE", " ; charset=utf-8"));
    QVERIFY(Processor::parseContentType(&empty).isNull());
}

void tst_NwaAbstractFcgiRequestProcessor::jsonBodyIsRead_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("JSON") << QByteArray("application/json");
    QTest::newRow("other type") << QByteArray("text/plain");
    QTest::newRow("no type") << QByteArray();
}

void tst_NwaAbstractFcgiRequestProcessor::jsonBodyIsRead()
{
    QFETCH(QByteArray, type);
    NMemoryChannel channel("{\"a\": [1, null]}");
    NwaFcgiRequest request(&channel, nVariables("CONTENT_TYPE", type));
    bool ok = false;
    QVariantMap expected;
    expected.insert(QString::fromLatin1("a"), QVariantList() << qlonglong(1) << QVariant());
    QCOMPARE(Processor::parseJsonContent(&request, &ok), QVariant(expected));
    QVERIFY(ok);
    QVERIFY(!request.isAnswered());
}

void tst_NwaAbstractFcgiRequestProcessor::largeBodyIsReadWhole()
{
    const QByteArray text(1024 * 1024, 'x');
    NMemoryChannel channel('"' + text + '"');
    NwaFcgiRequest request(&channel, nVariables());
    bool ok = false;
    const QVariant document = Processor::parseJsonContent(&request, &ok);
    QVERIFY(ok);
    QCOMPARE(document.toString().size(), text.size());
}

void tst_NwaAbstractFcgiRequestProcessor::malformedBodyIsAnswered400_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("cut") << QByteArray("{\"a\": ");
    QTest::newRow("text behind") << QByteArray("{} x");
    QTest::newRow("not UTF-8") << QByteArray("\"\xe4\"");
    QTest::newRow("too deep") << QByteArray(65, '[') + QByteArray(65, ']');
    QTest::newRow("too many values") << '[' + QByteArray("0,").repeated(19999) + "0]";
    QTest::newRow("number of a megabyte") << "0." + QByteArray(1024 * 1024, '1');
}

void tst_NwaAbstractFcgiRequestProcessor::malformedBodyIsAnswered400()
{
    QFETCH(QByteArray, body);
    NMemoryChannel channel(body);
    QScopedPointer<NwaFcgiRequest> request(new NwaFcgiRequest(&channel, nVariables()));
    bool ok = true;
    QVERIFY(!Processor::parseJsonContent(request.data(), &ok).isValid());
    QVERIFY(!ok);
    QVERIFY(request->isAnswered());
    QCOMPARE(channel.finishCount, 0);
    request.reset();
    QVERIFY(channel.header().startsWith("Status: 400 Bad Request\r\n"));
}

void tst_NwaAbstractFcgiRequestProcessor::bodyThatBreaksOffIsAnswered400()
{
    NMemoryChannel channel("{}");
    channel.isBroken = true;
    QScopedPointer<NwaFcgiRequest> request(new NwaFcgiRequest(&channel, nVariables()));
    bool ok = true;
    Processor::parseJsonContent(request.data(), &ok);
    QVERIFY(!ok);
    request.reset();
    QVERIFY(channel.header().startsWith("Status: 400 "));
}

void tst_NwaAbstractFcgiRequestProcessor::processorMaySetTheLimits_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("depth");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("read");
    const QByteArray deep = QByteArray(65, '[') + QByteArray(65, ']');
    const QByteArray many = '[' + QByteArray("0,").repeated(19999) + "0]";
    QTest::newRow("deeper") << deep << 65 << 65 << true;
    QTest::newRow("less deep") << QByteArray("[[]]") << 1 << 2 << false;
    QTest::newRow("more") << many << 1 << 20001 << true;
    QTest::newRow("fewer") << QByteArray("[0]") << 1 << 1 << false;
}

void tst_NwaAbstractFcgiRequestProcessor::processorMaySetTheLimits()
{
    QFETCH(QByteArray, body);
    QFETCH(int, depth);
    QFETCH(int, count);
    QFETCH(bool, read);
    NMemoryChannel channel(body);
    NwaFcgiRequest request(&channel, nVariables());
    bool ok = !read;
    Processor::parseJsonContent(&request, &ok, depth, count);
    QCOMPARE(ok, read);
    QCOMPARE(request.isAnswered(), !read);
}

void tst_NwaAbstractFcgiRequestProcessor::formInPartsIsAnswered415()
{
    NMemoryChannel channel("{}");
    QScopedPointer<NwaFcgiRequest> request(
        new NwaFcgiRequest(&channel, nVariables("CONTENT_TYPE", "Multipart/Form-Data; boundary=a")));
    bool ok = true;
    Processor::parseJsonContent(request.data(), &ok);
    QVERIFY(!ok);
    request.reset();
    QVERIFY(channel.header().startsWith("Status: 415 Unsupported Media Type\r\n"));
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaAbstractFcgiRequestProcessor::resultNeedNotBeAskedFor_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("JSON") << QByteArray("application/json") << QByteArray("[true]") << QByteArray();
    QTest::newRow("malformed") << QByteArray("application/json") << QByteArray("[") << QByteArray("Status: 400 ");
    QTest::newRow("form") << QByteArray("multipart/form-data; boundary=a") << QByteArray("[true]")
                          << QByteArray("Status: 415 ");
}

void tst_NwaAbstractFcgiRequestProcessor::resultNeedNotBeAskedFor()
{
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, status);
    NMemoryChannel channel(body);
    QScopedPointer<NwaFcgiRequest> request(new NwaFcgiRequest(&channel, nVariables("CONTENT_TYPE", type)));
    const QVariant document = Processor::parseJsonContent(request.data(), nullptr);
    QCOMPARE(document.isValid(), status.isEmpty());
    QCOMPARE(request->isAnswered(), !status.isEmpty());
    request.reset();
    QVERIFY(channel.header().startsWith(status));
}

QTEST_APPLESS_MAIN(tst_NwaAbstractFcgiRequestProcessor)
#include "tst_nwaabstractfcgirequestprocessor.moc"
