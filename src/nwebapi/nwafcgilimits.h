#ifndef NWEBAPI_NWAFCGILIMITS_H
#define NWEBAPI_NWAFCGILIMITS_H

#include <nwebapi/nwaglobal.h>

/** The limits that an NwaFcgiServer sets its clients. Each is at least 1. */
struct NWEBAPI_EXPORT NwaFcgiLimits
{
    /** Limits that suit a small device. */
    NwaFcgiLimits();

    int connectionCount;    ///< connections at a time; further ones wait
    int variablesSize;      ///< bytes of all variables of a request, including its header fields; 431 beyond
    int querySize;          ///< bytes of the query string; 414 beyond
    int bodySize;           ///< bytes of a body that is not streamed; 413 beyond
    int streamedBodyBuffer; ///< bytes of a streamed body that are held at a time; the client waits beyond
    int replyBuffer;        ///< bytes of a reply that wait for a slow client; the connection is closed beyond
    int bufferedSize;       ///< bytes of requests and replies that all connections hold together; 503 beyond
    int stallTimeout;       ///< seconds without any byte sent or taken by a client that the server waits for
};

#endif
