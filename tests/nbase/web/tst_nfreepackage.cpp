#include <nbase/web/nfreepackage.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const Directory = "/usr/share/free_packages";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

NFreePackage* packageWithFile(const QString& name, const QString& path)
{
    QHash<QString, QString> files;
    files.insert(name, path);
    return new NFreePackage(text("pkg"), text("1.0"), QStringList(), files, QString(), QString());
}

QByteArray contentOf(const QString& path)
{
    const QScopedPointer<NFreePackage> package(packageWithFile(text("F"), path));
    return package->licenseFileContent(text("F"));
}

} // namespace

class tst_NFreePackage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void gettersGiveWhatWasSet();
    void contentIsReadNow();
    void contentKeepsAllBytes();
    void unknownNameHasNoContent();
    void missingFileHasNoContent();
    void onlyRegularFilesHaveContent();
    void whatMayNotBeReadHasNoContent();
    void applicationMayNameFilesElsewhere();
    void onlyFilesInsideTheFolderAreRead_data();
    void onlyFilesInsideTheFolderAreRead();

private:
    NTemporaryDirectory m_folder;
    NTemporaryDirectory m_outside;
};

void tst_NFreePackage::initTestCase()
{
    NPrivateNamespace::mountCopy(m_outside.path(), text("/usr/share/free_packages-of-another"));
    NPrivateNamespace::mountCopy(m_folder.path(), text(Directory));
    const QString license = m_folder.writeFile(text("licenses/pkg-1.0/COPYING"), "the licence\n");
    m_folder.writeFile(text("licenses/other-2.0/COPYING"), "another licence\n");
    m_outside.writeFile(text("secret"), "secret\n");
    const QByteArray links = QFile::encodeName(m_folder.filePath(text("licenses/pkg-1.0/")));
    QCOMPARE(::symlink("../other-2.0/COPYING", (links + "inside").constData()), 0);
    QCOMPARE(::symlink("/usr/share/free_packages/licenses/other-2.0", (links + "folder").constData()), 0);
    QCOMPARE(
        ::symlink(QFile::encodeName(m_outside.filePath(text("secret"))).constData(), (links + "out").constData()),
        0);
    QCOMPARE(::symlink(QFile::encodeName(m_outside.path()).constData(), (links + "away").constData()), 0);
    QCOMPARE(::symlink("nowhere", (links + "broken").constData()), 0);
    QCOMPARE(::symlink("circle", (links + "circle").constData()), 0);
    QCOMPARE(::mkfifo((links + "pipe").constData(), 0600), 0);
    QCOMPARE(::mkdir((links + "subfolder").constData(), 0700), 0);
    m_folder.writeFile(text("licenses/pkg-1.0/device"), "");
    NPrivateNamespace::mountCopy(text("/dev/zero"), text("/usr/share/free_packages/licenses/pkg-1.0/device"));
}

// A mount point cannot be removed.
void tst_NFreePackage::cleanupTestCase()
{
    NPrivateNamespace::unmount(text("/usr/share/free_packages/licenses/pkg-1.0/device"));
}

void tst_NFreePackage::gettersGiveWhatWasSet()
{
    QHash<QString, QString> files;
    files.insert(text("COPYING"), text("/somewhere/COPYING"));
    const NFreePackage package(
        text("name"), text("version"), QStringList() << text("GPL-2.0") << text("MIT"), files, text("site"),
        text("archive"));
    QCOMPARE(package.name(), text("name"));
    QCOMPARE(package.version(), text("version"));
    QCOMPARE(package.licenses(), QStringList() << text("GPL-2.0") << text("MIT"));
    QCOMPARE(package.licenseFiles(), files);
    QCOMPARE(package.sourceSite(), text("site"));
    QCOMPARE(package.sourceArchive(), text("archive"));
}

void tst_NFreePackage::contentIsReadNow()
{
    const QString path = m_outside.writeFile(text("changing"), "one");
    const QScopedPointer<NFreePackage> package(packageWithFile(text("F"), path));
    QCOMPARE(package->licenseFileContent(text("F")), QByteArray("one"));
    m_outside.writeFile(text("changing"), "two");
    QCOMPARE(package->licenseFileContent(text("F")), QByteArray("two"));
}

void tst_NFreePackage::contentKeepsAllBytes()
{
    const QByteArray bytes("a\0b\xe9\r\n", 6);
    QCOMPARE(contentOf(m_outside.writeFile(text("bytes"), bytes)), bytes);
}

void tst_NFreePackage::unknownNameHasNoContent()
{
    const QScopedPointer<NFreePackage> package(
        packageWithFile(text("F"), m_outside.writeFile(text("known"), "known")));
    QCOMPARE(package->licenseFileContent(text("f")), QByteArray());
    QCOMPARE(package->licenseFileContent(QString()), QByteArray());
}

void tst_NFreePackage::missingFileHasNoContent()
{
    QCOMPARE(contentOf(m_outside.filePath(text("missing"))), QByteArray());
    QCOMPARE(contentOf(text("/usr/share/free_packages/licenses/pkg-1.0/missing")), QByteArray());
}

void tst_NFreePackage::onlyRegularFilesHaveContent()
{
    const QString pipe = m_outside.filePath(text("pipe"));
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    QCOMPARE(contentOf(pipe), QByteArray());
    QCOMPARE(contentOf(text("/dev/zero")), QByteArray());
    QCOMPARE(contentOf(m_outside.path()), QByteArray());
}

void tst_NFreePackage::whatMayNotBeReadHasNoContent()
{
    const QString path = m_outside.writeFile(text("locked"), "locked");
    QCOMPARE(::chmod(QFile::encodeName(path).constData(), 0), 0);
    const NWithoutFileOverride withoutOverride;
    QCOMPARE(contentOf(path), QByteArray());
}

void tst_NFreePackage::applicationMayNameFilesElsewhere()
{
    QCOMPARE(contentOf(m_outside.filePath(text("secret"))), QByteArray("secret\n"));
}

void tst_NFreePackage::onlyFilesInsideTheFolderAreRead_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");
    const QByteArray own("the licence\n");
    const QByteArray other("another licence\n");
    QTest::newRow("file") << text("COPYING") << own;
    QTest::newRow("own folder") << text("./COPYING") << own;
    QTest::newRow("other package") << text("../other-2.0/COPYING") << other;
    QTest::newRow("link inside") << text("inside") << other;
    QTest::newRow("linked folder inside") << text("folder/COPYING") << other;
    QTest::newRow("parents") << text("../../../../../etc/passwd") << QByteArray();
    QTest::newRow("parents beyond the root") << text("../../../../../../../../etc/passwd") << QByteArray();
    QTest::newRow("out and in again") << text("../../../free_packages/licenses/pkg-1.0/COPYING") << own;
    QTest::newRow("absolute name") << text("/etc/passwd") << QByteArray();
    QTest::newRow("link out") << text("out") << QByteArray();
    QTest::newRow("through a folder that is a link out") << text("away/secret") << QByteArray();
    QTest::newRow("broken link") << text("broken") << QByteArray();
    QTest::newRow("link to itself") << text("circle") << QByteArray();
    QTest::newRow("folder whose name begins alike")
        << text("../../../free_packages-of-another/secret") << QByteArray();
    QTest::newRow("the package's folder") << text(".") << QByteArray();
    QTest::newRow("folder") << text("subfolder") << QByteArray();
    QTest::newRow("pipe") << text("pipe") << QByteArray();
    QTest::newRow("device") << text("device") << QByteArray();
}

void tst_NFreePackage::onlyFilesInsideTheFolderAreRead()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    QCOMPARE(contentOf(text("/usr/share/free_packages/licenses/pkg-1.0/") + name), content);
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NFreePackage, NPrivateNamespace::Mounts)
#include "tst_nfreepackage.moc"
