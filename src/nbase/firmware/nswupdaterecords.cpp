#include <nbase/firmware/nswupdaterecords_p.h>

#include <QtCore/QtEndian>

#include <string.h>

namespace {

const quint32 Magic = 0x14052001;
const quint32 ApiVersion = 1;
const quint32 Acknowledged = 1;

const int MagicOffset = 0;
const int TypeOffset = 4;

// The instruction view, which all layouts have for post-update requests.
const int InstructionLengthOffset = 20;
const int InstructionTextOffset = 24;
const int InstructionTextSize = 2048;

const int CurrentStatusOffset = 8;
const int LastResultOffset = 12;
const int ErrorOffset = 16;
const int DescriptionOffset = 20;
const int DescriptionSize = 2048;

const int ProgressStatusOffset = 4;
const int DownloadPercentageOffset = 8;

// From the number of steps.
const int CurrentStepDistance = 4;
const int StepPercentageDistance = 8;
const int ImageNameDistance = 12;
const int SourceDistance = 332;
const int TextLengthDistance = 336;
const int TextDistance = 340;

const int ImageNameSize = 256;
const int TextSize = 2048;

quint32 number(const char* bytes)
{
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar*>(bytes));
}

void setNumber(QByteArray& record, int offset, quint32 value)
{
    qToLittleEndian<quint32>(value, reinterpret_cast<uchar*>(record.data() + offset));
}

QString text(const char* bytes, int size)
{
    return QString::fromLatin1(bytes, int(qstrnlen(bytes, uint(size))));
}

QByteArray request(const NSWUpdateRecords::ControlLayout& layout, NSWUpdateRecords::RequestType type)
{
    QByteArray record(layout.size, '\0');
    setNumber(record, MagicOffset, Magic);
    setNumber(record, TypeOffset, quint32(type));
    return record;
}

// Returns the number of bytes.
int setText(QByteArray& record, int offset, int size, const QString& text)
{
    const QByteArray bytes = text.left(size).toLatin1();
    memcpy(record.data() + offset, bytes.constData(), size_t(bytes.size()));
    return bytes.size();
}

} // namespace

namespace NSWUpdateRecords {

const ControlLayout Control2072 = {2072, -1, InstructionLengthOffset, InstructionTextOffset, InstructionTextSize};
// Here the daemon reads the text of an install request as a C string, from a field of 512 bytes.
const ControlLayout Control3120 = {3120, 8, -1, 32, 511};
const ControlLayout Control3104 = {3104, 8, -1, 24, 511};

const ProgressLayout Progress2400 = {2400, 12, false};
const ProgressLayout Progress2416 = {2416, 24, true};
const ProgressLayout Progress2408 = {2408, 20, true};

QByteArray installRequest(const ControlLayout& layout, const QString& info)
{
    QByteArray record = request(layout, InstallRequest);
    const int length = setText(record, layout.installTextOffset, layout.installTextSize, info);
    if (layout.installTextLengthOffset >= 0)
        setNumber(record, layout.installTextLengthOffset, quint32(length));
    if (layout.apiVersionOffset >= 0)
        setNumber(record, layout.apiVersionOffset, ApiVersion);
    return record;
}

QByteArray statusRequest(const ControlLayout& layout)
{
    return request(layout, StatusRequest);
}

QByteArray postUpdateRequest(const ControlLayout& layout, const QString& info)
{
    QByteArray record = request(layout, PostUpdateRequest);
    const int length = setText(record, InstructionTextOffset, InstructionTextSize, info);
    setNumber(record, InstructionLengthOffset, quint32(length));
    return record;
}

bool isAcknowledged(const QByteArray& reply)
{
    return number(reply.constData() + TypeOffset) == Acknowledged;
}

StatusReply statusReply(const QByteArray& reply)
{
    const char* const bytes = reply.constData();
    StatusReply status;
    status.current = NSWUpdate::Status(number(bytes + CurrentStatusOffset));
    status.lastResult = NSWUpdate::Status(number(bytes + LastResultOffset));
    status.isError = number(bytes + ErrorOffset) != 0;
    status.description = text(bytes + DescriptionOffset, DescriptionSize);
    return status;
}

bool isGreeting(const char* bytes)
{
    // An API version and "ACK" with its NUL; in a record, the number there is a status.
    return memcmp(bytes + 4, "ACK", 4) == 0;
}

NSWUpdate::Status ProgressRecord::status() const
{
    return NSWUpdate::Status(number(m_bytes + ProgressStatusOffset));
}

quint8 ProgressRecord::downloadPercentage() const
{
    return quint8(number(m_bytes + DownloadPercentageOffset));
}

int ProgressRecord::stepCount() const
{
    return int(number(m_bytes + m_layout.stepCountOffset));
}

int ProgressRecord::currentStep() const
{
    return int(number(m_bytes + m_layout.stepCountOffset + CurrentStepDistance));
}

quint32 ProgressRecord::stepPercentage() const
{
    return number(m_bytes + m_layout.stepCountOffset + StepPercentageDistance);
}

QString ProgressRecord::imageName() const
{
    return ::text(m_bytes + m_layout.stepCountOffset + ImageNameDistance, ImageNameSize);
}

NSWUpdate::Source ProgressRecord::source() const
{
    return NSWUpdate::Source(number(m_bytes + m_layout.stepCountOffset + SourceDistance));
}

QString ProgressRecord::text() const
{
    return ::text(m_bytes + m_layout.stepCountOffset + TextDistance, TextSize);
}

QString ProgressRecord::announcedText() const
{
    const quint32 length = number(m_bytes + m_layout.stepCountOffset + TextLengthDistance);
    if (length == 0)
        return QString();
    // Daemons with versioned records do not terminate the text of an install request, which overwrites the
    // beginning of the previous one.
    const int size = m_layout.isVersioned ? int(qMin(length, quint32(TextSize))) : TextSize;
    return ::text(m_bytes + m_layout.stepCountOffset + TextDistance, size);
}

} // namespace NSWUpdateRecords
