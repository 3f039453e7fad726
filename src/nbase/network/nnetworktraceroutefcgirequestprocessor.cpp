#include <nbase/network/nnetworktraceroutefcgirequestprocessor.h>

#include <nbase/network/nnetworktraceroute.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwawebsession.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>

NNetworkTracerouteFcgiRequestProcessor::NNetworkTracerouteFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent)
    : NNetworkRunnerFcgiRequestProcessor(identifier, sessions, parent)
{
}

NNetworkTracerouteFcgiRequestProcessor::~NNetworkTracerouteFcgiRequestProcessor() {}

bool NNetworkTracerouteFcgiRequestProcessor::canDoTracerouteTestWithSession(NwaWebSession*) const
{
    return true;
}

NNetworkTraceroute* NNetworkTracerouteFcgiRequestProcessor::startTraceroute(
    const NwaWebSession* session, const QString& host, bool printNames)
{
    QPointer<NNetworkTraceroute> traceroute(qobject_cast<NNetworkTraceroute*>(runner(session->id())));
    if (!traceroute) {
        if (!hasRoom())
            return nullptr;
        traceroute = new NNetworkTraceroute(this);
        traceroute->setMaximumResultSize(MaximumResultSize);
        connect(traceroute, SIGNAL(tracerouteResult(QString)), SLOT(tracerouteEvent()));
        connect(traceroute, SIGNAL(started(QString,bool)), SLOT(tracerouteEvent()));
        connect(traceroute, SIGNAL(stopped()), SLOT(tracerouteEvent()));
        addRunner(session->id(), traceroute);
    }
    if (traceroute->isRunning())
        return nullptr;
    traceroute->start(host, printNames);
    return traceroute;
}

QVariantMap
NNetworkTracerouteFcgiRequestProcessor::tracerouteStatusToVariantMap(const NNetworkTraceroute* traceroute) const
{
    QVariantMap parameters;
    parameters.insert(latin1("host"), traceroute->host());
    parameters.insert(latin1("printNames"), traceroute->printNames());

    QVariantMap status;
    status.insert(latin1("started"), traceroute->isRunning());
    status.insert(latin1("parameters"), parameters);
    status.insert(latin1("result"), traceroute->result());
    return status;
}

bool NNetworkTracerouteFcgiRequestProcessor::tracerouteParametersFromVariant(
    const QVariant& variant, QString& host, bool& printNames)
{
    QVariantMap parameters;
    return NwaJsonUtilities::objectValue(variant, parameters) && hostFromVariantMap(parameters, host) &&
           NwaJsonUtilities::booleanValue(parameters, latin1("printNames"), printNames);
}

bool NNetworkTracerouteFcgiRequestProcessor::getTracerouteParameters(
    NwaFcgiRequest* request, QString& host, bool& printNames) const
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return false;
    if (tracerouteParametersFromVariant(document, host, printNames))
        return true;
    refuseRequest(request, NwaFcgiRequest::BadRequest);
    return false;
}

void NNetworkTracerouteFcgiRequestProcessor::tracerouteEvent()
{
    const NNetworkTraceroute* const traceroute = qobject_cast<NNetworkTraceroute*>(sender());
    if (traceroute)
        emit tracerouteEvent(sessionId(traceroute), traceroute);
}

bool NNetworkTracerouteFcgiRequestProcessor::canTestWithSession(NwaWebSession* session) const
{
    return canDoTracerouteTestWithSession(session);
}

void NNetworkTracerouteFcgiRequestProcessor::startTest(NwaFcgiRequest* request, const NwaWebSession* session)
{
    QString host;
    bool printNames = false;
    if (!getTracerouteParameters(request, host, printNames) ||
        !requireStartable(request, session, latin1("traceroute")))
        return;
    const NNetworkTraceroute* const traceroute = startTraceroute(session, host, printNames);
    // A receiver of the event has ended the session, and perhaps deleted this object.
    if (!traceroute)
        return refuseRequest(request, NwaFcgiRequest::Unauthorized);
    sendJsonReply(request, tracerouteStatusToVariantMap(traceroute));
}

bool NNetworkTracerouteFcgiRequestProcessor::isRunning(const QObject* runner) const
{
    return static_cast<const NNetworkTraceroute*>(runner)->isRunning();
}

void NNetworkTracerouteFcgiRequestProcessor::stop(QObject* runner)
{
    static_cast<NNetworkTraceroute*>(runner)->stop();
}

QVariantMap NNetworkTracerouteFcgiRequestProcessor::statusToVariantMap(const QObject* runner) const
{
    return tracerouteStatusToVariantMap(static_cast<const NNetworkTraceroute*>(runner));
}
