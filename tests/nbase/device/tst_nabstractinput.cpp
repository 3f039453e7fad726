#include <nbase/device/nabstractinput.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QPointer>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

namespace {

const char* const StateSignal = SIGNAL(stateChanged(bool, bool));

/** An input whose level and validity the test sets. */
class TestInput : public NAbstractInput
{
public:
    explicit TestInput(PolarityType polarity, bool valid = true, bool level = false, QObject* parent = nullptr)
        : NAbstractInput(polarity, parent)
        , m_isValid(valid)
        , m_level(level)
    {
    }

    bool isValid() const override { return m_isValid; }
    bool rawState() const override { return m_level; }

    void setState(bool valid, bool level)
    {
        const bool rises = level && !m_level;
        const bool falls = !level && m_level;
        m_isValid = valid;
        m_level = level;
        if (rises)
            emit risingInterrupt();
        if (falls)
            emit fallingInterrupt();
        emit stateChanged(isValid(), isActive());
    }

private:
    bool m_isValid;
    bool m_level;
};

/** Deletes an input, or looks at it, when its state changes. */
class StateReceiver : public QObject
{
    Q_OBJECT

public:
    explicit StateReceiver(NAbstractInput* input)
        : polarityInSlot(NAbstractInput::PolarityNo)
        , activeInSlot(false)
        , deletes(false)
        , m_input(input)
    {
        connect(input, StateSignal, SLOT(receive()));
    }

    NAbstractInput::PolarityType polarityInSlot;
    bool activeInSlot;
    bool deletes;

private slots:
    void receive()
    {
        polarityInSlot = m_input->polarity();
        activeInSlot = m_input->isActive();
        if (deletes)
            delete m_input;
    }

private:
    NAbstractInput* m_input;
};

QList<QVariant> state(bool valid, bool active)
{
    return QList<QVariant>() << valid << active;
}

} // namespace

class tst_NAbstractInput : public QObject
{
    Q_OBJECT

private slots:
    void polaritiesHaveTheirNamesAndValues();
    void signalsHaveTheirNamesAndArguments();
    void constructorTakesPolarityAndParent();

    void activityDependsOnValidityLevelAndPolarity_data();
    void activityDependsOnValidityLevelAndPolarity();

    void newPolarityOfAValidInputIsReported_data();
    void newPolarityOfAValidInputIsReported();
    void newPolarityOfAnInvalidInputIsNotReported();
    void samePolarityIsNotReported();
    void polarityDoesNotCauseEdges();
    void newPolarityIsInForceInTheReceiver();
    void receiverMayDeleteTheInput();

    void changesReportedByTheDerivedClassReachReceivers();
};

void tst_NAbstractInput::polaritiesHaveTheirNamesAndValues()
{
    const QMetaObject& type = NAbstractInput::staticMetaObject;
    const int index = type.indexOfEnumerator("PolarityType");
    QVERIFY(index >= 0);
    const QMetaEnum polarities = type.enumerator(index);
    QVERIFY(!polarities.isFlag());
    QCOMPARE(polarities.keyCount(), 2);
    QCOMPARE(QByteArray(polarities.valueToKey(0)), QByteArray("PolarityNo"));
    QCOMPARE(QByteArray(polarities.valueToKey(1)), QByteArray("PolarityNc"));
    QCOMPARE(int(NAbstractInput::PolarityNo), 0);
    QCOMPARE(int(NAbstractInput::PolarityNc), 1);
}

void tst_NAbstractInput::signalsHaveTheirNamesAndArguments()
{
    const QMetaObject& type = NAbstractInput::staticMetaObject;
    const int index = type.indexOfSignal("stateChanged(bool,bool)");
    QVERIFY(index >= 0);
    QCOMPARE(
        type.method(index).parameterNames(), QList<QByteArray>() << "valid"
                                                                 << "active");
    QVERIFY(type.indexOfSignal("risingInterrupt()") >= 0);
    QVERIFY(type.indexOfSignal("fallingInterrupt()") >= 0);
}

void tst_NAbstractInput::constructorTakesPolarityAndParent()
{
    QObject parent;
    QCOMPARE(TestInput(NAbstractInput::PolarityNo).polarity(), NAbstractInput::PolarityNo);
    QPointer<TestInput> input = new TestInput(NAbstractInput::PolarityNc, true, false, &parent);
    QCOMPARE(input->polarity(), NAbstractInput::PolarityNc);
    QCOMPARE(input->parent(), &parent);
}

void tst_NAbstractInput::activityDependsOnValidityLevelAndPolarity_data()
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

void tst_NAbstractInput::activityDependsOnValidityLevelAndPolarity()
{
    QFETCH(bool, valid);
    QFETCH(bool, high);
    QFETCH(bool, normallyClosed);
    QFETCH(bool, active);
    const TestInput input(normallyClosed ? NAbstractInput::PolarityNc : NAbstractInput::PolarityNo, valid, high);
    QCOMPARE(input.isActive(), active);
}

void tst_NAbstractInput::newPolarityOfAValidInputIsReported_data()
{
    QTest::addColumn<bool>("high");
    QTest::addColumn<bool>("activeNormallyClosed");
    QTest::newRow("high") << true << false;
    QTest::newRow("low") << false << true;
}

void tst_NAbstractInput::newPolarityOfAValidInputIsReported()
{
    QFETCH(bool, high);
    QFETCH(bool, activeNormallyClosed);
    TestInput input(NAbstractInput::PolarityNo, true, high);
    QSignalSpy spy(&input, StateSignal);
    input.setPolarity(NAbstractInput::PolarityNc);
    QCOMPARE(input.polarity(), NAbstractInput::PolarityNc);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0), state(true, activeNormallyClosed));
    input.setPolarity(NAbstractInput::PolarityNo);
    QCOMPARE(input.polarity(), NAbstractInput::PolarityNo);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(1), state(true, !activeNormallyClosed));
}

void tst_NAbstractInput::newPolarityOfAnInvalidInputIsNotReported()
{
    TestInput input(NAbstractInput::PolarityNo, false, true);
    QSignalSpy spy(&input, StateSignal);
    input.setPolarity(NAbstractInput::PolarityNc);
    QCOMPARE(input.polarity(), NAbstractInput::PolarityNc);
    QCOMPARE(spy.count(), 0);
}

void tst_NAbstractInput::samePolarityIsNotReported()
{
    TestInput input(NAbstractInput::PolarityNc, true, true);
    QSignalSpy spy(&input, StateSignal);
    input.setPolarity(NAbstractInput::PolarityNc);
    QCOMPARE(input.polarity(), NAbstractInput::PolarityNc);
    QCOMPARE(spy.count(), 0);
}

void tst_NAbstractInput::polarityDoesNotCauseEdges()
{
    TestInput input(NAbstractInput::PolarityNo, true, true);
    QSignalSpy rising(&input, SIGNAL(risingInterrupt()));
    QSignalSpy falling(&input, SIGNAL(fallingInterrupt()));
    input.setPolarity(NAbstractInput::PolarityNc);
    input.setPolarity(NAbstractInput::PolarityNo);
    QCOMPARE(rising.count(), 0);
    QCOMPARE(falling.count(), 0);
}

void tst_NAbstractInput::newPolarityIsInForceInTheReceiver()
{
    TestInput input(NAbstractInput::PolarityNo, true, false);
    StateReceiver receiver(&input);
    input.setPolarity(NAbstractInput::PolarityNc);
    QCOMPARE(receiver.polarityInSlot, NAbstractInput::PolarityNc);
    QVERIFY(receiver.activeInSlot);
}

void tst_NAbstractInput::receiverMayDeleteTheInput()
{
    QPointer<TestInput> input = new TestInput(NAbstractInput::PolarityNo, true, true);
    StateReceiver receiver(input);
    receiver.deletes = true;
    input->setPolarity(NAbstractInput::PolarityNc);
    QVERIFY(!input);
    QCOMPARE(receiver.polarityInSlot, NAbstractInput::PolarityNc);
}

void tst_NAbstractInput::changesReportedByTheDerivedClassReachReceivers()
{
    TestInput input(NAbstractInput::PolarityNc);
    QSignalSpy states(&input, StateSignal);
    QSignalSpy rising(&input, SIGNAL(risingInterrupt()));
    QSignalSpy falling(&input, SIGNAL(fallingInterrupt()));
    input.setState(true, true);
    QCOMPARE(states.takeFirst(), state(true, false));
    QCOMPARE(rising.count(), 1);
    QCOMPARE(falling.count(), 0);
    input.setState(true, false);
    QCOMPARE(states.takeFirst(), state(true, true));
    QCOMPARE(rising.count(), 1);
    QCOMPARE(falling.count(), 1);
    input.setState(false, false);
    QCOMPARE(states.takeFirst(), state(false, false));
    QCOMPARE(states.count(), 0);
}

QTEST_MAIN(tst_NAbstractInput)
#include "tst_nabstractinput.moc"
