#include "nrandomtexts.h"

#include <nbase/network/nmacaddress.h>
#include <nbase/network/nnetworkutilities.h>

#include "support/nthreads.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QRegExp>
#include <QtTest/QtTest>

#include <limits.h>

typedef NNetworkUtilities Utilities;
typedef QSet<NEuiBase::Separator> Separators;

class tst_NNetworkUtilities : public QObject
{
    Q_OBJECT

private slots:
    void firstCallsMayBeConcurrent();

    void expressionsAreTheDocumentedOnes();

    void macAddresses_data();
    void macAddresses();
    void ipv4Addresses_data();
    void ipv4Addresses();
    void ipv4AddressRanges_data();
    void ipv4AddressRanges();
    void hostNames_data();
    void hostNames();
    void eui48WithSeparators();
    void eui64WithSeparators();
    void withoutSeparatorsOnlyEmptyTextIsAnEui_data();
    void withoutSeparatorsOnlyEmptyTextIsAnEui();

    void everyByteAndEveryPrefixLengthIsChecked();
    void aMillionIpv4AddressesAreCheckedAsTheExpressionDoes();
    void ipv4AddressRangesAreCheckedAsTheExpressionDoes();
    void hostNameCheckAgreesWithTheExpression();
    void macAddressAndEuiChecksAgreeWithTheExpressions();
    void checksOfOtherScriptsAgreeWithTheExpressions();
    void maliciousTextsOfAMillionCharactersAreChecked_data();
    void maliciousTextsOfAMillionCharactersAreChecked();

    void protocolsHaveTheirNames();
    void protocolsAreKnownByName();
    void tableOfProtocolsIsACopy();
    void unknownProtocolsHaveNoName_data();
    void unknownProtocolsHaveNoName();
    void unknownTextsGiveTcp_data();
    void unknownTextsGiveTcp();
};

namespace {

const int LengthOfMaliciousTexts = 1000000;

QString letters(int count)
{
    return QString(count, QLatin1Char('a'));
}

// A name with labels of the maximum length, truncated to the length, without a dot at the end.
QString hostNameOf(int length)
{
    QString name = (letters(63) + QLatin1Char('.')).repeated(length / 64 + 1).left(length);
    if (name.endsWith(QLatin1Char('.')))
        name[length - 1] = QLatin1Char('a');
    return name;
}

bool isHostNameByExpression(const QString& text)
{
    static const QRegExp expression(Utilities::S_HOSTNAME_REGEXP);
    return text.size() < (text.endsWith(QLatin1Char('.')) ? 254 : 253) && expression.exactMatch(text);
}

QString randomIpv4Address(NRandomTexts& random)
{
    static const QStringList bytes = latin1("0 1 9 00 01 10 19 20 99 000 001 010 099 100 199 200 249 250 255 256 "
                                            "259 260 299 300 999 1000 0255 0256 00000000255 00000001000")
                                         .split(QLatin1Char(' '));
    QStringList parts;
    for (int count = random.oneIn(16) ? 3 + random.below(3) : 4; count > 0; --count)
        parts << (random.oneIn(4) ? random.oneOf(bytes) : QString::number(random.below(256)));
    return parts.join(latin1("."));
}

QString randomIpv4AddressRange(NRandomTexts& random)
{
    if (random.oneIn(3))
        return randomIpv4Address(random) + QLatin1Char('/') + randomIpv4Address(random);
    const QString zeros(random.oneIn(4) ? random.below(4) : 0, QLatin1Char('0'));
    return randomIpv4Address(random) + QLatin1Char('/') + zeros + QString::number(random.below(40));
}

QString randomHostName(NRandomTexts& random)
{
    static const QStringList labels =
        latin1("a Z 0 7 10 255 gateway lan x-y 1a a1 1-1 a--b -a a- - xn--mnchen-3ya").split(QLatin1Char(' '))
        << letters(62) << letters(63) << letters(64) << letters(61) + latin1("-a") << letters(62) + latin1("-a");
    QStringList parts;
    for (int count = 1 + random.below(5); count > 0; --count)
        parts << random.oneOf(labels);
    return parts.join(latin1(".")) + (random.oneIn(4) ? latin1(".") : QString());
}

} // namespace

void tst_NNetworkUtilities::firstCallsMayBeConcurrent()
{
    QVERIFY(NTest::holdsInThreads(4, [](int) {
        return Utilities::isMacAddress(latin1("00:1a:2b:3c:4d:5e")) &&
               Utilities::isIpv4Address(latin1("10.0.0.1")) &&
               Utilities::isIpv4AddressRange(latin1("10.0.0.0/8")) && Utilities::isHostmane(latin1("box.lan")) &&
               Utilities::isEui48(latin1("00-1a-2b-3c-4d-5e"), NEuiBase::separators()) &&
               Utilities::transportProtocolFromString(latin1("udp")) == Utilities::TransportProtocolUdp;
    }));
}

void tst_NNetworkUtilities::expressionsAreTheDocumentedOnes()
{
    QCOMPARE(Utilities::S_IPV4_BYTE_REGEXP, latin1("0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)"));
    QCOMPARE(
        Utilities::S_IPV4_REGEXP, latin1("(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\\.){3}"
                                         "(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?))"));
    QCOMPARE(Utilities::S_CIDR_SUFFIX_REGEXP, latin1("0*(?:3[0-2]|[0-2]?[0-9])"));
    QCOMPARE(
        Utilities::S_IPV4_RANGE_REGEXP, latin1("(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\\.){3}"
                                               "(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?))"
                                               "\\/(?:"
                                               "(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\\.){3}"
                                               "(?:0*(?:25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?))"
                                               "|0*(?:3[0-2]|[0-2]?[0-9]))"));
    QCOMPARE(
        Utilities::S_HOSTNAME_LABEL_REGEXP,
        latin1("(?:[a-zA-Z0-9]{0,62}|[a-zA-Z0-9][a-zA-Z0-9-]{0,61})[a-zA-Z0-9]"));
    QCOMPARE(
        Utilities::S_HOSTNAME_REGEXP,
        latin1("(?!^\\d+\\.\\d+\\.\\d+\\.\\d+)"
               "(?:(?:[a-zA-Z0-9]{0,62}|[a-zA-Z0-9][a-zA-Z0-9-]{0,61})[a-zA-Z0-9]\\.)*"
               "(?:[a-zA-Z0-9]{0,62}|[a-zA-Z0-9][a-zA-Z0-9-]{0,61})[a-zA-Z0-9]\\.?"));
}

void tst_NNetworkUtilities::macAddresses_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("upper and lower case") << latin1("00:1A:2b:3C:4d:5E") << true;
    QTest::newRow("dashes") << latin1("00-1A-2B-3C-4D-5E") << false;
    QTest::newRow("no separators") << latin1("001A2B3C4D5E") << false;
    QTest::newRow("blank before") << latin1(" 00:1A:2B:3C:4D:5E") << false;
    QTest::newRow("seven bytes") << latin1("00:1A:2B:3C:4D:5E:6F") << false;
    QTest::newRow("empty") << latin1("") << false;
    QTest::newRow("null") << QString() << false;
}

void tst_NNetworkUtilities::macAddresses()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QCOMPARE(Utilities::isMacAddress(text), valid);
    QCOMPARE(QRegExp(NMacAddress::S_REG_EXP_STRING).exactMatch(text), valid);
}

void tst_NNetworkUtilities::ipv4Addresses_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("leading zeros") << latin1("192.168.001.010") << true;
    QTest::newRow("many leading zeros") << latin1("0000000192.0000168.000000.0000255") << true;
    QTest::newRow("smallest") << latin1("0.0.0.0") << true;
    QTest::newRow("largest") << latin1("255.255.255.255") << true;
    QTest::newRow("byte too large") << latin1("256.1.1.1") << false;
    QTest::newRow("last byte too large") << latin1("1.1.1.256") << false;
    QTest::newRow("byte too large with zeros before it") << latin1("1.1.1.0256") << false;
    QTest::newRow("300") << latin1("300.1.1.1") << false;
    QTest::newRow("byte beyond 32 bits") << latin1("4294967297.1.1.1") << false;
    QTest::newRow("three bytes") << latin1("1.2.3") << false;
    QTest::newRow("five bytes") << latin1("1.2.3.4.5") << false;
    QTest::newRow("dot after") << latin1("1.2.3.4.") << false;
    QTest::newRow("dot before") << latin1(".1.2.3.4") << false;
    QTest::newRow("empty byte") << latin1("1..3.4") << false;
    QTest::newRow("empty last byte") << latin1("1.2.3.") << false;
    QTest::newRow("blank before") << latin1(" 1.2.3.4") << false;
    QTest::newRow("blank after") << latin1("1.2.3.4 ") << false;
    QTest::newRow("line end after") << latin1("1.2.3.4\n") << false;
    QTest::newRow("NUL after") << QString::fromLatin1("1.2.3.4\0", 8) << false;
    QTest::newRow("sign") << latin1("1.2.3.+4") << false;
    QTest::newRow("hexadecimal") << latin1("0x1.2.3.4") << false;
    QTest::newRow("comma") << latin1("1,2,3,4") << false;
    QTest::newRow("Arabic digit") << latin1("1.2.3.").append(QChar(0x0664)) << false;
    QTest::newRow("low byte looks like a digit") << latin1("1.2.3.").append(QChar(0x0134)) << false;
    QTest::newRow("empty") << latin1("") << false;
    QTest::newRow("null") << QString() << false;
}

void tst_NNetworkUtilities::ipv4Addresses()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QCOMPARE(Utilities::isIpv4Address(text), valid);
    QCOMPARE(QRegExp(Utilities::S_IPV4_REGEXP).exactMatch(text), valid);
}

void tst_NNetworkUtilities::ipv4AddressRanges_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("prefix length") << latin1("10.0.0.0/8") << true;
    QTest::newRow("netmask") << latin1("10.0.0.0/255.0.0.0") << true;
    QTest::newRow("prefix length with zero before it") << latin1("10.0.0.0/032") << true;
    QTest::newRow("prefix length with zeros before it") << latin1("10.0.0.0/0000000032") << true;
    QTest::newRow("prefix length 0") << latin1("10.0.0.0/0") << true;
    QTest::newRow("prefix length 000") << latin1("10.0.0.0/000") << true;
    QTest::newRow("prefix length 32") << latin1("10.0.0.0/32") << true;
    QTest::newRow("zeros everywhere") << latin1("010.00.000.0/0255.000.0.0") << true;
    QTest::newRow("netmask with holes") << latin1("10.0.0.0/1.2.3.4") << true;
    QTest::newRow("prefix length 33") << latin1("10.0.0.0/33") << false;
    QTest::newRow("prefix length 033") << latin1("10.0.0.0/033") << false;
    QTest::newRow("prefix length 128") << latin1("10.0.0.0/128") << false;
    QTest::newRow("bare address") << latin1("10.0.0.0") << false;
    QTest::newRow("nothing after the slash") << latin1("10.0.0.0/") << false;
    QTest::newRow("nothing before the slash") << latin1("/8") << false;
    QTest::newRow("two slashes") << latin1("10.0.0.0//8") << false;
    QTest::newRow("two prefix lengths") << latin1("10.0.0.0/8/8") << false;
    QTest::newRow("backslash") << latin1("10.0.0.0\\8") << false;
    QTest::newRow("half a netmask") << latin1("10.0.0.0/255.0") << false;
    QTest::newRow("netmask too large") << latin1("10.0.0.0/256.0.0.0") << false;
    QTest::newRow("address too large") << latin1("256.0.0.0/8") << false;
    QTest::newRow("blank before") << latin1(" 10.0.0.0/8") << false;
    QTest::newRow("blank after") << latin1("10.0.0.0/8 ") << false;
    QTest::newRow("blank inside") << latin1("10.0.0.0/ 8") << false;
    QTest::newRow("empty") << latin1("") << false;
    QTest::newRow("null") << QString() << false;
}

void tst_NNetworkUtilities::ipv4AddressRanges()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QCOMPARE(Utilities::isIpv4AddressRange(text), valid);
    QCOMPARE(QRegExp(Utilities::S_IPV4_RANGE_REGEXP).exactMatch(text), valid);
}

void tst_NNetworkUtilities::hostNames_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("letter") << latin1("a") << true;
    QTest::newRow("digit") << latin1("7") << true;
    QTest::newRow("upper case") << latin1("Gateway.LAN") << true;
    QTest::newRow("final dot") << latin1("gateway.lan.") << true;
    QTest::newRow("one label with a final dot") << latin1("a.") << true;
    QTest::newRow("two final dots") << latin1("gateway.lan..") << false;
    QTest::newRow("dot before") << latin1(".lan") << false;
    QTest::newRow("dot alone") << latin1(".") << false;
    QTest::newRow("empty label") << latin1("a..b") << false;
    QTest::newRow("hyphen inside") << latin1("a-b.c--d") << true;
    QTest::newRow("hyphen before") << latin1("-a") << false;
    QTest::newRow("hyphen after") << latin1("a-") << false;
    QTest::newRow("hyphen alone") << latin1("-") << false;
    QTest::newRow("hyphen before a later label") << latin1("a.-b") << false;
    QTest::newRow("hyphen after an earlier label") << latin1("a-.b") << false;
    QTest::newRow("underscore") << latin1("a_b") << false;
    QTest::newRow("blank before") << latin1(" a") << false;
    QTest::newRow("blank after") << latin1("a ") << false;
    QTest::newRow("line end after") << latin1("a\n") << false;
    QTest::newRow("NUL after") << QString::fromLatin1("a\0", 2) << false;
    QTest::newRow("four numbers") << latin1("1.2.3.4") << false;
    QTest::newRow("four numbers and a dot") << latin1("1.2.3.4.") << false;
    QTest::newRow("four numbers too large for an address") << latin1("1000.2000.3000.4000") << false;
    QTest::newRow("begins with four numbers") << latin1("1.2.3.4.example") << false;
    QTest::newRow("fourth label begins with a number") << latin1("1.2.3.4a") << false;
    QTest::newRow("three numbers") << latin1("1.2.3") << true;
    QTest::newRow("three numbers and a name") << latin1("1.2.3.a") << true;
    QTest::newRow("four numbers behind a name") << latin1("a.1.2.3.4") << true;
    QTest::newRow("numbers with a letter among them") << latin1("1.2a.3.4") << true;
    QTest::newRow("letter beyond ASCII") << latin1("b\xfc"
                                                   "cher")
                                         << false;
    QTest::newRow("digit beyond ASCII") << latin1("a").append(QChar(0x0661)) << false;
    QTest::newRow("label of 63 letters") << letters(63) << true;
    QTest::newRow("label of 64 letters") << letters(64) << false;
    QTest::newRow("label of 63 with a hyphen") << letters(30) + latin1("-") + letters(32) << true;
    QTest::newRow("label of 64 with a hyphen") << letters(30) + latin1("-") + letters(33) << false;
    QTest::newRow("later label of 64 letters") << latin1("a.") + letters(64) + latin1(".a") << false;
    QTest::newRow("252 characters") << hostNameOf(252) << true;
    QTest::newRow("253 characters") << hostNameOf(253) << false;
    QTest::newRow("252 characters and a dot") << hostNameOf(252) + latin1(".") << true;
    QTest::newRow("253 characters and a dot") << hostNameOf(253) + latin1(".") << false;
    QTest::newRow("empty") << latin1("") << false;
    QTest::newRow("null") << QString() << false;
}

void tst_NNetworkUtilities::hostNames()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QCOMPARE(Utilities::isHostmane(text), valid);
    QCOMPARE(isHostNameByExpression(text), valid);
}

void tst_NNetworkUtilities::eui48WithSeparators()
{
    const QString colons = latin1("00:1A:2b:3C:4d:5E");
    const QString dashes = latin1("00-1A-2b-3C-4d-5E");
    const QString nothing = latin1("001A2b3C4d5E");
    const Separators colonAndDash = Separators() << NEuiBase::SeparatorColon << NEuiBase::SeparatorDash;
    QVERIFY(Utilities::isEui48(colons, colonAndDash));
    QVERIFY(Utilities::isEui48(dashes, colonAndDash));
    QVERIFY(!Utilities::isEui48(nothing, colonAndDash));
    QVERIFY(Utilities::isEui48(nothing, NEuiBase::separators()));
    QVERIFY(!Utilities::isEui48(latin1("00:1A-2B:3C:4D:5E"), NEuiBase::separators()));
    QVERIFY(!Utilities::isEui48(latin1("00:1A:2B:3C:4D:5E:6F:70"), NEuiBase::separators()));
    QVERIFY(!Utilities::isEui48(QString(), NEuiBase::separators()));
}

void tst_NNetworkUtilities::eui64WithSeparators()
{
    const Separators dash = Separators() << NEuiBase::SeparatorDash;
    QVERIFY(Utilities::isEui64(latin1("00-1A-2b-3C-4d-5E-6f-70"), dash));
    QVERIFY(!Utilities::isEui64(latin1("00:1A:2b:3C:4d:5E:6f:70"), dash));
    QVERIFY(!Utilities::isEui64(latin1("00-1A-2b-3C-4d-5E"), dash));
    QVERIFY(Utilities::isEui64(latin1("001A2b3C4d5E6f70"), NEuiBase::separators()));
    QVERIFY(!Utilities::isEui64(QString(), NEuiBase::separators()));
}

void tst_NNetworkUtilities::withoutSeparatorsOnlyEmptyTextIsAnEui_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("empty") << latin1("") << true;
    QTest::newRow("null") << QString() << true;
    QTest::newRow("blank") << latin1(" ") << false;
    QTest::newRow("EUI-48") << latin1("001A2B3C4D5E") << false;
    QTest::newRow("EUI-64") << latin1("001A2B3C4D5E6F70") << false;
}

void tst_NNetworkUtilities::withoutSeparatorsOnlyEmptyTextIsAnEui()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QCOMPARE(Utilities::isEui48(text, Separators()), valid);
    QCOMPARE(Utilities::isEui64(text, Separators()), valid);
    QCOMPARE(QRegExp(NEui48::regExpString(Separators())).exactMatch(text), valid);
}

void tst_NNetworkUtilities::everyByteAndEveryPrefixLengthIsChecked()
{
    for (int number = 0; number < 1100; ++number) {
        for (int zeros = 0; zeros < 4; ++zeros) {
            const QString text = QString(zeros, QLatin1Char('0')) + QString::number(number);
            QCOMPARE(Utilities::isIpv4Address(text + latin1(".0.0.0")), number <= 255);
            QCOMPARE(Utilities::isIpv4Address(latin1("0.0.0.") + text), number <= 255);
            QCOMPARE(Utilities::isIpv4AddressRange(latin1("0.0.0.0/") + text), number <= 32);
        }
    }
}

void tst_NNetworkUtilities::aMillionIpv4AddressesAreCheckedAsTheExpressionDoes()
{
    const QRegExp expression(Utilities::S_IPV4_REGEXP);
    int valid = 0;
    NRandomTexts random;
    for (int count = 0; count < 1000000; ++count) {
        const QString address = randomIpv4Address(random);
        const QString text = random.oneIn(16) ? random.noise(20) : random.mutated(address);
        const bool matches = expression.exactMatch(text);
        valid += matches;
        QVERIFY2(Utilities::isIpv4Address(text) == matches, qPrintable(text));
    }
    QVERIFY(valid > 200000 && valid < 800000);
}

void tst_NNetworkUtilities::ipv4AddressRangesAreCheckedAsTheExpressionDoes()
{
    const QRegExp expression(Utilities::S_IPV4_RANGE_REGEXP);
    int valid = 0;
    NRandomTexts random;
    for (int count = 0; count < 200000; ++count) {
        const QString range = randomIpv4AddressRange(random);
        const QString text = random.oneIn(16) ? random.noise(30) : random.mutated(range);
        const bool matches = expression.exactMatch(text);
        valid += matches;
        QVERIFY2(Utilities::isIpv4AddressRange(text) == matches, qPrintable(text));
    }
    QVERIFY(valid > 20000 && valid < 160000);
}

void tst_NNetworkUtilities::hostNameCheckAgreesWithTheExpression()
{
    int valid = 0;
    NRandomTexts random;
    for (int count = 0; count < 200000; ++count) {
        const QString name = random.oneIn(8) ? randomIpv4Address(random) : randomHostName(random);
        const QString text = random.oneIn(16) ? random.noise(20) : random.mutated(name);
        const bool matches = isHostNameByExpression(text);
        valid += matches;
        QVERIFY2(Utilities::isHostmane(text) == matches, qPrintable(text));
    }
    QVERIFY(valid > 20000 && valid < 160000);
}

void tst_NNetworkUtilities::macAddressAndEuiChecksAgreeWithTheExpressions()
{
    const Separators colonAndNone = Separators() << NEuiBase::SeparatorColon << NEuiBase::SeparatorNone;
    const QRegExp mac(NMacAddress::S_REG_EXP_STRING);
    const QRegExp eui48(NEui<6>::regExpString(colonAndNone));
    const QRegExp eui64(NEui<8>::regExpString(NEuiBase::separators()));
    NRandomTexts random;
    for (int count = 0; count < 50000; ++count) {
        const NEuiBase::Separator separator = NEuiBase::Separator(random.below(3));
        const QString bytes = random.bytes(random.oneIn(2) ? 6 : 8, NEuiBase::separatorString(separator));
        const QString text = random.mutated(bytes);
        QVERIFY2(Utilities::isMacAddress(text) == mac.exactMatch(text), qPrintable(text));
        QVERIFY2(Utilities::isEui48(text, colonAndNone) == eui48.exactMatch(text), qPrintable(text));
        QVERIFY2(Utilities::isEui64(text, NEuiBase::separators()) == eui64.exactMatch(text), qPrintable(text));
    }
}

void tst_NNetworkUtilities::checksOfOtherScriptsAgreeWithTheExpressions()
{
    const QRegExp mac(NMacAddress::S_REG_EXP_STRING);
    const QRegExp address(Utilities::S_IPV4_REGEXP);
    const QRegExp range(Utilities::S_IPV4_RANGE_REGEXP);
    for (int unit = 0; unit <= 0xffff; ++unit) {
        const QChar character = QChar(ushort(unit));
        const QString asMac = latin1("00:1a:2b:3c:4d:5") + character;
        const QString asAddress = latin1("1.2.3.") + character;
        const QString asRange = latin1("1.2.3.4/") + character;
        const QString asName = QString(character) + latin1("1.2.3");
        const QString asNumber = latin1("1.2.3.") + character + latin1("a");
        QVERIFY2(Utilities::isMacAddress(asMac) == mac.exactMatch(asMac), qPrintable(asMac));
        QVERIFY2(Utilities::isIpv4Address(asAddress) == address.exactMatch(asAddress), qPrintable(asAddress));
        QVERIFY2(Utilities::isIpv4AddressRange(asRange) == range.exactMatch(asRange), qPrintable(asRange));
        QVERIFY2(Utilities::isHostmane(asName) == isHostNameByExpression(asName), qPrintable(asName));
        QVERIFY2(Utilities::isHostmane(asNumber) == isHostNameByExpression(asNumber), qPrintable(asNumber));
    }
}

void tst_NNetworkUtilities::maliciousTextsOfAMillionCharactersAreChecked_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("isAddress");
    QTest::addColumn<bool>("isRange");
    const QString zeros(LengthOfMaliciousTexts, QLatin1Char('0'));
    QTest::newRow("zeros") << zeros << false << false;
    QTest::newRow("address with zeros before it") << zeros + latin1("1.2.3.4") << true << false;
    QTest::newRow("address with zeros before each byte")
        << zeros + latin1("1.") + zeros + latin1("2.") + zeros + latin1("3.") + zeros + latin1("4") << true
        << false;
    QTest::newRow("byte too large with zeros before it")
        << latin1("1.2.3.") + zeros + latin1("256") << false << false;
    QTest::newRow("prefix length with zeros before it")
        << latin1("1.2.3.4/") + zeros + latin1("32") << false << true;
    QTest::newRow("netmask with zeros before it")
        << latin1("1.2.3.4/") + zeros + latin1("1.2.3.4") << false << true;
    QTest::newRow("prefix length too large with zeros before it")
        << latin1("1.2.3.4/") + zeros + latin1("33") << false << false;
    QTest::newRow("zeros and a letter") << zeros + latin1("x") << false << false;
    QTest::newRow("nines") << QString(LengthOfMaliciousTexts, QLatin1Char('9')) << false << false;
    QTest::newRow("letters") << letters(LengthOfMaliciousTexts) << false << false;
    QTest::newRow("dots") << QString(LengthOfMaliciousTexts, QLatin1Char('.')) << false << false;
    QTest::newRow("labels") << latin1("a.").repeated(LengthOfMaliciousTexts / 2) << false << false;
    QTest::newRow("numbers") << latin1("1.").repeated(LengthOfMaliciousTexts / 2) << false << false;
    QTest::newRow("hyphens") << latin1("a-").repeated(LengthOfMaliciousTexts / 2) << false << false;
    QTest::newRow("slashes") << latin1("1.2.3.4/").repeated(LengthOfMaliciousTexts / 8) << false << false;
    QTest::newRow("bytes") << latin1("00:").repeated(LengthOfMaliciousTexts / 3) << false << false;
    QTest::newRow("NULs") << QString(LengthOfMaliciousTexts, QChar(0)) << false << false;
}

void tst_NNetworkUtilities::maliciousTextsOfAMillionCharactersAreChecked()
{
    QFETCH(QString, text);
    QFETCH(bool, isAddress);
    QFETCH(bool, isRange);
    QCOMPARE(Utilities::isIpv4Address(text), isAddress);
    QCOMPARE(Utilities::isIpv4AddressRange(text), isRange);
    QVERIFY(!Utilities::isHostmane(text));
    QVERIFY(!Utilities::isMacAddress(text));
    QVERIFY(!Utilities::isEui48(text, NEuiBase::separators()));
    QVERIFY(!Utilities::isEui64(text, NEuiBase::separators()));
    QVERIFY(!Utilities::isEui48(text, Separators()));
}

void tst_NNetworkUtilities::protocolsHaveTheirNames()
{
    QCOMPARE(int(Utilities::TransportProtocolTcp), 0);
    QCOMPARE(int(Utilities::TransportProtocolUdp), 1);
    const QMap<Utilities::TransportProtocol, QString> protocols = Utilities::transportProtocols();
    QCOMPARE(protocols.size(), 2);
    QCOMPARE(protocols.value(Utilities::TransportProtocolTcp), latin1("tcp"));
    QCOMPARE(protocols.value(Utilities::TransportProtocolUdp), latin1("udp"));
    QCOMPARE(Utilities::stringFromTransportProtocol(Utilities::TransportProtocolTcp), latin1("tcp"));
    QCOMPARE(Utilities::stringFromTransportProtocol(Utilities::TransportProtocolUdp), latin1("udp"));
    QCOMPARE(int(Utilities::transportProtocolFromString(latin1("tcp"))), int(Utilities::TransportProtocolTcp));
    QCOMPARE(int(Utilities::transportProtocolFromString(latin1("udp"))), int(Utilities::TransportProtocolUdp));
}

void tst_NNetworkUtilities::protocolsAreKnownByName()
{
    const QMetaObject& gadget = Utilities::staticMetaObject;
    const QMetaEnum protocols = gadget.enumerator(gadget.indexOfEnumerator("TransportProtocol"));
    QCOMPARE(protocols.keyCount(), 2);
    QCOMPARE(protocols.keyToValue("TransportProtocolTcp"), 0);
    QCOMPARE(protocols.keyToValue("TransportProtocolUdp"), 1);
}

void tst_NNetworkUtilities::tableOfProtocolsIsACopy()
{
    QMap<Utilities::TransportProtocol, QString> protocols = Utilities::transportProtocols();
    protocols.clear();
    QCOMPARE(Utilities::transportProtocols().size(), 2);
}

void tst_NNetworkUtilities::unknownProtocolsHaveNoName_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("two") << 2;
    QTest::newRow("negative") << -1;
    QTest::newRow("largest") << INT_MAX;
}

void tst_NNetworkUtilities::unknownProtocolsHaveNoName()
{
    QFETCH(int, value);
    QVERIFY(Utilities::stringFromTransportProtocol(Utilities::TransportProtocol(value)).isNull());
}

void tst_NNetworkUtilities::unknownTextsGiveTcp_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("upper case") << latin1("TCP");
    QTest::newRow("udp in upper case") << latin1("UDP");
    QTest::newRow("blank before") << latin1(" udp");
    QTest::newRow("blank after") << latin1("udp ");
    QTest::newRow("another protocol") << latin1("sctp");
}

void tst_NNetworkUtilities::unknownTextsGiveTcp()
{
    QFETCH(QString, text);
    QCOMPARE(int(Utilities::transportProtocolFromString(text)), int(Utilities::TransportProtocolTcp));
}

QTEST_APPLESS_MAIN(tst_NNetworkUtilities)
#include "tst_nnetworkutilities.moc"
