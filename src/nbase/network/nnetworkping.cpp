#include <nbase/network/nnetworkping.h>

#include <nbase/nbaseqtcompat_p.h>
#include <nbase/network/ncommandprocess_p.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QPointer>
#include <QtCore/QRegExp>
#include <QtCore/QStringList>

#include <limits>

namespace {

const quint64 MillisecondsPerSecond = 1000;
const quint64 MicrosecondsPerMillisecond = 1000;

} // namespace

NNetworkPing::NNetworkPing(QObject* parent)
    : QObject(parent)
    , m_count(0)
    , m_timeout(0)
    , m_delay(0)
    , m_running(false)
    , m_good(false)
    , m_ttl(0)
    , m_replyTime(0)
    , m_sentNb(0)
    , m_goodNb(0)
    , m_fastest(0)
    , m_slowest(0)
    , m_replyTimeSum(0)
    , m_process(nullptr)
    , m_pingInProgress(false)
    , m_delayTimer(this)
    , m_run(0)
{
    NBaseQtCompat::makePrecise(&m_delayTimer);
    m_delayTimer.setSingleShot(true);
    connect(&m_delayTimer, SIGNAL(timeout()), SLOT(delayTimerTimeout()));
}

NNetworkPing::~NNetworkPing()
{
    endRun();
}

NNetworkPing* NNetworkPing::startPing(const QString& host, quint32 count, quint32 timeout, quint32 delay)
{
    NNetworkPing* const ping = new NNetworkPing(nullptr);
    ping->start(host, count, timeout, delay);
    return ping;
}

QString NNetworkPing::host() const
{
    return m_host;
}

quint32 NNetworkPing::count() const
{
    return m_count;
}

quint32 NNetworkPing::timeout() const
{
    return m_timeout;
}

quint32 NNetworkPing::delay() const
{
    return m_delay;
}

bool NNetworkPing::isRunning() const
{
    return m_running;
}

bool NNetworkPing::isGood() const
{
    return m_good;
}

quint32 NNetworkPing::ttl() const
{
    return m_ttl;
}

quint32 NNetworkPing::replyTime() const
{
    return m_replyTime;
}

quint32 NNetworkPing::sentNb() const
{
    return m_sentNb;
}

quint32 NNetworkPing::goodNb() const
{
    return m_goodNb;
}

quint32 NNetworkPing::fastest() const
{
    return m_fastest;
}

quint32 NNetworkPing::slowest() const
{
    return m_slowest;
}

quint32 NNetworkPing::meanTime() const
{
    return m_goodNb == 0 ? 0 : quint32(m_replyTimeSum / m_goodNb);
}

void NNetworkPing::start(const QString& host, quint32 count, quint32 timeout, quint32 delay)
{
    endRun();
    m_host = host;
    m_good = false;
    m_ttl = 0;
    m_replyTime = 0;
    m_sentNb = 0;
    m_goodNb = 0;
    m_fastest = 0;
    m_slowest = 0;
    m_replyTimeSum = 0;
    m_count = count;
    m_timeout = timeout;
    m_delay = delay;
    m_running = true;

    const QPointer<NNetworkPing> self(this);
    const quint64 run = m_run;
    emit started(host, count, timeout, delay);
    if (self && m_run == run)
        sendPing();
}

void NNetworkPing::stop()
{
    if (!m_running)
        return;
    endRun();
    emit stopped();
}

void NNetworkPing::endRun()
{
    ++m_run;
    m_running = false;
    m_delayTimer.stop();
    m_pingInProgress = false;
    if (m_process)
        m_process->discard();
    m_process = nullptr;
}

void NNetworkPing::sendPing()
{
    if (m_process)
        m_process->discard();
    m_process = new NCommandProcess(this);
    connect(
        m_process, SIGNAL(finished(int,QProcess::ExitStatus)),
                          SLOT(pingProcessFinished(int,QProcess::ExitStatus)));
    connect(m_process, SIGNAL(error(QProcess::ProcessError)), SLOT(pingProcessError(QProcess::ProcessError)));
    QStringList arguments;
    arguments << latin1("-c1") << latin1("-W%1").arg(m_timeout);
    NCommandProcess::appendHost(&arguments, m_host);
    m_pingInProgress = true;
    const quint64 delay = m_delay * MillisecondsPerSecond;
    m_delayTimer.start(int(qMin(delay, quint64(std::numeric_limits<int>::max()))));
    m_process->start(latin1("ping"), arguments, QIODevice::ReadWrite);
}

void NNetworkPing::delayTimerTimeout()
{
    if (!m_pingInProgress)
        sendPing();
}

void NNetworkPing::pingProcessFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    if (!m_running)
        return;
    const bool good = exitStatus == QProcess::NormalExit && exitCode == 0;
    takePing(good, good ? NCommandProcess::text(m_process->readAll()) : QString());
}

// A command that cannot be started does not finish. The error may come from within start(), before the caller is
// ready for the result.
void NNetworkPing::pingProcessError(QProcess::ProcessError error)
{
    if (error == QProcess::FailedToStart)
        QMetaObject::invokeMethod(this, "pingProcessFailed", Qt::QueuedConnection);
}

void NNetworkPing::pingProcessFailed()
{
    if (m_pingInProgress && m_process->error() == QProcess::FailedToStart)
        takePing(false, QString());
}

void NNetworkPing::takePing(bool good, const QString& output)
{
    m_good = good;
    ++m_sentNb;
    if (good) {
        ++m_goodNb;
        takeReply(output);
    }

    const QPointer<NNetworkPing> self(this);
    const quint64 run = m_run;
    emit pingResult(good, m_ttl, m_replyTime, m_sentNb, m_goodNb, m_fastest, m_slowest, meanTime());
    if (!self || m_run != run)
        return;
    if (m_count != 0 && m_sentNb >= m_count) {
        endRun();
        emit stopped();
    } else if (!m_delayTimer.isActive()) {
        sendPing();
    } else {
        m_pingInProgress = false;
    }
}

void NNetworkPing::takeReply(const QString& output)
{
    QRegExp reply(latin1(".*ttl=(\\d+) time=(\\d+)\\.(\\d{3}) ms.*"));
    if (!reply.exactMatch(output))
        return;
    bool isTtl = false;
    bool isTime = false;
    const quint32 ttl = reply.cap(1).toUInt(&isTtl);
    const quint64 time = reply.cap(2).toUInt(&isTime) * MicrosecondsPerMillisecond + reply.cap(3).toUInt();
    if (!isTtl || !isTime || time > std::numeric_limits<quint32>::max())
        return;
    m_ttl = ttl;
    m_replyTime = quint32(time);
    m_replyTimeSum += time;
    if (m_goodNb == 1)
        m_fastest = m_slowest = m_replyTime;
    m_fastest = qMin(m_fastest, m_replyTime);
    m_slowest = qMax(m_slowest, m_replyTime);
}
