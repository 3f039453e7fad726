// The planner with many events and time slots, half of each, in different numbers of planners. "tick" is one
// minute in which a random part is due, without receivers, compared with iterating over the same hash of sets
// without accessing the entries. "jump" is a change of the clock to another day, after which every slot is
// compared with its state. "register" registers and unregisters entries one by one, compared with a hash of sets.

#include "support/nsystemcalls.h"

#include <nbase/time/neventplanner.h>
#include <nbase/time/neventplannersingleton.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QHash>
#include <QtCore/QTimer>
#include <QtCore/QVector>

#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <time.h>

#include <functional>
#include <string>

namespace {

typedef NEventPlanner::NPeriodicEvent Event;
typedef NEventPlanner::NPeriodicTimeSlot TimeSlot;
typedef QSet<Qt::DayOfWeek> Days;

const qint64 MillisecondsPerMinute = 60 * 1000;
const qint64 MillisecondsPerDay = 24 * 60 * MillisecondsPerMinute;

// Monday, 5 January 2026, 00:00 UTC.
const qint64 Start = Q_INT64_C(1767571200000);

class Random
{
public:
    Random()
        : m_state(1)
    {
    }

    int below(int limit)
    {
        m_state = m_state * 1664525u + 1013904223u;
        return int((quint64(m_state) * quint64(limit)) >> 32);
    }

    QTime time() { return QTime(below(24), below(60)); }

private:
    quint32 m_state;
};

// A number of entries in a number of planners, registered, and in hashes like those of the ticker.
class Entries
{
public:
    Entries(int count, int plannerCount)
    {
        NSystemCalls::stopClockAt(Start);
        Random random;
        Days workingDays;
        for (int day = Qt::Monday; day <= Qt::Friday; ++day)
            workingDays << Qt::DayOfWeek(day);
        for (int index = 0; index < plannerCount; ++index)
            m_planners.append(new NEventPlanner(nullptr));
        for (int index = 0; index < count; ++index) {
            NEventPlanner* const planner = m_planners.at(index / 2 % plannerCount);
            if (index % 2)
                events[planner].insert(planner->registerPeriodicEvent(workingDays, random.time()));
            else
                timeSlots[planner].insert(
                    planner->registerPeriodicTimeSlot(workingDays, random.time(), random.time()));
        }
    }

    ~Entries()
    {
        qDeleteAll(m_planners);
        delete NEventPlannerSingleton::instance();
        NSystemCalls::resetClock();
    }

    QHash<NEventPlanner*, QSet<Event*>> events;
    QHash<NEventPlanner*, QSet<TimeSlot*>> timeSlots;

private:
    QVector<NEventPlanner*> m_planners;
};

void finish(benchmark::State& state)
{
    state.counters["per_entry"] = benchmark::Counter(
        double(state.range(0)), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void tick(benchmark::State& state, int plannerCount, qint64 step)
{
    const Entries entries(int(state.range(0)), plannerCount);
    NEventPlannerSingleton* const ticker = NEventPlannerSingleton::instance();
    qint64 time = Start;
    for (auto _ : state) {
        time += step;
        NSystemCalls::stopClockAt(time);
        ticker->newMinute();
    }
    finish(state);
}

template <typename Entry> void walk(const QHash<NEventPlanner*, QSet<Entry*>>& entries)
{
    typename QHash<NEventPlanner*, QSet<Entry*>>::const_iterator planner = entries.constBegin();
    for (; planner != entries.constEnd(); ++planner) {
        typename QSet<Entry*>::const_iterator it = planner.value().constBegin();
        for (; it != planner.value().constEnd(); ++it)
            benchmark::DoNotOptimize(*it);
    }
}

void walk(benchmark::State& state, int plannerCount)
{
    const Entries entries(int(state.range(0)), plannerCount);
    for (auto _ : state) {
        walk(entries.events);
        walk(entries.timeSlots);
    }
    finish(state);
}

// The minimum for a minute, whatever is registered: the local time in the current zone, the rest of the minute,
// and the timer.
void walkNothing(benchmark::State& state)
{
    NSystemCalls::stopClockAt(Start);
    QTimer timer;
    timer.setSingleShot(true);
    for (auto _ : state) {
        const time_t now = time_t(QDateTime::currentMSecsSinceEpoch() / 1000);
        struct tm local;
        ::tzset();
        benchmark::DoNotOptimize(::localtime_r(&now, &local));
        benchmark::DoNotOptimize(QDateTime::currentMSecsSinceEpoch());
        timer.start(int(MillisecondsPerMinute));
    }
    NSystemCalls::resetClock();
}

void registerEntries(benchmark::State& state)
{
    const int count = int(state.range(0)) / 2;
    const Days days = Days() << Qt::Monday;
    NSystemCalls::stopClockAt(Start);
    NEventPlanner planner(nullptr);
    QVector<Event*> events(count);
    QVector<TimeSlot*> timeSlots(count);
    for (auto _ : state) {
        for (int index = 0; index < count; ++index) {
            events[index] = planner.registerPeriodicEvent(days, QTime(8, 0));
            timeSlots[index] = planner.registerPeriodicTimeSlot(days, QTime(8, 0), QTime(9, 0));
        }
        for (int index = 0; index < count; ++index) {
            planner.unregisterPeriodicEvent(events.at(index));
            planner.unregisterPeriodicTimeSlot(timeSlots.at(index));
        }
    }
    finish(state);
    NSystemCalls::resetClock();
}

void insertEntries(benchmark::State& state)
{
    const int count = int(state.range(0)) / 2;
    const Days days = Days() << Qt::Monday;
    QHash<NEventPlanner*, QSet<Event*>> eventSets;
    QHash<NEventPlanner*, QSet<TimeSlot*>> timeSlotSets;
    QHash<TimeSlot*, bool> states;
    QVector<Event*> events(count);
    QVector<TimeSlot*> timeSlots(count);
    for (auto _ : state) {
        for (int index = 0; index < count; ++index) {
            events[index] = new Event(days, QTime(8, 0));
            eventSets[nullptr].insert(events.at(index));
            timeSlots[index] = new TimeSlot(days, QTime(8, 0), QTime(9, 0));
            timeSlotSets[nullptr].insert(timeSlots.at(index));
            states.insert(timeSlots.at(index), false);
        }
        for (int index = 0; index < count; ++index) {
            eventSets[nullptr].remove(events.at(index));
            delete events.at(index);
            timeSlotSets[nullptr].remove(timeSlots.at(index));
            states.remove(timeSlots.at(index));
            delete timeSlots.at(index);
        }
    }
    finish(state);
}

void add(const std::string& name, const std::function<void(benchmark::State&)>& function)
{
    benchmark::RegisterBenchmark(name.c_str(), function)->RangeMultiplier(100)->Range(100, 1000000);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QList<int> plannerCounts = QList<int>() << 1 << 100 << 10000;
    for (int planners : plannerCounts) {
        const std::string suffix = ", planners: " + std::to_string(planners);
        add("tick" + suffix + "/ours",
            [=](benchmark::State& state) { tick(state, planners, MillisecondsPerMinute); });
        add("tick" + suffix + "/walk", [=](benchmark::State& state) { walk(state, planners); });
        add("jump" + suffix + "/ours",
            [=](benchmark::State& state) { tick(state, planners, MillisecondsPerDay + MillisecondsPerMinute); });
        add("jump" + suffix + "/walk", [=](benchmark::State& state) { walk(state, planners); });
    }
    benchmark::RegisterBenchmark("tick without entries/ours", [](benchmark::State& state) {
        tick(state, 1, MillisecondsPerMinute);
    })->Arg(0);
    benchmark::RegisterBenchmark("tick without entries/clock and timer", walkNothing)->Arg(0);
    add("register/ours", registerEntries);
    add("register/hash of sets", insertEntries);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
