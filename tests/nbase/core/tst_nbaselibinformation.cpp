#include <nbase/core/nbaselibinformation.h>

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
    QCOMPARE(NBaseLibInformation::libraryName(), QString::fromLatin1("Nolvar base"));
    QCOMPARE(NBaseLibInformation::libraryVersion(), QString::fromLatin1("1.0.0"));
}

// The library was compiled before its file was written by the linker, and not before this very source tree
// existed.
void tst_NBaseLibInformation::dateTimeIsThatOfTheBuild()
{
    const QDateTime dateTime = NBaseLibInformation::libraryDateTime();
    QVERIFY(dateTime.isValid());
    QCOMPARE(dateTime.timeSpec(), Qt::LocalTime);
    QVERIFY(dateTime <= QFileInfo(QString::fromLatin1(NBASE_LIBRARY_FILE)).lastModified());
    QVERIFY(dateTime > QDateTime(QDate(2026, 1, 1), QTime(0, 0)));
}

void tst_NBaseLibInformation::dateTimeStaysTheSame()
{
    QCOMPARE(NBaseLibInformation::libraryDateTime(), NBaseLibInformation::libraryDateTime());
}

QTEST_APPLESS_MAIN(tst_NBaseLibInformation)
#include "tst_nbaselibinformation.moc"
