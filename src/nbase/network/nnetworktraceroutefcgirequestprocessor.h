#ifndef NBASE_NNETWORKTRACEROUTEFCGIREQUESTPROCESSOR_H
#define NBASE_NNETWORKTRACEROUTEFCGIREQUESTPROCESSOR_H

#include <nbase/network/nnetworkrunnerfcgirequestprocessor.h>

class NNetworkTraceroute;

/**
 * Lets each session run a traceroute from the device (see NNetworkTraceroute). For the requests see
 * NNetworkRunnerFcgiRequestProcessor. The parameters are an object with the members "host", an IPv4 address or a
 * host name, and "printNames", a boolean: whether the names of the routers are looked up. Both are required.
 */
class NBASE_EXPORT NNetworkTracerouteFcgiRequestProcessor : public NNetworkRunnerFcgiRequestProcessor
{
    Q_OBJECT

public:
    /** How many characters of text a runner keeps; a note says where further text was left out. */
    static const int MaximumResultSize = 1024 * 1024;

    /**
     * @param identifier finds the session of a request; not owned.
     * @param sessions reports the end of a session; not owned.
     */
    NNetworkTracerouteFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent);
    ~NNetworkTracerouteFcgiRequestProcessor() override;

    /** Whether the user of @a session may run a traceroute: every user, unless a derived class says otherwise. */
    virtual bool canDoTracerouteTestWithSession(NwaWebSession* session) const;

    /**
     * Starts the traceroute of @a session.
     * @return the runner; null when it is already running, when there is no room for a further one
     * (setMaximumRunnerCount()), and when a receiver of tracerouteEvent() has ended the session.
     */
    NNetworkTraceroute* startTraceroute(const NwaWebSession* session, const QString& host, bool printNames);

    /** The state of @a traceroute: "started", "parameters" ("host", "printNames") and "result", the text so far.
     */
    QVariantMap tracerouteStatusToVariantMap(const NNetworkTraceroute* traceroute) const;

    /** Reads the parameters from a parsed JSON document. @return whether they are valid. */
    static bool tracerouteParametersFromVariant(const QVariant& variant, QString& host, bool& printNames);

signals:
    /**
     * The traceroute of a session has been started, has had text or has stopped. @a sessionId is null when the
     * traceroute is being deleted at the client's request.
     */
    void tracerouteEvent(const QUuid& sessionId, const NNetworkTraceroute* traceroute);

protected:
    /**
     * Reads the parameters from the body of @a request.
     * @return whether they are valid; if not, the request has been answered with 400 or 415 and deleted.
     */
    bool getTracerouteParameters(NwaFcgiRequest* request, QString& host, bool& printNames) const;

private slots:
    void tracerouteEvent();

private:
    Q_DISABLE_COPY(NNetworkTracerouteFcgiRequestProcessor)

    bool canTestWithSession(NwaWebSession* session) const override;
    void startTest(NwaFcgiRequest* request, const NwaWebSession* session) override;
    bool isRunning(const QObject* runner) const override;
    void stop(QObject* runner) override;
    QVariantMap statusToVariantMap(const QObject* runner) const override;
};

#endif
