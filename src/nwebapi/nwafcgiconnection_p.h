#ifndef NWEBAPI_NWAFCGICONNECTION_P_H
#define NWEBAPI_NWAFCGICONNECTION_P_H

#include <nsystem/nfiledescriptor_p.h>
#include <nwebapi/nwafcgichannel_p.h>
#include <nwebapi/nwafcgiexchange_p.h>
#include <nwebapi/nwafcgioutput_p.h>
#include <nwebapi/nwafcgirequest.h>

#include <QtCore/QByteArray>

#include <memory>

class NwaFcgiConnectionOwner;

/**
 * One connection of a web server. It reads records, builds a request from them, has its owner dispatch the
 * request, and writes the reply as fast as the peer takes it.
 *
 * There is one request at a time. One that begins before the current one is answered is refused, because
 * multiplexing is not supported; one that begins while the reply to the one before is still being sent waits, and
 * nothing more is read meanwhile. So a connection never holds more than one reply.
 *
 * The owner keeps the connection until it is closed. A service may close it, or destroy the owner, while one of
 * the connection's operations calls that service; the operations keep the connection alive until they return.
 */
class NwaFcgiConnection : private NwaFcgiChannel, public std::enable_shared_from_this<NwaFcgiConnection>
{
public:
    /** @param socket connected and non-blocking. @param owner used until the connection is closed. */
    NwaFcgiConnection(NFileDescriptor socket, NwaFcgiConnectionOwner* owner);
    ~NwaFcgiConnection() override;

    /** Reads what has arrived already and begins to watch the socket. */
    void start();

    /** Reads and writes as the @a events of the socket allow (NwaFcgiPoller::Event). */
    void processEvents(int events);

    /** Continues sending and reading; called when the owner was asked for it with resumeSoon(). */
    void resume();

    /** Closes the connection if its peer has stalled or gone; called once a second. */
    void closeIfStalled();

    /** How many bytes of requests and replies are held. */
    int bufferedSize() const;

    /** Closes the socket and aborts the request. */
    void close();

private:
    Q_DISABLE_COPY(NwaFcgiConnection)

    bool write(Stream stream, const char* data, int size) override;
    int replyBacklog() const override;
    qint64 readBody(char* data, qint64 maximumSize) override;
    bool atBodyEnd() const override;
    void finish() override;

    bool isOpen() const { return m_socket.isOpen(); }
    bool isWaitingForPeer() const;
    bool hasPeerGone() const;
    bool isRestOfBodyMissing() const;

    void readInput();
    bool receive();
    void handleEndOfInput();
    bool isInputPaused() const;
    bool isBodyBufferFull() const;
    bool mustWait(const NwaFcgiProtocol::RecordHeader& header) const;

    void processInput(const char* data, int size);
    int processRecords(const char* data, int size);
    void processRecord(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void processConnectionRecord(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void processBeginRequest(const NwaFcgiProtocol::RecordHeader& header, const char* content);
    void processAbortRequest();
    void processParams(const char* content, int size);
    void processStdin(const char* content, int size);

    void makeRequest();
    bool isBodyTooLarge(qint64 size) const;
    void dispatchWhenReady();
    void refuseWhenTooMuchIsHeld();
    void answerWithError(NwaFcgiRequest::StandardHttpError error);
    void endRequest();
    void abandonRequest();

    void send(const QByteArray& records);
    void sendEndRequest(int requestId, NwaFcgiProtocol::ProtocolStatus status);
    void flush();
    void processSent(int size);
    void closeWhenDone();
    void resumeSoon();
    void watch(int event, bool on);

    NwaFcgiConnectionOwner* const m_owner;
    NFileDescriptor m_socket;
    int m_events;         ///< that the owner watches the socket for
    int m_idleSeconds;    ///< since the last progress
    bool m_inputEnded;    ///< the peer sends nothing more, but still takes the reply
    bool m_parsing;       ///< a record is being processed; the service may run an event loop meanwhile
    bool m_closeWhenSent; ///< nothing more is accepted from the peer; the connection ends with the reply
    bool m_resumeScheduled;
    QByteArray m_input; ///< records that are incomplete or have to wait
    NwaFcgiExchange m_exchange;
    NwaFcgiOutput m_output;
};

#endif
