#ifndef NBASE_TESTS_NFCGICLIENT_H
#define NBASE_TESTS_NFCGICLIENT_H

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPair>
#include <QtCore/QString>

class QSocketNotifier;

/**
 * A FastCGI client for tests, which can send anything, valid or not. It shares the event loop with the server
 * under test and never blocks: what the kernel does not take at once is sent later.
 *
 * Its code for records is independent of the code under test.
 */
class NFcgiClient : public QObject
{
    Q_OBJECT

public:
    typedef QList<QPair<QByteArray, QByteArray>> Params;

    /** The types of the records that the client sends or receives. */
    enum Type {
        BeginRequest = 1,
        AbortRequest = 2,
        EndRequest = 3,
        ParamsType = 4,
        StdinType = 5,
        StdoutType = 6,
        StderrType = 7,
        GetValues = 9,
        GetValuesResult = 10,
        UnknownType = 11
    };

    struct Record
    {
        int type;
        int requestId;
        QByteArray content;
    };

    explicit NFcgiClient(QObject* parent = nullptr);
    ~NFcgiClient() override;

    bool connectToPath(const QString& path);
    bool connectToPort(const QString& address, quint16 port);
    void disconnectNow();

    /** Ends sending only; replies are still received. Call it when everything has been sent. */
    void endSending();

    /** Makes the further writes of the server fail. */
    void endReceiving();

    /** Stops reading what the server sends, until startReceiving(). */
    void stopReceiving();
    void startReceiving();

    static QByteArray record(int type, int requestId, const QByteArray& content, int paddingSize = 0);
    static QByteArray beginRecord(int requestId = 1, bool keepConnection = false, int role = 1);

    /** @return name and value with their sizes as FastCGI writes them. */
    static QByteArray pair(const QByteArray& name, const QByteArray& value);
    static QByteArray pairs(const Params& params);

    /** The variables that every request for @a scriptName has. */
    static Params variables(const QByteArray& scriptName, const QByteArray& method = "GET");

    /** A complete stream: the records with the content and the empty one that ends it. */
    static QByteArray stream(int type, int requestId, const QByteArray& content);

    /** A complete request as it is sent. */
    static QByteArray
    request(const Params& params, const QByteArray& body = QByteArray(), int requestId = 1, bool keep = false);

    /** Removes the complete records from the beginning of @a input. */
    static QList<Record> takeRecords(QByteArray& input);

    void begin(int requestId = 1, bool keepConnection = false, int role = 1);
    void params(const Params& params, int requestId = 1);
    void body(const QByteArray& data, int requestId = 1);
    void endBody(int requestId = 1);
    void abort(int requestId = 1);
    void raw(const QByteArray& data);

    /** How many bytes the kernel has not taken yet. */
    int unsentSize() const;

    /** Whether the server has closed the connection. */
    bool isClosed() const;

    /** Whether the reply to the request is complete. */
    bool hasEnded(int requestId = 1) const;

    /** How the request ended; -1 before. */
    int protocolStatus(int requestId = 1) const;

    QByteArray output(int requestId = 1) const;
    QByteArray remarks(int requestId = 1) const;

    /** The value of "Status" in the output, 200 without one; 0 while the header is incomplete. */
    int status(int requestId = 1) const;

    /** What follows the header in the output. */
    QByteArray replyBody(int requestId = 1) const;

    /** All received records in their order. */
    QList<Record> records() const;

    /** The received records about the connection. */
    QList<Record> connectionRecords() const;

    /** Forgets what was received, for the next request. */
    void forget();

private slots:
    void receive();
    void send();

private:
    Q_DISABLE_COPY(NFcgiClient)

    bool start(int descriptor, const void* address, int size);
    void process(const Record& record);

    int m_descriptor;
    QSocketNotifier* m_readNotifier;
    QSocketNotifier* m_writeNotifier;
    bool m_closed;
    QByteArray m_unsent;
    QByteArray m_input;
    QList<Record> m_records;
    QHash<int, QByteArray> m_output;
    QHash<int, QByteArray> m_remarks;
    QHash<int, int> m_statuses;
};

#endif
