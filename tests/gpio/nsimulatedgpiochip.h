#ifndef NBASE_TESTS_NSIMULATEDGPIOCHIP_H
#define NBASE_TESTS_NSIMULATEDGPIOCHIP_H

#include "support/nsystemcalls.h"

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <linux/gpio.h>

/**
 * Answers the system calls for the GPIO chip "gpiochip0" with the label "simulated" and five lines. One request
 * can be open at a time. The test must have a directory /dev of its own.
 */
class NSimulatedGpioChip
{
public:
    enum { Lines = 5 };

    NSimulatedGpioChip();

    /** Makes the chip appear in /dev, or disappear. */
    static void plugIn();
    static void unplug();

    void setName(int line, const char* name) { m_names[line] = name; }

    /** Requests of lines fail with this error; 0 for none. */
    void setRequestError(int error) { m_requestError = error; }

    /** Reading and writing levels fails with this error; 0 for none. */
    void setLevelError(int error) { m_levelError = error; }

    /** The level of all lines. */
    void setLevel(bool level) { m_level = level; }
    bool level() const { return m_level; }

    /** The last request that did not fail. */
    const gpio_v2_line_request& lastRequest() const { return m_request; }
    int requests() const { return m_requests; }

    /** Queues an event of the requested line. May be called by another thread. */
    bool sendEvent(quint32 id, quint32 sequenceNumber, quint64 time = 0);

    /** Reports that the holder of a line has changed. */
    bool sendChange(quint32 type);

    /** The requested line has nothing to read any more, as the kernel reports a chip that was unplugged. */
    void endEvents();

private:
    Q_DISABLE_COPY(NSimulatedGpioChip)

    qint64 open();
    qint64 readChip(const NSystemCalls::Invocation& invocation);
    qint64 readLine(const NSystemCalls::Invocation& invocation);
    qint64 requestLine(const NSystemCalls::Invocation& invocation);
    qint64 readLevel(const NSystemCalls::Invocation& invocation);
    qint64 writeLevel(const NSystemCalls::Invocation& invocation);
    static int connectedDescriptor(NFileDescriptor* otherEnd);

    QByteArray m_names[Lines];
    int m_requestError;
    int m_levelError;
    bool m_level;
    gpio_v2_line_request m_request;
    int m_requests;
    NFileDescriptor m_chip; ///< the other end of the chip that was opened last
    NFileDescriptor m_line; ///< the other end of the last request
    NSystemCalls::Answer m_open;
    NSystemCalls::Answer m_readChip;
    NSystemCalls::Answer m_readLine;
    NSystemCalls::Answer m_watchLine;
    NSystemCalls::Answer m_requestLine;
    NSystemCalls::Answer m_readLevel;
    NSystemCalls::Answer m_writeLevel;
};

#endif
