#ifndef NWEBAPI_NWAEVENTSTREAMSOURCE_P_H
#define NWEBAPI_NWAEVENTSTREAMSOURCE_P_H

#include <nwebapi/nwareplysource.h>

#include <QtCore/QByteArray>
#include <QtCore/QSharedPointer>
#include <QtCore/QtGlobal>

#include <deque>

/** The latest events of a session, as they are sent. */
class NwaEventHistory
{
public:
    /** @param latestNumber the number of the latest event of all sessions; those up to it are not kept. */
    explicit NwaEventHistory(quint64 latestNumber);

    /** Adds an event, and removes the oldest ones while all together have more than @a keptSize bytes. */
    void append(quint64 number, const QByteArray& type, const QByteArray& document, int keptSize);

    /** Whether all events after @a number are kept. */
    bool isComplete(quint64 number) const { return number >= m_lostNumber; }

    /** Appends the text of some events after @a number to @a text. @return the number of the last one. */
    quint64 appendAfter(quint64 number, QByteArray& text) const;

    quint64 latestNumber() const { return m_latestNumber; }

    /** The text of an event. Without a number the client does not count it. */
    static QByteArray eventText(quint64 number, const QByteArray& type, const QByteArray& document);

private:
    Q_DISABLE_COPY(NwaEventHistory)

    struct Event
    {
        quint64 number;
        QByteArray text;
    };

    std::deque<Event> m_events;
    int m_size;             ///< of the events' texts
    quint64 m_lostNumber;   ///< the latest event that is not kept
    quint64 m_latestNumber; ///< the latest event, kept or not
};

/** The stream of a session: its events from a number on, heartbeats and a farewell. */
class NwaEventStreamSource : public NwaReplySource
{
    Q_OBJECT

public:
    /** @param number of the event after which the stream begins. */
    NwaEventStreamSource(const QSharedPointer<const NwaEventHistory>& history, quint64 number);

    State appendPiece(QByteArray& body) override;

    /** There are new events. */
    void announce();

    /** Sends a comment, unless one is still to be sent. */
    void beat();

    /** Sends @a farewell and ends the stream. */
    void finish(const QByteArray& farewell);

private:
    Q_DISABLE_COPY(NwaEventStreamSource)

    const QSharedPointer<const NwaEventHistory> m_history;
    quint64 m_number; ///< of the last event that was sent
    QByteArray m_pending;
    bool m_isFinished;
};

#endif
