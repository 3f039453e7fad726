#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QLibrary>
#include <QtTest/QtTest>

// Loads a library that consists of the class and its icons. That of the product stays in memory once it is loaded,
// because the dynamic linker of glibc keeps those that have templates with static members.
class tst_NButtonRoleIcons : public QObject
{
    Q_OBJECT

private slots:
    void iconsArePresentWhileTheLibraryIsLoaded();
};

void tst_NButtonRoleIcons::iconsArePresentWhileTheLibraryIsLoaded()
{
    const QDir icons(QString::fromLatin1(":/icons"));
    QVERIFY(!icons.exists());
    QLibrary library(QString::fromLocal8Bit(NBUTTONROLE_MODULE));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    QCOMPARE(icons.entryList().size(), 20);
    QFile home(QString::fromLatin1(":/icons/home"));
    QVERIFY(home.open(QIODevice::ReadOnly));
    QVERIFY(home.readAll().startsWith("\x89PNG"));
    home.close();
    QVERIFY(library.unload());
    QVERIFY(!QDir(QString::fromLatin1(":/icons")).exists());
}

QTEST_MAIN(tst_NButtonRoleIcons)
#include "tst_nbuttonroleicons.moc"
