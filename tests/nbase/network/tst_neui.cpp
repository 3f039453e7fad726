#include "nrandomtexts.h"

#include <nbase/network/neui.h>
#include <nbase/network/nmacaddress.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QLibrary>
#include <QtCore/QMetaEnum>
#include <QtCore/QRegExp>
#include <QtTest/QtTest>

typedef QSet<NEuiBase::Separator> Separators;
typedef QVector<unsigned char> Bytes;

Q_DECLARE_METATYPE(Separators)

class tst_NEui : public QObject
{
    Q_OBJECT

private slots:
    void separatorsHaveTheirTexts_data();
    void separatorsHaveTheirTexts();
    void unknownSeparatorsHaveANullText_data();
    void unknownSeparatorsHaveANullText();
    void separatorsAreKnownByName();
    void setOfSeparatorsIsCompleteAndACopy();

    void objectConsistsOfFlagAndBytes();
    void byteExpressionMatchesTwoHexadecimalDigits();
    void expressionOfOneSeparator_data();
    void expressionOfOneSeparator();
    void expressionOfSeveralSeparatorsFollowsTheOrderOfTheSet_data();
    void expressionOfSeveralSeparatorsFollowsTheOrderOfTheSet();
    void expressionOfNoSeparatorIsEmpty();
    void staticsAreTheSameObjectsInAllLibraries();

    void defaultIsNullWithZeroBytes();
    void constructsFromAPointer();
    void nullPointerGivesNull();
    void constructsFromAVector();
    void vectorOfAnotherSizeGivesNull_data();
    void vectorOfAnotherSizeGivesNull();
    void constructsFromSingleBytes();
    void copiesHaveTheSameFlagAndBytes();

    void textOfAnEui48_data();
    void textOfAnEui48();
    void textOfAnEui64();
    void textThatIsNoEui48IsNull_data();
    void textThatIsNoEui48IsNull();
    void parsingAgreesWithTheDocumentedExpression();
    void hugeTextGivesNull();

    void byteOutsideTheRangeIsZero();
    void textHasTheChosenSeparatorAndLowerCase();
    void printedAddressCanBeParsedAgain();
    void nullAddressHasANullText();
    void equalityComparesFlagAndBytes();
    void orderComparesBytesWithNullFirst();
    void addressesCanBeHashKeys();
};

namespace {

const unsigned char EightBytes[] = {0x00, 0x1a, 0x2b, 0xff, 0x80, 0x7f, 0x09, 0xa0};
const unsigned char ZeroBytes[8] = {0};

Separators setOf(NEuiBase::Separator separator)
{
    return Separators() << separator;
}

Bytes vectorOf(int count)
{
    Bytes bytes;
    for (int index = 0; index < count; ++index)
        bytes << EightBytes[index % 8];
    return bytes;
}

template <typename Address> bool holds(const Address& address, const unsigned char* bytes, int count)
{
    return !address.isNull() && memcmp(address.bytes(), bytes, count) == 0;
}

template <typename Address> bool isNullWithZeroBytes(const Address& address, int count)
{
    return address.isNull() && memcmp(address.bytes(), ZeroBytes, count) == 0;
}

// Parses an address with one separator by the expression: each byte is a capture.
QRegExp capturingExpression(NEuiBase::Separator separator, int count)
{
    QStringList groups;
    for (int index = 0; index < count; ++index)
        groups << latin1("([A-Fa-f0-9]{2})");
    return QRegExp(groups.join(QRegExp::escape(NEuiBase::separatorString(separator))));
}

Bytes captured(const QRegExp& expression)
{
    Bytes bytes;
    for (int index = 1; index <= expression.captureCount(); ++index)
        bytes << static_cast<unsigned char>(expression.cap(index).toUInt(nullptr, 16));
    return bytes;
}

} // namespace

void tst_NEui::separatorsHaveTheirTexts_data()
{
    QTest::addColumn<int>("separator");
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("colon") << int(NEuiBase::SeparatorColon) << 0 << latin1(":");
    QTest::newRow("dash") << int(NEuiBase::SeparatorDash) << 1 << latin1("-");
    QTest::newRow("none") << int(NEuiBase::SeparatorNone) << 2 << latin1("");
}

void tst_NEui::separatorsHaveTheirTexts()
{
    QFETCH(int, separator);
    QFETCH(int, value);
    QFETCH(QString, text);
    QCOMPARE(separator, value);
    QCOMPARE(NEuiBase::separatorString(NEuiBase::Separator(separator)), text);
    QVERIFY(!NEuiBase::separatorString(NEuiBase::Separator(separator)).isNull());
}

void tst_NEui::unknownSeparatorsHaveANullText_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("behind the last") << 3;
    QTest::newRow("before the first") << -1;
}

void tst_NEui::unknownSeparatorsHaveANullText()
{
    QFETCH(int, value);
    QVERIFY(NEuiBase::separatorString(NEuiBase::Separator(value)).isNull());
}

void tst_NEui::separatorsAreKnownByName()
{
    const QMetaObject& gadget = NEuiBase::staticMetaObject;
    const QMetaEnum separators = gadget.enumerator(gadget.indexOfEnumerator("Separator"));
    QCOMPARE(separators.keyCount(), 3);
    QCOMPARE(separators.keyToValue("SeparatorColon"), int(NEuiBase::SeparatorColon));
    QCOMPARE(separators.keyToValue("SeparatorDash"), int(NEuiBase::SeparatorDash));
    QCOMPARE(separators.keyToValue("SeparatorNone"), int(NEuiBase::SeparatorNone));
}

void tst_NEui::setOfSeparatorsIsCompleteAndACopy()
{
    const Separators all = Separators()
                           << NEuiBase::SeparatorColon << NEuiBase::SeparatorDash << NEuiBase::SeparatorNone;
    Separators separators = NEuiBase::separators();
    QCOMPARE(separators, all);
    separators.clear();
    QCOMPARE(NEuiBase::separators(), all);
}

void tst_NEui::objectConsistsOfFlagAndBytes()
{
    QCOMPARE(int(sizeof(NEui<6>)), 7);
    QCOMPARE(int(sizeof(NEui<8>)), 9);
    QCOMPARE(int(sizeof(NEui48)), 7);
    QCOMPARE(int(sizeof(NEui64)), 9);
    QCOMPARE(int(sizeof(NMacAddress)), 7);

    unsigned char memory[7];
    NEui48 address(EightBytes);
    memcpy(memory, static_cast<const void*>(&address), sizeof(memory));
    QCOMPARE(int(memory[0]), 0);
    QVERIFY(memcmp(memory + 1, EightBytes, 6) == 0);
    address = NEui48();
    memcpy(memory, static_cast<const void*>(&address), sizeof(memory));
    QCOMPARE(int(memory[0]), 1);
}

void tst_NEui::byteExpressionMatchesTwoHexadecimalDigits()
{
    QCOMPARE(NEui<6>::S_BYTE_REGEXP, latin1("[A-Fa-f0-9]{2}"));
    QCOMPARE(NEui<8>::S_BYTE_REGEXP, latin1("[A-Fa-f0-9]{2}"));
}

void tst_NEui::expressionOfOneSeparator_data()
{
    QTest::addColumn<int>("separator");
    QTest::addColumn<QString>("eui48");
    QTest::addColumn<QString>("eui64");
    QTest::newRow("colon") << int(NEuiBase::SeparatorColon) << latin1("(?:[A-Fa-f0-9]{2}:){5}[A-Fa-f0-9]{2}")
                           << latin1("(?:[A-Fa-f0-9]{2}:){7}[A-Fa-f0-9]{2}");
    QTest::newRow("dash") << int(NEuiBase::SeparatorDash) << latin1("(?:[A-Fa-f0-9]{2}-){5}[A-Fa-f0-9]{2}")
                          << latin1("(?:[A-Fa-f0-9]{2}-){7}[A-Fa-f0-9]{2}");
    QTest::newRow("none") << int(NEuiBase::SeparatorNone) << latin1("(?:[A-Fa-f0-9]{2}){5}[A-Fa-f0-9]{2}")
                          << latin1("(?:[A-Fa-f0-9]{2}){7}[A-Fa-f0-9]{2}");
    QTest::newRow("a value that is none")
        << 3 << latin1("(?:[A-Fa-f0-9]{2}){5}[A-Fa-f0-9]{2}") << latin1("(?:[A-Fa-f0-9]{2}){7}[A-Fa-f0-9]{2}");
}

void tst_NEui::expressionOfOneSeparator()
{
    QFETCH(int, separator);
    QFETCH(QString, eui48);
    QFETCH(QString, eui64);
    QCOMPARE(NEui<6>::regExpString(setOf(NEuiBase::Separator(separator))), eui48);
    QCOMPARE(NEui<8>::regExpString(setOf(NEuiBase::Separator(separator))), eui64);
}

void tst_NEui::expressionOfSeveralSeparatorsFollowsTheOrderOfTheSet_data()
{
    QTest::addColumn<Separators>("separators");
    QTest::newRow("colon and dash") << (setOf(NEuiBase::SeparatorColon) << NEuiBase::SeparatorDash);
    QTest::newRow("colon and none") << (setOf(NEuiBase::SeparatorColon) << NEuiBase::SeparatorNone);
    QTest::newRow("dash and none") << (setOf(NEuiBase::SeparatorDash) << NEuiBase::SeparatorNone);
    QTest::newRow("all") << NEuiBase::separators();
}

void tst_NEui::expressionOfSeveralSeparatorsFollowsTheOrderOfTheSet()
{
    QFETCH(Separators, separators);
    const QString alternative = latin1("(?:[A-Fa-f0-9]{2}%1){%2}");
    QStringList ofEui48;
    QStringList ofEui64;
    for (NEuiBase::Separator separator : separators) {
        ofEui48 << alternative.arg(NEuiBase::separatorString(separator)).arg(5);
        ofEui64 << alternative.arg(NEuiBase::separatorString(separator)).arg(7);
    }
    const QString expression = latin1("(?:%1)[A-Fa-f0-9]{2}");
    QCOMPARE(NEui48::regExpString(separators), expression.arg(ofEui48.join(latin1("|"))));
    QCOMPARE(NEui64::regExpString(separators), expression.arg(ofEui64.join(latin1("|"))));
}

void tst_NEui::expressionOfNoSeparatorIsEmpty()
{
    QCOMPARE(NEui48::regExpString(Separators()), QString());
    QCOMPARE(NEui64::regExpString(Separators()), QString());
}

void tst_NEui::staticsAreTheSameObjectsInAllLibraries()
{
    typedef const QString* (*Function)();
    QLibrary one(QString::fromLocal8Bit(NEUISTATICS_ONE));
    QLibrary other(QString::fromLocal8Bit(NEUISTATICS_OTHER));
    QVERIFY2(one.load(), qPrintable(one.errorString()));
    QVERIFY2(other.load(), qPrintable(other.errorString()));

    const struct
    {
        const char* name;
        const QString* object;
    } statics[] = {
        {"byteRegExpOfEui48", &NEui<6>::S_BYTE_REGEXP},
        {"byteRegExpOfEui64", &NEui<8>::S_BYTE_REGEXP},
        {"regExpOfMacAddress", &NMacAddress::S_REG_EXP_STRING},
    };
    for (size_t index = 0; index < sizeof(statics) / sizeof(statics[0]); ++index) {
        const Function inOne = reinterpret_cast<Function>(one.resolve(statics[index].name));
        const Function inOther = reinterpret_cast<Function>(other.resolve(statics[index].name));
        QVERIFY(inOne && inOther && inOne != inOther);
        QCOMPARE(inOne(), statics[index].object);
        QCOMPARE(inOther(), statics[index].object);
    }
}

void tst_NEui::defaultIsNullWithZeroBytes()
{
    QVERIFY(isNullWithZeroBytes(NEui48(), 6));
    QVERIFY(isNullWithZeroBytes(NEui64(), 8));
}

void tst_NEui::constructsFromAPointer()
{
    QVERIFY(holds(NEui48(EightBytes), EightBytes, 6));
    QVERIFY(holds(NEui64(EightBytes), EightBytes, 8));
    QVERIFY(holds(NEui48(ZeroBytes), ZeroBytes, 6));
}

void tst_NEui::nullPointerGivesNull()
{
    const unsigned char* const nowhere = nullptr;
    QVERIFY(isNullWithZeroBytes(NEui48(nowhere), 6));
    QVERIFY(isNullWithZeroBytes(NEui64(nowhere), 8));
}

void tst_NEui::constructsFromAVector()
{
    QVERIFY(holds(NEui48(vectorOf(6)), EightBytes, 6));
    QVERIFY(holds(NEui64(vectorOf(8)), EightBytes, 8));
    QVERIFY(holds(NEui48(Bytes(6, 0)), ZeroBytes, 6));
}

void tst_NEui::vectorOfAnotherSizeGivesNull_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("0") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("5") << 5;
    QTest::newRow("6") << 6;
    QTest::newRow("7") << 7;
    QTest::newRow("8") << 8;
    QTest::newRow("9") << 9;
    QTest::newRow("262, 6 modulo 256") << 262;
    QTest::newRow("264, 8 modulo 256") << 264;
}

void tst_NEui::vectorOfAnotherSizeGivesNull()
{
    QFETCH(int, size);
    if (size != 6)
        QVERIFY(isNullWithZeroBytes(NEui48(vectorOf(size)), 6));
    if (size != 8)
        QVERIFY(isNullWithZeroBytes(NEui64(vectorOf(size)), 8));
}

void tst_NEui::constructsFromSingleBytes()
{
    QVERIFY(holds(NEui48(0x00, 0x1a, 0x2b, 0xff, 0x80, 0x7f), EightBytes, 6));
    QVERIFY(holds(NEui64(0x00, 0x1a, 0x2b, 0xff, 0x80, 0x7f, 0x09, 0xa0), EightBytes, 8));
    QVERIFY(holds(NEui48(0, 0, 0, 0, 0, 0), ZeroBytes, 6));
    QVERIFY(holds(NEui64(0, 0, 0, 0, 0, 0, 0, 0), ZeroBytes, 8));
}

void tst_NEui::copiesHaveTheSameFlagAndBytes()
{
    const NEui48 address(EightBytes);
    const NEui48 copy(address);
    QVERIFY(holds(copy, EightBytes, 6));
    const NEui64 null;
    const NEui64 copyOfNull(null);
    QVERIFY(isNullWithZeroBytes(copyOfNull, 8));
}

void tst_NEui::textOfAnEui48_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("separator");
    QTest::newRow("colons") << latin1("00:1A:2b:fF:80:7f") << int(NEuiBase::SeparatorColon);
    QTest::newRow("dashes") << latin1("00-1A-2b-fF-80-7f") << int(NEuiBase::SeparatorDash);
    QTest::newRow("nothing") << latin1("001A2bfF807f") << int(NEuiBase::SeparatorNone);
}

void tst_NEui::textOfAnEui48()
{
    QFETCH(QString, text);
    QFETCH(int, separator);
    for (NEuiBase::Separator other : NEuiBase::separators()) {
        const NEui48 address(text, setOf(other));
        if (other == separator)
            QVERIFY(holds(address, EightBytes, 6));
        else
            QVERIFY(isNullWithZeroBytes(address, 6));
    }
    QVERIFY(holds(NEui48(text, NEuiBase::separators()), EightBytes, 6));
    QVERIFY(isNullWithZeroBytes(NEui48(text, Separators()), 6));
}

void tst_NEui::textOfAnEui64()
{
    const Separators all = NEuiBase::separators();
    QVERIFY(holds(NEui64(latin1("00:1a:2B:ff:80:7F:09:A0"), all), EightBytes, 8));
    QVERIFY(holds(NEui64(latin1("00-1a-2B-ff-80-7F-09-A0"), all), EightBytes, 8));
    QVERIFY(holds(NEui64(latin1("001a2Bff807F09A0"), all), EightBytes, 8));
    QVERIFY(isNullWithZeroBytes(NEui64(latin1("00:1a:2B:ff:80:7F"), all), 8));
}

void tst_NEui::textThatIsNoEui48IsNull_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("dash among colons") << latin1("00:1A-2B:3C:4D:5E");
    QTest::newRow("colon left out") << latin1("00:1A2B:3C:4D:5E");
    QTest::newRow("blank before") << latin1(" 00:1A:2B:3C:4D:5E");
    QTest::newRow("blank after") << latin1("00:1A:2B:3C:4D:5E ");
    QTest::newRow("line end after") << latin1("00:1A:2B:3C:4D:5E\n");
    QTest::newRow("NUL after") << QString::fromLatin1("00:1A:2B:3C:4D:5E\0", 18);
    QTest::newRow("one digit for a byte") << latin1("0:1A:2B:3C:4D:5E");
    QTest::newRow("three digits for a byte") << latin1("00:1A:2B:3C:4D:5E0");
    QTest::newRow("digits moved") << latin1("0:01A:2B:3C:4D:5E");
    QTest::newRow("five bytes") << latin1("00:1A:2B:3C:4D");
    QTest::newRow("five bytes and a colon") << latin1("00:1A:2B:3C:4D:");
    QTest::newRow("seven bytes") << latin1("00:1A:2B:3C:4D:5E:6F");
    QTest::newRow("eight bytes") << latin1("00:1A:2B:3C:4D:5E:6F:70");
    QTest::newRow("no hexadecimal digit") << latin1("00:1A:2B:3C:4D:5G");
    QTest::newRow("sign instead of a digit") << latin1("00:1A:2B:3C:4D:+5");
    QTest::newRow("prefix") << latin1("0x:1A:2B:3C:4D:5E");
    QTest::newRow("other separator") << latin1("00.1A.2B.3C.4D.5E");
    QTest::newRow("Arabic digit") << latin1("00:1A:2B:3C:4D:5").append(QChar(0x0660));
    QTest::newRow("full-width letter") << latin1("00:1A:2B:3C:4D:5").append(QChar(0xff21));
    QTest::newRow("low byte looks like a digit") << latin1("00:1A:2B:3C:4D:5").append(QChar(0x0130));
    QTest::newRow("full-width colon") << latin1("00:1A:2B:3C:4D%15E").arg(QChar(0xff1a));
    QTest::newRow("low byte looks like a colon") << latin1("00:1A:2B:3C:4D%15E").arg(QChar(0x013a));
}

void tst_NEui::textThatIsNoEui48IsNull()
{
    QFETCH(QString, text);
    QVERIFY(isNullWithZeroBytes(NEui48(text, NEuiBase::separators()), 6));
}

void tst_NEui::parsingAgreesWithTheDocumentedExpression()
{
    QList<QRegExp> ofEui48;
    QList<QRegExp> ofEui64;
    for (int separator = 0; separator < 3; ++separator) {
        ofEui48 << capturingExpression(NEuiBase::Separator(separator), 6);
        ofEui64 << capturingExpression(NEuiBase::Separator(separator), 8);
    }
    int valid = 0;
    NRandomTexts random;
    for (int count = 0; count < 100000; ++count) {
        const NEuiBase::Separator separator = NEuiBase::Separator(random.below(3));
        const QString between =
            NEuiBase::separatorString(random.oneIn(4) ? NEuiBase::Separator(random.below(3)) : separator);
        const QString text = random.mutated(random.bytes(random.oneIn(2) ? 6 : 8, between));
        const NEui48 eui48(text, setOf(separator));
        const NEui64 eui64(text, setOf(separator));
        const bool isEui48 = ofEui48.at(separator).exactMatch(text);
        const bool isEui64 = ofEui64.at(separator).exactMatch(text);
        valid += isEui48 || isEui64;
        QVERIFY2(isEui48 == !eui48.isNull() && isEui64 == !eui64.isNull(), qPrintable(text));
        QVERIFY2(!isEui48 || eui48 == NEui48(captured(ofEui48.at(separator))), qPrintable(text));
        QVERIFY2(!isEui64 || eui64 == NEui64(captured(ofEui64.at(separator))), qPrintable(text));
    }
    QVERIFY(valid > 20000 && valid < 80000);
}

void tst_NEui::hugeTextGivesNull()
{
    QVERIFY(NEui48(QString(1000000, QLatin1Char('0')), NEuiBase::separators()).isNull());
    QVERIFY(NEui64(latin1("00:").repeated(350000), NEuiBase::separators()).isNull());
}

void tst_NEui::byteOutsideTheRangeIsZero()
{
    const NEui48 address(0x11, 0x22, 0x33, 0x44, 0x55, 0x66);
    QCOMPARE(int(address.byte(0)), 0x11);
    QCOMPARE(int(address.byte(5)), 0x66);
    QCOMPARE(int(address.byte(6)), 0);
    QCOMPARE(int(address.byte(-1)), 0);
    QCOMPARE(int(NEui64(EightBytes).byte(7)), 0xa0);
    QCOMPARE(int(NEui64().byte(0)), 0);
}

void tst_NEui::textHasTheChosenSeparatorAndLowerCase()
{
    const NEui48 eui48(EightBytes);
    QCOMPARE(eui48.toString(NEuiBase::SeparatorColon), latin1("00:1a:2b:ff:80:7f"));
    QCOMPARE(eui48.toString(NEuiBase::SeparatorDash), latin1("00-1a-2b-ff-80-7f"));
    QCOMPARE(eui48.toString(NEuiBase::SeparatorNone), latin1("001a2bff807f"));
    QCOMPARE(NEui64(EightBytes).toString(NEuiBase::SeparatorDash), latin1("00-1a-2b-ff-80-7f-09-a0"));
}

void tst_NEui::printedAddressCanBeParsedAgain()
{
    for (NEuiBase::Separator separator : NEuiBase::separators()) {
        const NEui48 eui48(EightBytes);
        QCOMPARE(NEui48(eui48.toString(separator), setOf(separator)), eui48);
        const NEui64 eui64(EightBytes);
        QCOMPARE(NEui64(eui64.toString(separator), setOf(separator)), eui64);
    }
}

void tst_NEui::nullAddressHasANullText()
{
    for (NEuiBase::Separator separator : NEuiBase::separators()) {
        QVERIFY(NEui48().toString(separator).isNull());
        QVERIFY(NEui64().toString(separator).isNull());
    }
}

void tst_NEui::equalityComparesFlagAndBytes()
{
    QVERIFY(NEui48(EightBytes) == NEui48(vectorOf(6)));
    QVERIFY(!(NEui48(EightBytes) != NEui48(vectorOf(6))));
    QVERIFY(NEui48(0, 0, 0, 0, 0, 1) != NEui48(0, 0, 0, 0, 0, 2));
    QVERIFY(!(NEui48(0, 0, 0, 0, 0, 1) == NEui48(0, 0, 0, 0, 0, 2)));
    QVERIFY(NEui48() == NEui48());
    QVERIFY(NEui48() != NEui48(ZeroBytes));
    QVERIFY(NEui64() != NEui64(ZeroBytes));
}

void tst_NEui::orderComparesBytesWithNullFirst()
{
    QVERIFY(NEui48(0, 0, 0, 0, 0, 0x7f) < NEui48(0, 0, 0, 0, 0, 0x80));
    QVERIFY(NEui48(0x7f, 0, 0, 0, 0, 0xff) < NEui48(0x80, 0, 0, 0, 0, 0));
    QVERIFY(!(NEui48(0x80, 0, 0, 0, 0, 0) < NEui48(0x7f, 0, 0, 0, 0, 0xff)));
    QVERIFY(!(NEui48(EightBytes) < NEui48(EightBytes)));
    QVERIFY(NEui48() < NEui48(ZeroBytes));
    QVERIFY(!(NEui48(ZeroBytes) < NEui48()));
    QVERIFY(!(NEui48() < NEui48()));
    QVERIFY(NEui64(0, 0, 0, 0, 0, 0, 0, 1) < NEui64(0, 0, 0, 0, 0, 0, 1, 0));
}

void tst_NEui::addressesCanBeHashKeys()
{
    QHash<NEui64, int> numbers;
    QSet<NEui48> addresses;
    QSet<uint> hashes;
    for (int number = 0; number < 1000; ++number) {
        const unsigned char high = static_cast<unsigned char>(number >> 8);
        const unsigned char low = static_cast<unsigned char>(number);
        numbers.insert(NEui64(high, 0, 0, 0, 0, 0, 0, low), number);
        addresses << NEui48(high, 0, 0, 0, 0, low) << NEui48(high, 0, 0, 0, 0, low);
        hashes << qHash(NEui48(0, 0x1a, 0x2b, 0, high, low));
    }
    QCOMPARE(numbers.size(), 1000);
    QCOMPARE(numbers.value(NEui64(3, 0, 0, 0, 0, 0, 0, 0xe7)), 999);
    QCOMPARE(addresses.size(), 1000);
    QVERIFY(!addresses.contains(NEui48()));
    QCOMPARE(qHash(NEui48(EightBytes)), qHash(NEui48(vectorOf(6))));
    QVERIFY2(hashes.size() > 900, "addresses of one maker fall together");
}

QTEST_APPLESS_MAIN(tst_NEui)
#include "tst_neui.moc"
