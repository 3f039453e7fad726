#include <nbase/network/nnetworkproxyparameters.h>

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyrules_p.h>
#include <nbase/network/nnetworkutilities.h>

#include <nsystem/nlatin1_p.h>

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkProxyQuery>

namespace {

const int DefaultPort = 1080;
const int LargestPort = 65535;

QString defaultHost()
{
    return latin1("0.0.0.0");
}

QStringList defaultExceptions()
{
    return QStringList() << latin1("127.0.0.1") << latin1("localhost");
}

QString serverType()
{
    return latin1("proxy");
}

QUrl serverUrl(const QString& host, int port, const QString& userName, const QString& password)
{
    QUrl url;
    // QUrl reads numbers with a leading zero as octal.
    if (NNetworkUtilities::isIpv4Address(host))
        url.setHost(QHostAddress(NNetworkProxyRuleSet::addressNumber(host)).toString());
    else
        url.setHost(host);
    url.setPort(port);
    if (!userName.isEmpty())
        url.setUserName(userName);
    if (!password.isEmpty())
        url.setPassword(password);
    return url;
}

// The parts of @a url that count. The text "0.0.0.0:1080" is parsed differently by the versions of Qt, so servers
// are put together from their parts.
QUrl normalized(const QUrl& url)
{
    return url.isEmpty() ? QUrl() : serverUrl(url.host(), url.port(), url.userName(), url.password());
}

QStringList withoutEmpty(const QStringList& exceptions)
{
    QStringList kept = exceptions;
    kept.removeAll(QString());
    return kept;
}

NNetworkProxyParameters::Parameters normalized(const NNetworkProxyParameters::Parameters& parameters)
{
    NNetworkProxyParameters::Parameters result = parameters;
    result.httpProxyServerUrl = normalized(parameters.httpProxyServerUrl);
    result.sslProxyServerUrl = normalized(parameters.sslProxyServerUrl);
    result.ftpProxyServerUrl = normalized(parameters.ftpProxyServerUrl);
    result.socks5ProxyServerUrl = normalized(parameters.socks5ProxyServerUrl);
    result.exceptions = withoutEmpty(parameters.exceptions);
    return result;
}

bool isSame(const NNetworkProxyParameters::Parameters& one, const NNetworkProxyParameters::Parameters& other)
{
    return one.proxyEnabled == other.proxyEnabled && one.httpProxyServerUrl == other.httpProxyServerUrl &&
           one.sslProxyServerUrl == other.sslProxyServerUrl && one.ftpProxyServerUrl == other.ftpProxyServerUrl &&
           one.socks5ProxyServerUrl == other.socks5ProxyServerUrl && one.exceptions == other.exceptions &&
           one.proxyDnsEnabled == other.proxyDnsEnabled;
}

// The store keeps Latin-1.
bool canBeStored(const QString& text)
{
    return QString::fromLatin1(text.toLatin1()) == text;
}

QString switchText(bool on)
{
    return latin1(on ? "1" : "0");
}

// Nothing is converted: the text "1" is not a number, 1 is not a boolean.
bool readBoolean(const QVariant& value, bool& boolean)
{
    boolean = value.toBool();
    return value.type() == QVariant::Bool;
}

bool readText(const QVariant& value, QString& text)
{
    text = value.toString();
    return value.type() == QVariant::String;
}

bool readOptionalText(const QVariantMap& object, const QString& key, QString& text)
{
    return !object.contains(key) || readText(object.value(key), text);
}

// The type of a number depends on how it is written and on the parser.
bool isNumber(const QVariant& value)
{
    switch (int(value.type())) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

bool readPort(const QVariant& value, int& port)
{
    const double number = value.toDouble();
    if (!isNumber(value) || !(number >= 0 && number <= LargestPort))
        return false;
    port = int(number);
    return double(port) == number;
}

bool readServer(const QVariant& value, QUrl& url)
{
    return value.type() == QVariant::Map &&
           NNetworkProxyParameters::extractProxyServerUrlFromVariantMap(value.toMap(), url);
}

bool readOptionalServer(const QVariantMap& object, const QString& key, QUrl& url)
{
    return !object.contains(key) || readServer(object.value(key), url);
}

bool readTexts(const QVariant& value, QStringList& texts)
{
    const QVariantList items = value.toList();
    for (int i = 0; i < items.size(); ++i) {
        QString text;
        if (!readText(items.at(i), text))
            return false;
        texts.append(text);
    }
    return value.type() == QVariant::List;
}

/** The server's proxy, or that of the HTTP server if there is none. */
NNetworkProxyRuleSet::Server serverOf(QNetworkProxy::ProxyType type, const QUrl& server, const QUrl& httpServer)
{
    NNetworkProxyRuleSet::Server result;
    const QUrl& url = server.isEmpty() ? httpServer : server;
    if (url.isEmpty())
        return result;
    result.proxy = QNetworkProxy(type, url.host(), quint16(url.port()), url.userName(), url.password());
    result.reason =
        server.isEmpty() ? NNetworkProxyChoice::HttpServerInstead : NNetworkProxyChoice::ServerOfProtocol;
    return result;
}

// Whether it is the query of QNetworkProxy::applicationProxy(), for a connection to nowhere.
bool isApplicationProxyQuery(const QNetworkProxyQuery& query)
{
    return query.queryType() == QNetworkProxyQuery::TcpSocket && query.peerHostName().isEmpty() &&
           query.peerPort() == -1 && query.protocolTag().isEmpty();
}

void setLooksUpNames(QNetworkProxy& proxy, bool on)
{
    const QNetworkProxy::Capabilities others =
        proxy.capabilities() & ~QNetworkProxy::Capabilities(QNetworkProxy::HostNameLookupCapability);
    proxy.setCapabilities(on ? others | QNetworkProxy::HostNameLookupCapability : others);
}

} // namespace

const QString NNetworkProxyParameters::S_GENERAL_CONFIG_NAME = latin1("general");
const QString NNetworkProxyParameters::S_HTTP_PROXY_CONFIG_NAME = latin1("http");
const QString NNetworkProxyParameters::S_SSL_PROXY_CONFIG_NAME = latin1("ssl");
const QString NNetworkProxyParameters::S_FTP_PROXY_CONFIG_NAME = latin1("ftp");
const QString NNetworkProxyParameters::S_SOCKS5_PROXY_CONFIG_NAME = latin1("socks5");

NNetworkProxyParameters::Parameters::Parameters()
    : proxyEnabled(false)
    , proxyDnsEnabled(false)
{
}

NNetworkProxyParameters::NNetworkProxyParameters(NUciCursor* cursor, const QString& configName, QObject* parent)
    : QObject(parent)
    , m_cursor(cursor)
    , m_configName(configName)
    , m_httpProxyServerUrl(serverUrl(defaultHost(), DefaultPort, QString(), QString()))
    , m_rules(new NNetworkProxyRules)
    , m_hasRefusedChange(false)
{
    m_proxyEnabled = cursor->optionAsBoolean(configName, S_GENERAL_CONFIG_NAME, latin1("enabled"), false);
    m_exceptions = withoutEmpty(
        cursor->optionAsStringList(configName, S_GENERAL_CONFIG_NAME, latin1("exception"), defaultExceptions()));
    m_proxyDnsEnabled = cursor->optionAsBoolean(configName, S_GENERAL_CONFIG_NAME, latin1("proxyDns"), false);

    const QList<uci_section*> servers = cursor->sections(configName, serverType());
    const QHash<QString, uci_section*> sections = NUciCursor::packageSections(cursor->package(configName));
    const QPair<QString, QUrl*> urls[] = {
        qMakePair(S_HTTP_PROXY_CONFIG_NAME, &m_httpProxyServerUrl),
        qMakePair(S_SSL_PROXY_CONFIG_NAME, &m_sslProxyServerUrl),
        qMakePair(S_FTP_PROXY_CONFIG_NAME, &m_ftpProxyServerUrl),
        qMakePair(S_SOCKS5_PROXY_CONFIG_NAME, &m_socks5ProxyServerUrl)};
    for (size_t i = 0; i < sizeof(urls) / sizeof(urls[0]); ++i) {
        if (servers.contains(sections.value(urls[i].first)))
            readProxyUrlSection(urls[i].first, *urls[i].second);
    }

    updateRules();
    QNetworkProxyFactory::setApplicationProxyFactory(new ProxyFactory(this));
}

NNetworkProxyParameters::~NNetworkProxyParameters()
{
    m_rules->set(QSharedPointer<const NNetworkProxyRuleSet>());
}

void NNetworkProxyParameters::readProxyUrlSection(const QString& section, QUrl& url)
{
    url = serverUrl(
        m_cursor->optionAsString(m_configName, section, latin1("host"), defaultHost()),
        m_cursor->optionAsUShort(m_configName, section, latin1("port"), DefaultPort),
        m_cursor->optionAsString(m_configName, section, latin1("username"), QString()),
        m_cursor->optionAsString(m_configName, section, latin1("password"), QString()));
}

bool NNetworkProxyParameters::proxyEnabled() const
{
    return m_proxyEnabled;
}

QUrl NNetworkProxyParameters::httpProxyServerUrl() const
{
    return m_httpProxyServerUrl;
}

QUrl NNetworkProxyParameters::sslProxyServerUrl() const
{
    return m_sslProxyServerUrl;
}

QUrl NNetworkProxyParameters::ftpProxyServerUrl() const
{
    return m_ftpProxyServerUrl;
}

QUrl NNetworkProxyParameters::socks5ProxyServerUrl() const
{
    return m_socks5ProxyServerUrl;
}

QStringList NNetworkProxyParameters::exceptions() const
{
    return m_exceptions;
}

bool NNetworkProxyParameters::proxyDnsEnabled() const
{
    return m_proxyDnsEnabled;
}

NNetworkProxyParameters::Parameters NNetworkProxyParameters::parameters() const
{
    Parameters parameters;
    parameters.proxyEnabled = m_proxyEnabled;
    parameters.httpProxyServerUrl = m_httpProxyServerUrl;
    parameters.sslProxyServerUrl = m_sslProxyServerUrl;
    parameters.ftpProxyServerUrl = m_ftpProxyServerUrl;
    parameters.socks5ProxyServerUrl = m_socks5ProxyServerUrl;
    parameters.exceptions = m_exceptions;
    parameters.proxyDnsEnabled = m_proxyDnsEnabled;
    return parameters;
}

// ---- changing ----

bool NNetworkProxyParameters::checkProxyServerUrl(const QUrl& url)
{
    const QString host = url.host();
    return (NNetworkUtilities::isIpv4Address(host) || NNetworkUtilities::isHostmane(host)) && url.port() >= 1 &&
           url.port() <= LargestPort;
}

bool NNetworkProxyParameters::checkParameters(
    const QUrl& http, const QUrl& ssl, const QUrl& ftp, const QUrl& socks5)
{
    return checkProxyServerUrl(http) && (ssl.isEmpty() || checkProxyServerUrl(ssl)) &&
           (ftp.isEmpty() || checkProxyServerUrl(ftp)) && (socks5.isEmpty() || checkProxyServerUrl(socks5));
}

bool NNetworkProxyParameters::setProxyEnabled(bool enabled)
{
    Parameters changed = parameters();
    changed.proxyEnabled = enabled;
    return change(changed, EnabledParameter);
}

bool NNetworkProxyParameters::setHttpProxyServerUrl(const QUrl& url, bool& invalidParameter)
{
    Parameters changed = parameters();
    changed.httpProxyServerUrl = url;
    invalidParameter = !checkProxyServerUrl(url);
    return !invalidParameter && change(changed, HttpParameter);
}

bool NNetworkProxyParameters::setSslProxyServerUrl(const QUrl& url, bool& invalidParameter)
{
    Parameters changed = parameters();
    changed.sslProxyServerUrl = url;
    invalidParameter = !url.isEmpty() && !checkProxyServerUrl(url);
    return !invalidParameter && change(changed, SslParameter);
}

bool NNetworkProxyParameters::setFtpProxyServerUrl(const QUrl& url, bool& invalidParameter)
{
    Parameters changed = parameters();
    changed.ftpProxyServerUrl = url;
    invalidParameter = !url.isEmpty() && !checkProxyServerUrl(url);
    return !invalidParameter && change(changed, FtpParameter);
}

bool NNetworkProxyParameters::setSocks5ProxyServerUrl(const QUrl& url, bool& invalidParameter)
{
    Parameters changed = parameters();
    changed.socks5ProxyServerUrl = url;
    invalidParameter = !url.isEmpty() && !checkProxyServerUrl(url);
    return !invalidParameter && change(changed, Socks5Parameter);
}

bool NNetworkProxyParameters::setExceptions(const QStringList& exceptions)
{
    Parameters changed = parameters();
    changed.exceptions = exceptions;
    return change(changed, ExceptionsParameter);
}

bool NNetworkProxyParameters::setProxyDnsEnabled(bool enabled)
{
    Parameters changed = parameters();
    changed.proxyDnsEnabled = enabled;
    return change(changed, ProxyDnsParameter);
}

bool NNetworkProxyParameters::setNetworkProxy(
    bool enabled, const QUrl& http, const QUrl& ssl, const QUrl& ftp, const QUrl& socks5,
    const QStringList& exceptions, bool proxyDns, bool& invalidParameter)
{
    Parameters changed;
    changed.proxyEnabled = enabled;
    changed.httpProxyServerUrl = http;
    changed.sslProxyServerUrl = ssl;
    changed.ftpProxyServerUrl = ftp;
    changed.socks5ProxyServerUrl = socks5;
    changed.exceptions = exceptions;
    changed.proxyDnsEnabled = proxyDns;
    return importParameters(changed, invalidParameter);
}

bool NNetworkProxyParameters::importParameters(const Parameters& parameters)
{
    bool invalidParameter;
    return importParameters(parameters, invalidParameter);
}

bool NNetworkProxyParameters::importParameters(const Parameters& parameters, bool& invalidParameter)
{
    invalidParameter = !checkParameters(
        parameters.httpProxyServerUrl, parameters.sslProxyServerUrl, parameters.ftpProxyServerUrl,
        parameters.socks5ProxyServerUrl);
    return !invalidParameter && change(parameters, AllParameters);
}

bool NNetworkProxyParameters::change(const Parameters& requested, int parts)
{
    const Parameters changed = normalized(requested);
    if (isSame(changed, parameters()))
        return true;
    if (!dropRefusedChange())
        return false;
    if (!write(changed, parts) || !m_cursor->save(m_configName)) {
        m_cursor->load(m_configName);
        return false;
    }
    if (!m_cursor->commit(m_configName)) {
        m_hasRefusedChange = true;
        dropRefusedChange();
        m_cursor->load(m_configName);
        return false;
    }
    m_proxyEnabled = changed.proxyEnabled;
    m_httpProxyServerUrl = changed.httpProxyServerUrl;
    m_sslProxyServerUrl = changed.sslProxyServerUrl;
    m_ftpProxyServerUrl = changed.ftpProxyServerUrl;
    m_socks5ProxyServerUrl = changed.socks5ProxyServerUrl;
    m_exceptions = changed.exceptions;
    m_proxyDnsEnabled = changed.proxyDnsEnabled;
    updateRules();
    emit networkProxyParametersChanged();
    return true;
}

void NNetworkProxyParameters::updateRules()
{
    const QSharedPointer<NNetworkProxyRuleSet> rules(new NNetworkProxyRuleSet(m_exceptions));
    rules->isEnabled = m_proxyEnabled;
    const QUrl& http = m_httpProxyServerUrl;
    rules->http = serverOf(QNetworkProxy::HttpProxy, http, http);
    rules->ssl = serverOf(QNetworkProxy::HttpProxy, m_sslProxyServerUrl, http);
    rules->ftp = serverOf(QNetworkProxy::HttpProxy, m_ftpProxyServerUrl, http);
    rules->socks5 = serverOf(QNetworkProxy::Socks5Proxy, m_socks5ProxyServerUrl, http);
    setLooksUpNames(rules->socks5.proxy, m_proxyDnsEnabled);
    m_rules->set(rules);
}

// A change that could not be committed is staged, and would be committed with the next one.
bool NNetworkProxyParameters::dropRefusedChange()
{
    m_hasRefusedChange = m_hasRefusedChange && !m_cursor->revert(m_configName);
    return !m_hasRefusedChange;
}

bool NNetworkProxyParameters::write(const Parameters& parameters, int parts)
{
    return (!(parts & EnabledParameter) || uciSetProxyEnabled(parameters.proxyEnabled)) &&
           (!(parts & HttpParameter) ||
            uciSetProxyServerUrl(S_HTTP_PROXY_CONFIG_NAME, parameters.httpProxyServerUrl)) &&
           (!(parts & SslParameter) ||
            uciSetProxyServerUrl(S_SSL_PROXY_CONFIG_NAME, parameters.sslProxyServerUrl)) &&
           (!(parts & FtpParameter) ||
            uciSetProxyServerUrl(S_FTP_PROXY_CONFIG_NAME, parameters.ftpProxyServerUrl)) &&
           (!(parts & Socks5Parameter) ||
            uciSetProxyServerUrl(S_SOCKS5_PROXY_CONFIG_NAME, parameters.socks5ProxyServerUrl)) &&
           (!(parts & ExceptionsParameter) || uciSetExceptions(parameters.exceptions)) &&
           (!(parts & ProxyDnsParameter) || uciSetProxyDnsEnabled(parameters.proxyDnsEnabled));
}

// An existing section keeps its type.
bool NNetworkProxyParameters::prepareGeneralSection()
{
    return m_cursor->package(m_configName) &&
           (m_cursor->section(m_configName, S_GENERAL_CONFIG_NAME) ||
            m_cursor->setSection(m_configName, S_GENERAL_CONFIG_NAME, latin1("general")));
}

bool NNetworkProxyParameters::uciSetProxyEnabled(bool enabled)
{
    return prepareGeneralSection() &&
           m_cursor->setOption(m_configName, S_GENERAL_CONFIG_NAME, latin1("enabled"), switchText(enabled));
}

bool NNetworkProxyParameters::uciSetProxyServerUrl(const QString& section, const QUrl& url)
{
    if (!m_cursor->deleteSectionIfExists(m_configName, section))
        return false;
    if (url.isEmpty())
        return true;
    const QString userName = url.userName();
    const QString password = url.password();
    return canBeStored(userName) && canBeStored(password) &&
           m_cursor->setSection(m_configName, section, serverType()) &&
           m_cursor->setOption(m_configName, section, latin1("host"), url.host()) &&
           m_cursor->setOption(m_configName, section, latin1("port"), QString::number(url.port())) &&
           (userName.isEmpty() || m_cursor->setOption(m_configName, section, latin1("username"), userName)) &&
           (password.isEmpty() || m_cursor->setOption(m_configName, section, latin1("password"), password));
}

bool NNetworkProxyParameters::uciSetExceptions(const QStringList& exceptions)
{
    for (int i = 0; i < exceptions.size(); ++i) {
        if (!canBeStored(exceptions.at(i)))
            return false;
    }
    // The store has no empty lists. An absent option stands for the default.
    const QStringList items = exceptions.isEmpty() ? QStringList(latin1("")) : exceptions;
    return prepareGeneralSection() &&
           m_cursor->setOption(m_configName, S_GENERAL_CONFIG_NAME, latin1("exception"), items);
}

bool NNetworkProxyParameters::uciSetProxyDnsEnabled(bool enabled)
{
    return prepareGeneralSection() &&
           m_cursor->setOption(m_configName, S_GENERAL_CONFIG_NAME, latin1("proxyDns"), switchText(enabled));
}

// ---- JSON ----

QVariantMap NNetworkProxyParameters::networkProxyAsVariantMap(bool withCredentials) const
{
    QVariantMap document;
    document.insert(latin1("enabled"), m_proxyEnabled);
    document.insert(latin1("http"), serverAsVariantMap(m_httpProxyServerUrl, withCredentials));
    if (!m_sslProxyServerUrl.isEmpty())
        document.insert(latin1("ssl"), serverAsVariantMap(m_sslProxyServerUrl, withCredentials));
    if (!m_ftpProxyServerUrl.isEmpty())
        document.insert(latin1("ftp"), serverAsVariantMap(m_ftpProxyServerUrl, withCredentials));
    if (!m_socks5ProxyServerUrl.isEmpty())
        document.insert(latin1("socks5"), serverAsVariantMap(m_socks5ProxyServerUrl, withCredentials));
    document.insert(latin1("exceptions"), QVariant(m_exceptions).toList());
    document.insert(latin1("proxyDns"), m_proxyDnsEnabled);
    return document;
}

QVariantMap NNetworkProxyParameters::serverAsVariantMap(const QUrl& url, bool withCredentials) const
{
    QVariantMap document;
    document.insert(latin1("host"), url.host());
    document.insert(latin1("port"), url.port());
    if (withCredentials && !url.userName().isEmpty())
        document.insert(latin1("username"), url.userName());
    if (withCredentials && !url.password().isEmpty())
        document.insert(latin1("password"), url.password());
    return document;
}

bool NNetworkProxyParameters::extractParametersFromVariant(const QVariant& document, Parameters& parameters)
{
    const QVariantMap object = document.toMap();
    Parameters extracted;
    if (document.type() != QVariant::Map ||
        !readBoolean(object.value(latin1("enabled")), extracted.proxyEnabled) ||
        !readServer(object.value(latin1("http")), extracted.httpProxyServerUrl) ||
        !readOptionalServer(object, latin1("ssl"), extracted.sslProxyServerUrl) ||
        !readOptionalServer(object, latin1("ftp"), extracted.ftpProxyServerUrl) ||
        !readOptionalServer(object, latin1("socks5"), extracted.socks5ProxyServerUrl) ||
        !readTexts(object.value(latin1("exceptions")), extracted.exceptions) ||
        !readBoolean(object.value(latin1("proxyDns")), extracted.proxyDnsEnabled))
        return false;
    parameters = extracted;
    return true;
}

bool NNetworkProxyParameters::extractProxyServerUrlFromVariantMap(const QVariantMap& document, QUrl& url)
{
    QString host;
    int port = 0;
    QString userName;
    QString password;
    if (!readText(document.value(latin1("host")), host) || !readPort(document.value(latin1("port")), port) ||
        !readOptionalText(document, latin1("username"), userName) ||
        !readOptionalText(document, latin1("password"), password))
        return false;
    url = serverUrl(host, port, userName, password);
    return true;
}

// ---- choosing ----

NNetworkProxyChoice NNetworkProxyParameters::chooseProxy(const QNetworkProxyQuery& query) const
{
    const QSharedPointer<const NNetworkProxyRuleSet> rules = m_rules->ruleSet();
    const NNetworkProxyRuleSet::Decision decision = rules->decide(query);
    NNetworkProxyChoice choice;
    choice.proxy = *decision.proxy;
    choice.reason = decision.reason;
    if (decision.exception)
        choice.exception = *decision.exception;
    return choice;
}

NNetworkProxyParameters::ProxyFactory::ProxyFactory(const NNetworkProxyParameters* parameters)
    : m_rules(parameters->m_rules)
{
}

NNetworkProxyParameters::ProxyFactory::~ProxyFactory() {}

QList<QNetworkProxy> NNetworkProxyParameters::ProxyFactory::queryProxy(const QNetworkProxyQuery& query)
{
    // A socket that shall connect without a proxy asks for the application's proxy, too, and refuses to connect if
    // there is one.
    if (isApplicationProxyQuery(query))
        return QList<QNetworkProxy>() << QNetworkProxy(QNetworkProxy::NoProxy);

    const QSharedPointer<const NNetworkProxyRuleSet> rules = m_rules->ruleSet();
    if (!rules)
        return QList<QNetworkProxy>() << QNetworkProxy(QNetworkProxy::NoProxy);
    return QList<QNetworkProxy>() << *rules->decide(query).proxy;
}
