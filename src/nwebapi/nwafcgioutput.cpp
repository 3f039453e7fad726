#include <nwebapi/nwafcgioutput_p.h>

#include <nsystem/nsystemcall_p.h>

#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

using namespace NwaFcgiProtocol;

namespace {

// Sending begins when this much has come together, and what has to wait is kept in blocks of this size: many large
// blocks of different sizes would fragment the heap.
const int BlockSize = 64 * 1024;

// From this size on, a system call of its own costs less than copying the content.
const int LargeSize = 32 * 1024;

struct iovec piece(const char* data, int size)
{
    const struct iovec result = {const_cast<char*>(data), size_t(size)};
    return result;
}

} // namespace

NwaFcgiOutput::NwaFcgiOutput(int socket)
    : m_socket(socket)
    , m_size(0)
    , m_sent(0)
    , m_isBlocked(false)
    , m_isBroken(false)
{
}

int NwaFcgiOutput::appendRecord(RecordType type, int requestId, const char* content, int size)
{
    char header[HeaderSize];
    writeHeader(header, type, requestId, size);
    if (size >= LargeSize && !m_isBlocked && !m_isBroken)
        return sendWithContent(header, content, size);
    const int sent = append(header, HeaderSize);
    return sent + append(content, size);
}

int NwaFcgiOutput::append(const char* data, int size)
{
    int sent = 0;
    while (size > 0) {
        if (isBlockFull() && !m_isBlocked)
            sent += flush();
        if (m_isBroken)
            break;
        const int part = copyIntoBlock(data, size);
        data += part;
        size -= part;
    }
    return sent;
}

// Returns how many of the bytes there was room for.
int NwaFcgiOutput::copyIntoBlock(const char* data, int size)
{
    if (isBlockFull()) {
        m_fullBlocks.enqueue(m_lastBlock);
        m_lastBlock = QByteArray();
    }
    const int part = qMin(size, BlockSize - m_lastBlock.size());
    if (m_lastBlock.size() + part >= BlockSize / 2)
        m_lastBlock.reserve(BlockSize);
    m_lastBlock.append(data, part);
    m_size += part;
    return part;
}

// While the queue is not blocked, it has only the last block.
int NwaFcgiOutput::sendWithContent(const char* header, const char* content, int size)
{
    const int queuedSize = m_size;
    struct iovec pieces[] = {
        piece(m_lastBlock.constData() + m_sent, queuedSize), piece(header, HeaderSize), piece(content, size)};
    struct msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = pieces;
    message.msg_iovlen = sizeof(pieces) / sizeof(pieces[0]);
    const int sent = checked(NSystem::retried([&]() { return ::sendmsg(m_socket, &message, MSG_NOSIGNAL); }));
    if (m_isBroken)
        return 0;

    m_isBlocked = sent < queuedSize + HeaderSize + size;
    dequeue(qMin(sent, queuedSize));
    const int sentOfRecord = qMax(0, sent - queuedSize);
    const int sentOfHeader = qMin(sentOfRecord, int(HeaderSize));
    const int sentOfContent = sentOfRecord - sentOfHeader;
    append(header + sentOfHeader, HeaderSize - sentOfHeader);
    append(content + sentOfContent, size - sentOfContent);
    return sent;
}

int NwaFcgiOutput::flush()
{
    int sent = 0;
    while (m_size > 0) {
        const QByteArray& block = firstBlock();
        const int part = checked(NSystem::retried([&]() {
            return ::send(m_socket, block.constData() + m_sent, size_t(block.size() - m_sent), MSG_NOSIGNAL);
        }));
        if (part == 0)
            break;
        dequeue(part);
        sent += part;
    }
    m_isBlocked = m_size > 0;
    return sent;
}

// Forgets the next bytes, which are all in the first block.
void NwaFcgiOutput::dequeue(int size)
{
    if (size == 0)
        return;
    m_size -= size;
    m_sent += size;
    if (m_sent < firstBlock().size())
        return;
    // The last block keeps its memory for what follows.
    if (m_fullBlocks.isEmpty())
        m_lastBlock.resize(0);
    else
        m_fullBlocks.dequeue();
    m_sent = 0;
}

// The number of bytes that a call has sent.
int NwaFcgiOutput::checked(ssize_t result)
{
    if (result >= 0)
        return int(result);
    if (!NSystem::wouldBlock()) {
        m_isBroken = true;
        m_fullBlocks.clear();
        m_lastBlock.clear();
        m_size = 0;
        m_sent = 0;
    }
    return 0;
}

const QByteArray& NwaFcgiOutput::firstBlock() const
{
    return m_fullBlocks.isEmpty() ? m_lastBlock : m_fullBlocks.head();
}

bool NwaFcgiOutput::isBlockFull() const
{
    return m_lastBlock.size() >= BlockSize;
}
