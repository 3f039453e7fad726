#include <nbase/core/nbaselibinformation.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

class tst_NBaseLibInformation : public QObject
{
    Q_OBJECT

private slots:
    void nameAndVersionAreFixed();
    void dateTimeIsThatOfTheBuild();
    void dateTimeStaysTheSame();
};

void tst_NBaseLibInformation::nameAndVersionAreFixed()
{
    QCOMPARE(NBaseLibInformation::libraryName(), latin1("Nolvar base"));
    QCOMPARE(NBaseLibInformation::libraryVersion(), latin1("1.0.0"));
}

// The library was compiled before the linker wrote its file, and not before this source tree existed.
void tst_NBaseLibInformation::dateTimeIsThatOfTheBuild()
{
    const QDateTime dateTime = NBaseLibInformation::libraryDateTime();
    QVERIFY(dateTime.isValid());
    QCOMPARE(dateTime.timeSpec(), Qt::LocalTime);
    QVERIFY(dateTime <= QFileInfo(latin1(NBASE_LIBRARY_FILE)).lastModified());
    QVERIFY(dateTime > QDateTime(QDate(2026, 1, 1), QTime(0, 0)));
}

void tst_NBaseLibInformation::dateTimeStaysTheSame()
{
    QCOMPARE(NBaseLibInformation::libraryDateTime(), NBaseLibInformation::libraryDateTime());
}

QTEST_APPLESS_MAIN(tst_NBaseLibInformation)
#include "tst_nbaselibinformation.moc"
