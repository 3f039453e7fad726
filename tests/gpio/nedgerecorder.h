#ifndef NBASE_TESTS_NEDGERECORDER_H
#define NBASE_TESTS_NEDGERECORDER_H

#include "gpioinput.h"

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QList>
#include <QtCore/QTimer>

#include <algorithm>
#include <time.h>

/** Notes the edges of an input and how long they took from the kernel to the signal. */
class NEdgeRecorder : public QObject
{
    Q_OBJECT

public:
    explicit NEdgeRecorder(GpioInput* input, QObject* parent = nullptr)
        : QObject(parent)
        , levelsAreThoseOfTheEdges(true)
        , m_input(input)
    {
        connect(input, SIGNAL(risingInterrupt()), SLOT(noteRising()));
        connect(input, SIGNAL(fallingInterrupt()), SLOT(noteFalling()));
    }

    /** The time in nanoseconds, by the clock that the kernel takes for edges. */
    static qint64 now()
    {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
    }

    /**
     * Runs the event loop, without the pauses of NTest::waitUntil(), which would be measured.
     * @param timeout in milliseconds; by default one that is reached only if an edge is missed.
     */
    bool waitForEdges(int count, int timeout = 60000) const
    {
        QTimer waker; // for the event loop, in case that nothing arrives
        waker.start(100);
        QElapsedTimer timer;
        timer.start();
        while (edges.size() < count && !timer.hasExpired(timeout))
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        return edges.size() >= count;
    }

    /** For a person to read: how many of the latencies are how long. There is at least one. */
    static QByteArray summary(QList<qint64> latencies)
    {
        std::sort(latencies.begin(), latencies.end());
        const int count = latencies.size();
        const int inTime =
            int(std::upper_bound(latencies.constBegin(), latencies.constEnd(), 5000000) - latencies.constBegin());
        return QByteArray::number(count) +
               " edges; from the kernel to the signal, in microseconds: half of them within " +
               QByteArray::number(latencies.at(count / 2) / 1000) + ", 99 % within " +
               QByteArray::number(latencies.at(count * 99 / 100) / 1000) + ", all within " +
               QByteArray::number(latencies.last() / 1000) + "; " + QByteArray::number(inTime) + " within 5 ms";
    }

    QByteArray edges; ///< 'r' and 'f'
    QList<qint64> latencies;
    bool levelsAreThoseOfTheEdges;

private slots:
    void noteRising() { note('r'); }
    void noteFalling() { note('f'); }

private:
    Q_DISABLE_COPY(NEdgeRecorder)

    void note(char edge)
    {
        edges += edge;
        latencies.append(now() - qint64(m_input->edgeTime()));
        levelsAreThoseOfTheEdges &= m_input->rawState() == (edge == 'r');
    }

    GpioInput* m_input;
};

#endif
