#include <nbase/core/nsyslog.h>

#include <nbase/core/nsysloglinematcher_p.h>
#include <nbase/nbaseqtcompat_p.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace {

const char DroppedMessagePrefix[] = "QWSLock::";

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

QString programFileName()
{
    return QFileInfo(NBaseQtCompat::symbolicLinkTarget(latin1("/proc/self/exe"))).fileName();
}

// Includes the terminating NUL; the caller owns it.
char* newIdentity(const QString& ident)
{
    const QByteArray latin1 = (ident.isNull() ? programFileName() : ident).toLatin1();
    char* identity = new char[latin1.size() + 1];
    memcpy(identity, latin1.constData(), latin1.size());
    identity[latin1.size()] = '\0';
    return identity;
}

QStringList labelsUpTo(int level)
{
    if (level < 0)
        return QStringList();
    return NSysLog::S_LOG_LEVELS_LABELS.mid(0, qMin(level, int(NSysLog::Debug)) + 1);
}

// All are opened before any is read, so that a log rotated meanwhile is neither missed nor read twice.
std::vector<NFileDescriptor> openRegularFiles(const QStringList& paths)
{
    std::vector<NFileDescriptor> files;
    for (const QString& path : paths) {
        NFileDescriptor file = NSystem::openRegularFile(QFile::encodeName(path).constData());
        if (file.isOpen())
            files.push_back(std::move(file));
    }
    return files;
}

// Caches which programs are wanted, because a log repeats few names. It holds a fixed number of short names; a new
// name replaces another.
class ProgramFilter
{
public:
    explicit ProgramFilter(const QList<QRegExp>& wanted);

    bool isWanted(const char* program, int size);
    bool isWanted(const QString& program) const;

private:
    struct Answer
    {
        QByteArray program; // null when there is no answer yet
        bool isWanted;
    };

    enum { AnswerCount = 64, LongestRemembered = 64 };

    const QList<QRegExp>& m_wanted;
    Answer m_answers[AnswerCount];
};

ProgramFilter::ProgramFilter(const QList<QRegExp>& wanted)
    : m_wanted(wanted)
{
}

bool ProgramFilter::isWanted(const char* program, int size)
{
    if (size > LongestRemembered)
        return isWanted(QString::fromLatin1(program, size));
    quint32 hash = 0;
    for (int index = 0; index < size; ++index)
        hash = hash * 31 + uchar(program[index]);
    Answer& answer = m_answers[hash % AnswerCount];
    if (answer.program.isNull() || answer.program.size() != size ||
        memcmp(answer.program.constData(), program, size) != 0) {
        answer.program = QByteArray(program, size);
        answer.isWanted = isWanted(QString::fromLatin1(program, size));
    }
    return answer.isWanted;
}

bool ProgramFilter::isWanted(const QString& program) const
{
    for (int index = 0; index < m_wanted.size(); ++index) {
        if (m_wanted.at(index).exactMatch(program))
            return true;
    }
    return false;
}

// Reads log files block by block and collects the wanted lines. A line is copied from its block; a line that
// extends over several blocks is read from the file again if it is wanted.
//
// The files are not mapped: a log that is truncated meanwhile would terminate the process with SIGBUS.
class LogReader
{
public:
    LogReader(const QStringList& levels, const QList<QRegExp>& programs);

    void read(const NFileDescriptor& file);
    QStringList lines() const { return m_lines; }

private:
    void readBlock(const NFileDescriptor& file, qint64 blockOffset, const char* end);
    void endLine(const NFileDescriptor& file);
    bool programIsWanted(const NFileDescriptor& file);
    QString line(const NFileDescriptor& file) const;
    static QString readAgain(const NFileDescriptor& file, qint64 offset, qint64 size);

    // In a damaged log a program can be of any length, and the expressions need it as a whole.
    enum { BlockSize = 128 * 1024, LongestProgram = 1024 * 1024 };

    NSysLogLineMatcher m_matcher;
    ProgramFilter m_programs;
    QStringList m_lines;
    QScopedArrayPointer<char> m_block;
    const char* m_lineInBlock; // null when the line began in an earlier block
    qint64 m_lineOffset;
};

LogReader::LogReader(const QStringList& levels, const QList<QRegExp>& programs)
    : m_matcher(NSysLog::S_LOG_MONTHES_LABELS, NSysLog::S_LOG_FACILITIES_LABELS, levels)
    , m_programs(programs)
    , m_block(new char[BlockSize])
    , m_lineInBlock(nullptr)
    , m_lineOffset(0)
{
}

void LogReader::read(const NFileDescriptor& file)
{
    m_matcher.startLine();
    m_lineOffset = 0;
    qint64 offset = 0;
    forever {
        const ssize_t size = NSystem::read(file.number(), m_block.data(), BlockSize);
        if (size <= 0)
            break;
        readBlock(file, offset, m_block.data() + size);
        offset += size;
    }
    endLine(file);
}

void LogReader::readBlock(const NFileDescriptor& file, qint64 blockOffset, const char* end)
{
    const char* next = m_block.data();
    m_lineInBlock = m_lineOffset == blockOffset ? next : nullptr;
    while (const char* newLine = static_cast<const char*>(memchr(next, '\n', end - next))) {
        m_matcher.feed(next, newLine);
        endLine(file);
        next = newLine + 1;
        m_lineInBlock = next;
        m_lineOffset = blockOffset + (next - m_block.data());
    }
    m_matcher.feed(next, end);
    m_lineInBlock = nullptr;
}

void LogReader::endLine(const NFileDescriptor& file)
{
    if (m_matcher.matches() && programIsWanted(file)) {
        const QString text = line(file);
        if (!text.isEmpty())
            m_lines.append(text);
    }
    m_matcher.startLine();
}

bool LogReader::programIsWanted(const NFileDescriptor& file)
{
    const qint64 begin = m_matcher.programBegin();
    const qint64 size = m_matcher.programEnd() - begin;
    if (size > LongestProgram)
        return false;
    if (m_lineInBlock)
        return m_programs.isWanted(m_lineInBlock + begin, int(size));
    return m_programs.isWanted(readAgain(file, m_lineOffset + begin, size));
}

QString LogReader::line(const NFileDescriptor& file) const
{
    const qint64 begin = m_matcher.textBegin();
    const qint64 size = m_matcher.textEnd() - begin;
    if (m_lineInBlock)
        return QString::fromLatin1(m_lineInBlock + begin, int(size));
    return readAgain(file, m_lineOffset + begin, size);
}

// Returns a null string when the file has been truncated, or when the text exceeds the size of a string.
QString LogReader::readAgain(const NFileDescriptor& file, qint64 offset, qint64 size)
{
    const qint64 longestText = INT_MAX / 2 - 64;
    QString text;
    if (size > longestText)
        return text;
    text.reserve(int(size));
    while (text.size() < size) {
        char piece[4096];
        const size_t pieceSize = size_t(qMin(size - text.size(), qint64(sizeof(piece))));
        const ssize_t count = NSystem::retried(
            [&]() { return ::pread(file.number(), piece, pieceSize, off_t(offset + text.size())); });
        if (count <= 0)
            break;
        text += QString::fromLatin1(piece, int(count));
    }
    return text.size() == size ? text : QString();
}

} // namespace

const QStringList NSysLog::S_LOG_LEVELS_LABELS = words("emerg alert crit err warn notice info debug");

const QStringList NSysLog::S_LOG_FACILITIES_LABELS =
    words("kern user mail daemon auth syslog lpr news uucp cron authpriv ftp "
          "local0 local1 local2 local3 local4 local5 local6 local7");

const QStringList NSysLog::S_LOG_MONTHES_LABELS = words("Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec");

void NSysLogMsgHandler(QtMsgType type, const char* msg)
{
    if (qstrncmp(msg, DroppedMessagePrefix, sizeof(DroppedMessagePrefix) - 1) == 0)
        return;
    // Compared as numbers: Qt 5 has one more type, QtInfoMsg, which is ignored.
    switch (int(type)) {
    case QtDebugMsg:
        syslog(LOG_DEBUG, "%s", msg);
        break;
    case QtWarningMsg:
        syslog(LOG_WARNING, "%s", msg);
        break;
    case QtCriticalMsg:
        syslog(LOG_CRIT, "%s", msg);
        break;
    case QtFatalMsg:
        syslog(LOG_ALERT, "%s", msg);
        abort();
    }
}

NSysLog::NSysLog(const QString& ident, int option, int facility, const QStringList& logFiles, QObject* parent)
    : QObject(parent)
    , m_identity(newIdentity(ident))
    , m_logFiles(logFiles)
{
    qRegisterMetaType<NSysLog::LogLevels>("LogLevels");
    openlog(m_identity.data(), option, facility);
}

NSysLog::NSysLog(int option, int facility, const QStringList& logFiles, QObject* parent)
    : NSysLog(QString(), option, facility, logFiles, parent)
{
}

NSysLog::~NSysLog() {}

void NSysLog::setAsQtMsgHandler()
{
    NBaseQtCompat::installMessageHandler<NSysLogMsgHandler>();
}

QStringList NSysLog::logLines(NSysLog::LogLevels level, const QList<QRegExp>& programs) const
{
    if (programs.isEmpty())
        return QStringList();
    const std::vector<NFileDescriptor> files = openRegularFiles(m_logFiles);
    LogReader reader(labelsUpTo(level), programs);
    for (const NFileDescriptor& file : files)
        reader.read(file);
    return reader.lines();
}

void NSysLog::log(LogLevels level, const QString& line)
{
    syslog(level, "%s", line.toLatin1().constData());
}
