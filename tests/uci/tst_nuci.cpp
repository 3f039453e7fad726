#include "support/ntemporarydirectory.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

namespace {

const char network[] = "\n"
                       "config interface 'lan'\n"
                       "\toption proto 'static'\n"
                       "\toption note 'it'\\''s'\n"
                       "\tlist dns '10.0.0.1'\n"
                       "\tlist dns 'a b'\n"
                       "\n"
                       "config route\n"
                       "\toption via 'one'\n"
                       "\n"
                       "config route\n"
                       "\toption via 'two'\n"
                       "\n";

const char shownLan[] = "network.lan=interface\n"
                        "network.lan.proto='static'\n"
                        "network.lan.note='it'\\''s'\n"
                        "network.lan.dns='10.0.0.1' 'a b'\n";

} // namespace

/** Runs the command, and compares its output, which is that of UCI's own command. */
class TestNuci : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_directory.reset(new NTemporaryDirectory);
        m_directory->writeFile(QLatin1String("config/network"), network);
        m_directory->writeFile(QLatin1String("config/system"), "config system main\n\toption name box\n");
        m_directory->writeFile(QLatin1String("save/.keep"), QByteArray());
    }

    void cleanup() { m_directory.reset(); }

    void reading_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("output");
        row("show a section", "show network.lan", shownLan);
        row("show an option", "show network.lan.note", "network.lan.note='it'\\''s'\n");
        row("show a list", "show network.lan.dns", "network.lan.dns='10.0.0.1' 'a b'\n");
        row("show an unnamed section", "show network.@route[-1]",
            "network.@route[1]=route\nnetwork.@route[1].via='two'\n");
        row("show an unnamed section by its generated name", "-X show network.@route[1]",
            "network.cfg03c8b4=route\nnetwork.cfg03c8b4.via='two'\n");
        row("show a package", "show network",
            QByteArray(shownLan) + "network.@route[0]=route\nnetwork.@route[0].via='one'\n"
                                   "network.@route[1]=route\nnetwork.@route[1].via='two'\n");
        row("show all", "show",
            QByteArray(shownLan) + "network.@route[0]=route\nnetwork.@route[0].via='one'\n"
                                   "network.@route[1]=route\nnetwork.@route[1].via='two'\n"
                                   "system.main=system\nsystem.main.name='box'\n");
        row("get an option", "get network.lan.note", "it's\n");
        row("get a section gives its type", "get network.@route[0]", "route\n");
        row("get a list", "get network.lan.dns", "10.0.0.1 'a b'\n");
        row("get a list with a separator", "-d , get network.lan.dns", "10.0.0.1,'a b'\n");
        row("show a list with a separator", "-d , show network.lan.dns", "network.lan.dns='10.0.0.1','a b'\n");
        row("the version", "--version", "nuci " NUCI_VERSION "\n");
        row("changes, without any", "changes", "");
        row("export a package", "export network", QByteArray("package network\n") + network);
        row("export with generated names", "-n export network",
            QByteArray("package network\n") +
                QByteArray(network)
                    .replace("config route\n\toption via 'one'", "config route 'cfg02c8b4'\n\toption via 'one'")
                    .replace("config route\n\toption via 'two'", "config route 'cfg03c8b4'\n\toption via 'two'"));
        row("export without generated names", "-n -N export network", QByteArray("package network\n") + network);
        row("strict and lax reading", "-s -S get network.@route[0]", "route\n");
        row("export all", "export",
            QByteArray("package network\n") + network +
                "package system\n\nconfig system 'main'\n\toption name 'box'\n\n");
    }

    void reading()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, output);
        QCOMPARE(run(arguments), 0);
        QCOMPARE(m_output, output);
        QCOMPARE(m_errors, QByteArray());
    }

    void changing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<QByteArray>("staged");
        changeRow(
            "set", "set network.lan.proto=dhcp", "", "network.lan.proto='dhcp'\n", "network.lan.proto='dhcp'\n");
        changeRow(
            "set a section", "set network.wan=interface", "", "network.wan='interface'\n",
            "network.wan='interface'\n");
        changeRow(
            "add", "add network route", "cfg04c8b4\n", "network.cfg04c8b4='route'\n",
            "+network.cfg04c8b4='route'\n");
        changeRow(
            "add_list", "add_list network.lan.dns=x", "", "network.lan.dns+='x'\n", "|network.lan.dns='x'\n");
        changeRow(
            "del_list", "del_list network.lan.dns=10.0.0.1", "", "network.lan.dns-='10.0.0.1'\n",
            "~network.lan.dns='10.0.0.1'\n");
        changeRow(
            "delete an option", "delete network.lan.proto", "", "-network.lan.proto\n", "-network.lan.proto\n");
        changeRow(
            "delete a section", "delete network.@route[0]", "", "-network.cfg02c8b4\n", "-network.cfg02c8b4\n");
        changeRow(
            "delete an item", "delete network.lan.dns=0", "", "-network.lan.dns='0'\n", "-network.lan.dns='0'\n");
        changeRow(
            "rename", "rename network.@route[0]=first", "", "@network.cfg02c8b4='first'\n",
            "@network.cfg02c8b4='first'\n");
        changeRow("reorder", "reorder network.lan=2", "", "^network.lan='2'\n", "^network.lan='2'\n");
        changeRow(
            "several at once", "set network.lan.a=1 network.lan.b=2", "", "network.lan.a='1'\nnetwork.lan.b='2'\n",
            "network.lan.a='1'\nnetwork.lan.b='2'\n");
    }

    void changing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, output);
        QFETCH(QByteArray, changes);
        QFETCH(QByteArray, staged);
        QCOMPARE(run(arguments), 0);
        QCOMPARE(m_output, output);
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(read("save/network"), staged);
        QCOMPARE(read("config/network"), QByteArray(network));
        QCOMPARE(run(words("changes")), 0);
        QCOMPARE(m_output, changes);
        QCOMPARE(run(words("changes network")), 0);
        QCOMPARE(m_output, changes);
        QCOMPARE(run(words("revert network")), 0);
        QCOMPARE(read("save/network"), QByteArray());
    }

    /** They apply again when the package file has the section again. */
    void stagedChangesThatDoNotApplyAreListed()
    {
        const QByteArray staged = "network.wan.proto='dhcp'\n-network.lan.none\n@network.wan='other'\n"
                                  "network.lan.proto='dhcp'\n";
        m_directory->writeFile(QLatin1String("save/network"), staged);
        QCOMPARE(run(words("changes")), 0);
        QCOMPARE(m_output, staged);
        QCOMPARE(run(words("changes network")), 0);
        QCOMPARE(m_output, staged);
    }

    void failing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("errors");
        failRow("get a missing option", "get network.lan.none", "nuci: Entry not found\n");
        failRow("get of a missing package", "get none.lan.none", "nuci: Entry not found\n");
        failRow("show a missing section", "show network.none", "nuci: Entry not found\n");
        failRow("get of a package", "get network", "nuci: Invalid argument\n");
        failRow("get with a value", "get network.lan=x", "nuci: Invalid argument\n");
        failRow("a bad section", "get network.la-n", "nuci: Invalid argument\n");
        failRow("a bad option", "get network.lan.a-b", "nuci: Parse error\n");
        failRow("set of an option of a missing section", "set network.none.a=1", "nuci: Invalid argument\n");
        failRow("set without a value", "set network.lan.a", "nuci: Invalid argument\n");
        failRow("add of a bad type", "add network \xc3\xa4", "nuci: Invalid argument\n");
        failRow("add to a section", "add network.lan x", "nuci: Invalid argument\n");
        failRow("delete of a missing option", "delete network.lan.none", "nuci: Entry not found\n");
        failRow("rename of a missing section", "rename network.none=x", "nuci: Entry not found\n");
        failRow("reorder of a missing section", "reorder network.none=1", "nuci: Entry not found\n");
        failRow("reorder to a position that is not a number", "reorder network.lan=x", "nuci: Invalid argument\n");
        failRow("commit of a section", "commit network.lan", "nuci: Invalid argument\n");
        failRow("commit of a missing package", "commit none", "nuci: Entry not found\n");
        failRow("export of a section", "export network.lan", "nuci: Invalid argument\n");
        failRow("import to a path", "import ../network", "nuci: Invalid argument\n");
        failRow("import to a section", "import network.lan", "nuci: Invalid argument\n");
        failRow("import into a section", "-m import network.lan", "nuci: Invalid argument\n");
        failRow(
            "import from a missing file", "-f /nonexistent import network",
            "nuci: /nonexistent: No such file or directory\n");
    }

    void failing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, errors);
        QCOMPARE(run(arguments), 1);
        QCOMPARE(m_output, QByteArray());
        QCOMPARE(m_errors, errors);
        QCOMPARE(run(QStringList(QLatin1String("-q")) + arguments), 1);
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(read("config/network"), QByteArray(network));
        QCOMPARE(read("save/network"), QByteArray("(missing)"));
    }

    void invalidCommandLineShowsTheUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("nothing") << QStringList();
        QTest::newRow("an unknown command") << words("frobnicate");
        QTest::newRow("too few arguments") << words("add network");
        QTest::newRow("too many arguments") << words("get network.lan network.lan");
        QTest::newRow("an unknown option") << words("-Y show");
    }

    void invalidCommandLineShowsTheUsage()
    {
        QFETCH(QStringList, arguments);
        QCOMPARE(run(arguments), 255);
        QCOMPARE(m_output, QByteArray());
        QVERIFY(m_errors.contains("Usage: nuci [<options>] <command> [<arguments>]\n"));
    }

    void helpIsPrintedOnStandardOutput_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("long") << words("--help");
        QTest::newRow("short") << words("-h");
    }

    void helpIsPrintedOnStandardOutput()
    {
        QFETCH(QStringList, arguments);
        QCOMPARE(run(arguments), 0);
        QVERIFY(m_output.startsWith("Usage: nuci [<options>] <command> [<arguments>]\n"));
        QVERIFY(m_output.contains("\n    batch\n"));
        QCOMPARE(m_errors, QByteArray());
    }

    /** Only blanks, tabs and line ends are quoted; an empty item has no text. */
    void itemsOfListsAreQuotedIfTheyHaveBlanks()
    {
        m_directory->writeFile(
            QLatin1String("config/lists"), "config t s\n\tlist l 'a,b'\n\tlist l 'a\tb'\n\tlist l \"it's a\"\n"
                                           "\tlist l 'a\nb'\n\tlist l \"it's\"\n\tlist l ''\n\tlist l 'x#\"y'\n");
        QCOMPARE(run(words("get lists.s.l")), 0);
        QCOMPARE(m_output, QByteArray("a,b 'a\tb' 'it'\\''s a' 'a\nb' it's  x#\"y\n"));
        QCOMPARE(run(words("-d ; get lists.s.l")), 0);
        QCOMPARE(m_output, QByteArray("a,b;'a\tb';'it'\\''s a';'a\nb';it's;;x#\"y\n"));
    }

    void batchRunsTheCommandsOfItsInput_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("errors");
        QTest::addColumn<QByteArray>("staged");
        batchRow("nothing", "", "", "", "(missing)");
        batchRow("a command", "get network.lan.proto\n", "static\n", "", "(missing)");
        batchRow("no line end", "get network.lan.proto", "static\n", "", "(missing)");
        batchRow(
            "changes and what they give",
            "set network.lan.proto=dhcp\nget network.lan.proto\nadd network route\nchanges network\n",
            "dhcp\ncfg04c8b4\nnetwork.lan.proto='dhcp'\nnetwork.cfg04c8b4='route'\n", "",
            "network.lan.proto='dhcp'\n+network.cfg04c8b4='route'\n");
        batchRow(
            "comments, blank lines and blanks", "# a comment\n\n\t get \t network.lan.proto # another one\n",
            "static\n", "", "(missing)");
        batchRow(
            "quotes, also over several lines",
            "set network.lan.a='two words' \"network.lan.b=two\nlines\"\nget network.lan.b\n", "two\nlines\n", "",
            "network.lan.a='two words'\nnetwork.lan.b='two\nlines'\n");
        batchRow(
            "failures do not end it",
            "get network.lan.none\nbogus x\nget\nbatch\nset network.none.a=1\nset network.lan.a=1\n", "",
            "nuci: Entry not found\nnuci: Unknown command: bogus\nnuci: Unknown command: get\n"
            "nuci: Unknown command: batch\nnuci: Invalid argument\n",
            "network.lan.a='1'\n");
        batchRow(
            "exit ends it", "get network.lan.proto\nexit\nset network.lan.a=1\n", "static\n", "", "(missing)");
        batchRow(
            "an open quote", "get network.lan.proto\nset 'network.lan.a=1\n", "static\n", "nuci: Parse error\n",
            "(missing)");
        batchRow(
            "a NUL byte", QByteArray("get network\0.lan\nget network.lan.proto\n", 39), "static\n",
            "nuci: Parse error\n", "(missing)");
    }

    void batchRunsTheCommandsOfItsInput()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, output);
        QFETCH(QByteArray, errors);
        QFETCH(QByteArray, staged);
        QCOMPARE(run(words("batch"), input), 0);
        QCOMPARE(m_output, output);
        QCOMPARE(m_errors, errors);
        QCOMPARE(read("save/network"), staged);
        QFile::remove(m_directory->filePath(QLatin1String("save/network")));
        m_directory->writeFile(QLatin1String("commands"), input);
        const QStringList file = QStringList()
                                 << QLatin1String("-q") << QLatin1String("-f")
                                 << m_directory->filePath(QLatin1String("commands")) << QLatin1String("batch");
        QCOMPARE(run(file), 0);
        QCOMPARE(m_output, output);
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(read("save/network"), staged);
    }

    void batchImportsTheRestOfItsInput()
    {
        QCOMPARE(
            run(words("batch"),
                "set system.main.name=other\nget network.lan.proto\nimport network\nconfig a 'b'\n"),
            0);
        QCOMPARE(m_output, QByteArray("static\n"));
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(read("config/network"), QByteArray("\nconfig a 'b'\n\n"));
        QCOMPARE(read("config/system"), QByteArray("config system main\n\toption name box\n"));
        QCOMPARE(read("save/system"), QByteArray("system.main.name='other'\n"));
    }

    /** A change whose staging failed must not be staged by a later command. */
    void batchForgetsWhatFailed()
    {
        m_directory->writeFile(QLatin1String("none"), "a file");
        const QStringList save = QStringList()
                                 << QLatin1String("-t") << m_directory->filePath(QLatin1String("none"));
        QCOMPARE(run(save + words("batch"), "set network.lan.proto=dhcp\nget network.lan.proto\n"), 0);
        QCOMPARE(m_output, QByteArray("static\n"));
        QCOMPARE(m_errors, QByteArray("nuci: I/O error\n"));
    }

    void batchFromAMissingFileFails()
    {
        QCOMPARE(run(words("-f /nonexistent batch")), 1);
        QCOMPARE(m_errors, QByteArray("nuci: /nonexistent: No such file or directory\n"));
    }

    void commitWritesThePackage()
    {
        QCOMPARE(run(words("set network.lan.proto=dhcp")), 0);
        QCOMPARE(run(words("set system.main.name=other")), 0);
        QCOMPARE(run(words("commit network")), 0);
        QVERIFY(read("config/network").contains("\toption proto 'dhcp'\n"));
        QCOMPARE(read("save/network"), QByteArray());
        QCOMPARE(read("config/system"), QByteArray("config system main\n\toption name box\n"));
        QCOMPARE(run(words("commit")), 0);
        QCOMPARE(read("config/system"), QByteArray("\nconfig system 'main'\n\toption name 'other'\n\n"));
    }

    void revertDropsChangesOfAnOptionOrASection()
    {
        QCOMPARE(run(words("set network.lan.a=1 network.lan.b=2 network.wan=interface")), 0);
        QCOMPARE(run(words("revert network.lan.a")), 0);
        QCOMPARE(read("save/network"), QByteArray("network.lan.b='2'\nnetwork.wan='interface'\n"));
        QCOMPARE(run(words("revert network.lan")), 0);
        QCOMPARE(read("save/network"), QByteArray("network.wan='interface'\n"));
    }

    void importReplacesThePackage()
    {
        QCOMPARE(run(words("import network"), "config a 'b'\n\toption c 'd'\n"), 0);
        QCOMPARE(read("config/network"), QByteArray("\nconfig a 'b'\n\toption c 'd'\n\n"));
    }

    void importCreatesThePackagesThatItsTextNames()
    {
        QCOMPARE(run(words("import"), "package x\nconfig a 'b'\npackage y\nconfig c 'd'\n"), 0);
        QCOMPARE(read("config/x"), QByteArray("\nconfig a 'b'\n\n"));
        QCOMPARE(read("config/y"), QByteArray("\nconfig c 'd'\n\n"));
    }

    void importMergesIfAsked()
    {
        QCOMPARE(run(words("-m import system"), "config system main\n\toption a '1'\n\tlist l x\nconfig t\n"), 0);
        QCOMPARE(
            read("save/system"), QByteArray("system.main.a='1'\n|system.main.l='x'\n+system.cfg02b619='t'\n"));
        QCOMPARE(read("config/system"), QByteArray("config system main\n\toption name box\n"));
    }

    void importThatMergesCreatesAMissingPackage()
    {
        QCOMPARE(run(words("-m import new"), "config a 'b'\n\toption c 'd'\n"), 0);
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(read("config/new"), QByteArray("\nconfig a 'b'\n\toption c 'd'\n\n"));
        QCOMPARE(read("save/new"), QByteArray("(missing)"));
    }

    void malformedImportChangesNothing()
    {
        QCOMPARE(run(words("import network"), "rubbish\n"), 1);
        QCOMPARE(m_errors, QByteArray("nuci: Parse error (invalid command) at line 1\n"));
        QCOMPARE(read("config/network"), QByteArray(network));
    }

    void exportedPackagesCanBeImported()
    {
        QCOMPARE(run(words("export network")), 0);
        const QByteArray exported = m_output;
        QFile::remove(m_directory->filePath(QLatin1String("config/network")));
        QCOMPARE(run(words("import"), exported), 0);
        QCOMPARE(read("config/network"), QByteArray(network));
    }

    void stagedChangesOfAnotherDirectoryAreRead()
    {
        m_directory->writeFile(QLatin1String("more/network"), "network.lan.proto='none'\n");
        const QString more = m_directory->filePath(QLatin1String("more"));
        QCOMPARE(run(QStringList() << QLatin1String("-p") << more << words("get network.lan.proto")), 0);
        QCOMPARE(m_output, QByteArray("none\n"));
        QCOMPARE(run(QStringList() << QLatin1String("-P") << more << words("set network.lan.a=1")), 0);
        QCOMPARE(read("more/network"), QByteArray("network.lan.proto='none'\nnetwork.lan.a='1'\n"));
        QCOMPARE(read("save/network"), QByteArray("(missing)"));
    }

    void stateInADirectoryOfItsOwnIsNotCommitted_data()
    {
        QTest::addColumn<QStringList>("command");
        QTest::newRow("a package") << words("commit network");
        QTest::newRow("all packages") << words("commit");
    }

    void stateInADirectoryOfItsOwnIsNotCommitted()
    {
        QFETCH(QStringList, command);
        m_directory->writeFile(QLatin1String("state/network"), "network.lan.up='1'\n");
        m_directory->writeFile(QLatin1String("save/network"), "network.lan.a='1'\n");
        const QStringList state = QStringList()
                                  << QLatin1String("-P") << m_directory->filePath(QLatin1String("state"));
        const QStringList save = QStringList()
                                 << QLatin1String("-t") << m_directory->filePath(QLatin1String("save"));
        QCOMPARE(run(state + command), 0);
        QCOMPARE(run(state + save + command), 0);
        QCOMPARE(m_output + m_errors, QByteArray());
        QCOMPARE(read("config/network"), QByteArray(network));
        QCOMPARE(read("state/network"), QByteArray("network.lan.up='1'\n"));
        QCOMPARE(read("save/network"), QByteArray("network.lan.a='1'\n"));
        QCOMPARE(run(state + words("commit none")), 1);
        QCOMPARE(m_errors, QByteArray("nuci: Entry not found\n"));
    }

    /** It may be on a disk that is not mounted yet. */
    void missingConfigurationDirectoryIsAnError_data()
    {
        QTest::addColumn<QStringList>("command");
        for (const char* command : {"show", "commit", "changes", "export"})
            QTest::newRow(command) << words(command);
    }

    void missingConfigurationDirectoryIsAnError()
    {
        QFETCH(QStringList, command);
        const QStringList config = QStringList()
                                   << QLatin1String("-c") << m_directory->filePath(QLatin1String("missing"));
        QCOMPARE(run(config + command), 1);
        QCOMPARE(m_output, QByteArray());
        QCOMPARE(m_errors, QByteArray("nuci: Entry not found\n"));
        m_directory->writeFile(QLatin1String("missing"), "a file");
        QCOMPARE(run(config + command), 1);
        QCOMPARE(m_errors, QByteArray("nuci: I/O error\n"));
        m_directory->writeFile(QLatin1String("empty/.keep"), QByteArray());
        const QStringList empty = QStringList()
                                  << QLatin1String("-c") << m_directory->filePath(QLatin1String("empty"));
        QCOMPARE(run(empty + command), 0);
    }

    void malformedPackageDoesNotHideTheOthers()
    {
        m_directory->writeFile(QLatin1String("config/bad"), "rubbish\n");
        m_directory->writeFile(QLatin1String("config/network"), "config t x\n");
        QCOMPARE(run(words("show")), 1);
        QCOMPARE(m_output, QByteArray("network.x=t\nsystem.main=system\nsystem.main.name='box'\n"));
        QCOMPARE(m_errors, QByteArray("nuci: Parse error (invalid command) at line 1\n"));
    }

    /** "a.b" is the section b of the package a, and "a=b" the package a with a value. */
    void filesWithoutAPackageNameAreSkipped()
    {
        m_directory->writeFile(QLatin1String("config/network.bak"), network);
        m_directory->writeFile(QLatin1String("config/network=old"), network);
        QCOMPARE(run(words("show system.main")), 0);
        const QByteArray system = m_output;
        QFile::remove(m_directory->filePath(QLatin1String("config/network")));
        QCOMPARE(run(words("show")), 0);
        QCOMPARE(m_output, system);
        QCOMPARE(m_errors, QByteArray());
        QCOMPARE(run(words("set system.main.name=other")), 0);
        QCOMPARE(run(words("commit")), 0);
        QVERIFY(read("config/system").contains("\toption name 'other'\n"));
    }

    void packagesOfTheOverridingDirectoryTakePrecedence()
    {
        m_directory->writeFile(QLatin1String("over/system"), "config system main\n\toption name over\n");
        const QString over = m_directory->filePath(QLatin1String("over"));
        const QStringList before = QStringList() << QLatin1String("-C") << over;
        QCOMPARE(run(before + words("get system.main.name")), 0);
        QCOMPARE(m_output, QByteArray("over\n"));
        QCOMPARE(run(words("get system.main.name")), 0);
        QCOMPARE(m_output, QByteArray("box\n"));
        QCOMPARE(run(before + words("set system.main.name=other")), 0);
        QCOMPARE(run(before + words("commit system")), 0);
        QCOMPARE(read("over/system"), QByteArray("\nconfig system 'main'\n\toption name 'other'\n\n"));
        QCOMPARE(read("config/system"), QByteArray("config system main\n\toption name box\n"));
    }

private:
    static QStringList words(const char* text) { return QString::fromUtf8(text).split(QLatin1Char(' ')); }

    static void row(const char* name, const char* arguments, const QByteArray& output)
    {
        QTest::newRow(name) << words(arguments) << output;
    }

    static void
    changeRow(const char* name, const char* arguments, const char* output, const char* changes, const char* staged)
    {
        QTest::newRow(name) << words(arguments) << QByteArray(output) << QByteArray(changes) << QByteArray(staged);
    }

    static void
    batchRow(const char* name, const QByteArray& input, const char* output, const char* errors, const char* staged)
    {
        QTest::newRow(name) << input << QByteArray(output) << QByteArray(errors) << QByteArray(staged);
    }

    static void failRow(const char* name, const char* arguments, const char* errors)
    {
        QTest::newRow(name) << words(arguments) << QByteArray(errors);
    }

    /** Runs the command on the directories of this test. @return its exit status. */
    int run(const QStringList& arguments, const QByteArray& input = QByteArray())
    {
        QProcess process;
        QStringList all;
        all << QLatin1String("-c") << m_directory->filePath(QLatin1String("config"));
        all << QLatin1String("-t") << m_directory->filePath(QLatin1String("save"));
        all << arguments;
        process.start(QLatin1String(NUCI_PROGRAM), all);
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit)
            return -1;
        m_output = process.readAllStandardOutput();
        m_errors = process.readAllStandardError();
        return process.exitCode();
    }

    QByteArray read(const char* name) const
    {
        QFile file(m_directory->filePath(QLatin1String(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
    }

    QScopedPointer<NTemporaryDirectory> m_directory;
    QByteArray m_output;
    QByteArray m_errors;
};

QTEST_MAIN(TestNuci)
#include "tst_nuci.moc"
