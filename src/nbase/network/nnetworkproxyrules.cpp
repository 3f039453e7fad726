#include <nbase/network/nnetworkproxyrules_p.h>

#include <nbase/network/nnetworkutilities.h>

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

NNetworkProxyRuleSet::NNetworkProxyRuleSet(const QStringList& exceptions)
    : isEnabled(false)
    , hasLocalException(false)
{
    for (int i = 0; i < exceptions.size(); ++i) {
        const QString& exception = exceptions.at(i);
        Range range = {0, maskOfLength(AddressBits)};
        if (NNetworkUtilities::isIpv4Address(exception)) {
            range.network = addressNumber(exception);
            ranges.append(range);
        } else if (NNetworkUtilities::isIpv4AddressRange(exception)) {
            const QString mask = exception.section(QLatin1Char('/'), 1);
            range.mask =
                mask.contains(QLatin1Char('.')) ? addressNumber(mask) : maskOfLength(int(decimalNumber(mask)));
            range.network = addressNumber(exception.section(QLatin1Char('/'), 0, 0)) & range.mask;
            if (!hasHoles(range.mask))
                ranges.append(range);
        } else if (exception == QLatin1String("local")) {
            hasLocalException = true;
        } else if (!exception.isEmpty()) {
            names.append(exception);
        }
    }
}

bool NNetworkProxyRuleSet::isException(const QString& host) const
{
    if (NNetworkUtilities::isIpv4Address(host)) {
        const quint32 address = addressNumber(host);
        for (int i = 0; i < ranges.size(); ++i) {
            if ((address & ranges.at(i).mask) == ranges.at(i).network)
                return true;
        }
        return false;
    }
    if (hasLocalException && !host.contains(QLatin1Char('.')))
        return true;
    for (int i = 0; i < names.size(); ++i) {
        if (host.endsWith(names.at(i)))
            return true;
    }
    return false;
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
