// Inputs on a GPIO chip with interrupts, the PL061 of an emulated ARM board: scripts/run-gpio-interrupts.py. That
// program sets line 0 of the chip high when the standard output has the line "@0 1".
#include "gpio/nedgerecorder.h"

#include "gpioinput.h"
#include "gpiooutput.h"

#include "support/ntestwait.h"

#include <QtCore/QFile>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <stdio.h>
#include <unistd.h>

namespace {

const int ManyEdges = 10000;
const int BounceTime = 3;     // milliseconds
const int DebounceTime = 200; // milliseconds

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

/** Removes the chip and adds it again, as if it were unplugged. */
bool bindDriver(const char* action)
{
    QFile file(QLatin1String("/sys/bus/amba/drivers/pl061_gpio/") + QLatin1String(action));
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write("9030000.pl061") > 0;
}

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
    NEdgeRecorder recorder(&input);
    for (int i = 1; i <= ManyEdges; ++i) {
        apply(0, i % 2 != 0);
        QVERIFY2(recorder.waitForEdges(i), qPrintable(QString::number(i)));
        QCOMPARE(input.rawState(), i % 2 != 0);
    }
    QCOMPARE(recorder.edges, QByteArray("rf").repeated(ManyEdges / 2));
    QCOMPARE(states.count(), ManyEdges);

    qDebug("%s", NEdgeRecorder::summary(recorder.latencies).constData());
}

void tst_GpioInterrupts::bouncingIsSuppressed()
{
    GpioInput::Settings settings;
    settings.bias = GpioInput::BiasPullUp; // which this chip ignores
    settings.debounce = DebounceTime * 1000;
    GpioInput input(chipLine(1), GpioInput::PolarityNo, settings, nullptr);
    QVERIFY2(input.isValid(), qPrintable(input.errorText()));
    NEdgeRecorder recorder(&input);
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
    NEdgeRecorder recorder(&input);
    apply(2, true);
    QVERIFY(recorder.waitForEdges(1));
}

QTEST_MAIN(tst_GpioInterrupts)
#include "tst_gpiointerrupts.moc"
