#ifndef NBASE_TESTS_NUSBGPIOADAPTER_H
#define NBASE_TESTS_NUSBGPIOADAPTER_H

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtCore/QWaitCondition>

#include <linux/uhid.h>

/**
 * A USB adapter with a CP2112, for which the kernel's driver hid-cp2112 makes a GPIO chip with eight lines. The
 * driver is the real one; the test answers its HID reports through /dev/uhid (Documentation/hid/uhid.rst in
 * Linux). The reports are those of the chip's interface description, AN495.
 *
 * The driver finds edges by reading the levels every 10 ticks of the kernel, 40 ms.
 */
class NUsbGpioAdapter : private QThread
{
public:
    enum { Lines = 8 };

    NUsbGpioAdapter();
    ~NUsbGpioAdapter() override;

    /** @return whether the kernel has made the chip. */
    bool plugIn();

    /** @return whether the kernel has removed the chip. */
    bool unplug();

    /** Sets what the world outside applies to the lines, a bit for each. Lines that are outputs ignore it. */
    void setLevels(int levels);

    /** The levels of all lines. */
    int levels() const;

    /** The lines that are outputs. */
    int outputs() const;

    /** Waits until the driver has read the levels so many times from now. */
    bool waitForReads(int count);

    /** What the driver has written since the last time, for example "outputs 04, line 2 high" with a hexadecimal
     * mask. */
    QByteArray takeWrites();

private:
    Q_DISABLE_COPY(NUsbGpioAdapter)

    void run() override;
    bool send(const uhid_event& event) const;
    void answer(const uhid_get_report_req& request);
    void take(const uhid_set_report_req& request);
    int currentLevels() const;
    void noteWrite(const QByteArray& text);

    NFileDescriptor m_uhid;
    mutable QMutex m_mutex;
    QWaitCondition m_hasBeenRead;
    bool m_isEnding;
    int m_appliedLevels;
    int m_drivenLevels;
    int m_outputs;
    int m_reads;
    QByteArray m_writes;
};

#endif
