#ifndef NWEBAPI_NWAFCGICHANNEL_P_H
#define NWEBAPI_NWAFCGICHANNEL_P_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QtGlobal>

class NwaFcgiRequest;

/**
 * Transports one request: the request writes to the channel and reads from it, and the channel notifies the
 * request. Whichever of the two ends first notifies the other.
 */
class NWEBAPI_EXPORT NwaFcgiChannel
{
public:
    virtual ~NwaFcgiChannel() {}

    enum Stream { Output, Error };

    /** Sends or queues @a size bytes for the output or the error stream. @return false when the channel has ended.
     */
    virtual bool write(Stream stream, const char* data, int size) = 0;

    /** How many bytes are queued. The request is notified when none are left. */
    virtual int replyBacklog() const { return 0; }

    /** Takes at most @a maximumSize bytes of the body. @return how many; -1 when the rest will never come. */
    virtual qint64 readBody(char* data, qint64 maximumSize) = 0;

    /** Whether the whole body has been read, and was as long as announced. */
    virtual bool atBodyEnd() const = 0;

    /** Ends the reply; the request does not use the channel afterwards. */
    virtual void finish() = 0;

protected:
    /** More of the body can be read, or it has ended. */
    static void tellBodyAvailable(NwaFcgiRequest* request);

    /** Everything that was queued has been sent. */
    static void tellReplyTaken(NwaFcgiRequest* request);

    /** The channel ends before the request does. */
    static void tellAborted(NwaFcgiRequest* request);
};

#endif
