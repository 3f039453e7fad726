#ifndef NBASE_NNETWORKTRACEROUTE_H
#define NBASE_NNETWORKTRACEROUTE_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QString>

class NCommandProcess;

/**
 * Runs the system's command traceroute(8) for a host and passes on its text, errors included, as it arrives. The
 * text is not interpreted.
 *
 * Everything happens in the event loop of the object's thread. Receivers of the signals may start, stop or delete
 * the runner.
 */
class NBASE_EXPORT NNetworkTraceroute : public QObject
{
    Q_OBJECT

public:
    /** Does not run yet. */
    explicit NNetworkTraceroute(QObject* parent);

    /** Ends a run that is in progress, without a signal. */
    ~NNetworkTraceroute() override;

    /** A runner without parent that has been started, see start(). The caller must delete it. */
    static NNetworkTraceroute* startTraceroute(const QString& host, bool printNames);

    /** @{ The parameters of the last start(). */
    QString host() const;
    bool printNames() const;
    /** @} */

    /** Whether it has been started and has not ended since. */
    bool isRunning() const;

    /** The text since the start. */
    QString result() const;

    /**
     * Limits result() to @a size characters of the command's text, after which a note says that it was cut.
     * Applies to text that arrives later. 0, the default, means no limit. tracerouteResult() is not limited.
     */
    void setMaximumResultSize(int size);

public slots:
    /**
     * Starts with an empty text. A run that is in progress is replaced, without stopped().
     * @param host an address or a host name.
     * @param printNames whether the command looks up the names of the routers.
     */
    void start(const QString& host, bool printNames);

    /** Stops at once. stopped() is emitted even when it is not running. */
    void stop();

signals:
    /** The command has written @a result, a further piece of result(). */
    void tracerouteResult(const QString& result);

    /** A run begins. */
    void started(const QString& host, bool printNames);

    /** It has been stopped, or the command has ended or could not be started. */
    void stopped();

private slots:
    void tracerouteProcessStandardOutputReadyRead();
    void tracerouteProcessStandardErrorReadyRead();
    void tracerouteProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void tracerouteProcessError(QProcess::ProcessError error);
    void tracerouteProcessFailed();

private:
    Q_DISABLE_COPY(NNetworkTraceroute)

    void endRun();
    void takeText(const QString& text);
    void keepText(const QString& text);

    QString m_host;
    bool m_printNames;
    bool m_running;
    QString m_result;
    NCommandProcess* m_process; ///< null before the first start and after the end
    int m_maximumResultSize;
    bool m_resultIsCut;
    quint64 m_run; ///< changes with each start and stop, so that an emission can see that a receiver did one
};

#endif
