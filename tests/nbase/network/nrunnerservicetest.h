#ifndef NBASE_TESTS_NRUNNERSERVICETEST_H
#define NBASE_TESTS_NRUNNERSERVICETEST_H

#include <nbase/network/nnetworkrunnerfcgirequestprocessor.h>

#include "nbase/network/nfakecommand.h"
#include "nwebapi/nmemorychannel.h"
#include "support/nservicetest.h"

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtCore/QStringList>
#include <QtCore/QUuid>

#include <functional>

/**
 * The base of the tests of the web services of ping and traceroute. It provides sessions, requests and a script in
 * the place of the command, and tests what both services have in common; a derived test inherits these tests.
 */
class NRunnerServiceTest : public QObject
{
    Q_OBJECT

protected:
    /** @param test "ping" or "traceroute". */
    explicit NRunnerServiceTest(const char* test);
    ~NRunnerServiceTest() override;

    /** A processor that refuses every session if @a refuses. */
    virtual NNetworkRunnerFcgiRequestProcessor* newProcessor(bool refuses) = 0;

    /** The service with the processor that newProcessor() has made, connected to the derived test's takeEvent().
     */
    virtual NwaStandardFcgiService* newService(NNetworkRunnerFcgiRequestProcessor* processor) = 0;

    /** The service that makes its own processor. */
    virtual NwaStandardFcgiService* newServiceWithOwnProcessor(QObject* parent) = 0;

    /** The body of a request that starts the test for the host "h". */
    virtual QByteArray startBody() const = 0;

    /** Bodies that are invalid only for this test. */
    virtual QList<QByteArray> invalidBodies() const = 0;

    /** Records an event of the service. */
    void recordEvent(const QUuid& sessionId, bool isRunning);

    /** Passes a request of the present session to the service; the reply is in channel(). */
    void request(
        const QByteArray& method, const QByteArray& body = QByteArray(), const QByteArray& query = "section=state",
        const QByteArray& contentType = "application/json");

    /** The HTTP status of the reply. */
    int status() const;

    /** Whether a request with @a method is answered with 200. */
    bool succeeds(const QByteArray& method, const QByteArray& body = QByteArray());

    /** The state in the reply. */
    QVariantMap reply() const;

    /** Polls until the runner has ended. @return whether it has. */
    bool waitForEnd();

    const NMemoryChannel& channel() const { return *m_channel; }
    NwaAbstractFcgiSessionIdentifier* identifier() const { return m_identifier.data(); }
    NwaWebSessionManager* sessions() const { return m_sessions.data(); }
    NFakeCommand& command() { return *m_command; }
    const QStringList& events() const { return m_events; }

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void namesAndLimitsAreFixed();
    void requestWithoutSessionIsAnswered401();
    void refusedSessionIsAnswered403BeforeItsBodyIsRead();
    void otherPathsAreAnswered405_data();
    void otherPathsAreAnswered405();
    void otherMethodsAreAnswered405_data();
    void otherMethodsAreAnswered405();
    void invalidBodiesAreAnswered400();
    void formIsAnswered415();
    void sessionWithoutRunnerIsAnswered404();
    void startIsAnsweredWithTheState();
    void headIsAnsweredWithoutTheState();
    void pollConsumesNothing();
    void startOfARunningRunnerIsAnswered409();
    void startAfterTheEndRestarts();
    void deleteEndsTheCommandBeforeTheReply();
    void deleteOfAnIdleRunnerSendsNoEvent();
    void sessionsHaveTheirOwnRunners();
    void endOfASessionEndsItsCommand();
    void sessionMayEndInsideAnEvent_data();
    void sessionMayEndInsideAnEvent();
    void serviceMayBeDeletedInsideAnEvent_data();
    void serviceMayBeDeletedInsideAnEvent();
    void runnersBeyondTheLimitAreAnswered503();
    void serviceMakesAndOwnsItsProcessor();

protected slots:
    void takeEndOfSession();

private:
    void makeService(bool refuses = false);
    void useNewSession();
    void endSession();

    const QByteArray m_test;
    QScopedPointer<NFakeCommand> m_command;
    QScopedPointer<NwaWebSessionManager> m_sessions;
    QScopedPointer<NFixedSession> m_identifier;
    QScopedPointer<NMemoryChannel> m_channel;
    QPointer<NwaStandardFcgiService> m_service;
    NNetworkRunnerFcgiRequestProcessor* m_processor; ///< of m_service
    QStringList m_events; ///< each the session's name ("none" for no session) and whether the runner was running
    std::function<void(const QString&)> m_onEvent;
    int m_descriptors;
};

#endif
