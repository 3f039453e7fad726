#ifndef DEMODEVICE_FIRMWAREMESSAGESREQUESTPROCESSOR_H
#define DEMODEVICE_FIRMWAREMESSAGESREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class FirmwareEvents;

/**
 * Serves what the SWUpdate daemon has reported in words about the latest installation: GET answers a list of the
 * documents of the events "firmware-message", the oldest first, see FirmwareEvents. The requests do not keep the
 * session alive: a page sends them by itself.
 */
class FirmwareMessagesRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /** Both must outlive the processor. */
    FirmwareMessagesRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, const FirmwareEvents* events);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

private:
    const FirmwareEvents* m_events;
};

#endif
