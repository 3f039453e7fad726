#include "standardinput.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace {

const int PieceSize = 4096;

} // namespace

StandardInput::StandardInput(DataFormat format)
    : m_format(format)
    , m_notifier(STDIN_FILENO, QSocketNotifier::Read)
{
    m_notifier.setEnabled(false);
    connect(&m_notifier, SIGNAL(activated(int)), SLOT(readPiece()));
}

void StandardInput::readMore()
{
    m_notifier.setEnabled(true);
}

void StandardInput::stop()
{
    m_notifier.setEnabled(false);
}

void StandardInput::readPiece()
{
    char piece[PieceSize];
    const ssize_t size = ::read(STDIN_FILENO, piece, sizeof(piece));
    if (size < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    m_notifier.setEnabled(false);
    if (size < 0)
        emit failed(QByteArray("standard input: ").append(strerror(errno)));
    else if (size == 0 && m_beginOfLine.isEmpty())
        emit ended();
    else if (m_format == BinaryFormat)
        emit read(QByteArray(piece, int(size)));
    else
        emitLines(QByteArray(piece, int(size)));
}

void StandardInput::emitLines(const QByteArray& piece)
{
    // The end of the input ends its last line too.
    m_beginOfLine += piece.isEmpty() ? QByteArray("\n") : piece;
    const int size = m_beginOfLine.lastIndexOf('\n') + 1;
    const QList<QByteArray> lines = m_beginOfLine.left(qMax(size - 1, 0)).split('\n');
    m_beginOfLine.remove(0, size);
    QByteArray bytes;
    for (const QByteArray& line : lines) {
        bool ok = false;
        bytes += bytesFromText(line, m_format, &ok);
        if (!ok) {
            emit failed("standard input: " + line + ": not in this format");
            return;
        }
    }
    emit read(bytes);
}
