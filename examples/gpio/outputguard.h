#ifndef NGPIO_OUTPUTGUARD_H
#define NGPIO_OUTPUTGUARD_H

#include "descriptor.h"

#include <sys/types.h>

/**
 * Drives an output to a level when this process ends, even if it crashes or is killed. A small child process has a
 * descriptor of the line, so that the line is still held then, and waits for the end of a pipe that only this
 * process has the other end of.
 */
class OutputGuard
{
public:
    OutputGuard();
    ~OutputGuard();

    /** @param line the descriptor of the line's request. @return false, with errno, if there is no guard. */
    bool start(int line, bool level);

    /** The child drives the level, and has ended when this returns. */
    void stop();

private:
    Q_DISABLE_COPY(OutputGuard)

    Descriptor m_pipe;
    pid_t m_child;
};

#endif
