#include "nplannerclock.h"
#include "nplannerrecorder.h"

#include <nbase/time/neventplanner.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QEventLoop>
#include <QtCore/QMetaEnum>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <time.h>

using namespace NPlannerClock;

typedef QSet<Qt::DayOfWeek> Days;
typedef NEventPlanner::NPeriodicEvent Event;
typedef NEventPlanner::NPeriodicTimeSlot TimeSlot;

Q_DECLARE_METATYPE(Days)

class ClockSetter : public QObject
{
    Q_OBJECT

public:
    void setClock(const QDateTime& time)
    {
        set(time);
        emit clockSet();
    }

signals:
    void clockSet();
};

class tst_NEventPlanner : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void objectsKeepHourAndMinuteOnly();
    void calendarEventsHaveTheirNumbers();
    void connectionsMayBeQueued();
    void calendarEventsCanBeKeptInAVariant();
    void unusedPlannerNeedsNoTicker();

    void eventIsReportedInItsMinuteOfItsDays();
    void eventIsNotReportedInTheMinuteOfItsRegistration();
    void eventThatCanNeverBeDueIsNotReported();
    void modifiedEventIsReportedAtItsNewTime();
    void eventOfAnotherPlannerIsNotChanged();
    void unregisteredEventIsNotReported();
    void changeThroughTheEventPointerTakesEffectAtTheNextMinute();

    void slotIsActiveDuringItsPeriod_data();
    void slotIsActiveDuringItsPeriod();
    void slotStartsAndEndsOnce();
    void activeSlotStartsBeforeItsRegistrationReturns();
    void modifiedSlotStartsOrEndsAtOnce();
    void changeThroughTheSlotPointerTakesEffectAtTheNextMinute_data();
    void changeThroughTheSlotPointerTakesEffectAtTheNextMinute();
    void changeThroughTheSlotPointerByAReceiverTakesEffectAtTheNextMinute();
    void secondsSetThroughTheSlotPointerAreObserved();
    void slotsHaveTheStateOfTheLastProcessedMinute();
    void slotOfAnotherPlannerIsNotChanged();
    void activeSlotEndsWhenItIsUnregistered();
    void endIsReportedOnceWhileTheSlotCanBeRead();
    void slotCannotBeStartedAgainWhileItIsUnregistered();
    void slotsRegisteredWhileAllAreUnregisteredStay();
    void slotsModifiedWhileAllAreUnregisteredAreUnregistered();
    void unknownObjectsAreNotChanged();

    void calendarEventsFollowTheDifferences_data();
    void calendarEventsFollowTheDifferences();
    void calendarEventsAreASet();
    void reportsAreOrdered();

    void skippedEventIsNotReported();
    void changeBackwardsReportsEventsAgain();
    void clockChangeIsOneNewMinute_data();
    void clockChangeIsOneNewMinute();
    void changeWithinTheMinuteReportsNothing();
    void signalOfTheClockSetterCanBeConnected();

    void deletedPlannerEndsItsSlotsAndReportsNothingMore();
    void nothingCanBeRegisteredWithAPlannerThatIsBeingDeleted();
    void deletedTickerEndsTheSlots();

    void unregisteredObjectsAreNotReportedInThisMinute();
    void registeredObjectsAreReportedFromTheNextMinuteOn();
    void registeredObjectsAreNotConfusedWithUnregisteredOnes();
    void calendarEventRegisteredAgainWaitsForTheNextMinute();
    void modifiedEventIsReportedIfStillDue();
    void modifiedSlotIsNotChangedBackInThisMinute();
    void registrationReturnsNullWhenItsStartUnregistersTheSlot();
    void furtherReceiversCanReadWhatTheFirstUnregistered();
    void nestedEventLoopProcessesMinutesWithoutLoss();
    void slotsAreCorrectAfterAClockChangeInANestedEventLoop();
    void slotModifiedInTheNextMinuteIsNotChangedBack();
    void receiversMayDoAnything_data();
    void receiversMayDoAnything();

private:
    QStringList take();

    QStringList m_reports;
};

namespace {

Days everyDay()
{
    Days days;
    for (int day = Qt::Monday; day <= Qt::Sunday; ++day)
        days << Qt::DayOfWeek(day);
    return days;
}

Days on(Qt::DayOfWeek day)
{
    return Days() << day;
}

QStringList list(const QString& reports)
{
    return reports.isEmpty() ? QStringList() : reports.split(QLatin1Char(','));
}

QStringList list(const char* reports)
{
    return list(latin1(reports));
}

} // namespace

void tst_NEventPlanner::init()
{
    setTimeZone(CentralEurope);
    begin(at(Qt::Monday, 7, 0));
    m_reports.clear();
}

void tst_NEventPlanner::cleanup()
{
    delete ticker();
    NSystemCalls::resetClock();
}

QStringList tst_NEventPlanner::take()
{
    const QStringList reports = m_reports;
    m_reports.clear();
    return reports;
}

void tst_NEventPlanner::objectsKeepHourAndMinuteOnly()
{
    const Event event(on(Qt::Monday), QTime(7, 30, 45, 123));
    QCOMPARE(event.days, on(Qt::Monday));
    QCOMPARE(event.time, QTime(7, 30));
    const TimeSlot timeSlot(everyDay(), QTime(22, 0, 1), QTime(6, 0, 59, 999));
    QCOMPARE(timeSlot.days, everyDay());
    QCOMPARE(timeSlot.startTime, QTime(22, 0));
    QCOMPARE(timeSlot.endTime, QTime(6, 0));
}

void tst_NEventPlanner::calendarEventsHaveTheirNumbers()
{
    QCOMPARE(int(NEventPlanner::NewMinute), 0);
    QCOMPARE(int(NEventPlanner::NewHour), 1);
    QCOMPARE(int(NEventPlanner::NewDay), 2);
    QCOMPARE(int(NEventPlanner::NewMonth), 3);
    QCOMPARE(int(NEventPlanner::NewYear), 4);
    const QMetaObject& meta = NEventPlanner::staticMetaObject;
    QCOMPARE(meta.enumerator(meta.indexOfEnumerator("CalendarEvent")).keyCount(), 5);
}

void tst_NEventPlanner::connectionsMayBeQueued()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports, QString(), Qt::QueuedConnection);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(7, 1));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
    QCoreApplication::processEvents();
    QCOMPARE(take(), list("start 0600-0701,event 0701,end 0600-0701,calendar 0"));
}

void tst_NEventPlanner::calendarEventsCanBeKeptInAVariant()
{
    NEventPlanner planner(nullptr);
    QCOMPARE(qMetaTypeId<NEventPlanner::CalendarEvent>(), QMetaType::type("NEventPlanner::CalendarEvent"));
    const QVariant value = QVariant::fromValue(NEventPlanner::NewDay);
    QCOMPARE(int(value.value<NEventPlanner::CalendarEvent>()), int(NEventPlanner::NewDay));
}

void tst_NEventPlanner::unusedPlannerNeedsNoTicker()
{
    delete ticker();
    delete new NEventPlanner(nullptr);
    QVERIFY(!hasTicker());

    NEventPlanner* const planner = new NEventPlanner(nullptr);
    planner->registerPeriodicEvent(everyDay(), QTime(7, 1));
    QVERIFY(hasTicker());
    delete ticker();
    delete planner;
    QVERIFY(!hasTicker());
}

void tst_NEventPlanner::eventIsReportedInItsMinuteOfItsDays()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const event = planner.registerPeriodicEvent(Days() << Qt::Monday << Qt::Sunday, QTime(7, 30, 45));
    for (int day = Qt::Monday; day <= Qt::Sunday; ++day) {
        tick(at(Qt::DayOfWeek(day), 7, 29));
        QCOMPARE(take(), QStringList());
        tick(at(Qt::DayOfWeek(day), 7, 30));
        QCOMPARE(take(), list(day == Qt::Monday || day == Qt::Sunday ? "event 0730" : ""));
        tick(at(Qt::DayOfWeek(day), 7, 31));
        QCOMPARE(take(), QStringList());
    }
    QCOMPARE(recorder.lastEvent, const_cast<const Event*>(event));
}

void tst_NEventPlanner::eventIsNotReportedInTheMinuteOfItsRegistration()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 0));
    QCOMPARE(take(), QStringList());
    jump(at(Qt::Monday, 7, 0, 30));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::eventThatCanNeverBeDueIsNotReported()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(Days(), QTime(0, 0));
    planner.registerPeriodicEvent(everyDay(), QTime());
    planner.registerPeriodicEvent(Days() << Qt::DayOfWeek(0), QTime(0, 0));
    for (int minute = 0; minute < 8 * 24 * 60; ++minute)
        tick(at(Qt::Monday, 7, 0).addSecs(60 * minute));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::modifiedEventIsReportedAtItsNewTime()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const event = planner.registerPeriodicEvent(on(Qt::Monday), QTime(7, 30));
    QVERIFY(planner.modifyRegisteredPeriodicEvent(event, on(Qt::Tuesday), QTime(8, 0, 59, 999)));
    QCOMPARE(event->time, QTime(8, 0));
    QCOMPARE(event->days, on(Qt::Tuesday));
    tick(at(Qt::Monday, 7, 30));
    tick(at(Qt::Tuesday, 7, 30));
    QCOMPARE(take(), QStringList());
    tick(at(Qt::Tuesday, 8, 0));
    QCOMPARE(take(), list("event 0800"));
}

void tst_NEventPlanner::eventOfAnotherPlannerIsNotChanged()
{
    NEventPlanner planner(nullptr);
    NEventPlanner other(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const event = planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    other.registerPeriodicEvent(everyDay(), QTime(9, 0));
    QVERIFY(!other.modifyRegisteredPeriodicEvent(event, on(Qt::Sunday), QTime(8, 0)));
    QCOMPARE(event->days, everyDay());
    QCOMPARE(event->time, QTime(7, 30));
    other.unregisterPeriodicEvent(event);
    other.unregisterPeriodicEvent(nullptr);
    tick(at(Qt::Monday, 7, 30));
    QCOMPARE(take(), list("event 0730"));
}

void tst_NEventPlanner::unregisteredEventIsNotReported()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const event = planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(7, 31));
    planner.registerPeriodicEvent(everyDay(), QTime(7, 31));
    planner.unregisterPeriodicEvent(event);
    QVERIFY(!planner.modifyRegisteredPeriodicEvent(event, everyDay(), QTime(7, 30)));
    tick(at(Qt::Monday, 7, 30));
    QCOMPARE(take(), QStringList());
    tick(at(Qt::Monday, 7, 31));
    QCOMPARE(take(), list("event 0731,event 0731"));
    planner.unregisterPeriodicEvent(nullptr);
    tick(at(Qt::Tuesday, 7, 31));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::changeThroughTheEventPointerTakesEffectAtTheNextMinute()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const event = planner.registerPeriodicEvent(on(Qt::Monday), QTime(7, 1));
    event->time = QTime(7, 2);
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("event 0702"));
    event->time = QTime(7, 3);
    event->days = on(Qt::Tuesday);
    tick(at(Qt::Monday, 7, 3));
    QCOMPARE(take(), QStringList());
    *event = Event(on(Qt::Monday), QTime(7, 4));
    tick(at(Qt::Monday, 7, 4));
    QCOMPARE(take(), list("event 0704"));
}

void tst_NEventPlanner::slotIsActiveDuringItsPeriod_data()
{
    QTest::addColumn<Days>("days");
    QTest::addColumn<QTime>("start");
    QTest::addColumn<QTime>("end");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<bool>("active");

    const Days monday = on(Qt::Monday);
    const QTime eight(8, 0);
    const QTime ten(10, 0);
    QTest::newRow("before its start") << monday << eight << ten << at(Qt::Monday, 7, 59) << false;
    QTest::newRow("at its start") << monday << eight << ten << at(Qt::Monday, 8, 0) << true;
    QTest::newRow("in its last minute") << monday << eight << ten << at(Qt::Monday, 9, 59) << true;
    QTest::newRow("at its end") << monday << eight << ten << at(Qt::Monday, 10, 0) << false;
    QTest::newRow("on another day") << monday << eight << ten << at(Qt::Tuesday, 9, 0) << false;
    QTest::newRow("from midnight") << monday << QTime(0, 0) << ten << at(Qt::Monday, 0, 0) << true;
    QTest::newRow("seconds are dropped")
        << monday << QTime(8, 0, 59) << QTime(10, 0, 59) << at(Qt::Monday, 8, 0) << true;

    const QTime night(22, 0);
    const QTime morning(6, 0);
    QTest::newRow("night: before") << monday << night << morning << at(Qt::Monday, 21, 59) << false;
    QTest::newRow("night: at its start") << monday << night << morning << at(Qt::Monday, 22, 0) << true;
    QTest::newRow("night: before midnight") << monday << night << morning << at(Qt::Monday, 23, 59) << true;
    QTest::newRow("night: at midnight") << monday << night << morning << at(Qt::Tuesday, 0, 0) << true;
    QTest::newRow("night: in its last minute") << monday << night << morning << at(Qt::Tuesday, 5, 59) << true;
    QTest::newRow("night: at its end") << monday << night << morning << at(Qt::Tuesday, 6, 0) << false;
    QTest::newRow("night: morning before") << monday << night << morning << at(Qt::Monday, 5, 0) << false;
    QTest::newRow("night: evening after") << monday << night << morning << at(Qt::Tuesday, 22, 0) << false;
    QTest::newRow("night of Sunday continues on Monday")
        << on(Qt::Sunday) << night << morning << at(Qt::Monday, 5, 0) << true;
    QTest::newRow("until midnight") << monday << night << QTime(0, 0) << at(Qt::Monday, 23, 59) << true;
    QTest::newRow("until midnight: at midnight")
        << monday << night << QTime(0, 0) << at(Qt::Tuesday, 0, 0) << false;

    const Days friday = on(Qt::Friday);
    QTest::newRow("24 hours: before") << friday << ten << ten << at(Qt::Friday, 9, 59) << false;
    QTest::newRow("24 hours: at its start") << friday << ten << ten << at(Qt::Friday, 10, 0) << true;
    QTest::newRow("24 hours: in its last minute") << friday << ten << ten << at(Qt::Saturday, 9, 59) << true;
    QTest::newRow("24 hours: at its end") << friday << ten << ten << at(Qt::Saturday, 10, 0) << false;
    QTest::newRow("24 hours every day") << everyDay() << ten << ten << at(Qt::Saturday, 10, 0) << true;

    QTest::newRow("no days") << Days() << eight << ten << at(Qt::Monday, 9, 0) << false;
    QTest::newRow("no start") << monday << QTime() << ten << at(Qt::Monday, 9, 0) << false;
    QTest::newRow("no end") << monday << eight << QTime() << at(Qt::Monday, 9, 0) << false;
    QTest::newRow("no start and no end") << monday << QTime() << QTime() << at(Qt::Monday, 9, 0) << false;
}

// However the time is reached: by registration, by modification, by a change of the clock, and minute by minute.
void tst_NEventPlanner::slotIsActiveDuringItsPeriod()
{
    QFETCH(Days, days);
    QFETCH(QTime, start);
    QFETCH(QTime, end);
    QFETCH(QDateTime, time);
    QFETCH(bool, active);

    NEventPlanner planner(nullptr);
    TimeSlot* const jumping = planner.registerPeriodicTimeSlot(days, start, end);
    TimeSlot* const modified = planner.registerPeriodicTimeSlot(Days(), QTime(1, 0), QTime(2, 0));
    jump(time);
    TimeSlot* const registered = planner.registerPeriodicTimeSlot(days, start, end);
    QVERIFY(planner.modifyRegisteredPeriodicTimeSlot(modified, days, start, end));
    QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(jumping), active);
    QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(modified), active);
    QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(registered), active);

    jump(time.addSecs(-26 * 60 * 60));
    TimeSlot* const ticking = planner.registerPeriodicTimeSlot(days, start, end);
    for (int minute = -26 * 60 + 1; minute <= 0; ++minute)
        tick(time.addSecs(60 * minute));
    QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(ticking), active);
}

void tst_NEventPlanner::slotStartsAndEndsOnce()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(on(Qt::Monday), QTime(22, 0), QTime(6, 0));
    for (QDateTime time = at(Qt::Monday, 21, 58); time <= at(Qt::Monday, 22, 2); time = time.addSecs(60)) {
        tick(time);
        QCOMPARE(take(), list(time == at(Qt::Monday, 22, 0) ? "start 2200-0600" : ""));
        QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot), time >= at(Qt::Monday, 22, 0));
    }
    for (QDateTime time = at(Qt::Monday, 22, 3); time <= at(Qt::Tuesday, 23, 0); time = time.addSecs(60)) {
        tick(time);
        QCOMPARE(take(), list(time == at(Qt::Tuesday, 6, 0) ? "end 2200-0600" : ""));
    }
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
    QCOMPARE(recorder.lastTimeSlot, const_cast<const TimeSlot*>(timeSlot));
}

void tst_NEventPlanner::activeSlotStartsBeforeItsRegistrationReturns()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    bool activeInHandler = false;
    recorder.handler = [&](const QString&) {
        activeInHandler = planner.isPeriodicTimeSlotCurrentlyActive(const_cast<TimeSlot*>(recorder.lastTimeSlot));
    };
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 0), QTime(7, 1));
    QCOMPARE(take(), list("start 0700-0701"));
    QVERIFY(activeInHandler);
    QCOMPARE(recorder.lastTimeSlot, const_cast<const TimeSlot*>(timeSlot));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(7, 2));
    QCOMPARE(take(), QStringList());

    // The clock has advanced without a tick: the last processed minute counts.
    set(at(Qt::Monday, 7, 1));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(7, 3));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::modifiedSlotStartsOrEndsAtOnce()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(8, 0), QTime(9, 0));
    QVERIFY(planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(6, 0, 30), QTime(9, 0, 30)));
    QCOMPARE(take(), list("start 0600-0900"));
    QVERIFY(planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(5, 0), QTime(7, 1)));
    QCOMPARE(take(), QStringList());
    QVERIFY(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
    QVERIFY(planner.modifyRegisteredPeriodicTimeSlot(timeSlot, on(Qt::Tuesday), QTime(5, 0), QTime(7, 1)));
    QCOMPARE(take(), list("end 0500-0701"));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::changeThroughTheSlotPointerTakesEffectAtTheNextMinute_data()
{
    QTest::addColumn<Days>("days");
    QTest::addColumn<QTime>("start");
    QTest::addColumn<QTime>("end");
    QTest::addColumn<Days>("newDays");
    QTest::addColumn<QTime>("newStart");
    QTest::addColumn<QTime>("newEnd");
    QTest::addColumn<QString>("report");
    // Registered at 07:00 on Monday, changed in that minute.
    const auto row = [](const char* name, const TimeSlot& before, const TimeSlot& after, const char* report) {
        QTest::newRow(name) << before.days << before.startTime << before.endTime << after.days << after.startTime
                            << after.endTime << latin1(report);
    };
    const Days monday = on(Qt::Monday);
    const Days tuesday = on(Qt::Tuesday);
    const QTime six(6, 0);
    const QTime eight(8, 0);
    const QTime nine(9, 0);
    row("start moves before now", TimeSlot(monday, eight, nine), TimeSlot(monday, six, nine), "start 0600-0900");
    row("start moves after now", TimeSlot(monday, six, nine), TimeSlot(monday, eight, nine), "end 0800-0900");
    row("end moves before now", TimeSlot(monday, six, nine), TimeSlot(monday, six, QTime(6, 30)), "end 0600-0630");
    row("end moves after now", TimeSlot(monday, six, QTime(6, 30)), TimeSlot(monday, six, nine),
        "start 0600-0900");
    row("end moves before the start", TimeSlot(monday, six, nine), TimeSlot(monday, QTime(10, 0), nine),
        "end 1000-0900");
    row("today becomes one of its days", TimeSlot(tuesday, six, nine), TimeSlot(monday, six, nine),
        "start 0600-0900");
    row("yesterday becomes one of its days", TimeSlot(tuesday, nine, eight), TimeSlot(on(Qt::Sunday), nine, eight),
        "start 0900-0800");
    row("today is no longer one of its days", TimeSlot(everyDay(), six, nine), TimeSlot(tuesday, six, nine),
        "end 0600-0900");
    row("all its days go", TimeSlot(monday, six, nine), TimeSlot(Days(), six, nine), "end 0600-0900");
    row("its start becomes invalid", TimeSlot(monday, six, nine), TimeSlot(monday, QTime(), nine), "end -0900");
    row("it stays active", TimeSlot(monday, six, nine), TimeSlot(everyDay(), QTime(5, 0), eight), "");
    row("it stays inactive", TimeSlot(monday, eight, nine), TimeSlot(tuesday, six, nine), "");
}

void tst_NEventPlanner::changeThroughTheSlotPointerTakesEffectAtTheNextMinute()
{
    QFETCH(Days, days);
    QFETCH(QTime, start);
    QFETCH(QTime, end);
    QFETCH(Days, newDays);
    QFETCH(QTime, newStart);
    QFETCH(QTime, newEnd);
    QFETCH(QString, report);
    for (int viaJump = 0; viaJump < 2; ++viaJump) {
        begin(at(Qt::Monday, 7, 0));
        NEventPlanner planner(nullptr);
        NPlannerRecorder recorder(&planner, &m_reports);
        TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(days, start, end);
        const bool wasActive = planner.isPeriodicTimeSlotCurrentlyActive(timeSlot);
        take();
        timeSlot->days = newDays;
        timeSlot->startTime = newStart;
        timeSlot->endTime = newEnd;
        QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot), wasActive);
        QCOMPARE(take(), QStringList());
        if (viaJump)
            jump(at(Qt::Monday, 7, 2));
        else
            tick(at(Qt::Monday, 7, 1));
        QCOMPARE(take(), list(report));
        QCOMPARE(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot), wasActive != !report.isEmpty());
        tick(at(Qt::Monday, 7, 3));
        QCOMPARE(take(), QStringList());
    }
}

// As with events, a minute reports only what was due at its start.
void tst_NEventPlanner::changeThroughTheSlotPointerByAReceiverTakesEffectAtTheNextMinute()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    TimeSlot* const early = planner.registerPeriodicTimeSlot(everyDay(), QTime(8, 0), QTime(9, 0));
    TimeSlot* const late = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(9, 0));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        early->startTime = QTime(6, 0);
        late->startTime = QTime(7, 3);
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701"));
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("start 0600-0900"));
    tick(at(Qt::Monday, 7, 3));
    QCOMPARE(take(), list("start 0703-0900"));
}

// Only the constructor drops seconds. The slot is active in the minutes that start in it.
void tst_NEventPlanner::secondsSetThroughTheSlotPointerAreObserved()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(8, 0), QTime(9, 0));
    timeSlot->startTime = QTime(7, 1, 30);
    timeSlot->endTime = QTime(7, 2, 30);
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("start 0701-0702"));
    tick(at(Qt::Monday, 7, 3));
    QCOMPARE(take(), list("end 0701-0702"));
}

// Whatever the current time is.
void tst_NEventPlanner::slotsHaveTheStateOfTheLastProcessedMinute()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    QCOMPARE(take(), list("start 0600-0800"));
    set(at(Qt::Monday, 9, 0));
    QVERIFY(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 0), QTime(7, 1));
    QCOMPARE(take(), list("start 0700-0701"));
    QVERIFY(planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(8, 30), QTime(10, 0)));
    QCOMPARE(take(), list("end 0830-1000"));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::slotOfAnotherPlannerIsNotChanged()
{
    NEventPlanner planner(nullptr);
    NEventPlanner other(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    QVERIFY(!other.modifyRegisteredPeriodicTimeSlot(timeSlot, Days(), QTime(1, 0), QTime(2, 0)));
    QCOMPARE(timeSlot->days, everyDay());
    QCOMPARE(timeSlot->startTime, QTime(6, 0));
    QCOMPARE(timeSlot->endTime, QTime(8, 0));
    QVERIFY(!other.isPeriodicTimeSlotCurrentlyActive(timeSlot));
    other.unregisterPeriodicTimeSlot(timeSlot);
    other.unregisterPeriodicTimeSlot(nullptr);
    QCOMPARE(take(), QStringList());
    QVERIFY(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::activeSlotEndsWhenItIsUnregistered()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    TimeSlot* const later = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    take();
    planner.unregisterPeriodicTimeSlot(later);
    QCOMPARE(take(), QStringList());
    planner.unregisterPeriodicTimeSlot(timeSlot);
    QCOMPARE(take(), list("end 0600-0800"));
    planner.unregisterPeriodicTimeSlot(timeSlot);
    tick(at(Qt::Monday, 7, 1));
    tick(at(Qt::Monday, 8, 0));
    QCOMPARE(take(), QStringList());

    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(9, 0));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(9, 0));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(9, 0), QTime(10, 0));
    take();
    planner.unregisterPeriodicTimeSlot(nullptr);
    QCOMPARE(take(), list("end 0600-0900,end 0600-0900"));
    tick(at(Qt::Monday, 9, 0));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::endIsReportedOnceWhileTheSlotCanBeRead()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    bool activeInHandler = true;
    recorder.handler = [&](const QString&) {
        activeInHandler = planner.isPeriodicTimeSlotCurrentlyActive(timeSlot);
        planner.unregisterPeriodicTimeSlot(timeSlot);
        planner.unregisterPeriodicTimeSlot(nullptr);
    };
    take();
    planner.unregisterPeriodicTimeSlot(timeSlot);
    QCOMPARE(take(), list("end 0600-0800"));
    QVERIFY(!activeInHandler);

    // The same at the slot's end.
    recorder.handler = nullptr;
    timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(7, 1));
    take();
    activeInHandler = true;
    recorder.handler = [&](const QString&) {
        activeInHandler = planner.isPeriodicTimeSlotCurrentlyActive(timeSlot);
        planner.unregisterPeriodicTimeSlot(timeSlot);
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("end 0600-0701"));
    QVERIFY(!activeInHandler);
    QVERIFY(!planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(1, 0), QTime(2, 0)));
}

void tst_NEventPlanner::slotCannotBeStartedAgainWhileItIsUnregistered()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    bool modified = true;
    recorder.handler = [&](const QString&) {
        modified = planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(5, 0), QTime(9, 0));
    };
    planner.unregisterPeriodicTimeSlot(timeSlot);
    QVERIFY(!modified);
    QCOMPARE(take(), list("end 0600-0800"));
}

void tst_NEventPlanner::slotsRegisteredWhileAllAreUnregisteredStay()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    for (int count = 0; count < 3; ++count)
        planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    QList<TimeSlot*> added;
    recorder.handler = [&](const QString& report) {
        if (report.startsWith(QLatin1String("end")))
            added << planner.registerPeriodicTimeSlot(everyDay(), QTime(5, 0), QTime(9, 0));
    };
    planner.unregisterPeriodicTimeSlot(nullptr);
    QCOMPARE(
        take(), list("end 0600-0800,start 0500-0900,end 0600-0800,start 0500-0900,"
                     "end 0600-0800,start 0500-0900"));
    for (TimeSlot* timeSlot : added)
        QVERIFY(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::slotsModifiedWhileAllAreUnregisteredAreUnregistered()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    QList<TimeSlot*> timeSlots;
    for (int count = 0; count < 3; ++count)
        timeSlots << planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    int modified = 0;
    recorder.handler = [&](const QString&) {
        for (TimeSlot* timeSlot : timeSlots)
            modified += planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(6, 0), QTime(9, 0));
    };
    planner.unregisterPeriodicTimeSlot(nullptr);
    QCOMPARE(take(), list("end 0600-0800,end 0600-0900,end 0600-0900"));
    QCOMPARE(modified, 2 + 1);
    for (TimeSlot* timeSlot : timeSlots)
        QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::unknownObjectsAreNotChanged()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event event(everyDay(), QTime(7, 1));
    TimeSlot timeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    planner.unregisterPeriodicEvent(&event);
    planner.unregisterPeriodicTimeSlot(&timeSlot);
    QVERIFY(!planner.modifyRegisteredPeriodicEvent(&event, Days(), QTime()));
    QVERIFY(!planner.modifyRegisteredPeriodicTimeSlot(&timeSlot, Days(), QTime(), QTime()));
    QVERIFY(!planner.modifyRegisteredPeriodicEvent(nullptr, Days(), QTime()));
    QVERIFY(!planner.modifyRegisteredPeriodicTimeSlot(nullptr, Days(), QTime(), QTime()));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(&timeSlot));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(nullptr));
    QCOMPARE(event.time, QTime(7, 1));
    QCOMPARE(timeSlot.days, everyDay());
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::calendarEventsFollowTheDifferences_data()
{
    QTest::addColumn<QDateTime>("before");
    QTest::addColumn<QDateTime>("after");
    QTest::addColumn<QString>("numbers");
    const auto row = [](const char* name, const QDateTime& before, const QDateTime& after, const char* numbers) {
        QTest::newRow(name) << before << after << latin1(numbers);
    };
    row("a minute", at(2026, 1, 5, 7, 29), at(2026, 1, 5, 7, 30), "0");
    row("an hour", at(2026, 1, 5, 7, 59), at(2026, 1, 5, 8, 0), "01");
    row("a day", at(2026, 1, 5, 23, 59), at(2026, 1, 6, 0, 0), "012");
    row("a month", at(2026, 1, 31, 23, 59), at(2026, 2, 1, 0, 0), "0123");
    row("a year", at(2026, 12, 31, 23, 59), at(2027, 1, 1, 0, 0), "01234");
    row("to the leap day", at(2028, 2, 28, 23, 59), at(2028, 2, 29, 0, 0), "012");
    row("from the leap day", at(2028, 2, 29, 23, 59), at(2028, 3, 1, 0, 0), "0123");
    row("no leap day", at(2026, 2, 28, 23, 59), at(2026, 3, 1, 0, 0), "0123");
    // Beyond the range of a 32-bit clock.
    if (sizeof(time_t) > 4)
        row("no leap day in 2100", at(2100, 2, 28, 23, 59), at(2100, 3, 1, 0, 0), "0123");
    row("the same minute again", at(2026, 1, 5, 7, 30), at(2026, 1, 5, 7, 30), "0");
    row("a minute back", at(2026, 1, 5, 10, 59), at(2026, 1, 5, 10, 58), "0");
    row("an hour back", at(2026, 1, 5, 10, 59), at(2026, 1, 5, 9, 59), "01");
    row("the same time of the next day", at(2026, 1, 5, 7, 30), at(2026, 1, 6, 7, 30), "02");
    row("the same day of the next month", at(2026, 1, 5, 7, 30), at(2026, 2, 5, 7, 30), "03");
    row("the same day of the next year", at(2026, 1, 5, 7, 30), at(2027, 1, 5, 7, 30), "04");
    row("years back", at(2026, 1, 5, 7, 30), at(1970, 3, 4, 5, 6), "01234");
}

void tst_NEventPlanner::calendarEventsFollowTheDifferences()
{
    QFETCH(QDateTime, before);
    QFETCH(QDateTime, after);
    QFETCH(QString, numbers);
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    tick(before);
    for (int number = NEventPlanner::NewYear; number >= NEventPlanner::NewMinute; --number)
        planner.registerCalendarEvent(NEventPlanner::CalendarEvent(number));
    tick(after);
    QStringList expected;
    for (const QChar& number : numbers)
        expected << latin1("calendar ") + number;
    QCOMPARE(take(), expected);
}

void tst_NEventPlanner::calendarEventsAreASet()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    tick(at(Qt::Monday, 8, 0));
    QCOMPARE(take(), list("calendar 0,calendar 1"));
    planner.unregisterCalendarEvent(NEventPlanner::NewHour);
    planner.unregisterCalendarEvent(NEventPlanner::NewYear);
    tick(at(Qt::Monday, 9, 0));
    QCOMPARE(take(), list("calendar 0"));
    planner.registerCalendarEvent(NEventPlanner::NewHour);
    planner.unregisterCalendarEvents();
    planner.unregisterCalendarEvents();
    tick(at(Qt::Monday, 10, 0));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::reportsAreOrdered()
{
    NEventPlanner one(nullptr);
    NEventPlanner other(nullptr);
    NPlannerRecorder recorderOfOne(&one, &m_reports);
    NPlannerRecorder recorderOfOther(&other, &m_reports);
    const QList<NEventPlanner*> both = QList<NEventPlanner*>() << &one << &other;
    for (NEventPlanner* planner : both) {
        planner->registerCalendarEvent(NEventPlanner::NewHour);
        planner->registerCalendarEvent(NEventPlanner::NewMinute);
        planner->registerPeriodicTimeSlot(everyDay(), QTime(8, 0), QTime(9, 0));
        planner->registerPeriodicEvent(everyDay(), QTime(8, 0));
    }
    tick(at(Qt::Monday, 8, 0));
    QCOMPARE(
        take(), list("event 0800,event 0800,start 0800-0900,start 0800-0900,calendar 0,calendar 1,"
                     "calendar 0,calendar 1"));
}

void tst_NEventPlanner::skippedEventIsNotReported()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    tick(at(Qt::Monday, 7, 29));
    jump(at(Qt::Monday, 7, 31));
    tick(at(Qt::Monday, 7, 32));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::changeBackwardsReportsEventsAgain()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 30));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    tick(at(Qt::Monday, 7, 30));
    QCOMPARE(take(), list("event 0730,calendar 0"));
    tick(at(Qt::Monday, 7, 31));
    jump(at(Qt::Monday, 7, 30, 17));
    QCOMPARE(take(), list("calendar 0,event 0730,calendar 0"));
}

void tst_NEventPlanner::clockChangeIsOneNewMinute_data()
{
    QTest::addColumn<QDateTime>("after");
    QTest::addColumn<QString>("reports");
    const auto row = [](const char* name, const QDateTime& after, const char* reports) {
        QTest::newRow(name) << after << latin1(reports);
    };
    // From Wednesday, 7 January 2026, 12:00, in the slot of Wednesday.
    row("minutes forward", at(2026, 1, 7, 12, 20), "");
    row("minutes forward to the event", at(2026, 1, 7, 12, 30), "event 1230");
    row("hours forward out of the slot", at(2026, 1, 7, 14, 1), "end 1100-1300,calendar 1");
    row("minutes back", at(2026, 1, 7, 11, 45), "calendar 1");
    row("hours back out of the slot", at(2026, 1, 7, 9, 0), "end 1100-1300,calendar 1");
    row("a day forward", at(2026, 1, 8, 12, 0), "end 1100-1300,calendar 2");
    row("a day and a minute forward", at(2026, 1, 8, 12, 1), "end 1100-1300,calendar 2");
    row("a week forward", at(2026, 1, 14, 12, 0), "calendar 2");
    row("a week back", at(2025, 12, 31, 12, 0), "calendar 2,calendar 3,calendar 4");
    row("years forward", at(2037, 6, 6, 12, 30), "event 1230,end 1100-1300,calendar 2,calendar 3,calendar 4");
    row("years back, before the clock was set", at(1970, 1, 1, 1, 0),
        "end 1100-1300,calendar 1,calendar 2,calendar 4");
}

void tst_NEventPlanner::clockChangeIsOneNewMinute()
{
    QFETCH(QDateTime, after);
    QFETCH(QString, reports);
    jump(at(2026, 1, 7, 12, 0));
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(12, 30));
    planner.registerPeriodicEvent(everyDay(), QTime(12, 10));
    planner.registerPeriodicTimeSlot(on(Qt::Wednesday), QTime(11, 0), QTime(13, 0));
    planner.registerPeriodicTimeSlot(on(Qt::Wednesday), QTime(12, 5), QTime(12, 8));
    for (int number = NEventPlanner::NewHour; number <= NEventPlanner::NewYear; ++number)
        planner.registerCalendarEvent(NEventPlanner::CalendarEvent(number));
    take();
    jump(after);
    QCOMPARE(take(), list(reports));
}

void tst_NEventPlanner::changeWithinTheMinuteReportsNothing()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 0));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    set(at(Qt::Monday, 7, 0, 59));
    planner.currentDateTimeChanged();
    QCOMPARE(take(), QStringList());
    set(at(Qt::Monday, 7, 1));
    planner.currentDateTimeChanged();
    QCOMPARE(take(), list("calendar 0"));
    // Set back without notification: the timer times out in the same minute.
    tick(at(Qt::Monday, 7, 1, 40));
    QCOMPARE(take(), list("calendar 0"));
}

void tst_NEventPlanner::signalOfTheClockSetterCanBeConnected()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    ClockSetter setter;
    QVERIFY(!NEventPlanner::disconnectCurrentDateTimeChangedSignal(&setter, SIGNAL(clockSet())));
    QVERIFY(NEventPlanner::connectCurrentDateTimeChangedSignal(&setter, SIGNAL(clockSet()), Qt::DirectConnection));
    setter.setClock(at(Qt::Tuesday, 7, 0));
    QCOMPARE(take(), list("calendar 0"));
    QVERIFY(NEventPlanner::disconnectCurrentDateTimeChangedSignal(&setter, SIGNAL(clockSet())));
    setter.setClock(at(Qt::Tuesday, 8, 0));
    QCOMPARE(take(), QStringList());

    // The caller chooses the type of the connection.
    QVERIFY(NEventPlanner::connectCurrentDateTimeChangedSignal(&setter, SIGNAL(clockSet()), Qt::QueuedConnection));
    setter.setClock(at(Qt::Tuesday, 9, 0));
    QCOMPARE(take(), QStringList());
    QCoreApplication::processEvents();
    QCOMPARE(take(), list("calendar 0"));
}

void tst_NEventPlanner::deletedPlannerEndsItsSlotsAndReportsNothingMore()
{
    QScopedPointer<NEventPlanner> planner(new NEventPlanner(nullptr));
    NPlannerRecorder recorder(planner.data(), &m_reports);
    planner->registerPeriodicEvent(everyDay(), QTime(7, 1));
    planner->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    planner->registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    planner->registerCalendarEvent(NEventPlanner::NewMinute);
    take();
    planner.reset();
    QCOMPARE(take(), list("end 0600-0800"));
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::nothingCanBeRegisteredWithAPlannerThatIsBeingDeleted()
{
    QScopedPointer<NEventPlanner> planner(new NEventPlanner(nullptr));
    NPlannerRecorder recorder(planner.data(), &m_reports);
    planner->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    bool registered = false;
    NEventPlanner* const dying = planner.data();
    recorder.handler = [&](const QString&) {
        registered = dying->registerPeriodicEvent(everyDay(), QTime(7, 1)) ||
                     dying->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
        dying->registerCalendarEvent(NEventPlanner::NewMinute);
    };
    planner.reset();
    QVERIFY(!registered);
    QCOMPARE(take(), list("end 0600-0800"));
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
}

void tst_NEventPlanner::deletedTickerEndsTheSlots()
{
    NEventPlanner planner(nullptr);
    NEventPlanner other(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    NPlannerRecorder recorderOfOther(&other, &m_reports);
    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    other.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    recorder.handler = [&](const QString&) {
        m_reports << latin1(
            planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0)) ? "registered" : "refused");
    };
    delete ticker();
    QStringList reports = take();
    reports.removeOne(latin1("refused"));
    QCOMPARE(reports, list("end 0600-0800,end 0600-0800"));
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), QStringList());
    recorder.handler = nullptr;
    planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    QCOMPARE(take(), list("start 0600-0800"));
}

void tst_NEventPlanner::unregisteredObjectsAreNotReportedInThisMinute()
{
    NEventPlanner planner(nullptr);
    NEventPlanner* const other = new NEventPlanner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    NPlannerRecorder recorderOfOther(other, &m_reports);
    // The first report unregisters everything else.
    const auto handler = [&](const QString&) {
        planner.unregisterPeriodicEvent(nullptr);
        planner.unregisterPeriodicTimeSlot(nullptr);
        planner.unregisterCalendarEvents();
        other->unregisterPeriodicEvent(nullptr);
        other->unregisterPeriodicTimeSlot(nullptr);
        other->unregisterCalendarEvent(NEventPlanner::NewMinute);
    };
    recorder.handler = handler;
    recorderOfOther.handler = handler;
    const QList<NEventPlanner*> both = QList<NEventPlanner*>() << &planner << other;
    for (NEventPlanner* each : both) {
        for (int count = 0; count < 10; ++count) {
            each->registerPeriodicEvent(everyDay(), QTime(7, 1));
            each->registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
        }
        each->registerCalendarEvent(NEventPlanner::NewMinute);
    }
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701"));

    // The same for a planner that is deleted.
    planner.registerPeriodicEvent(everyDay(), QTime(7, 2));
    other->registerPeriodicTimeSlot(everyDay(), QTime(7, 2), QTime(8, 0));
    other->registerCalendarEvent(NEventPlanner::NewMinute);
    recorder.handler = [&](const QString&) { delete other; };
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("event 0702"));
}

void tst_NEventPlanner::registeredObjectsAreReportedFromTheNextMinuteOn()
{
    NEventPlanner planner(nullptr);
    NEventPlanner other(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    NPlannerRecorder recorderOfOther(&other, &m_reports);
    Event* const first = planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        // Its memory is likely to be reused.
        planner.unregisterPeriodicEvent(first);
        const QList<NEventPlanner*> both = QList<NEventPlanner*>() << &planner << &other;
        for (NEventPlanner* each : both) {
            each->registerPeriodicEvent(everyDay(), QTime(7, 1));
            each->registerPeriodicEvent(everyDay(), QTime(7, 2));
            each->registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
            each->registerPeriodicTimeSlot(everyDay(), QTime(7, 2), QTime(8, 0));
            each->registerCalendarEvent(NEventPlanner::NewMinute);
        }
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701,start 0701-0800,start 0701-0800"));
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("event 0702,event 0702,start 0702-0800,start 0702-0800,calendar 0,calendar 0"));
}

// New objects may have the addresses of objects that were still to be reported.
void tst_NEventPlanner::registeredObjectsAreNotConfusedWithUnregisteredOnes()
{
    const int EventCount = 20;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    for (int count = 0; count < EventCount; ++count)
        planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    recorder.handler = [&](const QString&) {
        planner.unregisterPeriodicEvent(nullptr);
        for (int count = 0; count < EventCount; ++count)
            planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701"));

    QList<TimeSlot*> added;
    for (int count = 0; count < EventCount; ++count)
        planner.registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0));
    take();
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        planner.unregisterPeriodicTimeSlot(nullptr);
        for (int count = 0; count < EventCount; ++count)
            added << planner.registerPeriodicTimeSlot(everyDay(), QTime(5, 0), QTime(8, 0));
    };
    planner.unregisterPeriodicTimeSlot(nullptr);
    const QStringList reports = take();
    QCOMPARE(reports.count(latin1("end 0600-0800")), EventCount);
    QCOMPARE(reports.count(latin1("start 0500-0800")), EventCount);
    QCOMPARE(reports.size(), 2 * EventCount);
    for (TimeSlot* timeSlot : added)
        QVERIFY(planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::calendarEventRegisteredAgainWaitsForTheNextMinute()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        planner.unregisterCalendarEvents();
        planner.registerCalendarEvent(NEventPlanner::NewMinute);
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701"));
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("calendar 0"));
}

void tst_NEventPlanner::modifiedEventIsReportedIfStillDue()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    Event* const one = planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    Event* const other = planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    Event* const later = planner.registerPeriodicEvent(everyDay(), QTime(7, 5));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        planner.modifyRegisteredPeriodicEvent(one, everyDay(), QTime(7, 2));
        planner.modifyRegisteredPeriodicEvent(other, everyDay(), QTime(7, 2));
        planner.modifyRegisteredPeriodicEvent(later, everyDay(), QTime(7, 1));
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701"));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        planner.modifyRegisteredPeriodicEvent(one, on(Qt::Monday), QTime(7, 2));
        planner.modifyRegisteredPeriodicEvent(other, on(Qt::Monday), QTime(7, 2));
    };
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("event 0702,event 0702"));
}

void tst_NEventPlanner::modifiedSlotIsNotChangedBackInThisMinute()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    TimeSlot* const other = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(6, 0), QTime(7, 30));
        planner.modifyRegisteredPeriodicTimeSlot(other, everyDay(), QTime(7, 2), QTime(7, 30));
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701,start 0600-0730"));
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(take(), list("start 0702-0730"));
}

void tst_NEventPlanner::registrationReturnsNullWhenItsStartUnregistersTheSlot()
{
    NEventPlanner* const planner = new NEventPlanner(nullptr);
    NPlannerRecorder recorder(planner, &m_reports);
    recorder.handler = [&](const QString& report) {
        if (report.startsWith(QLatin1String("start")))
            planner->unregisterPeriodicTimeSlot(nullptr);
    };
    QVERIFY(!planner->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0)));
    QCOMPARE(take(), list("start 0600-0800,end 0600-0800"));
    recorder.handler = [&](const QString& report) {
        if (report.startsWith(QLatin1String("start")))
            delete planner;
    };
    QVERIFY(!planner->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(8, 0)));
    QCOMPARE(take(), list("start 0600-0800,end 0600-0800"));
}

void tst_NEventPlanner::furtherReceiversCanReadWhatTheFirstUnregistered()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder first(&planner, &m_reports, latin1("first "));
    NPlannerRecorder second(&planner, &m_reports, latin1("second "));
    first.handler = [&](const QString& report) {
        if (report.startsWith(QLatin1String("end")))
            return;
        planner.unregisterPeriodicEvent(nullptr);
        planner.unregisterPeriodicTimeSlot(nullptr);
    };
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("first event 0701,second event 0701"));
    planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 2), QTime(8, 0));
    tick(at(Qt::Monday, 7, 2));
    QCOMPARE(
        take(), list("first start 0702-0800,first end 0702-0800,second end 0702-0800,"
                     "second start 0702-0800"));
}

// newMinute() is what the timer calls when it times out in the nested event loop.
void tst_NEventPlanner::nestedEventLoopProcessesMinutesWithoutLoss()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    for (int count = 0; count < 3; ++count) {
        planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
        planner.registerPeriodicEvent(everyDay(), QTime(7, 2));
    }
    planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(7, 2));
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        set(at(Qt::Monday, 7, 2));
        QEventLoop loop;
        QObject::connect(ticker(), SIGNAL(destroyed()), &loop, SLOT(quit()));
        QMetaObject::invokeMethod(ticker(), "newMinute", Qt::QueuedConnection);
        QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
        loop.exec();
        m_reports << latin1("loop ends");
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(
        take(), list("event 0701,event 0701,event 0701,start 0701-0702,calendar 0,"
                     "event 0702,event 0702,event 0702,end 0701-0702,calendar 0,loop ends"));
    tick(at(Qt::Monday, 7, 3));
    QCOMPARE(take(), list("calendar 0"));
}

void tst_NEventPlanner::slotsAreCorrectAfterAClockChangeInANestedEventLoop()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    recorder.handler = [&](const QString&) {
        recorder.handler = nullptr;
        jump(at(Qt::Monday, 12, 0));
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701,start 0701-0800,end 0701-0800"));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::slotModifiedInTheNextMinuteIsNotChangedBack()
{
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &m_reports);
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    planner.registerPeriodicEvent(everyDay(), QTime(7, 1));
    TimeSlot* const timeSlot = planner.registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
    recorder.handler = [&](const QString&) {
        recorder.handler = [&](const QString&) {
            // 07:02 has begun, and the slot's start at 07:01 is still to be reported.
            recorder.handler = nullptr;
            planner.modifyRegisteredPeriodicTimeSlot(timeSlot, everyDay(), QTime(7, 1), QTime(7, 2));
        };
        tick(at(Qt::Monday, 7, 2));
    };
    tick(at(Qt::Monday, 7, 1));
    QCOMPARE(take(), list("event 0701,event 0701"));
    QVERIFY(!planner.isPeriodicTimeSlotCurrentlyActive(timeSlot));
}

void tst_NEventPlanner::receiversMayDoAnything_data()
{
    QTest::addColumn<QString>("cause");
    QTest::addColumn<QString>("action");
    const QStringList causes = list("event,start,end,calendar,registering,modifying,unregistering,deleting");
    const QStringList actions =
        list("register,modify,unregister one,unregister all,delete emitting,delete other,delete both,tick,jump,"
             "delete ticker,nested loop");
    for (const QString& cause : causes) {
        for (const QString& action : actions) {
            // An object being deleted must not be deleted again.
            if (cause == QLatin1String("deleting") && action != QLatin1String("delete other") &&
                action.startsWith(QLatin1String("delete")) && action != QLatin1String("delete ticker"))
                continue;
            QTest::newRow(qPrintable(cause + latin1(": ") + action)) << cause << action;
        }
    }
}

// The address sanitizer detects use after deletion.
void tst_NEventPlanner::receiversMayDoAnything()
{
    QFETCH(QString, cause);
    QFETCH(QString, action);

    struct Objects
    {
        NEventPlanner* planner;
        NPlannerRecorder* recorder;
        NPlannerRecorder* secondRecorder;
        QList<Event*> events;
        QList<TimeSlot*> timeSlots;
    };
    QList<Objects> all;
    bool acted = false;
    const auto fill = [](Objects& objects) {
        for (int count = 0; count < 5; ++count) {
            objects.events << objects.planner->registerPeriodicEvent(everyDay(), QTime(7, 1));
            objects.timeSlots << objects.planner->registerPeriodicTimeSlot(everyDay(), QTime(7, 1), QTime(8, 0));
            objects.timeSlots << objects.planner->registerPeriodicTimeSlot(everyDay(), QTime(6, 0), QTime(7, 1));
        }
        objects.planner->registerCalendarEvent(NEventPlanner::NewMinute);
        objects.planner->registerCalendarEvent(NEventPlanner::NewHour);
    };
    const auto remove = [&](int index) {
        NEventPlanner* const planner = all[index].planner;
        all[index].planner = nullptr;
        delete planner;
    };
    const auto act = [&](int emitting) {
        const int other = 1 - emitting;
        if (action == QLatin1String("delete emitting") || action == QLatin1String("delete both"))
            remove(emitting);
        if (action == QLatin1String("delete other") || action == QLatin1String("delete both"))
            remove(other);
        if (action == QLatin1String("delete ticker"))
            delete ticker();
        if (action == QLatin1String("tick"))
            tick(at(Qt::Monday, 7, 2));
        if (action == QLatin1String("jump"))
            jump(at(Qt::Sunday, 23, 59));
        if (action == QLatin1String("nested loop")) {
            set(at(Qt::Monday, 7, 2));
            QEventLoop loop;
            QMetaObject::invokeMethod(ticker(), "newMinute", Qt::QueuedConnection);
            QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
            loop.exec();
        }
        for (int index = 0; index < all.size(); ++index) {
            Objects& objects = all[index];
            if (!objects.planner)
                continue;
            if (action == QLatin1String("register"))
                fill(objects);
            if (action == QLatin1String("modify")) {
                for (Event* event : objects.events)
                    objects.planner->modifyRegisteredPeriodicEvent(event, on(Qt::Monday), QTime(7, 2));
                for (TimeSlot* timeSlot : objects.timeSlots)
                    objects.planner->modifyRegisteredPeriodicTimeSlot(
                        timeSlot, everyDay(), QTime(0, 0), QTime(7, 2));
            }
            if (action == QLatin1String("unregister one")) {
                for (Event* event : objects.events)
                    objects.planner->unregisterPeriodicEvent(event);
                for (TimeSlot* timeSlot : objects.timeSlots)
                    objects.planner->unregisterPeriodicTimeSlot(timeSlot);
            }
            if (action == QLatin1String("unregister all")) {
                objects.planner->unregisterPeriodicEvent(nullptr);
                objects.planner->unregisterPeriodicTimeSlot(nullptr);
                objects.planner->unregisterCalendarEvents();
            }
        }
    };
    for (int index = 0; index < 2; ++index) {
        Objects objects = Objects();
        objects.planner = new NEventPlanner(nullptr);
        objects.recorder = new NPlannerRecorder(objects.planner, &m_reports);
        objects.secondRecorder = new NPlannerRecorder(objects.planner, &m_reports);
        fill(objects);
        all << objects;
    }

    const bool isTick = list("event,start,end,calendar").contains(cause);
    for (int index = 0; index < 2; ++index) {
        all[index].recorder->handler = [&, index](const QString& report) {
            if (acted || (isTick && !report.startsWith(cause)))
                return;
            acted = true;
            act(index);
        };
    }
    take();
    if (isTick)
        tick(at(Qt::Monday, 7, 1));
    else if (cause == QLatin1String("registering"))
        all[0].planner->registerPeriodicTimeSlot(everyDay(), QTime(5, 0), QTime(9, 0));
    else if (cause == QLatin1String("modifying"))
        all[0].planner->modifyRegisteredPeriodicTimeSlot(
            all[0].timeSlots.first(), everyDay(), QTime(5, 0), QTime(9, 0));
    else if (cause == QLatin1String("unregistering"))
        all[0].planner->unregisterPeriodicTimeSlot(nullptr);
    else
        remove(0);
    QVERIFY(acted);

    // Everything that remains continues to work.
    QStringList expected;
    for (const Objects& objects : all) {
        objects.recorder->handler = nullptr;
        if (!objects.planner)
            continue;
        objects.planner->unregisterPeriodicEvent(nullptr);
        objects.planner->unregisterPeriodicTimeSlot(nullptr);
        objects.planner->unregisterCalendarEvents();
        objects.planner->registerPeriodicEvent(everyDay(), QTime(12, 0));
        expected << list("event 1200,event 1200");
    }
    take();
    tick(at(Qt::Tuesday, 12, 0));
    QCOMPARE(take(), expected);
    for (const Objects& objects : all) {
        delete objects.planner;
        delete objects.recorder;
        delete objects.secondRecorder;
    }
}

QTEST_MAIN(tst_NEventPlanner)
#include "tst_neventplanner.moc"
