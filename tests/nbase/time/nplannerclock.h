#ifndef NBASE_TESTS_NPLANNERCLOCK_H
#define NBASE_TESTS_NPLANNERCLOCK_H

#include "support/nsystemcalls.h"

#include <nbase/time/neventplannersingleton.h>

#include <stdlib.h>
#include <time.h>

/** The minute ticker with a clock that is set by the test and does not advance. */
namespace NPlannerClock {

/** The zone of Central Europe: local time changes from 02:00 to 03:00 in March and from 03:00 to 02:00 in October.
 */
const char* const CentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

inline void setTimeZone(const char* zone)
{
    ::setenv("TZ", zone, 1);
    ::tzset();
}

inline QDateTime at(int year, int month, int day, int hour, int minute, int second = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second));
}

/** In the week from Monday, 5 January, to Sunday, 11 January 2026. */
inline QDateTime at(Qt::DayOfWeek day, int hour, int minute, int second = 0)
{
    return at(2026, 1, 4 + day, hour, minute, second);
}

inline void set(const QDateTime& local)
{
    NSystemCalls::stopClockAt(local.toMSecsSinceEpoch());
}

inline NEventPlannerSingleton* ticker()
{
    return NEventPlannerSingleton::instance();
}

/** Whether the process has a ticker. */
inline bool hasTicker()
{
    struct Singleton : public NSingleton<NEventPlannerSingleton>
    {
        static bool exists() { return s_instance != nullptr; }
    };
    return Singleton::exists();
}

/** Sets the clock and creates a new ticker. */
inline void begin(const QDateTime& local)
{
    delete ticker();
    set(local);
    ticker();
}

/** Sets the clock and calls what the timer calls. */
inline void tick(const QDateTime& local)
{
    set(local);
    ticker()->newMinute();
}

/** Sets the clock and notifies the ticker. */
inline void jump(const QDateTime& local)
{
    set(local);
    ticker()->currentDateTimeChanged();
}

} // namespace NPlannerClock

#endif
