#include <nbase/device/nabstractoutput.h>

NAbstractOutput::NAbstractOutput(NAbstractOutput::PolarityType polarity, QObject* parent)
    : QObject(parent)
    , m_polarity(polarity)
{
}

NAbstractOutput::~NAbstractOutput() {}

bool NAbstractOutput::isActive() const
{
    return isValid() && (m_polarity == PolarityNc ? !rawState() : rawState());
}

void NAbstractOutput::setActive(bool active)
{
    setRawState(m_polarity == PolarityNc ? !active : active);
}

NAbstractOutput::PolarityType NAbstractOutput::polarity() const
{
    return m_polarity;
}

void NAbstractOutput::setPolarity(PolarityType polarity)
{
    if (polarity == m_polarity)
        return;
    m_polarity = polarity;
    if (isValid())
        emit stateChanged(isValid(), isActive());
}
