#include <nbase/network/nnetworkproxychoice.h>

NNetworkProxyChoice::NNetworkProxyChoice()
    : proxy(QNetworkProxy::NoProxy)
    , reason(ProxyDisabled)
{
}
