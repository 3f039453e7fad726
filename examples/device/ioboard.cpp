#include "ioboard.h"

namespace {

template <typename Point> Point* pointOfName(const QList<Point*>& points, const QString& name)
{
    for (Point* point : points) {
        if (point->name() == name)
            return point;
    }
    return nullptr;
}

} // namespace

IoBoard::IoBoard(QObject* parent)
    : QObject(parent)
    , m_number(0)
{
    m_inputs.append(new SimulatedInput(QString::fromLatin1("Input 1"), NAbstractInput::PolarityNo, this));
    m_inputs.append(new SimulatedInput(QString::fromLatin1("Input 2"), NAbstractInput::PolarityNc, this));
    m_outputs.append(new SimulatedOutput(QString::fromLatin1("Output 1"), NAbstractOutput::PolarityNo, this));
    m_outputs.append(new SimulatedOutput(QString::fromLatin1("Output 2"), NAbstractOutput::PolarityNc, this));
    // A normally closed contact that is not operated.
    m_inputs.last()->setLevel(true);
    for (const SimulatedInput* input : m_inputs)
        connect(input, SIGNAL(stateChanged(bool,bool)), SLOT(noteChange()));
    for (const SimulatedOutput* output : m_outputs)
        connect(output, SIGNAL(stateChanged(bool,bool)), SLOT(noteChange()));
    connect(m_outputs.first(), SIGNAL(stateChanged(bool,bool)), SLOT(followOutput()));
    m_report.setSingleShot(true);
    connect(&m_report, SIGNAL(timeout()), SIGNAL(changed()));
}

const QList<SimulatedInput*>& IoBoard::inputs() const
{
    return m_inputs;
}

const QList<SimulatedOutput*>& IoBoard::outputs() const
{
    return m_outputs;
}

SimulatedInput* IoBoard::input(const QString& name) const
{
    return pointOfName(m_inputs, name);
}

SimulatedOutput* IoBoard::output(const QString& name) const
{
    return pointOfName(m_outputs, name);
}

const SimulatedOutput* IoBoard::outputWiredTo(const SimulatedInput* input) const
{
    return input == m_inputs.first() ? m_outputs.first() : nullptr;
}

void IoBoard::setPolarity(SimulatedInput* input, NAbstractInput::PolarityType polarity)
{
    if (polarity == input->polarity())
        return;
    input->setPolarity(polarity);
    if (!input->isValid())
        noteChange();
}

void IoBoard::setPolarity(SimulatedOutput* output, NAbstractOutput::PolarityType polarity)
{
    output->setPolarity(polarity);
}

quint64 IoBoard::number() const
{
    return m_number;
}

void IoBoard::followOutput()
{
    m_inputs.first()->setLevel(m_outputs.first()->rawState());
}

void IoBoard::noteChange()
{
    ++m_number;
    m_report.start(0);
}
