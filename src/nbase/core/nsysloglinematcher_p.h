#ifndef NBASE_NSYSLOGLINEMATCHER_P_H
#define NBASE_NSYSLOGLINEMATCHER_P_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QStringList>

/**
 * Matches a line of the system log, fed piece by piece, and locates the program in it. The result is that of the
 * regular expression in NSysLog::logLines(), in a fraction of the time. The line is not stored, so that a file
 * with an extremely long line, as left by a power loss, needs no memory.
 *
 * Positions are bytes from the start of the line.
 */
class NSysLogLineMatcher
{
public:
    /**
     * Accepts lines with these labels.
     * @param levels when empty, only an empty level is accepted.
     */
    NSysLogLineMatcher(const QStringList& months, const QStringList& facilities, const QStringList& levels);

    /** Starts a new line. */
    void startLine();

    /** Processes the next bytes of the line, without its line feed. */
    void feed(const char* begin, const char* end);

    /** Whether the bytes since startLine() are a matching line; the positions below are defined only then. */
    bool matches() const;

    /** Begin and end of the line without surrounding white space. */
    qint64 textBegin() const { return m_textBegin; }
    qint64 textEnd() const { return m_textEnd; }

    /** Begin and end of the program, including a process id in brackets. */
    qint64 programBegin() const { return m_programBegin; }
    qint64 programEnd() const { return m_programEnd; }

private:
    enum State { LeadingSpace, Time, Host, FacilityAndLevel, Program, AfterProgram, Text, NoMatch };

    const char* proceed(const char* next, const char* end);
    const char* readLeadingSpace(const char* next, const char* end);
    const char* readTime(const char* next, const char* end);
    const char* readHost(const char* next, const char* end);
    const char* readFacilityAndLevel(const char* next, const char* end);
    const char* readProgram(const char* next, const char* end);
    const char* readAfterProgram(const char* next);
    void findTextEnd(const char* begin, const char* end);

    bool fieldIsTime() const;
    bool fieldIsFacilityAndLevel() const;
    qint64 position(const char* byte) const { return m_pieceBegin + (byte - m_piece); }

    // The fields that are compared as a whole: the time "Jan  5 01:02:03 " and, at the longest, "authpriv.notice".
    enum { TimeSize = 16, FieldCapacity = 16 };

    QList<QByteArray> m_months;
    QList<QByteArray> m_facilities;
    QList<QByteArray> m_levels;

    State m_state;
    char m_field[FieldCapacity];
    int m_fieldSize;
    const char* m_piece;
    qint64 m_pieceBegin;
    qint64 m_textBegin;
    qint64 m_textEnd;
    qint64 m_programBegin;
    qint64 m_programEnd;
};

#endif
