#include "support/nservicetest.h"

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwawebsession.h>

#include "support/ntestwait.h"

NFixedSession::NFixedSession(NwaWebSession* session)
    : session(session)
    , wasPassive(false)
{
}

NwaWebSession* NFixedSession::identifySession(NwaFcgiRequest*, bool passive)
{
    wasPassive = wasPassive || passive;
    return session;
}

NServiceTest::NServiceTest() {}

NServiceTest::~NServiceTest() {}

void NServiceTest::init()
{
    m_sessions.reset(new NwaWebSessionManager);
    m_identifier.reset(new NFixedSession(m_sessions->createSession()));
    m_channel.reset(new NMemoryChannel);
}

QList<QByteArray> NServiceTest::queries() const
{
    return QList<QByteArray>() << QByteArray();
}

void NServiceTest::process(const QByteArray& query, const QByteArray& method)
{
    const QScopedPointer<NwaStandardFcgiService> service(newService());
    processWith(*service, query, method);
}

void NServiceTest::processWith(NwaStandardFcgiService& service, const QByteArray& query, const QByteArray& method)
{
    m_channel.reset(new NMemoryChannel);
    service.processRequest(new NwaFcgiRequest(m_channel.data(), variables(query, method)));
    NTRY_COMPARE(m_channel->finishCount, 1);
}

NwaCgiRequest::Variables NServiceTest::variables(const QByteArray& query, const QByteArray& method)
{
    return nVariables(
        "REQUEST_METHOD", method, "SCRIPT_NAME", "/api/service", "PATH_INFO", "/more", "QUERY_STRING", query);
}

void NServiceTest::requestWithoutSessionIsAnswered401()
{
    m_identifier->session = nullptr;
    const QList<QByteArray> asked = queries();
    for (const QByteArray& query : asked) {
        process(query);
        QVERIFY(m_channel->header().startsWith("Status: 401 Unauthorized\r\n"));
        QCOMPARE(m_channel->remarks, QByteArray());
        QVERIFY(!m_channel->body().contains('{'));
    }
}

void NServiceTest::refusedSessionIsAnswered403WithoutDocumentOrRemark()
{
    NRefusal refusal;
    const QScopedPointer<NwaStandardFcgiService> service(newRefusingService(&refusal, nullptr));
    const QList<QByteArray> asked = queries();
    for (const QByteArray& query : asked) {
        processWith(*service, query);
        QVERIFY(m_channel->header().startsWith("Status: 403 Forbidden\r\n"));
        QVERIFY(!m_channel->body().contains('{'));
        QCOMPARE(m_channel->remarks, QByteArray());
    }
    QVERIFY(refusal.askedFor == m_identifier->session);
}

void NServiceTest::sessionIsKeptAlive()
{
    process();
    QVERIFY(!m_identifier->wasPassive);
}

void NServiceTest::headIsAnsweredWithoutTheDocument()
{
    process(queries().first(), "HEAD");
    QCOMPARE(m_channel->output, QByteArray("Content-Type: application/json; charset=utf-8\r\n\r\n"));
}

void NServiceTest::otherMethodsAreNotAllowed_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("POST") << QByteArray("POST");
    QTest::newRow("PUT") << QByteArray("PUT");
    QTest::newRow("DELETE") << QByteArray("DELETE");
    QTest::newRow("PATCH") << QByteArray("PATCH");
    QTest::newRow("get") << QByteArray("get");
}

void NServiceTest::otherMethodsAreNotAllowed()
{
    QFETCH(QByteArray, method);
    process(queries().first(), method);
    QVERIFY(m_channel->header().startsWith("Status: 405 Method Not Allowed\r\n"));
    QVERIFY(m_channel->header().contains("\r\nAllow: GET, HEAD\r\n"));
}

void NServiceTest::serviceOwnsTheProcessorItIsGiven()
{
    NRefusal refusal;
    QObject parent;
    newRefusingService(&refusal, &parent);
    QCOMPARE(refusal.deletedCount, 0);
    delete parent.children().first();
    QCOMPARE(refusal.deletedCount, 1);
}
