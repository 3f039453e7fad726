#ifndef NGPIO_GPIOINPUT_H
#define NGPIO_GPIOINPUT_H

#include "gpioline.h"

#include <nbase/device/nabstractinput.h>

#include <QtCore/QList>

/**
 * A line of a GPIO chip as an input. It is valid while this process holds the line. A line that another process
 * holds, or whose chip is missing, is not valid, and becomes valid when that changes.
 *
 * Edges are reported in the order in which the kernel has detected them; rawState() is the level after the edge
 * that is being reported, even if more of them wait. Receivers of the signals may delete the input.
 */
class GpioInput : public NAbstractInput
{
    Q_OBJECT

public:
    /** What keeps the level of an open contact defined. A chip that has no resistors ignores it. */
    enum Bias { BiasUnchanged, BiasDisabled, BiasPullUp, BiasPullDown };

    struct Settings
    {
        Settings();

        Bias bias;        ///< BiasUnchanged unless it is set
        quint32 debounce; ///< microseconds for which a new level must be stable; 0, the default, for none
        /**
         * Whether changes are reported, which is the default. Without it, rawState() reads the line each time;
         * this is for chips without interrupts.
         */
        bool edges;
    };

    /**
     * Requests the line at once, without a signal.
     * @param line see GpioAddress::find().
     */
    GpioInput(const QString& line, PolarityType polarity, const Settings& settings, QObject* parent);

    bool isValid() const override;
    bool rawState() const override;

    /** Why the input is not valid; empty while it is. */
    QString errorText() const;

    /** When the kernel detected the last reported edge: nanoseconds of the clock CLOCK_MONOTONIC. 0 for no edge.
     */
    quint64 edgeTime() const;

private slots:
    void readEvents();
    void reportStart();
    void reportLoss();

private:
    Q_DISABLE_COPY(GpioInput)

    void start();
    void report(const gpio_v2_line_event& event);

    const bool m_hasEdges;
    GpioLine m_line;
    QList<gpio_v2_line_event> m_events;
    bool m_level;
    quint64 m_edgeTime;
    quint32 m_sequenceNumber;
};

#endif
