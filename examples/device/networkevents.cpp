#include "networkevents.h"

#include <nbase/network/nnetworkping.h>
#include <nbase/network/nnetworkpingfcgirequestprocessor.h>
#include <nbase/network/nnetworkpingfcgiservice.h>
#include <nbase/network/nnetworktraceroute.h>
#include <nbase/network/nnetworktraceroutefcgirequestprocessor.h>
#include <nbase/network/nnetworktraceroutefcgiservice.h>

#include <nwebapi/nwaeventstreams.h>

NetworkEvents::NetworkEvents(NwaEventStreams* streams)
    : m_streams(streams)
    , m_pings(nullptr)
    , m_traceroutes(nullptr)
{
}

void NetworkEvents::follow(NNetworkPingFcgiService* service, const NNetworkPingFcgiRequestProcessor* processor)
{
    m_pings = processor;
    connect(service, SIGNAL(pingEvent(QUuid,const NNetworkPing*)), SLOT(sendPing(QUuid,const NNetworkPing*)));
}

void NetworkEvents::follow(
    NNetworkTracerouteFcgiService* service, const NNetworkTracerouteFcgiRequestProcessor* processor)
{
    m_traceroutes = processor;
    connect(
        service, SIGNAL(tracerouteEvent(QUuid,const NNetworkTraceroute*)),
                        SLOT(sendTraceroute(QUuid,const NNetworkTraceroute*)));
}

void NetworkEvents::sendPing(const QUuid& sessionId, const NNetworkPing* ping)
{
    m_streams->send(runner(sessionId, ping).sessionId, "ping", m_pings->pingStatusToVariantMap(ping));
}

void NetworkEvents::sendTraceroute(const QUuid& sessionId, const NNetworkTraceroute* traceroute)
{
    Runner& known = runner(sessionId, traceroute);
    QVariantMap event = m_traceroutes->tracerouteStatusToVariantMap(traceroute);
    const QString result = event.take(QString::fromLatin1("result")).toString();
    // A new run begins with an empty text.
    const int position = qMin(known.sentSize, result.size());
    known.sentSize = result.size();
    event.insert(QString::fromLatin1("position"), position);
    if (result.size() - position <= MaximumTextSize)
        event.insert(QString::fromLatin1("text"), result.mid(position));
    m_streams->send(known.sessionId, "traceroute", event);
}

// The last event of a runner that its client deletes names no session.
NetworkEvents::Runner& NetworkEvents::runner(const QUuid& sessionId, const QObject* runner)
{
    if (!m_runners.contains(runner))
        connect(runner, SIGNAL(destroyed(QObject*)), SLOT(forget(QObject*)));
    Runner& known = m_runners[runner];
    if (!sessionId.isNull())
        known.sessionId = sessionId;
    return known;
}

void NetworkEvents::forget(QObject* runner)
{
    m_runners.remove(runner);
}
