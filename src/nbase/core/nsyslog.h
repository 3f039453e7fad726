#ifndef NBASE_NSYSLOG_H
#define NBASE_NSYSLOG_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QList>
#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QRegExp>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>

/**
 * Sends Qt's messages to the system log. qDebug() becomes a line of the priority LOG_DEBUG, qWarning()
 * LOG_WARNING, qCritical() LOG_CRIT and qFatal() LOG_ALERT, after which the process is aborted; messages of any
 * other type are ignored. Messages that begin with "QWSLock::" are dropped whatever their type, because the
 * embedded window system repeats them endlessly. A dropped fatal message does not abort here, but Qt itself may
 * abort afterwards.
 *
 * It is installed with NSysLog::setAsQtMsgHandler(). Identity and facility of the lines are those of the newest
 * NSysLog of the process, or the defaults of syslog(3) when there was none. Thread-safe, as syslog(3) is.
 */
NBASE_EXPORT void NSysLogMsgHandler(QtMsgType type, const char* msg);

/**
 * The process's connection to the system log, see syslog(3): it writes lines, and reads lines back from the text
 * files that the syslog daemon writes.
 *
 * A process has one connection; the newest NSysLog determines its identity, options and facility, for Qt's
 * messages as well. syslog(3) keeps a pointer to the identity, which this object owns; the destructor releases it
 * and does not call closelog(3). Therefore the newest NSysLog must live as long as anything in the process logs:
 * after its destruction, another one must be constructed before the next line is written.
 *
 * log() and logLines() may be called from any thread, as long as no two threads use the same expressions at once.
 * All other operations must be called on the object's thread.
 */
class NBASE_EXPORT NSysLog : public QObject
{
    Q_OBJECT

public:
    /** The severity of a line: the priorities of syslog(3), 0 is the most severe. */
    enum LogLevels {
        Emergency = 0,     ///< "emerg": the system is unusable
        Alert = 1,         ///< "alert": action must be taken at once
        Critical = 2,      ///< "crit"
        Error = 3,         ///< "err"
        Warning = 4,       ///< "warn"
        Notice = 5,        ///< "notice": normal, but significant
        Informational = 6, ///< "info"
        Debug = 7          ///< "debug"
    };

    /** The levels as written in a log file; the index is the level's value. */
    static const QStringList S_LOG_LEVELS_LABELS;

    /** The facilities as written in a log file. Lines of other facilities are never read back. */
    static const QStringList S_LOG_FACILITIES_LABELS;

    /** The months as written in a log file, from January on. */
    static const QStringList S_LOG_MONTHES_LABELS;

    /**
     * Opens the connection with openlog(3).
     * @param ident the name put before each line, converted to Latin-1. A null string stands for the file name of
     *        the running program; an empty one stays empty.
     * @param option the option flags of openlog(3), for example LOG_PID.
     * @param facility the facility of openlog(3), for example LOG_DAEMON.
     * @param logFiles absolute paths of the text files of the syslog daemon that logLines() reads, in this order.
     */
    NSysLog(const QString& ident, int option, int facility, const QStringList& logFiles, QObject* parent);

    /** Opens the connection with the file name of the running program as identity. */
    NSysLog(int option, int facility, const QStringList& logFiles, QObject* parent);

    /** Releases the identity; see the description of the class for lines written later. */
    ~NSysLog() override;

    /** Installs NSysLogMsgHandler() for the process. The previous handler is not restored later. */
    static void setAsQtMsgHandler();

    /**
     * Reads lines back from the log files, those of the first file first.
     *
     * A line has the form "Mmm dd hh:mm:ss host facility.level program: text", for example
     * "Jan  5 01:02:03 box daemon.err dhcpd[311]: no lease". It is accepted when, without surrounding white space,
     * it exactly matches the regular expression
     * @code
     *   (?:months) [ 0-3]\d \d{2}:\d{2}:\d{2} [^ ]* (?:facilities)\.(?:levels) ([^: ]*): .*
     * @endcode
     * where months and facilities are the labels above joined with "|", and levels are the labels of @a level and
     * of all more severe levels. Lines are Latin-1.
     *
     * All files are opened before the first is read, so that a concurrent rotation loses no lines. Memory is
     * needed only for the result, however long a file or one of its lines is. For this reason a line whose program
     * is longer than 1 MiB, which no daemon writes, is not accepted, nor is one of 1 GiB or more, which a string
     * cannot hold. No event loop is needed.
     *
     * @param level the least severe level that is accepted. A negative value accepts no level, so that only lines
     * with nothing after the "." can match.
     * @param programs a line is accepted when one of these exactly matches its program, which includes a process
     * id in brackets ("dhcpd[311]"). Without any expression no line is accepted.
     * @return the lines without surrounding white space. Files that are missing, cannot be opened or are not
     * regular files (a pipe could block the caller) are silently skipped, and so are lines of any other form.
     */
    QStringList logLines(NSysLog::LogLevels level, const QList<QRegExp>& programs) const;

    // The type is written without its class because moc copies it literally, and applications connect to
    // SLOT(log(LogLevels,QString)).
public slots:
    /**
     * Writes one line with syslog(3), with the facility of the newest NSysLog. Failure is not reported.
     *
     * In Qt 4 a signal connected to it must declare the type of its argument as "LogLevels" as well, for example
     * with `typedef NSysLog::LogLevels LogLevels;`. The type is registered for queued connections under that name.
     * @param line converted to Latin-1; other characters become "?".
     */
    void log(LogLevels level, const QString& line);

private:
    Q_DISABLE_COPY(NSysLog)

    QScopedArrayPointer<char> m_identity;
    QStringList m_logFiles;
};

Q_DECLARE_METATYPE(NSysLog::LogLevels)

#endif
