#ifndef NBASE_NNETWORKRUNNERFCGIREQUESTPROCESSOR_H
#define NBASE_NNETWORKRUNNERFCGIREQUESTPROCESSOR_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtCore/QVariant>

class NwaWebSessionManager;

/**
 * What the request processors of ping and traceroute have in common; use NNetworkPingFcgiRequestProcessor and
 * NNetworkTracerouteFcgiRequestProcessor. Each session has at most one runner, which keeps its results between the
 * requests:
 *
 * | request with the query "section=state" | does                                                      |
 * |----------------------------------------|-----------------------------------------------------------|
 * | POST                                   | starts the runner with the parameters of the JSON body    |
 * | GET                                    | replies with its state                                    |
 * | DELETE                                 | stops and deletes it, and replies with its final state    |
 *
 * Each is answered with the state as JSON, or with 401 (no session), 403 (no right), 400 (invalid parameters), 409
 * (the runner is running), 503 (no further runner, see setMaximumRunnerCount()) or 404 (no runner to read or to
 * delete). Other methods and other queries are answered 405. The end of a session deletes its runner.
 */
class NBASE_EXPORT NNetworkRunnerFcgiRequestProcessor : public QObject, public NwaStandardFcgiRequestProcessor
{
    Q_OBJECT

public:
    static const QString S_STREAM_FIELD_NAME;  ///< "stream", for clients that follow the events; not read here
    static const QString S_SECTION_FIELD_NAME; ///< "section"
    static const QString S_STATE_SECTION_NAME; ///< "state"

    /** How many runners all sessions together may have by default. */
    static const int DefaultMaximumRunnerCount = 32;

    ~NNetworkRunnerFcgiRequestProcessor() override;

    /** How many runners all sessions together may have, including those that have ended and keep their results. */
    int maximumRunnerCount() const;

    /** Sets how many runners all sessions together may have. Excess runners remain. */
    void setMaximumRunnerCount(int count);

public slots:
    /** Deletes the runner of the session with the identifier @a sessionId, which ends its command. */
    void sessionAboutToRemove(const QUuid& sessionId);

protected:
    /**
     * @param identifier finds the session of a request; not owned.
     * @param sessions reports the end of a session; not owned.
     */
    NNetworkRunnerFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions, QObject* parent);

    void processGetMethod(NwaFcgiRequest* request) override;
    void processPostMethod(NwaFcgiRequest* request) override;
    void processDeleteMethod(NwaFcgiRequest* request) override;

    /**
     * The session of @a request, if its user has the right to the test.
     * @return null when there is none; the request has been answered with 401 or 403 and deleted then.
     */
    NwaWebSession* authenticateRequestAndCheckAccessRights(NwaFcgiRequest* request);

    /**
     * Whether @a session may start a @a test ("ping") now.
     * @return if not, the request has been answered with 409 or 503 and deleted.
     */
    bool requireStartable(NwaFcgiRequest* request, const NwaWebSession* session, const QString& test);

    /** Whether one more session may have a runner. */
    bool hasRoom() const;

    /** The runner of a session; null when it has none. */
    QObject* runner(const QUuid& sessionId) const;

    /** Makes @a runner, a child of this object, that of a session without one. */
    void addRunner(const QUuid& sessionId, QObject* runner);

    /** The identifier of the session that has @a runner; a null one when no session has it. */
    QUuid sessionId(const QObject* runner) const;

    /** Reads the member "host" of @a parameters, which must be an IPv4 address or a host name. */
    static bool hostFromVariantMap(const QVariantMap& parameters, QString& host);

private:
    Q_DISABLE_COPY(NNetworkRunnerFcgiRequestProcessor)

    virtual bool canTestWithSession(NwaWebSession* session) const = 0;
    virtual void startTest(NwaFcgiRequest* request, const NwaWebSession* session) = 0;
    virtual bool isRunning(const QObject* runner) const = 0;
    virtual void stop(QObject* runner) = 0;
    virtual QVariantMap statusToVariantMap(const QObject* runner) const = 0;

    void processGetMethodForStateSection(NwaFcgiRequest* request);
    void processDeleteMethodForStateSection(NwaFcgiRequest* request);

    QMap<QUuid, QObject*> m_runners; ///< no hash: Qt 4.8 has none for QUuid
    int m_maximumRunnerCount;
};

#endif
