#include <nbase/io/ncsvfilereader.h>

#include <nbase/io/ncsvtext_p.h>
#include <nbase/nbaseqtcompat_p.h>

#include <QtCore/QTextStream>

#include <istream>
#include <limits.h>
#include <new>
#include <string>

namespace {

// The memory of a longer text is released when the next record is read.
const int KeptCapacity = 16 * 1024;

// Provides the strings for the fields of a record. Those of the previous record in the list are reused where
// possible, because allocating a string for each field would cost more than everything else.
class FieldList
{
public:
    explicit FieldList(QStringList& fields)
        : m_fields(fields)
    {
        if (!fields.isDetached())
            fields.clear();
        m_next = fields.begin();
    }

    ~FieldList()
    {
        if (m_next != m_fields.end())
            m_fields.erase(m_next, m_fields.end());
    }

    // A string with arbitrary content for a field of about this size. It becomes part of the record only with
    // keep(), so that assigning to it may fail for lack of memory.
    QString& next(int size)
    {
        if (m_next == m_fields.end()) {
            m_fields.append(QString());
            m_next = m_fields.end() - 1;
        }
        QString& field = *m_next;
        // A short field does not keep the memory of a long one.
        if (field.capacity() / 4 > 16 + size)
            field = QString();
        return field;
    }

    void keep() { ++m_next; }

private:
    Q_DISABLE_COPY(FieldList)

    QStringList& m_fields;
    QStringList::iterator m_next;
};

// Splits a record line by line: each scan continues where the last one stopped.
class RecordScanner
{
public:
    enum Result { Complete, Continues, Malformed };

    RecordScanner(QChar separator, FieldList& fields)
        : m_separator(separator)
        , m_fields(fields)
        , m_position(0)
        , m_contentBegin(0)
        , m_insideQuotes(false)
        , m_quoteCount(0)
    {
    }

    // Scans a text that has grown by a line since the last scan.
    Result scan(const QString& text)
    {
        while (m_insideQuotes || m_position <= text.size()) {
            if (!m_insideQuotes && (m_position == text.size() || text.at(m_position) != QLatin1Char('"'))) {
                takePlainField(text);
                continue;
            }
            if (!m_insideQuotes)
                enterQuotes();
            const Result result = takeQuotedField(text);
            if (result != Complete)
                return result;
        }
        return Complete;
    }

private:
    Q_DISABLE_COPY(RecordScanner)

    // The position of the next such character, or the text's size.
    int find(const QString& text, QChar character) const
    {
        const QChar* const begin = text.constData();
        return int(NCsvText::find(begin + m_position, begin + text.size(), character) - begin);
    }

    void enterQuotes()
    {
        m_insideQuotes = true;
        m_quoteCount = 0;
        m_contentBegin = ++m_position;
    }

    void takePlainField(const QString& text)
    {
        const int end = find(text, m_separator);
        const int size = end - m_position;
        m_fields.next(size).setUnicode(text.constData() + m_position, size);
        m_fields.keep();
        m_position = end + 1;
    }

    // Here the result refers to the field.
    Result takeQuotedField(const QString& text)
    {
        for (;;) {
            m_position = find(text, QLatin1Char('"'));
            if (m_position == text.size())
                return Continues;
            const bool isLast = m_position + 1 == text.size();
            if (isLast || text.at(m_position + 1) != QLatin1Char('"')) {
                if (!isLast && text.at(m_position + 1) != m_separator)
                    return Malformed;
                fillQuotedField(text.constData() + m_contentBegin, m_position - m_contentBegin);
                m_fields.keep();
                m_position += 2;
                m_insideQuotes = false;
                return Complete;
            }
            ++m_quoteCount;
            m_position += 2;
        }
    }

    void fillQuotedField(const QChar* content, int size)
    {
        QString& field = m_fields.next(size);
        if (m_quoteCount == 0) {
            field.setUnicode(content, size);
            return;
        }
        field.resize(size - m_quoteCount);
        QChar* to = field.data();
        const QChar* const end = content + size;
        while (content < end) {
            NCsvText::copyUpTo(QLatin1Char('"'), content, end, to);
            if (content < end)
                *to++ = QLatin1Char('"');
            content += 2;
        }
    }

    const QChar m_separator;
    FieldList& m_fields;
    int m_position; ///< start of the next field; inside quotes, start of the search for the next quote
    int m_contentBegin;
    bool m_insideQuotes;
    int m_quoteCount; ///< number of doubled quotes in the quoted field
};

} // namespace

// The last line read from a standard stream; its memory is reused.
class NCsvFileReader::StandardLine
{
public:
    std::string bytes;
};

NCsvFileReader::NCsvFileReader(QIODevice* device, const QChar& separator)
    : m_textStream(new QTextStream(device))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(QIODevice* device, NCsvUtilities::Separator separator)
    : NCsvFileReader(device, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(QString* string, const QChar& separator)
    : m_textStream(new QTextStream(string, QIODevice::ReadOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(QString* string, NCsvUtilities::Separator separator)
    : NCsvFileReader(string, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(const QString& string, const QChar& separator)
    : m_string(string)
    , m_textStream(new QTextStream(&m_string, QIODevice::ReadOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(const QString& string, NCsvUtilities::Separator separator)
    : NCsvFileReader(string, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(QByteArray* array, const QChar& separator)
    : m_textStream(new QTextStream(array, QIODevice::ReadOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(QByteArray* array, NCsvUtilities::Separator separator)
    : NCsvFileReader(array, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(const QByteArray& array, const QChar& separator)
    : m_array(array)
    , m_textStream(new QTextStream(&m_array, QIODevice::ReadOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(const QByteArray& array, NCsvUtilities::Separator separator)
    : NCsvFileReader(array, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(QTextStream* stream, const QChar& separator)
    : m_textStream(stream)
    , m_ownsStream(false)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(QTextStream* stream, NCsvUtilities::Separator separator)
    : NCsvFileReader(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(std::istream* stream, const QChar& separator)
    : m_textStream(nullptr)
    , m_ownsStream(false)
    , m_standardStream(stream)
    , m_separator(separator.toLatin1())
    , m_standardLine(new StandardLine)
{
}

NCsvFileReader::NCsvFileReader(std::istream* stream, NCsvUtilities::Separator separator)
    : NCsvFileReader(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::~NCsvFileReader()
{
    if (m_ownsStream)
        delete m_textStream;
}

bool NCsvFileReader::atEnd() const
{
    if (m_textStream)
        return m_textStream->atEnd();
    return !m_standardStream || m_standardStream->eof();
}

QString NCsvFileReader::readNextStreamLine()
{
    if (!m_textStream && !m_standardStream)
        return QString();
    try {
        if (m_textStream)
            return m_textStream->readLine();
        QString line;
        return readStandardLine(line) || !line.isEmpty() ? line : QString();
    } catch (const std::bad_alloc&) {
        return QString();
    }
}

bool NCsvFileReader::parseNextLine(QStringList& fields)
{
    try {
        return parseRecord(fields);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool NCsvFileReader::parseFile(QList<QStringList>& records)
{
    records.clear();
    try {
        while (!atEnd()) {
            QStringList fields;
            if (!parseRecord(fields))
                return false;
            records.append(fields);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool NCsvFileReader::parseRecord(QStringList& fields)
{
    FieldList list(fields);
    RecordScanner scanner(QLatin1Char(m_separator), list);
    if (m_text.capacity() > KeptCapacity)
        m_text = QString();
    m_text.resize(0);
    for (;;) {
        if (atEnd())
            return m_text.isEmpty();
        if (!appendNextLine())
            return false;
        const RecordScanner::Result result = scanner.scan(m_text);
        if (result != RecordScanner::Continues)
            return result == RecordScanner::Complete;
    }
}

// Line breaks inside quotes become line feeds.
bool NCsvFileReader::appendNextLine()
{
    if (m_text.isEmpty())
        return readLine(m_text);
    QString line;
    if (!readLine(line))
        return false;
    m_text += QLatin1Char('\n');
    m_text += line;
    return true;
}

// Reads the next line into a string, whose memory is reused where Qt supports it. Returns false when the source
// fails before its end: it would otherwise return empty lines without end.
bool NCsvFileReader::readLine(QString& line)
{
    if (!m_textStream)
        return readStandardLine(line);
    return NBaseQtCompat::readLine(*m_textStream, line) || m_textStream->atEnd();
}

// A stream that was at its end before has no further line.
bool NCsvFileReader::readStandardLine(QString& line)
{
    const bool wasGood = m_standardStream->good();
    std::string& bytes = m_standardLine->bytes;
    bytes.clear(); // getline() does not when the stream is not good
    try {
        std::getline(*m_standardStream, bytes);
    } catch (const std::ios_base::failure&) {
        // The application enabled exceptions for the stream. Its state reports the failure as well.
    }
    if (bytes.size() > size_t(INT_MAX))
        throw std::bad_alloc();
    NBaseQtCompat::assignLatin1(line, bytes.data(), int(bytes.size()));
    if (bytes.capacity() > size_t(KeptCapacity))
        std::string().swap(bytes);
    return wasGood && (!m_standardStream->fail() || m_standardStream->eof());
}
