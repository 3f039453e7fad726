// Inputs on a GPIO chip with interrupts, the PL061 of an emulated ARM board: scripts/run-gpio-interrupts.py. A
// line
// "@0 1" on the standard output has that program set line 0 of the chip high.
#include "gpioinput.h"
#include "gpiooutput.h"

#include "support/ntestwait.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <algorithm>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

namespace {

const int ManyEdges = 10000;
const int EdgeTimeout = 30000; // milliseconds; reached only if an edge is missed
const int BounceTime = 3;      // milliseconds
const int DebounceTime = 200;  // milliseconds

QString chipLine(int number)
{
    return QLatin1String("9030000.pl061:") + QString::number(number);
}

void apply(int line, bool level)
{
    printf("@%d %d\n", line, level);
    fflush(stdout);
}

void bounce(int line)
{
    for (int i = 0; i < 20; ++i) {
        apply(line, i % 2 == 0);
        usleep(BounceTime * 1000);
    }
}

qint64 now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

/** Removes the chip and adds it again, as if it were unplugged. */
bool bindDriver(const char* action)
{
    QFile file(QLatin1String("/sys/bus/amba/drivers/pl061_gpio/") + QLatin1String(action));
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write("9030000.pl061") > 0;
}

/** Notes the edges of an input and how long they took from the kernel's interrupt to the signal. */
class EdgeRecorder : public QObject
{
    Q_OBJECT

public:
    explicit EdgeRecorder(GpioInput* input)
        : m_input(input)
    {
        connect(input, SIGNAL(risingInterrupt()), SLOT(noteRising()));
        connect(input, SIGNAL(fallingInterrupt()), SLOT(noteFalling()));
    }

    /** Runs the event loop, without the pauses of QTest::qWait(), which would be measured. */
    bool waitForEdges(int count, int timeout = EdgeTimeout) const
    {
        QTimer waker; // for the event loop, in case that nothing arrives
        waker.start(100);
        QElapsedTimer timer;
        timer.start();
        while (edges.size() < count && !timer.hasExpired(timeout))
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        return edges.size() >= count;
    }

    QByteArray edges; ///< 'r' and 'f'
    QList<qint64> latencies;

private slots:
    void noteRising() { note('r'); }
    void noteFalling() { note('f'); }

private:
    void note(char edge)
    {
        edges += edge;
        latencies.append(now() - qint64(m_input->edgeTime()));
    }

    GpioInput* m_input;
};

} // namespace

class tst_GpioInterrupts : public QObject
{
    Q_OBJECT

private slots:
    void everyEdgeIsReported();
    void bouncingIsSuppressed();
    void lineOfADriverIsInvalid();
    void removedChip();
};

void tst_GpioInterrupts::everyEdgeIsReported()
{
    GpioInput input(chipLine(0), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    QVERIFY2(input.isValid(), qPrintable(input.errorText()));
    QSignalSpy states(&input, SIGNAL(stateChanged(bool, bool)));
    EdgeRecorder recorder(&input);
    for (int i = 1; i <= ManyEdges; ++i) {
        apply(0, i % 2 != 0);
        QVERIFY2(recorder.waitForEdges(i), qPrintable(QString::number(i)));
        QCOMPARE(input.rawState(), i % 2 != 0);
    }
    QCOMPARE(recorder.edges, QByteArray("rf").repeated(ManyEdges / 2));
    QCOMPARE(states.count(), ManyEdges);

    QList<qint64> latencies = recorder.latencies;
    std::sort(latencies.begin(), latencies.end());
    const int inTime =
        int(std::upper_bound(latencies.constBegin(), latencies.constEnd(), 5000000) - latencies.constBegin());
    qDebug() << ManyEdges << "edges; from the interrupt to the signal, in microseconds: half of them within"
             << latencies.at(ManyEdges / 2) / 1000 << ", 99 % within" << latencies.at(ManyEdges * 99 / 100) / 1000
             << ", all within" << latencies.last() / 1000 << ";" << inTime << "within 5 ms";
}

void tst_GpioInterrupts::bouncingIsSuppressed()
{
    GpioInput::Settings settings;
    settings.bias = GpioInput::BiasPullUp; // which this chip ignores
    settings.debounce = DebounceTime * 1000;
    GpioInput input(chipLine(1), GpioInput::PolarityNo, settings, nullptr);
    QVERIFY2(input.isValid(), qPrintable(input.errorText()));
    EdgeRecorder recorder(&input);
    bounce(1); // ends low
    QVERIFY(!recorder.waitForEdges(1, 5 * DebounceTime));
    bounce(1);
    apply(1, true);
    QVERIFY(recorder.waitForEdges(1));
    QVERIFY(!recorder.waitForEdges(2, 5 * DebounceTime));
    QCOMPARE(recorder.edges, QByteArray("r"));
}

void tst_GpioInterrupts::lineOfADriverIsInvalid()
{
    // The button of the board.
    const GpioInput input(chipLine(3), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    QVERIFY(!input.isValid());
    QCOMPARE(input.errorText(), QString::fromLatin1("held by \"GPIO Key Poweroff\""));
}

void tst_GpioInterrupts::removedChip()
{
    GpioInput input(chipLine(2), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    GpioOutput output(chipLine(4), GpioOutput::PolarityNo, true, GpioOutput::Settings(), nullptr);
    QVERIFY(input.isValid());
    QVERIFY2(output.isActive(), qPrintable(output.errorText()));
    QVERIFY(bindDriver("unbind"));
    NTRY_VERIFY(!input.isValid() && !output.isValid());
    QVERIFY(bindDriver("bind"));
    NTRY_VERIFY(input.isValid() && output.isValid());
    QVERIFY2(output.isActive(), qPrintable(output.errorText()));
    EdgeRecorder recorder(&input);
    apply(2, true);
    QVERIFY(recorder.waitForEdges(1));
}

QTEST_MAIN(tst_GpioInterrupts)
#include "tst_gpiointerrupts.moc"
