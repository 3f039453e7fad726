#ifndef NBASE_TESTS_NFAKECLOCK_H
#define NBASE_TESTS_NFAKECLOCK_H

#include <QtCore/qglobal.h>

/**
 * The system clock as the test program and its libraries see it. A program that is built with nfakeclock.cpp has
 * its own gettimeofday(), clock_gettime() and time(), which come before the system's for all its libraries; so the
 * library under test needs no seam, nothing has to be preloaded and no privilege is needed. (A time namespace, see
 * time_namespaces(7), would not do: it moves the monotonic clocks only.) The monotonic clocks, and so all timers,
 * stay as they are.
 *
 * Times are milliseconds since 1970-01-01T00:00:00 UTC.
 */
namespace NFakeClock {

/** Sets the clock, which stands still from now on. */
void stopAt(qint64 time);

/** Sets the clock, which goes on from there. */
void runFrom(qint64 time);

/** Makes the stopped clock go on by so many milliseconds after each reading; 0 makes it stand still again. */
void setStep(qint64 milliseconds);

/** Shows the time of the system's clock again. */
void reset();

} // namespace NFakeClock

#endif
