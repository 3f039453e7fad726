#include <nwebapi/nwafcgiconnection_p.h>

#include <nsystem/nsystemcall_p.h>
#include <nwebapi/nwafcgiconnectionowner_p.h>
#include <nwebapi/nwafcgipoller_p.h>
#include <nwebapi/nwafcgiprotocol_p.h>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <utility>

using namespace NwaFcgiProtocol;

namespace {

const int ReadSize = 16 * 1024;

// A client that sends fast must not keep the others waiting.
const int ReadsAtATime = 4;

// Returns whether @a content ends with the last variable.
bool readVariables(const QByteArray& content, NwaFcgiRequest::Variables& variables)
{
    variables.reserve(content.size());
    PairReader reader(content);
    while (reader.next())
        variables.insert(reader.nameData(), reader.nameSize(), reader.valueData(), reader.valueSize());
    return reader.atEnd();
}

bool isLongQuery(const QByteArray& name, int size, int limit)
{
    return size > limit && (name == "QUERY_STRING" || name == "REQUEST_URI");
}

// Whether a query that is too long is among the variables, the last of which may be incomplete.
bool hasLongQuery(const QByteArray& content, int limit)
{
    PairReader reader(content);
    while (reader.next()) {
        if (isLongQuery(reader.name(), reader.valueSize(), limit))
            return true;
    }
    return isLongQuery(reader.name(), content.size(), limit);
}

void appendValues(QByteArray& answer, const QByteArray& questions, int connectionCount)
{
    QByteArray values;
    PairReader question(questions);
    while (question.next()) {
        if (question.name() == "FCGI_MAX_CONNS" || question.name() == "FCGI_MAX_REQS")
            appendPair(values, question.name(), QByteArray::number(connectionCount));
        else if (question.name() == "FCGI_MPXS_CONNS")
            appendPair(values, question.name(), "0");
    }
    if (values.isEmpty())
        appendStreamEnd(answer, GetValuesResult, 0);
    // Repeated questions can have more answers than a record holds; they get none.
    else if (values.size() <= MaximumContentSize)
        appendStream(answer, GetValuesResult, 0, values.constData(), values.size());
}

} // namespace

NwaFcgiConnection::NwaFcgiConnection(NFileDescriptor socket, NwaFcgiConnectionOwner* owner)
    : m_owner(owner)
    , m_socket(std::move(socket))
    , m_events(NwaFcgiPoller::Nothing)
    , m_idleSeconds(0)
    , m_inputEnded(false)
    , m_parsing(false)
    , m_closeWhenSent(false)
    , m_resumeScheduled(false)
    , m_output(m_socket.number())
{
}

NwaFcgiConnection::~NwaFcgiConnection() {}

void NwaFcgiConnection::start()
{
    readInput();
}

void NwaFcgiConnection::processEvents(int events)
{
    // An event that the socket is no longer watched for may have been taken before.
    if (events & m_events & NwaFcgiPoller::Writable)
        flush();
    if (events & m_events & NwaFcgiPoller::Readable)
        readInput();
}

void NwaFcgiConnection::resume()
{
    m_resumeScheduled = false;
    flush();
    if (!isOpen() || m_parsing)
        return;
    processInput(nullptr, 0);
    readInput();
}

int NwaFcgiConnection::bufferedSize() const
{
    return m_input.size() + m_exchange.variables.size() + m_exchange.body.size() + m_output.size();
}

// Stalled and closed peers

void NwaFcgiConnection::closeIfStalled()
{
    // The first second may have been only a part of one.
    const bool isStalled = ++m_idleSeconds > m_owner->limits().stallTimeout;
    if (hasPeerGone() || (isStalled && isWaitingForPeer()))
        close();
}

// Whether the peer has to act next, not the service.
bool NwaFcgiConnection::isWaitingForPeer() const
{
    if (m_output.isBlocked() || !m_exchange.isDispatched)
        return true;
    return !m_exchange.hasBodyEnded && !isBodyBufferFull();
}

// While nothing is read, after the end of the input or because the service has to read first, only the kernel
// knows that the peer no longer waits for the reply. A reply that is blocked fails by itself.
bool NwaFcgiConnection::hasPeerGone() const
{
    if (!m_inputEnded && !isBodyBufferFull())
        return false;
    struct pollfd state = {m_socket.number(), POLLRDHUP, 0};
    if (::poll(&state, 1, 0) != 1)
        return false;
    // Over TCP, a peer that has gone looks like one that has only ended its sending.
    return (state.revents & (POLLHUP | POLLERR)) || (!m_inputEnded && isRestOfBodyMissing());
}

// Whether a peer that has ended its sending did so before the end of the body.
bool NwaFcgiConnection::isRestOfBodyMissing() const
{
    int unread = 0;
    return ::ioctl(m_socket.number(), FIONREAD, &unread) == 0 &&
           m_exchange.request->contentLength() - m_exchange.receivedBodySize > m_input.size() + unread;
}

// Reading

void NwaFcgiConnection::readInput()
{
    for (int count = 0; count < ReadsAtATime && receive(); ++count) {
    }
    if (isOpen())
        watch(NwaFcgiPoller::Readable, !m_parsing && !m_inputEnded && !isInputPaused());
}

// Reads the next bytes. Returns whether there may be more at once.
bool NwaFcgiConnection::receive()
{
    if (!isOpen() || m_parsing || m_inputEnded || isInputPaused())
        return false;
    char buffer[ReadSize];
    const ssize_t size = NSystem::retried([&]() { return ::recv(m_socket.number(), buffer, sizeof(buffer), 0); });
    if (size == 0) {
        handleEndOfInput();
        return false;
    }
    if (size < 0) {
        if (!NSystem::wouldBlock())
            close();
        return false;
    }
    if (!m_closeWhenSent)
        processInput(buffer, int(size));
    return size == ssize_t(sizeof(buffer));
}

// A peer that has ended only its sending still takes the reply to a complete request.
void NwaFcgiConnection::handleEndOfInput()
{
    m_inputEnded = true;
    m_closeWhenSent = m_closeWhenSent || !m_exchange.isActive();
    const bool isReplyDue = (m_exchange.isDispatched && m_exchange.hasBodyEnded) || !m_output.isEmpty();
    if (!isReplyDue || hasPeerGone())
        close();
}

bool NwaFcgiConnection::isInputPaused() const
{
    return isBodyBufferFull() || (m_input.size() >= HeaderSize && mustWait(RecordHeader(m_input.constData())));
}

bool NwaFcgiConnection::isBodyBufferFull() const
{
    return m_exchange.isDispatched && !m_exchange.hasBodyEnded &&
           m_exchange.unreadBodySize() >= m_owner->limits().streamedBodyBuffer;
}

// Whether a record begins a request and the peer has yet to take the reply to the one before. The rest of the
// earlier request's body is still read: a peer may take its reply only after sending all of that.
bool NwaFcgiConnection::mustWait(const RecordHeader& header) const
{
    return header.type == BeginRequest && header.requestId != 0 && !m_exchange.isActive() && !m_closeWhenSent &&
           m_output.isBlocked();
}

// Records

// Processes the bytes after those that were kept, and keeps what is incomplete or has to wait.
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

// Returns how many bytes were processed.
int NwaFcgiConnection::processRecords(const char* data, int size)
{
    int position = 0;
    while (size - position >= HeaderSize && !isBodyBufferFull()) {
        const RecordHeader header(data + position);
        if (header.version != Version) {
            close();
            break;
        }
        if (mustWait(header) || size - position < header.totalSize())
            break;
        processRecord(header, data + position + HeaderSize);
        position += header.totalSize();
        if (!isOpen())
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
    // Records of a request that has ended are legitimate: the reply may have come before the end of the body.
    if (header.requestId != m_exchange.id)
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
    QByteArray answer;
    if (header.type == GetValues)
        appendValues(
            answer, QByteArray::fromRawData(content, header.contentSize), m_owner->limits().connectionCount);
    else
        appendUnknownType(answer, header.type);
    send(answer);
}

void NwaFcgiConnection::processBeginRequest(const RecordHeader& header, const char* content)
{
    if (header.contentSize < BeginRequestSize || header.requestId == m_exchange.id) {
        close();
        return;
    }
    if (m_exchange.isActive()) {
        sendEndRequest(header.requestId, CannotMultiplex);
        return;
    }
    const int role = quint8(content[0]) << 8 | quint8(content[1]);
    m_exchange = NwaFcgiExchange(header.requestId, content[2] & KeepConnectionFlag);
    m_idleSeconds = 0;
    if (role != Responder) {
        sendEndRequest(header.requestId, UnknownRole);
        endRequest();
    }
}

void NwaFcgiConnection::processAbortRequest()
{
    abandonRequest();
    sendEndRequest(m_exchange.id, RequestComplete);
    endRequest();
}

void NwaFcgiConnection::processParams(const char* content, int size)
{
    if (m_exchange.request)
        return;
    if (size == 0) {
        makeRequest();
        return;
    }
    m_exchange.variables.append(content, size);
    if (m_exchange.variables.size() <= m_owner->limits().variablesSize)
        return;
    // The query is one of the variables, but has a status of its own.
    const bool isQueryTooLong = hasLongQuery(m_exchange.variables, m_owner->limits().querySize);
    answerWithError(isQueryTooLong ? NwaFcgiRequest::UriTooLong : NwaFcgiRequest::RequestHeaderFieldsTooLarge);
}

void NwaFcgiConnection::processStdin(const char* content, int size)
{
    if (m_exchange.hasBodyEnded)
        return;
    m_exchange.hasBodyEnded = size == 0;
    if (size > 0) {
        m_exchange.appendToBody(content, size);
        m_idleSeconds = 0;
    }
    if (isBodyTooLarge(m_exchange.receivedBodySize)) {
        // No client sends so much of a body before the variables, without which there is no request to answer.
        if (m_exchange.request)
            answerWithError(NwaFcgiRequest::ContentTooLarge);
        else
            close();
        return;
    }
    if (m_exchange.isDispatched)
        tellBodyAvailable(m_exchange.request);
    else
        dispatchWhenReady();
}

// The request

void NwaFcgiConnection::makeRequest()
{
    NwaFcgiRequest::Variables variables;
    const bool complete = readVariables(m_exchange.variables, variables);
    m_exchange.variables.clear();
    m_idleSeconds = 0;
    m_exchange.request = new NwaFcgiRequest(this, variables);
    if (!complete || m_exchange.request->contentLength() < 0)
        answerWithError(NwaFcgiRequest::BadRequest);
    else if (variables.value("QUERY_STRING").size() > m_owner->limits().querySize)
        answerWithError(NwaFcgiRequest::UriTooLong);
    else if (isBodyTooLarge(m_exchange.request->contentLength()))
        answerWithError(NwaFcgiRequest::ContentTooLarge);
    else
        dispatchWhenReady();
}

bool NwaFcgiConnection::isBodyTooLarge(qint64 size) const
{
    return size > m_owner->limits().bodySize && !m_exchange.isStreamed();
}

void NwaFcgiConnection::dispatchWhenReady()
{
    if (!m_exchange.request || !(m_exchange.hasBodyEnded || m_exchange.isStreamed()))
        return;
    if (m_exchange.isBodyBroken()) {
        answerWithError(NwaFcgiRequest::BadRequest);
        return;
    }
    // What this connection holds is released as soon as the request is served.
    if (m_owner->bufferedSize() - bufferedSize() > m_owner->limits().bufferedSize) {
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
        return;
    }
    m_exchange.isDispatched = true;
    m_owner->dispatch(m_exchange.request);
}

// A request that has not been dispatched yet is refused when the connections hold too much.
void NwaFcgiConnection::refuseWhenTooMuchIsHeld()
{
    if (!isOpen() || !m_exchange.isActive() || m_exchange.isDispatched)
        return;
    if (m_owner->bufferedSize() > m_owner->limits().bufferedSize)
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
}

void NwaFcgiConnection::answerWithError(NwaFcgiRequest::StandardHttpError error)
{
    // The method decides whether the answer has a body; it may be among the variables that have arrived.
    if (!m_exchange.request) {
        NwaFcgiRequest::Variables variables;
        readVariables(m_exchange.variables, variables);
        m_exchange.request = new NwaFcgiRequest(this, variables);
    }
    // Deleted here, even if the connection is closed while the answer is sent.
    m_exchange.isDispatched = true;
    NwaFcgiRequest* const request = m_exchange.request;
    request->sendHttpError(error);
    delete request;
}

qint64 NwaFcgiConnection::readBody(char* data, qint64 maximumSize)
{
    const bool wasFull = isBodyBufferFull();
    const int size = m_exchange.readBody(data, maximumSize);
    if (wasFull && !isBodyBufferFull()) {
        // The peer has had to wait for the service; its own time begins only now.
        m_idleSeconds = 0;
        if (!m_parsing)
            resumeSoon();
    }
    return size == 0 && m_exchange.isBodyBroken() ? -1 : size;
}

bool NwaFcgiConnection::atBodyEnd() const
{
    return m_exchange.hasBodyEnded && !m_exchange.isBodyBroken() && m_exchange.unreadBodySize() == 0;
}

// The reply

bool NwaFcgiConnection::write(Stream stream, const char* data, int size)
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    const RecordType type = stream == Output ? Stdout : Stderr;
    const bool hadBacklog = !m_output.isEmpty();
    m_exchange.hasErrorOutput = m_exchange.hasErrorOutput || (stream == Error && size > 0);
    while (size > 0 && isOpen()) {
        const int contentSize = qMin(size, int(MaximumContentSize));
        processSent(m_output.appendRecord(type, m_exchange.id, data, contentSize));
        data += contentSize;
        size -= contentSize;
    }
    if (!isOpen())
        return false;
    if (hadBacklog && m_output.isEmpty())
        tellReplyTaken(m_exchange.request);
    // A service may write a part of its reply now and the rest much later. Most reply at once, while the records
    // of their request are being processed; what they write is sent together with the end of the reply.
    if (!m_parsing && !m_output.isEmpty() && !m_output.isBlocked())
        resumeSoon();
    return true;
}

int NwaFcgiConnection::replyBacklog() const
{
    return m_output.size();
}

void NwaFcgiConnection::finish()
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    m_exchange.request = nullptr;
    if (!isOpen())
        return;
    QByteArray end;
    end.reserve(4 * HeaderSize);
    appendStreamEnd(end, Stdout, m_exchange.id);
    if (m_exchange.hasErrorOutput)
        appendStreamEnd(end, Stderr, m_exchange.id);
    appendEndRequest(end, m_exchange.id, RequestComplete);
    send(end);
    endRequest();
}

// Forgets the request and sends what is left of its reply.
void NwaFcgiConnection::endRequest()
{
    // After the last request, nothing is awaited but the rest of its body.
    if (!m_exchange.keepConnection && m_exchange.hasBodyEnded)
        m_inputEnded = true;
    m_closeWhenSent = m_inputEnded || !m_exchange.keepConnection;
    m_exchange = NwaFcgiExchange();
    m_idleSeconds = 0;
    flush();
    if (isOpen() && !m_parsing && !m_inputEnded)
        resumeSoon();
}

// A service that has the request keeps it until it deletes it.
void NwaFcgiConnection::abandonRequest()
{
    NwaFcgiRequest* const request = m_exchange.request;
    m_exchange.request = nullptr;
    if (!request)
        return;
    tellAborted(request);
    if (!m_exchange.isDispatched)
        delete request;
}

// Sending

void NwaFcgiConnection::send(const QByteArray& records)
{
    processSent(m_output.append(records));
}

void NwaFcgiConnection::sendEndRequest(int requestId, ProtocolStatus status)
{
    QByteArray record;
    appendEndRequest(record, requestId, status);
    send(record);
}

void NwaFcgiConnection::flush()
{
    if (!isOpen())
        return;
    const bool hadBacklog = !m_output.isEmpty();
    const bool wasBlocked = m_output.isBlocked();
    processSent(m_output.flush());
    if (!isOpen() || !m_output.isEmpty())
        return;
    if (hadBacklog && m_exchange.isDispatched && m_exchange.request)
        tellReplyTaken(m_exchange.request);
    if (m_closeWhenSent)
        closeWhenDone();
    else if (wasBlocked && !m_exchange.isActive())
        resumeSoon(); // the next request may have had to wait
}

// Acts on the state of the output after an operation that has sent @a size bytes.
void NwaFcgiConnection::processSent(int size)
{
    const int limit = m_owner->limits().replyBuffer;
    if (m_output.size() > limit)
        size += m_output.flush();
    if (size > 0)
        m_idleSeconds = 0;
    if (m_output.isBroken() || m_output.size() > limit)
        close();
    else
        watch(NwaFcgiPoller::Writable, m_output.isBlocked());
}

// Closing the socket of a peer that is still sending would lose the reply, so the end of its sending is awaited.
void NwaFcgiConnection::closeWhenDone()
{
    if (m_inputEnded)
        close();
    else
        ::shutdown(m_socket.number(), SHUT_WR);
}

void NwaFcgiConnection::close()
{
    if (!isOpen())
        return;
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    NFileDescriptor socket(std::move(m_socket));
    m_owner->watch(socket.number(), m_events, NwaFcgiPoller::Nothing);
    m_events = NwaFcgiPoller::Nothing;
    m_owner->forget(socket.number());
    socket.reset();
    abandonRequest();
}

void NwaFcgiConnection::resumeSoon()
{
    if (m_resumeScheduled)
        return;
    m_resumeScheduled = true;
    m_owner->resumeSoon(shared_from_this());
}

void NwaFcgiConnection::watch(int event, bool on)
{
    const int formerEvents = m_events;
    m_events = on ? formerEvents | event : formerEvents & ~event;
    if (m_events != formerEvents && !m_owner->watch(m_socket.number(), formerEvents, m_events))
        close();
}
