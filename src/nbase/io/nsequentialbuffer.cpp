#include <nbase/io/nsequentialbuffer.h>

#include <limits.h>
#include <new>
#include <string.h>

NSequentialBuffer::NSequentialBuffer(QObject* parent)
    : QIODevice(parent)
    , m_writeChannelClosed(true)
    , m_readSize(0)
{
}

NSequentialBuffer::~NSequentialBuffer() {}

bool NSequentialBuffer::isSequential() const
{
    return true;
}

bool NSequentialBuffer::open(QIODevice::OpenMode mode)
{
    if (mode == QIODevice::NotOpen || isOpen()) {
        setErrorString(QString::fromLatin1(""));
        return isOpen();
    }
    QIODevice::open(mode);
    if (mode & QIODevice::WriteOnly)
        m_writeChannelClosed = false;
    return isOpen();
}

void NSequentialBuffer::close()
{
    QIODevice::close();
    m_writeChannelClosed = true;
    m_buffer.clear();
    m_readSize = 0;
}

void NSequentialBuffer::closeWriteChannel()
{
    if (m_writeChannelClosed)
        return;
    m_writeChannelClosed = true;
    emit readChannelFinished();
}

qint64 NSequentialBuffer::bytesAvailable() const
{
    return waitingSize() + QIODevice::bytesAvailable();
}

bool NSequentialBuffer::canReadLine() const
{
    const char* const waiting = m_buffer.constData() + m_readSize;
    return memchr(waiting, '\n', size_t(waitingSize())) || QIODevice::canReadLine();
}

qint64 NSequentialBuffer::readData(char* data, qint64 maxSize)
{
    const int size = int(qMin(qint64(waitingSize()), maxSize));
    if (size > 0) {
        memcpy(data, m_buffer.constData() + m_readSize, size_t(size));
        discard(size);
        return size;
    }
    return maxSize < 1 || !m_writeChannelClosed ? 0 : -1;
}

qint64 NSequentialBuffer::writeData(const char* data, qint64 size)
{
    if (m_writeChannelClosed || size > qint64(INT_MAX) - waitingSize())
        return -1;
    try {
        // The array's own limit also covers what was read.
        if (size > qint64(INT_MAX) - m_buffer.size())
            removeRead();
        m_buffer.append(data, int(size));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    emit readyRead();
    return size;
}

int NSequentialBuffer::waitingSize() const
{
    return m_buffer.size() - m_readSize;
}

// Moving the rest to the front on each read would cost as much as all that is waiting; moved only once it is the
// smaller half, each byte is moved once on average.
void NSequentialBuffer::discard(int size)
{
    m_readSize += size;
    if (waitingSize() > m_readSize)
        return;
    removeRead();
    m_buffer.squeeze();
}

void NSequentialBuffer::removeRead()
{
    m_buffer.remove(0, m_readSize);
    m_readSize = 0;
}
