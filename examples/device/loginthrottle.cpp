#include "loginthrottle.h"

LoginThrottle::LoginThrottle()
    : m_waiting(0)
{
    m_clock.start();
}

int LoginThrottle::begin(const QString& address)
{
    if (!m_histories.contains(address) && m_histories.size() >= MaximumAddressCount)
        forgetOldestAddress();
    History& history = m_histories[address];
    if (history.waiting >= MaximumWaitingCount || m_waiting >= MaximumTotalWaitingCount)
        return -1;
    if (m_clock.elapsed() - history.lastFailure > MemoryDuration)
        history.failures = 0;

    // Those that wait may be wrong, too.
    const int steps = history.failures + history.waiting;
    int delay = steps > 0 ? FirstDelay : 0;
    for (int step = 1; step < steps && delay < LongestDelay; ++step)
        delay *= 2;
    ++history.waiting;
    ++m_waiting;
    return qMin<int>(delay, LongestDelay);
}

int LoginThrottle::end(const QString& address, bool succeeded)
{
    History& history = m_histories[address];
    --history.waiting;
    --m_waiting;
    history.failures = succeeded ? 0 : history.failures + 1;
    history.lastFailure = m_clock.elapsed();
    const int failures = history.failures;
    if (failures == 0 && history.waiting == 0)
        m_histories.remove(address);
    return failures;
}

void LoginThrottle::forgetOldestAddress()
{
    QHash<QString, History>::iterator oldest = m_histories.end();
    for (QHash<QString, History>::iterator each = m_histories.begin(); each != m_histories.end(); ++each) {
        const bool isOlder = oldest == m_histories.end() || each->lastFailure < oldest->lastFailure;
        if (each->waiting == 0 && isOlder)
            oldest = each;
    }
    if (oldest != m_histories.end())
        m_histories.erase(oldest);
}
