#ifndef NWEBAPI_NWAREPLYSOURCE_H
#define NWEBAPI_NWAREPLYSOURCE_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>

/** Produces the body of a reply piece by piece, as fast as the client takes it; see NwaStreamedReply. */
class NWEBAPI_EXPORT NwaReplySource : public QObject
{
    Q_OBJECT

public:
    /** What comes after a piece. */
    enum State {
        MoreFollows, ///< the next piece, as soon as the client has taken what was sent
        NothingNow,  ///< nothing until the source emits available()
        AtEnd        ///< the end of the reply
    };

    NwaReplySource();
    ~NwaReplySource() override;

    /**
     * Appends the next piece of the body to @a body, or nothing. It is called only when the client has taken
     * everything before, from the event loop, and without available() as well.
     *
     * A piece is held in memory until the client takes it, and other requests wait while it is made, so it should
     * have some 10 kB at most. Small pieces cost nothing: they are collected before they are sent.
     */
    virtual State appendPiece(QByteArray& body) = 0;

signals:
    /** There is a next piece, or the reply ends, after NothingNow. May be emitted at any time. */
    void available();

private:
    Q_DISABLE_COPY(NwaReplySource)
};

#endif
