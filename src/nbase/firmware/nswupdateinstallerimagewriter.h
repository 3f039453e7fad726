#ifndef NBASE_NSWUPDATEINSTALLERIMAGEWRITER_H
#define NBASE_NSWUPDATEINSTALLERIMAGEWRITER_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtNetwork/QLocalSocket>

/**
 * Streams the image of a package into the SWUpdate daemon, see NSWUpdateInstaller::startInstallation(). The event
 * loop sends what has been written.
 *
 * Receivers of the signals may delete the installer.
 */
class NBASE_EXPORT NSwUpdateInstallerImageWriter : public QObject
{
    Q_OBJECT

public:
    /** @param socket the connection; it must exist until writing has ended, and is not owned. */
    NSwUpdateInstallerImageWriter(QLocalSocket* socket, QObject* parent);

    /**
     * @{
     * Queues bytes of the image in memory. To keep the queue short, write again only when bytesWritten() reports
     * that it is empty.
     * @return the number of bytes; -1 when endWriting() has been called or the connection has been lost.
     */
    qint64 write(const char* data, qint64 size);
    qint64 write(const QByteArray& data);
    /** @} */

    /**
     * Sends what the daemon takes at once of the queue, which spares turns of the event loop. bytesWritten() and
     * imageWritingSocketDisconnected() may be emitted.
     * @return whether the queue is empty or lost, so that there is no bytesWritten() to wait for.
     */
    bool flush();

public slots:
    /**
     * Declares the image complete; the installation follows when the queue is empty. Also ends a writer whose
     * connection has been lost. Calls after the first have no effect.
     */
    void endWriting();

signals:
    /** Everything that has been written so far is sent. */
    void bytesWritten();

    /** The daemon has closed the connection; the image cannot be continued. The caller calls endWriting(). */
    void imageWritingSocketDisconnected();

    /** Writing has ended and the queue is empty or lost. Emitted once. */
    void imageWritten();

private slots:
    void imageBytesWritten(qint64 bytes);
    void socketDisconnected();

private:
    Q_DISABLE_COPY(NSwUpdateInstallerImageWriter)

    bool isQueueEmpty() const;
    void emitImageWritten();

    QLocalSocket* m_socket;
    bool m_isWritingEnded;
    bool m_isImageWritten;
};

#endif
