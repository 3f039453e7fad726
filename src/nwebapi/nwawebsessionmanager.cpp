#include <nwebapi/nwawebsessionmanager.h>

#include <nwebapi/nwarandom_p.h>
#include <nwebapi/nwawebsession.h>

#include <QtCore/QPointer>

#include <limits>

namespace {

// A random UUID (RFC 9562, section 5.4), or a null one when the generator fails: an identifier must never be
// predictable.
QUuid randomIdentifier()
{
    uchar bytes[16];
    if (!NwaRandom::fill(bytes, sizeof(bytes)))
        return QUuid();
    bytes[6] = (bytes[6] & 0x0f) | 0x40; // version 4
    bytes[8] = (bytes[8] & 0x3f) | 0x80; // variant of the RFC
    const uint first = uint(bytes[0]) << 24 | uint(bytes[1]) << 16 | uint(bytes[2]) << 8 | bytes[3];
    const ushort second = ushort(bytes[4] << 8 | bytes[5]);
    const ushort third = ushort(bytes[6] << 8 | bytes[7]);
    return QUuid(
        first, second, third, bytes[8], bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14],
        bytes[15]);
}

} // namespace

const int NwaWebSessionManager::DefaultIdleTimeout;
const int NwaWebSessionManager::DefaultMaximumSessionCount;

NwaWebSessionManager::NwaWebSessionManager(QObject* parent)
    : QObject(parent)
    , m_idleTimeout(DefaultIdleTimeout)
    , m_maximumSessionCount(DefaultMaximumSessionCount)
    , m_isClosing(false)
    , m_isMakingRoom(false)
{
    m_clock.start();
    m_expiryTimer.setSingleShot(true);
    connect(&m_expiryTimer, SIGNAL(timeout()), SLOT(removeExpiredSessions()));
}

NwaWebSessionManager::~NwaWebSessionManager()
{
    m_isClosing = true;
    while (!m_idleOrder.empty())
        endSession(m_idleOrder.front());
    // The remaining sessions are being ended: a slot of aboutToRemove() deletes the manager.
    qDeleteAll(m_sessions);
}

int NwaWebSessionManager::idleTimeout() const
{
    return m_idleTimeout;
}

void NwaWebSessionManager::setIdleTimeout(int seconds)
{
    m_idleTimeout = qMax(1, seconds);
    scheduleExpiry();
}

int NwaWebSessionManager::maximumSessionCount() const
{
    return m_maximumSessionCount;
}

void NwaWebSessionManager::setMaximumSessionCount(int count)
{
    m_maximumSessionCount = qMax(1, count);
}

NwaWebSession* NwaWebSessionManager::createSession()
{
    // A slot that makes a session for each one that ends would never let this finish.
    if (m_isClosing || m_isMakingRoom)
        return nullptr;
    const QUuid id = randomIdentifier();
    if (id.isNull() || m_sessions.contains(id) || !makeRoom())
        return nullptr;

    NwaWebSession* session = new NwaWebSession(id);
    session->m_lastActivity = m_clock.elapsed();
    session->m_position = m_idleOrder.insert(m_idleOrder.end(), session);
    m_sessions.insert(id, session);
    if (!m_expiryTimer.isActive())
        scheduleExpiry();
    return session;
}

NwaWebSession* NwaWebSessionManager::session(const QUuid& id) const
{
    NwaWebSession* session = m_sessions.value(id);
    // The timer may be late when the event loop is busy.
    if (session && !session->m_isEnding && isExpired(session))
        return nullptr;
    return session;
}

void NwaWebSessionManager::keepAlive(NwaWebSession* session)
{
    if (!session || session->m_isEnding || isExpired(session))
        return;
    session->m_lastActivity = m_clock.elapsed();
    m_idleOrder.splice(m_idleOrder.end(), m_idleOrder, session->m_position);
    // The timer is not changed: when it fires too early, it finds nothing to do and is restarted.
}

void NwaWebSessionManager::removeSession(const QUuid& id)
{
    NwaWebSession* session = m_sessions.value(id);
    if (session && !session->m_isEnding)
        endSession(session);
}

int NwaWebSessionManager::sessionCount() const
{
    return m_sessions.size();
}

void NwaWebSessionManager::removeExpiredSessions()
{
    while (!m_idleOrder.empty() && isExpired(m_idleOrder.front())) {
        if (!endSession(m_idleOrder.front()))
            return;
    }
    scheduleExpiry();
}

bool NwaWebSessionManager::isExpired(const NwaWebSession* session) const
{
    return m_clock.elapsed() - session->m_lastActivity >= qint64(m_idleTimeout) * 1000;
}

void NwaWebSessionManager::scheduleExpiry()
{
    if (m_idleOrder.empty()) {
        m_expiryTimer.stop();
        return;
    }
    const qint64 expiry = m_idleOrder.front()->m_lastActivity + qint64(m_idleTimeout) * 1000;
    const qint64 interval = qBound(qint64(0), expiry - m_clock.elapsed(), qint64(std::numeric_limits<int>::max()));
    m_expiryTimer.start(int(interval));
}

// Returns whether the manager still exists afterwards.
bool NwaWebSessionManager::makeRoom()
{
    m_isMakingRoom = true;
    while (int(m_idleOrder.size()) >= m_maximumSessionCount) {
        if (!endSession(m_idleOrder.front()))
            return false;
    }
    m_isMakingRoom = false;
    return true;
}

// Returns whether the manager still exists afterwards.
bool NwaWebSessionManager::endSession(NwaWebSession* session)
{
    const QUuid id = session->id();
    session->m_isEnding = true;
    m_idleOrder.erase(session->m_position);

    const QPointer<NwaWebSessionManager> self(this);
    emit aboutToRemove(id);
    if (self.isNull())
        return false;
    delete m_sessions.take(id);
    return true;
}
