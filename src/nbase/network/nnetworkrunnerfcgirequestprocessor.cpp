#include <nbase/network/nnetworkrunnerfcgirequestprocessor.h>

#include <nbase/network/nnetworkutilities.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajsonutilities.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>

namespace {

typedef NNetworkRunnerFcgiRequestProcessor RunnerProcessor;

bool isForStateSection(const NwaFcgiRequest* request)
{
    QString section;
    return request->singleQueryParameter(RunnerProcessor::S_SECTION_FIELD_NAME, section) &&
           section == RunnerProcessor::S_STATE_SECTION_NAME;
}

} // namespace

const QString NNetworkRunnerFcgiRequestProcessor::S_STREAM_FIELD_NAME = latin1("stream");
const QString NNetworkRunnerFcgiRequestProcessor::S_SECTION_FIELD_NAME = latin1("section");
const QString NNetworkRunnerFcgiRequestProcessor::S_STATE_SECTION_NAME = latin1("state");

NNetworkRunnerFcgiRequestProcessor::NNetworkRunnerFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent)
    : QObject(parent)
    , NwaStandardFcgiRequestProcessor(identifier)
    , m_maximumRunnerCount(DefaultMaximumRunnerCount)
{
    setServedMethods(GetMethod | PostMethod | DeleteMethod);
    connect(sessions, SIGNAL(aboutToRemove(QUuid)), SLOT(sessionAboutToRemove(QUuid)));
}

NNetworkRunnerFcgiRequestProcessor::~NNetworkRunnerFcgiRequestProcessor() {}

int NNetworkRunnerFcgiRequestProcessor::maximumRunnerCount() const
{
    return m_maximumRunnerCount;
}

void NNetworkRunnerFcgiRequestProcessor::setMaximumRunnerCount(int count)
{
    m_maximumRunnerCount = count;
}

void NNetworkRunnerFcgiRequestProcessor::sessionAboutToRemove(const QUuid& sessionId)
{
    delete m_runners.take(sessionId);
}

void NNetworkRunnerFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (!isForStateSection(request))
        return processNotAllowedMethod(request);
    processGetMethodForStateSection(request);
}

void NNetworkRunnerFcgiRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    if (!isForStateSection(request))
        return processNotAllowedMethod(request);
    const NwaWebSession* const session = authenticateRequestAndCheckAccessRights(request);
    if (session)
        startTest(request, session);
}

void NNetworkRunnerFcgiRequestProcessor::processDeleteMethod(NwaFcgiRequest* request)
{
    if (!isForStateSection(request))
        return processNotAllowedMethod(request);
    processDeleteMethodForStateSection(request);
}

void NNetworkRunnerFcgiRequestProcessor::processGetMethodForStateSection(NwaFcgiRequest* request)
{
    const NwaWebSession* const session = authenticateRequestAndCheckAccessRights(request);
    if (!session)
        return;
    const QObject* const current = runner(session->id());
    if (!current)
        return refuseRequest(request, NwaFcgiRequest::NotFound);
    sendJsonReply(request, statusToVariantMap(current));
}

void NNetworkRunnerFcgiRequestProcessor::processDeleteMethodForStateSection(NwaFcgiRequest* request)
{
    const NwaWebSession* const session = authenticateRequestAndCheckAccessRights(request);
    if (!session)
        return;
    const QPointer<QObject> last(m_runners.take(session->id()));
    if (!last)
        return refuseRequest(request, NwaFcgiRequest::NotFound);
    if (isRunning(last))
        stop(last);
    // A receiver of the event may have deleted this object with its children.
    if (!last)
        return refuseRequest(request, NwaFcgiRequest::ServiceUnavailable);
    const QVariantMap status = statusToVariantMap(last);
    delete last;
    sendJsonReply(request, status);
}

NwaWebSession* NNetworkRunnerFcgiRequestProcessor::authenticateRequestAndCheckAccessRights(NwaFcgiRequest* request)
{
    return requireSession(request, this, &NNetworkRunnerFcgiRequestProcessor::canTestWithSession);
}

bool NNetworkRunnerFcgiRequestProcessor::requireStartable(
    NwaFcgiRequest* request, const NwaWebSession* session, const QString& test)
{
    const QObject* const current = runner(session->id());
    if (current && isRunning(current)) {
        refuseRequest(
            request, NwaFcgiRequest::Conflict, latin1("cannot start a %3 because there is already a running one"),
            test);
        return false;
    }
    if (!current && !hasRoom()) {
        refuseRequest(
            request, NwaFcgiRequest::ServiceUnavailable,
            latin1("cannot start a %3 because other sessions have as many as are allowed"), test);
        return false;
    }
    return true;
}

bool NNetworkRunnerFcgiRequestProcessor::hasRoom() const
{
    return m_runners.size() < m_maximumRunnerCount;
}

QObject* NNetworkRunnerFcgiRequestProcessor::runner(const QUuid& sessionId) const
{
    return m_runners.value(sessionId);
}

void NNetworkRunnerFcgiRequestProcessor::addRunner(const QUuid& sessionId, QObject* runner)
{
    m_runners.insert(sessionId, runner);
}

QUuid NNetworkRunnerFcgiRequestProcessor::sessionId(const QObject* runner) const
{
    return m_runners.key(const_cast<QObject*>(runner));
}

bool NNetworkRunnerFcgiRequestProcessor::hostFromVariantMap(const QVariantMap& parameters, QString& host)
{
    return NwaJsonUtilities::stringValue(parameters, latin1("host"), host) &&
           (NNetworkUtilities::isIpv4Address(host) || NNetworkUtilities::isHostmane(host));
}
