#ifndef NBASE_TESTS_NPLANNERRECORDER_H
#define NBASE_TESTS_NPLANNERRECORDER_H

#include <nbase/time/neventplanner.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QStringList>

#include <functional>

/**
 * Records what a planner reports, with the times read from the reported object, and then calls the test's handler.
 */
class NPlannerRecorder : public QObject
{
    Q_OBJECT

public:
    /** Records the signals of @a planner into @a reports, each with @a prefix before it. */
    NPlannerRecorder(
        NEventPlanner* planner, QStringList* reports, const QString& prefix = QString(),
        Qt::ConnectionType type = Qt::AutoConnection)
        : m_reports(reports)
        , m_prefix(prefix)
    {
        connect(
            planner, SIGNAL(periodicEventTriggered(const NEventPlanner::NPeriodicEvent*)), this,
                            SLOT(recordEvent(const NEventPlanner::NPeriodicEvent*)), type);
        connect(
            planner, SIGNAL(periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot*)), this,
                            SLOT(recordStart(const NEventPlanner::NPeriodicTimeSlot*)), type);
        connect(
            planner, SIGNAL(periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot*)), this,
                            SLOT(recordEnd(const NEventPlanner::NPeriodicTimeSlot*)), type);
        connect(
            planner, SIGNAL(calendarEventTriggered(NEventPlanner::CalendarEvent)), this,
                            SLOT(recordCalendar(NEventPlanner::CalendarEvent)), type);
    }

    /** Called after each report, with its text. */
    std::function<void(const QString&)> handler;

    const NEventPlanner::NPeriodicEvent* lastEvent = nullptr;
    const NEventPlanner::NPeriodicTimeSlot* lastTimeSlot = nullptr;

private slots:
    void recordEvent(const NEventPlanner::NPeriodicEvent* event)
    {
        lastEvent = event;
        record(latin1("event ") + text(event->time));
    }

    void recordStart(const NEventPlanner::NPeriodicTimeSlot* timeSlot)
    {
        lastTimeSlot = timeSlot;
        record(latin1("start ") + text(timeSlot));
    }

    void recordEnd(const NEventPlanner::NPeriodicTimeSlot* timeSlot)
    {
        lastTimeSlot = timeSlot;
        record(latin1("end ") + text(timeSlot));
    }

    void recordCalendar(NEventPlanner::CalendarEvent event)
    {
        record(latin1("calendar ") + QString::number(int(event)));
    }

private:
    static QString text(const QTime& time) { return time.toString(latin1("hhmm")); }

    static QString text(const NEventPlanner::NPeriodicTimeSlot* timeSlot)
    {
        return text(timeSlot->startTime) + QLatin1Char('-') + text(timeSlot->endTime);
    }

    void record(const QString& report)
    {
        m_reports->append(m_prefix + report);
        if (handler) {
            // The handler may replace itself.
            const std::function<void(const QString&)> action = handler;
            action(report);
        }
    }

    QStringList* m_reports;
    QString m_prefix;
};

#endif
