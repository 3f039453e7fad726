#include <nbase/network/nnetworkutilities.h>

#include <QtCore/QRegExp>

#include <stdlib.h>

// The input is UTF-8 text. Each check agrees with its regular expression.

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

bool hasLengthOfHostName(const QString& text)
{
    return text.size() < (text.endsWith(QLatin1Char('.')) ? 254 : 253);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static const QRegExp address(NNetworkUtilities::S_IPV4_REGEXP);
    static const QRegExp range(NNetworkUtilities::S_IPV4_RANGE_REGEXP);
    static const QRegExp hostName(NNetworkUtilities::S_HOSTNAME_REGEXP);

    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    require(NNetworkUtilities::isIpv4Address(text) == address.exactMatch(text));
    require(NNetworkUtilities::isIpv4AddressRange(text) == range.exactMatch(text));
    require(NNetworkUtilities::isHostmane(text) == (hasLengthOfHostName(text) && hostName.exactMatch(text)));

    const NNetworkUtilities::TransportProtocol protocol = NNetworkUtilities::transportProtocolFromString(text);
    require(
        protocol == NNetworkUtilities::TransportProtocolTcp ||
        NNetworkUtilities::stringFromTransportProtocol(protocol) == text);
    return 0;
}
