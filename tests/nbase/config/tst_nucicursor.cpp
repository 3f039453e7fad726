#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"
#include "support/nwithoutfileoverride.h"

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkutilities.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QLocale>
#include <QtCore/QProcess>
#include <QtCore/QRegExp>
#include <QtTest/QtTest>

#include <dlfcn.h>
#include <float.h>
#include <limits.h>
#include <limits>
#include <random>
#include <stdio.h>
#include <sys/wait.h>
#include <uci.h>
#include <unistd.h>

namespace {

const int LongTextSize = 100000;
const int RandomTextCount = 20000;

QString latin1(const char* text)
{
    return QString::fromLatin1(text);
}

// QString::toFloat() of Qt 4 does not accept infinity, and returns zero for numbers that are too small.
bool isFloatForQt(const char* text)
{
    bool ok = false;
    latin1(text).toFloat(&ok);
    return ok;
}

QString textWithNul()
{
    return latin1("lan") + QChar(0) + latin1("x");
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** The items of an option, or its single value in brackets; null without an option. */
QString describe(const uci_option* option)
{
    const QVariant value = NUciCursor::optionValue(option);
    if (value.type() == QVariant::StringList)
        return value.toStringList().join(latin1("|"));
    return value.isValid() ? QLatin1Char('[') + value.toString() + QLatin1Char(']') : QString();
}

/** The names of the sections in order, each with its type. */
QStringList describe(const uci_package* package)
{
    QStringList names;
    struct uci_element* element;
    uci_foreach_element(&package->sections, element)
    {
        names << latin1(element->name) + QLatin1Char(':') + latin1(uci_to_section(element)->type);
    }
    return names;
}

QString nameOf(const uci_section* section)
{
    return section ? latin1(section->e.name) : QString();
}

QStringList namesOf(const QList<uci_section*>& sections)
{
    QStringList names;
    for (const uci_section* section : sections)
        names << nameOf(section);
    return names;
}

const char networkFile[] = "\n"
                           "config interface 'loopback'\n"
                           "\toption device 'lo'\n"
                           "\toption ipaddr '127.0.0.1'\n"
                           "\n"
                           "config interface 'lan'\n"
                           "\toption proto 'static'\n"
                           "\toption ipaddr '192.168.1.1'\n"
                           "\toption mtu '1500'\n"
                           "\toption macaddr '02:00:5E:10:00:01'\n"
                           "\tlist dns '10.0.0.1'\n"
                           "\tlist dns '10.0.0.2'\n"
                           "\n"
                           "config route\n"
                           "\toption interface 'lan'\n"
                           "\toption target '10.1.0.0'\n"
                           "\n"
                           "config route\n"
                           "\toption interface 'lan'\n"
                           "\toption target '10.2.0.0'\n"
                           "\n"
                           "config Route 'upper'\n"
                           "\n";

} // namespace

namespace StoreSetters {

int calls = 0;

typedef int (*Setter)(uci_context*, const char*);

Setter next(const char* name)
{
    ++calls;
    return reinterpret_cast<Setter>(dlsym(RTLD_NEXT, name));
}

} // namespace StoreSetters

// The dynamic linker finds these before the store's own, which they call.
int uci_set_confdir(uci_context* context, const char* directory)
{
    return StoreSetters::next("uci_set_confdir")(context, directory);
}

int uci_set_savedir(uci_context* context, const char* directory)
{
    return StoreSetters::next("uci_set_savedir")(context, directory);
}

class tst_NUciCursor : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void defaultDirectoriesAreThoseOfTheStore();
    void directoriesAreChangedLater();
    void nullDirectoriesAreRefused();
    void storeIsNotAskedForNullDirectories();
    void cursorWithoutDirectoriesFailsAllOperations_data();
    void cursorWithoutDirectoriesFailsAllOperations();

    void findPackageLoadsOnlyIfAsked();
    void packagesAreFoundByTheirNameUpToTheFirstDot();
    void loadUsesTheWholeNameAndUnloadTheNameUpToTheDot();
    void loadReadsTheFilesAgain();
    void unloadDropsUnsavedChanges();
    void packageIsLoadedOnDemand();
    void packagesThatCannotBeReadAreNotFound_data();
    void packagesThatCannotBeReadAreNotFound();
    void paths_data();
    void paths();
    void unreadablePackage();

    void sectionsAreFoundByName();
    void unnamedSectionsAreFoundByTheirGeneratedNames();
    void extendedNamesAreOnlyNames();
    void addedSectionHasAGeneratedName();
    void sectionsAreNotAddedToMissingPackages();
    void setSectionCreatesASection();
    void setSectionChangesTheType();
    void setSectionRefusesANullType();
    void emptyTypeDeletesTheSection();
    void sectionsAreRenamed();
    void sectionsAreRenamedIfTheyExist();
    void emptyNewNamesAreRefused_data();
    void emptyNewNamesAreRefused();
    void sectionsAreDeleted();
    void sectionsAreDeletedIfTheyExist();
    void sectionsAreReordered_data();
    void sectionsAreReordered();
    void missingSectionsAreNotReordered();
    void sectionsOfATypeAreInFileOrder();
    void allSectionsOfAPackageByName();
    void laterSectionOfTheSameNameReplacesAnEarlierOne();
    void allOptionsOfASectionByName();

    void optionsAreFound();
    void optionIsSet();
    void optionIsNotSetInAMissingSection();
    void emptyTextDeletesAnOption_data();
    void emptyTextDeletesAnOption();
    void singleValueReplacesAList();
    void listReplacesASingleValue();
    void listReplacesAList();
    void listIsNotSetInAMissingSection();
    void emptyListIsRefused();
    void listsCanHaveEmptyItems();
    void bytesAreStoredInPieces_data();
    void bytesAreStoredInPieces();
    void optionsAreRenamed();
    void optionsAreRenamedIfTheyExist();
    void optionsAreDeleted();
    void optionsAreDeletedIfTheyExist();
    void ifExistsFormsFailForPackagesThatCannotBeRead();

    void missingNamesNeverAddressTheParent_data();
    void missingNamesNeverAddressTheParent();
    void textsWithNulAreRefused();
    void listsWithControlCharactersLeaveTheOptionUnchanged();
#ifdef NBASE_OWN_UCI /* libuci drops such changes later */
    void namesThatAFileCannotHoldAreRefused();
#endif
    void otherCharactersThanLatin1BecomeQuestionMarks();
    void everyByteOfAValueIsReadBack();

    void valuesOfOptions();
    void booleanTexts_data();
    void booleanTexts();
    void booleanValuesAreTheDocumentedOnes();
    void listIsNotABoolean();

    void wholeNumbers_data();
    void wholeNumbers();
    void numbersAreReadInTheCLocale();
    void realNumbers_data();
    void realNumbers();
    void numbersAreReadAsByQString();
    void listsAreNotNumbersOrTexts();
    void missingOptionsGiveTheDefault_data();
    void missingOptionsGiveTheDefault();
    void longTextsAreReadCompletely();
    void macAddresses_data();
    void macAddresses();
    void ipv4Addresses_data();
    void ipv4Addresses();
    void listsOfTexts();
    void base64Texts_data();
    void base64Texts();
    void base64IsMatchedAsByTheExpression();
    void base64OfAMegabyte();

    void changesAreInMemoryUntilTheyAreSaved();
    void savedChangesAreReadByAnotherCursor();
    void commitWritesTheFile();
    void commitIncludesStagedChangesOfOthers();
    void revertDropsStagedAndUnsavedChanges();
    void failedCommitOfAnUnreadablePackageKeepsTheStagedChanges();
    void missingPackagesAreNotSavedCommittedOrReverted();
    void pointersOutliveTheCursor();
    void packagesOfARouterAreReadAndWritten();
#ifdef NBASE_OWN_UCI /* libuci loses changes in this case */
    void twoProcessesLoseNothing_data();
    void twoProcessesLoseNothing();
#endif
#ifdef NBASE_CONFIGURATION_EXAMPLE
    void exampleOfTheGuideChangesTheConfiguration();
#endif

private:
    NUciCursor& cursor()
    {
        return *m_cursor;
    }
    uci_option* optionOf(const char* name)
    {
        return cursor().option(m_network, m_lan, latin1(name));
    }
    QString configPath(const char* name) const
    {
        return m_directory->filePath(latin1("config/") + latin1(name));
    }
    QString savePath(const char* name) const
    {
        return m_directory->filePath(latin1("save/") + latin1(name));
    }
    NUciCursor* newCursor() const
    {
        return new NUciCursor(m_directory->filePath(latin1("config")), m_directory->filePath(latin1("save")));
    }
    void writeConfig(const char* name, const QByteArray& text) const
    {
        m_directory->writeFile(latin1("config/") + latin1(name), text);
    }
    void writeOptions(const QStringList& texts) const;
    QString readNumber(const QString& type, const QString& option);

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NUciCursor> m_cursor;
    QString m_network;
    QString m_lan;
};

void tst_NUciCursor::init()
{
    m_network = latin1("network");
    m_lan = latin1("lan");
    m_directory.reset(new NTemporaryDirectory);
    writeConfig("network", networkFile);
    m_cursor.reset(newCursor());
}

void tst_NUciCursor::cleanup()
{
    m_cursor.reset();
    m_directory.reset();
}

/** Writes the package "texts" with one section "s" and an option "o<index>" for each text. */
void tst_NUciCursor::writeOptions(const QStringList& texts) const
{
    QByteArray file("config t 's'\n");
    for (int index = 0; index < texts.size(); ++index) {
        file += "\toption o" + QByteArray::number(index) + " '";
        file += texts.at(index).toLatin1().replace("'", "'\\''") + "'\n";
    }
    writeConfig("texts", file);
}

// ---- directories ----

void tst_NUciCursor::defaultDirectoriesAreThoseOfTheStore()
{
    NPrivateNamespace::mountEmptyDirectory(latin1("/etc/config"));
    NPrivateNamespace::mountEmptyDirectory(latin1("/tmp/.uci"));
    QFile file(latin1("/etc/config/network"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(networkFile);
    file.close();
    {
        NUciCursor byDefault((QString()), QString());
        QVERIFY(byDefault.setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
        QVERIFY(byDefault.save(m_network));
        QCOMPARE(readFile(latin1("/tmp/.uci/network")), QByteArray("network.lan.mtu='1400'\n"));
        QVERIFY(byDefault.commit(m_network));
        QVERIFY(readFile(latin1("/etc/config/network")).contains("option mtu '1400'"));

        NUciCursor otherSave(QString(), m_directory->filePath(latin1("save")));
        QVERIFY(otherSave.setOption(m_network, m_lan, latin1("mtu"), latin1("1300")));
        QVERIFY(otherSave.save(m_network));
        QCOMPARE(readFile(savePath("network")), QByteArray("network.lan.mtu='1300'\n"));
    }
    NPrivateNamespace::unmount(latin1("/tmp/.uci"));
    NPrivateNamespace::unmount(latin1("/etc/config"));
}

void tst_NUciCursor::directoriesAreChangedLater()
{
    m_directory->writeFile(latin1("other/network"), "config interface 'wan'\n");
    QVERIFY(cursor().setConfDir(m_directory->filePath(latin1("other"))));
    QVERIFY(cursor().setSaveDir(m_directory->filePath(latin1("staged"))));
    QVERIFY(cursor().section(m_network, latin1("wan")));
    QVERIFY(!cursor().section(m_network, m_lan));
    QVERIFY(cursor().setOption(m_network, latin1("wan"), latin1("proto"), latin1("dhcp")));
    QVERIFY(cursor().save(m_network));
    QCOMPARE(readFile(m_directory->filePath(latin1("staged/network"))), QByteArray("network.wan.proto='dhcp'\n"));
    QVERIFY(!QFile::exists(savePath("network")));
}

void tst_NUciCursor::nullDirectoriesAreRefused()
{
    QVERIFY(!cursor().setConfDir(QString()));
    QVERIFY(!cursor().setSaveDir(QString()));
    QVERIFY(!cursor().setConfDir(textWithNul()));
    QVERIFY(!cursor().setSaveDir(textWithNul()));
    QVERIFY(cursor().section(m_network, m_lan));
    QVERIFY(cursor().setSection(m_network, latin1("wan"), latin1("interface")));
    QVERIFY(cursor().save(m_network));
    QVERIFY(QFile::exists(savePath("network")));
}

void tst_NUciCursor::storeIsNotAskedForNullDirectories()
{
    StoreSetters::calls = 0;
    QVERIFY(cursor().setConfDir(m_directory->filePath(latin1("config"))));
    QVERIFY(cursor().setSaveDir(m_directory->filePath(latin1("save"))));
    QCOMPARE(StoreSetters::calls, 2);
    QVERIFY(!cursor().setConfDir(QString()));
    QVERIFY(!cursor().setSaveDir(QString()));
    QCOMPARE(StoreSetters::calls, 2);
}

void tst_NUciCursor::cursorWithoutDirectoriesFailsAllOperations_data()
{
    QTest::addColumn<bool>("configFails");
    QTest::newRow("configuration") << true;
    QTest::newRow("staged changes") << false;
}

void tst_NUciCursor::cursorWithoutDirectoriesFailsAllOperations()
{
    QFETCH(bool, configFails);
    const QString config = m_directory->filePath(latin1("config"));
    const QString bad = config + QChar(0);
    NUciCursor null(configFails ? bad : config, configFails ? m_directory->filePath(latin1("save")) : bad);
    const QString mtu = latin1("mtu");
    const QString text = latin1("text");

    QVERIFY(!null.setConfDir(config));
    QVERIFY(!null.setSaveDir(config));
    QVERIFY(!null.findPackage(m_network, false));
    QVERIFY(!null.findPackage(m_network, true));
    QVERIFY(!null.load(m_network));
    QVERIFY(!null.unload(m_network));
    QVERIFY(!null.package(m_network));
    QVERIFY(!null.save(m_network));
    QVERIFY(!null.commit(m_network));
    QVERIFY(!null.revert(m_network));
    QVERIFY(!null.section(m_network, m_lan));
    QVERIFY(!null.addSection(m_network, text));
    QVERIFY(!null.setSection(m_network, m_lan, text));
    QVERIFY(!null.renameSection(m_network, m_lan, text));
    QVERIFY(!null.renameSectionIfExists(m_network, m_lan, text));
    QVERIFY(!null.deleteSection(m_network, m_lan));
    QVERIFY(!null.deleteSectionIfExists(m_network, m_lan));
    QVERIFY(!null.reorder(m_network, m_lan, 0));
    QVERIFY(null.sections(m_network, latin1("interface")).isEmpty());
    QVERIFY(!null.option(m_network, m_lan, mtu));
    QVERIFY(!null.setOption(m_network, m_lan, mtu, text));
    QVERIFY(!null.setOption(m_network, m_lan, mtu, QStringList(text)));
    QVERIFY(!null.setOption(m_network, m_lan, mtu, QByteArray("bytes")));
    QVERIFY(!null.renameOption(m_network, m_lan, mtu, text));
    QVERIFY(!null.renameOptionIfExists(m_network, m_lan, mtu, text));
    QVERIFY(!null.deleteOption(m_network, m_lan, mtu));
    QVERIFY(!null.deleteOptionIfExists(m_network, m_lan, mtu));
    QCOMPARE(null.optionAsString(m_network, m_lan, mtu, text), text);
    QCOMPARE(null.optionAsInt(m_network, m_lan, mtu, 7), 7);
    QCOMPARE(null.optionAsDouble(m_network, m_lan, mtu, 7.5), 7.5);
    QCOMPARE(null.optionAsBoolean(m_network, m_lan, mtu, true), true);
    QCOMPARE(null.optionAsStringList(m_network, m_lan, mtu, QStringList(text)), QStringList(text));
    QCOMPARE(null.optionAsByteArray(m_network, m_lan, mtu, QByteArray("x")), QByteArray("x"));
    QCOMPARE(readFile(configPath("network")), QByteArray(networkFile));
}

// ---- packages ----

void tst_NUciCursor::findPackageLoadsOnlyIfAsked()
{
    QVERIFY(!cursor().findPackage(m_network, false));
    uci_package* const loaded = cursor().findPackage(m_network, true);
    QVERIFY(loaded);
    QCOMPARE(loaded->e.name, "network");
    QCOMPARE(cursor().findPackage(m_network, false), loaded);
    QCOMPARE(cursor().findPackage(m_network, true), loaded);
    QVERIFY(!cursor().findPackage(latin1("Network"), false));
    QVERIFY(!cursor().findPackage(latin1("networ"), false));
    QVERIFY(!cursor().findPackage(latin1("missing"), true));
}

void tst_NUciCursor::packagesAreFoundByTheirNameUpToTheFirstDot()
{
    QVERIFY(!cursor().findPackage(latin1("network.lan"), false));
    uci_package* const loaded = cursor().findPackage(latin1("network.lan.ipaddr"), true);
    QVERIFY(loaded);
    QCOMPARE(loaded->e.name, "network");
    QCOMPARE(cursor().findPackage(latin1("network.lan"), false), loaded);
    QCOMPARE(cursor().findPackage(latin1("network."), false), loaded);
    QVERIFY(!cursor().findPackage(latin1(".network"), true));
    QVERIFY(!cursor().findPackage(latin1("."), true));
}

void tst_NUciCursor::loadUsesTheWholeNameAndUnloadTheNameUpToTheDot()
{
    QVERIFY(cursor().load(m_network));
    QVERIFY(!cursor().load(latin1("network.lan")));
    QVERIFY(!cursor().findPackage(m_network, false));
    QVERIFY(cursor().load(m_network));
    QVERIFY(cursor().unload(latin1("network.lan")));
    QVERIFY(!cursor().findPackage(m_network, false));
}

void tst_NUciCursor::loadReadsTheFilesAgain()
{
    QVERIFY(cursor().load(m_network));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("9000")));
    writeConfig("network", "config interface 'lan'\n\toption mtu '1280'\n");
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 9000);
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1280);
    QVERIFY(QFile::remove(configPath("network")));
    QVERIFY(!cursor().load(m_network));
    QVERIFY(!cursor().findPackage(m_network, false));
}

void tst_NUciCursor::unloadDropsUnsavedChanges()
{
    QVERIFY(!cursor().unload(m_network));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("9000")));
    QVERIFY(cursor().unload(m_network));
    QVERIFY(!cursor().unload(m_network));
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1500);
}

void tst_NUciCursor::packageIsLoadedOnDemand()
{
    uci_package* const found = cursor().package(m_network);
    QVERIFY(found);
    QCOMPARE(cursor().findPackage(m_network, false), found);
    QCOMPARE(cursor().package(m_network), found);
    QVERIFY(!cursor().package(latin1("network.lan")));
}

void tst_NUciCursor::packagesThatCannotBeReadAreNotFound_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("missing") << QByteArray();
    QTest::newRow("open quote") << QByteArray("config t 'x\n");
    QTest::newRow("option before any section") << QByteArray("option a 'b'\n");
    QTest::newRow("unknown command") << QByteArray("config t 'x'\nsomething a 'b'\n");
}

void tst_NUciCursor::packagesThatCannotBeReadAreNotFound()
{
    QFETCH(QByteArray, content);
    const QString broken = latin1("broken");
    if (!content.isNull())
        writeConfig("broken", content);
    QVERIFY(!cursor().findPackage(broken, true));
    QVERIFY(!cursor().load(broken));
    QVERIFY(!cursor().package(broken));
    QVERIFY(!cursor().section(broken, latin1("x")));
    QVERIFY(!cursor().option(broken, latin1("x"), latin1("a")));
    QVERIFY(!cursor().addSection(broken, latin1("t")));
    QVERIFY(!cursor().setSection(broken, latin1("x"), latin1("t")));
    QVERIFY(!cursor().save(broken));
    QVERIFY(!cursor().commit(broken));
    QVERIFY(!cursor().revert(broken));
    QVERIFY(cursor().sections(broken, latin1("t")).isEmpty());
    QCOMPARE(cursor().optionAsInt(broken, latin1("x"), latin1("a"), 3), 3);
    QCOMPARE(readFile(configPath("broken")), content);
}

void tst_NUciCursor::paths_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("upwards") << latin1("../outside");
    QTest::newRow("beside") << latin1("./network");
    QTest::newRow("absolute") << latin1("/");
    QTest::newRow("through a directory") << latin1("sub/../../outside");
    QTest::newRow("into a directory") << latin1("sub/network");
    QTest::newRow("hidden") << latin1(".hidden");
    QTest::newRow("directory") << latin1("sub");
    QTest::newRow("the directory itself") << latin1(".");
    QTest::newRow("the one above") << latin1("..");
    QTest::newRow("blank") << latin1("net work");
    QTest::newRow("newline") << latin1("network\n");
}

void tst_NUciCursor::paths()
{
    QFETCH(QString, name);
    m_directory->writeFile(latin1("outside"), networkFile);
    writeConfig("sub/network", networkFile);
    writeConfig(".hidden", networkFile);
    writeConfig("net work", networkFile);
    if (name == latin1("/"))
        name = m_directory->filePath(latin1("outside"));
    QVERIFY(!cursor().findPackage(name, true));
    QVERIFY(!cursor().load(name));
    QVERIFY(!cursor().package(name));
    QVERIFY(!cursor().section(name, m_lan));
    QVERIFY(!cursor().setOption(name, m_lan, latin1("mtu"), latin1("1")));
    QVERIFY(!cursor().commit(name));
    QCOMPARE(readFile(m_directory->filePath(latin1("outside"))), QByteArray(networkFile));
}

void tst_NUciCursor::unreadablePackage()
{
    QVERIFY(QFile::setPermissions(configPath("network"), QFile::Permissions()));
    const NWithoutFileOverride withoutOverride;
    QVERIFY(!cursor().load(m_network));
    QVERIFY(!cursor().package(m_network));
    QVERIFY(!cursor().deleteSectionIfExists(m_network, m_lan));
    QVERIFY(!cursor().deleteOptionIfExists(m_network, m_lan, latin1("mtu")));
}

// ---- sections ----

void tst_NUciCursor::sectionsAreFoundByName()
{
    uci_section* const lan = cursor().section(m_network, m_lan);
    QVERIFY(lan);
    QCOMPARE(lan->e.name, "lan");
    QCOMPARE(lan->type, "interface");
    QVERIFY(!cursor().section(m_network, latin1("LAN")));
    QVERIFY(!cursor().section(m_network, latin1("lan.mtu")));
    QVERIFY(!cursor().section(latin1("missing"), m_lan));
}

void tst_NUciCursor::unnamedSectionsAreFoundByTheirGeneratedNames()
{
    const QList<uci_section*> routes = cursor().sections(m_network, latin1("route"));
    QCOMPARE(routes.size(), 2);
    for (uci_section* route : routes)
        QCOMPARE(cursor().section(m_network, latin1(route->e.name)), route);
}

void tst_NUciCursor::extendedNamesAreOnlyNames()
{
    QVERIFY(!cursor().section(m_network, latin1("@route[0]")));
    QVERIFY(!cursor().setOption(m_network, latin1("@route[0]"), latin1("target"), latin1("x")));
    QVERIFY(!cursor().deleteSection(m_network, latin1("@route[0]")));
    QCOMPARE(cursor().sections(m_network, latin1("route")).size(), 2);
}

void tst_NUciCursor::addedSectionHasAGeneratedName()
{
    uci_section* const added = cursor().addSection(m_network, latin1("rule"));
    QVERIFY(added);
    QVERIFY(added->anonymous);
    QCOMPARE(added->type, "rule");
    QVERIFY(QRegExp(latin1("cfg[0-9a-f]{6}")).exactMatch(nameOf(added)));
    QVERIFY(cursor().setOption(m_network, nameOf(added), latin1("priority"), latin1("5")));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(readFile(configPath("network")).endsWith("config rule\n\toption priority '5'\n\n"));
}

void tst_NUciCursor::sectionsAreNotAddedToMissingPackages()
{
    QVERIFY(!cursor().addSection(latin1("missing"), latin1("rule")));
    QVERIFY(!cursor().addSection(QString(), latin1("rule")));
    QVERIFY(!cursor().addSection(m_network, QString()));
    QVERIFY(!cursor().addSection(m_network, textWithNul()));
    QCOMPARE(describe(cursor().package(m_network)).size(), 5);
    QVERIFY(!QFile::exists(configPath("missing")));
}

void tst_NUciCursor::setSectionCreatesASection()
{
    QVERIFY(cursor().setSection(m_network, latin1("wan"), latin1("interface")));
    const uci_section* const wan = cursor().section(m_network, latin1("wan"));
    QVERIFY(wan);
    QCOMPARE(wan->type, "interface");
    QVERIFY(!wan->anonymous);
    QVERIFY(cursor().setOption(m_network, latin1("wan"), latin1("proto"), latin1("dhcp")));
    QVERIFY(!cursor().setSection(latin1("missing"), latin1("wan"), latin1("interface")));
    QVERIFY(!cursor().setSection(m_network, latin1("guest"), latin1("two words")));
    QVERIFY(!cursor().section(m_network, latin1("guest")));
}

void tst_NUciCursor::setSectionChangesTheType()
{
    QVERIFY(cursor().setSection(m_network, m_lan, latin1("alias")));
    QCOMPARE(cursor().section(m_network, m_lan)->type, "alias");
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1500);
}

void tst_NUciCursor::setSectionRefusesANullType()
{
    QVERIFY(!cursor().setSection(m_network, m_lan, QString()));
    QVERIFY(!cursor().setSection(m_network, latin1("wan"), QString()));
    QVERIFY(!cursor().setSection(m_network, m_lan, textWithNul()));
    QCOMPARE(cursor().section(m_network, m_lan)->type, "interface");
    QVERIFY(!cursor().section(m_network, latin1("wan")));
}

void tst_NUciCursor::emptyTypeDeletesTheSection()
{
    QVERIFY(cursor().setSection(m_network, m_lan, latin1("")));
    QVERIFY(!cursor().section(m_network, m_lan));
    QVERIFY(cursor().setSection(m_network, latin1("wan"), latin1("")));
    QVERIFY(!cursor().section(m_network, latin1("wan")));
}

void tst_NUciCursor::sectionsAreRenamed()
{
    uci_section* const lan = cursor().section(m_network, m_lan);
    QVERIFY(cursor().renameSection(m_network, m_lan, latin1("office")));
    QCOMPARE(cursor().section(m_network, latin1("office")), lan);
    QVERIFY(!cursor().section(m_network, m_lan));
    QVERIFY(!cursor().renameSection(m_network, m_lan, latin1("office")));
    QVERIFY(!cursor().renameSection(latin1("missing"), m_lan, latin1("office")));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(readFile(configPath("network")).contains("config interface 'office'\n\toption proto 'static'\n"));
}

void tst_NUciCursor::sectionsAreRenamedIfTheyExist()
{
    QVERIFY(cursor().renameSectionIfExists(m_network, m_lan, latin1("office")));
    QVERIFY(cursor().section(m_network, latin1("office")));
    QVERIFY(cursor().renameSectionIfExists(m_network, m_lan, latin1("office")));
    QVERIFY(!cursor().renameSectionIfExists(latin1("missing"), m_lan, latin1("office")));
    QVERIFY(!cursor().renameSectionIfExists(m_network, QString(), latin1("office")));
}

void tst_NUciCursor::emptyNewNamesAreRefused_data()
{
    QTest::addColumn<QString>("newName");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("nul") << textWithNul();
}

void tst_NUciCursor::emptyNewNamesAreRefused()
{
    QFETCH(QString, newName);
    QVERIFY(!cursor().renameSection(m_network, m_lan, newName));
    QVERIFY(!cursor().renameSectionIfExists(m_network, m_lan, newName));
    QVERIFY(!cursor().renameOption(m_network, m_lan, latin1("mtu"), newName));
    QVERIFY(!cursor().renameOptionIfExists(m_network, m_lan, latin1("mtu"), newName));
    QVERIFY(optionOf("mtu"));
}

void tst_NUciCursor::sectionsAreDeleted()
{
    QVERIFY(cursor().deleteSection(m_network, m_lan));
    QVERIFY(!cursor().section(m_network, m_lan));
    QVERIFY(!cursor().deleteSection(m_network, m_lan));
    QVERIFY(!cursor().deleteSection(latin1("missing"), m_lan));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(!readFile(configPath("network")).contains("'lan'\n\toption proto"));
}

void tst_NUciCursor::sectionsAreDeletedIfTheyExist()
{
    QVERIFY(cursor().deleteSectionIfExists(m_network, m_lan));
    QVERIFY(!cursor().section(m_network, m_lan));
    QVERIFY(cursor().deleteSectionIfExists(m_network, m_lan));
    QVERIFY(!cursor().deleteSectionIfExists(latin1("missing"), m_lan));
}

void tst_NUciCursor::sectionsAreReordered_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QString>("order");
    QTest::newRow("first") << 0 << latin1("b a c d");
    QTest::newRow("where it is") << 1 << latin1("a b c d");
    QTest::newRow("after the next") << 2 << latin1("a c b d");
    QTest::newRow("last") << 3 << latin1("a c d b");
    QTest::newRow("one beyond") << 4 << latin1("a c d b");
    QTest::newRow("far beyond") << INT_MAX << latin1("a c d b");
    QTest::newRow("negative") << -1 << latin1("b a c d");
    QTest::newRow("very negative") << INT_MIN << latin1("b a c d");
}

void tst_NUciCursor::sectionsAreReordered()
{
    QFETCH(int, position);
    QFETCH(QString, order);
    const QString p = latin1("order");
    writeConfig("order", "config t 'a'\nconfig t 'b'\nconfig t 'c'\nconfig t 'd'\n");
    QVERIFY(cursor().reorder(p, latin1("b"), position));
    QCOMPARE(namesOf(cursor().sections(p, latin1("t"))).join(latin1(" ")), order);
    QVERIFY(cursor().save(p));
    QScopedPointer<NUciCursor> other(newCursor());
    QCOMPARE(namesOf(other->sections(p, latin1("t"))).join(latin1(" ")), order);
}

void tst_NUciCursor::missingSectionsAreNotReordered()
{
    QVERIFY(!cursor().reorder(m_network, latin1("wan"), 0));
    QVERIFY(!cursor().reorder(m_network, QString(), 0));
    QVERIFY(!cursor().reorder(latin1("missing"), m_lan, 0));
}

void tst_NUciCursor::sectionsOfATypeAreInFileOrder()
{
    QCOMPARE(
        namesOf(cursor().sections(m_network, latin1("interface"))), QStringList() << latin1("loopback") << m_lan);
    const QList<uci_section*> routes = cursor().sections(m_network, latin1("route"));
    QCOMPARE(routes.size(), 2);
    QCOMPARE(
        cursor().optionAsString(m_network, nameOf(routes.at(0)), latin1("target"), QString()), latin1("10.1.0.0"));
    QCOMPARE(
        cursor().optionAsString(m_network, nameOf(routes.at(1)), latin1("target"), QString()), latin1("10.2.0.0"));
    QCOMPARE(namesOf(cursor().sections(m_network, latin1("Route"))), QStringList(latin1("upper")));
    QVERIFY(cursor().sections(m_network, latin1("rout")).isEmpty());
    QVERIFY(cursor().sections(m_network, QString()).isEmpty());
    QVERIFY(cursor().sections(latin1("missing"), latin1("route")).isEmpty());
}

void tst_NUciCursor::allSectionsOfAPackageByName()
{
    const QHash<QString, uci_section*> sections = NUciCursor::packageSections(cursor().package(m_network));
    QCOMPARE(sections.size(), 5);
    QCOMPARE(sections.value(m_lan), cursor().section(m_network, m_lan));
    for (uci_section* route : cursor().sections(m_network, latin1("route")))
        QCOMPARE(sections.value(nameOf(route)), route);
    QVERIFY(NUciCursor::packageSections(nullptr).isEmpty());
}

void tst_NUciCursor::laterSectionOfTheSameNameReplacesAnEarlierOne()
{
    // Stores differ in whether a name can be given twice.
    char name[] = "lan";
    uci_package package = uci_package();
    uci_section sections[2] = {uci_section(), uci_section()};
    package.sections.next = &sections[0].e.list;
    package.sections.prev = &sections[1].e.list;
    sections[0].e.name = sections[1].e.name = name;
    sections[0].e.list.next = &sections[1].e.list;
    sections[0].e.list.prev = sections[1].e.list.next = &package.sections;
    sections[1].e.list.prev = &sections[0].e.list;
    const QHash<QString, uci_section*> byName = NUciCursor::packageSections(&package);
    QCOMPARE(byName.size(), 1);
    QCOMPARE(byName.value(m_lan), &sections[1]);
}

void tst_NUciCursor::allOptionsOfASectionByName()
{
    const QHash<QString, uci_option*> options = NUciCursor::sectionOptions(cursor().section(m_network, m_lan));
    QCOMPARE(options.size(), 5);
    QCOMPARE(options.value(latin1("dns")), optionOf("dns"));
    QCOMPARE(describe(options.value(latin1("proto"))), latin1("[static]"));
    QVERIFY(NUciCursor::sectionOptions(cursor().section(m_network, latin1("upper"))).isEmpty());
    QVERIFY(NUciCursor::sectionOptions(nullptr).isEmpty());
}

// ---- options ----

void tst_NUciCursor::optionsAreFound()
{
    QVERIFY(optionOf("mtu"));
    QCOMPARE(optionOf("mtu")->e.name, "mtu");
    QVERIFY(!optionOf("MTU"));
    QVERIFY(!cursor().option(m_network, latin1("wan"), latin1("mtu")));
    QVERIFY(!cursor().option(latin1("missing"), m_lan, latin1("mtu")));
}

void tst_NUciCursor::optionIsSet()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QCOMPARE(describe(optionOf("mtu")), latin1("[1400]"));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("comment"), latin1("it's \"here\" # and\n\tthere")));
    QVERIFY(cursor().commit(m_network));
    QScopedPointer<NUciCursor> other(newCursor());
    QCOMPARE(other->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1400);
    QCOMPARE(
        other->optionAsString(m_network, m_lan, latin1("comment"), QString()),
        latin1("it's \"here\" # and\n\tthere"));
}

void tst_NUciCursor::optionIsNotSetInAMissingSection()
{
    QVERIFY(!cursor().setOption(m_network, latin1("wan"), latin1("mtu"), latin1("1400")));
    QVERIFY(!cursor().section(m_network, latin1("wan")));
    QVERIFY(!cursor().setOption(latin1("missing"), m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(cursor().setSection(m_network, latin1("wan"), latin1("interface")));
    QVERIFY(cursor().setOption(m_network, latin1("wan"), latin1("mtu"), latin1("1400")));
}

void tst_NUciCursor::emptyTextDeletesAnOption_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << latin1("");
    QTest::newRow("null") << QString();
}

void tst_NUciCursor::emptyTextDeletesAnOption()
{
    QFETCH(QString, text);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QVERIFY(!optionOf("mtu"));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), text));
    QVERIFY(!optionOf("dns"));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("absent"), text));
    QVERIFY(!optionOf("absent"));
    QVERIFY(optionOf("proto"));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(!readFile(configPath("network")).contains("mtu"));
}

void tst_NUciCursor::singleValueReplacesAList()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), latin1("10.0.0.9")));
    QCOMPARE(describe(optionOf("dns")), latin1("[10.0.0.9]"));
}

void tst_NUciCursor::listReplacesASingleValue()
{
    const QStringList values = QStringList() << latin1("1") << latin1("two words") << latin1("it's");
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), values));
    QCOMPARE(NUciCursor::optionValue(optionOf("mtu")).toStringList(), values);
    QVERIFY(cursor().commit(m_network));
    QScopedPointer<NUciCursor> other(newCursor());
    QCOMPARE(other->optionAsStringList(m_network, m_lan, latin1("mtu"), QStringList()), values);
}

void tst_NUciCursor::listReplacesAList()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), QStringList(latin1("10.0.0.9"))));
    QCOMPARE(optionOf("dns")->type, UCI_TYPE_LIST);
    QCOMPARE(describe(optionOf("dns")), latin1("10.0.0.9"));
}

void tst_NUciCursor::listIsNotSetInAMissingSection()
{
    QVERIFY(!cursor().setOption(m_network, latin1("wan"), latin1("dns"), QStringList(latin1("10.0.0.9"))));
    QVERIFY(!cursor().section(m_network, latin1("wan")));
    QVERIFY(!cursor().setOption(m_network, latin1("wan"), latin1("key"), QByteArray("bytes")));
}

void tst_NUciCursor::emptyListIsRefused()
{
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("mtu"), QStringList()));
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("dns"), QStringList()));
    QCOMPARE(describe(optionOf("mtu")), latin1("[1500]"));
    QCOMPARE(describe(optionOf("dns")), latin1("10.0.0.1|10.0.0.2"));
    QVERIFY(cursor().save(m_network));
    QVERIFY(!QFile::exists(savePath("network")));
}

void tst_NUciCursor::listsCanHaveEmptyItems()
{
    const QStringList values = QStringList() << latin1("") << latin1("a") << QString();
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), values));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsStringList(m_network, m_lan, latin1("dns"), QStringList()), values);
}

void tst_NUciCursor::bytesAreStoredInPieces_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("pieces");
    QTest::newRow("empty") << 0 << latin1("0");
    QTest::newRow("one byte") << 1 << latin1("4");
    QTest::newRow("one piece") << 384 << latin1("512");
    QTest::newRow("one byte more") << 385 << latin1("512 4");
    QTest::newRow("1000 bytes") << 1000 << latin1("512 512 312");
    QTest::newRow("two pieces") << 768 << latin1("512 512");
}

void tst_NUciCursor::bytesAreStoredInPieces()
{
    QFETCH(int, size);
    QFETCH(QString, pieces);
    QByteArray bytes;
    for (int index = 0; index < size; ++index)
        bytes.append(char(index * 7));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), bytes));
    QCOMPARE(optionOf("mtu")->type, UCI_TYPE_LIST);
    QStringList sizes;
    for (const QString& item : NUciCursor::optionValue(optionOf("mtu")).toStringList())
        sizes << QString::number(item.size());
    QCOMPARE(sizes.join(latin1(" ")), pieces);
    QCOMPARE(cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray("default")), bytes);
    QVERIFY(cursor().commit(m_network));
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray("default")), bytes);
}

void tst_NUciCursor::optionsAreRenamed()
{
    QVERIFY(cursor().renameOption(m_network, m_lan, latin1("mtu"), latin1("size")));
    QVERIFY(!optionOf("mtu"));
    QCOMPARE(describe(optionOf("size")), latin1("[1500]"));
    QVERIFY(!cursor().renameOption(m_network, m_lan, latin1("mtu"), latin1("size")));
    QVERIFY(!cursor().renameOption(m_network, latin1("wan"), latin1("mtu"), latin1("size")));
    QVERIFY(!cursor().renameOption(latin1("missing"), m_lan, latin1("mtu"), latin1("size")));
}

void tst_NUciCursor::optionsAreRenamedIfTheyExist()
{
    QVERIFY(cursor().renameOptionIfExists(m_network, m_lan, latin1("mtu"), latin1("size")));
    QVERIFY(cursor().renameOptionIfExists(m_network, m_lan, latin1("mtu"), latin1("size")));
    QCOMPARE(describe(optionOf("size")), latin1("[1500]"));
    QVERIFY(cursor().renameOptionIfExists(m_network, latin1("wan"), latin1("mtu"), latin1("size")));
    QVERIFY(!cursor().section(m_network, latin1("wan")));
}

void tst_NUciCursor::optionsAreDeleted()
{
    QVERIFY(cursor().deleteOption(m_network, m_lan, latin1("mtu")));
    QVERIFY(!optionOf("mtu"));
    QVERIFY(!cursor().deleteOption(m_network, m_lan, latin1("mtu")));
    QVERIFY(!cursor().deleteOption(m_network, latin1("wan"), latin1("mtu")));
    QVERIFY(cursor().deleteOption(m_network, m_lan, latin1("dns")));
    QVERIFY(!optionOf("dns"));
    QVERIFY(cursor().section(m_network, m_lan));
}

void tst_NUciCursor::optionsAreDeletedIfTheyExist()
{
    QVERIFY(cursor().deleteOptionIfExists(m_network, m_lan, latin1("mtu")));
    QVERIFY(!optionOf("mtu"));
    QVERIFY(cursor().deleteOptionIfExists(m_network, m_lan, latin1("mtu")));
    QVERIFY(cursor().deleteOptionIfExists(m_network, latin1("wan"), latin1("mtu")));
    QVERIFY(cursor().section(m_network, m_lan));
}

void tst_NUciCursor::ifExistsFormsFailForPackagesThatCannotBeRead()
{
    writeConfig("broken", "config t 'x\n");
    for (const char* name : {"missing", "broken", "../x"}) {
        const QString p = latin1(name);
        QVERIFY(!cursor().renameSectionIfExists(p, m_lan, latin1("a")));
        QVERIFY(!cursor().deleteSectionIfExists(p, m_lan));
        QVERIFY(!cursor().renameOptionIfExists(p, m_lan, latin1("mtu"), latin1("a")));
        QVERIFY(!cursor().deleteOptionIfExists(p, m_lan, latin1("mtu")));
    }
}

// ---- names and texts ----

void tst_NUciCursor::missingNamesNeverAddressTheParent_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("null") << QString();
    QTest::newRow("empty") << latin1("");
    QTest::newRow("nul") << QString(QChar(0));
}

void tst_NUciCursor::missingNamesNeverAddressTheParent()
{
    QFETCH(QString, name);
    const QString mtu = latin1("mtu");
    const QString text = latin1("text");
    const QStringList before = describe(cursor().package(m_network));

    QVERIFY(!cursor().findPackage(name, true));
    QVERIFY(!cursor().load(name));
    QVERIFY(!cursor().unload(name));
    QVERIFY(!cursor().package(name));
    QVERIFY(!cursor().save(name));
    QVERIFY(!cursor().commit(name));
    QVERIFY(!cursor().revert(name));
    QVERIFY(!cursor().section(m_network, name));
    QVERIFY(!cursor().setSection(m_network, name, text));
    QVERIFY(!cursor().renameSection(m_network, name, text));
    QVERIFY(!cursor().renameSectionIfExists(m_network, name, text));
    QVERIFY(!cursor().deleteSection(m_network, name));
    QVERIFY(!cursor().deleteSectionIfExists(m_network, name));
    QVERIFY(!cursor().option(m_network, m_lan, name));
    QVERIFY(!cursor().option(m_network, name, mtu));
    for (int missing = 0; missing < 2; ++missing) {
        const QString section = missing == 0 ? name : m_lan;
        const QString option = missing == 0 ? mtu : name;
        QVERIFY(!cursor().setOption(m_network, section, option, text));
        QVERIFY(!cursor().setOption(m_network, section, option, latin1("")));
        QVERIFY(!cursor().setOption(m_network, section, option, QStringList(text)));
        QVERIFY(!cursor().setOption(m_network, section, option, QByteArray("bytes")));
        QVERIFY(!cursor().renameOption(m_network, section, option, text));
        QVERIFY(!cursor().renameOptionIfExists(m_network, section, option, text));
        QVERIFY(!cursor().deleteOption(m_network, section, option));
        QVERIFY(!cursor().deleteOptionIfExists(m_network, section, option));
        QCOMPARE(cursor().optionAsString(m_network, section, option, text), text);
    }
    QCOMPARE(describe(cursor().package(m_network)), before);
    QVERIFY(cursor().save(m_network));
    QVERIFY(!QFile::exists(savePath("network")));
}

void tst_NUciCursor::textsWithNulAreRefused()
{
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("mtu"), textWithNul()));
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("dns"), QStringList() << latin1("1") << textWithNul()));
    QVERIFY(!cursor().deleteSection(m_network, textWithNul()));
    QVERIFY(!cursor().section(m_network, textWithNul()));
    QCOMPARE(describe(optionOf("mtu")), latin1("[1500]"));
    QCOMPARE(describe(optionOf("dns")), latin1("10.0.0.1|10.0.0.2"));
    QVERIFY(cursor().section(m_network, m_lan));
}

void tst_NUciCursor::listsWithControlCharactersLeaveTheOptionUnchanged()
{
    QVERIFY(!cursor().setOption(
        m_network, m_lan, latin1("dns"), QStringList() << latin1("10.0.0.3") << latin1("\x1b")));
    QCOMPARE(describe(optionOf("dns")), latin1("10.0.0.1|10.0.0.2"));
}

#ifdef NBASE_OWN_UCI
void tst_NUciCursor::namesThatAFileCannotHoldAreRefused()
{
    QVERIFY(!cursor().setSection(m_network, latin1("wan-6"), latin1("interface")));
    QVERIFY(!cursor().setSection(m_network, latin1("wan6"), latin1("a b")));
    QVERIFY(!cursor().addSection(m_network, latin1("a b")));
    QVERIFY(!cursor().renameSection(m_network, m_lan, latin1("lan-1")));
    QVERIFY(!cursor().renameSection(m_network, latin1("upper"), m_lan));
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("a-b"), latin1("1")));
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("a-b"), QStringList() << latin1("1")));
    QVERIFY(!cursor().renameOption(m_network, m_lan, latin1("mtu"), latin1("m t u")));
    QVERIFY(!cursor().renameOption(m_network, m_lan, latin1("mtu"), latin1("proto")));
    QVERIFY(!cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("15\x7") + latin1("00")));
    QVERIFY(cursor().save(m_network));
    QVERIFY(!QFile::exists(savePath("network")));
    QCOMPARE(describe(optionOf("mtu")), latin1("[1500]"));
}
#endif

void tst_NUciCursor::otherCharactersThanLatin1BecomeQuestionMarks()
{
    const QString text = latin1("Z\xfcrich \xa9") + QChar(0x20ac) + QChar(0x0416);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), QStringList(text)));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(readFile(configPath("network")).contains("option mtu 'Z\xfcrich \xa9\?\?'"));
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("mtu"), QString()), latin1("Z\xfcrich \xa9??"));
    QCOMPARE(describe(optionOf("dns")), latin1("Z\xfcrich \xa9??"));
}

void tst_NUciCursor::everyByteOfAValueIsReadBack()
{
    QString text = latin1("\t\n\r");
    for (int character = 32; character < 256; ++character)
        text += QChar(character);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("mtu"), QString()), text);
}

// ---- values ----

void tst_NUciCursor::valuesOfOptions()
{
    QVERIFY(!NUciCursor::optionValue(nullptr).isValid());
    QCOMPARE(NUciCursor::optionValue(optionOf("proto")), QVariant(latin1("static")));
    const QVariant list = NUciCursor::optionValue(optionOf("dns"));
    QCOMPARE(list.type(), QVariant::StringList);
    QCOMPARE(list.toStringList(), QStringList() << latin1("10.0.0.1") << latin1("10.0.0.2"));
    QVERIFY(!NUciCursor::optionBooleanValue(nullptr).isValid());
}

void tst_NUciCursor::booleanTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("value");
    for (const char* text : {"0", "no", "off", "false", "disabled"})
        QTest::newRow(text) << latin1(text) << QVariant(false);
    for (const char* text : {"1", "yes", "on", "true", "enabled"})
        QTest::newRow(text) << latin1(text) << QVariant(true);
    for (const char* text : {"On", "TRUE", " yes", "yes ", "2", "-1", "00", "01", "y", "enable", "enabledd"})
        QTest::newRow(text) << latin1(text) << QVariant();
}

void tst_NUciCursor::booleanTexts()
{
    QFETCH(QString, text);
    QFETCH(QVariant, value);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QCOMPARE(NUciCursor::optionBooleanValue(optionOf("mtu")), value);
    QCOMPARE(
        cursor().optionAsBoolean(m_network, m_lan, latin1("mtu"), true), value.isValid() ? value.toBool() : true);
    QCOMPARE(cursor().optionAsBoolean(m_network, m_lan, latin1("mtu"), false), value.isValid() && value.toBool());
}

void tst_NUciCursor::booleanValuesAreTheDocumentedOnes()
{
    QHash<QString, bool> expected;
    for (const char* text : {"0", "no", "off", "false", "disabled"})
        expected.insert(latin1(text), false);
    for (const char* text : {"1", "yes", "on", "true", "enabled"})
        expected.insert(latin1(text), true);
    QCOMPARE(NUciCursor::booleanValues(), expected);
}

void tst_NUciCursor::listIsNotABoolean()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), QStringList(latin1("1"))));
    QVERIFY(!NUciCursor::optionBooleanValue(optionOf("mtu")).isValid());
    QCOMPARE(cursor().optionAsBoolean(m_network, m_lan, latin1("mtu"), false), false);
}

// ---- numbers ----

namespace {

template <typename Number> QString describeNumber(Number number)
{
    return number == Number(77) ? latin1("default") : QString::number(number);
}

/** Adds the rows that are the same for all types, and those at the limits of the type. */
void addWholeNumbers(const char* type, int size, bool isSigned)
{
    const bool is16 = size == 2;
    const bool is32 = size == 4;
    const char* const largest = isSigned ? (is16   ? "32767"
                                            : is32 ? "2147483647"
                                                   : "9223372036854775807")
                                         : (is16   ? "65535"
                                            : is32 ? "4294967295"
                                                   : "18446744073709551615");
    const char* const beyond = isSigned ? (is16   ? "32768"
                                           : is32 ? "2147483648"
                                                  : "9223372036854775808")
                                        : (is16   ? "65536"
                                           : is32 ? "4294967296"
                                                  : "18446744073709551616");
    const char* const smallest = !isSigned ? "0" : is16 ? "-32768" : is32 ? "-2147483648" : "-9223372036854775808";
    const char* const below = !isSigned ? "-1" : is16 ? "-32769" : is32 ? "-2147483649" : "-9223372036854775809";
    const QString failed = latin1("default");
    const QByteArray name(type);
    const QString t = latin1(type);
    QTest::newRow(name + " largest") << t << latin1(largest) << latin1(largest);
    QTest::newRow(name + " one beyond") << t << latin1(beyond) << failed;
    QTest::newRow(name + " smallest") << t << latin1(smallest) << latin1(smallest);
    QTest::newRow(name + " one below") << t << latin1(below) << failed;
    QTest::newRow(name + " far beyond") << t << latin1("99999999999999999999999999") << failed;
    QTest::newRow(name + " 2^64 + 5") << t << latin1("18446744073709551621") << failed;
    QTest::newRow(name + " zero") << t << latin1("0") << latin1("0");
    QTest::newRow(name + " plus") << t << latin1("+5") << latin1("5");
    QTest::newRow(name + " minus") << t << latin1("-5") << (isSigned ? latin1("-5") : failed);
    QTest::newRow(name + " two signs") << t << latin1("--5") << failed;
    QTest::newRow(name + " sign alone") << t << latin1("-") << failed;
    QTest::newRow(name + " leading zeros") << t << latin1("000000000000000000000000000123") << latin1("123");
    QTest::newRow(name + " octal-looking") << t << latin1("010") << latin1("10");
    QTest::newRow(name + " hexadecimal") << t << latin1("0x10") << failed;
    QTest::newRow(name + " trailing letters") << t << latin1("12abc") << failed;
    QTest::newRow(name + " point") << t << latin1("1.0") << failed;
    QTest::newRow(name + " exponent") << t << latin1("1e3") << failed;
    QTest::newRow(name + " infinity") << t << latin1("inf") << failed;
    QTest::newRow(name + " thousands separator") << t << latin1("1,000") << failed;
    QTest::newRow(name + " empty") << t << latin1("") << failed;
    QTest::newRow(name + " blank") << t << latin1(" ") << failed;
    QTest::newRow(name + " blank inside") << t << latin1("1 2") << failed;
    QTest::newRow(name + " superscript") << t << latin1("1\xb2") << failed;
    QTest::newRow(name + " 100 kB of nines") << t << QString(LongTextSize, QLatin1Char('9')) << failed;
    QTest::newRow(name + " 100 kB of letters") << t << QString(LongTextSize, QLatin1Char('x')) << failed;
    QTest::newRow(name + " 100 kB of zeros before")
        << t << QString(LongTextSize, QLatin1Char('0')) + latin1("42") << latin1("42");
}

} // namespace

QString tst_NUciCursor::readNumber(const QString& type, const QString& option)
{
    NUciCursor& c = cursor();
    if (type == latin1("short"))
        return describeNumber<short>(c.optionAsShort(m_network, m_lan, option, 77));
    if (type == latin1("unsigned short"))
        return describeNumber<ushort>(c.optionAsUShort(m_network, m_lan, option, 77));
    if (type == latin1("int"))
        return describeNumber<int>(c.optionAsInt(m_network, m_lan, option, 77));
    if (type == latin1("unsigned int"))
        return describeNumber<uint>(c.optionAsUInt(m_network, m_lan, option, 77));
    if (type == latin1("long"))
        return describeNumber<qlonglong>(c.optionAsLong(m_network, m_lan, option, 77));
    if (type == latin1("unsigned long"))
        return describeNumber<qulonglong>(c.optionAsULong(m_network, m_lan, option, 77));
    if (type == latin1("long long"))
        return describeNumber<qlonglong>(c.optionAsLongLong(m_network, m_lan, option, 77));
    if (type == latin1("unsigned long long"))
        return describeNumber<qulonglong>(c.optionAsULongLong(m_network, m_lan, option, 77));
    return QString();
}

void tst_NUciCursor::wholeNumbers_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("number");
    addWholeNumbers("short", sizeof(short), true);
    addWholeNumbers("unsigned short", sizeof(short), false);
    addWholeNumbers("int", sizeof(int), true);
    addWholeNumbers("unsigned int", sizeof(int), false);
    addWholeNumbers("long", sizeof(long), true);
    addWholeNumbers("unsigned long", sizeof(long), false);
    addWholeNumbers("long long", sizeof(long long), true);
    addWholeNumbers("unsigned long long", sizeof(long long), false);
}

void tst_NUciCursor::wholeNumbers()
{
    QFETCH(QString, type);
    QFETCH(QString, text);
    QFETCH(QString, number);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QCOMPARE(readNumber(type, latin1("mtu")), number);
}

/** All these are numbers in German, of which some are others than in C. Blanks are not read the fast way. */
void tst_NUciCursor::numbersAreReadInTheCLocale()
{
    const QLocale before;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    writeOptions(QStringList() << latin1("1,5") << latin1("1.500") << latin1(" 1.500 ") << latin1("1.500,5"));
    const QString texts = latin1("texts");
    const QString s = latin1("s");
    NUciCursor& c = cursor();
    const double first = c.optionAsDouble(texts, s, latin1("o0"), -1);
    const double second = c.optionAsDouble(texts, s, latin1("o1"), -1);
    const double third = c.optionAsDouble(texts, s, latin1("o2"), -1);
    const float fourth = c.optionAsFloat(texts, s, latin1("o2"), -1);
    const double fifth = c.optionAsDouble(texts, s, latin1("o3"), -1);
    const int whole = c.optionAsInt(texts, s, latin1("o2"), -1);
    const unsigned long unsignedWhole = c.optionAsULong(texts, s, latin1("o1"), 7);
    QLocale::setDefault(before);
    QCOMPARE(first, -1.0);
    QCOMPARE(second, 1.5);
    QCOMPARE(third, 1.5);
    QCOMPARE(fourth, 1.5f);
    QCOMPARE(fifth, -1.0);
    QCOMPARE(whole, -1);
    QCOMPARE(unsignedWhole, 7ul);
}

void tst_NUciCursor::realNumbers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("isDouble");
    QTest::addColumn<bool>("isFloat");
    QTest::addColumn<double>("value");
    const double infinity = std::numeric_limits<double>::infinity();
    QTest::newRow("whole") << latin1("3") << true << true << 3.0;
    QTest::newRow("decimals") << latin1("12.75") << true << true << 12.75;
    QTest::newRow("negative") << latin1("-0.5") << true << true << -0.5;
    QTest::newRow("no digit before the point") << latin1(".5") << true << true << 0.5;
    QTest::newRow("no digit after the point") << latin1("5.") << true << true << 5.0;
    QTest::newRow("exponent") << latin1("1e3") << true << true << 1000.0;
    QTest::newRow("negative exponent") << latin1("25E-2") << true << true << 0.25;
    QTest::newRow("leading zeros") << latin1("0000000000000000000001.5") << true << true << 1.5;
    QTest::newRow("fifteen digits") << latin1("0.123456789012345") << true << true << 0.123456789012345;
    QTest::newRow("sixteen digits") << latin1("0.1234567890123456") << true << true << 0.1234567890123456;
    QTest::newRow("infinity") << latin1("inf") << true << isFloatForQt("inf") << infinity;
    QTest::newRow("negative infinity") << latin1("-inf") << true << isFloatForQt("-inf") << -infinity;
    QTest::newRow("infinity in full") << latin1("infinity") << false << false << 0.0;
    QTest::newRow("largest double") << latin1("1.7976931348623157e308") << true << false << DBL_MAX;
    QTest::newRow("beyond the largest double") << latin1("1.8e308") << false << false << 0.0;
    QTest::newRow("largest float") << latin1("3.4028234663852886e38") << true << true << double(FLT_MAX);
    QTest::newRow("beyond the largest float") << latin1("3.5e38") << true << false << 3.5e38;
    QTest::newRow("smallest double") << latin1("2.2250738585072014e-308") << true
                                     << isFloatForQt("2.2250738585072014e-308") << DBL_MIN;
    QTest::newRow("smallest float") << latin1("1.1754943508222875e-38") << true << true << double(FLT_MIN);
    QTest::newRow("empty") << latin1("") << false << false << 0.0;
    QTest::newRow("blank") << latin1(" ") << false << false << 0.0;
    QTest::newRow("sign alone") << latin1("-") << false << false << 0.0;
    QTest::newRow("point alone") << latin1(".") << false << false << 0.0;
    QTest::newRow("comma") << latin1("1,5") << false << false << 0.0;
    QTest::newRow("two points") << latin1("1.2.3") << false << false << 0.0;
    QTest::newRow("trailing letters") << latin1("1.5V") << false << false << 0.0;
    QTest::newRow("hexadecimal") << latin1("0x10") << false << false << 0.0;
    QTest::newRow("100 kB of letters") << QString(LongTextSize, QLatin1Char('x')) << false << false << 0.0;
    QTest::newRow("100 kB of digits") << QString(LongTextSize, QLatin1Char('9')) << false << false << 0.0;
    QTest::newRow("100 kB of zeros before")
        << QString(LongTextSize, QLatin1Char('0')) + latin1("42.5") << true << true << 42.5;
}

void tst_NUciCursor::realNumbers()
{
    QFETCH(QString, text);
    QFETCH(bool, isDouble);
    QFETCH(bool, isFloat);
    QFETCH(double, value);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QVERIFY(cursor().optionAsDouble(m_network, m_lan, latin1("mtu"), -77.0) == (isDouble ? value : -77.0));
    QVERIFY(cursor().optionAsFloat(m_network, m_lan, latin1("mtu"), -77.0f) == (isFloat ? float(value) : -77.0f));
}

void tst_NUciCursor::numbersAreReadAsByQString()
{
    static const char characters[] = "00000112345678999....--+ eE,xf";
    std::mt19937 random;
    QStringList texts;
    for (int index = 0; index < RandomTextCount; ++index) {
        QString text =
            QString::number(qint64(quint64(random()) << (random() % 32)) - (random() % 2 ? 0 : LONG_MAX / 2));
        text.truncate(1 + int(random() % 20));
        if (random() % 2)
            text.insert(int(random() % uint(text.size() + 1)), QLatin1Char('.'));
        for (uint count = random() % 3; count > 0; --count)
            text.replace(
                int(random() % uint(text.size())), 1,
                QString(QLatin1Char(characters[random() % (sizeof(characters) - 1)])));
        texts << text;
    }
    writeOptions(texts);

    const QString p = latin1("texts");
    const QString s = latin1("s");
    NUciCursor& c = cursor();
    for (int index = 0; index < texts.size(); ++index) {
        const QString& text = texts.at(index);
        const QString name = QLatin1Char('o') + QString::number(index);
        QVERIFY(c.option(p, s, name));
        const QByteArray message = text.toLatin1();
        bool ok = false;
#define NCOMPARE_WITH(getter, convert, Type) \
    do { \
        const Type expected = text.convert(&ok); \
        QVERIFY2(c.getter(p, s, name, Type(77)) == (ok ? expected : Type(77)), message.constData()); \
    } while (0)
        NCOMPARE_WITH(optionAsShort, toShort, short);
        NCOMPARE_WITH(optionAsUShort, toUShort, ushort);
        NCOMPARE_WITH(optionAsInt, toInt, int);
        NCOMPARE_WITH(optionAsUInt, toUInt, uint);
        NCOMPARE_WITH(optionAsLong, toLong, long);
        NCOMPARE_WITH(optionAsULong, toULong, ulong);
        NCOMPARE_WITH(optionAsLongLong, toLongLong, qlonglong);
        NCOMPARE_WITH(optionAsULongLong, toULongLong, qulonglong);
        NCOMPARE_WITH(optionAsFloat, toFloat, float);
        NCOMPARE_WITH(optionAsDouble, toDouble, double);
#undef NCOMPARE_WITH
    }
}

void tst_NUciCursor::listsAreNotNumbersOrTexts()
{
    const QString list = latin1("mtu");
    QVERIFY(cursor().setOption(m_network, m_lan, list, QStringList(latin1("5"))));
    NUciCursor& c = cursor();
    QCOMPARE(c.optionAsString(m_network, m_lan, list, latin1("default")), latin1("default"));
    for (const char* type :
         {"short", "unsigned short", "int", "unsigned int", "long", "unsigned long", "long long",
          "unsigned long long"})
        QCOMPARE(readNumber(latin1(type), list), latin1("default"));
    QCOMPARE(c.optionAsFloat(m_network, m_lan, list, 77.5f), 77.5f);
    QCOMPARE(c.optionAsDouble(m_network, m_lan, list, 77.5), 77.5);
    QVERIFY(cursor().setOption(m_network, m_lan, list, QStringList(latin1("02:00:5E:10:00:01"))));
    QVERIFY(c.optionAsMacAddress(m_network, m_lan, list, NMacAddress()).isNull());
    QVERIFY(cursor().setOption(m_network, m_lan, list, QStringList(latin1("10.0.0.1"))));
    QVERIFY(c.optionAsIpv4Address(m_network, m_lan, list, QHostAddress()).isNull());
}

void tst_NUciCursor::missingOptionsGiveTheDefault_data()
{
    QTest::addColumn<QString>("package");
    QTest::addColumn<QString>("section");
    QTest::newRow("option") << latin1("network") << latin1("lan");
    QTest::newRow("section") << latin1("network") << latin1("wan");
    QTest::newRow("package") << latin1("missing") << latin1("lan");
}

void tst_NUciCursor::missingOptionsGiveTheDefault()
{
    QFETCH(QString, package);
    QFETCH(QString, section);
    const QString name = latin1("absent");
    const NMacAddress mac(1, 2, 3, 4, 5, 6);
    const QHostAddress address(latin1("10.9.8.7"));
    NUciCursor& c = cursor();
    QCOMPARE(c.optionAsString(package, section, name, latin1("x")), latin1("x"));
    QVERIFY(c.optionAsString(package, section, name, QString()).isNull());
    QCOMPARE(c.optionAsShort(package, section, name, -7), short(-7));
    QCOMPARE(c.optionAsUShort(package, section, name, 7), ushort(7));
    QCOMPARE(c.optionAsInt(package, section, name, -7), -7);
    QCOMPARE(c.optionAsUInt(package, section, name, 7), 7u);
    QCOMPARE(c.optionAsLong(package, section, name, -7), -7l);
    QCOMPARE(c.optionAsULong(package, section, name, 7), 7ul);
    QCOMPARE(c.optionAsLongLong(package, section, name, -7), -7ll);
    QCOMPARE(c.optionAsULongLong(package, section, name, 7), 7ull);
    QCOMPARE(c.optionAsFloat(package, section, name, 7.5f), 7.5f);
    QCOMPARE(c.optionAsDouble(package, section, name, 7.5), 7.5);
    QCOMPARE(c.optionAsBoolean(package, section, name, true), true);
    QCOMPARE(c.optionAsBoolean(package, section, name, false), false);
    QVERIFY(c.optionAsMacAddress(package, section, name, mac) == mac);
    QCOMPARE(c.optionAsIpv4Address(package, section, name, address), address);
    QCOMPARE(c.optionAsStringList(package, section, name, QStringList(name)), QStringList(name));
    QCOMPARE(c.optionAsByteArray(package, section, name, QByteArray("x")), QByteArray("x"));
}

void tst_NUciCursor::longTextsAreReadCompletely()
{
    const QString text(LongTextSize, QLatin1Char('x'));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("mtu"), QString()), text);
    QVERIFY(cursor().commit(m_network));
    QVERIFY(cursor().load(m_network));
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("mtu"), QString()), text);
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("proto"), QString()), latin1("static"));
}

// ---- addresses, lists, bytes ----

void tst_NUciCursor::macAddresses_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::newRow("mixed case") << latin1("02:00:5e:10:aB:01") << true;
    QTest::newRow("zeros") << latin1("00:00:00:00:00:00") << true;
    QTest::newRow("all ones") << latin1("ff:ff:ff:ff:ff:ff") << true;
    QTest::newRow("dashes") << latin1("02-00-5e-10-00-01") << false;
    QTest::newRow("five bytes") << latin1("02:00:5e:10:00") << false;
    QTest::newRow("blank before") << latin1(" 02:00:5e:10:00:01") << false;
    QTest::newRow("trailing newline") << latin1("02:00:5e:10:00:01\n") << false;
    QTest::newRow("100 kB") << latin1("02:").repeated(LongTextSize / 3) << false;
}

void tst_NUciCursor::macAddresses()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    const NMacAddress other(1, 2, 3, 4, 5, 6);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    QCOMPARE(NNetworkUtilities::isMacAddress(text), valid);
    const NMacAddress found = cursor().optionAsMacAddress(m_network, m_lan, latin1("mtu"), other);
    QVERIFY(found == (valid ? NMacAddress(text) : other));
}

void tst_NUciCursor::ipv4Addresses_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("address");
    QTest::newRow("usual") << latin1("192.168.1.254") << latin1("192.168.1.254");
    QTest::newRow("lowest") << latin1("0.0.0.0") << latin1("0.0.0.0");
    QTest::newRow("highest") << latin1("255.255.255.255") << latin1("255.255.255.255");
    QTest::newRow("zeros before are no octal numbers") << latin1("010.008.099.0000100") << latin1("10.8.99.100");
    QTest::newRow("256") << latin1("192.168.1.256") << QString();
    QTest::newRow("three bytes") << latin1("192.168.1") << QString();
    QTest::newRow("one number") << latin1("3232235777") << QString();
    QTest::newRow("hexadecimal") << latin1("0x0a.0.0.1") << QString();
    QTest::newRow("IPv6") << latin1("::1") << QString();
    QTest::newRow("trailing blank") << latin1("10.0.0.1 ") << QString();
    QTest::newRow("range") << latin1("10.0.0.0/8") << QString();
    QTest::newRow("name") << latin1("localhost") << QString();
    QTest::newRow("100 kB") << QString(LongTextSize, QLatin1Char('0')) + latin1("10.0.0.1") << latin1("10.0.0.1");
}

void tst_NUciCursor::ipv4Addresses()
{
    QFETCH(QString, text);
    QFETCH(QString, address);
    const QHostAddress other(latin1("172.16.0.1"));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), text));
    const QHostAddress found = cursor().optionAsIpv4Address(m_network, m_lan, latin1("mtu"), other);
    QCOMPARE(found, address.isNull() ? other : QHostAddress(address));
}

void tst_NUciCursor::listsOfTexts()
{
    const QStringList other(latin1("default"));
    QCOMPARE(
        cursor().optionAsStringList(m_network, m_lan, latin1("dns"), other),
        QStringList() << latin1("10.0.0.1") << latin1("10.0.0.2"));
    QCOMPARE(cursor().optionAsStringList(m_network, m_lan, latin1("mtu"), other), other);
}

void tst_NUciCursor::base64Texts_data()
{
    QTest::addColumn<QStringList>("pieces");
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray other("default");
    QTest::newRow("no padding") << QStringList(latin1("bm9sdmFy")) << QByteArray("nolvar");
    QTest::newRow("one =") << QStringList(latin1("YWE=")) << QByteArray("aa");
    QTest::newRow("two =") << QStringList(latin1("YQ==")) << QByteArray("a");
    QTest::newRow("plus and slash") << QStringList(latin1("+/+/")) << QByteArray("\xfb\xff\xbf");
    QTest::newRow("cut at any position")
        << (QStringList() << latin1("b") << latin1("m9sd") << latin1("mFy")) << QByteArray("nolvar");
    QTest::newRow("empty items") << (QStringList() << latin1("") << latin1("YQ==") << latin1(""))
                                 << QByteArray("a");
    QTest::newRow("one empty item") << QStringList(latin1("")) << QByteArray("");
    QTest::newRow("padding within") << (QStringList() << latin1("YQ==") << latin1("YQ==")) << other;
    QTest::newRow("three =") << QStringList(latin1("Y===")) << other;
    QTest::newRow("only =") << QStringList(latin1("====")) << other;
    QTest::newRow("missing padding") << QStringList(latin1("YQ")) << other;
    QTest::newRow("URL alphabet") << QStringList(latin1("-_-_")) << other;
    QTest::newRow("blank") << QStringList(latin1("YWJj ZGU=")) << other;
    QTest::newRow("trailing blank") << QStringList(latin1("YWJj ")) << other;
    QTest::newRow("trailing newline") << QStringList(latin1("YWJj\n")) << other;
    QTest::newRow("newline within") << QStringList(latin1("YWJ\nYWJj")) << other;
    QTest::newRow("Latin-1") << QStringList(latin1("YW\xfcj")) << other;
}

void tst_NUciCursor::base64Texts()
{
    QFETCH(QStringList, pieces);
    QFETCH(QByteArray, bytes);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), pieces));
    QCOMPARE(cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray("default")), bytes);
    if (pieces.size() > 1 || pieces.at(0).isEmpty())
        return;
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), pieces.at(0)));
    QCOMPARE(cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray("default")), bytes);
}

void tst_NUciCursor::base64IsMatchedAsByTheExpression()
{
    static const char characters[] = "ABYZabyz0189+/==== -_.'\n\xe4";
    const QRegExp expression(latin1("(?:[A-Za-z0-9+\\/]{4})*(?:[A-Za-z0-9+\\/]{2}==|[A-Za-z0-9+\\/]{3}=)?"));
    std::mt19937 random;
    QStringList texts;
    for (int index = 0; index < RandomTextCount; ++index) {
        QByteArray bytes;
        for (uint count = random() % 12; count > 0; --count)
            bytes.append(char(random()));
        QString text = latin1(bytes.toBase64());
        for (uint count = random() % 3; count > 0; --count) {
            const int position = int(random() % uint(text.size() + 1));
            const QChar character = QLatin1Char(characters[random() % (sizeof(characters) - 1)]);
            if (random() % 2)
                text.insert(position, character);
            else
                text.replace(position, int(random() % 3), QString(character));
        }
        texts << (text.isEmpty() ? latin1("=") : text);
    }
    writeOptions(texts);
    int valid = 0;
    for (int index = 0; index < texts.size(); ++index) {
        const QString& text = texts.at(index);
        const QString name = QLatin1Char('o') + QString::number(index);
        const bool matches = expression.exactMatch(text);
        valid += matches ? 1 : 0;
        const QByteArray expected = matches ? QByteArray::fromBase64(text.toLatin1()) : QByteArray("default");
        QCOMPARE(cursor().optionAsByteArray(latin1("texts"), latin1("s"), name, QByteArray("default")), expected);
    }
    QVERIFY(valid > RandomTextCount / 10);
    QVERIFY(valid < RandomTextCount);
}

void tst_NUciCursor::base64OfAMegabyte()
{
    const QByteArray bytes(1000000, '\x5a');
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), bytes));
    QVERIFY(cursor().commit(m_network));
    QVERIFY(cursor().load(m_network));
    QVERIFY(cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray()) == bytes);
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1(bytes.toBase64()) + latin1("A=A=")));
    QCOMPARE(
        cursor().optionAsByteArray(m_network, m_lan, latin1("mtu"), QByteArray("default")), QByteArray("default"));
}

// ---- saving, committing, reverting ----

void tst_NUciCursor::changesAreInMemoryUntilTheyAreSaved()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(!QFile::exists(savePath("network")));
    QScopedPointer<NUciCursor> other(newCursor());
    QCOMPARE(other->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1500);
    QCOMPARE(readFile(configPath("network")), QByteArray(networkFile));
}

void tst_NUciCursor::savedChangesAreReadByAnotherCursor()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("dns"), QStringList(latin1("10.0.0.9"))));
    QVERIFY(cursor().renameSection(m_network, latin1("upper"), latin1("lower")));
    QVERIFY(cursor().reorder(m_network, m_lan, 0));
    QVERIFY(cursor().save(m_network));
    QCOMPARE(
        readFile(savePath("network")), QByteArray("network.lan.mtu='1400'\n"
                                                  "-network.lan.dns\n"
                                                  "|network.lan.dns='10.0.0.9'\n"
                                                  "@network.upper='lower'\n"
                                                  "^network.lan='0'\n"));
    QCOMPARE(readFile(configPath("network")), QByteArray(networkFile));
    QScopedPointer<NUciCursor> other(newCursor());
    QCOMPARE(describe(other->package(m_network)), describe(cursor().package(m_network)));
    QCOMPARE(other->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1400);
    QCOMPARE(describe(other->option(m_network, m_lan, latin1("dns"))), latin1("10.0.0.9"));
}

void tst_NUciCursor::commitWritesTheFile()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(cursor().commit(m_network));
    QByteArray expected(networkFile);
    QCOMPARE(readFile(configPath("network")), expected.replace("mtu '1500'", "mtu '1400'"));
    QVERIFY(readFile(savePath("network")).isEmpty());
    QVERIFY(cursor().commit(m_network));
    QCOMPARE(readFile(configPath("network")), expected);
}

void tst_NUciCursor::commitIncludesStagedChangesOfOthers()
{
    QScopedPointer<NUciCursor> other(newCursor());
    QVERIFY(other->setOption(m_network, m_lan, latin1("proto"), latin1("dhcp")));
    QVERIFY(other->save(m_network));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(cursor().commit(m_network));
    QScopedPointer<NUciCursor> reader(newCursor());
    QCOMPARE(reader->optionAsString(m_network, m_lan, latin1("proto"), QString()), latin1("dhcp"));
    QCOMPARE(reader->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1400);
    QCOMPARE(other->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1500);
    QVERIFY(other->load(m_network));
    QCOMPARE(other->optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1400);
}

void tst_NUciCursor::revertDropsStagedAndUnsavedChanges()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    QVERIFY(cursor().save(m_network));
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("proto"), latin1("dhcp")));
    QVERIFY(cursor().revert(m_network));
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1500);
    QCOMPARE(cursor().optionAsString(m_network, m_lan, latin1("proto"), QString()), latin1("static"));
    QVERIFY(readFile(savePath("network")).isEmpty());
    QVERIFY(cursor().commit(m_network));
    QCOMPARE(readFile(configPath("network")), QByteArray(networkFile));
    QVERIFY(cursor().revert(m_network));
}

void tst_NUciCursor::failedCommitOfAnUnreadablePackageKeepsTheStagedChanges()
{
    QVERIFY(cursor().setOption(m_network, m_lan, latin1("mtu"), latin1("1400")));
    writeConfig("network", "config interface 'lan\n");
    QVERIFY(!cursor().commit(m_network));
    QCOMPARE(readFile(configPath("network")), QByteArray("config interface 'lan\n"));
    QCOMPARE(readFile(savePath("network")), QByteArray("network.lan.mtu='1400'\n"));
    QVERIFY(!cursor().findPackage(m_network, false));
    QVERIFY(!cursor().commit(m_network));

    writeConfig("network", networkFile);
    QCOMPARE(cursor().optionAsInt(m_network, m_lan, latin1("mtu"), 0), 1400);
    QVERIFY(cursor().commit(m_network));
    QVERIFY(readFile(configPath("network")).contains("option mtu '1400'"));
}

void tst_NUciCursor::missingPackagesAreNotSavedCommittedOrReverted()
{
    QVERIFY(!cursor().save(latin1("missing")));
    QVERIFY(!cursor().commit(latin1("missing")));
    QVERIFY(!cursor().revert(latin1("missing")));
    QVERIFY(!QFile::exists(configPath("missing")));
    QVERIFY(!QFile::exists(savePath("missing")));
}

void tst_NUciCursor::pointersOutliveTheCursor()
{
    uci_package* const package = cursor().package(m_network);
    uci_option* const dns = optionOf("dns");
    m_cursor.reset();
    QCOMPARE(NUciCursor::packageSections(package).size(), 5);
    QCOMPARE(describe(dns), latin1("10.0.0.1|10.0.0.2"));
}

void tst_NUciCursor::packagesOfARouterAreReadAndWritten()
{
    writeConfig(
        "router", "# The configuration of a small router, as a person writes it.\n"
                  "package router\n"
                  "\n"
                  "config system\n"
                  "\toption hostname \"gateway-7\"\n"
                  "\toption timezone CET-1CEST,M3.5.0,M10.5.0/3   # Central Europe\n"
                  "\toption log_size 64\n"
                  "\n"
                  "config radio 'wlan0'\n"
                  "    option ssid     'Caf\xe9 \"Zur Post\"'\n"
                  "    option key      \"it's a 'secret'\"\n"
                  "    option channel  11\n"
                  "    option txpower  17.5\n"
                  "    option disabled 0\n"
                  "    list   allowed  02:00:5e:10:00:01\n"
                  "    list   allowed  02:00:5e:10:00:02\n"
                  "\n"
                  "config rule\n"
                  "\toption src wan\n"
                  "\toption target ACCEPT\n"
                  "config rule\n"
                  "\toption src lan\n"
                  "\toption target \\\n"
                  "REJECT\n");
    const QString p = latin1("router");
    const QString radio = latin1("wlan0");
    for (int round = 0; round < 2; ++round) {
        NUciCursor& c = cursor();
        const QString system = nameOf(c.sections(p, latin1("system")).value(0));
        QCOMPARE(c.optionAsString(p, system, latin1("hostname"), QString()), latin1("gateway-7"));
        QCOMPARE(c.optionAsString(p, system, latin1("timezone"), QString()), latin1("CET-1CEST,M3.5.0,M10.5.0/3"));
        QCOMPARE(c.optionAsUShort(p, system, latin1("log_size"), 0), ushort(64));
        QCOMPARE(c.optionAsString(p, radio, latin1("ssid"), QString()), latin1("Caf\xe9 \"Zur Post\""));
        QCOMPARE(c.optionAsString(p, radio, latin1("key"), QString()), latin1("it's a 'secret'"));
        QCOMPARE(c.optionAsInt(p, radio, latin1("channel"), 0), 11);
        QCOMPARE(c.optionAsDouble(p, radio, latin1("txpower"), 0), 17.5);
        QCOMPARE(c.optionAsBoolean(p, radio, latin1("disabled"), true), false);
        QCOMPARE(c.optionAsStringList(p, radio, latin1("allowed"), QStringList()).size(), 2);
        const QList<uci_section*> rules = c.sections(p, latin1("rule"));
        QCOMPARE(rules.size(), 2);
        QCOMPARE(c.optionAsString(p, nameOf(rules.at(1)), latin1("target"), QString()), latin1("REJECT"));
        QVERIFY(c.setOption(p, radio, latin1("round"), QString::number(round)));
        QVERIFY(c.commit(p));
        m_cursor.reset(newCursor());
    }
    QVERIFY(readFile(configPath("router")).startsWith("\nconfig system\n\toption hostname 'gateway-7'\n"));
}

// ---- two processes ----

#ifdef NBASE_OWN_UCI

namespace {

const int RoundsOfEachProcess = 300;

/** One process of twoProcessesLoseNothing(); it exits with 0 on success. */
class Writer
{
public:
    Writer(NUciCursor& cursor, const QString& section, bool reverts)
        : m_cursor(cursor)
        , m_package(latin1("shared"))
        , m_section(section)
        , m_reverts(reverts)
    {
    }

    void run()
    {
        int known = 0;
        for (int round = 1; round <= RoundsOfEachProcess; ++round) {
            const bool done = change(round) && store(round) && m_cursor.load(m_package);
            const int found = m_cursor.optionAsInt(m_package, m_section, latin1("count"), -1);
            if (!done || (found != round && !(mayBeTakenBack(round) && found == known))) {
                fprintf(stderr, "section %s, round %d: %d\n", qPrintable(m_section), round, done ? found : -2);
                _exit(1);
            }
            known = found;
        }
        _exit(0);
    }

private:
    bool isSavedFirst(int round) const { return round % 2 == 0; }
    bool isReverted(int round) const { return m_reverts && round % 5 == 0; }

    // A revert also drops what the other process has staged, and a commit also commits it, so that a change may be
    // there in spite of its revert.
    bool mayBeTakenBack(int round) const { return isReverted(round) || (m_reverts && isSavedFirst(round)); }

    bool change(int round)
    {
        const QString text = QString::number(round);
        return m_cursor.load(m_package) && m_cursor.setOption(m_package, m_section, latin1("count"), text) &&
               m_cursor.setOption(m_package, m_section, latin1("list"), QStringList() << text << text) &&
               m_cursor.setOption(m_package, latin1("both"), latin1("last"), m_section + text);
    }

    bool store(int round)
    {
        if (isSavedFirst(round) && !m_cursor.save(m_package))
            return false;
        return isReverted(round) ? m_cursor.revert(m_package) : m_cursor.commit(m_package);
    }

    NUciCursor& m_cursor;
    QString m_package;
    QString m_section;
    bool m_reverts;
};

} // namespace

void tst_NUciCursor::twoProcessesLoseNothing_data()
{
    QTest::addColumn<bool>("reverts");
    QTest::newRow("committing") << false;
    QTest::newRow("committing and reverting") << true;
}

void tst_NUciCursor::twoProcessesLoseNothing()
{
    QFETCH(bool, reverts);
    const QString directory = m_directory->filePath(latin1("two"));
    QVERIFY(QDir().mkpath(directory));
    NPrivateNamespace::mountEmptyDirectory(directory);
    m_directory->writeFile(
        latin1("two/shared"), "config t 'a'\n\toption count '0'\n"
                              "config t 'b'\n\toption count '0'\n"
                              "config t 'both'\n\toption last 'none'\n");
    const QString save = directory + latin1("/save");
    NUciCursor reader(directory, save);
    pid_t running[2];
    for (int index = 0; index < 2; ++index) {
        running[index] = fork();
        QVERIFY(running[index] >= 0);
        if (running[index] == 0) {
            NUciCursor child(directory, save);
            Writer(child, latin1(index == 0 ? "a" : "b"), reverts).run();
        }
    }
    int left = 2;
    int failed = 0;
    while (left > 0) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        left -= ended > 0 ? 1 : 0;
        failed += status != 0 ? 1 : 0;
        // A half-written file could not be loaded, or would lack sections.
        if (!reader.load(latin1("shared")) || reader.sections(latin1("shared"), latin1("t")).size() != 3)
            ++failed;
    }
    QCOMPARE(failed, 0);
    QVERIFY(reader.commit(latin1("shared")));
    for (const char* section : {"a", "b"}) {
        const QString name = latin1(section);
        const int count = reader.optionAsInt(latin1("shared"), name, latin1("count"), 0);
        QVERIFY(reverts ? count > RoundsOfEachProcess / 2 : count == RoundsOfEachProcess);
        // A list that was applied twice would have four items.
        QCOMPARE(
            reader.optionAsStringList(latin1("shared"), name, latin1("list"), QStringList()),
            QStringList() << QString::number(count) << QString::number(count));
    }
    NPrivateNamespace::unmount(directory);
}

#endif

#ifdef NBASE_CONFIGURATION_EXAMPLE
void tst_NUciCursor::exampleOfTheGuideChangesTheConfiguration()
{
    writeConfig("network", "");
    QProcess example;
    example.start(
        latin1(NBASE_CONFIGURATION_EXAMPLE),
        QStringList() << m_directory->filePath(latin1("config")) << m_directory->filePath(latin1("save")));
    QVERIFY(example.waitForFinished());
    QCOMPARE(example.exitCode(), 0);
    QCOMPARE(example.readAllStandardOutput(), QByteArray("MTU: 1500\nMTU: 1400\n"));
    QCOMPARE(
        readFile(configPath("network")), QByteArray("\n"
                                                    "config interface 'lan'\n"
                                                    "\toption mtu '1400'\n"
                                                    "\tlist dns '10.0.0.1'\n"
                                                    "\tlist dns '10.0.0.3'\n"
                                                    "\n"));
}
#endif

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NUciCursor, NPrivateNamespace::Mounts)

#include "tst_nucicursor.moc"
