#ifndef NWEBAPI_NWAFCGIPOLLER_P_H
#define NWEBAPI_NWAFCGIPOLLER_P_H

#include <nsystem/nfiledescriptor_p.h>

/**
 * Watches many descriptors through a single one (epoll(7)), which becomes readable when there are events to take,
 * so that an event loop does not have to know each connection. Watching is level-triggered: an event that was
 * taken and not acted upon is reported again.
 */
class NwaFcgiPoller
{
public:
    /** An error or the end of a connection counts as both, because both reading and writing report it. */
    enum Event { Nothing = 0, Readable = 1, Writable = 2 };

    struct Occurrence
    {
        int descriptor;
        int events;
    };

    NwaFcgiPoller() {}

    /** Begins anew, without any descriptor. @return whether descriptors can be watched; if not, see errno. */
    bool open();

    /** Forgets all descriptors. */
    void close();

    /** What the event loop must watch for reading; -1 while the poller is closed. */
    int descriptor() const { return m_epoll.number(); }

    /**
     * Watches @a descriptor for @a events instead of @a formerEvents, which it was watched for so far. Before a
     * descriptor is closed, it must be watched for nothing.
     * @return whether it is watched; if not, see errno.
     */
    bool watch(int descriptor, int formerEvents, int events);

    /** Takes the events of this moment, without waiting. @return how many of @a occurrences are set. */
    int take(Occurrence* occurrences, int maximumCount);

private:
    Q_DISABLE_COPY(NwaFcgiPoller)

    NFileDescriptor m_epoll;
};

#endif
