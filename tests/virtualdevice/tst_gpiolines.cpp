// Inputs and outputs on lines of a GPIO chip, and the command ngpio, with the kernel's driver for a USB adapter,
// in the virtual device.
#include "nusbgpioadapter.h"

#include "gpio/nedgerecorder.h"

#include "gpioinput.h"
#include "gpiooutput.h"

#include "support/ntestwait.h"

#include <QtCore/QDir>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <signal.h>

namespace {

const char* const StateSignal = SIGNAL(stateChanged(bool, bool));

const int EdgesOfEachLine = 1250;
const int BufferedEdges = 40;

/** By the label, because a chip that is plugged in again may have another number. */
QString chipLine(int number)
{
    return QLatin1String("cp2112_gpio:") + QString::number(number);
}

QList<QVariant> state(bool valid, bool active)
{
    return QList<QVariant>() << valid << active;
}

/** Whether a process holds the line. */
bool isHeld(int line)
{
    GpioChip chip;
    gpio_v2_line_info info;
    return chip.open(GpioChip::names().value(0)) && chip.readLineInfo(line, &info) &&
           info.flags & GPIO_V2_LINE_FLAG_USED;
}

GpioInput* makeInput(int line, QObject* parent)
{
    return new GpioInput(chipLine(line), GpioInput::PolarityNo, GpioInput::Settings(), parent);
}

int entries(const char* directory)
{
    return QDir(QString::fromLatin1(directory))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

/** The command ngpio. */
class Command
{
public:
    explicit Command(const QByteArray& arguments)
    {
        m_process.start(
            QString::fromLocal8Bit(NGPIO), QString::fromLatin1(arguments.constData()).split(QLatin1Char(' ')),
            QIODevice::ReadOnly);
    }

    ~Command()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    /** Waits for a text on its standard output, with the event loop running. */
    bool prints(const char* text)
    {
        return NTest::waitUntil([&]() {
            output += m_process.readAllStandardOutput();
            return output.contains(text);
        });
    }

    void sendSignal(int number) const { ::kill(pid_t(m_process.processId()), number); }

    /** Waits for the end. @return the exit status; -1 if it was killed. */
    int status()
    {
        NTest::waitUntil([&]() { return m_process.state() == QProcess::NotRunning; });
        output += m_process.readAllStandardOutput();
        error += m_process.readAllStandardError();
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }

    QByteArray output;
    QByteArray error;

private:
    QProcess m_process;
};

/** Does something to an input or output when its state changes. */
class Receiver : public QObject
{
    Q_OBJECT

public:
    enum Action { Delete, RunEventLoop };

    Receiver(QObject* line, Action action)
        : m_line(line)
        , m_action(action)
    {
        connect(line, StateSignal, SLOT(act()));
    }

private slots:
    void act()
    {
        if (m_action == Delete)
            delete m_line;
        else
            QTest::qWait(1);
    }

private:
    QPointer<QObject> m_line;
    Action m_action;
};

} // namespace

class tst_GpioLines : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void inputFollowsItsLine_data();
    void inputFollowsItsLine();
    void edgesWaitForTheEventLoop();
    void manyEdgesOfAllLines();
    void receiverMayDeleteTheInput();

    void outputBeginsWithItsState_data();
    void outputBeginsWithItsState();
    void outputIsDriven();
    void openDrainLeavesHighToTheOutside();
    void levelAtTheEnd_data();
    void levelAtTheEnd();

    void heldLineIsInvalidUntilItIsReleased();
    void unpluggedChip();
    void chipThatIsPluggedInLater();

    void commandListsLines();
    void commandReads();
    void commandWatches();
    void commandDrives();
    void commandReportsErrors_data();
    void commandReportsErrors();

private:
    NUsbGpioAdapter m_adapter;
    int m_descriptors;
};

void tst_GpioLines::init()
{
    m_adapter.setLevels(0);
    m_descriptors = entries("/proc/self/fd");
    QVERIFY(m_adapter.plugIn());
    m_adapter.takeWrites();
}

void tst_GpioLines::cleanup()
{
    // The driver stops looking for edges of all lines when one of them is released; a new chip starts again.
    QVERIFY(m_adapter.unplug());
    // The watch on /dev stays.
    NTRY_VERIFY(entries("/proc/self/fd") <= m_descriptors + 1);
}

// ---- inputs ----

void tst_GpioLines::inputFollowsItsLine_data()
{
    QTest::addColumn<int>("polarity");
    QTest::newRow("normally open") << int(GpioInput::PolarityNo);
    QTest::newRow("normally closed") << int(GpioInput::PolarityNc);
}

void tst_GpioLines::inputFollowsItsLine()
{
    QFETCH(int, polarity);
    const bool activeLevel = polarity == GpioInput::PolarityNo;
    GpioInput input(chipLine(3), GpioInput::PolarityType(polarity), GpioInput::Settings(), nullptr);
    QVERIFY2(input.isValid(), qPrintable(input.errorText()));
    QVERIFY(input.errorText().isEmpty());
    QVERIFY(!input.rawState());
    QCOMPARE(input.isActive(), !activeLevel);
    QSignalSpy states(&input, StateSignal);
    NEdgeRecorder recorder(&input);

    m_adapter.setLevels(1 << 3);
    NTRY_COMPARE(recorder.edges, QByteArray("r"));
    QVERIFY(input.rawState());
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, activeLevel));

    m_adapter.setLevels(~(1 << 3));
    NTRY_COMPARE(recorder.edges, QByteArray("rf"));
    QVERIFY(!input.rawState());
    QCOMPARE(states.count(), 2);
    QCOMPARE(states.at(1), state(true, !activeLevel));
    QVERIFY(recorder.levelsAreThoseOfTheEdges);
    QCOMPARE(input.edgeTime(), quint64(0));
}

void tst_GpioLines::edgesWaitForTheEventLoop()
{
    GpioInput input(chipLine(0), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    QVERIFY(m_adapter.waitForReads(2));
    NEdgeRecorder recorder(&input);
    Receiver receiver(&input, Receiver::RunEventLoop);
    for (int i = 0; i < BufferedEdges; ++i) {
        m_adapter.setLevels(i % 2 == 0 ? 1 : 0);
        // One finds the edge, one reads the level for the event, and the third may have been in progress.
        QVERIFY(m_adapter.waitForReads(4));
    }
    QVERIFY(recorder.edges.isEmpty());
    NTRY_COMPARE(recorder.edges.size(), BufferedEdges);
    QCOMPARE(recorder.edges, QByteArray("rf").repeated(BufferedEdges / 2));
    QVERIFY(recorder.levelsAreThoseOfTheEdges);
}

void tst_GpioLines::manyEdgesOfAllLines()
{
    QObject parent;
    QList<NEdgeRecorder*> recorders;
    for (int line = 0; line < NUsbGpioAdapter::Lines; ++line)
        recorders.append(new NEdgeRecorder(makeInput(line, &parent), &parent));
    for (int i = 1; i <= EdgesOfEachLine; ++i) {
        m_adapter.setLevels(i % 2 == 0 ? 0 : 0xff);
        for (const NEdgeRecorder* recorder : recorders)
            QVERIFY2(recorder->waitForEdges(i), qPrintable(QString::number(i)));
    }
    QList<qint64> latencies;
    for (const NEdgeRecorder* recorder : recorders) {
        QCOMPARE(recorder->edges, QByteArray("rf").repeated(EdgesOfEachLine / 2));
        QVERIFY(recorder->levelsAreThoseOfTheEdges);
        latencies += recorder->latencies;
    }
    qDebug("%s", NEdgeRecorder::summary(latencies).constData());
}

void tst_GpioLines::receiverMayDeleteTheInput()
{
    QPointer<GpioInput> input = makeInput(1, nullptr);
    Receiver receiver(input, Receiver::Delete);
    m_adapter.setLevels(2);
    NTRY_VERIFY(!input);

    input = makeInput(2, nullptr);
    Receiver lossReceiver(input, Receiver::Delete);
    QVERIFY(m_adapter.unplug());
    NTRY_VERIFY(!input);
}

// ---- outputs ----

void tst_GpioLines::outputBeginsWithItsState_data()
{
    QTest::addColumn<int>("polarity");
    QTest::addColumn<bool>("active");
    QTest::addColumn<bool>("high");
    QTest::newRow("normally open, active") << int(GpioOutput::PolarityNo) << true << true;
    QTest::newRow("normally open, inactive") << int(GpioOutput::PolarityNo) << false << false;
    QTest::newRow("normally closed, active") << int(GpioOutput::PolarityNc) << true << false;
    QTest::newRow("normally closed, inactive") << int(GpioOutput::PolarityNc) << false << true;
}

void tst_GpioLines::outputBeginsWithItsState()
{
    QFETCH(int, polarity);
    QFETCH(bool, active);
    QFETCH(bool, high);
    const GpioOutput output(
        chipLine(5), GpioOutput::PolarityType(polarity), active, GpioOutput::Settings(), nullptr);
    QVERIFY2(output.isValid(), qPrintable(output.errorText()));
    QCOMPARE(output.rawState(), high);
    QCOMPARE(output.isActive(), active);
    QCOMPARE(m_adapter.outputs(), 1 << 5);
    QCOMPARE(m_adapter.levels(), high ? 1 << 5 : 0);
    // The other level was never driven.
    QCOMPARE(m_adapter.takeWrites(), QByteArray(high ? "outputs 20, line 5 high" : "outputs 20, line 5 low"));
}

void tst_GpioLines::outputIsDriven()
{
    GpioOutput output(chipLine(5), GpioOutput::PolarityNo, false, GpioOutput::Settings(), nullptr);
    QSignalSpy states(&output, StateSignal);
    output.setActive(true);
    QCOMPARE(m_adapter.levels(), 1 << 5);
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, true));
    output.setActive(true);
    QCOMPARE(states.count(), 1);
    output.setPolarity(GpioOutput::PolarityNc);
    QCOMPARE(m_adapter.levels(), 1 << 5);
    QCOMPARE(states.at(1), state(true, false));
    output.setActive(true);
    QCOMPARE(m_adapter.levels(), 0);
    QCOMPARE(states.at(2), state(true, true));

    QPointer<GpioOutput> other =
        new GpioOutput(chipLine(6), GpioOutput::PolarityNo, false, GpioOutput::Settings(), nullptr);
    Receiver receiver(other, Receiver::Delete);
    other->setActive(true);
    QVERIFY(!other);
}

void tst_GpioLines::openDrainLeavesHighToTheOutside()
{
    GpioOutput::Settings settings;
    settings.drive = GpioOutput::DriveOpenDrain;
    GpioOutput output(chipLine(0), GpioOutput::PolarityNo, false, settings, nullptr);
    QVERIFY2(output.isValid(), qPrintable(output.errorText()));
    m_adapter.setLevels(1); // the resistor
    QCOMPARE(m_adapter.levels(), 0);
    output.setActive(true);
    QCOMPARE(m_adapter.levels(), 1);
    QCOMPARE(m_adapter.outputs(), 0);
    output.setActive(false);
    QCOMPARE(m_adapter.levels(), 0);
    QCOMPARE(m_adapter.outputs(), 1);
}

void tst_GpioLines::levelAtTheEnd_data()
{
    QTest::addColumn<int>("end");
    QTest::addColumn<QByteArray>("option");
    QTest::addColumn<QByteArray>("writes");
    QTest::newRow("unchanged") << int(GpioOutput::EndUnchanged) << QByteArray("unchanged") << QByteArray();
    QTest::newRow("low") << int(GpioOutput::EndLow) << QByteArray("low") << QByteArray("line 7 low");
    QTest::newRow("high") << int(GpioOutput::EndHigh) << QByteArray("high") << QByteArray("line 7 high");
}

void tst_GpioLines::levelAtTheEnd()
{
    QFETCH(int, end);
    QFETCH(QByteArray, option);
    QFETCH(QByteArray, writes);
    GpioOutput::Settings settings;
    settings.end = GpioOutput::End(end);
    {
        GpioOutput output(chipLine(7), GpioOutput::PolarityNo, true, settings, nullptr);
        QVERIFY(output.isValid());
        m_adapter.takeWrites();
    }
    QCOMPARE(m_adapter.takeWrites(), writes);

    for (int signal : {SIGTERM, SIGKILL}) {
        Command command("drive --at-end " + option + " cp2112_gpio:7=active");
        QVERIFY2(command.prints("active"), command.error);
        QCOMPARE(m_adapter.levels(), 1 << 7);
        m_adapter.takeWrites();
        command.sendSignal(signal);
        QCOMPARE(command.status(), signal == SIGTERM ? 0 : -1);
        // The line is released after the last level was driven.
        NTRY_VERIFY(!isHeld(7));
        QCOMPARE(m_adapter.takeWrites(), writes);
    }
}

// ---- validity ----

void tst_GpioLines::heldLineIsInvalidUntilItIsReleased()
{
    Command holder("drive cp2112_gpio:2=active");
    QVERIFY(holder.prints("active"));
    GpioInput input(chipLine(2), GpioInput::PolarityNc, GpioInput::Settings(), nullptr);
    QVERIFY(!input.isValid());
    QVERIFY(!input.isActive());
    QCOMPARE(input.errorText(), QString::fromLatin1("held by \"ngpio\""));
    GpioOutput output(chipLine(2), GpioOutput::PolarityNo, true, GpioOutput::Settings(), nullptr);
    QVERIFY(!output.isValid());
    QSignalSpy outputStates(&output, StateSignal);
    output.setActive(false);
    QCOMPARE(outputStates.count(), 0);
    QCOMPARE(m_adapter.levels(), 1 << 2);

    // One of the two gets it, and the other one gets it after that.
    QSignalSpy inputStates(&input, StateSignal);
    holder.sendSignal(SIGKILL);
    NTRY_VERIFY(input.isValid() || output.isValid());
    QVERIFY(input.isValid() != output.isValid());
    QCOMPARE(inputStates.count() + outputStates.count(), 1);
}

void tst_GpioLines::unpluggedChip()
{
    m_adapter.setLevels(1);
    GpioInput input(chipLine(0), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    GpioOutput::Settings settings;
    settings.end = GpioOutput::EndLow;
    GpioOutput output(chipLine(1), GpioOutput::PolarityNo, false, settings, nullptr);
    QVERIFY(input.isActive());
    QVERIFY(output.isValid());
    QVERIFY(m_adapter.waitForReads(2));
    QSignalSpy inputStates(&input, StateSignal);
    QSignalSpy outputStates(&output, StateSignal);

    QVERIFY(m_adapter.unplug());
    NTRY_COMPARE(inputStates.count(), 1);
    NTRY_COMPARE(outputStates.count(), 1);
    QCOMPARE(inputStates.at(0), state(false, false));
    QCOMPARE(outputStates.at(0), state(false, false));
    QVERIFY(!input.isActive());
    QVERIFY(!output.isValid());
    QVERIFY(!input.errorText().isEmpty());
    output.setActive(true);
    QCOMPARE(outputStates.count(), 1);

    QVERIFY(m_adapter.plugIn());
    NTRY_COMPARE(inputStates.count(), 2);
    NTRY_COMPARE(outputStates.count(), 2);
    QCOMPARE(inputStates.at(1), state(true, true));
    QCOMPARE(outputStates.at(1), state(true, true));
    QCOMPARE(m_adapter.levels(), 1 | 1 << 1);
}

void tst_GpioLines::chipThatIsPluggedInLater()
{
    QVERIFY(m_adapter.unplug());
    GpioInput input(QString::fromLatin1("cp2112_gpio:4"), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    QVERIFY(!input.isValid());
    QCOMPARE(input.errorText(), QString::fromLatin1("there is no such line"));
    QSignalSpy states(&input, StateSignal);
    QVERIFY(m_adapter.plugIn());
    NTRY_VERIFY(input.isValid());
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, false));
}

// ---- the command ----

void tst_GpioLines::commandListsLines()
{
    GpioOutput::Settings settings;
    settings.drive = GpioOutput::DriveOpenDrain;
    const GpioOutput output(chipLine(4), GpioOutput::PolarityNo, false, settings, nullptr);
    const QByteArray chip = GpioChip::names().first().toLatin1();
    const QList<QByteArray> chips = QList<QByteArray>()
                                    << "" << ' ' + chip << " /dev/" + chip << ' ' + chip.mid(8) << " cp2112_gpio";
    for (const QByteArray& operand : chips) {
        Command command("list" + operand);
        QCOMPARE(command.status(), 0);
        const QList<QByteArray> lines = command.output.split('\n');
        QCOMPARE(lines.size(), 10);
        QCOMPARE(lines.at(0), chip + ", cp2112_gpio, 8 lines");
        QVERIFY(lines.at(5).startsWith(chip + ":4 "));
        QVERIFY2(lines.at(5).endsWith(" output open-drain held by \"tst_gpiolines\""), lines.at(5));
    }
}

void tst_GpioLines::commandReads()
{
    m_adapter.setLevels(1 << 6);
    Command command("read cp2112_gpio:6 cp2112_gpio:5");
    QCOMPARE(command.status(), 0);
    QCOMPARE(command.output, QByteArray("cp2112_gpio:6 high active\ncp2112_gpio:5 low inactive\n"));
    Command closed("read --normally-closed cp2112_gpio:6 cp2112_gpio:5");
    QCOMPARE(closed.status(), 0);
    QCOMPARE(closed.output, QByteArray("cp2112_gpio:6 high inactive\ncp2112_gpio:5 low active\n"));
}

void tst_GpioLines::commandWatches()
{
    Command command("watch --changes 2 cp2112_gpio:1");
    QVERIFY(command.prints("] cp2112_gpio:1 low inactive\n"));
    m_adapter.setLevels(2);
    QVERIFY(command.prints("] cp2112_gpio:1 high active\n"));
    m_adapter.setLevels(0);
    QCOMPARE(command.status(), 0);
    QCOMPARE(command.output.count('\n'), 3);
    QVERIFY(command.output.endsWith("] cp2112_gpio:1 low inactive\n"));
}

void tst_GpioLines::commandDrives()
{
    Command command("drive --for 200 --normally-closed cp2112_gpio:1=active cp2112_gpio:2=inactive");
    QVERIFY(command.prints("cp2112_gpio:2 high inactive\n"));
    QVERIFY(command.output.contains("] cp2112_gpio:1 low active\n"));
    QCOMPARE(m_adapter.outputs(), 6);
    QCOMPARE(m_adapter.levels(), 4);
    QCOMPARE(command.status(), 0);
}

void tst_GpioLines::commandReportsErrors_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("error");
    QTest::newRow("no such chip") << QByteArray("read gpiochip7:1") << 1
                                  << QByteArray("gpiochip7:1: there is no such line");
    QTest::newRow("no such line") << QByteArray("read cp2112_gpio:8") << 1
                                  << QByteArray("cp2112_gpio:8: there is no such line");
    QTest::newRow("no such name") << QByteArray("read RELAY") << 1 << QByteArray("RELAY: there is no such line");
    QTest::newRow("held line") << QByteArray("read cp2112_gpio:0") << 1
                               << QByteArray("cp2112_gpio:0: held by \"tst_gpiolines\"");
    QTest::newRow("held line that is driven") << QByteArray("drive --for 1 cp2112_gpio:0=active") << 1
                                              << QByteArray("cp2112_gpio:0: held by \"tst_gpiolines\"");
    QTest::newRow("list of no such chip")
        << QByteArray("list gpiochip7") << 1 << QByteArray("gpiochip7: there is no such chip");
}

void tst_GpioLines::commandReportsErrors()
{
    QFETCH(QByteArray, arguments);
    QFETCH(int, status);
    QFETCH(QByteArray, error);
    const GpioInput holder(chipLine(0), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    Command command(arguments);
    QCOMPARE(command.status(), status);
    QCOMPARE(command.error, "ngpio: " + error + '\n');
}

QTEST_MAIN(tst_GpioLines)
#include "tst_gpiolines.moc"
