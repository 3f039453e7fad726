#include <nbase/core/nqtnamespaceutilities.h>

#include "support/nthreads.h"

#include <nsystem/nlatin1_p.h>

#include <QtTest/QtTest>

#include <limits.h>

class tst_NQtNamespaceUtilities : public QObject
{
    Q_OBJECT

private slots:
    void firstCallsMayBeConcurrent();

    void everyDayHasItsText_data();
    void everyDayHasItsText();
    void tableContainsTheSevenDaysInOrder();
    void tableIsACopy();
    void unknownValuesHaveNoText_data();
    void unknownValuesHaveNoText();
    void unknownTextsGiveNoDay_data();
    void unknownTextsGiveNoDay();
    void stepsAreCyclic_data();
    void stepsAreCyclic();
};

// The table of texts is created by the first call, so nothing may be called before.
void tst_NQtNamespaceUtilities::firstCallsMayBeConcurrent()
{
    QVERIFY(NTest::holdsInThreads(4, [](int index) {
        switch (index) {
        case 0:
            return NQtNamespaceUtilities::daysOfWeek().value(Qt::Friday) == QLatin1String("friday");
        case 1:
            return NQtNamespaceUtilities::stringFromDayOfWeek(Qt::Friday) == QLatin1String("friday");
        case 2:
            return NQtNamespaceUtilities::dayOfWeekFromString(latin1("friday")) == Qt::Friday;
        default:
            return NQtNamespaceUtilities::previousDayOfWeek(NQtNamespaceUtilities::nextDayOfWeek(Qt::Friday)) ==
                   Qt::Friday;
        }
    }));
}

void tst_NQtNamespaceUtilities::everyDayHasItsText_data()
{
    QTest::addColumn<int>("day");
    QTest::addColumn<QString>("text");
    QTest::newRow("Monday") << 1 << latin1("monday");
    QTest::newRow("Tuesday") << 2 << latin1("tuesday");
    QTest::newRow("Wednesday") << 3 << latin1("wednesday");
    QTest::newRow("Thursday") << 4 << latin1("thursday");
    QTest::newRow("Friday") << 5 << latin1("friday");
    QTest::newRow("Saturday") << 6 << latin1("saturday");
    QTest::newRow("Sunday") << 7 << latin1("sunday");
}

void tst_NQtNamespaceUtilities::everyDayHasItsText()
{
    QFETCH(int, day);
    QFETCH(QString, text);
    QCOMPARE(NQtNamespaceUtilities::stringFromDayOfWeek(Qt::DayOfWeek(day)), text);
    QCOMPARE(int(NQtNamespaceUtilities::dayOfWeekFromString(text)), day);
    QCOMPARE(NQtNamespaceUtilities::daysOfWeek().value(Qt::DayOfWeek(day)), text);
}

void tst_NQtNamespaceUtilities::tableContainsTheSevenDaysInOrder()
{
    const QList<Qt::DayOfWeek> days = NQtNamespaceUtilities::daysOfWeek().keys();
    QCOMPARE(days.size(), 7);
    for (int index = 0; index < days.size(); ++index)
        QCOMPARE(int(days.at(index)), index + 1);
}

void tst_NQtNamespaceUtilities::tableIsACopy()
{
    QMap<Qt::DayOfWeek, QString> days = NQtNamespaceUtilities::daysOfWeek();
    days.clear();
    QCOMPARE(NQtNamespaceUtilities::daysOfWeek().size(), 7);
}

void tst_NQtNamespaceUtilities::unknownValuesHaveNoText_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("zero") << 0;
    QTest::newRow("eight") << 8;
    QTest::newRow("negative") << -1;
    QTest::newRow("largest") << INT_MAX;
}

void tst_NQtNamespaceUtilities::unknownValuesHaveNoText()
{
    QFETCH(int, value);
    QVERIFY(NQtNamespaceUtilities::stringFromDayOfWeek(Qt::DayOfWeek(value)).isNull());
}

void tst_NQtNamespaceUtilities::unknownTextsGiveNoDay_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("capital letter") << latin1("Monday");
    QTest::newRow("blank before") << latin1(" monday");
    QTest::newRow("blank after") << latin1("monday ");
    QTest::newRow("abbreviated") << latin1("mon");
    QTest::newRow("number") << latin1("1");
}

void tst_NQtNamespaceUtilities::unknownTextsGiveNoDay()
{
    QFETCH(QString, text);
    QCOMPARE(int(NQtNamespaceUtilities::dayOfWeekFromString(text)), 0);
}

void tst_NQtNamespaceUtilities::stepsAreCyclic_data()
{
    QTest::addColumn<int>("day");
    QTest::addColumn<int>("next");
    QTest::addColumn<int>("previous");
    QTest::newRow("Monday") << 1 << 2 << 7;
    QTest::newRow("Wednesday") << 3 << 4 << 2;
    QTest::newRow("Sunday") << 7 << 1 << 6;
    QTest::newRow("0 lies before Monday") << 0 << 1 << 7;
    QTest::newRow("8 lies after Sunday") << 8 << 1 << 7;
    QTest::newRow("9") << 9 << 1 << 7;
    QTest::newRow("-1") << -1 << 1 << 7;
    QTest::newRow("largest") << INT_MAX << 1 << 7;
    QTest::newRow("smallest") << INT_MIN << 1 << 7;
}

void tst_NQtNamespaceUtilities::stepsAreCyclic()
{
    QFETCH(int, day);
    QFETCH(int, next);
    QFETCH(int, previous);
    QCOMPARE(int(NQtNamespaceUtilities::nextDayOfWeek(Qt::DayOfWeek(day))), next);
    QCOMPARE(int(NQtNamespaceUtilities::previousDayOfWeek(Qt::DayOfWeek(day))), previous);
}

QTEST_APPLESS_MAIN(tst_NQtNamespaceUtilities)
#include "tst_nqtnamespaceutilities.moc"
