#include <nbase/network/nnetworkproxyrules_p.h>

#include <nbase/network/nnetworkutilities.h>

#include <algorithm>

namespace {

const int AddressBits = 32;

quint32 decimalNumber(const QString& text)
{
    quint32 number = 0;
    for (int i = 0; i < text.size(); ++i)
        number = 10 * number + quint32(text.at(i).unicode() - '0');
    return number;
}

quint32 maskOfLength(int length)
{
    return length == 0 ? 0 : ~quint32(0) << (AddressBits - length);
}

bool hasHoles(quint32 mask)
{
    return (~mask & (~mask + 1)) != 0;
}

} // namespace

NNetworkProxyRuleSet::Server::Server()
    : proxy(QNetworkProxy::NoProxy)
    , reason(NNetworkProxyChoice::NoServer)
{
}

NNetworkProxyRuleSet::NNetworkProxyRuleSet(const QStringList& exceptions)
    : isEnabled(false)
    , noProxy(QNetworkProxy::NoProxy)
{
    for (int i = 0; i < exceptions.size(); ++i) {
        const QString& exception = exceptions.at(i);
        Range range = {0, maskOfLength(AddressBits)};
        if (NNetworkUtilities::isIpv4Address(exception)) {
            range.network = addressNumber(exception);
            ranges.append(range);
            rangeTexts.append(exception);
        } else if (NNetworkUtilities::isIpv4AddressRange(exception)) {
            const QString mask = exception.section(QLatin1Char('/'), 1);
            range.mask =
                mask.contains(QLatin1Char('.')) ? addressNumber(mask) : maskOfLength(int(decimalNumber(mask)));
            range.network = addressNumber(exception.section(QLatin1Char('/'), 0, 0)) & range.mask;
            if (hasHoles(range.mask))
                continue;
            ranges.append(range);
            rangeTexts.append(exception);
        } else if (exception == QLatin1String("local")) {
            localException = exception;
        } else if (!exception.isEmpty()) {
            names.append(exception);
        }
    }
}

NNetworkProxyRuleSet::Decision NNetworkProxyRuleSet::decide(const QNetworkProxyQuery& query) const
{
    Decision decision = {&noProxy, NNetworkProxyChoice::ProxyDisabled, nullptr};
    if (!isEnabled)
        return decision;
    decision.exception = exceptionFor(query.peerHostName());
    if (decision.exception) {
        decision.reason = NNetworkProxyChoice::ExceptionCoversHost;
        return decision;
    }
    const Server& server = serverFor(query.protocolTag().toLower());
    decision.proxy = &server.proxy;
    decision.reason = server.reason;
    return decision;
}

const QString* NNetworkProxyRuleSet::exceptionFor(const QString& host) const
{
    if (NNetworkUtilities::isIpv4Address(host)) {
        const quint32 address = addressNumber(host);
        const QVector<Range>::const_iterator range =
            std::find_if(ranges.constBegin(), ranges.constEnd(), [address](const Range& each) {
                return (address & each.mask) == each.network;
            });
        return range == ranges.constEnd() ? nullptr : &rangeTexts.at(int(range - ranges.constBegin()));
    }
    if (!localException.isNull() && !host.contains(QLatin1Char('.')))
        return &localException;
    for (int i = 0; i < names.size(); ++i) {
        if (host.endsWith(names.at(i)))
            return &names.at(i);
    }
    return nullptr;
}

const NNetworkProxyRuleSet::Server& NNetworkProxyRuleSet::serverFor(const QString& protocol) const
{
    if (protocol == QLatin1String("http"))
        return http;
    if (protocol == QLatin1String("https"))
        return ssl;
    if (protocol == QLatin1String("ftp"))
        return ftp;
    return socks5;
}

quint32 NNetworkProxyRuleSet::addressNumber(const QString& address)
{
    quint32 number = 0;
    quint32 byte = 0;
    for (int i = 0; i < address.size(); ++i) {
        if (address.at(i) == QLatin1Char('.')) {
            number = number << 8 | byte;
            byte = 0;
        } else {
            byte = 10 * byte + quint32(address.at(i).unicode() - '0');
        }
    }
    return number << 8 | byte;
}

NNetworkProxyRules::NNetworkProxyRules() {}

void NNetworkProxyRules::set(const QSharedPointer<const NNetworkProxyRuleSet>& ruleSet)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ruleSet = ruleSet;
}

QSharedPointer<const NNetworkProxyRuleSet> NNetworkProxyRules::ruleSet() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ruleSet;
}
