#ifndef NBASE_NNETWORKPROXYRULES_P_H
#define NBASE_NNETWORKPROXYRULES_P_H

#include <nbase/network/nnetworkproxyparameters.h>

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QSharedPointer>
#include <QtCore/QStringList>
#include <QtCore/QUrl>
#include <QtCore/QVector>

/** The settings in the form that choosing a proxy needs: the exceptions are parsed. It does not change. */
struct NNetworkProxyRuleSet
{
    /** The addresses of which the bits in @e mask are @e network. */
    struct Range
    {
        quint32 network;
        quint32 mask;
    };

    explicit NNetworkProxyRuleSet(const NNetworkProxyParameters::Parameters& parameters);

    bool isException(const QString& host) const;

    NNetworkProxyParameters::Parameters parameters;
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

    mutable QMutex m_mutex;
    QSharedPointer<const NNetworkProxyRuleSet> m_ruleSet;
};

#endif
