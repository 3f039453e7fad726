#ifndef DEMODEVICE_IOBOARD_H
#define DEMODEVICE_IOBOARD_H

#include "simulatedinput.h"
#include "simulatedoutput.h"

#include <QtCore/QList>
#include <QtCore/QTimer>

/**
 * The simulated inputs and outputs of the device: "Input 1", "Input 2", "Output 1" and "Output 2". Output 1 is
 * wired to input 1, whose level follows it. The second ones are normally closed. Everything is kept in memory; a
 * real device would store the polarities in its configuration.
 */
class IoBoard : public QObject
{
    Q_OBJECT

public:
    explicit IoBoard(QObject* parent = nullptr);

    const QList<SimulatedInput*>& inputs() const;
    const QList<SimulatedOutput*>& outputs() const;

    /** @{ @return null when there is none of this name. */
    SimulatedInput* input(const QString& name) const;
    SimulatedOutput* output(const QString& name) const;
    /** @} */

    /** @return the output that is wired to @a input; null when there is none. */
    const SimulatedOutput* outputWiredTo(const SimulatedInput* input) const;

    /** @{ Sets a polarity. The change is also reported for an invalid input, which emits nothing itself. */
    void setPolarity(SimulatedInput* input, NAbstractInput::PolarityType polarity);
    void setPolarity(SimulatedOutput* output, NAbstractOutput::PolarityType polarity);
    /** @} */

    /** How many changes there were. Of two states, the later one has the greater number. */
    quint64 number() const;

signals:
    /** Something has changed. It is emitted by the event loop, once for all changes until then. */
    void changed();

private slots:
    void followOutput();
    void noteChange();

private:
    Q_DISABLE_COPY(IoBoard)

    QList<SimulatedInput*> m_inputs;
    QList<SimulatedOutput*> m_outputs;
    quint64 m_number;
    QTimer m_report;
};

#endif
