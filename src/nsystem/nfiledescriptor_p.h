#ifndef NSYSTEM_NFILEDESCRIPTOR_P_H
#define NSYSTEM_NFILEDESCRIPTOR_P_H

#include <QtCore/QtGlobal>

/** Owns a file descriptor and closes it at the end of its scope. It can be moved, not copied. */
class NFileDescriptor
{
public:
    /** Owns nothing. */
    NFileDescriptor()
        : m_number(-1)
    {
    }

    /** Owns @a number; a negative one, as system calls return it on failure, is none. */
    explicit NFileDescriptor(int number)
        : m_number(number)
    {
    }

    NFileDescriptor(NFileDescriptor&& other)
        : m_number(other.release())
    {
    }

    NFileDescriptor& operator=(NFileDescriptor&& other)
    {
        reset(other.release());
        return *this;
    }

    /** Closes the descriptor and leaves errno as it is. */
    ~NFileDescriptor() { reset(); }

    bool isOpen() const { return m_number >= 0; }

    /** The descriptor for system calls, which stays owned; -1 if there is none. */
    int number() const { return m_number; }

    /** Gives the descriptor, or -1, to the caller, who must close it. */
    int release()
    {
        const int number = m_number;
        m_number = -1;
        return number;
    }

    /** Closes the descriptor, leaving errno as it is, and owns @a number instead. */
    void reset(int number = -1);

    /**
     * Closes the descriptor, if there is one. It is closed whatever the result; an interrupted close() counts as
     * a success, because Linux releases the descriptor first (close(2)).
     * @return false, with errno, when an earlier write has failed after all.
     */
    bool close();

private:
    Q_DISABLE_COPY(NFileDescriptor)

    int m_number;
};

#endif
