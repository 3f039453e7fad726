#include <nbase/io/nsequentialbuffer.h>

#include <nsystem/nlatin1_p.h>

#include <limits.h>
#include <new>
#include <string.h>

namespace {

// Unread bytes are kept in blocks, so that reading neither moves the rest nor keeps the memory of what was read.
// The size leaves room for the headers of the allocator and of QByteArray within 16 KiB.
const int BlockSize = 16 * 1024 - 64;

QByteArray makeBlock(const char* data, int size)
{
    QByteArray block;
    block.reserve(BlockSize);
    block.append(data, size);
    return block;
}

} // namespace

NSequentialBuffer::NSequentialBuffer(QObject* parent)
    : QIODevice(parent)
    , m_readSize(0)
    , m_size(0)
    , m_writeChannelClosed(true)
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
        setErrorString(latin1(""));
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
    m_blocks.clear();
    m_readSize = 0;
    m_size = 0;
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
    return m_size + QIODevice::bytesAvailable();
}

bool NSequentialBuffer::canReadLine() const
{
    int begin = m_readSize;
    for (int index = 0; index < m_blocks.size(); ++index) {
        const QByteArray& block = m_blocks.at(index);
        if (memchr(block.constData() + begin, '\n', size_t(block.size() - begin)))
            return true;
        begin = 0;
    }
    return QIODevice::canReadLine();
}

qint64 NSequentialBuffer::readData(char* data, qint64 maxSize)
{
    const int size = int(qMin(qint64(m_size), maxSize));
    if (size > 0) {
        removeFirst(data, size);
        return size;
    }
    return maxSize < 1 || !m_writeChannelClosed ? 0 : -1;
}

qint64 NSequentialBuffer::writeData(const char* data, qint64 size)
{
    if (m_writeChannelClosed || size > qint64(INT_MAX) - m_size)
        return -1;
    try {
        append(data, int(size));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    emit readyRead();
    return size;
}

// Appends all bytes or, when there is no memory for them, none: the last block, which needs no memory, is filled
// after the new blocks were allocated.
void NSequentialBuffer::append(const char* data, int size)
{
    const int blockCount = m_blocks.size();
    const int room = blockCount > 0 ? qMin(BlockSize - m_blocks.last().size(), size) : 0;
    try {
        for (int begin = room; begin < size; begin += BlockSize)
            m_blocks.append(makeBlock(data + begin, qMin(BlockSize, size - begin)));
    } catch (const std::bad_alloc&) {
        m_blocks.erase(m_blocks.begin() + blockCount, m_blocks.end());
        throw;
    }
    if (room > 0)
        m_blocks[blockCount - 1].append(data, room);
    m_size += size;
}

void NSequentialBuffer::removeFirst(char* data, int size)
{
    m_size -= size;
    while (size > 0) {
        const QByteArray& block = m_blocks.first();
        const int part = qMin(block.size() - m_readSize, size);
        memcpy(data, block.constData() + m_readSize, size_t(part));
        data += part;
        size -= part;
        m_readSize += part;
        if (m_readSize == block.size()) {
            m_blocks.removeFirst();
            m_readSize = 0;
        }
    }
}
