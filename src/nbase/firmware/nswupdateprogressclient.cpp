#include <nbase/firmware/nswupdateprogressclient.h>

#include <nbase/firmware/nswupdaterecords_p.h>
#include <nbase/firmware/progress_ipc.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QMetaType>
#include <QtCore/QPointer>

// For queued connections; applications may declare it for themselves as well.
Q_DECLARE_METATYPE(NSWUpdate::Source)

namespace {

const int ReconnectionInterval = 100;
const int MaximumRecordSize = 2416;

QString progressPath()
{
    return QFile::decodeName(SOCKET_PROGRESS_PATH);
}

} // namespace

NSWUpdateProgressClient::NSWUpdateProgressClient(const QString& socketName, QObject* parent)
    : QObject(parent)
    , m_socketName(socketName)
    , m_socket(this)
    , m_reconnectionTimer(this)
    , m_recordLayout(Record2400)
    , m_isGreetingExpected(true)
{
    initialize();
}

NSWUpdateProgressClient::NSWUpdateProgressClient(QObject* parent)
    : QObject(parent)
    , m_socketName(progressPath())
    , m_socket(this)
    , m_reconnectionTimer(this)
    , m_recordLayout(Record2400)
    , m_isGreetingExpected(true)
{
    initialize();
}

NSWUpdateProgressClient::~NSWUpdateProgressClient()
{
    m_socket.disconnect();
}

void NSWUpdateProgressClient::initialize()
{
    qRegisterMetaType<NSWUpdate::Source>("NSWUpdate::Source");
    m_reconnectionTimer.setSingleShot(true);
    m_reconnectionTimer.setInterval(ReconnectionInterval);
    connect(&m_reconnectionTimer, SIGNAL(timeout()), SLOT(openConnection()));
    connect(
        &m_socket, SIGNAL(stateChanged(QLocalSocket::LocalSocketState)),
                          SLOT(socketStateChanged(QLocalSocket::LocalSocketState)));
    // Queued, because a receiver may delete the client, and the socket must not be deleted inside its own signal.
    connect(&m_socket, SIGNAL(readyRead()), SLOT(socketReadyRead()), Qt::QueuedConnection);
    openConnection();
}

NSWUpdateProgressClient::RecordLayout NSWUpdateProgressClient::recordLayout() const
{
    return m_recordLayout;
}

void NSWUpdateProgressClient::setRecordLayout(RecordLayout layout)
{
    m_recordLayout = layout;
}

void NSWUpdateProgressClient::openConnection()
{
    m_isGreetingExpected = true;
    m_socket.connectToServer(progressPath(), QIODevice::ReadOnly);
}

void NSWUpdateProgressClient::socketStateChanged(QLocalSocket::LocalSocketState state)
{
    if (state == QLocalSocket::UnconnectedState)
        m_reconnectionTimer.start();
}

void NSWUpdateProgressClient::socketReadyRead()
{
    if (!skipGreeting())
        return;
    const QPointer<NSWUpdateProgressClient> self(this);
    char bytes[MaximumRecordSize];
    for (;;) {
        const NSWUpdateRecords::ProgressLayout& recordLayout = layout();
        if (m_socket.bytesAvailable() < recordLayout.size)
            return;
        if (m_socket.read(bytes, recordLayout.size) != recordLayout.size) {
            m_socket.disconnectFromServer();
            return;
        }
        dispatch(NSWUpdateRecords::ProgressRecord(recordLayout, bytes));
        if (!self)
            return;
    }
}

const NSWUpdateRecords::ProgressLayout& NSWUpdateProgressClient::layout() const
{
    switch (m_recordLayout) {
    case Record2416:
        return NSWUpdateRecords::Progress2416;
    case Record2408:
        return NSWUpdateRecords::Progress2408;
    case Record2400:
        break;
    }
    return NSWUpdateRecords::Progress2400;
}

// Returns whether what follows are records.
bool NSWUpdateProgressClient::skipGreeting()
{
    if (!m_isGreetingExpected || !layout().isVersioned)
        return true;
    char greeting[NSWUpdateRecords::GreetingSize];
    if (m_socket.peek(greeting, sizeof(greeting)) < qint64(sizeof(greeting)))
        return false;
    m_isGreetingExpected = false;
    if (NSWUpdateRecords::isGreeting(greeting))
        m_socket.read(greeting, sizeof(greeting));
    return true;
}

void NSWUpdateProgressClient::dispatch(const NSWUpdateRecords::ProgressRecord& record)
{
    switch (record.status()) {
    case NSWUpdate::StatusStart:
        emit updateStarted(record.source(), record.stepCount(), record.announcedText());
        break;
    case NSWUpdate::StatusRun:
        dispatchStep(record);
        break;
    case NSWUpdate::StatusSuccess:
    case NSWUpdate::StatusFailure:
        emit updateFinished(record.status() == NSWUpdate::StatusSuccess);
        break;
    case NSWUpdate::StatusDownload:
        emit downloadUpdate(record.downloadPercentage());
        break;
    case NSWUpdate::StatusDone:
        emit updateDone(record.announcedText());
        break;
    case NSWUpdate::StatusSubprocess:
        emit subProcessNotification(record.text());
        break;
    case NSWUpdate::StatusProgress:
        // The daemons with versioned records report the percentage of a step with a status of its own.
        if (layout().isVersioned)
            dispatchStep(record);
        break;
    case NSWUpdate::StatusIdle:
        break;
    }
}

void NSWUpdateProgressClient::dispatchStep(const NSWUpdateRecords::ProgressRecord& record)
{
    const quint32 percentage = record.stepPercentage();
    if (percentage == 0)
        emit newStepStarted(record.stepCount(), record.currentStep(), record.imageName());
    else
        emit stepUpdate(record.stepCount(), record.currentStep(), record.imageName(), quint8(percentage));
}
