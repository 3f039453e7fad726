#include <nwebapi/nwafcgipoller_p.h>

#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

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

// A descriptor that is watched for nothing is taken out, because the kernel reports its end all the same.
int operationFor(int formerEvents, int events)
{
    if (events == NwaFcgiPoller::Nothing)
        return EPOLL_CTL_DEL;
    return formerEvents == NwaFcgiPoller::Nothing ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
}

} // namespace

NwaFcgiPoller::NwaFcgiPoller()
    : m_descriptor(-1)
{
}

NwaFcgiPoller::~NwaFcgiPoller()
{
    close();
}

bool NwaFcgiPoller::open()
{
    close();
    m_descriptor = ::epoll_create1(EPOLL_CLOEXEC);
    return m_descriptor >= 0;
}

void NwaFcgiPoller::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

bool NwaFcgiPoller::watch(int descriptor, int formerEvents, int events)
{
    if (events == formerEvents)
        return true;
    struct epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = systemEvents(events);
    event.data.fd = descriptor;
    return ::epoll_ctl(m_descriptor, operationFor(formerEvents, events), descriptor, &event) == 0;
}

int NwaFcgiPoller::take(Occurrence* occurrences, int maximumCount)
{
    struct epoll_event events[LargestCount];
    const int count =
        ::epoll_wait(m_descriptor, events, maximumCount < LargestCount ? maximumCount : LargestCount, 0);
    for (int index = 0; index < count; ++index) {
        occurrences[index].descriptor = events[index].data.fd;
        occurrences[index].events = eventsOf(events[index].events);
    }
    return count > 0 ? count : 0;
}
