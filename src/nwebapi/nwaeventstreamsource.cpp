#include <nwebapi/nwaeventstreamsource_p.h>

namespace {

const int PieceSize = 16 * 1024;

// After how many milliseconds a client connects again when its connection breaks.
const char* const Greeting = "retry: 2000\n\n";

const char* const Heartbeat = ":\n\n";

} // namespace

NwaEventHistory::NwaEventHistory(quint64 latestNumber)
    : m_size(0)
    , m_lostNumber(latestNumber)
    , m_latestNumber(latestNumber)
{
}

QByteArray NwaEventHistory::eventText(quint64 number, const QByteArray& type, const QByteArray& document)
{
    QByteArray text;
    if (number != 0)
        text += "id: " + QByteArray::number(number) + '\n';
    text += "event: " + type + "\ndata: ";
    // A line end in the data begins a further line of the same event.
    text += QByteArray(document).replace('\n', "\ndata: ");
    return text + "\n\n";
}

void NwaEventHistory::append(quint64 number, const QByteArray& type, const QByteArray& document, int keptSize)
{
    const Event event = {number, eventText(number, type, document)};
    m_events.push_back(event);
    m_size += event.text.size();
    m_latestNumber = number;
    while (m_size > keptSize && m_events.size() > 1) {
        m_lostNumber = m_events.front().number;
        m_size -= m_events.front().text.size();
        m_events.pop_front();
    }
}

quint64 NwaEventHistory::appendAfter(quint64 number, QByteArray& text) const
{
    std::deque<Event>::const_iterator event = m_events.end();
    while (event != m_events.begin() && (event - 1)->number > number)
        --event;
    const int begin = text.size();
    for (; event != m_events.end() && text.size() - begin < PieceSize; ++event) {
        text += event->text;
        number = event->number;
    }
    return number;
}

NwaEventStreamSource::NwaEventStreamSource(const QSharedPointer<const NwaEventHistory>& history, quint64 number)
    : m_history(history)
    , m_number(number)
    , m_pending(Greeting)
    , m_isFinished(false)
{
    if (number > history->latestNumber() || !history->isComplete(number)) {
        m_number = history->latestNumber();
        m_pending += NwaEventHistory::eventText(m_number, "missed", "null");
    }
}

NwaReplySource::State NwaEventStreamSource::appendPiece(QByteArray& body)
{
    body += m_pending;
    m_pending.clear();
    // The client is too slow. When it connects again, it is told that it has missed something.
    if (m_isFinished || !m_history->isComplete(m_number))
        return AtEnd;
    m_number = m_history->appendAfter(m_number, body);
    return m_number == m_history->latestNumber() ? NothingNow : MoreFollows;
}

void NwaEventStreamSource::announce()
{
    emit available();
}

void NwaEventStreamSource::beat()
{
    if (!m_pending.isEmpty())
        return;
    m_pending = Heartbeat;
    emit available();
}

void NwaEventStreamSource::finish(const QByteArray& farewell)
{
    m_pending += farewell;
    m_isFinished = true;
    emit available();
}
