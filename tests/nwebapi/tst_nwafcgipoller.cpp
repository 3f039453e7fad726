#include <nwebapi/nwafcgipoller_p.h>

#include <QtTest/QtTest>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool isReadable(int descriptor)
{
    struct pollfd state = {descriptor, POLLIN, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & POLLIN);
}

} // namespace

class tst_NwaFcgiPoller : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void closedPollerReportsNothing();
    void descriptorIsReadableWhileThereAreEvents();
    void eventsAreReportedUntilTheyAreHandled();
    void onlyWatchedEventsAreReported();
    void endIsBothReadableAndWritable();
    void endOfAnUnwatchedDescriptorIsNotReported();
    void noMoreEventsAreTakenThanRequested();
    void descriptorThatCannotBeWatchedIsRefused();
    void closingForgetsTheDescriptors();
    void descriptorIsNotInherited();

private:
    int taken();

    NwaFcgiPoller m_poller;
    NwaFcgiPoller::Occurrence m_occurrences[4];
    int m_sockets[2];
};

void tst_NwaFcgiPoller::init()
{
    QVERIFY(m_poller.open());
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets), 0);
}

void tst_NwaFcgiPoller::cleanup()
{
    m_poller.close();
    ::close(m_sockets[0]);
    ::close(m_sockets[1]);
}

int tst_NwaFcgiPoller::taken()
{
    return m_poller.take(m_occurrences, 4);
}

void tst_NwaFcgiPoller::closedPollerReportsNothing()
{
    NwaFcgiPoller closed;
    QCOMPARE(closed.descriptor(), -1);
    QCOMPARE(closed.take(m_occurrences, 4), 0);
    QVERIFY(!closed.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
}

void tst_NwaFcgiPoller::descriptorIsReadableWhileThereAreEvents()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    QVERIFY(!isReadable(m_poller.descriptor()));
    QCOMPARE(taken(), 0);
    QCOMPARE(::write(m_sockets[1], "x", 1), ssize_t(1));
    QVERIFY(isReadable(m_poller.descriptor()));
}

void tst_NwaFcgiPoller::eventsAreReportedUntilTheyAreHandled()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    QCOMPARE(::write(m_sockets[1], "x", 1), ssize_t(1));
    for (int round = 0; round < 2; ++round) {
        QCOMPARE(taken(), 1);
        QCOMPARE(m_occurrences[0].descriptor, m_sockets[0]);
        QCOMPARE(m_occurrences[0].events, int(NwaFcgiPoller::Readable));
    }
    char byte = 0;
    QCOMPARE(::read(m_sockets[0], &byte, 1), ssize_t(1));
    QCOMPARE(taken(), 0);
}

void tst_NwaFcgiPoller::onlyWatchedEventsAreReported()
{
    const int both = NwaFcgiPoller::Readable | NwaFcgiPoller::Writable;
    QCOMPARE(::write(m_sockets[1], "x", 1), ssize_t(1));
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    QCOMPARE(taken(), 1);
    QCOMPARE(m_occurrences[0].events, int(NwaFcgiPoller::Writable));
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Writable, both));
    QCOMPARE(taken(), 1);
    QCOMPARE(m_occurrences[0].events, both);
    QVERIFY(m_poller.watch(m_sockets[0], both, NwaFcgiPoller::Nothing));
    QCOMPARE(taken(), 0);
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Readable, NwaFcgiPoller::Readable));
    QCOMPARE(taken(), 1);
    QCOMPARE(m_occurrences[0].events, int(NwaFcgiPoller::Readable));
}

void tst_NwaFcgiPoller::endIsBothReadableAndWritable()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    ::shutdown(m_sockets[1], SHUT_RDWR);
    QCOMPARE(taken(), 1);
    QCOMPARE(m_occurrences[0].events, NwaFcgiPoller::Readable | NwaFcgiPoller::Writable);
}

void tst_NwaFcgiPoller::endOfAnUnwatchedDescriptorIsNotReported()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Readable, NwaFcgiPoller::Nothing));
    ::shutdown(m_sockets[1], SHUT_RDWR);
    QCOMPARE(taken(), 0);
    QVERIFY(!isReadable(m_poller.descriptor()));
}

void tst_NwaFcgiPoller::noMoreEventsAreTakenThanRequested()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    QVERIFY(m_poller.watch(m_sockets[1], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    QCOMPARE(m_poller.take(m_occurrences, 1), 1);
    // The other event is still reported.
    const int first = m_occurrences[0].descriptor;
    QCOMPARE(m_poller.take(m_occurrences, 1), 1);
    QCOMPARE(m_occurrences[0].descriptor, first == m_sockets[0] ? m_sockets[1] : m_sockets[0]);
}

void tst_NwaFcgiPoller::descriptorThatCannotBeWatchedIsRefused()
{
    QVERIFY(!m_poller.watch(-1, NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    // A regular file is always ready; epoll(7) does not accept it.
    const int file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    QVERIFY(!m_poller.watch(file, NwaFcgiPoller::Nothing, NwaFcgiPoller::Readable));
    ::close(file);
}

void tst_NwaFcgiPoller::closingForgetsTheDescriptors()
{
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    m_poller.close();
    QCOMPARE(m_poller.descriptor(), -1);
    QVERIFY(m_poller.open());
    QCOMPARE(taken(), 0);
    QVERIFY(m_poller.watch(m_sockets[0], NwaFcgiPoller::Nothing, NwaFcgiPoller::Writable));
    QCOMPARE(taken(), 1);
}

void tst_NwaFcgiPoller::descriptorIsNotInherited()
{
    QCOMPARE(::fcntl(m_poller.descriptor(), F_GETFD), int(FD_CLOEXEC));
}

QTEST_MAIN(tst_NwaFcgiPoller)
#include "tst_nwafcgipoller.moc"
