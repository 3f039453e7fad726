#include <nwebapi/nwaeventstreamsource_p.h>

namespace {

// After how many milliseconds the client connects again when its connection breaks.
const char* const Greeting = "retry: 2000\n\n";

const char* const Heartbeat = ":\n\n";

// Only digits count: QByteArray also converts texts such as " +1", which this library sends to no client.
bool readEventNumber(const QByteArray& text, quint64& number)
{
    for (int index = 0; index < text.size(); ++index) {
        if (text.at(index) < '0' || text.at(index) > '9')
            return false;
    }
    bool isNumber = false;
    number = text.toULongLong(&isNumber);
    return isNumber;
}

} // namespace

// Unless the client knows a number already, it gets one at once, so that it can name it even if the connection
// breaks before the first event.
NwaEventStreamSource::NwaEventStreamSource(
    const QSharedPointer<const NwaEventHistory>& history, const QByteArray& lastEventId)
    : m_history(history)
    , m_number(history->latestNumber())
    , m_pending(Greeting)
    , m_isFinished(false)
{
    if (lastEventId.isEmpty())
        m_pending += NwaEventHistory::eventText(m_number, "begin", "null");
    else if (!resumeAfter(lastEventId))
        m_pending += NwaEventHistory::eventText(m_number, "missed", "null");
}

// Returns whether all events after that one are kept. A number that has not been used yet is from before a restart
// of the program.
bool NwaEventStreamSource::resumeAfter(const QByteArray& lastEventId)
{
    quint64 number = 0;
    if (!readEventNumber(lastEventId, number) || number > m_history->latestNumber() ||
        !m_history->isComplete(number))
        return false;
    m_number = number;
    return true;
}

NwaReplySource::State NwaEventStreamSource::appendPiece(QByteArray& body)
{
    body += m_pending;
    m_pending.clear();
    const bool isTooSlow = !m_history->isComplete(m_number);
    if (!isTooSlow)
        m_number = m_history->appendAfter(m_number, body);
    if (!isTooSlow && m_number != m_history->latestNumber()) {
        // Further events of a slow client wait in the history, which would be collected up to a larger size.
        emit available();
        return NothingNow;
    }
    body += m_lastText;
    return isTooSlow || m_isFinished ? AtEnd : NothingNow;
}

void NwaEventStreamSource::sendEvents()
{
    emit available();
}

void NwaEventStreamSource::sendHeartbeat()
{
    if (!m_pending.isEmpty())
        return;
    m_pending = Heartbeat;
    emit available();
}

void NwaEventStreamSource::finish(const QByteArray& lastText)
{
    m_lastText = lastText;
    m_isFinished = true;
    emit available();
}
