#ifndef NWEBAPI_NWAEVENTSTREAMS_H
#define NWEBAPI_NWAEVENTSTREAMS_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <QtCore/QUuid>
#include <QtCore/QVariant>

class NwaEventHistory;
class NwaEventStreamSource;
class NwaFcgiRequest;
class NwaWebSession;
class NwaWebSessionManager;

/**
 * Live events for the pages of web sessions: each session may have one reply that stays open, to which the program
 * writes events as they happen. A page follows it with EventSource (WHATWG HTML, "Server-sent events").
 *
 * A processor opens the stream of a session for a GET request, and the program sends events:
 *
 *     m_streams.open(request, session);
 *     ...
 *     m_streams.send(sessionId, "ping", pingStatus);
 *
 * Each event has a number, a type and a JSON document. The latest events of a session are kept, so that a page
 * whose connection breaks gets those that it has missed when it connects again, which EventSource does by itself.
 * A new stream begins with an event of the type "begin", and one that continues after events that are no longer
 * kept with "missed": then the page should read the state. The numbers increase, but are not consecutive.
 *
 * A stream ends with its session, after the events sent so far, and with its client. When the session opens
 * another one, the earlier stream gets an event of the type "replaced" and ends; its page must not connect again,
 * or the two would replace each other without end. A client that is so slow that events it has yet to get are no
 * longer kept is disconnected, and so is one that takes nothing for NwaFcgiLimits::stallTimeout. Events that are
 * sent without returning to the event loop should therefore not exceed the kept size. At intervals a comment is
 * sent as a heartbeat, by which a client that has gone is noticed. A stream does not keep its session from
 * expiring.
 *
 * Nothing here calls back: every operation may be called in a slot of any signal, and sessions may be removed and
 * this object deleted there. Not thread-safe.
 *
 * The web server must pass on a reply as it comes (lighttpd: server.stream-response-body = 2).
 */
class NWEBAPI_EXPORT NwaEventStreams : public QObject
{
    Q_OBJECT

public:
    /** The default time between heartbeats, in seconds. */
    static const int DefaultHeartbeatInterval = 15;

    /** How many bytes of memory the events kept for a session take by default. */
    static const int DefaultKeptSize = 8 * 1024;

    /** For how many seconds events are kept after the end of a stream by default. */
    static const int DefaultKeptTime = 60;

    /** How many sessions may have a stream by default. */
    static const int DefaultMaximumStreamCount = 100;

    /** @param sessionManager has the sessions; not owned. All streams end with it. */
    NwaEventStreams(NwaWebSessionManager* sessionManager, QObject* parent);

    /** Ends all streams. */
    ~NwaEventStreams() override;

    /** @param seconds below 1 become 1. */
    void setHeartbeatInterval(int seconds);

    /** @param size the bytes of memory for the events of a session; its latest event is always kept. */
    void setKeptSize(int size);

    /**
     * Sets for how long events are at least kept, and collected, for a session whose stream has ended; they are
     * dropped two heartbeats later at most.
     * @param seconds below 0 become 0.
     */
    void setKeptTime(int seconds);

    /**
     * Sets how many sessions may have a stream or kept events. For a further session, the events of the one whose
     * stream ended first are dropped. Streams each take a connection of the server, so the number should be well
     * below NwaFcgiLimits::connectionCount.
     * @param count below 1 becomes 1; open streams are not affected.
     */
    void setMaximumStreamCount(int count);

    /**
     * Answers @a request with the stream of @a session. It continues after the event that the request
     * names ("Last-Event-ID"); a request that names none gets the events from now on. It is answered 503 when
     * there are too many streams. To HEAD only the header is sent.
     * @param request becomes this object's.
     * @param session one of the session manager's.
     */
    void open(NwaFcgiRequest* request, const NwaWebSession* session);

    /**
     * Sends an event to the session @a sessionId. A session that has had no stream for the kept time does not get
     * it, and a stream that it opens later begins with "missed" if the page has got earlier events.
     * @param type a word by which the page distinguishes events, not "begin", "missed" or "replaced"; line ends in
     * it become blanks.
     * @param document see NwaJson::serialize().
     */
    void send(const QUuid& sessionId, const QByteArray& type, const QVariant& document);

    /** Sends an event to all sessions, see send(). The sessions share its memory. */
    void sendToAll(const QByteArray& type, const QVariant& document);

    /** How many streams are open. */
    int streamCount() const;

private slots:
    void sendHeartbeats();
    void endSession(const QUuid& sessionId);

private:
    Q_DISABLE_COPY(NwaEventStreams)

    struct Stream
    {
        Stream();

        QSharedPointer<NwaEventHistory> history;
        QPointer<NwaEventStreamSource> source; ///< null when no stream is open
        int heartbeatsWithout;                 ///< how many heartbeats no stream has been open for
    };

    typedef QMap<QUuid, Stream> Streams;

    bool makeRoom();
    void replaceStream(Stream& stream, const QByteArray& lastEventId);
    QByteArray nextEvent(const QByteArray& type, const QVariant& document);
    void append(Stream& stream, const QByteArray& event);
    bool isWanted(Stream& stream, const QUuid& sessionId) const;

    const QPointer<NwaWebSessionManager> m_sessionManager;
    QTimer m_heartbeat;
    int m_keptSize;
    int m_keptTime;
    int m_maximumStreamCount;
    quint64 m_latestNumber; ///< of all sessions' events
    Streams m_streams;      ///< no hash: Qt 4.8 has none for QUuid
};

#endif
