#ifndef NWEBAPI_NWAEVENTSTREAMSOURCE_P_H
#define NWEBAPI_NWAEVENTSTREAMSOURCE_P_H

#include <nwebapi/nwaeventhistory_p.h>
#include <nwebapi/nwareplysource.h>

#include <QtCore/QByteArray>
#include <QtCore/QSharedPointer>
#include <QtCore/QtGlobal>

/** The stream of a session: its events after a given one, and heartbeats in between. */
class NwaEventStreamSource : public NwaReplySource
{
    Q_OBJECT

public:
    /**
     * @param lastEventId the number of the event after which the stream begins; empty for one that begins with the
     * next event.
     */
    NwaEventStreamSource(const QSharedPointer<const NwaEventHistory>& history, const QByteArray& lastEventId);

    State appendPiece(QByteArray& body) override;

    /** The history has further events. */
    void sendEvents();

    /** Sends a comment, unless the client has yet to take earlier ones. */
    void sendHeartbeat();

    /** Ends the stream after the events so far. @param lastText is sent before the end. */
    void finish(const QByteArray& lastText);

private:
    Q_DISABLE_COPY(NwaEventStreamSource)

    bool resumeAfter(const QByteArray& lastEventId);

    const QSharedPointer<const NwaEventHistory> m_history;
    quint64 m_number;     ///< of the last event that was sent
    QByteArray m_pending; ///< goes before the next event
    QByteArray m_lastText;
    bool m_isFinished;
};

#endif
