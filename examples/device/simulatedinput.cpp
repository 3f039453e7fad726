#include "simulatedinput.h"

SimulatedInput::SimulatedInput(const QString& name, PolarityType polarity, QObject* parent)
    : NAbstractInput(polarity, parent)
    , m_name(name)
    , m_isValid(true)
    , m_level(false)
{
}

QString SimulatedInput::name() const
{
    return m_name;
}

bool SimulatedInput::isValid() const
{
    return m_isValid;
}

bool SimulatedInput::rawState() const
{
    return m_level;
}

void SimulatedInput::setLevel(bool level)
{
    if (level == m_level)
        return;
    m_level = level;
    if (!m_isValid)
        return;
    if (level)
        emit risingInterrupt();
    else
        emit fallingInterrupt();
    emit stateChanged(isValid(), isActive());
}

void SimulatedInput::setValid(bool valid)
{
    if (valid == m_isValid)
        return;
    m_isValid = valid;
    emit stateChanged(isValid(), isActive());
}
