#include <nwebapi/nwacgimultipartformdatareader.h>

#include <nwebapi/nwacgirequest.h>
#include <nwebapi/nwahttpgrammar_p.h>
#include <nwebapi/nwautf8_p.h>

#include <QtCore/QMap>

#include <limits>
#include <string.h>

namespace {

const int maximumBoundaryLength = 70; // RFC 2046, section 5.1.1
const int bufferSize = 8 * 1024;

typedef QMap<QByteArray, QByteArray> Fields;

bool isBoundaryCharacter(char character)
{
    const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    const bool isDigit = character >= '0' && character <= '9';
    return isLetter || isDigit || (character != '\0' && strchr("'()+_,-./:=? ", character) != nullptr);
}

bool isBoundary(const QByteArray& text)
{
    if (text.isEmpty() || text.size() > maximumBoundaryLength || text.endsWith(' '))
        return false;
    for (int index = 0; index < text.size(); ++index) {
        if (!isBoundaryCharacter(text.at(index)))
            return false;
    }
    return true;
}

// The boundary in @a contentType; empty when it is not the type of a form in parts.
QByteArray boundaryOf(const QByteArray& contentType)
{
    Fields parameters;
    if (NwaHttpGrammar::mainValue(contentType) != "multipart/form-data" ||
        !NwaHttpGrammar::readParameters(contentType, NwaHttpGrammar::AllEscapes, parameters))
        return QByteArray();
    const QByteArray boundary = parameters.value("boundary");
    return isBoundary(boundary) ? boundary : QByteArray();
}

bool hasControlCharacter(const QByteArray& line)
{
    for (int index = 0; index < line.size(); ++index) {
        const uchar code = uchar(line.at(index));
        if ((code < 0x20 && code != '\t') || code == 0x7f)
            return true;
    }
    return false;
}

QList<QByteArray> linesOf(const QByteArray& header)
{
    QList<QByteArray> lines;
    for (int begin = 0; begin < header.size();) {
        const int end = header.indexOf("\r\n", begin);
        lines.append(header.mid(begin, end - begin));
        begin = end + 2;
    }
    return lines;
}

// Reads header lines into fields by their lower-case names. Returns whether all are well-formed and none occurs
// twice.
bool readFields(const QByteArray& header, Fields& fields)
{
    QByteArray lastName;
    const QList<QByteArray> lines = linesOf(header);
    for (int index = 0; index < lines.size(); ++index) {
        const QByteArray& line = lines.at(index);
        if (hasControlCharacter(line))
            return false;
        // A line that begins with a blank continues the one before (RFC 5322, section 2.2.3).
        if (line.startsWith(' ') || line.startsWith('\t')) {
            if (lastName.isNull())
                return false;
            fields[lastName] += ' ' + NwaHttpGrammar::trimmed(line);
            continue;
        }
        const QByteArray name = line.left(qMax(0, line.indexOf(':'))).toLower();
        if (!NwaHttpGrammar::isToken(name) || fields.contains(name))
            return false;
        fields.insert(name, NwaHttpGrammar::trimmed(line.mid(name.size() + 1)));
        lastName = name;
    }
    return true;
}

// Browsers write a quote and line breaks in a name as "%22", "%0D" and "%0A", and a percent sign unchanged (HTML
// standard, "multipart/form-data encoding algorithm"), so nothing else must be decoded.
QByteArray decodedName(const QByteArray& name)
{
    QByteArray result = name;
    result.replace("%22", "\"").replace("%0D", "\r").replace("%0A", "\n");
    return result;
}

// Whether the part's data are not encoded; HTTP uses no other encodings (RFC 7578, section 4.7).
bool isPlainEncoding(const Fields& fields)
{
    const QByteArray encoding = fields.value("content-transfer-encoding", "binary").toLower();
    return encoding == "binary" || encoding == "8bit" || encoding == "7bit";
}

struct PartHeader
{
    QString name;
    QString fileName;
    QString contentType;
};

// Returns what is wrong with the header, or null.
const char* readPartHeader(const QByteArray& text, PartHeader& part)
{
    Fields fields;
    if (!readFields(text, fields))
        return "the header of a part is malformed";
    if (!isPlainEncoding(fields))
        return "a part is encoded in a way that forms must not be";

    const QByteArray disposition = fields.value("content-disposition");
    Fields parameters;
    if (NwaHttpGrammar::mainValue(disposition) != "form-data" ||
        !NwaHttpGrammar::readParameters(disposition, NwaHttpGrammar::QuoteEscapes, parameters))
        return "a part has no correct content disposition";
    const QByteArray name = decodedName(parameters.value("name"));
    if (!parameters.contains("name"))
        return "a part has no name";
    if (!NwaUtf8::isValid(name))
        return "the name of a part is not in UTF-8";

    part.name = NwaUtf8::decode(name);
    if (parameters.contains("filename"))
        part.fileName = NwaUtf8::decode(decodedName(parameters.value("filename")));
    if (fields.contains("content-type"))
        part.contentType = QString::fromLatin1(NwaHttpGrammar::mainValue(fields.value("content-type")));
    return nullptr;
}

} // namespace

const int NwaCgiMultipartFormDataReader::DefaultMaximumPartCount;
const int NwaCgiMultipartFormDataReader::DefaultMaximumPartHeaderSize;

// The body is a sequence of data, delimiter, delimiter line, header, data, delimiter and so on. The first data are
// the preamble. A step that cannot be completed changes nothing and reports that it waits or that the body is
// malformed.
class NwaCgiMultipartFormDataReader::Private
{
public:
    explicit Private(NwaCgiRequest* bodyRequest);

    bool nextPart(PartHeader& part);
    QByteArray readFromPart(unsigned int maximumSize);
    void setMaximumPartHeaderSize(int size);

    int maximumPartCount;
    bool atPartEnd;
    bool isWaiting;
    QString errorString;

private:
    enum State { DataStart, Data, DelimiterLine, DelimiterPadding, Header, End, Failed };

    const char* start() const { return m_buffer.constData() + m_begin; }
    int available() const { return m_end - m_begin; }
    void drop(int size) { m_begin += size; }

    bool fill();
    bool need(int size);
    bool fail(const char* what);

    int delimiterMatch(int offset) const;
    bool beginData();
    bool scanData(unsigned int wanted);
    bool skipData();
    void endData();
    bool readDelimiterLine();
    bool readDelimiterPadding();
    bool readHeader(PartHeader& part);

    NwaCgiRequest* m_request;
    State m_state;
    QByteArray m_delimiter;
    QByteArray m_buffer;
    int m_begin;         ///< where the bytes that were read and not used yet begin in the buffer
    int m_end;           ///< where they end
    int m_dataSize;      ///< how many of them are known to be data
    int m_headerScanned; ///< how much of the header has been searched for its end
    int m_maximumPartHeaderSize;
    int m_partCount;
};

// A body may begin with a delimiter without its line break, so the buffer starts with one.
NwaCgiMultipartFormDataReader::Private::Private(NwaCgiRequest* bodyRequest)
    : maximumPartCount(DefaultMaximumPartCount)
    , atPartEnd(true)
    , isWaiting(false)
    , m_request(bodyRequest)
    , m_state(Data)
    , m_buffer("\r\n")
    , m_begin(0)
    , m_end(2)
    , m_dataSize(0)
    , m_headerScanned(0)
    , m_maximumPartHeaderSize(0)
    , m_partCount(0)
{
    setMaximumPartHeaderSize(DefaultMaximumPartHeaderSize);
    const QByteArray boundary = boundaryOf(bodyRequest->variable("CONTENT_TYPE"));
    m_delimiter = "\r\n--" + boundary;
    if (boundary.isEmpty())
        fail("the content type announces no form in parts with a boundary");
}

void NwaCgiMultipartFormDataReader::Private::setMaximumPartHeaderSize(int size)
{
    // One byte more than a valid header and its empty line shows that the header is too long.
    m_maximumPartHeaderSize = qBound(0, size, std::numeric_limits<int>::max() / 2);
    m_buffer.resize(qMax(m_buffer.size(), qMax(bufferSize, m_maximumPartHeaderSize + 3)));
}

// Reads more of the body into the buffer. Returns whether there was more.
bool NwaCgiMultipartFormDataReader::Private::fill()
{
    memmove(m_buffer.data(), start(), size_t(available()));
    m_end -= m_begin;
    m_begin = 0;

    const qint64 count = m_request->readBody(m_buffer.data() + m_end, m_buffer.size() - m_end);
    if (count > 0) {
        m_end += int(count);
        return true;
    }
    if (count < 0 || m_request->atBodyEnd())
        return fail("the form breaks off");
    isWaiting = true;
    return false;
}

// Whether at least @a size bytes are in the buffer.
bool NwaCgiMultipartFormDataReader::Private::need(int size)
{
    while (available() < size) {
        if (!fill())
            return false;
    }
    return true;
}

bool NwaCgiMultipartFormDataReader::Private::fail(const char* what)
{
    m_state = Failed;
    errorString = QString::fromLatin1(what);
    return false;
}

bool NwaCgiMultipartFormDataReader::Private::nextPart(PartHeader& part)
{
    isWaiting = false;
    for (;;) {
        switch (m_state) {
        case DataStart:
        case Data:
            if (!skipData())
                return false;
            break;
        case DelimiterLine:
            if (!readDelimiterLine())
                return false;
            break;
        case DelimiterPadding:
            if (!readDelimiterPadding())
                return false;
            break;
        case Header:
            return readHeader(part);
        case End: // the epilogue follows, which is ignored
        case Failed:
            return false;
        }
    }
}

QByteArray NwaCgiMultipartFormDataReader::Private::readFromPart(unsigned int maximumSize)
{
    isWaiting = false;
    if (atPartEnd || maximumSize == 0 || (m_state == DataStart && !beginData()))
        return QByteArray();
    if (m_state != Data || !scanData(maximumSize))
        return QByteArray();
    const int size = int(qMin(maximumSize, static_cast<unsigned int>(m_dataSize)));
    const QByteArray data(start(), size);
    drop(size);
    m_dataSize -= size;
    return data;
}

// How many bytes from @a offset on match the delimiter.
int NwaCgiMultipartFormDataReader::Private::delimiterMatch(int offset) const
{
    const int size = qMin(m_delimiter.size(), available() - offset);
    int match = 0;
    while (match < size && start()[offset + match] == m_delimiter.at(match))
        ++match;
    return match;
}

// The line break that ends the header is still in the buffer: when a delimiter follows directly, it belongs to the
// delimiter (RFC 2046, section 5.1.1). Returns whether enough has arrived to decide that.
bool NwaCgiMultipartFormDataReader::Private::beginData()
{
    for (;;) {
        const int match = delimiterMatch(0);
        if (match == m_delimiter.size()) {
            endData();
            return true;
        }
        if (match < available()) {
            drop(2);
            m_state = Data;
            return true;
        }
        if (!fill())
            return false;
    }
}

// Determines of up to @a wanted bytes whether they are data, reading each byte at most twice: the delimiter's
// first character does not occur again in it, so a mismatch never needs to go back. Returns whether there are
// data; if not, the delimiter was found, or more of the body is needed.
bool NwaCgiMultipartFormDataReader::Private::scanData(unsigned int wanted)
{
    while (static_cast<unsigned int>(m_dataSize) < wanted) {
        const int unknown = available() - m_dataSize;
        const char* const from = start() + m_dataSize;
        const void* const found = memchr(from, '\r', size_t(unknown));
        m_dataSize += found ? int(static_cast<const char*>(found) - from) : unknown;

        const int match = delimiterMatch(m_dataSize);
        if (match < m_delimiter.size() && match < available() - m_dataSize) {
            m_dataSize += match;
            continue;
        }
        // A delimiter begins here, or may begin.
        if (m_dataSize > 0)
            return true;
        if (match == m_delimiter.size()) {
            endData();
            return false;
        }
        if (!fill())
            return false;
    }
    return true;
}

// Returns whether the delimiter was reached.
bool NwaCgiMultipartFormDataReader::Private::skipData()
{
    if (m_state == DataStart && !beginData())
        return false;
    while (m_state == Data) {
        if (scanData(std::numeric_limits<unsigned int>::max())) {
            drop(m_dataSize);
            m_dataSize = 0;
        } else if (m_state == Data) {
            return false;
        }
    }
    return m_state == DelimiterLine;
}

void NwaCgiMultipartFormDataReader::Private::endData()
{
    drop(m_delimiter.size());
    atPartEnd = true;
    m_state = DelimiterLine;
}

bool NwaCgiMultipartFormDataReader::Private::readDelimiterLine()
{
    if (!need(2))
        return false;
    m_state = memcmp(start(), "--", 2) == 0 ? End : DelimiterPadding;
    return true;
}

bool NwaCgiMultipartFormDataReader::Private::readDelimiterPadding()
{
    for (;;) {
        if (!need(1))
            return false;
        if (*start() != ' ' && *start() != '\t')
            break;
        drop(1);
    }
    if (!need(2))
        return false;
    if (memcmp(start(), "\r\n", 2) != 0)
        return fail("a boundary is followed by other text in its line");
    drop(2);
    m_state = Header;
    return true;
}

bool NwaCgiMultipartFormDataReader::Private::readHeader(PartHeader& part)
{
    if (!need(2))
        return false;
    // A header without lines is only the empty line.
    int size = memcmp(start(), "\r\n", 2) == 0 ? 0 : -1;
    while (size < 0) {
        const int found = QByteArray::fromRawData(start(), available()).indexOf("\r\n\r\n", m_headerScanned);
        if (found >= 0) {
            size = found + 2;
        } else {
            m_headerScanned = qMax(0, available() - 3);
            if (available() > m_maximumPartHeaderSize + 2)
                return fail("the header of a part is too long");
            if (!fill())
                return false;
        }
    }
    if (size > m_maximumPartHeaderSize)
        return fail("the header of a part is too long");
    if (m_partCount >= maximumPartCount)
        return fail("the form has too many parts");

    PartHeader read;
    const char* const problem = readPartHeader(QByteArray(start(), size), read);
    if (problem)
        return fail(problem);
    drop(size);
    m_headerScanned = 0;
    ++m_partCount;
    atPartEnd = false;
    m_state = DataStart;
    part = read;
    return true;
}

NwaCgiMultipartFormDataReader::NwaCgiMultipartFormDataReader(NwaCgiRequest* request)
    : d(new Private(request))
{
}

NwaCgiMultipartFormDataReader::~NwaCgiMultipartFormDataReader()
{
    delete d;
}

void NwaCgiMultipartFormDataReader::setMaximumPartCount(int count)
{
    d->maximumPartCount = count;
}

void NwaCgiMultipartFormDataReader::setMaximumPartHeaderSize(int size)
{
    d->setMaximumPartHeaderSize(size);
}

bool NwaCgiMultipartFormDataReader::nextPart(QString& name, QString& fileName, QString& contentType)
{
    PartHeader part;
    if (!d->nextPart(part))
        return false;
    name = part.name;
    fileName = part.fileName;
    contentType = part.contentType;
    return true;
}

QByteArray NwaCgiMultipartFormDataReader::readFromPart(unsigned int maximumSize)
{
    return d->readFromPart(maximumSize);
}

bool NwaCgiMultipartFormDataReader::atPartEnd() const
{
    return d->atPartEnd;
}

bool NwaCgiMultipartFormDataReader::isWaiting() const
{
    return d->isWaiting;
}

bool NwaCgiMultipartFormDataReader::hasError() const
{
    return !d->errorString.isNull();
}

QString NwaCgiMultipartFormDataReader::errorString() const
{
    return d->errorString;
}
