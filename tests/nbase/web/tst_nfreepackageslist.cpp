#include <nbase/web/nfreepackageslist.h>

#include <nbase/web/nfreepackage.h>

#include "support/nchildprocess.h"
#include "support/nmessagerecorder.h"
#include "support/nprivatenamespace.h"
#include "support/nsystemcalls.h"
#include "support/ntemporarydirectory.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <errno.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const char* const Header =
    "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\"\n";

const char* const CannotOpen = "Cannot open the free packages' manifest file";

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QStringList sorted(QStringList names)
{
    names.sort();
    return names;
}

// Makes the permissions of files apply to the process, whichever user it runs as; see capabilities(7).
bool giveUpCapabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capset, &header, none) == 0;
}

} // namespace

class tst_NFreePackagesList : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void folderIsFixed();
    void recordBecomesAPackage();
    void licensesAreSplitAtCommaAndBlank_data();
    void licensesAreSplitAtCommaAndBlank();
    void licenseFilesAreSplitAtBlanks_data();
    void licenseFilesAreSplitAtBlanks();
    void placeholdersInNamesAreNotFilled();
    void textIsLatin1();
    void laterLineReplacesTheEntry();
    void lastLineMayLackItsLineFeed();
    void emptyLinesAreSkipped();
    void headerAloneIsAnEmptyList();
    void headerEndsAtNul();
    void listStaysAsItWasLoaded();

    void missingManifestIsReportedAndEmpty();
    void directoryInPlaceOfTheManifestIsReportedAndEmpty();
    void danglingLinkInPlaceOfTheManifestIsReportedAndEmpty();
    void manifestThatMayNotBeReadIsReportedAndEmpty();
    void badHeaderIsReportedAndEmpty_data();
    void badHeaderIsReportedAndEmpty();
    void badLineIsReportedAndLeftOut_data();
    void badLineIsReportedAndLeftOut();
    void badLineIsReportedAsLatin1();
    void fieldsMayBeEmpty();
    void textEndsAtNul();
    void pipeInPlaceOfTheManifestDoesNotBlock();
    void overlongLineIsReportedAndLeftOut();
    void readErrorIsReportedAndEndsTheList();

private:
    void writeManifest(const QByteArray& records);

    QScopedPointer<NTemporaryDirectory> m_folder;
};

void tst_NFreePackagesList::init()
{
    m_folder.reset(new NTemporaryDirectory);
    NPrivateNamespace::mountCopy(m_folder->path(), text("/usr/share/free_packages"));
}

void tst_NFreePackagesList::cleanup()
{
    NPrivateNamespace::unmount(text("/usr/share/free_packages"));
}

void tst_NFreePackagesList::writeManifest(const QByteArray& records)
{
    m_folder->writeFile(text("manifest.csv"), Header + records);
}

void tst_NFreePackagesList::folderIsFixed()
{
    QCOMPARE(NFreePackagesList::S_FREE_PACKAGES_DIR.path(), text("/usr/share/free_packages"));
}

void tst_NFreePackagesList::recordBecomesAPackage()
{
    writeManifest(
        "\"zlib\",\"1.2.13\",\"Zlib\",\"README LICENSE\",\"zlib-1.2.13.tar.xz\",\"http://example.org/\"\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().keys(), QList<QString>() << text("zlib"));
    const NFreePackage* const package = list.freePackages().value(text("zlib"));
    QCOMPARE(package->name(), text("zlib"));
    QCOMPARE(package->version(), text("1.2.13"));
    QCOMPARE(package->licenses(), QStringList() << text("Zlib"));
    QCOMPARE(package->licenseFiles().size(), 2);
    QCOMPARE(
        package->licenseFiles().value(text("README")),
        text("/usr/share/free_packages/licenses/zlib-1.2.13/README"));
    QCOMPARE(
        package->licenseFiles().value(text("LICENSE")),
        text("/usr/share/free_packages/licenses/zlib-1.2.13/LICENSE"));
    QCOMPARE(package->sourceArchive(), text("zlib-1.2.13.tar.xz"));
    QCOMPARE(package->sourceSite(), text("http://example.org/"));
}

void tst_NFreePackagesList::licensesAreSplitAtCommaAndBlank_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QStringList>("licenses");
    QTest::newRow("none") << QByteArray("") << QStringList();
    QTest::newRow("one") << QByteArray("MIT") << (QStringList() << text("MIT"));
    QTest::newRow("two") << QByteArray("GPL-2.0, LGPL-2.1")
                         << (QStringList() << text("GPL-2.0") << text("LGPL-2.1"));
    QTest::newRow("without the blank") << QByteArray("GPL-2.0,LGPL-2.1")
                                       << (QStringList() << text("GPL-2.0,LGPL-2.1"));
    QTest::newRow("empty parts") << QByteArray(", MIT, , BSD, ") << (QStringList() << text("MIT") << text("BSD"));
    QTest::newRow("blanks inside") << QByteArray("GPL-2.0 or MIT, BSD")
                                   << (QStringList() << text("GPL-2.0 or MIT") << text("BSD"));
}

void tst_NFreePackagesList::licensesAreSplitAtCommaAndBlank()
{
    QFETCH(QByteArray, field);
    QFETCH(QStringList, licenses);
    writeManifest("\"p\",\"1\",\"" + field + "\",\"\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().value(text("p"))->licenses(), licenses);
}

void tst_NFreePackagesList::licenseFilesAreSplitAtBlanks_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QStringList>("names");
    QTest::newRow("none") << QByteArray("") << QStringList();
    QTest::newRow("blanks only") << QByteArray("   ") << QStringList();
    QTest::newRow("one") << QByteArray("COPYING") << (QStringList() << text("COPYING"));
    QTest::newRow("more") << QByteArray(" a  b/c ") << (QStringList() << text("a") << text("b/c"));
}

void tst_NFreePackagesList::licenseFilesAreSplitAtBlanks()
{
    QFETCH(QByteArray, field);
    QFETCH(QStringList, names);
    writeManifest("\"p\",\"1\",\"\",\"" + field + "\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    const QHash<QString, QString> files = list.freePackages().value(text("p"))->licenseFiles();
    QCOMPARE(sorted(files.keys()), sorted(names));
    for (const QString& name : names)
        QCOMPARE(files.value(name), text("/usr/share/free_packages/licenses/p-1/") + name);
}

void tst_NFreePackagesList::placeholdersInNamesAreNotFilled()
{
    writeManifest("\"%3\",\"%1\",\"\",\"%2\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(
        list.freePackages().value(text("%3"))->licenseFiles().value(text("%2")),
        text("/usr/share/free_packages/licenses/%3-%1/%2"));
}

void tst_NFreePackagesList::textIsLatin1()
{
    writeManifest("\"caf\xe9\",\"1\",\"\",\"\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    QVERIFY(list.freePackages().contains(text("caf\xe9")));
}

void tst_NFreePackagesList::laterLineReplacesTheEntry()
{
    writeManifest(
        "\"p\",\"1\",\"\",\"\",\"\",\"\"\n\"q\",\"1\",\"\",\"\",\"\",\"\"\n\"p\",\"2\",\"\",\"\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().size(), 2);
    QCOMPARE(list.freePackages().value(text("p"))->version(), text("2"));
}

void tst_NFreePackagesList::lastLineMayLackItsLineFeed()
{
    writeManifest("\"p\",\"1\",\"\",\"\",\"\",\"site\"");
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().value(text("p"))->sourceSite(), text("site"));
}

void tst_NFreePackagesList::emptyLinesAreSkipped()
{
    writeManifest("\n\n\"p\",\"1\",\"\",\"\",\"\",\"\"\n\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().size(), 1);
}

void tst_NFreePackagesList::headerAloneIsAnEmptyList()
{
    writeManifest("");
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
    m_folder->writeFile(text("manifest.csv"), QByteArray(Header).trimmed());
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::headerEndsAtNul()
{
    const QByteArray header(QByteArray(Header).trimmed());
    m_folder->writeFile(
        text("manifest.csv"), header + QByteArray("\0rest\n", 6) + "\"p\",\"1\",\"\",\"\",\"\",\"\"\n");
    QCOMPARE(NFreePackagesList(nullptr).freePackages().size(), 1);
}

void tst_NFreePackagesList::listStaysAsItWasLoaded()
{
    writeManifest("\"p\",\"1\",\"\",\"\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    writeManifest("\"q\",\"1\",\"\",\"\",\"\",\"\"\n");
    QCOMPARE(list.freePackages().keys(), QList<QString>() << text("p"));
}

void tst_NFreePackagesList::missingManifestIsReportedAndEmpty()
{
    QTest::ignoreMessage(QtWarningMsg, CannotOpen);
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::directoryInPlaceOfTheManifestIsReportedAndEmpty()
{
    QVERIFY(QDir(m_folder->path()).mkdir(text("manifest.csv")));
    QTest::ignoreMessage(QtWarningMsg, CannotOpen);
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::danglingLinkInPlaceOfTheManifestIsReportedAndEmpty()
{
    const QByteArray link = QFile::encodeName(m_folder->filePath(text("manifest.csv")));
    QCOMPARE(::symlink("elsewhere.csv", link.constData()), 0);
    QTest::ignoreMessage(QtWarningMsg, CannotOpen);
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::manifestThatMayNotBeReadIsReportedAndEmpty()
{
    writeManifest("\"p\",\"1\",\"\",\"\",\"\",\"\"\n");
    QVERIFY(QFile::setPermissions(m_folder->filePath(text("manifest.csv")), QFile::Permissions()));
    const int status = NTest::runInChild([]() {
        const NMessageRecorder recorder;
        if (NFreePackagesList(nullptr).freePackages().size() != 1 || !recorder.messages().isEmpty())
            return 1; // the system's administrator may read everything
        if (!giveUpCapabilities())
            return 2;
        if (!NFreePackagesList(nullptr).freePackages().isEmpty())
            return 3;
        return recorder.messages() == QStringList(text("warning: ") + text(CannotOpen)) ? 0 : 4;
    });
    QCOMPARE(status, 0);
}

void tst_NFreePackagesList::badHeaderIsReportedAndEmpty_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("reported");
    const QByteArray header(QByteArray(Header).trimmed());
    const QByteArray record("\"p\",\"1\",\"\",\"\",\"\",\"\"");
    QTest::newRow("empty file") << QByteArray() << QByteArray();
    QTest::newRow("carriage returns") << QByteArray(header + "\r\n" + record + "\r\n")
                                      << QByteArray(header + "\r");
    QTest::newRow("blank behind") << QByteArray(header + " \n" + record) << QByteArray(header + " ");
    QTest::newRow("lower case") << QByteArray(header.toLower() + "\n" + record) << header.toLower();
    QTest::newRow("one column more") << QByteArray(header + ",\"X\"\n") << QByteArray(header + ",\"X\"");
    QTest::newRow("without quotes") << QByteArray("PACKAGE,VERSION\n") << QByteArray("PACKAGE,VERSION");
    QTest::newRow("empty line first") << QByteArray("\n" + header + "\n") << QByteArray();
    QTest::newRow("up to NUL") << QByteArray("abc\0def\n", 8) << QByteArray("abc");
}

void tst_NFreePackagesList::badHeaderIsReportedAndEmpty()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, reported);
    m_folder->writeFile(text("manifest.csv"), manifest);
    const QByteArray message = "Bad header line in free packages' manifest: " + reported;
    QTest::ignoreMessage(QtWarningMsg, message.constData());
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::badLineIsReportedAndLeftOut_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("no quotes") << QByteArray("p,1,,,,");
    QTest::newRow("no quote at the end") << QByteArray("\"p\",\"1\",\"\",\"\",\"\",\"");
    QTest::newRow("no quote at the beginning") << QByteArray("p\",\"1\",\"\",\"\",\"\",\"\"");
    QTest::newRow("carriage return") << QByteArray("\"p\",\"1\",\"\",\"\",\"\",\"\"\r");
    QTest::newRow("blank before") << QByteArray(" \"p\",\"1\",\"\",\"\",\"\",\"\"");
    QTest::newRow("five fields") << QByteArray("\"p\",\"1\",\"\",\"\",\"\"");
    QTest::newRow("seven fields") << QByteArray("\"p\",\"1\",\"\",\"\",\"\",\"\",\"\"");
    QTest::newRow("blank between fields") << QByteArray("\"p\", \"1\",\"\",\"\",\"\",\"\"");
    QTest::newRow("one quote") << QByteArray("\"");
    QTest::newRow("two quotes") << QByteArray("\"\"");
    QTest::newRow("what a format would fill in") << QByteArray("100%n %s %1");
}

void tst_NFreePackagesList::badLineIsReportedAndLeftOut()
{
    QFETCH(QByteArray, line);
    writeManifest("\"before\",\"1\",\"\",\"\",\"\",\"\"\n" + line + "\n\"behind\",\"1\",\"\",\"\",\"\",\"\"\n");
    const QByteArray message = "Bad line in free packages' manifest: " + line;
    QTest::ignoreMessage(QtWarningMsg, message.constData());
    const NFreePackagesList list(nullptr);
    QCOMPARE(sorted(list.freePackages().keys()), QStringList() << text("before") << text("behind"));
}

void tst_NFreePackagesList::fieldsMayBeEmpty()
{
    writeManifest("\"\",\"\",\"\",\"\",\"\",\"\"\n\"a\"b\",\"1\",\"x\"\",y\",\"\",\"\",\"\"\n");
    const NFreePackagesList list(nullptr);
    QCOMPARE(sorted(list.freePackages().keys()), QStringList() << text("") << text("a\"b"));
    QCOMPARE(list.freePackages().value(text("a\"b"))->licenses(), QStringList() << text("x\"\",y"));
}

void tst_NFreePackagesList::textEndsAtNul()
{
    writeManifest(QByteArray("\"p\",\"1\",\"\",\"\",\"\",\"site\"") + QByteArray("\0rest\n", 6));
    const NFreePackagesList list(nullptr);
    QCOMPARE(list.freePackages().value(text("p"))->sourceSite(), text("site"));
}

void tst_NFreePackagesList::badLineIsReportedAsLatin1()
{
    writeManifest("caf\xe9\n");
    QTest::ignoreMessage(QtWarningMsg, "Bad line in free packages' manifest: caf\xc3\xa9");
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::pipeInPlaceOfTheManifestDoesNotBlock()
{
    const QByteArray pipe = QFile::encodeName(m_folder->filePath(text("manifest.csv")));
    QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
    QTest::ignoreMessage(QtWarningMsg, CannotOpen);
    QVERIFY(NFreePackagesList(nullptr).freePackages().isEmpty());
}

void tst_NFreePackagesList::overlongLineIsReportedAndLeftOut()
{
    const int maximum = 1024 * 1024;
    const QByteArray begin("\"long\",\"1\",\"\",\"\",\"\",\"");
    const QByteArray longest = begin + QByteArray(maximum - begin.size() - 2, 'x') + '"';
    const QByteArray tooLong = begin + QByteArray(maximum - begin.size() - 1, 'x') + "\"\"";
    writeManifest(tooLong + "\n\"p\",\"1\",\"\",\"\",\"\",\"\"\n" + longest + '\n');
    const NMessageRecorder recorder;
    const NFreePackagesList list(nullptr);
    QCOMPARE(recorder.messages().size(), 1);
    QVERIFY(
        recorder.messages().first().startsWith(text("warning: Bad line in free packages' manifest: \"long\"")));
    QCOMPARE(sorted(list.freePackages().keys()), QStringList() << text("long") << text("p"));
}

void tst_NFreePackagesList::readErrorIsReportedAndEndsTheList()
{
    writeManifest(
        QByteArray("\"p\",\"1\",\"\",\"\",\"\",\"\"\n").repeated(10000) + "\"q\",\"1\",\"\",\"\",\"\",\"\"\n");
    QTest::ignoreMessage(QtWarningMsg, "Cannot read the free packages' manifest file to its end");
    // The flash is readable up to the end of the first block.
    const NSystemCalls::Fault fault(
        NSystemCalls::Calls(NSystemCalls::Read).onPath("/usr/share/free_packages/manifest.csv").skip(1), EIO);
    const NFreePackagesList list(nullptr);
    QVERIFY(fault.count() > 0);
    QCOMPARE(list.freePackages().keys(), QList<QString>() << text("p"));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NFreePackagesList, NPrivateNamespace::Mounts)
#include "tst_nfreepackageslist.moc"
