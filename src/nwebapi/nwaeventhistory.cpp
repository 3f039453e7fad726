#include <nwebapi/nwaeventhistory_p.h>

namespace {

// The size from which on appendAfter() leaves the rest for the next time. What waits for a client that does not
// read takes the next power of two.
const int EventsSize = 2 * 1024;

// With exactly the memory that the text needs, because it may be kept for long.
QByteArray eventBlock(const QByteArray& idLine, const QByteArray& type, const QByteArray& document)
{
    const char* const event = "event: ";
    const char* const data = "\ndata: ";
    const char* const end = "\n\n";
    QByteArray text;
    text.reserve(
        idLine.size() + int(qstrlen(event) + qstrlen(data) + qstrlen(end)) + type.size() + document.size());
    return text.append(idLine).append(event).append(type).append(data).append(document).append(end);
}

} // namespace

const int NwaEventHistory::EventOverhead;

NwaEventHistory::NwaEventHistory(quint64 latestNumber)
    : m_size(0)
    , m_lostNumber(latestNumber)
    , m_latestNumber(latestNumber)
{
}

QByteArray NwaEventHistory::eventText(quint64 number, const QByteArray& type, const QByteArray& document)
{
    return eventBlock("id: " + QByteArray::number(number) + '\n', type, document);
}

QByteArray NwaEventHistory::eventText(const QByteArray& type, const QByteArray& document)
{
    return eventBlock(QByteArray(), type, document);
}

void NwaEventHistory::append(quint64 number, const QByteArray& text, int keptSize)
{
    const Event event = {number, text};
    m_events.push_back(event);
    m_size += text.capacity() + EventOverhead;
    m_latestNumber = number;
    while (m_size > keptSize && m_events.size() > 1) {
        m_lostNumber = m_events.front().number;
        m_size -= m_events.front().text.capacity() + EventOverhead;
        m_events.pop_front();
    }
}

quint64 NwaEventHistory::appendAfter(quint64 number, QByteArray& text) const
{
    std::deque<Event>::const_iterator event = m_events.end();
    while (event != m_events.begin() && (event - 1)->number > number)
        --event;
    const int begin = text.size();
    for (; event != m_events.end() && text.size() - begin < EventsSize; ++event) {
        text += event->text;
        number = event->number;
    }
    return number;
}
