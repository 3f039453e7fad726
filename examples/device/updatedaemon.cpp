#include "updatedaemon.h"

#include <QtCore/QStringList>
#include <QtCore/QtEndian>
#include <QtNetwork/QLocalSocket>

#include <string.h>

namespace {

const quint32 Magic = 0x14052001;

enum Type { Install = 0, Acknowledged = 1, Refused = 2, GetStatus = 3, PostUpdate = 4 };
enum Status { Idle = 0, Start = 1, Run = 2, Success = 3, Failure = 4, Done = 6, Progress = 8 };

const int TicksPerStep = 10;
const int ImageStartSize = 4096;
const int ImageEndSize = 4096;
const int ImageInterval = 20; // milliseconds between the pieces of an image that is read slowly
const int MillisecondsPerSecond = 1000;
const int MaximumPercentage = 100;

quint32 number(const QByteArray& record, int offset)
{
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar*>(record.constData() + offset));
}

void setNumber(QByteArray& record, int offset, quint32 value)
{
    qToLittleEndian<quint32>(value, reinterpret_cast<uchar*>(record.data() + offset));
}

void setText(QByteArray& record, int offset, int size, const QByteArray& text)
{
    memcpy(record.data() + offset, text.constData(), size_t(qMin(size, text.size())));
}

QByteArray rubbish(int size)
{
    QByteArray bytes(size, '\0');
    for (int index = 0; index < size; ++index)
        bytes[index] = char(index * 7 + 0xA5);
    return bytes;
}

QByteArray installText(const QByteArray& request)
{
    const int offset = request.size() == 3120 ? 32 : 24;
    const int size = request.size() == 2072 ? int(qMin(number(request, 20), quint32(2048))) : 511;
    return QByteArray(request.constData() + offset, int(qstrnlen(request.constData() + offset, uint(size))));
}

QByteArray imageName(int step)
{
    return "image-" + QByteArray::number(step) + ".bin";
}

// What is wrong with an image as a cpio archive (cpio(5), "New ASCII Format"); empty when nothing is.
QString archiveFault(const QByteArray& start, const QByteArray& end)
{
    if (!start.startsWith("07070"))
        return QString::fromLatin1("ERROR : CPIO Format not recognized: magic not found");
    if (!end.contains("TRAILER!!!"))
        return QString::fromLatin1("ERROR : CPIO archive is incomplete");
    return QString();
}

qint64 bytesPerImageInterval(qint64 bytesPerSecond)
{
    return qMax(qint64(1), bytesPerSecond * ImageInterval / MillisecondsPerSecond);
}

} // namespace

UpdateDaemon::Behaviour::Behaviour()
    : controlSize(2072)
    , progressSize(2400)
    , hasGreeting(0)
    , stepCount(1)
    , stepTime(1000)
    , failingStep(0)
    , message(QString::fromLatin1("Image invalid or corrupted. Not installing ..."))
    , isCpioRequired(0)
    , imageRate(0)
    , faultOffset(0)
    , pieceSize(0)
    , extraBytes(0)
{
}

UpdateDaemon::UpdateDaemon(QObject* parent)
    : QObject(parent)
    , m_controlServer(this)
    , m_progressServer(this)
    , m_imageSocket(nullptr)
    , m_pieceTimer(this)
    , m_imageTimer(this)
    , m_stepTimer(this)
    , m_output(this)
{
    reset();
    m_pieceTimer.setInterval(1);
    m_imageTimer.setInterval(ImageInterval);
    connect(&m_controlServer, SIGNAL(newConnection()), SLOT(acceptControl()));
    connect(&m_progressServer, SIGNAL(newConnection()), SLOT(acceptProgress()));
    connect(&m_pieceTimer, SIGNAL(timeout()), SLOT(sendPieces()));
    connect(&m_imageTimer, SIGNAL(timeout()), SLOT(readImage()));
    connect(&m_stepTimer, SIGNAL(timeout()), SLOT(step()));
}

// The servers would close their connections too, but after the members that the slots need have gone.
UpdateDaemon::~UpdateDaemon()
{
    close();
}

void UpdateDaemon::reset()
{
    m_behaviour = Behaviour();
    if (QLocalSocket* const socket = m_imageSocket) {
        // Its end is not the end of an image anymore.
        m_imageSocket = nullptr;
        socket->abort();
    }
    m_imageTimer.stop();
    m_stepTimer.stop();
    m_output.close();
    m_imageStart.clear();
    m_imageEnd.clear();
    m_imageSize = 0;
    m_isInstalling = false;
    m_status = Idle;
    m_lastResult = Idle;
    m_messages.clear();
    m_information.clear();
    m_informationLength = 0;
    m_step = 0;
    m_percentage = 0;
}

bool UpdateDaemon::listen(const QString& controlPath, const QString& progressPath)
{
    QLocalServer::removeServer(controlPath);
    QLocalServer::removeServer(progressPath);
    return m_controlServer.listen(controlPath) && m_progressServer.listen(progressPath);
}

void UpdateDaemon::close()
{
    m_controlServer.close();
    m_progressServer.close();
    m_pieces.clear();
    m_pieceTimer.stop();
    const QList<QLocalSocket*> sockets =
        m_controlServer.findChildren<QLocalSocket*>() + m_progressServer.findChildren<QLocalSocket*>();
    for (QLocalSocket* socket : sockets)
        socket->abort();
}

bool UpdateDaemon::setOptions(const QString& options)
{
    const QStringList words = options.simplified().split(QLatin1Char(' '));
    if (words == QStringList(QString::fromLatin1("reset"))) {
        reset();
        return true;
    }
    for (int index = 0; index < words.size(); index += 2) {
        if (!setOption(m_behaviour, words.at(index), words.value(index + 1)))
            return false;
    }
    return true;
}

bool UpdateDaemon::setOption(Behaviour& behaviour, const QString& name, const QString& value)
{
    if (name == QLatin1String("message"))
        behaviour.message = QString(value).replace(QLatin1Char('_'), QLatin1Char(' '));
    else if (name == QLatin1String("fail-text"))
        behaviour.failText = QString(value).replace(QLatin1Char('_'), QLatin1Char(' '));
    else if (name == QLatin1String("output"))
        behaviour.output = value;
    else if (name == QLatin1String("fault"))
        return setFault(behaviour, value);
    else
        return setCount(behaviour, name, value);
    return true;
}

bool UpdateDaemon::setFault(Behaviour& behaviour, const QString& value)
{
    const QLatin1Char separator(' ');
    const QStringList points = QString::fromLatin1("install image status post-update progress").split(separator);
    const QStringList kinds = QString::fromLatin1("refuse silence disconnect rubbish").split(separator);
    const QString point = value.section(QLatin1Char('='), 0, 0);
    const QString kind = value.section(QLatin1Char('='), 1);
    if (value != QLatin1String("none") && (!points.contains(point) || !kinds.contains(kind)))
        return false;
    behaviour.faultPoint = point;
    behaviour.fault = kind;
    return true;
}

bool UpdateDaemon::setCount(Behaviour& behaviour, const QString& name, const QString& value)
{
    QHash<QString, int*> members;
    members.insert(QString::fromLatin1("control-size"), &behaviour.controlSize);
    members.insert(QString::fromLatin1("progress-size"), &behaviour.progressSize);
    members.insert(QString::fromLatin1("greeting"), &behaviour.hasGreeting);
    members.insert(QString::fromLatin1("steps"), &behaviour.stepCount);
    members.insert(QString::fromLatin1("step-time"), &behaviour.stepTime);
    members.insert(QString::fromLatin1("fail-step"), &behaviour.failingStep);
    members.insert(QString::fromLatin1("cpio"), &behaviour.isCpioRequired);
    members.insert(QString::fromLatin1("image-rate"), &behaviour.imageRate);
    members.insert(QString::fromLatin1("after"), &behaviour.faultOffset);
    members.insert(QString::fromLatin1("pieces"), &behaviour.pieceSize);
    members.insert(QString::fromLatin1("extra"), &behaviour.extraBytes);

    bool isNumber = false;
    const int count = value.toInt(&isNumber);
    int* const member = members.value(name);
    if (!isNumber || count < 0 || !member)
        return false;
    const QList<int> controlSizes = QList<int>() << 2072 << 3120 << 3104;
    const QList<int> progressSizes = QList<int>() << 2400 << 2416 << 2408;
    if ((member == &behaviour.controlSize && !controlSizes.contains(count)) ||
        (member == &behaviour.progressSize && !progressSizes.contains(count)))
        return false;
    *member = count;
    return true;
}

const char* UpdateDaemon::optionsHelp()
{
    return "  control-size <bytes>   records of the control socket: 2072 (default), 3120 or 3104\n"
           "  progress-size <bytes>  records of the progress socket: 2400 (default), 2416 or 2408\n"
           "  greeting <0|1>         a greeting precedes the progress records, as since SWUpdate 2024.12\n"
           "  steps <count>          steps of an installation, 1 by default\n"
           "  step-time <ms>         duration of a step, 1000 by default\n"
           "  fail-step <number>     the step that fails; 0 (default): none; after the last one: the end fails\n"
           "  fail-text <text>       only images with this text (_ for blanks) in their first 4096 bytes fail,\n"
           "                         without fail-step in the last step\n"
           "  message <text>         the message of the failure, with _ for blanks\n"
           "  cpio <0|1>             1: an image that is no whole cpio archive fails\n"
           "  image-rate <bytes>     bytes of the image that are read in a second; 0 (default): all\n"
           "  output <file>          keeps the image\n"
           "  fault <point>=<kind>   none (default), or point: install, image, status, post-update or progress,\n"
           "                         kind: refuse, silence, disconnect or rubbish\n"
           "  after <bytes>          bytes of the reply, image or progress record before the fault\n"
           "  pieces <bytes>         sends records in pieces, 1 ms apart; 0 (default): whole\n"
           "  extra <bytes>          rubbish after each reply\n";
}

void UpdateDaemon::acceptControl()
{
    while (QLocalSocket* const socket = m_controlServer.nextPendingConnection()) {
        connect(socket, SIGNAL(readyRead()), SLOT(readControl()));
        connect(socket, SIGNAL(disconnected()), SLOT(controlDisconnected()));
    }
}

void UpdateDaemon::acceptProgress()
{
    while (QLocalSocket* const socket = m_progressServer.nextPendingConnection()) {
        m_progressSockets.append(socket);
        connect(socket, SIGNAL(disconnected()), SLOT(progressDisconnected()));
        if (m_behaviour.hasGreeting) {
            QByteArray greeting(8, '\0');
            setNumber(greeting, 0, 0x20000);
            setText(greeting, 4, 4, "ACK");
            sendInPieces(socket, greeting, false);
        }
        emit progressConnected();
    }
}

void UpdateDaemon::readControl()
{
    QLocalSocket* const socket = static_cast<QLocalSocket*>(sender());
    if (socket == m_imageSocket) {
        if (m_behaviour.imageRate == 0)
            readImage();
        return;
    }
    if (!isRequestReadable(socket))
        return;
    const QByteArray request = socket->read(m_behaviour.controlSize);
    emit requestReceived(request);
    answer(socket, request);
}

bool UpdateDaemon::isRequestReadable(QLocalSocket* socket) const
{
    return socket->bytesAvailable() >= m_behaviour.controlSize;
}

void UpdateDaemon::controlDisconnected()
{
    QLocalSocket* const socket = static_cast<QLocalSocket*>(sender());
    m_pieces.remove(socket);
    if (socket == m_imageSocket) {
        takeImage(socket->readAll());
        endImage();
    }
    socket->deleteLater();
}

void UpdateDaemon::progressDisconnected()
{
    QLocalSocket* const socket = static_cast<QLocalSocket*>(sender());
    m_pieces.remove(socket);
    m_progressSockets.removeAll(socket);
    socket->deleteLater();
}

bool UpdateDaemon::isFaultAt(const char* point) const
{
    return m_behaviour.faultPoint == QLatin1String(point);
}

void UpdateDaemon::answer(QLocalSocket* socket, const QByteArray& request)
{
    QByteArray record(m_behaviour.controlSize, '\0');
    setNumber(record, 0, Magic);
    setNumber(record, 4, Acknowledged);
    switch (number(request, 4)) {
    case Install:
        if (m_isInstalling || isFaultAt("install"))
            setNumber(record, 4, Refused);
        else
            beginInstallation(socket, request);
        reply(socket, "install", record);
        break;
    case GetStatus: {
        Message message = {m_status, 0, QString()};
        if (!m_messages.isEmpty())
            message = m_messages.takeFirst();
        setNumber(record, 8, quint32(message.status));
        setNumber(record, 12, quint32(m_lastResult));
        setNumber(record, 16, quint32(message.error));
        setText(record, 20, 2047, message.text.toLatin1());
        reply(socket, "status", record);
        break;
    }
    case PostUpdate:
        if (isFaultAt("post-update"))
            setNumber(record, 4, Refused);
        reply(socket, "post-update", record);
        break;
    default:
        socket->disconnectFromServer();
    }
}

void UpdateDaemon::reply(QLocalSocket* socket, const char* point, QByteArray record)
{
    if (m_behaviour.extraBytes > 0)
        record += rubbish(m_behaviour.extraBytes);
    transfer(socket, point, record);
}

void UpdateDaemon::transfer(QLocalSocket* socket, const char* point, const QByteArray& bytes)
{
    if (!isFaultAt(point) || m_behaviour.fault == QLatin1String("refuse"))
        sendInPieces(socket, bytes, false);
    else if (m_behaviour.fault == QLatin1String("rubbish"))
        sendInPieces(socket, rubbish(bytes.size()), false);
    else
        sendInPieces(
            socket, bytes.left(m_behaviour.faultOffset), m_behaviour.fault == QLatin1String("disconnect"));
}

void UpdateDaemon::sendInPieces(QLocalSocket* socket, const QByteArray& bytes, bool isClosing)
{
    if (m_behaviour.pieceSize == 0 && !m_pieces.contains(socket)) {
        socket->write(bytes);
        if (isClosing)
            socket->disconnectFromServer();
        return;
    }
    QList<QByteArray>& pieces = m_pieces[socket];
    const int size = m_behaviour.pieceSize > 0 ? m_behaviour.pieceSize : bytes.size();
    for (int offset = 0; offset < bytes.size(); offset += size)
        pieces.append(bytes.mid(offset, size));
    if (isClosing)
        pieces.append(QByteArray());
    m_pieceTimer.start();
}

void UpdateDaemon::sendPieces()
{
    const QList<QLocalSocket*> sockets = m_pieces.keys();
    for (QLocalSocket* socket : sockets) {
        QList<QByteArray>& pieces = m_pieces[socket];
        const QByteArray piece = pieces.isEmpty() ? QByteArray() : pieces.takeFirst();
        const bool isClosing = piece.isEmpty();
        if (pieces.isEmpty())
            m_pieces.remove(socket);
        if (isClosing)
            socket->disconnectFromServer();
        else
            socket->write(piece);
    }
    if (m_pieces.isEmpty())
        m_pieceTimer.stop();
}

void UpdateDaemon::beginInstallation(QLocalSocket* socket, const QByteArray& request)
{
    m_isInstalling = true;
    m_imageSocket = socket;
    m_imageSize = 0;
    m_imageStart.clear();
    m_imageEnd.clear();
    m_messages.clear();
    m_step = 0;
    m_percentage = 0;
    if (!m_behaviour.output.isEmpty()) {
        m_output.setFileName(m_behaviour.output);
        m_output.open(QIODevice::WriteOnly);
    }
    if (m_behaviour.imageRate > 0) {
        // Qt would read all of the image into memory, and the sender would not be slowed down.
        socket->setReadBufferSize(qMax(bytesPerImageInterval(m_behaviour.imageRate), qint64(ImageStartSize)));
        m_imageTimer.start();
    }

    m_status = Start;
    report(Start, 0, QString::fromLatin1("Software Update started !"));
    m_information = installText(request);
    m_informationLength = m_information.size();
    sendProgress(Start);
    m_informationLength = 0;
}

void UpdateDaemon::readImage()
{
    if (!m_imageSocket) {
        m_imageTimer.stop();
        return;
    }
    const qint64 rate = m_behaviour.imageRate;
    qint64 size = rate > 0 ? bytesPerImageInterval(rate) : m_imageSocket->bytesAvailable();
    const bool isFaulty = isFaultAt("image");
    if (isFaulty)
        size = qMin(size, qint64(m_behaviour.faultOffset) - m_imageSize);
    takeImage(m_imageSocket->read(size));
    if (!isFaulty || m_imageSize < m_behaviour.faultOffset)
        return;
    if (m_behaviour.fault == QLatin1String("silence")) {
        // What Qt reads nevertheless stays bounded, so that the sender stops.
        m_imageSocket->setReadBufferSize(1);
        m_imageTimer.stop();
    } else {
        m_imageSocket->disconnectFromServer();
    }
}

void UpdateDaemon::takeImage(const QByteArray& bytes)
{
    if (bytes.isEmpty())
        return;
    if (m_imageSize == 0) {
        m_status = Run;
        report(Run, 0, QString::fromLatin1("Software update started"));
        m_information = "{\"0\": VERSION : 1.2.3}";
        m_informationLength = m_information.size();
        sendProgress(Run);
        m_informationLength = 0;
    }
    if (m_imageStart.size() < ImageStartSize)
        m_imageStart += bytes.left(ImageStartSize - m_imageStart.size());
    m_imageEnd = (m_imageEnd.right(ImageEndSize - qMin(ImageEndSize, bytes.size())) + bytes).right(ImageEndSize);
    m_imageSize += bytes.size();
    if (m_output.isOpen())
        m_output.write(bytes);
}

void UpdateDaemon::endImage()
{
    m_imageSocket = nullptr;
    m_imageTimer.stop();
    m_output.close();
    emit imageReceived(m_imageSize);
    const QString fault = m_behaviour.isCpioRequired ? archiveFault(m_imageStart, m_imageEnd) : QString();
    if (m_imageSize == 0 || isFaultAt("image"))
        endInstallation(false, m_behaviour.message);
    else if (!fault.isEmpty())
        endInstallation(false, fault);
    else
        beginStep();
}

int UpdateDaemon::failingStep() const
{
    if (m_behaviour.failText.isEmpty())
        return m_behaviour.failingStep;
    if (!m_imageStart.contains(m_behaviour.failText.toUtf8()))
        return 0;
    return m_behaviour.failingStep > 0 ? m_behaviour.failingStep : m_behaviour.stepCount;
}

void UpdateDaemon::beginStep()
{
    ++m_step;
    m_percentage = 0;
    if (m_step > m_behaviour.stepCount) {
        --m_step;
        const bool isFailing = failingStep() > m_behaviour.stepCount;
        endInstallation(!isFailing, isFailing ? m_behaviour.message : QString());
        return;
    }
    sendProgress(Run);
    report(Run, 0, QString::fromLatin1("Installing %1").arg(QString::fromLatin1(imageName(m_step))));
    m_stepTimer.start(m_behaviour.stepTime / TicksPerStep);
}

void UpdateDaemon::step()
{
    m_percentage += MaximumPercentage / TicksPerStep;
    if (m_step == failingStep() && m_percentage > MaximumPercentage / 2) {
        endInstallation(false, m_behaviour.message);
        return;
    }
    sendProgress(m_behaviour.progressSize == 2400 ? Run : Progress);
    if (m_percentage < MaximumPercentage)
        return;
    m_stepTimer.stop();
    beginStep();
}

void UpdateDaemon::endInstallation(bool success, const QString& message)
{
    m_stepTimer.stop();
    m_lastResult = success ? Success : Failure;
    sendProgress(m_lastResult);
    if (success)
        report(Success, 0, QString::fromLatin1("SWUPDATE successful !"));
    else
        report(Failure, 1, message);
    report(Run, 0, QString::fromLatin1("Main thread sleep again !"));
    report(Idle, 0, QString::fromLatin1("Waiting for requests..."));
    m_status = Idle;
    m_isInstalling = false;
    m_step = 0;
    m_percentage = 0;
    sendProgress(Done);
}

void UpdateDaemon::report(int status, int error, const QString& text)
{
    const Message message = {status, error, text};
    m_messages.append(message);
}

void UpdateDaemon::sendProgress(int status)
{
    const int size = m_behaviour.progressSize;
    const int steps = size == 2400 ? 12 : size == 2416 ? 24 : 20;
    QByteArray record(size, '\0');
    setNumber(record, 0, size == 2400 ? 0 : 0x20000);
    setNumber(record, 4, quint32(status));
    setNumber(record, steps, quint32(m_behaviour.stepCount));
    setNumber(record, steps + 4, quint32(m_step));
    setNumber(record, steps + 8, quint32(m_percentage));
    if (m_step > 0) {
        setText(record, steps + 12, 255, imageName(m_step));
        setText(record, steps + 268, 63, "raw");
    }
    setNumber(record, steps + 336, quint32(m_informationLength));
    setText(record, steps + 340, 2048, m_information);
    const QList<QLocalSocket*> sockets = m_progressSockets;
    for (QLocalSocket* socket : sockets)
        transfer(socket, "progress", record);
}
