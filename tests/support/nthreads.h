#ifndef NBASE_TESTS_NTHREADS_H
#define NBASE_TESTS_NTHREADS_H

#include <atomic>
#include <thread>
#include <vector>

/**
 * Calls thread-safe operations from several threads at once. The thread sanitizer, under which the tests with the
 * label "threads" run (.ci/run), checks for races. The threads are those of the C++ library, because the sanitizer
 * does not see how Qt starts and joins its own.
 */
namespace NTest {

/**
 * Calls @a condition with each number from 0 to @a count - 1, each in a separate thread, all at the same time.
 * It must not use QtTest's macros, which belong to the thread of the test.
 * @return whether it held in all threads.
 */
template <typename Condition> bool holdsInThreads(int count, Condition condition)
{
    std::atomic<int> awaited(count);
    std::atomic<int> held(0);
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index) {
        threads.push_back(std::thread([&awaited, &held, condition, index]() {
            --awaited;
            while (awaited > 0)
                std::this_thread::yield();
            if (condition(index))
                ++held;
        }));
    }
    for (std::thread& thread : threads)
        thread.join();
    return held == count;
}

} // namespace NTest

#endif
