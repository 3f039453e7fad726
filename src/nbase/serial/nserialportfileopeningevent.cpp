#include <nbase/serial/nserialportfileopeningevent.h>

#include <unistd.h>

const QEvent::Type NSerialPortFileOpeningEvent::S_EVENT_TYPE = QEvent::Type(QEvent::registerEventType());

NSerialPortFileOpeningEvent::NSerialPortFileOpeningEvent(int descriptor, int errorNumber, int openingNumber)
    : QEvent(S_EVENT_TYPE)
    , m_descriptor(descriptor)
    , m_errorNumber(errorNumber)
    , m_openingNumber(openingNumber)
{
}

NSerialPortFileOpeningEvent::~NSerialPortFileOpeningEvent()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

int NSerialPortFileOpeningEvent::takeDescriptor()
{
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    return descriptor;
}
