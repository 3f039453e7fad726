#include <nbase/io/ncsvfilewriter.h>

#include <QtCore/QByteArray>
#include <QtCore/QTextStream>
#include <QtCore/QVarLengthArray>

#include <ostream>

namespace {

// Most lines fit, and need no memory of their own then.
typedef QVarLengthArray<QChar, 512> Text;

inline bool isSpecial(QChar character, QChar separator)
{
    return character == separator || character == QLatin1Char('"') || character == QLatin1Char('\r') ||
           character == QLatin1Char('\n');
}

bool needsQuotes(const QChar* text, int size, QChar separator)
{
    // Without a way out in the middle, the compiler compares eight characters at a time.
    int index = 0;
    for (; index + 8 <= size; index += 8) {
        ushort found = 0;
        for (int offset = 0; offset < 8; ++offset) {
            const ushort code = text[index + offset].unicode();
            found |= ushort(code == separator.unicode()) | ushort(code == '"') | ushort(code == '\r') |
                     ushort(code == '\n');
        }
        if (found)
            return true;
    }
    for (; index < size; ++index) {
        if (isSpecial(text[index], separator))
            return true;
    }
    return false;
}

void appendEscaped(Text& text, const QString& field, QChar separator)
{
    const QChar* const characters = field.constData();
    if (!needsQuotes(characters, field.size(), separator)) {
        text.append(characters, field.size());
        return;
    }
    text.append(QLatin1Char('"'));
    for (int index = 0; index < field.size(); ++index) {
        if (characters[index] == QLatin1Char('"'))
            text.append(QLatin1Char('"'));
        text.append(characters[index]);
    }
    text.append(QLatin1Char('"'));
}

} // namespace

NCsvFileWriter::NCsvFileWriter(QIODevice* device, const QChar& separator)
    : m_textStream(new QTextStream(device))
    , m_ownsStream(true)
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
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
    , m_standardStream(0)
    , m_separator(separator.toLatin1())
{
}

NCsvFileWriter::NCsvFileWriter(QTextStream* stream, NCsvUtilities::Separator separator)
    : NCsvFileWriter(stream, NCsvUtilities::characterFromSeparator(separator))
{
}

NCsvFileWriter::NCsvFileWriter(std::ostream* stream, const QChar& separator)
    : m_textStream(0)
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
    const QChar separator = QLatin1Char(m_separator);
    if (!needsQuotes(field.constData(), field.size(), separator))
        return field;
    Text text;
    appendEscaped(text, field, separator);
    return QString(text.constData(), text.size());
}

void NCsvFileWriter::appendLine(const QStringList& fields)
{
    if (fields.isEmpty())
        return;
    const QChar separator = QLatin1Char(m_separator);
    Text line;
    for (int index = 0; index < fields.size(); ++index) {
        if (index > 0)
            line.append(separator);
        appendEscaped(line, fields.at(index), separator);
    }
    line.append(QLatin1Char('\n'));
    write(QString::fromRawData(line.constData(), line.size()));
}

void NCsvFileWriter::write(const QString& line)
{
    if (m_textStream) {
        *m_textStream << line;
        return;
    }
    if (!m_standardStream)
        return;
    const QByteArray latin1 = line.toLatin1();
    try {
        m_standardStream->write(latin1.constData(), latin1.size());
    } catch (const std::ios_base::failure&) {
        // The stream was told to throw; its state says what has happened all the same.
    }
}
