#include <nbase/firmware/nswupdateinstaller.h>

#include <nbase/device/nremovablemedia.h>
#include <nbase/firmware/nswupdateinstallerimagewriter.h>
#include <nbase/firmware/nswupdaterecords_p.h>

#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QMetaType>
#include <QtCore/QPointer>
#include <QtCore/QRegExp>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>

#include <dirent.h>

#include <memory>

// For queued connections; applications may declare it for themselves as well.
Q_DECLARE_METATYPE(NSWUpdate::Status)

namespace {

const int DefaultWaitTime = 30000;
const qint64 ChunkSize = 4096;
const int UnchangedStatusInterval = 100;

// Of all installers of the process, which ask the same daemon.
NSWUpdate::Status lastStatus = NSWUpdate::StatusIdle;

// The time for one step of an exchange, which may take several waits of the socket.
class Wait
{
public:
    explicit Wait(int time)
        : m_time(time)
    {
        m_elapsed.start();
    }

    int left() const { return int(qMax(qint64(0), m_time - m_elapsed.elapsed())); }

private:
    const int m_time;
    QElapsedTimer m_elapsed;
};

bool waitUntilSent(QLocalSocket* socket, int time)
{
    const Wait wait(time);
    while (socket->bytesToWrite() > 0) {
        if (!socket->waitForBytesWritten(wait.left()))
            return false;
    }
    return true;
}

bool waitForBytes(QLocalSocket* socket, qint64 size, int time)
{
    const Wait wait(time);
    while (socket->bytesAvailable() < size) {
        // The end of the connection may have come with the rest of the bytes.
        if (!socket->waitForReadyRead(wait.left()))
            return socket->bytesAvailable() >= size;
    }
    return true;
}

struct CloseDirectory
{
    void operator()(DIR* directory) const { ::closedir(directory); }
};

} // namespace

NSWUpdateInstaller::NSWUpdateInstaller(const QString& socketName, QObject* parent)
    : QObject(parent)
    , m_socketName(socketName)
    , m_installing(0)
    , m_imageSocket(nullptr)
    , m_imageWriter(nullptr)
    , m_imageData(nullptr)
    , m_imageSize(0)
    , m_imageFile(nullptr)
    , m_imageMapping(nullptr)
    , m_isImageIncomplete(false)
    , m_recordLayout(Record2072)
    , m_waitTime(DefaultWaitTime)
{
    qRegisterMetaType<NSWUpdate::Status>("NSWUpdate::Status");
}

NSWUpdateInstaller::~NSWUpdateInstaller()
{
    releaseImage();
    // This may happen inside a signal of the socket.
    if (m_imageSocket) {
        m_imageSocket->disconnect();
        m_imageSocket->abort();
        m_imageSocket->deleteLater();
    }
}

NSWUpdateInstaller::RecordLayout NSWUpdateInstaller::recordLayout() const
{
    return m_recordLayout;
}

void NSWUpdateInstaller::setRecordLayout(RecordLayout layout)
{
    m_recordLayout = layout;
}

int NSWUpdateInstaller::waitTime() const
{
    return m_waitTime;
}

void NSWUpdateInstaller::setWaitTime(int milliseconds)
{
    m_waitTime = qMax(0, milliseconds);
}

NSwUpdateInstallerImageWriter* NSWUpdateInstaller::startInstallation(const QString& info)
{
    if (m_installing)
        return nullptr;
    QLocalSocket* const socket = openIpcConnection();
    if (!socket)
        return nullptr;
    QByteArray record = NSWUpdateRecords::installRequest(layout(), info);
    if (!exchange(socket, &record) || !NSWUpdateRecords::isAcknowledged(record)) {
        closeIpcConnection(socket);
        return nullptr;
    }
    m_installing = 1;
    m_isImageIncomplete = false;
    m_imageSocket = socket;
    m_imageWriter = new NSwUpdateInstallerImageWriter(socket, this);
    connect(m_imageWriter, SIGNAL(imageWritten()), SLOT(imageFullyWritten()));
    return m_imageWriter;
}

bool NSWUpdateInstaller::startImageInstallation(const char* data, quint64 size, const QString& info)
{
    if (m_installing || !data || size == 0)
        return false;
    m_imageData = data;
    m_imageSize = size;
    if (!startInstallation(info)) {
        m_imageData = nullptr;
        m_imageSize = 0;
        return false;
    }
    connect(m_imageWriter, SIGNAL(bytesWritten()), SLOT(imageBytesWritten()));
    connect(m_imageWriter, SIGNAL(imageWritingSocketDisconnected()), SLOT(imageWritingSocketDisconnected()));
    imageBytesWritten();
    return true;
}

bool NSWUpdateInstaller::startImageInstallation(const QString& filePath, const QString& info)
{
    if (m_installing)
        return false;
    if (mapImageFile(filePath) &&
        startImageInstallation(reinterpret_cast<const char*>(m_imageMapping), quint64(m_imageFile->size()), info))
        return true;
    releaseImage();
    return false;
}

QString NSWUpdateInstaller::packagePath(const QString& mediaName, const QString& fileName)
{
    return QDir(NRemovableMedia::removableMediaMountPoint(mediaName)).absoluteFilePath(fileName);
}

bool NSWUpdateInstaller::listPackages(const QString& mediaName, QStringList& packages, const QString& pattern)
{
    const QByteArray path = QFile::encodeName(NRemovableMedia::removableMediaMountPoint(mediaName));
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.constData()));
    if (!directory)
        return false;
    packages.clear();
    const QRegExp wildcard(pattern, Qt::CaseSensitive, QRegExp::Wildcard);
    while (const struct dirent* const entry = ::readdir(directory.get())) {
        const QString name = QFile::decodeName(entry->d_name);
        if (entry->d_type == DT_REG && wildcard.exactMatch(name))
            packages.append(name);
    }
    packages.sort();
    return true;
}

bool NSWUpdateInstaller::sendPostUpdate(const QString& addInfo)
{
    if (m_installing)
        return false;
    QByteArray record = NSWUpdateRecords::postUpdateRequest(layout(), addInfo);
    return request(&record) && NSWUpdateRecords::isAcknowledged(record);
}

void NSWUpdateInstaller::imageBytesWritten()
{
    if (m_imageSize > 0 && sendNextImageChunk(ChunkSize))
        return;
    releaseImage();
    m_imageWriter->endWriting();
}

void NSWUpdateInstaller::imageWritingSocketDisconnected()
{
    m_imageWriter->endWriting();
}

void NSWUpdateInstaller::imageFullyWritten()
{
    // What is left of it when the daemon has closed the connection.
    releaseImage();
    // Others may still receive the signal of the writer that has led here.
    m_imageWriter->disconnect(this);
    m_imageWriter->deleteLater();
    m_imageWriter = nullptr;
    m_imageSocket->disconnect();
    closeIpcConnection(m_imageSocket);
    m_imageSocket = nullptr;
    checkStatus();
}

void NSWUpdateInstaller::checkStatus()
{
    const QPointer<NSWUpdateInstaller> self(this);
    NSWUpdateRecords::StatusReply status;
    if (!getInstallationStatus(&status)) {
        // In this order: an installation cannot be started inside this signal.
        emit finished(false);
        if (self)
            m_installing = 0;
        lastStatus = NSWUpdate::StatusIdle;
        return;
    }

    const bool isNews = status.current != lastStatus || !status.description.isEmpty();
    if (isNews) {
        emit newStatus(status.current, status.isError, status.description);
        lastStatus = status.current;
        if (!self)
            return;
    }
    if (status.current != NSWUpdate::StatusIdle) {
        QTimer::singleShot(isNews ? 0 : UnchangedStatusInterval, this, SLOT(checkStatus()));
        return;
    }
    m_installing = 0;
    emit finished(status.lastResult == NSWUpdate::StatusSuccess && !m_isImageIncomplete);
}

const NSWUpdateRecords::ControlLayout& NSWUpdateInstaller::layout() const
{
    switch (m_recordLayout) {
    case Record3120:
        return NSWUpdateRecords::Control3120;
    case Record3104:
        return NSWUpdateRecords::Control3104;
    case Record2072:
        break;
    }
    return NSWUpdateRecords::Control2072;
}

QLocalSocket* NSWUpdateInstaller::openIpcConnection() const
{
    QLocalSocket* const socket = new QLocalSocket;
    // No more is expected: what a faulty daemon sends beyond it does not collect in memory.
    socket->setReadBufferSize(layout().size);
    socket->connectToServer(m_socketName, QIODevice::ReadWrite);
    if (socket->waitForConnected(m_waitTime))
        return socket;
    socket->deleteLater();
    return nullptr;
}

void NSWUpdateInstaller::closeIpcConnection(QLocalSocket* socket) const
{
    socket->close();
    socket->deleteLater();
}

// Sends @a record and replaces it with the reply.
bool NSWUpdateInstaller::exchange(QLocalSocket* socket, QByteArray* record) const
{
    const int size = record->size();
    if (socket->write(*record) != size || !waitUntilSent(socket, m_waitTime) ||
        !waitForBytes(socket, size, m_waitTime))
        return false;
    *record = socket->read(size);
    return record->size() == size;
}

bool NSWUpdateInstaller::request(QByteArray* record) const
{
    QLocalSocket* const socket = openIpcConnection();
    if (!socket)
        return false;
    const bool isAnswered = exchange(socket, record);
    closeIpcConnection(socket);
    return isAnswered;
}

bool NSWUpdateInstaller::getInstallationStatus(NSWUpdateRecords::StatusReply* status)
{
    QByteArray record = NSWUpdateRecords::statusRequest(layout());
    if (!request(&record))
        return false;
    *status = NSWUpdateRecords::statusReply(record);
    return true;
}

bool NSWUpdateInstaller::mapImageFile(const QString& filePath)
{
    // Not QFile's open(), which would wait for the writer of a FIFO.
    NFileDescriptor file = NSystem::openRegularFile(QFile::encodeName(filePath).constData());
    if (!file.isOpen())
        return false;
    m_imageFile = new QFile(this);
    // Unbuffered, because it is read in pieces of the size of a buffer.
    if (!m_imageFile->open(file.number(), QIODevice::ReadOnly | QIODevice::Unbuffered, QFile::AutoCloseHandle))
        return false;
    file.release();
    m_imageMapping = m_imageFile->map(0, m_imageFile->size());
    return m_imageMapping != nullptr;
}

// Returns whether bytes have been accepted, with which bytesWritten() of the writer follows.
bool NSWUpdateInstaller::sendNextImageChunk(qint64 maxSize)
{
    const qint64 size = qint64(qMin(quint64(maxSize), m_imageSize));
    const qint64 written = m_imageData ? writeChunk(size) : -1;
    if (written < 0)
        return false;
    m_imageData += written;
    m_imageSize -= quint64(written);
    return true;
}

// The pages of a mapped file are not touched: where its medium has been removed, or it has become shorter, the
// kernel would raise SIGBUS (mmap(2)). read(2) reports the same as a failure.
qint64 NSWUpdateInstaller::writeChunk(qint64 size)
{
    if (!m_imageFile)
        return m_imageWriter->write(m_imageData, size);
    char chunk[ChunkSize];
    if (m_imageFile->read(chunk, size) != size) {
        m_isImageIncomplete = true;
        return -1;
    }
    return m_imageWriter->write(chunk, size);
}

void NSWUpdateInstaller::releaseImage()
{
    m_imageData = nullptr;
    m_imageSize = 0;
    if (!m_imageFile)
        return;
    if (m_imageMapping)
        m_imageFile->unmap(m_imageMapping);
    m_imageMapping = nullptr;
    m_imageFile->close();
    m_imageFile->deleteLater();
    m_imageFile = nullptr;
}
