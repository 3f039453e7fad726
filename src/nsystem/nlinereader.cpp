#include <nsystem/nlinereader_p.h>

#include <nsystem/nsystemcall_p.h>

#include <string.h>

namespace {

const int FirstCapacity = 16 * 1024;

} // namespace

QString NLineReader::Line::textUpToNul() const
{
    return QString::fromLatin1(bytes, int(::strnlen(bytes, size_t(size))));
}

bool NLineReader::Line::isTextComplete() const
{
    return isComplete || ::memchr(bytes, '\0', size_t(size)) != nullptr;
}

NLineReader::NLineReader(int maximumLength)
    : m_maximumLength(maximumLength)
    , m_capacity(0)
{
    start(-1);
}

void NLineReader::start(int file)
{
    m_file = file;
    m_begin = 0;
    m_end = 0;
    m_isInsideLine = false;
    m_hasFailed = false;
}

bool NLineReader::next(Line* line)
{
    while (m_isInsideLine && take(line)) {
    }
    return take(line);
}

// Takes the rest of the current line, or as much of it as the maximum allows.
bool NLineReader::take(Line* line)
{
    int length = 0;
    forever {
        const char* const begin = m_buffer.get() + m_begin;
        const int available = m_end - m_begin;
        const void* const lineFeed =
            available > length ? ::memchr(begin + length, '\n', size_t(available - length)) : nullptr;
        if (lineFeed)
            return give(line, int(static_cast<const char*>(lineFeed) - begin), 1, true);
        length = available;
        if (length >= m_maximumLength)
            return give(line, length, 0, false);
        if (!fill())
            return length > 0 && !m_hasFailed && give(line, length, 0, true);
    }
}

bool NLineReader::give(Line* line, int length, int separator, bool isComplete)
{
    line->bytes = m_buffer.get() + m_begin;
    line->size = length;
    line->isComplete = isComplete;
    m_begin += length + separator;
    m_isInsideLine = !isComplete;
    return true;
}

bool NLineReader::fill()
{
    const ssize_t count =
        makeRoom() ? NSystem::read(m_file, m_buffer.get() + m_end, size_t(m_capacity - m_end)) : ssize_t(-1);
    m_hasFailed = count < 0;
    if (count <= 0)
        return false;
    m_end += int(count);
    return true;
}

bool NLineReader::makeRoom()
{
    if (m_begin > 0) {
        ::memmove(m_buffer.get(), m_buffer.get() + m_begin, size_t(m_end - m_begin));
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end < m_capacity)
        return true;
    const int capacity = m_capacity == 0 ? qMin(FirstCapacity, m_maximumLength)
                                         : int(qMin(2 * qint64(m_capacity), qint64(m_maximumLength)));
    char* const former = m_buffer.release();
    char* const larger = static_cast<char*>(::realloc(former, size_t(capacity)));
    m_buffer.reset(larger ? larger : former);
    if (!larger)
        return false;
    m_capacity = capacity;
    return true;
}
