#ifndef NBASE_NSEQUENTIALBUFFER_H
#define NBASE_NSEQUENTIALBUFFER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QIODevice>
#include <QtCore/QList>

/**
 * A queue of bytes in memory as a sequential device: a producer writes bytes in, a consumer reads each of them
 * once and in order. readyRead() tells of bytes that were written, readChannelFinished() that no more will come.
 * Used on its own thread.
 *
 * Reading in small pieces costs the same per byte however much is waiting; memory that waiting bytes took is given
 * back while they are read.
 */
class NBASE_EXPORT NSequentialBuffer : public QIODevice
{
    Q_OBJECT

public:
    /** An empty buffer that is not open. */
    explicit NSequentialBuffer(QObject* parent);
    ~NSequentialBuffer() override;

    /** True: what was read is gone. */
    bool isSequential() const override;

    /**
     * Opens the buffer; for writing only when @a mode includes WriteOnly. Otherwise a reader is at the end at
     * once. A buffer that is open already stays as it is.
     * @return whether the buffer is open.
     */
    bool open(QIODevice::OpenMode mode) override;

    /** Closes both ends and discards what has not been read. */
    void close() override;

    /**
     * Ends the writing: what is waiting can still be read, and reading then gives -1. Emits readChannelFinished(),
     * unless the writing has ended before.
     */
    void closeWriteChannel();

    /** How many bytes were written and not read yet. */
    qint64 bytesAvailable() const override;

    /** Whether a whole line can be read. */
    bool canReadLine() const override;

protected:
    /** @return the number of bytes read; without any, -1 when none will come and 0 when none have come yet. */
    qint64 readData(char* data, qint64 maxSize) override;

    /**
     * Takes all @a size bytes or, when the writing has ended, when 2^31 bytes would be waiting or when there is no
     * memory for them, none.
     * @return @a size, or -1.
     */
    qint64 writeData(const char* data, qint64 size) override;

private:
    Q_DISABLE_COPY(NSequentialBuffer)

    void append(const char* data, int size);
    void removeFirst(char* data, int size);

    QList<QByteArray> m_blocks; ///< what was written and not read yet, in order; no block is empty
    int m_readSize;             ///< how many bytes of the first block have been read already
    int m_size;                 ///< how many bytes are waiting
    bool m_writeChannelClosed;
};

#endif
