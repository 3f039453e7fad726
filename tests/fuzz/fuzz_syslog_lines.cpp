// Reads a log file with arbitrary content with NSysLog::logLines(), whose result must agree with the documented
// regular expression. The first byte selects the level, the rest is the file.

#include <nbase/core/nsyslog.h>

#include "support/ndocumentedloglines.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// A file in memory that has a path.
class MemoryFile
{
public:
    MemoryFile()
        : m_file(::memfd_create("log", MFD_CLOEXEC))
    {
    }

    QString path() const { return QString::fromLatin1("/proc/self/fd/%1").arg(m_file); }

    void setContent(const uint8_t* content, size_t size)
    {
        if (::ftruncate(m_file, 0) != 0 || ::pwrite(m_file, content, size, 0) != ssize_t(size)) {
            perror("cannot write the file in memory");
            abort();
        }
    }

private:
    int m_file;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile file;
    static const NSysLog log(0, LOG_USER, QStringList(file.path()), nullptr);
    static const QList<QRegExp> programs = QList<QRegExp>() << QRegExp(QString::fromLatin1("dhcpd\\[\\d+\\]"))
                                                            << QRegExp(QString::fromLatin1("[^s]*"));
    if (size == 0)
        return 0;
    const NSysLog::LogLevels level = NSysLog::LogLevels(data[0] % NSysLog::S_LOG_LEVELS_LABELS.size());
    file.setContent(data + 1, size - 1);
    if (log.logLines(level, programs) != NDocumentedLogLines::read(file.path(), level, programs))
        abort();
    return 0;
}
