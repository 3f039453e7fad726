#ifndef NGPIO_GPIOOUTPUT_H
#define NGPIO_GPIOOUTPUT_H

#include "gpioline.h"
#include "outputguard.h"

#include <nbase/device/nabstractoutput.h>

/**
 * A line of a GPIO chip as an output. It is valid while this process holds the line; see GpioInput. The line
 * becomes an output with its first level in one step, without a pulse of the other level.
 *
 * A level that is set while the output is not valid is driven as soon as it is valid. Receivers of the signal may
 * delete the output.
 */
class GpioOutput : public NAbstractOutput
{
    Q_OBJECT

public:
    enum Drive {
        DrivePushPull,
        DriveOpenDrain, ///< drives low, and leaves high to a resistor
        DriveOpenSource ///< drives high, and leaves low to a resistor
    };

    /** What becomes of the level when the object is destroyed or the process ends, even by a crash. */
    enum End {
        EndUnchanged, ///< nothing is driven; the driver of the chip decides, and most leave the level as it is
        EndLow,
        EndHigh
    };

    struct Settings
    {
        Settings();

        Drive drive; ///< DrivePushPull unless it is set
        End end;     ///< EndUnchanged unless it is set; the others need a child process
    };

    /**
     * Requests the line at once, without a signal.
     * @param line see GpioAddress::find().
     * @param active the first state.
     */
    GpioOutput(const QString& line, PolarityType polarity, bool active, const Settings& settings, QObject* parent);

    bool isValid() const override;

    /** The level that was set last, even if the line of an open drain has another one. */
    bool rawState() const override;

    /** Also requests the line again if the output is not valid. */
    void setRawState(bool level) override;

    /** Why the output is not valid; empty while it is. */
    QString errorText() const;

private slots:
    void reportStart();
    void reportLoss();

private:
    Q_DISABLE_COPY(GpioOutput)

    void startGuard();

    const Settings m_settings;
    bool m_level;
    GpioLine m_line;
    OutputGuard m_guard; ///< destroyed before the line, which is still held then
};

#endif
