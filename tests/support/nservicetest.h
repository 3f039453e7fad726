#ifndef NBASE_TESTS_NSERVICETEST_H
#define NBASE_TESTS_NSERVICETEST_H

#include <nwebapi/nwaabstractfcgisessionidentifier.h>
#include <nwebapi/nwastandardfcgiservice.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "nwebapi/nmemorychannel.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>

/** Finds the session that it was constructed with, or none. */
class NFixedSession : public NwaAbstractFcgiSessionIdentifier
{
public:
    explicit NFixedSession(NwaWebSession* session);

    NwaWebSession* identifySession(NwaFcgiRequest* request, bool passive) override;

    NwaWebSession* session;
    bool wasPassive;
};

/** What happened to a refusing processor. */
struct NRefusal
{
    NRefusal()
        : askedFor(nullptr)
        , deletedCount(0)
    {
    }

    NwaWebSession* askedFor;
    int deletedCount;
};

/** The base of a processor whose access predicate, which is named differently in each, calls refuse(). */
template <typename Processor> class NRefusingProcessor : public Processor
{
public:
    template <typename Served>
    NRefusingProcessor(NwaAbstractFcgiSessionIdentifier* identifier, Served* served, NRefusal* refusal)
        : Processor(identifier, served)
        , m_refusal(refusal)
    {
    }
    ~NRefusingProcessor() override { ++m_refusal->deletedCount; }

protected:
    bool refuse(NwaWebSession* session) const
    {
        m_refusal->askedFor = session;
        return false;
    }

private:
    NRefusal* m_refusal;
};

/**
 * The base of the tests of read-only web services. It provides a session and the requests, and tests what all of
 * these services have in common; a derived test inherits these tests. The derived test's init() calls init()
 * first.
 */
class NServiceTest : public QObject
{
    Q_OBJECT

protected:
    NServiceTest();
    ~NServiceTest() override;

    void init();

    /** The service for session(), serving what the test has made. */
    virtual NwaStandardFcgiService* newService() = 0;

    /** The same with a processor of its own that refuses every session. */
    virtual NwaStandardFcgiService* newRefusingService(NRefusal* refusal, QObject* parent) = 0;

    /** A query for each document of the service. */
    virtual QList<QByteArray> queries() const;

    /** Passes a request to a new service; the reply is in channel(). */
    void process(const QByteArray& query = QByteArray(), const QByteArray& method = "GET");
    void processWith(
        NwaStandardFcgiService& service, const QByteArray& query = QByteArray(), const QByteArray& method = "GET");

    /** The request is for the script "/api/service" with the path information "/more". */
    static NwaCgiRequest::Variables variables(const QByteArray& query, const QByteArray& method);

    NFixedSession* identifier() const { return m_identifier.data(); }
    const NMemoryChannel& channel() const { return *m_channel; }

private slots:
    void requestWithoutSessionIsAnswered401();
    void refusedSessionIsAnswered403WithoutDocumentOrRemark();
    void sessionIsKeptAlive();
    void headIsAnsweredWithoutTheDocument();
    void otherMethodsAreNotAllowed_data();
    void otherMethodsAreNotAllowed();
    void serviceOwnsTheProcessorItIsGiven();

private:
    QScopedPointer<NwaWebSessionManager> m_sessions;
    QScopedPointer<NFixedSession> m_identifier;
    QScopedPointer<NMemoryChannel> m_channel;
};

#endif
