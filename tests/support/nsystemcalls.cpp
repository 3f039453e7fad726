#include "support/nsystemcalls.h"

#include "support/nsystemcalls_p.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>

namespace NSystemCalls {

std::atomic<int> watchedCalls(0);
ClockState clockState;

namespace {

const int MostRulesForOneCall = 16;
const int PathSize = 4096;

std::mutex s_mutex;
std::condition_variable s_isUnused;
Rule* s_rules = nullptr; // the last constructed first

/** Whether this thread is applying the rules to a call: the system calls that it makes for this are its own. */
__thread bool t_isDeciding = false;

bool isPath(const char* path, const QByteArray& expected)
{
    return path && expected == path;
}

/** @return where a descriptor leads, in @a buffer; null if there is none. */
const char* pathOf(int descriptor, char (&buffer)[PathSize])
{
    if (descriptor < 0)
        return nullptr;
    char link[32];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", descriptor);
    const ssize_t size = ::readlink(link, buffer, sizeof(buffer) - 1);
    if (size < 0)
        return nullptr;
    buffer[size] = '\0';
    return buffer;
}

QByteArray lastComponent(const char* path)
{
    return path ? QByteArray(path).split('/').last() : QByteArray();
}

} // namespace

Calls::Calls(int calls)
    : m_calls(calls)
    , m_descriptor(-1)
    , m_offset(-1)
    , m_hasRequest(false)
    , m_request(0)
    , m_skipped(0)
    , m_limit(std::numeric_limits<int>::max())
{
}

Calls& Calls::onPath(const QByteArray& path)
{
    m_path = path;
    return *this;
}

Calls& Calls::onDescriptor(int descriptor)
{
    m_descriptor = descriptor;
    return *this;
}

Calls& Calls::atOffset(qint64 offset)
{
    m_offset = offset;
    return *this;
}

Calls& Calls::withRequest(unsigned long request)
{
    m_hasRequest = true;
    m_request = request;
    return *this;
}

Calls& Calls::skip(int calls)
{
    m_skipped = calls;
    return *this;
}

Calls& Calls::times(int calls)
{
    m_limit = calls;
    return *this;
}

Rule::Rule(const Calls& calls)
    : m_calls(calls)
    , m_count(0)
    , m_users(0)
    , m_next(nullptr)
{
}

Rule::~Rule() {}

int Rule::count() const
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    return m_count;
}

void Rule::begin()
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    m_next = s_rules;
    s_rules = this;
    watchedCalls = watchedCalls | m_calls.m_calls;
}

void Rule::end()
{
    std::unique_lock<std::mutex> lock(s_mutex);
    int watched = 0;
    for (Rule** place = &s_rules; *place;) {
        if (*place == this) {
            *place = m_next;
            continue;
        }
        watched |= (*place)->m_calls.m_calls;
        place = &(*place)->m_next;
    }
    watchedCalls = watched;
    s_isUnused.wait(lock, [this]() { return m_users == 0; });
}

bool Rule::matches(const Invocation& invocation)
{
    if (!(m_calls.m_calls & invocation.call))
        return false;
    if (m_calls.m_descriptor >= 0 && m_calls.m_descriptor != invocation.descriptor)
        return false;
    if (m_calls.m_offset >= 0 && m_calls.m_offset != invocation.offset)
        return false;
    if (m_calls.m_hasRequest && m_calls.m_request != invocation.request)
        return false;
    if (!m_calls.m_path.isNull() && !isPath(invocation.path, m_calls.m_path) &&
        !isPath(invocation.newPath, m_calls.m_path))
        return false;
    if (m_calls.m_skipped > 0) {
        --m_calls.m_skipped;
        return false;
    }
    return m_count < m_calls.m_limit;
}

/** The rules for a call, which do not end while they are applied. */
class AppliedRules
{
public:
    explicit AppliedRules(const Invocation& invocation)
        : m_count(0)
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        for (Rule* rule = s_rules; rule && m_count < MostRulesForOneCall; rule = rule->m_next) {
            if (!rule->matches(invocation))
                continue;
            ++rule->m_count;
            ++rule->m_users;
            m_rules[m_count++] = rule;
        }
    }

    // Also runs when the thread is cancelled in a rule that blocks the call.
    ~AppliedRules()
    {
        {
            const std::lock_guard<std::mutex> lock(s_mutex);
            for (int index = 0; index < m_count; ++index)
                --m_rules[index]->m_users;
        }
        s_isUnused.notify_all();
    }

    void apply(const Invocation& invocation, Decision& decision)
    {
        for (int index = 0; index < m_count; ++index)
            m_rules[index]->apply(invocation, decision);
    }

private:
    Q_DISABLE_COPY(AppliedRules)

    Rule* m_rules[MostRulesForOneCall];
    int m_count;
};

Decision decide(Invocation& invocation)
{
    Decision decision = {false, 0, 0, std::numeric_limits<size_t>::max()};
    if (t_isDeciding)
        return decision;
    t_isDeciding = true;
    const int error = errno;
    char path[PathSize];
    if (!invocation.path)
        invocation.path = pathOf(invocation.descriptor, path);
    AppliedRules(invocation).apply(invocation, decision);
    errno = error;
    t_isDeciding = false;
    return decision;
}

Fault::Fault(const Calls& calls, int error)
    : Rule(calls)
    , m_error(error)
{
    begin();
}

Fault::~Fault()
{
    end();
}

void Fault::apply(const Invocation&, Decision& decision)
{
    if (decision.isAnswered)
        return;
    decision.isAnswered = true;
    decision.result = -1;
    decision.error = m_error;
}

ShortTransfer::ShortTransfer(const Calls& calls, size_t size)
    : Rule(calls)
    , m_size(size)
{
    begin();
}

ShortTransfer::~ShortTransfer()
{
    end();
}

void ShortTransfer::apply(const Invocation&, Decision& decision)
{
    decision.limit = std::min(decision.limit, m_size);
}

Answer::Answer(const Calls& calls, const Function& function)
    : Rule(calls)
    , m_function(function)
{
    begin();
}

Answer::~Answer()
{
    end();
}

void Answer::apply(const Invocation& invocation, Decision& decision)
{
    if (decision.isAnswered)
        return;
    errno = 0;
    decision.isAnswered = true;
    decision.result = m_function(invocation);
    decision.error = errno;
}

Notice::Notice(const Calls& calls, const Function& function)
    : Rule(calls)
    , m_function(function)
{
    begin();
}

Notice::~Notice()
{
    end();
}

void Notice::apply(const Invocation& invocation, Decision&)
{
    m_function(invocation);
}

Block::Block(const Calls& calls)
    : Rule(calls)
    , m_isReached(false)
    , m_isReleased(false)
{
    begin();
}

Block::~Block()
{
    release();
    end();
}

bool Block::waitUntilReached(int timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeout), [this]() { return m_isReached; });
}

void Block::release()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isReleased = true;
    m_changed.notify_all();
}

void Block::apply(const Invocation&, Decision&)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_isReached = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this]() { return m_isReleased; });
}

Record::Record(const Calls& calls)
    : Rule(calls)
{
    begin();
}

Record::~Record()
{
    end();
}

QList<QByteArray> Record::take()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const QList<QByteArray> calls = m_calls;
    m_calls.clear();
    return calls;
}

void Record::apply(const Invocation& invocation, Decision&)
{
    QByteArray call = invocation.name;
    if (invocation.path)
        call += ' ' + lastComponent(invocation.path);
    if (invocation.newPath)
        call += ' ' + lastComponent(invocation.newPath);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.append(call);
}

void stopClockAt(qint64 time)
{
    clockState.step = 0;
    clockState.time = time * NanosecondsPerMillisecond;
    clockState.isStopped = true;
    clockState.isSet = true;
}

void runClockFrom(qint64 time)
{
    // The difference to the machine's clock.
    clockState.isSet = false;
    struct timespec now = {0, 0};
    ::clock_gettime(CLOCK_REALTIME, &now);
    clockState.offset = time * NanosecondsPerMillisecond - nanoseconds(now);
    clockState.isStopped = false;
    clockState.isSet = true;
}

void setClockStep(qint64 milliseconds)
{
    clockState.step = milliseconds * NanosecondsPerMillisecond;
}

void resetClock()
{
    clockState.isSet = false;
    clockState.isStopped = false;
}

} // namespace NSystemCalls
