#include "simulatedoutput.h"

SimulatedOutput::SimulatedOutput(const QString& name, PolarityType polarity, QObject* parent)
    : NAbstractOutput(polarity, parent)
    , m_name(name)
    , m_level(polarity == PolarityNc)
{
}

QString SimulatedOutput::name() const
{
    return m_name;
}

bool SimulatedOutput::isValid() const
{
    return true;
}

bool SimulatedOutput::rawState() const
{
    return m_level;
}

void SimulatedOutput::setRawState(bool level)
{
    if (level == m_level)
        return;
    m_level = level;
    emit stateChanged(isValid(), isActive());
}
