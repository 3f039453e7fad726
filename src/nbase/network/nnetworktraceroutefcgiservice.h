#ifndef NBASE_NNETWORKTRACEROUTEFCGISERVICE_H
#define NBASE_NNETWORKTRACEROUTEFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

#include <QtCore/QUuid>

class NNetworkTraceroute;
class NNetworkTracerouteFcgiRequestProcessor;
class NwaAbstractFcgiSessionIdentifier;
class NwaWebSessionManager;

/**
 * The web service that lets each session run a traceroute from the device. For its requests see
 * NNetworkTracerouteFcgiRequestProcessor.
 */
class NBASE_EXPORT NNetworkTracerouteFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NNetworkTracerouteFcgiService(NNetworkTracerouteFcgiRequestProcessor* processor, QObject* parent);

    /**
     * @param identifier finds the session of a request; not owned.
     * @param sessions reports the end of a session; not owned.
     */
    NNetworkTracerouteFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent);

    ~NNetworkTracerouteFcgiService() override;

signals:
    /** See NNetworkTracerouteFcgiRequestProcessor::tracerouteEvent(). */
    void tracerouteEvent(const QUuid& sessionId, const NNetworkTraceroute* traceroute);

private:
    Q_DISABLE_COPY(NNetworkTracerouteFcgiService)
};

#endif
