#ifndef NBASE_NNETWORKPROXYPARAMETERSFCGISERVICE_H
#define NBASE_NNETWORKPROXYPARAMETERSFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

class NNetworkProxyParametersAccessor;
class NwaAbstractFcgiRequestProcessor;
class NwaAbstractFcgiSessionIdentifier;

/**
 * The web service through which the proxy settings are read and replaced. For its replies see
 * NNetworkProxyParametersFcgiRequestProcessor.
 */
class NBASE_EXPORT NNetworkProxyParametersFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NNetworkProxyParametersFcgiService(NwaAbstractFcgiRequestProcessor* processor, QObject* parent);

    /**
     * @param identifier finds the session of a request; not owned.
     * @param accessor the settings that are served; not owned, and must outlive the service.
     */
    NNetworkProxyParametersFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, NNetworkProxyParametersAccessor* accessor, QObject* parent);

    ~NNetworkProxyParametersFcgiService() override;

private:
    Q_DISABLE_COPY(NNetworkProxyParametersFcgiService)
};

#endif
