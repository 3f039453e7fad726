#ifndef NWEBAPI_NWAFCGIPOLLER_P_H
#define NWEBAPI_NWAFCGIPOLLER_P_H

/**
 * Watches many descriptors through a single one (epoll(7)), which becomes readable when there are events to take.
 * So an event loop needs to know of no connection that comes and goes. Descriptors are watched level-triggered: an
 * event that was taken and not acted upon comes again.
 */
class NwaFcgiPoller
{
public:
    /** An error or the end of a connection counts as both, because reading and writing tell of it. */
    enum Event { Nothing = 0, Readable = 1, Writable = 2 };

    struct Occurrence
    {
        int descriptor;
        int events;
    };

    NwaFcgiPoller();
    ~NwaFcgiPoller();

    /** @return whether descriptors can be watched; errno tells why not. */
    bool open();

    /** Forgets all descriptors. */
    void close();

    /** What the event loop has to watch for reading; -1 while the poller is closed. */
    int descriptor() const { return m_descriptor; }

    /**
     * Watches @a descriptor for @a events instead of @a formerEvents, which are what it was watched for so far.
     * Before a descriptor is closed, it has to be watched for nothing. @return whether it is watched so; errno
     * tells why not.
     */
    bool watch(int descriptor, int formerEvents, int events);

    /** Takes what has happened by now, without waiting. @return how many of @a occurrences are set. */
    int take(Occurrence* occurrences, int maximumCount);

private:
    NwaFcgiPoller(const NwaFcgiPoller&);
    NwaFcgiPoller& operator=(const NwaFcgiPoller&);

    int m_descriptor;
};

#endif
