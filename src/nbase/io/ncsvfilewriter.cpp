#include <nbase/io/ncsvfilewriter.h>

#include <nbase/io/ncsvtext_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QTextStream>

#include <limits.h>
#include <new>
#include <ostream>
#include <string.h>

namespace {

// The memory of a longer line is released.
const int KeptLineCapacity = 16 * 1024;

// Writes fields into a line, quoted where necessary.
class FieldWriter
{
public:
    explicit FieldWriter(QChar separator)
        : m_separators(separator)
        , m_quotes(QLatin1Char('"'))
        , m_carriageReturns(QLatin1Char('\r'))
        , m_lineFeeds(QLatin1Char('\n'))
        , m_padding(QLatin1Char(separator == QLatin1Char('x') ? 'y' : 'x'))
    {
    }

    // Room for any field of this size and one more character: all its characters may be quotes.
    static qint64 roomFor(int size) { return 2 * qint64(size) + 2 + NCsvText::Four; }

    // Writes a field and returns its end. Memory behind the end, within the room, may be overwritten.
    QChar* write(const QString& field, QChar* to) const
    {
        QChar* const end = to + field.size();
        memcpy(static_cast<void*>(to), field.constData(), size_t(field.size()) * sizeof(QChar));
        memcpy(static_cast<void*>(end), &m_padding, sizeof(m_padding));
        return needsQuotes(to, end) ? writeQuoted(field, to) : end;
    }

    // Writes a field in quotes and returns its end.
    static QChar* writeQuoted(const QString& field, QChar* to)
    {
        const QChar* from = field.constData();
        const QChar* const end = from + field.size();
        *to++ = QLatin1Char('"');
        for (;;) {
            NCsvText::copyUpTo(QLatin1Char('"'), from, end, to);
            if (from == end)
                break;
            *to++ = *from++;
            *to++ = QLatin1Char('"');
        }
        *to++ = QLatin1Char('"');
        return to;
    }

private:
    // Examines four characters at a time, the last ones with padding.
    bool needsQuotes(const QChar* text, const QChar* end) const
    {
        for (; text < end; text += NCsvText::Four) {
            const NCsvText::FourCharacters::Vector four = NCsvText::FourCharacters(text).vector;
            if (NCsvText::isAny(
                    (four == m_separators.vector) | (four == m_quotes.vector) |
                    (four == m_carriageReturns.vector) | (four == m_lineFeeds.vector)))
                return true;
        }
        return false;
    }

    const NCsvText::FourCharacters m_separators;
    const NCsvText::FourCharacters m_quotes;
    const NCsvText::FourCharacters m_carriageReturns;
    const NCsvText::FourCharacters m_lineFeeds;
    const NCsvText::FourCharacters m_padding; ///< characters that need no quotes
};

// A field as it is written. It has its own memory only if it needs quotes.
QString escaped(const QString& field, QChar separator)
{
    const QChar quote = QLatin1Char('"');
    if (!field.contains(separator) && !field.contains(quote) && !field.contains(QLatin1Char('\r')) &&
        !field.contains(QLatin1Char('\n')))
        return field;
    const qint64 size = qint64(field.size()) + field.count(quote) + 2;
    if (size > INT_MAX)
        throw std::bad_alloc();
    QString quoted(int(size), Qt::Uninitialized);
    FieldWriter::writeQuoted(field, quoted.data());
    return quoted;
}

} // namespace

NCsvFileWriter::NCsvFileWriter(QIODevice* device, const QChar& separator)
    : m_textStream(new QTextStream(device))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(QIODevice* device, NCsvUtilities::Separator separator)
    : NCsvFileWriter(device, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::NCsvFileWriter(QString* string, const QChar& separator)
    : m_textStream(new QTextStream(string, QIODevice::WriteOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(QString* string, NCsvUtilities::Separator separator)
    : NCsvFileWriter(string, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::NCsvFileWriter(QByteArray* array, const QChar& separator)
    : m_textStream(new QTextStream(array, QIODevice::WriteOnly))
    , m_ownsStream(true)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(QByteArray* array, NCsvUtilities::Separator separator)
    : NCsvFileWriter(array, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::NCsvFileWriter(QTextStream* stream, const QChar& separator)
    : m_textStream(stream)
    , m_ownsStream(false)
    , m_standardStream(nullptr)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(QTextStream* stream, NCsvUtilities::Separator separator)
    : NCsvFileWriter(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::NCsvFileWriter(std::ostream* stream, const QChar& separator)
    : m_textStream(nullptr)
    , m_ownsStream(false)
    , m_standardStream(stream)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(std::ostream* stream, NCsvUtilities::Separator separator)
    : NCsvFileWriter(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::~NCsvFileWriter()
{
    if (m_ownsStream)
        delete m_textStream;
}

QString NCsvFileWriter::escapeString(const QString& field) const
{
    try {
        return escaped(field, QLatin1Char(m_separator));
    } catch (const std::bad_alloc&) {
        return QString();
    }
}

void NCsvFileWriter::appendLine(const QStringList& fields)
{
    if (fields.isEmpty())
        return;
    try {
        if (m_textStream && m_textStream->fieldWidth() != 0) {
            writeEachString(fields);
        } else {
            putTogether(fields);
            write();
        }
    } catch (const std::bad_alloc&) {
        refuse();
    }
    if (m_line.capacity() > KeptLineCapacity)
        m_line = QString();
}

void NCsvFileWriter::putTogether(const QStringList& fields)
{
    m_line.resize(m_line.capacity());
    const QChar separator = QLatin1Char(m_separator);
    const FieldWriter writer(separator);
    int size = 0;
    for (int index = 0; index < fields.size(); ++index) {
        const QString& field = fields.at(index);
        reserve(size + FieldWriter::roomFor(field.size()));
        QChar* const line = m_line.data();
        QChar* const end = writer.write(field, line + size);
        *end = separator;
        size = int(end - line) + 1;
    }
    m_line[size - 1] = QLatin1Char('\n');
    m_line.resize(size);
}

// Growing by at least half keeps the cost of a line proportional to its length.
void NCsvFileWriter::reserve(qint64 size)
{
    if (size <= m_line.size())
        return;
    if (size > INT_MAX)
        throw std::bad_alloc();
    m_line.resize(int(qMin(qint64(INT_MAX), qMax(size, m_line.size() + qint64(m_line.size() / 2)))));
}

void NCsvFileWriter::write()
{
    if (m_textStream) {
        *m_textStream << m_line;
    } else if (m_standardStream) {
        const QByteArray latin1 = m_line.toLatin1();
        try {
            m_standardStream->write(latin1.constData(), latin1.size());
        } catch (const std::ios_base::failure&) {
            // The application enabled exceptions for the stream. Its state reports the failure as well.
        }
    }
}

// A stream with a field width pads each string that is written to it.
void NCsvFileWriter::writeEachString(const QStringList& fields)
{
    const QChar separator = QLatin1Char(m_separator);
    QStringList strings;
    for (const QString& field : fields)
        strings << escaped(field, separator) << QString(separator);
    strings.last() = QString(QLatin1Char('\n'));
    for (int index = 0; index < strings.size(); ++index)
        *m_textStream << strings.at(index);
}

// A record for which there is not enough memory is left out completely, and the stream's state reports it.
void NCsvFileWriter::refuse()
{
    if (m_textStream) {
        m_textStream->setStatus(QTextStream::WriteFailed);
    } else if (m_standardStream) {
        try {
            m_standardStream->setstate(std::ios_base::badbit);
        } catch (const std::ios_base::failure&) {
            // As in write().
        }
    }
}
