#ifndef NBASE_TESTS_NTESTWAIT_H
#define NBASE_TESTS_NTESTWAIT_H

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

/** Waiting for a condition with the event loop running, which Qt 4's QtTest does not have. */
namespace NTest {

/**
 * Runs the event loop until @a condition holds.
 * @param timeout in milliseconds; reached only by a test that fails.
 * @return whether the condition holds.
 */
template <typename Condition> bool waitUntil(Condition condition, int timeout = 30000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.hasExpired(timeout))
            return false;
        QTest::qWait(5);
    }
    return true;
}

} // namespace NTest

/** Fails the test unless @a expression becomes true while the event loop runs. */
#define NTRY_VERIFY(expression) QVERIFY(NTest::waitUntil([&]() { return bool(expression); }))

/** Fails the test unless @a actual becomes equal to @a expected while the event loop runs. */
#define NTRY_COMPARE(actual, expected) \
    do { \
        NTest::waitUntil([&]() { return (actual) == (expected); }); \
        QCOMPARE(actual, expected); \
    } while (0)

#endif
