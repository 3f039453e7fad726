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
 * A FastCGI client for tests, which sends whatever it is told to, right or wrong. It works in the event loop of
 * the server that it tests, so it never blocks: what the kernel does not take at once is sent when it does.
 *
 * It writes and reads the records by itself, not with the code that it tests.
 */
class NFcgiClient : public QObject
{
    Q_OBJECT

public:
    typedef QList<QPair<QByteArray, QByteArray>> Params;

    /** The types of records that the client sends or tells of. */
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

    /** Ends sending only; replies are still received. To be called when everything was sent. */
    void endSending();

    /** Takes nothing more that the server sends; its writes fail. */
    void endReceiving();

    /** Leaves what the server sends in the kernel. */
    void stopReceiving();
    void startReceiving();

    static QByteArray record(int type, int requestId, const QByteArray& content, int paddingSize = 0);
    static QByteArray beginRecord(int requestId = 1, bool keepConnection = false, int role = 1);

    /** @return name and value with their sizes as FastCGI writes them. */
    static QByteArray pair(const QByteArray& name, const QByteArray& value);
    static QByteArray pairs(const Params& params);

    /** The variables of a request for @a scriptName, and more of them. */
    static Params variables(const QByteArray& scriptName, const QByteArray& method = "GET");

    /** A whole stream: records of the content and the empty one. */
    static QByteArray stream(int type, int requestId, const QByteArray& content);

    /** A whole request as it goes over the wire. */
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

    /** The value of "Status" in the output, 200 without one; 0 while there is no whole header. */
    int status(int requestId = 1) const;

    /** What follows the header in the output. */
    QByteArray replyBody(int requestId = 1) const;

    /** All the records received, in their order. */
    QList<Record> records() const;

    /** The records about the connection that were received. */
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
