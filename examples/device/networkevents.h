#ifndef DEMODEVICE_NETWORKEVENTS_H
#define DEMODEVICE_NETWORKEVENTS_H

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QUuid>

class NNetworkPing;
class NNetworkPingFcgiRequestProcessor;
class NNetworkPingFcgiService;
class NNetworkTraceroute;
class NNetworkTracerouteFcgiRequestProcessor;
class NNetworkTracerouteFcgiService;
class NwaEventStreams;

/**
 * Sends what happens to the ping and the traceroute of a session to the session's event stream.
 *
 * An event "ping" is the whole state, as GET of the service replies with it.
 *
 * An event "traceroute" has the members of the state, but instead of "result" only what the command has written
 * since the last event: "text", and "position", the number of characters before it. The text may grow to 1 MB,
 * while the streams keep 8 KiB for a session, and a slow link would carry the whole of it again for each probe. A
 * longer piece is left out: an event without "text" says that the page must read the state.
 */
class NetworkEvents : public QObject
{
    Q_OBJECT

public:
    /** How many characters of text an event has at most. */
    static const int MaximumTextSize = 4096;

    /** @param streams is not owned, and must outlive this object. */
    explicit NetworkEvents(NwaEventStreams* streams);

    /** @{ Passes on the events of @a service, whose requests @a processor answers. */
    void follow(NNetworkPingFcgiService* service, const NNetworkPingFcgiRequestProcessor* processor);
    void follow(NNetworkTracerouteFcgiService* service, const NNetworkTracerouteFcgiRequestProcessor* processor);
    /** @} */

private slots:
    void sendPing(const QUuid& sessionId, const NNetworkPing* ping);
    void sendTraceroute(const QUuid& sessionId, const NNetworkTraceroute* traceroute);
    void forget(QObject* runner);

private:
    Q_DISABLE_COPY(NetworkEvents)

    struct Runner
    {
        QUuid sessionId;
        int sentSize = 0; ///< how much of a traceroute's text has been sent
    };

    Runner& runner(const QUuid& sessionId, const QObject* runner);

    NwaEventStreams* m_streams;
    const NNetworkPingFcgiRequestProcessor* m_pings;
    const NNetworkTracerouteFcgiRequestProcessor* m_traceroutes;
    QMap<const QObject*, Runner> m_runners;
};

#endif
