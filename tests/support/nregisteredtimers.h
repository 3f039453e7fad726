#ifndef NBASE_TESTS_NREGISTEREDTIMERS_H
#define NBASE_TESTS_NREGISTEREDTIMERS_H

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QTimerEvent>

/** The running timers of an object, so that a test need not wait for them. */
namespace NTest {

/** @return the identifier and the interval in milliseconds of each timer of @a object on this thread. */
inline QList<QPair<int, int>> registeredTimers(QObject* object)
{
#if QT_VERSION >= 0x050000
    QList<QPair<int, int>> timers;
    const QList<QAbstractEventDispatcher::TimerInfo> infos =
        QAbstractEventDispatcher::instance()->registeredTimers(object);
    for (const QAbstractEventDispatcher::TimerInfo& info : infos)
        timers.append(qMakePair(info.timerId, info.interval));
    return timers;
#else
    return QAbstractEventDispatcher::instance()->registeredTimers(object);
#endif
}

/** Sends @a object the event of its only timer. @return false when it does not have exactly one. */
inline bool fireTimer(QObject* object)
{
    const QList<QPair<int, int>> timers = registeredTimers(object);
    if (timers.size() != 1)
        return false;
    QTimerEvent event(timers.first().first);
    QCoreApplication::sendEvent(object, &event);
    return true;
}

} // namespace NTest

#endif
