#ifndef NBASE_NSEQUENTIALBUFFER_H
#define NBASE_NSEQUENTIALBUFFER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QIODevice>
#include <QtCore/QList>

/**
 * A queue of bytes in memory as a sequential device: a producer writes bytes, a consumer reads each of them once
 * and in order. readyRead() reports new bytes, readChannelFinished() the end of the data. Must be used on its own
 * thread.
 *
 * The cost of reading a byte does not depend on the number of unread bytes. Memory is released while bytes are
 * read.
 */
class NBASE_EXPORT NSequentialBuffer : public QIODevice
{
    Q_OBJECT

public:
    /** An empty buffer that is not open. */
    explicit NSequentialBuffer(QObject* parent);
    ~NSequentialBuffer() override;

    /** True: bytes can be read only once. */
    bool isSequential() const override;

    /**
     * Opens the buffer. Without WriteOnly in @a mode the buffer is at its end at once. Has no effect when the
     * buffer is open.
     * @return whether the buffer is open.
     */
    bool open(QIODevice::OpenMode mode) override;

    /** Closes the buffer and discards unread bytes. */
    void close() override;

    /**
     * Ends writing. Unread bytes can still be read; reading then returns -1. Emits readChannelFinished(), unless
     * writing has ended before.
     */
    void closeWriteChannel();

    /** The number of bytes that were written and not read yet. */
    qint64 bytesAvailable() const override;

    /** Whether a whole line can be read. */
    bool canReadLine() const override;

protected:
    /** @return the number of bytes read; when there are none, 0 as long as more may be written, otherwise -1. */
    qint64 readData(char* data, qint64 maxSize) override;

    /**
     * Accepts all @a size bytes, or none when writing has ended, when 2^31 bytes would be unread or when there is
     * not enough memory.
     * @return @a size, or -1.
     */
    qint64 writeData(const char* data, qint64 size) override;

private:
    Q_DISABLE_COPY(NSequentialBuffer)

    void append(const char* data, int size);
    void removeFirst(char* data, int size);

    QList<QByteArray> m_blocks; ///< unread bytes in order; no block is empty
    int m_readSize;             ///< number of bytes of the first block that were read already
    int m_size;                 ///< number of unread bytes
    bool m_writeChannelClosed;
};

#endif
