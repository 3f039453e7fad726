#include <nwebapi/nwastreamedreply.h>

#include <nwebapi/nwaabstracthttpheader.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwareplysource.h>

#include <ostream>

namespace {

// Pieces are collected up to this size: the connection passes so much to the kernel without copying it.
const int WriteSize = 32 * 1024;

// What is written before other requests have their turn.
const int TurnSize = 256 * 1024;

NwaReplySource::State collectPieces(NwaReplySource& source, QByteArray& pieces)
{
    NwaReplySource::State state = NwaReplySource::MoreFollows;
    while (state == NwaReplySource::MoreFollows && pieces.size() < WriteSize)
        state = source.appendPiece(pieces);
    return state;
}

} // namespace

NwaStreamedReply* NwaStreamedReply::start(
    NwaFcgiRequest* request, const NwaAbstractHttpHeader& header, NwaReplySource* source, QObject* parent)
{
    NwaStreamedReply* const reply = new NwaStreamedReply(request, source, parent);
    request->outputStream() << header;
    if (request->method() == QLatin1String("HEAD"))
        reply->end();
    else
        reply->takeTurn();
    return reply;
}

NwaStreamedReply::NwaStreamedReply(NwaFcgiRequest* request, NwaReplySource* source, QObject* parent)
    : QObject(parent)
    , m_request(request)
    , m_source(source)
    , m_isTurnScheduled(false)
{
    connect(request, SIGNAL(replyTaken()), SLOT(takeTurn()));
    connect(request, SIGNAL(aborted()), SLOT(end()));
    connect(source, SIGNAL(available()), SLOT(scheduleTurn()));
}

NwaStreamedReply::~NwaStreamedReply() {}

// Every state is left through one of three signals, and each of them leads here: what the client had yet to take
// was taken, the source has something again, or the next turn has come.
void NwaStreamedReply::takeTurn()
{
    // What the client takes before the next turn must not give the reply an extra one.
    if (m_isTurnScheduled)
        return;
    QByteArray pieces;
    for (int written = 0; written < TurnSize; written += pieces.size()) {
        if (m_request.isNull() || m_request->isAborted())
            return end();
        if (m_request->replyBacklog() > 0)
            return;
        pieces.resize(0);
        const NwaReplySource::State state = collectPieces(*m_source, pieces);
        m_request->outputStream().write(pieces.constData(), pieces.size());
        if (state == NwaReplySource::AtEnd)
            return end();
        m_request->outputStream().flush();
        if (state == NwaReplySource::NothingNow)
            return;
    }
    scheduleTurn();
}

// Never at once: the source, which may be in one of its operations, can end with the turn.
void NwaStreamedReply::scheduleTurn()
{
    if (m_isTurnScheduled)
        return;
    m_isTurnScheduled = true;
    QMetaObject::invokeMethod(this, "takeScheduledTurn", Qt::QueuedConnection);
}

void NwaStreamedReply::takeScheduledTurn()
{
    m_isTurnScheduled = false;
    takeTurn();
}

// The reply itself ends later: it may be in a slot of its own.
void NwaStreamedReply::end()
{
    m_request.reset();
    deleteLater();
}
