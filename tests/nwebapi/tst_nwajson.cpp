#include <nwebapi/nwajson.h>

#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <float.h>
#include <limits>

Q_DECLARE_METATYPE(QVariant)

namespace {

QVariantMap
object(const char* name1, const QVariant& value1, const char* name2 = nullptr, const QVariant& value2 = QVariant())
{
    QVariantMap map;
    map.insert(QString::fromUtf8(name1), value1);
    if (name2)
        map.insert(QString::fromUtf8(name2), value2);
    return map;
}

QVariant integer(qlonglong number)
{
    return QVariant(number);
}

QVariant string(const char* text)
{
    return QVariant(QString::fromUtf8(text));
}

} // namespace

class tst_NwaJson : public QObject
{
    Q_OBJECT

private slots:
    void documentIsRead_data();
    void documentIsRead();
    void wrongDocumentIsRefused_data();
    void wrongDocumentIsRefused();
    void everyCutOfADocumentIsRefused();
    void controlCharactersInStringsAreRefused();
    void depthIsLimited();
    void deepNestingIsRefusedQuickly();
    void longestNumberIsRead_data();
    void longestNumberIsRead();
    void tooLongNumberIsRefusedQuickly_data();
    void tooLongNumberIsRefusedQuickly();
    void numberOfValuesIsLimited_data();
    void numberOfValuesIsLimited();
    void manyValuesAreRefusedQuickly_data();
    void manyValuesAreRefusedQuickly();
    void largeStringIsRead();
    void resultMayBeIgnored();
    void valueIsWritten_data();
    void valueIsWritten();
    void doublesAreReadBackAsTheyWere_data();
    void doublesAreReadBackAsTheyWere();
    void largeIntegersAreWrittenAsTheNearestDouble();
    void floatsAreReadBackAsTheyWere_data();
    void floatsAreReadBackAsTheyWere();
    void everyCharacterIsReadBackAsItWas();
};

void tst_NwaJson::documentIsRead_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("null") << QByteArray("null") << QVariant();
    QTest::newRow("true") << QByteArray("true") << QVariant(true);
    QTest::newRow("false") << QByteArray("false") << QVariant(false);
    QTest::newRow("string") << QByteArray("\"a\"") << string("a");
    QTest::newRow("empty string") << QByteArray("\"\"") << string("");
    QTest::newRow("empty array") << QByteArray("[]") << QVariant(QVariantList());
    QTest::newRow("empty object") << QByteArray("{}") << QVariant(QVariantMap());
    QTest::newRow("white space") << QByteArray(" \t\r\n[ 1 , { \"a\" : 2 } ]\n")
                                 << QVariant(QVariantList() << integer(1) << object("a", integer(2)));
    QTest::newRow("nulls") << QByteArray("[null,null]") << QVariant(QVariantList() << QVariant() << QVariant());
    QTest::newRow("nested") << QByteArray("{\"a\":[{\"b\":[]},true]}")
                            << QVariant(object("a", QVariantList() << object("b", QVariantList()) << true));
    QTest::newRow("empty name") << QByteArray("{\"\":1}") << QVariant(object("", integer(1)));
    QTest::newRow("last of equal names counts")
        << QByteArray("{\"a\":1,\"b\":2,\"a\":3}") << QVariant(object("a", integer(3), "b", integer(2)));
    QTest::newRow("equal names, one escaped")
        << QByteArray("{\"a\":1,\"\\u0061\":2}") << QVariant(object("a", integer(2)));
    QTest::newRow("escapes") << QByteArray("\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"") << string("\"\\/\b\f\n\r\t");
    QTest::newRow("unicode escape") << QByteArray("\"\\u00e4\\u20AC\"") << string("\xc3\xa4\xe2\x82\xac");
    QTest::newRow("surrogate pair escaped") << QByteArray("\"\\ud83d\\uDE00\"") << string("\xf0\x9f\x98\x80");
    QTest::newRow("UTF-8") << QByteArray("\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\"")
                           << string("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
    QTest::newRow("null character") << QByteArray("\"a\\u0000b\"") << QVariant(QString::fromLatin1("a\0b", 3));
    QTest::newRow("number in a string") << QByteArray("\"1\"") << string("1");
    QTest::newRow("number in a name") << QByteArray("{\"7\":8}") << QVariant(object("7", integer(8)));
    QTest::newRow("delete is no control character here") << QByteArray("\"\x7f\"") << string("\x7f");

    QTest::newRow("zero") << QByteArray("0") << integer(0);
    QTest::newRow("negative zero") << QByteArray("-0") << integer(0);
    QTest::newRow("integer") << QByteArray("42") << integer(42);
    QTest::newRow("negative") << QByteArray("-42") << integer(-42);
    QTest::newRow("exponent") << QByteArray("1e2") << integer(100);
    QTest::newRow("capital exponent with sign") << QByteArray("1E+2") << integer(100);
    QTest::newRow("negative exponent") << QByteArray("100e-2") << integer(1);
    QTest::newRow("leading zeros in exponent") << QByteArray("1e002") << integer(100);
    QTest::newRow("whole fraction") << QByteArray("3.0") << integer(3);
    QTest::newRow("fraction") << QByteArray("3.5") << QVariant(3.5);
    QTest::newRow("negative fraction") << QByteArray("-0.5") << QVariant(-0.5);
    QTest::newRow("beyond 2^53") << QByteArray("9007199254740993") << integer(Q_INT64_C(9007199254740993));
    QTest::newRow("largest") << QByteArray("9223372036854775807")
                             << integer(std::numeric_limits<qlonglong>::max());
    QTest::newRow("smallest") << QByteArray("-9223372036854775808")
                              << integer(std::numeric_limits<qlonglong>::min());
    QTest::newRow("one more") << QByteArray("9223372036854775808") << QVariant(9223372036854775808.0);
    QTest::newRow("one less") << QByteArray("-9223372036854775809")
                              << integer(std::numeric_limits<qlonglong>::min());
    QTest::newRow("20 digits") << QByteArray("18446744073709551616") << QVariant(18446744073709551616.0);
    QTest::newRow("2^62 with exponent")
        << QByteArray("4611686018427387904e0") << integer(Q_INT64_C(4611686018427387904));
    QTest::newRow("largest double") << QByteArray("1.7976931348623157e308") << QVariant(DBL_MAX);
    QTest::newRow("smallest double") << QByteArray("5e-324") << QVariant(5e-324);
    QTest::newRow("zero with exponent") << QByteArray("0e-400") << integer(0);
    QTest::newRow("numbers keep their places")
        << QByteArray("{\"b\":[1,2.5],\"a\":3,\"b\":[4,\"5\",6]}")
        << QVariant(object("a", integer(3), "b", QVariantList() << integer(4) << string("5") << integer(6)));
}

void tst_NwaJson::documentIsRead()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    bool ok = false;
    const QVariant document = NwaJson::parse(text, &ok);
    QVERIFY(ok);
    QCOMPARE(document, value);
    QCOMPARE(document.userType(), value.userType());
}

void tst_NwaJson::wrongDocumentIsRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("blank") << QByteArray(" \n");
    QTest::newRow("null character") << QByteArray("\0", 1);
    QTest::newRow("null character behind") << QByteArray("1\0", 2);
    QTest::newRow("two values") << QByteArray("1 2");
    QTest::newRow("text behind") << QByteArray("{}x");
    QTest::newRow("comma behind") << QByteArray("[],");
    QTest::newRow("bracket behind") << QByteArray("[]]");
    QTest::newRow("array closed and opened") << QByteArray("1],[1");
    QTest::newRow("wrong bracket") << QByteArray("[}");
    QTest::newRow("comma at the end of an array") << QByteArray("[1,]");
    QTest::newRow("comma at the start") << QByteArray("[,1]");
    QTest::newRow("two commas") << QByteArray("[1,,2]");
    QTest::newRow("no comma") << QByteArray("[1 2]");
    QTest::newRow("comma at the end of an object") << QByteArray("{\"a\":1,}");
    QTest::newRow("no colon") << QByteArray("{\"a\" 1}");
    QTest::newRow("no value") << QByteArray("{\"a\":}");
    QTest::newRow("name alone") << QByteArray("{\"a\"}");
    QTest::newRow("name without quotes") << QByteArray("{a:1}");
    QTest::newRow("name is a number") << QByteArray("{1:1}");
    QTest::newRow("member in an array") << QByteArray("[\"a\":1]");
    QTest::newRow("single quotes") << QByteArray("'a'");
    QTest::newRow("comment") << QByteArray("/* */ 1");
    QTest::newRow("capitals") << QByteArray("True");
    QTest::newRow("nan") << QByteArray("nan");
    QTest::newRow("NaN") << QByteArray("[NaN]");
    QTest::newRow("Infinity") << QByteArray("Infinity");
    QTest::newRow("-Infinity") << QByteArray("[-Infinity]");
    QTest::newRow("inf") << QByteArray("inf");
    QTest::newRow("word with a suffix") << QByteArray("nullx");
    QTest::newRow("form feed is no white space") << QByteArray("\f1");
    QTest::newRow("no-break space is no white space") << QByteArray("\xc2\xa0"
                                                                    "1");
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf{}");
    QTest::newRow("UTF-16") << QByteArray("[\0]\0", 4);
    QTest::newRow("Latin-1") << QByteArray("\"\xe4\"");
    QTest::newRow("overlong form") << QByteArray("\"\xc0\xaf\"");
    QTest::newRow("overlong quote") << QByteArray("\"\xc0\xa2\"");
    QTest::newRow("surrogate in UTF-8") << QByteArray("\"\xed\xa0\x80\"");
    QTest::newRow("beyond Unicode") << QByteArray("\"\xf4\x90\x80\x80\"");
    QTest::newRow("string without end") << QByteArray("\"a");
    QTest::newRow("string ends in an escape") << QByteArray("\"a\\\"");
    QTest::newRow("unknown escape") << QByteArray("\"\\x41\"");
    QTest::newRow("escaped quote of the other kind") << QByteArray("\"\\'\"");
    QTest::newRow("unicode escape too short") << QByteArray("\"\\u123\"");
    QTest::newRow("unicode escape without digits") << QByteArray("\"\\u12g4\"");
    QTest::newRow("capital U") << QByteArray("\"\\U0041\"");
    QTest::newRow("high surrogate alone") << QByteArray("\"\\ud83d\"");
    QTest::newRow("high surrogate before text") << QByteArray("\"\\ud83dx\"");
    QTest::newRow("high surrogate before another escape") << QByteArray("\"\\ud83d\\n\"");
    QTest::newRow("two high surrogates") << QByteArray("\"\\ud83d\\ud83d\"");
    QTest::newRow("low surrogate alone") << QByteArray("\"\\ude00\"");
    QTest::newRow("plus sign") << QByteArray("+1");
    QTest::newRow("minus alone") << QByteArray("-");
    QTest::newRow("two minuses") << QByteArray("--1");
    QTest::newRow("leading zero") << QByteArray("01");
    QTest::newRow("two zeros") << QByteArray("00");
    QTest::newRow("negative leading zero") << QByteArray("-01");
    QTest::newRow("point first") << QByteArray(".5");
    QTest::newRow("point last") << QByteArray("1.");
    QTest::newRow("point before exponent") << QByteArray("1.e2");
    QTest::newRow("exponent without digits") << QByteArray("1e");
    QTest::newRow("exponent with sign alone") << QByteArray("1e+");
    QTest::newRow("exponent with two signs") << QByteArray("1e+-1");
    QTest::newRow("exponent with fraction") << QByteArray("1e1.5");
    QTest::newRow("hexadecimal") << QByteArray("0x10");
    QTest::newRow("decimal comma") << QByteArray("1,5");
    QTest::newRow("too large") << QByteArray("1e400");
    QTest::newRow("too large and negative") << QByteArray("[-1e400]");
    QTest::newRow("too many digits") << QByteArray(400, '9');
    QTest::newRow("too near to zero") << QByteArray("1e-400");
    QTest::newRow("huge exponent") << QByteArray("1e99999999999999999999");
}

void tst_NwaJson::wrongDocumentIsRefused()
{
    QFETCH(QByteArray, text);
    bool ok = true;
    QVERIFY(!NwaJson::parse(text, &ok).isValid());
    QVERIFY(!ok);
}

void tst_NwaJson::everyCutOfADocumentIsRefused()
{
    const QByteArray text = "{\"a\": [1.5e3, true, null], \"\\ud83d\\ude00\": {\"b\": \"\xc3\xa4\\n\"}}";
    bool ok = false;
    NwaJson::parse(text, &ok);
    QVERIFY(ok);
    for (int size = 0; size < text.size(); ++size) {
        NwaJson::parse(text.left(size), &ok);
        QVERIFY2(!ok, text.left(size).constData());
    }
}

void tst_NwaJson::controlCharactersInStringsAreRefused()
{
    for (int code = 0; code < 0x20; ++code) {
        bool ok = true;
        NwaJson::parse(QByteArray("\"a") + char(code) + "b\"", &ok);
        QVERIFY2(!ok, QByteArray::number(code).constData());
    }
}

void tst_NwaJson::depthIsLimited()
{
    bool ok = false;
    QCOMPARE(int(NwaJson::DefaultMaximumDepth), 64);
    NwaJson::parse(QByteArray(64, '[') + QByteArray(64, ']'), &ok);
    QVERIFY(ok);
    NwaJson::parse(QByteArray(65, '[') + QByteArray(65, ']'), &ok);
    QVERIFY(!ok);
    NwaJson::parse(QByteArray("[[1],[2]]"), &ok, 2);
    QVERIFY(ok);
    NwaJson::parse(QByteArray("[{\"a\":{}}]"), &ok, 2);
    QVERIFY(!ok);
    NwaJson::parse("1", &ok, 0);
    QVERIFY(ok);
    NwaJson::parse("[]", &ok, 0);
    QVERIFY(!ok);
    NwaJson::parse(QByteArray(1000, '[') + QByteArray(1000, ']'), &ok, 1000000);
    QVERIFY(ok);
    NwaJson::parse(QByteArray(1001, '[') + QByteArray(1001, ']'), &ok, 1000000);
    QVERIFY(!ok);
}

void tst_NwaJson::deepNestingIsRefusedQuickly()
{
    bool ok = true;
    NwaJson::parse(QByteArray(100000, '['), &ok);
    QVERIFY(!ok);
    NwaJson::parse(QByteArray(100000, '[') + QByteArray(100000, ']'), &ok, 2147483647);
    QVERIFY(!ok);
    NwaJson::parse(QByteArray("{\"a\":").repeated(100000), &ok, 2147483647);
    QVERIFY(!ok);
}

void tst_NwaJson::longestNumberIsRead_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("fraction") << "0." + QByteArray(998, '1') << QVariant(1.0 / 9.0);
    QTest::newRow("negative fraction") << "-0." + QByteArray(997, '1') << QVariant(-1.0 / 9.0);
    QTest::newRow("exponent") << "1e" + QByteArray(997, '0') + '2' << integer(100);
    QTest::newRow("large number") << QByteArray(300, '1') + '.' + QByteArray(699, '0')
                                  << QVariant(QByteArray(300, '1').toDouble());
}

void tst_NwaJson::longestNumberIsRead()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    QCOMPARE(text.size(), int(NwaJson::MaximumNumberSize));
    bool ok = false;
    QCOMPARE(NwaJson::parse(text, &ok), value);
    QVERIFY(ok);
    QCOMPARE(NwaJson::parse('[' + text + "]", &ok), QVariant(QVariantList() << value));
    QVERIFY(ok);
}

void tst_NwaJson::tooLongNumberIsRefusedQuickly_data()
{
    QTest::addColumn<QByteArray>("text");
    const int megabyte = 1024 * 1024;
    QTest::newRow("1001 characters") << "0." + QByteArray(999, '1');
    QTest::newRow("1001 characters with a minus") << "-0." + QByteArray(998, '1');
    QTest::newRow("fraction of a megabyte") << "0." + QByteArray(megabyte, '1');
    QTest::newRow("integer of a megabyte") << QByteArray(megabyte, '1');
    QTest::newRow("exponent of a megabyte") << "1e" + QByteArray(megabyte, '0');
    QTest::newRow("in an array") << "[1,0." + QByteArray(megabyte, '1') + ",1]";
}

void tst_NwaJson::tooLongNumberIsRefusedQuickly()
{
    QFETCH(QByteArray, text);
    bool ok = true;
    QVERIFY(!NwaJson::parse(text, &ok).isValid());
    QVERIFY(!ok);
}

void tst_NwaJson::numberOfValuesIsLimited_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("count");
    QTest::newRow("number") << QByteArray("1") << 1;
    QTest::newRow("string") << QByteArray("\"a\"") << 1;
    QTest::newRow("literal") << QByteArray("null") << 1;
    QTest::newRow("empty array") << QByteArray("[]") << 1;
    QTest::newRow("empty object") << QByteArray("{}") << 1;
    QTest::newRow("elements") << QByteArray("[1,\"a\",true,[],{}]") << 6;
    QTest::newRow("members") << QByteArray("{\"a\":1,\"b\":{\"c\":null}}") << 4;
    QTest::newRow("members of the same name") << QByteArray("{\"\":0,\"\":0,\"\":0}") << 4;
    QTest::newRow("nested") << QByteArray("[[[1]],[[2]]]") << 7;
    QTest::newRow("as many as the default allows") << '[' + QByteArray("0,").repeated(19998) + "0]" << 20000;
}

void tst_NwaJson::numberOfValuesIsLimited()
{
    QFETCH(QByteArray, text);
    QFETCH(int, count);
    QCOMPARE(int(NwaJson::DefaultMaximumValueCount), 20000);
    bool ok = false;
    NwaJson::parse(text, &ok, NwaJson::DefaultMaximumDepth, count);
    QVERIFY(ok);
    NwaJson::parse(text, &ok, NwaJson::DefaultMaximumDepth, count - 1);
    QVERIFY(!ok);
    NwaJson::parse(text, &ok);
    QVERIFY(ok);
}

void tst_NwaJson::manyValuesAreRefusedQuickly_data()
{
    QTest::addColumn<QByteArray>("text");
    const int size = 1024 * 1024;
    QTest::newRow("one too many") << '[' + QByteArray("0,").repeated(19999) + "0]";
    QTest::newRow("numbers") << '[' + QByteArray("0,").repeated(size / 2) + "0]";
    QTest::newRow("members") << '{' + QByteArray("\"\":0,").repeated(size / 5) + "\"\":0}";
    QTest::newRow("arrays") << '[' + QByteArray("[],").repeated(size / 3) + "0]";
}

void tst_NwaJson::manyValuesAreRefusedQuickly()
{
    QFETCH(QByteArray, text);
    bool ok = true;
    QVERIFY(!NwaJson::parse(text, &ok).isValid());
    QVERIFY(!ok);
}

void tst_NwaJson::largeStringIsRead()
{
    const int size = 1024 * 1024;
    bool ok = false;
    const QVariant document = NwaJson::parse('"' + QByteArray(size, 'x') + '"', &ok);
    QVERIFY(ok);
    QCOMPARE(document.toString(), QString(size, QLatin1Char('x')));
    QCOMPARE(NwaJson::serialize(document).size(), size + 2);
}

void tst_NwaJson::resultMayBeIgnored()
{
    QCOMPARE(NwaJson::parse("[1]", nullptr).toList().size(), 1);
    QVERIFY(!NwaJson::parse("[1", nullptr).isValid());
}

void tst_NwaJson::valueIsWritten_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("null") << QVariant() << QByteArray("null");
    QTest::newRow("true") << QVariant(true) << QByteArray("true");
    QTest::newRow("false") << QVariant(false) << QByteArray("false");
    QTest::newRow("string") << string("a") << QByteArray("\"a\"");
    QTest::newRow("null string") << QVariant(QString()) << QByteArray("\"\"");
    QTest::newRow("quote and backslash") << string("\"\\") << QByteArray("\"\\\"\\\\\"");
    QTest::newRow("bytes") << QVariant(QByteArray("abc")) << QByteArray("\"abc\"");
    QTest::newRow("integer") << QVariant(-7) << QByteArray("-7");
    QTest::newRow("unsigned") << QVariant(4294967295u) << QByteArray("4294967295");
    QTest::newRow("2^53") << integer(Q_INT64_C(9007199254740992)) << QByteArray("9007199254740992");
    QTest::newRow("-2^53") << integer(Q_INT64_C(-9007199254740992)) << QByteArray("-9007199254740992");
    QTest::newRow("short") << QVariant::fromValue(short(-3)) << QByteArray("-3");
    QTest::newRow("unsigned short") << QVariant::fromValue(static_cast<unsigned short>(65535))
                                    << QByteArray("65535");
    QTest::newRow("unsigned char") << QVariant::fromValue(static_cast<unsigned char>(200)) << QByteArray("200");
    QTest::newRow("signed char") << QVariant::fromValue(static_cast<signed char>(65)) << QByteArray("65");
    QTest::newRow("char") << QVariant::fromValue('A') << QByteArray("65");
    QTest::newRow("whole double") << QVariant(100.0) << QByteArray("100");
    QTest::newRow("fraction") << QVariant(0.5) << QByteArray("0.5");
    QTest::newRow("infinity") << QVariant(std::numeric_limits<double>::infinity()) << QByteArray("null");
    QTest::newRow("negative infinity") << QVariant(-std::numeric_limits<double>::infinity()) << QByteArray("null");
    QTest::newRow("not a number") << QVariant(std::numeric_limits<double>::quiet_NaN()) << QByteArray("null");
    QTest::newRow("float infinity") << QVariant(std::numeric_limits<float>::infinity()) << QByteArray("null");
    QTest::newRow("empty list") << QVariant(QVariantList()) << QByteArray("[]");
    QTest::newRow("empty map") << QVariant(QVariantMap()) << QByteArray("{}");
    QTest::newRow("list") << QVariant(QVariantList() << 1 << string("b") << QVariant() << true)
                          << QByteArray("[1,\"b\",null,true]");
    QTest::newRow("string list") << QVariant(QStringList() << QString::fromLatin1("a") << QString::fromLatin1("b"))
                                 << QByteArray("[\"a\",\"b\"]");
    QTest::newRow("map in order of names")
        << QVariant(object("b", 1, "a", QVariantList())) << QByteArray("{\"a\":[],\"b\":1}");
    QVariantHash hash;
    hash.insert(QString::fromLatin1("b"), 2);
    hash.insert(QString::fromLatin1("a"), object("c", QVariant()));
    QTest::newRow("hash in order of names") << QVariant(hash) << QByteArray("{\"a\":{\"c\":null},\"b\":2}");
    QTest::newRow("type with a text") << QVariant(QDate(2026, 1, 31)) << QByteArray("\"2026-01-31\"");
    QTest::newRow("type without a text") << QVariant(QRect(1, 2, 3, 4)) << QByteArray("null");
}

void tst_NwaJson::valueIsWritten()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, text);
    QCOMPARE(NwaJson::serialize(value), text);
}

void tst_NwaJson::doublesAreReadBackAsTheyWere_data()
{
    QTest::addColumn<double>("number");
    QTest::newRow("0.1") << 0.1;
    QTest::newRow("one third") << 1.0 / 3.0;
    QTest::newRow("1e21") << 1e21;
    QTest::newRow("2^53 and one") << 9007199254740994.0;
    QTest::newRow("2^63") << 9223372036854775808.0;
    QTest::newRow("largest") << DBL_MAX;
    QTest::newRow("smallest normal") << DBL_MIN;
    QTest::newRow("smallest") << 5e-324;
    QTest::newRow("next to one") << 1.0 + DBL_EPSILON;
    QTest::newRow("negative") << -123456.789;
}

void tst_NwaJson::doublesAreReadBackAsTheyWere()
{
    QFETCH(double, number);
    bool ok = false;
    QVERIFY(NwaJson::parse(NwaJson::serialize(number), &ok).toDouble() == number);
    QVERIFY(ok);
}

void tst_NwaJson::largeIntegersAreWrittenAsTheNearestDouble()
{
    const qlonglong smallest = std::numeric_limits<qlonglong>::min();
    QCOMPARE(NwaJson::parse(NwaJson::serialize(smallest), nullptr), QVariant(smallest));
    const qulonglong largest = std::numeric_limits<qulonglong>::max();
    QCOMPARE(NwaJson::parse(NwaJson::serialize(largest), nullptr), QVariant(18446744073709551616.0));
}

void tst_NwaJson::floatsAreReadBackAsTheyWere_data()
{
    QTest::addColumn<float>("number");
    QTest::newRow("0.1") << 0.1f;
    QTest::newRow("one third") << 1.0f / 3.0f;
    QTest::newRow("16777217 does not exist") << 16777216.0f;
    QTest::newRow("largest") << FLT_MAX;
    QTest::newRow("smallest normal") << FLT_MIN;
    QTest::newRow("smallest") << 1e-45f;
    QTest::newRow("next to one") << 1.0f + FLT_EPSILON;
    QTest::newRow("nine digits") << 8.58973459e9f;
    QTest::newRow("negative") << -12.34f;
}

void tst_NwaJson::floatsAreReadBackAsTheyWere()
{
    QFETCH(float, number);
    bool ok = false;
    const QByteArray text = NwaJson::serialize(QVariant(number));
    QVERIFY2(float(NwaJson::parse(text, &ok).toDouble()) == number, text.constData());
    QVERIFY(ok);
}

void tst_NwaJson::everyCharacterIsReadBackAsItWas()
{
    QString text;
    for (uint code = 0; code <= 0xffff; ++code) {
        if (code < 0xd800 || code > 0xdfff)
            text += QChar(static_cast<ushort>(code));
    }
    text += QString::fromUtf8("\xf0\x90\x80\x80\xf4\x8f\xbf\xbf");
    bool ok = false;
    QCOMPARE(NwaJson::parse(NwaJson::serialize(object("a", text)), &ok), QVariant(object("a", text)));
    QVERIFY(ok);

    // An unpaired surrogate cannot be written.
    QString broken = QString::fromLatin1("a");
    broken += QChar(static_cast<ushort>(0xd83d));
    broken += QChar(static_cast<ushort>('b'));
    broken += QChar(static_cast<ushort>(0xde00));
    const QVariant repaired = NwaJson::parse(NwaJson::serialize(broken), &ok);
    QVERIFY(ok);
    QCOMPARE(
        repaired.toString(), QString::fromUtf8("a\xef\xbf\xbd"
                                               "b\xef\xbf\xbd"));
}

QTEST_APPLESS_MAIN(tst_NwaJson)
#include "tst_nwajson.moc"
