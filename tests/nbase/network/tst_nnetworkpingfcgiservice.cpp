#include <nbase/network/nnetworkpingfcgirequestprocessor.h>
#include <nbase/network/nnetworkpingfcgiservice.h>

#include <nbase/network/nnetworkping.h>

#include "nbase/network/nrunnerservicetest.h"
#include "support/ntestwait.h"

#include <QtTest/QtTest>

namespace {

typedef NNetworkPingFcgiRequestProcessor Processor;
typedef NNetworkPingFcgiService Service;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

class RefusingProcessor : public Processor
{
public:
    using Processor::Processor;

    bool canDoPingTestWithSession(NwaWebSession*) const override { return false; }
};

} // namespace

class tst_NNetworkPingFcgiService : public NRunnerServiceTest
{
    Q_OBJECT

public:
    tst_NNetworkPingFcgiService()
        : NRunnerServiceTest("ping")
    {
    }

private slots:
    void parametersHaveDefaults_data();
    void parametersHaveDefaults();
    void stateHoldsTheStatistics();
    void stateHoldsTheLastPing();
    void startPingStartsOnlyAnIdleRunner();

protected slots:
    void takeEvent(const QUuid& sessionId, const NNetworkPing* ping) { recordEvent(sessionId, ping->isRunning()); }

protected:
    NNetworkRunnerFcgiRequestProcessor* newProcessor(bool refuses) override
    {
        return refuses ? new RefusingProcessor(identifier(), sessions(), nullptr)
                       : new Processor(identifier(), sessions(), nullptr);
    }

    NwaStandardFcgiService* newService(NNetworkRunnerFcgiRequestProcessor* processor) override
    {
        return connected(new Service(static_cast<Processor*>(processor), nullptr));
    }

    NwaStandardFcgiService* newServiceWithOwnProcessor(QObject* parent) override
    {
        return connected(new Service(identifier(), sessions(), parent));
    }

    QByteArray startBody() const override { return "{\"host\":\"h\",\"count\":1}"; }

    QList<QByteArray> invalidBodies() const override
    {
        return QList<QByteArray>() << "{\"count\":1}"
                                   << "{\"host\":\"h\",\"count\":-1}"
                                   << "{\"host\":\"h\",\"count\":\"1\"}"
                                   << "{\"host\":\"h\",\"count\":1.5}"
                                   << "{\"host\":\"h\",\"count\":4294967296}"
                                   << "{\"host\":\"h\",\"count\":null}"
                                   << "{\"host\":\"h\",\"timeout\":0}"
                                   << "{\"host\":\"h\",\"timeout\":-5}"
                                   << "{\"host\":\"h\",\"timeout\":true}"
                                   << "{\"host\":\"h\",\"timeout\":4294967296}"
                                   << "{\"host\":\"h\",\"delay\":0}"
                                   << "{\"host\":\"h\",\"delay\":0.5}"
                                   << "{\"host\":\"h\",\"delay\":[]}"
                                   << "{\"host\":\"h\",\"delay\":4294967296}";
    }

private:
    Service* connected(Service* service)
    {
        connect(service, SIGNAL(pingEvent(QUuid,const NNetworkPing*)), SLOT(takeEvent(QUuid,const NNetworkPing*)));
        return service;
    }
};

void tst_NNetworkPingFcgiService::parametersHaveDefaults_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("parameters");
    QTest::newRow("host alone") << QByteArray("{\"host\":\"10.0.0.1\"}")
                                << QByteArray("{\"count\":0,\"delay\":1,\"host\":\"10.0.0.1\",\"timeout\":5}");
    QTest::newRow("all") << QByteArray("{\"host\":\"a.example\",\"count\":3,\"timeout\":7,\"delay\":2}")
                         << QByteArray("{\"count\":3,\"delay\":2,\"host\":\"a.example\",\"timeout\":7}");
    QTest::newRow("smallest") << QByteArray("{\"host\":\"h\",\"count\":0,\"timeout\":1,\"delay\":1}")
                              << QByteArray("{\"count\":0,\"delay\":1,\"host\":\"h\",\"timeout\":1}");
    QTest::newRow("largest")
        << QByteArray("{\"host\":\"h\",\"count\":4294967295,\"timeout\":4294967295,\"delay\":4294967295}")
        << QByteArray("{\"count\":4294967295,\"delay\":4294967295,\"host\":\"h\",\"timeout\":4294967295}");
    QTest::newRow("further member") << QByteArray("{\"host\":\"h\",\"other\":null}")
                                    << QByteArray("{\"count\":0,\"delay\":1,\"host\":\"h\",\"timeout\":5}");
}

void tst_NNetworkPingFcgiService::parametersHaveDefaults()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, parameters);
    request("POST", body);
    QCOMPARE(
        channel().body(), "{\"parameters\":" + parameters +
                              ",\"started\":true,\"statistics\":{\"fastest\":0,\"good\":0,\"meanTime\":0,\"sent\":"
                              "0,\"slowest\":0}}");
}

void tst_NNetworkPingFcgiService::stateHoldsTheStatistics()
{
    // The delay of one second passes once.
    command().setScript("[ $n = 1 ] && echo ttl=64 time=0.200 ms || echo ttl=63 time=1.001 ms");
    request("POST", "{\"host\":\"h\",\"count\":2}");
    QVERIFY(waitForEnd());
    QCOMPARE(
        channel().body(),
        QByteArray("{\"last\":{\"good\":true,\"replyTime\":1001,\"ttl\":63},"
                   "\"parameters\":{\"count\":2,\"delay\":1,\"host\":\"h\",\"timeout\":5},\"started\":false,"
                   "\"statistics\":{\"fastest\":200,\"good\":2,\"meanTime\":600,\"sent\":2,\"slowest\":1001}}"));
}

// Once one has ended, good or bad.
void tst_NNetworkPingFcgiService::stateHoldsTheLastPing()
{
    command().setScript("exit 1");
    request("POST", startBody());
    QVERIFY(!reply().contains(text("last")));
    QVERIFY(waitForEnd());
    QCOMPARE(
        channel().body(),
        QByteArray("{\"last\":{\"good\":false,\"replyTime\":0,\"ttl\":0},"
                   "\"parameters\":{\"count\":1,\"delay\":1,\"host\":\"h\",\"timeout\":5},\"started\":false,"
                   "\"statistics\":{\"fastest\":0,\"good\":0,\"meanTime\":0,\"sent\":1,\"slowest\":0}}"));
    request("POST", startBody());
    QVERIFY(!reply().contains(text("last")));
}

void tst_NNetworkPingFcgiService::startPingStartsOnlyAnIdleRunner()
{
    command().setScript(NEndlessScript);
    Processor processor(identifier(), sessions(), nullptr);
    const NwaWebSession* const session = sessions()->createSession();
    NNetworkPing* const ping = processor.startPing(session, text("h"), 1, 2, 3);
    QVERIFY(ping);
    QVERIFY(ping->parent() == &processor);
    QVERIFY(ping->isRunning());
    QCOMPARE(ping->host(), text("h"));
    QCOMPARE(ping->count(), 1u);
    QCOMPARE(ping->timeout(), 2u);
    QCOMPARE(ping->delay(), 3u);
    QVERIFY(!processor.startPing(session, text("i"), 1, 2, 3));
    QCOMPARE(ping->host(), text("h"));
    ping->stop();
    QVERIFY(processor.startPing(session, text("i"), 1, 2, 3) == ping);
    processor.setMaximumRunnerCount(1);
    QVERIFY(!processor.startPing(sessions()->createSession(), text("h"), 1, 2, 3));
}

QTEST_MAIN(tst_NNetworkPingFcgiService)
#include "tst_nnetworkpingfcgiservice.moc"
