#ifndef NWEBAPI_NWAWEBSESSIONMANAGER_H
#define NWEBAPI_NWAWEBSESSIONMANAGER_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <QtCore/QUuid>

#include <list>

class NwaWebSession;

/**
 * The sessions of a program. A session ends when it is removed, when it has been idle for the idle timeout, or
 * when the manager is destroyed. Changes of the system's clock have no effect. Needs the event loop of its thread.
 */
class NWEBAPI_EXPORT NwaWebSessionManager : public QObject
{
    Q_OBJECT

public:
    /** The default idle timeout in seconds. */
    static const int DefaultIdleTimeout = 15 * 60;

    /** How many sessions there may be at a time by default. */
    static const int DefaultMaximumSessionCount = 1000;

    /** A manager without sessions and with the default limits. */
    explicit NwaWebSessionManager(QObject* parent = nullptr);

    /** Ends all sessions, each after aboutToRemove(); no new session can be made then. */
    ~NwaWebSessionManager() override;

    /** After how many seconds without activity a session ends. */
    int idleTimeout() const;

    /** Sets the idle timeout, also of existing sessions. @param seconds below 1 become 1. */
    void setIdleTimeout(int seconds);

    /** How many sessions there may be at a time. One more ends the one that has been idle for longest. */
    int maximumSessionCount() const;

    /**
     * Sets how many sessions there may be at a time. Excess sessions end when the next one is made.
     * @param count below 1 becomes 1.
     */
    void setMaximumSessionCount(int count);

    /**
     * Makes a session. Its identifier is a random (version 4, RFC 9562) UUID from the operating system's
     * generator.
     * @return the session, which the manager owns; null when the generator fails, when the manager is being
     * destroyed, and in a slot of aboutToRemove() for a session that ends to make room for a new one.
     */
    NwaWebSession* createSession();

    /** The session with the identifier @a id, or null when there is none that is alive. Its idle time continues.
     */
    NwaWebSession* session(const QUuid& id) const;

    /** Restarts the idle time of @a session, unless it has expired. */
    void keepAlive(NwaWebSession* session);

    /** Ends the session with the identifier @a id; does nothing when there is none. */
    void removeSession(const QUuid& id);

    /** How many sessions there are, including those that are being ended. */
    int sessionCount() const;

signals:
    /**
     * The session is about to end; session() still finds it. A slot may make, remove and keep alive other
     * sessions, and may delete the manager.
     */
    void aboutToRemove(const QUuid& sessionId);

private slots:
    void removeExpiredSessions();

private:
    Q_DISABLE_COPY(NwaWebSessionManager)

    bool isExpired(const NwaWebSession* session) const;
    void scheduleExpiry();
    bool makeRoom();
    bool endSession(NwaWebSession* session);

    int m_idleTimeout;
    int m_maximumSessionCount;
    bool m_isClosing;
    bool m_isMakingRoom;
    QElapsedTimer m_clock;
    QTimer m_expiryTimer;
    QMap<QUuid, NwaWebSession*> m_sessions; ///< no hash: Qt 4.8 has none for QUuid
    std::list<NwaWebSession*> m_idleOrder;  ///< the session that has been idle for longest comes first
};

#endif
