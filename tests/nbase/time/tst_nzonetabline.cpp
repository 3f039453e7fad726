#include <nbase/time/nzonetabline_p.h>

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QFile>
#include <QtCore/QRegExp>
#include <QtTest/QtTest>

namespace {

const char RealTable[] = "/usr/share/zoneinfo/zone.tab";
// The same numbers on every run (a linear congruential generator).
int randomBelow(int limit)
{
    static quint32 state = 1;
    state = state * 1664525u + 1013904223u;
    return int((state >> 8) % quint32(limit));
}

const char Alphabet[] = "AZaz09+-_/,\t #\xe9\xa0";

QByteArray randomBytes(int length)
{
    QByteArray bytes;
    for (int index = 0; index < length; ++index)
        bytes.append(Alphabet[randomBelow(int(sizeof(Alphabet)) - 1)]);
    return bytes;
}

// One to three bytes are replaced, inserted, removed or doubled.
QByteArray mutated(QByteArray line)
{
    for (int change = randomBelow(3); change >= 0 && !line.isEmpty(); --change) {
        const int position = randomBelow(line.size());
        switch (randomBelow(4)) {
        case 0:
            line[position] = randomBytes(1).at(0);
            break;
        case 1:
            line.insert(position, randomBytes(1));
            break;
        case 2:
            line.remove(position, 1);
            break;
        default:
            line.insert(position, line.mid(position, 1 + randomBelow(4)));
        }
    }
    return line;
}

} // namespace

/** The documented expression determines which lines are zones and what their parts are. */
class tst_NZoneTabLine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void parsingAgreesWithTheExpression_data();
    void parsingAgreesWithTheExpression();
    void parsingOfRealLinesAgreesWithTheExpression();
    void parsingOfEveryPrefixAgreesWithTheExpression();
    void parsingOfMutatedLinesAgreesWithTheExpression();
    void parsingOfRandomLinesAgreesWithTheExpression();

private:
    bool agrees(const QString& line, bool* isZone = nullptr);

    QList<QByteArray> m_realLines;
    QRegExp m_expression;
};

void tst_NZoneTabLine::initTestCase()
{
    QFile file(latin1(RealTable));
    QVERIFY2(file.open(QIODevice::ReadOnly), "the system's time zone data are needed");
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (!line.isEmpty() && !line.startsWith('#'))
            m_realLines.append(line);
    }
    QVERIFY(m_realLines.size() > 400);
    m_expression = QRegExp(NBuildrootUclibcTimeZoneDatabase::S_TOWN_METADATA_REGEXP);
    QVERIFY(m_expression.isValid());
    QCOMPARE(m_expression.captureCount(), 10);
}

bool tst_NZoneTabLine::agrees(const QString& line, bool* isZone)
{
    NZoneTabLine zone;
    const bool isMatch = m_expression.exactMatch(line);
    if (isZone)
        *isZone = isMatch;
    if (zone.parse(line) != isMatch)
        return false;
    return !isMatch ||
           (zone.countryCode == m_expression.cap(1) && zone.latitude.degrees == m_expression.cap(2).toInt() &&
            zone.latitude.minutes == m_expression.cap(3).toUInt() &&
            zone.latitude.seconds == m_expression.cap(4).toFloat() &&
            zone.longitude.degrees == m_expression.cap(5).toInt() &&
            zone.longitude.minutes == m_expression.cap(6).toUInt() &&
            zone.longitude.seconds == m_expression.cap(7).toFloat() && zone.region == m_expression.cap(8) &&
            zone.town == m_expression.cap(9) && zone.comment == m_expression.cap(10));
}

void tst_NZoneTabLine::parsingAgreesWithTheExpression_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("isZone");
#define ROW(name, line, isZone) QTest::newRow(name) << latin1(line) << isZone
    ROW("without a comment", "AD\t+4230+00131\tEurope/Andorra", true);
    ROW("with a comment", "AQ\t-6617+11031\tAntarctica/Casey\tCasey", true);
    ROW("with seconds", "US\t+404251-0740023\tAmerica/New_York\tEastern (most areas)", true);
    ROW("seconds with a fraction", "US\t+404251,25-0740023,75\tAmerica/New_York", true);
    ROW("seconds in the latitude only", "US\t+404251-07400\tAmerica/New_York", true);
    ROW("seconds in the longitude only", "US\t+4042-0740023\tAmerica/New_York", true);
    ROW("three levels", "AR\t-3436-05827\tAmerica/Argentina/Buenos_Aires\tBuenos Aires (BA, CF)", true);
    ROW("slashes at the ends of the town", "AR\t-3436-05827\tAmerica//x//", true);
    ROW("comment with tabs", "AD\t+4230+00131\tEurope/Andorra\ta\tb", true);
    ROW("empty comment", "AD\t+4230+00131\tEurope/Andorra\t", true);
    ROW("empty", "", false);
    ROW("comment line", "#AD\t+4230+00131\tEurope/Andorra", false);
    ROW("small country code", "ad\t+4230+00131\tEurope/Andorra", false);
    ROW("one letter", "A\t+4230+00131\tEurope/Andorra", false);
    ROW("three letters", "AND\t+4230+00131\tEurope/Andorra", false);
    ROW("blank for tab", "AD +4230+00131\tEurope/Andorra", false);
    ROW("no sign", "AD\t4230+00131\tEurope/Andorra", false);
    ROW("two signs", "AD\t++4230+00131\tEurope/Andorra", false);
    ROW("three digits of latitude", "AD\t+423+00131\tEurope/Andorra", false);
    ROW("five digits of latitude", "AD\t+42300+00131\tEurope/Andorra", false);
    ROW("seven digits of latitude", "AD\t+4230000+00131\tEurope/Andorra", false);
    ROW("four digits of longitude", "AD\t+4230+0013\tEurope/Andorra", false);
    ROW("six digits of longitude", "AD\t+4230+001310\tEurope/Andorra", false);
    ROW("comma without seconds", "AD\t+4230,10+00131\tEurope/Andorra", false);
    ROW("comma without a fraction", "AD\t+423010,+00131\tEurope/Andorra", false);
    ROW("fraction of one digit", "AD\t+423010,1+00131\tEurope/Andorra", false);
    ROW("fraction of three digits", "AD\t+423010,123+00131\tEurope/Andorra", false);
    ROW("full stop for the comma", "AD\t+423010.12+00131\tEurope/Andorra", false);
    ROW("no region", "AD\t+4230+00131\t/Andorra", false);
    ROW("no town", "AD\t+4230+00131\tEurope/", false);
    ROW("no slash", "AD\t+4230+00131\tAndorra", false);
    ROW("digit in the region", "AD\t+4230+00131\tEur0pe/Andorra", false);
    ROW("digit in the town", "AD\t+4230+00131\tEurope/And0rra", false);
    ROW("plus sign in the town", "AD\t+4230+00131\tEtc/GMT+", false);
    ROW("full stop in the town", "AD\t+4230+00131\tEurope/../x", false);
    ROW("blank after the town", "AD\t+4230+00131\tEurope/Andorra x", false);
    ROW("letter beyond ASCII", "AD\t+4230+00131\tEurope/Andorr\xe1", false);
    ROW("comment beyond ASCII", "AD\t+4230+00131\tEurope/Andorra\t\xe1", true);
#undef ROW
}

void tst_NZoneTabLine::parsingAgreesWithTheExpression()
{
    QFETCH(QString, line);
    QFETCH(bool, isZone);
    bool isMatch = !isZone;
    QVERIFY(agrees(line, &isMatch));
    QCOMPARE(isMatch, isZone);
}

void tst_NZoneTabLine::parsingOfRealLinesAgreesWithTheExpression()
{
    for (const QByteArray& line : m_realLines) {
        bool isZone = false;
        QVERIFY2(agrees(latin1(line), &isZone), line.constData());
        QVERIFY2(isZone, line.constData());
    }
}

void tst_NZoneTabLine::parsingOfEveryPrefixAgreesWithTheExpression()
{
    const QByteArray line = "US\t+404251,25-0740023,75\tAmerica/New_York\tx";
    for (int length = 0; length <= line.size(); ++length)
        QVERIFY2(agrees(latin1(line.left(length))), line.left(length).constData());
}

void tst_NZoneTabLine::parsingOfMutatedLinesAgreesWithTheExpression()
{
    int zones = 0;
    const int lines = 20000;
    for (int count = 0; count < lines; ++count) {
        const QByteArray line = mutated(m_realLines.at(randomBelow(m_realLines.size())));
        bool isZone = false;
        QVERIFY2(agrees(latin1(line), &isZone), line.constData());
        zones += isZone;
    }
    // The comparison is meaningful only if both results were frequent.
    QVERIFY(zones > lines / 10);
    QVERIFY(zones < lines * 9 / 10);
}

void tst_NZoneTabLine::parsingOfRandomLinesAgreesWithTheExpression()
{
    for (int count = 0; count < 20000; ++count) {
        const QByteArray line = randomBytes(randomBelow(40));
        QVERIFY2(agrees(latin1(line)), line.constData());
    }
}

QTEST_APPLESS_MAIN(tst_NZoneTabLine)
#include "tst_nzonetabline.moc"
