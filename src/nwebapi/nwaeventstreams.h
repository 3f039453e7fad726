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
 * Each event has a number, a type and a JSON document. The last events of a session are kept, so that a page whose
 * connection breaks gets those that it has missed when it connects again, which EventSource does by itself. When
 * some are not kept any more, it first gets an event of the type "missed", and should read the state anew.
 *
 * A stream ends with its session and with the client. When the session opens another one, the earlier gets an
 * event of the type "replaced" and ends; its page must not connect again. A client that takes so little that
 * events it has yet to get are no longer kept is disconnected, and so is one that takes nothing
 * (NwaFcgiLimits::stallTimeout). In quiet times a comment is sent as a heartbeat. A stream does not keep its
 * session from expiring.
 *
 * The web server must pass on a reply as it comes (lighttpd: server.stream-response-body = 2).
 */
class NWEBAPI_EXPORT NwaEventStreams : public QObject
{
    Q_OBJECT

public:
    /** The default time between heartbeats, in seconds. */
    static const int DefaultHeartbeatInterval = 15;

    /** How many bytes of events are kept for a session by default. */
    static const int DefaultKeptSize = 32 * 1024;

    /** For how many seconds events are kept after the end of a stream by default. */
    static const int DefaultKeptTime = 60;

    /** @param sessionManager has the sessions; not owned, and must outlive this object. */
    NwaEventStreams(NwaWebSessionManager* sessionManager, QObject* parent);

    /** Ends all streams. */
    ~NwaEventStreams() override;

    /** @param seconds below 1 become 1. */
    void setHeartbeatInterval(int seconds);

    /** @param size the bytes kept for a session; the latest event is always kept. */
    void setKeptSize(int size);

    /** @param seconds below 0 become 0. */
    void setKeptTime(int seconds);

    /**
     * Answers @a request with the stream of @a session. It begins after the event that the request names
     * ("Last-Event-ID"), otherwise with the next event.
     * @param request becomes this object's.
     */
    void open(NwaFcgiRequest* request, const NwaWebSession* session);

    /**
     * Sends an event to the session @a sessionId; does nothing when it has had no stream for the kept time.
     * @param type a word, by which the page distinguishes events.
     * @param document see NwaJson::serialize().
     */
    void send(const QUuid& sessionId, const QByteArray& type, const QVariant& document);

    /** Sends an event to all sessions with a stream. */
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
        QSharedPointer<NwaEventHistory> history;
        QPointer<NwaEventStreamSource> source; ///< null when no stream is open
        int heartbeatsWithout;                 ///< how many heartbeats no stream has been open for
    };

    typedef QMap<QUuid, Stream> Streams;

    void append(Stream& stream, const QByteArray& type, const QByteArray& document);

    QTimer m_heartbeat;
    int m_keptSize;
    int m_keptTime;
    quint64 m_latestNumber; ///< of all sessions' events
    Streams m_streams;      ///< no hash: Qt 4.8 has none for QUuid
};

#endif
