// Inputs and outputs on a simulated GPIO chip: what is requested of the kernel, and what goes wrong.
#include "nedgerecorder.h"
#include "nsimulatedgpiochip.h"

#include "gpioinput.h"
#include "gpiooutput.h"

#include "support/nmessagerecorder.h"
#include "support/nprivatenamespace.h"
#include "support/ntestwait.h"
#include "support/nthreads.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QFile>
#include <QtCore/QScopedPointer>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <errno.h>
#include <string.h>
#include <thread>
#include <time.h>

using NSystemCalls::Calls;
using NSystemCalls::Fault;

namespace {

const char* const StateSignal = SIGNAL(stateChanged(bool, bool));

const int ManyEdges = 10000;

const quint64 InputFlags =
    GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;

QList<QVariant> state(bool valid, bool active)
{
    return QList<QVariant>() << valid << active;
}

GpioInput* makeInput(const char* line = "gpiochip0:1")
{
    return new GpioInput(latin1(line), GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
}

GpioOutput* makeOutput()
{
    return new GpioOutput(latin1("gpiochip0:1"), GpioOutput::PolarityNo, true, GpioOutput::Settings(), nullptr);
}

QString textOf(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

} // namespace

class tst_GpioFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void inputSettingsReachTheKernel_data();
    void inputSettingsReachTheKernel();
    void outputSettingsReachTheKernel_data();
    void outputSettingsReachTheKernel();

    void linesAreFoundByNumberAndName_data();
    void linesAreFoundByNumberAndName();

    void inputWithoutEdgesIsReadEachTime();
    void chipWithoutInterrupts();
    void edgesBeforeTheFirstReadingArePartOfIt();
    void lostEdgesAreReported();
    void tenThousandEdges();

    void deniedChipIsOpenedWhenItsPermissionsChange();
    void refusedRequestsAreRepeatedAfterARelease();
    void otherChangesOfTheHolderDoNotMatter();
    void lineThatEndsIsRequestedAgain();
    void failedDrivingIsRepeated();
    void outputOfAMissingChipIsDrivenLater();

private:
    QScopedPointer<NSimulatedGpioChip> m_chip;
};

void tst_GpioFaults::initTestCase()
{
    NPrivateNamespace::mountEmptyDirectory(latin1("/dev"));
}

void tst_GpioFaults::init()
{
    m_chip.reset(new NSimulatedGpioChip);
    NSimulatedGpioChip::plugIn();
    // The watch on /dev of an earlier test reports the new file.
    QCoreApplication::processEvents();
}

void tst_GpioFaults::cleanup()
{
    NSimulatedGpioChip::unplug();
    m_chip.reset();
}

// ---- requests ----

void tst_GpioFaults::inputSettingsReachTheKernel_data()
{
    QTest::addColumn<int>("bias");
    QTest::addColumn<uint>("debounce");
    QTest::addColumn<quint64>("flags");
    QTest::newRow("default") << int(GpioInput::BiasUnchanged) << 0U << quint64(0);
    QTest::newRow("no bias") << int(GpioInput::BiasDisabled) << 0U << quint64(GPIO_V2_LINE_FLAG_BIAS_DISABLED);
    QTest::newRow("pull-up") << int(GpioInput::BiasPullUp) << 0U << quint64(GPIO_V2_LINE_FLAG_BIAS_PULL_UP);
    QTest::newRow("pull-down") << int(GpioInput::BiasPullDown) << 0U << quint64(GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN);
    QTest::newRow("debounced") << int(GpioInput::BiasUnchanged) << 20000U << quint64(0);
}

void tst_GpioFaults::inputSettingsReachTheKernel()
{
    QFETCH(int, bias);
    QFETCH(uint, debounce);
    QFETCH(quint64, flags);
    GpioInput::Settings settings;
    settings.bias = GpioInput::Bias(bias);
    settings.debounce = debounce;
    const GpioInput input(latin1("gpiochip0:2"), GpioInput::PolarityNc, settings, nullptr);
    QVERIFY(input.isValid());
    const gpio_v2_line_request& request = m_chip->lastRequest();
    QCOMPARE(request.num_lines, 1U);
    QCOMPARE(request.offsets[0], 2U);
    QCOMPARE(request.event_buffer_size, 1024U);
    QCOMPARE(QByteArray(request.consumer), QByteArray("tst_gpiofaults"));
    QCOMPARE(quint64(request.config.flags), InputFlags | flags);
    QCOMPARE(request.config.num_attrs, debounce > 0 ? 1U : 0U);
    if (debounce > 0) {
        QCOMPARE(request.config.attrs[0].mask, decltype(request.config.attrs[0].mask)(1));
        QCOMPARE(request.config.attrs[0].attr.id, __u32(GPIO_V2_LINE_ATTR_ID_DEBOUNCE));
        QCOMPARE(request.config.attrs[0].attr.debounce_period_us, debounce);
    }
}

void tst_GpioFaults::outputSettingsReachTheKernel_data()
{
    QTest::addColumn<int>("drive");
    QTest::addColumn<quint64>("flags");
    QTest::newRow("push-pull") << int(GpioOutput::DrivePushPull) << quint64(0);
    QTest::newRow("open drain") << int(GpioOutput::DriveOpenDrain) << quint64(GPIO_V2_LINE_FLAG_OPEN_DRAIN);
    QTest::newRow("open source") << int(GpioOutput::DriveOpenSource) << quint64(GPIO_V2_LINE_FLAG_OPEN_SOURCE);
}

void tst_GpioFaults::outputSettingsReachTheKernel()
{
    QFETCH(int, drive);
    QFETCH(quint64, flags);
    GpioOutput::Settings settings;
    settings.drive = GpioOutput::Drive(drive);
    for (bool active : {true, false}) {
        const GpioOutput output(latin1("gpiochip0:0"), GpioOutput::PolarityNc, active, settings, nullptr);
        QVERIFY(output.isValid());
        const gpio_v2_line_config& config = m_chip->lastRequest().config;
        QCOMPARE(quint64(config.flags), GPIO_V2_LINE_FLAG_OUTPUT | flags);
        QCOMPARE(config.num_attrs, 1U);
        QCOMPARE(config.attrs[0].attr.id, __u32(GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES));
        QCOMPARE(quint64(config.attrs[0].mask), quint64(1));
        QCOMPARE(quint64(config.attrs[0].attr.values), quint64(!active));
    }
}

void tst_GpioFaults::linesAreFoundByNumberAndName_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("error");
    const QString none;
    const QString unknown = latin1("there is no such line");
    QTest::newRow("number") << latin1("gpiochip0:3") << 3 << none;
    QTest::newRow("number of the chip") << latin1("0:3") << 3 << none;
    QTest::newRow("path of the chip") << latin1("/dev/gpiochip0:3") << 3 << none;
    QTest::newRow("label of the chip") << latin1("simulated:3") << 3 << none;
    QTest::newRow("name") << latin1("DOOR") << 1 << none;
    QTest::newRow("name on a chip") << latin1("simulated:DOOR") << 1 << none;
    QTest::newRow("a number before a name") << latin1("gpiochip0:0") << 0 << none;
    QTest::newRow("a name that is a number") << latin1("0") << 3 << none;
    QTest::newRow("a name of two lines") << latin1("LED") << -1 << latin1("this is the name of several lines");
    QTest::newRow("too large a number") << latin1("gpiochip0:5") << -1 << unknown;
    QTest::newRow("a negative number") << latin1("gpiochip0:-1") << -1 << unknown;
    QTest::newRow("unknown chip") << latin1("gpiochip1:1") << -1 << unknown;
    QTest::newRow("unknown name") << latin1("WINDOW") << -1 << unknown;
    QTest::newRow("empty") << QString() << -1 << unknown;
    QTest::newRow("empty number") << latin1("gpiochip0:") << -1 << unknown;
}

void tst_GpioFaults::linesAreFoundByNumberAndName()
{
    QFETCH(QString, address);
    QFETCH(int, line);
    QFETCH(QString, error);
    m_chip->setName(0, "LED");
    m_chip->setName(1, "DOOR");
    m_chip->setName(2, "LED");
    m_chip->setName(3, "0");
    const GpioInput input(address, GpioInput::PolarityNo, GpioInput::Settings(), nullptr);
    QCOMPARE(input.errorText(), error);
    QCOMPARE(input.isValid(), error.isEmpty());
    if (error.isEmpty())
        QCOMPARE(int(m_chip->lastRequest().offsets[0]), line);
}

// ---- edges ----

void tst_GpioFaults::inputWithoutEdgesIsReadEachTime()
{
    GpioInput::Settings settings;
    settings.edges = false;
    const GpioInput input(latin1("gpiochip0:1"), GpioInput::PolarityNc, settings, nullptr);
    QCOMPARE(quint64(m_chip->lastRequest().config.flags), quint64(GPIO_V2_LINE_FLAG_INPUT));
    QVERIFY(!input.rawState());
    QVERIFY(input.isActive());
    m_chip->setLevel(true);
    QVERIFY(input.rawState());
    QVERIFY(!input.isActive());
}

void tst_GpioFaults::chipWithoutInterrupts()
{
    for (int error : {ENODEV, ENXIO}) {
        m_chip->setRequestError(error);
        const QScopedPointer<GpioInput> input(makeInput());
        QVERIFY(!input->isValid());
        QCOMPARE(input->errorText(), latin1("the chip does not report edges of this line"));
        QCOMPARE(QScopedPointer<GpioOutput>(makeOutput())->errorText(), textOf(error));
    }
}

void tst_GpioFaults::edgesBeforeTheFirstReadingArePartOfIt()
{
    // The line rises and falls between the request and the reading of the level, which is the high one.
    m_chip->setLevel(true);
    const NSystemCalls::Notice notice(
        Calls(NSystemCalls::Ioctl).withRequest(GPIO_V2_LINE_GET_VALUES_IOCTL).times(1),
        [this](const NSystemCalls::Invocation&) {
            m_chip->sendEvent(GPIO_V2_LINE_EVENT_RISING_EDGE, 1);
            m_chip->sendEvent(GPIO_V2_LINE_EVENT_FALLING_EDGE, 2);
        });
    const QScopedPointer<GpioInput> input(makeInput());
    QVERIFY(!input->rawState());
    NEdgeRecorder recorder(input.data());
    const NMessageRecorder messages;
    QVERIFY(m_chip->sendEvent(GPIO_V2_LINE_EVENT_RISING_EDGE, 3));
    NTRY_COMPARE(recorder.edges, QByteArray("r"));
    QVERIFY(messages.messages().isEmpty());
}

void tst_GpioFaults::lostEdgesAreReported()
{
    const QScopedPointer<GpioInput> input(makeInput());
    NEdgeRecorder recorder(input.data());
    QSignalSpy states(input.data(), StateSignal);
    const NMessageRecorder messages;
    QVERIFY(m_chip->sendEvent(GPIO_V2_LINE_EVENT_RISING_EDGE, 1));
    QVERIFY(m_chip->sendEvent(GPIO_V2_LINE_EVENT_RISING_EDGE, 5));
    NTRY_COMPARE(recorder.edges, QByteArray("rr"));
    QCOMPARE(states.count(), 1); // the level is the same
    QVERIFY(input->rawState());
    QCOMPARE(
        messages.messages(),
        QStringList(latin1("warning: GPIO: the kernel's buffer was full, 3 edges were lost")));
}

void tst_GpioFaults::tenThousandEdges()
{
    const QScopedPointer<GpioInput> input(makeInput());
    NEdgeRecorder recorder(input.data());
    std::thread sender([this]() {
        const timespec interval = {0, 200000};
        for (int i = 1; i <= ManyEdges; ++i) {
            const quint32 id = i % 2 == 0 ? GPIO_V2_LINE_EVENT_FALLING_EDGE : GPIO_V2_LINE_EVENT_RISING_EDGE;
            while (!m_chip->sendEvent(id, quint32(i), quint64(NEdgeRecorder::now())))
                ;
            nanosleep(&interval, nullptr);
        }
    });
    recorder.waitForEdges(ManyEdges);
    sender.join();
    QCOMPARE(recorder.edges, QByteArray("rf").repeated(ManyEdges / 2));
    qDebug("%s", NEdgeRecorder::summary(recorder.latencies).constData());
}

// ---- faults ----

void tst_GpioFaults::deniedChipIsOpenedWhenItsPermissionsChange()
{
    QScopedPointer<Fault> denial(new Fault(Calls(NSystemCalls::Open).onPath("/dev/gpiochip0"), EACCES));
    const QScopedPointer<GpioInput> input(makeInput());
    QVERIFY(!input->isValid());
    QCOMPARE(input->errorText(), latin1("gpiochip0: ") + textOf(EACCES));
    QSignalSpy states(input.data(), StateSignal);
    denial.reset();
    // Any change in the directory; the permissions of a device are one.
    QFile file(latin1("/dev/another-device"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    NTRY_COMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, false));
    QVERIFY(input->errorText().isEmpty());
    QVERIFY(file.remove());
}

void tst_GpioFaults::refusedRequestsAreRepeatedAfterARelease()
{
    m_chip->setRequestError(EBUSY);
    const QScopedPointer<GpioInput> input(makeInput());
    QVERIFY(!input->isValid());
    QCOMPARE(input->errorText(), latin1("held by \"another\""));
    QSignalSpy states(input.data(), StateSignal);
    m_chip->setRequestError(EINVAL);
    QVERIFY(m_chip->sendChange(GPIO_V2_LINE_CHANGED_RELEASED));
    NTRY_COMPARE(input->errorText(), textOf(EINVAL));
    QCOMPARE(states.count(), 0);
    m_chip->setRequestError(0);
    m_chip->setLevel(true);
    QVERIFY(m_chip->sendChange(GPIO_V2_LINE_CHANGED_RELEASED));
    NTRY_COMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, true));
}

void tst_GpioFaults::otherChangesOfTheHolderDoNotMatter()
{
    m_chip->setRequestError(EBUSY);
    const QScopedPointer<GpioInput> input(makeInput());
    m_chip->setRequestError(0);
    const NSystemCalls::Record requests(Calls(NSystemCalls::Ioctl).withRequest(GPIO_V2_GET_LINE_IOCTL));
    const NSystemCalls::Record reads(Calls(NSystemCalls::Read));
    QVERIFY(m_chip->sendChange(GPIO_V2_LINE_CHANGED_CONFIG));
    NTRY_VERIFY(reads.count() >= 2); // the change, and that there are no more
    QCOMPARE(requests.count(), 0);
    QVERIFY(!input->isValid());
}

void tst_GpioFaults::lineThatEndsIsRequestedAgain()
{
    m_chip->setLevel(true);
    const QScopedPointer<GpioInput> input(makeInput());
    QSignalSpy states(input.data(), StateSignal);
    m_chip->endEvents();
    NTRY_COMPARE(states.count(), 2);
    QCOMPARE(states.at(0), state(false, false));
    QCOMPARE(states.at(1), state(true, true));
    QCOMPARE(m_chip->requests(), 2);
}

void tst_GpioFaults::failedDrivingIsRepeated()
{
    const QScopedPointer<GpioOutput> output(makeOutput());
    QSignalSpy states(output.data(), StateSignal);
    m_chip->setLevelError(EIO);
    m_chip->setRequestError(EIO);
    output->setActive(false);
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(false, false));
    QCOMPARE(output->errorText(), textOf(EIO));
    // Neither the event loop nor the next level has success while the chip fails.
    output->setActive(true);
    QCoreApplication::processEvents();
    QCOMPARE(states.count(), 1);
    m_chip->setLevelError(0);
    m_chip->setRequestError(0);
    output->setActive(true);
    QCOMPARE(states.count(), 2);
    QCOMPARE(states.at(1), state(true, true));
    QCOMPARE(quint64(m_chip->lastRequest().config.attrs[0].attr.values), quint64(1));
}

void tst_GpioFaults::outputOfAMissingChipIsDrivenLater()
{
    NSimulatedGpioChip::unplug();
    const QScopedPointer<GpioOutput> output(makeOutput());
    QVERIFY(!output->isValid());
    QVERIFY(!output->isActive());
    QSignalSpy states(output.data(), StateSignal);
    NSimulatedGpioChip::plugIn();
    NTRY_COMPARE(states.count(), 1);
    QCOMPARE(states.at(0), state(true, true));
    QCOMPARE(quint64(m_chip->lastRequest().config.attrs[0].attr.values), quint64(1));
    output->setActive(false);
    QVERIFY(!m_chip->level());
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_GpioFaults, NPrivateNamespace::Mounts)
#include "tst_gpiofaults.moc"
