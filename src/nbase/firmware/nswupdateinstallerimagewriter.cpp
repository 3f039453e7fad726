#include <nbase/firmware/nswupdateinstallerimagewriter.h>

#include <QtCore/QPointer>

NSwUpdateInstallerImageWriter::NSwUpdateInstallerImageWriter(QLocalSocket* socket, QObject* parent)
    : QObject(parent)
    , m_socket(socket)
    , m_isWritingEnded(false)
    , m_isImageWritten(false)
{
    connect(socket, SIGNAL(bytesWritten(qint64)), SLOT(imageBytesWritten(qint64)));
    connect(socket, SIGNAL(disconnected()), SIGNAL(imageWritingSocketDisconnected()));
    connect(socket, SIGNAL(disconnected()), SLOT(socketDisconnected()));
}

qint64 NSwUpdateInstallerImageWriter::write(const char* data, qint64 size)
{
    return m_isWritingEnded ? -1 : m_socket->write(data, size);
}

qint64 NSwUpdateInstallerImageWriter::write(const QByteArray& data)
{
    return write(data.constData(), data.size());
}

bool NSwUpdateInstallerImageWriter::flush()
{
    const QPointer<NSwUpdateInstallerImageWriter> self(this);
    m_socket->flush();
    return self && isQueueEmpty();
}

void NSwUpdateInstallerImageWriter::endWriting()
{
    if (m_isWritingEnded)
        return;
    m_isWritingEnded = true;
    if (isQueueEmpty())
        emitImageWritten();
}

void NSwUpdateInstallerImageWriter::imageBytesWritten(qint64)
{
    if (m_isImageWritten || m_socket->bytesToWrite() > 0)
        return;
    const QPointer<NSwUpdateInstallerImageWriter> self(this);
    emit bytesWritten();
    // A receiver may have written more and then ended writing.
    if (self && m_isWritingEnded && !m_isImageWritten && m_socket->bytesToWrite() == 0)
        emitImageWritten();
}

void NSwUpdateInstallerImageWriter::socketDisconnected()
{
    // The queue, which endWriting() has left to be sent, is lost.
    if (m_isWritingEnded)
        emitImageWritten();
}

// Whether nothing is left to be sent, or it cannot be sent anymore.
bool NSwUpdateInstallerImageWriter::isQueueEmpty() const
{
    return m_socket->bytesToWrite() == 0 || m_socket->state() != QLocalSocket::ConnectedState;
}

void NSwUpdateInstallerImageWriter::emitImageWritten()
{
    if (m_isImageWritten)
        return;
    m_isImageWritten = true;
    emit imageWritten();
}
