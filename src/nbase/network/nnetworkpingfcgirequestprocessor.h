#ifndef NBASE_NNETWORKPINGFCGIREQUESTPROCESSOR_H
#define NBASE_NNETWORKPINGFCGIREQUESTPROCESSOR_H

#include <nbase/network/nnetworkrunnerfcgirequestprocessor.h>

class NNetworkPing;

/**
 * Lets each session run a ping from the device (see NNetworkPing). For the requests see
 * NNetworkRunnerFcgiRequestProcessor. The parameters are an object with
 *
 * | member    | value                                                               |
 * |-----------|---------------------------------------------------------------------|
 * | "host"    | an IPv4 address or a host name; required                            |
 * | "count"   | how many pings are sent, 0 (the default) for no limit               |
 * | "timeout" | how many seconds a ping waits for its reply, at least 1; 5 if absent |
 * | "delay"   | the interval between two pings in seconds, at least 1; 1 if absent  |
 */
class NBASE_EXPORT NNetworkPingFcgiRequestProcessor : public NNetworkRunnerFcgiRequestProcessor
{
    Q_OBJECT

public:
    /**
     * @param identifier finds the session of a request; not owned.
     * @param sessions reports the end of a session; not owned.
     */
    NNetworkPingFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent);
    ~NNetworkPingFcgiRequestProcessor() override;

    /** Whether the user of @a session may run a ping: every user, unless a derived class says otherwise. */
    virtual bool canDoPingTestWithSession(NwaWebSession* session) const;

    /**
     * Starts the ping of @a session.
     * @return the runner; null when it is already running, when there is no room for a further one
     * (setMaximumRunnerCount()), and when a receiver of pingEvent() has ended the session.
     */
    NNetworkPing*
    startPing(const NwaWebSession* session, const QString& host, quint32 count, quint32 timeout, quint32 delay);

    /**
     * The state of @a ping: "started", "parameters" ("host", "count", "timeout", "delay"), "statistics" ("sent",
     * "good", "fastest", "slowest", "meanTime") and, when a ping has ended, "last" ("good", "ttl", "replyTime").
     * Times of replies are in microseconds.
     */
    QVariantMap pingStatusToVariantMap(const NNetworkPing* ping) const;

    /** Reads the parameters from a parsed JSON document. @return whether they are valid. */
    static bool pingParametersFromVariant(
        const QVariant& variant, QString& host, quint32& count, quint32& timeout, quint32& delay);

signals:
    /**
     * The ping of a session has been started, has had a result or has stopped. @a sessionId is null when the ping
     * is being deleted at the client's request.
     */
    void pingEvent(const QUuid& sessionId, const NNetworkPing* ping);

protected:
    /**
     * Reads the parameters from the body of @a request.
     * @return whether they are valid; if not, the request has been answered with 400 or 415 and deleted.
     */
    bool getPingParameters(
        NwaFcgiRequest* request, QString& host, quint32& count, quint32& timeout, quint32& delay) const;

private slots:
    void pingEvent();

private:
    Q_DISABLE_COPY(NNetworkPingFcgiRequestProcessor)

    bool canTestWithSession(NwaWebSession* session) const override;
    void startTest(NwaFcgiRequest* request, const NwaWebSession* session) override;
    bool isRunning(const QObject* runner) const override;
    void stop(QObject* runner) override;
    QVariantMap statusToVariantMap(const QObject* runner) const override;
};

#endif
