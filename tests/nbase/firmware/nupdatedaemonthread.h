#ifndef NBASE_TESTS_NUPDATEDAEMONTHREAD_H
#define NBASE_TESTS_NUPDATEDAEMONTHREAD_H

#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QThread>

class UpdateDaemon;

/**
 * The stand-in daemon in a thread of its own, so that it answers while the test is blocked. Its sockets and files
 * are in a temporary directory.
 */
class NUpdateDaemonThread : public QObject
{
    Q_OBJECT

public:
    NUpdateDaemonThread();
    ~NUpdateDaemonThread() override;

    QString controlPath() const;
    QString progressPath() const;
    QString filePath(const QString& name) const;

    bool listen();
    void close();

    /** See UpdateDaemon::setOptions(). Ends the test program when they are wrong. */
    void setOptions(const char* options);
    void sendProgress(int status);

    /** The requests since the last time. */
    QList<QByteArray> takeRequests();
    int requestCount() const;
    int progressConnections() const;
    /** The size of the last image; -1 as long as none has ended. */
    qint64 imageSize() const;

private slots:
    void addRequest(const QByteArray& record);
    void setImageSize(qint64 size);
    void addProgressConnection();

private:
    NTemporaryDirectory m_directory;
    QThread m_thread;
    UpdateDaemon* m_daemon;
    mutable QMutex m_mutex;
    QList<QByteArray> m_requests;
    qint64 m_imageSize;
    int m_progressConnections;
};

#endif
