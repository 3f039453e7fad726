#ifndef NWEBAPI_NWAFCGIEXCHANGE_P_H
#define NWEBAPI_NWAFCGIEXCHANGE_P_H

#include <QtCore/QByteArray>

class NwaFcgiRequest;

/** One request of a connection, from the record that begins it to the end of its reply. */
class NwaFcgiExchange
{
public:
    /** No request. */
    NwaFcgiExchange();

    /** A request that has just begun. @param id not 0. */
    NwaFcgiExchange(int id, bool keepConnection);

    /** Whether there is a request. */
    bool isActive() const { return id != 0; }

    /** Whether the service gets the request before its body is complete, as soon as there is a request. */
    bool isStreamed() const;

    /** Whether the body has ended and is not as long as announced; the request must exist. */
    bool isBodyBroken() const;

    /** How many bytes of the body have arrived and have not been read. */
    int unreadBodySize() const { return body.size() - bodyRead; }

    void appendToBody(const char* data, int size);

    /** Takes at most @a maximumSize bytes. @return how many. */
    int readBody(char* data, qint64 maximumSize);

    int id;
    bool keepConnection;     ///< more requests may follow on the connection
    QByteArray variables;    ///< as far as they have arrived; empty once there is a request
    NwaFcgiRequest* request; ///< made when its variables are complete
    bool isDispatched;       ///< the request was handed on and is deleted by its owner
    bool hasErrorOutput;     ///< something was written to the error stream, which must be ended as well
    bool hasBodyEnded;
    qint64 receivedBodySize;
    QByteArray body; ///< what is held of it
    int bodyRead;    ///< bytes at the beginning of what is held that were read already
};

#endif
