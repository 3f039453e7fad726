#include <nbase/network/nnetworkpingfcgirequestprocessor.h>

#include <nbase/network/nnetworkping.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwawebsession.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>

namespace {

const quint32 DefaultCount = 0;
const quint32 DefaultTimeout = 5;
const quint32 DefaultDelay = 1;

} // namespace

NNetworkPingFcgiRequestProcessor::NNetworkPingFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent)
    : NNetworkRunnerFcgiRequestProcessor(identifier, sessions, parent)
{
}

NNetworkPingFcgiRequestProcessor::~NNetworkPingFcgiRequestProcessor() {}

bool NNetworkPingFcgiRequestProcessor::canDoPingTestWithSession(NwaWebSession*) const
{
    return true;
}

NNetworkPing* NNetworkPingFcgiRequestProcessor::startPing(
    const NwaWebSession* session, const QString& host, quint32 count, quint32 timeout, quint32 delay)
{
    QPointer<NNetworkPing> ping(qobject_cast<NNetworkPing*>(runner(session->id())));
    if (!ping) {
        if (!hasRoom())
            return nullptr;
        ping = new NNetworkPing(this);
        connect(
            ping, SIGNAL(pingResult(bool,quint32,quint32,quint32,quint32,quint32,quint32,quint32)),
                         SLOT(pingEvent()));
        connect(ping, SIGNAL(started(QString,quint32,quint32,quint32)), SLOT(pingEvent()));
        connect(ping, SIGNAL(stopped()), SLOT(pingEvent()));
        addRunner(session->id(), ping);
    }
    if (ping->isRunning())
        return nullptr;
    ping->start(host, count, timeout, delay);
    return ping;
}

QVariantMap NNetworkPingFcgiRequestProcessor::pingStatusToVariantMap(const NNetworkPing* ping) const
{
    QVariantMap parameters;
    parameters.insert(latin1("host"), ping->host());
    parameters.insert(latin1("count"), ping->count());
    parameters.insert(latin1("timeout"), ping->timeout());
    parameters.insert(latin1("delay"), ping->delay());

    QVariantMap statistics;
    statistics.insert(latin1("sent"), ping->sentNb());
    statistics.insert(latin1("good"), ping->goodNb());
    statistics.insert(latin1("fastest"), ping->fastest());
    statistics.insert(latin1("slowest"), ping->slowest());
    statistics.insert(latin1("meanTime"), ping->meanTime());

    QVariantMap status;
    status.insert(latin1("started"), ping->isRunning());
    status.insert(latin1("parameters"), parameters);
    status.insert(latin1("statistics"), statistics);
    if (ping->sentNb() == 0)
        return status;

    QVariantMap last;
    last.insert(latin1("good"), ping->isGood());
    last.insert(latin1("ttl"), ping->ttl());
    last.insert(latin1("replyTime"), ping->replyTime());
    status.insert(latin1("last"), last);
    return status;
}

bool NNetworkPingFcgiRequestProcessor::pingParametersFromVariant(
    const QVariant& variant, QString& host, quint32& count, quint32& timeout, quint32& delay)
{
    QVariantMap parameters;
    return NwaJsonUtilities::objectValue(variant, parameters) && hostFromVariantMap(parameters, host) &&
           NwaJsonUtilities::integerValue(parameters, latin1("count"), count, DefaultCount) &&
           NwaJsonUtilities::integerValue(parameters, latin1("timeout"), timeout, DefaultTimeout) &&
           timeout >= 1 && NwaJsonUtilities::integerValue(parameters, latin1("delay"), delay, DefaultDelay) &&
           delay >= 1;
}

bool NNetworkPingFcgiRequestProcessor::getPingParameters(
    NwaFcgiRequest* request, QString& host, quint32& count, quint32& timeout, quint32& delay) const
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return false;
    if (pingParametersFromVariant(document, host, count, timeout, delay))
        return true;
    refuseRequest(request, NwaFcgiRequest::BadRequest);
    return false;
}

void NNetworkPingFcgiRequestProcessor::pingEvent()
{
    const NNetworkPing* const ping = qobject_cast<NNetworkPing*>(sender());
    if (ping)
        emit pingEvent(sessionId(ping), ping);
}

bool NNetworkPingFcgiRequestProcessor::canTestWithSession(NwaWebSession* session) const
{
    return canDoPingTestWithSession(session);
}

void NNetworkPingFcgiRequestProcessor::startTest(NwaFcgiRequest* request, const NwaWebSession* session)
{
    QString host;
    quint32 count = 0;
    quint32 timeout = 0;
    quint32 delay = 0;
    if (!getPingParameters(request, host, count, timeout, delay) ||
        !requireStartable(request, session, latin1("ping")))
        return;
    const NNetworkPing* const ping = startPing(session, host, count, timeout, delay);
    // A receiver of the event has ended the session, and perhaps deleted this object.
    if (!ping)
        return refuseRequest(request, NwaFcgiRequest::Unauthorized);
    sendJsonReply(request, pingStatusToVariantMap(ping));
}

bool NNetworkPingFcgiRequestProcessor::isRunning(const QObject* runner) const
{
    return static_cast<const NNetworkPing*>(runner)->isRunning();
}

void NNetworkPingFcgiRequestProcessor::stop(QObject* runner)
{
    static_cast<NNetworkPing*>(runner)->stop();
}

QVariantMap NNetworkPingFcgiRequestProcessor::statusToVariantMap(const QObject* runner) const
{
    return pingStatusToVariantMap(static_cast<const NNetworkPing*>(runner));
}
