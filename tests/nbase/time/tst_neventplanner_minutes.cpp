// The planner with a running clock and its own timer over the beginnings of two minutes. The clock is set to
// shortly before each, so that the test need not wait for whole minutes.

#include "nplannerclock.h"
#include "nplannerrecorder.h"

#include <nbase/time/neventplanner.h>

#include "support/ntestwait.h"

#include <QtCore/QDateTime>
#include <QtCore/QEventLoop>
#include <QtCore/QProcess>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace NPlannerClock;

typedef QSet<Qt::DayOfWeek> Days;

class tst_NEventPlannerMinutes : public QObject
{
    Q_OBJECT

private slots:
    void twoMinutesAreReportedWithOneWakeUpEach();
};

namespace {

const char* const ChildArgument = "--stop";

Days everyDay()
{
    Days days;
    for (int day = Qt::Monday; day <= Qt::Sunday; ++day)
        days << Qt::DayOfWeek(day);
    return days;
}

void runClockFrom(const QDateTime& local)
{
    NSystemCalls::runClockFrom(local.toMSecsSinceEpoch());
}

// How often this thread has gone to sleep.
long sleepCount()
{
    struct rusage usage;
    return ::getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_nvcsw : -1;
}

// Stops itself just before 07:30 and is continued at 07:31:20; writes what it reports in its first minute after
// that. It leaves the process group, because a group with stopped processes is sent SIGHUP when it is orphaned
// (see _exit(2)).
int runChild(int& argc, char** argv)
{
    QCoreApplication application(argc, argv);
    setTimeZone(CentralEurope);
    runClockFrom(at(Qt::Monday, 7, 29, 58));
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    for (int minute = 0; minute < 24 * 60; ++minute)
        planner.registerPeriodicEvent(everyDay(), QTime(0, 0).addSecs(60 * minute));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    QTextStream output(stdout);
    recorder.handler = [&](const QString& report) {
        output << report << '\n';
        if (report.startsWith(QLatin1String("calendar")))
            application.quit();
    };
    output << ::getpid() << '\n';
    output.flush();
    ::setpgid(0, 0);
    ::raise(SIGSTOP);
    runClockFrom(at(Qt::Monday, 7, 31, 20));
    return application.exec();
}

} // namespace

void tst_NEventPlannerMinutes::twoMinutesAreReportedWithOneWakeUpEach()
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), QStringList() << QString::fromLatin1(ChildArgument));
    NTRY_VERIFY(child.canReadLine());
    const pid_t process = child.readLine().trimmed().toInt();
    QVERIFY(process > 0);

    setTimeZone(CentralEurope);
    runClockFrom(at(Qt::Monday, 7, 29, 58));
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    for (int minute = 0; minute < 10; ++minute)
        planner.registerPeriodicEvent(everyDay(), QTime(7, 29).addSecs(60 * minute));
    for (int count = 0; count < 1000; ++count)
        planner.registerPeriodicTimeSlot(everyDay(), QTime(8, 0), QTime(8, 10));
    QEventLoop loop;
    recorder.handler = [&](const QString& report) {
        if (report.startsWith(QLatin1String("calendar")))
            loop.quit();
    };
    loop.exec();
    const QStringList first = QStringList()
                              << QString::fromLatin1("event 0730") << QString::fromLatin1("calendar 0");
    QCOMPARE(reports, first);
    reports.clear();

    // Four seconds: a planner that wakes up more often than for each minute is noticed.
    runClockFrom(at(Qt::Monday, 7, 30, 56));
    planner.currentDateTimeChanged();
    const long before = sleepCount();
    loop.exec();
    const long sleeps = sleepCount() - before;
    const QStringList second = QStringList()
                               << QString::fromLatin1("event 0731") << QString::fromLatin1("calendar 0");
    QCOMPARE(reports, second);
    // One sleep until the timer runs out, and one more should the kernel end the first a millisecond early.
    QVERIFY2(sleeps >= 1 && sleeps <= 2, QByteArray::number(int(sleeps)).constData());

    // The child was stopped at the beginnings of both minutes. It reports the one in which it continues, once.
    QCOMPARE(child.bytesAvailable(), qint64(0));
    QCOMPARE(::kill(process, SIGCONT), 0);
    QVERIFY(child.waitForFinished());
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(
        QString::fromLatin1(child.readAllStandardOutput().constData()),
        second.join(QString::fromLatin1("\n")) + QLatin1Char('\n'));
}

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], ChildArgument) == 0)
        return runChild(argc, argv);
    QCoreApplication application(argc, argv);
    tst_NEventPlannerMinutes test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_neventplanner_minutes.moc"
