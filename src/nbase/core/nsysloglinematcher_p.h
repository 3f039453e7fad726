#ifndef NBASE_NSYSLOGLINEMATCHER_P_H
#define NBASE_NSYSLOGLINEMATCHER_P_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QStringList>

/**
 * Recognises a line of the system log, given piece by piece, and finds the program in it. The answer is that of
 * the regular expression which NSysLog::logLines() documents, but it takes a fraction of the time and nothing of
 * the line is kept, so that a file of which a power loss left one endless line costs no memory.
 *
 * Positions are bytes from the start of the line.
 */
class NSysLogLineMatcher
{
public:
    /** @param levels the labels of the levels that are taken; without any, a level has to be empty. */
    explicit NSysLogLineMatcher(const QStringList& levels);

    /** Forgets the line before. */
    void startLine();

    /** Takes the next bytes of the line; the line's end is not among them. */
    void feed(const char* begin, const char* end);

    /** Whether the bytes since startLine() are such a line; the positions below are defined only if they are. */
    bool matches() const;

    /** Where the line begins and ends without the white space around it. */
    qint64 textBegin() const { return m_textBegin; }
    qint64 textEnd() const { return m_textEnd; }

    /** Where the program, with the process id in brackets if it has one, begins and ends. */
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

    // Room for what is compared as a whole, the time "Jan  5 01:02:03 " and the longest "authpriv.notice".
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
