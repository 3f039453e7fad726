#include "ucistore.h"

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <QtTest/QtTest>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int rounds = 10000;

/** Ends a child process with a message. */
void fail(const char* what, const QByteArray& section, int round, int result)
{
    std::fprintf(stderr, "%s (section %s, round %d, result %d)\n", what, section.constData(), round, result);
    _exit(1);
}

/** Changes one section of the package repeatedly, and compares what is read with what was committed. */
class Writer
{
public:
    Writer(const QString& path, const QByteArray& section)
        : m_store(path)
        , m_section(section)
        , m_known(0)
        , m_round(0)
    {
    }

    void run()
    {
        for (m_round = 1; m_round <= rounds; ++m_round) {
            check("set", m_store.set(place() + '=' + QByteArray::number(m_round)));
            switch (m_round % 4) {
            case 0:
                stageAndRevert();
                break;
            case 1:
                stageReopenAndCommit();
                break;
            default:
                commit();
            }
        }
        _exit(0);
    }

private:
    QByteArray place() const { return "network." + m_section + ".n"; }

    void check(const char* what, int result) const
    {
        if (result != UCI_OK)
            fail(what, m_section, m_round, result);
    }

    void expect(int value)
    {
        const int found = m_store.value(place()).toInt();
        if (found != value)
            fail("a committed value is lost", m_section, m_round, found);
        m_known = value;
    }

    void commit()
    {
        check("commit", m_store.commit("network"));
        expect(m_round);
    }

    void stageReopenAndCommit()
    {
        check("save", m_store.save("network"));
        m_store.reopen();
        expect(m_round);
        check("commit of the staged change", m_store.commit("network"));
        expect(m_round);
    }

    /** Between the two calls the other process may commit the staged change. */
    void stageAndRevert()
    {
        check("save", m_store.save("network"));
        check("revert", m_store.revert("network." + m_section));
        m_store.reopen();
        const int found = m_store.value(place()).toInt();
        expect(found == m_round ? m_round : m_known);
    }

    UciStore m_store;
    QByteArray m_section;
    int m_known;
    int m_round;
};

pid_t start(const QString& path, const QByteArray& section)
{
    const pid_t child = fork();
    if (child == 0) {
        Writer writer(path, section);
        writer.run();
    }
    return child;
}

} // namespace

/** Two processes that change one package at the same time. */
class TestUciProcesses : public QObject
{
    Q_OBJECT

private slots:
    void concurrentCommitsLoseNothingAndLeaveNoHalfFile()
    {
        NTemporaryDirectory directory;
        NPrivateNamespace::mountEmptyDirectory(directory.path());
        {
            UciStore store(directory.path());
            store.writeConfig("network", "\nconfig t 'a'\n\toption n '0'\n\nconfig t 'b'\n\toption n '0'\n\n");
            pid_t running[2] = {start(directory.path(), "a"), start(directory.path(), "b")};
            int left = 2;
            int reads = 0;
            while (left > 0) {
                int status = 0;
                const pid_t ended = waitpid(-1, &status, WNOHANG);
                if (ended > 0) {
                    QVERIFY(ended == running[0] || ended == running[1]);
                    QCOMPARE(status, 0);
                    --left;
                }
                store.reopen();
                uci_package* package = nullptr;
                QCOMPARE(uci_load(store.context(), "network", &package), int(UCI_OK));
                QVERIFY(!store.value("network.a.n").isEmpty());
                QVERIFY(!store.value("network.b.n").isEmpty());
                ++reads;
            }
            QVERIFY(reads > 1);
            store.reopen();
            QCOMPARE(store.commit("network"), int(UCI_OK));
            /* The last round of each process reverts, so that the value may be that of the round before. */
            QVERIFY(store.value("network.a.n").toInt() >= rounds - 1);
            QVERIFY(store.value("network.b.n").toInt() >= rounds - 1);
        }
        NPrivateNamespace::unmount(directory.path());
    }
};

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, TestUciProcesses, NPrivateNamespace::Mounts)
#include "tst_uciprocesses.moc"
