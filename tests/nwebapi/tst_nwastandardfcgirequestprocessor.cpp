#include <nwebapi/nwaabstractfcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwastandardfcgirequestprocessor.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include "nmemorychannel.h"

#include <QtTest/QtTest>

#include <string.h>

namespace {

class Identifier : public NwaAbstractFcgiSessionIdentifier
{
public:
    Identifier()
        : session(nullptr)
        , wasPassive(false)
    {
    }

    NwaWebSession* identifySession(NwaFcgiRequest*, bool passive) override
    {
        wasPassive = passive;
        return session;
    }

    NwaWebSession* session;
    bool wasPassive;
};

// Refuses everything, as the base does.
class Processor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit Processor(NwaAbstractFcgiSessionIdentifier* identifier = nullptr)
        : NwaStandardFcgiRequestProcessor(identifier)
    {
    }

    using NwaStandardFcgiRequestProcessor::authenticateRequest;
    using NwaStandardFcgiRequestProcessor::refuseRequest;
    using NwaStandardFcgiRequestProcessor::requireJsonContent;
    using NwaStandardFcgiRequestProcessor::requireSession;
    using NwaStandardFcgiRequestProcessor::sendJsonDocument;
    using NwaStandardFcgiRequestProcessor::sendJsonReply;
    using NwaStandardFcgiRequestProcessor::setServedMethods;
    using NwaStandardFcgiRequestProcessor::writeRefusal;
};

// Has an access predicate, as the processors of the services have.
class GuardedProcessor : public Processor
{
public:
    explicit GuardedProcessor(NwaAbstractFcgiSessionIdentifier* identifier)
        : Processor(identifier)
    {
    }

    virtual bool canReadWithSession(NwaWebSession*) const { return true; }

    NwaWebSession* require(NwaFcgiRequest* request, Activity activity = ActiveRequest)
    {
        return requireSession(request, this, &GuardedProcessor::canReadWithSession, activity);
    }
};

// Restricts it, as applications do.
class RestrictedProcessor : public GuardedProcessor
{
public:
    explicit RestrictedProcessor(NwaAbstractFcgiSessionIdentifier* identifier)
        : GuardedProcessor(identifier)
    {
    }

    bool canReadWithSession(NwaWebSession* session) const override
    {
        return session->userName() == QLatin1String("admin");
    }
};

// What a processor serves may decide as well.
class Accessor
{
public:
    virtual ~Accessor() {}
    virtual bool canSetWithSession(const NwaWebSession* session) const
    {
        return session->userName() == QLatin1String("admin");
    }
};

class DerivedAccessor : public Accessor
{
};

// Answers with the name of the operation that was called.
class NamingProcessor : public Processor
{
protected:
    void processGetMethod(NwaFcgiRequest* request) override { answer(request, "get"); }
    void processPostMethod(NwaFcgiRequest* request) override { answer(request, "post"); }
    void processPutMethod(NwaFcgiRequest* request) override { answer(request, "put"); }
    void processDeleteMethod(NwaFcgiRequest* request) override { answer(request, "delete"); }
    void processOtherMethod(NwaFcgiRequest* request, const QString& method) override
    {
        answer(request, "other " + method.toLatin1());
    }

private:
    static void answer(NwaFcgiRequest* request, const QByteArray& operation)
    {
        sendJsonReply(request, QString::fromLatin1(operation));
    }
};

// Counts its destructions, and has one more operation, as processors of applications do.
class CountingProcessor : public NamingProcessor
{
public:
    explicit CountingProcessor(int* endCount)
        : m_endCount(endCount)
    {
    }
    ~CountingProcessor() override { ++*m_endCount; }

protected:
    virtual void processMore(NwaFcgiRequest* request) { sendJsonReply(request, QString::fromLatin1("more")); }

private:
    int* m_endCount;
};

// What a program that was compiled earlier calls: an entry of the table to which the object's first bytes point.
// It has the operations in the order of their declaration, and two entries for a destructor, of which the second
// also frees the memory; each is a function whose first argument is the object (Itanium C++ ABI, section 2.5).
template <typename Operation> Operation operationAt(int slot, const NwaStandardFcgiRequestProcessor* processor)
{
    const char* table = nullptr;
    memcpy(&table, static_cast<const void*>(processor), sizeof(table));
    Operation operation = nullptr;
    memcpy(&operation, table + slot * sizeof(operation), sizeof(operation));
    return operation;
}

const char jsonHeader[] = "Content-Type: application/json; charset=utf-8\r\n\r\n";

QByteArray statusOf(const NMemoryChannel& channel)
{
    return channel.header().left(channel.header().indexOf("\r\n"));
}

} // namespace

class tst_NwaStandardFcgiRequestProcessor : public QObject
{
    Q_OBJECT

private slots:
    void methodIsHandedToItsOperation_data();
    void methodIsHandedToItsOperation();
    void operationsHaveTheirPlaces_data();
    void operationsHaveTheirPlaces();
    void headIsAnsweredWithoutTheDocument();
    void headWithABodyIsRefused();
    void baseRefusesEveryMethod_data();
    void baseRefusesEveryMethod();
    void servedMethodsAreAllowed_data();
    void servedMethodsAreAllowed();
    void foreignOriginMayNotChange_data();
    void foreignOriginMayNotChange();
    void requestOfAnotherSiteMayNotChange_data();
    void requestOfAnotherSiteMayNotChange();
    void requestOfAnotherSiteMayRead_data();
    void requestOfAnotherSiteMayRead();
    void foreignOriginMayRead_data();
    void foreignOriginMayRead();
    void sessionIsHandedOut();
    void requestWithoutSessionIsAnswered401();
    void requiredSessionIsHandedOut();
    void requestThatLacksTheRequiredSessionIsAnswered401AndDeleted();
    void sessionWithoutTheRightIsAnswered403AndDeleted();
    void servedObjectMayDecideAboutTheRight();
    void requiredJsonContentIsRead();
    void requestThatLacksTheRequiredJsonContentIsAnsweredAndDeleted_data();
    void requestThatLacksTheRequiredJsonContentIsAnsweredAndDeleted();
    void refusedRequestIsAnsweredAndDeleted();
    void refusalIsWrittenToTheErrorStream();
    void placeholdersAreFilledInOnePass();
    void refusalShowsControlCharacters();
    void refusalIsWrittenInLatin1();
    void repliesAreJson();
    void replyMayHaveAHeaderOfItsOwn();
};

void tst_NwaStandardFcgiRequestProcessor::methodIsHandedToItsOperation_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("operation");
    QTest::newRow("GET") << QByteArray("GET") << QByteArray("get");
    QTest::newRow("POST") << QByteArray("POST") << QByteArray("post");
    QTest::newRow("PUT") << QByteArray("PUT") << QByteArray("put");
    QTest::newRow("DELETE") << QByteArray("DELETE") << QByteArray("delete");
    QTest::newRow("OPTIONS") << QByteArray("OPTIONS") << QByteArray("other OPTIONS");
    QTest::newRow("PATCH") << QByteArray("PATCH") << QByteArray("other PATCH");
    QTest::newRow("methods are case-sensitive") << QByteArray("get") << QByteArray("other get");
    QTest::newRow("none") << QByteArray("") << QByteArray("other ");
}

void tst_NwaStandardFcgiRequestProcessor::methodIsHandedToItsOperation()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, operation);
    NMemoryChannel channel;
    NamingProcessor().processRequest(new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", method)));
    QCOMPARE(channel.output, jsonHeader + ('"' + operation + '"'));
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::operationsHaveTheirPlaces_data()
{
    QTest::addColumn<int>("slot");
    QTest::addColumn<QByteArray>("operation");
    // The request's method shows that it was processRequest().
    QTest::newRow("processRequest") << 2 << QByteArray("other PATCH");
    QTest::newRow("processGetMethod") << 3 << QByteArray("get");
    QTest::newRow("processPostMethod") << 4 << QByteArray("post");
    QTest::newRow("processPutMethod") << 5 << QByteArray("put");
    QTest::newRow("processDeleteMethod") << 6 << QByteArray("delete");
    QTest::newRow("processOtherMethod") << 7 << QByteArray("other argument");
    QTest::newRow("first of the derived class") << 8 << QByteArray("more");
}

void tst_NwaStandardFcgiRequestProcessor::operationsHaveTheirPlaces()
{
    QFETCH(int, slot);
    QFETCH(QByteArray, operation);
    typedef void (*Operation)(NwaStandardFcgiRequestProcessor*, NwaFcgiRequest*, const QString&);
    typedef void (*Destructor)(NwaStandardFcgiRequestProcessor*);
    int endCount = 0;
    NwaStandardFcgiRequestProcessor* const processor = new CountingProcessor(&endCount);
    NMemoryChannel channel;
    NwaFcgiRequest* const request = new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", "PATCH"));
    // Operations with fewer parameters ignore the last argument.
    operationAt<Operation>(slot, processor)(processor, request, QString::fromLatin1("argument"));
    QCOMPARE(channel.output, jsonHeader + ('"' + operation + '"'));
    QCOMPARE(endCount, 0);
    operationAt<Destructor>(1, processor)(processor);
    QCOMPARE(endCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::headIsAnsweredWithoutTheDocument()
{
    NMemoryChannel channel;
    NamingProcessor().processRequest(new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", "HEAD")));
    QCOMPARE(channel.output, QByteArray(jsonHeader));
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::headWithABodyIsRefused()
{
    NMemoryChannel channel("x");
    NamingProcessor().processRequest(
        new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", "HEAD", "CONTENT_LENGTH", "1")));
    QCOMPARE(statusOf(channel), QByteArray("Status: 400 Bad Request"));
    QCOMPARE(channel.body(), QByteArray());
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::baseRefusesEveryMethod_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("GET") << QByteArray("GET");
    QTest::newRow("HEAD") << QByteArray("HEAD");
    QTest::newRow("POST") << QByteArray("POST");
    QTest::newRow("PUT") << QByteArray("PUT");
    QTest::newRow("DELETE") << QByteArray("DELETE");
    QTest::newRow("TRACE") << QByteArray("TRACE");
}

void tst_NwaStandardFcgiRequestProcessor::baseRefusesEveryMethod()
{
    QFETCH(QByteArray, method);
    NMemoryChannel channel;
    Processor().processRequest(new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", method)));
    QCOMPARE(statusOf(channel), QByteArray("Status: 405 Method Not Allowed"));
    QVERIFY(channel.header().contains("\r\nAllow: GET, HEAD\r\n"));
    QCOMPARE(channel.remarks, QByteArray());
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::servedMethodsAreAllowed_data()
{
    QTest::addColumn<int>("methods");
    QTest::addColumn<QByteArray>("field");
    typedef NwaStandardFcgiRequestProcessor P;
    QTest::newRow("none") << 0 << QByteArray("\r\nAllow: \r\n");
    QTest::newRow("GET") << int(P::GetMethod) << QByteArray("\r\nAllow: GET, HEAD\r\n");
    QTest::newRow("POST alone") << int(P::PostMethod) << QByteArray("\r\nAllow: POST\r\n");
    QTest::newRow("all in order") << int(P::DeleteMethod | P::PutMethod | P::PostMethod | P::GetMethod)
                                  << QByteArray("\r\nAllow: GET, HEAD, POST, PUT, DELETE\r\n");
}

void tst_NwaStandardFcgiRequestProcessor::servedMethodsAreAllowed()
{
    QFETCH(int, methods);
    QFETCH(QByteArray, field);
    NMemoryChannel channel;
    Processor processor;
    processor.setServedMethods(NwaStandardFcgiRequestProcessor::Methods(methods));
    processor.processRequest(new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", "TRACE")));
    QVERIFY(channel.header().contains(field));
}

void tst_NwaStandardFcgiRequestProcessor::foreignOriginMayNotChange_data()
{
    QTest::addColumn<QByteArray>("origin");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<bool>("isOwn");
    QTest::newRow("same") << QByteArray("http://device") << QByteArray("device") << true;
    QTest::newRow("TLS") << QByteArray("https://device") << QByteArray("device") << true;
    QTest::newRow("same port") << QByteArray("http://device:8080") << QByteArray("device:8080") << true;
    QTest::newRow("other case") << QByteArray("HTTP://Device") << QByteArray("dEVICE") << true;
    QTest::newRow("default port of origin") << QByteArray("http://device:80") << QByteArray("device") << true;
    QTest::newRow("default port of host") << QByteArray("http://device") << QByteArray("device:80") << true;
    QTest::newRow("default port of TLS") << QByteArray("https://device") << QByteArray("device:443") << true;
    QTest::newRow("empty port") << QByteArray("http://device") << QByteArray("device:") << true;
    QTest::newRow("IPv6") << QByteArray("http://[::1]") << QByteArray("[::1]:80") << true;
    QTest::newRow("other host") << QByteArray("http://evil") << QByteArray("device") << false;
    QTest::newRow("other port") << QByteArray("http://device:81") << QByteArray("device") << false;
    QTest::newRow("port of the other scheme") << QByteArray("https://device:80") << QByteArray("device") << false;
    QTest::newRow("host of TLS on port 80") << QByteArray("https://device") << QByteArray("device:80") << false;
    QTest::newRow("null") << QByteArray("null") << QByteArray("device") << false;
    QTest::newRow("null against null") << QByteArray("null") << QByteArray("null") << false;
    QTest::newRow("empty") << QByteArray("") << QByteArray("device") << false;
    QTest::newRow("empty hosts") << QByteArray("http://") << QByteArray("") << false;
    QTest::newRow("no scheme") << QByteArray("device") << QByteArray("device") << false;
    QTest::newRow("other scheme") << QByteArray("ftp://device") << QByteArray("device") << false;
    QTest::newRow("sub-domain") << QByteArray("http://device.evil") << QByteArray("device") << false;
    QTest::newRow("prefix") << QByteArray("http://devic") << QByteArray("device") << false;
    QTest::newRow("path") << QByteArray("http://device/") << QByteArray("device") << false;
    QTest::newRow("user") << QByteArray("http://device@evil") << QByteArray("device") << false;
}

void tst_NwaStandardFcgiRequestProcessor::foreignOriginMayNotChange()
{
    QFETCH(QByteArray, origin);
    QFETCH(QByteArray, host);
    QFETCH(bool, isOwn);
    const QByteArray methods[] = {"POST", "PUT", "DELETE", "PATCH"};
    for (int index = 0; index < 4; ++index) {
        NMemoryChannel channel;
        NamingProcessor().processRequest(new NwaFcgiRequest(
            &channel, nVariables("REQUEST_METHOD", methods[index], "HTTP_ORIGIN", origin, "HTTP_HOST", host)));
        QCOMPARE(
            statusOf(channel),
            QByteArray(isOwn ? "Content-Type: application/json; charset=utf-8" : "Status: 403 Forbidden"));
        QCOMPARE(channel.finishCount, 1);
    }
}

void tst_NwaStandardFcgiRequestProcessor::requestOfAnotherSiteMayNotChange_data()
{
    QTest::addColumn<QByteArray>("site");
    QTest::addColumn<QByteArray>("origin");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("cross-site without origin") << QByteArray("cross-site") << QByteArray() << false;
    QTest::newRow("cross-site with own origin")
        << QByteArray("cross-site") << QByteArray("http://device") << false;
    QTest::newRow("same site") << QByteArray("same-site") << QByteArray() << true;
    QTest::newRow("same origin") << QByteArray("same-origin") << QByteArray("http://device") << true;
    QTest::newRow("same-origin with foreign origin")
        << QByteArray("same-origin") << QByteArray("http://evil") << false;
    QTest::newRow("typed by the user") << QByteArray("none") << QByteArray() << true;
    QTest::newRow("no browser") << QByteArray() << QByteArray() << true;
}

void tst_NwaStandardFcgiRequestProcessor::requestOfAnotherSiteMayNotChange()
{
    QFETCH(QByteArray, site);
    QFETCH(QByteArray, origin);
    QFETCH(bool, accepted);
    const char* const methods[] = {"POST", "PUT", "DELETE", "PATCH"};
    for (const char* method : methods) {
        NwaFcgiRequest::Variables variables = nVariables("REQUEST_METHOD", method, "HTTP_HOST", "device");
        if (!site.isEmpty())
            variables.insert("HTTP_SEC_FETCH_SITE", site);
        if (!origin.isEmpty())
            variables.insert("HTTP_ORIGIN", origin);
        NMemoryChannel channel;
        NamingProcessor().processRequest(new NwaFcgiRequest(&channel, variables));
        QCOMPARE(
            statusOf(channel),
            QByteArray(accepted ? "Content-Type: application/json; charset=utf-8" : "Status: 403 Forbidden"));
    }
}

void tst_NwaStandardFcgiRequestProcessor::requestOfAnotherSiteMayRead_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("GET") << QByteArray("GET");
    QTest::newRow("HEAD") << QByteArray("HEAD");
    QTest::newRow("OPTIONS") << QByteArray("OPTIONS");
}

void tst_NwaStandardFcgiRequestProcessor::requestOfAnotherSiteMayRead()
{
    QFETCH(QByteArray, method);
    NMemoryChannel channel;
    NamingProcessor().processRequest(
        new NwaFcgiRequest(&channel, nVariables("REQUEST_METHOD", method, "HTTP_SEC_FETCH_SITE", "cross-site")));
    QCOMPARE(channel.header(), QByteArray(jsonHeader));
}

void tst_NwaStandardFcgiRequestProcessor::foreignOriginMayRead_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::newRow("GET") << QByteArray("GET");
    QTest::newRow("HEAD") << QByteArray("HEAD");
    QTest::newRow("OPTIONS") << QByteArray("OPTIONS");
}

void tst_NwaStandardFcgiRequestProcessor::foreignOriginMayRead()
{
    QFETCH(QByteArray, method);
    NMemoryChannel channel;
    NamingProcessor().processRequest(new NwaFcgiRequest(
        &channel, nVariables("REQUEST_METHOD", method, "HTTP_ORIGIN", "http://evil", "HTTP_HOST", "device")));
    QCOMPARE(channel.header(), QByteArray(jsonHeader));
}

void tst_NwaStandardFcgiRequestProcessor::sessionIsHandedOut()
{
    NwaWebSessionManager manager;
    Identifier identifier;
    identifier.session = manager.createSession();
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables());
    Processor processor(&identifier);
    QCOMPARE(processor.authenticateRequest(&request, true), identifier.session);
    QVERIFY(identifier.wasPassive);
    QCOMPARE(processor.authenticateRequest(&request, false), identifier.session);
    QVERIFY(!identifier.wasPassive);
    QVERIFY(!request.isAnswered());
}

void tst_NwaStandardFcgiRequestProcessor::requestWithoutSessionIsAnswered401()
{
    Identifier identifier;
    NwaAbstractFcgiSessionIdentifier* const identifiers[] = {&identifier, nullptr};
    for (int index = 0; index < 2; ++index) {
        NMemoryChannel channel;
        NwaFcgiRequest* request = new NwaFcgiRequest(&channel, nVariables());
        QVERIFY(!Processor(identifiers[index]).authenticateRequest(request, false));
        QCOMPARE(channel.finishCount, 0);
        delete request;
        QCOMPARE(statusOf(channel), QByteArray("Status: 401 Unauthorized"));
        QVERIFY(channel.header().contains("\r\nWWW-Authenticate: Cookie\r\n"));
        QCOMPARE(channel.finishCount, 1);
    }
}

void tst_NwaStandardFcgiRequestProcessor::requiredSessionIsHandedOut()
{
    NwaWebSessionManager manager;
    Identifier identifier;
    identifier.session = manager.createSession();
    NMemoryChannel channel;
    NwaFcgiRequest request(&channel, nVariables());
    GuardedProcessor processor(&identifier);
    QCOMPARE(processor.requireSession(&request, Processor::PassiveRequest), identifier.session);
    QVERIFY(identifier.wasPassive);
    QCOMPARE(processor.requireSession(&request), identifier.session);
    QVERIFY(!identifier.wasPassive);
    QCOMPARE(processor.require(&request, Processor::PassiveRequest), identifier.session);
    QVERIFY(identifier.wasPassive);
    QCOMPARE(processor.require(&request), identifier.session);
    QVERIFY(!identifier.wasPassive);
    QVERIFY(!request.isAnswered());
}

void tst_NwaStandardFcgiRequestProcessor::requestThatLacksTheRequiredSessionIsAnswered401AndDeleted()
{
    Identifier identifier;
    for (const bool isGuarded : {false, true}) {
        NMemoryChannel channel;
        NwaFcgiRequest* const request = new NwaFcgiRequest(&channel, nVariables());
        GuardedProcessor processor(&identifier);
        QVERIFY(!(isGuarded ? processor.require(request) : processor.requireSession(request)));
        QCOMPARE(statusOf(channel), QByteArray("Status: 401 Unauthorized"));
        QCOMPARE(channel.remarks, QByteArray());
        QCOMPARE(channel.finishCount, 1);
    }
}

void tst_NwaStandardFcgiRequestProcessor::sessionWithoutTheRightIsAnswered403AndDeleted()
{
    NwaWebSessionManager manager;
    Identifier identifier;
    identifier.session = manager.createSession();
    RestrictedProcessor processor(&identifier);
    NMemoryChannel channel;
    QVERIFY(!processor.require(new NwaFcgiRequest(&channel, nVariables())));
    QCOMPARE(statusOf(channel), QByteArray("Status: 403 Forbidden"));
    QCOMPARE(channel.remarks, QByteArray());
    QCOMPARE(channel.finishCount, 1);

    identifier.session->setUserName(QString::fromLatin1("admin"));
    NMemoryChannel other;
    NwaFcgiRequest request(&other, nVariables());
    QCOMPARE(processor.require(&request), identifier.session);
    QVERIFY(!request.isAnswered());
}

void tst_NwaStandardFcgiRequestProcessor::servedObjectMayDecideAboutTheRight()
{
    NwaWebSessionManager manager;
    Identifier identifier;
    identifier.session = manager.createSession();
    Processor processor(&identifier);
    const DerivedAccessor accessor;
    NMemoryChannel channel;
    QVERIFY(!processor.requireSession(
        new NwaFcgiRequest(&channel, nVariables()), &accessor, &Accessor::canSetWithSession));
    QCOMPARE(statusOf(channel), QByteArray("Status: 403 Forbidden"));

    identifier.session->setUserName(QString::fromLatin1("admin"));
    NwaFcgiRequest request(&channel, nVariables());
    QCOMPARE(
        processor.requireSession(&request, &accessor, &Accessor::canSetWithSession, Processor::PassiveRequest),
        identifier.session);
    QVERIFY(identifier.wasPassive);
}

void tst_NwaStandardFcgiRequestProcessor::requiredJsonContentIsRead()
{
    NMemoryChannel channel("[[1]]");
    NwaFcgiRequest request(&channel, nVariables());
    QVariant document;
    QVERIFY(Processor::requireJsonContent(&request, document));
    QCOMPARE(NwaJson::serialize(document), QByteArray("[[1]]"));
    QVERIFY(!request.isAnswered());

    NMemoryChannel deep("[[1]]");
    QVERIFY(!Processor::requireJsonContent(new NwaFcgiRequest(&deep, nVariables()), document, 1));
    QVERIFY(!document.isValid());
    NMemoryChannel large("[[1]]");
    QVERIFY(!Processor::requireJsonContent(new NwaFcgiRequest(&large, nVariables()), document, 2, 2));
}

void tst_NwaStandardFcgiRequestProcessor::requestThatLacksTheRequiredJsonContentIsAnsweredAndDeleted_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("malformed") << QByteArray("application/json") << QByteArray("{")
                               << QByteArray("400 Bad Request");
    QTest::newRow("empty") << QByteArray() << QByteArray() << QByteArray("400 Bad Request");
    QTest::newRow("form") << QByteArray("multipart/form-data; boundary=a") << QByteArray("{}")
                          << QByteArray("415 Unsupported Media Type");
}

void tst_NwaStandardFcgiRequestProcessor::requestThatLacksTheRequiredJsonContentIsAnsweredAndDeleted()
{
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, status);
    NMemoryChannel channel(body);
    QVariant document;
    QVERIFY(
        !Processor::requireJsonContent(new NwaFcgiRequest(&channel, nVariables("CONTENT_TYPE", type)), document));
    QCOMPARE(statusOf(channel), "Status: " + status);
    QCOMPARE(channel.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::refusedRequestIsAnsweredAndDeleted()
{
    const QByteArray begin = "Error in request processor for request to script \"/a\" with path info \"\": ";
    const QString reason = QString::fromLatin1("no %3");
    const QString first = QString::fromLatin1("%4\n");
    for (int arguments = -1; arguments <= 2; ++arguments) {
        NMemoryChannel channel;
        NwaFcgiRequest* const request = new NwaFcgiRequest(&channel, nVariables("SCRIPT_NAME", "/a"));
        QByteArray remark;
        if (arguments < 0) {
            Processor::refuseRequest(request, NwaFcgiRequest::Conflict);
        } else if (arguments == 0) {
            Processor::refuseRequest(request, NwaFcgiRequest::Conflict, QString::fromLatin1("no"));
            remark = begin + "no";
        } else if (arguments == 1) {
            Processor::refuseRequest(request, NwaFcgiRequest::Conflict, reason, first);
            remark = begin + "no %4\\x0a";
        } else {
            Processor::refuseRequest(
                request, NwaFcgiRequest::Conflict, reason + QString::fromLatin1(" in %4"), first,
                QString::fromLatin1("b"));
            remark = begin + "no %4\\x0a in b";
        }
        QCOMPARE(channel.remarks, remark);
        QCOMPARE(statusOf(channel), QByteArray("Status: 409 Conflict"));
        QCOMPARE(channel.finishCount, 1);
    }
}

void tst_NwaStandardFcgiRequestProcessor::refusalIsWrittenToTheErrorStream()
{
    NMemoryChannel channel;
    NwaFcgiRequest* request = new NwaFcgiRequest(&channel, nVariables("SCRIPT_NAME", "/api/a", "PATH_INFO", "/b"));
    Processor::writeRefusal(request, QString::fromLatin1("No reason."));
    delete request;
    QCOMPARE(
        channel.remarks,
        QByteArray(
            "Error in request processor for request to script \"/api/a\" with path info \"/b\": No reason."));
}

void tst_NwaStandardFcgiRequestProcessor::placeholdersAreFilledInOnePass()
{
    NMemoryChannel channel;
    NwaFcgiRequest* request = new NwaFcgiRequest(&channel, nVariables("SCRIPT_NAME", "%2%3", "PATH_INFO", "%4%1"));
    Processor::writeRefusal(
        request, QString::fromLatin1("\"%3\" is not \"%4\""), QString::fromLatin1("%1%4"),
        QString::fromLatin1("%3"));
    Processor::writeRefusal(request, QString::fromLatin1("|\"%3\""), QString::fromLatin1("%1%2"));
    delete request;
    const QByteArray begin = "Error in request processor for request to script \"%2%3\" with path info \"%4%1\": ";
    QCOMPARE(channel.remarks, begin + "\"%1%4\" is not \"%3\"" + begin + "|\"%1%2\"");
}

void tst_NwaStandardFcgiRequestProcessor::refusalShowsControlCharacters()
{
    NMemoryChannel channel;
    NwaFcgiRequest* request =
        new NwaFcgiRequest(&channel, nVariables("SCRIPT_NAME", "/a\nb", "PATH_INFO", "/\x1b"));
    Processor::writeRefusal(
        request, QString::fromLatin1("%3 %4"), QString::fromLatin1("c\r\n"), QString(QChar(0x85)));
    delete request;
    QCOMPARE(
        channel.remarks,
        QByteArray("Error in request processor for request to script \"/a\\x0ab\" with path info \"/\\x1b\": "
                   "c\\x0d\\x0a \\x85"));
}

void tst_NwaStandardFcgiRequestProcessor::refusalIsWrittenInLatin1()
{
    NMemoryChannel channel;
    NwaFcgiRequest* request =
        new NwaFcgiRequest(&channel, nVariables("SCRIPT_NAME", "/\xc3\xa4", "PATH_INFO", "/\xe2\x82\xac"));
    Processor::writeRefusal(request, QString::fromLatin1("%3"), QString::fromLatin1("\xdf"));
    delete request;
    QCOMPARE(
        channel.remarks,
        QByteArray("Error in request processor for request to script \"/\xe4\" with path info \"/?\": \xdf"));
}

void tst_NwaStandardFcgiRequestProcessor::repliesAreJson()
{
    QVariantMap document;
    document.insert(QString::fromLatin1("a"), 1);
    NMemoryChannel first;
    Processor::sendJsonReply(new NwaFcgiRequest(&first, nVariables()), document);
    QCOMPARE(first.output, QByteArray(jsonHeader) + "{\"a\":1}");
    QCOMPARE(first.finishCount, 1);

    NMemoryChannel second;
    Processor::sendJsonDocument(new NwaFcgiRequest(&second, nVariables()), "[ ]");
    QCOMPARE(second.output, QByteArray(jsonHeader) + "[ ]");
    QCOMPARE(second.finishCount, 1);
}

void tst_NwaStandardFcgiRequestProcessor::replyMayHaveAHeaderOfItsOwn()
{
    NwaHttpJsonHeader header(QString::fromLatin1("utf-8"));
    header.setStatus(201);
    header.addField("Location", "/b");
    NMemoryChannel channel;
    Processor::sendJsonReply(new NwaFcgiRequest(&channel, nVariables()), QVariantList() << true, header);
    QCOMPARE(
        channel.output, QByteArray("Status: 201 Created\r\nContent-Type: application/json; charset=utf-8\r\n"
                                   "Location: /b\r\n\r\n[true]"));
    QCOMPARE(channel.finishCount, 1);
}

QTEST_APPLESS_MAIN(tst_NwaStandardFcgiRequestProcessor)
#include "tst_nwastandardfcgirequestprocessor.moc"
