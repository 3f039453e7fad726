#include "proxychoicerequestprocessor.h"

#include <nbase/network/nnetworkproxyparameters.h>
#include <nbase/network/nnetworkutilities.h>

#include <nwebapi/nwafcgirequest.h>

#include <QtCore/QUrl>
#include <QtNetwork/QHostAddress>

namespace {

QString choiceText(const char* text)
{
    return QString::fromLatin1(text);
}

bool isHost(const QString& text)
{
    return NNetworkUtilities::isIpv4Address(text) || NNetworkUtilities::isHostmane(text);
}

// "[2001:db8::1]", as in URLs (RFC 3986, section 3.2.2)
bool isIpv6InBrackets(const QString& text)
{
    QHostAddress address;
    return text.startsWith(QLatin1Char('[')) && text.endsWith(QLatin1Char(']')) &&
           address.setAddress(text.mid(1, text.size() - 2)) && address.protocol() == QAbstractSocket::IPv6Protocol;
}

bool readUrl(const QString& text, QNetworkProxyQuery& query)
{
    const QUrl url(text);
    if (!url.isValid() || url.host().isEmpty())
        return false;
    query = QNetworkProxyQuery(url);
    return true;
}

bool readHostAndPort(const QString& text, QNetworkProxyQuery& query)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    const QString host = text.left(qMax(0, colon));
    bool isPort = false;
    const ushort port = text.mid(colon + 1).toUShort(&isPort);
    isPort = isPort && text.at(colon + 1).isDigit(); // and no sign
    const bool isIpv6 = isIpv6InBrackets(host);
    if (!isPort || port == 0 || !(isIpv6 || isHost(host)))
        return false;
    query = QNetworkProxyQuery(isIpv6 ? host.mid(1, host.size() - 2) : host, port);
    return true;
}

bool readAddress(const QString& text, QNetworkProxyQuery& query)
{
    return text.contains(QLatin1String("://")) ? readUrl(text, query) : readHostAndPort(text, query);
}

QString refusalText(const QString& text)
{
    if (isHost(text))
        return choiceText(
                   "The proxy depends on the protocol: ask for a URL such as http://%1/, or for a port such "
                   "as %1:25.")
            .arg(text);
    return choiceText(
        "This is not an address. Give a URL such as http://cam.plant.lan/, or a host and a port such as "
        "mail.example.org:25.");
}

QString reasonText(NNetworkProxyChoice::Reason reason)
{
    switch (reason) {
    case NNetworkProxyChoice::ProxyDisabled:
        return choiceText("disabled");
    case NNetworkProxyChoice::ExceptionCoversHost:
        return choiceText("exception");
    case NNetworkProxyChoice::ServerOfProtocol:
        return choiceText("own server");
    case NNetworkProxyChoice::HttpServerInstead:
        return choiceText("HTTP server");
    case NNetworkProxyChoice::NoServer:
        break;
    }
    return choiceText("no server");
}

QVariant proxyToVariant(const QNetworkProxy& proxy)
{
    if (proxy.type() == QNetworkProxy::NoProxy)
        return QVariant();
    QVariantMap object;
    object.insert(choiceText("type"), choiceText(proxy.type() == QNetworkProxy::Socks5Proxy ? "socks5" : "http"));
    object.insert(choiceText("host"), proxy.hostName());
    object.insert(choiceText("port"), proxy.port());
    return object;
}

QVariantMap choiceToVariant(const QNetworkProxyQuery& query, const NNetworkProxyChoice& choice)
{
    QVariantMap object;
    object.insert(choiceText("host"), query.peerHostName());
    object.insert(choiceText("protocol"), query.protocolTag().toLower());
    object.insert(choiceText("proxy"), proxyToVariant(choice.proxy));
    object.insert(choiceText("reason"), reasonText(choice.reason));
    object.insert(choiceText("exception"), choice.exception.isNull() ? QVariant() : QVariant(choice.exception));
    return object;
}

} // namespace

ProxyChoiceRequestProcessor::ProxyChoiceRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NNetworkProxyParameters* parameters)
    : ExplainingRequestProcessor(identifier)
    , m_parameters(parameters)
{
}

void ProxyChoiceRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (!requireSession(request))
        return;
    QString address;
    if (!request->singleQueryParameter(choiceText("address"), address))
        return refuse(request, NwaFcgiRequest::BadRequest, choiceText("Give exactly one address."));
    address = address.trimmed();
    QNetworkProxyQuery query;
    if (!readAddress(address, query))
        return refuse(request, NwaFcgiRequest::BadRequest, refusalText(address));
    sendJsonReply(request, choiceToVariant(query, m_parameters->chooseProxy(query)));
}
