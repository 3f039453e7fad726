#ifndef DEMODEVICE_SIMULATEDINPUT_H
#define DEMODEVICE_SIMULATEDINPUT_H

#include <nbase/device/nabstractinput.h>

/**
 * An input without hardware: the program sets the level of its contact, and whether the wire to the contact is
 * intact. The input is valid while the wire is intact. Receivers of the signals must not delete the input.
 */
class SimulatedInput : public NAbstractInput
{
    Q_OBJECT

public:
    /** The level is low and the wire is intact. */
    SimulatedInput(const QString& name, PolarityType polarity, QObject* parent);

    QString name() const;

    bool isValid() const override;

    /** The level of the contact, also behind a broken wire. */
    bool rawState() const override;

    /** Sets the level of the contact. A change is reported, with its edge, if the wire is intact. */
    void setLevel(bool level);

    /**
     * Breaks or mends the wire. A change is reported, without an edge: the input cannot tell when the level of the
     * contact has changed in the meantime.
     */
    void setValid(bool valid);

private:
    Q_DISABLE_COPY(SimulatedInput)

    const QString m_name;
    bool m_isValid;
    bool m_level;
};

#endif
