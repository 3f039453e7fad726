#include "ioboard.h"
#include "support/ntestwait.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

namespace {

const char* const StateSignal = SIGNAL(stateChanged(bool, bool));

/** What the signals of an input have reported since the last query, in words. */
class Reports : public QObject
{
    Q_OBJECT

public:
    explicit Reports(const SimulatedInput* input)
    {
        connect(input, SIGNAL(risingInterrupt()), SLOT(rise()));
        connect(input, SIGNAL(fallingInterrupt()), SLOT(fall()));
        connect(input, SIGNAL(stateChanged(bool,bool)), SLOT(change(bool,bool)));
    }

    QString take()
    {
        const QString text = m_words.join(QLatin1String(" "));
        m_words.clear();
        return text;
    }

private slots:
    void rise() { m_words << QLatin1String("rising"); }
    void fall() { m_words << QLatin1String("falling"); }

    void change(bool valid, bool active)
    {
        m_words << QLatin1String(valid ? "valid" : "invalid") << QLatin1String(active ? "active" : "inactive");
    }

private:
    QStringList m_words;
};

} // namespace

class tst_IoBoard : public QObject
{
    Q_OBJECT

private slots:
    void anInputReportsTheLevelOfItsContactAndItsEdges();
    void aBrokenWireHidesTheLevel();
    void anOutputIsInactiveAtFirstAndReportsChangesOfItsLevel();
    void outputsAndInputsAreFoundByTheirNames();
    void theWiredInputFollowsTheLevelOfItsOutput();
    void changesAreReportedOnce();
    void thePolarityOfAnInvalidInputIsReported();
};

void tst_IoBoard::anInputReportsTheLevelOfItsContactAndItsEdges()
{
    SimulatedInput input(QString::fromLatin1("x"), NAbstractInput::PolarityNc, nullptr);
    Reports reports(&input);
    QVERIFY(input.isValid() && !input.rawState() && input.isActive());
    input.setLevel(true);
    QCOMPARE(reports.take(), QString::fromLatin1("rising valid inactive"));
    QVERIFY(input.rawState() && !input.isActive());
    input.setLevel(true);
    QCOMPARE(reports.take(), QString());
    input.setLevel(false);
    QCOMPARE(reports.take(), QString::fromLatin1("falling valid active"));
    input.setPolarity(NAbstractInput::PolarityNo);
    QCOMPARE(reports.take(), QString::fromLatin1("valid inactive"));
}

void tst_IoBoard::aBrokenWireHidesTheLevel()
{
    SimulatedInput input(QString::fromLatin1("x"), NAbstractInput::PolarityNo, nullptr);
    input.setLevel(true);
    Reports reports(&input);
    input.setValid(false);
    QCOMPARE(reports.take(), QString::fromLatin1("invalid inactive"));
    QVERIFY(!input.isValid() && !input.isActive());
    input.setValid(false);
    input.setLevel(false);
    input.setLevel(true);
    QCOMPARE(reports.take(), QString());
    input.setValid(true);
    QCOMPARE(reports.take(), QString::fromLatin1("valid active"));
    input.setValid(false);
    input.setLevel(false);
    reports.take();
    input.setValid(true);
    QCOMPARE(reports.take(), QString::fromLatin1("valid inactive"));
}

void tst_IoBoard::anOutputIsInactiveAtFirstAndReportsChangesOfItsLevel()
{
    SimulatedOutput open(QString::fromLatin1("x"), NAbstractOutput::PolarityNo, nullptr);
    SimulatedOutput closed(QString::fromLatin1("x"), NAbstractOutput::PolarityNc, nullptr);
    QVERIFY(open.isValid() && !open.isActive() && !open.rawState());
    QVERIFY(closed.isValid() && !closed.isActive() && closed.rawState());
    QSignalSpy spy(&closed, StateSignal);
    closed.setActive(true);
    closed.setActive(true);
    QVERIFY(!closed.rawState());
    QCOMPARE(spy.size(), 1);
    QCOMPARE(spy.first(), QVariantList() << true << true);
}

void tst_IoBoard::outputsAndInputsAreFoundByTheirNames()
{
    const IoBoard board;
    QCOMPARE(board.inputs().size(), 2);
    QCOMPARE(board.outputs().size(), 2);
    for (SimulatedInput* input : board.inputs()) {
        QCOMPARE(board.input(input->name()), input);
        QVERIFY(!board.output(input->name()));
        QVERIFY(!input->isActive());
    }
    for (SimulatedOutput* output : board.outputs()) {
        QCOMPARE(board.output(output->name()), output);
        QVERIFY(!board.input(output->name()));
        QVERIFY(!output->isActive());
    }
}

void tst_IoBoard::theWiredInputFollowsTheLevelOfItsOutput()
{
    const IoBoard board;
    int wiredCount = 0;
    for (SimulatedInput* input : board.inputs()) {
        const SimulatedOutput* const wired = board.outputWiredTo(input);
        if (!wired)
            continue;
        ++wiredCount;
        SimulatedOutput* const output = board.output(wired->name());
        Reports reports(input);
        output->setActive(true);
        QVERIFY(input->rawState());
        QCOMPARE(reports.take(), QString::fromLatin1("rising valid active"));
        // The meaning of the output's level changes, and the level does not.
        output->setPolarity(NAbstractOutput::PolarityNc);
        QCOMPARE(reports.take(), QString());
        output->setActive(true);
        QVERIFY(!input->rawState());
        QCOMPARE(reports.take(), QString::fromLatin1("falling valid inactive"));
    }
    QCOMPARE(wiredCount, 1);
}

void tst_IoBoard::changesAreReportedOnce()
{
    IoBoard board;
    QSignalSpy spy(&board, SIGNAL(changed()));
    const quint64 number = board.number();
    board.outputs().first()->setActive(true);
    QCOMPARE(spy.size(), 0);
    QVERIFY(board.number() > number);
    NTRY_COMPARE(spy.size(), 1);
    board.outputs().first()->setActive(true);
    board.setPolarity(board.inputs().first(), board.inputs().first()->polarity());
    QCoreApplication::processEvents();
    QCOMPARE(spy.size(), 1);
    board.inputs().last()->setLevel(false);
    NTRY_COMPARE(spy.size(), 2);
}

void tst_IoBoard::thePolarityOfAnInvalidInputIsReported()
{
    IoBoard board;
    SimulatedInput* const input = board.inputs().last();
    input->setValid(false);
    QSignalSpy spy(&board, SIGNAL(changed()));
    NTRY_COMPARE(spy.size(), 1);
    const quint64 number = board.number();
    board.setPolarity(input, NAbstractInput::PolarityNo);
    QCOMPARE(input->polarity(), NAbstractInput::PolarityNo);
    QCOMPARE(board.number(), number + 1);
    NTRY_COMPARE(spy.size(), 2);
}

QTEST_MAIN(tst_IoBoard)
#include "tst_ioboard.moc"
