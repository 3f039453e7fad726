#ifndef NBASE_NNETWORKPING_H
#define NBASE_NNETWORKPING_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QTimer>

class NCommandProcess;

/**
 * Pings a host again and again with the system's command ping(8), one echo request for each run of the command,
 * and keeps statistics. Times are in microseconds. Only a time that the command prints in milliseconds with three
 * decimals is read, as BusyBox's always are; a reply with another one counts as good and leaves the times
 * unchanged.
 *
 * Everything happens in the event loop of the object's thread. Receivers of the signals may start, stop or delete
 * the runner.
 */
class NBASE_EXPORT NNetworkPing : public QObject
{
    Q_OBJECT

public:
    /** Does not run yet. */
    explicit NNetworkPing(QObject* parent);

    /** Ends a ping that is in progress, without a signal. */
    ~NNetworkPing() override;

    /** A runner without parent that has been started, see start(). The caller must delete it. */
    static NNetworkPing* startPing(const QString& host, quint32 count, quint32 timeout, quint32 delay);

    /** @{ The parameters of the last start(). */
    QString host() const;
    quint32 count() const;
    quint32 timeout() const;
    quint32 delay() const;
    /** @} */

    /** Whether it has been started and not stopped since. */
    bool isRunning() const;

    /** Whether the last ping was answered. */
    bool isGood() const;

    /** The time to live of the last reply whose time was read; 0 before the first one. */
    quint32 ttl() const;
    /** The time of the last reply whose time was read; 0 before the first one. */
    quint32 replyTime() const;
    /** How many pings have ended, including those whose command could not be started. */
    quint32 sentNb() const;
    /** How many of them were answered. */
    quint32 goodNb() const;
    /** The shortest of the times that were read; 0 before the first one, and as long as the first good ping's was
     * not. */
    quint32 fastest() const;
    /** The longest of the times that were read; 0 before the first one. */
    quint32 slowest() const;
    /** The sum of all times divided by goodNb(), rounded down; 0 when no ping has been answered. */
    quint32 meanTime() const;

public slots:
    /**
     * Starts with new statistics. A run that is in progress is replaced, without stopped().
     * @param host an address or a host name.
     * @param count how many pings are sent; 0 for no limit.
     * @param timeout how many seconds a ping waits for its reply.
     * @param delay the interval in seconds from the start of one ping to the start of the next, at most that of a
     *        timer, about 24 days. A ping that takes longer is followed by the next one at once.
     */
    void start(const QString& host, quint32 count = 0, quint32 timeout = 5, quint32 delay = 1);

    /** Stops at once. Does nothing when it is not running. */
    void stop();

signals:
    /** A ping has ended. @a good: it was answered; the rest are the statistics. */
    void pingResult(
        bool good, quint32 ttl, quint32 replyTime, quint32 sentNb, quint32 goodNb, quint32 fastest,
        quint32 slowest, quint32 meanTime);

    /** A run begins. */
    void started(const QString& host, quint32 count, quint32 timeout, quint32 delay);

    /** The run has been stopped, or has sent count() pings. */
    void stopped();

private slots:
    void delayTimerTimeout();
    void pingProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void pingProcessError(QProcess::ProcessError error);
    void pingProcessFailed();

private:
    Q_DISABLE_COPY(NNetworkPing)

    void endRun();
    void sendPing();
    void takePing(bool good, const QString& output);
    void takeReply(const QString& output);

    QString m_host;
    quint32 m_count;
    quint32 m_timeout;
    quint32 m_delay;
    bool m_running;
    bool m_good;
    quint32 m_ttl;
    quint32 m_replyTime;
    quint32 m_sentNb;
    quint32 m_goodNb;
    quint32 m_fastest;
    quint32 m_slowest;
    quint64 m_replyTimeSum;
    NCommandProcess* m_process; ///< of the current ping; null when none is in progress
    bool m_pingInProgress;
    QTimer m_delayTimer;
    quint64 m_run; ///< changes with each start and stop, so that an emission can see that a receiver did one
};

#endif
