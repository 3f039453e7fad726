#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <nwebapi/nwaabstractfcgisessionidentifier.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwalogtext.h>

#include <nsystem/nlatin1_p.h>

#include <ostream>

namespace {

void write(std::ostream& stream, const QByteArray& bytes)
{
    stream.write(bytes.constData(), bytes.size());
}

void send(NwaFcgiRequest* request, const NwaHttpJsonHeader& header, const QByteArray& document)
{
    request->outputStream() << header;
    write(request->outputStream(), document);
    delete request;
}

bool changesSomething(const QString& method)
{
    return method != QLatin1String("GET") && method != QLatin1String("HEAD") && method != QLatin1String("OPTIONS");
}

// Host and port of a URI in lower case, without the scheme's default port.
QByteArray normalisedAuthority(const QByteArray& authority, const QByteArray& defaultPort)
{
    QByteArray result = authority.toLower();
    if (result.endsWith(defaultPort))
        result.chop(defaultPort.size());
    else if (result.endsWith(':'))
        result.chop(1);
    return result;
}

// Whether a browser sent the request on behalf of a page from another host (RFC 6454). The scheme only selects the
// default port, because the device cannot know whether TLS ended at a proxy in front of it. Clients that are not
// browsers send no origin.
bool hasForeignOrigin(const NwaFcgiRequest* request)
{
    const QByteArray origin = request->variable("HTTP_ORIGIN");
    if (origin.isNull())
        return false;

    const int separator = origin.indexOf("://");
    const QByteArray scheme = origin.left(qMax(0, separator)).toLower();
    if (scheme != "http" && scheme != "https")
        return true;
    const QByteArray defaultPort(scheme == "http" ? ":80" : ":443");
    const QByteArray originHost = normalisedAuthority(origin.mid(separator + 3), defaultPort);
    const QByteArray ownHost = normalisedAuthority(request->variable("HTTP_HOST"), defaultPort);
    return originHost.isEmpty() || originHost != ownHost;
}

// A browser also says how the page that sent @a request is related to this host (W3C Fetch Metadata), where it
// sends no origin too. Clients that are no browsers do not.
bool isCrossSite(const NwaFcgiRequest* request)
{
    return request->variable("HTTP_SEC_FETCH_SITE") == "cross-site";
}

QByteArray allowedMethods(NwaStandardFcgiRequestProcessor::Methods methods)
{
    QList<QByteArray> names;
    if (methods & NwaStandardFcgiRequestProcessor::GetMethod)
        names << "GET"
              << "HEAD";
    if (methods & NwaStandardFcgiRequestProcessor::PostMethod)
        names << "POST";
    if (methods & NwaStandardFcgiRequestProcessor::PutMethod)
        names << "PUT";
    if (methods & NwaStandardFcgiRequestProcessor::DeleteMethod)
        names << "DELETE";

    QByteArray list;
    for (int index = 0; index < names.size(); ++index)
        list += (index == 0 ? QByteArray() : QByteArray(", ")) + names.at(index);
    return list;
}

QString refusalTemplate(const QString& reason)
{
    return latin1("Error in request processor for request to script \"%1\" with path info \"%2\": ") + reason;
}

void writeLatin1(NwaFcgiRequest* request, const QString& text)
{
    write(request->errorStream(), text.toLatin1());
}

QString visibleScriptName(const NwaFcgiRequest* request)
{
    return NwaLogText::fromClient(request->scriptName());
}

QString visiblePathInfo(const NwaFcgiRequest* request)
{
    return NwaLogText::fromClient(request->pathInfo());
}

} // namespace

NwaStandardFcgiRequestProcessor::NwaStandardFcgiRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier)
    : m_identifier(identifier)
    , m_servedMethods(GetMethod)
{
}

NwaStandardFcgiRequestProcessor::~NwaStandardFcgiRequestProcessor() {}

void NwaStandardFcgiRequestProcessor::processRequest(NwaFcgiRequest* request)
{
    const QString method = request->method();
    if (changesSomething(method) && (hasForeignOrigin(request) || isCrossSite(request)))
        return refuseRequest(request, NwaFcgiRequest::Forbidden);

    if (method == QLatin1String("GET"))
        return processGetMethod(request);
    if (method == QLatin1String("POST"))
        return processPostMethod(request);
    if (method == QLatin1String("PUT"))
        return processPutMethod(request);
    if (method == QLatin1String("DELETE"))
        return processDeleteMethod(request);
    if (method != QLatin1String("HEAD"))
        return processOtherMethod(request, method);

    if (request->contentLength() != 0)
        return refuseRequest(request, NwaFcgiRequest::BadRequest);
    processGetMethod(request);
}

void NwaStandardFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    processNotAllowedMethod(request);
}

void NwaStandardFcgiRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    processNotAllowedMethod(request);
}

void NwaStandardFcgiRequestProcessor::processPutMethod(NwaFcgiRequest* request)
{
    processNotAllowedMethod(request);
}

void NwaStandardFcgiRequestProcessor::processDeleteMethod(NwaFcgiRequest* request)
{
    processNotAllowedMethod(request);
}

void NwaStandardFcgiRequestProcessor::processOtherMethod(NwaFcgiRequest* request, const QString& method)
{
    Q_UNUSED(method)
    processNotAllowedMethod(request);
}

void NwaStandardFcgiRequestProcessor::setServedMethods(Methods methods)
{
    m_servedMethods = methods;
}

NwaWebSession* NwaStandardFcgiRequestProcessor::authenticateRequest(NwaFcgiRequest* request, bool passive)
{
    NwaWebSession* session = m_identifier ? m_identifier->identifySession(request, passive) : nullptr;
    if (session)
        return session;
    request->sendHttpError(NwaFcgiRequest::Unauthorized);
    return nullptr;
}

NwaWebSession* NwaStandardFcgiRequestProcessor::requireSession(NwaFcgiRequest* request, Activity activity)
{
    NwaWebSession* const session = authenticateRequest(request, activity == PassiveRequest);
    if (!session)
        delete request;
    return session;
}

bool NwaStandardFcgiRequestProcessor::requireJsonContent(
    NwaFcgiRequest* request, QVariant& document, int maximumDepth, int maximumValueCount)
{
    bool ok = false;
    document = parseJsonContent(request, &ok, maximumDepth, maximumValueCount);
    if (!ok)
        delete request;
    return ok;
}

void NwaStandardFcgiRequestProcessor::processNotAllowedMethod(NwaFcgiRequest* request)
{
    NwaFcgiRequest::HeaderFields fields;
    fields.append(qMakePair(QByteArray("Allow"), allowedMethods(m_servedMethods)));
    request->sendHttpError(NwaFcgiRequest::MethodNotAllowed, fields);
    delete request;
}

void NwaStandardFcgiRequestProcessor::refuseRequest(
    NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error)
{
    request->sendHttpError(error);
    delete request;
}

void NwaStandardFcgiRequestProcessor::refuseRequest(
    NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason)
{
    writeRefusal(request, reason);
    refuseRequest(request, error);
}

void NwaStandardFcgiRequestProcessor::refuseRequest(
    NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason, const QString& third)
{
    writeRefusal(request, reason, third);
    refuseRequest(request, error);
}

void NwaStandardFcgiRequestProcessor::refuseRequest(
    NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason, const QString& third,
    const QString& fourth)
{
    writeRefusal(request, reason, third, fourth);
    refuseRequest(request, error);
}

void NwaStandardFcgiRequestProcessor::writeRefusal(NwaFcgiRequest* request, const QString& reason)
{
    writeLatin1(request, refusalTemplate(reason).arg(visibleScriptName(request), visiblePathInfo(request)));
}

void NwaStandardFcgiRequestProcessor::writeRefusal(
    NwaFcgiRequest* request, const QString& reason, const QString& third)
{
    writeLatin1(
        request, refusalTemplate(reason).arg(
                     visibleScriptName(request), visiblePathInfo(request), NwaLogText::fromClient(third)));
}

void NwaStandardFcgiRequestProcessor::writeRefusal(
    NwaFcgiRequest* request, const QString& reason, const QString& third, const QString& fourth)
{
    writeLatin1(
        request, refusalTemplate(reason).arg(
                     visibleScriptName(request), visiblePathInfo(request), NwaLogText::fromClient(third),
                     NwaLogText::fromClient(fourth)));
}

void NwaStandardFcgiRequestProcessor::sendJsonReply(NwaFcgiRequest* request, const QVariant& document)
{
    sendJsonDocument(request, NwaJson::serialize(document));
}

void NwaStandardFcgiRequestProcessor::sendJsonReply(
    NwaFcgiRequest* request, const QVariant& document, const NwaHttpJsonHeader& header)
{
    send(request, header, NwaJson::serialize(document));
}

void NwaStandardFcgiRequestProcessor::sendJsonDocument(NwaFcgiRequest* request, const QByteArray& document)
{
    send(request, NwaHttpJsonHeader(latin1("utf-8")), document);
}
