#include "nupdatedaemonthread.h"

#include "../../../examples/device/updatedaemon.h"

#include <QtCore/QMutexLocker>

NUpdateDaemonThread::NUpdateDaemonThread()
    : m_daemon(new UpdateDaemon)
    , m_imageSize(-1)
    , m_progressConnections(0)
{
    connect(
        m_daemon, SIGNAL(requestReceived(QByteArray)), this, SLOT(addRequest(QByteArray)), Qt::DirectConnection);
    connect(m_daemon, SIGNAL(imageReceived(qint64)), this, SLOT(setImageSize(qint64)), Qt::DirectConnection);
    connect(m_daemon, SIGNAL(progressConnected()), this, SLOT(addProgressConnection()), Qt::DirectConnection);
    m_daemon->moveToThread(&m_thread);
    connect(&m_thread, SIGNAL(finished()), m_daemon, SLOT(deleteLater()));
    m_thread.start();
}

NUpdateDaemonThread::~NUpdateDaemonThread()
{
    close();
    m_thread.quit();
    m_thread.wait();
}

QString NUpdateDaemonThread::controlPath() const
{
    return filePath(QString::fromLatin1("control"));
}

QString NUpdateDaemonThread::progressPath() const
{
    return filePath(QString::fromLatin1("progress"));
}

QString NUpdateDaemonThread::filePath(const QString& name) const
{
    return m_directory.filePath(name);
}

bool NUpdateDaemonThread::listen()
{
    bool isListening = false;
    QMetaObject::invokeMethod(
        m_daemon, "listen", Qt::BlockingQueuedConnection, Q_RETURN_ARG(bool, isListening),
        Q_ARG(QString, controlPath()), Q_ARG(QString, progressPath()));
    return isListening;
}

void NUpdateDaemonThread::close()
{
    QMetaObject::invokeMethod(m_daemon, "close", Qt::BlockingQueuedConnection);
}

void NUpdateDaemonThread::setOptions(const char* options)
{
    bool isSet = false;
    QMetaObject::invokeMethod(
        m_daemon, "setOptions", Qt::BlockingQueuedConnection, Q_RETURN_ARG(bool, isSet),
        Q_ARG(QString, QString::fromLatin1(options)));
    if (!isSet)
        qFatal("wrong options of the daemon: %s", options);
}

void NUpdateDaemonThread::sendProgress(int status)
{
    QMetaObject::invokeMethod(m_daemon, "sendProgress", Qt::BlockingQueuedConnection, Q_ARG(int, status));
}

QList<QByteArray> NUpdateDaemonThread::takeRequests()
{
    const QMutexLocker locker(&m_mutex);
    const QList<QByteArray> requests = m_requests;
    m_requests.clear();
    return requests;
}

int NUpdateDaemonThread::requestCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_requests.size();
}

int NUpdateDaemonThread::progressConnections() const
{
    const QMutexLocker locker(&m_mutex);
    return m_progressConnections;
}

qint64 NUpdateDaemonThread::imageSize() const
{
    const QMutexLocker locker(&m_mutex);
    return m_imageSize;
}

void NUpdateDaemonThread::addRequest(const QByteArray& record)
{
    const QMutexLocker locker(&m_mutex);
    m_requests.append(record);
}

void NUpdateDaemonThread::setImageSize(qint64 size)
{
    const QMutexLocker locker(&m_mutex);
    m_imageSize = size;
}

void NUpdateDaemonThread::addProgressConnection()
{
    const QMutexLocker locker(&m_mutex);
    ++m_progressConnections;
}
