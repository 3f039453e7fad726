#ifndef NWEBAPI_NWAFCGICONNECTION_P_H
#define NWEBAPI_NWAFCGICONNECTION_P_H

#include <nwebapi/nwafcgichannel_p.h>
#include <nwebapi/nwafcgiexchange_p.h>
#include <nwebapi/nwafcgioutput_p.h>

#include <QtCore/QByteArray>

#include <memory>

class NwaFcgiServer;

/**
 * One connection of a web server. It reads records, makes the request of them, has the server dispatch it, and
 * writes the reply's records as fast as the web server takes them. The server keeps it until it is closed; it
 * lives on while one of its operations runs, because a service may end the connection or the server in the midst
 * of one.
 */
class NwaFcgiConnection : private NwaFcgiChannel, public std::enable_shared_from_this<NwaFcgiConnection>
{
public:
    /** @param descriptor a connected, non-blocking socket; the connection owns it. */
    NwaFcgiConnection(int descriptor, NwaFcgiServer* server);
    ~NwaFcgiConnection() override;

    /** Reads what has arrived already; the rest comes with events. */
    void start();

    /** Reads and writes as the poller's @a events allow. */
    void processEvents(int events);

    /** Goes on with what had to wait until the service was done. */
    void resume();

    /** Closes the connection when its peer has let it wait for too long, or has gone; to be called once a second.
     */
    void closeIfStalled();

    /** How many bytes are held of requests and replies. */
    int bufferedSize() const;

    void close();

private:
    Q_DISABLE_COPY(NwaFcgiConnection)

    bool write(Stream stream, const char* data, int size) override;
    int replyBacklog() const override;
    qint64 readBody(char* data, qint64 maximumSize) override;
    bool atBodyEnd() const override;
    void finish() override;

    void readInput();
    bool receive();
    void handleEndOfInput();
    void processInput(const char* data, int size);
    int processRecords(const char* data, int size);
    void continueParsing();
    void processRecord(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void processConnectionRecord(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void appendValues(QByteArray& answer, const QByteArray& questions) const;
    void processBeginRequest(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void processAbortRequest();
    void processParams(const char* content, int size);
    void processStdin(const char* content, int size);

    bool isTooLongQuery(const QByteArray& name, int size) const;
    void refuseOversizedVariables();
    void makeRequest();
    bool isBodyTooLarge(qint64 size) const;
    void endBody();
    void dispatchWhenReady();
    void refuseWhenTooMuchIsHeld();
    void answerWithError(NwaFcgiRequest::StandardHttpError error);
    void endRequest();

    bool isBodyBufferFull() const;
    void send(const QByteArray& records);
    void sendEndRequest(int requestId, NwaFcgiProtocol::ProtocolStatus status);
    void flush();
    void processOutput(int sent);
    void resumeSoon();
    void watch(int event, bool on);
    void closeWhenDone();
    void giveRequestUp();
    bool isWaitingForPeer() const;
    bool hasPeerGone() const;
    bool isRestOfBodyMissing() const;

    NwaFcgiServer* const m_server;
    int m_descriptor;     ///< -1 after closing
    int m_events;         ///< what the server's poller watches the descriptor for
    int m_idleSeconds;    ///< since there was progress, as closeIfStalled() counts them
    bool m_inputEnded;    ///< the peer sends nothing more, and still takes the reply
    bool m_parsing;       ///< a record is being processed; the service may run an event loop of its own in it
    bool m_closeWhenSent; ///< nothing more is accepted from the peer; the connection ends with the reply
    bool m_resumeScheduled;

    QByteArray m_input; ///< what is incomplete or has to wait
    NwaFcgiExchange m_exchange;
    NwaFcgiOutput m_output;
};

#endif
