#include <nbase/device/nabstractinput.h>

NAbstractInput::NAbstractInput(NAbstractInput::PolarityType polarity, QObject* parent)
    : QObject(parent)
    , m_polarity(polarity)
{
}

NAbstractInput::~NAbstractInput() {}

bool NAbstractInput::isActive() const
{
    return isValid() && (m_polarity == PolarityNc ? !rawState() : rawState());
}

NAbstractInput::PolarityType NAbstractInput::polarity() const
{
    return m_polarity;
}

void NAbstractInput::setPolarity(PolarityType polarity)
{
    if (polarity == m_polarity)
        return;
    m_polarity = polarity;
    if (isValid())
        emit stateChanged(isValid(), isActive());
}
