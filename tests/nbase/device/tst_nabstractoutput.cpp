#include <nbase/device/nabstractoutput.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QPointer>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

namespace {

const char* const StateSignal = SIGNAL(stateChanged(bool, bool));

/** An output whose level and validity the test sets. */
class TestOutput : public NAbstractOutput
{
public:
    explicit TestOutput(PolarityType polarity, bool valid = true, bool level = false, QObject* parent = nullptr)
        : NAbstractOutput(polarity, parent)
        , m_isValid(valid)
        , m_level(level)
    {
    }

    bool isValid() const override { return m_isValid; }
    bool rawState() const override { return m_level; }

    void setRawState(bool level) override
    {
        levels.append(level);
        if (!m_isValid || level == m_level)
            return;
        m_level = level;
        emit stateChanged(isValid(), isActive());
    }

    QList<bool> levels; ///< all that were to be driven

private:
    bool m_isValid;
    bool m_level;
};

/** Deletes an output, or looks at it, when its state changes. */
class StateReceiver : public QObject
{
    Q_OBJECT

public:
    explicit StateReceiver(NAbstractOutput* output)
        : polarityInSlot(NAbstractOutput::PolarityNo)
        , activeInSlot(false)
        , deletes(false)
        , m_output(output)
    {
        connect(output, StateSignal, SLOT(receive()));
    }

    NAbstractOutput::PolarityType polarityInSlot;
    bool activeInSlot;
    bool deletes;

private slots:
    void receive()
    {
        polarityInSlot = m_output->polarity();
        activeInSlot = m_output->isActive();
        if (deletes)
            delete m_output;
    }

private:
    NAbstractOutput* m_output;
};

QList<QVariant> state(bool valid, bool active)
{
    return QList<QVariant>() << valid << active;
}

} // namespace

class tst_NAbstractOutput : public QObject
{
    Q_OBJECT

private slots:
    void polaritiesHaveTheirNamesAndValues();
    void signalsHaveTheirNamesAndArguments();
    void constructorTakesPolarityAndParent();

    void activityDependsOnValidityLevelAndPolarity_data();
    void activityDependsOnValidityLevelAndPolarity();

    void newPolarityOfAValidOutputIsReported_data();
    void newPolarityOfAValidOutputIsReported();
    void newPolarityOfAnInvalidOutputIsNotReported();
    void samePolarityIsNotReported();
    void newPolarityDrivesNothing();
    void newPolarityIsInForceInTheReceiver();
    void receiverMayDeleteTheOutput();

    void stateIsDrivenAsALevel_data();
    void stateIsDrivenAsALevel();
    void stateIsDrivenAgainIfItIsTheSame();
    void onlyTheDerivedClassReportsADrivenLevel();
};

void tst_NAbstractOutput::polaritiesHaveTheirNamesAndValues()
{
    const QMetaObject& type = NAbstractOutput::staticMetaObject;
    const int index = type.indexOfEnumerator("PolarityType");
    QVERIFY(index >= 0);
    const QMetaEnum polarities = type.enumerator(index);
    QVERIFY(!polarities.isFlag());
    QCOMPARE(polarities.keyCount(), 2);
    QCOMPARE(QByteArray(polarities.valueToKey(0)), QByteArray("PolarityNo"));
    QCOMPARE(QByteArray(polarities.valueToKey(1)), QByteArray("PolarityNc"));
    QCOMPARE(int(NAbstractOutput::PolarityNo), 0);
    QCOMPARE(int(NAbstractOutput::PolarityNc), 1);
}

void tst_NAbstractOutput::signalsHaveTheirNamesAndArguments()
{
    const QMetaObject& type = NAbstractOutput::staticMetaObject;
    const int index = type.indexOfSignal("stateChanged(bool,bool)");
    QVERIFY(index >= 0);
    QCOMPARE(
        type.method(index).parameterNames(), QList<QByteArray>() << "valid"
                                                                 << "active");
}

void tst_NAbstractOutput::constructorTakesPolarityAndParent()
{
    QObject parent;
    QCOMPARE(TestOutput(NAbstractOutput::PolarityNo).polarity(), NAbstractOutput::PolarityNo);
    QPointer<TestOutput> output = new TestOutput(NAbstractOutput::PolarityNc, true, false, &parent);
    QCOMPARE(output->polarity(), NAbstractOutput::PolarityNc);
    QCOMPARE(output->parent(), &parent);
}

void tst_NAbstractOutput::activityDependsOnValidityLevelAndPolarity_data()
{
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("high");
    QTest::addColumn<bool>("normallyClosed");
    QTest::addColumn<bool>("active");
    QTest::newRow("normally open, high") << true << true << false << true;
    QTest::newRow("normally open, low") << true << false << false << false;
    QTest::newRow("normally closed, high") << true << true << true << false;
    QTest::newRow("normally closed, low") << true << false << true << true;
    QTest::newRow("invalid, normally open, high") << false << true << false << false;
    QTest::newRow("invalid, normally open, low") << false << false << false << false;
    QTest::newRow("invalid, normally closed, high") << false << true << true << false;
    QTest::newRow("invalid, normally closed, low") << false << false << true << false;
}

void tst_NAbstractOutput::activityDependsOnValidityLevelAndPolarity()
{
    QFETCH(bool, valid);
    QFETCH(bool, high);
    QFETCH(bool, normallyClosed);
    QFETCH(bool, active);
    const TestOutput output(
        normallyClosed ? NAbstractOutput::PolarityNc : NAbstractOutput::PolarityNo, valid, high);
    QCOMPARE(output.isActive(), active);
}

void tst_NAbstractOutput::newPolarityOfAValidOutputIsReported_data()
{
    QTest::addColumn<bool>("high");
    QTest::addColumn<bool>("activeNormallyClosed");
    QTest::newRow("high") << true << false;
    QTest::newRow("low") << false << true;
}

void tst_NAbstractOutput::newPolarityOfAValidOutputIsReported()
{
    QFETCH(bool, high);
    QFETCH(bool, activeNormallyClosed);
    TestOutput output(NAbstractOutput::PolarityNo, true, high);
    QSignalSpy spy(&output, StateSignal);
    output.setPolarity(NAbstractOutput::PolarityNc);
    QCOMPARE(output.polarity(), NAbstractOutput::PolarityNc);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0), state(true, activeNormallyClosed));
    output.setPolarity(NAbstractOutput::PolarityNo);
    QCOMPARE(output.polarity(), NAbstractOutput::PolarityNo);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(1), state(true, !activeNormallyClosed));
}

void tst_NAbstractOutput::newPolarityOfAnInvalidOutputIsNotReported()
{
    TestOutput output(NAbstractOutput::PolarityNo, false, true);
    QSignalSpy spy(&output, StateSignal);
    output.setPolarity(NAbstractOutput::PolarityNc);
    QCOMPARE(output.polarity(), NAbstractOutput::PolarityNc);
    QCOMPARE(spy.count(), 0);
}

void tst_NAbstractOutput::samePolarityIsNotReported()
{
    TestOutput output(NAbstractOutput::PolarityNc, true, true);
    QSignalSpy spy(&output, StateSignal);
    output.setPolarity(NAbstractOutput::PolarityNc);
    QCOMPARE(output.polarity(), NAbstractOutput::PolarityNc);
    QCOMPARE(spy.count(), 0);
}

void tst_NAbstractOutput::newPolarityDrivesNothing()
{
    TestOutput output(NAbstractOutput::PolarityNo, true, true);
    output.setPolarity(NAbstractOutput::PolarityNc);
    QVERIFY(output.levels.isEmpty());
    QVERIFY(output.rawState());
}

void tst_NAbstractOutput::newPolarityIsInForceInTheReceiver()
{
    TestOutput output(NAbstractOutput::PolarityNo, true, false);
    StateReceiver receiver(&output);
    output.setPolarity(NAbstractOutput::PolarityNc);
    QCOMPARE(receiver.polarityInSlot, NAbstractOutput::PolarityNc);
    QVERIFY(receiver.activeInSlot);
}

void tst_NAbstractOutput::receiverMayDeleteTheOutput()
{
    QPointer<TestOutput> output = new TestOutput(NAbstractOutput::PolarityNo, true, true);
    StateReceiver receiver(output);
    receiver.deletes = true;
    output->setPolarity(NAbstractOutput::PolarityNc);
    QVERIFY(!output);
    QCOMPARE(receiver.polarityInSlot, NAbstractOutput::PolarityNc);
}

void tst_NAbstractOutput::stateIsDrivenAsALevel_data()
{
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("normallyClosed");
    QTest::addColumn<bool>("active");
    QTest::addColumn<bool>("high");
    QTest::newRow("normally open, active") << true << false << true << true;
    QTest::newRow("normally open, inactive") << true << false << false << false;
    QTest::newRow("normally closed, active") << true << true << true << false;
    QTest::newRow("normally closed, inactive") << true << true << false << true;
    QTest::newRow("invalid, normally open, active") << false << false << true << true;
    QTest::newRow("invalid, normally closed, active") << false << true << true << false;
}

void tst_NAbstractOutput::stateIsDrivenAsALevel()
{
    QFETCH(bool, valid);
    QFETCH(bool, normallyClosed);
    QFETCH(bool, active);
    QFETCH(bool, high);
    TestOutput output(normallyClosed ? NAbstractOutput::PolarityNc : NAbstractOutput::PolarityNo, valid, !high);
    output.setActive(active);
    QCOMPARE(output.levels, QList<bool>() << high);
    QCOMPARE(output.rawState(), valid ? high : !high);
}

void tst_NAbstractOutput::stateIsDrivenAgainIfItIsTheSame()
{
    TestOutput output(NAbstractOutput::PolarityNo);
    output.setActive(true);
    output.setActive(true);
    QCOMPARE(output.levels, QList<bool>() << true << true);
}

void tst_NAbstractOutput::onlyTheDerivedClassReportsADrivenLevel()
{
    TestOutput output(NAbstractOutput::PolarityNc, true, true);
    QSignalSpy states(&output, StateSignal);
    output.setActive(true);
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.takeFirst(), state(true, true));
    output.setActive(true);
    QCOMPARE(states.count(), 0);

    TestOutput invalidOutput(NAbstractOutput::PolarityNo, false);
    QSignalSpy invalidStates(&invalidOutput, StateSignal);
    invalidOutput.setActive(true);
    QCOMPARE(invalidStates.count(), 0);
}

QTEST_MAIN(tst_NAbstractOutput)
#include "tst_nabstractoutput.moc"
