#include <nwebapi/nwaeventstreams.h>

#include <nwebapi/nwaeventstreamsource_p.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwastreamedreply.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

namespace {

const int MillisecondsPerSecond = 1000;

} // namespace

NwaEventStreams::NwaEventStreams(NwaWebSessionManager* sessionManager, QObject* parent)
    : QObject(parent)
    , m_keptSize(DefaultKeptSize)
    , m_keptTime(DefaultKeptTime)
    , m_latestNumber(0)
{
    connect(sessionManager, SIGNAL(aboutToRemove(QUuid)), SLOT(endSession(QUuid)));
    connect(&m_heartbeat, SIGNAL(timeout()), SLOT(sendHeartbeats()));
    setHeartbeatInterval(DefaultHeartbeatInterval);
}

NwaEventStreams::~NwaEventStreams() {}

void NwaEventStreams::setHeartbeatInterval(int seconds)
{
    m_heartbeat.setInterval(qMax(seconds, 1) * MillisecondsPerSecond);
}

void NwaEventStreams::setKeptSize(int size)
{
    m_keptSize = size;
}

void NwaEventStreams::setKeptTime(int seconds)
{
    m_keptTime = qMax(seconds, 0);
}

void NwaEventStreams::open(NwaFcgiRequest* request, const NwaWebSession* session)
{
    Stream& stream = m_streams[session->id()];
    if (!stream.history)
        stream.history = QSharedPointer<NwaEventHistory>(new NwaEventHistory(m_latestNumber));
    if (stream.source)
        stream.source->finish(NwaEventHistory::eventText(0, "replaced", "null"));
    bool isNumber = false;
    const quint64 number = request->variable("HTTP_LAST_EVENT_ID").toULongLong(&isNumber);
    NwaEventStreamSource* const source =
        new NwaEventStreamSource(stream.history, isNumber ? number : stream.history->latestNumber());
    stream.source = source;
    stream.heartbeatsWithout = 0;
    if (!m_heartbeat.isActive())
        m_heartbeat.start();

    NwaHttpContentHeader header(QString::fromLatin1("text/event-stream"), QString::fromLatin1("utf-8"));
    header.addField("Cache-Control", "no-store");
    NwaStreamedReply::start(request, header, source, this);
}

void NwaEventStreams::send(const QUuid& sessionId, const QByteArray& type, const QVariant& document)
{
    const Streams::iterator stream = m_streams.find(sessionId);
    if (stream != m_streams.end())
        append(*stream, type, NwaJson::serialize(document));
}

void NwaEventStreams::sendToAll(const QByteArray& type, const QVariant& document)
{
    const QByteArray text = m_streams.isEmpty() ? QByteArray() : NwaJson::serialize(document);
    for (Streams::iterator stream = m_streams.begin(); stream != m_streams.end(); ++stream)
        append(*stream, type, text);
}

void NwaEventStreams::append(Stream& stream, const QByteArray& type, const QByteArray& document)
{
    stream.history->append(++m_latestNumber, type, document, m_keptSize);
    if (stream.source)
        stream.source->announce();
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
    const int keptHeartbeats = m_keptTime * MillisecondsPerSecond / m_heartbeat.interval();
    Streams::iterator stream = m_streams.begin();
    while (stream != m_streams.end()) {
        if (stream->source) {
            stream->source->beat();
            ++stream;
        } else if (stream->heartbeatsWithout++ < keptHeartbeats) {
            ++stream;
        } else {
            stream = m_streams.erase(stream);
        }
    }
    if (m_streams.isEmpty())
        m_heartbeat.stop();
}

void NwaEventStreams::endSession(const QUuid& sessionId)
{
    const Stream stream = m_streams.take(sessionId);
    if (stream.source)
        stream.source->finish(QByteArray());
}
