// The planner under the system's clock and its own timer, over two minutes as they are. This takes up to two
// minutes.

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

// So many minutes after that of the time, at its start.
QTime minuteAfter(const QTime& time, int minutes)
{
    return QTime(time.hour(), time.minute()).addSecs(60 * minutes);
}

// How often this thread has gone to sleep.
long sleepCount()
{
    struct rusage usage;
    return ::getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_nvcsw : -1;
}

// Stops itself, and writes what it reports in its first minute after that. It leaves the process group, because a
// group with stopped processes is sent SIGHUP when it is orphaned (see _exit(2)).
int runChild(int& argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    for (int minute = 0; minute < 24 * 60; ++minute)
        planner.registerPeriodicEvent(everyDay(), minuteAfter(QTime(0, 0), minute));
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

    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    // The minute that the planner's ticker has begun with is the present one, or a new one begins just here.
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    const QTime now = QTime::currentTime();
    for (int minute = 0; minute < 10; ++minute)
        planner.registerPeriodicEvent(everyDay(), minuteAfter(now, minute));
    for (int count = 0; count < 1000; ++count)
        planner.registerPeriodicTimeSlot(everyDay(), minuteAfter(now, 30), minuteAfter(now, 40));

    QList<long> sleepCounts;
    QStringList times;
    QEventLoop loop;
    recorder.handler = [&](const QString& report) {
        if (!report.startsWith(QLatin1String("calendar")))
            return;
        sleepCounts << sleepCount();
        times << QString::fromLatin1("event ") + QTime::currentTime().toString(QString::fromLatin1("hhmm"))
              << QString::fromLatin1("calendar 0");
        if (sleepCounts.size() == 2)
            loop.quit();
    };
    loop.exec();
    QCOMPARE(reports, times);
    QCOMPARE(times.size(), 4);
    QVERIFY(times.at(0) != times.at(2));
    // One sleep until the timer runs out, and one more should the kernel end the first a millisecond early.
    const long sleeps = sleepCounts.at(1) - sleepCounts.at(0);
    QVERIFY2(sleeps >= 1 && sleeps <= 2, QByteArray::number(int(sleeps)).constData());

    // The child was stopped over both minutes. It reports the one in which it goes on, once.
    QCOMPARE(child.bytesAvailable(), qint64(0));
    QCOMPARE(::kill(process, SIGCONT), 0);
    QVERIFY(child.waitForFinished());
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(
        QString::fromLatin1(child.readAllStandardOutput().constData()),
        times.at(2) + QString::fromLatin1("\ncalendar 0\n"));
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
