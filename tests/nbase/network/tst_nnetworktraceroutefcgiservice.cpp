#include <nbase/network/nnetworktraceroutefcgirequestprocessor.h>
#include <nbase/network/nnetworktraceroutefcgiservice.h>

#include <nbase/network/nnetworktraceroute.h>

#include "nbase/network/nrunnerservicetest.h"
#include "support/ntestwait.h"

#include <QtTest/QtTest>

namespace {

typedef NNetworkTracerouteFcgiRequestProcessor Processor;
typedef NNetworkTracerouteFcgiService Service;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

class RefusingProcessor : public Processor
{
public:
    using Processor::Processor;

    bool canDoTracerouteTestWithSession(NwaWebSession*) const override { return false; }
};

} // namespace

class tst_NNetworkTracerouteFcgiService : public NRunnerServiceTest
{
    Q_OBJECT

public:
    tst_NNetworkTracerouteFcgiService()
        : NRunnerServiceTest("traceroute")
    {
    }

private slots:
    void stateHoldsParametersAndText();
    void textBeyondAMegabyteIsLeftOut();
    void startTracerouteStartsOnlyAnIdleRunner();

protected slots:
    void takeEvent(const QUuid& sessionId, const NNetworkTraceroute* traceroute)
    {
        recordEvent(sessionId, traceroute->isRunning());
    }

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

    QByteArray startBody() const override { return "{\"host\":\"h\",\"printNames\":false}"; }

    QList<QByteArray> invalidBodies() const override
    {
        return QList<QByteArray>() << "{\"printNames\":false}"
                                   << "{\"host\":\"h\"}"
                                   << "{\"host\":\"h\",\"printNames\":null}"
                                   << "{\"host\":\"h\",\"printNames\":0}"
                                   << "{\"host\":\"h\",\"printNames\":\"true\"}";
    }

private:
    Service* connected(Service* service)
    {
        connect(
            service, SIGNAL(tracerouteEvent(QUuid,const NNetworkTraceroute*)),
                            SLOT(takeEvent(QUuid,const NNetworkTraceroute*)));
        return service;
    }
};

void tst_NNetworkTracerouteFcgiService::stateHoldsParametersAndText()
{
    command().setScript("printf ' 1  h\\303\\244 \\001\\n'");
    request("POST", "{\"host\":\"10.0.0.1\",\"printNames\":true}");
    QCOMPARE(
        channel().body(),
        QByteArray(
            "{\"parameters\":{\"host\":\"10.0.0.1\",\"printNames\":true},\"result\":\"\",\"started\":true}"));
    QVERIFY(waitForEnd());
    QCOMPARE(reply().value(text("result")).toString(), text(" 1  h\xC3\xA4 \x01\n"));
    QCOMPARE(command().calls(), QList<QByteArray>() << QByteArray("|10.0.0.1"));

    request("POST", startBody());
    QCOMPARE(
        channel().body(),
        QByteArray("{\"parameters\":{\"host\":\"h\",\"printNames\":false},\"result\":\"\",\"started\":true}"));
    QVERIFY(waitForEnd());
    QCOMPARE(command().calls().last(), QByteArray("|-n|h"));
}

void tst_NNetworkTracerouteFcgiService::textBeyondAMegabyteIsLeftOut()
{
    QCOMPARE(int(Processor::MaximumResultSize), 1024 * 1024);
    command().setScript("/usr/bin/yes | /usr/bin/head -c 1048577");
    request("POST", startBody());
    QVERIFY(waitForEnd());
    const QString result = reply().value(text("result")).toString();
    const QString note = text("\n[The text is longer than is kept here; the rest has been left out.]\n");
    QCOMPARE(result.size(), 1024 * 1024 + note.size());
    QVERIFY(result.startsWith(text("y\ny\n")));
    QVERIFY(result.endsWith(text("y\n") + note));
}

void tst_NNetworkTracerouteFcgiService::startTracerouteStartsOnlyAnIdleRunner()
{
    command().setScript(NEndlessScript);
    Processor processor(identifier(), sessions(), nullptr);
    const NwaWebSession* const session = sessions()->createSession();
    NNetworkTraceroute* const traceroute = processor.startTraceroute(session, text("h"), true);
    QVERIFY(traceroute);
    QVERIFY(traceroute->parent() == &processor);
    QVERIFY(traceroute->isRunning());
    QCOMPARE(traceroute->host(), text("h"));
    QVERIFY(traceroute->printNames());
    QVERIFY(!processor.startTraceroute(session, text("i"), false));
    QCOMPARE(traceroute->host(), text("h"));
    traceroute->stop();
    QVERIFY(processor.startTraceroute(session, text("i"), false) == traceroute);
    QVERIFY(!traceroute->printNames());
    processor.setMaximumRunnerCount(1);
    QVERIFY(!processor.startTraceroute(sessions()->createSession(), text("h"), true));
}

QTEST_MAIN(tst_NNetworkTracerouteFcgiService)
#include "tst_nnetworktraceroutefcgiservice.moc"
