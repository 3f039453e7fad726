#include <nbase/network/nnetworkproxyparametersaccessor.h>

NNetworkProxyParametersAccessor::NNetworkProxyParametersAccessor(NNetworkProxyParameters* parameters)
    : m_parameters(parameters)
{
}

NNetworkProxyParametersAccessor::~NNetworkProxyParametersAccessor() {}

bool NNetworkProxyParametersAccessor::canReadParametersWithSession(const NwaWebSession*) const
{
    return true;
}

bool NNetworkProxyParametersAccessor::canReadCriticalParametersWithSession(const NwaWebSession*) const
{
    return true;
}

bool NNetworkProxyParametersAccessor::canSetParametersWithSession(const NwaWebSession*) const
{
    return true;
}

QVariant NNetworkProxyParametersAccessor::parametersAsVariant(const NwaWebSession* session) const
{
    return m_parameters->networkProxyAsVariantMap(canReadCriticalParametersWithSession(session));
}

bool NNetworkProxyParametersAccessor::setParametersFromVariant(
    const QVariant& document, bool& invalidParameter) const
{
    NNetworkProxyParameters::Parameters parameters;
    invalidParameter = !extractParametersFromVariant(document, parameters);
    return !invalidParameter &&
           m_parameters->setNetworkProxy(
               parameters.proxyEnabled, parameters.httpProxyServerUrl, parameters.sslProxyServerUrl,
               parameters.ftpProxyServerUrl, parameters.socks5ProxyServerUrl, parameters.exceptions,
               parameters.proxyDnsEnabled, invalidParameter);
}

bool NNetworkProxyParametersAccessor::extractParametersFromVariant(
    const QVariant& document, NNetworkProxyParameters::Parameters& parameters) const
{
    return NNetworkProxyParameters::extractParametersFromVariant(document, parameters);
}
