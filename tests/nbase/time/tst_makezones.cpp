#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// The relevant parts of a compiled zone file of the given version: its header, some data, and its last line.
QByteArray compiledZone(const QByteArray& code, char version = '2')
{
    const QByteArray header = QByteArray("TZif") + version + QByteArray(39, '\0');
    return header + "LMT" + QByteArray(1, '\0') + header + QByteArray(8, '\n') + QByteArray(1, '\0') + '\n' +
           code + '\n';
}

quint64 inodeOf(const QString& path)
{
    struct stat status;
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? quint64(status.st_ino) : 0;
}

} // namespace

/** The script that creates a time zone database from compiled zone files, tested with artificial ones. */
class tst_MakeZones : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void everyZoneGetsAFileWithItsString();
    void versionComesFromTheFirstLineOfTheSource();
    void tableIsCopiedUnchanged();
    void linksAreZonesToo();
    void zonesWithoutAStringAreSkipped();
    void otherFilesAreSkipped_data();
    void otherFilesAreSkipped();
    void secondRunChangesNothing();
    void newDataReplacesOldData();
    void otherFilesInTheTargetAreKept();
    void incompleteSourceIsRefusedAndTheTargetIsKept_data();
    void incompleteSourceIsRefusedAndTheTargetIsKept();
    void callWithoutATargetIsRefused();

private:
    bool makeZones(const QString& targetName = latin1("a target"));
    QString target(const char* name) const;
    QByteArray content(const char* name) const;
    QStringList zones() const;
    void link(const char* destination, const char* name) const;
    void writeSource(const char* name, const QByteArray& content) const;

    NTemporaryDirectory* m_directory;
    QByteArray m_message;
};

void tst_MakeZones::init()
{
    m_directory = new NTemporaryDirectory;
    writeSource("zone.tab", "# a table\nFR\t+4852+00220\tEurope/Paris\n");
    writeSource("tzdata.zi", "# version 2031b\n# redo posix_only\n");
    writeSource("Europe/Paris", compiledZone("CET-1CEST,M3.5.0,M10.5.0/3"));
}

void tst_MakeZones::cleanup()
{
    delete m_directory;
    m_directory = nullptr;
}

bool tst_MakeZones::makeZones(const QString& targetName)
{
    QProcess script;
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(
        latin1(NBASE_MAKE_ZONES),
        QStringList() << m_directory->filePath(targetName) << m_directory->filePath(latin1("a source")));
    if (!script.waitForFinished())
        return false;
    m_message = script.readAll();
    return script.exitStatus() == QProcess::NormalExit && script.exitCode() == 0;
}

QString tst_MakeZones::target(const char* name) const
{
    return m_directory->filePath(latin1("a target/") + latin1(name));
}

QByteArray tst_MakeZones::content(const char* name) const
{
    QFile file(target(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
}

QStringList tst_MakeZones::zones() const
{
    QStringList names;
    QDirIterator entries(
        target("uclibc"), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        if (!entries.fileInfo().isDir() || QDir(path).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty())
            names.append(QDir(target("uclibc")).relativeFilePath(path));
    }
    names.sort();
    return names;
}

void tst_MakeZones::link(const char* destination, const char* name) const
{
    const QByteArray path = QFile::encodeName(m_directory->filePath(latin1("a source/"))) + name;
    QCOMPARE(::symlink(destination, path.constData()), 0);
}

void tst_MakeZones::writeSource(const char* name, const QByteArray& content) const
{
    m_directory->writeFile(latin1("a source/") + latin1(name), content);
}

void tst_MakeZones::everyZoneGetsAFileWithItsString()
{
    writeSource("America/Argentina/Buenos_Aires", compiledZone("<-03>3", '3'));
    writeSource("America/Port-au-Prince", compiledZone("EST5EDT,M3.2.0,M11.1.0", '4'));
    writeSource("Etc/GMT+12", compiledZone("<-12>12"));
    writeSource("UTC", compiledZone("UTC0"));
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(
        zones().join(latin1(" ")),
        latin1("America/Argentina/Buenos_Aires America/Port-au-Prince Etc/GMT+12 Europe/Paris UTC"));
    QCOMPARE(content("uclibc/Europe/Paris"), QByteArray("CET-1CEST,M3.5.0,M10.5.0/3\n"));
    QCOMPARE(content("uclibc/America/Argentina/Buenos_Aires"), QByteArray("<-03>3\n"));
    QCOMPARE(content("uclibc/America/Port-au-Prince"), QByteArray("EST5EDT,M3.2.0,M11.1.0\n"));
    QCOMPARE(content("uclibc/Etc/GMT+12"), QByteArray("<-12>12\n"));
    QCOMPARE(content("uclibc/UTC"), QByteArray("UTC0\n"));
    QVERIFY(m_message.isEmpty());
}

void tst_MakeZones::versionComesFromTheFirstLineOfTheSource()
{
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(content("version"), QByteArray("2031b\n"));
}

void tst_MakeZones::tableIsCopiedUnchanged()
{
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(content("zone.tab"), QByteArray("# a table\nFR\t+4852+00220\tEurope/Paris\n"));
}

void tst_MakeZones::linksAreZonesToo()
{
    link("Europe/Paris", "France");
    link("Europe", "Old");
    const QByteArray source = QFile::encodeName(m_directory->filePath(latin1("a source/")));
    QCOMPARE(::link((source + "Europe/Paris").constData(), (source + "Europe/Monaco").constData()), 0);
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(content("uclibc/France"), QByteArray("CET-1CEST,M3.5.0,M10.5.0/3\n"));
    QCOMPARE(content("uclibc/Old/Paris"), QByteArray("CET-1CEST,M3.5.0,M10.5.0/3\n"));
    QCOMPARE(content("uclibc/Europe/Monaco"), QByteArray("CET-1CEST,M3.5.0,M10.5.0/3\n"));
    QVERIFY(!QFileInfo(target("uclibc/France")).isSymLink());
}

void tst_MakeZones::zonesWithoutAStringAreSkipped()
{
    writeSource("Africa/Nowhere", compiledZone(""));
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(zones(), QStringList(latin1("Europe/Paris")));
    QVERIFY(!QFileInfo(target("uclibc/Africa")).exists());
}

void tst_MakeZones::otherFilesAreSkipped_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("linkTo");
    QTest::addColumn<QByteArray>("data");
    const QByteArray none;
    QTest::newRow("zones again, under posix") << QByteArray("posix/Europe/Paris") << none << compiledZone("CET-1");
    QTest::newRow("zones with leap seconds") << QByteArray("right/Europe/Paris") << none << compiledZone("CET-1");
    QTest::newRow("rules for TZ strings") << QByteArray("posixrules") << none << compiledZone("EST5EDT");
    QTest::newRow("zone of this machine") << QByteArray("localtime") << none << compiledZone("CET-1");
    QTest::newRow("table") << QByteArray("zone1970.tab") << none << QByteArray("#\n");
    QTest::newRow("list") << QByteArray("leapseconds") << none << QByteArray("#\nUTC0\n");
    QTest::newRow("text that ends like a zone") << QByteArray("Zone") << none << QByteArray("UTC0\n");
    QTest::newRow("empty") << QByteArray("Empty") << none << QByteArray();
    QTest::newRow("version 1") << QByteArray("Old") << none
                               << QByteArray("TZif") + QByteArray(39, '\0') + "\nUTC0\n";
    QTest::newRow("cut off in the data") << QByteArray("Cut") << none << compiledZone("UTC0").left(80);
    QTest::newRow("hidden") << QByteArray(".Zone") << none << compiledZone("UTC0");
    QTest::newRow("name with a blank") << QByteArray("A Zone") << none << compiledZone("UTC0");
    QTest::newRow("name with a line feed") << QByteArray("A\nZone") << none << compiledZone("UTC0");
    QTest::newRow("link to nothing") << QByteArray("Nothing") << QByteArray("nowhere") << none;
    QTest::newRow("link to itself") << QByteArray("Itself") << QByteArray("Itself") << none;
    QTest::newRow("link to its own folder") << QByteArray("Loop") << QByteArray(".") << none;
    QTest::newRow("device") << QByteArray("Device") << QByteArray("/dev/zero") << none;
}

void tst_MakeZones::otherFilesAreSkipped()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, linkTo);
    QFETCH(QByteArray, data);
    if (linkTo.isEmpty())
        writeSource(name.constData(), data);
    else
        link(linkTo.constData(), name.constData());
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(zones(), QStringList(latin1("Europe/Paris")));
}

void tst_MakeZones::secondRunChangesNothing()
{
    QVERIFY2(makeZones(), m_message.constData());
    const quint64 table = inodeOf(target("zone.tab"));
    const quint64 version = inodeOf(target("version"));
    const quint64 zone = inodeOf(target("uclibc/Europe/Paris"));
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(inodeOf(target("zone.tab")), table);
    QCOMPARE(inodeOf(target("version")), version);
    QCOMPARE(inodeOf(target("uclibc/Europe/Paris")), zone);
}

void tst_MakeZones::newDataReplacesOldData()
{
    QVERIFY2(makeZones(), m_message.constData());
    writeSource("Europe/Paris", compiledZone("CET-1"));
    writeSource("Europe/Rome", compiledZone("CET-1"));
    writeSource("tzdata.zi", "# version 2032a\n");
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(content("uclibc/Europe/Paris"), QByteArray("CET-1\n"));
    QCOMPARE(content("uclibc/Europe/Rome"), QByteArray("CET-1\n"));
    QCOMPARE(content("version"), QByteArray("2032a\n"));

    QVERIFY(QFile::remove(m_directory->filePath(latin1("a source/Europe/Rome"))));
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(zones(), QStringList(latin1("Europe/Paris")));
}

void tst_MakeZones::otherFilesInTheTargetAreKept()
{
    m_directory->writeFile(latin1("a target/mine"), "mine");
    QVERIFY2(makeZones(), m_message.constData());
    QCOMPARE(content("mine"), QByteArray("mine"));
    QStringList entries = QDir(target("")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    entries.sort();
    QCOMPARE(entries.join(latin1(" ")), latin1("mine uclibc version zone.tab"));
}

void tst_MakeZones::incompleteSourceIsRefusedAndTheTargetIsKept_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("newContent");
    QTest::addColumn<QByteArray>("message");
    const QByteArray none;
    QTest::newRow("no table") << latin1("zone.tab") << none << QByteArray("there is no");
    QTest::newRow("no version file") << latin1("tzdata.zi") << none << QByteArray("there is no");
    QTest::newRow("no version") << latin1("tzdata.zi") << QByteArray("# tzdb\n# version 1\n")
                                << QByteArray("names no version");
    QTest::newRow("no zones") << latin1("Europe/Paris") << none << QByteArray("there are no compiled zone files");
    QTest::newRow("no zone with a string")
        << latin1("Europe/Paris") << compiledZone("") << QByteArray("ends in a TZ string");
}

void tst_MakeZones::incompleteSourceIsRefusedAndTheTargetIsKept()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, newContent);
    QFETCH(QByteArray, message);
    QVERIFY2(makeZones(), m_message.constData());
    QVERIFY(QFile::remove(m_directory->filePath(latin1("a source/") + name)));
    if (!newContent.isEmpty())
        writeSource(name.toLatin1().constData(), newContent);

    QVERIFY(!makeZones());
    QVERIFY2(m_message.startsWith("make-zones.sh: ") && m_message.contains(message), m_message.constData());
    QCOMPARE(m_message.count('\n'), 1);
    QCOMPARE(zones(), QStringList(latin1("Europe/Paris")));
    QCOMPARE(content("version"), QByteArray("2031b\n"));
    QCOMPARE(QDir(target("")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 3);
}

void tst_MakeZones::callWithoutATargetIsRefused()
{
    QProcess script;
    script.start(latin1(NBASE_MAKE_ZONES), QStringList());
    QVERIFY(script.waitForFinished());
    QVERIFY(script.exitCode() != 0);
    QVERIFY(script.readAllStandardError().contains("usage: make-zones.sh"));
}

QTEST_APPLESS_MAIN(tst_MakeZones)
#include "tst_makezones.moc"
