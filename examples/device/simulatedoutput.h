#ifndef DEMODEVICE_SIMULATEDOUTPUT_H
#define DEMODEVICE_SIMULATEDOUTPUT_H

#include <nbase/device/nabstractoutput.h>

/** An output without hardware, which remembers its level. Receivers of the signal must not delete the output. */
class SimulatedOutput : public NAbstractOutput
{
    Q_OBJECT

public:
    /** The output is inactive at first. */
    SimulatedOutput(const QString& name, PolarityType polarity, QObject* parent);

    QString name() const;

    /** Always true: nothing can fail. */
    bool isValid() const override;

    bool rawState() const override;
    void setRawState(bool level) override;

private:
    Q_DISABLE_COPY(SimulatedOutput)

    const QString m_name;
    bool m_level;
};

#endif
