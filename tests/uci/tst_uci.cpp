#include <uci.h>

#include "support/ntemporarydirectory.h"

#include <QtCore/QFile>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

Q_DECLARE_METATYPE(QList<QByteArray>)

namespace {

const char text[] = "package network\n"
                    "\n"
                    "config interface 'lan'\n"
                    "\toption ip '192.168.1.1'\n"
                    "\tlist dns '10.0.0.1'\n"
                    "\tlist dns '10.0.0.2'\n"
                    "\n"
                    "config route\n"
                    "\toption via 'lan'\n"
                    "\n";

struct FreeContext
{
    static void cleanup(uci_context* context) { uci_free_context(context); }
};

/** Everything that a call writes to a stream. */
template <typename Call> QByteArray written(Call call)
{
    char* data = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    call(stream);
    std::fclose(stream);
    const QByteArray result(data, int(size));
    std::free(data);
    return result;
}

} // namespace

/** The parts of the public interface that the recorded vectors do not cover: macros, streams, texts of errors. */
class TestUci : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_directory.reset(new NTemporaryDirectory);
        m_directory->writeFile(QLatin1String("config/network"), text);
        m_directory->writeFile(QLatin1String("save/.keep"), QByteArray());
        m_context.reset(uci_alloc_context());
        uci_set_confdir(m_context.data(), path("config").constData());
        uci_set_savedir(m_context.data(), path("save").constData());
    }

    void cleanup()
    {
        m_context.reset();
        m_directory.reset();
    }

    void aNewContextHasTheDefaults()
    {
        QScopedPointer<uci_context, FreeContext> context(uci_alloc_context());
        QCOMPARE(QByteArray(context->confdir), QByteArray("/etc/config"));
        QCOMPARE(QByteArray(context->savedir), QByteArray("/tmp/.uci"));
        QVERIFY(uci_list_empty(&context->root));
        QVERIFY((context->flags & UCI_FLAG_STRICT) && (context->flags & UCI_FLAG_SAVED_DELTA));
        QCOMPARE(QByteArray(context->backend->e.name), QByteArray("file"));
        QCOMPARE(int(context->backend->e.type), int(UCI_TYPE_BACKEND));
        QCOMPARE(uci_to_backend(&context->backend->e), context->backend);
    }

    void macrosIterateOverTheLists()
    {
        uci_package* package = load("network");
        uci_element *e, *next;
        QList<QByteArray> names;
        uci_foreach_element(&package->sections, e) names << uci_to_section(e)->type;
        QCOMPARE(
            names, QList<QByteArray>() << "interface"
                                       << "route");
        uci_section* lan = uci_to_section(list_to_element(package->sections.next));
        names.clear();
        uci_foreach_element_safe(&lan->options, next, e) names << e->name;
        QCOMPARE(
            names, QList<QByteArray>() << "ip"
                                       << "dns");
        QCOMPARE(container_of(&lan->e, uci_section, e), lan);
        QCOMPARE(lan->package, package);
        QCOMPARE(package->ctx, m_context.data());
    }

    void inlineLookupsReturnTheElementOrNull()
    {
        uci_package* package = load("network");
        QCOMPARE(uci_lookup_package(m_context.data(), "network"), package);
        QVERIFY(!uci_lookup_package(m_context.data(), "system"));
        uci_section* lan = uci_lookup_section(m_context.data(), package, "lan");
        QVERIFY(lan);
        QVERIFY(!uci_lookup_section(m_context.data(), package, "wan"));
        QVERIFY(uci_lookup_option(m_context.data(), lan, "dns"));
        QVERIFY(!uci_lookup_option(m_context.data(), lan, "none"));
        QCOMPARE(QByteArray(uci_lookup_option_string(m_context.data(), lan, "ip")), QByteArray("192.168.1.1"));
        QVERIFY(!uci_lookup_option_string(m_context.data(), lan, "dns"));
    }

    void lookupNextFindsAllElementsOfAName()
    {
        load("network");
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "lan";
        ptr.option = "dns";
        ptr.value = "10.0.0.1";
        QCOMPARE(uci_add_list(m_context.data(), &ptr), int(UCI_OK));
        uci_list* items = &ptr.o->v.list;
        uci_element* first = nullptr;
        QCOMPARE(uci_lookup_next(m_context.data(), &first, items, "10.0.0.1"), int(UCI_OK));
        QCOMPARE(&first->list, items->next);
        uci_element* e = first;
        QCOMPARE(uci_lookup_next(m_context.data(), &e, items, "10.0.0.1"), int(UCI_OK));
        QCOMPARE(&e->list, items->prev);
        QVERIFY(e != first);
        QCOMPARE(uci_lookup_next(m_context.data(), &e, items, "10.0.0.1"), int(UCI_ERR_NOTFOUND));
    }

    void exportWritesWhatImportReads()
    {
        uci_package* package = load("network");
        QCOMPARE(
            written([&](FILE* stream) { uci_export(m_context.data(), stream, package, true); }), QByteArray(text));
        QCOMPARE(
            written([&](FILE* stream) { uci_export(m_context.data(), stream, nullptr, true); }), QByteArray(text));
        QCOMPARE(
            written([&](FILE* stream) { uci_export(m_context.data(), stream, package, false); }),
            QByteArray(text + sizeof("package network")));
    }

    void importReadsPackageNamesFromPackageLines()
    {
        uci_package* last = nullptr;
        QCOMPARE(import("package one\nconfig t a\npackage two\nconfig t b\n", nullptr, &last, false), int(UCI_OK));
        QCOMPARE(QByteArray(last->e.name), QByteArray("two"));
        QVERIFY(uci_lookup_package(m_context.data(), "one"));
        QCOMPARE(uci_commit(m_context.data(), &last, true), int(UCI_OK));
        QCOMPARE(read("config/two"), QByteArray("\nconfig t 'b'\n\n"));
#ifdef NBASE_OWN_UCI
        QVERIFY(last->has_delta);
#endif
    }

    void importOfASinglePackageUsesTheGivenName()
    {
        uci_package* package = nullptr;
        QCOMPARE(import("package one\nconfig t a\npackage two\nconfig t b\n", "all", &package, true), int(UCI_OK));
        QCOMPARE(QByteArray(package->e.name), QByteArray("all"));
        QVERIFY(uci_lookup_section(m_context.data(), package, "a"));
        QVERIFY(uci_lookup_section(m_context.data(), package, "b"));
    }

    void importRefuses_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("result");
        QTest::newRow("malformed text") << QByteArray("nonsense\n") << QByteArray("new") << int(UCI_ERR_PARSE);
        QTest::newRow("sections of no package") << QByteArray("config t\n") << QByteArray() << int(UCI_ERR_PARSE);
        QTest::newRow("a package that is loaded")
            << QByteArray("config t\n") << QByteArray("network") << int(UCI_ERR_DUPLICATE);
#ifdef NBASE_OWN_UCI
        QTest::newRow("a path") << QByteArray("config t\n") << QByteArray("../new") << int(UCI_ERR_INVAL);
#endif
        QTest::newRow("a bad name") << QByteArray("config t\n") << QByteArray("a b") << int(UCI_ERR_INVAL);
    }

    void importRefuses()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, name);
        QFETCH(int, result);
        load("network");
        QCOMPARE(import(input.constData(), name.isEmpty() ? nullptr : name.constData(), nullptr, false), result);
        QVERIFY(!uci_lookup_package(m_context.data(), "new"));
    }

    void errorTextsContainThePosition()
    {
        m_directory->writeFile(QLatin1String("config/bad"), "config t\n\toption a 'x\ny'\n\toption b 1 2\n");
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_context.data(), "none", &package), int(UCI_ERR_NOTFOUND));
        QCOMPARE(errorText("prefix"), QByteArray("prefix: Entry not found"));
        QCOMPARE(errorText(nullptr), QByteArray("Entry not found"));
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        QVERIFY(!package);
#ifdef NBASE_OWN_UCI
        QCOMPARE(errorText("prefix"), QByteArray("prefix: Parse error (too many arguments) at line 4"));
#endif
    }

    void eachPackageIsListedOnce()
    {
        m_directory->writeFile(QLatin1String("config/system"), "");
        m_directory->writeFile(QLatin1String("config/.hidden"), "");
        m_directory->writeFile(QLatin1String("config/sub/inner"), "");
        m_directory->writeFile(QLatin1String("over/system"), "");
        m_directory->writeFile(QLatin1String("over/wireless"), "");
        uci_set_conf2dir(m_context.data(), path("over").constData());
        char** list = nullptr;
        QCOMPARE(uci_list_configs(m_context.data(), &list), int(UCI_OK));
        QList<QByteArray> names;
        for (char** name = list; *name; ++name)
            names << *name;
        std::free(list);
        std::sort(names.begin(), names.end());
        QCOMPARE(
            names, QList<QByteArray>() << "network"
                                       << "system"
                                       << "wireless");
    }

    void filesOfTheSecondDirectoryTakePrecedence()
    {
        m_directory->writeFile(QLatin1String("over/network"), "config t 'x'\n");
        uci_set_conf2dir(m_context.data(), path("over").constData());
        uci_package* package = load("network");
        QVERIFY(package->uses_conf2);
        QVERIFY(uci_lookup_section(m_context.data(), package, "x"));
        QVERIFY(!uci_lookup_section(m_context.data(), package, "lan"));
    }

    void namesCannotLeaveTheDirectory_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("up") << QByteArray("../outside");
        QTest::newRow("only up") << QByteArray("..");
#ifdef NBASE_OWN_UCI
        QTest::newRow("down and up") << QByteArray("sub/../../outside");
#endif
        QTest::newRow("hidden") << QByteArray(".network");
    }

    void namesCannotLeaveTheDirectory()
    {
        QFETCH(QByteArray, name);
        m_directory->writeFile(QLatin1String("outside"), "config t 'x'\n");
        m_directory->writeFile(QLatin1String("config/sub/x"), "");
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_context.data(), name.constData(), &package), int(UCI_ERR_NOTFOUND));
        uci_ptr ptr = uci_ptr();
        ptr.package = name.constData();
        QCOMPARE(uci_lookup_ptr(m_context.data(), &ptr, nullptr, true), int(UCI_ERR_NOTFOUND));
    }

#ifdef NBASE_OWN_UCI /* libuci has no defined behaviour here */
    void emptySectionNamesAreRefused()
    {
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "";
        ptr.value = "interface";
        QCOMPARE(uci_set(m_context.data(), &ptr), int(UCI_ERR_INVAL));
    }

    void listsWithoutAnOptionNameAreRefused()
    {
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "lan";
        ptr.value = "x";
        QCOMPARE(uci_add_list(m_context.data(), &ptr), int(UCI_ERR_INVAL));
        QCOMPARE(uci_del_list(m_context.data(), &ptr), int(UCI_ERR_INVAL));
    }

    /** A caller may reuse the place after deleting the option: the call must not act on its section then. */
    void placesKeepTheirNamesWhenTheirElementIsDeleted()
    {
        load("network");
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "lan";
        ptr.option = "ip";
        QCOMPARE(uci_lookup_ptr(m_context.data(), &ptr, nullptr, true), int(UCI_OK));
        QCOMPARE(uci_delete(m_context.data(), &ptr), int(UCI_OK));
        QVERIFY(!ptr.o);
        ptr.value = "10.0.0.1";
        QCOMPARE(uci_set(m_context.data(), &ptr), int(UCI_OK));
        QCOMPARE(QByteArray(ptr.s->type), QByteArray("interface"));
        QCOMPARE(QByteArray(ptr.o->v.string), QByteArray("10.0.0.1"));
    }

    /** The names of these places are owned by the elements, and freed with them. */
    void placesWithoutOwnNamesMatchNothingAfterADeletion_data()
    {
        QTest::addColumn<QByteArray>("place");
        QTest::addColumn<bool>("byHandle");
        QTest::addColumn<QByteArray>("section");
        QTest::newRow("an option by handle") << QByteArray("network.lan.ip") << true << QByteArray();
        QTest::newRow("an option by handle, its section by name")
            << QByteArray("network.lan.ip") << true << QByteArray("lan");
        QTest::newRow("a section by handle") << QByteArray("network.lan") << true << QByteArray();
        QTest::newRow("a section by string") << QByteArray("network.@route[0]") << false << QByteArray();
    }

    void placesWithoutOwnNamesMatchNothingAfterADeletion()
    {
        for (int reverted = 0; reverted < 2; ++reverted) {
            init();
            reusePlaceOfDeletedElement(reverted != 0);
        }
    }
#endif

    /** The generated name is in use before it is known what the other program adds. */
    void sectionsAddedByTwoProgramsAtTheSameTime_data()
    {
        QTest::addColumn<bool>("named");
        QTest::addColumn<QByteArray>("added");
        QTest::newRow("without names, they become one")
            << false << QByteArray("config route\n\toption via 'theirs'\n\n");
        QTest::newRow("with names of their own, they stay two")
            << true
            << QByteArray("config route 'ours'\n\toption via 'ours'\n\n"
                          "config route 'theirs'\n\toption via 'theirs'\n\n");
    }

    void sectionsAddedByTwoProgramsAtTheSameTime()
    {
        QFETCH(bool, named);
        QFETCH(QByteArray, added);
        const QByteArray before = "config route\n\toption via 'lan'\n\n";
        QScopedPointer<uci_context, FreeContext> other(uci_alloc_context());
        uci_set_confdir(other.data(), path("config").constData());
        uci_set_savedir(other.data(), path("save").constData());
        uci_package* theirs = nullptr;
        QCOMPARE(uci_load(other.data(), "network", &theirs), int(UCI_OK));
        uci_package* ours = load("network");
        addRoute(ours, "ours", named);
        addRoute(theirs, "theirs", named);
        QCOMPARE(uci_commit(m_context.data(), &ours, false), int(UCI_OK));
        QCOMPARE(uci_commit(other.data(), &theirs, false), int(UCI_OK));
        const QByteArray file = read("config/network");
        QCOMPARE(file.mid(file.indexOf(before) + before.size()), added);
    }

    void stagedChangesAreListed()
    {
        uci_package* package = load("network");
        uci_ptr ptr = uci_ptr();
        ptr.package = "network";
        ptr.section = "lan";
        ptr.option = "ip";
        ptr.value = "1";
        QCOMPARE(uci_set(m_context.data(), &ptr), int(UCI_OK));
        QVERIFY(uci_list_empty(&package->saved_delta));
        uci_delta* delta = uci_to_delta(list_to_element(package->delta.next));
        QCOMPARE(int(delta->cmd), int(UCI_CMD_CHANGE));
        QCOMPARE(QByteArray(delta->section), QByteArray("lan"));
        QCOMPARE(QByteArray(delta->e.name), QByteArray("ip"));
        QCOMPARE(QByteArray(delta->value), QByteArray("1"));
        QCOMPARE(uci_save(m_context.data(), package), int(UCI_OK));
        QVERIFY(uci_list_empty(&package->delta));
        QVERIFY(!uci_list_empty(&package->saved_delta));
    }

    void deltaDirectoriesAreAddedOnceAndReadBeforeTheStagingDirectory()
    {
        m_directory->writeFile(QLatin1String("more/network"), "network.lan.ip='2'\nnetwork.lan.a='2'\n");
        m_directory->writeFile(QLatin1String("save/network"), "network.lan.ip='3'\n");
        QCOMPARE(uci_add_delta_path(m_context.data(), path("more").constData()), int(UCI_OK));
        QCOMPARE(uci_add_delta_path(m_context.data(), path("more").constData()), int(UCI_ERR_DUPLICATE));
        uci_section* lan = uci_lookup_section(m_context.data(), load("network"), "lan");
        QCOMPARE(QByteArray(uci_lookup_option_string(m_context.data(), lan, "ip")), QByteArray("3"));
        QCOMPARE(QByteArray(uci_lookup_option_string(m_context.data(), lan, "a")), QByteArray("2"));
    }

    void wordsAreReadFromAText()
    {
        QByteArray line("one 'two words' \"thr\\\"ee\"");
        char* position = line.data();
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), nullptr, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("one"));
        QCOMPARE(uci_parse_argument(m_context.data(), nullptr, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("two words"));
        QCOMPARE(uci_parse_argument(m_context.data(), nullptr, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("thr\"ee"));
    }

#ifdef NBASE_OWN_UCI /* the behaviour of libuci is not documented here */
    void wordsAreReadFromAStream_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QList<QByteArray>>("words");
        const QByteArray longWord(1000, 'x');
        QByteArray manyLines;
        for (int i = 0; i < 100000; ++i)
            manyLines += "a\n";
        wordsRow(
            "lines", "one two\nthree\n",
            QList<QByteArray>() << "one"
                                << "three");
        wordsRow("a line longer than a block", longWord + "\nnext\n", QList<QByteArray>() << longWord << "next");
        wordsRow(
            "no newline at the end", "one\ntwo",
            QList<QByteArray>() << "one"
                                << "two");
        wordsRow(
            "single quotes", "a'b\n\nc'd e\nnext\n",
            QList<QByteArray>() << "ab\n\ncd"
                                << "next");
        wordsRow(
            "double quotes", "a\"b\n'\\\"\\\nc\"d\nnext\n",
            QList<QByteArray>() << "ab\n'\"cd"
                                << "next");
        wordsRow(
            "a backslash", "a\\\nb\nnext\n",
            QList<QByteArray>() << "ab"
                                << "next");
        wordsRow(
            "a backslash before a blank", "a\\\n b\nnext\n",
            QList<QByteArray>() << "a"
                                << "next");
        wordsRow("a backslash at the end", "a\\\n", QList<QByteArray>() << "a");
        wordsRow(
            "a backslash in a comment", "a # b\\\nnext\n",
            QList<QByteArray>() << "a"
                                << "next");
        wordsRow("many lines", "'" + manyLines + "'\nnext\n", QList<QByteArray>() << manyLines << "next");
    }

    void wordsAreReadFromAStream()
    {
        QFETCH(QByteArray, input);
        QFETCH(QList<QByteArray>, words);
        FILE* stream = fmemopen(input.data(), size_t(input.size()), "r");
        for (const QByteArray& expected : words) {
            char* position = nullptr;
            char* word = nullptr;
            QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
            QCOMPARE(QByteArray(word), expected);
        }
        char* position = nullptr;
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QVERIFY(!word);
        std::fclose(stream);
    }

    void theRestOfALineIsKeptForTheNextCall()
    {
        char input[] = "'a\nb' two\n'three\nlines\nlong' four\n";
        FILE* stream = fmemopen(input, sizeof(input) - 1, "r");
        char* position = nullptr;
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("a\nb"));
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("two"));
        position = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("three\nlines\nlong"));
        QCOMPARE(QByteArray(position), QByteArray("four\n"));
        std::fclose(stream);
    }

    /** In memory checkers, copying the rest of the line onto itself is an error. */
    void theRestOfALineIsReadWhereItIs_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QList<QByteArray>>("words");
        QList<QByteArray> numbers;
        QByteArray line;
        for (int i = 0; i < 1000; ++i) {
            numbers << QByteArray::number(i);
            line += "  " + numbers.last();
        }
        wordsRow("many words", line + '\n', numbers);
        wordsRow(
            "quotes and escapes", "one 'two words' \"thr\\\"ee\" fo'u'r\n",
            QList<QByteArray>() << "one"
                                << "two words"
                                << "thr\"ee"
                                << "four");
        wordsRow(
            "a word that continues on the next line", "one 'two\n" + QByteArray(1000, 'x') + "' three\n",
            QList<QByteArray>() << "one"
                                << "two\n" + QByteArray(1000, 'x') << "three");
        wordsRow(
            "a comment, which is an empty word", "one # two\n",
            QList<QByteArray>() << "one"
                                << "");
    }

    void theRestOfALineIsReadWhereItIs()
    {
        QFETCH(QByteArray, input);
        QFETCH(QList<QByteArray>, words);
        FILE* stream = fmemopen(input.data(), size_t(input.size()), "r");
        char* position = nullptr;
        char* word = nullptr;
        QList<QByteArray> found;
        do {
            QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
            found << word;
        } while (*position);
        std::fclose(stream);
        QCOMPARE(found, words);
    }

    void aWordCanContinueInTheStream()
    {
        char input[] = "b' c\n";
        FILE* stream = fmemopen(input, sizeof(input) - 1, "r");
        QByteArray line("'a\n");
        char* position = line.data();
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("a\nb"));
        QCOMPARE(QByteArray(position), QByteArray("c\n"));
        position = line.data();
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_ERR_PARSE));
        QVERIFY(!word);
        std::fclose(stream);
    }

    void linesWithNulBytesAreMalformed_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::newRow("at its beginning") << QByteArray("\0one\nnext\n", 10);
        QTest::newRow("within a word") << QByteArray("on\0e\nnext\n", 10);
        QTest::newRow("before its end") << QByteArray("one\0\nnext\n", 10);
        QTest::newRow("on the second line of a word") << QByteArray("'o\nn\0e'\nnext\n", 13);
    }

    void linesWithNulBytesAreMalformed()
    {
        QFETCH(QByteArray, input);
        FILE* stream = fmemopen(input.data(), size_t(input.size()), "r");
        char* position = nullptr;
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_ERR_PARSE));
        QVERIFY(!word);
        QVERIFY(!position);
        QCOMPARE(uci_parse_argument(m_context.data(), stream, &position, &word), int(UCI_OK));
        QCOMPARE(QByteArray(word), QByteArray("next"));
        std::fclose(stream);
    }

    void quotesThatAreNotClosedAreReportedWhereTheyOpen_data()
    {
        QTest::addColumn<QByteArray>("word");
        QTest::newRow("the name of a section") << QByteArray("config t 'a");
        QTest::newRow("the type of a section") << QByteArray("config \"t");
        QTest::newRow("a value") << QByteArray("option b 'x");
        QTest::newRow("the second part of a value") << QByteArray("option b 'x'\\''\"y");
        QTest::newRow("the name of an option") << QByteArray("list 'b");
        QTest::newRow("the name of a package") << QByteArray("package 'b");
        QTest::newRow("a word too many") << QByteArray("option b x 'y");
    }

    void quotesThatAreNotClosedAreReportedWhereTheyOpen()
    {
        QFETCH(QByteArray, word);
        const QByteArray before = "config t s\n\toption a 'x\ny'\n";
        m_directory->writeFile(QLatin1String("config/bad"), before + word + "\n\n\toption c d\n\n");
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error (unterminated quote) at line 4"));
        m_directory->writeFile(QLatin1String("config/bad"), before + word);
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error (unterminated quote) at line 4"));
    }

    /** The position of an error in a file must not be reported for a string that is looked up later. */
    void errorsInStringsHaveNoPosition()
    {
        m_directory->writeFile(QLatin1String("config/bad"), "rubbish\n");
        uci_package* package = nullptr;
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error (invalid command) at line 1"));
        char place[] = "network.lan.a-b";
        uci_ptr ptr;
        QCOMPARE(uci_lookup_ptr(m_context.data(), &ptr, place, true), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error"));
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        char other[] = "network.lan.a-b";
        QCOMPARE(uci_parse_ptr(m_context.data(), &ptr, other), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error"));
        QCOMPARE(uci_load(m_context.data(), "bad", &package), int(UCI_ERR_PARSE));
        char open[] = "'open";
        char* position = open;
        char* word = nullptr;
        QCOMPARE(uci_parse_argument(m_context.data(), nullptr, &position, &word), int(UCI_ERR_PARSE));
        QCOMPARE(errorText(nullptr), QByteArray("Parse error"));
    }
#endif

    void typesCannotContainBlanks()
    {
        QVERIFY(uci_validate_text("wifi-iface.x"));
        QVERIFY(!uci_validate_text("a b"));
        QVERIFY(!uci_validate_text("\xc3\xa4"));
        QVERIFY(!uci_validate_text("a\n"));
    }

    void parseSectionFindsOptionsByNameAndType()
    {
        uci_section* lan = uci_lookup_section(m_context.data(), load("network"), "lan");
        const uci_parse_option wanted[] = {
            {"dns", UCI_TYPE_LIST}, {"none", UCI_TYPE_STRING}, {"ip", UCI_TYPE_STRING}};
        uci_option* found[3];
        uci_parse_section(lan, wanted, 3, found);
        QCOMPARE(QByteArray(found[0]->e.name), QByteArray("dns"));
        QVERIFY(!found[1]);
        QCOMPARE(QByteArray(found[2]->e.name), QByteArray("ip"));
        const quint32 before = uci_hash_options(found, 3);
        QCOMPARE(uci_hash_options(found, 3), before);
        uci_ptr ptr = uci_ptr();
        ptr.s = lan;
        ptr.option = "ip";
        ptr.value = "192.168.1.2";
        QCOMPARE(uci_set(m_context.data(), &ptr), int(UCI_OK));
        QVERIFY(uci_hash_options(found, 3) != before);
    }

    /** Enough elements for a hash table, which has to follow each change of a name. */
    void manyElementsAreFoundByName()
    {
        QByteArray input("config t s\n");
        for (int i = 0; i < 1000; ++i)
            input += "option o" + QByteArray::number(i) + " " + QByteArray::number(i) + "\n";
        for (int i = 0; i < 1000; ++i)
            input += "config t s" + QByteArray::number(i) + "\n";
        m_directory->writeFile(QLatin1String("config/many"), input);
        uci_package* package = load("many");
        for (int i = 0; i < 1000; ++i) {
            const QByteArray number = QByteArray::number(i);
            uci_section* s = uci_lookup_section(m_context.data(), package, ("s" + number).constData());
            QVERIFY(s);
            uci_ptr ptr = uci_ptr();
            ptr.s = s;
            ptr.section = s->e.name;
            const QByteArray renamed = "r" + number;
            ptr.value = renamed.constData();
            QCOMPARE(i % 2 ? uci_rename(m_context.data(), &ptr) : uci_delete(m_context.data(), &ptr), int(UCI_OK));
            uci_section* first = uci_lookup_section(m_context.data(), package, "s");
            QCOMPARE(
                QByteArray(uci_lookup_option_string(m_context.data(), first, ("o" + number).constData())), number);
        }
        for (int i = 0; i < 1000; ++i) {
            const QByteArray number = QByteArray::number(i);
            QVERIFY(!uci_lookup_section(m_context.data(), package, ("s" + number).constData()));
            QCOMPARE(!uci_lookup_section(m_context.data(), package, ("r" + number).constData()), i % 2 == 0);
        }
    }

    void onlyTheFileBackendExists()
    {
        QCOMPARE(uci_set_backend(m_context.data(), "file"), int(UCI_OK));
        QCOMPARE(uci_set_backend(m_context.data(), "none"), int(UCI_ERR_NOTFOUND));
    }

private:
    /** Adds a section with one option, which has the value @a via. */
    static void addRoute(uci_package* package, const char* via, bool named)
    {
        uci_ptr ptr = uci_ptr();
        ptr.p = package;
        ptr.section = via;
        ptr.value = "route";
        if (named)
            QCOMPARE(uci_set(package->ctx, &ptr), int(UCI_OK));
        else
            QCOMPARE(uci_add_section(package->ctx, package, "route", &ptr.s), int(UCI_OK));
        ptr.section = ptr.s->e.name;
        ptr.option = "via";
        ptr.value = via;
        QCOMPARE(uci_set(package->ctx, &ptr), int(UCI_OK));
    }

    void reusePlaceOfDeletedElement(bool reverted)
    {
        QFETCH(QByteArray, place);
        QFETCH(bool, byHandle);
        QFETCH(QByteArray, section);
        uci_ptr ptr;
        QByteArray string = place;
        QCOMPARE(uci_lookup_ptr(m_context.data(), &ptr, string.data(), true), int(UCI_OK));
        if (byHandle) {
            const uci_ptr found = ptr;
            ptr = uci_ptr();
            ptr.s = found.o ? nullptr : found.s;
            ptr.o = found.o;
            ptr.section = section.isNull() ? nullptr : section.constData();
        }
        QCOMPARE(reverted ? uci_revert(m_context.data(), &ptr) : uci_delete(m_context.data(), &ptr), int(UCI_OK));
        ptr.value = "other";
        QCOMPARE(uci_delete(m_context.data(), &ptr), int(UCI_ERR_NOTFOUND));
        QCOMPARE(uci_rename(m_context.data(), &ptr), int(UCI_ERR_NOTFOUND));
        uci_package* package = uci_lookup_package(m_context.data(), "network");
        const bool sectionIsDeleted = !reverted && place == "network.lan";
        QCOMPARE(!uci_lookup_section(m_context.data(), package, "lan"), sectionIsDeleted);
        QVERIFY(!uci_lookup_section(m_context.data(), package, "other"));
    }

    static void wordsRow(const char* name, const QByteArray& input, const QList<QByteArray>& words)
    {
        QTest::newRow(name) << input << words;
    }

    QByteArray path(const char* name) const
    {
        return QFile::encodeName(m_directory->filePath(QLatin1String(name)));
    }

    QByteArray read(const char* name) const
    {
        QFile file(m_directory->filePath(QLatin1String(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
    }

    uci_package* load(const char* name) const
    {
        uci_package* package = nullptr;
        if (uci_load(m_context.data(), name, &package) != UCI_OK)
            qFatal("%s cannot be loaded", name);
        return package;
    }

    int import(const char* input, const char* name, uci_package** package, bool single) const
    {
        QByteArray bytes(input);
        FILE* stream = fmemopen(bytes.data(), size_t(bytes.size()), "r");
        const int result = uci_import(m_context.data(), stream, name, package, single);
        std::fclose(stream);
        return result;
    }

    QByteArray errorText(const char* prefix) const
    {
        char* message = nullptr;
        uci_get_errorstr(m_context.data(), &message, prefix);
        const QByteArray result(message);
        std::free(message);
        return result;
    }

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<uci_context, FreeContext> m_context;
};

QTEST_MAIN(TestUci)
#include "tst_uci.moc"
