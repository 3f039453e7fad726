#ifndef NBASE_TESTS_NSCRIPTEDDAEMON_H
#define NBASE_TESTS_NSCRIPTEDDAEMON_H

#include "support/ntemporarydirectory.h"

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

/**
 * A control socket that answers each request with bytes of the test's, in threads of its own. Without an answer,
 * it reports that it is idle after a success.
 */
class NScriptedDaemon
{
public:
    explicit NScriptedDaemon(int recordSize = 2072);
    ~NScriptedDaemon();

    QString path() const;

    enum End { Keep, Close };

    /** The answer to a following request: bytes, after which the connection is kept or closed. */
    void addReply(const QByteArray& bytes, End end = Keep);
    /** The same in pieces, each of which has time to arrive alone. */
    void addPieces(const QList<QByteArray>& pieces, End end = Keep);

    QByteArray acknowledgement(int type = 1) const;
    QByteArray status(int current, int lastResult = 0, const QByteArray& text = QByteArray(), int error = 0) const;

    /** Makes the daemon close the connection of an image when so many bytes of it have come. */
    void closeImageAfter(qint64 bytes);

    /** Makes the daemon stop reading images, after what it is reading now, until continueImages(). */
    void holdImages();
    void continueImages();

    /** The requests since the last time. */
    QList<QByteArray> takeRequests();
    int requestCount() const;

    QByteArray image() const;
    /** How many connections have been closed by the other end. */
    int endedConnections() const;

private:
    Q_DISABLE_COPY(NScriptedDaemon)

    struct Reply
    {
        QList<QByteArray> pieces;
        End end;
    };

    void run();
    void serve(int number);
    bool waitForInput(int socket) const;
    Reply takeReply(const QByteArray& request);
    void endImage();
    void readImage(int socket);
    void waitWhileHeld();

    const int m_recordSize;
    NTemporaryDirectory m_directory;
    NFileDescriptor m_server;
    NFileDescriptor m_stopReader; ///< ends when the writer is closed
    NFileDescriptor m_stopWriter;
    mutable std::mutex m_mutex;
    std::condition_variable m_continued;
    bool m_isHeld;
    int m_openImages; ///< connections of images that have not ended
    QList<Reply> m_replies;
    QList<QByteArray> m_requests;
    QByteArray m_image;
    qint64 m_imageLimit;
    int m_endedConnections;
    std::vector<std::thread> m_connections;
    std::thread m_thread;
};

#endif
