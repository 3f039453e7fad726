#ifndef NWEBAPI_NWAFCGICONNECTIONOWNER_P_H
#define NWEBAPI_NWAFCGICONNECTIONOWNER_P_H

#include <nwebapi/nwafcgilimits.h>

#include <QtCore/QtGlobal>

#include <memory>

class NwaFcgiConnection;
class NwaFcgiRequest;

/** What a connection needs of the server that keeps it. */
class NwaFcgiConnectionOwner
{
public:
    virtual ~NwaFcgiConnectionOwner() {}

    virtual const NwaFcgiLimits& limits() const = 0;

    /** How many bytes all connections hold together (see NwaFcgiConnection::bufferedSize()). */
    virtual qint64 bufferedSize() const = 0;

    /** Has @a request answered and deleted, now or later. The service may close any connection meanwhile. */
    virtual void dispatch(NwaFcgiRequest* request) = 0;

    /**
     * Has NwaFcgiConnection::processEvents() called when one of @a events occurs on @a socket, and no longer for
     * @a formerEvents (see NwaFcgiPoller::watch()).
     * @return whether it is watched; without events a connection cannot continue.
     */
    virtual bool watch(int socket, int formerEvents, int events) = 0;

    /** Has NwaFcgiConnection::resume() called once from the event loop. */
    virtual void resumeSoon(const std::shared_ptr<NwaFcgiConnection>& connection) = 0;

    /** The connection with @a socket has ended; called before the socket is closed. */
    virtual void forget(int socket) = 0;
};

#endif
