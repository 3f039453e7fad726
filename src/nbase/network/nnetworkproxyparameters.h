#ifndef NBASE_NNETWORKPROXYPARAMETERS_H
#define NBASE_NNETWORKPROXYPARAMETERS_H

#include <nbase/nbaseglobal.h>
#include <nbase/network/nnetworkproxychoice.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QUrl>
#include <QtCore/QVariant>
#include <QtNetwork/QNetworkProxyFactory>
#include <QtNetwork/QNetworkProxyQuery>

class NNetworkProxyRules;
class NUciCursor;

/**
 * The proxy servers that the device's own requests go through: kept in a package of the configuration store, and
 * installed as the proxy factory of the application (QNetworkProxyFactory::setApplicationProxyFactory()), so that
 * every network request of Qt in the process follows them.
 *
 * The package has a section "general" with the options "enabled", "exception" (a list) and "proxyDns", and for
 * each server that is set a section of type "proxy" named "http", "ssl", "ftp" or "socks5" with the options
 * "host", "port", "username" and "password".
 *
 * An exception is a host that is reached without a proxy: an IPv4 address, a range of them (address/netmask or
 * address/length), the word "local" (each host name without a dot), or the end of a host name ("lan" covers
 * "printer.lan", but "wlan" as well). Numbers in addresses are decimal. A netmask with holes covers nothing. Names
 * are compared case-sensitively with those of the requests, which Qt converts to lower case.
 *
 * Of the URL of a server only host, port, user name and password count, and are kept. An operation that fails
 * leaves the settings as they were, in memory and in the store. All operations must be called on the object's
 * thread; requests on any thread follow the settings.
 */
class NBASE_EXPORT NNetworkProxyParameters : public QObject
{
    Q_OBJECT

public:
    /** @{ The names of the sections. */
    static const QString S_GENERAL_CONFIG_NAME;
    static const QString S_HTTP_PROXY_CONFIG_NAME;
    static const QString S_SSL_PROXY_CONFIG_NAME;
    static const QString S_FTP_PROXY_CONFIG_NAME;
    static const QString S_SOCKS5_PROXY_CONFIG_NAME;
    /** @} */

    /** All settings. */
    struct NBASE_EXPORT Parameters
    {
        Parameters();

        bool proxyEnabled;         ///< when off, no request uses a proxy
        QUrl httpProxyServerUrl;   ///< must be set
        QUrl sslProxyServerUrl;    ///< for https; empty for the HTTP server
        QUrl ftpProxyServerUrl;    ///< empty for the HTTP server
        QUrl socks5ProxyServerUrl; ///< for all other protocols; empty for the HTTP server
        QStringList exceptions;    ///< hosts that are reached without a proxy
        bool proxyDnsEnabled;      ///< whether the SOCKS5 server looks up host names
    };

    /** Gives each request its proxy. It may outlive the settings, and answers "no proxy" then. */
    class NBASE_EXPORT ProxyFactory : public QNetworkProxyFactory
    {
    public:
        /** Follows @a parameters, also when they change. */
        explicit ProxyFactory(const NNetworkProxyParameters* parameters);
        ~ProxyFactory() override;

        /**
         * Chooses the proxy of a request. Thread-safe.
         * @return exactly one proxy, QNetworkProxy::NoProxy for none. None also for a query without host, port and
         * protocol: it is that of a socket that shall connect directly, which fails if it is given a proxy.
         */
        QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override;

    private:
        Q_DISABLE_COPY(ProxyFactory)

        const QSharedPointer<NNetworkProxyRules> m_rules;
    };

    /**
     * Reads the settings and installs the factory in the place of the application's earlier one.
     * @param cursor where the package is; not owned, and must outlive this object.
     * @param configName the name of the package.
     */
    NNetworkProxyParameters(NUciCursor* cursor, const QString& configName, QObject* parent);
    ~NNetworkProxyParameters() override;

    /** @{ The settings in force, which are those in the store. */
    bool proxyEnabled() const;
    QUrl httpProxyServerUrl() const;
    QUrl sslProxyServerUrl() const;
    QUrl ftpProxyServerUrl() const;
    QUrl socks5ProxyServerUrl() const;
    QStringList exceptions() const;
    bool proxyDnsEnabled() const;
    Parameters parameters() const;
    /** @} */

    /** The proxy that the factory gives the request @a query, and the rule that decides on it. */
    NNetworkProxyChoice chooseProxy(const QNetworkProxyQuery& query) const;

    /** Whether the host of @a url is an IPv4 address or a host name, and its port from 1 to 65535. */
    static bool checkProxyServerUrl(const QUrl& url);

    /** Whether @a http passes checkProxyServerUrl(), and so does each of the others that is not empty. */
    static bool checkParameters(const QUrl& http, const QUrl& ssl, const QUrl& ftp, const QUrl& socks5);

    /**
     * @{
     * Changes a setting and stores it. Nothing is written when it has that value. An empty URL removes a server;
     * there must be an HTTP server. "invalidParameter" is set to whether the value is refused.
     * @return false when the value is refused or cannot be stored.
     */
    bool setProxyEnabled(bool enabled);
    bool setHttpProxyServerUrl(const QUrl& url, bool& invalidParameter);
    bool setSslProxyServerUrl(const QUrl& url, bool& invalidParameter);
    bool setFtpProxyServerUrl(const QUrl& url, bool& invalidParameter);
    bool setSocks5ProxyServerUrl(const QUrl& url, bool& invalidParameter);
    bool setExceptions(const QStringList& exceptions);
    bool setProxyDnsEnabled(bool enabled);
    /** @} */

    /** Changes all settings at once, writing them in the order of the arguments; otherwise like the operations
     * above. */
    bool setNetworkProxy(
        bool enabled, const QUrl& http, const QUrl& ssl, const QUrl& ftp, const QUrl& socks5,
        const QStringList& exceptions, bool proxyDns, bool& invalidParameter);

    /** @{ The same with the settings in a structure. */
    bool importParameters(const Parameters& parameters);
    bool importParameters(const Parameters& parameters, bool& invalidParameter);
    /** @} */

    /**
     * The settings as a JSON object: "enabled", "http", "ssl", "ftp", "socks5" (the last three only when they are
     * set), "exceptions", "proxyDns".
     */
    QVariantMap networkProxyAsVariantMap(bool withCredentials) const;

    /** A server as a JSON object: "host", "port", and, if asked for and not empty, "username" and "password". */
    QVariantMap serverAsVariantMap(const QUrl& url, bool withCredentials) const;

    /** The reverse of networkProxyAsVariantMap(). @return false when a member is missing or has another type. */
    static bool extractParametersFromVariant(const QVariant& document, Parameters& parameters);

    /** The reverse of serverAsVariantMap(). @return false when a member is missing or has another type. */
    static bool extractProxyServerUrlFromVariantMap(const QVariantMap& document, QUrl& url);

signals:
    /** The settings have been changed and stored. */
    void networkProxyParametersChanged();

private:
    Q_DISABLE_COPY(NNetworkProxyParameters)

    // What a change writes.
    enum Part {
        EnabledParameter = 0x01,
        HttpParameter = 0x02,
        SslParameter = 0x04,
        FtpParameter = 0x08,
        Socks5Parameter = 0x10,
        ExceptionsParameter = 0x20,
        ProxyDnsParameter = 0x40,
        AllParameters = 0x7f
    };

    bool change(const Parameters& requested, int parts);
    void updateRules();
    bool dropRefusedChange();
    bool write(const Parameters& parameters, int parts);
    bool prepareGeneralSection();
    bool uciSetProxyEnabled(bool enabled);
    bool uciSetProxyServerUrl(const QString& section, const QUrl& url);
    bool uciSetExceptions(const QStringList& exceptions);
    bool uciSetProxyDnsEnabled(bool enabled);
    void readProxyUrlSection(const QString& section, QUrl& url);

    NUciCursor* m_cursor;
    QString m_configName;
    bool m_proxyEnabled;
    QUrl m_httpProxyServerUrl;
    QUrl m_sslProxyServerUrl;
    QUrl m_ftpProxyServerUrl;
    QUrl m_socks5ProxyServerUrl;
    QStringList m_exceptions;
    bool m_proxyDnsEnabled;
    const QSharedPointer<NNetworkProxyRules> m_rules; ///< shared with the factory
    bool m_hasRefusedChange;                          ///< it could be neither committed nor dropped
};

#endif
