#include <nwebapi/nwafcgipoller_p.h>

#include <string.h>
#include <sys/epoll.h>

namespace {

const int LargestCount = 32;

unsigned int systemEvents(int events)
{
    return (events & NwaFcgiPoller::Readable ? unsigned(EPOLLIN) : 0u) |
           (events & NwaFcgiPoller::Writable ? unsigned(EPOLLOUT) : 0u);
}

int eventsOf(unsigned int systemEvents)
{
    const unsigned int ends = EPOLLHUP | EPOLLERR;
    return (systemEvents & (EPOLLIN | ends) ? NwaFcgiPoller::Readable : NwaFcgiPoller::Nothing) |
           (systemEvents & (EPOLLOUT | ends) ? NwaFcgiPoller::Writable : NwaFcgiPoller::Nothing);
}

// A descriptor that is watched for nothing is removed, because the kernel would report its end nevertheless.
int operationFor(int formerEvents, int events)
{
    if (events == NwaFcgiPoller::Nothing)
        return EPOLL_CTL_DEL;
    return formerEvents == NwaFcgiPoller::Nothing ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
}

} // namespace

bool NwaFcgiPoller::open()
{
    m_epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    return m_epoll.isOpen();
}

void NwaFcgiPoller::close()
{
    m_epoll.reset();
}

bool NwaFcgiPoller::watch(int descriptor, int formerEvents, int events)
{
    if (events == formerEvents)
        return true;
    struct epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = systemEvents(events);
    event.data.fd = descriptor;
    return ::epoll_ctl(m_epoll.number(), operationFor(formerEvents, events), descriptor, &event) == 0;
}

int NwaFcgiPoller::take(Occurrence* occurrences, int maximumCount)
{
    struct epoll_event events[LargestCount];
    const int count = ::epoll_wait(m_epoll.number(), events, qMin(maximumCount, LargestCount), 0);
    for (int index = 0; index < count; ++index) {
        occurrences[index].descriptor = events[index].data.fd;
        occurrences[index].events = eventsOf(events[index].events);
    }
    return count > 0 ? count : 0;
}
