#include <nwebapi/nwafcgiconnection_p.h>

#include <nwebapi/nwafcgipoller_p.h>
#include <nwebapi/nwafcgiprotocol_p.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwahttpgrammar_p.h>

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

using namespace NwaFcgiProtocol;

namespace {

const int ReadSize = 16 * 1024;

// One client must not keep the others waiting, however fast it sends.
const int ReadsAtATime = 4;

// A reply is handed to the kernel in blocks of this size, so that sending begins before the reply is complete, and
// waits in such blocks: many large blocks of different sizes would tear holes into the heap that stay.
const int BlockSize = 64 * 1024;

// From this size on, to hand the data to the kernel at once costs less than to copy it and send it with what
// follows.
const int LargeSize = 32 * 1024;

// Calls the system again when a signal interrupts it.
template <typename Call> ssize_t repeated(const Call& call)
{
    ssize_t result = 0;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

bool isStreamed(const NwaFcgiRequest& request)
{
    return NwaHttpGrammar::mainValue(request.variable("CONTENT_TYPE")) == "multipart/form-data";
}

// Reads the variables that are there as a whole. Returns whether nothing is left over.
bool readVariables(const QByteArray& content, NwaFcgiRequest::Variables& variables)
{
    variables.reserve(content.size());
    PairReader reader(content);
    while (reader.next())
        variables.insert(reader.nameData(), reader.nameSize(), reader.valueData(), reader.valueSize());
    return reader.atEnd();
}

} // namespace

NwaFcgiConnection::NwaFcgiConnection(int descriptor, NwaFcgiServer* server)
    : m_server(server)
    , m_descriptor(descriptor)
    , m_events(NwaFcgiPoller::Nothing)
    , m_idleSeconds(0)
    , m_inputEnded(false)
    , m_parsing(false)
    , m_closeWhenSent(false)
    , m_resumeScheduled(false)
    , m_requestId(0)
    , m_keepConnection(false)
    , m_request(nullptr)
    , m_dispatched(false)
    , m_streamed(false)
    , m_hasRemarks(false)
    , m_bodyEnded(false)
    , m_bodyReceived(0)
    , m_bodyRead(0)
    , m_waitingSize(0)
    , m_blockSent(0)
{
}

NwaFcgiConnection::~NwaFcgiConnection() {}

void NwaFcgiConnection::start()
{
    readInput();
}

void NwaFcgiConnection::processEvents(int events)
{
    // One that is not watched for any more says nothing new.
    if (events & m_events & NwaFcgiPoller::Writable)
        flush();
    if (events & m_events & NwaFcgiPoller::Readable)
        readInput();
}

void NwaFcgiConnection::resume()
{
    m_resumeScheduled = false;
    if (m_descriptor < 0)
        return;
    flush();
    continueParsing();
}

void NwaFcgiConnection::closeIfStalled()
{
    // The first second may have been a part of one only.
    const bool isStalled = ++m_idleSeconds > m_server->m_limits.stallTimeout;
    if (hasPeerGone() || (isStalled && isWaitingForPeer()))
        close();
}

// Whether it is the peer's turn, not the service's.
bool NwaFcgiConnection::isWaitingForPeer() const
{
    if (isWriteBlocked())
        return true;
    if (!m_dispatched)
        return true;
    return !m_bodyEnded && !isBodyBufferFull();
}

// While nothing is read, after the end of the input or when the service has to read first, only the kernel can
// tell that the peer does not wait for the reply any more.
bool NwaFcgiConnection::hasPeerGone() const
{
    if (!m_inputEnded && !isBodyBufferFull())
        return false;
    struct pollfd state = {m_descriptor, POLLRDHUP, 0};
    if (::poll(&state, 1, 0) != 1)
        return false;
    // Over TCP, a peer that has gone looks like one that has only ended its sending.
    return (state.revents & (POLLHUP | POLLERR)) || (!m_inputEnded && isRestOfBodyMissing());
}

// Whether a peer that has ended its sending did so in the midst of the body.
bool NwaFcgiConnection::isRestOfBodyMissing() const
{
    int unread = 0;
    return ::ioctl(m_descriptor, FIONREAD, &unread) == 0 &&
           m_request->contentLength() - m_bodyReceived > m_input.size() + unread;
}

void NwaFcgiConnection::readInput()
{
    for (int count = 0; count < ReadsAtATime && receive(); ++count) {
    }
    if (m_descriptor >= 0)
        watch(NwaFcgiPoller::Readable, !m_parsing && !m_inputEnded && !isBodyBufferFull());
}

// Takes the next bytes. Returns whether more may be there right now.
bool NwaFcgiConnection::receive()
{
    if (m_descriptor < 0 || m_parsing || m_inputEnded || isBodyBufferFull())
        return false;
    char buffer[ReadSize];
    const ssize_t size = repeated([&]() { return ::recv(m_descriptor, buffer, sizeof(buffer), 0); });
    if (size == 0) {
        handleEndOfInput();
        return false;
    }
    if (size < 0) {
        if (!wouldBlock())
            close();
        return false;
    }
    if (!m_closeWhenSent)
        processInput(buffer, int(size));
    return size == ssize_t(sizeof(buffer));
}

// A peer that only ends its own sending still takes the reply to a complete request.
void NwaFcgiConnection::handleEndOfInput()
{
    m_inputEnded = true;
    const bool repliesAreDue = (m_dispatched && m_bodyEnded) || unsentSize() > 0;
    if (!repliesAreDue || hasPeerGone())
        close();
}

void NwaFcgiConnection::continueParsing()
{
    if (m_descriptor < 0 || m_parsing)
        return;
    processInput(nullptr, 0);
    readInput();
}

// Processes what was kept of the input and the bytes that follow it, and keeps what is incomplete or has to wait.
void NwaFcgiConnection::processInput(const char* data, int size)
{
    m_parsing = true;
    if (m_input.isEmpty()) {
        const int processed = processRecords(data, size);
        m_input.append(data + processed, size - processed);
    } else {
        m_input.append(data, size);
        m_input.remove(0, processRecords(m_input.constData(), m_input.size()));
    }
    refuseWhenTooMuchIsHeld();
    if (m_closeWhenSent)
        m_input.clear();
    m_parsing = false;
    flush();
}

// Returns how many bytes the records had.
int NwaFcgiConnection::processRecords(const char* data, int size)
{
    int position = 0;
    while (size - position >= HeaderSize && !isBodyBufferFull()) {
        const RecordHeader header(data + position);
        if (header.version != Version) {
            close();
            break;
        }
        if (size - position < header.totalSize())
            break;
        processRecord(header, data + position + HeaderSize);
        position += header.totalSize();
        if (m_descriptor < 0)
            break;
    }
    return position;
}

void NwaFcgiConnection::processRecord(const RecordHeader& header, const char* content)
{
    if (m_closeWhenSent)
        return;
    if (header.requestId == 0) {
        processConnectionRecord(header, content);
        return;
    }
    if (header.type == BeginRequest) {
        processBeginRequest(header, content);
        return;
    }
    // Records for a request that has ended already are on their way legitimately: the reply may come before the
    // body.
    if (header.requestId != m_requestId)
        return;
    switch (header.type) {
    case AbortRequest:
        processAbortRequest();
        break;
    case Params:
        processParams(content, header.contentSize);
        break;
    case Stdin:
        processStdin(content, header.contentSize);
        break;
    default:
        break;
    }
}

void NwaFcgiConnection::processConnectionRecord(const RecordHeader& header, const char* content)
{
    if (header.type != GetValues) {
        appendUnknownType(m_output, header.type);
        return;
    }
    const QByteArray count = QByteArray::number(m_server->m_limits.connectionCount);
    const QByteArray questions = QByteArray::fromRawData(content, header.contentSize);
    QByteArray answers;
    PairReader question(questions);
    while (question.next()) {
        if (question.name() == "FCGI_MAX_CONNS" || question.name() == "FCGI_MAX_REQS")
            appendPair(answers, question.name(), count);
        else if (question.name() == "FCGI_MPXS_CONNS")
            appendPair(answers, question.name(), "0");
    }
    if (answers.isEmpty())
        appendStreamEnd(m_output, GetValuesResult, 0);
    // A name that is asked for over and over would overflow the record.
    else if (answers.size() <= MaximumContentSize)
        appendStream(m_output, GetValuesResult, 0, answers.constData(), answers.size());
}

void NwaFcgiConnection::processBeginRequest(const RecordHeader& header, const char* content)
{
    if (header.contentSize < BeginRequestSize || header.requestId == m_requestId) {
        close();
        return;
    }
    if (m_requestId != 0) {
        appendEndRequest(m_output, header.requestId, CannotMultiplex);
        return;
    }
    const int role = quint8(content[0]) << 8 | quint8(content[1]);
    m_keepConnection = content[2] & KeepConnectionFlag;
    m_requestId = header.requestId;
    m_idleSeconds = 0;
    if (role != Responder) {
        appendEndRequest(m_output, header.requestId, UnknownRole);
        endRequest();
    }
}

void NwaFcgiConnection::processAbortRequest()
{
    giveRequestUp();
    appendEndRequest(m_output, m_requestId, RequestComplete);
    endRequest();
}

void NwaFcgiConnection::processParams(const char* content, int size)
{
    if (m_request)
        return;
    if (size == 0) {
        makeRequest();
        return;
    }
    m_variables.append(content, size);
    if (m_variables.size() > m_server->m_limits.variablesSize)
        refuseOversizedVariables();
}

bool NwaFcgiConnection::isTooLongQuery(const QByteArray& name, int size) const
{
    return (name == "QUERY_STRING" || name == "REQUEST_URI") && size > m_server->m_limits.querySize;
}

// The query is a part of the variables as the header fields are, but has a status of its own.
void NwaFcgiConnection::refuseOversizedVariables()
{
    bool queryIsTooLong = false;
    PairReader reader(m_variables);
    while (reader.next())
        queryIsTooLong = queryIsTooLong || isTooLongQuery(reader.name(), reader.valueSize());
    // What broke the limit may be the query itself, of which only the beginning has arrived.
    queryIsTooLong = queryIsTooLong || isTooLongQuery(reader.name(), m_variables.size());
    answerWithError(queryIsTooLong ? NwaFcgiRequest::UriTooLong : NwaFcgiRequest::RequestHeaderFieldsTooLarge);
}

void NwaFcgiConnection::makeRequest()
{
    NwaFcgiRequest::Variables variables;
    const bool complete = readVariables(m_variables, variables);
    m_variables.clear();
    m_idleSeconds = 0;
    const bool queryIsTooLong = variables.value("QUERY_STRING").size() > m_server->m_limits.querySize;
    m_request = new NwaFcgiRequest(this, variables);
    m_streamed = isStreamed(*m_request);
    if (!complete || m_request->contentLength() < 0)
        answerWithError(NwaFcgiRequest::BadRequest);
    else if (queryIsTooLong)
        answerWithError(NwaFcgiRequest::UriTooLong);
    else if (isBodyTooLarge(m_request->contentLength()))
        answerWithError(NwaFcgiRequest::ContentTooLarge);
    else
        dispatchWhenReady();
}

bool NwaFcgiConnection::isBodyTooLarge(qint64 size) const
{
    return !m_streamed && size > m_server->m_limits.bodySize;
}

void NwaFcgiConnection::processStdin(const char* content, int size)
{
    if (m_bodyEnded)
        return;
    if (size == 0) {
        endBody();
        return;
    }
    // What the service has read is dropped here as well: one that always leaves something would keep it all.
    m_body.remove(0, m_bodyRead);
    m_bodyRead = 0;
    m_body.append(content, size);
    m_bodyReceived += size;
    m_idleSeconds = 0;
    if (isBodyTooLarge(m_bodyReceived)) {
        // Before its variables are complete the request does not exist yet; nobody sends so much of a body then.
        if (m_request)
            answerWithError(NwaFcgiRequest::ContentTooLarge);
        else
            close();
        return;
    }
    if (m_dispatched)
        tellBodyAvailable(m_request);
}

void NwaFcgiConnection::endBody()
{
    m_bodyEnded = true;
    if (m_dispatched)
        tellBodyAvailable(m_request);
    else
        dispatchWhenReady();
}

void NwaFcgiConnection::dispatchWhenReady()
{
    if (!m_request || m_dispatched || !(m_streamed || m_bodyEnded))
        return;
    if (isBodyBroken()) {
        answerWithError(NwaFcgiRequest::BadRequest);
        return;
    }
    // What it holds itself makes room as soon as it is served.
    if (m_server->bufferedSize() - bufferedSize() > m_server->m_limits.bufferedSize) {
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
        return;
    }
    m_dispatched = true;
    m_server->dispatch(m_request);
}

// A request that no service has yet is refused when more has come than there is room for.
void NwaFcgiConnection::refuseWhenTooMuchIsHeld()
{
    if (m_descriptor < 0 || m_requestId == 0 || m_dispatched)
        return;
    if (m_server->bufferedSize() > m_server->m_limits.bufferedSize)
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
}

void NwaFcgiConnection::answerWithError(NwaFcgiRequest::StandardHttpError error)
{
    // The variables may be incomplete; the method among them decides what the answer looks like.
    if (!m_request) {
        NwaFcgiRequest::Variables variables;
        readVariables(m_variables, variables);
        m_request = new NwaFcgiRequest(this, variables);
    }
    // Ours to delete even when the connection breaks while the answer is sent.
    m_dispatched = true;
    NwaFcgiRequest* const request = m_request;
    request->sendHttpError(error);
    delete request;
}

bool NwaFcgiConnection::write(Stream stream, const char* data, int size)
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    while (size > 0 && m_descriptor >= 0) {
        const int contentSize = qMin(size, int(MaximumContentSize));
        m_hasRemarks = m_hasRemarks || stream == Error;
        sendRecord(stream == Output ? Stdout : Stderr, data, contentSize);
        data += contentSize;
        size -= contentSize;
    }
    // A service may write a part of its reply now and the rest much later. Most reply at once, while the records
    // of their request are being processed; what they write goes out together with its end.
    if (m_descriptor >= 0 && !m_parsing && !isWriteBlocked() && unsentSize() > 0)
        resumeSoon();
    return m_descriptor >= 0;
}

void NwaFcgiConnection::sendRecord(int type, const char* content, int size)
{
    char header[HeaderSize];
    writeHeader(header, type, m_requestId, size);
    if (size >= LargeSize && !isWriteBlocked()) {
        sendLargeRecord(header, content, size);
    } else {
        enqueue(header, sizeof(header));
        enqueue(content, size);
    }
    if (isReplyBufferExceeded())
        flush();
}

// Sends what waits, and the record straight from where it is.
void NwaFcgiConnection::sendLargeRecord(const char* header, const char* content, int size)
{
    const QByteArray& block = firstBlock();
    struct iovec pieces[] = {
        {const_cast<char*>(block.constData()) + m_blockSent, size_t(block.size() - m_blockSent)},
        {const_cast<char*>(header), size_t(HeaderSize)},
        {const_cast<char*>(content), size_t(size)}};
    struct msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = pieces;
    message.msg_iovlen = sizeof(pieces) / sizeof(pieces[0]);
    const ssize_t sent = repeated([&]() { return ::sendmsg(m_descriptor, &message, MSG_NOSIGNAL); });
    if (sent < 0 && !wouldBlock()) {
        close();
        return;
    }
    int left = qMax(0, int(sent));
    if (left > 0)
        m_idleSeconds = 0;
    const int ofBlock = qMin(left, int(pieces[0].iov_len));
    left -= ofBlock;
    discardOutput(ofBlock);
    const int ofHeader = qMin(left, int(HeaderSize));
    left -= ofHeader;
    enqueue(header + ofHeader, HeaderSize - ofHeader);
    enqueue(content + left, size - left);
    if (m_descriptor >= 0)
        watch(NwaFcgiPoller::Writable, unsentSize() > 0);
}

void NwaFcgiConnection::enqueue(const char* data, int size)
{
    while (size > 0) {
        if (m_output.size() >= BlockSize && !isWriteBlocked())
            flush();
        if (m_descriptor < 0)
            return;
        if (m_output.size() >= BlockSize)
            startNextBlock();
        const int part = qMin(size, BlockSize - m_output.size());
        if (m_output.size() + part >= BlockSize / 2)
            m_output.reserve(BlockSize);
        m_output.append(data, part);
        data += part;
        size -= part;
    }
}

int NwaFcgiConnection::replyBacklog() const
{
    return unsentSize();
}

void NwaFcgiConnection::startNextBlock()
{
    m_waitingSize += m_output.size();
    m_waiting.enqueue(m_output);
    m_output = QByteArray();
}

const QByteArray& NwaFcgiConnection::firstBlock() const
{
    return m_waiting.isEmpty() ? m_output : m_waiting.head();
}

bool NwaFcgiConnection::isReplyBufferExceeded() const
{
    return m_descriptor >= 0 && unsentSize() > m_server->m_limits.replyBuffer;
}

void NwaFcgiConnection::resumeSoon()
{
    if (m_resumeScheduled)
        return;
    m_resumeScheduled = true;
    m_server->resumeSoon(shared_from_this());
}

qint64 NwaFcgiConnection::readBody(char* data, qint64 maximumSize)
{
    const int size = int(qMin(qint64(bufferedBodySize()), maximumSize));
    if (size <= 0)
        return isBodyBroken() ? -1 : 0;
    const bool wasFull = isBodyBufferFull();
    memcpy(data, m_body.constData() + m_bodyRead, size_t(size));
    m_bodyRead += size;
    if (m_bodyRead == m_body.size()) {
        m_body.clear();
        m_bodyRead = 0;
    }
    if (wasFull && !isBodyBufferFull()) {
        // The peer has had to wait for the service; its own time begins only now.
        m_idleSeconds = 0;
        if (!m_parsing)
            resumeSoon();
    }
    return size;
}

bool NwaFcgiConnection::atBodyEnd() const
{
    return m_bodyEnded && !isBodyBroken() && bufferedBodySize() == 0;
}

// Whether the body has ended shorter or longer than it was announced.
bool NwaFcgiConnection::isBodyBroken() const
{
    return m_bodyEnded && !m_request->variable("CONTENT_LENGTH").isEmpty() &&
           m_request->contentLength() != m_bodyReceived;
}

void NwaFcgiConnection::finish()
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    m_request = nullptr;
    if (m_descriptor < 0)
        return;
    appendStreamEnd(m_output, Stdout, m_requestId);
    if (m_hasRemarks)
        appendStreamEnd(m_output, Stderr, m_requestId);
    appendEndRequest(m_output, m_requestId, RequestComplete);
    endRequest();
}

// Forgets the request and sends what is left of its reply.
void NwaFcgiConnection::endRequest()
{
    const bool bodyEnded = m_bodyEnded;
    m_requestId = 0;
    m_dispatched = false;
    m_streamed = false;
    m_hasRemarks = false;
    m_bodyEnded = false;
    m_bodyReceived = 0;
    m_variables.clear();
    m_body.clear();
    m_bodyRead = 0;
    m_idleSeconds = 0;
    if (!m_keepConnection) {
        m_closeWhenSent = true;
        if (bodyEnded)
            m_inputEnded = true;
    }
    // A peer that has ended its sending has no further request.
    if (m_inputEnded)
        m_closeWhenSent = true;
    flush();
    if (m_descriptor >= 0 && !m_parsing && !m_inputEnded)
        resumeSoon();
}

bool NwaFcgiConnection::isBodyBufferFull() const
{
    return m_dispatched && bufferedBodySize() >= m_server->m_limits.streamedBodyBuffer && !m_bodyEnded;
}

int NwaFcgiConnection::bufferedSize() const
{
    return m_input.size() + m_variables.size() + m_body.size() + unsentSize();
}

int NwaFcgiConnection::bufferedBodySize() const
{
    return m_body.size() - m_bodyRead;
}

int NwaFcgiConnection::unsentSize() const
{
    return m_waitingSize + m_output.size() - m_blockSent;
}

void NwaFcgiConnection::flush()
{
    const bool hasBacklog = unsentSize() > 0;
    while (m_descriptor >= 0 && unsentSize() > 0) {
        const QByteArray& block = firstBlock();
        const ssize_t size = repeated([&]() {
            return ::send(
                m_descriptor, block.constData() + m_blockSent, size_t(block.size() - m_blockSent), MSG_NOSIGNAL);
        });
        if (size < 0) {
            if (!wouldBlock())
                close();
            break;
        }
        discardOutput(int(size));
        m_idleSeconds = 0;
    }
    if (m_descriptor < 0)
        return;
    if (isReplyBufferExceeded()) {
        close();
        return;
    }
    watch(NwaFcgiPoller::Writable, unsentSize() > 0);
    if (m_descriptor < 0 || unsentSize() > 0)
        return;
    if (hasBacklog && m_dispatched && m_request)
        tellReplyTaken(m_request);
    if (m_closeWhenSent)
        closeWhenDone();
}

// Forgets what the kernel has taken of the first block.
void NwaFcgiConnection::discardOutput(int size)
{
    m_blockSent += size;
    if (m_waiting.isEmpty()) {
        if (m_blockSent < m_output.size())
            return;
        m_output.resize(0);
    } else {
        if (m_blockSent < m_waiting.head().size())
            return;
        m_waitingSize -= m_waiting.dequeue().size();
    }
    m_blockSent = 0;
}

// Whether the peer has yet to take what was sent before more can be sent.
bool NwaFcgiConnection::isWriteBlocked() const
{
    return m_events & NwaFcgiPoller::Writable;
}

void NwaFcgiConnection::watch(int event, bool on)
{
    const int events = on ? m_events | event : m_events & ~event;
    const int formerEvents = m_events;
    m_events = events;
    // Without its events the connection would never go on.
    if (!m_server->m_poller->watch(m_descriptor, formerEvents, events))
        close();
}

// A peer that is still sending would lose the reply if the socket were closed under it, so its end is awaited.
void NwaFcgiConnection::closeWhenDone()
{
    if (m_inputEnded) {
        close();
        return;
    }
    ::shutdown(m_descriptor, SHUT_WR);
}

void NwaFcgiConnection::close()
{
    if (m_descriptor < 0)
        return;
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    m_server->m_poller->watch(descriptor, m_events, NwaFcgiPoller::Nothing);
    m_events = NwaFcgiPoller::Nothing;
    m_server->forget(descriptor);
    ::close(descriptor);
    giveRequestUp();
}

// A service that has the request already keeps it until it deletes it.
void NwaFcgiConnection::giveRequestUp()
{
    NwaFcgiRequest* const request = m_request;
    m_request = nullptr;
    if (!request)
        return;
    tellAborted(request);
    if (!m_dispatched)
        delete request;
}
