#ifndef NGPIO_GPIOLINE_H
#define NGPIO_GPIOLINE_H

#include "descriptor.h"
#include "gpiochip.h"

#include <QtCore/QObject>
#include <QtCore/QString>

#include <linux/gpio.h>

class QSocketNotifier;

/**
 * A line that this process holds whenever it can. If another process or a driver holds it, or its chip is missing
 * or unplugged, the line is requested again as soon as that changes. Nothing is polled: the kernel reports
 * released lines through the chip's descriptor, and chips appear and disappear as files in /dev.
 *
 * Lines belong to the main thread and must not outlive the application object. Receivers of the signals may delete
 * the line.
 */
class GpioLine : public QObject
{
    Q_OBJECT

public:
    /** @param address see GpioAddress::find(). */
    GpioLine(const QString& address, const gpio_v2_line_config& config);
    ~GpioLine() override;

    /** Requests the line unless it is held. Emits nothing. @return whether it is held. */
    bool request();

    bool isHeld() const;

    /** The descriptor of the request while the line is held. */
    int descriptor() const;

    /** Why the line is not held; empty while it is. */
    QString errorText() const;

    /** The configuration of the next request. */
    gpio_v2_line_config& config();

    bool readLevel(bool* level) const;

    /** Drives the level of an output. A line that fails is lost. */
    bool writeLevel(bool level);

    /** Reads up to @a size events. @return how many; a line that fails is lost. */
    int readEvents(gpio_v2_line_event* events, int size);

signals:
    /** The line is held again. */
    void obtained();

    /** The line is no longer held. */
    void lost();

    /** There are events to be read. */
    void eventsArrived();

private slots:
    void readChangesOfHolder();
    void checkChip();
    void requestAgain();

private:
    Q_DISABLE_COPY(GpioLine)

    QString requestFromChip();
    void setNotifier(int descriptor, const char* slot);
    void lose();

    const QString m_address;
    gpio_v2_line_config m_config;
    GpioChip m_chip; ///< open while the line is not held and the chip is there
    int m_offset;
    Descriptor m_line;
    QSocketNotifier* m_notifier; ///< of the line, or of the chip
    QString m_errorText;
};

#endif
