#include <nbase/network/ncommandprocess_p.h>

#include <nsystem/nlatin1_p.h>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

NCommandProcess::NCommandProcess(QObject* parent)
    : QProcess(parent)
    , m_programId(getpid())
{
}

void NCommandProcess::discard()
{
    disconnect();
    kill();
    close();
    setParent(nullptr);
    deleteLater();
}

void NCommandProcess::appendHost(QStringList* arguments, const QString& host)
{
    if (host.startsWith(QLatin1Char('-')))
        arguments->append(latin1("--"));
    arguments->append(host);
}

QString NCommandProcess::text(const QByteArray& output)
{
    return QString::fromLatin1(output.constData());
}

// Runs in the child, between fork(2) and execve(2). If the program ended before prctl(2), no signal comes.
void NCommandProcess::setupChildProcess()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != m_programId)
        _exit(1);
}
