#include <nwebapi/nwajsonutilities.h>

#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <limits>

Q_DECLARE_METATYPE(QVariant)

namespace {

const QString key = QString::fromLatin1("key");

QVariantMap objectWith(const QVariant& value)
{
    QVariantMap object;
    object.insert(key, value);
    return object;
}

// One value of each type that a parsed document has.
void addValues()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("type");
    QTest::newRow("null") << QVariant() << QString::fromLatin1("null");
    QTest::newRow("string") << QVariant(QString::fromLatin1("1")) << QString::fromLatin1("string");
    QTest::newRow("empty string") << QVariant(QString::fromLatin1("")) << QString::fromLatin1("string");
    QTest::newRow("true") << QVariant(true) << QString::fromLatin1("boolean");
    QTest::newRow("false") << QVariant(false) << QString::fromLatin1("boolean");
    QTest::newRow("integer") << QVariant(qlonglong(1)) << QString::fromLatin1("integer");
    QTest::newRow("fraction") << QVariant(0.5) << QString::fromLatin1("fraction");
    QTest::newRow("list") << QVariant(QVariantList() << 1) << QString::fromLatin1("list");
    QTest::newRow("empty list") << QVariant(QVariantList()) << QString::fromLatin1("list");
    QTest::newRow("object") << QVariant(objectWith(1)) << QString::fromLatin1("object");
    QTest::newRow("empty object") << QVariant(QVariantMap()) << QString::fromLatin1("object");
}

} // namespace

class tst_NwaJsonUtilities : public QObject
{
    Q_OBJECT

private slots:
    void onlyStringsAreStrings_data() { addValues(); }
    void onlyStringsAreStrings();
    void onlyBooleansAreBooleans_data() { addValues(); }
    void onlyBooleansAreBooleans();
    void onlyIntegersAreIntegers_data() { addValues(); }
    void onlyIntegersAreIntegers();
    void onlyListsAreLists_data() { addValues(); }
    void onlyListsAreLists();
    void onlyObjectsAreObjects_data() { addValues(); }
    void onlyObjectsAreObjects();
    void absentValuesAreNotThere();
    void defaultsStandInForAbsentValues();
    void numbersAreIntegersInTheirRange_data();
    void numbersAreIntegersInTheirRange();
    void stringListIsNoList();
};

void tst_NwaJsonUtilities::onlyStringsAreStrings()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const bool isString = type == QLatin1String("string");
    const QString expected = isString ? value.toString() : QString::fromLatin1("before");

    QString text = QString::fromLatin1("before");
    QCOMPARE(NwaJsonUtilities::stringValue(value, text), isString);
    QCOMPARE(text, expected);
    text = QString::fromLatin1("before");
    QCOMPARE(NwaJsonUtilities::stringValue(objectWith(value), key, text), isString);
    QCOMPARE(text, expected);
    text = QString::fromLatin1("before");
    QCOMPARE(
        NwaJsonUtilities::stringValue(objectWith(value), key, text, QString::fromLatin1("default")), isString);
    QCOMPARE(text, expected);
}

void tst_NwaJsonUtilities::onlyBooleansAreBooleans()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const bool isBoolean = type == QLatin1String("boolean");
    const bool before[] = {true, false};
    for (int index = 0; index < 2; ++index) {
        const bool expected = isBoolean ? value.toBool() : before[index];
        bool result = before[index];
        QCOMPARE(NwaJsonUtilities::booleanValue(objectWith(value), key, result), isBoolean);
        QCOMPARE(result, expected);
        result = before[index];
        QCOMPARE(NwaJsonUtilities::booleanValue(objectWith(value), key, result, !before[index]), isBoolean);
        QCOMPARE(result, expected);
    }
}

void tst_NwaJsonUtilities::onlyIntegersAreIntegers()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const bool isInteger = type == QLatin1String("integer");
    unsigned int number = 7;
    QCOMPARE(NwaJsonUtilities::integerValue(objectWith(value), key, number), isInteger);
    QCOMPARE(number, isInteger ? 1u : 7u);
    number = 7;
    QCOMPARE(NwaJsonUtilities::integerValue(objectWith(value), key, number, 8u), isInteger);
    QCOMPARE(number, isInteger ? 1u : 7u);
    unsigned short shortNumber = 7;
    QCOMPARE(NwaJsonUtilities::integerValue(objectWith(value), key, shortNumber), isInteger);
    QCOMPARE(int(shortNumber), isInteger ? 1 : 7);
}

void tst_NwaJsonUtilities::onlyListsAreLists()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const bool isList = type == QLatin1String("list");
    QVariantList list;
    list << 1 << 2 << 3;
    const QVariantList expected = isList ? value.toList() : list;
    QCOMPARE(NwaJsonUtilities::listValue(objectWith(value), key, list), isList);
    QCOMPARE(list, expected);
}

void tst_NwaJsonUtilities::onlyObjectsAreObjects()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const bool isObject = type == QLatin1String("object");
    const QVariantMap before = objectWith(QString::fromLatin1("before"));
    const QVariantMap expected = isObject ? value.toMap() : before;
    QVariantMap object = before;
    QCOMPARE(NwaJsonUtilities::objectValue(value, object), isObject);
    QCOMPARE(object, expected);
    object = before;
    QCOMPARE(NwaJsonUtilities::objectValue(objectWith(value), key, object), isObject);
    QCOMPARE(object, expected);
}

void tst_NwaJsonUtilities::absentValuesAreNotThere()
{
    QVariantMap other;
    other.insert(QString::fromLatin1("Key"), 1);
    QString text;
    bool boolean = false;
    unsigned int number = 0;
    unsigned short shortNumber = 0;
    QVariantList list;
    QVariantMap object;
    QVERIFY(!NwaJsonUtilities::stringValue(other, key, text));
    QVERIFY(!NwaJsonUtilities::booleanValue(other, key, boolean));
    QVERIFY(!NwaJsonUtilities::integerValue(other, key, number));
    QVERIFY(!NwaJsonUtilities::integerValue(other, key, shortNumber));
    QVERIFY(!NwaJsonUtilities::listValue(other, key, list));
    QVERIFY(!NwaJsonUtilities::objectValue(other, key, object));
}

void tst_NwaJsonUtilities::defaultsStandInForAbsentValues()
{
    QString text;
    QVERIFY(NwaJsonUtilities::stringValue(QVariantMap(), key, text, QString::fromLatin1("default")));
    QCOMPARE(text, QString::fromLatin1("default"));
    bool boolean = false;
    QVERIFY(NwaJsonUtilities::booleanValue(QVariantMap(), key, boolean, true));
    QVERIFY(boolean);
    unsigned int number = 0;
    QVERIFY(NwaJsonUtilities::integerValue(QVariantMap(), key, number, 5u));
    QCOMPARE(number, 5u);
}

void tst_NwaJsonUtilities::numbersAreIntegersInTheirRange_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("isShort");
    QTest::addColumn<bool>("isInteger");
    QTest::newRow("zero") << QVariant(qlonglong(0)) << true << true;
    QTest::newRow("largest short") << QVariant(qlonglong(65535)) << true << true;
    QTest::newRow("beyond short") << QVariant(qlonglong(65536)) << false << true;
    QTest::newRow("largest") << QVariant(Q_INT64_C(4294967295)) << false << true;
    QTest::newRow("beyond") << QVariant(Q_INT64_C(4294967296)) << false << false;
    QTest::newRow("negative") << QVariant(qlonglong(-1)) << false << false;
    QTest::newRow("smallest of all") << QVariant(std::numeric_limits<qlonglong>::min()) << false << false;
    QTest::newRow("int") << QVariant(80) << true << true;
    QTest::newRow("negative int") << QVariant(-80) << false << false;
    QTest::newRow("unsigned int") << QVariant(4294967295u) << false << true;
    QTest::newRow("largest of all") << QVariant(std::numeric_limits<qulonglong>::max()) << false << false;
    QTest::newRow("whole double") << QVariant(3.0) << true << true;
    QTest::newRow("whole double beyond short") << QVariant(65536.0) << false << true;
    QTest::newRow("largest as double") << QVariant(4294967295.0) << false << true;
    QTest::newRow("beyond as double") << QVariant(4294967296.0) << false << false;
    QTest::newRow("fraction") << QVariant(3.5) << false << false;
    QTest::newRow("nearly whole") << QVariant(2.9999999999999996) << false << false;
    QTest::newRow("negative double") << QVariant(-1.0) << false << false;
    QTest::newRow("negative zero") << QVariant(-0.0) << true << true;
    QTest::newRow("huge double") << QVariant(1e300) << false << false;
    QTest::newRow("infinity") << QVariant(std::numeric_limits<double>::infinity()) << false << false;
    QTest::newRow("not a number") << QVariant(std::numeric_limits<double>::quiet_NaN()) << false << false;
    QTest::newRow("whole float") << QVariant(4.0f) << true << true;
    QTest::newRow("float fraction") << QVariant(4.5f) << false << false;
}

void tst_NwaJsonUtilities::numbersAreIntegersInTheirRange()
{
    QFETCH(QVariant, value);
    QFETCH(bool, isShort);
    QFETCH(bool, isInteger);
    unsigned short shortNumber = 7;
    QCOMPARE(NwaJsonUtilities::integerValue(objectWith(value), key, shortNumber), isShort);
    QCOMPARE(uint(shortNumber), isShort ? value.toUInt() : 7u);
    unsigned int number = 7;
    QCOMPARE(NwaJsonUtilities::integerValue(objectWith(value), key, number), isInteger);
    QCOMPARE(number, isInteger ? uint(value.toDouble()) : 7u);
}

void tst_NwaJsonUtilities::stringListIsNoList()
{
    QVariantList list;
    QVERIFY(!NwaJsonUtilities::listValue(objectWith(QStringList()), key, list));
    QVariantMap object;
    QVERIFY(!NwaJsonUtilities::objectValue(QVariant(QVariantHash()), object));
}

QTEST_APPLESS_MAIN(tst_NwaJsonUtilities)
#include "tst_nwajsonutilities.moc"
