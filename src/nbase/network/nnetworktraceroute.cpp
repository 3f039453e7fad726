#include <nbase/network/nnetworktraceroute.h>

#include <nbase/network/ncommandprocess_p.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>
#include <QtCore/QStringList>

NNetworkTraceroute::NNetworkTraceroute(QObject* parent)
    : QObject(parent)
    , m_printNames(false)
    , m_running(false)
    , m_process(nullptr)
    , m_maximumResultSize(0)
    , m_resultIsCut(false)
    , m_run(0)
{
}

NNetworkTraceroute::~NNetworkTraceroute()
{
    endRun();
}

NNetworkTraceroute* NNetworkTraceroute::startTraceroute(const QString& host, bool printNames)
{
    NNetworkTraceroute* const traceroute = new NNetworkTraceroute(nullptr);
    traceroute->start(host, printNames);
    return traceroute;
}

QString NNetworkTraceroute::host() const
{
    return m_host;
}

bool NNetworkTraceroute::printNames() const
{
    return m_printNames;
}

bool NNetworkTraceroute::isRunning() const
{
    return m_running;
}

QString NNetworkTraceroute::result() const
{
    return m_result;
}

void NNetworkTraceroute::setMaximumResultSize(int size)
{
    m_maximumResultSize = size;
}

void NNetworkTraceroute::start(const QString& host, bool printNames)
{
    endRun();
    m_host = host;
    m_printNames = printNames;
    m_result.clear();
    m_resultIsCut = false;
    m_running = true;

    const QPointer<NNetworkTraceroute> self(this);
    const quint64 run = m_run;
    emit started(host, printNames);
    if (!self || m_run != run)
        return;

    m_process = new NCommandProcess(this);
    connect(m_process, SIGNAL(readyReadStandardOutput()), SLOT(tracerouteProcessStandardOutputReadyRead()));
    connect(m_process, SIGNAL(readyReadStandardError()), SLOT(tracerouteProcessStandardErrorReadyRead()));
    connect(
        m_process, SIGNAL(finished(int,QProcess::ExitStatus)),
                          SLOT(tracerouteProcessFinished(int,QProcess::ExitStatus)));
    connect(
        m_process, SIGNAL(error(QProcess::ProcessError)), SLOT(tracerouteProcessError(QProcess::ProcessError)));
    QStringList arguments;
    if (!m_printNames)
        arguments << latin1("-n");
    NCommandProcess::appendHost(&arguments, m_host);
    m_process->start(latin1("traceroute"), arguments, QIODevice::ReadWrite);
}

void NNetworkTraceroute::stop()
{
    endRun();
    emit stopped();
}

void NNetworkTraceroute::endRun()
{
    ++m_run;
    m_running = false;
    if (m_process)
        m_process->discard();
    m_process = nullptr;
}

void NNetworkTraceroute::tracerouteProcessStandardOutputReadyRead()
{
    takeText(NCommandProcess::text(m_process->readAllStandardOutput()));
}

void NNetworkTraceroute::tracerouteProcessStandardErrorReadyRead()
{
    takeText(NCommandProcess::text(m_process->readAllStandardError()));
}

void NNetworkTraceroute::takeText(const QString& text)
{
    keepText(text);
    emit tracerouteResult(text);
}

void NNetworkTraceroute::keepText(const QString& text)
{
    if (m_resultIsCut)
        return;
    const int room = qMax(m_maximumResultSize - m_result.size(), 0);
    if (m_maximumResultSize <= 0 || text.size() <= room) {
        m_result += text;
        return;
    }
    m_result += text.left(room);
    m_result += latin1("\n[The text is longer than is kept here; the rest has been left out.]\n");
    m_resultIsCut = true;
}

void NNetworkTraceroute::tracerouteProcessFinished(int, QProcess::ExitStatus)
{
    stop();
}

// A command that cannot be started does not finish. The error may come from within start(), before the caller is
// ready for the end.
void NNetworkTraceroute::tracerouteProcessError(QProcess::ProcessError error)
{
    if (error == QProcess::FailedToStart)
        QMetaObject::invokeMethod(this, "tracerouteProcessFailed", Qt::QueuedConnection);
}

void NNetworkTraceroute::tracerouteProcessFailed()
{
    if (m_process && m_process->error() == QProcess::FailedToStart)
        stop();
}
