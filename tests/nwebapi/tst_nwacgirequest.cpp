#include <nwebapi/nwacgirequest.h>

#include <QtTest/QtTest>

#include <sstream>

namespace {

class Request : public NwaCgiRequest
{
public:
    explicit Request(const Variables& variables)
        : NwaCgiRequest(variables)
    {
    }

    std::ostream& outputStream() override { return m_stream; }
    std::ostream& errorStream() override { return m_stream; }
    qint64 readBody(char*, qint64) override { return 0; }
    bool atBodyEnd() const override { return true; }

private:
    std::ostringstream m_stream;
};

NwaCgiRequest::Variables single(const char* name, const QByteArray& value)
{
    NwaCgiRequest::Variables variables;
    variables.insert(name, value);
    return variables;
}

// The parameters, sorted, as "name=value" joined by "|", so that a table can hold them.
QString joined(const QMultiHash<QString, QString>& parameters)
{
    QStringList pairs;
    for (QMultiHash<QString, QString>::const_iterator it = parameters.constBegin(); it != parameters.constEnd();
         ++it)
        pairs << it.key() + QLatin1Char('=') + it.value();
    pairs.sort();
    return pairs.join(QString::fromLatin1("|"));
}

QByteArray repeatedPair(int count)
{
    QByteArray query;
    for (int index = 0; index < count; ++index)
        query += "&a=" + QByteArray::number(index);
    return query;
}

} // namespace

class tst_NwaCgiRequest : public QObject
{
    Q_OBJECT

private slots:
    void variablesAreKeptAsTheyAre();
    void latestVariableOfANameCounts();
    void namesAreComparedAsAWhole();
    void pathsAreDecoded_data();
    void pathsAreDecoded();
    void contentLengthIsRead_data();
    void contentLengthIsRead();
    void queryIsDecoded_data();
    void queryIsDecoded();
    void wrongQueryIsInvalidAndEmpty_data();
    void wrongQueryIsInvalidAndEmpty();
    void allValuesOfANameAreThere();
    void aThousandParametersAreEnough();
};

void tst_NwaCgiRequest::variablesAreKeptAsTheyAre()
{
    NwaCgiRequest::Variables variables;
    variables.insert("REQUEST_METHOD", "get");
    variables.insert("EMPTY", QByteArray(""));
    variables.insert("BYTES", QByteArray("\0\xff", 2));
    const Request request(variables);
    QCOMPARE(request.method(), QString::fromLatin1("get"));
    QCOMPARE(request.variable("BYTES"), QByteArray("\0\xff", 2));
    QVERIFY(!request.variable("EMPTY").isNull());
    QVERIFY(request.variable("MISSING").isNull());
    QVERIFY(request.variable("empty").isNull());
    QVERIFY(request.isQueryValid());
    QVERIFY(request.queryParameters().isEmpty());
}

void tst_NwaCgiRequest::latestVariableOfANameCounts()
{
    NwaCgiRequest::Variables variables;
    variables.insert("TWICE", "first");
    variables.insert("OTHER", "other");
    variables.insert("TWICE", "second");
    QCOMPARE(variables.value("TWICE"), QByteArray("second"));
    QCOMPARE(variables.value("OTHER"), QByteArray("other"));
}

void tst_NwaCgiRequest::namesAreComparedAsAWhole()
{
    NwaCgiRequest::Variables variables;
    variables.reserve(100);
    variables.insert("NAME", "value");
    variables.insert("", "of no name");
    QVERIFY(variables.value("NAM").isNull());
    QVERIFY(variables.value("NAMEvalue").isNull());
    QVERIFY(variables.value("AME").isNull());
    QCOMPARE(variables.value("NAME"), QByteArray("value"));
    QCOMPARE(variables.value(QByteArray()), QByteArray("of no name"));
}

void tst_NwaCgiRequest::pathsAreDecoded_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");
    const QString replacement(QChar(0xfffd));
    QTest::newRow("none") << QByteArray() << QString::fromLatin1("");
    QTest::newRow("ASCII") << QByteArray("/a%20+b") << QString::fromLatin1("/a%20+b");
    QTest::newRow("two bytes") << QByteArray("/\xc3\xa4") << QString::fromLatin1("/\xe4");
    QTest::newRow("three bytes") << QByteArray("\xe2\x82\xac") << QString(QChar(0x20ac));
    QTest::newRow("four bytes") << QByteArray("\xf0\x9f\x98\x80") << QString(QChar(0xd83d)) + QChar(0xde00);
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf") << QString(QChar(0xfeff));
    QTest::newRow("Latin-1") << QByteArray("a\xe4z") << QString::fromLatin1("a") + replacement + QLatin1Char('z');
    QTest::newRow("continuation alone") << QByteArray("\x80") << replacement;
    QTest::newRow("overlong slash") << QByteArray("\xc0\xaf") << replacement + replacement;
    QTest::newRow("cut") << QByteArray("\xe2\x82") << replacement + replacement;
    QTest::newRow("surrogate") << QByteArray("\xed\xa0\x80") << replacement + replacement + replacement;
    QTest::newRow("beyond Unicode") << QByteArray("\xf4\x90\x80\x80")
                                    << replacement + replacement + replacement + replacement;
}

void tst_NwaCgiRequest::pathsAreDecoded()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);
    QCOMPARE(Request(single("SCRIPT_NAME", bytes)).scriptName(), text);
    QCOMPARE(Request(single("PATH_INFO", bytes)).pathInfo(), text);
}

void tst_NwaCgiRequest::contentLengthIsRead_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<qint64>("length");
    QTest::newRow("empty") << QByteArray("") << qint64(0);
    QTest::newRow("none") << QByteArray("0") << qint64(0);
    QTest::newRow("some") << QByteArray("1048577") << qint64(1048577);
    QTest::newRow("leading zeros") << QByteArray("0012") << qint64(12);
    QTest::newRow("largest") << QByteArray("9223372036854775807") << Q_INT64_C(9223372036854775807);
    QTest::newRow("too large") << QByteArray("9223372036854775808") << qint64(-1);
    QTest::newRow("negative") << QByteArray("-1") << qint64(-1);
    QTest::newRow("plus sign") << QByteArray("+1") << qint64(-1);
    QTest::newRow("blank") << QByteArray(" 1") << qint64(-1);
    QTest::newRow("list") << QByteArray("1, 1") << qint64(-1);
    QTest::newRow("text") << QByteArray("1x") << qint64(-1);
    QTest::newRow("hexadecimal") << QByteArray("0x10") << qint64(-1);
}

void tst_NwaCgiRequest::contentLengthIsRead()
{
    QFETCH(QByteArray, text);
    QFETCH(qint64, length);
    QCOMPARE(Request(single("CONTENT_LENGTH", text)).contentLength(), length);
    QCOMPARE(Request(NwaCgiRequest::Variables()).contentLength(), qint64(0));
}

void tst_NwaCgiRequest::queryIsDecoded_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<QString>("parameters");
    QTest::newRow("empty") << QByteArray("") << QString();
    QTest::newRow("one") << QByteArray("a=1") << QString::fromLatin1("a=1");
    QTest::newRow("two") << QByteArray("a=1&b=2") << QString::fromLatin1("a=1|b=2");
    QTest::newRow("same name") << QByteArray("a=2&a=1") << QString::fromLatin1("a=1|a=2");
    QTest::newRow("same pair twice") << QByteArray("a=1&a=1") << QString::fromLatin1("a=1|a=1");
    QTest::newRow("no equals sign") << QByteArray("a") << QString::fromLatin1("a=");
    QTest::newRow("no value") << QByteArray("a=") << QString::fromLatin1("a=");
    QTest::newRow("no name") << QByteArray("=1") << QString::fromLatin1("=1");
    QTest::newRow("equals sign in value") << QByteArray("a=b=c") << QString::fromLatin1("a=b=c");
    QTest::newRow("empty pairs") << QByteArray("&&a=1&&b=2&") << QString::fromLatin1("a=1|b=2");
    QTest::newRow("only separators") << QByteArray("&&&") << QString();
    QTest::newRow("semicolon is no separator") << QByteArray("a=1;b=2") << QString::fromLatin1("a=1;b=2");
    QTest::newRow("blanks") << QByteArray("a+b=+c%20d+") << QString::fromLatin1("a b= c d ");
    QTest::newRow("plus sign") << QByteArray("a=1%2B1") << QString::fromLatin1("a=1+1");
    QTest::newRow("separators encoded") << QByteArray("a%3D=%26%3D%25") << QString::fromLatin1("a==&=%");
    QTest::newRow("digits of both cases") << QByteArray("a=%c3%A4") << QString::fromLatin1("a=\xe4");
    QTest::newRow("raw UTF-8") << QByteArray("a=\xc3\xa4") << QString::fromLatin1("a=\xe4");
    QTest::newRow("byte order mark") << QByteArray("a=%EF%BB%BF") << QString::fromLatin1("a=") + QChar(0xfeff);
    QTest::newRow("null character") << QByteArray("a=%00") << QString::fromLatin1("a=") + QChar(0);
    QTest::newRow("decoded once") << QByteArray("a=%2541") << QString::fromLatin1("a=%41");
}

void tst_NwaCgiRequest::queryIsDecoded()
{
    QFETCH(QByteArray, query);
    QFETCH(QString, parameters);
    const Request request(single("QUERY_STRING", query));
    QVERIFY(request.isQueryValid());
    QCOMPARE(joined(request.queryParameters()), parameters);
}

void tst_NwaCgiRequest::wrongQueryIsInvalidAndEmpty_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::newRow("percent at the end") << QByteArray("a=%");
    QTest::newRow("one digit") << QByteArray("a=%4");
    QTest::newRow("one digit before a separator") << QByteArray("a=%4&b=1");
    QTest::newRow("no digits") << QByteArray("a=%zz");
    QTest::newRow("second is no digit") << QByteArray("a=%4g");
    QTest::newRow("in the name") << QByteArray("%4=1");
    QTest::newRow("Latin-1") << QByteArray("a=%E4");
    QTest::newRow("raw Latin-1") << QByteArray("a=\xe4");
    QTest::newRow("overlong two bytes") << QByteArray("a=%C0%AF");
    QTest::newRow("overlong three bytes") << QByteArray("a=%E0%80%AF");
    QTest::newRow("overlong four bytes") << QByteArray("a=%F0%80%80%AF");
    QTest::newRow("surrogate") << QByteArray("a=%ED%A0%80");
    QTest::newRow("surrogate pair") << QByteArray("a=%ED%A0%BD%ED%B8%80");
    QTest::newRow("beyond Unicode") << QByteArray("a=%F4%90%80%80");
    QTest::newRow("five bytes") << QByteArray("a=%F8%88%80%80%80");
    QTest::newRow("character over two pairs") << QByteArray("a=%C3&b=%A4");
    QTest::newRow("correct pairs around") << QByteArray("a=1&b=%&c=3");
    QTest::newRow("1001 parameters") << repeatedPair(1001);
}

void tst_NwaCgiRequest::wrongQueryIsInvalidAndEmpty()
{
    QFETCH(QByteArray, query);
    const Request request(single("QUERY_STRING", query));
    QVERIFY(!request.isQueryValid());
    QVERIFY(request.queryParameters().isEmpty());
}

void tst_NwaCgiRequest::allValuesOfANameAreThere()
{
    const Request request(single("QUERY_STRING", "section=a&section=b&other=c"));
    QCOMPARE(request.queryParameters().values(QString::fromLatin1("section")).size(), 2);
    QCOMPARE(request.queryParameters().values(QString::fromLatin1("Section")).size(), 0);
}

void tst_NwaCgiRequest::aThousandParametersAreEnough()
{
    const Request request(single("QUERY_STRING", repeatedPair(1000)));
    QVERIFY(request.isQueryValid());
    QCOMPARE(request.queryParameters().size(), 1000);
}

QTEST_APPLESS_MAIN(tst_NwaCgiRequest)
#include "tst_nwacgirequest.moc"
