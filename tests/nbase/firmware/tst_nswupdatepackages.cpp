#include <nbase/firmware/nswupdateinstaller.h>

#include "support/nmounttable.h"
#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace {

const char* const MediaName = "sdz1";

QStringList names(const char* text)
{
    return text[0] == '\0' ? QStringList() : latin1(text).split(QLatin1Char(' '));
}

} // namespace

class tst_NSWUpdatePackages : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void packagePathIsBelowTheMountPoint();
    void regularFilesThatMatchAreListed_data();
    void regularFilesThatMatchAreListed();
    void othersThanRegularFilesAreNotListed();
    void listIsReplaced();
    void listStaysWhenTheMediaCannotBeRead();
    void namesAreDecoded();

private:
    void mount(const QString& path);

    std::unique_ptr<NMountTable> m_mounts;
    std::unique_ptr<NTemporaryDirectory> m_media;
};

void tst_NSWUpdatePackages::init()
{
    m_mounts.reset(new NMountTable);
    m_media.reset(new NTemporaryDirectory);
    mount(m_media->path());
}

void tst_NSWUpdatePackages::cleanup()
{
    m_mounts.reset();
    m_media.reset();
}

void tst_NSWUpdatePackages::mount(const QString& path)
{
    m_mounts->write("/dev/sdz1 " + QFile::encodeName(path) + " vfat rw 0 0\n");
}

void tst_NSWUpdatePackages::packagePathIsBelowTheMountPoint()
{
    const QString media = latin1(MediaName);
    QCOMPARE(NSWUpdateInstaller::packagePath(media, latin1("a.swu")), m_media->filePath(latin1("a.swu")));
    QCOMPARE(NSWUpdateInstaller::packagePath(media, latin1("/etc/x")), latin1("/etc/x"));
    QCOMPARE(NSWUpdateInstaller::packagePath(media, latin1("../x")), m_media->filePath(latin1("../x")));
    // Without a mount point it is a path in the current folder.
    QCOMPARE(
        NSWUpdateInstaller::packagePath(latin1("sdz2"), latin1("a.swu")),
        QDir(QString()).absoluteFilePath(latin1("a.swu")));
}

void tst_NSWUpdatePackages::regularFilesThatMatchAreListed_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("extension") << latin1("*.swu") << names(".hidden.swu .swu A.swu a.swu b.swu.swu");
    QTest::newRow("upper case") << latin1("*.SWU") << names("c.SWU");
    QTest::newRow("whole name") << latin1("a.swu") << names("a.swu");
    QTest::newRow("part of a name") << latin1("swu") << names("");
    QTest::newRow("one character") << latin1("?.swu") << names("A.swu a.swu");
    QTest::newRow("set") << latin1("[ab]*.swu") << names("a.swu b.swu.swu");
    QTest::newRow("everything") << latin1("*")
                                << names(".hidden.swu .swu A.swu a.swu aXswu b.swu.swu c.SWU d.swu2");
    QTest::newRow("nothing") << QString() << names("");
}

void tst_NSWUpdatePackages::regularFilesThatMatchAreListed()
{
    QFETCH(QString, pattern);
    QFETCH(QStringList, expected);
    for (const QString& name : names("b.swu.swu aXswu a.swu c.SWU d.swu2 .hidden.swu A.swu .swu"))
        m_media->writeFile(name, "package");
    QStringList packages;
    QVERIFY(NSWUpdateInstaller::listPackages(latin1(MediaName), packages, pattern));
    QCOMPARE(packages, expected);
}

void tst_NSWUpdatePackages::othersThanRegularFilesAreNotListed()
{
    const QByteArray folder = QFile::encodeName(m_media->path());
    m_media->writeFile(latin1("file.swu"), "");
    m_media->writeFile(latin1("folder.swu/inner.swu"), "");
    QCOMPARE(::symlink("file.swu", (folder + "/link.swu").constData()), 0);
    QCOMPARE(::symlink("missing", (folder + "/broken.swu").constData()), 0);
    QCOMPARE(::mkfifo((folder + "/fifo.swu").constData(), 0600), 0);
    QCOMPARE(::mknod((folder + "/socket.swu").constData(), S_IFSOCK | 0600, 0), 0);
    QStringList packages;
    QVERIFY(NSWUpdateInstaller::listPackages(latin1(MediaName), packages, latin1("*.swu")));
    QCOMPARE(packages, names("file.swu"));
}

void tst_NSWUpdatePackages::listIsReplaced()
{
    QStringList packages = names("old");
    QVERIFY(NSWUpdateInstaller::listPackages(latin1(MediaName), packages, latin1("*.swu")));
    QCOMPARE(packages, QStringList());
}

void tst_NSWUpdatePackages::listStaysWhenTheMediaCannotBeRead()
{
    QStringList packages = names("old");
    QVERIFY(!NSWUpdateInstaller::listPackages(latin1("sdz2"), packages, latin1("*.swu")));
    QVERIFY(!NSWUpdateInstaller::listPackages(QString(), packages, latin1("*.swu")));
    mount(m_media->filePath(latin1("missing")));
    QVERIFY(!NSWUpdateInstaller::listPackages(latin1(MediaName), packages, latin1("*.swu")));
    mount(m_media->writeFile(latin1("file"), ""));
    QVERIFY(!NSWUpdateInstaller::listPackages(latin1(MediaName), packages, latin1("*.swu")));
    QCOMPARE(packages, names("old"));
}

void tst_NSWUpdatePackages::namesAreDecoded()
{
    const QString name = QFile::decodeName("\xC3\xA9t\xC3\xA9.swu");
    m_media->writeFile(name, "");
    QStringList packages;
    QVERIFY(NSWUpdateInstaller::listPackages(latin1(MediaName), packages, latin1("*.swu")));
    QCOMPARE(packages, QStringList() << name);
    QVERIFY(QFile::exists(NSWUpdateInstaller::packagePath(latin1(MediaName), packages.first())));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NSWUpdatePackages, NPrivateNamespace::Mounts)
#include "tst_nswupdatepackages.moc"
