#ifndef DEMODEVICE_STREAMREQUESTPROCESSOR_H
#define DEMODEVICE_STREAMREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NwaEventStreams;

/**
 * GET opens the event stream of the session. It does not keep the session alive. For the events of a session see
 * NetworkEvents. All sessions get "io", the document of IoRequestProcessor, when an input or output has changed,
 * and "alive" every 15 seconds, by which a page notices a connection that has broken without a sign.
 */
class StreamRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /** Both must outlive the processor. */
    StreamRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, NwaEventStreams* streams);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

private:
    NwaEventStreams* m_streams;
};

#endif
