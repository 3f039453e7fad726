#include "devicerequestprocessor.h"

#include "timezonesetting.h"

#include <nbase/core/nbaselibinformation.h>
#include <nbase/core/nsyslog.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajsonutilities.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtNetwork/QHostInfo>

#include <time.h>

namespace {

QString key(const char* name)
{
    return QString::fromLatin1(name);
}

QByteArray contentsOf(const char* path)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QVariantMap libraryToVariant()
{
    QVariantMap object;
    object.insert(key("name"), NBaseLibInformation::libraryName());
    object.insert(key("version"), NBaseLibInformation::libraryVersion());
    return object;
}

// Seconds since the system was started, with fractions (proc(5), /proc/uptime).
QVariant uptime()
{
    bool ok = false;
    const double seconds = contentsOf("/proc/uptime").split(' ').first().toDouble(&ok);
    return ok ? QVariant(static_cast<qlonglong>(seconds)) : QVariant();
}

// A value of /proc/meminfo, which is in KiB there (proc(5)), in bytes.
QVariant memory(const QList<QByteArray>& lines, const QByteArray& name)
{
    for (const QByteArray& line : lines) {
        if (!line.startsWith(name + ':'))
            continue;
        bool ok = false;
        const qlonglong size = line.mid(name.size() + 1).simplified().split(' ').first().toLongLong(&ok);
        return ok ? QVariant(size * 1024) : QVariant();
    }
    return QVariant();
}

QVariantMap memoryToVariant()
{
    const QList<QByteArray> lines = contentsOf("/proc/meminfo").split('\n');
    QVariantMap object;
    object.insert(key("total"), memory(lines, "MemTotal"));
    object.insert(key("available"), memory(lines, "MemAvailable"));
    return object;
}

qlonglong utcOffset()
{
    const time_t now = ::time(nullptr);
    struct tm local;
    return ::localtime_r(&now, &local) ? local.tm_gmtoff : 0;
}

QVariant timeZoneToVariant(const TimeZone& zone)
{
    if (zone.code.isEmpty())
        return QVariant();
    QVariantMap object;
    object.insert(key("name"), zone.name);
    object.insert(key("code"), zone.code);
    return object;
}

/** A line of the log, see NSysLog::logLines(). */
class LogLine
{
public:
    explicit LogLine(const QString& line)
        : m_parts(QString::fromLatin1("(.{15}) [^ ]* [a-z0-7]+\\.([a-z]+) ([^: ]*): (.*)"))
    {
        m_parts.exactMatch(line);
    }

    /** Without its process id. */
    QString program() const { return m_parts.cap(3).section(QLatin1Char('['), 0, 0); }

    QVariantMap toVariant() const
    {
        QVariantMap object;
        object.insert(key("time"), m_parts.cap(1));
        object.insert(key("level"), m_parts.cap(2));
        object.insert(key("program"), program());
        object.insert(key("text"), m_parts.cap(4));
        return object;
    }

private:
    QRegExp m_parts;
};

QStringList linesOf(const NSysLog& log, NSysLog::LogLevels level, const QString& program)
{
    const QString expression = program.isEmpty() ? QString::fromLatin1("[^: ]*")
                                                 : QRegExp::escape(program) + QString::fromLatin1("(\\[\\d+\\])?");
    return log.logLines(level, QList<QRegExp>() << QRegExp(expression));
}

QStringList programsIn(const NSysLog& log)
{
    QSet<QString> programs;
    const QStringList lines = linesOf(log, NSysLog::Debug, QString());
    for (const QString& line : lines)
        programs.insert(LogLine(line).program());
    QStringList list = programs.values();
    list.sort();
    return list;
}

QVariantMap logToVariant(const NSysLog& log, NSysLog::LogLevels level, const QString& program)
{
    const QStringList lines = linesOf(log, level, program);
    QVariantList latest;
    for (int index = lines.size() - 1; index >= 0 && latest.size() < DeviceRequestProcessor::MaximumLineCount;
         --index)
        latest.append(LogLine(lines.at(index)).toVariant());
    QVariantMap object;
    object.insert(key("programs"), programsIn(log));
    object.insert(key("lines"), latest);
    return object;
}

/** Reads a parameter that may be absent. @return false when it is there more than once. */
bool readParameter(const NwaFcgiRequest* request, const char* name, QString& value)
{
    return !request->queryParameters().contains(key(name)) || request->singleQueryParameter(key(name), value);
}

bool readLevel(const NwaFcgiRequest* request, NSysLog::LogLevels& level)
{
    QString label = NSysLog::S_LOG_LEVELS_LABELS.at(NSysLog::Warning);
    if (!readParameter(request, "level", label))
        return false;
    const int index = NSysLog::S_LOG_LEVELS_LABELS.indexOf(label);
    level = static_cast<NSysLog::LogLevels>(qMax(0, index));
    return index >= 0;
}

} // namespace

DeviceRequestProcessor::DeviceRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NSysLog* log, TimeZoneSetting* timeZone)
    : ExplainingRequestProcessor(identifier)
    , m_log(log)
    , m_timeZone(timeZone)
{
    setServedMethods(GetMethod | PutMethod);
}

void DeviceRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    const bool isPassive = request->queryParameters().contains(key("passive"));
    if (!requireSession(request, isPassive ? PassiveRequest : ActiveRequest))
        return;
    NSysLog::LogLevels level = NSysLog::Warning;
    QString program;
    if (!readLevel(request, level))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            QString::fromLatin1("The level must be one of %1.")
                .arg(NSysLog::S_LOG_LEVELS_LABELS.join(QString::fromLatin1(", "))));
    if (!readParameter(request, "program", program))
        return refuse(request, NwaFcgiRequest::BadRequest, QString::fromLatin1("Name one program at most."));

    QVariantMap document;
    document.insert(key("hostName"), QHostInfo::localHostName());
    document.insert(key("library"), libraryToVariant());
    document.insert(key("time"), QDateTime::currentDateTime().toString(Qt::ISODate));
    document.insert(key("utcOffset"), utcOffset());
    document.insert(key("timeZone"), timeZoneToVariant(m_timeZone->stored()));
    document.insert(key("uptime"), uptime());
    document.insert(key("memory"), memoryToVariant());
    document.insert(key("log"), logToVariant(*m_log, level, program));
    sendJsonReply(request, document);
}

void DeviceRequestProcessor::processPutMethod(NwaFcgiRequest* request)
{
    QVariant document;
    if (!requireSession(request) || !requireJsonContent(request, document))
        return;
    QVariantMap object;
    QString name;
    if (!NwaJsonUtilities::objectValue(document, object) ||
        !NwaJsonUtilities::stringValue(object, key("timeZone"), name))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            QString::fromLatin1(
                "The time zone must be the name of a zone, for example {\"timeZone\": \"Europe/Paris\"}."));

    switch (m_timeZone->store(name)) {
    case TimeZoneSetting::UnknownZone:
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            QString::fromLatin1("The device knows no time zone of this name."));
    case TimeZoneSetting::NotStored:
        qCritical("the time zone cannot be stored in the configuration");
        return refuse(
            request, NwaFcgiRequest::InternalServerError,
            QString::fromLatin1("The configuration cannot be written. The time zone stays as it was."));
    case TimeZoneSetting::Stored:
        break;
    }
    QVariantMap reply;
    reply.insert(key("timeZone"), timeZoneToVariant(m_timeZone->stored()));
    sendJsonReply(request, reply);
}
