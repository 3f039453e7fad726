#include <nwebapi/nwafcgiconnection_p.h>

#include <nsystem/nsystemcall_p.h>
#include <nwebapi/nwafcgipoller_p.h>
#include <nwebapi/nwafcgiprotocol_p.h>
#include <nwebapi/nwafcgiserver.h>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace NwaFcgiProtocol;

namespace {

const int ReadSize = 16 * 1024;

// One client must not keep the others waiting, however fast it sends.
const int ReadsAtATime = 4;

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
    , m_output(descriptor)
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
    if (m_output.isBlocked())
        return true;
    if (!m_exchange.isDispatched)
        return true;
    return !m_exchange.hasBodyEnded && !isBodyBufferFull();
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
           m_exchange.request->contentLength() - m_exchange.receivedBodySize > m_input.size() + unread;
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
    const ssize_t size = NSystem::retried([&]() { return ::recv(m_descriptor, buffer, sizeof(buffer), 0); });
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

// A peer that only ends its own sending still takes the reply to a complete request.
void NwaFcgiConnection::handleEndOfInput()
{
    m_inputEnded = true;
    const bool repliesAreDue = (m_exchange.isDispatched && m_exchange.hasBodyEnded) || !m_output.isEmpty();
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
        appendValues(answer, QByteArray::fromRawData(content, header.contentSize));
    else
        appendUnknownType(answer, header.type);
    send(answer);
}

void NwaFcgiConnection::appendValues(QByteArray& answer, const QByteArray& questions) const
{
    const QByteArray count = QByteArray::number(m_server->m_limits.connectionCount);
    QByteArray values;
    PairReader question(questions);
    while (question.next()) {
        if (question.name() == "FCGI_MAX_CONNS" || question.name() == "FCGI_MAX_REQS")
            appendPair(values, question.name(), count);
        else if (question.name() == "FCGI_MPXS_CONNS")
            appendPair(values, question.name(), "0");
    }
    if (values.isEmpty())
        appendStreamEnd(answer, GetValuesResult, 0);
    // A name that is asked for many times would overflow the record.
    else if (values.size() <= MaximumContentSize)
        appendStream(answer, GetValuesResult, 0, values.constData(), values.size());
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
    giveRequestUp();
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
    if (m_exchange.variables.size() > m_server->m_limits.variablesSize)
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
    PairReader reader(m_exchange.variables);
    while (reader.next())
        queryIsTooLong = queryIsTooLong || isTooLongQuery(reader.name(), reader.valueSize());
    // What broke the limit may be the query itself, of which only the beginning has arrived.
    queryIsTooLong = queryIsTooLong || isTooLongQuery(reader.name(), m_exchange.variables.size());
    answerWithError(queryIsTooLong ? NwaFcgiRequest::UriTooLong : NwaFcgiRequest::RequestHeaderFieldsTooLarge);
}

void NwaFcgiConnection::makeRequest()
{
    NwaFcgiRequest::Variables variables;
    const bool complete = readVariables(m_exchange.variables, variables);
    m_exchange.variables.clear();
    m_idleSeconds = 0;
    const bool queryIsTooLong = variables.value("QUERY_STRING").size() > m_server->m_limits.querySize;
    m_exchange.request = new NwaFcgiRequest(this, variables);
    if (!complete || m_exchange.request->contentLength() < 0)
        answerWithError(NwaFcgiRequest::BadRequest);
    else if (queryIsTooLong)
        answerWithError(NwaFcgiRequest::UriTooLong);
    else if (isBodyTooLarge(m_exchange.request->contentLength()))
        answerWithError(NwaFcgiRequest::ContentTooLarge);
    else
        dispatchWhenReady();
}

bool NwaFcgiConnection::isBodyTooLarge(qint64 size) const
{
    return size > m_server->m_limits.bodySize && !m_exchange.isStreamed();
}

void NwaFcgiConnection::processStdin(const char* content, int size)
{
    if (m_exchange.hasBodyEnded)
        return;
    if (size == 0) {
        endBody();
        return;
    }
    m_exchange.appendToBody(content, size);
    m_idleSeconds = 0;
    if (isBodyTooLarge(m_exchange.receivedBodySize)) {
        // Before its variables are complete the request does not exist yet; nobody sends so much of a body then.
        if (m_exchange.request)
            answerWithError(NwaFcgiRequest::ContentTooLarge);
        else
            close();
        return;
    }
    if (m_exchange.isDispatched)
        tellBodyAvailable(m_exchange.request);
}

void NwaFcgiConnection::endBody()
{
    m_exchange.hasBodyEnded = true;
    if (m_exchange.isDispatched)
        tellBodyAvailable(m_exchange.request);
    else
        dispatchWhenReady();
}

void NwaFcgiConnection::dispatchWhenReady()
{
    if (!m_exchange.request || m_exchange.isDispatched || !(m_exchange.hasBodyEnded || m_exchange.isStreamed()))
        return;
    if (m_exchange.isBodyBroken()) {
        answerWithError(NwaFcgiRequest::BadRequest);
        return;
    }
    // What it holds itself makes room as soon as it is served.
    if (m_server->bufferedSize() - bufferedSize() > m_server->m_limits.bufferedSize) {
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
        return;
    }
    m_exchange.isDispatched = true;
    m_server->dispatch(m_exchange.request);
}

// A request that no service has yet is refused when more has come than there is room for.
void NwaFcgiConnection::refuseWhenTooMuchIsHeld()
{
    if (m_descriptor < 0 || !m_exchange.isActive() || m_exchange.isDispatched)
        return;
    if (m_server->bufferedSize() > m_server->m_limits.bufferedSize)
        answerWithError(NwaFcgiRequest::ServiceUnavailable);
}

void NwaFcgiConnection::answerWithError(NwaFcgiRequest::StandardHttpError error)
{
    // The variables may be incomplete; the method among them decides what the answer looks like.
    if (!m_exchange.request) {
        NwaFcgiRequest::Variables variables;
        readVariables(m_exchange.variables, variables);
        m_exchange.request = new NwaFcgiRequest(this, variables);
    }
    // Ours to delete even when the connection breaks while the answer is sent.
    m_exchange.isDispatched = true;
    NwaFcgiRequest* const request = m_exchange.request;
    request->sendHttpError(error);
    delete request;
}

bool NwaFcgiConnection::write(Stream stream, const char* data, int size)
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    const RecordType type = stream == Output ? Stdout : Stderr;
    const bool hadBacklog = !m_output.isEmpty();
    m_exchange.hasRemarks = m_exchange.hasRemarks || (stream == Error && size > 0);
    while (size > 0 && m_descriptor >= 0) {
        const int contentSize = qMin(size, int(MaximumContentSize));
        processOutput(m_output.appendRecord(type, m_exchange.id, data, contentSize));
        data += contentSize;
        size -= contentSize;
    }
    if (m_descriptor < 0)
        return false;
    if (m_output.isEmpty() && hadBacklog)
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

void NwaFcgiConnection::send(const QByteArray& records)
{
    processOutput(m_output.append(records));
}

void NwaFcgiConnection::sendEndRequest(int requestId, ProtocolStatus status)
{
    QByteArray record;
    appendEndRequest(record, requestId, status);
    send(record);
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

void NwaFcgiConnection::finish()
{
    const std::shared_ptr<NwaFcgiConnection> self(shared_from_this());
    m_exchange.request = nullptr;
    if (m_descriptor < 0)
        return;
    QByteArray end;
    appendStreamEnd(end, Stdout, m_exchange.id);
    if (m_exchange.hasRemarks)
        appendStreamEnd(end, Stderr, m_exchange.id);
    appendEndRequest(end, m_exchange.id, RequestComplete);
    send(end);
    endRequest();
}

// Forgets the request and sends what is left of its reply.
void NwaFcgiConnection::endRequest()
{
    // After the last request nothing is awaited but the rest of its body.
    if (!m_exchange.keepConnection && m_exchange.hasBodyEnded)
        m_inputEnded = true;
    m_closeWhenSent = !m_exchange.keepConnection || m_inputEnded;
    m_exchange = NwaFcgiExchange();
    m_idleSeconds = 0;
    flush();
    if (m_descriptor >= 0 && !m_parsing && !m_inputEnded)
        resumeSoon();
}

bool NwaFcgiConnection::isBodyBufferFull() const
{
    return m_exchange.isDispatched && m_exchange.unreadBodySize() >= m_server->m_limits.streamedBodyBuffer &&
           !m_exchange.hasBodyEnded;
}

int NwaFcgiConnection::bufferedSize() const
{
    return m_input.size() + m_exchange.variables.size() + m_exchange.body.size() + m_output.size();
}

void NwaFcgiConnection::flush()
{
    if (m_descriptor < 0)
        return;
    const bool hadBacklog = !m_output.isEmpty();
    processOutput(m_output.flush());
    if (m_descriptor < 0 || !m_output.isEmpty())
        return;
    if (hadBacklog && m_exchange.isDispatched && m_exchange.request)
        tellReplyTaken(m_exchange.request);
    if (m_closeWhenSent)
        closeWhenDone();
}

// To be called after every operation of the output, with the bytes that it has sent.
void NwaFcgiConnection::processOutput(int sent)
{
    const int limit = m_server->m_limits.replyBuffer;
    if (m_output.size() > limit)
        sent += m_output.flush();
    if (sent > 0)
        m_idleSeconds = 0;
    if (m_output.isBroken() || m_output.size() > limit) {
        close();
        return;
    }
    watch(NwaFcgiPoller::Writable, m_output.isBlocked());
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
    NwaFcgiRequest* const request = m_exchange.request;
    m_exchange.request = nullptr;
    if (!request)
        return;
    tellAborted(request);
    if (!m_exchange.isDispatched)
        delete request;
}
