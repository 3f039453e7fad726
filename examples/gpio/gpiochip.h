#ifndef NGPIO_GPIOCHIP_H
#define NGPIO_GPIOCHIP_H

#include "descriptor.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <linux/gpio.h>

/**
 * A GPIO chip, opened through its character device, with the second version of the kernel's interface (Linux 5.10,
 * <linux/gpio.h>). Operations that fail set errno.
 */
class GpioChip
{
public:
    GpioChip();

    /** The names of the machine's chips in the order of their numbers: "gpiochip0", "gpiochip1", ... */
    static QStringList names();

    /** @param name for example "gpiochip0". */
    bool open(const QString& name);
    void close();

    QString name() const;
    QString label() const; ///< what the driver calls the chip
    int lineCount() const;

    /** @param text a name, "gpiochip0", a path, "/dev/gpiochip0", a number, "0", or a label. */
    bool isCalled(const QString& text) const;

    /** The descriptor, which does not block. Reports of watched lines are read from it. */
    int descriptor() const;

    bool readLineInfo(int offset, gpio_v2_line_info* info) const;

    /** From now on, the kernel reports when the line is requested, released or configured. */
    bool watchLine(int offset) const;

    /**
     * Requests a line for this process. It is released when the last descriptor of the request is closed.
     * @return the descriptor of the request, or -1.
     */
    int requestLine(int offset, const gpio_v2_line_config& config) const;

private:
    Q_DISABLE_COPY(GpioChip)

    Descriptor m_descriptor;
    QString m_name;
    gpiochip_info m_info;
};

/** A line of a chip. */
struct GpioAddress
{
    GpioAddress();

    /**
     * Finds a line.
     * @param text CHIP:LINE or the name of a line, which only one line may have. For CHIP, see
     *        GpioChip::isCalled(); LINE is the number or the name of a line.
     * @return why the line was not found; an empty text when it was.
     */
    QString find(const QString& text);

    QString chip; ///< for example "gpiochip0"
    int offset;   ///< the number of the line
};

#endif
