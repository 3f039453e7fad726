#ifndef NBASE_NNETWORKPROXYRULES_P_H
#define NBASE_NNETWORKPROXYRULES_P_H

#include <nbase/network/nnetworkproxychoice.h>

#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkProxyQuery>

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

    /** The proxy of a protocol, and whose server it is. */
    struct Server
    {
        Server();

        QNetworkProxy proxy;
        NNetworkProxyChoice::Reason reason;
    };

    /** The proxy of a request and why; points into the rule set. */
    struct Decision
    {
        const QNetworkProxy* proxy;
        NNetworkProxyChoice::Reason reason;
        const QString* exception; ///< null when none covers the host
    };

    explicit NNetworkProxyRuleSet(const QStringList& exceptions);

    Decision decide(const QNetworkProxyQuery& query) const;

    /** The number of an IPv4 address. QHostAddress reads bytes with a leading zero as octal. */
    static quint32 addressNumber(const QString& address);

    bool isEnabled;
    QNetworkProxy noProxy;
    Server http;
    Server ssl;
    Server ftp;
    Server socks5;
    QString localException; ///< null when the exceptions do not contain "local"
    QStringList names;
    QVector<Range> ranges;
    QStringList rangeTexts; ///< the exceptions that the ranges are made of

private:
    const QString* exceptionFor(const QString& host) const;
    const Server& serverFor(const QString& protocol) const;
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
