// A heating controlled by the time of the week: warm on working days from 06:00 to 22:00, a test of the pump on
// Monday at 05:30, and a line in the log at every full hour.

#include <nbase/time/neventplanner.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

class Heating : public QObject
{
    Q_OBJECT

public:
    Heating()
        : m_warmTime(nullptr)
        , m_pumpTest(nullptr)
    {
        connect(
            &m_planner, SIGNAL(periodicTimeSlotStarted(const NEventPlanner::NPeriodicTimeSlot*)), this,
                               SLOT(beginSlot(const NEventPlanner::NPeriodicTimeSlot*)));
        connect(
            &m_planner, SIGNAL(periodicTimeSlotEnded(const NEventPlanner::NPeriodicTimeSlot*)), this,
                               SLOT(endSlot(const NEventPlanner::NPeriodicTimeSlot*)));
        connect(
            &m_planner, SIGNAL(periodicEventTriggered(const NEventPlanner::NPeriodicEvent*)), this,
                               SLOT(runEvent(const NEventPlanner::NPeriodicEvent*)));
        connect(
            &m_planner, SIGNAL(calendarEventTriggered(NEventPlanner::CalendarEvent)), this,
                               SLOT(logTime(NEventPlanner::CalendarEvent)));

        QSet<Qt::DayOfWeek> workingDays;
        workingDays << Qt::Monday << Qt::Tuesday << Qt::Wednesday << Qt::Thursday << Qt::Friday;
        const QSet<Qt::DayOfWeek> monday = QSet<Qt::DayOfWeek>() << Qt::Monday;

        // Between 06:00 and 22:00 of a working day, this calls beginSlot() before it returns.
        m_warmTime = m_planner.registerPeriodicTimeSlot(workingDays, QTime(6, 0), QTime(22, 0));
        m_pumpTest = m_planner.registerPeriodicEvent(monday, QTime(5, 30));
        m_planner.registerCalendarEvent(NEventPlanner::NewHour);
    }

private slots:
    void beginSlot(const NEventPlanner::NPeriodicTimeSlot*) { qDebug() << "warm"; }

    void endSlot(const NEventPlanner::NPeriodicTimeSlot*) { qDebug() << "cool"; }

    void runEvent(const NEventPlanner::NPeriodicEvent* event)
    {
        if (event == m_pumpTest)
            qDebug() << "testing the pump";
    }

    void logTime(NEventPlanner::CalendarEvent)
    {
        const bool warm = m_planner.isPeriodicTimeSlotCurrentlyActive(m_warmTime);
        qDebug() << "a new hour, the heating is" << (warm ? "warm" : "cool");
    }

private:
    NEventPlanner m_planner;
    NEventPlanner::NPeriodicTimeSlot* m_warmTime;
    NEventPlanner::NPeriodicEvent* m_pumpTest;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Heating heating;
    return application.exec();
}

#include "main.moc"
