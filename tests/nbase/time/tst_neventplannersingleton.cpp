#include "nplannerclock.h"
#include "nplannerrecorder.h"

#include <nbase/time/neventplannersingleton.h>

#include "support/ntestwait.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QProcess>
#include <QtCore/QScopedPointer>
#include <QtCore/QTextStream>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

using namespace NPlannerClock;

typedef QSet<Qt::DayOfWeek> Days;
typedef NEventPlanner::NPeriodicEvent Event;
typedef NEventPlanner::NPeriodicTimeSlot TimeSlot;

class tst_NEventPlannerSingleton : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void isCreatedByTheFirstOperation();
    void timerIsPreciseAndSingleShot();
    void timerTimesOutAtTheNextMinute_data();
    void timerTimesOutAtTheNextMinute();
    void lateTickerProcessesTheCurrentMinuteAtOnce();
    void timerReportsTheNewMinute();
    void receiversMayDeletePlannerAndTicker_data();
    void receiversMayDeletePlannerAndTicker();
    void changedClockIsDetectedWhenTheTimerTimesOut();

    void tickerTicksOnceAMinuteAroundAClockChange_data();
    void tickerTicksOnceAMinuteAroundAClockChange();
    void missingHourReportsNoEventsOfIt();
    void repeatedHourReportsItsEventsTwice();
    void notificationInTheRepeatedMinuteReportsNothing();
    void slotsInTheMissingAndTheRepeatedHour();
    void minutesMayBeOffsetFromThoseOfUtc_data();
    void minutesMayBeOffsetFromThoseOfUtc();
    void timeZoneMayChange();

    void stoppedProcessContinuesWithTheCurrentMinute();
    void weekIsReportedAsTheModelPredicts();
};

namespace {

const qint64 Minute = 60 * 1000;
const qint64 Hour = 60 * Minute;

Days everyDay()
{
    Days days;
    for (int day = Qt::Monday; day <= Qt::Sunday; ++day)
        days << Qt::DayOfWeek(day);
    return days;
}

QStringList list(const char* reports)
{
    const QString text = latin1(reports);
    return text.isEmpty() ? QStringList() : text.split(QLatin1Char(','));
}

QTimer* timer()
{
    return ticker()->findChild<QTimer*>();
}

qint64 utc(int year, int month, int day, int hour, int minute)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute), Qt::UTC).toMSecsSinceEpoch();
}

// The instants at which Central European local time changes in 2026.
qint64 springForward()
{
    return utc(2026, 3, 29, 1, 0);
}

qint64 fallBack()
{
    return utc(2026, 10, 25, 1, 0);
}

void tickAt(qint64 time)
{
    NSystemCalls::stopClockAt(time);
    ticker()->newMinute();
}

} // namespace

void tst_NEventPlannerSingleton::init()
{
    setTimeZone(CentralEurope);
    begin(at(Qt::Monday, 7, 0));
}

void tst_NEventPlannerSingleton::cleanup()
{
    delete ticker();
    NSystemCalls::resetClock();
}

void tst_NEventPlannerSingleton::isCreatedByTheFirstOperation()
{
    delete ticker();
    NEventPlanner planner(nullptr);
    set(at(Qt::Monday, 7, 30));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    QStringList reports;
    NPlannerRecorder recorder(&planner, &reports);
    // The minute of its creation counts as processed.
    jump(at(Qt::Monday, 7, 30, 59));
    QCOMPARE(reports, QStringList());
    jump(at(Qt::Monday, 7, 31));
    QCOMPARE(reports, list("calendar 0"));
}

void tst_NEventPlannerSingleton::timerIsPreciseAndSingleShot()
{
    QVERIFY(timer());
    QVERIFY(timer()->isActive());
    QVERIFY(timer()->isSingleShot());
    // Qt 5 only: 0 is Qt::PreciseTimer. All timers of Qt 4 are precise.
    const QVariant type = timer()->property("timerType");
    QCOMPARE(type.isValid() ? type.toInt() : 0, 0);
}

void tst_NEventPlannerSingleton::timerTimesOutAtTheNextMinute_data()
{
    QTest::addColumn<int>("second");
    QTest::addColumn<int>("millisecond");
    QTest::addColumn<int>("interval");
    QTest::newRow("at the start") << 0 << 0 << 60000;
    QTest::newRow("in between") << 17 << 250 << 42750;
    QTest::newRow("just before the end") << 59 << 999 << 1;
}

void tst_NEventPlannerSingleton::timerTimesOutAtTheNextMinute()
{
    QFETCH(int, second);
    QFETCH(int, millisecond);
    QFETCH(int, interval);
    const qint64 offset = second * 1000 + millisecond;
    const qint64 start = at(Qt::Monday, 7, 0).toMSecsSinceEpoch();

    NSystemCalls::stopClockAt(start + offset);
    ticker()->currentDateTimeChanged();
    QCOMPARE(timer()->interval(), interval);
    NSystemCalls::stopClockAt(start + Minute + offset);
    ticker()->newMinute();
    QCOMPARE(timer()->interval(), interval);
    NSystemCalls::stopClockAt(start + 5 * Minute + offset);
    ticker()->currentDateTimeChanged();
    QCOMPARE(timer()->interval(), interval);
    delete ticker();
    QCOMPARE(timer()->interval(), interval);
}

void tst_NEventPlannerSingleton::lateTickerProcessesTheCurrentMinuteAtOnce()
{
    // More than a minute passes between the two readings of the clock, for the minute and for the timer.
    NSystemCalls::stopClockAt(at(Qt::Monday, 7, 1).toMSecsSinceEpoch());
    NSystemCalls::setClockStep(61 * 1000);
    ticker()->newMinute();
    QCOMPARE(timer()->interval(), 0);

    // The clock is set back in between.
    NSystemCalls::stopClockAt(at(Qt::Monday, 8, 0).toMSecsSinceEpoch());
    NSystemCalls::setClockStep(-365 * 24 * Hour);
    ticker()->newMinute();
    QCOMPARE(timer()->interval(), 0);
    QVERIFY(timer()->isActive());
}

void tst_NEventPlannerSingleton::timerReportsTheNewMinute()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(7, 31));
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 29, 59).toMSecsSinceEpoch() + 900);
    planner.currentDateTimeChanged();
    QCOMPARE(reports, QStringList());
    NTRY_COMPARE(reports, list("event 0730"));
    QVERIFY(timer()->isActive());
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 30, 59).toMSecsSinceEpoch() + 900);
    planner.currentDateTimeChanged();
    NTRY_COMPARE(reports, list("event 0730,event 0731"));
}

void tst_NEventPlannerSingleton::receiversMayDeletePlannerAndTicker_data()
{
    QTest::addColumn<bool>("deletesTicker");
    QTest::newRow("the planner") << false;
    QTest::newRow("the ticker") << true;
}

void tst_NEventPlannerSingleton::receiversMayDeletePlannerAndTicker()
{
    QFETCH(bool, deletesTicker);
    tick(at(Qt::Monday, 7, 29));
    QStringList reports;
    QScopedPointer<NEventPlanner> planner(new NEventPlanner(nullptr));
    NPlannerRecorder recorder(planner.data(), &reports);
    planner->registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner->registerCalendarEvent(NEventPlanner::NewMinute);
    recorder.handler = [&](const QString&) {
        if (deletesTicker)
            delete ticker();
        else
            planner.reset();
    };
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 29, 59).toMSecsSinceEpoch() + 900);
    ticker()->currentDateTimeChanged();
    NTRY_COMPARE(reports, list("event 0730"));
    QCOMPARE(hasTicker(), !deletesTicker);

    // The next minute is processed too.
    NEventPlanner next(nullptr);
    NPlannerRecorder nextRecorder(&next, &reports);
    next.registerPeriodicEvent(everyDay(), QTime(7, 31));
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 30, 59).toMSecsSinceEpoch() + 900);
    next.currentDateTimeChanged();
    NTRY_COMPARE(reports, list("event 0730,event 0731"));
}

void tst_NEventPlannerSingleton::changedClockIsDetectedWhenTheTimerTimesOut()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(12, 0));
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 29, 59).toMSecsSinceEpoch() + 900);
    planner.currentDateTimeChanged();
    NSystemCalls::stopClockAt(at(Qt::Monday, 12, 0, 20).toMSecsSinceEpoch());
    NTRY_COMPARE(reports, list("event 1200"));
    QCOMPARE(timer()->interval(), 40000);
}

void tst_NEventPlannerSingleton::tickerTicksOnceAMinuteAroundAClockChange_data()
{
    QTest::addColumn<qint64>("change");
    QTest::newRow("to daylight-saving time") << springForward();
    QTest::newRow("from daylight-saving time") << fallBack();
}

// Around the change, every timer runs for a minute, and every minute is reported once.
void tst_NEventPlannerSingleton::tickerTicksOnceAMinuteAroundAClockChange()
{
    QFETCH(qint64, change);
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    tickAt(change - 3 * Hour - Minute);
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    for (qint64 time = change - 3 * Hour; time < change + 3 * Hour; time += Minute) {
        tickAt(time);
        QCOMPARE(timer()->interval(), int(Minute));
        QCOMPARE(reports, list("calendar 0"));
        reports.clear();
        // A notification without a change.
        NSystemCalls::stopClockAt(time + 15 * 1000);
        ticker()->currentDateTimeChanged();
        QCOMPARE(timer()->interval(), int(Minute) - 15 * 1000);
        QCOMPARE(reports, QStringList());
    }
}

void tst_NEventPlannerSingleton::missingHourReportsNoEventsOfIt()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    tickAt(springForward() - 2 * Minute);
    planner.registerPeriodicEvent(everyDay(), QTime(1, 59));
    planner.registerPeriodicEvent(everyDay(), QTime(2, 0));
    planner.registerPeriodicEvent(everyDay(), QTime(2, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(3, 0));
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    for (int minute = -1; minute <= 90; ++minute)
        tickAt(springForward() + minute * Minute);
    QCOMPARE(reports, list("event 0159,event 0300,calendar 1,calendar 1"));
}

void tst_NEventPlannerSingleton::repeatedHourReportsItsEventsTwice()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    tickAt(fallBack() - Hour - 2 * Minute);
    planner.registerPeriodicEvent(everyDay(), QTime(1, 59));
    planner.registerPeriodicEvent(everyDay(), QTime(2, 0));
    planner.registerPeriodicEvent(everyDay(), QTime(2, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(3, 0));
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    for (int minute = -61; minute <= 61; ++minute)
        tickAt(fallBack() + minute * Minute);
    // The hour has the same number when it begins again.
    QCOMPARE(
        reports, list("event 0159,event 0200,calendar 1,event 0230,event 0200,event 0230,event 0300,calendar 1"));
}

// The minute has the same local time as the one an hour before, but a different end.
void tst_NEventPlannerSingleton::notificationInTheRepeatedMinuteReportsNothing()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    tickAt(fallBack() - Hour / 2);
    planner.registerPeriodicEvent(everyDay(), QTime(2, 30));
    NSystemCalls::stopClockAt(fallBack() + Hour / 2 + 15 * 1000);
    ticker()->currentDateTimeChanged();
    QCOMPARE(reports, QStringList());
    QCOMPARE(timer()->interval(), 45 * 1000);
}

void tst_NEventPlannerSingleton::slotsInTheMissingAndTheRepeatedHour()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    // The minutes around a change of the clock, with what is reported in each.
    const auto run = [&](qint64 change, int first, int last) {
        QStringList timetable;
        for (int minute = first; minute <= last; ++minute) {
            reports.clear();
            tickAt(change + minute * Minute);
            reports.sort();
            for (const QString& report : reports)
                timetable << QString::number(minute) + QLatin1Char(' ') + report;
        }
        return timetable;
    };

    tickAt(springForward() - 2 * Minute);
    planner.registerPeriodicTimeSlot(everyDay(), QTime(1, 59), QTime(2, 30));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(2, 10), QTime(2, 40));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(2, 20), QTime(3, 5));
    QCOMPARE(
        run(springForward(), -1, 90),
        list("-1 start 0159-0230,0 end 0159-0230,0 start 0220-0305,5 end 0220-0305"));

    tickAt(fallBack() - Hour - 2 * Minute);
    QCOMPARE(
        run(fallBack(), -61, 66),
        list("-61 start 0159-0230,-50 start 0210-0240,-40 start 0220-0305,-30 end 0159-0230,-20 end 0210-0240,"
             "0 end 0220-0305,0 start 0159-0230,10 start 0210-0240,20 start 0220-0305,30 end 0159-0230,"
             "40 end 0210-0240,65 end 0220-0305"));
}

void tst_NEventPlannerSingleton::minutesMayBeOffsetFromThoseOfUtc_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<int>("hour"); // of the local time at 12:00 UTC
    QTest::addColumn<int>("minute");
    QTest::addColumn<int>("second");
    QTest::newRow("Amsterdam until 1937") << latin1("AMT-0:19:32") << 12 << 19 << 32;
    QTest::newRow("Monrovia until 1972") << latin1("MMT0:44:30") << 11 << 15 << 30;
    QTest::newRow("a second ahead") << latin1("ABC-0:00:01") << 12 << 0 << 1;
    QTest::newRow("a second behind") << latin1("ABC0:00:01") << 11 << 59 << 59;
}

void tst_NEventPlannerSingleton::minutesMayBeOffsetFromThoseOfUtc()
{
    QFETCH(QString, zone);
    QFETCH(int, hour);
    QFETCH(int, minute);
    QFETCH(int, second);
    setTimeZone(zone.toLatin1().constData());
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    const QTime now(hour, minute);
    const qint64 start = utc(2026, 1, 5, 12, 0) - second * 1000;
    tickAt(start - Minute);
    planner.registerPeriodicEvent(everyDay(), now);
    planner.registerPeriodicEvent(everyDay(), now.addSecs(60));

    // At each second of the minute, and just before its end.
    for (int passed = 0; passed < 60; ++passed) {
        NSystemCalls::stopClockAt(start + passed * 1000 + (passed == 59 ? 999 : 0));
        ticker()->currentDateTimeChanged();
        QCOMPARE(timer()->interval(), passed == 59 ? 1 : (60 - passed) * 1000);
        QCOMPARE(reports, QStringList(latin1("event ") + now.toString(latin1("hhmm"))));
    }
    reports.clear();
    tickAt(start + Minute);
    QCOMPARE(timer()->interval(), int(Minute));
    QCOMPARE(reports, QStringList(latin1("event ") + now.addSecs(60).toString(latin1("hhmm"))));
}

void tst_NEventPlannerSingleton::timeZoneMayChange()
{
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerPeriodicEvent(everyDay(), QTime(16, 0));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(12, 0));
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    reports.clear();

    // Nothing calls tzset(). The ticker is notified: 07:00 in Central Europe is 15:00 in Japan.
    ::setenv("TZ", "JST-9", 1);
    ticker()->currentDateTimeChanged();
    QCOMPARE(reports, list("end 0600-1200,calendar 1"));
    QCOMPARE(timer()->interval(), int(Minute));
    reports.clear();
    for (int minute = 1; minute <= 60; ++minute)
        tick(at(2026, 1, 5, 15, 0).addSecs(60 * minute));
    QCOMPARE(reports, list("event 1600,calendar 1"));
    reports.clear();

    // It detects the change at the next minute, in a zone with an offset of half an hour.
    ::setenv("TZ", "IST-5:30", 1);
    tickAt(utc(2026, 1, 5, 7, 1));
    QCOMPARE(reports, list("calendar 1"));
    QCOMPARE(timer()->interval(), int(Minute));
    reports.clear();
    ::setenv("TZ", "CET-1", 1);
    tickAt(utc(2026, 1, 5, 7, 2));
    QCOMPARE(reports, list("start 0600-1200,calendar 1"));
}

namespace {

const char* const ChildArgument = "--stop-at-0729";

// A process that stops itself just before 07:30, as its clock shows it; each report is a line of its output. It
// leaves the process group, because a group with stopped processes is sent SIGHUP when it is orphaned (see
// _exit(2)).
int runChild(int& argc, char** argv)
{
    QCoreApplication application(argc, argv);
    setTimeZone(CentralEurope);
    begin(at(Qt::Monday, 7, 29));
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    QTextStream output(stdout);
    recorder.handler = [&](const QString& report) {
        output << report << '\n';
        if (report.startsWith(QLatin1String("calendar")))
            application.quit();
    };
    output << ::getpid() << '\n';
    output.flush();
    NSystemCalls::runClockFrom(at(Qt::Monday, 7, 29, 59).toMSecsSinceEpoch() + 900);
    planner.currentDateTimeChanged();
    ::setpgid(0, 0);
    ::raise(SIGSTOP);
    return application.exec();
}

char processState(pid_t process)
{
    QFile file(latin1("/proc/%1/stat").arg(int(process)));
    if (!file.open(QIODevice::ReadOnly))
        return '\0';
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 2).at(0);
}

} // namespace

void tst_NEventPlannerSingleton::stoppedProcessContinuesWithTheCurrentMinute()
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), QStringList() << latin1(ChildArgument));
    NTRY_VERIFY(child.canReadLine());
    const pid_t process = child.readLine().trimmed().toInt();
    NTRY_COMPARE(processState(process), 'T');
    // Its minute ends while it is stopped.
    QElapsedTimer elapsed;
    elapsed.start();
    NTRY_VERIFY(elapsed.hasExpired(200));
    QCOMPARE(::kill(process, SIGCONT), 0);
    QVERIFY(child.waitForFinished());
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(child.readAllStandardOutput(), QByteArray("event 0730\ncalendar 0\n"));
}

namespace {

// What is due, said in another way than the planner does: with minutes of the week, which are counted from Monday,
// 00:00.
const int MinutesPerDay = 24 * 60;
const int MinutesPerWeek = 7 * MinutesPerDay;

struct ModelEvent
{
    bool minutes[MinutesPerWeek];
};

int minuteOfDay(const QTime& time)
{
    return time.hour() * 60 + time.minute();
}

ModelEvent eventModel(const Days& days, const QTime& time)
{
    ModelEvent model;
    memset(&model, 0, sizeof(model));
    for (Qt::DayOfWeek day : days)
        model.minutes[(day - 1) * MinutesPerDay + minuteOfDay(time)] = true;
    return model;
}

ModelEvent timeSlotModel(const Days& days, const QTime& start, const QTime& end)
{
    ModelEvent model;
    memset(&model, 0, sizeof(model));
    const int length = (minuteOfDay(end) - minuteOfDay(start) + MinutesPerDay - 1) % MinutesPerDay + 1;
    for (Qt::DayOfWeek day : days) {
        for (int minute = 0; minute < length; ++minute)
            model.minutes[((day - 1) * MinutesPerDay + minuteOfDay(start) + minute) % MinutesPerWeek] = true;
    }
    return model;
}

class Random
{
public:
    explicit Random(quint32 seed)
        : m_state(seed)
    {
    }

    int below(int limit)
    {
        m_state = m_state * 1664525u + 1013904223u;
        return int((quint64(m_state) * quint64(limit)) >> 32);
    }

    QTime time() { return QTime(below(24), below(60), below(60)); }

    Days days()
    {
        Days days;
        const int mask = below(128);
        for (int day = Qt::Monday; day <= Qt::Sunday; ++day) {
            if (mask & (1 << (day - 1)))
                days << Qt::DayOfWeek(day);
        }
        return days;
    }

private:
    quint32 m_state;
};

// Records which object was reported and how.
class WeekRecorder : public QObject
{
    Q_OBJECT

public:
    QList<QPair<const void*, char>> reports;

public slots:
    void event(const NEventPlanner::NPeriodicEvent* event) { add(event, 'e'); }
    void start(const NEventPlanner::NPeriodicTimeSlot* timeSlot) { add(timeSlot, '+'); }
    void end(const NEventPlanner::NPeriodicTimeSlot* timeSlot) { add(timeSlot, '-'); }

private:
    void add(const void* object, char kind) { reports << qMakePair(object, kind); }
};

} // namespace

// 1,000 random events and slots of 10 planners, from Wednesday to Wednesday.
void tst_NEventPlannerSingleton::weekIsReportedAsTheModelPredicts()
{
    const int PlannerCount = 10;
    const int ObjectCount = 1000;
    const int FirstMinute = 2 * MinutesPerDay + 7;
    const QDateTime monday = at(Qt::Monday, 0, 0);

    begin(monday.addSecs(60 * FirstMinute));
    WeekRecorder recorder;
    NEventPlanner planners[PlannerCount];
    for (int index = 0; index < PlannerCount; ++index) {
        connect(
            &planners[index], SIGNAL(periodicEventTriggered(const NEventPlanner::NPeriodicEvent*)), &recorder,
                                     SLOT(event(const NEventPlanner::NPeriodicEvent*)));
        connect(
            &planners[index], SIGNAL(periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot*)), &recorder,
                                     SLOT(start(const NEventPlanner::NPeriodicTimeSlot*)));
        connect(
            &planners[index], SIGNAL(periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot*)), &recorder,
                                     SLOT(end(const NEventPlanner::NPeriodicTimeSlot*)));
    }

    Random random(20260105);
    QList<QPair<const void*, ModelEvent>> events;
    QList<QPair<const void*, ModelEvent>> timeSlots;
    for (int index = 0; index < ObjectCount; ++index) {
        NEventPlanner& planner = planners[random.below(PlannerCount)];
        const Days days = random.days();
        const QTime time = random.time();
        if (index % 2) {
            const void* const event = planner.registerPeriodicEvent(days, time);
            events << qMakePair(event, eventModel(days, time));
            continue;
        }
        // Some last for 24 hours, some end at midnight, some for a minute.
        const QTime ends[] = {random.time(), random.time(), random.time(), time, QTime(0, 0), time.addSecs(60)};
        const QTime end = ends[random.below(6)];
        recorder.reports.clear();
        const void* const timeSlot = planner.registerPeriodicTimeSlot(days, time, end);
        const ModelEvent model = timeSlotModel(days, time, end);
        QCOMPARE(recorder.reports.size(), model.minutes[FirstMinute] ? 1 : 0);
        timeSlots << qMakePair(timeSlot, model);
    }

    int reportCount = 0;
    for (int minute = FirstMinute + 1; minute <= FirstMinute + MinutesPerWeek; ++minute) {
        QList<QPair<const void*, char>> expected;
        const int now = minute % MinutesPerWeek;
        const int before = (minute - 1) % MinutesPerWeek;
        for (int index = 0; index < events.size(); ++index) {
            if (events.at(index).second.minutes[now])
                expected << qMakePair(events.at(index).first, 'e');
        }
        for (int index = 0; index < timeSlots.size(); ++index) {
            const ModelEvent& model = timeSlots.at(index).second;
            if (model.minutes[now] != model.minutes[before])
                expected << qMakePair(timeSlots.at(index).first, model.minutes[now] ? '+' : '-');
        }
        recorder.reports.clear();
        tick(monday.addSecs(60 * minute));
        std::sort(recorder.reports.begin(), recorder.reports.end());
        std::sort(expected.begin(), expected.end());
        QCOMPARE(recorder.reports, expected);
        reportCount += expected.size();
    }
    QVERIFY(reportCount > ObjectCount);
}

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], ChildArgument) == 0)
        return runChild(argc, argv);
    QCoreApplication application(argc, argv);
    tst_NEventPlannerSingleton test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_neventplannersingleton.moc"
