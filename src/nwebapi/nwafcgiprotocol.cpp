#include <nwebapi/nwafcgiprotocol_p.h>

#include <QtCore/QtEndian>

namespace {

// A size up to 127 takes one byte; a larger one takes four, of which the first bit is set.
const int LargestShortSize = 127;
const quint32 LongSizeMark = 0x80000000u;

quint8 byteAt(const char* data, int index)
{
    return quint8(data[index]);
}

quint32 bigEndian32(const char* data)
{
    return qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(data));
}

void appendHeader(QByteArray& output, int type, int requestId, int contentSize)
{
    char header[NwaFcgiProtocol::HeaderSize];
    NwaFcgiProtocol::writeHeader(header, type, requestId, contentSize);
    output.append(header, sizeof(header));
}

void appendSize(QByteArray& output, int size)
{
    if (size <= LargestShortSize) {
        output.append(char(size));
        return;
    }
    uchar bytes[sizeof(quint32)];
    qToBigEndian(quint32(size) | LongSizeMark, bytes);
    output.append(reinterpret_cast<const char*>(bytes), sizeof(bytes));
}

} // namespace

NwaFcgiProtocol::RecordHeader::RecordHeader(const char* data)
    : version(byteAt(data, 0))
    , type(byteAt(data, 1))
    , requestId(byteAt(data, 2) << 8 | byteAt(data, 3))
    , contentSize(byteAt(data, 4) << 8 | byteAt(data, 5))
    , paddingSize(byteAt(data, 6))
{
}

void NwaFcgiProtocol::writeHeader(char* header, int type, int requestId, int contentSize)
{
    header[0] = char(Version);
    header[1] = char(type);
    header[2] = char(requestId >> 8);
    header[3] = char(requestId);
    header[4] = char(contentSize >> 8);
    header[5] = char(contentSize);
    header[6] = 0;
    header[7] = 0;
}

void NwaFcgiProtocol::appendStream(QByteArray& output, RecordType type, int requestId, const char* data, int size)
{
    for (int position = 0; position < size; position += MaximumContentSize) {
        const int contentSize = qMin(int(MaximumContentSize), size - position);
        appendHeader(output, type, requestId, contentSize);
        output.append(data + position, contentSize);
    }
}

void NwaFcgiProtocol::appendStreamEnd(QByteArray& output, RecordType type, int requestId)
{
    appendHeader(output, type, requestId, 0);
}

void NwaFcgiProtocol::appendEndRequest(QByteArray& output, int requestId, ProtocolStatus status)
{
    const char content[] = {0, 0, 0, 0, char(status), 0, 0, 0};
    appendHeader(output, EndRequest, requestId, sizeof(content));
    output.append(content, sizeof(content));
}

void NwaFcgiProtocol::appendUnknownType(QByteArray& output, int type)
{
    const char content[] = {char(type), 0, 0, 0, 0, 0, 0, 0};
    appendHeader(output, UnknownType, 0, sizeof(content));
    output.append(content, sizeof(content));
}

void NwaFcgiProtocol::appendPair(QByteArray& output, const QByteArray& name, const QByteArray& value)
{
    appendSize(output, name.size());
    appendSize(output, value.size());
    output.append(name);
    output.append(value);
}

NwaFcgiProtocol::PairReader::PairReader(const QByteArray& content)
    : m_content(content)
    , m_position(0)
    , m_nameBegin(0)
    , m_nameSize(0)
    , m_valueSize(0)
{
}

bool NwaFcgiProtocol::PairReader::next()
{
    int position = m_position;
    int nameSize = 0;
    int valueSize = 0;
    m_nameSize = 0;
    m_valueSize = 0;
    if (!readSize(position, nameSize) || !readSize(position, valueSize))
        return false;
    // Compared by subtraction, because the sizes come from the client and their sum could overflow.
    const int available = m_content.size() - position;
    if (nameSize > available)
        return false;
    m_nameBegin = position;
    m_nameSize = nameSize;
    if (valueSize > available - nameSize)
        return false;
    m_valueSize = valueSize;
    m_position = position + nameSize + valueSize;
    return true;
}

bool NwaFcgiProtocol::PairReader::readSize(int& position, int& size) const
{
    if (position >= m_content.size())
        return false;
    size = byteAt(m_content.constData(), position);
    if (size <= LargestShortSize) {
        ++position;
        return true;
    }
    if (m_content.size() - position < int(sizeof(quint32)))
        return false;
    size = int(bigEndian32(m_content.constData() + position) & ~LongSizeMark);
    position += int(sizeof(quint32));
    return true;
}
