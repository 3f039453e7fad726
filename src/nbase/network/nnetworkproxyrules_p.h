#ifndef NBASE_NNETWORKPROXYRULES_P_H
#define NBASE_NNETWORKPROXYRULES_P_H

#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>
#include <QtNetwork/QNetworkProxy>

#include <mutex>

/** The settings in the form that choosing a proxy needs: the exceptions are parsed, and the proxies made. */
struct NNetworkProxyRuleSet
{
    /** The addresses of which the bits in @e mask are @e network. */
    struct Range
    {
        quint32 network;
        quint32 mask;
    };

    explicit NNetworkProxyRuleSet(const QStringList& exceptions);

    bool isException(const QString& host) const;

    /** The number of an IPv4 address. QHostAddress reads bytes with a leading zero as octal. */
    static quint32 addressNumber(const QString& address);

    bool isEnabled;
    QNetworkProxy httpProxy;
    QNetworkProxy sslProxy;
    QNetworkProxy ftpProxy;
    QNetworkProxy socks5Proxy;
    bool hasLocalException;
    QStringList names;
    QVector<Range> ranges;
};

/** The rule set in force, which the settings replace while requests on other threads read it. Thread-safe. */
class NNetworkProxyRules
{
public:
    NNetworkProxyRules();

    void set(const QSharedPointer<const NNetworkProxyRuleSet>& ruleSet);

    /** Null when there are no settings. */
    QSharedPointer<const NNetworkProxyRuleSet> ruleSet() const;

private:
    Q_DISABLE_COPY(NNetworkProxyRules)

    mutable std::mutex m_mutex; // the thread sanitizer does not see those of Qt
    QSharedPointer<const NNetworkProxyRuleSet> m_ruleSet;
};

#endif
