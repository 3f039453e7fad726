#ifndef NBASE_NABSTRACTOUTPUT_H
#define NBASE_NABSTRACTOUTPUT_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QObject>

/**
 * A digital output of the device, such as a relay. A derived class drives the electrical level; this class derives
 * the level from the logical state, which depends on the wiring:
 *
 * | State | PolarityNo | PolarityNc |
 * |---|---|---|
 * | active | high | low |
 * | inactive | low | high |
 *
 * A derived class emits stateChanged() after the level or isValid() has changed. Receivers of the signal may
 * delete the output unless the derived class excludes it.
 */
class NBASE_EXPORT NAbstractOutput : public QObject
{
    Q_OBJECT
    Q_ENUMS(PolarityType)

public:
    /** How the load is wired. */
    enum PolarityType {
        PolarityNo = 0, ///< normally open: active while the level is high
        PolarityNc = 1  ///< normally closed: active while the level is low
    };

    /** @param polarity how the relay is wired. */
    NAbstractOutput(NAbstractOutput::PolarityType polarity, QObject* parent);
    ~NAbstractOutput() override;

    /** Whether the output can be driven at all. */
    virtual bool isValid() const = 0;

    /** The electrical level that is driven: true for high. It has no meaning while isValid() is false. */
    virtual bool rawState() const = 0;

    /** Drives the electrical level: high if @a level is true. The derived class reports the change. */
    virtual void setRawState(bool level) = 0;

    /** The logical state, from the level and the polarity; false while isValid() is false. */
    bool isActive() const;

    /**
     * Drives the level that @a active stands for with the present polarity. setRawState() is called in any case,
     * also if the output is invalid or is in this state already.
     */
    void setActive(bool active);

    /** How it is wired. */
    PolarityType polarity() const;

    /**
     * Changes the meaning of the level, which remains the same. If the polarity is another one and the output is
     * valid, stateChanged() is emitted before the function returns, because the logical state is now the opposite.
     */
    void setPolarity(PolarityType polarity);

signals:
    /** The level, the validity or the polarity has changed. @a active is the logical state, see isActive(). */
    void stateChanged(bool valid, bool active);

private:
    Q_DISABLE_COPY(NAbstractOutput)

    PolarityType m_polarity;
};

#endif
