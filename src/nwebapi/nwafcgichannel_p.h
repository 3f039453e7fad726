#ifndef NWEBAPI_NWAFCGICHANNEL_P_H
#define NWEBAPI_NWAFCGICHANNEL_P_H

#include <nwebapi/nwafcgirequest.h>

/**
 * What carries one request: the request writes to the channel and reads from it; the channel tells the request of
 * what happens. Whichever of the two ends first tells the other.
 */
class NWEBAPI_EXPORT NwaFcgiChannel
{
public:
    virtual ~NwaFcgiChannel() {}

    enum Stream { Output, Error };

    /** Takes @a size bytes of the reply or of the remarks. @return whether they are on their way to the client. */
    virtual bool write(Stream stream, const char* data, int size) = 0;

    /** How many bytes have been written and not been taken yet. When there are none left, the request is told. */
    virtual int replyBacklog() const { return 0; }

    virtual qint64 readBody(char* data, qint64 maximumSize) = 0;
    virtual bool atBodyEnd() const = 0;

    /** The request is complete and forgets the channel. */
    virtual void finish() = 0;

protected:
    static void tellBodyAvailable(NwaFcgiRequest* request);

    /** Nothing of what was written is left to be taken. */
    static void tellReplyTaken(NwaFcgiRequest* request);

    /** The channel ends before the request does. */
    static void tellAborted(NwaFcgiRequest* request);
};

#endif
