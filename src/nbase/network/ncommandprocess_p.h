#ifndef NBASE_NCOMMANDPROCESS_P_H
#define NBASE_NCOMMANDPROCESS_P_H

#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <sys/types.h>

/**
 * A command of the system that runs for an object of this library. The kernel kills it when the thread that
 * started it ends, also when this program is killed (prctl(2), PR_SET_PDEATHSIG). It does not where the command
 * has more privileges than this program; such a command ends with its own timeout.
 */
class NCommandProcess : public QProcess
{
    Q_OBJECT

public:
    explicit NCommandProcess(QObject* parent);

    /**
     * Kills the command, if it runs, and waits until it has ended. Nothing is emitted any more; the object is
     * deleted by the event loop, so that this can be called inside its own signals.
     */
    void discard();

    /** Appends @a host as an operand, preceded by "--" where it looks like an option (getopt(3)). */
    static void appendHost(QStringList* arguments, const QString& host);

    /** What a command has written, read as Latin-1 up to the first NUL byte. */
    static QString text(const QByteArray& output);

protected:
    void setupChildProcess() override;

private:
    Q_DISABLE_COPY(NCommandProcess)

    const pid_t m_programId; ///< the process id of this program
};

#endif
