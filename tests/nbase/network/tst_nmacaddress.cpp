#include "nrandomtexts.h"

#include <nbase/network/nmacaddress.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QRegExp>
#include <QtTest/QtTest>

class tst_NMacAddress : public QObject
{
    Q_OBJECT

private slots:
    void onlyColonsAreAllowed();
    void constructorsAreThoseOfAnEui48();
    void textWithColonsIsAnAddress();
    void otherTextGivesNull_data();
    void otherTextGivesNull();
    void parsingOfAMillionTextsAgreesWithTheDocumentedExpression();
    void textHasColons();
    void addressesCompareWithOtherEui48();
    void addressesCanBeHashKeys();
};

namespace {

const unsigned char SixBytes[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};

bool holdsSixBytes(const NMacAddress& address)
{
    return !address.isNull() && memcmp(address.bytes(), SixBytes, sizeof(SixBytes)) == 0;
}

bool isNullWithZeroBytes(const NMacAddress& address)
{
    const unsigned char zeros[6] = {0};
    return address.isNull() && memcmp(address.bytes(), zeros, sizeof(zeros)) == 0;
}

} // namespace

void tst_NMacAddress::onlyColonsAreAllowed()
{
    const NEuiBase::Separator* const separator = &NMacAddress::S_SEPARATOR;
    QCOMPARE(int(*separator), int(NEuiBase::SeparatorColon));
    QCOMPARE(NMacAddress::S_ALLOWED_EUI_SEPARATORS, QSet<NEuiBase::Separator>() << NEuiBase::SeparatorColon);
    QCOMPARE(NMacAddress::S_REG_EXP_STRING, latin1("(?:[A-Fa-f0-9]{2}:){5}[A-Fa-f0-9]{2}"));
}

void tst_NMacAddress::constructorsAreThoseOfAnEui48()
{
    QVERIFY(isNullWithZeroBytes(NMacAddress()));
    QVERIFY(holdsSixBytes(NMacAddress(SixBytes)));

    QVector<unsigned char> bytes;
    for (int index = 0; index < 6; ++index)
        bytes << SixBytes[index];
    QVERIFY(holdsSixBytes(NMacAddress(bytes)));
    bytes << 0x6f;
    QVERIFY(isNullWithZeroBytes(NMacAddress(bytes)));

    QVERIFY(holdsSixBytes(NMacAddress(0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e)));
    QVERIFY(!NMacAddress(0, 0, 0, 0, 0, 0).isNull());

    QVERIFY(holdsSixBytes(NMacAddress(NEui48(SixBytes))));
    QVERIFY(isNullWithZeroBytes(NMacAddress(NEui48())));

    const NMacAddress address(SixBytes);
    const NMacAddress copy(address);
    QVERIFY(holdsSixBytes(copy));
}

void tst_NMacAddress::textWithColonsIsAnAddress()
{
    QVERIFY(holdsSixBytes(NMacAddress(latin1("00:1A:2b:3C:4d:5E"))));
    QVERIFY(!NMacAddress(latin1("00:00:00:00:00:00")).isNull());
}

void tst_NMacAddress::otherTextGivesNull_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("dashes") << latin1("00-1A-2B-3C-4D-5E");
    QTest::newRow("no separators") << latin1("001A2B3C4D5E");
    QTest::newRow("a dash among colons") << latin1("00:1A-2B:3C:4D:5E");
    QTest::newRow("blank before") << latin1(" 00:1A:2B:3C:4D:5E");
    QTest::newRow("blank after") << latin1("00:1A:2B:3C:4D:5E ");
    QTest::newRow("one digit for a byte") << latin1("0:1A:2B:3C:4D:5E");
    QTest::newRow("seven bytes") << latin1("00:1A:2B:3C:4D:5E:6F");
    QTest::newRow("a million characters") << latin1("00:").repeated(333333);
}

void tst_NMacAddress::otherTextGivesNull()
{
    QFETCH(QString, text);
    QVERIFY(isNullWithZeroBytes(NMacAddress(text)));
}

void tst_NMacAddress::parsingOfAMillionTextsAgreesWithTheDocumentedExpression()
{
    const QRegExp expression(NMacAddress::S_REG_EXP_STRING);
    const QStringList separators = QStringList() << latin1(":") << latin1("-") << latin1("");
    int valid = 0;
    NRandomTexts random;
    for (int count = 0; count < 1000000; ++count) {
        const QString separator = random.oneIn(8) ? random.oneOf(separators) : separators.first();
        const QString address = random.bytes(random.oneIn(16) ? 5 + random.below(3) : 6, separator);
        const QString text = random.oneIn(16) ? random.noise(24) : random.mutated(address);
        const bool matches = expression.exactMatch(text);
        valid += matches;
        QVERIFY2(NMacAddress(text).isNull() == !matches, qPrintable(text));
    }
    QVERIFY(valid > 200000 && valid < 800000);
}

void tst_NMacAddress::textHasColons()
{
    const NMacAddress address(SixBytes);
    QCOMPARE(address.toString(), latin1("00:1a:2b:3c:4d:5e"));
    QCOMPARE(address.toString(NEuiBase::SeparatorDash), latin1("00-1a-2b-3c-4d-5e"));
    QCOMPARE(NMacAddress(address.toString()), address);
    QVERIFY(NMacAddress().toString().isNull());
}

void tst_NMacAddress::addressesCompareWithOtherEui48()
{
    QVERIFY(NMacAddress(SixBytes) == NEui48(SixBytes));
    QVERIFY(NMacAddress() != NMacAddress(0, 0, 0, 0, 0, 0));
    QVERIFY(NMacAddress(0, 0, 0, 0, 0, 1) < NMacAddress(0, 0, 0, 0, 0, 2));
}

void tst_NMacAddress::addressesCanBeHashKeys()
{
    QHash<NMacAddress, int> numbers;
    numbers.insert(NMacAddress(SixBytes), 1);
    numbers.insert(NMacAddress(), 2);
    QCOMPARE(numbers.value(NMacAddress(latin1("00:1a:2b:3c:4d:5e"))), 1);
    QCOMPARE(numbers.value(NMacAddress()), 2);
    QVERIFY(!numbers.contains(NMacAddress(0, 0, 0, 0, 0, 0)));
}

QTEST_APPLESS_MAIN(tst_NMacAddress)
#include "tst_nmacaddress.moc"
