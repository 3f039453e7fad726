#ifndef NWEBAPI_NWASTREAMEDREPLY_H
#define NWEBAPI_NWASTREAMEDREPLY_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>

class NwaAbstractHttpHeader;
class NwaFcgiRequest;
class NwaReplySource;

/**
 * A reply that is produced while the client takes it, by a NwaReplySource. It suits replies that are larger than
 * the memory and replies whose parts become available later, such as event streams that stay open for hours.
 *
 * The source is asked for more only when the client has taken everything before, so that a slow client holds a few
 * pieces at most, all of them within NwaFcgiLimits::bufferedSize. Of a reply to a fast client a limited amount is
 * produced at a time, so that other requests are served in between. A client that does not take anything for
 * NwaFcgiLimits::stallTimeout is disconnected; one that waits for the source is not.
 *
 * The reply owns its request and its source. It deletes them and itself from the event loop when the source is at
 * its end or the client has gone.
 */
class NWEBAPI_EXPORT NwaStreamedReply : public QObject
{
    Q_OBJECT

public:
    /**
     * Sends @a header and the first pieces of @a source as the reply to @a request. To HEAD only the header is
     * sent, and the source is not asked.
     * @param request becomes the reply's.
     * @param source becomes the reply's.
     * @param parent ends the reply with it.
     * @return the reply, which may have ended already: keep it in a QPointer, if at all.
     */
    static NwaStreamedReply*
    start(NwaFcgiRequest* request, const NwaAbstractHttpHeader& header, NwaReplySource* source, QObject* parent);

    /** Ends the reply where it is, if it has not ended yet. */
    ~NwaStreamedReply() override;

private slots:
    void takeTurn();
    void scheduleTurn();
    void takeScheduledTurn();
    void end();

private:
    Q_DISABLE_COPY(NwaStreamedReply)

    NwaStreamedReply(NwaFcgiRequest* request, NwaReplySource* source, QObject* parent);

    QScopedPointer<NwaFcgiRequest> m_request;
    QScopedPointer<NwaReplySource> m_source;
    bool m_isTurnScheduled;
};

#endif
