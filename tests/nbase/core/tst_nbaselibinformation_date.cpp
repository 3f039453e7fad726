// The library's build time on other days: CMakeLists.txt builds this program once for each of them, with the date
// and time that the compiler would have inserted.

#include <nbase/core/nbaselibinformation.h>

#include <QtCore/QLocale>
#include <QtTest/QtTest>

class tst_NBaseLibInformation_Date : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void dateTimeIsParsedFromTheCompilersText();
};

// The compiler writes English whatever the program's locale is.
void tst_NBaseLibInformation_Date::initTestCase()
{
    const QLocale german(QLocale::German);
    QCOMPARE(german.toString(QDate(2023, 5, 18), QString::fromLatin1("MMM")), QString::fromLatin1("Mai"));
    QLocale::setDefault(german);
}

// Twice, because a time that could not be parsed is parsed again.
void tst_NBaseLibInformation_Date::dateTimeIsParsedFromTheCompilersText()
{
    const QDateTime expected = QDateTime::fromString(QString::fromLatin1(NBASE_EXPECTED_DATETIME), Qt::ISODate);
    for (int call = 1; call <= 2; ++call) {
        const QDateTime dateTime = NBaseLibInformation::libraryDateTime();
        QCOMPARE(dateTime, expected);
        QCOMPARE(dateTime.isValid(), qstrlen(NBASE_EXPECTED_DATETIME) > 0);
    }
}

QTEST_APPLESS_MAIN(tst_NBaseLibInformation_Date)
#include "tst_nbaselibinformation_date.moc"
