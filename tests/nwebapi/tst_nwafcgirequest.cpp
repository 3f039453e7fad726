#include "nfcgiclient.h"
#include "nfcgitestservice.h"

#include <nwebapi/nwafcgiserver.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QtTest/QtTest>

Q_DECLARE_METATYPE(QList<QByteArray>)

namespace {

QByteArray patternOf(int size)
{
    QByteArray data(size, '\0');
    for (int index = 0; index < size; ++index)
        data[index] = char(index * 31 + index / 251);
    return data;
}

NFcgiClient::Params upload(const QByteArray& contentLength = QByteArray())
{
    NFcgiClient::Params params = NFcgiClient::variables("/test", "POST");
    params << qMakePair(QByteArray("CONTENT_TYPE"), QByteArray("Multipart/Form-Data ; boundary=x"));
    params << qMakePair(QByteArray("CONTENT_LENGTH"), contentLength);
    return params;
}

} // namespace

/** A slot that calls a function, which Qt 4 cannot connect to a signal directly. */
class FunctionCaller : public QObject
{
    Q_OBJECT

public:
    explicit FunctionCaller(const std::function<void()>& function)
        : m_function(function)
    {
    }

public slots:
    void call() { m_function(); }

private:
    const std::function<void()> m_function;
};

class tst_NwaFcgiRequest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void replyIsCompleteWhenTheRequestIsDeleted();
    void requestDeletedWithoutAnswerIsAnswered500();
    void errorOutputAloneIsNoReply();
    void errorOutputIsSentOnTheErrorStreamOnly();
    void errorIsSentWithItsStatusAndText_data();
    void errorIsSentWithItsStatusAndText();
    void errorCarriesTheFieldsGiven();
    void every401CarriesAChallenge_data();
    void every401CarriesAChallenge();
    void errorAfterAnAnswerDoesNothing();
    void secondErrorDoesNothing();
    void requestIsAnsweredFromItsFirstByteOn();
    void replyOfAnySizeArrivesAsItWasWritten_data();
    void replyOfAnySizeArrivesAsItWasWritten();
    void singleCharactersAreCollectedIntoFewRecords();
    void headGetsTheHeaderOnly_data();
    void headGetsTheHeaderOnly();
    void headOfAnErrorGetsTheHeaderOnly();
    void flushedBeginningArrivesBeforeTheRest_data();
    void flushedBeginningArrivesBeforeTheRest();
    void requestsAreAnsweredInAnyOrder();
    void bodyIsReadInPiecesOfAnySize_data();
    void bodyIsReadInPiecesOfAnySize();
    void bodyThatIsNotAnnouncedIsReadToItsEnd();
    void requestWithoutABodyIsAtItsEnd();
    void abortedRequestReportsIt_data();
    void abortedRequestReportsIt();
    void abortedRequestMayBeDeleted();
    void requestOutlivesItsServer();
    void formArrivesWhileItIsSent();
    void truncatedFormEndsWithAnError_data();
    void truncatedFormEndsWithAnError();
    void unreadFormMakesItsSenderWait();
    void formReadInTheSignalIsReadCompletely();
    void formAnsweredBeforeItsEndIsAnswered_data();
    void formAnsweredBeforeItsEndIsAnswered();
    void formAnsweredInTheSignalIsAnswered();
    void formWhoseSenderEndsItsSendingIsReadCompletely();

private:
    void serve(const NFcgiTestService::Handler& handler = NFcgiTestService::Handler());
    NwaFcgiRequest* open(const NFcgiClient::Params& params);

    QScopedPointer<NTemporaryDirectory> m_directory;
    QScopedPointer<NwaFcgiServer> m_server;
    QScopedPointer<NFcgiTestService> m_service;
    QScopedPointer<NFcgiClient> m_client;
};

void tst_NwaFcgiRequest::init()
{
    m_directory.reset(new NTemporaryDirectory);
    m_server.reset(new NwaFcgiServer);
    m_client.reset(new NFcgiClient);
    const QString path = m_directory->filePath(QString::fromLatin1("socket"));
    QVERIFY(m_server->listenOnPath(path));
    QVERIFY(m_client->connectToPath(path));
    serve();
}

void tst_NwaFcgiRequest::cleanup()
{
    m_client.reset();
    m_service.reset();
    m_server.reset();
    m_directory.reset();
}

void tst_NwaFcgiRequest::serve(const NFcgiTestService::Handler& handler)
{
    m_service.reset(new NFcgiTestService(handler));
    m_server->registerService(QString::fromLatin1("/test"), m_service.data());
}

// Sends a request and returns it as the service holds it; null if it does not arrive.
NwaFcgiRequest* tst_NwaFcgiRequest::open(const NFcgiClient::Params& params)
{
    const int index = m_service->count();
    m_client->begin();
    m_client->params(params);
    if (params.size() == NFcgiClient::variables("").size())
        m_client->endBody();
    NTest::waitUntil([&]() { return m_service->count() > index; });
    return m_service->request(index);
}

void tst_NwaFcgiRequest::replyIsCompleteWhenTheRequestIsDeleted()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->outputStream() << "Content-Type: text/plain\r\n\r\nhello";
    QVERIFY(!m_client->hasEnded());
    delete request;
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->output(), QByteArray("Content-Type: text/plain\r\n\r\nhello"));
    QCOMPARE(m_client->protocolStatus(), 0);
    const QList<NFcgiClient::Record> records = m_client->records();
    QCOMPARE(records.size(), 3);
    QCOMPARE(records.at(1).type, int(NFcgiClient::StdoutType));
    QVERIFY(records.at(1).content.isEmpty());
}

void tst_NwaFcgiRequest::requestDeletedWithoutAnswerIsAnswered500()
{
    delete open(NFcgiClient::variables("/test"));
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 500);
}

void tst_NwaFcgiRequest::errorOutputAloneIsNoReply()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->errorStream() << "something is wrong";
    QVERIFY(!request->isAnswered());
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 500);
    QCOMPARE(m_client->remarks(), QByteArray("something is wrong"));
}

void tst_NwaFcgiRequest::errorOutputIsSentOnTheErrorStreamOnly()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->errorStream() << "first, ";
    request->outputStream() << "Content-Type: text/plain\r\n\r\n";
    request->errorStream() << "second";
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->output(), QByteArray("Content-Type: text/plain\r\n\r\n"));
    QCOMPARE(m_client->remarks(), QByteArray("first, second"));
}

void tst_NwaFcgiRequest::errorIsSentWithItsStatusAndText_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("400") << 400 << QByteArray("400 Bad Request\n");
    QTest::newRow("401") << 401 << QByteArray("401 Unauthorized\n");
    QTest::newRow("403") << 403 << QByteArray("403 Forbidden\n");
    QTest::newRow("404") << 404 << QByteArray("404 Not Found\n");
    QTest::newRow("405") << 405 << QByteArray("405 Method Not Allowed\n");
    QTest::newRow("409") << 409 << QByteArray("409 Conflict\n");
    QTest::newRow("413") << 413 << QByteArray("413 Content Too Large\n");
    QTest::newRow("414") << 414 << QByteArray("414 URI Too Long\n");
    QTest::newRow("415") << 415 << QByteArray("415 Unsupported Media Type\n");
    QTest::newRow("431") << 431 << QByteArray("431 Request Header Fields Too Large\n");
    QTest::newRow("500") << 500 << QByteArray("500 Internal Server Error\n");
    QTest::newRow("501") << 501 << QByteArray("501 Not Implemented\n");
    QTest::newRow("503") << 503 << QByteArray("503 Service Unavailable\n");
}

void tst_NwaFcgiRequest::errorIsSentWithItsStatusAndText()
{
    QFETCH(int, status);
    QFETCH(QByteArray, text);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->sendHttpError(NwaFcgiRequest::StandardHttpError(status));
    QVERIFY(request->isAnswered());
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), status);
    QVERIFY(m_client->output().contains("Content-Type: text/plain"));
    QCOMPARE(m_client->replyBody(), text);
}

void tst_NwaFcgiRequest::errorCarriesTheFieldsGiven()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    NwaFcgiRequest::HeaderFields fields;
    fields << qMakePair(QByteArray("Allow"), QByteArray("GET, HEAD"));
    fields << qMakePair(QByteArray("X-Text"), QByteArray("one\r\nX-Forged: two"));
    request->sendHttpError(NwaFcgiRequest::MethodNotAllowed, fields);
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QVERIFY(m_client->output().contains("\r\nAllow: GET, HEAD\r\n"));
    QVERIFY(!m_client->output().contains("\nX-Forged"));
}

void tst_NwaFcgiRequest::every401CarriesAChallenge_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("fieldName");
    QTest::addColumn<QByteArray>("challenge");
    QTest::newRow("none given") << 401 << QByteArray() << QByteArray("Cookie");
    QTest::newRow("other field given") << 401 << QByteArray("X-Y") << QByteArray("Cookie");
    QTest::newRow("one given") << 401 << QByteArray("WWW-Authenticate") << QByteArray("Other");
    QTest::newRow("one given, in lower case") << 401 << QByteArray("www-authenticate") << QByteArray("Other");
    QTest::newRow("other error") << 403 << QByteArray() << QByteArray();
}

void tst_NwaFcgiRequest::every401CarriesAChallenge()
{
    QFETCH(int, status);
    QFETCH(QByteArray, fieldName);
    QFETCH(QByteArray, challenge);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    NwaFcgiRequest::HeaderFields fields;
    if (!fieldName.isEmpty())
        fields << qMakePair(fieldName, QByteArray("Other"));
    request->sendHttpError(NwaFcgiRequest::StandardHttpError(status), fields);
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    const QByteArray header = m_client->output().toLower();
    QCOMPARE(header.count("\r\nwww-authenticate: "), challenge.isEmpty() ? 0 : 1);
    if (!challenge.isEmpty())
        QVERIFY(header.contains("\r\nwww-authenticate: " + challenge.toLower() + "\r\n"));
}

void tst_NwaFcgiRequest::errorAfterAnAnswerDoesNothing()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->outputStream() << "Content-Type: text/plain\r\n\r\n";
    request->sendHttpError(NwaFcgiRequest::NotFound);
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->output(), QByteArray("Content-Type: text/plain\r\n\r\n"));
}

void tst_NwaFcgiRequest::secondErrorDoesNothing()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->sendHttpError(NwaFcgiRequest::Conflict);
    request->sendHttpError(NwaFcgiRequest::NotFound);
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 409);
    QCOMPARE(m_client->replyBody(), QByteArray("409 Conflict\n"));
}

void tst_NwaFcgiRequest::requestIsAnsweredFromItsFirstByteOn()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    QVERIFY(!request->isAnswered());
    request->outputStream().put('C');
    QVERIFY(request->isAnswered());
    request->outputStream().flush();
    QVERIFY(request->isAnswered());
}

void tst_NwaFcgiRequest::replyOfAnySizeArrivesAsItWasWritten_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("pieceSize");
    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("buffer full") << 2048 << 2048;
    QTest::newRow("buffer full and one more") << 2049 << 2049;
    QTest::newRow("a record") << 65535 << 65535;
    QTest::newRow("a record and one more") << 65536 << 65536;
    QTest::newRow("70 kB in small pieces") << 70000 << 777;
    QTest::newRow("more than a socket holds, at once") << 5000000 << 5000000;
    QTest::newRow("more than a socket holds, in pieces") << 5000000 << 100000;
}

void tst_NwaFcgiRequest::replyOfAnySizeArrivesAsItWasWritten()
{
    QFETCH(int, size);
    QFETCH(int, pieceSize);
    const QByteArray content = patternOf(size);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    request->outputStream() << "Content-Type: application/octet-stream\r\n\r\n";
    for (int position = 0; position < size; position += pieceSize) {
        request->outputStream().write(content.constData() + position, qMin(pieceSize, size - position));
        QVERIFY(request->outputStream().good());
    }
    delete request;
    NTRY_VERIFY(m_client->isClosed());
    QVERIFY(m_client->replyBody() == content);
    QCOMPARE(m_client->protocolStatus(), 0);
}

void tst_NwaFcgiRequest::singleCharactersAreCollectedIntoFewRecords()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    const QByteArray content = patternOf(5000);
    request->outputStream() << "A: b\r\n\r\n";
    for (int index = 0; index < content.size(); ++index)
        request->outputStream().put(content.at(index));
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QVERIFY(m_client->replyBody() == content);
    QVERIFY(m_client->records().size() <= 5);
}

void tst_NwaFcgiRequest::headGetsTheHeaderOnly_data()
{
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::addColumn<QByteArray>("header");
    const QByteArray header = "Content-Type: text/plain\r\nX-Y: z\r\n\r\n";
    QTest::newRow("header alone") << (QList<QByteArray>() << header) << header;
    QTest::newRow("all in one") << (QList<QByteArray>() << header + "body") << header;
    QTest::newRow("header, then the body") << (QList<QByteArray>() << header << "body") << header;
    QTest::newRow("cut in the empty line")
        << (QList<QByteArray>() << header.left(header.size() - 1) << "\nbody") << header;
    QList<QByteArray> bytes;
    for (char byte : header + "body\r\n\r\nmore")
        bytes << QByteArray(1, byte);
    QTest::newRow("byte by byte") << bytes << header;
    QTest::newRow("line feeds alone") << (QList<QByteArray>() << "A: b\n\nbody\n\n") << QByteArray("A: b\n\n");
    QTest::newRow("large body") << (QList<QByteArray>() << header << QByteArray(100000, '\n')) << header;
}

void tst_NwaFcgiRequest::headGetsTheHeaderOnly()
{
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(QByteArray, header);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test", "HEAD"));
    QVERIFY(request);
    for (const QByteArray& piece : pieces) {
        request->outputStream().write(piece.constData(), piece.size());
        request->outputStream().flush();
    }
    QVERIFY(request->outputStream().good());
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->output(), header);
}

void tst_NwaFcgiRequest::headOfAnErrorGetsTheHeaderOnly()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test", "HEAD"));
    QVERIFY(request);
    request->sendHttpError(NwaFcgiRequest::NotFound);
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 404);
    QCOMPARE(m_client->replyBody(), QByteArray());
}

void tst_NwaFcgiRequest::flushedBeginningArrivesBeforeTheRest_data()
{
    QTest::addColumn<bool>("inHandler");
    QTest::newRow("written while the request is handed over") << true;
    QTest::newRow("written later") << false;
}

void tst_NwaFcgiRequest::flushedBeginningArrivesBeforeTheRest()
{
    QFETCH(bool, inHandler);
    const auto begin = [](NwaFcgiRequest* request) {
        request->outputStream() << "Content-Type: text/plain\r\n\r\nbeginning, " << std::flush;
    };
    if (inHandler)
        serve(begin);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    if (!inHandler)
        begin(request);
    NTRY_COMPARE(m_client->replyBody(), QByteArray("beginning, "));
    QVERIFY(!m_client->hasEnded());
    request->outputStream() << "end";
    delete request;
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->replyBody(), QByteArray("beginning, end"));
}

void tst_NwaFcgiRequest::requestsAreAnsweredInAnyOrder()
{
    const int count = 20;
    QList<QSharedPointer<NFcgiClient>> clients;
    for (int index = 0; index < count; ++index) {
        clients << QSharedPointer<NFcgiClient>(new NFcgiClient);
        QVERIFY(clients.last()->connectToPath(m_directory->filePath(QString::fromLatin1("socket"))));
        NFcgiClient::Params params = NFcgiClient::variables("/test");
        params << qMakePair(QByteArray("PATH_INFO"), QByteArray::number(index));
        clients.last()->raw(NFcgiClient::request(params));
    }
    NTRY_COMPARE(m_service->count(), count);
    for (int step = 0; step < count; ++step) {
        // 7 and 20 have no common divisor, so each comes once.
        NwaFcgiRequest* const request = m_service->request(step * 7 % count);
        QVERIFY(request);
        NTest::reply(request, request->variable("PATH_INFO"));
    }
    for (int index = 0; index < count; ++index) {
        NTRY_VERIFY(clients.at(index)->isClosed());
        QCOMPARE(clients.at(index)->replyBody(), QByteArray::number(index));
    }
}

void tst_NwaFcgiRequest::bodyIsReadInPiecesOfAnySize_data()
{
    QTest::addColumn<int>("bodySize");
    QTest::addColumn<int>("pieceSize");
    QTest::newRow("byte by byte") << 300 << 1;
    QTest::newRow("all at once") << 300 << 300;
    QTest::newRow("more than there is") << 300 << 1000;
    QTest::newRow("several records") << 500000 << 4096;
}

void tst_NwaFcgiRequest::bodyIsReadInPiecesOfAnySize()
{
    QFETCH(int, bodySize);
    QFETCH(int, pieceSize);
    const QByteArray body = patternOf(bodySize);
    NFcgiClient::Params params = NFcgiClient::variables("/test", "POST");
    params << qMakePair(QByteArray("CONTENT_LENGTH"), QByteArray::number(bodySize));
    m_client->raw(NFcgiClient::request(params, body));
    NTRY_COMPARE(m_service->count(), 1);
    NwaFcgiRequest* const request = m_service->request();
    QByteArray read;
    while (!request->atBodyEnd()) {
        QByteArray piece(pieceSize, '\0');
        const qint64 size = request->readBody(piece.data(), piece.size());
        QVERIFY(size > 0);
        QVERIFY(size <= pieceSize);
        read += piece.left(int(size));
    }
    QVERIFY(read == body);
    char byte;
    QCOMPARE(request->readBody(&byte, 1), qint64(0));
}

void tst_NwaFcgiRequest::bodyThatIsNotAnnouncedIsReadToItsEnd()
{
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test", "POST"), "chunked by the client"));
    NTRY_COMPARE(m_service->count(), 1);
    QCOMPARE(NTest::readAvailableBody(m_service->request()), QByteArray("chunked by the client"));
    QVERIFY(m_service->request()->atBodyEnd());
}

void tst_NwaFcgiRequest::requestWithoutABodyIsAtItsEnd()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    char byte;
    QVERIFY(request->atBodyEnd());
    QCOMPARE(request->readBody(&byte, 1), qint64(0));
}

void tst_NwaFcgiRequest::abortedRequestReportsIt_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("by an abort record") << QString::fromLatin1("abort");
    QTest::newRow("by disconnecting") << QString::fromLatin1("disconnect");
    QTest::newRow("by ending the server") << QString::fromLatin1("close");
    QTest::newRow("by garbage") << QString::fromLatin1("garbage");
    QTest::newRow("by disconnecting after the end of its sending") << QString::fromLatin1("half");
}

void tst_NwaFcgiRequest::abortedRequestReportsIt()
{
    QFETCH(QString, how);
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    QSignalSpy aborted(request, SIGNAL(aborted()));
    QVERIFY(!request->isAborted());
    if (how == QString::fromLatin1("abort"))
        m_client->abort();
    else if (how == QString::fromLatin1("close"))
        m_server->close();
    else if (how == QString::fromLatin1("garbage"))
        m_client->raw("GET / HTTP/1.1\r\n\r\n");
    else if (how == QString::fromLatin1("half"))
        m_client->endSending();
    if (how == QString::fromLatin1("disconnect") || how == QString::fromLatin1("half")) {
        QCoreApplication::processEvents();
        m_client->disconnectNow();
    }
    NTRY_COMPARE(aborted.count(), 1);
    QVERIFY(request->isAborted());
    char byte;
    QCOMPARE(request->readBody(&byte, 1), qint64(-1));
    QVERIFY(!request->atBodyEnd());
    request->outputStream() << "goes nowhere" << std::flush;
    QVERIFY(!request->outputStream().good());
    delete request;
    QCOMPARE(m_client->output(), QByteArray());
    if (how == QString::fromLatin1("abort"))
        QCOMPARE(m_client->protocolStatus(), 0);
}

void tst_NwaFcgiRequest::abortedRequestMayBeDeleted()
{
    QPointer<NwaFcgiRequest> request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    FunctionCaller remover([&]() { delete request.data(); });
    connect(request.data(), SIGNAL(aborted()), &remover, SLOT(call()));
    m_client->disconnectNow();
    NTRY_VERIFY(!request);
    NTRY_COMPARE(m_server->connectionCount(), 0);
}

void tst_NwaFcgiRequest::requestOutlivesItsServer()
{
    NwaFcgiRequest* const request = open(NFcgiClient::variables("/test"));
    QVERIFY(request);
    m_server.reset();
    QVERIFY(request->isAborted());
    request->sendHttpError(NwaFcgiRequest::NotFound);
    delete request;
    NTRY_VERIFY(m_client->isClosed());
}

void tst_NwaFcgiRequest::formArrivesWhileItIsSent()
{
    NwaFcgiRequest* const request = open(upload("10"));
    QVERIFY(request);
    QSignalSpy available(request, SIGNAL(bodyAvailable()));
    char byte;
    QCOMPARE(request->readBody(&byte, 1), qint64(0));
    QVERIFY(!request->atBodyEnd());
    m_client->body("first");
    NTRY_COMPARE(available.count(), 1);
    QCOMPARE(NTest::readAvailableBody(request), QByteArray("first"));
    QVERIFY(!request->atBodyEnd());
    m_client->body("other");
    NTRY_COMPARE(available.count(), 2);
    QCOMPARE(NTest::readAvailableBody(request), QByteArray("other"));
    QVERIFY(!request->atBodyEnd());
    m_client->endBody();
    NTRY_COMPARE(available.count(), 3);
    QVERIFY(request->atBodyEnd());
}

void tst_NwaFcgiRequest::truncatedFormEndsWithAnError_data()
{
    QTest::addColumn<QByteArray>("announced");
    QTest::newRow("shorter than announced") << QByteArray("6");
    QTest::newRow("longer than announced") << QByteArray("4");
}

void tst_NwaFcgiRequest::truncatedFormEndsWithAnError()
{
    QFETCH(QByteArray, announced);
    NwaFcgiRequest* const request = open(upload(announced));
    QVERIFY(request);
    QSignalSpy available(request, SIGNAL(bodyAvailable()));
    m_client->body("12345");
    m_client->endBody();
    NTRY_COMPARE(available.count(), 2);
    char bytes[10];
    QCOMPARE(request->readBody(bytes, 5), qint64(5));
    QCOMPARE(request->readBody(bytes, 5), qint64(-1));
    QVERIFY(!request->atBodyEnd());
}

void tst_NwaFcgiRequest::unreadFormMakesItsSenderWait()
{
    const QByteArray body = patternOf(20 * 1000 * 1000);
    NwaFcgiRequest* const request = open(upload(QByteArray::number(body.size())));
    QVERIFY(request);
    m_client->body(body);
    // The server's and the kernel's buffers together hold far less than this.
    int previous = -1;
    while (previous != m_client->unsentSize()) {
        previous = m_client->unsentSize();
        QTest::qWait(20);
    }
    QVERIFY(m_client->unsentSize() > body.size() - 4 * 1000 * 1000);
    m_client->endBody();
    QByteArray read;
    NTRY_VERIFY((read += NTest::readAvailableBody(request), request->atBodyEnd()));
    QVERIFY(read == body);
    NTest::reply(request, "taken");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("taken"));
}

void tst_NwaFcgiRequest::formReadInTheSignalIsReadCompletely()
{
    const QByteArray body = patternOf(3000000);
    QByteArray read;
    QScopedPointer<FunctionCaller> reader;
    serve([&](NwaFcgiRequest* request) {
        reader.reset(new FunctionCaller([&read, request]() {
            read += NTest::readAvailableBody(request);
            if (request->atBodyEnd())
                NTest::reply(request, "taken");
        }));
        connect(request, SIGNAL(bodyAvailable()), reader.data(), SLOT(call()));
    });
    m_client->raw(NFcgiClient::request(upload(QByteArray::number(body.size())), body));
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("taken"));
    QVERIFY(read == body);
}

void tst_NwaFcgiRequest::formAnsweredBeforeItsEndIsAnswered_data()
{
    QTest::addColumn<bool>("keep");
    QTest::newRow("connection that is kept") << true;
    QTest::newRow("connection that is closed") << false;
}

void tst_NwaFcgiRequest::formAnsweredBeforeItsEndIsAnswered()
{
    QFETCH(bool, keep);
    const QByteArray body(10 * 1000 * 1000, 'b');
    m_client->begin(1, keep);
    m_client->params(upload(QByteArray::number(body.size())));
    m_client->body(body);
    NTRY_COMPARE(m_service->count(), 1);
    m_service->request()->sendHttpError(NwaFcgiRequest::Forbidden);
    delete m_service->request();
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 403);
    m_client->endBody();
    NTRY_COMPARE(m_client->unsentSize(), 0);
    if (!keep) {
        NTRY_VERIFY(m_client->isClosed());
        m_client->endSending();
        NTRY_COMPARE(m_server->connectionCount(), 0);
        return;
    }
    m_client->forget();
    m_client->raw(NFcgiClient::request(NFcgiClient::variables("/test"), QByteArray(), 1, true));
    NTRY_COMPARE(m_service->count(), 2);
    NTest::reply(m_service->request(1), "next");
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->replyBody(), QByteArray("next"));
}

void tst_NwaFcgiRequest::formAnsweredInTheSignalIsAnswered()
{
    QPointer<NwaFcgiRequest> request = open(upload("100"));
    QVERIFY(request);
    FunctionCaller refuser([&]() { delete request.data(); });
    connect(request.data(), SIGNAL(bodyAvailable()), &refuser, SLOT(call()));
    m_client->body("beginning");
    NTRY_VERIFY(m_client->hasEnded());
    QCOMPARE(m_client->status(), 500);
}

// The kernel holds more of the body than the server's buffer, and the sender has sent all of it.
void tst_NwaFcgiRequest::formWhoseSenderEndsItsSendingIsReadCompletely()
{
    NwaFcgiLimits limits;
    limits.streamedBodyBuffer = 100;
    m_server->setLimits(limits);
    const QByteArray body = patternOf(50000);
    NwaFcgiRequest* const request = open(upload(QByteArray::number(body.size())));
    QVERIFY(request);
    for (int position = 0; position < body.size(); position += 1000)
        m_client->body(body.mid(position, 1000));
    m_client->endBody();
    NTRY_COMPARE(m_client->unsentSize(), 0);
    m_client->endSending();
    QByteArray read;
    NTRY_VERIFY((read += NTest::readAvailableBody(request), request->atBodyEnd()));
    QVERIFY(read == body);
    NTest::reply(request, "taken");
    NTRY_VERIFY(m_client->isClosed());
    QCOMPARE(m_client->replyBody(), QByteArray("taken"));
}

QTEST_MAIN(tst_NwaFcgiRequest)
#include "tst_nwafcgirequest.moc"
