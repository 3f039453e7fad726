#include <nwebapi/nwaabstractfcgirequestprocessor.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwastandardfcgiservice.h>

#include "nmemorychannel.h"

#include <QtTest/QtTest>

namespace {

struct Counts
{
    Counts()
        : requests(0)
        , deletions(0)
    {
    }

    int requests;
    int deletions;
};

class Processor : public NwaAbstractFcgiRequestProcessor
{
public:
    explicit Processor(Counts* counts)
        : m_counts(counts)
    {
    }

    ~Processor() override { ++m_counts->deletions; }

    void processRequest(NwaFcgiRequest* request) override
    {
        ++m_counts->requests;
        delete request;
    }

private:
    Counts* m_counts;
};

class ObjectProcessor : public QObject, public Processor
{
public:
    ObjectProcessor(Counts* counts, QObject* parent)
        : QObject(parent)
        , Processor(counts)
    {
    }
};

} // namespace

class tst_NwaStandardFcgiService : public QObject
{
    Q_OBJECT

private slots:
    void requestIsHandedToTheProcessor();
    void processorIsDeletedWithTheService();
    void processorThatIsTheServicesChildIsDeletedOnce();
    void processorThatItsParentDeletedIsNotDeletedAgain();
    void requestWithoutProcessorIsAnswered503();
};

void tst_NwaStandardFcgiService::requestIsHandedToTheProcessor()
{
    Counts counts;
    NwaStandardFcgiService service(new Processor(&counts), nullptr);
    NMemoryChannel channel;
    service.processRequest(new NwaFcgiRequest(&channel, nVariables()));
    QCOMPARE(counts.requests, 1);
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiService::processorIsDeletedWithTheService()
{
    Counts counts;
    QObject parent;
    NwaStandardFcgiService* service = new NwaStandardFcgiService(new Processor(&counts), &parent);
    QCOMPARE(service->parent(), &parent);
    delete service;
    QCOMPARE(counts.deletions, 1);

    delete new NwaStandardFcgiService(new ObjectProcessor(&counts, nullptr), nullptr);
    QCOMPARE(counts.deletions, 2);
}

void tst_NwaStandardFcgiService::processorThatIsTheServicesChildIsDeletedOnce()
{
    Counts counts;
    ObjectProcessor* processor = new ObjectProcessor(&counts, nullptr);
    NwaStandardFcgiService* service = new NwaStandardFcgiService(processor, nullptr);
    processor->setParent(service);
    delete service;
    QCOMPARE(counts.deletions, 1);
}

void tst_NwaStandardFcgiService::processorThatItsParentDeletedIsNotDeletedAgain()
{
    Counts counts;
    QObject* owner = new QObject;
    NwaStandardFcgiService service(new ObjectProcessor(&counts, owner), nullptr);
    delete owner;
    QCOMPARE(counts.deletions, 1);

    NMemoryChannel channel;
    service.processRequest(new NwaFcgiRequest(&channel, nVariables()));
    QVERIFY(channel.header().startsWith("Status: 503 Service Unavailable\r\n"));
    QCOMPARE(channel.finishCount, 1);
    QCOMPARE(counts.requests, 0);
}

void tst_NwaStandardFcgiService::requestWithoutProcessorIsAnswered503()
{
    NwaStandardFcgiService service(nullptr, nullptr);
    NMemoryChannel channel;
    service.processRequest(new NwaFcgiRequest(&channel, nVariables()));
    QVERIFY(channel.header().startsWith("Status: 503 Service Unavailable\r\n"));
    QCOMPARE(channel.finishCount, 1);
}

QTEST_APPLESS_MAIN(tst_NwaStandardFcgiService)
#include "tst_nwastandardfcgiservice.moc"
