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

    virtual ~Processor() { ++m_counts->deletions; }

    virtual void processRequest(NwaFcgiRequest* request)
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
    NwaStandardFcgiService service(new Processor(&counts), 0);
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

    delete new NwaStandardFcgiService(new ObjectProcessor(&counts, 0), 0);
    QCOMPARE(counts.deletions, 2);
}

void tst_NwaStandardFcgiService::processorThatIsTheServicesChildIsDeletedOnce()
{
    Counts counts;
    ObjectProcessor* processor = new ObjectProcessor(&counts, 0);
    NwaStandardFcgiService* service = new NwaStandardFcgiService(processor, 0);
    processor->setParent(service);
    delete service;
    QCOMPARE(counts.deletions, 1);
}

void tst_NwaStandardFcgiService::processorThatItsParentDeletedIsNotDeletedAgain()
{
    Counts counts;
    QObject* owner = new QObject;
    NwaStandardFcgiService service(new ObjectProcessor(&counts, owner), 0);
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
    NwaStandardFcgiService service(0, 0);
    NMemoryChannel channel;
    service.processRequest(new NwaFcgiRequest(&channel, nVariables()));
    QVERIFY(channel.header().startsWith("Status: 503 Service Unavailable\r\n"));
    QCOMPARE(channel.finishCount, 1);
}

QTEST_APPLESS_MAIN(tst_NwaStandardFcgiService)
#include "tst_nwastandardfcgiservice.moc"
