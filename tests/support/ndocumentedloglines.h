#ifndef NBASE_TESTS_NDOCUMENTEDLOGLINES_H
#define NBASE_TESTS_NDOCUMENTEDLOGLINES_H

#include <nbase/core/nsyslog.h>

#include <QtCore/QFile>

/** A literal, slow implementation of NSysLog::logLines()'s documentation, to which its results are compared. */
namespace NDocumentedLogLines {

/** The regular expression of a line that has one of the levels up to @a level. */
inline QRegExp pattern(int level)
{
    const QString separator = QString::fromLatin1("|");
    return QRegExp(QString::fromLatin1("(?:%1) [ 0-3]\\d \\d{2}:\\d{2}:\\d{2} [^ ]* (?:%2)\\.(?:%3) ([^: ]*): .*")
                       .arg(
                           NSysLog::S_LOG_MONTHES_LABELS.join(separator),
                           NSysLog::S_LOG_FACILITIES_LABELS.join(separator),
                           QStringList(level < 0 ? QStringList() : NSysLog::S_LOG_LEVELS_LABELS.mid(0, level + 1))
                               .join(separator)));
}

/** Whether one of @a programs is an exact match of @a program, which is not too long. */
inline bool isWanted(const QString& program, const QList<QRegExp>& programs)
{
    if (program.size() > 1024 * 1024)
        return false;
    for (const QRegExp& expression : programs) {
        if (expression.exactMatch(program))
            return true;
    }
    return false;
}

/** The lines of the file @a path that NSysLog::logLines() has to return for it. */
inline QStringList read(const QString& path, int level, const QList<QRegExp>& programs)
{
    const QRegExp expression = pattern(level);
    QStringList lines;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return lines;
    while (!file.atEnd()) {
        const QByteArray bytes = file.readLine();
        const QString line = QString::fromLatin1(bytes.constData(), bytes.size()).trimmed();
        if (expression.exactMatch(line) && isWanted(expression.cap(1), programs))
            lines.append(line);
    }
    return lines;
}

} // namespace NDocumentedLogLines

#endif
