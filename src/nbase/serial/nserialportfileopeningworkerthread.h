#ifndef NBASE_NSERIALPORTFILEOPENINGWORKERTHREAD_H
#define NBASE_NSERIALPORTFILEOPENINGWORKERTHREAD_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QAtomicInt>
#include <QtCore/QString>
#include <QtCore/QThread>

class NSerialPort;

/**
 * The thread that opens the file of an NSerialPort, which can block, and posts the result to the port as an
 * NSerialPortFileOpeningEvent. It uses nothing of the port but its name, of which it has a copy; the port must
 * exist until the thread has ended.
 */
class NBASE_EXPORT NSerialPortFileOpeningWorkerThread : public QThread
{
    Q_OBJECT

public:
    /** A thread for @a port that has not been started. */
    NSerialPortFileOpeningWorkerThread(NSerialPort* port, QObject* parent);

    /** Distinguishes the results of this thread from those of others, of which none has the same number. */
    int openingNumber() const { return m_openingNumber; }

    /**
     * Ends the thread, with QThread::terminate() when open(2) blocks, and waits until it has ended. Must be called
     * on another thread. Either the result is posted or the file is not open; no descriptor is lost.
     */
    void abandon();

protected:
    /** Opens the file and posts the result. */
    void run() override;

private:
    Q_DISABLE_COPY(NSerialPortFileOpeningWorkerThread)

    bool isAsleep();

    NSerialPort* m_port;
    QString m_portName;
    int m_openingNumber;
    QAtomicInt m_threadId;    ///< the kernel's number of the running thread, see gettid(2); 0 before it runs
    QAtomicInt m_hasReturned; ///< 1 when the file has been opened or not; the result is posted then
};

#endif
