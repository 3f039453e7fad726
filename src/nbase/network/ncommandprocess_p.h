#ifndef NBASE_NCOMMANDPROCESS_P_H
#define NBASE_NCOMMANDPROCESS_P_H

#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>

/**
 * A command of the system that runs for an object of this library. It is killed when this program ends, even when
 * the program is killed itself.
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

    /** Appends @a host, which is not taken for an option then (getopt(3)). */
    static void appendHost(QStringList* arguments, const QString& host);

    /** The text of what a command has written, up to the first NUL byte. */
    static QString text(const QByteArray& output);

protected:
    void setupChildProcess() override;

private:
    Q_DISABLE_COPY(NCommandProcess)

    const int m_programId; ///< the process id of this program
};

#endif
