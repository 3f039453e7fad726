#ifndef NBASE_NABSTRACTINPUT_H
#define NBASE_NABSTRACTINPUT_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QObject>

/**
 * A digital input of the device, such as a contact. A derived class reads the electrical level; this class turns
 * it into the logical state, which depends on the wiring:
 *
 * | Level | PolarityNo | PolarityNc |
 * |---|---|---|
 * | high | active | inactive |
 * | low | inactive | active |
 *
 * A derived class emits stateChanged() when the level or isValid() has changed, and risingInterrupt() and
 * fallingInterrupt() for the edges of the level. Receivers of the signals may delete the input unless the derived
 * class excludes it.
 */
class NBASE_EXPORT NAbstractInput : public QObject
{
    Q_OBJECT
    Q_ENUMS(PolarityType)

public:
    /** How the contact is wired. */
    enum PolarityType {
        PolarityNo = 0, ///< normally open: active while the level is high
        PolarityNc = 1  ///< normally closed: active while the level is low
    };

    /** @param polarity how the contact is wired. */
    NAbstractInput(NAbstractInput::PolarityType polarity, QObject* parent);
    ~NAbstractInput() override;

    /** Whether the input can be read at all. */
    virtual bool isValid() const = 0;

    /** The electrical level: true for high. It has no meaning while isValid() is false. */
    virtual bool rawState() const = 0;

    /** The logical state, from the level and the polarity; false while isValid() is false. */
    bool isActive() const;

    /** How it is wired. */
    PolarityType polarity() const;

    /**
     * Changes the meaning of the level. If the polarity is another one and the input is valid, stateChanged() is
     * emitted before the function returns, because the logical state is now the opposite.
     */
    void setPolarity(PolarityType polarity);

signals:
    /** The level, the validity or the polarity has changed. @a active is the logical state, see isActive(). */
    void stateChanged(bool valid, bool active);

    /** The level has changed from low to high, whatever the polarity is. */
    void risingInterrupt();

    /** The level has changed from high to low, whatever the polarity is. */
    void fallingInterrupt();

private:
    Q_DISABLE_COPY(NAbstractInput)

    PolarityType m_polarity;
};

#endif
