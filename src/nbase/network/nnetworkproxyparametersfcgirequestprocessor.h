#ifndef NBASE_NNETWORKPROXYPARAMETERSFCGIREQUESTPROCESSOR_H
#define NBASE_NNETWORKPROXYPARAMETERSFCGIREQUESTPROCESSOR_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NNetworkProxyParametersAccessor;

/**
 * Answers GET requests with the proxy settings as JSON (NNetworkProxyParameters::networkProxyAsVariantMap()), and
 * PUT requests, which replace all of them, with the settings as they are then. The accessor says what a session
 * may do; what it may not is answered 403.
 *
 * User names and passwords are in the reply only if the session may read them. A PUT without them removes them.
 *
 * A document of another form, or with an invalid server, is answered 400. When the settings cannot be stored, the
 * answer is 500, with the reason on the request's error stream. The settings are unchanged then.
 */
class NBASE_EXPORT NNetworkProxyParametersFcgiRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /**
     * @param identifier finds the session of a request; not owned.
     * @param accessor the settings that are served; not owned, and must outlive the processor.
     */
    NNetworkProxyParametersFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, NNetworkProxyParametersAccessor* accessor);
    ~NNetworkProxyParametersFcgiRequestProcessor() override;

protected:
    void processGetMethod(NwaFcgiRequest* request) override;
    void processPutMethod(NwaFcgiRequest* request) override;

private:
    Q_DISABLE_COPY(NNetworkProxyParametersFcgiRequestProcessor)

    bool setParametersFromRequest(NwaFcgiRequest* request);

    NNetworkProxyParametersAccessor* m_accessor;
};

#endif
