#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <nwebapi/nwaabstractfcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwalogtext.h>

#include <ostream>

namespace {

void write(std::ostream& stream, const QByteArray& bytes)
{
    stream.write(bytes.constData(), bytes.size());
}

void refuse(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error)
{
    request->sendHttpError(error);
    delete request;
}

bool changesSomething(const QString& method)
{
    return method != QLatin1String("GET") && method != QLatin1String("HEAD") && method != QLatin1String("OPTIONS");
}

// Host and port of a URI in lower case, without the port that goes without saying.
QByteArray normalisedAuthority(const QByteArray& authority, const QByteArray& defaultPort)
{
    QByteArray result = authority.toLower();
    if (result.endsWith(defaultPort))
        result.chop(defaultPort.size());
    else if (result.endsWith(':'))
        result.chop(1);
    return result;
}

// Whether a browser sent @a request on behalf of a page that another host has served (RFC 6454). The scheme
// decides only which port is meant, because the device cannot know whether TLS ended at a proxy before it. Clients
// that are no browsers send no origin.
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
    return QString::fromLatin1("Error in request processor for request to script \"%1\" with path info \"%2\": ") +
           reason;
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
    if (changesSomething(method) && hasForeignOrigin(request))
        return refuse(request, NwaFcgiRequest::Forbidden);

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
        return refuse(request, NwaFcgiRequest::BadRequest);
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

void NwaStandardFcgiRequestProcessor::processNotAllowedMethod(NwaFcgiRequest* request)
{
    NwaFcgiRequest::HeaderFields fields;
    fields.append(qMakePair(QByteArray("Allow"), allowedMethods(m_servedMethods)));
    request->sendHttpError(NwaFcgiRequest::MethodNotAllowed, fields);
    delete request;
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

void NwaStandardFcgiRequestProcessor::sendJsonDocument(NwaFcgiRequest* request, const QByteArray& document)
{
    request->outputStream() << NwaHttpJsonHeader(QString::fromLatin1("utf-8"));
    write(request->outputStream(), document);
    delete request;
}
