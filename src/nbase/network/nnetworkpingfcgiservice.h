#ifndef NBASE_NNETWORKPINGFCGISERVICE_H
#define NBASE_NNETWORKPINGFCGISERVICE_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgiservice.h>

#include <QtCore/QUuid>

class NNetworkPing;
class NNetworkPingFcgiRequestProcessor;
class NwaAbstractFcgiSessionIdentifier;
class NwaWebSessionManager;

/**
 * The web service that lets each session run a ping from the device. For its requests see
 * NNetworkPingFcgiRequestProcessor.
 */
class NBASE_EXPORT NNetworkPingFcgiService : public NwaStandardFcgiService
{
    Q_OBJECT

public:
    /** @param processor answers the requests; the service takes ownership. */
    NNetworkPingFcgiService(NNetworkPingFcgiRequestProcessor* processor, QObject* parent);

    /**
     * @param identifier finds the session of a request; not owned.
     * @param sessions reports the end of a session; not owned.
     */
    NNetworkPingFcgiService(
        NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent);

    ~NNetworkPingFcgiService() override;

signals:
    /** See NNetworkPingFcgiRequestProcessor::pingEvent(). */
    void pingEvent(const QUuid& sessionId, const NNetworkPing* ping);

private:
    Q_DISABLE_COPY(NNetworkPingFcgiService)
};

#endif
