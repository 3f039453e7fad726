#ifndef NWEBAPI_NWAEVENTHISTORY_P_H
#define NWEBAPI_NWAEVENTHISTORY_P_H

#include <QtCore/QByteArray>
#include <QtCore/QtGlobal>

#include <deque>

/** The latest events of a session, as they are sent (WHATWG HTML, "Server-sent events"). */
class NwaEventHistory
{
public:
    /** What an event takes in memory besides its text, about: the heap's, the text's and the queue's share. */
    static const int EventOverhead = 64;

    /** An empty history. @param latestNumber the number of the latest event that is not part of it. */
    explicit NwaEventHistory(quint64 latestNumber);

    /**
     * Adds an event, and removes the oldest ones while all together take more than @a keptSize bytes of memory.
     * The latest event stays in any case.
     * @param number is higher than those before.
     * @param text see eventText().
     */
    void append(quint64 number, const QByteArray& text, int keptSize);

    /** Whether all events after @a number are kept. */
    bool isComplete(quint64 number) const { return number >= m_lostNumber; }

    /** Appends the text of some events after @a number to @a text. @return the number of the last one. */
    quint64 appendAfter(quint64 number, QByteArray& text) const;

    /** The number of the latest event, whether it is kept or not. */
    quint64 latestNumber() const { return m_latestNumber; }

    /** The bytes of memory that the events take, about. */
    int size() const { return m_size; }

    /**
     * The text of an event.
     * @param type without line ends.
     * @param document likewise.
     */
    static QByteArray eventText(quint64 number, const QByteArray& type, const QByteArray& document);

    /** The text of an event without a number: the client keeps the number of the one before. */
    static QByteArray eventText(const QByteArray& type, const QByteArray& document);

private:
    Q_DISABLE_COPY(NwaEventHistory)

    struct Event
    {
        quint64 number;
        QByteArray text;
    };

    std::deque<Event> m_events;
    int m_size;
    quint64 m_lostNumber; ///< the latest event that is not kept
    quint64 m_latestNumber;
};

#endif
