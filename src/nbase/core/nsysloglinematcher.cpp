#include <nbase/core/nsysloglinematcher_p.h>

#include <string.h>

namespace {

// QString::trimmed() uses QChar::isSpace(), whose result for 0x85 differs between Qt 4 and Qt 5.
bool isSpace(char byte)
{
    return QChar(QLatin1Char(byte)).isSpace();
}

bool isDigit(char byte)
{
    return byte >= '0' && byte <= '9';
}

QList<QByteArray> toLatin1(const QStringList& texts)
{
    QList<QByteArray> result;
    for (const QString& text : texts)
        result.append(text.toLatin1());
    return result;
}

bool contains(const QList<QByteArray>& labels, const char* text, int size)
{
    for (int index = 0; index < labels.size(); ++index) {
        const QByteArray& label = labels.at(index);
        if (label.size() == size && memcmp(label.constData(), text, size) == 0)
            return true;
    }
    return false;
}

} // namespace

NSysLogLineMatcher::NSysLogLineMatcher(
    const QStringList& months, const QStringList& facilities, const QStringList& levels)
    : m_months(toLatin1(months))
    , m_facilities(toLatin1(facilities))
    , m_levels(toLatin1(levels))
{
    // An empty alternative of a regular expression, "(?:)", matches the empty text.
    if (m_levels.isEmpty())
        m_levels.append(QByteArray());
    startLine();
}

void NSysLogLineMatcher::startLine()
{
    m_state = LeadingSpace;
    m_fieldSize = 0;
    m_piece = nullptr;
    m_pieceBegin = 0;
    m_textBegin = 0;
    m_textEnd = 0;
    m_programBegin = 0;
    m_programEnd = 0;
}

void NSysLogLineMatcher::feed(const char* begin, const char* end)
{
    m_piece = begin;
    const char* next = begin;
    while (next != end && m_state < Text)
        next = proceed(next, end);
    if (m_state == Text)
        findTextEnd(begin, end);
    m_pieceBegin += end - begin;
}

// The blank after the program's colon is part of the form. It must be followed by text; otherwise it is white
// space at the end of the line.
bool NSysLogLineMatcher::matches() const
{
    return m_state == Text && m_textEnd > m_programEnd + 2;
}

const char* NSysLogLineMatcher::proceed(const char* next, const char* end)
{
    switch (m_state) {
    case LeadingSpace:
        return readLeadingSpace(next, end);
    case Time:
        return readTime(next, end);
    case Host:
        return readHost(next, end);
    case FacilityAndLevel:
        return readFacilityAndLevel(next, end);
    case Program:
        return readProgram(next, end);
    case AfterProgram:
        return readAfterProgram(next);
    case Text:
    case NoMatch:
        break;
    }
    return end;
}

const char* NSysLogLineMatcher::readLeadingSpace(const char* next, const char* end)
{
    while (next != end && isSpace(*next))
        ++next;
    if (next != end) {
        m_textBegin = position(next);
        m_state = Time;
    }
    return next;
}

const char* NSysLogLineMatcher::readTime(const char* next, const char* end)
{
    const int size = int(qMin(qint64(TimeSize - m_fieldSize), qint64(end - next)));
    memcpy(m_field + m_fieldSize, next, size);
    m_fieldSize += size;
    if (m_fieldSize == TimeSize)
        m_state = fieldIsTime() ? Host : NoMatch;
    return next + size;
}

const char* NSysLogLineMatcher::readHost(const char* next, const char* end)
{
    const char* blank = static_cast<const char*>(memchr(next, ' ', end - next));
    if (!blank)
        return end;
    m_fieldSize = 0;
    m_state = FacilityAndLevel;
    return blank + 1;
}

const char* NSysLogLineMatcher::readFacilityAndLevel(const char* next, const char* end)
{
    while (next != end && *next != ' ') {
        if (m_fieldSize == FieldCapacity) {
            m_state = NoMatch;
            return end;
        }
        m_field[m_fieldSize++] = *next++;
    }
    if (next == end)
        return end;
    m_programBegin = position(next + 1);
    m_state = fieldIsFacilityAndLevel() ? Program : NoMatch;
    return next + 1;
}

const char* NSysLogLineMatcher::readProgram(const char* next, const char* end)
{
    while (next != end && *next != ':' && *next != ' ')
        ++next;
    if (next == end)
        return end;
    m_programEnd = position(next);
    m_state = *next == ':' ? AfterProgram : NoMatch;
    return next + 1;
}

const char* NSysLogLineMatcher::readAfterProgram(const char* next)
{
    m_state = *next == ' ' ? Text : NoMatch;
    return next + 1;
}

void NSysLogLineMatcher::findTextEnd(const char* begin, const char* end)
{
    while (end != begin && isSpace(end[-1]))
        --end;
    if (end != begin)
        m_textEnd = position(end);
}

bool NSysLogLineMatcher::fieldIsTime() const
{
    static const char Shape[] = "Mmm ?9 99:99:99 ";
    const int monthSize = 3;
    for (int index = monthSize; index < TimeSize; ++index) {
        const char byte = m_field[index];
        if (Shape[index] == '9' ? !isDigit(byte) : Shape[index] != '?' && byte != Shape[index])
            return false;
    }
    const char tens = m_field[monthSize + 1];
    return (tens == ' ' || (tens >= '0' && tens <= '3')) && contains(m_months, m_field, monthSize);
}

bool NSysLogLineMatcher::fieldIsFacilityAndLevel() const
{
    const char* dot = static_cast<const char*>(memchr(m_field, '.', m_fieldSize));
    if (!dot)
        return false;
    const int facilitySize = int(dot - m_field);
    return contains(m_levels, dot + 1, m_fieldSize - facilitySize - 1) &&
           contains(m_facilities, m_field, facilitySize);
}
