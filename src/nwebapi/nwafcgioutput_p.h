#ifndef NWEBAPI_NWAFCGIOUTPUT_P_H
#define NWEBAPI_NWAFCGIOUTPUT_P_H

#include <nwebapi/nwafcgiprotocol_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QQueue>

#include <sys/types.h>

/**
 * The output queue of a connection: what was written and the kernel has not taken yet. Small pieces are collected
 * and sent together; the content of a large record is sent from where it is, without being copied. Nothing blocks.
 *
 * Every operation that may send returns how many bytes the kernel has taken.
 */
class NwaFcgiOutput
{
public:
    /** @param socket a connected, non-blocking socket, which stays the caller's. */
    explicit NwaFcgiOutput(int socket);

    /** How many bytes are queued. */
    int size() const { return m_size; }

    bool isEmpty() const { return m_size == 0; }

    /** Whether bytes are queued because the peer has to take earlier ones first. */
    bool isBlocked() const { return m_isBlocked; }

    /** Whether the socket has failed. The queue is empty then and stays so. */
    bool isBroken() const { return m_isBroken; }

    /** Queues @a bytes; sends when a whole block has come together. */
    int append(const QByteArray& bytes) { return append(bytes.constData(), bytes.size()); }

    /**
     * Queues a record with @a size bytes of content, at most NwaFcgiProtocol::MaximumContentSize. A large one is
     * sent at once, after what is queued.
     */
    int appendRecord(NwaFcgiProtocol::RecordType type, int requestId, const char* content, int size);

    /** Sends until the queue is empty or the kernel takes no more. */
    int flush();

private:
    Q_DISABLE_COPY(NwaFcgiOutput)

    int append(const char* data, int size);
    int copyIntoBlock(const char* data, int size);
    int sendWithContent(const char* header, const char* content, int size);
    void dequeue(int size);
    int checked(ssize_t result);
    const QByteArray& firstBlock() const;
    bool isBlockFull() const;

    const int m_socket;
    QQueue<QByteArray> m_fullBlocks;
    QByteArray m_lastBlock; ///< comes after the full ones
    int m_size;             ///< of all blocks, without what was sent
    int m_sent;             ///< bytes of the first block that the kernel has taken
    bool m_isBlocked;
    bool m_isBroken;
};

#endif
