#include <nwebapi/nwaeventstreams.h>

#include <nwebapi/nwaeventhistory_p.h>
#include <nwebapi/nwaeventstreamsource_p.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwastreamedreply.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <limits>
#include <ostream>

namespace {

const int MillisecondsPerSecond = 1000;

NwaHttpContentHeader eventStreamHeader()
{
    NwaHttpContentHeader header(QString::fromLatin1("text/event-stream"), QString::fromLatin1("utf-8"));
    header.addField("Cache-Control", "no-store");
    return header;
}

// A line end would begin another field of the event.
QByteArray withoutLineEnds(QByteArray text)
{
    return text.replace('\r', ' ').replace('\n', ' ');
}

} // namespace

const int NwaEventStreams::DefaultHeartbeatInterval;
const int NwaEventStreams::DefaultKeptSize;
const int NwaEventStreams::DefaultKeptTime;
const int NwaEventStreams::DefaultMaximumStreamCount;

NwaEventStreams::Stream::Stream()
    : heartbeatsWithout(0)
{
}

NwaEventStreams::NwaEventStreams(NwaWebSessionManager* sessionManager, QObject* parent)
    : QObject(parent)
    , m_sessionManager(sessionManager)
    , m_heartbeat(this)
    , m_keptSize(DefaultKeptSize)
    , m_keptTime(DefaultKeptTime)
    , m_maximumStreamCount(DefaultMaximumStreamCount)
    , m_latestNumber(0)
{
    connect(sessionManager, SIGNAL(aboutToRemove(QUuid)), SLOT(endSession(QUuid)));
    connect(&m_heartbeat, SIGNAL(timeout()), SLOT(sendHeartbeats()));
    setHeartbeatInterval(DefaultHeartbeatInterval);
}

// The replies are children and end with this object.
NwaEventStreams::~NwaEventStreams() {}

void NwaEventStreams::setHeartbeatInterval(int seconds)
{
    const int maximum = std::numeric_limits<int>::max() / MillisecondsPerSecond;
    m_heartbeat.setInterval(qBound(1, seconds, maximum) * MillisecondsPerSecond);
}

void NwaEventStreams::setKeptSize(int size)
{
    m_keptSize = size;
}

void NwaEventStreams::setKeptTime(int seconds)
{
    m_keptTime = qMax(seconds, 0);
}

void NwaEventStreams::setMaximumStreamCount(int count)
{
    m_maximumStreamCount = qMax(count, 1);
}

void NwaEventStreams::open(NwaFcgiRequest* request, const NwaWebSession* session)
{
    // Neither gets any events, so the stream that the session has stays open.
    if (request->isAborted() || request->method() == QLatin1String("HEAD")) {
        request->outputStream() << eventStreamHeader();
        delete request;
        return;
    }
    if (!m_streams.contains(session->id()) && !makeRoom()) {
        request->sendHttpError(NwaFcgiRequest::ServiceUnavailable);
        delete request;
        return;
    }
    Stream& stream = m_streams[session->id()];
    replaceStream(stream, request->variable("HTTP_LAST_EVENT_ID"));
    if (!m_heartbeat.isActive())
        m_heartbeat.start();
    NwaStreamedReply::start(request, eventStreamHeader(), stream.source, this);
}

// Makes room for a further session. Returns whether there is any.
bool NwaEventStreams::makeRoom()
{
    while (m_streams.size() >= m_maximumStreamCount) {
        Streams::iterator oldest = m_streams.end();
        for (Streams::iterator stream = m_streams.begin(); stream != m_streams.end(); ++stream) {
            if (!stream->source &&
                (oldest == m_streams.end() || stream->heartbeatsWithout > oldest->heartbeatsWithout))
                oldest = stream;
        }
        if (oldest == m_streams.end())
            return false;
        m_streams.erase(oldest);
    }
    return true;
}

void NwaEventStreams::replaceStream(Stream& stream, const QByteArray& lastEventId)
{
    if (!stream.history)
        stream.history = QSharedPointer<NwaEventHistory>(new NwaEventHistory(m_latestNumber));
    if (stream.source)
        stream.source->finish(NwaEventHistory::eventText("replaced", "null"));
    stream.source = new NwaEventStreamSource(stream.history, lastEventId);
    stream.heartbeatsWithout = 0;
}

void NwaEventStreams::send(const QUuid& sessionId, const QByteArray& type, const QVariant& document)
{
    const Streams::iterator stream = m_streams.find(sessionId);
    if (stream == m_streams.end())
        ++m_latestNumber; // a stream that begins after an earlier event has missed one
    else
        append(*stream, nextEvent(type, document));
}

void NwaEventStreams::sendToAll(const QByteArray& type, const QVariant& document)
{
    const QByteArray event = nextEvent(type, document);
    for (Streams::iterator stream = m_streams.begin(); stream != m_streams.end(); ++stream)
        append(*stream, event);
}

QByteArray NwaEventStreams::nextEvent(const QByteArray& type, const QVariant& document)
{
    // A JSON document has no line ends: those in its strings are escaped.
    return NwaEventHistory::eventText(++m_latestNumber, withoutLineEnds(type), NwaJson::serialize(document));
}

void NwaEventStreams::append(Stream& stream, const QByteArray& event)
{
    stream.history->append(m_latestNumber, event, m_keptSize);
    if (stream.source)
        stream.source->sendEvents();
}

int NwaEventStreams::streamCount() const
{
    int count = 0;
    for (Streams::const_iterator stream = m_streams.constBegin(); stream != m_streams.constEnd(); ++stream)
        count += stream->source ? 1 : 0;
    return count;
}

void NwaEventStreams::sendHeartbeats()
{
    Streams::iterator stream = m_streams.begin();
    while (stream != m_streams.end()) {
        if (isWanted(*stream, stream.key())) {
            if (stream->source)
                stream->source->sendHeartbeat();
            ++stream;
        } else {
            if (stream->source)
                stream->source->finish(QByteArray());
            stream = m_streams.erase(stream);
        }
    }
    if (m_streams.isEmpty())
        m_heartbeat.stop();
}

// Counts the heartbeats without a stream. Returns whether the stream or its events are needed until the next one.
bool NwaEventStreams::isWanted(Stream& stream, const QUuid& sessionId) const
{
    // The stream may have been opened while the end of the session was being announced.
    if (!m_sessionManager || !m_sessionManager->session(sessionId))
        return false;
    if (stream.source)
        return true;
    const qint64 kept = qint64(m_keptTime) * MillisecondsPerSecond;
    return qint64(stream.heartbeatsWithout++) * m_heartbeat.interval() < kept;
}

void NwaEventStreams::endSession(const QUuid& sessionId)
{
    const Stream stream = m_streams.take(sessionId);
    if (stream.source)
        stream.source->finish(QByteArray());
}
