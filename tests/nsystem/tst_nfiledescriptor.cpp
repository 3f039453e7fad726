#include <nsystem/nfiledescriptor_p.h>

#include <QtTest/QtTest>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace {

int openNull()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int number)
{
    return ::fcntl(number, F_GETFD) >= 0;
}

} // namespace

class tst_NFileDescriptor : public QObject
{
    Q_OBJECT

private slots:
    void isClosedAtTheEndOfItsScope();
    void ownsNothingAfterAFailure();
    void movesInsteadOfCopying();
    void assignmentClosesWhatWasOwned();
    void releasedDescriptorStaysOpen();
    void closingReportsTheResult();
    void errorNumberSurvivesTheDestructor();
};

void tst_NFileDescriptor::isClosedAtTheEndOfItsScope()
{
    int number;
    {
        const NFileDescriptor file(openNull());
        number = file.number();
        QVERIFY(file.isOpen());
        QVERIFY(isOpen(number));
    }
    QVERIFY(!isOpen(number));
}

void tst_NFileDescriptor::ownsNothingAfterAFailure()
{
    NFileDescriptor failed(::open("/nonexistent", O_RDONLY | O_CLOEXEC));
    QVERIFY(!failed.isOpen());
    QCOMPARE(failed.number(), -1);
    QVERIFY(failed.close());
    QVERIFY(!NFileDescriptor().isOpen());
}

void tst_NFileDescriptor::movesInsteadOfCopying()
{
    NFileDescriptor first(openNull());
    const int number = first.number();
    const NFileDescriptor second(std::move(first));
    QVERIFY(!first.isOpen()); // NOLINT(bugprone-use-after-move): that it owns nothing is what is tested.
    QCOMPARE(second.number(), number);
    QVERIFY(isOpen(number));
}

void tst_NFileDescriptor::assignmentClosesWhatWasOwned()
{
    NFileDescriptor file(openNull());
    const int former = file.number();
    NFileDescriptor other(openNull());
    const int number = other.number();
    file = std::move(other);
    QVERIFY(!isOpen(former));
    QCOMPARE(file.number(), number);

    NFileDescriptor& itself = file;
    file = std::move(itself);
    QCOMPARE(file.number(), number);
    QVERIFY(isOpen(number));
}

void tst_NFileDescriptor::releasedDescriptorStaysOpen()
{
    int number;
    {
        NFileDescriptor file(openNull());
        number = file.release();
        QVERIFY(!file.isOpen());
    }
    QVERIFY(isOpen(number));
    ::close(number);
}

void tst_NFileDescriptor::closingReportsTheResult()
{
    NFileDescriptor file(openNull());
    const int number = file.number();
    QVERIFY(file.close());
    QVERIFY(!file.isOpen());
    QVERIFY(!isOpen(number));

    NFileDescriptor closedAlready(number);
    QVERIFY(!closedAlready.close());
    QCOMPARE(errno, EBADF);
    QVERIFY(!closedAlready.isOpen());
}

void tst_NFileDescriptor::errorNumberSurvivesTheDestructor()
{
    const int number = openNull();
    ::close(number);
    errno = ENOSPC;
    {
        const NFileDescriptor closedAlready(number);
    }
    QCOMPARE(errno, ENOSPC);
}

QTEST_APPLESS_MAIN(tst_NFileDescriptor)

#include "tst_nfiledescriptor.moc"
