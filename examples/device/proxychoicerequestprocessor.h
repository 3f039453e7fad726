#ifndef DEMODEVICE_PROXYCHOICEREQUESTPROCESSOR_H
#define DEMODEVICE_PROXYCHOICEREQUESTPROCESSOR_H

#include "explainingrequestprocessor.h"

class NNetworkProxyParameters;

/**
 * Reports which proxy the device uses for an address, and the rule that decides.
 *
 * GET with "?address=" and a URL, or a host and a port for a connection of another kind, answers
 *
 *     {"host": "192.168.3.4", "protocol": "http", "proxy": null, "reason": "exception",
 *      "exception": "192.168.0.0/16"}
 *     {"host": "mail.example.org", "protocol": "", "proxy": {"type": "socks5", "host": "proxy.lan", "port": 1080},
 *      "reason": "own server", "exception": null}
 *
 * with the reasons "disabled", "exception", "own server", "HTTP server" (there is none of the protocol's own) and
 * "no server". Anything else is answered 400 with {"message": ...}, for a person to read.
 */
class ProxyChoiceRequestProcessor : public ExplainingRequestProcessor
{
public:
    /** Both must live longer. */
    ProxyChoiceRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, const NNetworkProxyParameters* parameters);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

private:
    const NNetworkProxyParameters* m_parameters;
};

#endif
