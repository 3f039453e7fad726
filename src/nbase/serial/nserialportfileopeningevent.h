#ifndef NBASE_NSERIALPORTFILEOPENINGEVENT_H
#define NBASE_NSERIALPORTFILEOPENINGEVENT_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QEvent>

/**
 * The result of opening the file of an NSerialPort in another thread. It owns the descriptor until that is taken:
 * an event that is never delivered, because its port has been deleted for example, closes it.
 */
class NBASE_EXPORT NSerialPortFileOpeningEvent : public QEvent
{
public:
    /** The type of these events. */
    static const QEvent::Type S_EVENT_TYPE;

    /**
     * @param descriptor what open(2) returned, -1 on failure.
     * @param errorNumber errno of that call.
     * @param openingNumber see NSerialPortFileOpeningWorkerThread::openingNumber(); 0 for that of no thread.
     */
    NSerialPortFileOpeningEvent(int descriptor, int errorNumber, int openingNumber = 0);
    ~NSerialPortFileOpeningEvent() override;

    /** -1 on failure, and after takeDescriptor(). */
    int descriptor() const { return m_descriptor; }

    /** errno of a failure. */
    int errorNumber() const { return m_errorNumber; }

    /** The number of the thread that posted it, see NSerialPortFileOpeningWorkerThread; 0 for none. */
    int openingNumber() const { return m_openingNumber; }

    /** Gives the descriptor, or -1, to the caller, who must close it. */
    int takeDescriptor();

private:
    Q_DISABLE_COPY(NSerialPortFileOpeningEvent)

    int m_descriptor;
    int m_errorNumber;
    int m_openingNumber;
};

#endif
