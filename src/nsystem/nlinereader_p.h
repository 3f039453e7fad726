#ifndef NSYSTEM_NLINEREADER_P_H
#define NSYSTEM_NLINEREADER_P_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <stdlib.h>

#include <memory>

/**
 * Reads files line by line, one after the other with the same buffer. Of a line that is longer than the maximum,
 * only the beginning is kept in memory. No exception is thrown when memory runs out.
 */
class NLineReader
{
public:
    enum { DefaultMaximumLength = 1024 * 1024 };

    struct Line
    {
        /** The text up to the first NUL byte, as Latin-1. */
        QString textUpToNul() const;

        /** Whether the text up to the first NUL byte is complete. */
        bool isTextComplete() const;

        const char* bytes; ///< without the line feed; valid until the next line is read
        int size;
        bool isComplete; ///< false when the line is longer than the maximum
    };

    explicit NLineReader(int maximumLength = DefaultMaximumLength);

    /** Continues with @a file, an open descriptor that stays the caller's, at its current offset. */
    void start(int file);

    /** Gets the next line; the last one may lack its line feed. @return false at the end of the file or on
     * failure. */
    bool next(Line* line);

    /** Whether reading failed, with errno of that failure; the end of the file is no failure. */
    bool hasFailed() const { return m_hasFailed; }

private:
    Q_DISABLE_COPY(NLineReader)

    struct Free
    {
        void operator()(char* memory) const { ::free(memory); }
    };

    bool take(Line* line);
    bool give(Line* line, int length, int separator, bool isComplete);
    bool fill();
    bool makeRoom();

    const int m_maximumLength;
    std::unique_ptr<char, Free> m_buffer;
    int m_capacity;
    int m_file;
    int m_begin;
    int m_end;
    bool m_isInsideLine; ///< the bytes before m_begin belong to the same line as those after it
    bool m_hasFailed;
};

#endif
