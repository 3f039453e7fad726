#include <nbase/io/ncsvfilereader.h>

#include <QtCore/QTextStream>

#include <istream>
#include <limits.h>
#include <new>
#include <string>

namespace {

// Text of a Qt source and bytes of a standard stream are taken apart alike, each as it was read.
inline ushort codeOf(QChar character)
{
    return character.unicode();
}

inline ushort codeOf(char character)
{
    return uchar(character);
}

// Puts the fields of a record into a list that may hold an earlier record. Its strings are filled anew where they
// can be, because a string of its own for each field would cost more than everything else about it.
class FieldList
{
public:
    explicit FieldList(QStringList& fields)
        : m_fields(fields)
        , m_count(0)
    {
    }

    ~FieldList()
    {
        if (m_count < m_fields.size())
            m_fields.erase(m_fields.begin() + m_count, m_fields.end());
    }

    void append(const QChar* text, int size) { nextField(size).setUnicode(text, size); }

    void append(const char* text, int size)
    {
        QString& field = nextField(size);
        field.resize(size);
        QChar* const characters = field.data();
        for (int index = 0; index < size; ++index)
            characters[index] = QLatin1Char(text[index]);
    }

    // The text's quotes stand doubled in it.
    template <typename Character> void appendQuoted(const Character* text, int size)
    {
        QString& field = nextField(size);
        field.resize(size);
        QChar* end = field.data();
        for (int index = 0; index < size; ++index) {
            *end++ = QChar(codeOf(text[index]));
            if (codeOf(text[index]) == '"')
                ++index;
        }
        field.resize(int(end - field.constData()));
    }

private:
    Q_DISABLE_COPY(FieldList)

    // A short field does not keep the memory of a long one.
    static bool isOversized(const QString& field, int size) { return field.capacity() > 64 + 4 * size; }

    QString& nextField(int size)
    {
        if (m_count == m_fields.size())
            m_fields.append(QString());
        else if (isOversized(m_fields.at(m_count), size))
            m_fields[m_count] = QString();
        return m_fields[m_count++];
    }

    QStringList& m_fields;
    int m_count;
};

// Takes a record apart line by line: each scan goes on where the last one had to stop.
class RecordScanner
{
public:
    enum Result { Complete, Continues, Malformed };

    RecordScanner(ushort separator, FieldList& fields)
        : m_separator(separator)
        , m_fields(fields)
        , m_position(0)
        , m_contentBegin(0)
        , m_insideQuotes(false)
        , m_hasQuotes(false)
    {
    }

    // Scans a text that has grown by a line since the last scan.
    template <typename Character> Result scan(const Character* text, int size)
    {
        while (m_insideQuotes || m_position <= size) {
            if (!m_insideQuotes && (m_position == size || codeOf(text[m_position]) != '"')) {
                takePlainField(text, size);
                continue;
            }
            if (!m_insideQuotes)
                enterQuotes();
            const Result result = takeQuotedField(text, size);
            if (result != Complete)
                return result;
        }
        return Complete;
    }

private:
    Q_DISABLE_COPY(RecordScanner)

    void enterQuotes()
    {
        m_insideQuotes = true;
        m_hasQuotes = false;
        m_contentBegin = ++m_position;
    }

    template <typename Character> void takePlainField(const Character* text, int size)
    {
        int end = m_position;
        while (end < size && codeOf(text[end]) != m_separator)
            ++end;
        m_fields.append(text + m_position, end - m_position);
        m_position = end + 1;
    }

    // Complete speaks of the field here.
    template <typename Character> Result takeQuotedField(const Character* text, int size)
    {
        for (;;) {
            while (m_position < size && codeOf(text[m_position]) != '"')
                ++m_position;
            if (m_position == size)
                return Continues;
            const bool isLast = m_position + 1 == size;
            if (isLast || codeOf(text[m_position + 1]) != '"') {
                if (!isLast && codeOf(text[m_position + 1]) != m_separator)
                    return Malformed;
                appendQuotedField(text + m_contentBegin, m_position - m_contentBegin);
                m_position += 2;
                m_insideQuotes = false;
                return Complete;
            }
            m_hasQuotes = true;
            m_position += 2;
        }
    }

    template <typename Character> void appendQuotedField(const Character* content, int size)
    {
        if (m_hasQuotes)
            m_fields.appendQuoted(content, size);
        else
            m_fields.append(content, size);
    }

    const ushort m_separator;
    FieldList& m_fields;
    int m_position; ///< where the next field begins; inside quotes, where to search for the next quote
    int m_contentBegin;
    bool m_insideQuotes;
    bool m_hasQuotes; ///< the quoted field contains quotes, which stand doubled in it
};

const QChar* charactersOf(const QString& text)
{
    return text.constData();
}

const char* charactersOf(const std::string& text)
{
    return text.data();
}

} // namespace

NCsvFileReader::NCsvFileReader(QIODevice* device, const QChar& separator)
    : m_textStream(new QTextStream(device))
    , m_ownsStream(true)
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
    , m_separator(separator.toLatin1())
{
}

NCsvFileReader::NCsvFileReader(QTextStream* stream, NCsvUtilities::Separator separator)
    : NCsvFileReader(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileReader::NCsvFileReader(std::istream* stream, const QChar& separator)
    : m_textStream(0)
    , m_ownsStream(false)
    , m_standardStream(stream)
    , m_separator(separator.toLatin1())
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
    if (m_textStream)
        return m_textStream->readLine();
    if (!m_standardStream)
        return QString();
    std::string line;
    readStandardLine(line);
    return QString::fromLatin1(line.data(), int(line.size()));
}

bool NCsvFileReader::parseNextLine(QStringList& fields)
{
    try {
        return m_textStream ? parseRecord<QString>(fields) : parseRecord<std::string>(fields);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool NCsvFileReader::parseFile(QList<QStringList>& records)
{
    records.clear();
    while (!atEnd()) {
        QStringList fields;
        if (!parseNextLine(fields))
            return false;
        records.append(fields);
    }
    return true;
}

template <typename Text> bool NCsvFileReader::parseRecord(QStringList& fields)
{
    FieldList list(fields);
    RecordScanner scanner(uchar(m_separator), list);
    Text text;
    for (;;) {
        if (atEnd())
            return text.size() == 0;
        if (!appendNextLine(text))
            return false;
        if (quint64(text.size()) > quint64(INT_MAX))
            return false;
        const RecordScanner::Result result = scanner.scan(charactersOf(text), int(text.size()));
        if (result != RecordScanner::Continues)
            return result == RecordScanner::Complete;
    }
}

// Returns false, as its sibling does, when the source fails before its end: asked again and again, it would give
// empty lines for ever.
bool NCsvFileReader::appendNextLine(QString& text)
{
    const QString line = m_textStream->readLine();
    if (line.isNull() && !m_textStream->atEnd())
        return false;
    if (text.isEmpty()) {
        text = line;
    } else {
        text += QLatin1Char('\n');
        text += line;
    }
    return true;
}

bool NCsvFileReader::appendNextLine(std::string& text)
{
    if (text.empty())
        return readStandardLine(text);
    std::string line;
    if (!readStandardLine(line))
        return false;
    text += '\n';
    text += line;
    return true;
}

// Returns whether a line was read or the stream is at its end, after which an empty line is read.
bool NCsvFileReader::readStandardLine(std::string& line)
{
    try {
        std::getline(*m_standardStream, line);
    } catch (const std::ios_base::failure&) {
        // The stream was told to throw; its state says what has happened all the same.
    }
    return !m_standardStream->fail() || m_standardStream->eof();
}
