// The library's build time on days other than today: CMakeLists.txt builds this program once for each, with the
// date and the time that the compiler would have put into the library.

#include <nbase/core/nbaselibinformation.h>

#include <QtCore/QLocale>
#include <QtTest/QtTest>

class tst_NBaseLibInformation_Date : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void dateTimeIsReadFromTheCompilersText();
};

// The compiler writes English whatever language the program speaks.
void tst_NBaseLibInformation_Date::initTestCase()
{
    const QLocale german(QLocale::German);
    QCOMPARE(german.toString(QDate(2023, 5, 18), QString::fromLatin1("MMM")), QString::fromLatin1("Mai"));
    QLocale::setDefault(german);
}

// Twice, because a time that could not be read is tried again.
void tst_NBaseLibInformation_Date::dateTimeIsReadFromTheCompilersText()
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
